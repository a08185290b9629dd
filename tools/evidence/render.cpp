// The report as text for a person and as one JSON document for scripts
// (evidence.schema.json describes it). Every text in it is printable ASCII.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>

#include "evidence.h"

namespace evidence {
namespace {

using nlohmann::json;

const char* verdict_name(Verdict v) {
    switch (v) {
        case Verdict::Complete:
            return "complete";
        case Verdict::Partial:
            return "partial";
        case Verdict::Failed:
            return "failed";
    }
    return "failed";
}

template <typename T>
json or_null(const std::optional<T>& v) {
    return v ? json(*v) : json(nullptr);
}

json or_null(const std::string& s) {
    return s.empty() ? json(nullptr) : json(s);
}

json known(int64_t v) {
    return v >= 0 ? json(v) : json(nullptr);
}

json files_of(const std::vector<Capture>& list) {
    json out = json::array();
    for (const Capture& c : list) {
        out.push_back(c.file);
    }
    return out;
}

json attempt_json(const Attempt& a) {
    json steps = json::array();
    for (const StepFacts& s : a.log.steps) {
        steps.push_back({{"step", s.n},
                         {"frames", known(s.frames)},
                         {"saved", known(s.saved)},
                         {"error", or_null(s.error)}});
    }
    json regions = json::array();
    for (const Region& g : a.regions) {
        regions.push_back({{"name", or_null(g.name)},
                           {"file", or_null(g.file)},
                           {"size", or_null(g.size)},
                           {"announced", known(g.announced)},
                           {"received", known(g.received)},
                           {"complete", g.problem.empty()},
                           {"problem", or_null(g.problem)}});
    }
    return {
        {"time", show_time(a.time)},
        {"stamp", a.stamp},
        {"files",
         {{"dump_log", or_null(a.dump_log)}, {"info", or_null(a.info)}, {"dump", or_null(a.dump)}}},
        {"versions", {{"cpif", or_null(a.log.cpif_version)}, {"rix", or_null(a.log.rix_version)}}},
        {"reason", or_null(a.reason)},
        {"after", a.after},
        {"dump",
         {{"size", or_null(a.dump_size)},
          {"announced", or_null(a.announced)},
          {"announced_from", or_null(a.announced_from)},
          {"steps_saved", a.steps_saved},
          {"steps", steps},
          {"done", a.done}}},
        {"regions", regions},
        {"kernel_log",
         {{"before", files_of(a.before)},
          {"after", files_of(a.after_captures)},
          {"dump_fail", files_of(a.fail)}}},
        {"verdict", verdict_name(a.verdict)},
        {"missing", a.missing},
        {"failing_step", or_null(a.failing_step)},
    };
}

json entry_json(const SrEntry& e) {
    return {{"file", e.file},
            {"line", e.line},
            {"time", e.time ? json(show_time(*e.time)) : json(nullptr)},
            {"text", e.text()},
            {"header", or_null(e.header())},
            {"bytes", e.bytes.size()},
            {"complete", e.ended && e.time.has_value()},
            {"problems", e.problems}};
}

std::string after_text(const std::string& after) {
    if (after == "upload") {
        return "upload mode";
    }
    if (after == "upload_failed") {
        return "the upload-mode request failed";
    }
    if (after == "none") {
        return "nothing: the attempt failed";
    }
    return "not known: the evidence ends before the attempt did";
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const std::string& s : items) {
        out += (out.empty() ? "" : "; ") + s;
    }
    return out;
}

void field(std::string& out, const std::string& indent, const char* name, const std::string& v) {
    out += indent + name + std::string(13 - std::min<size_t>(12, strlen(name)), ' ') + v + "\n";
}

void attempt_text(std::string& out, const Attempt& a, const std::string& in) {
    // The daemon's text begins with ": " to follow the device prefix.
    std::string reason = a.reason.value_or("not known (no info file)");
    field(out, in, "reason", reason.rfind(": ", 0) == 0 ? reason.substr(2) : reason);
    field(out, in, "followed by", after_text(a.after));
    std::string dump = a.dump.empty() ? "missing" : a.dump + ": " + std::to_string(*a.dump_size);
    if (!a.dump.empty()) {
        dump += a.announced ? " of " + std::to_string(*a.announced) + " bytes announced"
                            : " bytes, the size the CP announced is not known";
    }
    // Without a dump log that was read, only a failure or the capture after
    // the dump tells how reception ended.
    const bool log_read = !a.dump_log.empty() && a.log_error.empty();
    const char* reception = a.done                          ? "reception finished (DONE)"
                            : log_read || a.after == "none" ? "reception did not finish"
                                                            : "reception not known";
    dump += ", " + std::to_string(a.steps_saved) + (a.steps_saved == 1 ? " step" : " steps") +
            " saved, " + reception;
    field(out, in, "dump", dump);
    for (const Region& g : a.regions) {
        std::string line = (g.name.empty() ? "?" : g.name) + ": ";
        line += g.size ? std::to_string(*g.size) + " bytes, " : "";
        line += g.problem.empty() ? "complete"
                                  : g.problem + (g.file.empty() ? "" : " (" + g.file + ")");
        field(out, in, "region", line);
    }
    if (a.regions.empty()) {
        field(out, in, "regions", "none");
    }
    const std::pair<const char*, const std::vector<Capture>*> caps[] = {
        {"before", &a.before}, {"after", &a.after_captures}, {"dump_fail", &a.fail}};
    for (const auto& [what, list] : caps) {
        for (const Capture& c : *list) {
            field(out, in, "kernel log", std::string(what) + ": " + c.file);
        }
    }
    std::string v = verdict_name(a.verdict);
    if (a.verdict == Verdict::Failed) {
        v = "failed attempt: " + a.failing_step;
    } else if (a.verdict == Verdict::Partial) {
        v += ": " + joined(a.missing);
    }
    field(out, in, "verdict", v);
}

}  // namespace

