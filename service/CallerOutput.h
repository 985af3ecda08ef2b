// Writing to a descriptor that a caller handed over (a dump's), where the
// caller may never read: the service must not wait on it. Plain functions;
// any thread, no lock held.
#ifndef VYMM_SERVICE_CALLER_OUTPUT_H
#define VYMM_SERVICE_CALLER_OUTPUT_H

#include <stddef.h>

#include <utils/Timers.h>

namespace android {

// Writes size bytes of data to fd without ever blocking on it, waiting with
// poll for the caller to read until timeout has passed in all (0: one attempt
// that never waits). Returns the bytes written: size when all of it went.
// The caller's descriptor keeps its flags, except a terminal or a device,
// which is non-blocking for the time of the write.
size_t WriteToCaller(int fd, const char* data, size_t size, nsecs_t timeout);

}  // namespace android

#endif
