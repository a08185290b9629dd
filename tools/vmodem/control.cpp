#include "control.h"

#include "modem.h"

namespace vmodem {
namespace {

const char* loader_name(Loader l) {
    switch (l) {
        case Loader::None:
            return "none";
        case Loader::Normal:
            return "normal";
        case Loader::Dump:
            return "dump";
    }
    return "?";
}

// The texts of the facts are kept escaped already (\", \\, \xNN).
std::string quoted(const std::string& escaped) {
    return "\"" + escaped + "\"";
}

std::string query_handles(const Modem& m) {
    return "ok boot=" + std::to_string(m.open_count(Node::Boot)) +
           " dump=" + std::to_string(m.open_count(Node::Dump)) +
           " memshare=" + std::to_string(m.open_count(Node::Memshare));
}

std::string query_facts(const Modem& m) {
    const Facts& f = m.facts();
    return std::string("ok power=") + (f.power ? "on" : "off") +
           " state=" + std::to_string(m.state()) + " boot_mode=" + std::to_string(f.boot_mode) +
           " loader=" + loader_name(f.loader) + " handshake=" + (f.finish_done ? "1" : "0") +
           " dump_done=" + (f.dump_done ? "1" : "0") +
           " image_bytes=" + std::to_string(f.image_bytes) +
           " bootup_done=" + std::to_string(f.bootup_done) +
           " bootup_fail=" + std::to_string(f.bootup_fail) +
           " watchdog=" + std::to_string(f.watchdog_count) +
           " minidump=" + std::to_string(f.minidump) +
           " srinfo_fetches=" + std::to_string(f.srinfo_fetches) +
           " srinfo_restores=" + std::to_string(f.srinfo_restores) +
           " upload=" + std::to_string(f.upload_count) + " upload_text=" + quoted(f.upload_text) +
           " srinfo_restored=" + quoted(f.srinfo_restored);
}

// count:bytes:first_ns:last_ns:cpu_first_ns:cpu_last_ns
std::string mark_text(const BulkMark& m) {
    return std::to_string(m.count) + ":" + std::to_string(m.bytes) + ":" +
           std::to_string(m.first_ns) + ":" + std::to_string(m.last_ns) + ":" +
           std::to_string(m.cpu_first_ns) + ":" + std::to_string(m.cpu_last_ns);
}

std::string query_marks(const Modem& m) {
    return "ok image=" + mark_text(m.mark(Bulk::Image)) +
           " frame=" + mark_text(m.mark(Bulk::Frame)) +
           " region=" + mark_text(m.mark(Bulk::Region));
}

}  // namespace

std::string control_command(Modem& modem, std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' ')) {
        line.remove_suffix(1);
    }
    if (line == "ping") {
        return "ok";
    }
    if (line == "crash" || line == "crash 2" || line == "crash 9") {
        int32_t state = line == "crash 9" ? kStateCrashWatchdog : kStateCrashExit;
        modem.crash(state);
        return "ok state=" + std::to_string(state);
    }
    if (line.starts_with("hangup ")) {
        int64_t state = 0;
        if (!parse_int(line.substr(7), state) || state < INT32_MIN || state > INT32_MAX) {
            return "err hangup takes a modem state";
        }
        modem.crash(static_cast<int32_t>(state));
        return "ok state=" + std::to_string(state);
    }
    if (line == "crash_reset") {
        modem.crash_reset();
        return "ok state=1";
    }
    if (line == "query handles") {
        return query_handles(modem);
    }
    if (line == "query facts") {
        return query_facts(modem);
    }
    if (line == "query marks") {
        return query_marks(modem);
    }
    if (line == "marks_clear") {
        modem.clear_marks();
        return "ok";
    }
    if (line.starts_with("set ")) {
        std::string err = apply_setting(modem.settings(), line.substr(4));
        return err.empty() ? "ok" : "err " + err;
    }
    return "err unknown command";
}

}  // namespace vmodem
