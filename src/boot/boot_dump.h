// The boot/dump controller: boots the CP through the driver and collects its
// crash dump. One object exists, reached through Container::bootDump.
#pragma once

#include "boot/cpif.h"
#include "core/rix.h"

class BootDump {
  public:
    virtual ~BootDump() = default;

    virtual int boot() = 0;
    virtual int dump() = 0;
    virtual void set_sim_configuration();
    virtual int get_modem_state(int fd);
    virtual int get_rfboard_disconnect();
    virtual int set_minidump_mode();
    virtual int forceUpload(const char* reason);
    virtual std_boot* getStdBoot() = 0;
    virtual std_dump* getStdDump() = 0;
    virtual void setRixArgs(char* name) = 0;
    virtual int get_log_dump(const char* name, cp_log_dump_index idx);
    virtual int get_num_log_dump(cp_log_dump_index idx, unsigned* count);
    virtual void build_std_dload_control() = 0;
    virtual void build_std_dload_control_nv_fd(unsigned stage_index, unsigned toc_index);
    virtual bool prepare_boot_args(cp_boot_mode mode) = 0;
    virtual bool std_boot_prepare_args();
    virtual bool std_boot_parse_toc_img(cp_boot_mode mode, unsigned* count);
    virtual void std_boot_close_args();
    virtual int std_boot_power_on();
    virtual int std_boot_power_reset(cp_boot_mode mode);
    virtual int std_boot_start_cp_bootloader(cp_boot_mode mode);
    virtual int std_boot_complete_normal_bootup();
    virtual bool std_dump_prepare_args();
    virtual void std_dump_close_args();
    virtual int std_dump_receive_cp_dump();
    virtual int std_dump_upload();
    virtual int upload(int fd);
    virtual int std_dump_write_versions();
    virtual void std_boot_init_args();
    virtual void std_dump_init_args();

    // The boot record's boot-node descriptor, or -1 while the record is
    // still the constructor's zero-fill (no boot was ever prepared).
    int std_boot_node_fd();
};

class BootDumpQuoll : public BootDump {
  public:
    BootDumpQuoll();

    int boot() override;
    int dump() override;
    std_boot* getStdBoot() override;
    std_dump* getStdDump() override;
    void setRixArgs(char* name) override;
    void build_std_dload_control() override;
    bool prepare_boot_args(cp_boot_mode mode) override;

    int load_cp_images(cp_boot_mode mode);
    int std_security_req(unsigned mode, unsigned param2, unsigned param3);
    void boot_wake_lock(int lock);

  private:
    int boot_prepared();
    int dump_attempt();

    std_boot boot_args_;
    std_dump dump_args_;
};

// Waits for the NV files to be validated; `pause` sleeps 100 ms. Returns
// "done" or "TIMEOUT".
const char* wait_nv_validation(void (*pause)());

// Powers the CP off for a platform shutdown.
void shutdown();

// The process-wide crash-reason text handed to the upload-mode request; at
// most 512 bytes of it are ever written, terminator included.
inline constexpr size_t kCrashReasonLen = 515;
inline constexpr size_t kCrashReasonMax = 512;
extern char crash_reason[kCrashReasonLen];

// Dump attempts since the last boot.
extern int dump_try_cnt;
