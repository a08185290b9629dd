// Gathering: every file of the directory is named by its kind; the dump log,
// info and dump files of an attempt share a stamp, the dump log names the
// region files, and the kernel-log captures belong to the attempt by time.
#include "evidence.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "srinfo/srinfo.h"

namespace evidence {
namespace {

// The capture before a dump is taken just ahead of the attempt's files.
constexpr int64_t kBeforeWindow = 10;
// A retry starts a second after the capture of the failed attempt.
constexpr int64_t kRetryWindow = 5;
constexpr size_t kMaxEntries = 100000;
constexpr size_t kInfoMax = 4096;
constexpr char kErrDir[] = "err";

struct File {
    std::string name;
    Name n;
    uint64_t size = 0;
};

std::string join(const std::string& dir, const std::string& name) {
    return dir + "/" + name;
}

// The regular files of a directory, sorted by name; anything else is unknown.
// `shown` is how the directory appears in the report ("" or "err/").
bool list(const std::string& dir, const std::string& shown, Report& r, std::vector<File>& out) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        r.problems.push_back(printable(dir) + ": " + strerror(errno));
        return false;
    }
    std::vector<std::string> names;
    while (const dirent* e = readdir(d)) {
        const std::string n = e->d_name;
        if (n == "." || n == "..") {
            continue;
        }
        if (names.size() >= kMaxEntries) {
            r.problems.push_back(printable(dir) + ": more than " + std::to_string(kMaxEntries) +
                                 " entries; the rest is not read");
            break;
        }
        names.push_back(n);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& n : names) {
        struct stat st;
        if (lstat(join(dir, n).c_str(), &st) != 0) {
            r.problems.push_back(printable(shown + n) + ": " + strerror(errno));
        } else if (S_ISDIR(st.st_mode) && shown.empty() && n == kErrDir) {
            continue;
        } else if (!S_ISREG(st.st_mode)) {
            r.unknown.push_back(printable(shown + n) + (S_ISDIR(st.st_mode) ? "/" : ""));
        } else {
            out.push_back({n, classify(n), static_cast<uint64_t>(st.st_size)});
        }
    }
    return true;
}

bool before_in_time(const Attempt& a, const Attempt& b) {
    return a.time != b.time ? a.time < b.time : a.stamp < b.stamp;
}

// The latest attempt of `prefix` that started no later than `time`, in
// attempts sorted by time.
Attempt* latest_at(std::vector<Attempt>& attempts, const std::string& prefix, int64_t time) {
    auto it = std::upper_bound(attempts.begin(), attempts.end(), time,
                               [](int64_t t, const Attempt& a) { return t < a.time; });
    while (it != attempts.begin()) {
        --it;
        if (it->prefix == prefix) {
            return &*it;
        }
    }
    return nullptr;
}

// The attempt has a dump log, and it was read.
bool read_log(const Attempt& a) {
    return !a.dump_log.empty() && a.log_error.empty();
}

Attempt anchored(const File& f) {
    Attempt a;
    a.prefix = f.n.prefix;
    a.stamp = f.n.stamp;
    a.time = f.n.time;
    return a;
}

class Gatherer {
  public:
    Gatherer(const std::string& dir, Report& r) : dir_(dir), r_(r) {}

    void run(std::vector<File>& files) {
        for (File& f : files) {
            sort_in(f);
        }
        std::sort(attempts_.begin(), attempts_.end(), before_in_time);
        for (Attempt& a : attempts_) {
            read_dump_log(a);
        }
        place_captures();
        place_regions();
        for (Attempt& a : attempts_) {
            judge(a);
        }
        group();
        read_silent_resets();
    }

  private:
    void sort_in(File& f) {
        const Name& n = f.n;
        switch (n.kind) {
            case Kind::DumpLog:
            case Kind::Info:
            case Kind::Dump: {
                Attempt& a = attempt(f);
                std::string& slot = n.kind == Kind::DumpLog ? a.dump_log
                                    : n.kind == Kind::Info  ? a.info
                                                            : a.dump;
                if (!slot.empty()) {
                    r_.other.push_back(printable(f.name) + ": a second info file of an attempt");
                    return;
                }
                slot = f.name;
                if (n.kind == Kind::Dump) {
                    a.dump_size = f.size;
                }
                return;
            }
            case Kind::Region:
                regions_[f.name] = {f, false};
                return;
            case Kind::KlogBefore:
                before_.push_back(f);
                return;
            case Kind::KlogAfter:
            case Kind::KlogFail:
                after_.push_back(f);
                return;
            case Kind::BootCapture:
                r_.other.push_back(printable(f.name) + ": kernel log of the status loop (" +
                                   printable(n.what) + ")");
                return;
            case Kind::SrLog:
            case Kind::SrBackup:
                (n.kind == Kind::SrLog ? sr_[n.prefix].second : sr_[n.prefix].first) = f.name;
                return;
            case Kind::SrLast:
            case Kind::Unknown:
                r_.unknown.push_back(printable(f.name));
                return;
        }
    }

