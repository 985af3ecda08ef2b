#define LOG_TAG "Vymedia_monitor_KPI"

#include "writers/MediaKpiWriter.h"

#include <errno.h>
#include <stdlib.h>

#include <string_view>

#include <log/log.h>
#include <utils/Timers.h>

#include "writers/ClientText.h"
#include "writers/ReportEvent.h"

namespace android {

namespace {

constexpr uint32_t kFirstKpiEventId = 916019001;
// Event ids beyond the first that have parameter names.
constexpr uint32_t kLastKpiDistance = 6;
constexpr size_t kKpiCharge = 8;
constexpr char kBlanks[] = " \t\n\v\f\r";

bool IsBlank(char c) { return std::string_view(kBlanks).find(c) != std::string_view::npos; }

std::string_view Trim(std::string_view text) {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// A decimal number from 0 to INT32_MAX with nothing but blanks around it.
// Reads no further than text's length, which may hide a NUL.
bool ParseKpiNumber(const String8& text, int32_t* number) {
    const char* begin = text.string();
    const char* end = begin + text.length();
    char* stop = nullptr;
    errno = 0;
    const long long parsed = strtoll(begin, &stop, 10);
    if (stop == begin || errno == ERANGE) {
        return false;
    }
    for (const char* p = stop; p < end; ++p) {
        if (!IsBlank(*p)) {
            return false;
        }
    }
    if (parsed < 0 || parsed > INT32_MAX) {
        return false;
    }
    *number = static_cast<int32_t>(parsed);
    return true;
}

}  // namespace

MediaKpiWriter::MediaKpiWriter(const sp<MediaMonitorPolicy>& policy) : MediaLogBase(policy) {
    ResetLogMem();
    mWriterType = LOG_TYPE_KPI;
    mLastSendTime = systemTime(SYSTEM_TIME_MONOTONIC);
}

MediaKpiWriter::~MediaKpiWriter() = default;

void MediaKpiWriter::WriteKpis(const String8& kpis) {
    Mutex::Autolock lock(mLock);
    if (mDebuggable) {
        ALOGD("WriteKpis %s", ClientTextForLog(kpis).string());
    }
    if (mLogMemSize >= MAX_KPI_SIZE) {
        mCounters.Refused(REFUSED_CAP);
        if (mDebuggable) {
            ALOGD("WriteKpis: current kpi size(%zu) exceed MAX_KPI_SIZE(%zu)", mLogMemSize,
                  MAX_KPI_SIZE);
        }
        return;
    }
    // Stays empty: the parts found below are checked for form only.
    Vector<MediaKpi> list;
    const std::string_view text(kpis.string(), kpis.length());
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
        ALOG_LIMITED(mBadKpiLog, ANDROID_LOG_ERROR, "Kpis %s miss a value",
                     ClientTextForLog(kpis).string());
        mCounters.Refused(REFUSED_INVALID);
        return;
    }
    if (Trim(text.substr(0, equals)).empty()) {
        ALOG_LIMITED(mBadKpiLog, ANDROID_LOG_ERROR, "Kpis %s contains an empty key",
                     ClientTextForLog(kpis).string());
        mCounters.Refused(REFUSED_INVALID);
        return;
    }
    if (text.find(':', equals + 1) != std::string_view::npos) {
        ALOG_LIMITED(mBadKpiLog, ANDROID_LOG_ERROR, "Kpis %s valueStart error",
                     ClientTextForLog(kpis).string());
        mCounters.Refused(REFUSED_INVALID);
        return;
    }
    SendKpis(list);
}

void MediaKpiWriter::AddOneKpi(Vector<MediaKpi>& list, const String8& eventId,
                               const String8& subType, const String8& value) {
    if (mDebuggable) {
        ALOGD("AddOneKpi: event id (%s) = subType (%s): value (%s)", eventId.string(),
              subType.string(), value.string());
    }
    MediaKpi kpi;
    if (!ParseKpiNumber(eventId, &kpi.eventId) || !ParseKpiNumber(subType, &kpi.subType) ||
        !ParseKpiNumber(value, &kpi.value)) {
        return;
    }
    list.add(kpi);
}

void MediaKpiWriter::SendKpis(Vector<MediaKpi>& list) {
    for (size_t i = 0; i < list.size(); ++i) {
        const MediaKpi& kpi = list[i];
        ReportEvent event(kpi.eventId);
        if (!event.IsCreated()) {
            ALOGE("Unknown kpi eventId(%d)", kpi.eventId);
            continue;
        }
        // Ids below the first wrap round to a large distance.
        const uint32_t distance = static_cast<uint32_t>(kpi.eventId) - kFirstKpiEventId;
        if (distance > kLastKpiDistance) {
            continue;  // known to the library but not to us: destroyed unsent
        }
        event.SetInt(mKpiParamNames[2 * distance], kpi.subType);
        event.SetInt(mKpiParamNames[2 * distance + 1], kpi.value);
        event.Send();
        mCounters.Sent();
        mLogMemSize += kKpiCharge;
    }
}

bool MediaKpiWriter::DoSendMediaLog() {
    const nsecs_t start = systemTime(SYSTEM_TIME_MONOTONIC);
    AdvanceLastSendTime();
    ResetLogMem();
    mCounters.Uploaded(start);
    return true;
}

void MediaKpiWriter::SendMediaLog() {
    Mutex::Autolock lock(mLock);
    DoSendMediaLog();
}

void MediaKpiWriter::TriggerLog() {
    Mutex::Autolock lock(mLock);
    TriggerLogStrategy();
}

void MediaKpiWriter::ResetLogMem() {
    if (mDebuggable) {
        ALOGD("ResetLogMem");
    }
    mLogMemSize = 0;
    StateChanged();
}

WriterStats MediaKpiWriter::GetStats() {
    Mutex::Autolock lock(mLock);
    WriterStats stats = StatsHolding(0, MAX_KPI_SIZE);
    stats.logSuppressed += mBadKpiLog.Suppressed();
    return stats;
}

void MediaKpiWriter::GetMemInfos(int* cur, int* max) {
    ReportMemInfos(LOG_TAG, "MediaKpiWriter::GetMemInfos", cur, max, MAX_KPI_SIZE);
}

void MediaKpiWriter::GetLastTime(long* lastTime, long* cycle) {
    ReportLastTime(LOG_TAG, "MediaKpiWriter::GetLastTime", lastTime, cycle);
}

}  // namespace android
