// The registry of the daemon's one object of each class, the process-wide
// configuration record and the two argument records of a boot and a dump.
#pragma once

#include <cstddef>
#include <cstdint>

// Option bits of rix_args.options, one per "-o" letter.
inline constexpr uint32_t BOPT_RUN_WITH_ROOT = 0x100;  // r: keep root
inline constexpr uint32_t BOPT_VERIFY_VSS = 0x200;     // v: always verify VSS
inline constexpr uint32_t BOPT_REINIT_VSS = 0x400;     // s: send VSS at every boot
inline constexpr uint32_t BOPT_MINIDUMP = 0x800;       // m: minidump support
inline constexpr uint32_t BOPT_NV_CHECKSUM = 0x1000;   // c: verify the NV file
inline constexpr uint32_t BOPT_UPLOAD_TEST = 0x10000;  // u: upload test at start

inline constexpr size_t kNodePathLen = 32;
inline constexpr size_t kPathLen = 512;
inline constexpr size_t kModemNameLen = 32;

// The daemon's configuration, filled by the command line.
struct rix_args {
    int32_t modem_type;
    int32_t daemon_mode;
    char modem_name[kModemNameLen];
    const char* dev_prefix;
    char boot_node[kNodePathLen];
    char* boot_node_path;
    char dump_node[kNodePathLen];
    char partition_path[kPathLen];
    char nv_data_path[kPathLen];
    char nv_norm_path[kPathLen];
    char nv_prot_path[kPathLen];
    char nv_temp_path[kPathLen];
    int32_t last_stage;
    int32_t toc_mode;
    uint32_t options;
};
static_assert(offsetof(struct rix_args, modem_type) == 0);
static_assert(offsetof(struct rix_args, daemon_mode) == 4);
static_assert(offsetof(struct rix_args, modem_name) == 8);
static_assert(offsetof(struct rix_args, dev_prefix) == 40);
static_assert(offsetof(struct rix_args, boot_node) == 40 + sizeof(const char*));
static_assert(offsetof(struct rix_args, boot_node_path) ==
              offsetof(struct rix_args, boot_node) + kNodePathLen);
static_assert(offsetof(struct rix_args, dump_node) ==
              offsetof(struct rix_args, boot_node_path) + sizeof(char*));
static_assert(offsetof(struct rix_args, partition_path) ==
              offsetof(struct rix_args, dump_node) + kNodePathLen);
static_assert(offsetof(struct rix_args, nv_data_path) ==
              offsetof(struct rix_args, partition_path) + kPathLen);
static_assert(offsetof(struct rix_args, nv_norm_path) ==
              offsetof(struct rix_args, nv_data_path) + kPathLen);
static_assert(offsetof(struct rix_args, nv_prot_path) ==
              offsetof(struct rix_args, nv_norm_path) + kPathLen);
static_assert(offsetof(struct rix_args, nv_temp_path) ==
              offsetof(struct rix_args, nv_prot_path) + kPathLen);
static_assert(offsetof(struct rix_args, last_stage) ==
              offsetof(struct rix_args, nv_temp_path) + kPathLen);
static_assert(offsetof(struct rix_args, toc_mode) == offsetof(struct rix_args, last_stage) + 4);
static_assert(offsetof(struct rix_args, options) == offsetof(struct rix_args, toc_mode) + 4);

extern struct rix_args rix_args;

// One load-control entry: how to send TOC entry `stage` to the CP.
struct std_dload_control {
    uint32_t stage;
    uint32_t reserved[4];
    uint32_t fd;  // descriptor to read from; 0xFFFFFFFF (-1) for none
    uint32_t b_off;
    uint32_t m_off;
    uint32_t b_size;
    uint32_t crc;
    uint32_t xmit_once;
};
static_assert(sizeof(std_dload_control) == 44);
static_assert(offsetof(std_dload_control, stage) == 0);
static_assert(offsetof(std_dload_control, reserved) == 4);
static_assert(offsetof(std_dload_control, fd) == 20);
static_assert(offsetof(std_dload_control, b_off) == 24);
static_assert(offsetof(std_dload_control, m_off) == 28);
static_assert(offsetof(std_dload_control, b_size) == 32);
static_assert(offsetof(std_dload_control, crc) == 36);
static_assert(offsetof(std_dload_control, xmit_once) == 40);

inline constexpr size_t kTocSize = 512;
inline constexpr size_t kStageSlots = 13;
inline constexpr int kBootDescriptors = 8;
inline constexpr int kDumpDescriptors = 8;

// State of one boot attempt.
struct std_boot {
    int32_t fd;
    int32_t bin_fd;
    int32_t nv_fd;
    int32_t fd_spare[5];
    uint32_t last_stage;
    uint32_t first_stage;
    int32_t toc_idx_toc;
    int32_t toc_idx_boot;
    int32_t toc_idx_main;
    int32_t toc_idx_vss;
    int32_t toc_idx_nv_norm;
    int32_t toc_idx_nv_prot;
    int32_t toc_idx_nv;
    int32_t toc_idx_offset;
    uint8_t toc[kTocSize];
    std_dload_control stage[kStageSlots];
};
static_assert(sizeof(std_boot) == 1156);
static_assert(offsetof(std_boot, fd) == 0);
static_assert(offsetof(std_boot, bin_fd) == 4);
static_assert(offsetof(std_boot, nv_fd) == 8);
static_assert(offsetof(std_boot, fd_spare) == 12);
static_assert(offsetof(std_boot, last_stage) == 32);
static_assert(offsetof(std_boot, first_stage) == 36);
static_assert(offsetof(std_boot, toc_idx_toc) == 40);
static_assert(offsetof(std_boot, toc_idx_offset) == 68);
static_assert(offsetof(std_boot, toc) == 72);
static_assert(offsetof(std_boot, stage) == 584);

// State of one dump attempt.
struct std_dump {
    int32_t fd;
    int32_t fd_spare[4];
    int32_t log_fd;
    int32_t info_fd;
    int32_t dump_fd;
    uint32_t dump_size;  // the CP's 12-byte INFO message lands on these three
    uint32_t num_steps;
    uint32_t reason_len;
    char reason[512];
};
static_assert(sizeof(std_dump) == 556);
static_assert(offsetof(std_dump, fd) == 0);
static_assert(offsetof(std_dump, fd_spare) == 4);
static_assert(offsetof(std_dump, log_fd) == 20);
static_assert(offsetof(std_dump, info_fd) == 24);
static_assert(offsetof(std_dump, dump_fd) == 28);
static_assert(offsetof(std_dump, dump_size) == 32);
static_assert(offsetof(std_dump, num_steps) == 36);
static_assert(offsetof(std_dump, reason_len) == 40);
static_assert(offsetof(std_dump, reason) == 44);

class BootDump;
class Protocol;
class Srinfo;

// Static registry through which every part of the daemon reaches the one
// controller, protocol object and silent-reset object.
class Container {
  public:
    Container() = delete;

    static int parseArgs(int argc, char** argv);
    static std_boot* getStdBoot();
    static std_dump* getStdDump();

    // Drops the objects and the configuration so that options can be read
    // afresh (unit tests; the daemon itself parses once).
    static void reset();

    static BootDump* bootDump;
    static Protocol* protocol;
    static Srinfo* srinfo;
};

inline constexpr const char kRixVersion[] = "RIX-V3-20250515R1";