nlohmann::json to_json(const Report& r) {
    json crashes = json::array();
    for (const Crash& c : r.crashes) {
        json attempts = json::array();
        for (const Attempt& a : c.attempts) {
            attempts.push_back(attempt_json(a));
        }
        crashes.push_back({{"time", show_time(c.attempts.front().time)},
                           {"prefix", c.attempts.front().prefix},
                           {"verdict", verdict_name(c.verdict)},
                           {"attempts", attempts}});
    }
    json resets = json::array();
    for (const SrEntry& e : r.silent_resets) {
        resets.push_back(entry_json(e));
    }
    json pending = json::array();
    for (const Report::Pending& p : r.pending) {
        pending.push_back({{"file", p.file}, {"text", p.text}});
    }
    return {{"directory", r.dir},      {"readable", r.readable},          {"crashes", crashes},
            {"silent_resets", resets}, {"pending_silent_reset", pending}, {"other", r.other},
            {"unknown", r.unknown},    {"problems", r.problems}};
}

std::string to_text(const Report& r) {
    std::string out = "evidence in " + r.dir + ": " + std::to_string(r.crashes.size()) +
                      (r.crashes.size() == 1 ? " crash, " : " crashes, ") +
                      std::to_string(r.silent_resets.size()) + " silent-reset entries\n";
    size_t n = 0;
    for (const Crash& c : r.crashes) {
        const Attempt& first = c.attempts.front();
        out += "\ncrash " + std::to_string(++n) + " at " + show_time(first.time) + " (" +
               first.prefix + "): " + verdict_name(c.verdict);
        if (c.attempts.size() == 1) {
            out += "\n";
            attempt_text(out, first, "  ");
            continue;
        }
        out += ", " + std::to_string(c.attempts.size()) + " attempts\n";
        size_t k = 0;
        for (const Attempt& a : c.attempts) {
            out += "  attempt " + std::to_string(++k) + " at " + show_time(a.time) + "\n";
            attempt_text(out, a, "    ");
        }
    }
    if (!r.silent_resets.empty() || !r.pending.empty()) {
        out += "\nsilent resets, oldest first\n";
    }
    for (const SrEntry& e : r.silent_resets) {
        out += "  " + (e.time ? show_time(*e.time) : std::string("time unknown       ")) + "  " +
               e.file + ":" + std::to_string(e.line) + "  " + e.text() + "\n";
        for (const std::string& p : e.problems) {
            out += "      " + p + "\n";
        }
        if (!e.time) {
            out += "      the entry's first line is not in the file\n";
        } else if (!e.ended) {
            out += "      the entry is cut short\n";
        }
    }
    for (const Report::Pending& p : r.pending) {
        out += "  waiting to be handed back (" + p.file + "): " + p.text + "\n";
    }
    const std::pair<const char*, const std::vector<std::string>*> lists[] = {
        {"other files", &r.other}, {"unknown files", &r.unknown}, {"problems", &r.problems}};
    for (const auto& [title, list] : lists) {
        if (!list->empty()) {
            out += std::string("\n") + title + "\n";
        }
        for (const std::string& s : *list) {
            out += "  " + s + "\n";
        }
    }
    return out;
}

}  // namespace evidence
