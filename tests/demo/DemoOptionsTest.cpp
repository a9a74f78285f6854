#include "DemoOptions.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using QuorlixDemo::DemoOptions;

namespace {

TEST(DemoOptions, RejectedArgumentsNameTheProblem)
{
    // clang-format off
    const std::pair<QStringList, const char*> cases[] = {
        {{"--seconds"}, "--seconds needs a value"}, {{"--seconds", "0"}, "not '0'"},
        {{"--seconds", "86401"}, "not '86401'"}, {{"--seconds", "5s"}, "not '5s'"},
        {{"--seconds="}, "not ''"}, {{"--filter", "-1"}, "from 0 to 3600"},
        {{"--pick", "second"}, "first, cancel or none"},
        {{"--directory", "http://localhost:8080"}, "host[:port]"},
        {{"--directory", "localhost:"}, "host[:port]"},
        {{"--directory", "localhost:0"}, "'0' is not a port number"},
        {{"--directory", "localhost:65536"}, "'65536' is not a port number"},
        {{"--source", "simulate:"}, "needs a file"},
        {{"--source", "replay:/no/such/trace.json"}, "cannot read the replay file"},
        {{"--source", "/tmp"}, "bluez, simulate:<file> or replay:<file>"},
        {{"--source", "simulate:/tmp"}, "cannot read the simulate file"},
        {{"--device="}, "--device needs a non-empty value"},
        {{"--headless=yes"}, "--headless takes no value"},
        {{"--frobnicate"}, "unknown option '--frobnicate'"},
        {{"--seconds", "5", "extra"}, "unexpected argument 'extra'"},
        // The value of the last option is taken even when it looks like an option.
        {{"--device", "--headless", "x"}, "unexpected argument 'x'"}};
    // clang-format on
    for (const auto& [arguments, message] : cases)
        EXPECT_TRUE(DemoOptions::parse(arguments).error.contains(QString::fromUtf8(message)))
            << arguments.join(u' ').toStdString() << ": "
            << DemoOptions::parse(arguments).error.toStdString();
}

TEST(DemoOptions, AcceptsBothValueFormsAndMakesSourceFilesAbsolute)
{
    const DemoOptions spaced =
        DemoOptions::parse({"--headless", "--seconds", "7", "--pick", "cancel", "--directory",
                            "[::1]:8080", "--exit-period", "4"});
    ASSERT_TRUE(spaced.error.isEmpty()) << spaced.error.toStdString();
    EXPECT_TRUE(spaced.headless);
    EXPECT_EQ(spaced.seconds, 7);
    EXPECT_EQ(spaced.pick, DemoOptions::Pick::Cancel);
    EXPECT_EQ(spaced.directory, "[::1]:8080");
    EXPECT_EQ(spaced.exitPeriod, 4);
    EXPECT_EQ(spaced.device, "1047");
    const DemoOptions joined = DemoOptions::parse(
        {"--seconds=7", "--pick=cancel", "--directory=[::1]:8080", "--headless"});
    EXPECT_TRUE(joined.error.isEmpty()) << joined.error.toStdString();
    EXPECT_EQ(std::tie(joined.seconds, joined.pick, joined.directory),
              std::tie(spaced.seconds, spaced.pick, spaced.directory));
    const DemoOptions none = DemoOptions::parse({});
    EXPECT_TRUE(none.error.isEmpty() && !none.headless && !none.seconds && !none.pick &&
                !none.exitPeriod && none.source.isEmpty());

    // Relative files become absolute, so that the library sees the same file.
    QTemporaryDir dir;
    QFile scenario(dir.filePath("beacons.json"));
    ASSERT_TRUE(scenario.open(QIODevice::WriteOnly));
    scenario.close();
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(dir.path()));
    const DemoOptions simulate = DemoOptions::parse({"--source", "simulate:beacons.json"});
    const DemoOptions replay = DemoOptions::parse({"--source=replay:./beacons.json"});
    QDir::setCurrent(previous);
    EXPECT_EQ(simulate.source, "simulate:" + QFileInfo(scenario).absoluteFilePath());
    EXPECT_EQ(replay.source, "replay:" + QFileInfo(scenario).absoluteFilePath());
    EXPECT_EQ(DemoOptions::parse({"--source", "bluez"}).source, "bluez");
}

} // namespace
