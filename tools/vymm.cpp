// vymm: the command-line client of "Vymedia.monitor" on a host, in the idiom
// of `service call` and `dumpsys`. See the usage texts below.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <fstream>
#include <string>
#include <vector>

#include <IVyMediaMonitorService.h>
#include <private/android_filesystem_config.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include "tools/Deadline.h"
#include "tools/EventLog.h"
#include "tools/Journal.h"
#include "tools/Operations.h"
#include "tools/ServiceClient.h"
#include "tools/Stats.h"
#include "tools/Timeline.h"
#include "tools/Trace.h"

using namespace vymm;
using android::sp;
using nlohmann::json;

namespace {

using Words = std::vector<std::string>;

struct Globals {
    int waitMs = 0;
};

struct Command {
    const char* name;
    const char* usage;  // its lines of the usage, the first one its synopsis
    int (*run)(const Words& words, const Globals& globals);
};

constexpr char kHead[] = "usage: vymm [--wait MS] [--timeout S] COMMAND [ARG...]\n";
constexpr char kTail[] =
        "--wait MS waits for the service to be published; --timeout S is the deadline of\n"
        "each call to it (default 5 s). vymm help COMMAND or vymm COMMAND --help shows one\n"
        "command. Exit status: 0 done, 1 the service cannot be reached, did not answer or\n"
        "did not take a call, or a file cannot be read; 2 bad usage.\n";

// "vymm call: PROBLEM; see `vymm --help`" on stderr; bad usage.
int Slip(const std::string& where, const std::string& problem) {
    fprintf(stderr, "vymm%s%s: %s; see `vymm --help`\n", where.empty() ? "" : " ",
            where.c_str(), problem.c_str());
    return EXIT_USAGE;
}

bool IsHelp(const std::string& word) { return word == "-h" || word == "--help"; }

bool ParseNumber(const std::string& word, double low, double high, double* value) {
    char* end = nullptr;
    *value = strtod(word.c_str(), &end);
    return !word.empty() && *end == '\0' && *value >= low && *value <= high;
}

// An input file, refused when it is a folder (bad usage) or cannot be read.
int OpenInput(const char* command, const std::string& name, std::ifstream* in) {
    struct stat st = {};
    if (stat(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        return Slip(command, name + " is a folder, not a file");
    }
    in->open(name);
    if (!*in) {
        fprintf(stderr, "vymm %s: cannot read %s: %s\n", command, name.c_str(), strerror(errno));
        return EXIT_UNREACHABLE;
    }
    return EXIT_OK;
}

int List(const Words& words, const Globals&) {
    if (!words.empty()) {
        return Slip("list", "takes no arguments");
    }
    for (const Operation& op : Operations()) {
        printf("%2d  %s\n", op.number, Signature(op).c_str());
    }
    printf("(s8? takes s8 TEXT or null)\n");
    return EXIT_OK;
}

// Operations 1 to 3 admit the audio and media services' uids only.
bool Admitted(const Operation& op, uid_t uid) {
    const uid_t kAdmitted[] = {AID_AUDIO, AID_CAMERA,   AID_MEDIA,
                               AID_MEDIA_DRM, AID_MEDIA_EX, AID_MEDIA_CODEC};
    return op.number > 3 || std::find(std::begin(kAdmitted), std::end(kAdmitted), uid) !=
                                    std::end(kAdmitted);
}

int Call(const Words& words, const Globals& globals) {
    long long uid = -1;
    size_t first = 0;
    if (!words.empty() && words[0] == "--as") {
        if (words.size() < 2 || !ParseCount(words[1], UINT32_MAX - 1, &uid)) {
            return Slip("call", "--as takes a uid");
        }
        if (geteuid() != 0) {
            return Slip("call", "--as " + words[1] + ": only root can call from another uid");
        }
        first = 2;
    }
    TraceStep call;
    std::string error;
    if (!ParseCall(words, first, &call.op, &call.args, &error)) {
        fprintf(stderr, "vymm call: %s\n", error.c_str());
        return EXIT_USAGE;
    }
    std::vector<TraceStep> steps;
    if (uid >= 0) {
        TraceStep as;
        as.kind = TraceStep::AS;
        as.uid = static_cast<uid_t>(uid);
        steps.push_back(as);
    }
    steps.push_back(call);
    ReplayOptions options;
    options.waitMs = globals.waitMs;
    const int status = Replay(steps, "vymm call", options);
    const uid_t caller = uid >= 0 ? static_cast<uid_t>(uid) : geteuid();
    if (status == EXIT_OK && !Admitted(*call.op, caller)) {
        fprintf(stderr,
                "vymm call: the service refuses %s from uid %u: operations 1 to 3 admit uids "
                "1005, 1006, 1013, 1031, 1040 and 1046 only (as root: vymm call --as 1013 ...)\n",
                call.op->name, caller);
    }
    return status;
}

int Dump(const Words& words, const Globals& globals) {
    const sp<android::IBinder> binder = FindService(globals.waitMs);
    if (binder == nullptr) {
        return EXIT_UNREACHABLE;
    }
    android::Vector<android::String16> args;
    for (const std::string& word : words) {
        args.add(android::String16(word.c_str()));
    }
    fflush(stdout);
    android::status_t status;
    {
        const CallDeadline deadline(std::string(kServiceName) + " dumping");
        status = binder->dump(STDOUT_FILENO, args);
    }
    if (status != android::NO_ERROR) {
        fprintf(stderr, "vymm dump: the dump failed (%s)\n", StatusName(status).c_str());
        return EXIT_UNREACHABLE;
    }
    return EXIT_OK;
}

int64_t WallMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
}

// One sample every S seconds: a screen redrawn in place like top's, or one
// JSON object a line. A busy or denied answer costs that sample only.
int WatchStats(const sp<android::IBinder>& binder, double seconds, bool asJson) {
    json before;
    for (;; usleep(static_cast<useconds_t>(seconds * 1e6))) {
        std::string text;
        std::string error;
        if (!FetchDump(binder, {"--stats", "--json"}, &text, &error)) {
            fprintf(stderr, "vymm stats: %s\n", error.c_str());
            return EXIT_UNREACHABLE;
        }
        json sample;
        const bool taken = ParseStatsSample(text, &sample, &error);
        if (asJson) {
            if (taken) {
                sample["sampled_us"] = WallMicros();
                printf("%s\n", sample.dump().c_str());
            } else {
                fprintf(stderr, "vymm stats: the service answered: %s\n", error.c_str());
            }
        } else {
            std::string screen = taken ? FormatScreen(sample, before, seconds, time(nullptr))
                                       : "the service answered: " + error + "\n";
            printf("\033[H%s, every %g s\033[K\n\n", kServiceName, seconds);
            for (size_t at = 0; (at = screen.find('\n', at)) != std::string::npos; at += 4) {
                screen.insert(at, "\033[K");
            }
            printf("%s\033[J", screen.c_str());
        }
        fflush(stdout);
        if (taken) {
            before = std::move(sample);
        }
    }
}

bool IsRefusal(const std::string& text) {
    return text.rfind("Dump busy", 0) == 0 || text.rfind("Permission Denial", 0) == 0;
}

int Stats(const Words& words, const Globals& globals) {
    bool asJson = false;
    double watch = 0;
    for (size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "--json") {
            asJson = true;
        } else if (words[i] != "--watch") {
            return Slip("stats", "unknown argument " + words[i]);
        } else if (++i == words.size() || !ParseNumber(words[i], 0.1, 3600, &watch)) {
            return Slip("stats", "--watch takes seconds, from 0.1 to 3600");
        }
    }
    const sp<android::IBinder> binder = FindService(globals.waitMs);
    if (binder == nullptr) {
        return EXIT_UNREACHABLE;
    }
    if (watch > 0) {
        return WatchStats(binder, watch, asJson);
    }
    std::string text;
    std::string error;
    json sample;
    if (!FetchDump(binder, asJson ? Words{"--stats", "--json"} : Words{"--stats"}, &text,
                   &error) ||
        (asJson && !ParseStatsSample(text, &sample, &error)) ||
        (!asJson && IsRefusal(error = text.substr(0, text.find('\n'))))) {
        fprintf(stderr, "vymm stats: %s\n", error.c_str());
        return EXIT_UNREACHABLE;
    }
    fputs(text.c_str(), stdout);
    return EXIT_OK;
}