    Attempt& attempt(const File& f) {
        auto [it, made] = by_stamp_.try_emplace({f.n.prefix, f.n.stamp}, attempts_.size());
        if (made) {
            attempts_.push_back(anchored(f));
        }
        return attempts_[it->second];
    }

    void read_dump_log(Attempt& a) {
        if (a.dump_log.empty()) {
            return;
        }
        DumpLogReader reader;
        const std::string err =
            for_each_line(join(dir_, a.dump_log), [&](std::string_view l) { reader.take(l); });
        if (!err.empty()) {
            r_.problems.push_back(printable(a.dump_log) + ": " + err);
            a.log_error = err;
            return;
        }
        a.log = reader.facts();
        for (const RegionFacts& rf : a.log.regions) {
            Region g;
            g.file = printable(rf.file);
            g.announced = rf.announced;
            g.received = rf.received;
            g.complete = rf.complete;
            g.problem = rf.error;
            if (!rf.file.empty()) {
                g.name = printable(classify(rf.file).what);
                auto it = regions_.find(rf.file);
                if (it != regions_.end() && !it->second.second) {
                    it->second.second = true;
                    g.size = it->second.first.size;
                }
            }
            a.regions.push_back(g);
        }
    }

    // Kernel-log captures by time: the one before a dump just ahead of the
    // attempt's files, those after it (received or failed) at its end. A
    // capture that no attempt's files take stands for an attempt of its own:
    // one that failed before it made any file, or whose files are gone.
    void place_captures() {
        auto by_time = [](const File& a, const File& b) {
            return a.n.time != b.n.time ? a.n.time < b.n.time : a.name < b.name;
        };
        std::sort(before_.begin(), before_.end(), by_time);
        std::sort(after_.begin(), after_.end(), by_time);
        std::vector<bool> used(before_.size(), false);
        for (Attempt& a : attempts_) {
            auto end = std::upper_bound(before_.begin(), before_.end(), a.time,
                                        [](int64_t t, const File& c) { return t < c.n.time; });
            for (auto i = static_cast<size_t>(end - before_.begin()); i-- > 0;) {
                const File& c = before_[i];
                if (a.time - c.n.time > kBeforeWindow) {
                    break;
                }
                if (!used[i] && c.n.prefix == a.prefix) {
                    used[i] = true;
                    a.before.push_back({printable(c.name), c.n.time});
                    break;
                }
            }
        }
        for (size_t i = 0; i < before_.size(); ++i) {
            if (!used[i]) {
                attempts_.push_back(anchored(before_[i]));
                attempts_.back().before.push_back({printable(before_[i].name), before_[i].n.time});
            }
        }
        std::stable_sort(attempts_.begin(), attempts_.end(), before_in_time);
        for (const File& c : after_) {
            Attempt* a = latest_at(attempts_, c.n.prefix, c.n.time);
            if (a == nullptr) {
                // Only a prefix's earliest captures can lack an attempt.
                Attempt made = anchored(c);
                a = &*attempts_.insert(
                    std::upper_bound(attempts_.begin(), attempts_.end(), made, before_in_time),
                    std::move(made));
            }
            (c.n.kind == Kind::KlogAfter ? a->after_captures : a->fail)
                .push_back({printable(c.name), c.n.time});
        }
    }

    // Region files that no dump log names go to the attempt of their time.
    void place_regions() {
        for (auto& [name, entry] : regions_) {
            const File& f = entry.first;
            if (entry.second) {
                continue;
            }
            Attempt* a = latest_at(attempts_, f.n.prefix, f.n.time);
            if (a == nullptr) {
                r_.other.push_back(printable(name) + ": log region " + printable(f.n.what) +
                                   " of no dump attempt");
                continue;
            }
            Region g;
            g.name = printable(f.n.what);
            g.file = printable(name);
            g.size = f.size;
            g.problem = "not named in a dump log: its announced size is not known";
            a->regions.push_back(g);
        }
    }

    void scan_captures(Attempt& a) {
        for (const auto* list : {&a.after_captures, &a.fail}) {
            for (const Capture& c : *list) {
                CaptureReader reader;
                const std::string err =
                    for_each_line(join(dir_, c.file), [&](std::string_view l) { reader.take(l); });
                if (!err.empty()) {
                    r_.problems.push_back(c.file + ": " + err);
                }
                if (reader.facts().attempt_seen) {
                    a.capture = reader.facts();
                }
            }
        }
    }

