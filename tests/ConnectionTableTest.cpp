// The pool's book of connections: which one makes room at the bound.
#include <gtest/gtest.h>

#include "ConnectionTable.h"

using android::ConnectionTable;

namespace {

constexpr uid_t kBusy = 10001;
constexpr uid_t kQuiet = 10002;

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
    ASSERT_TRUE(table.Hold(3));
    EXPECT_FALSE(table.Hold(3)) << "one thread at a time";
    EXPECT_EQ(table.Victim(), 4u);
    ASSERT_TRUE(table.Hold(4));
    ASSERT_TRUE(table.Hold(2));
    EXPECT_EQ(table.Victim(), 1u);
    ASSERT_TRUE(table.Hold(1));
    EXPECT_EQ(table.Victim(), 0u) << "every connection holds a call";
    table.Release(2);
    EXPECT_EQ(table.Victim(), 2u);
}

TEST(ConnectionTableTest, RetiredConnectionsLeaveRoomUntilTheyAreGone) {
    ConnectionTable table(2);
    table.Add(1, kBusy);
    table.Add(2, kBusy);
    ASSERT_TRUE(table.AtBound());
    ASSERT_TRUE(table.Hold(1));
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
    EXPECT_FALSE(table.Hold(1)) << "gone";
    table.Remove(2);
    EXPECT_EQ(table.Live(), 1u);
}

}  // namespace
