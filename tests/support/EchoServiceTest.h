// A fixture: an echo service published as "echo" in a fresh runtime folder
// and served by this process's pool for the test, with its log captured.
#ifndef VYMM_TESTS_ECHO_SERVICE_TEST_H
#define VYMM_TESTS_ECHO_SERVICE_TEST_H

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "support/BinderPeer.h"
#include "support/LogCapture.h"
#include "support/TestEnv.h"

class EchoServiceTest : public ::testing::Test {
protected:
    static constexpr char kName[] = "echo";
    static constexpr char kTag[] = "HostBinder";

    void SetUp() override {
        ASSERT_EQ(android::defaultServiceManager()->addService(android::String16(kName), mEcho),
                  android::NO_ERROR);
        android::ProcessState::self()->startThreadPool();
    }
    void TearDown() override {
        mEcho->SetOpen(true);
        android::ProcessState::self()->stopThreadPool();
    }

    ScopedBinderDir mDir;
    LogCapture mLog;
    const android::sp<EchoBinder> mEcho = new EchoBinder;
};

#endif