    // Where the reception stopped, as exactly as the evidence tells.
    std::string stop(const Attempt& a) const {
        const DumpLogFacts& L = a.log;
        for (const StepFacts& s : L.steps) {
            if (!s.error.empty()) {
                return "step " + std::to_string(s.n) + ": " + s.error;
            }
        }
        for (const std::string& e : L.errors) {
            if (e.rfind("get_log_dump:", 0) != 0) {
                return e;
            }
        }
        if (!a.capture.failure.empty()) {
            return a.capture.failure + " (kernel log)";
        }
        if (!read_log(a)) {
            return a.info.empty() && a.dump.empty() && !a.fail.empty()
                       ? "the dump files were never made (preparation failed)"
                       : "not known without the dump log";
        }
        if (!L.steps.empty()) {
            return "the dump log ends in step " + std::to_string(L.steps.back().n);
        }
        if (L.info_saved) {
            return "the dump log ends after INFO";
        }
        if (!a.regions.empty()) {
            return "after the log regions, before the dump stage (CP reset into dump mode, "
                   "boot loader load, security check or boot loader start)";
        }
        return "after the files were opened, before the log regions";
    }

    void judge_regions(Attempt& a) {
        for (Region& g : a.regions) {
            if (g.file.empty()) {
                g.problem = g.problem.empty() ? "the driver refused the region" : g.problem;
            } else if (!g.size) {
                g.problem = "file missing";
            } else if (!g.problem.empty()) {
                // As the dump log said, or not named by one.
            } else if (!g.complete) {
                g.problem = "not completed: the dump log ends in it";
            } else if (g.announced >= 0 && g.received < g.announced) {
                g.problem = std::to_string(g.received) + " of " + std::to_string(g.announced) +
                            " bytes received";
            } else if (g.received >= 0 && *g.size != static_cast<uint64_t>(g.received)) {
                g.problem = "file holds " + std::to_string(*g.size) + " of " +
                            std::to_string(g.received) + " bytes received";
            }
            if (!g.problem.empty() && read_log(a)) {
                a.missing.push_back("region " + (g.name.empty() ? std::string("?") : g.name) +
                                    ": " + g.problem);
            }
        }
    }

    void judge(Attempt& a) {
        const DumpLogFacts& L = a.log;
        const bool have_log = read_log(a);
        // The capture after a dump is taken only once reception succeeded.
        a.done = have_log ? L.data_saved && !L.done_failed : !a.after_captures.empty();
        uint32_t sum = 0;
        bool all_saved = true;
        for (const StepFacts& s : L.steps) {
            const bool saved = s.saved >= 0 && s.error.empty();
            a.steps_saved += saved;
            all_saved &= saved;
            sum += static_cast<uint32_t>(std::max<int64_t>(s.saved, 0));
        }
        if (L.announced) {
            a.announced = L.announced;
            a.announced_from = "dump log";
        } else if (L.data_saved && all_saved) {
            // The daemon saves the dump only when its steps add up to the
            // announced size.
            a.announced = sum;
            a.announced_from = "dump log";
        }
        const bool failed_log = !L.errors.empty() && !a.done;
        if (!a.announced || (!a.done && !failed_log)) {
            scan_captures(a);
        }
        if (!a.announced && a.capture.dump_size) {
            a.announced = a.capture.dump_size;
            a.announced_from = "kernel log";
        }
        if (!a.info.empty()) {
            auto text = read_head(join(dir_, a.info), kInfoMax);
            if (!text) {
                r_.problems.push_back(a.info + ": " + strerror(errno));
            } else {
                a.reason = printable(std::string_view(text->c_str()));
            }
        }
        const bool failed =
            !a.done && (!a.fail.empty() || failed_log || !a.capture.failure.empty());
        a.after = L.upload_failed ? "upload_failed"
                  : a.done        ? "upload"
                  : failed        ? "none"
                                  : "unknown";

        std::vector<std::string>& m = a.missing;
        if (!have_log) {
            m.push_back(a.dump_log.empty() ? "dump log" : "dump log: " + a.log_error);
        }
        if (a.info.empty()) {
            m.push_back("info file (the crash reason)");
        } else if (a.reason && a.reason->empty()) {
            m.push_back("crash reason: the info file is empty");
        }
        if (a.dump.empty()) {
            m.push_back("dump file");
        } else if (!a.announced) {
            m.push_back("dump: the size the CP announced is not in the evidence");
        } else if (*a.dump_size != *a.announced) {
            m.push_back("dump: " + std::to_string(*a.dump_size) + " of " +
                        std::to_string(*a.announced) + " bytes");
        }
        if (!a.done && (have_log || failed)) {
            m.push_back("reception did not finish: " + stop(a));
        } else if (!a.done) {
            m.push_back("reception: whether it finished is not in the evidence");
        }
        judge_regions(a);
        if (a.before.empty() && have_log) {
            m.push_back("kernel log before the dump");
        }
        if (a.done && a.after_captures.empty()) {
            m.push_back("kernel log after the dump");
        }
        const bool received = a.dump_size.value_or(0) > 0 || a.steps_saved > 0;
        if (m.empty()) {
            a.verdict = Verdict::Complete;
        } else if (failed && !received) {
            a.verdict = Verdict::Failed;
            a.failing_step = stop(a);
        } else {
            a.verdict = Verdict::Partial;
        }
    }

