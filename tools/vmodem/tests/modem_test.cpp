// The model behind the nodes, for what the system scenarios cannot see through the daemon:
// requests the daemon never makes, the bounds of modem memory and of SET_SRINFO, a skipped last
// frame, the benchmark marks, the escaping of the facts, the scenario lines vmodem refuses and
// the payload generator. The boot handshake, crashes, security answers, image bytes in memory,
// the dump stage, log regions and the misbehaviours (and misbehave_clear, which the chaos runs
// need to settle) are checked there, through the daemon.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <tuple>

#include "boot/cpif.h"
#include "control.h"
#include "dump/udl.h"
#include "modem.h"
#include "payload.h"
#include "settings.h"

namespace vmodem {
namespace {

// The "caller" is this test process: addresses are plain pointers.
struct LocalMemory : UserMemory {
    static void* at(uint64_t addr) { return reinterpret_cast<void*>(addr); }
    bool read(uint64_t a, void* dst, size_t n) override { return memcpy(dst, at(a), n); }
    bool write(uint64_t a, const void* src, size_t n) override { return memcpy(at(a), src, n); }
};

class ModemTest : public ::testing::Test {
  protected:
    void make(std::initializer_list<const char*> lines) {
        Settings s;
        s.memory_size = memory_.size();
        for (const char* l : lines) {
            ASSERT_EQ(apply_setting(s, l), "") << l;
        }
        modem_ = std::make_unique<Modem>(s, memory_.data(), trace_);
    }
    // A request with its record `in` and pointer argument `arg`, as FUSE hands them over.
    int32_t io(Node node, uint32_t cmd, const void* in = nullptr, const void* arg = nullptr) {
        uint8_t out[1024] = {};
        const size_t size = ioc_size(cmd);
        return modem_
            ->ioctl(node, cmd, reinterpret_cast<uintptr_t>(arg), in,
                    ioc_writes_to_driver(cmd) ? size : 0, out,
                    ioc_reads_from_driver(cmd) ? size : 0, user_)
            .result;
    }
    int32_t load(uint32_t m_offset, uint32_t len) {
        const cp_image img{reinterpret_cast<uintptr_t>(chunk_.data()), len, m_offset, 0, 0, len};
        return io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img);
    }
    int64_t get() { return modem_->read(Node::Dump, buf_, sizeof(buf_)); }
    std::string control(const char* line) { return control_command(*modem_, line); }

