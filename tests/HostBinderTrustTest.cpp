// Whom the runtime believes: the sender of each request as the kernel
// reports it, and only a runtime folder no other user can change.
#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <android-base/unique_fd.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include "support/BinderPeer.h"
#include "support/EchoServiceTest.h"
#include "support/LogCapture.h"
#include "support/TestEnv.h"

using namespace android;

namespace {

constexpr char kTag[] = "HostBinder";
constexpr uid_t kOtherUid = 1047;

using BinderIdentityTest = EchoServiceTest;

TEST_F(BinderIdentityTest, CallerThatDropsItsUidIsSeenWithTheNewOne) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "dropping to another uid needs root";
    }
    ChildProcess client(Peer());
    ASSERT_EQ(client.Ask("get echo"), "ok");
    const CallsResult asRoot = client.Calls(1);
    EXPECT_EQ(asRoot.uid, 0);
    EXPECT_EQ(asRoot.pid, client.pid());
    ASSERT_EQ(client.Ask("uid " + std::to_string(kOtherUid)), "ok");
    // On the connection it opened as root.
    const CallsResult dropped = client.Calls(1);
    EXPECT_EQ(dropped.uid, static_cast<int>(kOtherUid));
    EXPECT_EQ(dropped.pid, client.pid());
}

// We open a connection and pass it on to another process, of another uid
// when we are root.
TEST_F(BinderIdentityTest, PassedConnectionCarriesItsHoldersIdentity) {
    const base::unique_fd conn = RawConnect(mDir.path(), kName);
    ASSERT_TRUE(SendHeader(conn.get(), Request(EchoBinder::ECHO)));
    EXPECT_EQ(ReadReply(conn.get()),
              "0 " + std::to_string(getuid()) + " " + std::to_string(getpid()));
    ChildProcess holder(Peer(), conn.get());
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(holder.Ask("uid " + std::to_string(kOtherUid)), "ok");
    }
    const std::string raw = "raw " + std::to_string(conn.get());
    EXPECT_EQ(holder.Ask(raw + " 0"), "0 " + std::to_string(root ? kOtherUid : getuid()) + " " +
                                              std::to_string(holder.pid()));

    // A request we begin and the holder finishes is nobody's.
    ASSERT_TRUE(SendHeader(conn.get(), Request(EchoBinder::ECHO), 0, 8));
    EXPECT_EQ(holder.Ask(raw + " 8"), "closed");
    EXPECT_EQ(mLog.CountContaining(kTag, "credentials changed within a frame"), 1u);
    if (!root) {
        GTEST_SKIP() << "passing it to another uid needs root";
    }
}

// Publishing in folder, then looking up there, are both refused, each with
// a line naming the folder at fault.
void ExpectRefused(const std::string& folder, const std::string& fault) {
    LogCapture log;
    setenv("HOST_BINDER_DIR", folder.c_str(), 1);
    const sp<IServiceManager> sm = defaultServiceManager();
    EXPECT_EQ(sm->addService(String16("svc"), new BBinder), PERMISSION_DENIED) << folder;
    EXPECT_EQ(sm->checkService(String16("svc")), nullptr);
    EXPECT_EQ(log.CountContaining(kTag, "refusing binder folder " + folder + ": " + fault), 2u)
            << log.ToString();
}

TEST(RuntimeFolderTest, RefusesAFolderOthersCouldChangeNamingTheDirectoryAtFault) {
    ScopedBinderDir dir;
    const std::string top = dir.path();
    // Another user could swap the folder for one of their own.
    ASSERT_EQ(mkdir((top + "/shared").c_str(), 0755), 0);
    ASSERT_EQ(chmod((top + "/shared").c_str(), 0777), 0);
    ExpectRefused(top + "/shared/rt", top + "/shared is writable by others");
    ASSERT_EQ(chmod((top + "/shared").c_str(), 0775), 0);
    ExpectRefused(top + "/shared/rt", top + "/shared is writable by others");
    ASSERT_EQ(mkdir((top + "/open").c_str(), 0755), 0);
    ASSERT_EQ(chmod((top + "/open").c_str(), 0777), 0);
    ExpectRefused(top + "/open", top + "/open is writable by others");
    // Reached through a symbolic link, which another user may own.
    ASSERT_EQ(mkdir((top + "/real").c_str(), 0755), 0);
    ASSERT_EQ(symlink((top + "/real").c_str(), (top + "/link").c_str()), 0);
    ExpectRefused(top + "/link/rt", top + "/link is a symbolic link or not a folder");
    ExpectRefused("relative/rt", "relative/rt is not an absolute path");
    EXPECT_FALSE(std::filesystem::exists(top + "/real/rt"));

    if (geteuid() != 0) {
        GTEST_SKIP() << "folders of other users, and sticky ones of root, need root";
    }
    ASSERT_EQ(chown((top + "/real").c_str(), kOtherUid, kOtherUid), 0);
    ExpectRefused(top + "/real/rt", top + "/real is owned by uid 1047");
    // As /tmp: all may add entries, none remove or rename those of others.
    ASSERT_EQ(chmod((top + "/shared").c_str(), 01777), 0);
    setenv("HOST_BINDER_DIR", (top + "/shared/rt").c_str(), 1);
    EXPECT_EQ(defaultServiceManager()->addService(String16("svc"), new BBinder), NO_ERROR);
}

