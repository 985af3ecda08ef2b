#include "support/MonitorHarness.h"

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <type_traits>

#include <binder/IPCThreadState.h>
#include <gtest/gtest.h>
#include <json/reader.h>

#include "support/TestEnv.h"
#include "support/WriterOutput.h"

using namespace android;
using Service = VyMediaMonitorService;

void ActAs(uid_t uid, pid_t pid) {
    IPCThreadState::self()->restoreCallingIdentity((static_cast<int64_t>(uid) << 32) |
                                                   static_cast<uint32_t>(pid));
}

Json::Value StatsOf(Service& service) {
    IPCThreadState* ipc = IPCThreadState::self();
    const int64_t identity = ipc->clearCallingIdentity();
    ActAs(1013);
    Vector<String16> args;
    args.add(String16("--stats"));
    args.add(String16("--json"));
    const std::string text = WrittenText([&](int fd) { service.Dump(fd, args); });
    ipc->restoreCallingIdentity(identity);
    Json::Value stats;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &stats, &errors) &&
                stats.isObject())
            << errors << text;
    return stats;
}

namespace {

// The numbers, or the texts pointed to, joined with ",".
template <typename T>
std::string Join(std::initializer_list<T> parts) {
    std::string joined;
    for (const T& part : parts) {
        if constexpr (std::is_integral_v<T>) {
            joined += "," + std::to_string(part);
        } else {
            joined += "," + std::string(part->c_str());
        }
    }
    return joined.substr(std::min<size_t>(1, joined.size()));
}

std::string Describe(int32_t type, int32_t eventId, const std::string& texts,
                     const std::string& numbers) {
    return std::to_string(type) + ":" + std::to_string(eventId) + " s=" + texts + " i=" + numbers;
}

}  // namespace

std::string Describe(const sp<Service::LogSrvEvent>& event) {
    Service::LogSrvEvent* e = event.get();
    if (const auto* b = dynamic_cast<Service::BigDataEvent*>(e)) {
        return Describe(b->type, b->eventId,
                        Join({&b->subType, &b->extStr, &b->pkgName, &b->extStr2, &b->param}),
                        Join({b->ext1, b->ext2, b->para1, b->para2, b->para3, b->para4}));
    }
    if (const auto* x = dynamic_cast<Service::ExceptionEvent*>(e)) {
        return Describe(x->type, x->eventId, Join({&x->reason, &x->callingApp, &x->paraChar}),
                        Join({x->pid, x->eventLevel, x->subType, x->paraInt,
                              x->associatedEventId}));
    }
    if (const auto* k = dynamic_cast<Service::KpiEvent*>(e)) {
        return Describe(k->type, 0, k->kpis.c_str(), "");
    }
    return Describe(e->type, 0, e->msg.c_str(), Join({e->pid, e->prior, e->subType}));
}

MonitorHarness::MonitorHarness() {
    if (mLogSendThread != nullptr) {
        const sp<LogSendThread> worker = mLogSendThread;
        mHeldQueue = new HeldQueue(this);
        mLogSendThread = mHeldQueue;
        // Once the worker lets go of its own reference, ours is the last and
        // it dies on this thread rather than on its own.
        worker->Exit();
        EXPECT_TRUE(Eventually([&] { return worker->getStrongCount() == 1; },
                               std::chrono::seconds(10)))
                << "the worker did not end";
    }
}

MonitorHarness::~MonitorHarness() = default;

std::vector<sp<Service::LogSrvEvent>> MonitorHarness::TakeQueuedEvents() {
    return mHeldQueue != nullptr ? mHeldQueue->Take() : std::vector<sp<LogSrvEvent>>();
}

std::vector<std::string> MonitorHarness::TakeQueued() {
    std::vector<std::string> described;
    for (const sp<LogSrvEvent>& event : TakeQueuedEvents()) {
        described.push_back(Describe(event));
    }
    return described;
}

std::vector<std::string> MonitorHarness::Flush() {
    {
        Mutex::Autolock lock(mLock);
        GetActiveStream();
        SendCacheEvent();
    }
    return TakeQueued();
}

std::vector<std::string> MonitorHarness::StatusCalls() {
    std::lock_guard<std::mutex> lock(mStatusMutex);
    return mStatusCalls;
}

void MonitorHarness::WriteBigData(int eventId, const char* s1, const char* s2, const char* s3,
                                  const char* s4) {
    {
        std::lock_guard<std::mutex> lock(mStatusMutex);
        mStatusCalls.push_back(std::string(s1) + "|" + s2 + "|" + s3 + "|" + s4);
    }
    VyMediaMonitorService::WriteBigData(eventId, s1, s2, s3, s4);
}
