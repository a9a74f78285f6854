#include "DemoOptions.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using QuorlixDemo::DemoOptions;

TEST(DemoOptions, RejectedArgumentsNameTheProblem)
{
    // clang-format off
    const std::pair<QStringList, const char*> cases[] = {
        {{"--seconds"}, "--seconds needs a value"}, {{"--seconds", "86401"}, "not '86401'"},
        {{"--seconds="}, "not ''"}, {{"--seconds", "0"}, "not '0'"}, {{"--seconds", "5s"}, "'5s'"},
        {{"--filter", "-1"}, "from 0 to 3600"}, {{"--pick", "second"}, "first, cancel or none"},
        {{"--directory", "localhost:"}, "host[:port]"},
        {{"--directory", "http://localhost:8080"}, "host[:port]"},
        {{"--directory", "localhost:65536"}, "'65536' is not a port number"},
        {{"--directory", "localhost:0"}, "'0' is not a port number"},
        {{"--source", "simulate:"}, "needs a file"}, {{"--device="}, "needs a non-empty value"},
        {{"--source", "replay:/no/such/trace.json"}, "cannot read the replay file"},
        {{"--source", "/tmp"}, "bluez, simulate:<file> or replay:<file>"},
        {{"--source", "simulate:/tmp"}, "cannot read the simulate file"},
        {{"--headless=yes"}, "--headless takes no value"},
        {{"--seconds", "5", "extra"}, "unexpected argument 'extra'"},
        // The value of the last option is taken even when it looks like an option.
        {{"--device", "--headless", "x"}, "unexpected argument 'x'"}};
    // clang-format on
    for (const auto& [arguments, message] : cases) {
        const QString error = DemoOptions::parse(arguments).error;
        EXPECT_TRUE(error.contains(QString::fromUtf8(message)))
            << arguments.join(u' ').toStdString() << ": " << error.toStdString();
    }
}

TEST(DemoOptions, AcceptsBothValueFormsAndMakesSourceFilesAbsolute)
{
    for (const QStringList& arguments :
         {QStringList{"--headless", "--seconds", "7", "--pick", "cancel", "--directory",
                      "[::1]:8080", "--exit-period", "4"},
          QStringList{"--seconds=7", "--pick=cancel", "--directory=[::1]:8080", "--headless",
                      "--exit-period=4"}}) {
        const DemoOptions options = DemoOptions::parse(arguments);
        EXPECT_TRUE(options.error.isEmpty() && options.headless && options.device == "1047")
            << options.error.toStdString();
        EXPECT_EQ(std::tie(options.seconds, options.pick, options.directory, options.exitPeriod),
                  std::tuple(7, DemoOptions::Pick::Cancel, QString("[::1]:8080"), 4));
    }
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
