// The names of the files rix leaves in its log directory, recognised with the
// very formats the daemon names them with (file names and time stamps).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace evidence {

enum class Kind {
    DumpLog,      // cpcrash_<prefix>_log_<stamp>.log
    Info,         // cpcrash_<prefix>_info_<modem>_<stamp>.log
    Dump,         // cpcrash_<prefix>_dump_<stamp>.log
    Region,       // cpcrash_<region>_dump_<prefix>_<stamp>.log
    KlogBefore,   // kernel log before a dump
    KlogAfter,    // kernel log after a received dump
    KlogFail,     // kernel log after a failed attempt
    BootCapture,  // kernel log of the status loop (CP reset, boot done, rild)
    SrLog,        // silent-reset hex log
    SrBackup,     // its backup
    SrLast,       // the silent-reset text waiting to be handed back (err directory)
    Unknown,
};

// What a file name says.
struct Name {
    Kind kind = Kind::Unknown;
    std::string prefix;  // the device prefix ("umts")
    std::string what;    // region name, modem name or capture name
    std::string stamp;   // the time stamp as written
    int64_t time = 0;    // that time in seconds; only order and distance count
};

Name classify(std::string_view file);

// A time stamp in `format` (a strftime format of the daemon) read back into
// seconds; nothing unless the text is exactly what the format makes.
std::optional<int64_t> read_stamp(std::string_view text, const char* format);

// "2026-11-16 14:58:35".
std::string show_time(int64_t t);

// Bytes from a file shown as text: printable ASCII as it is, the rest \xNN.
std::string printable(std::string_view bytes);

}  // namespace evidence
