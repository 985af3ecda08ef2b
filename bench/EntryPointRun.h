// A batch of queued calls at the service's entry point, on a service of its
// own, as built into the module it is linked into: the core as it is
// (libvymm_counted_core.so) or built without its statistics counters
// (libvymm_uncounted_core.so). The entry-point benchmark loads both.
#ifndef VYMM_BENCH_ENTRY_POINT_RUN_H
#define VYMM_BENCH_ENTRY_POINT_RUN_H

#include <chrono>

namespace vymm_bench {

class EntryPointRun {
public:
    virtual ~EntryPointRun() = default;
    // Makes calls calls, with the worker draining meanwhile or held, and
    // waits until the worker has dispatched them; false when it could not
    // hold or drain the worker. took is the time the calls took.
    virtual bool Batch(bool draining, int calls, std::chrono::nanoseconds* took) = 0;
};

}  // namespace vymm_bench

// The factory each module exports under this name.
extern "C" vymm_bench::EntryPointRun* VymmMakeEntryPointRun();

#endif
