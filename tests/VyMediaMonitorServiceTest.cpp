// The send thread's bounds and write check, the routes from a call to its
// writer, the call capture and the service's shutdown, in process.
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/MonitorHarness.h"
#include "support/ServiceFixture.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"

using namespace android;
namespace fs = std::filesystem;
using Service = VyMediaMonitorService;

namespace {

constexpr char kTag[] = "Vymedia_monitor";
constexpr auto kDeadline = std::chrono::seconds(30);

// Each switch unset unless a test sets it, so the defaults hold.
class ServiceTest : public ServiceFixture {};

TEST_F(ServiceTest, QueueHoldsAtMost512EventsAndDispatchesThemInArrivalOrder) {
    ServiceProbe* probe = &Start();
    constexpr int32_t kFirst = 2000000;
    // The worker takes the first event and waits with it for the dispatch
    // lock; taken, it no longer counts against the bound.
    probe->mDispatchLock.lock();
    probe->Queue(Plain(kFirst));
    const bool parked = probe->WorkerTookQueue();
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

    // Counted once its dispatch has returned, just after the line above.
    EXPECT_TRUE(Eventually([&] { return StatsOf(*probe)["worker"]["dispatched"] == accepted; }));
    const Json::Value stats = StatsOf(*probe);
    EXPECT_EQ(stats["queue"]["dropped"]["queue_full"].asInt(), 1);
    EXPECT_GE(stats["queue"]["high_water"].asInt(), 511);
    EXPECT_EQ(stats["queue"]["queued"]["other"].asInt(), accepted);
    EXPECT_EQ(stats["queue"]["depth"].asInt(), 0);
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
    const bool parked = probe->WorkerTookQueue();
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
    EXPECT_EQ(StatsOf(*probe)["queue"]["dropped"]["byte_limit"].asInt(), 80);

    // Taken by the worker, those events no longer count against the limit.
    for (int32_t i = 100; i < 120; ++i) {
        probe->Queue(Plain(kFirst + i, -1, -1, text.c_str()));
    }
    ASSERT_TRUE(probe->Drain(mLog));
    for (int32_t i = 100; i < 120; ++i) {
        EXPECT_TRUE(mLog.Contains(ANDROID_LOG_ERROR, kTag,
                                  "OnSrvEvent unknown event type " + std::to_string(kFirst + i)))
                << i;
    }
}

TEST_F(ServiceTest, AWriteCheckEverySecondUploadsWhatHasComeDueWithoutAnotherCall) {
    ScopedProperty check("ro.media.checkduration", "1");
    ScopedProperty upload("ro.media.uploadduration", "1");
    ServiceProbe& probe = Start();
    probe.WriteLogMsg(906, 1, 2, String8("late"), String8("app"));
    probe.WriteBigData(916300002, "k", 1, 0);
    const std::vector<std::string> lines = mEvents.WaitFor([](const std::vector<std::string>& l) {
        return !UploadsOf(l, 906).empty() && !UploadsOf(l, 916300002).empty();
    });
    EXPECT_EQ(UploadsOf(lines, 906).size(), 1u);
    EXPECT_EQ(UploadsOf(lines, 916300002).size(), 1u);
}

// What each call must upload, or leave in its record files, once the worker
// has routed it to its writer.
TEST_F(ServiceTest, EachRouteHandsItsWriterTheFieldsOfItsCall) {
    ScopedProperty flow("ro.media.bdflow", "1");
    ScopedProperty count("ro.media.bdcount", "1");
    fs::create_directories("data/log");
    ServiceProbe& probe = Start();
    probe.mStaticTypeFlags.add(30000, 3);  // both files
    ActAs(1013);
    probe.WriteMediaBigData(77, 30000, "bo\nth");
    probe.WriteBigData(916000000, "sub", "pkg.type", "param", 3);
    probe.WriteBigData(990971022, "activity", "pkg", "action");
    probe.WriteBigData(916700001, "rec.pkg", 1, 2, 3, 4);
    probe.WriteBigData(916019104, "speaker", "out.pkg", 5, 6);
    probe.WriteLogMsg(905, 1, 2, String8("why"), String8("app"), 7, String8("c"), 908);
    probe.WriteBigData(916300001, "k\n", 1, 0);
    ASSERT_TRUE(probe.Drain(mLog));
    // A client's line breaks stay escaped in the dumps.
    EXPECT_NE(DumpText(*probe.mBDFlowWriter).find("bo\\nth"), std::string::npos);
    EXPECT_NE(DumpText(*probe.mBigDataWriter).find("type: k\\n, value: 1\n"), std::string::npos);
    EXPECT_NE(DumpText(*probe.mBDCountWriter).find("\t30000:1\n"), std::string::npos);
    Stop();  // uploads what the writers hold

    const std::vector<std::string> lines = mEvents.Lines();
    const auto upload = [&lines](int id) {
        const std::vector<std::string> uploads = UploadsOf(lines, id);
        EXPECT_EQ(uploads.size(), 1u) << id;
        return uploads.empty() ? std::string() : uploads[0];
    };
    const std::string pkgType = upload(916000000);
    EXPECT_EQ(StrParam(pkgType, "sub"), "pkg.type");
    EXPECT_EQ(StrParam(pkgType, "PARAMETER"), "param");
    const std::string pkg = upload(990971022);
    EXPECT_EQ(StrParam(pkg, "ACTIVITY") + StrParam(pkg, "ACTION") + StrParam(pkg, "PACKAGENAME"),
              "activityactionpkg");
    const std::string recording = upload(916700001);
    EXPECT_EQ(StrParam(recording, "PACKAGENAME"), "rec.pkg");
    EXPECT_EQ(std::vector<long>({IntParam(recording, "SOURCE"), IntParam(recording, "SAMPLERATE"),
                                 IntParam(recording, "BITWIDTH"),
                                 IntParam(recording, "CHANNELCOUNT")}),
              std::vector<long>({1, 2, 3, 4}));
    const std::string output = upload(916019104);
    EXPECT_EQ(IntParam(output, "speaker"), 5);
    EXPECT_EQ(IntParam(output, "Total"), 5);
    EXPECT_EQ(StrParam(output, "pkgName"), "out.pkg");
    const std::string exception = upload(905);
    EXPECT_EQ(IntParam(exception, "ParaInt"), 7);
    EXPECT_EQ(IntParam(exception, "AssociatedEeventID"), 908);
}

TEST_F(ServiceTest, CaptureKeepsTwoFilesWithinItsLimitOnlyOnDebuggableBuilds) {
    fs::create_directories("data/log");
    const std::string current = CallCapture::FILE_NAME;
    const std::string previous = current + ".1";
    {
        ScopedProperty capture("ro.media.capture", "64");
        ScopedProperty debuggable("ro.media.debuggable", "false");
        Start().WriteKpis(String8("k"));
        Stop();
        EXPECT_FALSE(fs::exists(current));
    }
    ScopedProperty capture("ro.media.capture", "1");
    ServiceProbe& service = Start();
    const std::string kpi(150, 'k');
    for (int i = 0; i < 10; ++i) {
        service.WriteKpis(String8((kpi + std::to_string(i)).c_str()));
    }
    service.WriteKpis(String8("a\0b", 3));  // kept whole, past the zero byte
    service.WriteLogMsg(1, 2, nullptr);  // refused: not an audio or media uid
    service.WriteKpis(String8(std::string(2000, 'x').c_str()));
    Stop();

    const std::string both = ReadFile(previous) + ReadFile(current);
    for (const std::string& file : {previous, current}) {
        EXPECT_LE(fs::file_size(file), 1024u) << file;
        const std::string text = ReadFile(file);
        EXPECT_EQ(text.rfind("# Calls to Vymedia.monitor captured on ", 0), 0u) << text;
        EXPECT_NE(text.find("\n# ro.media.capture=1\n"), std::string::npos) << text;
        EXPECT_NE(text.find("\nas " + std::to_string(getuid()) + "\n"), std::string::npos)
                << "each file says who calls\n" << text;
    }
    EXPECT_EQ(both.find(kpi + "3\n"), std::string::npos) << "older files are gone\n" << both;
    const std::string refused = ": WriteLogMsg i32 1 i32 2 null\n";
    const std::string tooLong = "# a call of 2014 bytes not captured: over the size limit\n";
    EXPECT_LT(both.find("WriteKpis s8 " + kpi + "9\n"), both.find(refused)) << both;
    EXPECT_NE(both.find("WriteKpis s8 \"a\\x00b\"\n"), std::string::npos) << both;
    EXPECT_LT(both.find(refused), both.find(tooLong)) << both;
    EXPECT_NE(both.find(tooLong), std::string::npos) << both;
}

// What is planted at the capture's names is neither followed nor waited on:
// a second name of another file and a FIFO are replaced; with a folder at
// the ".1", the file starts over each time it cannot be moved there.
TEST_F(ServiceTest, PlantedCapturePathsAreReplacedNeverFollowed) {
    const std::string current = CallCapture::FILE_NAME;
    fs::create_directories(current + ".1");
    std::ofstream("target") << "precious";
    fs::create_hard_link("target", current);
    ScopedProperty capture("ro.media.capture", "1");
    const std::string kpi(150, 'k');
    RunWithDeadline(std::chrono::seconds(30), [&] {
        ServiceProbe& service = Start();
        for (int i = 0; i < 10; ++i) {
            service.WriteKpis(String8((kpi + std::to_string(i)).c_str()));
        }
        EXPECT_TRUE(Eventually([&] {
            const Json::Value stats = StatsOf(service)["capture"];
            return stats["path_replaced"] == 1 && stats["rename_failures"].asInt() >= 1;
        }));
        Stop();
        fs::remove(current);
        ASSERT_EQ(mkfifo(current.c_str(), 0600), 0);
        Start().WriteKpis(String8("after a FIFO"));
        Stop();
    });
    EXPECT_EQ(ReadFile("target"), "precious");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(current)));
    EXPECT_EQ(fs::hard_link_count(current), 1u);
    EXPECT_NE(ReadFile(current).find("WriteKpis s8 \"after a FIFO\"\n"), std::string::npos)
            << ReadFile(current);
}

