#include "quorlix/pairing/NearbyDiscovery.h"
#include "quorlix/ui/DeviceListViewController.h"

#include "StdoutCapture.h"

#include <QSignalSpy>

#include <gtest/gtest.h>

using namespace Quorlix;

TEST(NearbyDiscovery, ReloadsOncePerNewKeyAndDoesNothingWithoutAScreen)
{
    QHash<QString, QString> keys{{"12-7", "1047"}};
    QStringList asked;
    const auto lookup = [&](const QString& majorMinor) {
        asked << majorMinor;
        return majorMinor == "12-8" ? QStringLiteral("1047") : QStringLiteral("2001");
    };

    Testing::StdoutCapture quiet;
    NearbyDiscovery::run({{12, 7}, {0, 0}}, keys, nullptr, lookup);
    EXPECT_TRUE(quiet.lines().isEmpty());
    EXPECT_TRUE(asked.isEmpty());
    EXPECT_EQ(keys.size(), 1);

    auto screen = std::make_shared<DeviceListViewController>();
    screen->loadViewIfNeeded();
    QSignalSpy reloads(screen->table->model(), &QAbstractItemModel::modelReset);
    // Two beacons of one device, then a known one again, then a new device.
    NearbyDiscovery::run({{12, 7}, {12, 8}, {12, 7}, {0, 0}}, keys, screen, lookup);
    EXPECT_EQ(screen->items, QStringList({"1047", "2001"}));
    EXPECT_EQ(reloads.count(), 2);
    EXPECT_EQ(asked, QStringList({"12-8", "0-0"}));
    EXPECT_EQ(keys.value("0-0"), "2001");
}
