#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
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

    // A socket left by a dead process is taken over, no temporary one left.
    {
        base::unique_fd stale(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un addr = {AF_UNIX, {}};
        strcpy(addr.sun_path, (dir.path() + "/stale").c_str());
        ASSERT_EQ(bind(stale.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    }
    EXPECT_EQ(sm->addService(String16("stale"), new BBinder), NO_ERROR);
    EXPECT_EQ(sm->listServices().size(), 2u);
    EXPECT_EQ(CountEntries(dir.path()), 2u);

    // A folder in which another user can swap sockets is not used.
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

// Each call waits for the gate to open, counting the calls in progress.
struct GateBinder : public BBinder {
    status_t onTransact(uint32_t, const Parcel&, Parcel*, uint32_t) override {
        std::unique_lock<std::mutex> lock(mutex);
        maxInFlight = std::max(maxInFlight, ++inFlight);
        changed.notify_all();
        changed.wait(lock, [&] { return open; });
        --inFlight;
        return NO_ERROR;
    }

    std::mutex mutex;
    std::condition_variable changed;
    int inFlight = 0;
    int maxInFlight = 0;
    bool open = false;
};

TEST(BinderPoolTest, ServesClientsConcurrentlyDropsBadPeersAndStops) {
    ScopedBinderDir dir;
    LogCapture log;
    const sp<GateBinder> gate = new GateBinder;
    ASSERT_EQ(defaultServiceManager()->addService(String16("svc"), gate), NO_ERROR);
    const size_t fdsBefore = CountEntries("/proc/self/fd");
    ProcessState::self()->setThreadPoolMaxThreadCount(1);
    ProcessState::self()->startThreadPool();
    std::thread joined([] { IPCThreadState::self()->joinThreadPool(); });

    std::vector<base::unique_fd> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(RawConnect(dir, "svc"));
        EXPECT_TRUE(SendHeader(clients.back().get(), 1, 0));
    }
    {
        // One pool thread and the joined one; the other calls wait their turn.
        std::unique_lock<std::mutex> lock(gate->mutex);
        EXPECT_TRUE(gate->changed.wait_for(lock, std::chrono::seconds(10),
                                           [&] { return gate->inFlight == 2; }));
        gate->open = true;
        gate->changed.notify_all();
    }
    for (const base::unique_fd& client : clients) {
        EXPECT_EQ(ReadReply(client.get()), "0");
    }

    // A bad frame closes its connection, with the reason logged.
    const auto expectDropped = [&](const char* reason, auto&& send) {
        base::unique_fd fd = RawConnect(dir, "svc");
        send(fd.get());
        EXPECT_EQ(ReadReply(fd.get()), "closed") << reason;
        EXPECT_EQ(log.CountContaining(kTag, reason), 1u) << log.ToString();
    };
    expectDropped("not a frame", [](int fd) {
        EXPECT_GT(send(fd, "GET / HTTP/1.0\r\nHost: x\r\n\r\n", 27, MSG_NOSIGNAL), 0);
    });
    expectDropped("frame too large",
                  [](int fd) { EXPECT_TRUE(SendHeader(fd, 1, MAX_FRAME_DATA + 1)); });
    expectDropped("descriptors missing", [](int fd) { EXPECT_TRUE(SendHeader(fd, 1, 0, 1)); });
    expectDropped("too many descriptors",
                  [](int fd) { EXPECT_TRUE(SendHeader(fd, 1, 0, MAX_FRAME_FDS + 1)); });
    // The descriptor that arrived before the frame was cut short is closed
    // with it (the count at the end).
    expectDropped("truncated", [](int fd) {
        Parcel withFd;
        withFd.writeDupFileDescriptor(STDERR_FILENO);
        EXPECT_TRUE(SendHeader(fd, 1, 100));
        EXPECT_EQ(HostWire::SendFrame(fd, 1, 0, withFd), NO_ERROR);
        shutdown(fd, SHUT_WR);
    });

    // Neither a client that never sends nor one that never reads its
    // replies holds up the others.
    base::unique_fd silent = RawConnect(dir, "svc");
    base::unique_fd flood = RawConnect(dir, "svc");
    fcntl(flood.get(), F_SETFL, O_NONBLOCK);
    size_t sent = 0;
    while (sent < 1000000 && SendHeader(flood.get(), IBinder::PING_TRANSACTION, 0)) {
        ++sent;
    }
    EXPECT_LT(sent, 1000000u) << "the server stopped reading";

    // The connections up to the limit are served; those beyond it refused.
    std::vector<base::unique_fd> open;
    std::string answer;
    while (open.size() <= BinderPool::MAX_CONNECTIONS && answer != "closed") {
        open.push_back(RawConnect(dir, "svc"));
        answer = SendHeader(open.back().get(), IBinder::PING_TRANSACTION, 0)
                         ? ReadReply(open.back().get())
                         : "closed";
    }
    EXPECT_EQ(answer, "closed");
    EXPECT_GE(open.size(), BinderPool::MAX_CONNECTIONS - 8);
    EXPECT_EQ(log.CountContaining(kTag, "refusing connection"), 1u);

    // Nothing is left behind.
    open.clear();
    clients.clear();
    silent.reset();
    flood.reset();
    ProcessState::self()->stopThreadPool();
    joined.join();
    EXPECT_EQ(CountEntries("/proc/self/fd"), fdsBefore);
    std::lock_guard<std::mutex> lock(gate->mutex);
    EXPECT_EQ(gate->maxInFlight, 2);
}

}  // namespace