// Drops the last reference to probe on another thread while the worker waits
// at probe's dispatch lock, which the caller holds and which is released
// here; returns once the shutdown has run.
void ReleaseWhileDispatchHeld(Mutex& dispatch, sp<ServiceProbe>* probe) RELEASE(dispatch) {
    std::thread release([probe] { probe->clear(); });
    dispatch.unlock();
    release.join();
}

// The worker holds no reference: the last one goes elsewhere, and the event
// in its hand, the rest of its batch and the queue all reach the writers.
TEST_F(ServiceTest, TheLastReferenceDroppedMidBatchLosesNothingQueued) {
    sp<ServiceProbe> probe = &Start();
    mService.clear();
    Mutex& dispatch = probe->mDispatchLock;
    dispatch.lock();
    probe->Queue(Exception(901));
    const bool parked = probe->WorkerTookQueue();
    probe->Queue(Exception(902));
    probe->Queue(Exception(903));
    ReleaseWhileDispatchHeld(dispatch, &probe);
    ASSERT_TRUE(parked);

    EXPECT_TRUE(Eventually([] { return CountThreads("mediaLogSend") == 0; }));
    for (int id : {901, 902, 903}) {
        EXPECT_EQ(UploadsOf(mEvents.Lines(), id).size(), 1u) << id;
    }
}

