#include "settings.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "requests.h"

namespace vmodem {
namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) {
        s.remove_prefix(1);
    }
    while (!s.empty() &&
           (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) {
        s.remove_suffix(1);
    }
    return s;
}

// Splits off the first blank-separated word.
std::string_view next_word(std::string_view& rest) {
    rest = trim(rest);
    size_t end = rest.find_first_of(" \t");
    std::string_view word = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view{} : trim(rest.substr(end));
    return word;
}

// Parses exactly `count` integers from rest, each within [lo, hi].
bool ints(std::string_view rest, size_t count, int64_t lo, int64_t hi, std::vector<int64_t>& out,
          std::string& error) {
    out.clear();
    while (!rest.empty()) {
        std::string_view w = next_word(rest);
        int64_t v = 0;
        if (!parse_int(w, v)) {
            error = "not a number: " + std::string(w);
            return false;
        }
        if (v < lo || v > hi) {
            error = "out of range: " + std::string(w);
            return false;
        }
        out.push_back(v);
    }
    if (out.size() != count) {
        error = "expected " + std::to_string(count) + " number(s)";
        return false;
    }
    return true;
}

constexpr int64_t kI32Min = INT32_MIN;
constexpr int64_t kU32Max = UINT32_MAX;

// A request result may be written as a signed or an unsigned 32-bit value
// (0x00FEED04, 0xCAE20020, -5).
bool result_value(std::string_view w, int32_t& out) {
    int64_t v = 0;
    if (!parse_int(w, v) || v < kI32Min || v > kU32Max) {
        return false;
    }
    out = static_cast<int32_t>(static_cast<uint32_t>(v));
    return true;
}

bool flag(std::string_view rest, bool& out) {
    if (rest == "1" || rest == "on" || rest == "yes") {
        out = true;
        return true;
    }
    if (rest == "0" || rest == "off" || rest == "no") {
        out = false;
        return true;
    }
    return false;
}

std::string set_u32(std::string_view rest, uint32_t& out) {
    std::vector<int64_t> n;
    std::string err;
    if (!ints(rest, 1, 0, kU32Max, n, err)) {
        return err;
    }
    out = static_cast<uint32_t>(n[0]);
    return "";
}

std::string set_i32(std::string_view rest, int32_t& out) {
    if (!result_value(rest, out)) {
        return "not a 32-bit value: " + std::string(rest);
    }
    return "";
}

std::string set_opt_u32(std::string_view rest, std::optional<uint32_t>& out) {
    if (rest == "default") {
        out.reset();
        return "";
    }
    uint32_t v = 0;
    std::string err = set_u32(rest, v);
    if (err.empty()) {
        out = v;
    }
    return err;
}

std::string set_result(Settings& s, std::string_view rest) {
    std::string_view name = next_word(rest);
    const Request* r = find_request(name);
    if (r == nullptr) {
        return "unknown request: " + std::string(name);
    }
    if (rest == "default") {
        s.results.erase(r->code);
        return "";
    }
    int32_t v = 0;
    if (!result_value(rest, v)) {
        return "not a 32-bit value: " + std::string(rest);
    }
    s.results[r->code] = v;
    return "";
}

std::string set_security(Settings& s, std::string_view rest) {
    std::string_view mode_text = next_word(rest);
    int64_t mode = 0;
    if (!parse_int(mode_text, mode) || mode < 0 || mode > kU32Max) {
        return "bad security mode";
    }
    if (rest == "default") {
        s.security.erase(static_cast<uint32_t>(mode));
        return "";
    }
    int32_t v = 0;
    if (!result_value(rest, v)) {
        return "not a 32-bit value: " + std::string(rest);
    }
    s.security[static_cast<uint32_t>(mode)] = v;
    return "";
}

