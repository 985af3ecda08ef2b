#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <android/log.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <private/android_filesystem_config.h>

#include "service/CallerOutput.h"
#include "service/DumpSlots.h"
#include "service/MonitorStatsRenderer.h"
#include "support/LogCapture.h"
#include "support/MonitorHarness.h"
#include "support/TestEnv.h"
#include "support/WriterOutput.h"

using namespace android;
using Lines = std::vector<std::string>;

namespace {

constexpr char kTag[] = "Vymedia_monitor";
constexpr char kNullLine[] = "INVALID OPERATION: null pointer dereference";

class MonitorEntryPointsTest : public ::testing::Test {
protected:
    // A service whose start-up lines are already taken.
    sp<MonitorHarness> MakeService() {
        sp<MonitorHarness> service = new MonitorHarness;
        mLog.Clear();
        return service;
    }

    // The service's lines since the last call, "<priority> <message>".
    Lines TakeServiceLines() {
        Lines lines;
        for (const LogLine& line : mLog.Lines()) {
            if (line.tag == kTag) {
                lines.push_back(std::to_string(line.priority) + " " + line.message);
            }
        }
        mLog.Clear();
        return lines;
    }

    ScopedProperty mDebuggable{"ro.media.debuggable", "true"};
    TempWorkDir mDir;
    LogCapture mLog;
};

// What a dump with these words writes.
std::string DumpWith(VyMediaMonitorService& service, const std::vector<const char*>& words) {
    Vector<String16> args;
    for (const char* word : words) {
        args.add(String16(word));
    }
    return WrittenText([&](int fd) { EXPECT_EQ(service.Dump(fd, args), NO_ERROR); });
}

TEST(MonitorAccessTest, DumpSlotsHoldOnePerCallerAndKeepOneForRootAndSystem) {
    DumpSlots slots;
    const int root = slots.Take(AID_ROOT);
    EXPECT_GE(root, 0);
    EXPECT_EQ(slots.Take(AID_ROOT), -1) << "one per caller";
    const int shell = slots.Take(AID_SHELL);
    EXPECT_GE(shell, 0) << "root took the slot kept for it";
    EXPECT_EQ(slots.Take(AID_SYSTEM), -1) << "two at most";
    slots.Give(root);
    EXPECT_EQ(slots.Take(AID_MEDIA), -1) << "the slot kept for root and system";
    EXPECT_EQ(slots.Take(AID_SHELL), -1) << "one per caller";
    EXPECT_GE(slots.Take(AID_SYSTEM), 0);
    slots.Give(shell);
    EXPECT_GE(slots.Take(AID_MEDIA), 0);
}

TEST(MonitorAccessTest, CheckUidAdmitsExactlyTheSixMediaUids) {
    std::set<int> admitted;
    for (int uid = -2000; uid < 200000; ++uid) {
        if (VyMediaMonitorService::CheckUid(uid)) {
            admitted.insert(uid);
        }
    }
    EXPECT_EQ(admitted, (std::set<int>{1005, 1006, 1013, 1031, 1040, 1046}));
    EXPECT_FALSE(VyMediaMonitorService::CheckUid(INT_MIN));
    EXPECT_FALSE(VyMediaMonitorService::CheckUid(INT_MAX));
}

TEST_F(MonitorEntryPointsTest, OnlyTheFirstThreeOperationsRefuseOtherUidsWithALine) {
    sp<MonitorHarness> s = MakeService();
    const std::string radar = DumpText(*s->mExceptionLogWriter);
    ActAs(1047, 321);
    s->ForceLogSend(1);
    s->WriteLogMsg(3, 9, "direct");
    s->WriteMediaBigData(7, 10000, "m");
    s->WriteLogMsg(901, 1, 2, String8("mute"), String8("app"));  // not an audio loss
    s->WriteLogMsg(902, 3, 4, String8("MUTE"), String8("app"), 5, String8("c"), 903);
    s->WriteKpis(String8("916019001=1"));
    EXPECT_EQ(s->TakeQueued(), Lines({"7:901 s=mute,app, i=321,1,2,-1,-1",
                                      "8:902 s=MUTE,app,c i=321,3,4,5,903",
                                      "9:0 s=916019001=1 i="}));
    EXPECT_EQ(DumpText(*s->mExceptionLogWriter), radar);
    const std::string from = " VyMediaMonitorService from pid=321, uid=1047\n";
    EXPECT_EQ(TakeServiceLines(), Lines({"4 Permission Denial: can't ForceLogSend" + from,
                                         "4 Permission Denial: can't WriteLogMsg" + from,
                                         "4 Permission Denial: can't WriteMediaBigData" + from}));
    const Json::Value stats = StatsOf(*s);
    for (int op = 0; op < 21; ++op) {
        EXPECT_EQ(stats["operations"][op]["refused"].asInt(), op < 3 ? 1 : 0) << op;
    }
    EXPECT_EQ(stats["callers"]["last_refused_uid"].asInt(), 1047);
    EXPECT_EQ(stats["callers"]["last_refused_pid"].asInt(), 321);

    ActAs(1013);
    s->ForceLogSend(5);
    s->WriteLogMsg(3, 2, nullptr);
    s->WriteLogMsg(3, 9, "direct");  // to the writer at once
    s->WriteLogMsg(3, 10, "after");  // the one type above it is queued
    EXPECT_EQ(s->TakeQueued(),
              Lines({"16:0 s= i=-1,5,-1", "1:0 s= i=-1,3,2", "1:0 s=after i=-1,3,10"}));
    EXPECT_EQ(StatsOf(*s)["queue"]["queued"]["log_msg"].asInt(), 2);
    EXPECT_NE(DumpText(*s->mExceptionLogWriter).find("direct"), std::string::npos);
    EXPECT_EQ(mLog.Count(ANDROID_LOG_ERROR, kTag, kNullLine), 1u);

    ScopedProperty radarOff("ro.media.radar", "0");
    sp<MonitorHarness> withoutRadar = MakeService();
    withoutRadar->WriteLogMsg(4, 9, "queued");
    EXPECT_EQ(withoutRadar->TakeQueued(), Lines({"1:0 s=queued i=-1,4,9"}));
}

TEST_F(MonitorEntryPointsTest, FileMessagesFollowTheTypeFlagsAndTheRangeOnlyAfterABadFlag) {
    sp<MonitorHarness> s = MakeService();
    // Beside the registered types: one for both files, and flags of no file.
    for (auto [type, flag] : {std::pair{30000, 3}, {15000, 4}, {25000, 0}, {5000, 7}}) {
        s->mStaticTypeFlags.add(type, flag);
    }
    ActAs(1013);
    const std::pair<int, const char*> cases[] = {
        {10000, "2"},   {20100, "3"},   {20000, "3"},     {30000, "4"},  {15000, "2"},
        {25000, "3"},   {5000, nullptr}, {10001, nullptr}, {25001, nullptr},
        {-1, nullptr},  {INT_MAX, nullptr},
    };
    for (auto [type, eventType] : cases) {
        s->WriteMediaBigData(77, type, "m");
        EXPECT_EQ(s->TakeQueued(), eventType == nullptr
                                           ? Lines()
                                           : Lines({std::string(eventType) + ":0 s=m i=77,-1," +
                                                    std::to_string(type)}))
                << type;
    }
    EXPECT_EQ(TakeServiceLines(), Lines({"3 bad flag used for bigdata type: 15000",
                                         "3 bad flag used for bigdata type: 25000",
                                         "3 bad flag used for bigdata type: 5000"}));
}

TEST_F(MonitorEntryPointsTest, DumpNeedsDebuggableAValidFdAndTheMediaUidOrThePermission) {
    ScopedProperty flow("ro.media.bdflow", "1");
    sp<MonitorHarness> s = MakeService();
    // Something distinct in each writer (the count writer is off).
    s->mExceptionLogWriter->WriteLogMsg(1, 2, String8("radar"));
    s->mBDFlowWriter->WriteBigDataMsg(1, 10000, String8("flow"));
    s->mExceptionWriter->WriteException(1, 901, 1, 0, String8("exception"), String8(""));
    s->mKpiWriter->WriteKpis(String8("916019003=1"));
    s->mBigDataWriter->WriteBigData(916220004, String8("bigdata"), 5, 6);
    const std::string all = DumpText(*s->mExceptionLogWriter) + DumpText(*s->mBDFlowWriter) +
                            DumpText(*s->mExceptionWriter) + DumpText(*s->mKpiWriter) +
                            DumpText(*s->mBigDataWriter);
    mLog.Clear();
    for (uid_t uid : {1013, 2000, 1000, 0}) {
        ActAs(uid);
        EXPECT_EQ(DumpWith(*s, {}), all) << uid;
    }
    ActAs(1047, 321);
    EXPECT_EQ(DumpWith(*s, {}), "Permission Denial: can't Dump mediaMonitor from pid=321, uid=1047\n");
    EXPECT_EQ(s->Dump(-1, {}), NO_ERROR);
    EXPECT_EQ(TakeServiceLines(), Lines({"5 VyMediaMonitorService Dump fd is invalid"}));

    // The platform's own arguments change nothing; another is named first.
    ActAs(1013);
    for (const auto& words : std::vector<std::vector<const char*>>{
                 {"-a"}, {"--dump-priority", "CRITICAL"}, {"--dump-priority", "NORMAL", "-a"}}) {
        EXPECT_EQ(DumpWith(*s, words), all) << words[0];
    }
    EXPECT_EQ(DumpWith(*s, {"-a", "--bogus\n"}),
              "dump: unknown argument \"--bogus\\n\" ignored; --help lists the arguments\n" + all);
    const std::string usage = DumpWith(*s, {"--help"});
    EXPECT_EQ(usage.rfind("usage: dump ", 0), 0u) << usage;
    EXPECT_EQ(DumpWith(*s, {"-h"}), usage);
    const std::string transacted = WrittenText([&s](int fd) {
        Parcel data;
        Parcel reply;
        data.writeFileDescriptor(fd);
        data.writeInt32(0);
        EXPECT_EQ(s->transact(IBinder::DUMP_TRANSACTION, data, &reply), NO_ERROR);
    });
    EXPECT_EQ(transacted, all);

    ScopedProperty notDebuggable("ro.media.debuggable", "false");
    sp<MonitorHarness> quiet = MakeService();
    EXPECT_EQ(DumpWith(*quiet, {}), "");
    EXPECT_EQ(quiet->Dump(-1, {}), NO_ERROR);
    EXPECT_EQ(TakeServiceLines(), Lines());
}

// A dump's text goes to the caller's descriptor without waiting past the
// deadline, without a signal when the caller has gone, and leaves the
// descriptor as blocking as it was.
TEST(CallerOutputTest, WritesWithinTheDeadlineRaisesNoSignalAndKeepsTheCallersFlags) {
    const std::string text(256 * 1024, 'd');
    int unread[2];
    ASSERT_EQ(pipe2(unread, O_CLOEXEC), 0);
    const size_t taken = WriteToCaller(unread[1], text.data(), text.size(), ms2ns(50));
    EXPECT_GT(taken, 0u);
    EXPECT_LT(taken, text.size());
    const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(devNull, 0);
    EXPECT_EQ(WriteToCaller(devNull, text.data(), text.size(), 0), text.size());
    for (int fd : {unread[1], devNull}) {
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << fd;
    }
    // As a service's process has it, whatever the test runner left ignored
    // or blocked.
    signal(SIGPIPE, SIG_DFL);
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_UNBLOCK, &pipeSignal, nullptr);
    int gone[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, gone), 0);
    close(gone[1]);
    EXPECT_EQ(WriteToCaller(gone[0], text.data(), text.size(), 0), 0u);
    for (int fd : {unread[0], unread[1], devNull, gone[0]}) {
        close(fd);
    }
}

