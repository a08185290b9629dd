// The NV check over arbitrary file bytes, in memory and through the file.
#include <cstdint>
#include <cstdlib>

#include "boot/nv.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char kPath[] = "/data/fuzz/nv_data.bin";
    fuzz::FdLeakCheck fds;
    const bool in_memory = CsumCheckForData(data, size);
    fuzz::write_file(kPath, data, size);
    const bool from_file = CsumCheckForFile(kPath);
    // A file the check reads whole must be judged as its bytes are.
    if (size >= 1 && size <= kNvMaxFileSize && in_memory != from_file) {
        abort();
    }
    return 0;
}
