// binder_test_peer: the other process of the Binder runtime's tests, driven
// one command a line on standard input (see BinderPeer.h).
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "Wire.h"
#include "support/BinderPeer.h"
#include "support/ClientUser.h"

using namespace android;

namespace {

// One write per line, so that lines of several threads never mix.
void Say(const std::string& line) {
    const std::string text = line + "\n";
    (void)!write(STDOUT_FILENO, text.data(), text.size());
}

void SayLog(const struct __android_logger_data* /*data*/, const char* message) {
    Say(std::string("log: ") + message);
}

std::string Calls(const sp<IBinder>& binder, int count) {
    std::atomic<int> answered{0};
    std::atomic<int> failure{0};
    std::atomic<int> uid{-1};
    std::atomic<int> pid{-1};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&] {
            Parcel data;
            Parcel reply;
            const status_t status = binder->transact(EchoBinder::ECHO, data, &reply);
            if (status == NO_ERROR) {
                uid = reply.readInt32();
                pid = reply.readInt32();
                ++answered;
            } else {
                int none = 0;
                failure.compare_exchange_strong(none, status);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::ostringstream out;
    out << answered << " " << failure << " " << uid << " " << pid;
    return out.str();
}

// One-way calls until count went or one failed: "sent failure -1 -1".
std::string OnewayCalls(const sp<IBinder>& binder, int count) {
    int sent = 0;
    status_t status = NO_ERROR;
    while (sent < count &&
           (status = binder->transact(EchoBinder::ECHO, Parcel(), nullptr,
                                      IBinder::FLAG_ONEWAY)) == NO_ERROR) {
        ++sent;
    }
    return std::to_string(sent) + " " + std::to_string(status) + " -1 -1";
}

std::string LimitDescriptors(const std::string& how) {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    if (how == "max") {
        limit.rlim_cur = limit.rlim_max;
    } else {
        // The lowest free number: every one below it is open.
        const int free = dup(STDIN_FILENO);
        close(free);
        limit.rlim_cur = static_cast<rlim_t>(free);
    }
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 ? "ok" : strerror(errno);
}

std::string ExhaustInotify(std::vector<int>* instances) {
    for (;;) {
        const int fd = inotify_init1(IN_CLOEXEC);
        if (fd < 0) {
            return std::to_string(instances->size()) + " " + std::to_string(errno);
        }
        instances->push_back(fd);
    }
}

// Connects to the socket of name and closes at once, until told to stop.
class Churn {
public:
    // Returns after the first hundred tries, leaving a thread at it.
    std::string Start(const std::string& name) {
        const char* dir = getenv("HOST_BINDER_DIR");
        const std::string path =
                std::string(dir != nullptr ? dir : "/tmp/host-binder") + "/" + name;
        mAddr.sun_family = AF_UNIX;
        strncpy(mAddr.sun_path, path.c_str(), sizeof(mAddr.sun_path) - 1);
        for (int i = 0; i < 100; ++i) {
            Once();
        }
        mThread = std::thread([this] {
            while (!mStop) {
                Once();
            }
        });
        return "ok";
    }
    std::string Stop() {
        mStop = true;
        if (mThread.joinable()) {
            mThread.join();
        }
        return std::to_string(mConnections);
    }

private:
    void Once() {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&mAddr), sizeof(mAddr)) == 0) {
            ++mConnections;
        }
        close(fd);
    }

    sockaddr_un mAddr = {};
    std::thread mThread;
    std::atomic<bool> mStop{false};
    std::atomic<int> mConnections{0};
};

}  // namespace

int main() {
    sp<IBinder> binder;
    std::vector<int> inotifyInstances;
    Churn churn;
    bool serving = false;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream in(line);
        std::string command;
        std::string arg;
        in >> command >> arg;
        if (command == "get") {
            binder = defaultServiceManager()->getService(String16(arg.c_str()));
            Say(binder != nullptr ? "ok" : "null");
        } else if (command == "calls") {
            Say(Calls(binder, atoi(arg.c_str())));
        } else if (command == "oneway") {
            Say(OnewayCalls(binder, atoi(arg.c_str())));
        } else if (command == "uid") {
            Say(BecomeUser(arg.c_str()) ? "ok" : strerror(errno));
        } else if (command == "nofile") {
            Say(LimitDescriptors(arg));
        } else if (command == "noinotify") {
            Say(ExhaustInotify(&inotifyInstances));
        } else if (command == "churn") {
            Say(churn.Start(arg));
        } else if (command == "stop") {
            Say(churn.Stop());
        } else if (command == "publish") {
            Say(std::to_string(defaultServiceManager()->addService(String16(arg.c_str()),
                                                                   new EchoBinder)));
            ProcessState::self()->startThreadPool();
            serving = true;
        } else if (command == "raw") {
            const int fd = atoi(arg.c_str());
            size_t offset = 0;
            in >> offset;
            Say(SendHeader(fd, Request(EchoBinder::ECHO), offset) ? ReadReply(fd) : "closed");
        } else if (command == "await") {
            Say("ready");
            char byte;
            (void)!read(atoi(arg.c_str()), &byte, 1);
        } else if (command == "log") {
            __android_log_set_logger(SayLog);
            Say("ok");
        } else {
            Say("unknown command " + command);
        }
    }
    churn.Stop();
    if (serving) {
        ProcessState::self()->stopThreadPool();
    }
    return 0;
}
