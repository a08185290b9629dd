#include "modem.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <unistd.h>

#include "boot/cpif.h"
#include "control.h"
#include "dump/udl.h"
#include "payload.h"

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
    void make(const std::vector<std::string>& lines = {}) {
        Settings s;
        s.memory_size = memory_.size();
        for (const auto& l : lines) {
            ASSERT_EQ(apply_setting(s, l), "") << l;
        }
        trace_.capture(true);
        modem_ = std::make_unique<Modem>(s, memory_.data(), trace_);
    }

    int32_t io(Node node, uint32_t cmd, const void* in = nullptr, void* out = nullptr,
               uint64_t arg = 0) {
        size_t size = ioc_size(cmd);
        uint8_t out_buf[1024] = {};
        IoctlOutcome o = modem_->ioctl(node, cmd, arg, in, ioc_writes_to_driver(cmd) ? size : 0,
                                       out_buf, ioc_reads_from_driver(cmd) ? size : 0, user_);
        if (out != nullptr) {
            std::memcpy(out, out_buf, o.out_len);
        }
        return o.result;
    }
    int32_t io_mode(uint32_t cmd, int32_t mode) { return io(Node::Boot, cmd, &mode); }

    void put(Node node, uint32_t word) { ASSERT_EQ(modem_->write(node, &word, 4), 4); }
    uint32_t word(Node node) {
        uint32_t w = 0;
        EXPECT_EQ(modem_->read(node, reinterpret_cast<uint8_t*>(&w), 4), 4);
        return w;
    }
    int64_t get(Node node, void* buf, size_t len) {
        return modem_->read(node, static_cast<uint8_t*>(buf), len);
    }

    void boot_dump_loader() {
        ASSERT_EQ(io_mode(IOCTL_POWER_RESET, CP_BOOT_MODE_DUMP), 0);
        ASSERT_EQ(io_mode(IOCTL_START_CP_BOOTLOADER, CP_BOOT_MODE_DUMP), 0);
    }
    udl::ul_info open_dump_stage() {
        put(Node::Dump, 0x9D00);
        EXPECT_EQ(word(Node::Dump), 0xAD00u);
        udl::ul_info info{};
        EXPECT_EQ(get(Node::Dump, &info, sizeof(info)), 12);
        char reason[1024];
        EXPECT_EQ(get(Node::Dump, reason, info.reason_len), info.reason_len);
        return info;
    }

    std::vector<uint8_t> memory_ = std::vector<uint8_t>(1 << 20);
    LocalMemory user_;
    Trace trace_;
    std::unique_ptr<Modem> modem_;
};

TEST_F(ModemTest, NormalBootHandshakeTakesTheCpOnline) {
    make();
    EXPECT_EQ(io(Node::Boot, IOCTL_GET_MODEM_STATE), kStateOffline);
    // Before the boot loader runs, the CP does not answer.
    put(Node::Boot, 0x900D);
    EXPECT_EQ(modem_->poll_mask(Node::Boot), 0u);
    EXPECT_EQ(io(Node::Boot, IOCTL_COMPLETE_NORMAL_BOOTUP), -EIO);

    ASSERT_EQ(io(Node::Boot, IOCTL_POWER_ON), 0);
    ASSERT_EQ(io_mode(IOCTL_START_CP_BOOTLOADER, CP_BOOT_MODE_NORMAL), 0);
    put(Node::Boot, 0x900D);
    EXPECT_EQ(modem_->poll_mask(Node::Boot), kPollIn);
    EXPECT_EQ(word(Node::Boot), 0xA00Du);
    EXPECT_EQ(modem_->poll_mask(Node::Boot), 0u);
    EXPECT_EQ(get(Node::Boot, nullptr, 4), -EAGAIN);
    put(Node::Boot, 0x9F00);
    EXPECT_EQ(word(Node::Boot), 0xAF00u);
    EXPECT_EQ(io(Node::Boot, IOCTL_COMPLETE_NORMAL_BOOTUP), 0);
    EXPECT_EQ(io(Node::Boot, IOCTL_GET_MODEM_STATE), kStateOnline);

    const auto& lines = trace_.captured();
    EXPECT_NE(std::find(lines.begin(), lines.end(), "write boot 0x0000900D ignored=no-boot-loader"),
              lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "read boot 0x0000A00D"), lines.end());
}

