// Registered twice: without the reporting library on the search path, and
// with a build of the host library that lacks one entry point.
// Each test runs in a process of its own, so the proxy starts unloaded.
#include <stdlib.h>

#include <string>
#include <type_traits>

#include <android/log.h>
#include <gtest/gtest.h>

#include <vexel.h>

#include "report/VexelProxy.h"
#include "support/LogCapture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"

using android::VexelProxy;

namespace {

// The proxy's entry-point types must match the library's prototypes.
struct ProxyTypes : VexelProxy {
    static_assert(std::is_same_v<CreateEventObjFunc, decltype(&vexel_create_eventobj)>);
    static_assert(std::is_same_v<SetParamFunc, decltype(&vexel_set_param)>);
    static_assert(std::is_same_v<UnsetParamFunc, decltype(&vexel_unset_param)>);
    static_assert(std::is_same_v<SetTimeFunc, decltype(&vexel_set_time)>);
    static_assert(std::is_same_v<PathFunc, decltype(&vexel_add_dynamic_path)>);
    static_assert(std::is_same_v<PathFunc, decltype(&vexel_add_and_del_dynamic_path)>);
    static_assert(std::is_same_v<SendEventFunc, decltype(&vexel_send_event)>);
    static_assert(std::is_same_v<DestroyEventObjFunc, decltype(&vexel_destroy_eventobj)>);
    static_assert(std::is_same_v<IntegerV2Func, decltype(&vexel_set_param_integer_v2)>);
    static_assert(std::is_same_v<IntegerV2Func, decltype(&vexel_fill_array_param_integer_v2)>);
    static_assert(std::is_same_v<FloatV2Func, decltype(&vexel_set_param_float_v2)>);
    static_assert(std::is_same_v<FloatV2Func, decltype(&vexel_fill_array_param_float_v2)>);
    static_assert(std::is_same_v<StringV2Func, decltype(&vexel_set_param_string_v2)>);
    static_assert(std::is_same_v<StringV2Func, decltype(&vexel_fill_array_param_string_v2)>);
    static_assert(std::is_same_v<ClassV2Func, decltype(&vexel_set_param_class_v2)>);
    static_assert(std::is_same_v<ClassV2Func, decltype(&vexel_fill_array_param_class_v2)>);
};

const char kInitFailed[] = "VexelProxy init failed. ";

class VexelProxyTest : public ::testing::Test {
protected:
    TempWorkDir mDir;
    EventLog mEvents;
    LogCapture mLog;
};

using VexelProxyAbsent = VexelProxyTest;
using VexelProxyLacking = VexelProxyTest;

TEST_F(VexelProxyAbsent, EveryWrapperFallsBackAndRetriesTheLoad) {
    VexelEventObj* obj = VexelProxy::VexelCreateEventObj(1);
    EXPECT_EQ(obj, nullptr);
    EXPECT_EQ(VexelProxy::VexelSetParamIntegerV2(obj, "k", 1), -1);
    EXPECT_EQ(VexelProxy::VexelSetParamStringV2(obj, "k", "v"), -1);
    EXPECT_EQ(VexelProxy::VexelSendEvent(obj), -1);
    VexelProxy::VexelDestroyEventObj(obj);

    EXPECT_EQ(mLog.CountContaining("vexel_proxy", kInitFailed), 5u) << mLog.ToString();
    EXPECT_EQ(mLog.Lines().front().priority, ANDROID_LOG_ERROR);
    EXPECT_FALSE(VexelProxy::IsAvailable());
}

TEST_F(VexelProxyLacking, OnlyTheMissingEntryPointFallsBack) {
    VexelEventObj* obj = VexelProxy::VexelCreateEventObj(3);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(VexelProxy::VexelSetParamClassV2(obj, "a", obj), 0);
    EXPECT_EQ(VexelProxy::VexelFillArrayParamClassV2(obj, "b", obj), -1);
    EXPECT_EQ(VexelProxy::VexelSendEvent(obj), 0);
    VexelProxy::VexelDestroyEventObj(obj);
    EXPECT_TRUE(mLog.Lines().empty()) << mLog.ToString();
    EXPECT_NE(ReadFile("events.jsonl"), "");
}

}  // namespace
