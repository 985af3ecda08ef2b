// vymm-host and vymm as a user runs them: a host in a temporary root with
// its own runtime folder, a trace replayed into it, its dump, SIGTERM, and
// what it recorded and uploaded. Every wait has a deadline.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <IVyMediaMonitorService.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <json/reader.h>

#include "support/ChildProcess.h"
#include "support/TestEnv.h"
#include "tools/EventLog.h"
#include "tools/ServiceClient.h"

namespace {

constexpr int kDeadlineMs = 60000;
constexpr int kLateCalls = 100;

// Runs a tool, its standard output and error on one pipe, to its end:
// "status|output".
std::string RunTool(const std::vector<std::string>& argv) {
    ChildProcess tool(argv, -1, kDeadlineMs, true);
    const int status = tool.Finish();
    return std::to_string(status) + "|" + tool.output();
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

// The names in folder, sorted.
std::vector<std::string> FilesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The uploads recorded in path, one readable line each.
std::string Uploads(const std::string& path) {
    std::istringstream lines(ReadFile(path));
    std::string uploads;
    std::string line;
    std::string text;
    while (std::getline(lines, line)) {
        EXPECT_TRUE(vymm::FormatEvent(line, &text)) << line;
        uploads += text + "\n";
    }
    return uploads;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Waits on its folder's change notices until the uploads in file hold text;
// false when none comes for the deadline.
bool WaitForUpload(const std::string& file, const std::string& text) {
    const int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    const std::string folder = file.substr(0, file.rfind('/'));
    inotify_add_watch(watch, folder.c_str(), IN_CREATE | IN_MODIFY);
    bool found = false;
    while (!(found = Contains(Uploads(file), text))) {
        pollfd changed = {watch, POLLIN, 0};
        if (poll(&changed, 1, kDeadlineMs) != 1) {
            break;
        }
        char notices[4096];
        while (read(watch, notices, sizeof(notices)) > 0) {
        }
    }
    close(watch);
    return found;
}

// vymm-host with args, up and waiting for calls.
std::unique_ptr<ChildProcess> StartHost(std::vector<std::string> args) {
    args.insert(args.begin(), VYMM_HOST);
    auto host = std::make_unique<ChildProcess>(args, -1, kDeadlineMs, true);
    EXPECT_TRUE(host->WaitForLine("vymm-host: serving Vymedia.monitor")) << host->output();
    return host;
}

void StopHost(ChildProcess& host) {
    EXPECT_EQ(kill(host.pid(), SIGTERM), 0);
    EXPECT_EQ(host.Finish(), 0) << host.output();
}

// `vymm replay` of args, its "as" lines skipped unless the test runs as root.
std::string Replay(std::vector<std::string> args) {
    if (geteuid() != 0) {
        args.insert(args.end() - 1, "--skip-as");
    }
    args.insert(args.begin(), {VYMM, "--wait", "5000", "replay"});
    return RunTool(args);
}

// What `vymm stats --json` shows; null when it fails.
Json::Value Stats() {
    const std::string stats = RunTool({VYMM, "stats", "--json"});
    Json::Value counted;
    std::istringstream json(stats.substr(std::min<size_t>(2, stats.size())));
    if (stats.rfind("0|", 0) != 0 ||
        !Json::parseFromStream(Json::CharReaderBuilder(), json, &counted, nullptr)) {
        return Json::Value();
    }
    return counted;
}

// A fresh host in root with the properties in props replays trace and stops:
// its uploads, with the times they carry masked.
std::string UploadsOfAHostReplaying(const std::string& root, const std::string& props,
                                    const std::vector<std::string>& replay) {
    ScopedBinderDir binderDir;
    setenv("VEXEL_EVENT_LOG", (root + "/events.jsonl").c_str(), 1);
    WriteFile(root + ".prop", props);
    const std::unique_ptr<ChildProcess> host =
            StartHost({"--root", root, "--props", root + ".prop"});
    const std::string replayed = Replay(replay);
    EXPECT_EQ(replayed.rfind("0|", 0), 0u) << replayed;
    StopHost(*host);
    static const std::regex kTimes(R"(HAPPEN_TIME="[^"]*"| time=\d+)");
    return std::regex_replace(Uploads(root + "/events.jsonl"), kTimes, "TIME");
}

android::sp<android::IVyMediaMonitorService> Service() {
    return android::interface_cast<android::IVyMediaMonitorService>(vymm::FindService(0));
}

// The values one counter of the trace took, in order.
std::vector<int> CounterValues(const Json::Value& trace, const std::string& name) {
    std::vector<int> values;
    for (const Json::Value& event : trace) {
        if (event["ph"].asString() == "C" && event["name"].asString() == name) {
            values.push_back(event["args"][event["args"].getMemberNames()[0]].asInt());
        }
    }
    return values;
}

// The timeline of a capture and its uploads: one instant per call, refused
// ones too, one per upload, and counters that follow the audio state.
void ExpectTheTimelineOf(const std::string& capture, const std::string& events) {
    const std::string made = RunTool({VYMM, "timeline", capture, "--events", events, "-o",
                                      "run.json", "--svg", "run.svg"});
    ASSERT_EQ(made, "0|");
    Json::Value trace;
    std::ifstream json("run.json");
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), json, &trace, nullptr));
    std::istringstream lines(ReadFile(capture));
    int calls = 0;
    int64_t sleptUs = 0;
    for (std::string line; std::getline(lines, line);) {
        sleptUs += line.rfind("sleep ", 0) == 0 ? std::stoll(line.substr(6)) * 1000 : 0;
        const bool step = !line.empty() && line[0] != '#' && line.rfind("sleep ", 0) != 0 &&
                          line.rfind("as ", 0) != 0;
        calls += step || line.rfind("# refused from uid", 0) == 0 ? 1 : 0;
    }
    const std::string sent = ReadFile(events);
    const int uploads = std::count(sent.begin(), sent.end(), '\n');
    int callInstants = 0;
    int uploadInstants = 0;
    int64_t lastCallUs = 0;
    for (const Json::Value& event : trace) {
        if (event["ph"].asString() != "i") {
            continue;
        }
        const bool upload = event["name"].asString().rfind("upload ", 0) == 0;
        (upload ? uploadInstants : callInstants)++;
        lastCallUs = upload ? lastCallUs : event["ts"].asInt64();
    }
    EXPECT_EQ(lastCallUs, sleptUs) << "in microseconds, the capture's last line a call";
    EXPECT_EQ(callInstants, calls);
    EXPECT_EQ(uploadInstants, uploads);
    EXPECT_GT(uploads, 0);
    EXPECT_EQ(CounterValues(trace, "output device"), std::vector<int>({2, 4, 128, 1}));
    EXPECT_EQ(CounterValues(trace, "stream 3"), std::vector<int>({1, 0}));
    EXPECT_EQ(CounterValues(trace, "volume source 6 device 0x2"),
              std::vector<int>({5, 7, 9, 6}));
    EXPECT_EQ(CounterValues(trace, "force use 0"), std::vector<int>({1, 0}));
    EXPECT_TRUE(Contains(ReadFile("run.svg"), "volume source 6 device 0x80 index"));
}

TEST(ToolsEndToEndTest, ACapturedRunReplayedIntoAnotherHostUploadsTheSame) {
    TempWorkDir dir;
    const std::string props = "ro.media.debuggable=true\nro.media.bdflow=1\n";
    const std::string capture = dir.path() + "/first/data/log/mediaCapture.trace";
    const std::string first =
            UploadsOfAHostReplaying(dir.path() + "/first", props + "ro.media.capture=256\n",
                                    {"--speed", "20", VYMM_EXAMPLES "/demo.trace"});
    // Keeping nothing on storage changes nothing else.
    const std::string second = UploadsOfAHostReplaying(
            dir.path() + "/second", props + "ro.media.persist=0\n", {"--fast", capture});
    // The capture keeps the pace: most of the trace's 3 s of pauses outside
    // its as lines, 20 times faster.
    const std::string captured = ReadFile(capture);
    const std::regex sleepLine(R"(\nsleep (\d+))");
    int64_t slept = 0;
    for (auto it = std::sregex_iterator(captured.begin(), captured.end(), sleepLine);
         it != std::sregex_iterator(); ++it) {
        slept += std::stoll((*it)[1]);
    }
    EXPECT_GE(slept, 2400 / 20) << captured;
    EXPECT_TRUE(geteuid() != 0 || Contains(captured, "\nas 1013\n")) << captured;
    EXPECT_TRUE(Contains(first, "916600009 TIME PARAMETER=\"F:0 S:8 D:2\"")) << first;
    EXPECT_EQ(first, second);
    EXPECT_EQ(FilesIn("second/data/log"), std::vector<std::string>{"mediaBDflow.log"});
    const std::regex lineTimes(R"(\d\d-\d\d \d\d:\d\d:\d\d)");
    EXPECT_EQ(std::regex_replace(ReadFile("second/data/log/mediaBDflow.log"), lineTimes, "TIME"),
              std::regex_replace(ReadFile("first/data/log/mediaBDflow.log"), lineTimes, "TIME"));
    ExpectTheTimelineOf(capture, dir.path() + "/first/events.jsonl");
}

// A client that refuses calls while the host is stopped (its queue to the
// service full) reports them with its next call, and `vymm stats` shows them.
TEST(ToolsEndToEndTest, CallsRefusedBeforeSendingShowInStats) {
    constexpr int kRefused = 10;
    TempWorkDir root;
    ScopedBinderDir binderDir;
    const std::unique_ptr<ChildProcess> host =
            StartHost({"--root", root.path(), "-p", "ro.media.debuggable=true"});
    const android::sp<android::IBinder> binder =
            android::defaultServiceManager()->getService(android::String16(vymm::kServiceName));
    ASSERT_NE(binder, nullptr);
    android::Parcel data;
    data.writeInterfaceToken(android::IVyMediaMonitorService::descriptor);
    for (int32_t arg : {1, 5, 2}) {
        data.writeInt32(arg);
    }

    ASSERT_EQ(kill(host->pid(), SIGSTOP), 0);
    int refused = 0;
    // The queue's bound holds some thousands of these.
    for (int sent = 0; refused < kRefused && sent < 1000000; ++sent) {
        refused += binder->transact(android::IVyMediaMonitorService::MONITOR_VOLUME_INDEX, data,
                                    nullptr, android::IBinder::FLAG_ONEWAY) != android::NO_ERROR;
    }
    ASSERT_EQ(kill(host->pid(), SIGCONT), 0);
    ASSERT_EQ(refused, kRefused);
    ASSERT_EQ(binder->pingBinder(), android::NO_ERROR);
    const Json::Value counted = Stats();
    EXPECT_EQ(counted["queue"]["dropped"]["before_sending"]["uid_" + std::to_string(getuid())],
              kRefused)
            << counted.toStyledString();
    StopHost(*host);
}

// Kept for the host's shutdown on SIGTERM, which no single-line fault models.
TEST(ToolsEndToEndTest, HostServesAReplayAndUploadsAtShutdown) {
    TempWorkDir root;
    ScopedBinderDir binderDir;
    const std::string events = root.path() + "/events.jsonl";
    setenv("VEXEL_EVENT_LOG", events.c_str(), 1);
    // Slow uploads: the worker may still be busy with the forced send when
    // the late calls below come, and they wait in its queue.
    setenv("VEXEL_SEND_DELAY_US", "100000", 1);
    const bool isRoot = geteuid() == 0;
    WriteFile("test.prop", "ro.media.debuggable=true\nro.media.bdflow=1\nro.media.bdcount=0\n");
    // The forced send comes from an admitted uid and uploads the package
    // statistic; the one after it waits for the shutdown.
    WriteFile("test.trace",
              "MonitorPlayingApp s8 com.test.music\n"
              "WriteBigData i32 916600038 s8 new.pkg s8 old.pkg s8 x\n"
              "as 1013\n"
              "WriteMediaBigData i32 77 i32 10000 s8 \"flow record\"\n"
              "WriteMediaBigData i32 77 i32 20000 null\n"
              "ForceLogSend i32 0\n"
              "as 0\n"
              "WriteBigData i32 916600040 s8 a2dp i32 0 i32 95\n");

    const std::unique_ptr<ChildProcess> host =
            StartHost({"--root", root.path(), "--props", "test.prop", "-p", "ro.media.bdcount=2",
                       "-p", "ro.media.bdcount=1"});
    const std::string second = RunTool({VYMM_HOST, "--root", root.path()});
    EXPECT_EQ(second.rfind("1|", 0), 0u) << second;
    EXPECT_TRUE(Contains(second, "already served in the runtime folder " + binderDir.path()));

    const std::string replayed = Replay({"--fast", "test.trace"});
    EXPECT_EQ(replayed.rfind("0|", 0), 0u) << replayed;
    const std::string newPackage = "916600038 NEW_PKG=\"new.pkg\" PRE_PKG=\"old.pkg\"";
    if (isRoot) {
        EXPECT_TRUE(WaitForUpload(events, newPackage + "\n")) << "sent by the forced send";
    }
    // Every call is counted, and every event queued is dispatched or waiting.
    const Json::Value counted = Stats();
    int calls = 0;
    for (const Json::Value& op : counted["operations"]) {
        calls += op["calls"].asInt();
    }
    EXPECT_EQ(calls, isRoot ? 6 : 3) << counted.toStyledString();
    int queued = 0;
    for (const Json::Value& count : counted["queue"]["queued"]) {
        queued += count.asInt();
    }
    EXPECT_EQ(queued, counted["worker"]["dispatched"].asInt() +
                              counted["worker"]["in_hand"].asInt() +
                              counted["queue"]["depth"].asInt());
    // Sleeps add up before anything is sent; a call too large to deliver fails the replay.
    WriteFile("long.trace", "sleep 86400000\nsleep 1\n");
    const std::string tooLong = RunTool({VYMM, "replay", "long.trace"});
    EXPECT_EQ(tooLong.rfind("2|", 0), 0u) << tooLong;
    EXPECT_TRUE(Contains(tooLong, "sleeps 86400001 ms in all, more than --max-sleep 3600000"));
    EXPECT_EQ(RunTool({VYMM, "replay", "--fast", "long.trace"}), "0|");
    WriteFile("large.trace", "MonitorPlayingApp s8 " + std::string(1 << 20, 'x') + "\n");
    const std::string large = RunTool({VYMM, "replay", "large.trace"});
    EXPECT_EQ(large.rfind("1|", 0), 0u) << large.substr(0, 200);
    EXPECT_TRUE(Contains(large, "large.trace:1: MonitorPlayingApp not delivered (FAILED_TRANSACTION)"))
            << large.substr(0, 200);

    const std::string dump = RunTool({VYMM, "dump"});
    EXPECT_EQ(dump.rfind("0|", 0), 0u) << dump;
    EXPECT_TRUE(Contains(dump, "bigData Flow Record Begin")) << dump;
    EXPECT_TRUE(Contains(dump, "bigData Count Record Begin")) << "-p: the last one wins";

    // A dump into a pipe that nobody reads holds up neither the calls nor the
    // service: it is given up within its deadline.
    int full[2];
    ASSERT_EQ(pipe2(full, O_CLOEXEC | O_NONBLOCK), 0);
    while (write(full[1], root.path().data(), root.path().size()) > 0) {
    }
    fcntl(full[1], F_SETFL, 0);
    ChildProcess stuck({"/bin/sh", "-c", std::string("exec ") + VYMM + " dump >&" +
                                             std::to_string(full[1])},
                       full[1]);
    const std::string refused = RunTool({VYMM, "call", "WriteBigData", "i32", "1", "s8", "a"});
    EXPECT_EQ(refused.rfind("2|", 0), 0u) << refused;
    EXPECT_TRUE(host->WaitForLine("Dump given up")) << host->output();

    // One-way calls still in the host's sockets at SIGTERM run before its
    // shutdown: their durations add up with the replayed one's.
    const android::sp<android::IVyMediaMonitorService> service = Service();
    ASSERT_NE(service, nullptr);
    for (int i = 0; i < kLateCalls; ++i) {
        service->WriteBigData(916600040, "usb", 0, 1);
    }
    StopHost(*host);
    close(full[0]);
    close(full[1]);
    const std::string gone = RunTool({VYMM, "call", "1", "i32", "0"});
    EXPECT_EQ(gone.rfind("1|", 0), 0u) << gone;
    EXPECT_TRUE(Contains(gone, "runtime folder " + binderDir.path())) << gone;

    const std::string uploaded = Uploads(events);
    EXPECT_TRUE(Contains(uploaded, newPackage + "\n")) << uploaded;
    EXPECT_TRUE(Contains(uploaded, "916600040 DURATION=" + std::to_string(95 + kLateCalls) +
                                           " USER_CHANGED=0 DEVICE_TYPE=\"usb\"\n"))
            << "the shutdown uploads what the writers hold\n" << uploaded;
    for (const char* file : {"data/log/mediaBDflow.log", "data/log/mediaBDcont.log"}) {
        EXPECT_EQ(access(file, F_OK), 0) << file;
    }
    if (isRoot) {
        EXPECT_TRUE(Contains(host->output(), "Unknow App@77:10000,flow record"))
                << "the flow record file's upload\n" << host->output();
    }
}

// What the running host's worker has dispatched, as its statistics show it.
long Dispatched() { return Stats()["worker"]["dispatched"].asInt64(); }

// A host killed outright at random moments while a client replays counted
// calls loses nothing it had written out and uploads nothing twice: a new
// host on the same folder starts with what the last one held, and one forced
// send uploads the sum once. Root forces the send (operation 1 from uid 1013).
TEST(ToolsEndToEndTest, ASigkilledHostKeepsWhatItHeldAcrossRestartsAsRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to force the send from uid 1013";
    }
    constexpr int kRounds = 20;
    constexpr int kCalls = 400;
    TempWorkDir root;
    ScopedBinderDir binderDir;
    const std::vector<std::string> args = {"--root", root.path(), "-p", "ro.media.debuggable=true"};
    const std::string events = root.path() + "/events.jsonl";
    setenv("VEXEL_EVENT_LOG", events.c_str(), 1);
    // The last round counts under a key of its own, killed only once all of
    // it is dispatched.
    std::string trace;
    std::string lastTrace;
    for (int i = 0; i < kCalls; ++i) {
        trace += "WriteBigData i32 916300001 s8 k i32 1 i32 0\n";
        lastTrace += "WriteBigData i32 916300001 s8 w i32 1 i32 0\n";
    }
    WriteFile("count.trace", trace);
    WriteFile("last.trace", lastTrace);
    WriteFile("send.trace", "as 1013\nForceLogSend i32 0\n");
    const std::regex notDelivered("not delivered");
    srand(static_cast<unsigned>(getpid()));
    long atLeast = 0;  // shown as dispatched before a kill
    long atMost = 0;   // delivered to a host
    for (int round = 0; round < kRounds; ++round) {
        const bool last = round == kRounds - 1;
        const std::unique_ptr<ChildProcess> host = StartHost(args);
        ChildProcess replay({VYMM, "replay", "--fast", last ? "last.trace" : "count.trace"}, -1,
                            kDeadlineMs, true);
        long dispatched = 0;
        if (last) {
            EXPECT_EQ(replay.Finish(), 0) << replay.output();
            EXPECT_TRUE(Eventually([&] { return (dispatched = Dispatched()) == kCalls; },
                                   std::chrono::seconds(30)));
        } else {
            // A random moment: after a random number of looks at the statistics.
            for (int looks = rand() % 4; looks >= 0; --looks) {
                dispatched = Dispatched();
            }
        }
        ASSERT_EQ(kill(host->pid(), SIGKILL), 0);
        if (!last) {
            replay.Finish();
        }
        host->Finish();
        const std::string out = replay.output();
        const long refused = std::distance(
                std::sregex_iterator(out.begin(), out.end(), notDelivered), std::sregex_iterator());
        const long started = Contains(out, "cannot be reached") ? 0 : kCalls;
        if (!last) {
            atLeast += dispatched;
            atMost += std::max(0L, started - refused);
        }
    }
    const std::unique_ptr<ChildProcess> host = StartHost(args);
    ASSERT_EQ(RunTool({VYMM, "replay", "send.trace"}).rfind("0|", 0), 0u);
    ASSERT_TRUE(WaitForUpload(events, "916300001 "));
    StopHost(*host);
    const std::string uploaded = Uploads(events);
    std::smatch counts;
    ASSERT_TRUE(std::regex_search(uploaded, counts,
                                  std::regex("916300001 (?:k=(\\d+) )?w=(\\d+)\n")))
            << uploaded;
    EXPECT_EQ(uploaded.find("916300001 "), uploaded.rfind("916300001 ")) << "uploaded once";
    EXPECT_EQ(std::stol(counts[2]), kCalls) << uploaded;
    const long kept = counts[1].matched ? std::stol(counts[1]) : 0;
    EXPECT_GE(kept, atLeast) << uploaded;
    EXPECT_LE(kept, atMost) << uploaded;
}

