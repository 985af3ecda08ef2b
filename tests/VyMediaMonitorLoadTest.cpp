// The service behind the host transport under load: client processes of
// admitted and (as root) refused uids, several threads each, and afterwards
// an exact account of what became of every call the service keeps.
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "support/LoadMix.h"
#include "support/ChildProcess.h"
#include "support/ServiceFixture.h"

using namespace android;

namespace {

constexpr char kTag[] = "Vymedia_monitor";
constexpr int kThreadsPerClient = 4;
constexpr int kCallsPerClient = 5000;
constexpr int kClientSeconds = 300;

using Counts = std::array<long, LOAD_KINDS>;

// What a client made of each kind, as it printed it.
Counts ParseCounts(const std::string& output) {
    Counts counts{};
    std::istringstream lines(output);
    std::string name;
    long count = 0;
    while (lines >> name >> count) {
        for (int kind = 0; kind < LOAD_KINDS; ++kind) {
            counts[kind] += name == kLoadKindNames[kind] ? count : 0;
        }
    }
    return counts;
}

// The sum of the numbers after the last ':' of the lines of text that begin
// with prefix.
long SumOfLines(const std::string& text, const std::string& prefix) {
    long sum = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(prefix, 0) == 0) {
            sum += atol(line.c_str() + line.rfind(':') + 1);
        }
    }
    return sum;
}

// Each client's uid; as root (as in CI), five of the admitted media uids and
// three refused ones, else our own.
std::vector<uid_t> ClientUids() {
    if (geteuid() != 0) {
        return std::vector<uid_t>(8, getuid());
    }
    return {1005, 1041, 1013, 1046, 2000, 1031, 10050, 1040};
}

// What the service must show for the calls of clients.
struct Expected {
    long countMessages = 0;  // queued by admitted callers
    long exceptions = 0;     // queued, whoever calls
    long refusedFileMessages = 0;
    long refusedLogMessages = 0;

    void Add(const Counts& made, uid_t uid) {
        exceptions += made[LOAD_EXCEPTION];
        if (VyMediaMonitorService::CheckUid(static_cast<int>(uid))) {
            countMessages += made[LOAD_COUNT_MESSAGE];
        } else {
            refusedFileMessages += made[LOAD_COUNT_MESSAGE] + made[LOAD_UNREGISTERED_MESSAGE];
            refusedLogMessages += made[LOAD_RADAR_MESSAGE];
        }
    }
};

class MonitorLoadTest : public PublishedServiceFixture {
protected:
    void SetUp() override {
        std::filesystem::create_directories("data/log");
        // Only lines from info up are kept: the debug lines of 100 000
        // dispatches would fill the capture.
        __android_log_set_minimum_priority(ANDROID_LOG_INFO);
    }

    static std::vector<std::string> LoadCommand(const std::string& user, int threads, int calls) {
        return Peer({"load", kServiceName, user, std::to_string(threads), std::to_string(calls)});
    }

    ScopedProperty mCount{"ro.media.bdcount", "1"};
};

// Kept for busy clients racing the queue, which no single-line fault models.
// A call the service keeps either reached its writer or was dropped at the
// full queue with a line that says so; a refused one left a denial line.
// What the writers hold at the end goes out at shutdown.
TEST_F(MonitorLoadTest, EveryKeptCallOfEightBusyClientsIsAccountedFor) {
    Publish();
    // The process's one-way sender (a thread and its wake-up descriptor)
    // starts with its first backlog and lives on; the pool's threads and
    // connections must all be gone at the stop.
    const auto threadsButSender = [] { return CountThreads() - CountThreads("binder-oneway"); };
    const auto filesButSender = [] {
        return CountOpenFiles() - CountThreads("binder-oneway");
    };
    const size_t threads = threadsButSender();
    const size_t files = filesButSender();

    const std::vector<uid_t> uids = ClientUids();
    std::vector<std::unique_ptr<ChildProcess>> clients;
    for (const uid_t uid : uids) {
        const std::string user = geteuid() == 0 ? std::to_string(uid) : "-";
        clients.push_back(std::make_unique<ChildProcess>(
                LoadCommand(user, kThreadsPerClient, kCallsPerClient), -1, kClientSeconds * 1000));
    }
    ProcessState::self()->startThreadPool();
    Expected expected;
    for (size_t i = 0; i < clients.size(); ++i) {
        ASSERT_EQ(clients[i]->Finish(), 0) << "client " << i << ":\n" << clients[i]->output();
        const Counts made = ParseCounts(clients[i]->output());
        long calls = 0;
        for (const long count : made) {
            calls += count;
        }
        EXPECT_EQ(calls, kCallsPerClient) << clients[i]->output();
        expected.Add(made, uids[i]);
    }

    // The clients' connections close as they end; the service still answers.
    EXPECT_TRUE(Eventually([&] { return filesButSender() == files; }));
    ChildProcess last(LoadCommand("-", 1, 16));
    ASSERT_EQ(last.Finish(), 0) << last.output();
    expected.Add(ParseCounts(last.output()), getuid());
    ProcessState::self()->stopThreadPool();
    EXPECT_EQ(threadsButSender(), threads);

    const size_t dropped =
            mLog.Count(ANDROID_LOG_ERROR, kTag, "eventQueue full: too many events blocked!");
    ASSERT_TRUE(mService->Drain(mLog));
    // Counted once the worker is idle: a snapshot it writes holds a file open.
    EXPECT_EQ(filesButSender(), files);
    // The count writer's lines "\t<type>:<count>", the exception writer's "count:<n>".
    const long counted = SumOfLines(DumpText(*mService->mBDCountWriter), "\t");
    const long reported = SumOfLines(DumpText(*mService->mExceptionWriter), "count:");
    EXPECT_EQ(counted + reported + static_cast<long>(dropped),
              expected.countMessages + expected.exceptions)
            << counted << " counted, " << reported << " reported, " << dropped << " dropped";
    EXPECT_LE(counted, expected.countMessages);
    EXPECT_LE(reported, expected.exceptions);
    EXPECT_EQ(mLog.CountContaining(kTag, "bytes waiting, dropping"), 0u);
    // Refusals are logged at a limited rate: the first burst of them at least.
    EXPECT_GE(static_cast<long>(mLog.CountContaining(kTag, "can't Write")),
              std::min<long>(LogRateLimiter::BURST,
                               expected.refusedFileMessages + expected.refusedLogMessages));

    // Shutdown uploads the exceptions the writer holds, one event a sub-type.
    Withdraw();
    long uploaded = 0;
    for (const std::string& line : UploadsOf(mEvents.Lines(), kLoadExceptionId)) {
        uploaded += IntParam(line, "Count");
    }
    EXPECT_EQ(uploaded, reported);
}

}  // namespace
