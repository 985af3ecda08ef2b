// The one child process of the tests: binder_test_peer, its standard input
// and output on pipes, ended at the end of the scope.
#ifndef VYMM_TESTS_PEER_PROCESS_H
#define VYMM_TESTS_PEER_PROCESS_H

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

// What a peer printed and how it ended.
struct PeerRun {
    std::string output;
    int status;  // its exit status; -1 when it was killed or did not end in time
};

// A binder_test_peer process, with args one of its programs (see
// BinderTestPeer.cpp) or none for the command loop. Lines of its log
// ("log: ...") are not answers: Answer() skips them.
class PeerProcess {
public:
    // inheritFd, when set, stays open in the peer at the same number;
    // deadlineMs bounds every wait for its output.
    explicit PeerProcess(const std::vector<std::string>& args = {}, int inheritFd = -1,
                         int deadlineMs = 20000);
    ~PeerProcess();
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    pid_t pid() const { return mPid; }
    // Ends its input: the peer ends once it has done what it was told.
    void CloseInput();
    void Send(const std::string& command);
    // The next answer; "timeout" or "eof" when none comes.
    std::string Answer();
    std::string Ask(const std::string& command) {
        Send(command);
        return Answer();
    }
    // Reads lines until one contains text; false at the deadline or end.
    bool WaitForLine(const std::string& text);
    CallsResult Calls(int count) { return ParseCalls(Ask("calls " + std::to_string(count))); }
    static CallsResult ParseCalls(const std::string& answer);
    // Ends its input and waits for it to end: what it printed from here on.
    PeerRun Finish();

private:
    // The next line, log lines included; "timeout" or "eof" when none.
    std::string ReadLine();

    pid_t mPid = -1;
    int mIn = -1;
    int mOut = -1;
    int mDeadlineMs;
    std::string mBuffered;
};

#endif
