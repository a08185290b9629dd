// The NV check over arbitrary file bytes, in memory and through the file.
#include "boot/nv.h"
#include "fuzz_support.h"

void fuzz_one(fuzz::Input in) {
    const bool in_memory = CsumCheckForData(in.data, in.size);
    fuzz::write_file("/data/fuzz/nv_data.bin", in.data, in.size);
    const bool from_file = CsumCheckForFile("/data/fuzz/nv_data.bin");
    fuzz::expect(in.size == 0 || in.size > kNvMaxFileSize || in_memory == from_file,
                 "a file read whole is judged as its bytes are");
}
