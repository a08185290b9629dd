// The evidence of a log directory pulled from a phone, crash by crash: which
// files each dump attempt left, what they hold, and whether that is whole.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "logs.h"
#include "names.h"

namespace evidence {

enum class Verdict { Complete, Partial, Failed };

struct Region {
    std::string name;  // from its file name; empty when the driver refused it
    std::string file;
    std::optional<uint64_t> size;  // none when the file is missing
    int64_t announced = -1;        // -1: not known
    int64_t received = -1;
    bool complete = false;
    std::string problem;  // empty when the region is whole
};

struct Capture {
    std::string file;
    int64_t time = 0;
};

// One dump attempt: the files that share its time stamp, and those that
// belong to it by their own time.
struct Attempt {
    std::string prefix;
    std::string stamp;  // the dump files' stamp; a capture's when it has none
    int64_t time = 0;
    std::string dump_log, info, dump;  // base names; empty when missing
    std::string log_error;             // why the dump log could not be read
    std::optional<std::string> reason;
    std::optional<uint64_t> dump_size;
    std::optional<uint32_t> announced;
    std::string announced_from;
    size_t steps_saved = 0;
    bool done = false;  // reception finished with the DONE exchange
    std::string after;  // what followed the attempt
    std::vector<Region> regions;
    std::vector<Capture> before, after_captures, fail;
    DumpLogFacts log;
    CaptureFacts capture;
    Verdict verdict = Verdict::Failed;
    std::vector<std::string> missing;  // what is missing or short
    std::string failing_step;          // of a failed attempt
};

// A crash: its first attempt and the retries that followed a failure.
struct Crash {
    std::vector<Attempt> attempts;
    Verdict verdict = Verdict::Failed;
};

struct Report {
    std::string dir;
    bool readable = false;
    std::vector<Crash> crashes;
    std::vector<SrEntry> silent_resets;  // oldest first
    struct Pending {
        std::string file, text;
    };
    std::vector<Pending> pending;      // silent-reset texts waiting for the driver
    std::vector<std::string> other;    // known files of no crash, with what they are
    std::vector<std::string> unknown;  // names that match no file of the daemon
    std::vector<std::string> problems;
};

Report read_report(const std::string& dir);

// 0 when every crash's evidence is complete, 1 when some is partial or only
// failed attempts, 2 when the directory could not be read.
int exit_status(const Report& r);

nlohmann::json to_json(const Report& r);
std::string to_text(const Report& r);

}  // namespace evidence
