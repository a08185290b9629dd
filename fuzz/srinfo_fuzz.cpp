// The silent-reset block as the driver might hand it over (checks, last-file
// text, hex rows), and the hand-back from an arbitrary last file.
// Input: the block (len word and data, zero-filled to the block's size).
#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "boot/cpif.h"
#include "core/rix.h"
#include "fuzz_support.h"
#include "srinfo/srinfo.h"

namespace {

int null_fd() {
    int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        fuzz::die("/dev/null");
    }
    return fd;
}

// A file that takes writes and fsync, as the hex log and the last file do.
int scratch_fd() {
    int fd = memfd_create("srinfo", MFD_CLOEXEC);
    if (fd < 0) {
        fuzz::die("memfd_create");
    }
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    fuzz::select_modem();
    mkdir("/data/vendor", 0755);
    mkdir("/data/vendor/log", 0755);
    mkdir("/data/vendor/log/rix", 0755);
    mkdir(kSrinfoErrDir, 0755);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::FdLeakCheck fds;
    srinfo_block* block = static_cast<srinfo_block*>(calloc(1, sizeof(srinfo_block)));
    memcpy(block, data, size < sizeof(*block) ? size : sizeof(*block));
    const uint32_t raw_len = block->len;

    SrinfoTarn sr;
    int out = scratch_fd();
    // The hex log takes any len the driver claims: it must stay in the block.
    (void)sr.write_srinfo_file(out, reinterpret_cast<char*>(block->data), raw_len);
    unsigned int len = 0;
    if (srinfo_check_block(block, &len)) {
        if (len > kSrinfoDataLen) {
            abort();
        }
        const size_t text = srinfo_text_len(block);
        if (text > kSrinfoDataLen - kSrinfoTextOffset) {
            abort();
        }
        (void)write_srinfo_last(out, block);
        (void)sr.write_srinfo_file(out, reinterpret_cast<char*>(block->data), len);
    }
    // The hex log above formats every row below the length; these are the
    // rows around the end of an arbitrary length and the last of the block,
    // each a whole fixed-width line.
    char row[kSrinfoRowLen];
    const size_t rows_len = raw_len % (kSrinfoDataLen + 1);
    const size_t edge = rows_len & ~size_t{15};
    for (size_t off : {edge, edge + 16, kSrinfoDataLen - 16}) {
        if (off < kSrinfoDataLen &&
            (srinfo_hex_row(row, block->data, rows_len, off) != kSrinfoRowLen ||
             row[kSrinfoRowLen - 1] != '\n')) {
            abort();
        }
    }
    close(out);
    free(block);

    // The hand-back: the last file holds whatever the input is; the driver
    // request fails on /dev/null, so the file stays for the next run.
    char path[kSrinfoPathLen];
    int last = create_srinfo_last(path);
    if (last < 0) {
        fuzz::die("last file");
    }
    if (ftruncate(last, 0) != 0 || write(last, data, size) != static_cast<ssize_t>(size)) {
        fuzz::die("last file");
    }
    if (lseek(last, 0, SEEK_SET) != 0) {
        fuzz::die("last file");
    }
    srinfo_block* back = read_srinfo_last(last);
    if (back != nullptr && (back->len == 0 || back->len > kSrinfoDataLen)) {
        abort();
    }
    free(back);
    close(last);
    int node = null_fd();
    sr.restore_srinfo(node);
    close(node);
    return 0;
}
