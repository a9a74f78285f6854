// The main of every test program: one QApplication, made before any test (widgets, timers and the
// main queue need it), on the offscreen platform unless a test run chose a display.
#include <QApplication>
#include <QDir>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // Death tests re-run the program rather than fork a process that holds Qt's state.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::InitGoogleTest(&argc, argv);
    // Qt warns on every start without one, and death tests read standard error.
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR")) {
        const QString runtime =
            QDir::tempPath() + QStringLiteral("/quorlix-test-runtime-%1").arg(getuid());
        mkdir(QFile::encodeName(runtime).constData(), 0700);
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime));
    }
    // The one test of a process without an application says so through the environment, which
    // its death test's child inherits.
    if (qEnvironmentVariableIsSet("QUORLIX_TEST_NO_APPLICATION"))
        return RUN_ALL_TESTS();
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("QuorlixTests"));
    return RUN_ALL_TESTS();
}