TEST_F(ModemTest, WrongOrMissingAnswerWords) {
    make({"answer 0x900D 0xA00E", "answer 0x9F00 none"});
    io(Node::Boot, IOCTL_POWER_ON);
    io_mode(IOCTL_START_CP_BOOTLOADER, CP_BOOT_MODE_NORMAL);
    put(Node::Boot, 0x900D);
    EXPECT_EQ(word(Node::Boot), 0xA00Eu);
    put(Node::Boot, 0x9F00);
    EXPECT_EQ(modem_->poll_mask(Node::Boot), 0u);
    EXPECT_EQ(io(Node::Boot, IOCTL_COMPLETE_NORMAL_BOOTUP), -EIO);
}

TEST_F(ModemTest, ShortReadOfAWordReturnsOnlyWhatWasAskedFor) {
    make();
    io(Node::Boot, IOCTL_POWER_ON);
    io_mode(IOCTL_START_CP_BOOTLOADER, CP_BOOT_MODE_NORMAL);
    put(Node::Boot, 0x900D);
    uint8_t b[4] = {};
    EXPECT_EQ(get(Node::Boot, b, 2), 2);
    EXPECT_EQ(b[0], 0x0D);
    EXPECT_EQ(b[1], 0xA0);
    EXPECT_EQ(modem_->poll_mask(Node::Boot), 0u);  // one read, one message
}

TEST_F(ModemTest, CrashHangsUpTheBootNodeUntilPowerReset) {
    make();
    io(Node::Boot, IOCTL_POWER_ON);
    modem_->crash(kStateCrashWatchdog);
    EXPECT_EQ(modem_->poll_mask(Node::Boot), kPollHup);
    EXPECT_EQ(modem_->poll_mask(Node::Dump), 0u);
    EXPECT_EQ(io(Node::Boot, IOCTL_GET_MODEM_STATE), 9);
    EXPECT_EQ(io(Node::Boot, IOCTL_GET_MODEM_STATE), 9);  // reading does not clear it
    modem_->crash_reset();
    EXPECT_EQ(io(Node::Boot, IOCTL_GET_MODEM_STATE), 1);
    ASSERT_EQ(io_mode(IOCTL_POWER_RESET, CP_BOOT_MODE_NORMAL), 0);
    EXPECT_EQ(modem_->poll_mask(Node::Boot), 0u);
    EXPECT_EQ(io(Node::Boot, IOCTL_GET_MODEM_STATE), kStateBooting);
}

TEST_F(ModemTest, RequestsAreCheckedForCodeNodeAndArguments) {
    make({"result GET_RFBOARD_DISCONNECT 3"});
    EXPECT_EQ(io(Node::Boot, 0x6F99), -ENOTTY);
    EXPECT_EQ(io(Node::Dump, IOCTL_POWER_ON), -ENOTTY);  // a boot-node request
    EXPECT_EQ(io(Node::Boot, IOCTL_GET_BTL_SIZE), -ENOTTY);
    EXPECT_EQ(io_mode(IOCTL_POWER_RESET, 7), -EINVAL);
    EXPECT_EQ(io(Node::Boot, IOCTL_GET_RFBOARD_DISCONNECT), 3);
    EXPECT_EQ(trace_.captured().back(), "ioctl boot GET_RFBOARD_DISCONNECT -> 3 forced");
    // Without strict nodes the driver takes a request on any node.
    ASSERT_EQ(apply_setting(modem_->settings(), "strict_nodes 0"), "");
    EXPECT_EQ(io(Node::Dump, IOCTL_GET_MODEM_STATE), kStateOffline);
}

