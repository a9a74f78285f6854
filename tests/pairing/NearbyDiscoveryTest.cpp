#include "quorlix/pairing/NearbyDiscovery.h"
#include "quorlix/ui/DeviceListViewController.h"

#include "StdoutCapture.h"

#include <QSignalSpy>

#include <gtest/gtest.h>

using namespace Quorlix;
using Quorlix::Testing::StdoutCapture;
using Reading = NearbyDiscovery::Reading;
using Keys = QHash<QString, QString>;

namespace {

constexpr char nilStop[] = "fatal error: unexpectedly found nil while unwrapping an Optional value";

struct DiscoveryCase
{
    const char* name;
    Keys keys;
    QStringList items;
    QList<Reading> readings;
    Keys directory; // what the lookup knows; anything else is ""
    QStringList expectedItems;
    int expectedReloads;
    QStringList expectedLookups;
    QStringList expectedLog;
    Keys expectedKeys;
};

void PrintTo(const DiscoveryCase& c, std::ostream* out)
{
    *out << c.name;
}

class Discovery : public testing::TestWithParam<DiscoveryCase>
{};

std::shared_ptr<DeviceListViewController> loadedScreen(const QStringList& items)
{
    auto screen = std::make_shared<DeviceListViewController>();
    screen->items = items;
    screen->loadViewIfNeeded();
    return screen;
}

} // namespace

TEST_P(Discovery, ListsEachResolvedKeyOnceInFirstHeardOrder)
{
    const DiscoveryCase& c = GetParam();
    const auto screen = loadedScreen(c.items);
    QSignalSpy reloads(screen->table->model(), &QAbstractItemModel::modelReset);
    Keys keys = c.keys;
    QStringList lookups;
    const auto lookup = [&](const QString& majorMinor) {
        lookups << majorMinor;
        return c.directory.value(majorMinor);
    };

    StdoutCapture capture;
    NearbyDiscovery::run(c.readings, keys, screen, lookup);
    EXPECT_EQ(capture.lines(), c.expectedLog);
    EXPECT_EQ(screen->items, c.expectedItems);
    EXPECT_EQ(reloads.count(), c.expectedReloads);
    EXPECT_EQ(lookups, c.expectedLookups);
    EXPECT_EQ(keys, c.expectedKeys);
}

INSTANTIATE_TEST_SUITE_P(Readings, Discovery,
                         testing::Values(DiscoveryCase{"AllKnownAskNothing",
                                                       {{"12-7", "1047"}, {"300-2", "2002"}},
                                                       {},
                                                       {{300, 2}, {12, 7}, {300, 2}},
                                                       {},
                                                       {"2002", "1047"},
                                                       2,
                                                       {},
                                                       {},
                                                       {{"12-7", "1047"}, {"300-2", "2002"}}},
                                         DiscoveryCase{"LearntOnline",
                                                       {},
                                                       {},
                                                       {{12, 7}, {12, 7}},
                                                       {{"12-7", "1047"}},
                                                       {"1047"},
                                                       1,
                                                       {"12-7"},
                                                       {"12-7", "got key from online", "1047"},
                                                       {{"12-7", "1047"}}},
                                         DiscoveryCase{"UnknownIsAskedEveryTime",
                                                       {},
                                                       {"1047"},
                                                       {{9, 9}, {9, 9}},
                                                       {},
                                                       {"1047"},
                                                       0,
                                                       {"9-9", "9-9"},
                                                       {"9-9", "could not find major minor online",
                                                        "9-9", "could not find major minor online"},
                                                       {}},
                                         DiscoveryCase{"TwoBeaconsOneKey",
                                                       {{"12-7", "1047"}},
                                                       {},
                                                       {{12, 7}, {12, 8}},
                                                       {{"12-8", "1047"}},
                                                       {"1047"},
                                                       1,
                                                       {"12-8"},
                                                       {"12-8", "got key from online", "1047"},
                                                       {{"12-7", "1047"}, {"12-8", "1047"}}},
                                         DiscoveryCase{"AlreadyListedReloadsNothing",
                                                       {{"12-7", "1047"}},
                                                       {"1047"},
                                                       {{12, 7}},
                                                       {},
                                                       {"1047"},
                                                       0,
                                                       {},
                                                       {},
                                                       {{"12-7", "1047"}}},
                                         DiscoveryCase{"ZeroAndLargestNumbers",
                                                       {},
                                                       {},
                                                       {{0, 0}, {65535, 65535}},
                                                       {{"0-0", "1"}, {"65535-65535", "2"}},
                                                       {"1", "2"},
                                                       2,
                                                       {"0-0", "65535-65535"},
                                                       {"0-0", "got key from online", "1",
                                                        "65535-65535", "got key from online", "2"},
                                                       {{"0-0", "1"}, {"65535-65535", "2"}}}),
                         [](const testing::TestParamInfo<DiscoveryCase>& info) {
                             return std::string(info.param.name);
                         });

TEST(NearbyDiscovery, DoesNothingWithoutAScreen)
{
    Keys keys;
    int lookups = 0;
    StdoutCapture capture;
    NearbyDiscovery::run({{12, 7}, {9, 9}}, keys, nullptr, [&](const QString&) {
        ++lookups;
        return QStringLiteral("1047");
    });
    EXPECT_TRUE(capture.lines().isEmpty());
    EXPECT_EQ(lookups, 0);
    EXPECT_TRUE(keys.isEmpty());
}

TEST(NearbyDiscoveryDeathTest, StopsWhenTheScreenOrItsTableIsMissingAtTheUpdate)
{
    // The lookup clears the screen, as a host callback running during a request may.
    EXPECT_DEATH(
        {
            Keys keys;
            auto screen = loadedScreen({});
            NearbyDiscovery::run({{12, 7}}, keys, screen, [&](const QString&) {
                screen.reset();
                return QStringLiteral("1047");
            });
        },
        nilStop);
    // A screen that was never shown has no table to reload.
    EXPECT_DEATH(
        {
            Keys keys;
            keys.insert("12-7", "1047");
            auto screen = std::make_shared<DeviceListViewController>();
            NearbyDiscovery::run({{12, 7}}, keys, screen, [](const QString&) { return QString(); });
        },
        nilStop);
}
