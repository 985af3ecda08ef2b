// The host tools' parsers, in-process: the operation table, property files,
// trace lines, quoted words, event log lines and the writers' state files.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/RecordingMonitorService.h"
#include "support/TestEnv.h"
#include "tools/EventLog.h"
#include "tools/Journal.h"
#include "tools/Operations.h"
#include "tools/Properties.h"
#include "tools/Stats.h"
#include "tools/TextLines.h"
#include "tools/Trace.h"
#include "writers/WriterStore.h"

using namespace vymm;

namespace {

std::vector<std::string> Words(const std::string& line) {
    std::vector<std::string> words;
    std::string error;
    EXPECT_TRUE(SplitWords(line, &words, &error)) << error;
    return words;
}

std::string TraceError(const std::string& text) {
    std::istringstream in(text);
    std::vector<TraceStep> steps;
    std::string error;
    return ParseTrace(in, "t.trace", &steps, &error) ? "" : error;
}

// What CallEveryOperation makes, in words, by name except two by number.
const char* const kEveryOperation[] = {
    "ForceLogSend i32 3",
    "WriteLogMsg i32 4 i32 9 s8 \"log msg\"",
    "3 i32 1234 i32 5 null",
    "writelogmsg i32 916000001 i32 2 i32 7 s8 reason s8 com.app",
    "WriteLogMsg i32 916000002 i32 1 i32 -1 s8 \"\" s8 app i32 42 s8 para i32 916000003",
    "WriteKpis s8 916019001:a=1;b=2",
    "WriteBigData i32 7 s8 s1 i32 1 i32 2",
    "WriteBigData i32 8 s8 s1 null i32 1 i32 2",
    "WriteBigData i32 9 s8 s1 s8 s2 i32 -3",
    "WriteBigData i32 10 s8 s1 i32 1 i32 2 i32 3",
    "WriteBigData i32 11 null s8 s2 s8 s3",
    "WriteBigData i32 12 s8 s1 s8 s2 s8 s3 i32 4",
    "WriteBigData i32 13 s8 \"\" i32 1 i32 2 i32 3 i32 4",
    "WriteBigData i32 14 s8 s1 s8 s2 s8 s3 s8 s4 i32 5 i32 6 i32 7",
    "WriteBigData i32 15 s8 s1 s8 s2 s8 s3 s8 s4 s8 s5 i32 6",
    "16 i32 16 s8 s1 s8 s2 s8 s3 s8 s4 s8 s5 null i32 7",
    "MonitorSetForceUse i32 1 i32 10",
    "MonitorBroadcastStream i32 1 i32 3",
    "MonitorBroadcastDevice i32 0x80000002",
    "MonitorVolumeIndex i32 3 i32 11 i32 2",
    "MonitorPlayingApp null",
};

TEST(ToolsParsersTest, EveryOperationReachesItsMethodWithItsArguments) {
    const android::sp<RecordingMonitorService> expected = new RecordingMonitorService;
    CallEveryOperation(expected.get());
    const android::sp<RecordingMonitorService> called = new RecordingMonitorService;
    int number = 1;
    for (const char* line : kEveryOperation) {
        const Operation* op = nullptr;
        std::vector<TypedArg> args;
        std::string error;
        ASSERT_TRUE(ParseCall(Words(line), 0, &op, &args, &error)) << line << ": " << error;
        EXPECT_EQ(op->number, number++) << line;
        op->invoke(*called, args);
    }
    const auto want = expected->Calls();
    const auto got = called->Calls();
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(got[i].text, want[i].text);
    }
}

