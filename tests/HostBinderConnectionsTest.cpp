// How the runtime holds up under many clients: a slow call holds up no
// other client, floods take turns, one-way bursts are queued, and a proxy
// dies only with its service.
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "BinderPool.h"
#include "support/BinderPeer.h"
#include "support/TestEnv.h"

using namespace android;

namespace {

// An echo service published as "echo" in a fresh runtime folder and served
// by this process's pool for the test.
class BinderConnectionsTest : public ::testing::Test {
protected:
    static constexpr char kName[] = "echo";

    void SetUp() override {
        ASSERT_EQ(android::defaultServiceManager()->addService(android::String16(kName), mEcho),
                  android::NO_ERROR);
        android::ProcessState::self()->startThreadPool();
    }
    void TearDown() override {
        mEcho->SetOpen(true);
        android::ProcessState::self()->stopThreadPool();
    }

    ScopedBinderDir mDir;
    const android::sp<EchoBinder> mEcho = new EchoBinder;
};

TEST_F(BinderConnectionsTest, OneWayCallsNeverWaitAndASlowCallHoldsUpNoOtherClient) {
    ChildProcess client(Peer());
    ASSERT_EQ(client.Ask("get echo"), "ok");
    mEcho->SetOpen(false);
    // The first call waits at the gate, the next ones fill the socket; then
    // a send fails at once, or the client would never answer.
    const CallsResult oneway = ChildProcess::ParseCalls(client.Ask("oneway 1000000"));
    EXPECT_GT(oneway.answered, 1);
    EXPECT_LT(oneway.answered, 1000000);
    EXPECT_EQ(oneway.failure, WOULD_BLOCK);
    const base::unique_fd other = RawConnect(mDir.path(), kName);
    ASSERT_TRUE(SendHeader(other.get(), Request(IBinder::PING_TRANSACTION)));
    EXPECT_EQ(ReadReply(other.get()), "0");
    // Calls made while the queue is written out wait behind it, and a
    // two-way call returns once the one-way calls sent before it ran: every
    // one that was sent, in order, none cut short.
    mEcho->SetOpen(true);
    const CallsResult more = ChildProcess::ParseCalls(client.Ask("oneway 20000"));
    EXPECT_EQ(client.Calls(1).answered, 1);
    EXPECT_EQ(mEcho->Answered(), oneway.answered + more.answered + 1);
    EXPECT_EQ(mEcho->OutOfOrder(), 0);
}

TEST_F(BinderConnectionsTest, AFloodOnManyConnectionsTakesTurnsWithOtherClientsOfAnyUid) {
    constexpr int kFlooders = 40;
    constexpr int kCallsPerSend = 64;
    // Many calls a write, more than the pool reads one by one.
    std::vector<FrameHeader> calls(kCallsPerSend,
                                   {FRAME_MAGIC, EchoBinder::ECHO, IBinder::FLAG_ONEWAY, 0, 0});
    std::atomic<bool> flooding{true};
    std::vector<std::thread> flood;
    for (int i = 0; i < kFlooders; ++i) {
        flood.emplace_back([&] {
            const base::unique_fd conn = RawConnect(mDir.path(), kName);
            const timeval recheck = {0, 100000};
            setsockopt(conn.get(), SOL_SOCKET, SO_SNDTIMEO, &recheck, sizeof(recheck));
            while (flooding) {
                send(conn.get(), calls.data(), calls.size() * sizeof(FrameHeader), MSG_NOSIGNAL);
            }
        });
    }
    ASSERT_TRUE(Eventually([&] { return mEcho->Answered() > 20 * kFlooders * kCallsPerSend; }));
    const base::unique_fd other = RawConnect(mDir.path(), kName);
    for (int i = 0; i < 8; ++i) {
        const auto sent = std::chrono::steady_clock::now();
        ASSERT_TRUE(SendHeader(other.get(), Request(IBinder::PING_TRANSACTION)));
        ASSERT_EQ(ReadReply(other.get()), "0");
        EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(2)) << i;
    }
    // Another uid has threads of its own.
    if (geteuid() == 0) {
        ChildProcess client(Peer());
        ASSERT_EQ(client.Ask("as 10002"), "ok");
        ASSERT_EQ(client.Ask("get echo"), "ok");
        const CallsResult answered = client.Calls(8);
        EXPECT_EQ(answered.answered, 8);
        EXPECT_EQ(answered.uid, 10002);
    }
    flooding = false;
    for (std::thread& thread : flood) {
        thread.join();
    }
}

