// The daemon's log: every message goes to the kernel log (so it interleaves
// with the cpif driver's lines) and to the Android radio log; while a crash
// dump is collected the dump messages also go to the dump's own log file.
// Also the debug settings that decide how much evidence is kept.
#pragma once

#include <cstddef>
#include <cstdint>

// Kernel log descriptor; standard output until "/dev/kmsg" is opened.
extern int kmsg_fd;

// How much evidence to collect: DBG_LOW, DBG_MID or DBG_HIGH.
inline constexpr int DBG_LOW = 0;
inline constexpr int DBG_MID = 1;
inline constexpr int DBG_HIGH = 2;
extern int32_t debug_level;

// Developer switch that changes the boot and crash flow.
inline constexpr int CP_DEBUG_NONE = 0;
inline constexpr int CP_DEBUG_HANG = 1;
inline constexpr int CP_DEBUG_NORESET = 2;
inline constexpr int CP_DEBUG_NOBOOT = 3;
inline constexpr int CP_DEBUG_SR_REPEAT = 4;
inline constexpr int CP_DEBUG_FORCE_UPLOAD = 5;
extern int32_t cp_debug;

// Where logs and dumps go.
inline constexpr size_t kLogDirLen = 512;
extern char log_dir[kLogDirLen];
inline constexpr const char kLogDir[] = "/data/vendor/log/rix";

// A kernel-log capture file: "<log_dir>/<name>_<local time to the second>.log".
inline constexpr char kCapturePathFormat[] = "%s/%s_%s.log";
inline constexpr char kCaptureStampFormat[] = "%Y%m%d%H%M_%S";
// Names of the captures the status loop starts, with the device prefix:
// after a CP reset, after a completed boot, when rild did not restart.
inline constexpr char kCaptureCpBoot[] = "cp_boot_%s";
inline constexpr char kCaptureCpBootDone[] = "cp_boot_done_%s";
inline constexpr char kCaptureRixOnly[] = "rix_only_%s";

// One kernel ring-buffer capture: bit 0 of flags asks for a time-stamped
// file name; name is the file's base name.
struct save_logs_args {
    int32_t flags;
    char name[64];
};

enum class LogLevel { Info, Error };
enum class LogCopy { TwoCopies, WithDumpLog };

// Emits one message in all its copies. `fn` is the function or step name
// printed after "rix: "; `fmt` is the message text with its own final newline.
void rix_log(LogLevel level, LogCopy copy, const char* fn, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Information and error messages named after the calling function, or after
// a named step (the _AS forms); the _DUMP forms also go to the dump log.
#define LOGI(...) rix_log(LogLevel::Info, LogCopy::TwoCopies, __func__, __VA_ARGS__)
#define LOGE(...) rix_log(LogLevel::Error, LogCopy::TwoCopies, __func__, __VA_ARGS__)
#define LOGI_AS(fn, ...) rix_log(LogLevel::Info, LogCopy::TwoCopies, fn, __VA_ARGS__)
#define LOGE_AS(fn, ...) rix_log(LogLevel::Error, LogCopy::TwoCopies, fn, __VA_ARGS__)
#define LOGI_DUMP(...) rix_log(LogLevel::Info, LogCopy::WithDumpLog, __func__, __VA_ARGS__)
#define LOGE_DUMP(...) rix_log(LogLevel::Error, LogCopy::WithDumpLog, __func__, __VA_ARGS__)
#define LOGI_DUMP_AS(fn, ...) rix_log(LogLevel::Info, LogCopy::WithDumpLog, fn, __VA_ARGS__)
#define LOGE_DUMP_AS(fn, ...) rix_log(LogLevel::Error, LogCopy::WithDumpLog, fn, __VA_ARGS__)

class Log {
  public:
    Log() = delete;

    // Closes the kernel log descriptor unless it is still standard output.
    static void kprintf_deinit();

    static void check_debug_cp_opt();
    static void check_debug_level();

    // Log directory with its free-space rule.
    static int create_log_directory();
    static int create_directory(const char* path);
    static int check_fs_log_directory();

    // Kernel ring-buffer captures.
    static void save_logs_thread(int flags, char* name);
    static void save_logs(int flags, char* name);
    static void* _save_logs(void* request);
};