TEST(ToolsParsersTest, PropertyFilesAndAssignments) {
    PropertyMap props{{"kept", "1"}, {"ro.a", "old"}};
    std::istringstream good("# comment\n\n  ro.a = new value \nro.b=\nro.a=last\n");
    std::string error;
    ASSERT_TRUE(ParsePropertyFile(good, "p.prop", &props, &error)) << error;
    EXPECT_EQ(props, (PropertyMap{{"kept", "1"}, {"ro.a", "last"}, {"ro.b", ""}}));

    const struct {
        const char* text;
        const char* where;
    } malformed[] = {{"ro.c=1\nno equals here\n", "p.prop:2: "},
                     {"ro.c=1\n\n=empty key\n", "p.prop:3: "},
                     {"ro.c=1\n# x\nro d=1\n", "p.prop:3: "}};
    for (const auto& bad : malformed) {
        std::istringstream in(bad.text);
        PropertyMap untouched{{"kept", "1"}};
        EXPECT_FALSE(ParsePropertyFile(in, "p.prop", &untouched, &error));
        EXPECT_EQ(error.rfind(bad.where, 0), 0u) << error;
        EXPECT_EQ(untouched, (PropertyMap{{"kept", "1"}}));
    }
    std::string key;
    std::string value;
    EXPECT_TRUE(ParsePropertyAssignment("ro.x=a=b", &key, &value));
    EXPECT_EQ(key + "|" + value, "ro.x|a=b");
}

TEST(ToolsParsersTest, TraceErrorsNameTheirLine) {
    const std::string call = TraceError("sleep 1\n\nWriteBigData i32 1 s8 a\n");
    EXPECT_EQ(call.rfind("t.trace:3: no WriteBigData takes", 0), 0u) << call;
    EXPECT_NE(call.find("WriteBigData(i32 eventId, s8? s1, i32 i1, i32 i2)"), std::string::npos);
    EXPECT_EQ(TraceError("# x\nsleep -1\n").rfind("t.trace:2: expected: sleep MS", 0), 0u);
    EXPECT_EQ(TraceError("sleep 1 2\n").rfind("t.trace:1: ", 0), 0u);
    EXPECT_EQ(TraceError("sleep 86400001\n").rfind("t.trace:1: ", 0), 0u);
    EXPECT_EQ(TraceError("as\n").rfind("t.trace:1: expected: as UID", 0), 0u);
    EXPECT_EQ(TraceError("as 4294967295\n").rfind("t.trace:1: ", 0), 0u);
    EXPECT_EQ(TraceError("as 0\nWriteKpis s8 \"open\n"), "t.trace:2: unclosed quote");
    EXPECT_EQ(TraceError("WriteKpis s8 \"a\"b\n").rfind("t.trace:1: a quoted word must end", 0),
              0u);
    EXPECT_EQ(TraceError("WriteKpis s8 \"\\q\"\n").rfind("t.trace:1: unknown escape", 0), 0u);
}

TEST(ToolsParsersTest, QuotedWordsReadBackAsWrittenAndEventLinesAsRecorded) {
    for (const char* text : {"#tag", "say \"hi\"", "a\\b", "tab\tnl\n\x01\x7f", ""}) {
        EXPECT_EQ(Words("s8 " + QuoteWord(text)), (std::vector<std::string>{"s8", text}))
                << QuoteWord(text);
    }
    EXPECT_EQ(Words("\"\\x4a\\x4B\""), std::vector<std::string>{"JK"});
    std::vector<std::string> words;
    std::string error;
    EXPECT_FALSE(SplitWords("\"\\xg0\"", &words, &error));

    std::string text;
    ASSERT_TRUE(FormatEvent(
            R"({"id":7,"params":[{"name":"f","floats":[1.5,null]},{"name":"s","str":"x"}]})",
            &text));
    EXPECT_EQ(text, "7 f=[1.5, null] s=\"x\"");
}

}  // namespace

