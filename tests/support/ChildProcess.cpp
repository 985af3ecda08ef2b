#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

std::vector<std::string> Peer(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {BINDER_TEST_PEER};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

ChildProcess::ChildProcess(const std::vector<std::string>& args, int inheritFd, int deadlineMs,
                           bool withStderr)
    : mDeadlineMs(deadlineMs) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    mPid = fork();
    if (mPid == 0) {
        // Only async-signal-safe calls: the parent may run threads.
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        if (withStderr) {
            dup2(out[1], STDERR_FILENO);
        }
        if (inheritFd >= 0) {
            fcntl(inheritFd, F_SETFD, 0);
        }
        execv(argv[0], argv.data());
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

ChildProcess::~ChildProcess() {
    if (mPid > 0 && !mReaped) {
        Finish();
    }
}

int ChildProcess::Finish() {
    CloseInput();
    std::string line;
    do {
        line = Answer();
    } while (line != "eof" && line != "timeout");
    close(mOut);
    if (line == "timeout") {
        kill(mPid, SIGKILL);
    }
    int status = 0;
    mReaped = waitpid(mPid, &status, 0) == mPid;
    if (!mReaped || line == "timeout") {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void ChildProcess::CloseInput() {
    if (mIn >= 0) {
        close(mIn);
        mIn = -1;
    }
}

void ChildProcess::Send(const std::string& command) {
    const std::string line = command + "\n";
    if (write(mIn, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw std::runtime_error("the peer does not read its input");
    }
}

bool ChildProcess::WaitForLine(const std::string& text) {
    for (;;) {
        const std::string line = Answer();
        if (line == "eof" || line == "timeout") {
            return false;
        }
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
}

CallsResult ChildProcess::ParseCalls(const std::string& answer) {
    CallsResult result;
    if (sscanf(answer.c_str(), "%d %d %d %d", &result.answered, &result.failure, &result.uid,
               &result.pid) != 4) {
        result.answered = -1;
    }
    return result;
}

std::string ChildProcess::Answer() {
    for (;;) {
        const size_t end = mOutput.find('\n', mRead);
        if (end != std::string::npos) {
            std::string line = mOutput.substr(mRead, end - mRead);
            mRead = end + 1;
            return line;
        }
        pollfd pfd = {mOut, POLLIN, 0};
        if (poll(&pfd, 1, mDeadlineMs) <= 0) {
            return "timeout";
        }
        char chunk[4096];
        const ssize_t n = read(mOut, chunk, sizeof(chunk));
        if (n <= 0) {
            return "eof";
        }
        mOutput.append(chunk, static_cast<size_t>(n));
    }
}
