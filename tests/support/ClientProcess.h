// Runs the Binder test client program (BinderTestClient.cpp) in a process of
// its own, collecting its standard output.
#ifndef VYMM_TESTS_CLIENT_PROCESS_H
#define VYMM_TESTS_CLIENT_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

class ClientProcess {
public:
    // Starts the client with these arguments.
    explicit ClientProcess(const std::vector<std::string>& args);
    // Kills the client if it still runs.
    ~ClientProcess();
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    pid_t pid() const { return mPid; }
    // True once the output holds text; gives up after 30 s.
    bool WaitForOutput(const std::string& text);
    // Its exit status once it exited, -1 when it failed to within 30 s.
    int Wait();
    const std::string& output() const { return mOutput; }

private:
    // Reads output until done() or the deadline; false at the deadline.
    template <typename Done>
    bool ReadUntil(Done done);

    pid_t mPid = -1;
    bool mReaped = false;
    int mOut = -1;
    bool mEof = false;
    std::string mOutput;
};

#endif
