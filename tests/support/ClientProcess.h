// Runs the client programs of the Binder tests against a service of this
// process.
#ifndef VYMM_TESTS_CLIENT_PROCESS_H
#define VYMM_TESTS_CLIENT_PROCESS_H

#include <stdio.h>

#include <string>

#include <binder/IBinder.h>

struct ClientRun {
    std::string output;  // its standard output
    int status;          // as pclose returns it; 0 for a clean exit
};

// One client program running, ended by `timeout` when it outlives its
// deadline, so that a hung client fails its test rather than hanging it.
class ClientProcess {
public:
    explicit ClientProcess(const std::string& command, int timeoutSeconds = 30);
    ~ClientProcess();
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    // The next line it prints, without its end; empty once it has ended.
    std::string ReadLine();
    // Waits for it to end: what it printed from here on, and its status.
    ClientRun Finish();

private:
    FILE* mOutput;
};

// Starts "program name user" (user: a uid to drop to, or "-"), publishes
// service as name, serves it until the program ends, and stops serving.
// The program is started first: its getService waits for the name.
ClientRun RunClientProcess(const char* program, const char* name, const std::string& user,
                           const android::sp<android::IBinder>& service);

#endif
