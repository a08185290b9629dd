// The boot and dump records: reset values, and closing exactly what they hold.
#include <fcntl.h>
#include <unistd.h>

#include "boot/boot_dump.h"
#include "rix_test.h"

namespace {

class RecordsTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        bd_ = Container::bootDump;
    }
    static bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }
    BootDump* bd_ = nullptr;
};

TEST_F(RecordsTest, InitSetsDescriptorsAndIndexesToMinusOne) {
    std_boot* b = Container::getStdBoot();
    memset(b, 0x5a, sizeof(*b));
    bd_->std_boot_init_args();
    EXPECT_EQ(b->fd, -1);
    EXPECT_EQ(b->bin_fd, -1);
    EXPECT_EQ(b->nv_fd, -1);
    for (int fd : b->fd_spare) {
        EXPECT_EQ(fd, -1);
    }
    for (int32_t idx : {b->toc_idx_toc, b->toc_idx_boot, b->toc_idx_main, b->toc_idx_vss,
                        b->toc_idx_nv_norm, b->toc_idx_nv_prot, b->toc_idx_nv, b->toc_idx_offset}) {
        EXPECT_EQ(idx, -1);
    }
    EXPECT_EQ(b->last_stage, 0u);
    EXPECT_EQ(b->toc[511], 0);
    EXPECT_EQ(b->stage[12].xmit_once, 0u);

    std_dump* d = Container::getStdDump();
    memset(d, 0x5a, sizeof(*d));
    bd_->std_dump_init_args();
    for (int fd : {d->fd, d->fd_spare[0], d->fd_spare[3], d->log_fd, d->info_fd, d->dump_fd}) {
        EXPECT_EQ(fd, -1);
    }
    EXPECT_EQ(d->dump_size, 0u);
    EXPECT_EQ(d->reason[0], 0);
    EXPECT_EQ(d->reason[511], 0);
}

TEST_F(RecordsTest, CloseClosesEveryHeldDescriptorOnce) {
    bd_->std_boot_init_args();
    bd_->std_dump_init_args();
    std_boot* b = Container::getStdBoot();
    std_dump* d = Container::getStdDump();
    b->fd = open("/dev/null", O_RDONLY);
    b->fd_spare[4] = open("/dev/null", O_RDONLY);
    d->log_fd = open("/dev/null", O_RDONLY);
    d->dump_fd = open("/dev/null", O_RDONLY);
    int held[] = {b->fd, b->fd_spare[4], d->log_fd, d->dump_fd};
    bd_->std_boot_close_args();
    bd_->std_dump_close_args();
    for (int fd : held) {
        EXPECT_FALSE(is_open(fd)) << fd;
    }
    EXPECT_EQ(b->fd, -1);
    EXPECT_EQ(b->fd_spare[4], -1);
    EXPECT_EQ(d->log_fd, -1);
    EXPECT_EQ(d->dump_fd, -1);
}

TEST_F(RecordsTest, NeverUsedRecordDoesNotCloseDescriptorZero) {
    // The constructor's zero-fill reads as descriptor 0 everywhere; closing
    // it would close the process's standard input.
    ASSERT_TRUE(is_open(0));
    bd_->std_boot_close_args();
    bd_->std_dump_close_args();
    EXPECT_TRUE(is_open(0));
    EXPECT_EQ(Container::getStdBoot()->fd, -1);
    EXPECT_EQ(Container::getStdDump()->log_fd, -1);
}

}  // namespace
