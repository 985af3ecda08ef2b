#include "support/NamedProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

NamedProcess::NamedProcess(std::string name) {
    // The child's end of the pipe closes on exec or exit: until then /proc
    // still shows this program's command line.
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        fds[0] = fds[1] = -1;
    }
    char seconds[] = "600";
    char* argv[] = {name.data(), seconds, nullptr};
    mPid = fork();
    if (mPid == 0) {
        execv("/bin/sleep", argv);
        _exit(127);
    }
    close(fds[1]);
    pollfd end = {fds[0], POLLIN, 0};
    poll(&end, 1, 10000);
    close(fds[0]);
}

NamedProcess::~NamedProcess() {
    if (mPid > 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
}