// Each field name of a statistics object, arrays' elements as "name[]" and
// each writer's fields as "writers.NAME.field".
void FieldNames(const Json::Value& value, const std::string& path, std::set<std::string>* names) {
    if (value.isObject()) {
        for (const std::string& name : value.getMemberNames()) {
            const bool writer = path == "writers";
            FieldNames(value[name], path.empty() ? name : path + "." + (writer ? "NAME" : name),
                       names);
        }
    } else if (value.isArray()) {
        for (const Json::Value& element : value) {
            FieldNames(element, path + "[]", names);
        }
    } else {
        names->insert(path);
    }
}

// The fields that README's statistics section lists.
std::set<std::string> DocumentedFields() {
    std::ifstream readme(README_PATH);
    std::set<std::string> names;
    bool inSection = false;
    for (std::string line; std::getline(readme, line);) {
        if (line.rfind("## ", 0) == 0) {
            inSection = line == "## Service statistics";
        } else if (inSection && line.rfind("| `", 0) == 0) {
            names.insert(line.substr(3, line.find('`', 3) - 3));
        }
    }
    return names;
}

// The words of the text's row name, the name left out.
std::vector<std::string> RowOf(const std::string& text, const std::string& name) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string first;
        if (words >> first && first == name) {
            return {std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
        }
    }
    return {};
}

