// The model behind the nodes, for what the system scenarios cannot see through the daemon:
// requests the daemon never makes, the bounds of modem memory and of SET_SRINFO, a skipped last
// frame, the benchmark marks and the escaping of the facts. The boot handshake, crashes,
// security answers, image bytes in memory, the dump stage, log regions and the misbehaviours
// the crash and chaos scenarios use are checked there, through the daemon.
#include "modem.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <tuple>
#include <vector>

#include <unistd.h>

#include "boot/cpif.h"
#include "control.h"
#include "dump/udl.h"

namespace vmodem {
namespace {

// The "caller" is this test process: addresses are plain pointers.
class LocalMemory : public UserMemory {
  public:
    bool read(uint64_t addr, void* dst, size_t len) override {
        std::memcpy(dst, reinterpret_cast<const void*>(addr), len);
        return true;
    }
    bool write(uint64_t addr, const void* src, size_t len) override {
        std::memcpy(reinterpret_cast<void*>(addr), src, len);
        return true;
    }
};

class ModemTest : public ::testing::Test {
  protected:
    void make(const std::vector<std::string>& lines) {
        Settings s;
        s.memory_size = memory_.size();
        for (const auto& l : lines) {
            ASSERT_EQ(apply_setting(s, l), "") << l;
        }
        modem_ = std::make_unique<Modem>(s, memory_.data(), trace_);
    }

    // A request with its record `in` and pointer argument `arg`, as FUSE hands them over.
    int32_t io(Node node, uint32_t cmd, const void* in = nullptr, uint64_t arg = 0) {
        uint8_t out[1024] = {};
        return modem_
            ->ioctl(node, cmd, arg, in, ioc_writes_to_driver(cmd) ? ioc_size(cmd) : 0, out,
                    ioc_reads_from_driver(cmd) ? ioc_size(cmd) : 0, user_)
            .result;
    }
    int32_t load(uint32_t m_offset, uint32_t len) {
        const cp_image img{reinterpret_cast<uintptr_t>(chunk_.data()), len, m_offset, 0, 0, len};
        return io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img);
    }
    void put(uint32_t word) { ASSERT_EQ(modem_->write(Node::Dump, &word, 4), 4); }
    int64_t get(void* buf, size_t len) {
        return modem_->read(Node::Dump, static_cast<uint8_t*>(buf), len);
    }

    // The CP in its dump boot loader, the dump stage opened and its INFO and REASON read.
    void open_dump_stage() {
        const int32_t mode = CP_BOOT_MODE_DUMP;
        ASSERT_EQ(io(Node::Boot, IOCTL_POWER_RESET, &mode), 0);
        ASSERT_EQ(io(Node::Boot, IOCTL_START_CP_BOOTLOADER, &mode), 0);
        put(0x9D00);
        uint8_t buf[1024];
        for (int message = 0; message < 3; ++message) {  // the answer word, INFO, REASON
            ASSERT_GT(get(buf, sizeof(buf)), 0) << message;
        }
    }
    // Reads the dump node until it has nothing left to deliver.
    void drain() {
        static uint8_t buf[16400];
        while (get(buf, sizeof(buf)) > 0) {
        }
    }

