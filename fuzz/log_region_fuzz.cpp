// CP log-region reception over an arbitrary chunk stream on a SOCK_SEQPACKET
// pair standing in for the dump node. Input: the announced size (4 bytes,
// little-endian), then the chunks as messages (see fuzz::split_messages).
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "dump/log_dump.h"
#include "dump/protocol.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    fuzz::select_modem();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) {
        return 0;
    }
    fuzz::FdLeakCheck fds;
    uint32_t announced = 0;
    memcpy(&announced, data, sizeof(announced));
    Container::bootDump->std_dump_init_args();
    std_dump* d = Container::getStdDump();
    int ret;
    {
        fuzz::CpFeed cp(fuzz::split_messages(data + 4, size - 4));
        d->fd = cp.ap();
        ret = save_log_region("pmux0", announced);
        d->fd = -1;
    }
    // Success means the announced bytes all arrived; an empty region reads
    // nothing.
    if (ret > 0 && announced == 0) {
        abort();
    }
    fuzz::clear_dir(log_dir);
    return 0;
}