TEST(MonitorStatsTextTest, TimesReadAsAgesAndWritersComeInTheirFixedOrder) {
    constexpr time_t kNow = 2000000000;
    MonitorStats stats;
    stats.writers[3].lastUploadTime = kNow - 12;
    stats.writers[4].lastUploadTime = kNow - 90 * 60;
    stats.writers[5].lastUploadTime = kNow - 3 * 86400;
    const std::string text = RenderStatsText(stats, kNow);
    const std::vector<std::string> writers = {"exception_log", "bd_flow", "bd_count",
                                              "exception",     "kpi",     "bigdata"};
    EXPECT_EQ(RowOf(text.substr(text.find("Writers:\n") + 9), "exception_log"),
              std::vector<std::string>(writers.begin() + 1, writers.end()));
    EXPECT_EQ(RowOf(text, "last_upload_time"),
              (std::vector<std::string>{"never", "never", "never", "12", "s", "ago", "90", "min",
                                        "ago", "3", "d", "ago"}));
    EXPECT_EQ(RowOf(text, "last_upload_date").at(0), "-");
    EXPECT_EQ(RowOf(text, "queued.video_caton_vague"), std::vector<std::string>{"0"});
    EXPECT_EQ(RowOf(text, "21").at(0), "MonitorPlayingApp");
}