TEST_F(ModemTest, SecurityAnswersPerMode) {
    make({"security 2 11", "security 1 13", "security 0 0x00FEED04"});
    security_req_args a{2, 0, 0, 0};
    EXPECT_EQ(io(Node::Boot, IOCTL_CHECK_SECURITY, &a), 11);
    a.mode = 1;
    EXPECT_EQ(io(Node::Boot, IOCTL_CHECK_SECURITY, &a), 13);
    a.mode = 0;
    EXPECT_EQ(io(Node::Boot, IOCTL_CHECK_SECURITY, &a), 0x00FEED04);
    a = {7, 0x1000, 0x200, 0};
    EXPECT_EQ(io(Node::Boot, IOCTL_CHECK_SECURITY, &a), 0);
    EXPECT_EQ(trace_.captured().back(),
              "ioctl boot CHECK_SECURITY mode=7 param2=0x1000 param3=0x200 param4=0x0 -> 0");
}

TEST_F(ModemTest, ImageChunksLandInModemMemoryWithinBounds) {
    make();
    std::vector<uint8_t> chunk(100);
    for (size_t i = 0; i < chunk.size(); ++i) {
        chunk[i] = static_cast<uint8_t>(i + 1);
    }
    cp_image img{reinterpret_cast<uintptr_t>(chunk.data()), 100, 0x1000, 0x200, 0, 100};
    EXPECT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), -EIO);  // not powered
    io(Node::Boot, IOCTL_POWER_ON);
    ASSERT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), 0);
    EXPECT_EQ(std::memcmp(memory_.data() + 0x1000, chunk.data(), 100), 0);
    EXPECT_EQ(memory_[0x1000 + 100], 0);
    img.m_offset = static_cast<uint32_t>(memory_.size() - 99);
    EXPECT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), -EINVAL);
    img.m_offset = static_cast<uint32_t>(memory_.size() - 100);
    EXPECT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), 0);
    img.len = 0;  // the empty last chunk of a part whose size is a multiple of the chunk
    EXPECT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), 0);
    EXPECT_EQ(modem_->facts().image_bytes, 200u);
}

// Reads a whole step; returns the frames' headers and appends payload to out.
std::vector<udl::ul_frame_header> read_step(Modem& m, std::vector<uint8_t>& out) {
    std::vector<udl::ul_frame_header> headers;
    static udl::std_ul_frame frame;
    for (;;) {
        int64_t n = m.read(Node::Dump, reinterpret_cast<uint8_t*>(&frame), sizeof(frame));
        if (n < 16) {
            break;
        }
        headers.push_back(frame.header);
        out.insert(out.end(), frame.payload, frame.payload + (n - 16));
        if (frame.header.curr_frame >= frame.header.num_frames) {
            break;
        }
    }
    return headers;
}

