// Start-up, the send thread, dispatch and shutdown of the service, in process.
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <binder/IServiceManager.h>
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

// The nice value of the thread named name, or -100 when there is none.
int NiceOfThreadNamed(const std::string& name) {
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string line;
        if (std::getline(comm, line) && line == name) {
            return getpriority(PRIO_PROCESS, std::stoi(task.path().filename()));
        }
    }
    return -100;
}

bool AnyLineHas(const std::vector<std::string>& lines, const std::string& text) {
    for (const std::string& line : lines) {
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// Each switch unset unless a test sets it, so the defaults hold.
class ServiceTest : public ServiceFixture {};

struct StartUpCase {
    std::map<std::string, std::string> properties;
    std::string writers;  // present or not: radar, flow, count, exception, KPI, big data
    bool debuggable;
};

TEST_F(ServiceTest, StartUpCreatesTheWritersSwitchedOnAndLoadsTheTypeFlags) {
    const StartUpCase cases[] = {
            {{{"ro.media.debuggable", ""}}, "100111", false},
            {{{"ro.media.radar", "0"},
              {"ro.media.bdflow", "1"},
              {"ro.media.bdcount", "1"},
              {"ro.media.exception", "2"},
              {"ro.media.kpi", "on"},
              {"ro.media.debuggable", "trueish"}},
             "011001",
             true},
            {{{"ro.media.debuggable", "TRUE"}, {"ro.media.bigdata", "0"}}, "100110", false},
    };
    const KeyedVector<int32_t, int32_t> noFlags;
    for (const StartUpCase& c : cases) {
        std::vector<std::unique_ptr<ScopedProperty>> properties;
        for (const auto& [key, value] : c.properties) {
            properties.push_back(std::make_unique<ScopedProperty>(key, value));
        }
        ServiceProbe* probe = &Start();
        const std::string writers = {probe->mExceptionLogWriter != nullptr ? '1' : '0',
                                     probe->mBDFlowWriter != nullptr ? '1' : '0',
                                     probe->mBDCountWriter != nullptr ? '1' : '0',
                                     probe->mExceptionWriter != nullptr ? '1' : '0',
                                     probe->mKpiWriter != nullptr ? '1' : '0',
                                     probe->mBigDataWriter != nullptr ? '1' : '0'};
        EXPECT_EQ(writers, c.writers) << c.writers;
        EXPECT_EQ(probe->mDebuggable, c.debuggable) << c.writers;
        EXPECT_NE(probe->mLogSendThread, nullptr);
        EXPECT_NE(probe->mPolicy, nullptr);
        // Named and lowered from the thread itself, so that ps -T and top -H show it.
        EXPECT_TRUE(Eventually([] { return NiceOfThreadNamed("mediaLogSend") == 10; }));
        std::vector<std::pair<int32_t, int32_t>> flags;
        for (size_t i = 0; i < probe->mStaticTypeFlags.size(); ++i) {
            flags.emplace_back(probe->mStaticTypeFlags.keyAt(i), probe->mStaticTypeFlags[i]);
        }
        EXPECT_EQ(flags, (std::vector<std::pair<int32_t, int32_t>>{{10000, 1},
                                                                   {20000, 2},
                                                                   {20001, 2},
                                                                   {20002, 2},
                                                                   {20100, 2},
                                                                   {20101, 2},
                                                                   {20201, 2},
                                                                   {20202, 2},
                                                                   {20300, 2}}));
        Stop();
    }
}

TEST_F(ServiceTest, AllSwitchesOffLeaveNoThreadPolicyOrWriterAndRemoveTheRecordFiles) {
    fs::create_directories("data/log");
    std::ofstream(BD_FLOW_FILE) << "old";
    std::ofstream(BD_COUNT_FILE) << "old";
    std::vector<std::unique_ptr<ScopedProperty>> off;
    for (const char* key : {"ro.media.radar", "ro.media.bdflow", "ro.media.bdcount",
                            "ro.media.exception", "ro.media.kpi", "ro.media.bigdata"}) {
        off.push_back(std::make_unique<ScopedProperty>(key, "0"));
    }
    ServiceProbe* probe = &Start();
    EXPECT_EQ(probe->mLogSendThread, nullptr);
    EXPECT_EQ(probe->mPolicy, nullptr);
    EXPECT_EQ(probe->mExceptionLogWriter, nullptr);
    EXPECT_EQ(probe->mBigDataWriter, nullptr);
    EXPECT_TRUE(probe->mStaticTypeFlags.isEmpty());
    EXPECT_FALSE(fs::exists(BD_FLOW_FILE));
    EXPECT_FALSE(fs::exists(BD_COUNT_FILE));
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, kTag,
                              "stat() success for data/log/mediaBDflow.log while "
                              "ro.media.bdflow closed"));
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, kTag,
                              "stat() success for data/log/mediaBDcont.log while "
                              "ro.media.bdcount closed"));

    // Calls are accepted and dropped; a forced send finds no writer.
    mLog.Clear();
    probe->Queue(Exception(901));
    probe->OnSrvEvent(Plain(Service::EVENT_FORCE_SEND, 0));
    EXPECT_EQ(mLog.ToString(), std::string("6 ") + kTag + ": SendLogEventLogSrv error\n");
}

