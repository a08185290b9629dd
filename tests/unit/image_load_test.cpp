// Image loading decisions that need no driver: which stages are skipped, what
// ends a load, what the first-load property says, a refused security request.
// The chunk stream, the driver's security answers and the wake lock are
// checked against the virtual modem in the system tests (Boot.*, BootFailure/*).
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "boot/boot_dump.h"
#include "rix_test.h"

namespace {

using ImageLoadTest = RixTest;

TEST_F(ImageLoadTest, SkippedStagesShortPartsAndTheFirstLoadMark) {
    ASSERT_EQ(parse({"-t", "vm420"}), 0);
    auto* bd = static_cast<BootDumpQuoll*>(Container::bootDump);
    std_boot* b = Container::getStdBoot();
    const std::string part = dir_ + "/part";
    std::ofstream(part) << "0123456789";
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    const int src = open(part.c_str(), O_RDONLY), none = -1, some = 5;
    const std::string by = "<6>cpif: rix: load_cp_image_by_stage: ",
                      li = "<6>cpif: rix: load_cp_images: ";
    struct Stage {
        int fd;
        uint32_t size, b_off, once;
    };
    const struct {
        uint32_t first, last;
        std::vector<Stage> stages;  // from slot `first` on
        const char* sent_before;    // vendor.rix.first_xmit_done, nullptr: unset
        int result;
        std::string log;
        const char* sent_after;
    } cases[] = {
        // Sent before: the once-only stage is skipped as well.
        {0,
         3,
         {{none, 512, 0, 0}, {some, 0, 0, 0}, {some, 100, 0, 1}, {none, 0, 0, 0}},
         "1",
         1,
         li + "fd is not valid. skip stage[0]\n" + li + "b_size is not valid. skip stage[1]\n" +
             li + "stage[2] : stage is already xmit once\n" + li +
             "fd is not valid. skip stage[3]\n",
         "1"},
        // The result is the first character's code minus '0'.
        {2, 2, {{none, 100, 0, 1}}, "x", 'x' - '0', li + "fd is not valid. skip stage[2]\n", "1"},
        {2, 2, {{none, 100, 0, 1}}, nullptr, 0, li + "fd is not valid. skip stage[2]\n", "1"},
        // Count 0: nothing at all; a range past the 13 slots stops at the last.
        {0, 0xFFFFFFFF, {{some, 100, 0, 0}}, nullptr, 0, "", "1"},
        {12, 15, {{none, 1, 0, 0}}, nullptr, 0, li + "fd is not valid. skip stage[12]\n", "1"},
        // A short part ends the load and leaves the mark unset.
        {1,
         1,
         {{src, 100, 4, 0}},
         nullptr,
         -14,
         by +
             "stage=1(1), b_off=0x00000004, m_off=0x00000000, b_size=0x00000064, "
             "mode=0x00000000\n" +
             by + "ERR! read 6 != img.len 100\n" + li +
             "ERR! load_cp_image_by_stage stage[1] fail\n",
         "<unset>"},
        // A source that cannot seek fails with the seek's result.
        {1,
         1,
         {{pipefd[0], 100, 0, 0}},
         nullptr,
         -1,
         by +
             "stage=1(1), b_off=0x00000000, m_off=0x00000000, b_size=0x00000064, mode=0x00000000\n"
             "<3>cpif: rix: (ERR! Illegal seek) load_cp_image_by_stage: ERR! lseek fail at stage "
             "1\n" +
             li + "ERR! load_cp_image_by_stage stage[1] fail\n",
         "<unset>"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        bd->std_boot_init_args();
        b->first_stage = c.first;
        b->last_stage = c.last;
        for (size_t i = 0; i < c.stages.size(); i++) {
            const Stage& s = c.stages[i];
            b->stage[c.first + i] = {
                c.first + uint32_t(i), {}, uint32_t(s.fd), s.b_off, 0, s.size, 0, s.once};
        }
        std::remove((prop_dir_ + "/vendor.rix.first_xmit_done").c_str());
        if (c.sent_before != nullptr) {
            set_prop("vendor.rix.first_xmit_done", c.sent_before);
        }
        clear_logs();
        EXPECT_EQ(bd->load_cp_images(CP_BOOT_MODE_NORMAL), c.result);
        EXPECT_EQ(kmsg(), c.log);
        EXPECT_EQ(prop("vendor.rix.first_xmit_done"), c.sent_after);
    }
    close(src);
    close(pipefd[0]);
    close(pipefd[1]);
}

TEST_F(ImageLoadTest, SecurityRequestWithoutDriverIsRejected) {
    ASSERT_EQ(parse({"-t", "vm420"}), 0);
    auto* bd = static_cast<BootDumpQuoll*>(Container::bootDump);
    bd->std_boot_init_args();
    Container::getStdBoot()->fd = open("/dev/null", O_RDWR);  // not the driver: refused
    clear_logs();
    EXPECT_EQ(bd->std_security_req(SECURITY_MODE_TOC_VSS, 0x1000, 0x200), -1);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_security_req: cp boot mode:7, param2:0x1000, param3:0x200, "
              "param4:0x0\n<3>cpif: rix: (ERR! Inappropriate ioctl for device) std_security_req: "
              "ERR! IOCTL_CHECK_SECURITY fail (0xffffffff)\n");
    bd->std_boot_close_args();
}

}  // namespace
