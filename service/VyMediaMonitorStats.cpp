// The service's statistics: gathering the counters of every part, their
// reset, and the dump's arguments: the platform's, the usage and the counters.
#include "service/VyMediaMonitorService.h"

#include <time.h>

#include <algorithm>
#include <iterator>
#include <string>

#include "service/MonitorStatsRenderer.h"

namespace android {

namespace {

constexpr char kDumpUsage[] =
        "usage: dump [-a] [--dump-priority LEVEL] [--stats [--json] | --reset-stats | -h]\n"
        "  (no argument)   what the writers hold; -a and --dump-priority LEVEL,\n"
        "                  which the platform passes, change nothing\n"
        "  --stats         the service's counters, as text\n"
        "  --stats --json  the same, as one JSON object\n"
        "  --reset-stats   zero the counters\n"
        "  -h, --help      this usage\n";

String8 UsageError(const std::string& problem) {
    return String8(("dump: " + problem + "\n" + kDumpUsage).c_str());
}

// What the words of a dump ask for.
struct DumpRequest {
    bool help = false;
    bool stats = false;
    bool json = false;
    bool reset = false;
    std::string unknown;  // the first word the dump does not know
};

DumpRequest ParseDumpArgs(const Vector<String16>& args) {
    DumpRequest request;
    for (size_t i = 0; i < args.size(); ++i) {
        const String8 arg(args[i]);
        if (arg == "-a") {
            continue;  // what a bug report passes to every service
        }
        if (arg == "--dump-priority" && i + 1 < args.size()) {
            ++i;  // passed to a service registered at a priority
        } else if (arg == "-h" || arg == "--help") {
            request.help = true;
        } else if (arg == "--stats") {
            request.stats = true;
        } else if (arg == "--json") {
            request.json = true;
        } else if (arg == "--reset-stats") {
            request.reset = true;
        } else if (request.unknown.empty()) {
            request.unknown = std::string(arg.c_str(), arg.size());
        }
    }
    return request;
}

}  // namespace

void CallCounters::DroppedBeforeSending(int uid, uint64_t calls) {
    Mutex::Autolock lock(mClientDropsLock);
    ClientDrops* const end = mClientDrops + mClientDropUids;
    ClientDrops* entry =
            std::find_if(mClientDrops, end, [uid](const ClientDrops& e) { return e.uid == uid; });
    if (entry == end) {
        if (mClientDropUids == MONITOR_CLIENT_DROP_UIDS) {
            mClientDropsOtherUids += calls;
            return;
        }
        *entry = {uid, 0};
        ++mClientDropUids;
    }
    entry->calls += calls;
}

void CallCounters::CopyTo(MonitorStats* stats) const {
    for (size_t i = 0; i < MONITOR_OPERATIONS; ++i) {
        stats->calls[i] = mCalls[i].Get();
        stats->refused[i] = mRefused[i].Get();
    }
    const uint64_t last = mLastRefused.load(std::memory_order_relaxed);
    stats->lastRefusedUid = static_cast<int32_t>(last >> 32);
    stats->lastRefusedPid = static_cast<int32_t>(last & 0xffffffffu);
    stats->droppedNoWorker = mDroppedNoWorker.Get();
    stats->droppedByAudioFilter = mDroppedByAudioFilter.Get();
    stats->dumpsGivenUp = mDumpsGivenUp.Get();
    stats->dumpsBusy = mDumpsBusy.Get();
    Mutex::Autolock lock(mClientDropsLock);
    std::copy(mClientDrops, mClientDrops + mClientDropUids, stats->droppedBeforeSending);
    stats->droppedBeforeSendingUids = mClientDropUids;
    stats->droppedBeforeSendingOtherUids = mClientDropsOtherUids;
}

void CallCounters::Reset() {
    for (size_t i = 0; i < MONITOR_OPERATIONS; ++i) {
        mCalls[i].Reset();
        mRefused[i].Reset();
    }
    for (StatCounter* counter :
         {&mDroppedNoWorker, &mDroppedByAudioFilter, &mDumpsGivenUp, &mDumpsBusy}) {
        counter->Reset();
    }
    mLastRefused.store(~uint64_t{0}, std::memory_order_relaxed);
    Mutex::Autolock lock(mClientDropsLock);
    mClientDropUids = 0;
    mClientDropsOtherUids = 0;
}

MonitorStats VyMediaMonitorService::GetStats() {
    MonitorStats stats;
    mCallCounters.CopyTo(&stats);
    if (mLogSendThread != nullptr) {
        mLogSendThread->CopyStatsTo(&stats);
    }
    if (mCapture != nullptr) {
        mCapture->CopyStatsTo(&stats);
    }
    const auto writers = AllWriters();
    for (size_t i = 0; i < MONITOR_WRITERS; ++i) {
        stats.writerPresent[i] = writers[i] != nullptr;
        if (writers[i] != nullptr) {
            stats.writers[i] = writers[i]->GetStats();
        }
    }
    stats.reporting = VexelProxy::GetStats();
    for (const LogRateLimiter* log :
         {&mDenialLog, &mNullTextLog, &mRefusalLog, &mDumpLog, &mFilterLog}) {
        stats.logSuppressed += log->Suppressed();
    }
    return stats;
}

void VyMediaMonitorService::ResetStats() {
    mCallCounters.Reset();
    if (mLogSendThread != nullptr) {
        mLogSendThread->ResetStats();
    }
    if (mCapture != nullptr) {
        mCapture->ResetStats();
    }
    for (const sp<MediaLogBase>& writer : AllWriters()) {
        if (writer != nullptr) {
            writer->ResetStats();
        }
    }
    VexelProxy::ResetStats();
}

std::array<sp<MediaLogBase>, MONITOR_WRITERS> VyMediaMonitorService::AllWriters() const {
    return {mExceptionLogWriter, mBDFlowWriter, mBDCountWriter,
            mExceptionWriter,    mKpiWriter,    mBigDataWriter};
}

String8 VyMediaMonitorService::RenderDumpFor(const Vector<String16>& args) {
    const DumpRequest request = ParseDumpArgs(args);
    // A word of some future tool must not cost a bug report the writers' state.
    if (!request.unknown.empty()) {
        String8 text(("dump: unknown argument " + vymm::QuoteWord(request.unknown) +
                      " ignored; --help lists the arguments\n")
                             .c_str());
        text.append(RenderDump());
        return text;
    }
    if (request.help) {
        return String8(kDumpUsage);
    }
    if (request.reset) {
        if (request.stats || request.json) {
            return UsageError("--reset-stats takes no other argument");
        }
        ResetStats();
        return String8("statistics reset\n");
    }
    if (request.json && !request.stats) {
        return UsageError("--json goes with --stats");
    }
    if (!request.stats) {
        return RenderDump();
    }
    const std::string text =
            request.json ? RenderStatsJson(GetStats()) : RenderStatsText(GetStats(), time(nullptr));
    return String8(text.data(), text.size());
}

}  // namespace android