std::string set_answer(Settings& s, std::string_view rest) {
    std::string_view word_text = next_word(rest);
    int64_t word = 0;
    if (!parse_int(word_text, word) || word < 0 || word > kU32Max) {
        return "bad request word";
    }
    uint32_t key = static_cast<uint32_t>(word);
    if (rest == "default") {
        s.answers.erase(key);
        return "";
    }
    if (rest == "none") {
        s.answers[key] = std::nullopt;
        return "";
    }
    uint32_t answer = 0;
    std::string err = set_u32(rest, answer);
    if (err.empty()) {
        s.answers[key] = answer;
    }
    return err;
}

std::string set_region(Settings& s, std::string_view rest) {
    std::string_view name = next_word(rest);
    if (name.empty() || name.size() > 31) {
        return "region name must have 1 to 31 characters";
    }
    uint32_t size = 0;
    std::string err = set_u32(rest, size);
    if (err.empty()) {
        s.region_sizes[std::string(name)] = size;
    }
    return err;
}

std::string set_frame_rule(Settings& s, std::string_view key, std::string_view rest) {
    std::vector<int64_t> n;
    std::string err;
    if (key == "frame_size_field") {
        if (!ints(rest, 3, 0, kU32Max, n, err)) {
            return err;
        }
        s.frame_size_field[{uint32_t(n[0]), uint32_t(n[1])}] = uint32_t(n[2]);
    } else if (key == "frame_skip") {
        if (!ints(rest, 2, 0, kU32Max, n, err)) {
            return err;
        }
        s.frame_skip.insert({uint32_t(n[0]), uint32_t(n[1])});
    } else {  // frame_command
        if (!ints(rest, 2, 0, kU32Max, n, err)) {
            return err;
        }
        s.frame_command[uint32_t(n[0])] = uint32_t(n[1]);
    }
    return "";
}

std::string clear_misbehaviour(Settings& s) {
    s.answers.clear();
    s.frame_size_field.clear();
    s.frame_skip.clear();
    s.frame_command.clear();
    s.info_reason_len.reset();
    s.info_num_steps.reset();
    s.info_dump_size_delta = 0;
    s.region_zero_reads = false;
    s.boot_poll_error = false;
    s.srinfo_marker.reset();
    s.crash_reason_unterminated = false;
    return "";
}

std::string set_flag(std::string_view rest, bool& out) {
    return flag(rest, out) ? "" : "expected 0 or 1";
}

std::string set_u64(std::string_view rest, uint64_t& out) {
    int64_t v = 0;
    if (!parse_int(rest, v) || v < 0) {
        return "expected a non-negative number";
    }
    out = static_cast<uint64_t>(v);
    return "";
}

}  // namespace

bool parse_int(std::string_view text, int64_t& value) {
    if (text.empty() || text.size() > 40) {
        return false;
    }
    std::string s(text);
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(s.c_str(), &end, 0);
    if (errno == ERANGE && s.rfind("0x", 0) == 0) {
        unsigned long long u = std::strtoull(s.c_str(), &end, 0);
        if (errno != 0 || u > UINT64_MAX / 2) {
            return false;
        }
        v = static_cast<long long>(u);
        errno = 0;
    }
    if (errno != 0 || end == s.c_str() || *end != '\0') {
        return false;
    }
    value = v;
    return true;
}

