// The upload/download protocol with the CP boot loader on the boot and dump
// nodes. One object exists, reached through Container::protocol.
#pragma once

// A fixed underlying type: any value other than OPERATION_BOOT is a valid
// selector of the dump node.
enum operation : int {
    OPERATION_BOOT = 0,
    OPERATION_DUMP = 1,
};

class Protocol {
  public:
    virtual ~Protocol() = default;

    virtual int std_boot_finish_handshake() = 0;
    virtual int std_dump_receive_cp_dump() = 0;
    virtual int std_reboot_system(const char* reason) = 0;
    virtual int std_udl_stage_start(operation op, unsigned stage) = 0;
    virtual int std_udl_stage_done(operation op, unsigned stage) = 0;
    virtual int std_ul_rx_frame(void* buf, unsigned count);
    virtual bool check_dmx_sales_code() = 0;
    virtual int get_factory_prop() = 0;
    virtual int std_udl_poll(operation op, short events, long timeout_ms) = 0;
    virtual int std_udl_req_resp(operation op, unsigned request, unsigned expected);
    virtual void make_cp_crash_reason(char* reason);
};

class ProtocolTarn : public Protocol {
  public:
    int std_boot_finish_handshake() override;
    int std_dump_receive_cp_dump() override;
    int std_reboot_system(const char* reason) override;
    int std_udl_stage_start(operation op, unsigned stage) override;
    int std_udl_stage_done(operation op, unsigned stage) override;
    bool check_dmx_sales_code() override;
    int get_factory_prop() override;
    int std_udl_poll(operation op, short events, long timeout_ms) override;
};
