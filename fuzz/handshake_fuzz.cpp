// The boot loader's handshake answers, and the dump stage's START and DONE
// answers, as arbitrary words on a SOCK_SEQPACKET pair standing in for the
// boot and dump nodes. Input: one byte choosing the exchange, then the
// messages (see fuzz::split_messages).
#include <cstdint>
#include <cstdlib>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "dump/protocol.h"
#include "dump/udl.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    fuzz::select_modem();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    fuzz::FdLeakCheck fds;
    Container::bootDump->std_boot_init_args();
    Container::bootDump->std_dump_init_args();
    std_boot* b = Container::getStdBoot();
    std_dump* d = Container::getStdDump();
    Protocol* p = Container::protocol;
    {
        fuzz::CpFeed cp(fuzz::split_messages(data + 1, size - 1));
        b->fd = cp.ap();
        d->fd = cp.ap();
        switch (data[0] % 3) {
            case 0:
                (void)p->std_boot_finish_handshake();
                break;
            case 1:
                (void)p->std_udl_stage_start(OPERATION_DUMP, udl::kStageDump);
                (void)p->std_udl_stage_done(OPERATION_DUMP, udl::kStageDump);
                break;
            default:
                // A word the AP only writes, then one it waits for.
                (void)p->std_udl_req_resp(OPERATION_BOOT, 0, udl::stage_start_response(0));
                break;
        }
        b->fd = -1;
        d->fd = -1;
    }
    return 0;
}
