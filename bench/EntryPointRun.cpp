#include "EntryPointRun.h"

#include <optional>

#include "BenchSupport.h"

namespace vymm_bench {

namespace {

constexpr auto kTimeout = std::chrono::seconds(30);

class ServiceRun : public EntryPointRun {
public:
    bool Batch(bool draining, int calls, std::chrono::nanoseconds* took) override {
        std::optional<WorkerHold> hold;
        if (!draining && !hold.emplace(*mService).Held()) {
            return false;
        }
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < calls; ++i) {
            mService->WriteBigData(kQueuedId, kPackage, 1, 0);
        }
        *took = Clock::now() - start;
        hold.reset();
        return mService->Drain(kTimeout);
    }

private:
    const android::sp<BenchService> mService = new BenchService;
};

}  // namespace

}  // namespace vymm_bench

extern "C" __attribute__((visibility("default"))) vymm_bench::EntryPointRun*
VymmMakeEntryPointRun() {
    return new vymm_bench::ServiceRun;
}
