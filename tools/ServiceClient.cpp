#include "tools/ServiceClient.h"

#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string.h>

#include <chrono>
#include <thread>

#include <IVyMediaMonitorService.h>
#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IServiceManager.h>

#include "tools/Deadline.h"
#include "tools/TextLines.h"

using android::IBinder;
using android::IVyMediaMonitorService;
using android::sp;
using android::String16;

namespace vymm {

namespace {

// The host runtime's folder when HOST_BINDER_DIR is not set.
constexpr char kDefaultRuntimeFolder[] = "/tmp/host-binder";

// How long a call waits for room in the queue to a service that is behind.
constexpr int kRoomWaitMs = 10000;

// Stands between an operation's proxy and the service to keep the status of
// the transaction, which the interface's operations do not return.
class StatusKeeper : public android::BBinder {
public:
    explicit StatusKeeper(const sp<IBinder>& service) : mService(service) {}
    android::status_t status() const { return mStatus; }

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data,
                                 android::Parcel* reply, uint32_t flags) override {
        mStatus = mService->transact(code, data, reply, flags);
        return mStatus;
    }

private:
    const sp<IBinder> mService;
    android::status_t mStatus = android::NO_ERROR;
};

// What a sleep step waits; --fast waits nothing.
int64_t SleepMs(const TraceStep& step, const ReplayOptions& options) {
    const double scale = options.fast ? 0 : 1 / options.speed;
    return static_cast<int64_t>(static_cast<double>(step.sleepMs) * scale);
}

// Steps [begin, end) of a trace, all under one uid.
struct Segment {
    size_t begin;
    size_t end;
    uid_t uid;
};

class Replayer {
public:
    Replayer(const std::vector<TraceStep>& steps, const std::string& name,
             const ReplayOptions& options)
        : mSteps(steps), mName(name), mOptions(options), mSelf(geteuid()) {}

    int Run();

private:
    // False, after saying so, when the sleeps add up to more than allowed.
    bool SleepsWithinLimit() const;
    // The first `as` that this process cannot honour, or null.
    const TraceStep* FirstForbiddenAs() const;
    std::vector<Segment> Segments() const;
    int RunInChild(const Segment& segment) const;
    int RunSegment(const Segment& segment, const sp<IBinder>& binder) const;
    size_t CallsIn(const Segment& segment) const;
    // "NAME:LINE: ", or "NAME: " for a step made up from a command line.
    std::string Where(const TraceStep& step) const {
        return step.line > 0 ? LinePrefix(mName, step.line) : mName + ": ";
    }

    const std::vector<TraceStep>& mSteps;
    const std::string& mName;
    const ReplayOptions& mOptions;
    const uid_t mSelf;
};

bool Replayer::SleepsWithinLimit() const {
    int64_t total = 0;
    for (const TraceStep& step : mSteps) {
        total += step.kind == TraceStep::SLEEP ? SleepMs(step, mOptions) : 0;
    }
    if (total <= mOptions.maxSleepMs) {
        return true;
    }
    fprintf(stderr,
            "vymm replay: %s sleeps %lld ms in all, more than --max-sleep %lld; nothing was "
            "sent\n",
            mName.c_str(), static_cast<long long>(total),
            static_cast<long long>(mOptions.maxSleepMs));
    return false;
}

const TraceStep* Replayer::FirstForbiddenAs() const {
    for (const TraceStep& step : mSteps) {
        if (step.kind == TraceStep::AS && step.uid != mSelf && mSelf != 0) {
            return &step;
        }
    }
    return nullptr;
}

std::vector<Segment> Replayer::Segments() const {
    std::vector<Segment> segments;
    uid_t uid = mSelf;
    size_t begin = 0;
    for (size_t i = 0; i <= mSteps.size(); ++i) {
        if (i < mSteps.size() && mSteps[i].kind != TraceStep::AS) {
            continue;
        }
        if (i > begin) {
            segments.push_back({begin, i, uid});
        }
        if (i < mSteps.size()) {
            uid = mSteps[i].uid;
        }
        begin = i + 1;
    }
    return segments;
}

size_t Replayer::CallsIn(const Segment& segment) const {
    size_t calls = 0;
    for (size_t i = segment.begin; i < segment.end; ++i) {
        calls += mSteps[i].kind == TraceStep::CALL ? 1 : 0;
    }
    return calls;
}

int Replayer::RunSegment(const Segment& segment, const sp<IBinder>& binder) const {
    const int lastLine = mSteps.back().line;
    for (size_t i = segment.begin; i < segment.end; ++i) {
        const TraceStep& step = mSteps[i];
        if (mOptions.progress) {
            fprintf(stderr, "\rvymm replay: line %d of %d ", step.line, lastLine);
        }
        if (step.kind == TraceStep::SLEEP) {
            std::this_thread::sleep_for(std::chrono::milliseconds(SleepMs(step, mOptions)));
        } else if (step.kind == TraceStep::CALL &&
                   !CallService(binder, *step.op, step.args, Where(step))) {
            return EXIT_UNREACHABLE;
        }
    }
    return StillReachable(binder) ? EXIT_OK : EXIT_UNREACHABLE;
}

int Replayer::RunInChild(const Segment& segment) const {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        perror("vymm replay: fork");
        return EXIT_UNREACHABLE;
    }
    if (pid == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(segment.uid) != 0 || setuid(segment.uid) != 0) {
            perror("vymm replay: changing uid");
            _exit(EXIT_USAGE);
        }
        // A process that changed its credentials is undumpable, which the
        // sanitizers' leak check cannot work with.
        prctl(PR_SET_DUMPABLE, 1);
        const sp<IBinder> binder = FindService(0);
        const int status = binder != nullptr ? RunSegment(segment, binder) : EXIT_UNREACHABLE;
        fflush(nullptr);
        _exit(status);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        fprintf(stderr, "vymm replay: the process of uid %u failed\n", segment.uid);
        return EXIT_UNREACHABLE;
    }
    return WEXITSTATUS(status);
}

