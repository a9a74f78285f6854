#include "DemoOptions.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using QuorlixDemo::DemoOptions;

namespace {

struct Rejected
{
    QStringList arguments;
    const char* messagePart;
};

void PrintTo(const Rejected& rejected, std::ostream* out)
{
    *out << rejected.arguments.join(u' ').toStdString();
}

class RejectedArguments : public testing::TestWithParam<Rejected>
{};

TEST_P(RejectedArguments, NameTheProblem)
{
    const DemoOptions options = DemoOptions::parse(GetParam().arguments);
    EXPECT_TRUE(options.error.contains(QString::fromUtf8(GetParam().messagePart)))
        << "arguments: " << GetParam().arguments.join(u' ').toStdString()
        << "\nerror: " << options.error.toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    DemoOptions, RejectedArguments,
    testing::Values(
        Rejected{{"--seconds"}, "--seconds needs a value"}, Rejected{{"--seconds", "0"}, "not '0'"},
        Rejected{{"--seconds", "86401"}, "not '86401'"}, Rejected{{"--seconds", "5s"}, "not '5s'"},
        Rejected{{"--seconds="}, "not ''"}, Rejected{{"--filter", "-1"}, "from 0 to 3600"},
        Rejected{{"--pick", "second"}, "first, cancel or none"},
        Rejected{{"--directory", "http://localhost:8080"}, "host[:port]"},
        Rejected{{"--directory", "localhost:"}, "host[:port]"},
        Rejected{{"--directory", "localhost:0"}, "'0' is not a port number"},
        Rejected{{"--directory", "localhost:65536"}, "'65536' is not a port number"},
        Rejected{{"--source", "simulate:"}, "needs a file"},
        Rejected{{"--source", "replay:/no/such/trace.json"}, "cannot read the replay file"},
        Rejected{{"--source", "/tmp"}, "bluez, simulate:<file> or replay:<file>"},
        Rejected{{"--source", "simulate:/tmp"}, "cannot read the simulate file"},
        Rejected{{"--device="}, "--device needs a non-empty value"},
        Rejected{{"--headless=yes"}, "--headless takes no value"},
        Rejected{{"--frobnicate"}, "unknown option '--frobnicate'"},
        Rejected{{"--seconds", "5", "extra"}, "unexpected argument 'extra'"},
        // The value of the last option is taken even when it looks like an option, so the
        // stray word after it is what gets reported.
        Rejected{{"--device", "--headless", "x"}, "unexpected argument 'x'"}));

TEST(DemoOptions, AcceptsBothValueFormsAndKeepsDefaultsForTheRest)
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
    EXPECT_TRUE(spaced.source.isEmpty());

    const DemoOptions joined = DemoOptions::parse(
        {"--seconds=7", "--pick=cancel", "--directory=[::1]:8080", "--headless"});
    EXPECT_TRUE(joined.error.isEmpty()) << joined.error.toStdString();
    EXPECT_EQ(joined.seconds, spaced.seconds);
    EXPECT_EQ(joined.pick, spaced.pick);
    EXPECT_EQ(joined.directory, spaced.directory);

    const DemoOptions none = DemoOptions::parse({});
    EXPECT_TRUE(none.error.isEmpty());
    EXPECT_FALSE(none.headless);
    EXPECT_FALSE(none.seconds.has_value()); // the run decides: until closed, or 20 s headless
    EXPECT_FALSE(none.pick.has_value());
    EXPECT_FALSE(none.exitPeriod.has_value());
}

TEST(DemoOptions, SourceFilesBecomeAbsoluteSoTheLibrarySeesTheSameFile)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    QFile scenario(dir.filePath("beacons.json"));
    ASSERT_TRUE(scenario.open(QIODevice::WriteOnly));
    scenario.write("{}");
    scenario.close();

    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(dir.path()));
    const DemoOptions simulate = DemoOptions::parse({"--source", "simulate:beacons.json"});
    const DemoOptions replay = DemoOptions::parse({"--source=replay:./beacons.json"});
    QDir::setCurrent(previous);

    EXPECT_TRUE(simulate.error.isEmpty()) << simulate.error.toStdString();
    EXPECT_EQ(simulate.source, "simulate:" + QFileInfo(scenario).absoluteFilePath());
    EXPECT_EQ(replay.source, "replay:" + QFileInfo(scenario).absoluteFilePath());
    EXPECT_EQ(DemoOptions::parse({"--source", "bluez"}).source, "bluez");
}

} // namespace