TEST_F(ServiceTest, CleanUpRemovesOnlyTheFilesWhoseSwitchIsZero) {
    ScopedProperty flow("ro.media.bdflow", "2");
    fs::create_directories("data/log");
    std::ofstream(BD_FLOW_FILE) << "kept";
    // A count "file" that remove cannot take.
    fs::create_directories(std::string(BD_COUNT_FILE) + "/child");
    ServiceProbe* probe = &Start();
    EXPECT_EQ(probe->mBDFlowWriter, nullptr);
    EXPECT_EQ(ReadFile(BD_FLOW_FILE), "kept");
    EXPECT_TRUE(mLog.Contains(
            ANDROID_LOG_DEBUG, kTag,
            "remove file data/log/mediaBDcont.log failed, err: " + std::to_string(ENOTEMPTY)));
}

TEST_F(ServiceTest, FileMessagesReachOnlyTheFileWritersThatExist) {
    fs::create_directories("data/log");
    ScopedProperty flow("ro.media.bdflow", "1");
    ServiceProbe* probe = &Start();
    ASSERT_EQ(probe->mBDCountWriter, nullptr);
    const std::string before = DumpText(*probe->mBDFlowWriter);
    probe->OnSrvEvent(Plain(Service::EVENT_BD_FLOW_COUNT_MSG, getpid(), 20000, "both files"));
    EXPECT_NE(DumpText(*probe->mBDFlowWriter), before);
    EXPECT_NE(DumpText(*probe->mBDFlowWriter).find("both files"), std::string::npos);

    // Type 5 flushes the flow writer's memory to its file.
    EXPECT_EQ(ReadFile(BD_FLOW_FILE).find("both files"), std::string::npos);
    probe->OnSrvEvent(Plain(Service::EVENT_BD_WRITE_FILES));
    EXPECT_NE(ReadFile(BD_FLOW_FILE).find("both files"), std::string::npos);
    EXPECT_EQ(mLog.CountContaining(kTag, "unknown event type"), 0u);
}

TEST_F(ServiceTest, RoutesPassTheFieldsTheirWriterCallTakes) {
    ServiceProbe* probe = &Start();
    using BigData = Service::BigDataEvent;
    probe->Queue(Exception(901));
    probe->Queue(new BigData(Service::EVENT_BIGDATA_STRING, 916120001, String8("pname"),
                             String8("fname"), 7));
    probe->Queue(
            new BigData(Service::EVENT_BIGDATA_DUAL_BLUETOOTH, 916700013, String8("pkg"), 1, 2, 3));
    probe->Queue(Plain(Service::EVENT_FORCE_SEND, 5));
    ASSERT_TRUE(probe->Drain(mLog)) << mLog.ToString();
    const std::vector<std::string> events = mEvents.Lines();
    EXPECT_TRUE(AnyLineHas(events, R"({"id":901,"params":[{"name":"EeventLevel","int":1})"));
    EXPECT_TRUE(AnyLineHas(events, R"({"name":"DURATION","int":7})"));
    EXPECT_TRUE(AnyLineHas(events, R"({"name":"localStreamType","int":1},)"
                                   R"({"name":"oppositeStreamType","int":2},)"
                                   R"({"name":"preemptFlag","int":3})"));

    // Unknown types are reported only on a debuggable device; 7 is OnSrvEvent's own.
    probe->OnSrvEvent(Plain(0));
    probe->OnSrvEvent(Plain(22));
    {
        Mutex::Autolock lock(probe->mDispatchLock);
        probe->OnSrvEventOther(Exception(902));
    }
    for (int type : {0, 22, 7}) {
        EXPECT_TRUE(mLog.Contains(ANDROID_LOG_ERROR, kTag,
                                  "OnSrvEvent unknown event type " + std::to_string(type)));
    }
    probe->mDebuggable = false;
    mLog.Clear();
    probe->OnSrvEvent(Plain(22));
    EXPECT_EQ(mLog.CountContaining(kTag, "unknown event type"), 0u);
}

