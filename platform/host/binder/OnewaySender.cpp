#define LOG_TAG "HostBinder"

#include "OnewaySender.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <log/log.h>

namespace android {

namespace {

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
}

// The sooner of a poll timeout (-1: none) and ms.
int Sooner(int timeoutMs, int64_t ms) {
    const int bounded = static_cast<int>(std::max<int64_t>(ms, 0));
    return timeoutMs < 0 ? bounded : std::min(timeoutMs, bounded);
}

void FlushAtExit() {
    if (!OnewaySender::Get().WaitForEmpty(OnewaySender::EXIT_FLUSH_TIMEOUT_MS)) {
        ALOGW("exiting with one-way calls not sent after %d ms",
              OnewaySender::EXIT_FLUSH_TIMEOUT_MS);
    }
}

}  // namespace

OnewaySender& OnewaySender::Get() {
    // Never destroyed: the thread runs until the process ends.
    static OnewaySender* const gSender = [] {
        OnewaySender* sender = new OnewaySender;
        pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
        atexit(FlushAtExit);
        return sender;
    }();
    return *gSender;
}

void OnewaySender::BeforeFork() { Get().mLock.lock(); }

void OnewaySender::AfterForkInParent() { Get().mLock.unlock(); }

void OnewaySender::AfterForkInChild() {
    OnewaySender& sender = Get();
    if (sender.mWakeFd >= 0) {
        close(sender.mWakeFd);
        sender.mWakeFd = -1;
    }
    sender.mOwner = 0;
    sender.mHeld = 0;
    // The parent's proxies, kept without running anything of theirs here.
    static auto* const inherited = new std::vector<std::vector<sp<BpBinder>>>;
    inherited->push_back(std::move(sender.mIncoming));
    sender.mIncoming.clear();
    sender.mLock.unlock();
}

void OnewaySender::Watch(const sp<BpBinder>& proxy) {
    Mutex::Autolock lock(mLock);
    if (mOwner != getpid()) {
        StartLocked();
    }
    mIncoming.push_back(proxy);
    const uint64_t one = 1;
    if (write(mWakeFd, &one, sizeof(one)) < 0) {
        ALOGE("cannot wake the one-way sender: %s", strerror(errno));
    }
}

bool OnewaySender::WaitForEmpty(int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    Mutex::Autolock lock(mLock);
    while (mOwner == getpid() && (mHeld > 0 || !mIncoming.empty())) {
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) {
            return false;
        }
        mEmptyCond.waitRelative(mLock,
                                std::chrono::duration_cast<std::chrono::nanoseconds>(left).count());
    }
    return true;
}

void OnewaySender::StartLocked() {
    mWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    LOG_ALWAYS_FATAL_IF(mWakeFd < 0, "eventfd failed: %s", strerror(errno));
    mOwner = getpid();
    mHeld = 0;
    std::thread([this, fd = mWakeFd] {
        pthread_setname_np(pthread_self(), "binder-oneway");
        Loop(fd);
    }).detach();
}

void OnewaySender::TakeIncoming(std::vector<Watched>* watched) {
    Mutex::Autolock lock(mLock);
    for (sp<BpBinder>& proxy : mIncoming) {
        watched->push_back({std::move(proxy)});
    }
    mIncoming.clear();
    mHeld = watched->size();
}

void OnewaySender::Loop(int wakeFd) {
    std::vector<Watched> watched;
    std::vector<pollfd> polled;
    int timeoutMs = -1;
    for (;;) {
        polled.assign(1, {wakeFd, POLLIN, 0});
        for (const Watched& each : watched) {
            if (!each.ready) {
                polled.push_back({each.fd, POLLOUT, 0});
            }
        }
        if (poll(polled.data(), polled.size(), timeoutMs) < 0 && errno != EINTR) {
            ALOGE("the one-way sender cannot poll: %s", strerror(errno));
        }
        uint64_t count;
        if (polled[0].revents != 0) {
            (void)!read(wakeFd, &count, sizeof(count));
        }
        size_t next = 1;
        for (Watched& each : watched) {
            if (!each.ready && polled[next++].revents != 0) {
                each.ready = true;
                // A closed proxy's wait for room starts again.
                each.closedAtMs = -1;
            }
        }
        TakeIncoming(&watched);
        timeoutMs = FlushReady(&watched);
        Mutex::Autolock lock(mLock);
        mHeld = watched.size();
        if (mHeld == 0 && mIncoming.empty()) {
            mEmptyCond.broadcast();
        }
    }
}

int OnewaySender::FlushReady(std::vector<Watched>* watched) {
    const int64_t now = NowMs();
    int timeoutMs = -1;
    for (auto it = watched->begin(); it != watched->end();) {
        // Nobody but this thread holds it: the proxy was closed.
        const bool closed = it->proxy->getStrongCount() == 1;
        it->closedAtMs = !closed ? -1 : it->closedAtMs < 0 ? now : it->closedAtMs;
        if (closed && now - it->closedAtMs >= CLOSED_FLUSH_TIMEOUT_MS) {
            it->proxy->abandonPending();
            it = watched->erase(it);
            continue;
        }
        if (it->ready) {
            switch (it->proxy->flushPending(&it->fd)) {
                case BpBinder::FLUSHED:
                    it = watched->erase(it);
                    continue;
                case BpBinder::WAIT_ROOM:
                    it->ready = false;
                    break;
                case BpBinder::RETRY:
                    timeoutMs = Sooner(timeoutMs, RETRY_MS);
                    break;
            }
        }
        if (closed) {
            timeoutMs = Sooner(timeoutMs, it->closedAtMs + CLOSED_FLUSH_TIMEOUT_MS - now);
        }
        ++it;
    }
    return timeoutMs;
}

}  // namespace android
