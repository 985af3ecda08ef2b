#include "tools/Deadline.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "tools/ServiceClient.h"

namespace vymm {

namespace {

double gTimeoutSeconds = kDefaultTimeoutSeconds;
// Written before the timer starts, read only by the handler.
char gMessage[512];
size_t gMessageSize = 0;

void OnDeadline(int) {
    if (write(STDERR_FILENO, gMessage, gMessageSize) < 0) {
        // Nothing left to tell it with.
    }
    _exit(EXIT_UNREACHABLE);
}

void SetTimer(double seconds) {
    itimerval timer = {};
    const double whole = std::floor(seconds);
    timer.it_value.tv_sec = static_cast<time_t>(whole);
    timer.it_value.tv_usec = static_cast<suseconds_t>((seconds - whole) * 1e6);
    setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

void SetCallTimeout(double seconds) { gTimeoutSeconds = seconds; }

double CallTimeout() { return gTimeoutSeconds; }

CallDeadline::CallDeadline(const std::string& what, double extraSeconds) {
    char seconds[32];
    snprintf(seconds, sizeof(seconds), "%g", gTimeoutSeconds + extraSeconds);
    const std::string message = "vymm: " + what + ": no answer within " + seconds +
                                " s (--timeout); runtime folder " + RuntimeFolder() + "\n";
    gMessageSize = std::min(message.size(), sizeof(gMessage));
    memcpy(gMessage, message.data(), gMessageSize);
    struct sigaction action = {};
    action.sa_handler = OnDeadline;
    sigaction(SIGALRM, &action, nullptr);
    SetTimer(gTimeoutSeconds + extraSeconds);
}

CallDeadline::~CallDeadline() { SetTimer(0); }

}  // namespace vymm
