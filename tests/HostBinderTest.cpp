#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/PermissionCache.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "BinderPool.h"
#include "Wire.h"
#include "support/ClientProcess.h"
#include "support/LogCapture.h"
#include "support/TestEnv.h"

using namespace android;

namespace {

constexpr char kTag[] = "HostBinder";

size_t CountEntries(const char* folder, const std::string& prefix = "") {
    size_t count = 0;
    DIR* dir = opendir(folder);
    while (const dirent* entry = readdir(dir)) {
        count += entry->d_name[0] != '.' && std::string(entry->d_name).rfind(prefix, 0) == 0;
    }
    closedir(dir);
    return count;
}

size_t CountPoolThreads() {
    size_t count = 0;
    DIR* dir = opendir("/proc/self/task");
    while (const dirent* entry = readdir(dir)) {
        std::string name;
        std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm") >> name;
        count += name.rfind("binder-", 0) == 0 && name != "binder-poll";
    }
    closedir(dir);
    return count;
}

// A connection that speaks the frame format by hand.
base::unique_fd RawConnect(const ScopedBinderDir& dir, const char* service) {
    return base::unique_fd(HostWire::Connect(dir.path() + "/" + service));
}

// Fails once the service closed the connection.
bool SendHeader(int fd, uint32_t code, uint32_t dataSize, uint32_t fdCount = 0) {
    const FrameHeader header = {FRAME_MAGIC, code, 0, dataSize, fdCount};
    return send(fd, &header, sizeof(header), MSG_NOSIGNAL) == ssize_t(sizeof(header));
}

// The status of the reply, or "closed".
std::string ReadReply(int fd) {
    FrameReader reader(0);
    if (reader.Read(fd) != FrameReader::COMPLETE) {
        return "closed";
    }
    FrameHeader header;
    Parcel reply;
    reader.Take(&header, &reply);
    return std::to_string(static_cast<int32_t>(header.code));
}

TEST(HostServiceManagerTest, PublishesLooksUpAndRefuses) {
    ScopedBinderDir dir;
    LogCapture log;
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

    // A socket left by a dead process is taken over.
    {
        base::unique_fd stale(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, (dir.path() + "/stale").c_str());
        ASSERT_EQ(bind(stale.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    }
    EXPECT_EQ(sm->addService(String16("stale"), new BBinder), NO_ERROR);
    const Vector<String16> names = sm->listServices();
    EXPECT_EQ(names.size(), 2u);
    EXPECT_EQ(CountEntries(dir.path().c_str()), 2u) << "no temporary sockets left";

    // A folder that another user can swap sockets in is not used.
    chmod(dir.path().c_str(), 0777);
    EXPECT_NE(sm->addService(String16("b"), new BBinder), NO_ERROR);
    EXPECT_EQ(sm->checkService(String16("b")), nullptr);
    EXPECT_EQ(log.CountContaining(kTag, "writable by others"), 2u) << log.ToString();
    chmod(dir.path().c_str(), 0755);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(dir.path().c_str(), 1047, 1047), 0);
        EXPECT_NE(sm->addService(String16("b"), new BBinder), NO_ERROR);
        EXPECT_EQ(log.CountContaining(kTag, "owned by uid 1047"), 1u);
    }
}

TEST(IPCThreadStateTest, IdentityTokensAndHostPermissions) {
    IPCThreadState* ipc = IPCThreadState::self();
    EXPECT_EQ(ipc->getCallingPid(), getpid());
    EXPECT_EQ(ipc->getCallingUid(), getuid());
    const int64_t own = ipc->clearCallingIdentity();
    EXPECT_EQ(own, (int64_t(getuid()) << 32) | getpid());

    const String16 dump("android.permission.DUMP");
    const String16 other("android.permission.RECORD_AUDIO");
    const auto holds = [&](uid_t uid, const String16& permission) {
        ipc->restoreCallingIdentity((int64_t(uid) << 32) | 77);
        EXPECT_EQ(ipc->getCallingPid(), 77);
        EXPECT_EQ(ipc->getCallingUid(), uid);
        return PermissionCache::checkCallingPermission(permission);
    };
    EXPECT_TRUE(holds(0, other));
    EXPECT_TRUE(holds(1000, other));
    EXPECT_TRUE(holds(2000, dump));
    EXPECT_FALSE(holds(2000, other));
    EXPECT_FALSE(holds(1047, dump));
    EXPECT_FALSE(holds(1013, dump));
    ipc->restoreCallingIdentity(own);
    EXPECT_EQ(ipc->getCallingPid(), getpid());
}

// Each call waits for the gate to open, counting the calls in progress.
class GateBinder : public BBinder {
public:
    bool WaitInFlight(int count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return mInFlight == count; });
    }
    void Open() {
        std::lock_guard<std::mutex> lock(mMutex);
        mOpen = true;
        mChanged.notify_all();
    }
    int MaxInFlight() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mMaxInFlight;
    }

protected:
    status_t onTransact(uint32_t, const Parcel&, Parcel*, uint32_t) override {
        std::unique_lock<std::mutex> lock(mMutex);
        mMaxInFlight = std::max(mMaxInFlight, ++mInFlight);
        mChanged.notify_all();
        mChanged.wait(lock, [&] { return mOpen; });
        --mInFlight;
        return NO_ERROR;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mInFlight = 0;
    int mMaxInFlight = 0;
    bool mOpen = false;
};

