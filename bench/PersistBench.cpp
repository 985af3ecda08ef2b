// What keeping the writers' state on storage costs: the worker's dispatch
// with persistence on against off in the same run (CPU time per event, the
// journal's write at the batch's end included), the bytes written per event,
// and a start-up's recovery with every writer at its limit.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchSupport.h"
#include "BigDataIds.h"
#include "support/TestEnv.h"
#include "writers/MediaBDCountWriter.h"
#include "writers/MediaBDFlowWriter.h"
#include "writers/MediaExceptionLogWriter.h"
#include "writers/MediaExceptionWriter.h"
#include "writers/MediaMonitorPolicy.h"

namespace {

using android::sp;
using android::String8;
using Service = android::VyMediaMonitorService;
using vymm_bench::BenchService;
using vymm_bench::Nanos;
using vymm_bench::ThreadTime;
using vymm_bench::WorkerHold;

constexpr auto kTimeout = std::chrono::seconds(30);
constexpr int kBatch = 500;
constexpr int kCounters = 120;

// Bytes this process has handed to write(2) so far.
uint64_t WrittenBytes() {
    std::ifstream io("/proc/self/io");
    std::string key;
    uint64_t value = 0;
    while (io >> key >> value) {
        if (key == "wchar:") {
            return value;
        }
    }
    return 0;
}

struct Dispatched {
    std::chrono::nanoseconds cpu{};
    uint64_t written = 0;
};

// One batch through the worker, and the end of it: the worker writes a
// batch out once it has dispatched it, before it takes the next marker.
bool DispatchBatch(BenchService& service, const std::vector<sp<Service::LogSrvEvent>>& events,
                   Dispatched* total) {
    const uint64_t writtenBefore = WrittenBytes();
    WorkerHold hold(service);
    if (!hold.Held()) {
        return false;
    }
    for (const auto& event : events) {
        service.Queue(event);
    }
    std::future<ThreadTime> batch = service.QueueMarker();
    hold.Open();
    if (batch.wait_for(kTimeout) != std::future_status::ready) {
        return false;
    }
    std::future<ThreadTime> after = service.QueueMarker();
    if (after.wait_for(kTimeout) != std::future_status::ready) {
        return false;
    }
    total->cpu += after.get().cpu - hold.Resumed().get().cpu;
    total->written += WrittenBytes() - writtenBefore;
    return true;
}

sp<BenchService> NewService(const char* persist) {
    ScopedProperty property("ro.media.persist", persist);
    return new BenchService;
}

// range(0) 1: a flood of one repeated call; 0: calls spread over 120
// counters, a quarter of the store's cap.
void BM_DispatchPersistOnOff(benchmark::State& state) {
    const bool flood = state.range(0) == 1;
    std::vector<sp<Service::LogSrvEvent>> events;
    for (int i = 0; i < kBatch; ++i) {
        const int k = flood ? 0 : i % kCounters;
        events.push_back(new Service::BigDataEvent(Service::EVENT_BIGDATA, vymm_bench::CounterId(k),
                                                   vymm_bench::CounterKey(k), 1, 0));
    }
    const sp<BenchService> on = NewService("1");
    const sp<BenchService> off = NewService("0");
    Dispatched onTotal, offTotal;
    for (auto _ : state) {
        if (!DispatchBatch(*on, events, &onTotal) || !DispatchBatch(*off, events, &offTotal)) {
            state.SkipWithError("the worker did not dispatch the batch");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(onTotal.cpu).count() /
                               static_cast<double>(state.iterations() + 1));
    }
    const double dispatched = static_cast<double>(state.iterations()) * kBatch;
    state.counters["on_ns_per_event"] = Nanos(onTotal.cpu) / dispatched;
    state.counters["off_ns_per_event"] = Nanos(offTotal.cpu) / dispatched;
    state.counters["x_off"] = Nanos(onTotal.cpu) / Nanos(offTotal.cpu);
    state.counters["bytes_per_event"] =
            static_cast<double>(onTotal.written - offTotal.written) / dispatched;
}
BENCHMARK(BM_DispatchPersistOnOff)->ArgName("flood")->Arg(0)->Arg(1)->UseManualTime();

// The big-data store filled with texts up to its byte limit.
class FullBigData : public android::MediaBigDataWriter {
public:
    FullBigData() : MediaBigDataWriter(nullptr) {}
    void Fill() {
        android::Mutex::Autolock lock(mBigDataLock);
        for (int i = 0; mStoreBytes + 400 < android::MAX_BIGDATA_BYTES; ++i) {
            UpdateBigDataStringValues(916000000 + i / 16, String8::format("key%d", i),
                                      String8(std::string(200, 'x').c_str()));
        }
    }
};

void Persist(android::MediaLogBase* writer, android::WriterStore* store) {
    const android::MediaLogBase::PersistWork work = writer->TakePersistWork();
    if (!(work.snapshot ? store->WriteSnapshot(work.bytes) : store->Append(work.bytes))) {
        fprintf(stderr, "cannot write the state files\n");
    }
}

template <typename Writer>
sp<Writer> Attach(Writer* raw, const char* name,
                  std::vector<std::unique_ptr<android::WriterStore>>* stores) {
    sp<Writer> writer = raw;
    stores->emplace_back(new android::WriterStore("data/log", name));
    writer->Recover(stores->back()->Load());
    writer->AttachStore(stores->back().get());
    Persist(writer.get(), stores->back().get());
    return writer;
}

// Every writer at its limit, half of it in the journal where its bound
// allows, then a start-up's load and replay of all of them.
void BM_RecoverFullWriters(benchmark::State& state) {
    {
        std::vector<std::unique_ptr<android::WriterStore>> stores;
        auto log = Attach(new android::MediaExceptionLogWriter(nullptr), "exceptionlog", &stores);
        auto flow = Attach(new android::MediaBDFlowWriter(nullptr), "bdflow", &stores);
        auto count = Attach(new android::MediaBDCountWriter(nullptr), "bdcount", &stores);
        auto exception = Attach(new android::MediaExceptionWriter(nullptr), "exception", &stores);
        auto bigData = Attach(new FullBigData, "bigdata", &stores);
        for (int i = 0; log->GetStats().charge < log->GetStats().cap; ++i) {
            log->WriteLogMsg(2, i % 16, String8("a radar message of some length"));
        }
        for (int i = 0; flow->GetStats().charge < flow->GetStats().cap; ++i) {
            flow->WriteBigDataMsg(-1, 7, String8("play start of a stream"));
        }
        for (int type = 0; count->GetStats().charge < count->GetStats().cap; ++type) {
            count->WriteBigDataMsg(-1, type);
        }
        for (int i = 0; exception->GetStats().charge < exception->GetStats().cap; ++i) {
            exception->WriteException(-1, 901000000 + i, 1, 2, String8("reason of the report"),
                                      String8("com.example.app"), i, String8("para"), 7);
        }
        bigData->Fill();
        android::MediaLogBase* writers[] = {log.get(), flow.get(), count.get(), exception.get(),
                                            bigData.get()};
        for (size_t i = 0; i < stores.size(); ++i) {
            Persist(writers[i], stores[i].get());
        }
    }
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        std::vector<std::unique_ptr<android::WriterStore>> stores;
        auto log = Attach(new android::MediaExceptionLogWriter(nullptr), "exceptionlog", &stores);
        auto flow = Attach(new android::MediaBDFlowWriter(nullptr), "bdflow", &stores);
        auto count = Attach(new android::MediaBDCountWriter(nullptr), "bdcount", &stores);
        auto exception = Attach(new android::MediaExceptionWriter(nullptr), "exception", &stores);
        auto bigData = Attach(new android::MediaBigDataWriter(nullptr), "bigdata", &stores);
        state.SetIterationTime(
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        state.counters["bigdata_bytes"] = static_cast<double>(bigData->GetStats().bytes);
        state.counters["exception_charge"] = static_cast<double>(exception->GetStats().charge);
    }
}
BENCHMARK(BM_RecoverFullWriters)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    vymm_bench::SetServiceProperties({"bigdata"});
    const TempWorkDir scratch;
    mkdir("data", 0755);
    mkdir("data/log", 0755);
    return vymm_bench::RunBenchmarks(argc, argv);
}