    std::vector<uint8_t> memory_ = std::vector<uint8_t>(1 << 20);
    std::vector<uint8_t> chunk_ = std::vector<uint8_t>(300, 0x5A);
    LocalMemory user_;
    Trace trace_;
    std::unique_ptr<Modem> modem_;
};

// The daemon never sends these; the driver refuses them: an unknown code, a request on another
// node's descriptor (unless strict_nodes is off), a boot mode that does not exist, a missing
// pointer.
TEST_F(ModemTest, RequestsTheDaemonNeverMakesAreRefusedAsTheDriverWould) {
    const int32_t no_mode = 7;
    // strict_nodes, node, request, its record, result
    const std::tuple<bool, Node, uint32_t, const void*, int32_t> rows[] = {
        {true, Node::Boot, 0x6F99, nullptr, -ENOTTY},
        {false, Node::Dump, 0x6F99, nullptr, -ENOTTY},
        {true, Node::Dump, IOCTL_POWER_ON, nullptr, -ENOTTY},
        {false, Node::Dump, IOCTL_GET_MODEM_STATE, nullptr, kStateOffline},
        {true, Node::Boot, IOCTL_POWER_RESET, &no_mode, -EINVAL},
        {true, Node::Boot, IOCTL_ENTER_UPLOAD_MODE, nullptr, -EFAULT},
    };
    for (const auto& [strict, node, cmd, in, result] : rows) {
        make({strict ? "strict_nodes 1" : "strict_nodes 0"});
        EXPECT_EQ(io(node, cmd, in), result) << std::hex << "0x" << cmd << " strict " << strict;
    }
}

TEST_F(ModemTest, ImageChunksStayInsideModemMemory) {
    make({});
    EXPECT_EQ(load(0x1000, 100), -EIO) << "the CP is not powered";
    ASSERT_EQ(io(Node::Boot, IOCTL_POWER_ON), 0);
    const auto end = static_cast<uint32_t>(memory_.size());
    const std::tuple<uint32_t, uint32_t, int32_t> rows[] = {
        {end - 99, 100, -EINVAL},
        {end, 1, -EINVAL},
        {0xFFFFFFF0u, 100, -EINVAL},
        {end, 0, 0},  // the empty last chunk of a part whose size is a multiple of the chunk
        {end - 100, 100, 0}};
    for (const auto& [m_offset, len, result] : rows) {
        EXPECT_EQ(load(m_offset, len), result) << m_offset << "+" << len;
    }
    EXPECT_EQ(std::memcmp(memory_.data() + end - 100, chunk_.data(), 100), 0);
    EXPECT_EQ(modem_->facts().image_bytes, 100u) << "refused chunks count nothing";
}

// Regression: a step whose last frame is skipped ends with the frame before it, so poll never
// reports data that no read delivers. The frames carry the scenario's command word (chaos sets
// it and would not notice if it did nothing).
TEST_F(ModemTest, SkippedLastFrameLeavesNothingToPoll) {
    make({"dump_size 50000", "dump_steps 1", "frame_skip 1 4", "frame_command 1 0xAD02"});
    open_dump_stage();
    put(0x9D01);
    static udl::std_ul_frame f;
    for (uint32_t frame = 1; frame <= 3; ++frame) {
        ASSERT_EQ(modem_->poll_mask(Node::Dump), kPollIn) << frame;
        ASSERT_EQ(get(&f, sizeof(f)), 16400) << frame;
        EXPECT_EQ(f.header.curr_frame, frame);
        EXPECT_EQ(f.header.command, 0xAD02u);
    }
    EXPECT_EQ(modem_->poll_mask(Node::Dump), 0u);
    EXPECT_EQ(get(&f, sizeof(f)), -EAGAIN);
}

// The benchmark's timing: each kind counts only the transfers served (frames by payload bytes),
// the first one samples the caller's CPU time, a clear starts over, and image_mark_range keeps
// only the loads that start inside it.
TEST_F(ModemTest, BulkMarksCountServedTransfersPerKind) {
    make({"dump_size 20000", "dump_steps 1", "region shmem 5000"});
    modem_->set_caller(getpid());
    ASSERT_EQ(io(Node::Boot, IOCTL_POWER_ON), 0);
    ASSERT_EQ(load(0x1000, 300), 0);
    ASSERT_EQ(load(1 << 20, 1), -EINVAL);
    ASSERT_EQ(load(0x2000, 200), 0);
    cp_log_dump_info region{};
    std::strcpy(region.name, "shmem");
    ASSERT_EQ(io(Node::Dump, IOCTL_GET_LOG_DUMP, &region), 0);
    drain();
    open_dump_stage();
    put(0x9D01);
    drain();

    const BulkMark& image = modem_->mark(Bulk::Image);
    EXPECT_GT(image.first_ns, 0u);
    EXPECT_GE(image.last_ns, image.first_ns);
    EXPECT_GE(image.cpu_at_first, 0);
    const std::string marks = control_command(*modem_, "query marks");
    EXPECT_EQ(marks.rfind("ok image=2:500:", 0), 0u) << marks;
    EXPECT_NE(marks.find(" frame=2:20000:"), std::string::npos) << marks;
    EXPECT_NE(marks.find(" region=2:5000:"), std::string::npos) << marks;
    EXPECT_EQ(control_command(*modem_, "marks_clear"), "ok");
    EXPECT_EQ(control_command(*modem_, "query marks"),
              "ok image=0:0:0:0:-1 frame=0:0:0:0:-1 region=0:0:0:0:-1");

    EXPECT_EQ(control_command(*modem_, "set image_mark_range 0x2000 0x2001"), "ok");
    for (uint32_t m_offset : {0x1FFFu, 0x2001u, 0x2000u}) {
        ASSERT_EQ(load(m_offset, 200), 0);
    }
    EXPECT_EQ(control_command(*modem_, "query marks").rfind("ok image=1:200:", 0), 0u);
}

// SET_SRINFO refuses more than a block holds, and the bytes handed back reach `query facts`
// escaped, so its reply stays one parseable line.
TEST_F(ModemTest, SrinfoHandBackIsBoundedAndEscapedInTheFacts) {
    make({});
    srinfo_block block{};
    const std::string restored = "a\"b\\c\n\x01\xFF";
    block.len = static_cast<uint32_t>(restored.size());
    std::memcpy(block.data, restored.data(), restored.size());
    ASSERT_EQ(io(Node::Boot, IOCTL_SET_SRINFO, nullptr, reinterpret_cast<uintptr_t>(&block)), 0);
    const std::string facts = control_command(*modem_, "query facts");
    EXPECT_EQ(facts.substr(facts.find(" srinfo_restored=")),
              " srinfo_restored=\"a\\\"b\\\\c\\x0A\\x01\\xFF\"")
        << facts;
    block.len = 4093;
    EXPECT_EQ(io(Node::Boot, IOCTL_SET_SRINFO, nullptr, reinterpret_cast<uintptr_t>(&block)),
              -EINVAL);
}

}  // namespace
}  // namespace vmodem