TEST_F(ModemTest, DumpStageDeliversSeededFramesStepByStep) {
    make({"dump_size 40000", "dump_steps 2", "dump_seed 99", "dump_reason assert in l2.c"});
    boot_dump_loader();
    put(Node::Dump, 0x9D00);
    EXPECT_EQ(word(Node::Dump), 0xAD00u);
    udl::ul_info info{};
    ASSERT_EQ(get(Node::Dump, &info, sizeof(info)), 12);
    EXPECT_EQ(info.dump_size, 40000u);
    EXPECT_EQ(info.num_steps, 2u);
    EXPECT_EQ(info.reason_len, 14u);
    char reason[64] = {};
    ASSERT_EQ(get(Node::Dump, reason, sizeof(reason)), 14);  // never more than announced
    EXPECT_STREQ(reason, "assert in l2.c");

    std::vector<uint8_t> dump;
    put(Node::Dump, 0x9D01);
    auto h1 = read_step(*modem_, dump);
    ASSERT_EQ(h1.size(), 2u);  // 20000 bytes: 16384 + 3616
    EXPECT_EQ(h1[0].command, 0xAD01u);
    EXPECT_EQ(h1[0].num_frames, 2u);
    EXPECT_EQ(h1[0].curr_frame, 1u);
    EXPECT_EQ(h1[0].size, 16384u);
    EXPECT_EQ(h1[1].size, 3616u);
    EXPECT_EQ(modem_->poll_mask(Node::Dump), 0u);  // nothing before the next request
    put(Node::Dump, 0x9D02);
    auto h2 = read_step(*modem_, dump);
    EXPECT_EQ(h2.size(), 2u);
    EXPECT_EQ(h2[1].command, 0xAD02u);
    ASSERT_EQ(dump.size(), 40000u);
    for (size_t i = 0; i < dump.size(); ++i) {
        ASSERT_EQ(dump[i], payload::byte_at(99, i)) << i;
    }
    put(Node::Dump, 0x9D0D);
    EXPECT_EQ(word(Node::Dump), 0xAD0Du);
    EXPECT_TRUE(modem_->facts().dump_done);
}

TEST_F(ModemTest, StepThirteenSharesItsWordWithDone) {
    make({"dump_size 13", "dump_steps 13"});
    boot_dump_loader();
    open_dump_stage();
    std::vector<uint8_t> dump;
    for (uint32_t step = 1; step <= 13; ++step) {
        put(Node::Dump, 0x9D00 | step);
        auto h = read_step(*modem_, dump);
        ASSERT_EQ(h.size(), 1u) << step;
        EXPECT_EQ(h[0].command, 0xAD00u | step);
    }
    EXPECT_EQ(dump.size(), 13u);
    put(Node::Dump, 0x9D0D);  // now it is DONE
    EXPECT_EQ(word(Node::Dump), 0xAD0Du);
}

TEST_F(ModemTest, FrameMisbehaviour) {
    make({"dump_size 50000", "dump_steps 1", "frame_skip 1 3", "frame_size_field 1 1 16385",
          "frame_command 1 0xAD02"});
    boot_dump_loader();
    open_dump_stage();
    put(Node::Dump, 0x9D01);
    static udl::std_ul_frame f;
    ASSERT_EQ(get(Node::Dump, &f, sizeof(f)), 16400);
    EXPECT_EQ(f.header.size, 16385u);  // claims more than the frame carries
    EXPECT_EQ(f.header.command, 0xAD02u);
    ASSERT_EQ(get(Node::Dump, &f, sizeof(f)), 16400);
    EXPECT_EQ(f.header.curr_frame, 2u);
    ASSERT_EQ(get(Node::Dump, &f, sizeof(f)), 16 + 50000 - 3 * 16384);
    EXPECT_EQ(f.header.curr_frame, 4u);  // 1, 2, 4
    EXPECT_EQ(f.header.num_frames, 4u);
    EXPECT_EQ(get(Node::Dump, &f, sizeof(f)), -EAGAIN);
}

// A step whose last frame is skipped ends with the frame before it: poll
// must not report data that no read would deliver.
TEST_F(ModemTest, SkippedLastFrameLeavesNothingToPoll) {
    make({"dump_size 50000", "dump_steps 1", "frame_skip 1 4"});
    boot_dump_loader();
    open_dump_stage();
    put(Node::Dump, 0x9D01);
    static udl::std_ul_frame f;
    for (uint32_t frame = 1; frame <= 3; ++frame) {
        ASSERT_EQ(modem_->poll_mask(Node::Dump) & kPollIn, kPollIn) << frame;
        ASSERT_EQ(get(Node::Dump, &f, sizeof(f)), 16400) << frame;
        EXPECT_EQ(f.header.curr_frame, frame);
    }
    EXPECT_EQ(modem_->poll_mask(Node::Dump) & kPollIn, 0u);
    EXPECT_EQ(get(Node::Dump, &f, sizeof(f)), -EAGAIN);
}

