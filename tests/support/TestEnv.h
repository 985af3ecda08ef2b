// Scoped pieces of a test's environment: a fresh working directory and
// system properties.
#ifndef VYMM_TESTS_TEST_ENV_H
#define VYMM_TESTS_TEST_ENV_H

#include <chrono>
#include <functional>
#include <string>

// Creates a fresh temporary directory and makes it the working directory, so
// the relative record files land there; restores and removes it at the end.
class TempWorkDir {
public:
    TempWorkDir();
    ~TempWorkDir();
    TempWorkDir(const TempWorkDir&) = delete;
    TempWorkDir& operator=(const TempWorkDir&) = delete;

    const std::string& path() const { return mPath; }

private:
    std::string mPath;
    std::string mPrevious;
};

// Sets a system property for the scope; an empty value reads as unset.
class ScopedProperty {
public:
    ScopedProperty(const std::string& key, const std::string& value);
    ~ScopedProperty();
    ScopedProperty(const ScopedProperty&) = delete;
    ScopedProperty& operator=(const ScopedProperty&) = delete;

private:
    std::string mKey;
    std::string mPrevious;
};

// A fresh Binder runtime folder (HOST_BINDER_DIR) for the scope, reachable
// by every user like the default one; removed at the end.
class ScopedBinderDir {
public:
    ScopedBinderDir();
    ~ScopedBinderDir();
    ScopedBinderDir(const ScopedBinderDir&) = delete;
    ScopedBinderDir& operator=(const ScopedBinderDir&) = delete;

    const std::string& path() const { return mPath; }

private:
    std::string mPath;
};

// The whole of the file at path; empty when there is none.
std::string ReadFile(const std::string& path);

// Waits until condition holds, checking it every millisecond; false when
// timeout passes first. For states that no notification reports.
bool Eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(20));

// Runs body on a thread of its own and aborts the test program, rather than
// hang it, when body has not finished after deadline.
void RunWithDeadline(std::chrono::seconds deadline, const std::function<void()>& body);

// Threads of this process whose name is name; all of them for "".
size_t CountThreads(const std::string& name = "");

// Descriptors of this process other than pipes: the service opens none, but
// ThreadSanitizer talks to its symbolizer through two.
size_t CountOpenFiles();

#endif
