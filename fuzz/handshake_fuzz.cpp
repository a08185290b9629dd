// The boot loader's handshake answers, and the dump stage's START and DONE
// answers, as arbitrary words on a socket pair standing in for the boot and
// dump nodes. Input: a byte choosing the exchange, then the CP messages.
#include "dump/udl.h"
#include "fuzz_support.h"

void fuzz_one(fuzz::Input in) {
    const uint32_t exchange = in.le(1) % 3;
    Container::bootDump->std_boot_init_args();
    Container::bootDump->std_dump_init_args();
    Protocol* p = Container::protocol;
    fuzz::CpFeed cp(in.messages());
    Container::getStdBoot()->fd = Container::getStdDump()->fd = cp.ap;
    if (exchange == 0) {
        (void)p->std_boot_finish_handshake();
    } else if (exchange == 1) {
        (void)p->std_udl_stage_start(OPERATION_DUMP, udl::kStageDump);
        (void)p->std_udl_stage_done(OPERATION_DUMP, udl::kStageDump);
    } else {  // a word the AP only writes, then one it waits for
        (void)p->std_udl_req_resp(OPERATION_BOOT, 0, udl::stage_start_response(0));
    }
    Container::getStdBoot()->fd = Container::getStdDump()->fd = -1;
}
