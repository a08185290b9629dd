// The silent-reset block as the driver might hand it over (checks, last-file
// text, hex rows), and the hand-back from an arbitrary last file. Input: the
// block (len word and data, zero-filled to the block's size).
#include <sys/mman.h>

#include "boot/cpif.h"
#include "fuzz_support.h"
#include "srinfo/srinfo.h"

void fuzz_one(fuzz::Input in) {
    std::filesystem::create_directories(kSrinfoErrDir);
    srinfo_block block{};
    memcpy(&block, in.data, std::min(in.size, sizeof(block)));
    const uint32_t raw_len = block.len;
    SrinfoTarn sr;
    // A file that takes writes and fsync, as the hex log and the last file do.
    int out = memfd_create("srinfo", MFD_CLOEXEC);
    // The hex log takes any len the driver claims: it must stay in the block.
    (void)sr.write_srinfo_file(out, reinterpret_cast<char*>(block.data), raw_len);
    unsigned int len = 0;
    if (srinfo_check_block(&block, &len)) {
        fuzz::expect(len <= kSrinfoDataLen, "block length bounded");
        fuzz::expect(srinfo_text_len(&block) <= kSrinfoDataLen - kSrinfoTextOffset, "text bounded");
        (void)write_srinfo_last(out, &block);
        (void)sr.write_srinfo_file(out, reinterpret_cast<char*>(block.data), len);
    }
    close(out);
    // The rows around the end of an arbitrary length and the last row of the
    // block are each a whole fixed-width line.
    char row[kSrinfoRowLen];
    const size_t rows_len = raw_len % (kSrinfoDataLen + 1), edge = rows_len & ~size_t{15};
    for (size_t off : {edge, edge + 16, kSrinfoDataLen - 16}) {
        fuzz::expect(off >= kSrinfoDataLen ||
                         (srinfo_hex_row(row, block.data, rows_len, off) == kSrinfoRowLen &&
                          row[kSrinfoRowLen - 1] == '\n'),
                     "a whole hex row");
    }
    // The hand-back: the last file holds the input; the driver request fails
    // on /dev/null, so the file stays for the next run.
    char path[kSrinfoPathLen];
    int last = create_srinfo_last(path);
    fuzz::expect(last >= 0 && write(last, in.data, in.size) == static_cast<ssize_t>(in.size) &&
                     ftruncate(last, in.size) == 0 && lseek(last, 0, SEEK_SET) == 0,
                 "the last file");
    srinfo_block* back = read_srinfo_last(last);
    fuzz::expect(back == nullptr || (back->len > 0 && back->len <= kSrinfoDataLen),
                 "a handed-back length inside the block");
    free(back), close(last);
    int node = open("/dev/null", O_RDWR | O_CLOEXEC);
    sr.restore_srinfo(node);
    close(node);
}