TEST_F(ModemTest, InfoMisbehaviour) {
    make({"dump_reason boom", "info_reason_len 600", "info_num_steps 300",
          "info_dump_size_delta 5"});
    boot_dump_loader();
    put(Node::Dump, 0x9D00);
    word(Node::Dump);
    udl::ul_info info{};
    get(Node::Dump, &info, sizeof(info));
    EXPECT_EQ(info.reason_len, 600u);
    EXPECT_EQ(info.num_steps, 300u);
    EXPECT_EQ(info.dump_size, 65536u + 5);
    char reason[700] = {};
    EXPECT_EQ(get(Node::Dump, reason, 500), 500);  // bounded by the reader's count
    EXPECT_EQ(std::string(reason, 6), "boom..");
}

TEST_F(ModemTest, SilentCpAtDumpStart) {
    make({"answer 0x9D00 none"});
    boot_dump_loader();
    put(Node::Dump, 0x9D00);
    EXPECT_EQ(modem_->poll_mask(Node::Dump), 0u);
}

// The benchmark's timing: each kind counts only its own transfers, the first
// one samples the caller's CPU time, and a clear starts over.
TEST_F(ModemTest, BulkMarksCountTransfersPerKind) {
    make({"dump_size 20000", "dump_steps 1", "region shmem 5000"});
    modem_->set_caller(getpid());
    std::vector<uint8_t> chunk(300);
    cp_image img{reinterpret_cast<uintptr_t>(chunk.data()), 300, 0x1000, 0, 0, 300};
    io(Node::Boot, IOCTL_POWER_ON);
    ASSERT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), 0);
    img.m_offset = static_cast<uint32_t>(memory_.size());
    ASSERT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), -EINVAL);  // refused: not counted
    img.m_offset = 0x2000;
    img.len = 200;
    ASSERT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), 0);
    const BulkMark& image = modem_->mark(Bulk::Image);
    EXPECT_EQ(image.count, 2u);
    EXPECT_EQ(image.bytes, 500u);
    EXPECT_GT(image.first_ns, 0u);
    EXPECT_GE(image.last_ns, image.first_ns);
    EXPECT_GE(image.cpu_at_first, 0);

    cp_log_dump_info info{};
    std::strcpy(info.name, "shmem");
    ASSERT_EQ(io(Node::Dump, IOCTL_GET_LOG_DUMP, &info, &info), 0);
    std::vector<uint8_t> buf(8192);
    get(Node::Dump, buf.data(), buf.size());
    get(Node::Dump, buf.data(), buf.size());
    EXPECT_EQ(modem_->mark(Bulk::Region).count, 2u);
    EXPECT_EQ(modem_->mark(Bulk::Region).bytes, 5000u);

    boot_dump_loader();
    open_dump_stage();
    put(Node::Dump, 0x9D01);
    std::vector<uint8_t> dump;
    read_step(*modem_, dump);
    EXPECT_EQ(modem_->mark(Bulk::Frame).count, 2u);
    EXPECT_EQ(modem_->mark(Bulk::Frame).bytes, 20000u);  // payload, not headers
    EXPECT_EQ(modem_->mark(Bulk::Image).count, 2u);

    std::string reply = control_command(*modem_, "query marks");
    EXPECT_EQ(reply.rfind("ok image=2:500:", 0), 0u) << reply;
    EXPECT_NE(reply.find(" frame=2:20000:"), std::string::npos) << reply;
    EXPECT_NE(reply.find(" region=2:5000:"), std::string::npos) << reply;
    EXPECT_EQ(control_command(*modem_, "marks_clear"), "ok");
    EXPECT_EQ(control_command(*modem_, "query marks"),
              "ok image=0:0:0:0:-1 frame=0:0:0:0:-1 region=0:0:0:0:-1");

    // A range narrows the image mark to the loads that start inside it.
    EXPECT_EQ(control_command(*modem_, "set image_mark_range 0x2000 0x2001"), "ok");
    img.m_offset = 0x1000;
    ASSERT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), 0);
    img.m_offset = 0x2001;
    ASSERT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), 0);
    EXPECT_EQ(modem_->mark(Bulk::Image).count, 0u);
    img.m_offset = 0x2000;
    ASSERT_EQ(io(Node::Boot, IOCTL_LOAD_CP_IMAGE, &img), 0);
    EXPECT_EQ(modem_->mark(Bulk::Image).count, 1u);
    EXPECT_EQ(modem_->mark(Bulk::Image).bytes, 200u);
    EXPECT_NE(control_command(*modem_, "set image_mark_range 0x3000 0x2000"), "ok");
}