int ReplayFile(const Words& words, const Globals& globals) {
    ReplayOptions options;
    options.waitMs = globals.waitMs;
    options.progress = isatty(STDERR_FILENO) != 0;
    Words files;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        long long ms = 0;
        if (word.rfind("--", 0) != 0) {
            files.push_back(word);
        } else if (word == "--fast") {
            options.fast = true;
        } else if (word == "--skip-as") {
            options.skipOtherUids = true;
        } else if (word == "--max-sleep") {
            if (++i == words.size() || !ParseCount(words[i], INT64_MAX, &ms)) {
                return Slip("replay", "--max-sleep takes milliseconds");
            }
            options.maxSleepMs = ms;
        } else if (word != "--speed") {
            return Slip("replay", "unknown option " + word);
        } else if (++i == words.size() || !ParseNumber(words[i], 1e-6, 1e6, &options.speed)) {
            return Slip("replay", "--speed takes a factor above 0, such as 0.5 or 10");
        }
    }
    if (files.size() != 1) {
        return Slip("replay", "takes one trace file");
    }
    std::ifstream in;
    if (const int status = OpenInput("replay", files[0], &in); status != EXIT_OK) {
        return status;
    }
    std::vector<TraceStep> steps;
    std::string error;
    if (!ParseTrace(in, files[0], &steps, &error)) {
        fprintf(stderr, "vymm replay: %s\nnothing was sent\n", error.c_str());
        return EXIT_USAGE;
    }
    return Replay(steps, files[0], options);
}