// Runs a tool: its status, then what it wrote on one stream only.
std::string RunForStream(const std::vector<std::string>& argv, bool errors) {
    std::vector<std::string> shell = {"/bin/sh", "-c",
                                      errors ? "exec \"$@\" 2>&1 >/dev/null" : "exec \"$@\"",
                                      "sh"};
    shell.insert(shell.end(), argv.begin(), argv.end());
    return RunTool(shell);
}

TEST(ToolsEndToEndTest, HelpSlipsAndDeadlinesAnswerAsDocumented) {
    TempWorkDir dir;
    ScopedBinderDir binderDir;
    const std::unique_ptr<ChildProcess> host = StartHost({"--root", dir.path()});
    mkdir("folder", 0755);
    const std::string see = "; see `vymm --help`\n";
    const struct {
        std::vector<std::string> argv;
        bool errors;  // what is checked is on stderr, else on stdout
        std::string expected;  // "STATUS|" and a part of the output
    } kRows[] = {
            {{VYMM, "--help"}, false, "0|usage: vymm [--wait MS] [--timeout S] COMMAND"},
            {{VYMM, "help"}, false, "0|usage: vymm"},
            {{VYMM, "replay", "-h"}, false, "0|usage: vymm [--wait MS] [--timeout S] COMMAND "
                                            "[ARG...]\n  replay FILE"},
            {{VYMM, "call", "WriteKpis", "s8", "--help"}, false, "0|"},
            {{VYMM_HOST, "--help"}, false, "0|usage: vymm-host"},
            {{VYMM}, true, "2|vymm: missing command" + see},
            {{VYMM, "frob"}, true, "2|vymm: unknown command frob" + see},
            {{VYMM, "replay", "folder", "--fast", "--slow"}, true,
             "2|vymm replay: unknown option --slow" + see},
            {{VYMM, "stats", "--watch", "0"}, true, "2|vymm stats: --watch takes seconds"},
            {{VYMM, "replay", "folder", "--fast"}, true, "2|vymm replay: folder is a folder"},
            {{VYMM, "events", "folder"}, true, "2|vymm events: folder is a folder"},
            {{VYMM, "events", "nosuch.jsonl"}, true, "1|vymm events: cannot read nosuch.jsonl"},
            {{VYMM, "journal"}, true, "2|vymm journal: takes one FILE" + see},
            {{VYMM, "journal", "folder"}, true, "2|vymm journal: folder is a folder"},
            {{VYMM, "timeline", "nosuch.trace"}, true, "2|vymm timeline: takes -o FILE" + see},
            {{VYMM, "call", "WriteBigDta", "i32", "1"}, true,
             "2|vymm call: unknown operation \"WriteBigDta\"; did you mean WriteBigData?"},
            {{VYMM, "call", "ForceLogSend", "i32", "0"}, true,
             "0|vymm call: the service refuses ForceLogSend from uid " +
                     std::to_string(geteuid())},
            {{VYMM_HOST, "--props", "folder"}, true, "2|vymm-host: folder is a folder"},
            {{VYMM_HOST, "--root"}, true, "2|vymm-host: missing value after --root; see "
                                          "`vymm-host --help`\n"},
            {{"/usr/bin/env", "LD_LIBRARY_PATH=", VYMM_HOST, "--lib", "/nosuch.so"}, true,
             "1|vymm-host: warning: the reporting library cannot be loaded"},
    };
    for (const auto& row : kRows) {
        const std::string got = RunForStream(row.argv, row.errors);
        const size_t bar = row.expected.find('|');
        EXPECT_EQ(got.substr(0, bar + 1), row.expected.substr(0, bar + 1)) << got;
        EXPECT_TRUE(Contains(got, row.expected.substr(bar + 1))) << got;
    }
    // A frozen service: each call has a deadline.
    ASSERT_EQ(kill(host->pid(), SIGSTOP), 0);
    const std::string frozen =
            RunTool({VYMM, "--timeout", "0.5", "call", "MonitorPlayingApp", "s8", "x"});
    kill(host->pid(), SIGCONT);
    EXPECT_EQ(frozen.rfind("1|", 0), 0u) << frozen;
    EXPECT_TRUE(Contains(frozen, "no answer within 0.5 s (--timeout)")) << frozen;
    StopHost(*host);
}

}  // namespace
