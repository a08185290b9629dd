// Start-up, the endless boot cycle and the status loop that watches the CP.
#include "core/daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "core/util.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "platform/properties.h"

namespace {

constexpr const char kMain[] = "main";
constexpr const char kLoop[] = "status_loop";
constexpr const char kBtl[] = "adjust_btl_ramsize";
constexpr const char kMemshareNode[] = "/dev/ramdump_memshare";

// Names handed to the kernel log capture are built in buffers of this size.
constexpr size_t kCaptureNameLen = 64;

enum class LoopEnd { Continue, Exit };

void sleep_seconds(unsigned s) {
    timespec left = {static_cast<time_t>(s), 0};
    while (nanosleep(&left, &left) != 0) {
    }
}

[[noreturn]] void sleep_forever() {
    for (;;) {
        sleep_seconds(255);
    }
}

BootDump* controller() {
    return Container::bootDump;
}

bool first_char_is_one(const char* key, const char* def) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key, value, def);
    return value[0] == '1';
}

void start_capture(const char* fmt) {
    char name[kCaptureNameLen] = {};
    snprintf(name, sizeof(name), fmt, rix_args.dev_prefix);
    Log::save_logs_thread(1, name);
}

void force_upload(const char* fn, const char* reason) {
    int ret = controller()->forceUpload(reason);
    if (ret != 0) {
        LOGI_AS(fn, "forceUpload() error %d\n", ret);
    }
}

// Sizes the driver's back-trace log area from "persist.vendor.rix.btl_size"
// (MiB) and writes back what the driver granted. Only a failure to write the
// property counts.
int adjust_btl_ramsize() {
    char value[PROPERTY_VALUE_MAX] = {};
    int fd = open(kMemshareNode, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        LOGE_AS(kBtl, "ERR! (%s) open fail\n", kMemshareNode);
    } else {
        // MiB to bytes in 32 bits, as the driver takes it: 4096 MiB wraps to 0.
        uint32_t size = static_cast<uint32_t>(property_get_int32("persist.vendor.rix.btl_size", 0))
                        << 20;
        LOGI_AS(kBtl, "persist.vendor.rix.btl_size 0x%08x\n", size);
        if (ioctl(fd, IOCTL_SET_BTL_SIZE, &size) < 0) {
            LOGE_AS(kBtl, "Failed to IOCTL_SET_BTL_SIZE\n");
        }
        if (ioctl(fd, IOCTL_GET_BTL_SIZE, &size) < 0) {
            LOGE_AS(kBtl, "Failed to IOCTL_GET_BTL_SIZE\n");
        } else {
            snprintf(value, sizeof(value), "%d", static_cast<int>(size >> 20));
        }
        close(fd);
    }
    if (property_set("persist.vendor.rix.btl_size", value) != 0) {
        LOGE_AS(kBtl, "Failed to set btl_size property to %s\n", value);
        LOGE_AS(kMain, "adjust btl ramsize fail\n");
        return -1;
    }
    return 0;
}

// The CP went down while it was being booted: collect its dump once.
void boot_failure() {
    LOGI_AS(kMain, "start boot fail\n");
    if (debug_level == 0 || cp_debug != 0) {
        return;
    }
    // A first answer of 9 does not count; only a second read may give 9.
    if (controller()->get_modem_state(-1) != 2 && controller()->get_modem_state(-1) != 9) {
        return;
    }
    LOGI_AS(kMain, "CP Crash when CP booting..\n");
    int ret = Log::create_log_directory();
    if (ret == -28) {
        force_upload(kMain, "Not enough freespace");
    } else if (ret != 0) {
        return;
    }
    controller()->dump();
}

void crash_handling() {
    // A debug level changed since start applies to this crash.
    Log::check_debug_level();
    if (cp_debug == CP_DEBUG_FORCE_UPLOAD) {
        force_upload(kLoop, "Force upload");
    }
    if (debug_level == DBG_LOW) {
        bool minidump = (rix_args.options & BOPT_MINIDUMP) != 0 &&
                        (property_get_int32("persist.sys.enable_minidump0", 0) == 1 ||
                         property_get_int32("persist.sys.enable_minidump1", 0) == 1);
        if (!minidump) {
            LOGI_AS(kLoop, "DBG_LOW, wait onrestart by rild\n");
            sleep_seconds(3);
            return;
        }
    }
    if (cp_debug != 0) {
        return;
    }
    LOGI_AS(kLoop, "CP status CRASH\n");
    int ret = Log::create_log_directory();
    if (ret == -28) {
        force_upload(kLoop, "Not enough freespace");
    } else if (ret != 0) {
        return;
    }
    for (int attempt = 1; attempt <= 7; attempt++) {
        if (controller()->dump() >= 0) {
            break;
        }
        LOGI_AS(kLoop, "start_dump fail\n");
        if (attempt < 7) {
            sleep_seconds(1);
        }
    }
    LOGI_AS(kLoop, "CP status RESET\n");
}

