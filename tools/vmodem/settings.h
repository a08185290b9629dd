// Everything a scenario can say about the modem: the CP's answers, the dump
// it uploads, its log regions, its silent-reset block and the ways it can
// misbehave. Filled from `key value` lines (the scenario file at start and
// the control socket's `set` command); README.md lists every key.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace vmodem {

struct Settings {
    // CP and driver.
    uint64_t memory_size = 256ull << 20;
    int32_t state = 0;  // modem state at start
    int32_t rf_level = 0;
    std::string cpif_version = "VMODEM-CPIF-1.0";
    int32_t btl_size = 0;
    bool strict_nodes = true;
    std::map<uint32_t, int32_t> security;  // security mode -> answer
    std::map<uint32_t, int32_t> results;   // request code -> forced result

    // Crash dump.
    uint64_t dump_seed = 1;
    uint32_t dump_size = 65536;
    uint32_t dump_steps = 2;
    uint32_t frame_payload = 16384;
    std::string dump_reason = "vmodem forced crash";
    int32_t crash_owner = 0;
    std::string crash_reason = "vmodem crash";

    // Log regions.
    std::map<std::string, uint32_t, std::less<>> region_sizes;
    std::map<uint32_t, uint32_t> region_counts;  // index -> num_dump
    uint32_t region_default_size = 0;
    uint32_t region_default_count = 1;
    uint32_t region_chunk = 4096;

    // Measurement: only image chunks loaded into [from, to) of modem memory
    // count in the image mark (a benchmark times one part, not the stage
    // switches around it).
    uint64_t image_mark_from = 0;
    uint64_t image_mark_to = UINT64_MAX;
    // Measurement: POWER_ON answers after this many ms, so that every side of
    // a benchmark pair comes to its image after the same idle pause.
    uint32_t power_on_pause_ms = 0;

    // Silent-reset block: the crash-info text that follows the 16-byte header.
    std::string srinfo_text = "{\"JVER\":\"VM1\",\"reason\":\"vmodem silent reset\"}";

    // Misbehaviour.
    std::map<uint32_t, std::optional<uint32_t>> answers;  // request word -> answer (none)
    std::map<std::pair<uint32_t, uint32_t>, uint32_t> frame_size_field;  // (step, frame)
    std::set<std::pair<uint32_t, uint32_t>> frame_skip;
    std::map<uint32_t, uint32_t> frame_command;  // step -> command word
    std::optional<uint32_t> info_reason_len;
    std::optional<uint32_t> info_num_steps;
    int64_t info_dump_size_delta = 0;
    bool region_zero_reads = false;
    bool boot_poll_error = false;
    std::optional<uint32_t> srinfo_marker;
    bool crash_reason_unterminated = false;
};

// Applies one `key args...` line. Returns an empty string on success, else
// the reason it was refused. Blank lines and lines starting with '#' are
// accepted and ignored.
std::string apply_setting(Settings& settings, std::string_view line);

// Reads a whole scenario file; returns "" or "line N: reason".
std::string load_scenario(Settings& settings, const std::string& path);

// Integer parsing shared with the control commands: decimal, 0x hex or octal,
// optionally negative; false when the text is not entirely a number.
bool parse_int(std::string_view text, int64_t& value);

}  // namespace vmodem
