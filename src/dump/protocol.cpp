// Not built yet.
#include "dump/protocol.h"
#include "boot/boot_dump.h"
#include "core/not_built.h"

int Protocol::std_ul_rx_frame(void*, unsigned) {
    NOT_BUILT();
    return -1;
}

int Protocol::std_udl_req_resp(operation, unsigned, unsigned) {
    NOT_BUILT();
    return -1;
}

int ProtocolTarn::std_boot_finish_handshake() {
    NOT_BUILT();
    return -1;
}

int ProtocolTarn::std_reboot_system(const char*) {
    NOT_BUILT();
    return -1;
}

int ProtocolTarn::std_udl_stage_start(operation, unsigned) {
    NOT_BUILT();
    return -1;
}

int ProtocolTarn::std_udl_stage_done(operation, unsigned) {
    NOT_BUILT();
    return -1;
}

int ProtocolTarn::std_udl_poll(operation, short, long) {
    NOT_BUILT();
    return -5;
}
