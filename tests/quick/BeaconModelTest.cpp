#include "quorlix/quick/BeaconModel.h"

#include "quorlix/location/EngineLocationManager.h"
#include "quorlix/location/SourceSelection.h"
#include "quorlix/location/VirtualClock.h"

#include "EventLoop.h"
#include "Files.h"

#include <QAbstractItemModelTester>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

using namespace Quorlix;
using Quorlix::Quick::BeaconModel;

namespace {

// Three family beacons and a stranger, noiseless: 12-7 stays at 1 m, 300-1 at 4 m leaves at 6 s,
// 12-8 arrives at 3 s at 0.3 m and walks out to 9 m by 13 s, passing the others.
constexpr char scenario[] = R"({"seed": 1, "beacons": [
  {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 7, "measuredPower": -59,
   "interval": 0.1, "loss": 0, "noise": 0, "path": [[0, 1.0], [30, 1.0]]},
  {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 300, "minor": 1, "measuredPower": -59,
   "interval": 0.1, "loss": 0, "noise": 0, "path": [[0, 4.0], [6, 4.0], [6, null]]},
  {"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 12, "minor": 8, "measuredPower": -59,
   "interval": 0.1, "loss": 0, "noise": 0, "path": [[0, null], [3, 0.3], [5, 0.3], [13, 9.0], [30, 9.0]]},
  {"uuid": "11111111-2222-3333-4444-555555555555", "major": 1, "minor": 1, "measuredPower": -59,
   "interval": 0.1, "loss": 0, "noise": 0, "path": [[0, 0.5], [30, 0.5]]}]})";

struct Row
{
    QString name;
    Proximity proximity;
    int rssi;
    double distance;
    QDateTime lastHeard;
};

QList<Row> rows(const BeaconModel& model)
{
    QList<Row> result;
    for (int i = 0; i < model.rowCount(); ++i) {
        const QModelIndex index = model.index(i);
        const auto role = [&](BeaconModel::Role r) { return model.data(index, r); };
        EXPECT_EQ(role(BeaconModel::UuidRole).toString(), "E1876979-75B5-43DE-92CB-2BC1AD6BA999");
        result.append({QStringLiteral("%1-%2")
                           .arg(role(BeaconModel::MajorRole).toInt())
                           .arg(role(BeaconModel::MinorRole).toInt()),
                       role(BeaconModel::ProximityRole).value<Proximity>(),
                       role(BeaconModel::RssiRole).toInt(),
                       role(BeaconModel::DistanceRole).toDouble(),
                       role(BeaconModel::LastHeardRole).toDateTime()});
    }
    return result;
}

QStringList names(const QList<Row>& rows)
{
    QStringList result;
    for (const Row& row : rows)
        result << row.name;
    return result;
}

} // namespace

// The rows follow the scenario report by report, nearest first, and the model's change signals
// stay consistent with its rows throughout (the tester aborts on the first inconsistency).
TEST(BeaconModel, RowsFollowTheBeaconsInRangeNearestFirst)
{
    QTemporaryDir dir;
    const QString file = Testing::writeFile(dir.path(), "scenario.json", scenario);
    auto clock = std::make_shared<VirtualClock>();
    LocationManager::setFactory([&] {
        QString problem;
        return std::make_shared<EngineLocationManager>(
            clock, SourceSelection::sourceFor("simulate:" + file, &problem));
    });
    BeaconModel model;
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    QCoreApplication::processEvents(); // the model starts once the host's properties are in
    LocationManager::setFactory({});
    EXPECT_EQ(model.roleNames().value(BeaconModel::LastHeardRole), "lastHeard");

    const auto at = [&](double seconds) {
        clock->advanceTo(static_cast<std::int64_t>(seconds * 1e9));
        return rows(model);
    };
    QList<Row> now = at(2.5);
    ASSERT_EQ(names(now), QStringList({"12-7", "300-1"}));
    EXPECT_EQ(model.property("count").toInt(), 2);
    EXPECT_EQ(now[0].proximity, Proximity::Near);
    EXPECT_NEAR(now[0].distance, 1.0, 0.2);
    EXPECT_NEAR(now[0].rssi, -59, 2);
    EXPECT_EQ(now[1].proximity, Proximity::Far);
    EXPECT_NEAR(now[1].distance, 4.0, 0.6);
    EXPECT_TRUE(now[0].lastHeard.isValid());

    now = at(4.5);
    ASSERT_EQ(names(now), QStringList({"12-8", "12-7", "300-1"}));
    EXPECT_EQ(now[0].proximity, Proximity::Immediate);
    // A view holds on to its items by index: they must follow their beacon as the order changes.
    const QPersistentModelIndex held = model.index(0);

    // 300-1 has gone quiet: kept a while as Unknown, last, with the time it was last heard.
    const QDateTime lastHeardBefore = at(7.5)[2].lastHeard;
    QThread::msleep(20);
    now = at(9);
    ASSERT_EQ(names(now), QStringList({"12-7", "12-8", "300-1"}));
    EXPECT_EQ(held.row(), 1);
    EXPECT_EQ(now[2].proximity, Proximity::Unknown);
    EXPECT_EQ(now[2].rssi, 0);
    EXPECT_LT(now[2].distance, 0);
    EXPECT_EQ(now[2].lastHeard, lastHeardBefore);
    EXPECT_GT(now[0].lastHeard, lastHeardBefore);

    now = at(20);
    EXPECT_EQ(names(now), QStringList({"12-7", "12-8"}));
    EXPECT_EQ(model.property("count").toInt(), 2);
    EXPECT_EQ(model.beacon(1).minor, 8);

    model.setActive(false);
    EXPECT_EQ(model.rowCount(), 0);
    at(22);
    EXPECT_EQ(model.rowCount(), 0);
}
