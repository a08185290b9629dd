// Image loading decisions that need no driver: which stages are skipped, what
// ends a load, and what the first-load property says. The chunk stream itself
// is checked against the virtual modem in the system tests.
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "boot/boot_dump.h"
#include "rix_test.h"

namespace {

class ImageLoadTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        bd_ = static_cast<BootDumpQuoll*>(Container::bootDump);
        bd_->std_boot_init_args();
        b_ = Container::getStdBoot();
        b_->fd = open("/dev/null", O_RDWR);  // no driver: any request fails
    }
    void TearDown() override {
        bd_->std_boot_close_args();
        RixTest::TearDown();
    }
    std_dload_control& stage(unsigned i, int fd, uint32_t size) {
        std_dload_control& s = b_->stage[i];
        s.stage = i;
        s.fd = static_cast<uint32_t>(fd);
        s.b_size = size;
        return s;
    }
    BootDumpQuoll* bd_ = nullptr;
    std_boot* b_ = nullptr;
};

TEST_F(ImageLoadTest, SkippedStagesLoadNothingAndMarkTheFirstLoad) {
    b_->first_stage = 0;
    b_->last_stage = 3;
    stage(0, -1, 512);  // NV_NORM / NV_PROT style entry: stored as 0xFFFFFFFF
    stage(1, 5, 0);     // nothing to send
    stage(2, 5, 100).xmit_once = 1;
    stage(3, -1, 0);
    // Sent before: the xmit-once stage is skipped as well.
    set_prop("vendor.rix.first_xmit_done", "1");
    EXPECT_EQ(bd_->load_cp_images(CP_BOOT_MODE_NORMAL), 1);
    const std::string k = kmsg();
    EXPECT_NE(k.find("load_cp_images: fd is not valid. skip stage[0]\n"), std::string::npos);
    EXPECT_NE(k.find("load_cp_images: b_size is not valid. skip stage[1]\n"), std::string::npos);
    EXPECT_NE(k.find("load_cp_images: stage[2] : stage is already xmit once\n"), std::string::npos);
    EXPECT_NE(k.find("load_cp_images: fd is not valid. skip stage[3]\n"), std::string::npos);
    EXPECT_EQ(prop("vendor.rix.first_xmit_done"), "1");

    // Any first character counts: its code minus '0'.
    set_prop("vendor.rix.first_xmit_done", "x");
    stage(2, -1, 100);
    EXPECT_EQ(bd_->load_cp_images(CP_BOOT_MODE_NORMAL), 'x' - '0');
    // Unset: the first load returns 0 and sets the property.
    std::remove((prop_dir_ + "/vendor.rix.first_xmit_done").c_str());
    EXPECT_EQ(bd_->load_cp_images(CP_BOOT_MODE_NORMAL), 0);
    EXPECT_EQ(prop("vendor.rix.first_xmit_done"), "1");
}

TEST_F(ImageLoadTest, NoStageAfterAnEmptyRangeOrPastTheTable) {
    b_->first_stage = 0;
    b_->last_stage = 0xFFFFFFFF;  // count 0: nothing at all
    stage(0, 5, 100);
    EXPECT_EQ(bd_->load_cp_images(CP_BOOT_MODE_NORMAL), 0);
    EXPECT_EQ(kmsg().find("stage["), std::string::npos);

    // A range that runs past the 13 slots stops at the table's end.
    clear_logs();
    b_->first_stage = 12;
    b_->last_stage = 15;
    stage(0, -1, 0);
    stage(12, -1, 1);
    EXPECT_EQ(bd_->load_cp_images(CP_BOOT_MODE_NORMAL), 1);
    EXPECT_NE(kmsg().find("skip stage[12]"), std::string::npos);
    EXPECT_EQ(kmsg().find("stage[13]"), std::string::npos);
}

