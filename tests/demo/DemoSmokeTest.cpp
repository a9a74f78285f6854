// Runs the real quorlix-demo program: headless on the shipped simulated scenario with its
// in-process directory service, and with bad arguments.

#include <QImage>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

struct DemoResult
{
    int exitCode = -1;
    QString out;
    QString err;
};

DemoResult runDemo(const QStringList& arguments, const QString& configHome, int timeoutMs = 30000)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // The key store goes to a scratch settings directory, never the user's.
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome);
    environment.remove(QStringLiteral("DISPLAY"));
    environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
    environment.remove(QStringLiteral("QUORLIX_DIRECTORY_HOST"));
    environment.remove(QStringLiteral("QUORLIX_LOCATION_SOURCE"));
    QProcess demo;
    demo.setProcessEnvironment(environment);
    demo.start(QStringLiteral(QUORLIX_DEMO_PROGRAM), arguments);
    DemoResult run;
    if (!demo.waitForFinished(timeoutMs)) {
        demo.kill();
        demo.waitForFinished();
        run.err = QStringLiteral("timed out\n");
    } else if (demo.exitStatus() == QProcess::NormalExit) {
        run.exitCode = demo.exitCode();
    }
    run.out = QString::fromUtf8(demo.readAllStandardOutput());
    run.err += QString::fromUtf8(demo.readAllStandardError());
    return run;
}

// The demo's event lines: "  12.3 s  <kind> <text>".
QStringList events(const QString& out, const QString& kind)
{
    QStringList found;
    const QRegularExpression line(QStringLiteral("^ *[0-9]+\\.[0-9] s  %1 +(.*)$").arg(kind),
                                  QRegularExpression::MultilineOption);
    for (auto it = line.globalMatch(out); it.hasNext();)
        found << it.next().captured(1);
    return found;
}

void expectPicture(const QString& path, int minWidth, int minHeight)
{
    const QImage image(path);
    ASSERT_FALSE(image.isNull()) << "not a readable image: " << path.toStdString();
    EXPECT_GE(image.width(), minWidth) << path.toStdString();
    EXPECT_GE(image.height(), minHeight) << path.toStdString();
    // A rendered screen has text on a background: many colours, not a blank or single-colour
    // rectangle.
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 2)
        for (int x = 0; x < image.width(); x += 2)
            colours.insert(image.pixel(x, y));
    EXPECT_GE(colours.size(), 8) << path.toStdString();
}

TEST(DemoSmoke, HeadlessRunWatchesPairsStoresAndTakesScreenshots)
{
    QTemporaryDir scratch;
    ASSERT_TRUE(scratch.isValid());
    const QString shots = scratch.filePath(QStringLiteral("shots"));
    const DemoResult run = runDemo({"--headless", "--seconds", "8", "--screenshots", shots},
                                   scratch.filePath(QStringLiteral("config")));
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString() << run.out.toStdString();
    const std::string log = run.out.toStdString();

    EXPECT_EQ(events(run.out, "watch"), QStringList{"device 1047, beacon 12-7"}) << log;
    EXPECT_FALSE(events(run.out, "entry").isEmpty()) << log;
    const QStringList rangings = events(run.out, "range");
    EXPECT_GE(rangings.size(), 3) << log;
    const QRegularExpression ranging(
        QStringLiteral("^device 1047  rssi -?[0-9]+ dBm  distance (Immediate|Near|Far|Unknown)$"));
    for (const QString& line : rangings)
        EXPECT_TRUE(ranging.match(line).hasMatch()) << line.toStdString();

    const QStringList paired = events(run.out, "paired");
    ASSERT_EQ(paired.size(), 1) << log;
    const QRegularExpression chose(QStringLiteral("^chose device (1047|1048|2001|2002|3100)$"));
    const QRegularExpressionMatch choice = chose.match(paired.first());
    ASSERT_TRUE(choice.hasMatch()) << paired.first().toStdString();
    const QString key = choice.captured(1);
    // The library's own log of the pairing sits in the same stream.
    EXPECT_TRUE(run.out.contains(QStringLiteral("\nsaving device keys\n"))) << log;

    const QStringList summary = events(run.out, "summary");
    ASSERT_EQ(summary.size(), 1) << log;
    EXPECT_TRUE(summary.first().contains(QStringLiteral("chosen key ") + key)) << log;
    EXPECT_TRUE(QRegularExpression(QStringLiteral("stored keys .*\\b%1\\b").arg(key))
                    .match(summary.first())
                    .hasMatch())
        << log;

    expectPicture(shots + QStringLiteral("/main-window.png"), 400, 300);
    expectPicture(shots + QStringLiteral("/pairing-screen.png"), 300, 300);

    // The next start of the host reloads the stored key.
    const DemoResult again = runDemo({"--headless", "--seconds", "1", "--pick", "none"},
                                     scratch.filePath(QStringLiteral("config")));
    ASSERT_EQ(again.exitCode, 0) << again.err.toStdString();
    const QStringList stored = events(again.out, "store");
    ASSERT_FALSE(stored.isEmpty()) << again.out.toStdString();
    EXPECT_TRUE(stored.first().contains(key)) << again.out.toStdString();
}

TEST(DemoSmoke, BadStartsEndWithAMessageAndAnExitCode)
{
    QTemporaryDir scratch;
    ASSERT_TRUE(scratch.isValid());
    const struct
    {
        QStringList arguments;
        int exitCode;
        const char* messagePart;
        bool usage;
    } cases[] = {
        {{"--seconds", "0"}, 2, "--seconds wants whole seconds", true},
        {{"--bogus"}, 2, "unknown option '--bogus'", true},
        {{"--source", "simulate:/no/such/scenario.json"}, 2, "cannot read the simulate file", true},
        {{"--headless", "--device", "9999"}, 2, "does not know device 9999", false},
        {{"--headless", "--directory", "127.0.0.1:1"}, 1, "does not answer", false},
    };
    for (const auto& c : cases) {
        const DemoResult run = runDemo(c.arguments, scratch.path());
        const std::string what =
            c.arguments.join(u' ').toStdString() + "\n" + run.err.toStdString();
        EXPECT_EQ(run.exitCode, c.exitCode) << what;
        EXPECT_TRUE(run.err.contains(QString::fromUtf8(c.messagePart))) << what;
        EXPECT_EQ(run.err.contains(QStringLiteral("usage: quorlix-demo")), c.usage) << what;
    }
}

} // namespace
