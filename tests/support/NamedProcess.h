// A child process with a known command line, for tests that name an
// application by its pid: /bin/sleep run under argv[0] = name.
#ifndef VYMM_TESTS_NAMED_PROCESS_H
#define VYMM_TESTS_NAMED_PROCESS_H

#include <sys/types.h>

#include <string>

class NamedProcess {
public:
    // Returns once the child has replaced its program (or failed to).
    explicit NamedProcess(std::string name);
    // Kills and reaps the child.
    ~NamedProcess();
    NamedProcess(const NamedProcess&) = delete;
    NamedProcess& operator=(const NamedProcess&) = delete;

    pid_t pid() const { return mPid; }

private:
    pid_t mPid;
};

#endif