// A KPI writer whose first upload waits until the test opens it: the worker
// stops there, within a batch.
class GatedKpiWriter : public MediaKpiWriter {
public:
    using MediaKpiWriter::MediaKpiWriter;
    std::promise<void> entered;
    std::promise<void> open;

    bool DoSendMediaLog() override REQUIRES(mLock) {
        if (!mEntered.exchange(true)) {
            entered.set_value();
            open.get_future().wait_for(kDeadline);
        }
        return MediaKpiWriter::DoSendMediaLog();
    }

private:
    std::atomic<bool> mEntered{false};
};

// What a kill loses must not show as dispatched: a batch's events count once
// all of it has run and been written out, and until then are in hand.
TEST_F(ServiceTest, EventsCountAsDispatchedOnlyOnceTheirBatchIsWrittenOut) {
    ServiceProbe& probe = Start();
    const sp<GatedKpiWriter> kpi = new GatedKpiWriter(probe.mPolicy);
    probe.mKpiWriter = kpi;
    probe.mDispatchLock.lock();
    probe.Queue(Exception(911));
    const bool parked = probe.WorkerTookQueue();
    probe.Queue(Exception(912));
    probe.Queue(Exception(913));
    probe.Queue(Plain(Service::EVENT_FORCE_SEND, 0));
    probe.Queue(Exception(914));
    probe.mDispatchLock.unlock();
    ASSERT_TRUE(parked);
    const std::future_status entered = kpi->entered.get_future().wait_for(kDeadline);
    MonitorStats stats;
    probe.mLogSendThread->CopyStatsTo(&stats);
    kpi->open.set_value();
    ASSERT_EQ(entered, std::future_status::ready);
    EXPECT_EQ(stats.dispatched, 1u);
    EXPECT_EQ(stats.inHand, 4u);
    EXPECT_EQ(stats.depth, 0u);
}

// The events still queued when the service goes reach the writers before the
// shutdown's uploads; here no worker ever takes them.
TEST_F(ServiceTest, TheShutdownDispatchesWhatIsStillQueued) {
    sp<MonitorHarness> service = new MonitorHarness;
    service->Queue(Exception(904));
    service.clear();
    EXPECT_EQ(UploadsOf(mEvents.Lines(), 904).size(), 1u);
}

}  // namespace