TEST_F(ServiceTest, QueueHoldsAtMost512EventsAndDispatchesThemInArrivalOrder) {
    ServiceProbe* probe = &Start();
    constexpr int32_t kFirst = 2000000;
    // The worker takes the first event and waits with it for the dispatch
    // lock; taken, it no longer counts against the bound.
    probe->mDispatchLock.lock();
    probe->Queue(Plain(kFirst));
    const bool parked = Eventually([&] { return probe->getStrongCount() == 2; });
    int32_t queued = 1;
    while (parked && queued < 600 && mLog.CountContaining(kTag, "eventQueue full") == 0) {
        probe->Queue(Plain(kFirst + queued++));
    }
    probe->mDispatchLock.unlock();
    ASSERT_TRUE(parked);
    const int32_t accepted = queued - 1;
    ASSERT_TRUE(mLog.WaitFor(
            kTag, "OnSrvEvent unknown event type " + std::to_string(kFirst + accepted - 1)));

    EXPECT_EQ(accepted, 1 + 512);
    EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag, "eventQueue full: too many events blocked!"), 1u);
    std::vector<int32_t> dispatched;
    for (const LogLine& line : mLog.Lines()) {
        int32_t type = 0;
        if (sscanf(line.message.c_str(), "OnSrvEvent unknown event type %d", &type) == 1 &&
            type >= kFirst && type < kFirst + 1000) {
            dispatched.push_back(type - kFirst);
        }
    }
    std::vector<int32_t> expected(accepted);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(dispatched, expected);
}

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

TEST_F(ServiceTest, AnIdleWorkerQueuesAWriteCheckThatLetsDueWritersUpload) {
    ScopedProperty check("ro.media.checkduration", "1");
    ScopedProperty upload("ro.media.uploadduration", "2");
    ServiceProbe* probe = &Start();
    EXPECT_TRUE(mLog.Contains(ANDROID_LOG_DEBUG, kTag, "LogSendThread mWriteCheckDuration = 1S"));
    probe->Queue(Exception(901));
    // Nothing else arrives: only a write check can find the exception due.
    EXPECT_TRUE(Eventually([&] { return !UploadsOf(mEvents.Lines(), 901).empty(); }));
}

TEST_F(ServiceTest, ShutdownLetsTheUploadingWritersSendAndDropsTheFileWriters) {
    fs::create_directories("data/log");
    ScopedProperty flow("ro.media.bdflow", "1");
    ServiceProbe* probe = &Start();
    probe->Queue(Exception(901));
    probe->Queue(new Service::BigDataEvent(Service::EVENT_BIGDATA_PKG, 916600038,
                                           String8("new.pkg"), String8("old.pkg"), String8("x")));
    probe->Queue(Plain(Service::EVENT_BD_FLOW_MSG, 1, 10000, "flow"));
    ASSERT_TRUE(probe->Drain(mLog));
    EXPECT_TRUE(mEvents.Lines().empty());

    Stop();
    const std::vector<std::string> events = mEvents.Lines();
    EXPECT_TRUE(!UploadsOf(events, 901).empty());
    EXPECT_TRUE(
            AnyLineHas(events, R"({"id":916600038,"params":[{"name":"NEW_PKG","str":"new.pkg"})"));
    EXPECT_EQ(ReadFile(BD_FLOW_FILE).find("flow"), std::string::npos);
}

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
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed("mediaLogSend") == 0; }));
    EXPECT_EQ(CountOpenFiles(), fds);
    const std::vector<std::string> events = mEvents.Lines();
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        EXPECT_EQ(UploadsOf(events, kFirstId + cycle).size(), 1u) << cycle;
    }
}

// The published service lives on until the process ends.
TEST(ServiceLibraryTest, TheLibraryPublishesTheServiceAndExportsNothingElse) {
    TempWorkDir dir;
    LogCapture log;
    ScopedBinderDir binderDir;
    void* library = dlopen(SERVICE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    EXPECT_EQ(dlsym(library, "_ZN7android21VyMediaMonitorServiceC1Ev"), nullptr);
    auto launch = reinterpret_cast<void (*)()>(dlsym(library, "launchVyMediaMonitorService"));
    ASSERT_NE(launch, nullptr);
    launch();
    EXPECT_NE(defaultServiceManager()->checkService(String16("Vymedia.monitor")), nullptr);
    EXPECT_TRUE(log.Contains(ANDROID_LOG_INFO, kTag, "launchVyMediaMonitorService comes..."));
    EXPECT_TRUE(log.Contains(ANDROID_LOG_INFO, kTag, "VyMediaMonitorService launched..."));
}

}  // namespace
