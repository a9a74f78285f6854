#include "quorlix/location/LocationSettings.h"

#include "Files.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

namespace Quorlix {
namespace {

using namespace std::chrono_literals;

const QUuid family = QUuid::fromString(QStringLiteral("E1876979-75B5-43DE-92CB-2BC1AD6BA999"));

LocationSettings calibrated()
{
    LocationSettings settings;
    settings.exitPeriod = 12'500ms;
    settings.pathLossExponent = 2.4;
    settings.immediateLimitM = 0.3;
    settings.nearLimitM = 4;
    settings.measuredPower.insert({family, 12, 7}, -71);
    settings.measuredPower.insert({family, 65535, 0}, -60);
    settings.rssiOffset.insert(QStringLiteral("00:1A:7D:DA:71:13"), -2.5);
    return settings;
}

TEST(LocationSettings, BadValuesAreRefusedNamingTheMember)
{
    const struct
    {
        const char* json;
        const char* message;
    } cases[] = {
        {R"({"exitPeriod": 0})", "exitPeriod: 0 is outside 0.1 to 86400"},
        {R"({"exitPeriod": 1e400})", "line 1: not valid JSON"},
        {R"({"pathLossExponent": "2"})", "pathLossExponent: expected a number"},
        {R"({"nearLimit": 0.3})", "band limits"},
        {R"({"frequency": 1})", "frequency: unknown member"},
        // A name from the file is quoted to at most 40 characters.
        {"{\"#\": 1}", "cal.json: #####################################...: unknown member"},
        {R"({"receivers": [{"address": "00:1A:7D:DA:71:13", "#": 1}]})",
         "receivers[0].#####################################...: unknown member"},
        {R"([1])", "expected an object"},
        {R"({"beacons": {}})", "beacons: expected a list"},
        {R"({"beacons": [{"uuid": "x", "major": 1, "minor": 2, "measuredPower": -59}]})",
         "beacons[0].uuid: expected a UUID text"},
        // @ stands for a good uuid member.
        {R"({"beacons": [{@ "major": 70000, "minor": 2, "measuredPower": -59}]})",
         "beacons[0].major: 70000 is outside 0 to 65535"},
        {R"({"beacons": [{@ "major": 1, "minor": 2, "measuredPower": 0}]})",
         "beacons[0].measuredPower"},
        {R"({"beacons": [{@ "major": 1, "minor": 2.5, "measuredPower": -59}]})",
         "beacons[0].minor: expected a whole number"},
        {R"({"beacons": [{@ "major": 1}]})", "beacons[0].minor: missing"},
        {R"({"receivers": [{"address": "hci0", "rssiOffset": 1}]})",
         "receivers[0].address: expected an adapter address"},
        {R"({"receivers": [{"address": "00:1A:7D:DA:71:13", "rssiOffset": 80}]})",
         "receivers[0].rssiOffset"},
        {"{\n\"exitPeriod\": 3,\n}", "line 3"},
        {"", "not valid JSON"},
    };
    for (const auto& c : cases) {
        QString error;
        const QByteArray json =
            QByteArray(c.json)
                .replace('@', R"("uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999",)")
                .replace("#", QByteArray(1800, '#'));
        EXPECT_FALSE(LocationSettings::parse(json, QStringLiteral("cal.json"), &error)) << c.json;
        EXPECT_TRUE(error.startsWith(u"calibration cal.json: ") && error.contains(c.message) &&
                    error.size() < 200)
            << c.json << " -> " << error.toStdString();
    }
    const QByteArray deep = QByteArray(100'000, '[') + QByteArray(100'000, ']');
    QString error;
    EXPECT_FALSE(LocationSettings::parse(deep, QStringLiteral("deep"), &error));
    EXPECT_EQ(LocationSettings::parse("{}", QStringLiteral("empty"), &error), LocationSettings{});
    EXPECT_FALSE(LocationSettings::load(QStringLiteral("/dev/zero"), &error));
}

TEST(LocationSettings, DefaultsComeFromTheCalibrationFileAndRefuseProblems)
{
    QTemporaryDir dir;
    const QString good = dir.filePath(QStringLiteral("good.json"));
    const QString bad = Testing::writeFile(dir.path(), "bad.json", R"({"nearLimit": -1})");
    QString error;
    ASSERT_TRUE(calibrated().save(good, &error));
    // defaults() reads the environment once per process: each case runs in a fresh one. The good
    // file makes save and load round-trip.
    const auto defaultsFrom = [](const QString& file, const LocationSettings& expected) {
        qputenv(LocationSettings::fileVariable, file.toLocal8Bit());
        std::exit(LocationSettings::defaults() == expected ? 0 : 1);
    };
    EXPECT_EXIT(defaultsFrom(good, calibrated()), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(defaultsFrom(bad, {}), testing::ExitedWithCode(0),
                "quorlix.platform.location.*nearLimit.*built-in values stay");

    LocationSettings wrong;
    wrong.immediateLimitM = 5;
    EXPECT_FALSE(LocationSettings::setDefaults(wrong, &error));
    EXPECT_TRUE(error.contains(u"band limits")) << error.toStdString();
    EXPECT_NE(LocationSettings::defaults(), wrong);
    ASSERT_TRUE(LocationSettings::setDefaults(calibrated()));
    EXPECT_EQ(LocationSettings::defaults(), calibrated());
    ASSERT_TRUE(LocationSettings::setDefaults({}));
}

} // namespace
} // namespace Quorlix
