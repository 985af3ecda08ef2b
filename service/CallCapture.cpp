// The capture of calls: buffered by the Binder threads, written by a thread
// of its own.
#define LOG_TAG "Vymedia_monitor"

#include "service/CallCapture.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include <binder/IPCThreadState.h>
#include <cutils/properties.h>
#include <log/log.h>

#include "service/ServiceProperties.h"
#include "writers/OwnFile.h"

namespace android {

namespace {

constexpr char kThreadName[] = "mediaCapture";
constexpr char kOldSuffix[] = ".1";
constexpr size_t kCallBytes = 64;  // charged per call besides its texts

// The properties the service reads, shown in the header.
constexpr const char* kProperties[] = {
        "ro.media.radar",       "ro.media.bdflow",        "ro.media.bdcount",
        "ro.media.debuggable",  "ro.media.exception",     "ro.media.kpi",
        "ro.media.bigdata",     "ro.media.checkduration", "ro.media.uploadduration",
        "ro.media.capture",
};

std::string AsLine(uid_t uid) { return "as " + std::to_string(uid) + "\n"; }

std::string Header() {
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    char started[64] = {};
    const time_t now = time(nullptr);
    struct tm utc;
    strftime(started, sizeof(started), "%Y-%m-%d %H:%M:%S UTC", gmtime_r(&now, &utc));
    std::string header = std::string("# Calls to Vymedia.monitor captured on ") + host +
                         ", started " + started + "; replay with: vymm replay FILE\n";
    for (const char* key : kProperties) {
        char value[PROPERTY_VALUE_MAX] = {};
        const bool set = property_get(key, value, "") > 0;
        header += std::string("# ") + key + (set ? "=" + vymm::QuoteWord(value) : " unset") + "\n";
    }
    return header;
}

}  // namespace

sp<CallCapture> CallCapture::Create() {
    const int64_t kib = ReadIntProperty("ro.media.capture", "0");
    if (!ReadDebuggable() || kib <= 0) {
        return nullptr;
    }
    const sp<CallCapture> capture = new CallCapture(static_cast<size_t>(kib) * 1024);
    capture->run(kThreadName, PRIORITY_BACKGROUND, 0);
    return capture;
}

CallCapture::CallCapture(size_t limitBytes)
    : Thread(false), mLimit(limitBytes), mHeader(Header()) {}

CallCapture::~CallCapture() {
    if (mFd >= 0) {
        close(mFd);
    }
}

void CallCapture::Record(uint32_t code, bool refused, std::vector<vymm::TypedArg> args) {
    const IPCThreadState* ipc = IPCThreadState::self();
    Call call{0, ipc->getCallingUid(), ipc->getCallingPid(),
              &vymm::Operations()[code - IBinder::FIRST_CALL_TRANSACTION], refused,
              std::move(args), kCallBytes};
    for (const vymm::TypedArg& arg : call.args) {
        call.bytes += arg.text.size();
    }
    Mutex::Autolock lock(mLock);
    if (mPending.size() >= MAX_PENDING_CALLS || mPendingBytes + call.bytes > MAX_PENDING_BYTES) {
        ++mDropped;
        return;
    }
    call.time = systemTime(SYSTEM_TIME_MONOTONIC);
    mPendingBytes += call.bytes;
    mPending.push_back(std::move(call));
    mCond.signal();
}

void CallCapture::Exit() {
    {
        Mutex::Autolock lock(mLock);
        mExitRequested = true;
        mCond.broadcast();
        const nsecs_t deadline = systemTime(SYSTEM_TIME_MONOTONIC) + EXIT_TIMEOUT;
        for (nsecs_t left = EXIT_TIMEOUT; !mFinished && left > 0;
             left = deadline - systemTime(SYSTEM_TIME_MONOTONIC)) {
            mFinishedCond.waitRelative(mLock, left);
        }
        if (!mFinished) {
            // It keeps itself alive, and the file, until its write returns.
            ALOGW("the capture thread is stuck writing %s: left behind", FILE_NAME);
            return;
        }
    }
    requestExitAndWait();
    // Calls recorded after the thread's last look: no other thread writes
    // any more.
    WriteRecorded(false);
}

void CallCapture::CopyStatsTo(MonitorStats* stats) const {
    stats->capturing = true;
    stats->captureRenameFailures = mRenameFailures.Get();
    stats->capturePathsReplaced = mPathsReplaced.Get();
}

void CallCapture::ResetStats() {
    mRenameFailures.Reset();
    mPathsReplaced.Reset();
}

status_t CallCapture::readyToRun() {
    prctl(PR_SET_NAME, kThreadName);
    setpriority(PRIO_PROCESS, 0, PRIORITY_BACKGROUND);
    StartFile();
    return NO_ERROR;
}

bool CallCapture::threadLoop() {
    while (WriteRecorded(true)) {
    }
    Mutex::Autolock lock(mLock);
    mFinished = true;
    mFinishedCond.broadcast();
    return false;
}

bool CallCapture::WriteRecorded(bool wait) {
    std::deque<Call> calls;
    size_t dropped = 0;
    {
        Mutex::Autolock lock(mLock);
        while (wait && mPending.empty() && !mExitRequested) {
            mCond.wait(mLock);
        }
        if (mPending.empty() && mDropped == 0) {
            return false;
        }
        calls.swap(mPending);
        mPendingBytes = 0;
        std::swap(dropped, mDropped);
    }
    if (dropped > 0) {
        Append("# " + std::to_string(dropped) +
               " calls not captured: the capture fell behind\n");
    }
    for (const Call& call : calls) {
        Write(call);
    }
    return true;
}

std::string CallCapture::Lead(const Call& call) const {
    std::string lead;
    if (!mStarted || call.uid != mUid) {
        lead = AsLine(call.uid);
    }
    // A gap longer than one line may ask for takes several.
    for (int64_t ms = mStarted ? nanoseconds_to_milliseconds(call.time - mClock) : 0; ms > 0;
         ms -= vymm::kMaxSleepMs) {
        lead += "sleep " + std::to_string(std::min(ms, vymm::kMaxSleepMs)) + "\n";
    }
    return lead;
}

void CallCapture::Write(const Call& call) {
    const std::string line = vymm::FormatCall(*call.op, call.args) + "\n";
    if (call.refused) {
        Append("# refused from uid " + std::to_string(call.uid) + " pid " +
               std::to_string(call.pid) + ": " + line);
        return;
    }
    if (mHeader.size() + AsLine(call.uid).size() + line.size() > mLimit) {
        Append("# a call of " + std::to_string(line.size()) +
               " bytes not captured: over the size limit\n");
        return;
    }
    std::string text = Lead(call) + line;
    if (mFd < 0 || mFileBytes + text.size() > mLimit) {
        StartFile();
        text = Lead(call) + line;
    }
    if (!Append(text)) {
        return;
    }
    // The sleeps written reach the call's time to the millisecond; the rest
    // carries over to the next gap.
    mClock = !mStarted ? call.time
                       : mClock + milliseconds_to_nanoseconds(
                                          nanoseconds_to_milliseconds(call.time - mClock));
    mStarted = true;
    mUid = call.uid;
}

void CallCapture::StartFile() {
    const std::string old = std::string(FILE_NAME) + kOldSuffix;
    if (rename(FILE_NAME, old.c_str()) != 0 && errno != ENOENT) {
        mRenameFailures.Add();
        ALOG_LIMITED(mRenameLog, ANDROID_LOG_WARN, "cannot move %s to %s: %s; starting it over",
                     FILE_NAME, old.c_str(), strerror(errno));
    }
    if (OpenFile()) {
        WriteAll(mHeader);
    }
}

bool CallCapture::OpenFile() {
    if (mFd >= 0) {
        close(mFd);
    }
    OwnFileFound found;
    mFd = OpenOwnFile(FILE_NAME, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0640, &found);
    mFileBytes = 0;
    mStarted = false;
    if (found == OwnFileFound::REPLACED) {
        mPathsReplaced.Add();
    }
    if (mFd < 0) {
        ALOG_LIMITED(mFailureLog, ANDROID_LOG_ERROR, "cannot open %s: %s", FILE_NAME,
                     found == OwnFileFound::NOT_REPLACEABLE ? "something not ours is in the way"
                                                            : strerror(errno));
        return false;
    }
    return true;
}

bool CallCapture::Append(const std::string& text) {
    if (mFd < 0 || mFileBytes + text.size() > mLimit) {
        StartFile();
    }
    return mFd >= 0 && mFileBytes + text.size() <= mLimit && WriteAll(text);
}

bool CallCapture::WriteAll(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(mFd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (mFailureLog.Allow()) {
                ALOGE("cannot write %s: %s", FILE_NAME, strerror(n < 0 ? errno : ENOSPC));
            }
            // Drops the part written; a file that cannot be cut is given up
            // and the next line starts a new one.
            if (ftruncate(mFd, static_cast<off_t>(mFileBytes)) != 0) {
                close(mFd);
                mFd = -1;
            }
            return false;
        }
        done += static_cast<size_t>(n);
    }
    mFileBytes += text.size();
    return true;
}

}  // namespace android
