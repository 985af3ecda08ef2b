#include <string.h>

#include <string>

#include <android-base/properties.h>
#include <bounds_checked.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "support/TestEnv.h"

namespace {

TEST(BoundsCheckedTest, SnprintfKeepsWithinCountAndDestination) {
    char buffer[12];
    memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(snprintf_s(buffer, 10, 9, "%d", 1234), 4);
    EXPECT_STREQ(buffer, "1234");

    EXPECT_EQ(snprintf_s(buffer, 10, 9, "%d", -2147483647 - 1), -1) << "cut";
    EXPECT_STREQ(buffer, "-21474836");

    memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(snprintf_s(buffer, 10, 10, "%s", "ab"), -1) << "count >= destMax";
    EXPECT_EQ(snprintf_s(buffer, 0, 0, "%s", "ab"), -1);
    EXPECT_EQ(snprintf_s(nullptr, 10, 9, "%s", "ab"), -1);
    EXPECT_EQ(buffer[10], 'x');
    EXPECT_EQ(buffer[11], 'x');
}

TEST(BoundsCheckedTest, MemsetStopsAtDestination) {
    char buffer[8];
    memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(memset_s(buffer, 4, 0, 4), 0);
    EXPECT_EQ(buffer[3], 0);
    EXPECT_EQ(buffer[4], 'x');
    EXPECT_NE(memset_s(buffer, 6, 'y', 8), 0);
    EXPECT_EQ(buffer[6], 'x');
    EXPECT_NE(memset_s(nullptr, 4, 0, 4), 0);
}

TEST(PropertiesTest, ReadsTheStoreAtEveryCall) {
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("ro.test.unset", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
    EXPECT_EQ(property_get("ro.test.unset", value, nullptr), 0);
    EXPECT_STREQ(value, "");

    ScopedProperty set("ro.test.value", "1");
    property_get("ro.test.value", value, "0");
    EXPECT_STREQ(value, "1");
    android::base::SetProperty("ro.test.value", "2");
    property_get("ro.test.value", value, "0");
    EXPECT_STREQ(value, "2");
    android::base::SetProperty("ro.test.value", "");
    property_get("ro.test.value", value, "0");
    EXPECT_STREQ(value, "0") << "empty counts as unset";

    EXPECT_EQ(property_set("ro.test.value", std::string(200, 'a').c_str()), 0);
    EXPECT_EQ(property_get("ro.test.value", value, ""), PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(strlen(value), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
}

}  // namespace