int Events(const Words& words, const Globals&) {
    const char* env = getenv("VEXEL_EVENT_LOG");
    if (words.size() > 1 || (words.empty() && (env == nullptr || env[0] == '\0'))) {
        return Slip("events", "takes one file, else reads $VEXEL_EVENT_LOG");
    }
    const std::string name = words.empty() ? env : words[0];
    if (words.empty() && access(name.c_str(), F_OK) != 0 && errno == ENOENT) {
        fprintf(stderr, "vymm events: no events recorded: %s does not exist\n", name.c_str());
        return EXIT_OK;
    }
    std::ifstream in;
    if (const int status = OpenInput("events", name, &in); status != EXIT_OK) {
        return status;
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

// Reads the file of option into the timeline; an exit status.
int AddToTimeline(const std::string& name,
                  bool (TimelineBuilder::*add)(std::istream&, const std::string&, std::string*),
                  TimelineBuilder* timeline) {
    std::ifstream in;
    if (const int status = OpenInput("timeline", name, &in); status != EXIT_OK) {
        return status;
    }
    std::string error;
    if (!(timeline->*add)(in, name, &error)) {
        fprintf(stderr, "vymm timeline: %s\n", error.c_str());
        return EXIT_USAGE;
    }
    return EXIT_OK;
}

int WriteOutput(const std::string& name, const std::string& text) {
    std::ofstream out(name, std::ios::trunc);
    if (!(out << text) || !out.flush()) {
        fprintf(stderr, "vymm timeline: cannot write %s: %s\n", name.c_str(), strerror(errno));
        return EXIT_UNREACHABLE;
    }
    return EXIT_OK;
}

int Timeline(const Words& words, const Globals&) {
    std::string capture;
    std::string output;
    std::string events;
    std::string stats;
    std::string svg;
    for (size_t i = 0; i < words.size(); ++i) {
        std::string* value = words[i] == "-o"         ? &output
                             : words[i] == "--events" ? &events
                             : words[i] == "--stats"  ? &stats
                             : words[i] == "--svg"    ? &svg
                                                      : nullptr;
        if (value == nullptr && words[i].rfind("-", 0) == 0) {
            return Slip("timeline", "unknown option " + words[i]);
        }
        if (value == nullptr && !capture.empty()) {
            return Slip("timeline", "takes one capture, " + words[i] + " is a second");
        }
        if (value != nullptr && ++i == words.size()) {
            return Slip("timeline", words[i - 1] + " takes a file");
        }
        *(value != nullptr ? value : &capture) = words[i];
    }
    if (capture.empty() || output.empty()) {
        return Slip("timeline", capture.empty() ? "takes a capture file" : "takes -o FILE");
    }
    TimelineBuilder timeline;
    int status = AddToTimeline(capture, &TimelineBuilder::AddCapture, &timeline);
    if (status == EXIT_OK && !events.empty()) {
        status = AddToTimeline(events, &TimelineBuilder::AddUploads, &timeline);
    }
    if (status == EXIT_OK && !stats.empty()) {
        status = AddToTimeline(stats, &TimelineBuilder::AddStats, &timeline);
    }
    if (status == EXIT_OK) {
        status = WriteOutput(output, timeline.Text());
    }
    if (status == EXIT_OK && !svg.empty()) {
        status = WriteOutput(svg, TimelineSvg(timeline.Trace()));
    }
    return status;
}

int Journal(const Words& words, const Globals&) {
    if (words.size() != 1) {
        return Slip("journal", "takes one FILE");
    }
    std::ifstream in;
    if (const int status = OpenInput("journal", words[0], &in); status != EXIT_OK) {
        return status;
    }
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::string text;
    std::string error;
    const bool sound = JournalText(bytes, &text, &error);
    printf("%s", text.c_str());
    if (!sound) {
        fprintf(stderr, "vymm journal: %s: %s\n", words[0].c_str(), error.c_str());
    }
    return sound ? EXIT_OK : EXIT_UNREACHABLE;
}

int Help(const Words& words, const Globals&);

const Command kCommands[] = {
        {"list", "  list                        the operations, their numbers and arguments\n",
         List},
        {"call",
         "  call [--as UID] OP ARG...   call operation OP (number or name); each ARG is\n"
         "                              i32 N, s8 TEXT or null; --as: from that uid (root)\n",
         Call},
        {"dump",
         "  dump [ARG...]               the service's dump, as dumpsys prints it; the ARGs\n"
         "                              go to the service (-a, --stats, --reset-stats...)\n",
         Dump},
        {"stats",
         "  stats [--json] [--watch S]  the service's counters; --watch S shows a screen of\n"
         "                              what matters every S seconds, with rates per second\n"
         "                              (with --json: one JSON object a line)\n",
         Stats},
        {"replay",
         "  replay FILE [--fast | --speed F] [--skip-as] [--max-sleep MS]\n"
         "                              replay a trace: one call a line, sleep MS, as UID;\n"
         "                              --speed F sleeps MS / F, --fast not at all; refused\n"
         "                              if its sleeps add up to more than MS (default an hour)\n",
         ReplayFile},
        {"events", "  events [FILE]               the uploaded events ($VEXEL_EVENT_LOG)\n",
         Events},
        {"timeline",
         "  timeline CAPTURE -o OUT.json [--events FILE] [--stats FILE] [--svg OUT.svg]\n"
         "                              a capture's calls, the uploads (events.jsonl) and a\n"
         "                              stats --watch S --json log on one time axis, as a\n"
         "                              JSON trace for a trace viewer; --svg draws it\n",
         Timeline},
        {"journal",
         "  journal FILE                a writer's journal or snapshot (data/log/vymm_*),\n"
         "                              one line per record; stops at a damaged one\n",
         Journal},
        {"help", "  help [COMMAND]              this text, or one command's\n", Help},
};

const Command* Find(const std::string& name) {
    for (const Command& command : kCommands) {
        if (name == command.name) {
            return &command;
        }
    }
    return nullptr;
}

int Help(const Words& words, const Globals&) {
    const Command* one = words.size() == 1 ? Find(words[0]) : nullptr;
    if (words.size() > 1 || (words.size() == 1 && one == nullptr)) {
        return Slip("help", "unknown command " + words.back());
    }
    printf("%s", kHead);
    for (const Command& command : kCommands) {
        if (one == nullptr || one == &command) {
            printf("%s", command.usage);
        }
    }
    printf("%s", one == nullptr ? kTail : "");
    return EXIT_OK;
}

// Asks for a command's help: a call only before its operation, whose
// arguments may be any text.
bool AsksHelp(const Command& command, const Words& words) {
    if (std::string(command.name) == "call") {
        return !words.empty() && IsHelp(words[0]);
    }
    return std::find_if(words.begin(), words.end(), IsHelp) != words.end();
}

}  // namespace

int main(int argc, char** argv) {
    Words words(argv + 1, argv + argc);
    Globals globals;
    while (!words.empty() && (words[0] == "--wait" || words[0] == "--timeout")) {
        double value = 0;  // milliseconds for --wait, seconds for --timeout
        const bool wait = words[0] == "--wait";
        if (words.size() < 2 ||
            !ParseNumber(words[1], wait ? 0 : 0.001, wait ? 600000 : 3600, &value)) {
            return Slip("", wait ? "--wait takes milliseconds, at most 600000"
                                 : "--timeout takes seconds, at most 3600");
        }
        if (wait) {
            globals.waitMs = static_cast<int>(value);
        } else {
            SetCallTimeout(value);
        }
        words.erase(words.begin(), words.begin() + 2);
    }
    if (words.empty()) {
        return Slip("", "missing command");
    }
    if (IsHelp(words[0])) {
        return Help({}, globals);
    }
    const Command* command = Find(words[0]);
    if (command == nullptr) {
        return Slip("", "unknown command " + words[0]);
    }
    words.erase(words.begin());
    return AsksHelp(*command, words) ? Help({command->name}, globals)
                                     : command->run(words, globals);
}