    // An attempt that starts right after the capture of a failed one is its
    // retry.
    void group() {
        std::map<std::string, size_t> last;  // prefix -> its latest crash
        for (Attempt& a : attempts_) {
            auto it = last.find(a.prefix);
            if (it != last.end()) {
                const Attempt& prev = r_.crashes[it->second].attempts.back();
                if (prev.verdict != Verdict::Complete && !prev.fail.empty() &&
                    a.time >= prev.fail.back().time &&
                    a.time - prev.fail.back().time <= kRetryWindow) {
                    r_.crashes[it->second].attempts.push_back(std::move(a));
                    continue;
                }
            }
            last[a.prefix] = r_.crashes.size();
            r_.crashes.push_back({});
            r_.crashes.back().attempts.push_back(std::move(a));
        }
        for (Crash& c : r_.crashes) {
            c.verdict = c.attempts.back().verdict;
            for (const Attempt& a : c.attempts) {
                if (c.verdict == Verdict::Failed && a.verdict == Verdict::Partial) {
                    c.verdict = Verdict::Partial;
                }
            }
        }
    }

    std::vector<SrEntry> read_hex_log(const std::string& name) {
        SrLogReader reader(printable(name));
        const std::string err =
            for_each_line(join(dir_, name), [&](std::string_view l) { reader.take(l); });
        if (!err.empty()) {
            r_.problems.push_back(printable(name) + ": " + err);
        }
        r_.problems.insert(r_.problems.end(), reader.stray().begin(), reader.stray().end());
        return reader.finish();
    }

    // The backup holds the older entries.
    void read_silent_resets() {
        for (const auto& [prefix, files] : sr_) {
            std::vector<SrEntry> old =
                files.first.empty() ? std::vector<SrEntry>{} : read_hex_log(files.first);
            std::vector<SrEntry> now =
                files.second.empty() ? std::vector<SrEntry>{} : read_hex_log(files.second);
            if (!old.empty() && !now.empty() && join_rotated(old.back(), now.front())) {
                now.erase(now.begin());
            }
            for (auto* list : {&old, &now}) {
                std::move(list->begin(), list->end(), std::back_inserter(r_.silent_resets));
            }
        }
        std::vector<File> err;
        const std::string err_dir = join(dir_, kErrDir);
        struct stat st;
        if (lstat(err_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
            !list(err_dir, std::string(kErrDir) + "/", r_, err)) {
            return;
        }
        for (const File& f : err) {
            const std::string shown = std::string(kErrDir) + "/" + printable(f.name);
            if (f.n.kind != Kind::SrLast) {
                r_.unknown.push_back(shown);
                continue;
            }
            auto text = read_head(join(err_dir, f.name), kSrinfoDataLen);
            if (!text) {
                r_.problems.push_back(shown + ": " + strerror(errno));
            } else {
                r_.pending.push_back({shown, printable(*text)});
            }
        }
    }

    const std::string& dir_;
    Report& r_;
    std::vector<Attempt> attempts_;
    std::map<std::pair<std::string, std::string>, size_t> by_stamp_;
    std::map<std::string, std::pair<File, bool>> regions_;  // name -> file, taken
    std::vector<File> before_, after_;
    std::map<std::string, std::pair<std::string, std::string>> sr_;  // prefix -> backup, log
};

}  // namespace

Report read_report(const std::string& dir) {
    Report r;
    r.dir = printable(dir);
    std::vector<File> files;
    r.readable = list(dir, "", r, files);
    if (r.readable) {
        Gatherer(dir, r).run(files);
    }
    return r;
}

int exit_status(const Report& r) {
    if (!r.readable) {
        return 2;
    }
    for (const Crash& c : r.crashes) {
        if (c.verdict != Verdict::Complete) {
            return 1;
        }
    }
    return 0;
}

}  // namespace evidence
