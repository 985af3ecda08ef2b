// Runs the client program of the Binder tests against a service of this
// process.
#ifndef VYMM_TESTS_CLIENT_PROCESS_H
#define VYMM_TESTS_CLIENT_PROCESS_H

#include <string>

#include <binder/IBinder.h>

struct ClientRun {
    std::string output;  // its standard output
    int status;          // as pclose returns it; 0 for a clean exit
};

// Starts "program name user" (user: a uid to drop to, or "-"), publishes
// service as name, serves it until the program ends, and stops serving.
// The program is started first: its getService waits for the name.
ClientRun RunClientProcess(const char* program, const char* name, const std::string& user,
                           const android::sp<android::IBinder>& service);

#endif