TEST_F(MonitorEntryPointsTest, StatsArgumentsPassTheDumpsChecksAndOnlyTheirOwnWordsWork) {
    sp<MonitorHarness> s = MakeService();
    // The exception writer keeps records up to its cap and refuses the rest.
    const String8 reason(std::string(60, 'r').c_str());
    for (int i = 0; i < 300; ++i) {
        s->mExceptionWriter->WriteException(1, 1000 + i, 1, 0, reason, String8());
    }
    const Json::Value stats = StatsOf(*s);
    std::set<std::string> fields;
    FieldNames(stats, "", &fields);
    EXPECT_EQ(fields, DocumentedFields());
    const Json::Value& writer = stats["writers"]["exception"];
    EXPECT_GE(writer["charge"].asInt(), writer["cap"].asInt());
    EXPECT_GT(writer["refused"]["cap"].asInt(), 0);
    EXPECT_EQ(writer["records"].asInt() + writer["refused"]["cap"].asInt(), 300);

    ActAs(1047, 321);
    for (const char* word : {"--stats", "--reset-stats"}) {
        EXPECT_EQ(DumpWith(*s, {word}),
                  "Permission Denial: can't Dump mediaMonitor from pid=321, uid=1047\n");
    }
    EXPECT_EQ(StatsOf(*s)["writers"]["exception"]["refused"], writer["refused"]);
    ActAs(1013);
    // The heading's clock may tick between the two dumps.
    const auto body = [](const std::string& text) { return text.substr(text.find('\n')); };
    EXPECT_EQ(body(DumpWith(*s, {"--stats", "-a"})), body(DumpWith(*s, {"--stats"})));
    EXPECT_EQ(DumpWith(*s, {"--reset-stats"}), "statistics reset\n");
    EXPECT_EQ(StatsOf(*s)["writers"]["exception"]["refused"]["cap"].asInt(), 0);
    for (const auto& words :
         std::vector<std::vector<const char*>>{{"--json"}, {"--reset-stats", "--stats"}}) {
        const std::string text = DumpWith(*s, words);
        EXPECT_EQ(text.find("dump: "), 0u) << text;
        EXPECT_EQ(text.find("\nusage: dump "), text.find('\n')) << text;
    }
    mLog.Clear();
    Vector<String16> stats16;
    stats16.add(String16("--stats"));
    EXPECT_EQ(s->Dump(-1, stats16), NO_ERROR);
    EXPECT_EQ(TakeServiceLines(), Lines({"5 VyMediaMonitorService Dump fd is invalid"}));

    ScopedProperty notDebuggable("ro.media.debuggable", "false");
    EXPECT_EQ(DumpWith(*MakeService(), {"--stats", "--json"}), "");
}

