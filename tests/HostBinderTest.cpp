#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <android-base/unique_fd.h>
#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/PermissionCache.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "BinderPool.h"
#include "Wire.h"
#include "support/BinderPeer.h"
#include "support/LogCapture.h"
#include "support/TestEnv.h"

using namespace android;

namespace {

constexpr char kTag[] = "HostBinder";

// Hidden entries count too: a temporary socket is one.
size_t CountEntries(const std::string& folder) {
    using std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(directory_iterator(folder), directory_iterator()));
}

std::set<int> OpenFds() {
    std::set<int> fds;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        fds.insert(std::stoi(entry.path().filename().string()));
    }
    return fds;
}

// What the monitor interface's own round trip does not carry.
TEST(ParcelTest, ReadsBackWhatWasWritten) {
    Parcel parcel;
    parcel.writeInt64(INT64_MIN);
    parcel.writeString8(String8("with\0nul", 8));
    parcel.writeString16(String16("sixteen"));
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    close(pipeFds[0]);
    ASSERT_EQ(parcel.writeDupFileDescriptor(pipeFds[1]), NO_ERROR);
    close(pipeFds[1]);

    parcel.setDataPosition(0);
    EXPECT_EQ(parcel.readInt64(), INT64_MIN);
    EXPECT_EQ(parcel.readString8(), String8("with\0nul", 8));
    EXPECT_EQ(parcel.readString16(), String16("sixteen"));
    const int fd = parcel.readFileDescriptor();
    EXPECT_GE(fcntl(fd, F_GETFD), 0) << "the parcel owns a live copy";
    EXPECT_EQ(parcel.dataAvail(), 0u);
    parcel.freeData();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "and closes it";
}

TEST(ParcelTest, ShortOrMalformedDataFailsWithoutMoving) {
    Parcel parcel;
    const auto expectFails = [&](const std::string& what) {
        parcel.setDataPosition(0);
        String8 str8;
        String16 str16;
        EXPECT_NE(parcel.readString8(&str8), NO_ERROR) << what;
        EXPECT_NE(parcel.readString16(&str16), NO_ERROR) << what;
        EXPECT_EQ(parcel.readFileDescriptor(), BAD_TYPE) << what;
        EXPECT_EQ(parcel.dataPosition(), 0u) << what;
    };
    expectFails("empty");
    parcel.setData(reinterpret_cast<const uint8_t*>("ab"), 2);
    expectFails("two bytes");
    int32_t i32;
    int64_t i64;
    EXPECT_EQ(parcel.readInt32(&i32), NOT_ENOUGH_DATA);
    EXPECT_EQ(parcel.readInt64(&i64), NOT_ENOUGH_DATA);
    EXPECT_EQ(parcel.readCString(), nullptr) << "no terminator";
    EXPECT_EQ(parcel.dataPosition(), 0u);

    for (const int32_t length : {-2, 3, 4, 1000, INT32_MAX}) {
        parcel.freeData();
        parcel.writeInt32(length);
        parcel.write("abcd", 4);
        expectFails("length " + std::to_string(length));
    }
    parcel.freeData();
    parcel.writeInt32(0x5f46445f);  // a descriptor slot that no descriptor came with
    parcel.writeInt32(0);
    expectFails("descriptor slot");
}

