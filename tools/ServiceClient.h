// What `vymm` does with the service once its command line is read: find it
// in the host Binder runtime folder and replay traces to it, from other uids
// when asked. Runs on the tool's one thread.
#ifndef VYMM_TOOLS_SERVICE_CLIENT_H
#define VYMM_TOOLS_SERVICE_CLIENT_H

#include <stdint.h>

#include <string>
#include <vector>

#include <binder/IBinder.h>

#include "tools/Trace.h"

namespace vymm {

// The tools' exit statuses.
enum ExitStatus { EXIT_OK = 0, EXIT_UNREACHABLE = 1, EXIT_USAGE = 2 };

// FAILED_TRANSACTION, DEAD_OBJECT, ...: a status as people read it.
std::string StatusName(android::status_t status);

// Where the runtime looks for services: $HOST_BINDER_DIR, else its default.
std::string RuntimeFolder();

// The service, or null (after saying where it looked on stderr). waitMs > 0
// waits at least that long for it to be published. A one-way call through
// it waits up to 10 s for room when the service is behind.
android::sp<android::IBinder> FindService(int waitMs);

// Waits until the service has queued the calls made before through binder
// (they are one-way: a two-way ping after them returns once they ran).
// False, after saying so on stderr, when the service no longer answers:
// every call made before has then not surely arrived.
bool StillReachable(const android::sp<android::IBinder>& binder);

// Makes the call; false, after saying on stderr "<where>OP not delivered
// (STATUS)", when the transport did not deliver it (too large, the service
// gone, or no room for it within the wait).
bool CallService(const android::sp<android::IBinder>& binder, const Operation& op,
                 const std::vector<TypedArg>& args, const std::string& where);

// The most a trace may sleep in all by default: an hour.
constexpr int64_t kDefaultMaxSleepMs = 3600LL * 1000;

struct ReplayOptions {
    bool fast = false;           // skip the sleep lines
    double speed = 1;            // divides the sleeps
    int64_t maxSleepMs = kDefaultMaxSleepMs;  // refuse a trace that sleeps longer in all
    bool skipOtherUids = false;  // without root, skip the calls of `as` other uids
    bool progress = false;       // show the line being replayed on stderr
    int waitMs = 0;              // as FindService's
};

// Replays steps, read from the file name; returns an exit status. Before
// anything is sent, a trace whose sleeps add up to more than maxSleepMs is
// refused (EXIT_USAGE), and so is, without root, an `as` of another uid
// unless skipOtherUids. A call not delivered stops the replay (EXIT_UNREACHABLE).
int Replay(const std::vector<TraceStep>& steps, const std::string& name,
           const ReplayOptions& options);

}  // namespace vymm

#endif