TEST_F(ModemTest, LogRegionsArriveInChunks) {
    make({"region shmem 5000", "region_count 2 3", "dump_seed 5"});
    // A read-only code: the index comes from the caller's memory, as FUSE passes no input.
    cp_log_dump_num num{2, 0};
    const auto at = reinterpret_cast<uintptr_t>(&num);
    ASSERT_EQ(io(Node::Dump, IOCTL_GET_NUM_LOG_DUMP, nullptr, &num, at), 0);
    EXPECT_EQ(num.num_dump, 3u);
    num = {4, 0};
    io(Node::Dump, IOCTL_GET_NUM_LOG_DUMP, nullptr, &num, at);
    EXPECT_EQ(num.num_dump, 1u);

    cp_log_dump_info info{};
    std::strcpy(info.name, "shmem");
    ASSERT_EQ(io(Node::Dump, IOCTL_GET_LOG_DUMP, &info, &info), 0);
    EXPECT_EQ(info.size, 5000u);
    std::vector<uint8_t> buf(8192);
    ASSERT_EQ(get(Node::Dump, buf.data(), buf.size()), 4096);
    ASSERT_EQ(get(Node::Dump, buf.data() + 4096, buf.size()), 904);
    EXPECT_EQ(get(Node::Dump, buf.data(), buf.size()), -EAGAIN);
    uint64_t seed = payload::stream_seed(5, "shmem");
    for (size_t i = 0; i < 5000; ++i) {
        ASSERT_EQ(buf[i], payload::byte_at(seed, i)) << i;
    }

    std::strcpy(info.name, "vss");
    io(Node::Dump, IOCTL_GET_LOG_DUMP, &info, &info);
    EXPECT_EQ(info.size, 0u);
    EXPECT_EQ(modem_->poll_mask(Node::Dump), 0u);
}

TEST_F(ModemTest, ZeroByteRegionReadsKeepReportingData) {
    make({"region l2b 10", "region_zero_reads 1"});
    cp_log_dump_info info{};
    std::strcpy(info.name, "l2b");
    io(Node::Dump, IOCTL_GET_LOG_DUMP, &info, &info);
    uint8_t buf[16];
    EXPECT_EQ(get(Node::Dump, buf, sizeof(buf)), 0);
    EXPECT_EQ(modem_->poll_mask(Node::Dump), kPollIn);
}

