// The service when what it stands on fails: the reporting library absent,
// lacking an entry point or slow; its record files or their folder removed
// while it runs; a client killed in the middle of a call, or one that
// connects and sends nothing.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/ServiceFixture.h"

using namespace android;
namespace fs = std::filesystem;
using Service = VyMediaMonitorService;

namespace {

constexpr auto kDeadline = std::chrono::seconds(60);

// The exception writer sent one event of eventId, for calls in all.
bool UploadedOnce(const std::vector<std::string>& lines, int eventId, long calls) {
    const std::vector<std::string> uploads = UploadsOf(lines, eventId);
    return uploads.size() == 1 && IntParam(uploads[0], "Count") == calls;
}

class ServiceFaultTest : public ServiceFixture {
protected:
    // Holds exceptions 901 and 902, uploads them with a forced send while
    // threads queue 400 reports of 903, then stops: shutdown uploads 903.
    // Returns the event log, or fails the test on a hang.
    std::vector<std::string> UploadThroughTheLibrary() {
        const size_t fds = CountOpenFiles();
        RunWithDeadline(kDeadline, [this] {
            ServiceProbe& probe = Start();
            probe.Queue(Exception(901));
            probe.Queue(Exception(902));
            probe.Queue(Plain(Service::EVENT_FORCE_SEND));
            std::vector<std::thread> callers;
            for (int t = 0; t < 4; ++t) {
                callers.emplace_back([&probe] {
                    for (int i = 0; i < 100; ++i) {
                        probe.WriteLogMsg(903, 1, 2, String8("late"), String8("app"));
                    }
                });
            }
            for (std::thread& caller : callers) {
                caller.join();
            }
            ASSERT_TRUE(probe.Drain(mLog));
            Stop();
        });
        EXPECT_EQ(CountOpenFiles(), fds);
        EXPECT_EQ(mLog.CountContaining("Vymedia_monitor", "eventQueue full"), 0u);
        return mEvents.Lines();
    }
};

using ReportingLibraryAbsent = ServiceFaultTest;
using ReportingLibraryLacking = ServiceFaultTest;

// Kept for callers racing a slow upload, which no single-line fault models.
// Each send takes 50 ms: the callers queue while the worker uploads.
TEST_F(ServiceFaultTest, ASlowReportingLibraryLosesNothing) {
    setenv("VEXEL_SEND_DELAY_US", "50000", 1);
    const std::vector<std::string> events = UploadThroughTheLibrary();
    unsetenv("VEXEL_SEND_DELAY_US");
    EXPECT_TRUE(UploadedOnce(events, 901, 1));
    EXPECT_TRUE(UploadedOnce(events, 902, 1));
    EXPECT_TRUE(UploadedOnce(events, 903, 400));
}

// Its dump waits, with a deadline, until the test lets it go on.
class StallingService : public ServiceProbe {
public:
    std::promise<void> entered;
    std::promise<void> release;

    status_t Dump(int fd, const Vector<String16>& args) override {
        if (!mEntered.exchange(true)) {
            entered.set_value();
            release.get_future().wait_for(kDeadline);
        }
        return ServiceProbe::Dump(fd, args);
    }

private:
    std::atomic<bool> mEntered{false};
};

// The service served to client processes, with the descriptors this process
// held before the first one.
class ServedServiceTest : public PublishedServiceFixture {
protected:
    template <typename Probe = ServiceProbe>
    Probe& Serve() {
        Probe& probe = Publish<Probe>();
        ProcessState::self()->startThreadPool();
        mFiles = CountOpenFiles();
        return probe;
    }

    // A client of a few calls gets through.
    void ExpectServed() {
        ChildProcess client(Peer({"load", kServiceName, "-", "1", "16"}));
        EXPECT_EQ(client.Finish(), 0) << client.output();
        EXPECT_TRUE(mService->Drain(mLog));
    }

    bool FilesBackWhereTheyWere() {
        return Eventually([this] { return CountOpenFiles() == mFiles; });
    }

    size_t mFiles = 0;
};

// Kept for a client dying inside a call, which no single-line fault models.
TEST_F(ServedServiceTest, AClientKilledInTheMiddleOfACallLeavesTheServiceServing) {
    StallingService& service = Serve<StallingService>();
    ChildProcess client(Peer({"stall", kServiceName}));
    const pid_t pid = atoi(client.Answer().c_str());
    ASSERT_GT(pid, 0);
    ASSERT_EQ(service.entered.get_future().wait_for(kDeadline), std::future_status::ready);
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    EXPECT_NE(client.Finish(), 0);
    // The dump goes on writing to the socket of a dead client.
    service.release.set_value();
    EXPECT_TRUE(FilesBackWhereTheyWere());
    ExpectServed();
}

}  // namespace