// Holds the pool's accept between accept and registration until released.
struct AcceptGate {
    static void Hook() {
        std::unique_lock<std::mutex> lock(mutex);
        paused = true;
        changed.notify_all();
        changed.wait_for(lock, std::chrono::seconds(20), [] { return released; });
    }

    static std::mutex mutex;
    static std::condition_variable changed;
    static bool paused;
    static bool released;
};
std::mutex AcceptGate::mutex;
std::condition_variable AcceptGate::changed;
bool AcceptGate::paused = false;
bool AcceptGate::released = false;

TEST_F(BinderConnectionsTest, AWithdrawalRunsWhatAConnectionBeingAcceptedSent) {
    constexpr int kCalls = 100;
    BinderPool::sAcceptHook = AcceptGate::Hook;
    const base::unique_fd conn = RawConnect(mDir.path(), kName);
    for (int i = 0; i < kCalls; ++i) {
        ASSERT_TRUE(SendHeader(conn.get(), {FRAME_MAGIC, EchoBinder::ECHO, IBinder::FLAG_ONEWAY,
                                            0, 0}));
    }
    {
        std::unique_lock<std::mutex> lock(AcceptGate::mutex);
        ASSERT_TRUE(AcceptGate::changed.wait_for(lock, std::chrono::seconds(20),
                                                 [] { return AcceptGate::paused; }));
    }
    // How many calls had run when the withdrawal returned.
    std::future<int> withdrawn = std::async(std::launch::async, [&] {
        defaultServiceManager()->removeService(String16(kName));
        return mEcho->Answered();
    });
    EXPECT_EQ(withdrawn.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    {
        std::lock_guard<std::mutex> lock(AcceptGate::mutex);
        AcceptGate::released = true;
        AcceptGate::changed.notify_all();
    }
    EXPECT_EQ(withdrawn.get(), kCalls);
    BinderPool::sAcceptHook = nullptr;
}

// A burst far above what the socket holds, while the service's process is
// stopped: every call is queued without waiting, and all arrive whole and in
// order once it runs again, with no further call to push them.
TEST(OnewayQueueTest, ABurstAgainstAStoppedServiceArrivesWholeAndInOrder) {
    // The big calls overflow the socket's buffer (some 200 KiB), which takes
    // one of them only in part; each small send takes far more of the buffer
    // than its 24 bytes.
    constexpr int kBig = 4;
    constexpr size_t kBigPayload = 80 * 1024;
    constexpr int kBurst = 3500;
    const ScopedBinderDir dir;
    ChildProcess service(Peer());
    ASSERT_EQ(service.Ask("publish echo"), "0");
    const sp<IBinder> echo = defaultServiceManager()->getService(String16("echo"));
    ASSERT_NE(echo, nullptr);
    const auto counts = [&] {
        Parcel reply;
        EXPECT_EQ(echo->transact(EchoBinder::COUNTS, Parcel(), &reply), NO_ERROR);
        const int32_t answered = reply.readInt32();
        return std::to_string(answered) + " " + std::to_string(reply.readInt32());
    };
    ASSERT_EQ(counts(), "0 0");

    // The caller's proxy: let go with its calls queued.
    sp<IBinder> sender = defaultServiceManager()->getService(String16("echo"));
    ASSERT_EQ(kill(service.pid(), SIGSTOP), 0);
    std::future<int> burst = std::async(std::launch::async, [&] {
        int refused = 0;
        for (int32_t number = 1; number <= kBurst; ++number) {
            Parcel data;
            data.writeInt32(number);
            if (number <= kBig) {
                data.write(std::vector<uint8_t>(kBigPayload, 0xa5).data(), kBigPayload);
                data.writeInt32(number);
            }
            refused += sender->transact(EchoBinder::ECHO, data, nullptr, IBinder::FLAG_ONEWAY) !=
                       NO_ERROR;
        }
        return refused;
    });
    const bool returned = burst.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    if (returned) {
        sender.clear();
    }
    kill(service.pid(), SIGCONT);
    ASSERT_TRUE(returned) << "the caller waited for the stopped service";
    EXPECT_EQ(burst.get(), 0);

    // The sender thread alone writes the queue out: wait for the last call.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    const base::unique_fd raw = RawConnect(dir.path(), "echo");
    std::string seen;
    while ((seen = [&] {
               SendHeader(raw.get(), Request(EchoBinder::COUNTS));
               return ReadReply(raw.get());
           }()) != "0 " + std::to_string(kBurst) + " 0" &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(seen, "0 " + std::to_string(kBurst) + " 0");
    EXPECT_EQ(counts(), std::to_string(kBurst) + " 0");
}

}  // namespace
