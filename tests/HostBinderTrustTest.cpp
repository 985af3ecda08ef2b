// Whom the runtime believes: only a runtime folder no other user can change.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <binder/IServiceManager.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/TestEnv.h"

using namespace android;

namespace {

constexpr char kTag[] = "HostBinder";
constexpr uid_t kOtherUid = 1047;

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
}

// Folders of other users, and sticky ones of root, are made only by root.
TEST(RuntimeFolderTest, RefusesAnotherUsersFolderAndTakesRootsStickyOneAsRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    ScopedBinderDir dir;
    const std::string top = dir.path();
    ASSERT_EQ(mkdir((top + "/real").c_str(), 0755), 0);
    ASSERT_EQ(chown((top + "/real").c_str(), kOtherUid, kOtherUid), 0);
    ExpectRefused(top + "/real/rt", top + "/real is owned by uid 1047");
    // As /tmp: all may add entries, none remove or rename those of others.
    ASSERT_EQ(mkdir((top + "/shared").c_str(), 0755), 0);
    ASSERT_EQ(chmod((top + "/shared").c_str(), 01777), 0);
    // Sticky is safe only above it: in the folder itself anyone may add a name.
    ExpectRefused(top + "/shared", top + "/shared is writable by others");
    setenv("HOST_BINDER_DIR", (top + "/shared/rt").c_str(), 1);
    EXPECT_EQ(defaultServiceManager()->addService(String16("svc"), new BBinder), NO_ERROR);
}

}  // namespace