TEST_F(MonitorEntryPointsTest, CachedStatisticsWaitForAFlushAndTheHeldOneForItsRequest) {
    sp<MonitorHarness> s = MakeService();
    EXPECT_EQ(s->Flush(), Lines());
    s->WriteBigData(916600030, "x", 1, 1);  // nothing held yet
    EXPECT_EQ(mLog.Count(ANDROID_LOG_WARN, kTag, "BigDataEvent is nullptr, stop sending"), 11u);

    for (int id = 916600008; id >= 916600002; --id) {
        s->WriteBigData(id, "old", "p", std::to_string(id).c_str());
    }
    s->WriteBigData(916600003, "new", "p", "x");
    s->WriteBigData(916600007, "u", "p", "x", 1);
    s->WriteBigData(916600007, "u", "p", "x", 0);
    s->WriteBigData(916600001, "v", "p", "x", 12);
    s->WriteBigData(916600001, "v", "p", "x", 0);  // stream 0 stays inactive
    s->MonitorBroadcastStream(1, 12);
    s->WriteBigData(916600030, "h", 7, 0);
    EXPECT_EQ(s->TakeQueued(), Lines());
    const Lines flushed = s->Flush();
    const auto pkg = [](int id) {
        return "13:" + std::to_string(id) + " s=old,,p,," + std::to_string(id) + " i=0,0,0,0,0,0";
    };
    EXPECT_EQ(flushed, Lines({"14:916600001 s=v,,p,,x i=0,0,12,0,0,0", pkg(916600002),
                              "13:916600003 s=new,,p,,x i=0,0,0,0,0,0", pkg(916600004),
                              pkg(916600005), pkg(916600006), pkg(916600007),
                              "14:916600007 s=u,,p,,x i=0,0,0,0,0,0",
                              "14:916600007 s=u,,p,,x i=0,0,1,0,0,0",
                              "15:916600009 s=PLAYING_STATUS,,,0000000000000,F:0 S:4096 D:0 "
                              "i=0,0,0,0,0,0",
                              pkg(916600008)}));
    EXPECT_EQ(s->Flush(), flushed) << "sending keeps the slots";
    mLog.Clear();
    s->WriteBigData(916600007, "u", "p", "x", 2);   // one past the usage slots
    s->WriteBigData(916600001, "v", "p", "x", 13);  // one past the stream slots
    EXPECT_EQ(TakeServiceLines(), Lines({"5 Invalid usage type, stop writing",
                                         "6 Invalid stream type, stop writing"}));
    EXPECT_EQ(s->Flush(), flushed);

    s->WriteBigData(916600030, "ignored", 9, 1);
    s->WriteBigData(916600030, "ignored", 9, 1);
    const std::vector<sp<VyMediaMonitorService::LogSrvEvent>> held = s->TakeQueuedEvents();
    ASSERT_EQ(held.size(), 2u);
    EXPECT_EQ(held[0], held[1]);
    EXPECT_EQ(Describe(held[0]), "10:916600030 s=h,,,, i=7,0,0,0,0,0");
    s->WriteBigData(916600030, "h2", 8, 2);
    s->WriteBigData(916600030, nullptr, 0, 1);
    EXPECT_EQ(s->TakeQueued(), Lines({"10:916600030 s=h2,,,, i=8,2,0,0,0,0"}));
}

}  // namespace
