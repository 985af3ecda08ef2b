// vymm-host: plays the media server's part on a host. Sets the properties,
// loads the service library, launches the service and serves Binder calls
// until SIGTERM or SIGINT; then it stops accepting, runs the calls already
// sent and drops its own last reference to the service, so that the
// service's shutdown runs on the main thread. See usage below.
#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <android-base/properties.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "tools/Operations.h"
#include "tools/Properties.h"
#include "tools/ServiceClient.h"

using namespace vymm;
using android::defaultServiceManager;
using android::sp;
using android::String16;

namespace {

constexpr char kUsage[] =
        "usage: vymm-host [--root DIR] [--props FILE]... [-p KEY=VALUE]... [--lib PATH]\n"
        "  --root DIR     working folder of the service (data/log is created in it);\n"
        "                 default: the current folder\n"
        "  --props FILE   properties in build.prop form; -p sets one; later ones win\n"
        "  --lib PATH     the service library; default: libvymediamonitorservice.so\n"
        "                 next to vymm-host\n"
        "  -h, --help     this text\n"
        "The service uploads through libvexel.so, found on LD_LIBRARY_PATH, into\n"
        "$VEXEL_EVENT_LOG. SIGTERM or SIGINT stops the host after the service's shutdown.\n";

// The reporting library that the service loads by this name.
constexpr char kReportingLibrary[] = "libvexel.so";

constexpr char kLaunchSymbol[] = "launchVyMediaMonitorService";

struct HostOptions {
    bool help = false;
    std::string root = ".";
    std::string lib;
    PropertyMap props;
};

int Slip(const std::string& problem) {
    fprintf(stderr, "vymm-host: %s; see `vymm-host --help`\n", problem.c_str());
    return EXIT_USAGE;
}

std::string DefaultLibrary() {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    return (self.parent_path() / "libvymediamonitorservice.so").string();
}

bool AddPropertyFile(const std::string& name, PropertyMap* props, std::string* error) {
    if (std::filesystem::is_directory(name)) {
        *error = name + " is a folder, not a properties file";
        return false;
    }
    std::ifstream in(name);
    if (!in) {
        *error = "cannot read " + name + ": " + strerror(errno);
        return false;
    }
    return ParsePropertyFile(in, name, props, error);
}

// False with the problem in error; relative paths are made absolute here,
// before the host changes folder.
bool ParseOptions(int argc, char** argv, HostOptions* options, std::string* error) {
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "-h" || option == "--help" || option == "help") {
            options->help = true;
            return true;
        }
        if (i + 1 == argc) {
            *error = "missing value after " + option;
            return false;
        }
        const std::string value = argv[++i];
        std::string key;
        std::string propertyValue;
        if (option == "--root") {
            options->root = value;
        } else if (option == "--lib") {
            options->lib = std::filesystem::absolute(value).string();
        } else if (option == "--props") {
            if (!AddPropertyFile(value, &options->props, error)) {
                return false;
            }
        } else if (option == "-p" && ParsePropertyAssignment(value, &key, &propertyValue)) {
            options->props[key] = propertyValue;
        } else {
            *error = option == "-p" ? "-p takes KEY=VALUE" : "unknown option " + option;
            return false;
        }
    }
    if (options->lib.empty()) {
        options->lib = DefaultLibrary();
    }
    return true;
}

// Said at the start, not at the first upload: without the library every
// upload is lost.
void WarnWithoutReportingLibrary() {
    void* handle = dlopen(kReportingLibrary, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        fprintf(stderr, "vymm-host: warning: the reporting library cannot be loaded, uploads "
                "will be lost: %s (is its folder on LD_LIBRARY_PATH?)\n", dlerror());
        return;
    }
    dlclose(handle);
}

bool EnterRoot(const std::string& root) {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(root) / "data" / "log", error);
    if (error || chdir(root.c_str()) != 0) {
        fprintf(stderr, "vymm-host: cannot use %s/data/log: %s\n", root.c_str(),
                (error ? error.message() : std::string(strerror(errno))).c_str());
        return false;
    }
    return true;
}

// Loads the library and runs its launch function; the service this process
// now publishes, or null.
sp<android::IBinder> Launch(const std::string& lib) {
    void* handle = dlopen(lib.c_str(), RTLD_NOW);
    void* launch = handle != nullptr ? dlsym(handle, kLaunchSymbol) : nullptr;
    if (launch == nullptr) {
        fprintf(stderr, "vymm-host: cannot load %s from %s: %s\n", kLaunchSymbol, lib.c_str(),
                dlerror());
        return nullptr;
    }
    reinterpret_cast<void (*)()>(launch)();
    const sp<android::IBinder> published = defaultServiceManager()->checkService(
            String16(kServiceName));
    if (published == nullptr || published->localBinder() == nullptr) {
        fprintf(stderr, "vymm-host: %s did not publish %s in %s\n", lib.c_str(), kServiceName,
                RuntimeFolder().c_str());
        return nullptr;
    }
    return published;
}

}  // namespace

int main(int argc, char** argv) {
    // Blocked before any thread starts, so that every thread inherits the
    // mask and only sigwait below takes them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    HostOptions options;
    std::string error;
    if (!ParseOptions(argc, argv, &options, &error)) {
        return Slip(error);
    }
    if (options.help) {
        printf("%s", kUsage);
        return EXIT_OK;
    }
    WarnWithoutReportingLibrary();
    if (!EnterRoot(options.root)) {
        return EXIT_UNREACHABLE;
    }
    if (defaultServiceManager()->checkService(String16(kServiceName)) != nullptr) {
        fprintf(stderr, "vymm-host: %s is already served in the runtime folder %s; "
                "stop that host first or set HOST_BINDER_DIR\n",
                kServiceName, RuntimeFolder().c_str());
        return EXIT_UNREACHABLE;
    }
    for (const auto& [key, value] : options.props) {
        android::base::SetProperty(key, value);
    }
    // Ours, so that the service's shutdown runs here, on the main thread,
    // and the host exits only after its uploads.
    sp<android::IBinder> service = Launch(options.lib);
    if (service == nullptr) {
        return EXIT_UNREACHABLE;
    }
    android::ProcessState::self()->startThreadPool();
    printf("vymm-host: serving %s in the runtime folder %s, pid %d\n", kServiceName,
           RuntimeFolder().c_str(), getpid());
    fflush(stdout);

    int signal = 0;
    sigwait(&stopSignals, &signal);
    printf("vymm-host: %s: stopping\n", strsignal(signal));
    fflush(stdout);
    // Returns once the requests already written to the service's sockets
    // ran; then no serving thread is left to hold the service.
    defaultServiceManager()->removeService(String16(kServiceName));
    android::ProcessState::self()->stopThreadPool();
    if (service->getStrongCount() != 1) {
        fprintf(stderr, "vymm-host: the service is still referenced %d times at the stop\n",
                service->getStrongCount() - 1);
    }
    // The last reference: the service's shutdown dispatches what is queued
    // and sends what its writers hold, before main returns.
    service.clear();
    return EXIT_OK;
}
