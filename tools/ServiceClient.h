// What `vymm` does with the service once its command line is read: find it
// in the host Binder runtime folder and replay traces to it, from other uids
// when asked. Runs on the tool's one thread.
#ifndef VYMM_TOOLS_SERVICE_CLIENT_H
#define VYMM_TOOLS_SERVICE_CLIENT_H

#include <string>
#include <vector>

#include <binder/IBinder.h>

#include "tools/Trace.h"

namespace vymm {

// The tools' exit statuses.
enum ExitStatus { EXIT_OK = 0, EXIT_UNREACHABLE = 1, EXIT_USAGE = 2 };

// Where the runtime looks for services: $HOST_BINDER_DIR, else its default.
std::string RuntimeFolder();

// The service, or null (after saying where it looked on stderr). waitMs > 0
// waits at least that long for it to be published.
android::sp<android::IBinder> FindService(int waitMs);

// Waits until the service has queued the calls made before through binder
// (they are one-way: a two-way ping after them returns once they ran).
// False, after saying so on stderr, when the service no longer answers:
// every call made before has then not surely arrived.
bool StillReachable(const android::sp<android::IBinder>& binder);

struct ReplayOptions {
    bool fast = false;           // skip the sleep lines
    bool skipOtherUids = false;  // without root, skip the calls of `as` other uids
    bool progress = false;       // show the line being replayed on stderr
    int waitMs = 0;              // as FindService's
};

// Replays steps, read from the file name; returns an exit status. Without
// root an `as` of another uid refuses the whole trace (EXIT_USAGE) before
// anything is sent, unless skipOtherUids.
int Replay(const std::vector<TraceStep>& steps, const std::string& name,
           const ReplayOptions& options);

}  // namespace vymm

#endif
