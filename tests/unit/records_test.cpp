// The boot and dump records: reset values, and closing exactly what they hold.
#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "boot/boot_dump.h"
#include "rix_test.h"

namespace {

using RecordsTest = RixTest;

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST_F(RecordsTest, DescriptorsAreMinusOneAfterResetAndCloseAndOnlyHeldOnesAreClosed) {
    ASSERT_EQ(parse({"-t", "vm420"}), 0);
    BootDump* bd = Container::bootDump;
    std_boot* b = Container::getStdBoot();
    std_dump* d = Container::getStdDump();
    // The constructor's zero-fill reads as descriptor 0 everywhere; closing
    // it would close the process's standard input.
    ASSERT_TRUE(is_open(0));
    bd->std_boot_close_args();
    bd->std_dump_close_args();
    EXPECT_TRUE(is_open(0));
    EXPECT_EQ(std::vector<int>({b->fd, d->log_fd}), std::vector<int>({-1, -1}));

    memset(b, 0x5a, sizeof(*b));
    memset(d, 0x5a, sizeof(*d));
    bd->std_boot_init_args();
    bd->std_dump_init_args();
    std::vector<int> fields = {b->fd,          b->bin_fd,          b->nv_fd,
                               b->toc_idx_toc, b->toc_idx_boot,    b->toc_idx_main,
                               b->toc_idx_vss, b->toc_idx_nv_norm, b->toc_idx_nv_prot,
                               b->toc_idx_nv,  b->toc_idx_offset,  d->fd,
                               d->log_fd,      d->info_fd,         d->dump_fd};
    fields.insert(fields.end(), std::begin(b->fd_spare), std::end(b->fd_spare));
    fields.insert(fields.end(), std::begin(d->fd_spare), std::end(d->fd_spare));
    EXPECT_EQ(fields, std::vector<int>(fields.size(), -1));
    EXPECT_EQ(std::vector<uint32_t>({b->last_stage, b->toc[511], b->stage[12].xmit_once,
                                     d->dump_size, uint8_t(d->reason[0]), uint8_t(d->reason[511])}),
              std::vector<uint32_t>(6, 0));

    int* held[] = {&b->fd, &b->fd_spare[4], &d->log_fd, &d->dump_fd};
    std::vector<int> fds;
    for (int* fd : held) {
        fds.push_back(*fd = open("/dev/null", O_RDONLY));
    }
    bd->std_boot_close_args();
    bd->std_dump_close_args();
    for (size_t i = 0; i < fds.size(); i++) {
        EXPECT_FALSE(is_open(fds[i])) << fds[i];
        EXPECT_EQ(*held[i], -1);
    }
}

}  // namespace
