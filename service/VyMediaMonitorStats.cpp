// The service's statistics: gathering the counters of every part, their
// reset, and the dump's arguments that show or reset them.
#include "service/VyMediaMonitorService.h"

#include <algorithm>
#include <iterator>

#include "service/MonitorStatsRenderer.h"

namespace android {

namespace {

constexpr char kDumpUsage[] =
        "usage: dump [--stats [--json] | --reset-stats]\n"
        "  (no argument)   what the writers hold\n"
        "  --stats         the service's counters, as text\n"
        "  --stats --json  the same, as one JSON object\n"
        "  --reset-stats   zero the counters\n";

String8 UsageError(const std::string& problem) {
    return String8(("dump: " + problem + "\n" + kDumpUsage).c_str());
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
    for (StatCounter* counter : {&mDroppedNoWorker, &mDumpsGivenUp, &mDumpsBusy}) {
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
    const auto writers = AllWriters();
    for (size_t i = 0; i < MONITOR_WRITERS; ++i) {
        stats.writerPresent[i] = writers[i] != nullptr;
        if (writers[i] != nullptr) {
            stats.writers[i] = writers[i]->GetStats();
        }
    }
    stats.reporting = VexelProxy::GetStats();
    for (const LogRateLimiter* log : {&mDenialLog, &mNullTextLog, &mRefusalLog, &mDumpLog}) {
        stats.logSuppressed += log->Suppressed();
    }
    return stats;
}

void VyMediaMonitorService::ResetStats() {
    mCallCounters.Reset();
    if (mLogSendThread != nullptr) {
        mLogSendThread->ResetStats();
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

String8 VyMediaMonitorService::RenderDumpWithArgs(const Vector<String16>& args) {
    bool stats = false;
    bool json = false;
    bool reset = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const String8 arg(args[i]);
        if (arg == "--stats") {
            stats = true;
        } else if (arg == "--json") {
            json = true;
        } else if (arg == "--reset-stats") {
            reset = true;
        } else {
            return UsageError(std::string("unknown argument ") + arg.string());
        }
    }
    if (reset) {
        if (stats || json) {
            return UsageError("--reset-stats takes no other argument");
        }
        ResetStats();
        return String8("statistics reset\n");
    }
    if (!stats) {
        return UsageError("--json goes with --stats");
    }
    const std::string text = json ? RenderStatsJson(GetStats()) : RenderStatsText(GetStats());
    return String8(text.data(), text.size());
}

}  // namespace android
