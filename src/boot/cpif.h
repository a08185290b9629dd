// The cpif modem interface driver as rix sees it: every request code, every
// argument record and the boot modes. This header is the only place where the
// numbers live; the daemon and the virtual modem of the test bench both use it.
#pragma once

#include <linux/ioctl.h>

#include <cstddef>
#include <cstdint>

namespace cpif {

// All requests of this driver carry ioctl type 'o'.
inline constexpr unsigned kIoctlType = 'o';

}  // namespace cpif

enum cp_boot_mode : int32_t {
    CP_BOOT_MODE_NORMAL = 0,
    CP_BOOT_MODE_DUMP = 1,
};
static_assert(sizeof(cp_boot_mode) == 4);

// Argument of IOCTL_LOAD_CP_IMAGE. Packed: the driver expects 28 bytes, not
// the 32 that natural alignment of the leading 8-byte field would give.
struct __attribute__((packed)) cp_image {
    uint64_t image_buf;  // user address of this chunk (zero-extended on 32-bit)
    uint32_t size;       // total size of the image part (the stage's b_size)
    uint32_t m_offset;   // where this chunk goes in modem memory
    uint32_t b_offset;   // offset of the part within its source file
    uint32_t mode;       // cp_boot_mode of the boot in progress
    uint32_t len;        // bytes of this chunk
};
static_assert(sizeof(cp_image) == 28);
static_assert(offsetof(cp_image, image_buf) == 0);
static_assert(offsetof(cp_image, size) == 8);
static_assert(offsetof(cp_image, m_offset) == 12);
static_assert(offsetof(cp_image, b_offset) == 16);
static_assert(offsetof(cp_image, mode) == 20);
static_assert(offsetof(cp_image, len) == 24);

// The `mode` word of IOCTL_CHECK_SECURITY.
enum security_mode : uint32_t {
    SECURITY_MODE_BOOT_MAIN = 0,    // BOOT and MAIN sizes
    SECURITY_MODE_DUMP = 1,         // the dump boot loader
    SECURITY_MODE_NON_SECURE = 2,   // before anything is loaded
    SECURITY_MODE_TOC_VSS = 7,      // TOC or VSS: m_off and size of that part
    SECURITY_MODE_VSS_VERIFY = 12,  // VSS, always verified
};

// Results of IOCTL_CHECK_SECURITY that mean the secure check of the boot
// failed, compared as signed 32-bit values.
inline constexpr int32_t kSecureBootFailCodes[] = {
    static_cast<int32_t>(0xCAE20020),
    static_cast<int32_t>(0xD5D50F01),
    static_cast<int32_t>(0xFDAB0003),
    static_cast<int32_t>(0xFEED0002),
    0x00050E00,
    0x00050F01,
    0x00FEED02,
    0x00FEED04,
};

// Argument of IOCTL_CHECK_SECURITY; param4 is always 0.
struct security_req_args {
    uint32_t mode;
    uint32_t param2;
    uint32_t param3;
    uint32_t param4;
};
static_assert(sizeof(security_req_args) == 16);
static_assert(offsetof(security_req_args, mode) == 0);
static_assert(offsetof(security_req_args, param2) == 4);
static_assert(offsetof(security_req_args, param3) == 8);
static_assert(offsetof(security_req_args, param4) == 12);

// Argument of IOCTL_GET_CP_CRASH_REASON: who crashed the CP and the driver's
// text, which need not be terminated.
struct cp_crash_reason {
    int32_t owner;
    char reason[512];
};
static_assert(sizeof(cp_crash_reason) == 516);
static_assert(offsetof(cp_crash_reason, owner) == 0);
static_assert(offsetof(cp_crash_reason, reason) == 4);

// Argument of IOCTL_GET_LOG_DUMP: name and idx in, size out.
struct cp_log_dump_info {
    char name[32];
    uint32_t idx;
    uint32_t size;
};
static_assert(sizeof(cp_log_dump_info) == 40);
static_assert(offsetof(cp_log_dump_info, name) == 0);
static_assert(offsetof(cp_log_dump_info, idx) == 32);
static_assert(offsetof(cp_log_dump_info, size) == 36);

// Argument of IOCTL_GET_NUM_LOG_DUMP: idx in, num_dump out.
struct cp_log_dump_num {
    uint32_t idx;
    uint32_t num_dump;
};
static_assert(sizeof(cp_log_dump_num) == 8);
static_assert(offsetof(cp_log_dump_num, idx) == 0);
static_assert(offsetof(cp_log_dump_num, num_dump) == 4);

// Kinds of CP log region the driver can hand over on the dump node.
enum cp_log_dump_index : uint32_t {
    CP_LOG_DUMP_IDX_SHMEM = 0,
    CP_LOG_DUMP_IDX_VSS = 1,
    CP_LOG_DUMP_IDX_PMUX = 2,
    CP_LOG_DUMP_IDX_CP_BTL = 3,
    CP_LOG_DUMP_IDX_DATABUF = 4,
    CP_LOG_DUMP_IDX_L2B = 5,
    CP_LOG_DUMP_IDX_DDM = 6,
};