TEST(BinderPoolTest, RunsClientsConcurrentlyUpToItsThreadsAndStops) {
    ScopedBinderDir dir;
    const sp<GateBinder> gate = new GateBinder;
    ASSERT_EQ(defaultServiceManager()->addService(String16("gate"), gate), NO_ERROR);
    ProcessState::self()->setThreadPoolMaxThreadCount(1);
    ProcessState::self()->startThreadPool();
    std::thread joined([] { IPCThreadState::self()->joinThreadPool(); });

    std::vector<std::unique_ptr<ClientProcess>> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(std::make_unique<ClientProcess>(
                std::vector<std::string>{"gate", "-", "transact", "1"}));
        EXPECT_TRUE(clients.back()->WaitForOutput("sending"));
    }
    // One pool thread and the joined one; the other calls wait their turn.
    EXPECT_TRUE(gate->WaitInFlight(2));
    EXPECT_EQ(CountPoolThreads(), 1u);
    gate->Open();
    for (const auto& client : clients) {
        EXPECT_EQ(client->Wait(), 0);
        EXPECT_EQ(client->output(), "sending\n0\n");
    }
    EXPECT_EQ(gate->MaxInFlight(), 2);

    ProcessState::self()->stopThreadPool();
    joined.join();
}

TEST(BinderPoolTest, DropsBadPeersAndServesTheOthers) {
    ScopedBinderDir dir;
    LogCapture log;
    ASSERT_EQ(defaultServiceManager()->addService(String16("svc"), new BBinder), NO_ERROR);
    const size_t fdsBefore = CountEntries("/proc/self/fd");
    ProcessState::self()->startThreadPool();

    // A bad frame closes its connection, with the reason logged.
    const auto expectDropped = [&](const char* reason, auto&& send) {
        base::unique_fd fd = RawConnect(dir, "svc");
        send(fd.get());
        EXPECT_EQ(ReadReply(fd.get()), "closed") << reason;
        EXPECT_EQ(log.CountContaining(kTag, reason), 1u) << log.ToString();
    };
    expectDropped("not a frame", [](int fd) {
        const char garbage[] = "GET / HTTP/1.0\r\nHost: x\r\n\r\n";
        EXPECT_GT(send(fd, garbage, sizeof(garbage), MSG_NOSIGNAL), 0);
    });
    expectDropped("frame too large",
                  [](int fd) { EXPECT_TRUE(SendHeader(fd, 1, MAX_FRAME_DATA + 1)); });
    expectDropped("descriptors missing", [](int fd) { EXPECT_TRUE(SendHeader(fd, 1, 0, 1)); });
    expectDropped("truncated", [](int fd) {
        EXPECT_TRUE(SendHeader(fd, 1, 100));
        shutdown(fd, SHUT_WR);
    });
    expectDropped("too many descriptors", [](int fd) {
        FrameHeader header = {FRAME_MAGIC, 1, 0, 0, 0};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * (MAX_FRAME_FDS + 1))] = {};
        iovec iov = {&header, sizeof(header)};
        msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int) * (MAX_FRAME_FDS + 1));
        for (size_t i = 0; i <= MAX_FRAME_FDS; ++i) {
            const int fdToSend = STDERR_FILENO;
            memcpy(CMSG_DATA(cmsg) + i * sizeof(int), &fdToSend, sizeof(int));
        }
        ASSERT_GT(sendmsg(fd, &msg, MSG_NOSIGNAL), 0);
    });

    // An unknown code is answered; the connection stays usable.
    base::unique_fd unknown = RawConnect(dir, "svc");
    EXPECT_TRUE(SendHeader(unknown.get(), 0x123456, 0));
    EXPECT_EQ(ReadReply(unknown.get()), std::to_string(UNKNOWN_TRANSACTION));
    EXPECT_TRUE(SendHeader(unknown.get(), IBinder::PING_TRANSACTION, 0));
    EXPECT_EQ(ReadReply(unknown.get()), "0");

    // Neither a client that never sends nor one that never reads its
    // replies holds up another client.
    base::unique_fd silent = RawConnect(dir, "svc");
    base::unique_fd flood = RawConnect(dir, "svc");
    fcntl(flood.get(), F_SETFL, O_NONBLOCK);
    const FrameHeader ping = {FRAME_MAGIC, IBinder::PING_TRANSACTION, 0, 0, 0};
    size_t sent = 0;
    while (sent < 1000000 &&
           send(flood.get(), &ping, sizeof(ping), MSG_NOSIGNAL) == ssize_t(sizeof(ping))) {
        ++sent;
    }
    EXPECT_LT(sent, 1000000u) << "the server stopped reading";
    {
        ClientProcess client({"svc", "-", "ping"});
        EXPECT_EQ(client.Wait(), 0);
    }

    // Connections beyond the limit are refused.
    std::vector<base::unique_fd> open;
    std::string answer;
    while (open.size() <= BinderPool::MAX_CONNECTIONS) {
        open.push_back(RawConnect(dir, "svc"));
        if (!SendHeader(open.back().get(), IBinder::PING_TRANSACTION, 0) ||
            (answer = ReadReply(open.back().get())) == "closed") {
            answer = "closed";
            break;
        }
    }
    EXPECT_EQ(answer, "closed");
    EXPECT_GE(open.size(), BinderPool::MAX_CONNECTIONS - 4);
    EXPECT_EQ(log.CountContaining(kTag, "refusing connection"), 1u);

    // Nothing is left behind.
    open.clear();
    unknown.reset();
    silent.reset();
    flood.reset();
    ProcessState::self()->stopThreadPool();
    EXPECT_EQ(CountEntries("/proc/self/fd"), fdsBefore);
}

}  // namespace