    std::vector<uint8_t> memory_ = std::vector<uint8_t>(1 << 20);
    std::vector<uint8_t> chunk_ = std::vector<uint8_t>(300, 0x5A);
    uint8_t buf_[16400];
    LocalMemory user_;
    Trace trace_;
    std::unique_ptr<Modem> modem_;
};

// Requests the daemon never makes are refused as the driver would: an unknown code, a request on
// another node's descriptor (unless strict_nodes is off), a boot mode that does not exist, a
// missing pointer, a silent-reset block longer than a block holds. The bytes of a block handed
// back reach `query facts` escaped, so its reply stays one parseable line.
TEST_F(ModemTest, RequestsTheDaemonNeverMakesAreRefusedAndFactsEscaped) {
    const int32_t no_mode = 7;
    srinfo_block too_long{.len = 4093, .data = {}}, block{.len = 8, .data = "a\"b\\c\n\x01\xFF"};
    const std::tuple<bool, Node, uint32_t, const void*, const void*, int32_t> rows[] = {
        {true, Node::Boot, 0x6F99, nullptr, nullptr, -ENOTTY},
        {false, Node::Dump, 0x6F99, nullptr, nullptr, -ENOTTY},
        {true, Node::Dump, IOCTL_POWER_ON, nullptr, nullptr, -ENOTTY},
        {false, Node::Dump, IOCTL_GET_MODEM_STATE, nullptr, nullptr, kStateOffline},
        {true, Node::Boot, IOCTL_POWER_RESET, &no_mode, nullptr, -EINVAL},
        {true, Node::Boot, IOCTL_ENTER_UPLOAD_MODE, nullptr, nullptr, -EFAULT},
        {true, Node::Boot, IOCTL_SET_SRINFO, nullptr, &too_long, -EINVAL},
        {true, Node::Boot, IOCTL_SET_SRINFO, nullptr, &block, 0}};
    for (const auto& [strict, node, cmd, in, arg, result] : rows) {
        make({strict ? "strict_nodes 1" : "strict_nodes 0"});
        EXPECT_EQ(io(node, cmd, in, arg), result)
            << std::hex << "0x" << cmd << " strict " << strict;
    }
    const std::string facts = control("query facts");
    EXPECT_EQ(facts.substr(facts.find(" srinfo_restored=")),
              " srinfo_restored=\"a\\\"b\\\\c\\x0A\\x01\\xFF\"");
}

// POWER_ON answers after the benchmark's pause. Chunks stay inside modem memory (the empty
// last chunk of a part whose size is a multiple of the chunk is fine); refused ones count
// nothing, neither in the facts nor in the benchmark's marks. A clear starts the marks over and
// image_mark_range keeps only the loads that start inside it.
TEST_F(ModemTest, ImageChunksStayInsideModemMemoryAndMarksCountWhatWasServed) {
    make({});
    EXPECT_EQ(load(0x1000, 100), -EIO) << "the CP is not powered";
    EXPECT_EQ(control("set power_on_pause_ms 30"), "ok");
    const auto asked = std::chrono::steady_clock::now();
    ASSERT_EQ(io(Node::Boot, IOCTL_POWER_ON), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - asked, std::chrono::milliseconds(30));
    const auto end = static_cast<uint32_t>(memory_.size());
    const std::tuple<uint32_t, uint32_t, int32_t> rows[] = {
        {end - 99, 100, -EINVAL}, {end, 1, -EINVAL}, {0xFFFFFFF0u, 100, -EINVAL}, {end, 0, 0},
        {end - 100, 100, 0},      {0x2000, 200, 0}};
    for (const auto& [m_offset, len, result] : rows) {
        EXPECT_EQ(load(m_offset, len), result) << m_offset << "+" << len;
    }
    EXPECT_EQ(std::memcmp(memory_.data() + end - 100, chunk_.data(), 100), 0);
    EXPECT_EQ(modem_->facts().image_bytes, 300u);
    EXPECT_EQ(control("query marks").rfind("ok image=3:300:", 0), 0u) << control("query marks");
    EXPECT_EQ(control("marks_clear"), "ok");
    EXPECT_EQ(control("set image_mark_range 0x2000 0x2001"), "ok");
    for (uint32_t m_offset : {0x1FFFu, 0x2001u, 0x2000u}) {
        ASSERT_EQ(load(m_offset, 200), 0);
    }
    EXPECT_EQ(control("query marks").rfind("ok image=1:200:", 0), 0u) << control("query marks");
}

// Regression: a step whose last frame is skipped ends with the frame before it, so poll never
// reports data that no read delivers. The frames carry the scenario's command word and count in
// the frame mark by their payload.
TEST_F(ModemTest, SkippedLastFrameLeavesNothingToPoll) {
    make({"dump_size 50000", "dump_steps 1", "frame_skip 1 4", "frame_command 1 0xAD02"});
    const int32_t mode = CP_BOOT_MODE_DUMP;
    ASSERT_EQ(io(Node::Boot, IOCTL_POWER_RESET, &mode), 0);
    ASSERT_EQ(io(Node::Boot, IOCTL_START_CP_BOOTLOADER, &mode), 0);
    for (uint32_t word : {0x9D00u, 0u, 0u, 0u, 0x9D01u}) {  // read the answer, INFO, REASON
        ASSERT_TRUE(word ? modem_->write(Node::Dump, &word, 4) == 4 : get() > 0) << word;
    }
    const auto* f = reinterpret_cast<const udl::std_ul_frame*>(buf_);
    for (uint32_t frame = 1; frame <= 3; ++frame) {
        ASSERT_EQ(modem_->poll_mask(Node::Dump), kPollIn) << frame;
        ASSERT_EQ(get(), 16400) << frame;
        EXPECT_EQ(std::tie(f->header.curr_frame, f->header.command),
                  std::make_tuple(frame, 0xAD02u));
    }
    EXPECT_EQ(modem_->poll_mask(Node::Dump), 0u);
    EXPECT_EQ(get(), -EAGAIN);
    EXPECT_NE(control("query marks").find(" frame=3:49152:"), std::string::npos);
}

// The scenarios only write lines that are accepted, so the refusals (a typo in a scenario must
// not pass unnoticed) and the number of the line a scenario file has refused are checked here.
TEST(Settings, RefusalsNameTheLine) {
    Settings s;
    for (const char* line :
         {"dump_size 12abc", "dump_size -", "dump_size 0x", "dump_size 09", "dump_size 1.5",
          "dump_size 0x100000000", "no_such_key 1", "frame_payload 16385", "frame_payload 0",
          "frame_skip 1", "frame_size_field 1 1 2 3", "cpif_version 123456789012345678901",
          "result NO_SUCH_REQUEST 1", "result POWER_ON 0x1FFFFFFFF", "security -1 0",
          "answer 0x900D maybe", "strict_nodes 2", "region_chunk 0",
          "image_mark_range 0x3000 0x2000"}) {
        EXPECT_NE(apply_setting(s, line), "") << line;
    }
    const std::string path = ::testing::TempDir() + "/vmodem-settings-test";
    std::ofstream(path)
        << "# comment\n\n  dump_reason CP crashed: assert at x.c:12\ndump_steps x\n";
    EXPECT_EQ(load_scenario(s, path), "line 4: not a number: x");
    EXPECT_EQ(s.dump_reason, "CP crashed: assert at x.c:12") << "a text keeps its blanks";
}

// The crash scenarios compare dump and region files with these streams, made by the same
// generator: fill() must equal byte_at() at any offset and length, and streams depend on seed
// and name, or a daemon that writes data out of place would pass.
TEST(Payload, StreamsDependOnSeedNameAndOffset) {
    for (uint64_t off : {0ull, 1ull, 7ull, 8ull, 13ull, 16380ull}) {
        std::vector<uint8_t> buf(33);
        payload::fill(42, off, buf.data(), buf.size());
        for (size_t i = 0; i < buf.size(); ++i) {
            ASSERT_EQ(buf[i], payload::byte_at(42, off + i)) << off << "+" << i;
        }
    }
    EXPECT_NE(payload::stream_seed(1, "shmem"), payload::stream_seed(1, "vss"));
    EXPECT_NE(payload::stream_seed(1, "shmem"), payload::stream_seed(2, "shmem"));
    EXPECT_NE(payload::word_at(1, 0), payload::word_at(2, 0));
}

}  // namespace
}  // namespace vmodem
