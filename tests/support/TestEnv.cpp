#include "support/TestEnv.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include <android-base/properties.h>

namespace {

std::string MakeTempDir(const char* prefix) {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/" + prefix + "XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    return pattern;
}

}  // namespace

TempWorkDir::TempWorkDir() {
    mPath = MakeTempDir("vymm-test-");
    mPrevious = std::filesystem::current_path();
    std::filesystem::current_path(mPath);
}

TempWorkDir::~TempWorkDir() {
    std::error_code ignored;
    std::filesystem::current_path(mPrevious, ignored);
    std::filesystem::remove_all(mPath, ignored);
}

ScopedBinderDir::ScopedBinderDir() : mPath(MakeTempDir("vymm-binder-")) {
    chmod(mPath.c_str(), 0755);
    setenv("HOST_BINDER_DIR", mPath.c_str(), 1);
}

ScopedBinderDir::~ScopedBinderDir() {
    unsetenv("HOST_BINDER_DIR");
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

ScopedProperty::ScopedProperty(const std::string& key, const std::string& value)
    : mKey(key), mPrevious(android::base::GetProperty(key, "")) {
    android::base::SetProperty(mKey, value);
}

ScopedProperty::~ScopedProperty() { android::base::SetProperty(mKey, mPrevious); }

std::string ReadFile(const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void RunWithDeadline(std::chrono::seconds deadline, const std::function<void()>& body) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([body, done] {
        body();
        done->set_value();
    }).detach();
    if (finished.wait_for(deadline) != std::future_status::ready) {
        fprintf(stderr, "still running after %lld s: deadlocked\n",
                static_cast<long long>(deadline.count()));
        abort();
    }
}

size_t CountThreads(const std::string& name) {
    size_t count = 0;
    std::error_code ignored;
    for (auto task = std::filesystem::directory_iterator("/proc/self/task", ignored);
         task != std::filesystem::directory_iterator(); task.increment(ignored)) {
        std::ifstream comm(task->path() / "comm");
        std::string line;
        count += name.empty() || (std::getline(comm, line) && line == name);
    }
    return count;
}

size_t CountOpenFiles() {
    size_t count = 0;
    std::error_code ignored;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
        std::error_code gone;
        count += std::filesystem::read_symlink(fd.path(), gone).string().rfind("pipe:", 0) != 0;
    }
    return count;
}