int Replayer::Run() {
    if (!SleepsWithinLimit()) {
        return EXIT_USAGE;
    }
    if (const TraceStep* as = FirstForbiddenAs(); as != nullptr && !mOptions.skipOtherUids) {
        fprintf(stderr,
                "%sas %u: only root can make calls from another uid; nothing was sent "
                "(--skip-as skips those calls)\n",
                Where(*as).c_str(), as->uid);
        return EXIT_USAGE;
    }
    const sp<IBinder> binder = FindService(mOptions.waitMs);
    if (binder == nullptr) {
        return EXIT_UNREACHABLE;
    }
    size_t skipped = 0;
    int status = EXIT_OK;
    for (const Segment& segment : Segments()) {
        if (segment.uid == mSelf) {
            status = RunSegment(segment, binder);
        } else if (mSelf == 0) {
            status = RunInChild(segment);
        } else {
            skipped += CallsIn(segment);
        }
        if (status != EXIT_OK) {
            break;
        }
    }
    if (mOptions.progress) {
        fputc('\n', stderr);
    }
    if (skipped > 0) {
        fprintf(stderr, "vymm replay: not root: skipped %zu calls made as other uids\n",
                skipped);
    }
    return status;
}

}  // namespace

std::string RuntimeFolder() {
    const char* env = getenv("HOST_BINDER_DIR");
    return env != nullptr && env[0] != '\0' ? env : kDefaultRuntimeFolder;
}

std::string StatusName(android::status_t status) {
    static const struct {
        android::status_t status;
        const char* name;
    } kNames[] = {
            {android::FAILED_TRANSACTION, "FAILED_TRANSACTION"},
            {android::DEAD_OBJECT, "DEAD_OBJECT"},
            {android::WOULD_BLOCK, "WOULD_BLOCK"},
            {android::TIMED_OUT, "TIMED_OUT"},
            {android::PERMISSION_DENIED, "PERMISSION_DENIED"},
            {android::BAD_VALUE, "BAD_VALUE"},
            {android::NO_MEMORY, "NO_MEMORY"},
            {android::UNKNOWN_TRANSACTION, "UNKNOWN_TRANSACTION"},
            {android::INVALID_OPERATION, "INVALID_OPERATION"},
            {android::NAME_NOT_FOUND, "NAME_NOT_FOUND"},
    };
    for (const auto& known : kNames) {
        if (known.status == status) {
            return known.name;
        }
    }
    // Other statuses are negated errno values.
    return status < 0 && status > -4096 ? std::string(strerror(-status)) + " (" +
                                                   std::to_string(status) + ")"
                                         : "status " + std::to_string(status);
}

sp<IBinder> FindService(int waitMs) {
    const CallDeadline deadline("finding " + std::string(kServiceName), waitMs / 1000.0);
    const auto published = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    const String16 name(kServiceName);
    const sp<android::IServiceManager> manager = android::defaultServiceManager();
    sp<IBinder> binder = manager->checkService(name);
    // getService itself waits a few seconds for the service to appear.
    while (binder == nullptr && std::chrono::steady_clock::now() < published) {
        binder = manager->getService(name);
    }
    if (binder == nullptr) {
        fprintf(stderr, "vymm: service %s not found in the runtime folder %s "
                "(HOST_BINDER_DIR); is vymm-host running?\n",
                kServiceName, RuntimeFolder().c_str());
    } else if (android::BpBinder* proxy = binder->remoteBinder()) {
        proxy->setOnewayRoomWait(kRoomWaitMs);
    }
    return binder;
}

bool CallService(const sp<IBinder>& binder, const Operation& op,
                 const std::vector<TypedArg>& args, const std::string& where) {
    const sp<StatusKeeper> keeper = new StatusKeeper(binder);
    {
        const CallDeadline deadline(where + std::string(kServiceName) + " taking " + op.name);
        op.invoke(*android::interface_cast<IVyMediaMonitorService>(keeper), args);
    }
    if (keeper->status() == android::NO_ERROR) {
        return true;
    }
    if (keeper->status() == android::WOULD_BLOCK) {
        fprintf(stderr, "%s%s not delivered: the service took no call for %d s\n",
                where.c_str(), op.name, kRoomWaitMs / 1000);
    } else {
        fprintf(stderr, "%s%s not delivered (%s)\n", where.c_str(), op.name,
                StatusName(keeper->status()).c_str());
    }
    return false;
}

bool StillReachable(const sp<IBinder>& binder) {
    const CallDeadline deadline(std::string(kServiceName) + " running the calls sent");
    if (binder->pingBinder() == android::NO_ERROR) {
        return true;
    }
    fprintf(stderr, "vymm: lost service %s in the runtime folder %s\n", kServiceName,
            RuntimeFolder().c_str());
    return false;
}

int Replay(const std::vector<TraceStep>& steps, const std::string& name,
           const ReplayOptions& options) {
    return steps.empty() ? EXIT_OK : Replayer(steps, name, options).Run();
}

}  // namespace vymm
