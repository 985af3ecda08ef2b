// A test of the service in this process: a fresh working directory, uploads
// to its event log, the log captured, the service debuggable and never due
// to upload by time unless the test says otherwise.
#ifndef VYMM_TESTS_SERVICE_FIXTURE_H
#define VYMM_TESTS_SERVICE_FIXTURE_H

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/ServiceProbe.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"

class ServiceFixture : public ::testing::Test {
protected:
    void TearDown() override { Stop(); }

    template <typename Probe = ServiceProbe>
    Probe& Start() {
        const android::sp<Probe> service = new Probe;
        mService = service;
        return *service;
    }

    // Drops the service and waits until its worker is gone: the last
    // reference may be the worker's own, and then shutdown runs there.
    void Stop() {
        mService.clear();
        ASSERT_TRUE(Eventually([] { return CountThreads("mediaLogSend") == 0; }));
    }

    android::sp<ServiceProbe> mService;
    ScopedProperty mDebuggable{"ro.media.debuggable", "true"};
    ScopedProperty mUpload{"ro.media.uploadduration", "2000000000"};
    TempWorkDir mDir;
    EventLog mEvents;
    LogCapture mLog;
};

// The service published for client processes under its name, in a runtime
// folder of the test's own; withdrawn at the end, it then ends like any other.
class PublishedServiceFixture : public ServiceFixture {
protected:
    static constexpr char kServiceName[] = "Vymedia.monitor";

    void TearDown() override { Withdraw(); }

    template <typename Probe = ServiceProbe>
    Probe& Publish() {
        Probe& probe = Start<Probe>();
        EXPECT_EQ(android::defaultServiceManager()->addService(android::String16(kServiceName),
                                                                mService),
                  android::NO_ERROR);
        return probe;
    }

    // Stops serving, withdraws the service and lets it go.
    void Withdraw() {
        android::ProcessState::self()->stopThreadPool();
        android::defaultServiceManager()->removeService(android::String16(kServiceName));
        Stop();
    }

    ScopedBinderDir mBinderDir;
};

#endif
