#include "DemoOptions.h"

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

TEST(DemoOptions, AcceptsBothValueForms)
{
    const DemoOptions options =
        DemoOptions::parse({"--headless", "--seconds", "7", "--pick=cancel", "--directory",
                            "[::1]:8080", "--exit-period=4"});
    EXPECT_TRUE(options.error.isEmpty() && options.headless && options.device == "1047")
        << options.error.toStdString();
    EXPECT_EQ(std::tie(options.seconds, options.pick, options.directory, options.exitPeriod),
              std::tuple(7, DemoOptions::Pick::Cancel, QString("[::1]:8080"), 4));
    const DemoOptions none = DemoOptions::parse({});
    EXPECT_TRUE(none.error.isEmpty() && !none.headless && !none.seconds && !none.pick &&
                !none.exitPeriod && none.source.isEmpty());
}