TEST_F(ModemTest, SrinfoBlockRoundTrip) {
    make({"srinfo_text {\"JVER\":\"x\"}"});
    srinfo_block block{};
    block.len = 4092;
    ASSERT_EQ(
        io(Node::Boot, IOCTL_GET_SRINFO, nullptr, nullptr, reinterpret_cast<uintptr_t>(&block)), 0);
    EXPECT_EQ(block.len, 16u + 12u);
    uint32_t marker = 0;
    std::memcpy(&marker, block.data + kSrinfoMarkerOffset, 4);
    EXPECT_EQ(marker, kSrinfoMarker);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(block.data + 16)), "{\"JVER\":\"x\"}");

    // The driver never writes beyond the room the caller announced.
    std::memset(&block, 0xEE, sizeof(block));
    block.len = 20;
    io(Node::Boot, IOCTL_GET_SRINFO, nullptr, nullptr, reinterpret_cast<uintptr_t>(&block));
    EXPECT_EQ(block.len, 20u);
    EXPECT_EQ(block.data[20], 0xEE);

    srinfo_block back{};
    back.len = 5;
    std::memcpy(back.data, "{abc}", 5);
    EXPECT_EQ(
        io(Node::Boot, IOCTL_SET_SRINFO, nullptr, nullptr, reinterpret_cast<uintptr_t>(&back)), 0);
    EXPECT_EQ(modem_->facts().srinfo_restored, "{abc}");
    back.len = 4093;
    EXPECT_EQ(
        io(Node::Boot, IOCTL_SET_SRINFO, nullptr, nullptr, reinterpret_cast<uintptr_t>(&back)),
        -EINVAL);
}

TEST_F(ModemTest, SrinfoWithWrongMarker) {
    make({"srinfo_marker 0x12345678"});
    srinfo_block block{};
    block.len = 4092;
    io(Node::Boot, IOCTL_GET_SRINFO, nullptr, nullptr, reinterpret_cast<uintptr_t>(&block));
    uint32_t marker = 0;
    std::memcpy(&marker, block.data + kSrinfoMarkerOffset, 4);
    EXPECT_EQ(marker, 0x12345678u);
}

TEST_F(ModemTest, CrashReasonWithAndWithoutTerminator) {
    make({"crash_owner 11", "crash_reason wdog"});
    cp_crash_reason r{};
    ASSERT_EQ(io(Node::Dump, IOCTL_GET_CP_CRASH_REASON, nullptr, &r), 0);
    EXPECT_EQ(r.owner, 11);
    EXPECT_STREQ(r.reason, "wdog");
    apply_setting(modem_->settings(), "crash_reason_unterminated 1");
    io(Node::Dump, IOCTL_GET_CP_CRASH_REASON, nullptr, &r);
    EXPECT_EQ(std::memchr(r.reason, 0, sizeof(r.reason)), nullptr);
}

TEST_F(ModemTest, RecordedFacts) {
    make({"btl_size 0x100000", "cpif_version CPIF-TEST"});
    char text[515] = "UMTS: CP Crash by CP - boom";
    EXPECT_EQ(io(Node::Dump, IOCTL_ENTER_UPLOAD_MODE, nullptr, nullptr,
                 reinterpret_cast<uintptr_t>(text)),
              0);
    EXPECT_EQ(modem_->facts().upload_text, "UMTS: CP Crash by CP - boom");
    EXPECT_EQ(io(Node::Boot, IOCTL_ENTER_UPLOAD_MODE, nullptr, nullptr, 0), -EFAULT);
    io(Node::Boot, IOCTL_TRIGGER_AP_WDTRESET);
    EXPECT_EQ(modem_->facts().watchdog_count, 1);
    uint8_t enable = 1;
    io(Node::Boot, IOCTL_SET_MINIDUMP_MODE, &enable);
    EXPECT_EQ(modem_->facts().minidump, 1);

    int32_t size = 0;
    io(Node::Memshare, IOCTL_GET_BTL_SIZE, nullptr, nullptr, reinterpret_cast<uintptr_t>(&size));
    EXPECT_EQ(size, 0x100000);
    int32_t new_size = 16 << 20;
    io(Node::Memshare, IOCTL_SET_BTL_SIZE, &new_size);
    io(Node::Memshare, IOCTL_GET_BTL_SIZE, nullptr, nullptr, reinterpret_cast<uintptr_t>(&size));
    EXPECT_EQ(size, 16 << 20);

    char version[20] = {};
    io(Node::Dump, IOCTL_GET_CPIF_VERSION, nullptr, version);
    EXPECT_STREQ(version, "CPIF-TEST");
}

}  // namespace
}  // namespace vmodem
