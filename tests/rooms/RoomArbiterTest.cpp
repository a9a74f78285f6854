// The room arbiter on scripted receivers in virtual time: each case lists what every receiver
// reports, second by second, and the room expected at given seconds.

#include "quorlix/rooms/RoomArbiter.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Quorlix::RoomArbiter;

constexpr std::int64_t second = 1'000'000'000;

// A receiver "kitchen.a" is in room "kitchen". From fromS (inclusive) to toS (exclusive) it reports
// the beacon every second: present with rssi (0: not heard lately), or away; or, offline, it goes
// offline at fromS and says nothing.
struct Report
{
    int fromS;
    int toS;
    const char* receiver;
    int rssi;
    bool present = true;
    bool online = true;
    int swingDb = 0; // every other second this much weaker
};

struct Case
{
    const char* name;
    std::vector<Report> reports;
    // The second and the room then ("away"), or room/receiver.
    std::vector<std::pair<int, const char*>> expected;
    int switches; // room changes after the first decision
};

QString roomOf(const char* receiver)
{
    return QString::fromLatin1(receiver).section(u'.', 0, 0);
}

TEST(RoomArbiter, DecidesRoomsWithHysteresisAndNeverAwayWhileHeard)
{
    const Case cases[] = {
        {"as strong is not enough; 2 dB stronger for 3 s is, once it is the minute's level",
         {{0, 180, "kitchen", -60},
          {0, 60, "hall", -62},
          {60, 120, "hall", -60},
          {120, 180, "hall", -58}},
         {{5, "kitchen"}, {119, "kitchen"}, {128, "kitchen"}, {129, "hall"}},
         1},
        {"a 4 s fade of 20 dB in its room does not move it",
         {{0, 30, "kitchen", -60},
          {30, 34, "kitchen", -80},
          {34, 200, "kitchen", -60},
          {0, 200, "hall", -64}},
         {{200, "kitchen"}},
         0},
        {"a fade of 8 dB for 20 s does not move it to a room 4 dB weaker",
         {{0, 30, "kitchen", -60},
          {30, 50, "kitchen", -68},
          {50, 200, "kitchen", -60},
          {0, 200, "hall", -64}},
         {{200, "kitchen"}},
         0},
        {"one report 40 dB above its neighbours is a glitch",
         {{0, 120, "kitchen", -60},
          {0, 30, "hall", -75},
          {30, 31, "hall", -20},
          {31, 120, "hall", -75}},
         {{120, "kitchen"}},
         0},
        {"carried away: the new room within 10 s",
         {{0, 60, "kitchen", -60},
          {60, 120, "kitchen", -80},
          {0, 60, "hall", -78},
          {60, 120, "hall", -62}},
         {{59, "kitchen"}, {70, "hall"}},
         1},
        {"carried where it is heard unsteadily: the old room's minute does not hold it",
         {{0, 60, "kitchen", -60},
          {60, 120, "kitchen", -70},
          {0, 60, "hall", -75},
          {60, 120, "hall", -62, true, true, 6}},
         {{59, "kitchen"}, {80, "hall"}},
         1},
        {"carried away, each level reported once, as publish sends a steady one",
         {{0, 1, "kitchen", -60},
          {60, 61, "kitchen", -80},
          {0, 1, "hall", -78},
          {60, 61, "hall", -62},
          {120, 121, "hall", -62}},
         {{59, "kitchen"}, {70, "hall"}},
         1},
        {"a room's strongest receiver speaks for it, and is named",
         {{0, 60, "kitchen.a", -72}, {0, 60, "kitchen.b", -58}, {0, 60, "hall", -62}},
         {{30, "kitchen/kitchen.b"}},
         0},
        {"away only once every receiver has let it go",
         {{0, 30, "kitchen", -60},
          {30, 90, "kitchen", 0, false},
          {0, 60, "hall", 0},
          {60, 90, "hall", 0, false}},
         {{20, "kitchen"}, {40, "hall"}, {61, "away"}},
         2},
        {"a receiver gone offline keeps its last word: no away",
         {{0, 30, "kitchen", -60},
          {30, 100, "kitchen", 0, true, false},
          {0, 120, "hall", 0, false},
          {100, 120, "kitchen", 0, false}},
         {{29, "kitchen"}, {99, "kitchen"}, {101, "away"}},
         1},
        {"back from away, the room it is heard in at once",
         {{0, 20, "hall", -60}, {20, 40, "hall", 0, false}, {40, 60, "kitchen", -70}},
         {{10, "hall"}, {30, "away"}, {40, "kitchen"}},
         2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        RoomArbiter arbiter;
        int end = 0;
        for (const Report& r : c.reports)
            end = std::max(end, r.toS);
        int switches = -1;
        std::optional<QString> room;
        std::int64_t changedNs = 0;
        for (int t = 0; t <= end; ++t) {
            const std::int64_t nowNs = t * second;
            for (const Report& r : c.reports) {
                if (!r.online && t == r.fromS)
                    arbiter.setOnline(r.receiver, false, nowNs);
                if (!r.online || t < r.fromS || t >= r.toS)
                    continue;
                Quorlix::Beacon ranging;
                ranging.rssi = r.rssi - (t % 2) * r.swingDb;
                ranging.accuracy = r.rssi != 0 ? 1.0 : -1;
                arbiter.report(r.receiver, roomOf(r.receiver), QStringLiteral("b"), r.present,
                               ranging, nowNs);
            }
            const QStringList changed = arbiter.advanceTo(nowNs);
            const std::optional<RoomArbiter::Decision> decision = arbiter.decision("b");
            ASSERT_TRUE(decision) << "second " << t;
            if (switches < 0 || decision->room != room) {
                EXPECT_EQ(changed, QStringList{"b"}) << "second " << t;
                ++switches;
                room = decision->room;
                changedNs = nowNs;
            } else {
                EXPECT_TRUE(changed.isEmpty()) << "second " << t;
            }
            EXPECT_EQ(decision->sinceNs, changedNs) << "second " << t;
            EXPECT_EQ(decision->receiver.isEmpty(), !decision->room) << "second " << t;
            for (const auto& [atS, expected] : c.expected) {
                if (atS != t)
                    continue;
                const QString wanted = QString::fromLatin1(expected);
                const QString got = !decision->room ? QStringLiteral("away")
                                    : wanted.contains(u'/')
                                        ? *decision->room + u'/' + decision->receiver
                                        : *decision->room;
                EXPECT_EQ(got, wanted) << "second " << t;
            }
        }
        EXPECT_EQ(switches, c.switches);
    }
}

TEST(RoomArbiter, NothingForABeaconNeverPresent)
{
    RoomArbiter arbiter;
    arbiter.report("hall", "hall", "b", false, {}, 0);
    EXPECT_TRUE(arbiter.advanceTo(second).isEmpty());
    EXPECT_FALSE(arbiter.decision("b"));
    EXPECT_TRUE(arbiter.beacons().isEmpty());
}

} // namespace