TEST(HostServiceManagerTest, PublishesLooksUpAndRemoves) {
    ScopedBinderDir dir;
    const sp<IServiceManager> sm = defaultServiceManager();
    const sp<IBinder> a = new BBinder;
    EXPECT_EQ(sm->addService(String16("a.svc"), a), NO_ERROR);
    EXPECT_EQ(sm->getService(String16("a.svc")), a) << "the local object itself";
    EXPECT_EQ(sm->addService(String16("a.svc"), new BBinder), ALREADY_EXISTS);
    for (const char* name : {"", ".hidden", "../a", "a/b"}) {
        EXPECT_EQ(sm->addService(String16(name), new BBinder), BAD_VALUE) << name;
    }
    EXPECT_EQ(sm->addService(String16("null"), nullptr), BAD_VALUE);
    EXPECT_EQ(sm->checkService(String16("missing")), nullptr);

    // A socket left by a dead process is taken over, no temporary one left.
    {
        base::unique_fd stale(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un addr = {AF_UNIX, {}};
        strcpy(addr.sun_path, (dir.path() + "/stale").c_str());
        ASSERT_EQ(bind(stale.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    }
    EXPECT_EQ(sm->addService(String16("stale"), new BBinder), NO_ERROR);
    EXPECT_EQ(sm->listServices().size(), 2u);
    EXPECT_EQ(CountEntries(dir.path()), 4u) << "two sockets and their lock files";

    // Removed, a name is free to publish again.
    EXPECT_EQ(sm->removeService(String16("stale")), NO_ERROR);
    EXPECT_EQ(sm->removeService(String16("stale")), NAME_NOT_FOUND);
    EXPECT_EQ(CountEntries(dir.path()), 2u);
    EXPECT_EQ(sm->checkService(String16("stale")), nullptr);
    EXPECT_EQ(sm->addService(String16("stale"), new BBinder), NO_ERROR);
}

TEST(IPCThreadStateTest, IdentityTokensAndHostPermissions) {
    IPCThreadState* ipc = IPCThreadState::self();
    const int64_t own = ipc->clearCallingIdentity();
    EXPECT_EQ(own, (int64_t(getuid()) << 32) | getpid());
    const String16 dump("android.permission.DUMP");
    const String16 audio("android.permission.RECORD_AUDIO");
    // Root and system hold every permission, shell only DUMP.
    const std::tuple<uid_t, const String16*, bool> kCases[] = {
            {0, &audio, true},     {1000, &audio, true}, {2000, &dump, true},
            {2000, &audio, false}, {1047, &dump, false}, {1013, &dump, false}};
    for (const auto& [uid, permission, held] : kCases) {
        ipc->restoreCallingIdentity((int64_t(uid) << 32) | 77);
        EXPECT_EQ(PermissionCache::checkCallingPermission(*permission), held) << uid;
    }
    ipc->restoreCallingIdentity(own);
    EXPECT_EQ(ipc->getCallingPid(), getpid());
}

TEST(BinderPoolTest, ServesClientsConcurrentlyDropsBadPeersAndStops) {
    ScopedBinderDir dir;
    LogCapture log;
    const sp<EchoBinder> gate = new EchoBinder;
    gate->SetOpen(false);
    ASSERT_EQ(defaultServiceManager()->addService(String16("svc"), gate), NO_ERROR);
    const size_t fdsBefore = CountEntries("/proc/self/fd");
    ProcessState::self()->setThreadPoolMaxThreadCount(1);
    ProcessState::self()->startThreadPool();
    std::thread joined([] { IPCThreadState::self()->joinThreadPool(); });

    std::vector<base::unique_fd> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(RawConnect(dir.path(), "svc"));
        EXPECT_TRUE(SendHeader(clients.back().get(), Request(EchoBinder::ECHO)));
    }
    // Of the pool thread and the joined one, one runs a call while the
    // other watches the connections; the other calls wait their turn.
    EXPECT_TRUE(gate->WaitForWaiting(1));
    gate->SetOpen(true);
    const std::string answer = "0 " + std::to_string(getuid()) + " " + std::to_string(getpid());
    for (const base::unique_fd& client : clients) {
        EXPECT_EQ(ReadReply(client.get()), answer);
    }

    // A bad frame closes its connection, with the reason logged.
    const auto expectDropped = [&](const char* reason, auto&& send) {
        base::unique_fd fd = RawConnect(dir.path(), "svc");
        send(fd.get());
        EXPECT_EQ(ReadReply(fd.get()), "closed") << reason;
        EXPECT_EQ(log.CountContaining(kTag, reason), 1u) << log.ToString();
    };
    expectDropped("not a frame", [](int fd) {
        EXPECT_GT(send(fd, "GET / HTTP/1.0\r\nHost: x\r\n\r\n", 27, MSG_NOSIGNAL), 0);
    });
    expectDropped("frame too large",
                  [](int fd) { EXPECT_TRUE(SendHeader(fd, Request(1, MAX_FRAME_DATA + 1))); });
    expectDropped("descriptors missing",
                  [](int fd) { EXPECT_TRUE(SendHeader(fd, Request(1, 0, 1))); });
    expectDropped("too many descriptors",
                  [](int fd) { EXPECT_TRUE(SendHeader(fd, Request(1, 0, MAX_FRAME_FDS + 1))); });
    // A one-way call the service cannot take: the second line within a
    // second is not logged.
    for (int i = 0; i < 2; ++i) {
        expectDropped("is malformed", [](int fd) {
            EXPECT_TRUE(SendHeader(fd, {FRAME_MAGIC, 0x777, IBinder::FLAG_ONEWAY, 0, 0}));
        });
    }
    // The descriptor that arrived before the frame was cut short is closed
    // with it (the count at the end).
    expectDropped("truncated", [](int fd) {
        Parcel withFd;
        withFd.writeDupFileDescriptor(STDERR_FILENO);
        EXPECT_TRUE(SendHeader(fd, Request(1, 100)));
        EXPECT_EQ(HostWire::SendFrame(fd, 1, 0, withFd), NO_ERROR);
        shutdown(fd, SHUT_WR);
    });

    // Neither a client that never sends nor one that never reads its
    // replies holds up the others.
    base::unique_fd silent = RawConnect(dir.path(), "svc");
    base::unique_fd flood = RawConnect(dir.path(), "svc");
    fcntl(flood.get(), F_SETFL, O_NONBLOCK);
    size_t sent = 0;
    while (sent < 1000000 && SendHeader(flood.get(), Request(IBinder::PING_TRANSACTION))) {
        ++sent;
    }
    EXPECT_LT(sent, 1000000u) << "the server stopped reading";

    // Beyond the bound, the connections used least recently make room:
    // those above, then the first ones opened here.
    std::vector<base::unique_fd> open;
    for (size_t i = 0; i < BinderPool::MAX_CONNECTIONS + 4; ++i) {
        open.push_back(RawConnect(dir.path(), "svc"));
        ASSERT_TRUE(SendHeader(open.back().get(), Request(IBinder::PING_TRANSACTION)));
        ASSERT_EQ(ReadReply(open.back().get()), "0") << i;
    }
    EXPECT_EQ(ReadReply(silent.get()), "closed");
    EXPECT_EQ(ReadReply(open.front().get()), "closed");
    EXPECT_TRUE(SendHeader(open.back().get(), Request(IBinder::PING_TRANSACTION)));
    EXPECT_EQ(ReadReply(open.back().get()), "0");

    // Nothing is left behind.
    open.clear();
    clients.clear();
    silent.reset();
    flood.reset();
    ProcessState::self()->stopThreadPool();
    joined.join();
    EXPECT_EQ(CountEntries("/proc/self/fd"), fdsBefore);
    EXPECT_EQ(gate->MaxWaiting(), 1);
    ProcessState::self()->setThreadPoolMaxThreadCount(BinderPool::DEFAULT_MAX_THREADS);
}

// Two processes publish each name at the same moment: both wait on one
// pipe, and go when it gets two bytes at once.
TEST(BinderLifecycleTest, OfPublishersRacingForANameExactlyOneWins) {
    ScopedBinderDir dir;
    int start[2];
    ASSERT_EQ(pipe2(start, O_CLOEXEC), 0);
    const base::unique_fd go(start[1]);
    const base::unique_fd wait(start[0]);
    PeerProcess first(wait.get());
    PeerProcess second(wait.get());
    const std::string await = "await " + std::to_string(wait.get()) + "\n";
    const std::string won = std::to_string(NO_ERROR);
    const std::string lost = std::to_string(ALREADY_EXISTS);
    for (int round = 0; round < 200; ++round) {
        const std::string command = await + "publish race-" + std::to_string(round);
        first.Send(command);
        second.Send(command);
        ASSERT_EQ(first.Answer() + second.Answer(), "readyready");
        ASSERT_EQ(write(go.get(), "go", 2), 2);
        const std::string answers = first.Answer() + " " + second.Answer();
        EXPECT_TRUE(answers == won + " " + lost || answers == lost + " " + won)
                << "round " << round << ": " << answers;
    }
}

// A child that replaces the descriptors it inherited with files of its own
// still has them after using, and dropping, the proxy it inherited.
TEST(BinderLifecycleTest, ForkedChildKeepsItsOwnDescriptors) {
    ScopedBinderDir dir;
    PeerProcess service;
    ASSERT_EQ(service.Ask("publish echo"), "0");
    const std::set<int> before = OpenFds();
    sp<IBinder> proxy = defaultServiceManager()->getService(String16("echo"));
    ASSERT_NE(proxy, nullptr);
    std::vector<int> inherited;  // the proxy's folder handle and connection
    for (const int fd : OpenFds()) {
        if (before.count(fd) == 0) {
            inherited.push_back(fd);
        }
    }
    ASSERT_FALSE(inherited.empty());
    struct stat null;
    ASSERT_EQ(stat("/dev/null", &null), 0);

    int verdict[2];
    ASSERT_EQ(pipe2(verdict, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        const int own = open("/dev/null", O_RDONLY);
        for (const int fd : inherited) {
            dup2(own, fd);
        }
        Parcel data;
        Parcel reply;
        bool kept = proxy->transact(EchoBinder::ECHO, data, &reply) == NO_ERROR;
        proxy.clear();
        for (const int fd : inherited) {
            struct stat st;
            kept = kept && fstat(fd, &st) == 0 && st.st_rdev == null.st_rdev;
        }
        const char answer = kept ? 'y' : 'n';
        _exit(write(verdict[1], &answer, 1) == 1 ? 0 : 1);
    }
    close(verdict[1]);
    pollfd pfd = {verdict[0], POLLIN, 0};
    char answer = '-';
    EXPECT_EQ(poll(&pfd, 1, 20000), 1);
    EXPECT_EQ(read(verdict[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y') << "the child's call went through and its files stayed";
    close(verdict[0]);
    waitpid(child, nullptr, 0);
    Parcel data;
    Parcel reply;
    EXPECT_EQ(proxy->transact(EchoBinder::ECHO, data, &reply), NO_ERROR);
}

TEST(BinderLifecycleTest, StartedPoolHasAThreadEvenWithAMaximumOfNone) {
    ScopedBinderDir dir;
    ASSERT_EQ(defaultServiceManager()->addService(String16("svc"), new BBinder), NO_ERROR);
    ProcessState::self()->setThreadPoolMaxThreadCount(0);
    ProcessState::self()->startThreadPool();
    const base::unique_fd conn = RawConnect(dir.path(), "svc");
    ASSERT_TRUE(SendHeader(conn.get(), Request(IBinder::PING_TRANSACTION)));
    EXPECT_EQ(ReadReply(conn.get()), "0");
    ProcessState::self()->stopThreadPool();
    ProcessState::self()->setThreadPoolMaxThreadCount(BinderPool::DEFAULT_MAX_THREADS);
}

// The client has used up its user's inotify instances before it looks.
TEST(BinderLifecycleTest, GetServiceWaitsForAServiceEvenWithoutInotify) {
    ScopedBinderDir dir;
    PeerProcess client;
    ASSERT_EQ(client.Ask("log"), "ok");
    const std::string exhausted = client.Ask("noinotify");
    ASSERT_EQ(exhausted.substr(exhausted.find(' ') + 1), std::to_string(EMFILE)) << exhausted;
    client.Send("get late");
    ASSERT_TRUE(client.WaitForLine("polling")) << "it looked once, found nothing and polls";
    ASSERT_EQ(defaultServiceManager()->addService(String16("late"), new EchoBinder), NO_ERROR);
    ProcessState::self()->startThreadPool();
    EXPECT_EQ(client.Answer(), "ok");
    EXPECT_EQ(client.Calls(1).answered, 1);
    ProcessState::self()->stopThreadPool();
}

// Two stops come while a call runs: neither may return before it ended.
TEST(BinderLifecycleTest, EveryStopReturnsOnlyOnceThePoolsThreadsAreGone) {
    ScopedBinderDir dir;
    const sp<EchoBinder> echo = new EchoBinder;
    ASSERT_EQ(defaultServiceManager()->addService(String16("svc"), echo), NO_ERROR);
    ProcessState::self()->startThreadPool();
    echo->SetOpen(false);
    const base::unique_fd conn = RawConnect(dir.path(), "svc");
    ASSERT_TRUE(SendHeader(conn.get(), Request(EchoBinder::ECHO)));
    ASSERT_TRUE(echo->WaitForWaiting(1));
    // Each stop tells how many calls had ended when it returned.
    const auto stop = [&] {
        ProcessState::self()->stopThreadPool();
        return echo->Answered();
    };
    std::future<int> first = std::async(std::launch::async, stop);
    std::future<int> second = std::async(std::launch::async, stop);
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    echo->SetOpen(true);
    EXPECT_EQ(first.get(), 1);
    EXPECT_EQ(second.get(), 1);
}

}  // namespace
