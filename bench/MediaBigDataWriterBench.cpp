// The big-data recorder path: one write into a warm store, and the upload of a
// store at its cap through the host reporting library. Each reports, as
// counters, a baseline measured in the same run and the ratio to it.
#include <dlfcn.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <vexel.h>

#include "BenchSupport.h"
#include "BigDataIds.h"
#include "report/VexelProxy.h"
#include "writers/MediaBigDataWriter.h"
#include "writers/MediaMonitorPolicy.h"

using android::MediaBigDataWriter;
using vymm_bench::CounterId;
using vymm_bench::CounterKey;
using android::Mutex;
using android::sp;
using android::String8;

namespace {

using Clock = std::chrono::steady_clock;

// One report event as the library receives it.
struct Event {
    int id;
    std::vector<std::pair<std::string, int>> ints;
    std::vector<std::pair<std::string, std::string>> texts;
};

class BenchWriter : public MediaBigDataWriter {
public:
    BenchWriter() : MediaBigDataWriter(new android::MediaMonitorPolicy) {}

    // What a day of use might leave: a few texts and key/value records, then
    // counters spread over the counter ids (packages, stream types, devices)
    // until the charge reaches limit. Returns how many counters it added: the
    // k-th is CounterKey(k) under CounterId(k).
    int Fill(size_t limit) {
        for (int i = 0; i < 4; ++i) {
            WriteBigDataPkg(916600002 + i, String8("com.example.player"),
                            String8::format("com.example.app%d", i), String8("param"));
            WriteBigData(916600030, String8::format("com.example.rec%d", i), 1, 48000);
            WriteBigDataForDualBluetooth(916700013, String8("com.example.bt"), 1, 2, i);
        }
        int added = 0;
        for (; Charge() < limit; ++added) {
            WriteBigData(CounterId(added), CounterKey(added), 1, 0);
        }
        return added;
    }
    size_t Charge() {
        Mutex::Autolock lock(mBigDataLock);
        return mLogMemSize;
    }
    // The store update alone, without the recorder around it.
    void UpdateOnly(int eventId, const String8& key) {
        Mutex::Autolock lock(mBigDataLock);
        UpdateBigDatas(eventId, key, 1);
    }
    // The events an upload of the counters and records would send.
    std::vector<Event> Events() {
        Mutex::Autolock lock(mBigDataLock);
        std::vector<Event> events;
        for (size_t i = 0; i < mBigDataCounts.size(); ++i) {
            events.push_back({mBigDataCounts.keyAt(i), Ints(mBigDataCounts.valueAt(i)), {}});
        }
        for (size_t i = 0; i < mBigDataStrings.size(); ++i) {
            events.push_back({mBigDataStrings.keyAt(i), {}, Texts(mBigDataStrings.valueAt(i))});
        }
        for (size_t i = 0; i < mBigDataKeyValues.size(); ++i) {
            const android::BigDataKeyValuesVector& record = mBigDataKeyValues.valueAt(i);
            events.push_back({mBigDataKeyValues.keyAt(i), Ints(record.intValues),
                              Texts(record.strValues)});
        }
        return events;
    }


private:
    static std::vector<std::pair<std::string, int>> Ints(
            const android::DefaultKeyedVector<String8, int>& values) {
        std::vector<std::pair<std::string, int>> out;
        for (size_t i = 0; i < values.size(); ++i) {
            out.emplace_back(values.keyAt(i).string(), values.valueAt(i));
        }
        return out;
    }
    static std::vector<std::pair<std::string, std::string>> Texts(
            const android::DefaultKeyedVector<String8, String8>& values) {
        std::vector<std::pair<std::string, std::string>> out;
        for (size_t i = 0; i < values.size(); ++i) {
            out.emplace_back(values.keyAt(i).string(), values.valueAt(i).string());
        }
        return out;
    }
};

double NanosSince(Clock::time_point start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// A store at a little under a third of its cap.
constexpr size_t kWarmCharge = 600;

void BM_WriteBigDataWarmStore(benchmark::State& state) {
    sp<BenchWriter> writer = new BenchWriter;
    const int counters = writer->Fill(kWarmCharge);
    // Only keys already stored, so every write sums and the store keeps its size.
    std::vector<std::pair<int, String8>> writes;
    for (int k = 0; k < counters; ++k) {
        writes.emplace_back(CounterId(k), CounterKey(k));
    }

    size_t i = 0;
    const Clock::time_point start = Clock::now();
    for (auto _ : state) {
        const auto& [id, key] = writes[i++ % writes.size()];
        writer->WriteBigData(id, key, 1, 0);
    }
    const double writeNs = NanosSince(start) / static_cast<double>(i);

    // Baselines: the bare store update, and a policy round without a write.
    const Clock::time_point updateStart = Clock::now();
    for (size_t j = 0; j < i; ++j) {
        const auto& [id, key] = writes[j % writes.size()];
        writer->UpdateOnly(id, key);
    }
    const double updateNs = NanosSince(updateStart) / static_cast<double>(i);
    const Clock::time_point policyStart = Clock::now();
    for (size_t j = 0; j < i; ++j) {
        writer->TriggerLog();
    }
    const double policyNs = NanosSince(policyStart) / static_cast<double>(i);

    state.counters["counters"] = counters;
    state.counters["update_ns"] = updateNs;
    state.counters["policy_ns"] = policyNs;
    state.counters["x_update"] = writeNs / updateNs;
}
BENCHMARK(BM_WriteBigDataWarmStore);

// The library's entry points called directly, without the proxy or the writer.
struct DirectLibrary {
    decltype(&vexel_create_eventobj) create;
    decltype(&vexel_set_param_integer_v2) setInt;
    decltype(&vexel_set_param_string_v2) setText;
    decltype(&vexel_send_event) send;
    decltype(&vexel_destroy_eventobj) destroy;

    bool Load() {
        void* handle = dlopen("libvexel.so", RTLD_NOW);
        if (handle == nullptr) {
            return false;
        }
        create = reinterpret_cast<decltype(create)>(dlsym(handle, "vexel_create_eventobj"));
        setInt = reinterpret_cast<decltype(setInt)>(dlsym(handle, "vexel_set_param_integer_v2"));
        setText = reinterpret_cast<decltype(setText)>(dlsym(handle, "vexel_set_param_string_v2"));
        send = reinterpret_cast<decltype(send)>(dlsym(handle, "vexel_send_event"));
        destroy = reinterpret_cast<decltype(destroy)>(dlsym(handle, "vexel_destroy_eventobj"));
        return create && setInt && setText && send && destroy;
    }
    void Send(const std::vector<Event>& events) const {
        for (const Event& event : events) {
            VexelEventObj* obj = create(event.id);
            for (const auto& [name, value] : event.ints) {
                setInt(obj, name.c_str(), value);
            }
            for (const auto& [name, value] : event.texts) {
                setText(obj, name.c_str(), value.c_str());
            }
            send(obj);
            destroy(obj);
        }
    }
};

void BM_UploadStoreAtCap(benchmark::State& state) {
    DirectLibrary library;
    if (!library.Load()) {
        state.SkipWithError("the host libvexel.so was not found");
        return;
    }
    sp<BenchWriter> writer = new BenchWriter;
    std::vector<Event> events;
    double uploadNs = 0;
    double directNs = 0;
    for (auto _ : state) {
        state.PauseTiming();
        writer->Fill(android::MAX_BIGDATA_SIZE);
        events = writer->Events();
        const Clock::time_point directStart = Clock::now();
        library.Send(events);
        directNs += NanosSince(directStart);
        state.ResumeTiming();

        const Clock::time_point uploadStart = Clock::now();
        writer->SendMediaLog();
        uploadNs += NanosSince(uploadStart);
    }
    if (!android::VexelProxy::IsAvailable()) {
        state.SkipWithError("the writer uploaded without the reporting library");
        return;
    }
    state.counters["events"] = static_cast<double>(events.size());
    state.counters["direct_us"] = directNs / 1000 / static_cast<double>(state.iterations());
    state.counters["x_direct"] = uploadNs / directNs;
}
BENCHMARK(BM_UploadStoreAtCap)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    return vymm_bench::RunBenchmarks(argc, argv);
}
