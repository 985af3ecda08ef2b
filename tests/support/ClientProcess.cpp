#include "support/ClientProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

extern char** environ;

namespace {

constexpr std::chrono::seconds kDeadline(30);

}  // namespace

ClientProcess::ClientProcess(const std::vector<std::string>& args) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2 failed");
    }
    std::vector<char*> argv;
    std::string program = BINDER_TEST_CLIENT;
    argv.push_back(program.data());
    std::vector<std::string> copies(args);
    for (std::string& arg : copies) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const int err = posix_spawn(&mPid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    mOut = out[0];
    if (err != 0) {
        close(mOut);
        mReaped = true;
        throw std::runtime_error("cannot start " + program);
    }
}

ClientProcess::~ClientProcess() {
    if (!mReaped) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
    close(mOut);
}

template <typename Done>
bool ClientProcess::ReadUntil(Done done) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!done()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        pollfd pfd = {mOut, POLLIN, 0};
        if (left.count() <= 0 || poll(&pfd, 1, static_cast<int>(left.count())) <= 0) {
            return false;
        }
        char buffer[4096];
        const ssize_t n = read(mOut, buffer, sizeof(buffer));
        if (n <= 0) {
            mEof = true;
        } else {
            mOutput.append(buffer, static_cast<size_t>(n));
        }
    }
    return true;
}

bool ClientProcess::WaitForOutput(const std::string& text) {
    return ReadUntil([&] { return mEof || mOutput.find(text) != std::string::npos; }) &&
           mOutput.find(text) != std::string::npos;
}

int ClientProcess::Wait() {
    if (!ReadUntil([&] { return mEof; })) {
        return -1;
    }
    int status = 0;
    mReaped = waitpid(mPid, &status, 0) == mPid;
    if (!mReaped || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}
