// The capture of the calls the service takes, for `vymm replay`: each call
// (refused ones as comment lines) is written to "data/log/mediaCapture.trace"
// in the trace format, with `as UID` when the calling uid changes and
// `sleep MS` for gaps of a millisecond or more. At the size limit the file
// becomes "mediaCapture.trace.1" and a new one starts, so the two never hold
// more than twice the limit; a service start does the same. Where it cannot
// be moved, the file starts over instead. The file is the service's own, as
// the record files are (OpenOwnFile).
//
// Record runs on Binder threads, first thing in every operation, queued or
// not, so calls are captured in the order they entered the service; it only
// appends to a bounded buffer under mLock. The capture's own thread formats
// and writes, so no caller waits for the disk; a write that fails costs a
// rate-limited log line and the call's line, never the call. Exit runs on
// the thread that stops the service and waits for the capture thread within
// EXIT_TIMEOUT only.
#ifndef VYMM_SERVICE_CALL_CAPTURE_H
#define VYMM_SERVICE_CALL_CAPTURE_H

#include <stdint.h>
#include <sys/types.h>

#include <deque>
#include <string>
#include <vector>

#include <VyMediaMonitorCalls.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/String8.h>
#include <utils/Thread.h>
#include <utils/Timers.h>

#include "common/LogRateLimiter.h"
#include "service/MonitorStats.h"

namespace android {

class CallCapture : public Thread {
public:
    // Started when "ro.media.debuggable" is true and "ro.media.capture" (KiB)
    // is above 0; else null.
    static sp<CallCapture> Create();

    ~CallCapture() override;

    // A call of the operation of transaction code from the calling process,
    // or its refusal. Never waits for anything but mLock.
    void Record(uint32_t code, bool refused, std::vector<vymm::TypedArg> args) EXCLUDES(mLock);
    // Writes what is still buffered and stops the thread; a thread stuck
    // in a write past EXIT_TIMEOUT is left to end on its own.
    void Exit() EXCLUDES(mLock);

    // The capture's part of the statistics, and their reset.
    void CopyStatsTo(MonitorStats* stats) const;
    void ResetStats();

    // A call's argument as its typed word.
    static vymm::TypedArg Arg(int32_t number) { return {vymm::TypedArg::I32, number, {}}; }
    static vymm::TypedArg Arg(uint32_t number) { return Arg(static_cast<int32_t>(number)); }
    static vymm::TypedArg Arg(const char* text) {
        return text == nullptr ? vymm::TypedArg{vymm::TypedArg::NUL, 0, {}}
                               : vymm::TypedArg{vymm::TypedArg::S8, 0, text};
    }
    static vymm::TypedArg Arg(const String8& text) {
        return {vymm::TypedArg::S8, 0, std::string(text.c_str(), text.size())};
    }

    // The capture file's name, in data/log.
    static constexpr char FILE_NAME[] = "data/log/mediaCapture.trace";
    // Calls waiting for the thread; a client picks the length of its texts,
    // so a byte limit sits beside the count. Past either, calls go
    // uncaptured (counted in the file).
    static constexpr size_t MAX_PENDING_CALLS = 1024;
    static constexpr size_t MAX_PENDING_BYTES = 2 * 1024 * 1024;
    // How long the service's stop waits for the capture thread.
    static constexpr nsecs_t EXIT_TIMEOUT = seconds_to_nanoseconds(3);

private:
    struct Call {
        nsecs_t time;  // monotonic, taken under mLock: rises in record order
        uid_t uid;
        pid_t pid;
        const vymm::Operation* op;
        bool refused;
        std::vector<vymm::TypedArg> args;
        size_t bytes;  // as MAX_PENDING_BYTES counts them
    };

    explicit CallCapture(size_t limitBytes);

    status_t readyToRun() override;
    bool threadLoop() override;

    // On the capture thread, or on the one that stopped it, from here down.
    // Writes the calls recorded so far, first waiting for some while no exit
    // is pending when wait; false when there were none.
    bool WriteRecorded(bool wait) EXCLUDES(mLock);
    void Write(const Call& call);
    // The as and sleep lines that go ahead of call in the current file.
    std::string Lead(const Call& call) const;
    // Moves the file to its ".1" and starts a new one with the header.
    void StartFile();
    // Opens the file anew, emptied; false when it cannot be.
    bool OpenFile();
    // Writes text, in a new file when the current one cannot take it.
    bool Append(const std::string& text);
    bool WriteAll(const std::string& text);

    const size_t mLimit;  // bytes of one file
    const std::string mHeader;

    Mutex mLock;
    Condition mCond;          // a call was recorded, or the exit requested
    Condition mFinishedCond;  // the thread has written all and is ending
    bool mExitRequested GUARDED_BY(mLock) = false;
    bool mFinished GUARDED_BY(mLock) = false;
    std::deque<Call> mPending GUARDED_BY(mLock);
    size_t mPendingBytes GUARDED_BY(mLock) = 0;
    size_t mDropped GUARDED_BY(mLock) = 0;  // calls refused by the bounds, not yet noted

    int mFd = -1;
    size_t mFileBytes = 0;
    bool mStarted = false;  // a call in the current file set mUid and mClock
    uid_t mUid = 0;         // of the last call written
    nsecs_t mClock = 0;     // the time the file's sleeps have reached
    LogRateLimiter mFailureLog;  // the file cannot be opened or written
    LogRateLimiter mRenameLog;   // the file cannot be moved to its ".1"

    // Bumped on the capture thread, read by a dump.
    StatCounter mRenameFailures;
    StatCounter mPathsReplaced;
};

}  // namespace android

#endif