void crash_reset_handling() {
    if (cp_debug == CP_DEBUG_FORCE_UPLOAD) {
        force_upload(kLoop, "Force upload");
    }
    if (cp_debug != 0) {
        return;
    }
    LOGI_AS(kLoop, "STATE_CRASH_RESET, wait onrestart by rild\n");
    sleep_seconds(3);
    LOGI_AS(kLoop, "RILD dosenot restart for 3sec, save logs\n\n");
    if (debug_level != 0) {
        start_capture(kCaptureRixOnly);
    }
    sleep_seconds(27);
}

void count_loop_start() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get("vendor.rix.cp_reset", value, "0");
    // Decimal with atoi's leniency ("7x" is 7, text is 0); the sum is taken
    // in 64 bits and wraps like the 32-bit counter it is.
    long long next = static_cast<int>(strtol(value, nullptr, 10)) + 1LL;
    snprintf(value, sizeof(value), "%d", static_cast<int32_t>(static_cast<uint32_t>(next)));
    property_set("vendor.rix.cp_reset", value);
}

// Shutdown seen in the loop: power the CP off, tell the platform, park.
void check_shutdown_in_loop() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get("sys.shutdown.requested", value, "0");
    LOGI_AS(kLoop, "deviceOff = %s\n", value);
    if (value[0] != '1') {
        return;
    }
    LOGI_AS(kLoop, "deviceOff = %s\n", value);
    LOGI_AS(kLoop, "shutdown\n");
    shutdown();
    property_set("vendor.rix.deviceOffRes", "1");
    sleep_forever();
}

// Waits for a hang-up on the boot node. Returns false when there is nothing
// to wait on: without a descriptor no event can ever come, so the loop ends
// and the cycle tries again.
bool wait_hangup(int fd) {
    if (fd < 0) {
        return false;
    }
    for (;;) {
        pollfd p = {fd, POLLHUP, 0};
        int ret = poll(&p, 1, -1);
        if (ret > 0 && (p.revents & POLLHUP) != 0) {
            return true;
        }
        // An error condition without a hang-up would otherwise make this an
        // endless busy loop; look again a second later.
        if (ret < 0 || (p.revents & (POLLERR | POLLNVAL)) != 0) {
            sleep_seconds(1);
        }
    }
}

void status_loop() {
    LOGI_AS(kLoop, "CP status_loop start (modem = %d)\n", rix_args.modem_type);
    int fd = open(rix_args.boot_node_path, O_RDWR | O_CLOEXEC);
    bool run = true;
    if (fd < 0) {
        LOGE_AS(kLoop, "%s open fail\n", rix_args.boot_node_path);
        if (debug_level == 0) {
            run = false;
        } else if (cp_debug == 0) {
            LOGI_AS(kLoop, "%s open fail, err = %d\n", rix_args.boot_node_path, fd);
            if (controller()->dump() < 0) {
                LOGI_AS(kLoop, "start_dump fail\n");
            }
            run = false;
        }
    }
    if (run) {
        count_loop_start();
        if (debug_level != 0 && cp_debug == 0) {
            if (first_char_is_one("vendor.rix.boot_done", "0")) {
                start_capture(kCaptureCpBootDone);
            }
            property_set("vendor.rix.reset_done", "1");
        }
        property_set("vendor.rix.boot_done", "1");
        if (debug_level != 0 && cp_debug == CP_DEBUG_SR_REPEAT) {
            LOGI_AS(kLoop, "CP Silent reset repeat\n");
            pollfd p = {fd, POLLHUP, 0};
            poll(&p, 1, 50000);
            run = false;
        }
    }
    if (run) {
        LOGI_AS(kLoop, "Wait event from modem type: %d\n", rix_args.modem_type);
        while (wait_hangup(fd)) {
            int state = ioctl(fd, IOCTL_GET_MODEM_STATE);
            check_shutdown_in_loop();
            LOGI_AS(kLoop, "get event %d\n", state);
            if (state == STATE_CRASH_EXIT || state == STATE_CRASH_WATCHDOG) {
                crash_handling();
                break;
            }
            if (state == STATE_CRASH_RESET) {
                crash_reset_handling();
                break;
            }
            LOGI_AS(kLoop, "unknown Modem status\n");
        }
    }
    if (fd >= 0) {
        close(fd);
    }
    LOGI_AS(kLoop, "status loop exit\n");
}

