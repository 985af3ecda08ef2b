// The one child process of the tests: a program with its standard input and
// output on pipes, killed if the test leaves it running. Most run
// binder_test_peer (see BinderTestPeer.cpp); Peer() makes their command line.
#ifndef VYMM_TESTS_CHILD_PROCESS_H
#define VYMM_TESTS_CHILD_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

// What a peer's "calls N" answered; answered is -1 for an answer that is
// none.
struct CallsResult {
    int answered = -1;
    int failure = 0;
    int uid = -1;
    int pid = -1;
};

// binder_test_peer with args: one of its programs, or none for its command loop.
std::vector<std::string> Peer(const std::vector<std::string>& args = {});

class ChildProcess {
public:
    // inheritFd, when set, stays open in the child at the same number;
    // every wait for its output ends after deadlineMs; withStderr puts its
    // standard error on the output pipe too.
    explicit ChildProcess(const std::vector<std::string>& argv, int inheritFd = -1,
                          int deadlineMs = 20000, bool withStderr = false);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return mPid; }
    // Everything it printed that was read so far.
    const std::string& output() const { return mOutput; }
    // Ends its input: a peer ends once it has done what it was told.
    void CloseInput();
    void Send(const std::string& command);
    // The next line; "timeout" or "eof" when none comes.
    std::string Answer();
    std::string Ask(const std::string& command) {
        Send(command);
        return Answer();
    }
    // Reads lines until one contains text; false at the deadline or end.
    bool WaitForLine(const std::string& text);
    CallsResult Calls(int count) { return ParseCalls(Ask("calls " + std::to_string(count))); }
    static CallsResult ParseCalls(const std::string& answer);
    // Ends its input, reads its output to the end and reaps it: its exit
    // status, 128 + the signal that ended it, or -1 when it did not end in time.
    int Finish();

private:
    pid_t mPid = -1;
    int mIn = -1;
    int mOut = -1;
    int mDeadlineMs;
    bool mReaped = false;
    std::string mOutput;
    size_t mRead = 0;  // the part of mOutput already handed out as lines
};

#endif