TEST(ToolsParsersTest, TheLiveViewShowsRatesOfCountsOnlyOnOneScreen) {
    nlohmann::json before;
    before["operations"] = nlohmann::json::array();
    for (const Operation& op : Operations()) {
        before["operations"].push_back(
                {{"number", op.number}, {"name", op.name}, {"calls", 10}, {"refused", 0}});
    }
    before["queue"] = {{"depth", 40}, {"high_water", 90}, {"dropped", {{"queue_full", 0}}}};
    before["worker"] = {{"dispatched", 100}};
    for (const char* name : {"bigdata", "bd_count", "exception_log", "exception", "kpi", "bd_flow"}) {
        before["writers"][name] = {{"present", true}, {"records", 1}, {"charge", 25}, {"cap", 100},
                                   {"uploads", 1}, {"last_upload_time", 1000},
                                   {"refused", {{"cap", 0}, {"invalid", 0}}}};
    }
    nlohmann::json now = before;
    now["operations"][6]["calls"] = 50;
    now["operations"][0]["refused"] = 4;
    now["queue"]["depth"] = 0;
    now["queue"]["limit"] = "512";  // neither a missing number nor a text throws
    now["queue"]["dropped"]["queue_full"] = 6;
    now["worker"]["dispatched"] = 180;
    now["writers"]["kpi"]["present"] = false;
    now["writers"]["bigdata"]["refused"]["invalid"] = 3;
    const std::string screen = FormatScreen(now, before, 2.0, 1012);
    std::istringstream lines(screen);
    size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_LE(line.size(), kScreenColumns) << line;
    }
    EXPECT_LE(count, kScreenLines - 2) << screen;
    const auto has = [&screen](const std::string& text) {
        return screen.find(text) != std::string::npos;
    };
    EXPECT_TRUE(has("calls                    250    20.0/s   refused         4     2.0/s"))
            << screen;
    EXPECT_EQ(screen.find("\n  WriteBigData (7)                      50    20.0/s"),
              screen.find('\n')) << "the busiest operation comes first\n" << screen;
    EXPECT_TRUE(has("queue             depth 0   high water 90 of 0")) << "no rate of a gauge";
    EXPECT_TRUE(has("queue_full                   6     3.0/s")) << screen;
    EXPECT_TRUE(has("dispatched       180    40.0/s")) << screen;
    EXPECT_TRUE(has("  bigdata                1      25%       1     0.0/s   12 s ago")) << screen;
    EXPECT_TRUE(has("  bigdata         invalid              3     1.5/s")) << screen;
    EXPECT_FALSE(has("kpi")) << "a writer that is not there";
    EXPECT_FALSE(has("         cap")) << "refusals zero since start";
    EXPECT_LT(screen.find("exception_log"), screen.find("bd_flow")) << "the documented order";
    EXPECT_LT(screen.find("bd_count"), screen.find("  bigdata"));
    EXPECT_EQ(FormatScreen(now, nlohmann::json(), 2.0, 1012).find("/s"), std::string::npos)
            << "no rates without an earlier sample";
    nlohmann::json sample;
    std::string error;
    EXPECT_FALSE(ParseStatsSample("Dump busy: 2 dumps are running, try again\nmore", &sample,
                                  &error));
    EXPECT_EQ(error, "Dump busy: 2 dumps are running, try again");
}

TEST(ToolsParsersTest, StateFilesReadAsOneLineARecordUpToTheDamage) {
    TempWorkDir dir;
    {
        android::WriterStore store(".", "w");
        store.Load();
        android::StateWriter ops;
        ops.PutItem("first");
        ops.PutItem(std::string("n\x01\\", 3));
        ASSERT_TRUE(store.Append(ops.Bytes()));
    }
    const std::string journal = ReadFile("vymm_w.journal");
    std::string text;
    std::string error;
    EXPECT_TRUE(JournalText(journal, &text, &error)) << error;
    EXPECT_EQ(text, "@0 gen 0: first\n@17 gen 0: n\\x01\\x5C\n");
    EXPECT_FALSE(JournalText(journal.substr(0, journal.size() - 1), &text, &error));
    EXPECT_EQ(text, "@0 gen 0: first\n");
    EXPECT_EQ(error, "damaged or short record at byte 17; what follows is not read");
    std::string snapshot = android::WriterStore::FormatSnapshot(3, "x");
    EXPECT_TRUE(JournalText(snapshot, &text, &error));
    EXPECT_EQ(text, "snapshot gen 3: x\n");
    snapshot.back() ^= 1;
    EXPECT_FALSE(JournalText(snapshot, &text, &error));
    EXPECT_EQ(text, "");
}
