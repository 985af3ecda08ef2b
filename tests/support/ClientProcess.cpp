#include "support/ClientProcess.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

using namespace android;

ClientProcess::ClientProcess(const std::string& command, int timeoutSeconds)
    : mOutput(popen(("timeout " + std::to_string(timeoutSeconds) + " " + command).c_str(), "re")) {
    if (mOutput == nullptr) {
        ADD_FAILURE() << "cannot run " << command;
    }
}

ClientProcess::~ClientProcess() {
    if (mOutput != nullptr) {
        pclose(mOutput);
    }
}

std::string ClientProcess::ReadLine() {
    std::string line;
    for (int c; mOutput != nullptr && (c = fgetc(mOutput)) != EOF && c != '\n';) {
        line += static_cast<char>(c);
    }
    return line;
}

ClientRun ClientProcess::Finish() {
    if (mOutput == nullptr) {
        return {"", -1};
    }
    ClientRun run;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof(buffer), mOutput)) > 0;) {
        run.output.append(buffer, n);
    }
    run.status = pclose(mOutput);
    mOutput = nullptr;
    return run;
}

ClientRun RunClientProcess(const char* program, const char* name, const std::string& user,
                           const sp<IBinder>& service) {
    ClientProcess client(std::string(program) + " " + name + " " + user);
    EXPECT_EQ(defaultServiceManager()->addService(String16(name), service), NO_ERROR);
    ProcessState::self()->startThreadPool();
    const ClientRun run = client.Finish();
    ProcessState::self()->stopThreadPool();
    return run;
}
