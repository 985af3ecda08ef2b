#include "support/PeerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

PeerProcess::PeerProcess(const std::vector<std::string>& args, int inheritFd, int deadlineMs)
    : mDeadlineMs(deadlineMs) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<char*> argv = {const_cast<char*>(BINDER_TEST_PEER)};
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    mPid = fork();
    if (mPid == 0) {
        // Only async-signal-safe calls: the parent may run threads.
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
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

PeerProcess::~PeerProcess() {
    if (mPid > 0) {
        Finish();
    }
}

PeerRun PeerProcess::Finish() {
    CloseInput();
    PeerRun run{"", -1};
    for (std::string line = ReadLine(); line != "eof" && line != "timeout"; line = ReadLine()) {
        run.output += line + "\n";
    }
    close(mOut);
    kill(mPid, SIGKILL);  // in case it did not end
    int status = 0;
    if (waitpid(mPid, &status, 0) == mPid && WIFEXITED(status)) {
        run.status = WEXITSTATUS(status);
    }
    mPid = -1;
    return run;
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
        if (poll(&pfd, 1, mDeadlineMs) <= 0) {
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
