// The send thread's byte limit and the service's shutdown, in process.
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/ServiceFixture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"

using namespace android;
namespace fs = std::filesystem;
using Service = VyMediaMonitorService;

namespace {

constexpr char kTag[] = "Vymedia_monitor";

// Each switch unset unless a test sets it, so the defaults hold.
class ServiceTest : public ServiceFixture {};

TEST_F(ServiceTest, QueueRefusesEventsPastItsByteLimitLoggingAtALimitedRate) {
    ServiceProbe* probe = &Start();
    const std::string text(100 * 1024, 'x');
    constexpr int32_t kFirst = 4000000;
    const auto start = std::chrono::steady_clock::now();
    // The worker takes a small event first and waits with it, so that the
    // queue holds the large ones alone, whenever the worker wakes.
    probe->mDispatchLock.lock();
    probe->Queue(Plain(kFirst - 1));
    const bool parked = Eventually([&] { return probe->getStrongCount() == 2; });
    for (int32_t i = 0; parked && i < 100; ++i) {
        probe->Queue(Plain(kFirst + i, -1, -1, text.c_str()));
    }
    probe->mDispatchLock.unlock();
    ASSERT_TRUE(parked);
    ASSERT_TRUE(probe->Drain(mLog));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::steady_clock::now() - start);

    // 2 MiB hold 20 of them.
    const size_t refusals = mLog.CountContaining(kTag, "bytes waiting, dropping an event of");
    EXPECT_GE(refusals, 1u);
    EXPECT_LE(refusals, LogRateLimiter::BURST + LogRateLimiter::PER_SECOND * (seconds.count() + 1));
    for (int32_t i = 0; i < 100; ++i) {
        EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag,
                             "OnSrvEvent unknown event type " + std::to_string(kFirst + i)),
                  i < 20 ? 1u : 0u)
                << i;
    }
}

// Kept for shutdown on the worker itself, which no single-line fault models.
TEST_F(ServiceTest, TheLastReferenceDroppedOnTheWorkerStopsItWithoutWaitingForItself) {
    ServiceProbe* probe = &Start();
    probe->Queue(Exception(901));
    ASSERT_TRUE(probe->Drain(mLog));

    // The worker holds the service from taking an event to the end of its
    // dispatch: let it finish the last one, then catch it at the next.
    ASSERT_TRUE(Eventually([&] { return probe->getStrongCount() == 1; }));
    Mutex& dispatch = probe->mDispatchLock;
    dispatch.lock();
    probe->Queue(Exception(902));
    const bool caught = Eventually([&] { return probe->getStrongCount() == 2; });
    if (caught) {
        mService.clear();
    }
    dispatch.unlock();
    ASSERT_TRUE(caught);

    Stop();
    EXPECT_TRUE(!UploadsOf(mEvents.Lines(), 902).empty());
    EXPECT_EQ(mLog.ToString().find("guaranteed deadlock"), std::string::npos);
}

// Kept for shutdown racing the worker, which no single-line fault models.
// Each cycle's exception reaches its writer first. Odd cycles then stop with
// the queue full and the worker inside a dispatch, so that shutdown runs on
// the worker; even ones stop from here with the worker in its timed wait.
// Every shutdown uploads what the exception writer holds.
TEST_F(ServiceTest, StartStopCyclesNeverHangLeakOrLoseWhatTheWritersHold) {
    constexpr int kCycles = 200;
    constexpr int32_t kFirstId = 5000000;
    ScopedProperty flow("ro.media.bdflow", "1");
    ScopedProperty count("ro.media.bdcount", "1");
    fs::create_directories("data/log");
    const size_t fds = CountOpenFiles();
    RunWithDeadline(std::chrono::seconds(120), [this] {
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            sp<ServiceProbe> probe = new ServiceProbe;
            probe->Queue(Exception(kFirstId + cycle));
            ASSERT_TRUE(probe->Drain(mLog)) << cycle;
            ASSERT_TRUE(Eventually([&] { return probe->getStrongCount() == 1; }));
            if (cycle % 2 == 0) {
                continue;
            }
            Mutex& dispatch = probe->mDispatchLock;
            dispatch.lock();
            for (int i = 0; i < 520; ++i) {
                probe->Queue(Plain(3000000 + i));
            }
            // The worker took the first event and waits with the service held.
            const bool held = Eventually([&] { return probe->getStrongCount() == 2; });
            if (held) {
                probe.clear();
            }
            dispatch.unlock();
            ASSERT_TRUE(held) << cycle;
        }
    });
    EXPECT_TRUE(Eventually([] { return CountThreads("mediaLogSend") == 0; }));
    EXPECT_EQ(CountOpenFiles(), fds);
    const std::vector<std::string> events = mEvents.Lines();
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        EXPECT_EQ(UploadsOf(events, kFirstId + cycle).size(), 1u) << cycle;
    }
}

}  // namespace
