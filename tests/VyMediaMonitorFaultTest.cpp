// The service when what it stands on fails: things planted at its record
// paths; a client killed in the middle of a call; dumps into a pipe nobody
// reads.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <private/android_filesystem_config.h>

#include "support/ChildProcess.h"
#include "support/MonitorHarness.h"
#include "support/ServiceFixture.h"

using namespace android;
namespace fs = std::filesystem;
using Service = VyMediaMonitorService;

namespace {

constexpr auto kDeadline = std::chrono::seconds(60);

using ServiceFaultTest = ServiceFixture;

// The most memory the process has held, in KiB.
long PeakMemoryKiB() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != "VmHWM:") {
    }
    long kib = -1;
    status >> kib;
    return kib;
}

// What is planted at a record path is replaced, never followed, opened
// without waiting or read beyond the cap; a record is one line whatever
// its text.
TEST_F(ServiceFaultTest, PlantedRecordPathsAreReplacedNeverFollowed) {
    ScopedProperty flow("ro.media.bdflow", "1");
    ScopedProperty count("ro.media.bdcount", "1");
    fs::create_directories("data/log");
    const auto write = [this](ServiceProbe& probe, int32_t event) {
        probe.Queue(Plain(Service::EVENT_BD_FLOW_MSG, 1, 10000, "one\nforged"));
        probe.Queue(Plain(Service::EVENT_BD_COUNT_MSG, 1, 20000, "x"));
        probe.Queue(Plain(event));
        ASSERT_TRUE(probe.Drain(mLog));
    };
    const auto writeAndUpload = [&write](ServiceProbe& probe) {
        write(probe, Service::EVENT_BD_WRITE_FILES);
        write(probe, Service::EVENT_FORCE_SEND);
    };
    std::ofstream("target") << "precious";
    ServiceProbe& probe = Start();
    write(probe, Service::EVENT_BD_WRITE_FILES);
    const std::string records = ReadFile(BD_FLOW_FILE);
    EXPECT_NE(records.find(",one\\nforged"), std::string::npos) << records;
    fs::remove(BD_FLOW_FILE);
    fs::create_symlink("../../target", BD_FLOW_FILE);
    fs::remove(BD_COUNT_FILE);
    ASSERT_EQ(mkfifo(BD_COUNT_FILE, 0600), 0);
    writeAndUpload(probe);
    EXPECT_EQ(ReadFile("target"), "precious");
    for (const char* path : {BD_FLOW_FILE, BD_COUNT_FILE}) {
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path))) << path;
    }
    const Json::Value writers = StatsOf(probe)["writers"];
    for (const char* writer : {"bd_flow", "bd_count"}) {
        EXPECT_GE(writers[writer]["record_path_replaced"].asInt(), 1) << writer;
        EXPECT_EQ(writers[writer]["record_path_skipped"].asInt(), 0) << writer;
    }

    Stop();
    fs::resize_file(BD_FLOW_FILE, 64 << 20);  // sparse: no memory until read
    const long peak = PeakMemoryKiB();
    writeAndUpload(Start());
    EXPECT_LT(PeakMemoryKiB() - peak, 16 * 1024);
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
        ChildProcess client(Peer({"calls", kServiceName, "-", "8"}));
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

// Dumps into a pipe that nobody reads, from clients of other uids (root
// only): the shell's first holds a slot until its deadline and its others are
// answered at once; meanwhile an application's dump is told busy, root's (a
// bug report's) goes through, and the worker and other clients carry on. A
// denied caller's dumps are all answered at once.
TEST_F(ServedServiceTest, DumpsIntoAPipeNobodyReadsHoldUpNoOneNorABugReportAsRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "clients of other uids need root";
    }
    ServiceProbe& probe = Serve();
    ChildProcess shell(Peer({"dumps", kServiceName, std::to_string(AID_SHELL), "3"}));
    ASSERT_EQ(shell.Answer(), "dumping");
    ASSERT_TRUE(Eventually([&probe] { return probe.GetStats().dumpsBusy == 2; }));
    const auto dump = [&probe] { return WrittenText([&probe](int fd) { probe.Dump(fd, {}); }); };
    ActAs(AID_MEDIA);
    EXPECT_EQ(dump().rfind("Dump busy: ", 0), 0u);
    ActAs(AID_ROOT);
    EXPECT_NE(dump().find("Record Begin"), std::string::npos);
    probe.Queue(Plain(Service::EVENT_LOG_MSG, 2, 3, "during a dump"));
    EXPECT_TRUE(probe.Drain(mLog)) << "the worker goes on";
    ExpectServed();
    EXPECT_EQ(shell.Answer(), "quick 2");
    EXPECT_EQ(shell.Finish(), 0);

    ChildProcess denied(Peer({"dumps", kServiceName, "2001", "20"}));
    ASSERT_EQ(denied.Answer(), "dumping");
    EXPECT_EQ(denied.Answer(), "quick 20");
    EXPECT_EQ(denied.Finish(), 0);
}

}  // namespace
