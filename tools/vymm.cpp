// vymm: the command-line client of "Vymedia.monitor" on a host, in the idiom
// of `service call` and `dumpsys`. See usage below.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <IVyMediaMonitorService.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include "tools/EventLog.h"
#include "tools/Operations.h"
#include "tools/ServiceClient.h"
#include "tools/Trace.h"

using namespace vymm;
using android::sp;

namespace {

constexpr char kUsage[] =
        "usage: vymm [--wait MS] COMMAND\n"
        "  list                          the operations, their numbers and arguments\n"
        "  call OP ARG...                call operation OP (number or name); each ARG is\n"
        "                                i32 N, s8 TEXT or null\n"
        "  dump [ARG...]                 the service's dump, as dumpsys prints it\n"
        "  replay [--fast] [--skip-as] [--max-sleep MS] FILE\n"
        "                                replay a trace: one call a line, sleep MS, as UID;\n"
        "                                refused if its sleeps add up to more than MS\n"
        "                                (default 3600000, an hour)\n"
        "  events [FILE]                 the uploaded events ($VEXEL_EVENT_LOG)\n"
        "--wait MS waits for the service to be published. Exit status: 0 done,\n"
        "1 the service cannot be reached or a call was not delivered, 2 bad usage.\n";

int Usage(const char* problem) {
    fprintf(stderr, "vymm: %s\n%s", problem, kUsage);
    return EXIT_USAGE;
}

int List() {
    for (const Operation& op : Operations()) {
        printf("%2d  %s\n", op.number, Signature(op).c_str());
    }
    printf("(s8? takes s8 TEXT or null)\n");
    return EXIT_OK;
}

int Call(const std::vector<std::string>& words, int waitMs) {
    const Operation* op = nullptr;
    std::vector<TypedArg> args;
    std::string error;
    if (!ParseCall(words, 0, &op, &args, &error)) {
        fprintf(stderr, "vymm call: %s\n", error.c_str());
        return EXIT_USAGE;
    }
    const sp<android::IBinder> binder = FindService(waitMs);
    if (binder == nullptr) {
        return EXIT_UNREACHABLE;
    }
    return CallService(binder, *op, args, "vymm call: ") && StillReachable(binder)
                   ? EXIT_OK
                   : EXIT_UNREACHABLE;
}

int Dump(const std::vector<std::string>& words, int waitMs) {
    const sp<android::IBinder> binder = FindService(waitMs);
    if (binder == nullptr) {
        return EXIT_UNREACHABLE;
    }
    android::Vector<android::String16> args;
    for (const std::string& word : words) {
        args.add(android::String16(word.c_str()));
    }
    fflush(stdout);
    const android::status_t status = binder->dump(STDOUT_FILENO, args);
    if (status != android::NO_ERROR) {
        fprintf(stderr, "vymm dump: the dump failed (%d)\n", status);
        return EXIT_UNREACHABLE;
    }
    return EXIT_OK;
}

int ReplayFile(const std::vector<std::string>& words, int waitMs) {
    ReplayOptions options;
    options.waitMs = waitMs;
    options.progress = isatty(STDERR_FILENO) != 0;
    size_t i = 0;
    for (; i < words.size() && words[i].rfind("--", 0) == 0; ++i) {
        if (words[i] == "--max-sleep") {
            long long ms = 0;
            if (++i == words.size() || !ParseCount(words[i], INT64_MAX, &ms)) {
                return Usage("--max-sleep takes milliseconds");
            }
            options.maxSleepMs = ms;
        } else if (words[i] == "--fast") {
            options.fast = true;
        } else if (words[i] == "--skip-as") {
            options.skipOtherUids = true;
        } else {
            return Usage(("unknown replay option " + words[i]).c_str());
        }
    }
    if (i + 1 != words.size()) {
        return Usage("replay takes one trace file");
    }
    const std::string& name = words[i];
    std::ifstream in(name);
    if (!in) {
        fprintf(stderr, "vymm replay: cannot read %s: %s\n", name.c_str(), strerror(errno));
        return EXIT_USAGE;
    }
    std::vector<TraceStep> steps;
    std::string error;
    if (!ParseTrace(in, name, &steps, &error)) {
        fprintf(stderr, "vymm replay: %s\nnothing was sent\n", error.c_str());
        return EXIT_USAGE;
    }
    return Replay(steps, name, options);
}

int Events(const std::vector<std::string>& words) {
    const char* env = getenv("VEXEL_EVENT_LOG");
    if (words.size() > 1 || (words.empty() && (env == nullptr || env[0] == '\0'))) {
        return Usage("events takes one file, else reads $VEXEL_EVENT_LOG");
    }
    const std::string name = words.empty() ? env : words[0];
    std::ifstream in(name);
    if (!in) {
        if (errno == ENOENT) {
            fprintf(stderr, "vymm events: no events recorded: %s does not exist\n",
                    name.c_str());
            return EXIT_OK;
        }
        fprintf(stderr, "vymm events: cannot read %s: %s\n", name.c_str(), strerror(errno));
        return EXIT_USAGE;
    }
    std::string line;
    std::string text;
    for (int number = 1; std::getline(in, line); ++number) {
        if (FormatEvent(line, &text)) {
            printf("%s\n", text.c_str());
        } else {
            fprintf(stderr, "%s:%d: not a recorded event\n", name.c_str(), number);
        }
    }
    return EXIT_OK;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    int waitMs = 0;
    if (words.size() >= 2 && words[0] == "--wait") {
        char* end = nullptr;
        const long value = strtol(words[1].c_str(), &end, 10);
        if (*end != '\0' || value < 0 || value > 600000) {
            return Usage("--wait takes milliseconds, at most 600000");
        }
        waitMs = static_cast<int>(value);
        words.erase(words.begin(), words.begin() + 2);
    }
    if (words.empty()) {
        return Usage("missing command");
    }
    const std::string command = words[0];
    words.erase(words.begin());
    if (command == "list" && words.empty()) {
        return List();
    }
    if (command == "call") {
        return Call(words, waitMs);
    }
    if (command == "dump") {
        return Dump(words, waitMs);
    }
    if (command == "replay") {
        return ReplayFile(words, waitMs);
    }
    if (command == "events") {
        return Events(words);
    }
    return Usage(("unknown command " + command).c_str());
}
