// The pool's book of connections: which one makes room at the bound.
#include <gtest/gtest.h>

#include "ConnectionTable.h"

using android::ConnectionTable;

namespace {

constexpr uid_t kBusy = 10001;
constexpr uid_t kQuiet = 10002;
// Above the connections any uid holds here, but where stated.
constexpr size_t kShare = 8;

bool Hold(ConnectionTable& table, uint64_t id, size_t share = kShare) {
    return table.Hold(id, share) == ConnectionTable::HELD;
}

TEST(ConnectionTableTest, RoomIsMadeByTheLeastUsedIdleConnectionOfTheUidHoldingMost) {
    ConnectionTable table(4);
    table.Add(1, kQuiet);
    table.Add(2, kBusy);
    table.Add(3, kBusy);
    table.Add(4, kBusy);
    ASSERT_TRUE(table.AtBound());
    // The quiet uid's connection is the oldest, but the busy uid holds more.
    EXPECT_EQ(table.Victim(), 2u);
    table.Used(2);
    EXPECT_EQ(table.Victim(), 3u);
    // A connection a thread holds is never taken.
    ASSERT_TRUE(Hold(table, 3));
    EXPECT_FALSE(Hold(table, 3)) << "one thread at a time";
    EXPECT_EQ(table.Victim(), 4u);
    ASSERT_TRUE(Hold(table, 4));
    ASSERT_TRUE(Hold(table, 2));
    EXPECT_EQ(table.Victim(), 1u);
    ASSERT_TRUE(Hold(table, 1));
    EXPECT_EQ(table.Victim(), 0u) << "every connection holds a call";
    table.Release(2);
    EXPECT_EQ(table.Victim(), 2u);
}

TEST(ConnectionTableTest, AUidHoldsItsShareAndItsOtherConnectionsWaitOldestFirst) {
    ConnectionTable table(8);
    for (uint64_t id = 1; id <= 4; ++id) {
        table.Add(id, kBusy);
    }
    table.Add(5, kQuiet);
    ASSERT_TRUE(Hold(table, 1, 2));
    ASSERT_TRUE(Hold(table, 2, 2));
    EXPECT_EQ(table.Hold(4, 2), ConnectionTable::PARKED);
    EXPECT_EQ(table.Hold(3, 2), ConnectionTable::PARKED);
    EXPECT_EQ(table.Hold(4, 2), ConnectionTable::PARKED) << "parked again keeps its place";
    EXPECT_TRUE(Hold(table, 5, 2)) << "another uid has its own share";
    EXPECT_EQ(table.TakeParked(kQuiet), 0u);
    EXPECT_TRUE(table.HasParked(kBusy));
    // A parked connection holds a call: it makes no room.
    table.Release(5);
    EXPECT_EQ(table.Victim(), 5u);
    // A thread let go, or a held connection closed, makes room for one.
    table.Release(1);
    EXPECT_EQ(table.TakeParked(kBusy), 4u);
    EXPECT_TRUE(Hold(table, 4, 2));
    EXPECT_EQ(table.Hold(1, 2), ConnectionTable::PARKED);
    table.Remove(2);
    EXPECT_EQ(table.TakeParked(kBusy), 3u);
    EXPECT_TRUE(Hold(table, 3, 2));
    EXPECT_EQ(table.TakeParked(kBusy), 1u);
    EXPECT_FALSE(table.HasParked(kBusy));
}

TEST(ConnectionTableTest, RetiredConnectionsLeaveRoomUntilTheyAreGone) {
    ConnectionTable table(2);
    table.Add(1, kBusy);
    table.Add(2, kBusy);
    ASSERT_TRUE(table.AtBound());
    ASSERT_TRUE(Hold(table, 1));
    table.Retire(1);
    table.Retire(1);
    EXPECT_TRUE(table.Retired(1));
    EXPECT_EQ(table.Live(), 1u) << "a second retirement counts once";
    EXPECT_FALSE(table.AtBound());
    table.Release(1);
    EXPECT_EQ(table.Victim(), 2u) << "a retired connection is not retired again";
    table.Add(3, kQuiet);
    EXPECT_TRUE(table.AtBound());
    table.Remove(1);
    table.Remove(1);
    EXPECT_EQ(table.Live(), 2u);
    EXPECT_FALSE(Hold(table, 1)) << "gone";
    table.Remove(2);
    EXPECT_EQ(table.Live(), 1u);
}

}  // namespace