// The silent-reset record exchanged by IOCTL_GET_SRINFO / IOCTL_SET_SRINFO.
// On a fetch len is the room in data; the driver replaces it by the number of
// valid bytes.
inline constexpr size_t kSrinfoBlockSize = 4096;
struct srinfo_block {
    uint32_t len;
    uint8_t data[kSrinfoBlockSize - 4];
};
static_assert(sizeof(srinfo_block) == kSrinfoBlockSize);
static_assert(offsetof(srinfo_block, len) == 0);
static_assert(offsetof(srinfo_block, data) == 4);
// "JVER" read as a little-endian word at data offset 18.
inline constexpr uint32_t kSrinfoMarker = 0x5245564A;
inline constexpr size_t kSrinfoMarkerOffset = 18;

// Length of the driver's version text (IOCTL_GET_CPIF_VERSION).
inline constexpr size_t kCpifVersionLen = 20;

// Request codes. Four of them are numbered _IO yet pass a pointer that the
// driver reads or fills: ENTER_UPLOAD_MODE, GET_SRINFO, SET_SRINFO and
// GET_BTL_SIZE.
#define IOCTL_POWER_ON _IO('o', 0x19)
#define IOCTL_POWER_OFF _IO('o', 0x20)
#define IOCTL_POWER_RESET _IOW('o', 0x21, int32_t)
#define IOCTL_START_CP_BOOTLOADER _IOW('o', 0x22, int32_t)
#define IOCTL_COMPLETE_NORMAL_BOOTUP _IO('o', 0x23)
#define IOCTL_GET_MODEM_STATE _IO('o', 0x27)
#define IOCTL_SET_MINIDUMP_MODE _IOW('o', 0x29, uint8_t)
#define IOCTL_ENTER_UPLOAD_MODE _IO('o', 0x35)
#define IOCTL_TRIGGER_AP_WDTRESET _IO('o', 0x36)
#define IOCTL_LOAD_CP_IMAGE _IOW('o', 0x40, cp_image)
#define IOCTL_GET_SRINFO _IO('o', 0x45)
#define IOCTL_SET_SRINFO _IO('o', 0x46)
#define IOCTL_NOTIFY_BOOTUP_FAIL _IO('o', 0x47)
#define IOCTL_NOTIFY_BOOTUP_DONE _IO('o', 0x48)
#define IOCTL_GET_LOG_DUMP _IOWR('o', 0x52, cp_log_dump_info)
#define IOCTL_CHECK_SECURITY _IOW('o', 0x53, security_req_args)
#define IOCTL_GET_CP_CRASH_REASON _IOR('o', 0x55, cp_crash_reason)
#define IOCTL_GET_CPIF_VERSION _IOR('o', 0x56, char[kCpifVersionLen])
#define IOCTL_GET_RFBOARD_DISCONNECT _IO('o', 0x57)
#define IOCTL_GET_NUM_LOG_DUMP _IOR('o', 0x58, cp_log_dump_num)
#define IOCTL_GET_BTL_SIZE _IO('o', 0x59)
#define IOCTL_SET_BTL_SIZE _IOW('o', 0x60, int32_t)

static_assert(IOCTL_POWER_ON == 0x00006f19);
static_assert(IOCTL_POWER_OFF == 0x00006f20);
static_assert(IOCTL_POWER_RESET == 0x40046f21);
static_assert(IOCTL_START_CP_BOOTLOADER == 0x40046f22);
static_assert(IOCTL_COMPLETE_NORMAL_BOOTUP == 0x00006f23);
static_assert(IOCTL_GET_MODEM_STATE == 0x00006f27);
static_assert(IOCTL_SET_MINIDUMP_MODE == 0x40016f29);
static_assert(IOCTL_ENTER_UPLOAD_MODE == 0x00006f35);
static_assert(IOCTL_TRIGGER_AP_WDTRESET == 0x00006f36);
static_assert(IOCTL_LOAD_CP_IMAGE == 0x401c6f40);
static_assert(IOCTL_GET_SRINFO == 0x00006f45);
static_assert(IOCTL_SET_SRINFO == 0x00006f46);
static_assert(IOCTL_NOTIFY_BOOTUP_FAIL == 0x00006f47);
static_assert(IOCTL_NOTIFY_BOOTUP_DONE == 0x00006f48);
static_assert(IOCTL_GET_LOG_DUMP == 0xc0286f52);
static_assert(IOCTL_CHECK_SECURITY == 0x40106f53);
static_assert(IOCTL_GET_CP_CRASH_REASON == 0x82046f55);
static_assert(IOCTL_GET_CPIF_VERSION == 0x80146f56);
static_assert(IOCTL_GET_RFBOARD_DISCONNECT == 0x00006f57);
static_assert(IOCTL_GET_NUM_LOG_DUMP == 0x80086f58);
static_assert(IOCTL_GET_BTL_SIZE == 0x00006f59);
static_assert(IOCTL_SET_BTL_SIZE == 0x40046f60);

// Modem states reported by IOCTL_GET_MODEM_STATE that the status loop acts on.
inline constexpr int STATE_OFFLINE = 0;
inline constexpr int STATE_CRASH_RESET = 1;
inline constexpr int STATE_CRASH_EXIT = 2;
inline constexpr int STATE_CRASH_WATCHDOG = 9;
