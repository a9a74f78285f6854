// The main of the test programs that need a QApplication: it must exist before any widget, and
// QT_QPA_PLATFORM must be set before it is made, also when CTest lists the tests at build time.
#include <QApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // Death tests re-run the program rather than fork a process that holds Qt's state.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::InitGoogleTest(&argc, argv);
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("QuorlixTests"));
    return RUN_ALL_TESTS();
}
