// CP log-region reception over an arbitrary chunk stream on a socket pair
// standing in for the dump node. Input: the announced size (4 bytes), then
// the chunks as CP messages.
#include "dump/log_dump.h"
#include "fuzz_support.h"

void fuzz_one(fuzz::Input in) {
    const uint32_t announced = in.le(4);
    Container::bootDump->std_dump_init_args();
    fuzz::CpFeed cp(in.messages());
    Container::getStdDump()->fd = cp.ap;
    const int ret = save_log_region("pmux0", announced);
    Container::getStdDump()->fd = -1;
    // Success means the announced bytes all arrived: an empty region reads nothing.
    fuzz::expect(ret <= 0 || announced != 0, "an empty region read");
    std::filesystem::remove_all(log_dir);  // the region files, time-stamped
    mkdir(log_dir, 0755);
}