std::string apply_setting(Settings& s, std::string_view line) {
    std::string_view rest = trim(line);
    if (rest.empty() || rest.front() == '#') {
        return "";
    }
    std::string_view key = next_word(rest);
    if (key == "memory_size")
        return set_u64(rest, s.memory_size);
    if (key == "state")
        return set_i32(rest, s.state);
    if (key == "rf_level")
        return set_i32(rest, s.rf_level);
    if (key == "btl_size")
        return set_i32(rest, s.btl_size);
    if (key == "strict_nodes")
        return set_flag(rest, s.strict_nodes);
    if (key == "cpif_version") {
        if (rest.size() > 20) {
            return "cpif_version has at most 20 characters";
        }
        s.cpif_version = std::string(rest);
        return "";
    }
    if (key == "security")
        return set_security(s, rest);
    if (key == "result")
        return set_result(s, rest);
    if (key == "image_mark_range") {
        std::vector<int64_t> n;
        std::string err;
        if (!ints(rest, 2, 0, INT64_MAX, n, err)) {
            return err;
        }
        if (n[0] >= n[1]) {
            return "image_mark_range needs FROM < TO";
        }
        s.image_mark_from = uint64_t(n[0]);
        s.image_mark_to = uint64_t(n[1]);
        return "";
    }
    if (key == "power_on_pause_ms")
        return set_u32(rest, s.power_on_pause_ms);
    if (key == "dump_seed")
        return set_u64(rest, s.dump_seed);
    if (key == "dump_size")
        return set_u32(rest, s.dump_size);
    if (key == "dump_steps")
        return set_u32(rest, s.dump_steps);
    if (key == "frame_payload") {
        uint32_t v = 0;
        std::string err = set_u32(rest, v);
        if (err.empty() && (v == 0 || v > 16384)) {
            return "frame_payload must be 1 to 16384";
        }
        s.frame_payload = err.empty() ? v : s.frame_payload;
        return err;
    }
    if (key == "dump_reason") {
        s.dump_reason = std::string(rest);
        return "";
    }
    if (key == "crash_owner")
        return set_i32(rest, s.crash_owner);
    if (key == "crash_reason") {
        if (rest.size() > 511) {
            return "crash_reason has at most 511 characters";
        }
        s.crash_reason = std::string(rest);
        return "";
    }
    if (key == "region")
        return set_region(s, rest);
    if (key == "region_count") {
        std::vector<int64_t> n;
        std::string err;
        if (!ints(rest, 2, 0, kU32Max, n, err)) {
            return err;
        }
        s.region_counts[uint32_t(n[0])] = uint32_t(n[1]);
        return "";
    }
    if (key == "region_default_size")
        return set_u32(rest, s.region_default_size);
    if (key == "region_default_count")
        return set_u32(rest, s.region_default_count);
    if (key == "region_chunk") {
        uint32_t v = 0;
        std::string err = set_u32(rest, v);
        if (err.empty() && v == 0) {
            return "region_chunk must be at least 1";
        }
        s.region_chunk = err.empty() ? v : s.region_chunk;
        return err;
    }
    if (key == "srinfo_text") {
        if (rest.size() > 4092 - 16) {
            return "srinfo_text too long";
        }
        s.srinfo_text = std::string(rest);
        return "";
    }
    if (key == "answer")
        return set_answer(s, rest);
    if (key == "frame_size_field" || key == "frame_skip" || key == "frame_command") {
        return set_frame_rule(s, key, rest);
    }
    if (key == "info_reason_len")
        return set_opt_u32(rest, s.info_reason_len);
    if (key == "info_num_steps")
        return set_opt_u32(rest, s.info_num_steps);
    if (key == "info_dump_size_delta") {
        int64_t v = 0;
        if (!parse_int(rest, v) || v < -kU32Max || v > kU32Max) {
            return "expected a signed number";
        }
        s.info_dump_size_delta = v;
        return "";
    }
    if (key == "region_zero_reads")
        return set_flag(rest, s.region_zero_reads);
    if (key == "boot_poll_error")
        return set_flag(rest, s.boot_poll_error);
    if (key == "srinfo_marker")
        return set_opt_u32(rest, s.srinfo_marker);
    if (key == "crash_reason_unterminated")
        return set_flag(rest, s.crash_reason_unterminated);
    if (key == "misbehave_clear")
        return clear_misbehaviour(s);
    return "unknown key: " + std::string(key);
}

std::string load_scenario(Settings& settings, const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        return "cannot open " + path;
    }
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        std::string err = apply_setting(settings, line);
        if (!err.empty()) {
            return "line " + std::to_string(number) + ": " + err;
        }
    }
    return "";
}

}  // namespace vmodem
