// A test of the service in this process: a fresh working directory, uploads
// to its event log, the log captured, the service debuggable and never due
// to upload by time unless the test says otherwise.
#ifndef VYMM_TESTS_SERVICE_FIXTURE_H
#define VYMM_TESTS_SERVICE_FIXTURE_H

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/MonitorHarness.h"
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
        ASSERT_TRUE(Eventually([] { return CountThreadsNamed("mediaLogSend") == 0; }));
    }

    android::sp<ServiceProbe> mService;
    ScopedProperty mDebuggable{"ro.media.debuggable", "true"};
    ScopedProperty mUpload{"ro.media.uploadduration", "2000000000"};
    TempWorkDir mDir;
    EventLog mEvents;
    LogCapture mLog;
};

// The service published for client processes under its name, in a runtime
// folder of the test's own. The service manager keeps the service for the
// rest of the process; the thread pool and the worker end with the test.
class PublishedServiceFixture : public ServiceFixture {
protected:
    static constexpr char kServiceName[] = "Vymedia.monitor";

    template <typename Probe = LiveMonitorService>
    Probe& Publish() {
        Probe& probe = Start<Probe>();
        mPublished = &probe;
        EXPECT_EQ(android::defaultServiceManager()->addService(android::String16(kServiceName),
                                                                mService),
                  android::NO_ERROR);
        return probe;
    }

    void TearDown() override {
        android::ProcessState::self()->stopThreadPool();
        if (mPublished != nullptr) {
            mPublished->StopWorker();
        }
        ServiceFixture::TearDown();
    }

    ScopedBinderDir mBinderDir;
    LiveMonitorService* mPublished = nullptr;
};

#endif