// Whether this cycle may boot the CP, by the CP debug option.
bool boot_allowed_by_debug() {
    if (debug_level == 0) {
        return true;
    }
    if (cp_debug == CP_DEBUG_NORESET) {
        if (first_char_is_one("vendor.rix.cpboot", "")) {
            LOGI_AS(kMain, "CP_DEBUG NORESET\n");
            return false;
        }
        LOGI_AS(kMain, "CP_DEBUG NORESET prop set\n");
        property_set("vendor.rix.cpboot", "1");
    } else if (cp_debug == CP_DEBUG_NOBOOT) {
        LOGI_AS(kMain, "CP_DEBUG NOBOOT\n");
        return false;
    }
    if (first_char_is_one("vendor.rix.reset_done", "")) {
        start_capture(kCaptureCpBoot);
        property_set("vendor.rix.reset_done", "0");
    }
    return true;
}

// One turn of the boot cycle. Returns Exit after a one-shot boot.
LoopEnd boot_cycle() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get("sys.shutdown.requested", value, "0");
    if (value[0] == '1') {
        LOGI_AS(kMain, "deviceOff = %s\n", value);
        shutdown();
        sleep_forever();
    }
    if (boot_allowed_by_debug()) {
        if (controller()->get_rfboard_disconnect() == 1) {
            LOGE_AS(kMain, "goto skip cpboot");
        } else {
            LOGI_AS(kMain, "Call boot start\n");
            LOGI_AS(kMain, "Modem type = %d\n", rix_args.modem_type);
            if (controller()->boot() < 0) {
                boot_failure();
                return LoopEnd::Continue;
            }
        }
    }
    LOGI_AS(kMain, "Boot up process done!!!\n");
    if (rix_args.daemon_mode == 0) {
        LOGI_AS(kLoop, "Cp boot Oneshot\n");
        Log::kprintf_deinit();
        return LoopEnd::Exit;
    }
    status_loop();
    return LoopEnd::Continue;
}

void cycle_end() {
    if (cp_debug == CP_DEBUG_HANG) {
        LOGI_AS(kMain, "hang rix for debugging\n");
        sleep_forever();
    }
    sleep_seconds(1);
}

// Start-up up to the first boot cycle. Returns false when the daemon must go
// straight to the cycle end.
bool start_up() {
    if (rix_args.options & BOPT_UPLOAD_TEST) {
        // Runs with root: the upload test needs no user switch.
        LOGI_AS(kMain, "\n\n ---- upload ----\n\n");
        sleep_seconds(5);
        if (controller()->dump() < 0) {
            LOGI_AS(kMain, "start boot fail\n");
        }
        return false;
    }
    if (rix_args.options & BOPT_RUN_WITH_ROOT) {
        LOGI_AS(kMain, "Start with root\n");
    } else {
        Util::switch_user();
    }
    return adjust_btl_ramsize() == 0;
}

}  // namespace

int rix_main(int argc, char** argv) {
    umask(002);
    kmsg_fd = open("/dev/kmsg", O_RDWR | O_CLOEXEC);
    Log::check_debug_cp_opt();
    Log::check_debug_level();
    memset(log_dir, 0, sizeof(log_dir));
    snprintf(log_dir, sizeof(log_dir), "%s", kLogDir);
    LOGI_AS(kMain, "Start Velmora v3 (RIX) %s\n", kRixVersion);
    Container::protocol = new ProtocolTarn();
    if (Container::parseArgs(argc, argv) != 0) {
        return -22;
    }
    if (rix_args.modem_type == 0) {
        // Nothing can follow without a controller: end as for a refused
        // command line.
        LOGI_AS(kMain, "Invaild modem type %d\n", rix_args.modem_type);
        sleep_seconds(1);
        return -22;
    }
    bool boot_next = start_up();
    for (;;) {
        if (boot_next && boot_cycle() == LoopEnd::Exit) {
            return 0;
        }
        cycle_end();
        boot_next = true;
    }
}