TEST_F(ImageLoadTest, ShortPartAbortsWithoutMarkingTheLoad) {
    std::string part = dir_ + "/part";
    {
        int fd = open(part.c_str(), O_WRONLY | O_CREAT, 0600);
        ASSERT_EQ(write(fd, "0123456789", 10), 10);
        close(fd);
    }
    int src = open(part.c_str(), O_RDONLY);
    b_->fd_spare[0] = src;  // closed with the record
    b_->first_stage = 1;
    b_->last_stage = 1;
    stage(1, src, 100).b_off = 4;
    EXPECT_EQ(bd_->load_cp_images(CP_BOOT_MODE_DUMP), -14);
    const std::string k = kmsg();
    EXPECT_NE(k.find("load_cp_image_by_stage: stage=1(1), b_off=0x00000004, m_off=0x00000000, "
                     "b_size=0x00000064, mode=0x00000001\n"),
              std::string::npos);
    EXPECT_NE(k.find("load_cp_image_by_stage: ERR! read 6 != img.len 100\n"), std::string::npos);
    EXPECT_NE(k.find("<6>cpif: rix: load_cp_images: ERR! load_cp_image_by_stage stage[1] fail\n"),
              std::string::npos);
    EXPECT_EQ(prop("vendor.rix.first_xmit_done"), "<unset>");

    // A source that cannot seek fails with the seek's result.
    clear_logs();
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    b_->fd_spare[1] = pipefd[0];
    b_->fd_spare[2] = pipefd[1];
    stage(1, pipefd[0], 100);
    EXPECT_EQ(bd_->load_cp_images(CP_BOOT_MODE_NORMAL), -1);
    EXPECT_NE(kmsg().find("(ERR! Illegal seek) load_cp_image_by_stage: ERR! lseek fail at stage "
                          "1\n"),
              std::string::npos);
}

TEST_F(ImageLoadTest, FullChunkIsSentAndARefusedLoadAbortsTheStage) {
    // /dev/null as the boot node refuses the load request with ENOTTY (-1).
    std::string part = dir_ + "/part";
    {
        int fd = open(part.c_str(), O_WRONLY | O_CREAT, 0600);
        std::string bytes(70000, 'a');
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), 70000);
        close(fd);
    }
    int src = open(part.c_str(), O_RDONLY);
    b_->fd_spare[0] = src;
    b_->first_stage = 2;
    b_->last_stage = 3;
    stage(2, src, 70000);
    stage(3, src, 10);
    EXPECT_EQ(bd_->load_cp_images(CP_BOOT_MODE_NORMAL), -1);
    const std::string k = kmsg();
    EXPECT_NE(k.find(") load_cp_image_by_stage: ERR! IOCTL_LOAD_CP_IMAGE fail (2,-1)\n"),
              std::string::npos);
    EXPECT_EQ(k.find("stage complelte"), std::string::npos);
    EXPECT_EQ(k.find("stage=3"), std::string::npos);
    // The first chunk was a full one: the file position moved by 63488.
    EXPECT_EQ(lseek(src, 0, SEEK_CUR), 63488);
}

TEST_F(ImageLoadTest, SecurityRequestWithoutDriverIsRejected) {
    EXPECT_EQ(bd_->std_security_req(SECURITY_MODE_TOC_VSS, 0x1000, 0x200), -1);
    const std::string k = kmsg();
    EXPECT_NE(k.find("<6>cpif: rix: std_security_req: cp boot mode:7, param2:0x1000, "
                     "param3:0x200, param4:0x0\n"),
              std::string::npos);
    EXPECT_NE(k.find(") std_security_req: ERR! IOCTL_CHECK_SECURITY fail (0xffffffff)\n"),
              std::string::npos);
    EXPECT_EQ(k.find("fail to check secure"), std::string::npos);
}

TEST_F(ImageLoadTest, WakeLockWritesTheNameWithoutNewline) {
    bd_->boot_wake_lock(1);
    bd_->boot_wake_lock(0);
    EXPECT_EQ(read_file("/sys/power/wake_lock"), "vm420");
    EXPECT_EQ(read_file("/sys/power/wake_unlock"), "vm420");
    EXPECT_NE(kmsg().find("<6>cpif: rix: boot_wake_lock: /sys/power/wake_lock/vm420\n"
                          "<6>cpif: rix: boot_wake_lock: /sys/power/wake_unlock/vm420\n"),
              std::string::npos);
}

}  // namespace
