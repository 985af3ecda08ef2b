// vymm-host and vymm as a user runs them: a host in a temporary root with
// its own runtime folder, a trace replayed into it, its dump, SIGTERM, and
// what it recorded and uploaded. Every wait has a deadline.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <IVyMediaMonitorService.h>
#include <gtest/gtest.h>

#include "support/TestEnv.h"
#include "tools/EventLog.h"
#include "tools/ServiceClient.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kDeadline = std::chrono::seconds(60);
constexpr int kLateCalls = 100;

int MillisLeft(Clock::time_point deadline) {
    using std::chrono::milliseconds;
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// A program run with its standard output and error on one pipe (or its
// output on out); killed if the test leaves it running.
class Process {
public:
    explicit Process(std::vector<std::string> argv, int out = -1)
        : mDeadline(Clock::now() + kDeadline) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            return;
        }
        mPid = fork();
        if (mPid == 0) {
            dup2(out >= 0 ? out : fds[1], STDOUT_FILENO);
            dup2(fds[1], STDERR_FILENO);
            std::vector<char*> args;
            for (std::string& arg : argv) {
                args.push_back(arg.data());
            }
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        close(fds[1]);
        mOut = fds[0];
        mPidFd = static_cast<int>(syscall(SYS_pidfd_open, mPid, 0));
    }

    ~Process() {
        if (mPid > 0 && !mReaped) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
        close(mOut);
        close(mPidFd);
    }

    pid_t pid() const { return mPid; }
    const std::string& output() const { return mOutput; }

    // Reads until the output holds text, the pipe closes or the deadline.
    bool WaitForOutput(const std::string& text) {
        while (mOutput.find(text) == std::string::npos) {
            if (!ReadSome()) {
                return false;
            }
        }
        return true;
    }

    // The exit status once the process ended, or -1 at the deadline.
    int Wait() {
        while (ReadSome()) {
        }
        pollfd exited = {mPidFd, POLLIN, 0};
        int status = 0;
        if (poll(&exited, 1, MillisLeft(mDeadline)) != 1 || waitpid(mPid, &status, 0) != mPid) {
            return -1;
        }
        mReaped = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    // False at the end of the output or at the deadline.
    bool ReadSome() {
        pollfd readable = {mOut, POLLIN, 0};
        char buffer[4096];
        if (poll(&readable, 1, MillisLeft(mDeadline)) != 1) {
            return false;
        }
        const ssize_t n = read(mOut, buffer, sizeof(buffer));
        if (n <= 0) {
            return false;
        }
        mOutput.append(buffer, static_cast<size_t>(n));
        return true;
    }

    const Clock::time_point mDeadline;
    pid_t mPid = -1;
    int mOut = -1;
    int mPidFd = -1;
    bool mReaped = false;
    std::string mOutput;
};

// Runs a tool to its end: "status|output".
std::string RunTool(std::vector<std::string> argv) {
    Process process(std::move(argv));
    const int status = process.Wait();
    return std::to_string(status) + "|" + process.output();
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
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

// Waits on its folder's change notices until the uploads in file hold text.
bool WaitForUpload(const std::string& file, const std::string& text) {
    const Clock::time_point deadline = Clock::now() + kDeadline;
    const int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    const std::string folder = file.substr(0, file.rfind('/'));
    inotify_add_watch(watch, folder.c_str(), IN_CREATE | IN_MODIFY);
    bool found = false;
    while (!(found = Contains(Uploads(file), text))) {
        pollfd changed = {watch, POLLIN, 0};
        if (poll(&changed, 1, MillisLeft(deadline)) != 1) {
            break;
        }
        char notices[4096];
        while (read(watch, notices, sizeof(notices)) > 0) {
        }
    }
    close(watch);
    return found;
}

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

    Process host({VYMM_HOST, "--root", root.path(), "--props", "test.prop", "-p",
                  "ro.media.bdcount=2", "-p", "ro.media.bdcount=1"});
    ASSERT_TRUE(host.WaitForOutput("vymm-host: serving Vymedia.monitor")) << host.output();
    const std::string second = RunTool({VYMM_HOST, "--root", root.path()});
    EXPECT_EQ(second.rfind("1|", 0), 0u) << second;
    EXPECT_TRUE(Contains(second, "already served in the runtime folder " + binderDir.path()));

    std::vector<std::string> replay = {VYMM, "--wait", "5000", "replay", "--fast", "test.trace"};
    if (!isRoot) {
        replay.insert(replay.end() - 1, "--skip-as");
    }
    const std::string replayed = RunTool(replay);
    EXPECT_EQ(replayed.rfind("0|", 0), 0u) << replayed;
    const std::string newPackage = "916600038 NEW_PKG=\"new.pkg\" PRE_PKG=\"old.pkg\"";
    if (isRoot) {
        EXPECT_TRUE(WaitForUpload(events, newPackage + "\n")) << "sent by the forced send";
    }
    // Sleeps add up before anything is sent; a call too large to deliver fails the replay.
    WriteFile("long.trace", "sleep 86400000\nsleep 1\n");
    const std::string tooLong = RunTool({VYMM, "replay", "long.trace"});
    EXPECT_EQ(tooLong.rfind("2|", 0), 0u) << tooLong;
    EXPECT_TRUE(Contains(tooLong, "sleeps 86400001 ms in all, more than --max-sleep 3600000"));
    EXPECT_EQ(RunTool({VYMM, "replay", "--fast", "long.trace"}), "0|");
    WriteFile("large.trace", "MonitorPlayingApp s8 " + std::string(1 << 20, 'x') + "\n");
    const std::string large = RunTool({VYMM, "replay", "large.trace"});
    EXPECT_EQ(large.rfind("1|", 0), 0u) << large.substr(0, 200);
    EXPECT_TRUE(Contains(large, "large.trace:1: MonitorPlayingApp not delivered"));

    // A dump into a pipe that nobody reads holds up neither the calls nor SIGTERM.
    int full[2];
    ASSERT_EQ(pipe2(full, O_CLOEXEC | O_NONBLOCK), 0);
    while (write(full[1], root.path().data(), root.path().size()) > 0) {
    }
    fcntl(full[1], F_SETFL, 0);
    Process stuck({VYMM, "dump"}, full[1]);
    const std::string refused = RunTool({VYMM, "call", "WriteBigData", "i32", "1", "s8", "a"});
    EXPECT_EQ(refused.rfind("2|", 0), 0u) << refused;
    const std::string dump = RunTool({VYMM, "dump"});
    EXPECT_EQ(dump.rfind("0|", 0), 0u) << dump;
    EXPECT_TRUE(Contains(dump, "bigData Flow Record Begin")) << dump;
    EXPECT_TRUE(Contains(dump, "bigData Count Record Begin")) << "-p: the last one wins";

    // One-way calls still in the host's sockets at SIGTERM run before its
    // shutdown: their durations add up with the replayed one's.
    const android::sp<android::IVyMediaMonitorService> service =
            android::interface_cast<android::IVyMediaMonitorService>(vymm::FindService(0));
    ASSERT_NE(service, nullptr);
    for (int i = 0; i < kLateCalls; ++i) {
        service->WriteBigData(916600040, "usb", 0, 1);
    }
    ASSERT_EQ(kill(host.pid(), SIGTERM), 0);
    EXPECT_EQ(host.Wait(), 0) << host.output();
    EXPECT_TRUE(Contains(host.output(), "Dump given up")) << host.output();
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
        EXPECT_TRUE(Contains(host.output(), "Unknow App@77:10000,flow record"))
                << "the flow record file's upload\n" << host.output();
    }
}

}  // namespace