TEST(RuntimeFolderTest, OnlyPublishingCreatesTheFolder) {
    ScopedBinderDir dir;
    const std::string folder = dir.path() + "/rt";
    setenv("HOST_BINDER_DIR", folder.c_str(), 1);
    const sp<IServiceManager> sm = defaultServiceManager();
    EXPECT_EQ(sm->checkService(String16("svc")), nullptr);
    EXPECT_TRUE(sm->listServices().isEmpty());
    EXPECT_FALSE(std::filesystem::exists(folder));
    const mode_t umaskWas = umask(077);
    EXPECT_EQ(sm->addService(String16("svc"), new BBinder), NO_ERROR);
    umask(umaskWas);
    struct stat st;
    ASSERT_EQ(lstat(folder.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u) << "every user reaches it, whatever the umask";
}

// The client holds a proxy; then its folder is moved away, and another with
// a socket of the same name put in its place.
TEST_F(BinderIdentityTest, ProxyGoesOnUsingTheFolderItChecked) {
    ChildProcess client(Peer());
    ASSERT_EQ(client.Ask("get echo"), "ok");
    EXPECT_EQ(client.Calls(1).answered, 1);
    const std::string moved = mDir.path() + ".moved";
    ASSERT_EQ(rename(mDir.path().c_str(), moved.c_str()), 0);
    ASSERT_EQ(mkdir(mDir.path().c_str(), 0755), 0);
    const base::unique_fd decoy(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_un addr = {AF_UNIX, {}};
    strcpy(addr.sun_path, (mDir.path() + "/" + kName).c_str());
    ASSERT_EQ(bind(decoy.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    ASSERT_EQ(listen(decoy.get(), 8), 0);

    // One call on the connection kept, one on a new one.
    EXPECT_EQ(client.Calls(2).answered, 2);
    EXPECT_LT(accept(decoy.get(), nullptr, nullptr), 0) << "the decoy was never reached";
    std::filesystem::remove_all(moved);
}

TEST(RuntimeFolderTest, DefaultFolderUnderTmpServesOtherProcesses) {
    unsetenv("HOST_BINDER_DIR");
    const std::string folder = "/tmp/host-binder";
    struct stat st;
    if (lstat(folder.c_str(), &st) == 0 && st.st_uid != geteuid()) {
        GTEST_SKIP() << folder << " belongs to uid " << st.st_uid;
    }
    const std::string name = "vymm-test-" + std::to_string(getpid());
    const sp<IServiceManager> sm = defaultServiceManager();
    // Kept until the pool's threads are joined: the thread sanitizer cannot
    // see the platform's reference counts order its release after theirs.
    const sp<EchoBinder> echo = new EchoBinder;
    ASSERT_EQ(sm->addService(String16(name.c_str()), echo), NO_ERROR);
    ProcessState::self()->startThreadPool();
    ChildProcess client(Peer());
    EXPECT_EQ(client.Ask("get " + name), "ok");
    EXPECT_EQ(client.Calls(1).answered, 1);
    // Removed, it is gone for its clients and from the folder.
    EXPECT_EQ(sm->removeService(String16(name.c_str())), NO_ERROR);
    EXPECT_EQ(client.Calls(1).failure, DEAD_OBJECT);
    EXPECT_FALSE(std::filesystem::exists(folder + "/" + name));
    EXPECT_FALSE(std::filesystem::exists(folder + "/." + name + ".lock"));
    ProcessState::self()->stopThreadPool();
}

}  // namespace
