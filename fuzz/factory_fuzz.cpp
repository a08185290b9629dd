// The SIM count from an arbitrary /efs/factory.prop (the private /efs of the
// fuzzer's mount namespace).
#include <cstdint>
#include <cstdlib>

#include "dump/protocol.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::FdLeakCheck fds;
    fuzz::write_file("/efs/factory.prop", data, size);
    ProtocolTarn proto;
    const int count = proto.get_factory_prop();
    // One byte minus '0', or a refusal.
    if (count != -22 && (count < -'0' || count > 255 - '0')) {
        abort();
    }
    return 0;
}
