// How the runtime holds up under many clients: excess load waits, idle
// connections make room, and a proxy dies only with its service.
#include <memory>
#include <string>
#include <vector>

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "BinderPool.h"
#include "support/BinderPeer.h"
#include "support/EchoServiceTest.h"

using namespace android;

namespace {

// Each client keeps the connections of a burst of 4 calls idle.
constexpr int kIdleClients = BinderPool::MAX_CONNECTIONS / 4;

// Peers started at once; at the end, all are told to end before any is
// waited for.
struct Peers {
    explicit Peers(int count) {
        for (int i = 0; i < count; ++i) {
            all.push_back(std::make_unique<PeerProcess>());
        }
    }
    ~Peers() {
        for (const std::unique_ptr<PeerProcess>& peer : all) {
            peer->CloseInput();
        }
    }

    std::vector<std::unique_ptr<PeerProcess>> all;
};

using BinderConnectionsTest = EchoServiceTest;

TEST_F(BinderConnectionsTest, IdleClientsDoNotLockOutANewOne) {
    const Peers idle(kIdleClients);
    for (const std::unique_ptr<PeerProcess>& peer : idle.all) {
        ASSERT_EQ(peer->Ask("get echo"), "ok");
        // Four calls at the gate at once hold four connections.
        mEcho->SetOpen(false);
        peer->Send("calls 4");
        ASSERT_TRUE(mEcho->WaitForWaiting(4));
        mEcho->SetOpen(true);
        ASSERT_EQ(PeerProcess::ParseCalls(peer->Answer()).answered, 4);
    }
    PeerProcess late;
    EXPECT_EQ(late.Ask("get echo"), "ok");
    EXPECT_EQ(late.Calls(4).answered, 4);
    // Those whose idle connections made room call on as before.
    for (const std::unique_ptr<PeerProcess>& peer : idle.all) {
        EXPECT_EQ(peer->Calls(4).answered, 4);
    }
}

TEST_F(BinderConnectionsTest, CallsBeyondTheBoundWaitTheirTurn) {
    PeerProcess client;
    ASSERT_EQ(client.Ask("get echo"), "ok");
    mEcho->SetOpen(false);
    client.Send("calls 80");
    // The pool's threads at the gate, the other calls queued, the rest of
    // the connections not yet accepted.
    EXPECT_TRUE(mLog.WaitForContaining(kTag, "connections hold calls: new ones wait"));
    mEcho->SetOpen(true);
    const CallsResult calls = PeerProcess::ParseCalls(client.Answer());
    EXPECT_EQ(calls.answered, 80);
    EXPECT_EQ(calls.failure, NO_ERROR);
}

TEST_F(BinderConnectionsTest, OneWayCallsNeverWaitAndASlowCallHoldsUpNoOtherClient) {
    PeerProcess client;
    ASSERT_EQ(client.Ask("get echo"), "ok");
    mEcho->SetOpen(false);
    // The first call waits at the gate, the next ones fill the socket; then
    // a send fails at once, or the client would never answer.
    const CallsResult oneway = PeerProcess::ParseCalls(client.Ask("oneway 1000000"));
    EXPECT_GT(oneway.answered, 1);
    EXPECT_LT(oneway.answered, 1000000);
    EXPECT_EQ(oneway.failure, WOULD_BLOCK);
    const base::unique_fd other = RawConnect(mDir.path(), kName);
    ASSERT_TRUE(SendHeader(other.get(), Request(IBinder::PING_TRANSACTION)));
    EXPECT_EQ(ReadReply(other.get()), "0");
    // A two-way call returns once the one-way calls sent before it ran:
    // every one that was sent, none cut short.
    mEcho->SetOpen(true);
    EXPECT_EQ(client.Calls(1).answered, 1);
    EXPECT_EQ(mEcho->Answered(), oneway.answered + 1);
}

TEST_F(BinderConnectionsTest, ConnectCloseLoopLocksNobodyOut) {
    PeerProcess hostile;
    if (geteuid() == 0) {
        ASSERT_EQ(hostile.Ask("uid 1047"), "ok");
    }
    ASSERT_EQ(hostile.Ask("churn echo"), "ok");
    const Peers clients(8);
    for (const std::unique_ptr<PeerProcess>& client : clients.all) {
        client->Send("get echo");
    }
    for (const std::unique_ptr<PeerProcess>& client : clients.all) {
        EXPECT_EQ(client->Answer(), "ok");
        client->Send("calls 4");
    }
    for (const std::unique_ptr<PeerProcess>& client : clients.all) {
        EXPECT_EQ(PeerProcess::ParseCalls(client->Answer()).answered, 4);
    }
    EXPECT_GE(std::stoi(hostile.Ask("stop")), 100);
}

TEST_F(BinderConnectionsTest, ProxyOutlivesRestartsAndDescriptorShortageNotItsService) {
    PeerProcess client;
    ASSERT_EQ(client.Ask("get echo"), "ok");
    ASSERT_EQ(client.Ask("log"), "ok");
    EXPECT_EQ(client.Calls(1).answered, 1);
    // The restart closed the connection the proxy keeps.
    ProcessState::self()->stopThreadPool();
    ProcessState::self()->startThreadPool();
    EXPECT_EQ(client.Calls(1).answered, 1);

    // Out of descriptors, the second of two calls cannot connect until the
    // first, held at the gate, gives its connection back.
    ASSERT_EQ(client.Ask("nofile"), "ok");
    mEcho->SetOpen(false);
    client.Send("calls 2");
    ASSERT_TRUE(mEcho->WaitForWaiting(1));
    ASSERT_TRUE(client.WaitForLine(strerror(EMFILE)));
    mEcho->SetOpen(true);
    EXPECT_EQ(PeerProcess::ParseCalls(client.Answer()).answered, 2);
    ASSERT_EQ(client.Ask("nofile max"), "ok");
    EXPECT_EQ(client.Calls(4).answered, 4);

    // Dead once nothing listens, and for good.
    ASSERT_EQ(defaultServiceManager()->removeService(String16(kName)), NO_ERROR);
    EXPECT_EQ(client.Calls(1).failure, DEAD_OBJECT);
    ASSERT_EQ(defaultServiceManager()->addService(String16(kName), new EchoBinder), NO_ERROR);
    EXPECT_EQ(client.Calls(1).failure, DEAD_OBJECT);
}

}  // namespace
