// Runs the real quorlix-demo program: headless on the shipped simulated scenario with its
// in-process directory service, and with bad arguments.

#include "quorlix/platform/UserDefaults.h"

#include "ProgramRun.h"

#include <QImage>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <tuple>

namespace {

using namespace Quorlix::Testing;

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

// A picture of at least this size with text on a background: many colours, not a blank rectangle.
void expectPicture(const QString& path, QSize least, QSize most = {1 << 20, 1 << 20})
{
    const QImage image(path);
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 2)
        for (int x = 0; x < image.width(); x += 2)
            colours.insert(image.pixel(x, y));
    EXPECT_TRUE(least.boundedTo(image.size()) == least && most.expandedTo(image.size()) == most &&
                colours.size() >= 8)
        << path.toStdString() << ": " << image.width() << "x" << image.height() << ", "
        << colours.size() << " colours";
}

// At 150% on a 1280x800 screen, with a stored key the directory no longer knows (which would stop
// the library at Pair).
TEST(DemoSmoke, HeadlessRunWatchesPairsStoresAndTakesScreenshots)
{
    QTemporaryDir scratch;
    const QString shots = scratch.filePath(QStringLiteral("shots"));
    Quorlix::UserDefaults store(
        scratch.filePath(QStringLiteral(".config/Quorlix/quorlix-demo.json")));
    ASSERT_TRUE(store.setStringArray("VeskDeviceManagerKeys", {"1048", "9999"}));
    const QString screen =
        writeFile(scratch.path(), "screen.json",
                  R"({"screens": [{"name": "s", "x": 0, "y": 0, "width": 1280, "height": 800}]})");
    const ProgramRun run = runProgram(
        QUORLIX_DEMO_PROGRAM, {"--headless", "--seconds", "8", "--screenshots", shots},
        scratch.path(), {"QT_QPA_PLATFORM=offscreen:configfile=" + screen, "QT_SCALE_FACTOR=1.5"});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString() << run.out.toStdString();
    const std::string log = run.out.toStdString();
    const QStringList storeLines = events(run.out, "store");
    ASSERT_GE(storeLines.size(), 2) << log;
    EXPECT_EQ(storeLines[1], "kept aside in the key store under QuorlixDemoSetAsideKeys: 9999");

    // Watching, ranging, the choice, the library's own log of the pairing in the same stream, and
    // the summary.
    const QStringList paired = events(run.out, "paired");
    ASSERT_EQ(paired.size(), 1) << log;
    const QString key = paired.first().section(u' ', -1);
    for (const char* pattern :
         {"s  watch +device 1047, beacon 12-7$", "s  entry ", "s  paired +chose device [0-9]+$",
          "(s  range +device 1047  rssi -?[0-9]+ dBm  distance "
          "(Immediate|Near|Far|Unknown)$[\\s\\S]*){3}",
          "^saving device keys$", "s  summary .*chosen key KEY, .*stored keys .*\\bKEY\\b"})
        EXPECT_TRUE(QRegularExpression(QString(pattern).replace("KEY", key),
                                       QRegularExpression::MultilineOption)
                        .match(run.out)
                        .hasMatch())
            << pattern << "\n"
            << log;

    // Screenshots are in device pixels: the window and its frame fit the 800 pixels.
    expectPicture(shots + QStringLiteral("/main-window.png"), {600, 450}, {1280, 800 - 30});
    expectPicture(shots + QStringLiteral("/pairing-screen.png"), {450, 630});
}

TEST(DemoSmoke, BadStartsEndWithAMessageAndAnExitCode)
{
    QTemporaryDir scratch;
    // clang-format off
    const std::tuple<QStringList, int, const char*, bool> cases[] = {
        {{"--bogus"}, 2, "unknown option '--bogus'", true},
        {{"--headless", "--device", "9999"}, 2, "does not know device 9999", false},
        {{"--headless", "--directory", "127.0.0.1:1"}, 1, "does not answer", false}};
    // clang-format on
    for (const auto& [arguments, exitCode, message, usage] : cases) {
        const ProgramRun run = runProgram(QUORLIX_DEMO_PROGRAM, arguments, scratch.path());
        const std::string what = arguments.join(u' ').toStdString() + "\n" + run.err.toStdString();
        EXPECT_EQ(run.exitCode, exitCode) << what;
        EXPECT_TRUE(run.err.contains(QString::fromUtf8(message))) << what;
        EXPECT_EQ(run.err.contains(QStringLiteral("usage: quorlix-demo")), usage) << what;
    }
    const ProgramRun version = runProgram(QUORLIX_DEMO_PROGRAM, {"--version"}, scratch.path());
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, QStringLiteral("quorlix-demo " QUORLIX_VERSION "\n"));
}

} // namespace
