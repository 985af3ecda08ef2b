// The resident size of a live in-process service, every writer switched on,
// after many calls spread over many distinct keys and ids (a twelfth of them
// with 1 KB texts), against its resident size after the first 10 000 calls.
// Every store is capped, and so must be everything around it.
//
// --calls=N sets the number of calls (10 000 000 by default); the keys are
// a tenth of them. The worker dispatches each batch of calls before the
// next, so every call reaches its writer and the queue never refuses one.
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>
#include <binder/IPCThreadState.h>
#include <private/android_filesystem_config.h>

#include "BenchSupport.h"
#include "BigDataIds.h"
#include "support/LogCapture.h"
#include "support/TestEnv.h"

using android::String8;
using vymm_bench::BenchService;

namespace {

constexpr int64_t kBaselineCalls = 10000;
constexpr int kBatch = 256;
constexpr size_t kLongText = 1024;

int64_t gCalls = 10000000;

// The texts of key k.
struct Texts {
    explicit Texts(int k)
        : app("com.example.app" + std::to_string(k)),
          word("w" + std::to_string(k)),
          longText(std::to_string(k) + std::string(kLongText, 'x')) {
        longText.resize(kLongText);
    }
    std::string app;
    std::string word;
    std::string longText;
};

// One call of each kind the service takes, by an allowed caller.
void CallKind(BenchService& s, int kind, int k, const Texts& t) {
    const char* app = t.app.c_str();
    const char* word = t.word.c_str();
    switch (kind) {
        case 0:  // a counter under a new key
            s.WriteBigData(vymm_bench::CounterId(k), app, 1, 0);
            break;
        case 1:  // a 1 KB text key
            s.WriteBigData(916600010 + k % 2, t.longText.c_str(), "", "v");
            break;
        case 2:
            s.WriteBigData(907400028, word, app, 1);
            break;
        case 3:
            s.WriteBigData(918017002, app, word, "codec", "1920x1080", 30, k, 1);
            break;
        case 4:
            s.WriteLogMsg(900000000 + k, 1, k % 7, String8(word), String8(app));
            break;
        case 5:
            s.WriteLogMsg(900000000 + k, 2, k % 5, String8(word), String8(app), k,
                          String8(word), k);
            break;
        case 6:
            s.WriteKpis(String8::format("%d=%d", 916019001 + k % 7, k));
            break;
        case 7:  // radar messages by type
            s.WriteLogMsg(3, k, word);
            break;
        case 8:  // big-data file messages, to the flow and count files
            s.WriteMediaBigData(k % 32768, k % 2 == 0 ? 10000 : 20100, app);
            break;
        case 9:  // the cached statistics and the audio state
            s.WriteBigData(916600002 + k % 7, app, word, "param");
            s.MonitorPlayingApp(app);
            break;
        case 10:
            s.WriteBigData(916700014, app, k, k, k);
            break;
        default:  // a counter of the output device's record under a new key
            s.WriteBigData(916019104, word, app, 1, 0);
            break;
    }
}
constexpr int kKinds = 12;

long ResidentKiB() {
    FILE* status = fopen("/proc/self/status", "re");
    if (status == nullptr) {
        return -1;
    }
    long kib = -1;
    char line[256];
    while (fgets(line, sizeof(line), status) != nullptr) {
        if (sscanf(line, "VmRSS: %ld kB", &kib) == 1) {
            break;
        }
    }
    fclose(status);
    return kib;
}

// Runs calls first..end; false when the worker did not keep up.
bool RunCalls(BenchService& service, int64_t first, int64_t end, int64_t keys) {
    for (int64_t i = first; i < end; ++i) {
        const int k = static_cast<int>(i % keys);
        CallKind(service, static_cast<int>(i % kKinds), k, Texts(k));
        if ((i + 1) % kBatch == 0 && !service.Drain()) {
            return false;
        }
    }
    return service.Drain();
}

struct Heap {
    double inUseKiB;  // allocated and not freed
    double heldKiB;   // taken from the system by the allocator
};

Heap HeapNow() {
    const struct mallinfo2 info = mallinfo2();
    return {static_cast<double>(info.uordblks + info.hblkhd) / 1024,
            static_cast<double>(info.arena + info.hblkhd) / 1024};
}

void BM_ResidentGrowth(benchmark::State& state) {
    const int64_t keys = std::max<int64_t>(gCalls / 10, 1);
    const int64_t baselineCalls = std::min(kBaselineCalls, gCalls);
    for (auto _ : state) {
        const android::sp<BenchService> service = new BenchService;
        if (!RunCalls(*service, 0, baselineCalls, keys)) {
            state.SkipWithError("the worker did not keep up");
            return;
        }
        const long baseline = ResidentKiB();
        const Heap baselineHeap = HeapNow();
        if (!RunCalls(*service, baselineCalls, gCalls, keys)) {
            state.SkipWithError("the worker did not keep up");
            return;
        }
        const long end = ResidentKiB();
        const Heap endHeap = HeapNow();
        state.counters["calls"] = static_cast<double>(gCalls);
        state.counters["keys"] = static_cast<double>(keys);
        state.counters["rss_10k_kib"] = static_cast<double>(baseline);
        state.counters["rss_end_kib"] = static_cast<double>(end);
        state.counters["growth_kib"] = static_cast<double>(end - baseline);
        state.counters["heap_use_growth_kib"] = endHeap.inUseKiB - baselineHeap.inUseKiB;
        state.counters["heap_held_growth_kib"] = endHeap.heldKiB - baselineHeap.heldKiB;
    }
}
BENCHMARK(BM_ResidentGrowth)->Iterations(1)->Unit(benchmark::kSecond);

// A client that sends nothing but new 1 KB text keys: the big-data store
// refuses them at its byte limit, and says so at most once a second.
constexpr int64_t kLongTextCalls = 100000;

void BM_DistinctLongTexts(benchmark::State& state) {
    const int64_t calls = std::min(kLongTextCalls, gCalls);
    const std::string filler(kLongText - 8, 't');
    for (auto _ : state) {
        const android::sp<BenchService> service = new BenchService;
        const LogCapture log;
        if (!service->Drain()) {
            state.SkipWithError("the worker did not start");
            return;
        }
        const long start = ResidentKiB();
        const auto began = vymm_bench::Clock::now();
        for (int64_t i = 0; i < calls; ++i) {
            const std::string text = String8::format("%08lld", static_cast<long long>(i)).c_str() +
                                     filler;
            service->WriteBigData(916600010, text.c_str(), "", "v");
            if ((i + 1) % kBatch == 0 && !service->Drain()) {
                state.SkipWithError("the worker did not keep up");
                return;
            }
        }
        service->Drain();
        const double seconds =
                std::chrono::duration<double>(vymm_bench::Clock::now() - began).count();
        state.counters["calls"] = static_cast<double>(calls);
        state.counters["growth_kib"] = static_cast<double>(ResidentKiB() - start);
        state.counters["refusal_lines"] =
                static_cast<double>(log.CountContaining("Vymedia_monitor_bigdata", "bigdata store full"));
        state.counters["seconds"] = seconds;
    }
}
BENCHMARK(BM_DistinctLongTexts)->Iterations(1)->Unit(benchmark::kSecond);

// Takes --calls=N out of the arguments.
bool TakeCallsFlag(int* argc, char** argv) {
    constexpr char kFlag[] = "--calls=";
    int kept = 1;
    for (int i = 1; i < *argc; ++i) {
        if (strncmp(argv[i], kFlag, strlen(kFlag)) != 0) {
            argv[kept++] = argv[i];
            continue;
        }
        char* end = nullptr;
        gCalls = strtoll(argv[i] + strlen(kFlag), &end, 10);
        if (*end != '\0' || gCalls < 1) {
            fprintf(stderr, "bad %s\n", argv[i]);
            return false;
        }
    }
    *argc = kept;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (!TakeCallsFlag(&argc, argv)) {
        return 1;
    }
    vymm_bench::SetServiceProperties({"radar", "bdflow", "bdcount", "exception", "kpi", "bigdata"});
    const TempWorkDir scratch;
    mkdir("data", 0755);
    mkdir("data/log", 0755);
    // The calls come from the media server's uid, which every operation admits.
    android::IPCThreadState::self()->restoreCallingIdentity(static_cast<int64_t>(AID_MEDIA) << 32);
    return vymm_bench::RunBenchmarks(argc, argv);
}
