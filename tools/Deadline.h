// Every call of vymm to the service has a deadline: past it, the tool says
// on stderr what did not answer and exits 1, rather than wait for ever on a
// frozen service. One deadline at a time, per process (a child made for
// another uid arms its own). Used from the tool's one thread.
#ifndef VYMM_TOOLS_DEADLINE_H
#define VYMM_TOOLS_DEADLINE_H

#include <string>

namespace vymm {

// The deadline of each call, from the command line's --timeout.
constexpr double kDefaultTimeoutSeconds = 5;
void SetCallTimeout(double seconds);
double CallTimeout();

// Armed while it lives: what names the call that did not answer.
class CallDeadline {
public:
    explicit CallDeadline(const std::string& what, double extraSeconds = 0);
    ~CallDeadline();
    CallDeadline(const CallDeadline&) = delete;
    CallDeadline& operator=(const CallDeadline&) = delete;
};

}  // namespace vymm

#endif
