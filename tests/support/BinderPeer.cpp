#include "support/BinderPeer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>

#include <stdexcept>

namespace {

// How long a peer may take to answer, or to end once its input ends.
constexpr int kDeadlineMs = 20000;

}  // namespace

PeerProcess::PeerProcess(int inheritFd) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const char* const argv[] = {BINDER_TEST_PEER, nullptr};
    mPid = fork();
    if (mPid == 0) {
        // Only async-signal-safe calls: the parent may run threads.
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        if (inheritFd >= 0) {
            fcntl(inheritFd, F_SETFD, 0);
        }
        execv(argv[0], const_cast<char* const*>(argv));
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    mIn = in[1];
    mOut = out[0];
    if (mPid < 0) {
        throw std::runtime_error("fork failed");
    }
}

PeerProcess::~PeerProcess() {
    CloseInput();
    for (std::string line = ReadLine(); line != "eof" && line != "timeout"; line = ReadLine()) {
    }
    close(mOut);
    kill(mPid, SIGKILL);  // in case it did not end
    waitpid(mPid, nullptr, 0);
}

void PeerProcess::CloseInput() {
    if (mIn >= 0) {
        close(mIn);
        mIn = -1;
    }
}

void PeerProcess::Send(const std::string& command) {
    const std::string line = command + "\n";
    if (write(mIn, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw std::runtime_error("the peer does not read its input");
    }
}

std::string PeerProcess::Answer() {
    for (;;) {
        std::string line = ReadLine();
        if (line.rfind("log: ", 0) != 0) {
            return line;
        }
    }
}

bool PeerProcess::WaitForLine(const std::string& text) {
    for (;;) {
        const std::string line = ReadLine();
        if (line == "eof" || line == "timeout") {
            return false;
        }
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
}

CallsResult PeerProcess::ParseCalls(const std::string& answer) {
    CallsResult result;
    if (sscanf(answer.c_str(), "%d %d %d %d", &result.answered, &result.failure, &result.uid,
               &result.pid) != 4) {
        result.answered = -1;
    }
    return result;
}

std::string PeerProcess::ReadLine() {
    for (;;) {
        const size_t end = mBuffered.find('\n');
        if (end != std::string::npos) {
            std::string line = mBuffered.substr(0, end);
            mBuffered.erase(0, end + 1);
            return line;
        }
        pollfd pfd = {mOut, POLLIN, 0};
        if (poll(&pfd, 1, kDeadlineMs) <= 0) {
            return "timeout";
        }
        char chunk[4096];
        const ssize_t n = read(mOut, chunk, sizeof(chunk));
        if (n <= 0) {
            return "eof";
        }
        mBuffered.append(chunk, static_cast<size_t>(n));
    }
}
