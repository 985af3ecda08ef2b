#include "support/ClientProcess.h"

#include <stdio.h>

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

using namespace android;

ClientRun RunClientProcess(const char* program, const char* name, const std::string& user,
                           const sp<IBinder>& service) {
    const std::string command = std::string("timeout 30 ") + program + " " + name + " " + user;
    FILE* client = popen(command.c_str(), "re");
    if (client == nullptr) {
        ADD_FAILURE() << "cannot run " << command;
        return {"", -1};
    }
    EXPECT_EQ(defaultServiceManager()->addService(String16(name), service), NO_ERROR);
    ProcessState::self()->startThreadPool();
    ClientRun run;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof(buffer), client)) > 0;) {
        run.output.append(buffer, n);
    }
    run.status = pclose(client);
    ProcessState::self()->stopThreadPool();
    return run;
}
