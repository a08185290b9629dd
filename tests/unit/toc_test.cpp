// Boot preparation: the partition's TOC and its checks, the range of parts
// that is loaded, the load-control entries, and the NV file the NV part
// comes from.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "rix_test.h"

namespace {

constexpr char kBootNode[] = "/data/umts_boot0";
constexpr char kPartition[] = "/data/modem.bin";
constexpr char kNvPath[] = "/mnt/vendor/efs/nv_data.bin";
constexpr char kNvTempPath[] = "/mnt/vendor/efs/nv_data_temp.bin";

struct Entry {
    std::string name;  // up to 12 bytes are stored, without NUL when all 12 are used
    uint32_t b_off = 0;
    uint32_t m_off = 0;
    uint32_t size = 0;
    uint32_t crc = 0;
};

void put32(std::string& s, size_t at, uint32_t v) {
    for (int k = 0; k < 4; k++) {
        s[at + k] = static_cast<char>(v >> (8 * k));
    }
}

// The 512-byte table as the partition holds it: 32 bytes per entry, the
// count in the last word of entry 0.
std::string toc_bytes(const std::vector<Entry>& entries, uint32_t count) {
    std::string t(512, '\0');
    for (size_t i = 0; i < entries.size(); i++) {
        const Entry& e = entries[i];
        memcpy(&t[32 * i], e.name.data(), std::min<size_t>(e.name.size(), 12));
        put32(t, 32 * i + 12, e.b_off);
        put32(t, 32 * i + 16, e.m_off);
        put32(t, 32 * i + 20, e.size);
        put32(t, 32 * i + 24, e.crc);
    }
    put32(t, 28, count);
    return t;
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::vector<Entry> standard_parts() {
    return {
        {"TOC", 0, 0x1000, 0x200, 0x11},
        {"BOOT", 0x1000, 0x2000, 0x100, 0x22},
        {"MAIN", 0x2000, 0xC0200000, 0x4000, 0x33},
        {"VSS", 0x6000, 0x300000, 0x80, 0x44},
        {"NV", 0, 0x400000, 0x100, 0x55},
        {"OFFSET"},
    };
}

// Sixteen entries, all named: the stage table has only thirteen slots.
std::vector<Entry> sixteen_parts() {
    std::vector<Entry> parts = {{"TOC", 0, 0x1000, 0x200},
                                {"BOOT", 0x1000, 0x2000, 0x100},
                                {"MAIN", 0x2000, 0x3000, 0x100},
                                {"VSS", 0x3000, 0x4000, 0x80},
                                {"NV", 0, 0x5000, 0x100}};
    for (uint32_t i = 5; i < 16; i++) {
        parts.push_back({"P" + std::to_string(i), i * 0x1000, i * 0x10000, 0x10, i});
    }
    return parts;
}

int open_descriptors() {
    int n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
        n++;
    }
    return n;
}

bool same_file(int fd, const char* path) {
    struct stat a, b;
    return fstat(fd, &a) == 0 && stat(path, &b) == 0 && a.st_ino == b.st_ino &&
           a.st_dev == b.st_dev;
}

class TocTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        bd_ = Container::bootDump;
        b_ = Container::getStdBoot();
        snprintf(rix_args.boot_node, sizeof(rix_args.boot_node), "%s", kBootNode);
        snprintf(rix_args.partition_path, sizeof(rix_args.partition_path), "%s", kPartition);
        write_file(kBootNode, "");
        std::filesystem::create_directories("/mnt/vendor/efs");
        old_mask_ = umask(002);
        clear_logs();
    }
    void TearDown() override {
        umask(old_mask_);
        bd_->std_boot_close_args();
        RixTest::TearDown();
    }

    void write_toc(const std::vector<Entry>& entries, uint32_t count) {
        write_file(kPartition, toc_bytes(entries, count));
    }
    bool contains(const std::string& text) const { return kmsg().find(text) != std::string::npos; }
    // Every descriptor of the record is closed again and the record reset.
    void expect_closed_and_reset(int descriptors_before) {
        EXPECT_EQ(b_->fd, -1);
        EXPECT_EQ(b_->bin_fd, -1);
        EXPECT_EQ(b_->nv_fd, -1);
        EXPECT_EQ(b_->toc_idx_toc, -1);
        EXPECT_EQ(b_->toc[0], 0);
        EXPECT_EQ(open_descriptors(), descriptors_before);
    }

    BootDump* bd_ = nullptr;
    std_boot* b_ = nullptr;
    mode_t old_mask_ = 0;
};

TEST_F(TocTest, StandardTocBuildsOneEntryPerPart) {
    write_toc(standard_parts(), 6);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));

    EXPECT_GE(b_->fd, 0);
    EXPECT_GE(b_->bin_fd, 0);
    EXPECT_GE(b_->nv_fd, 0);
    for (int fd : b_->fd_spare) {
        EXPECT_EQ(fd, -1);
    }
    EXPECT_TRUE(same_file(b_->fd, kBootNode));
    EXPECT_TRUE(same_file(b_->bin_fd, kPartition));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvPath));
    EXPECT_EQ(b_->first_stage, 0u);
    EXPECT_EQ(b_->last_stage, 5u);
    EXPECT_EQ(b_->toc_idx_toc, 0);
    EXPECT_EQ(b_->toc_idx_boot, 1);
    EXPECT_EQ(b_->toc_idx_main, 2);
    EXPECT_EQ(b_->toc_idx_vss, 3);
    EXPECT_EQ(b_->toc_idx_nv, 4);
    EXPECT_EQ(b_->toc_idx_offset, 5);
    EXPECT_EQ(b_->toc_idx_nv_norm, -1);
    EXPECT_EQ(b_->toc_idx_nv_prot, -1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(b_->toc), 512), toc_bytes(standard_parts(), 6));

    const std_dload_control& main = b_->stage[2];
    EXPECT_EQ(main.stage, 2u);
    EXPECT_EQ(main.fd, static_cast<uint32_t>(b_->bin_fd));
    EXPECT_EQ(main.b_off, 0x2000u);
    EXPECT_EQ(main.m_off, 0x00200000u);  // top two bits cleared
    EXPECT_EQ(main.b_size, 0x4000u);
    EXPECT_EQ(main.crc, 0x33u);
    EXPECT_EQ(main.xmit_once, 0u);
    for (uint32_t r : main.reserved) {
        EXPECT_EQ(r, 0u);
    }
    EXPECT_EQ(b_->stage[0].m_off, 0x1000u);
    EXPECT_EQ(b_->stage[3].xmit_once, 1u);  // VSS goes once per phone start
    EXPECT_EQ(b_->stage[4].stage, 4u);
    EXPECT_EQ(b_->stage[4].fd, static_cast<uint32_t>(b_->nv_fd));
    EXPECT_EQ(b_->stage[4].b_size, 0x100u);
    // OFFSET ends the image: its slot stays empty.
    EXPECT_EQ(b_->stage[5].stage, 0u);
    EXPECT_EQ(b_->stage[5].fd, 0u);

    // The listing shows the raw m_off, the stage line the one that is used.
    EXPECT_TRUE(
        contains("<6>cpif: rix: std_boot_parse_toc_img: TOC[2].name = MAIN, "
                 "b_off=0x00002000, m_off=0xc0200000, size=0x00004000 crc=0x00000033\n"));
    EXPECT_TRUE(
        contains("<6>cpif: rix: build_std_dload_control: stage=2, name:MAIN "
                 "b_off=0x00002000, m_offset=0x00200000 b_size=0x00004000\n"));
    EXPECT_TRUE(
        contains("TOC[5].name = OFFSET, b_off=0x00000000, m_off=0x00000000, "
                 "size=0x00000000 crc=0x00000000\n"));
    EXPECT_FALSE(contains("stage=5"));
    // The opening lines come first, in this order.
    const std::string k = kmsg();
    const std::string head = std::string("<6>cpif: rix: std_boot_prepare_args: DEV(") + kBootNode +
                             ") opened (fd " + std::to_string(b_->fd) +
                             ")\n<6>cpif: rix: std_boot_parse_toc_img: BIN(" + kPartition +
                             ") opened (fd " + std::to_string(b_->bin_fd) + ")\n";
    EXPECT_EQ(k.rfind(head, 0), 0u) << k;
    EXPECT_EQ(radio().find("E/"), std::string::npos);

    // Closing gives every descriptor back.
    int before = open_descriptors();
    bd_->std_boot_close_args();
    EXPECT_EQ(open_descriptors(), before - 3);
}

TEST_F(TocTest, FirstEntryMustBeNamedExactlyToc) {
    int before = open_descriptors();
    // BOOT first: the first 32 bytes are shown in hex.
    std::vector<Entry> parts = standard_parts();
    std::swap(parts[0], parts[1]);
    write_toc(parts, 6);
    EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(
        contains("<6>cpif: rix: std_boot_parse_toc_img: ERR! invalid TOC: No TOC, content: "
                 "42 4F 4F 54 00 00 00 00 00 00 00 00 00 10 00 00 00 20 00 00 00 01 00 00 "
                 "22 00 00 00 06 00 00 00\n"));
    EXPECT_FALSE(contains("TOC[0]"));
    expect_closed_and_reset(before);

    // "TOCX" and "TO" are not "TOC"; a short read shows only the bytes read.
    for (const std::string& bytes : {std::string("TOCX", 4), std::string("TO\0", 3)}) {
        clear_logs();
        write_file(kPartition, bytes);
        EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
        EXPECT_TRUE(contains(bytes.size() == 4 ? "No TOC, content: 54 4F 43 58\n"
                                               : "No TOC, content: 54 4F 00\n"))
            << kmsg();
        expect_closed_and_reset(before);
    }

    // An empty partition gives an empty content text.
    clear_logs();
    write_file(kPartition, "");
    EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(contains("std_boot_parse_toc_img: ERR! invalid TOC: No TOC, content: \n"));
    expect_closed_and_reset(before);
}

TEST_F(TocTest, OpenAndReadFailuresAreErrors) {
    int before = open_descriptors();
    // No boot node.
    unlink(kBootNode);
    EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(kmsg(),
              "<3>cpif: rix: (ERR! No such file or directory) std_boot_prepare_args: ERR! "
              "DEV(/data/umts_boot0) open fail\n"
              "<6>cpif: rix: prepare_boot_args: ERR! std_boot_prepare_args fail\n");
    expect_closed_and_reset(before);

    // No partition.
    write_file(kBootNode, "");
    clear_logs();
    EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(
        contains("<3>cpif: rix: (ERR! No such file or directory) std_boot_parse_toc_img: "
                 "ERR! BIN(/data/modem.bin) open fail\n"));
    EXPECT_FALSE(contains("std_boot_prepare_args fail"));
    expect_closed_and_reset(before);

    // A partition that opens but cannot be read.
    std::filesystem::create_directory(kPartition);
    clear_logs();
    EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(
        contains("<3>cpif: rix: (ERR! Is a directory) std_boot_parse_toc_img: ERR! TOC "
                 "read fail\n"));
    expect_closed_and_reset(before);
    std::filesystem::remove(kPartition);
}

TEST_F(TocTest, TocCountLimits) {
    int before = open_descriptors();
    for (uint32_t count : {17u, 0xFFFFFFFFu}) {
        clear_logs();
        write_toc(standard_parts(), count);
        EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
        EXPECT_TRUE(
            contains("<6>cpif: rix: std_boot_parse_toc_img: ERR! invalid TOC: Total TOC "
                     "count is " +
                     std::to_string(static_cast<int>(count)) + "\n"))
            << kmsg();
        EXPECT_FALSE(contains("TOC[0]"));
        expect_closed_and_reset(before);
    }

    // Count 0: the range wraps to "nothing", and nothing is built.
    clear_logs();
    write_toc(standard_parts(), 0);
    unsigned count = 99;
    bd_->std_boot_init_args();
    ASSERT_TRUE(bd_->std_boot_parse_toc_img(CP_BOOT_MODE_NORMAL, &count));
    EXPECT_EQ(count, 0u);
    bd_->std_boot_close_args();
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->first_stage, 0u);
    EXPECT_EQ(b_->last_stage, 0xFFFFFFFFu);
    const std_dload_control empty = {};
    for (const std_dload_control& s : b_->stage) {
        EXPECT_EQ(memcmp(&s, &empty, sizeof(s)), 0);
    }
    EXPECT_FALSE(contains("stage="));
    bd_->std_boot_close_args();

    // Count 0 in dump mode still loads TOC and BOOT.
    write_toc(standard_parts(), 0);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_DUMP));
    EXPECT_EQ(b_->last_stage, 1u);
    EXPECT_EQ(b_->stage[1].b_size, 0x100u);
}

TEST_F(TocTest, SixteenEntriesNeverReachPastTheStageTable) {
    // The dump record lies right behind the boot record: a stage slot past
    // the table's end would land in it.
    std_dump* d = Container::getStdDump();
    memset(d, 0x5a, sizeof(*d));
    std_dump pattern;
    memcpy(&pattern, d, sizeof(pattern));

    write_toc(sixteen_parts(), 16);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->first_stage, 0u);
    EXPECT_EQ(b_->last_stage, 12u);
    EXPECT_EQ(memcmp(d, &pattern, sizeof(pattern)), 0);
    EXPECT_EQ(b_->stage[12].stage, 12u);
    EXPECT_EQ(b_->stage[12].b_off, 12u * 0x1000);
    EXPECT_EQ(b_->stage[12].crc, 12u);
    EXPECT_TRUE(contains("build_std_dload_control: stage=12, name:P12 "));
    EXPECT_FALSE(contains("stage=13"));
    // Every entry is still listed, and the dropped ones are named.
    EXPECT_TRUE(contains("TOC[15].name = P15, b_off=0x0000f000, m_off=0x000f0000"));
    for (int i = 13; i < 16; i++) {
        EXPECT_TRUE(contains("<6>cpif: rix: prepare_boot_args: ERR! TOC[" + std::to_string(i) +
                             "].name = P" + std::to_string(i) +
                             " has no stage slot, not loaded\n"));
    }
    bd_->std_boot_close_args();

    // An OFFSET at 14 ends the image: only entry 13 is dropped.
    std::vector<Entry> parts = sixteen_parts();
    parts[14].name = "OFFSET";
    write_toc(parts, 16);
    clear_logs();
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->last_stage, 12u);
    EXPECT_TRUE(contains("ERR! TOC[13].name = P13 has no stage slot"));
    EXPECT_FALSE(contains("TOC[14].name = OFFSET has no stage slot"));
    EXPECT_FALSE(contains("TOC[15].name = P15 has no stage slot"));
    EXPECT_EQ(memcmp(d, &pattern, sizeof(pattern)), 0);
    bd_->std_boot_close_args();

    // A count of 13 fits the table exactly and drops nothing.
    write_toc(sixteen_parts(), 13);
    clear_logs();
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->last_stage, 12u);
    EXPECT_FALSE(contains("has no stage slot"));
    EXPECT_EQ(memcmp(d, &pattern, sizeof(pattern)), 0);

    // Built directly with a range past the table, the list still stops.
    b_->last_stage = 15;
    bd_->build_std_dload_control();
    bd_->build_std_dload_control_nv_fd(13, 4);
    EXPECT_EQ(memcmp(d, &pattern, sizeof(pattern)), 0);
}

TEST_F(TocTest, SingleEntryCountSkipsTheToc) {
    // Count 1 needs no verification information for the TOC.
    std::vector<Entry> parts = standard_parts();
    parts[0].m_off = 0;
    write_toc(parts, 1);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->first_stage, 1u);
    EXPECT_EQ(b_->last_stage, 3u);
    EXPECT_EQ(b_->stage[0].b_size, 0u);  // TOC not built
    EXPECT_EQ(b_->stage[1].b_size, 0x100u);
    EXPECT_EQ(b_->stage[3].b_size, 0x80u);
    EXPECT_EQ(b_->stage[4].b_size, 0u);
    EXPECT_FALSE(contains("stage=0,"));
    EXPECT_TRUE(contains("stage=3, name:VSS"));
    bd_->std_boot_close_args();

    write_toc(parts, 1);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_DUMP));
    EXPECT_EQ(b_->first_stage, 1u);
    EXPECT_EQ(b_->last_stage, 1u);
    EXPECT_EQ(b_->stage[1].b_size, 0x100u);
    EXPECT_EQ(b_->stage[2].b_size, 0u);
}

TEST_F(TocTest, TocNeedsVerificationInformation) {
    int before = open_descriptors();
    std::vector<Entry> parts = standard_parts();
    parts[0].m_off = 0;
    write_toc(parts, 6);
    EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(
        contains("<6>cpif: rix: prepare_boot_args: ERR! invalid TOC : No info for TOC "
                 "verification\n"));
    EXPECT_FALSE(contains("stage="));
    expect_closed_and_reset(before);

    // The raw value is tested: top bits alone count as information.
    parts[0].m_off = 0xC0000000;
    write_toc(parts, 6);
    clear_logs();
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->stage[0].m_off, 0u);
    EXPECT_FALSE(contains("No info"));
}

TEST_F(TocTest, NamesAreMatchedWholeAndTheLastOneWins) {
    std::vector<Entry> parts = standard_parts();
    parts[5] = {"VSS", 0x9000, 0x900000, 0x90, 0x99};
    parts.push_back({"NV_NORM", 0xA000, 0xA00000, 0x10});
    parts.push_back({"NV_PROT", 0xB000, 0xB00000, 0x10});
    parts.push_back({"BOOTLOADER12", 0xC000, 0xC00000, 0x10});  // 12 bytes, no NUL
    parts.push_back({"NVX", 0xD000, 0xD00000, 0x10});
    parts.push_back({"OFFSET"});
    write_toc(parts, 11);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->toc_idx_vss, 5);
    EXPECT_EQ(b_->toc_idx_boot, 1);
    EXPECT_EQ(b_->toc_idx_nv, 4);
    EXPECT_EQ(b_->toc_idx_nv_norm, 6);
    EXPECT_EQ(b_->toc_idx_nv_prot, 7);
    EXPECT_EQ(b_->toc_idx_offset, 10);
    EXPECT_EQ(b_->last_stage, 10u);
    // Only the entry that holds the index is sent once.
    EXPECT_EQ(b_->stage[3].xmit_once, 0u);
    EXPECT_EQ(b_->stage[5].xmit_once, 1u);
    // NV_NORM and NV_PROT are never loaded; unknown names load like BOOT.
    EXPECT_EQ(b_->stage[6].fd, 0xFFFFFFFFu);
    EXPECT_EQ(b_->stage[7].fd, 0xFFFFFFFFu);
    EXPECT_EQ(b_->stage[8].fd, static_cast<uint32_t>(b_->bin_fd));
    EXPECT_EQ(b_->stage[9].fd, static_cast<uint32_t>(b_->bin_fd));
    EXPECT_EQ(b_->stage[9].m_off, 0xD00000u);
    EXPECT_EQ(b_->stage[10].b_size, 0u);
    // A name that fills all 12 bytes is printed with exactly those bytes.
    EXPECT_TRUE(contains("TOC[8].name = BOOTLOADER12, b_off=0x0000c000"));
    EXPECT_TRUE(contains("stage=8, name:BOOTLOADER12 b_off=0x0000c000"));
    bd_->std_boot_close_args();

    // With the VSS option the part goes at every boot.
    rix_args.options |= BOPT_REINIT_VSS;
    write_toc(parts, 11);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    for (const std_dload_control& s : b_->stage) {
        EXPECT_EQ(s.xmit_once, 0u);
    }
}

TEST_F(TocTest, OffsetEndsTheStageList) {
    std::vector<Entry> parts = standard_parts();
    parts[5] = {"P5", 0x8000, 0x800000, 0x10};
    parts.push_back({"P6", 0x9000, 0x900000, 0x10});
    parts.push_back({"OFFSET"});
    parts.push_back({"P8", 0xA000, 0xA00000, 0x10});
    write_toc(parts, 9);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->last_stage, 8u);
    EXPECT_EQ(b_->stage[6].b_size, 0x10u);
    EXPECT_EQ(b_->stage[7].b_size, 0u);
    EXPECT_EQ(b_->stage[8].b_size, 0u);
    EXPECT_EQ(b_->stage[8].stage, 0u);
    EXPECT_TRUE(contains("TOC[8].name = P8"));
    EXPECT_FALSE(contains("name:P8"));
    EXPECT_FALSE(contains("name:OFFSET"));
}

TEST_F(TocTest, NvEntryIsRequiredInNormalModeOnly) {
    int before = open_descriptors();
    // No NV entry.
    std::vector<Entry> parts = standard_parts();
    parts[4].name = "XV";
    write_toc(parts, 6);
    EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(
        contains("<6>cpif: rix: std_boot_parse_toc_img: ERR! invalid TOC : There is no NV\n"));
    EXPECT_FALSE(std::filesystem::exists(kNvPath));
    expect_closed_and_reset(before);

    // An NV entry of size 0 with an existing NV file: opened, then refused.
    write_file(kNvPath, std::string(64, '\xff'));
    parts = standard_parts();
    parts[4].size = 0;
    write_toc(parts, 6);
    clear_logs();
    EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(contains("getNvFd: NV(/mnt/vendor/efs/nv_data.bin) opened"));
    EXPECT_TRUE(contains("ERR! invalid TOC : There is no NV\n"));
    expect_closed_and_reset(before);

    // Size 0 without the file: the creation fails first and leaves nothing.
    std::filesystem::remove(kNvPath);
    clear_logs();
    EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(contains("<6>cpif: rix: create_empty_nv: ERR! wrong size(0)\n"));
    EXPECT_FALSE(contains("There is no NV"));
    EXPECT_FALSE(std::filesystem::exists(kNvPath));
    expect_closed_and_reset(before);

    // Dump mode: no NV file is opened or created, size 0 or not.
    for (uint32_t size : {0u, 0x100u}) {
        parts[4].size = size;
        write_toc(parts, 6);
        clear_logs();
        ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_DUMP));
        EXPECT_EQ(b_->nv_fd, -1);
        EXPECT_EQ(b_->last_stage, 1u);
        EXPECT_FALSE(std::filesystem::exists(kNvPath));
        EXPECT_FALSE(contains("NV("));
        EXPECT_FALSE(contains("stage=2"));
        bd_->std_boot_close_args();
    }
}

TEST_F(TocTest, NvEntryOutsideTheLoadedRangeIsStillOpened) {
    // Count 3 loads TOC, BOOT and MAIN; the NV entry at 4 still needs its file.
    write_toc(standard_parts(), 3);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->last_stage, 2u);
    EXPECT_TRUE(same_file(b_->nv_fd, kNvPath));
    EXPECT_EQ(std::filesystem::file_size(kNvPath), 0x100u);
    EXPECT_EQ(b_->stage[4].fd, 0u);  // not built
}

TEST_F(TocTest, EmptyNvPathLoadsUpToMain) {
    rix_args.nv_data_path[0] = '\0';
    write_toc(standard_parts(), 6);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->nv_fd, -1);
    EXPECT_EQ(b_->first_stage, 0u);
    EXPECT_EQ(b_->last_stage, 2u);
    EXPECT_EQ(b_->stage[3].b_size, 0u);
    bd_->std_boot_close_args();

    write_toc(standard_parts(), 1);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(b_->first_stage, 1u);
    EXPECT_EQ(b_->last_stage, 2u);
    bd_->std_boot_close_args();

    // The NV entry is still required.
    std::vector<Entry> parts = standard_parts();
    parts[4].size = 0;
    write_toc(parts, 6);
    EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(contains("There is no NV"));
}

// A valid NV image of 4 data bytes 01 02 03 04: sum 0x0201 + 0x0403.
std::string valid_nv() {
    std::string nv(16, '\0');
    put32(nv, 8, 4);
    nv += std::string("\x01\x02\x03\x04\x04\x06", 6);
    return nv;
}

TEST_F(TocTest, NvChecksumFallsBackToTheTempFile) {
    rix_args.options |= BOPT_NV_CHECKSUM;

    // A valid file is kept.
    write_file(kNvPath, valid_nv());
    write_toc(standard_parts(), 6);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvPath));
    EXPECT_TRUE(contains("CsumCheckForFile: /mnt/vendor/efs/nv_data.bin checksum : verified"));
    EXPECT_FALSE(std::filesystem::exists(kNvTempPath));
    bd_->std_boot_close_args();

    // A corrupted file is replaced by the temp file, created when missing;
    // the first descriptor is closed.
    std::string bad = valid_nv();
    bad[20] = 0x05;
    write_file(kNvPath, bad);
    clear_logs();
    int before = open_descriptors();
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(contains("checksum : corrupted"));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvTempPath));
    EXPECT_EQ(b_->stage[4].fd, static_cast<uint32_t>(b_->nv_fd));
    EXPECT_EQ(std::filesystem::file_size(kNvTempPath), 0x100u);
    EXPECT_EQ(open_descriptors(), before + 3);
    bd_->std_boot_close_args();

    // When the temp file cannot be had either, the first descriptor stays.
    snprintf(rix_args.nv_temp_path, sizeof(rix_args.nv_temp_path), "%s", "/mnt/vendor/none/t.bin");
    clear_logs();
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(contains("create_empty_nv(/mnt/vendor/none/t.bin, 256) fail"));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvPath));
    EXPECT_EQ(open_descriptors(), before + 3);
    bd_->std_boot_close_args();

    // Dump mode checks the file too, but opens nothing.
    clear_logs();
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_DUMP));
    EXPECT_TRUE(contains("checksum : corrupted"));
    EXPECT_EQ(b_->nv_fd, -1);
    EXPECT_EQ(open_descriptors(), before + 2);
}

TEST_F(TocTest, NvChecksumWithoutDataPathUsesTheTempFile) {
    rix_args.options |= BOPT_NV_CHECKSUM;
    rix_args.nv_data_path[0] = '\0';
    write_toc(standard_parts(), 6);
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(contains("<6>cpif: rix: CsumCheckForFile: Failed to open file<6>"));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvTempPath));
    EXPECT_EQ(b_->last_stage, 2u);
}

TEST_F(TocTest, NvDescriptorGoesOnlyToTheNvStage) {
    bd_->std_boot_init_args();
    b_->nv_fd = 42;
    b_->toc_idx_nv = 4;
    b_->toc_idx_nv_norm = 5;
    b_->stage[3].fd = 7;
    b_->stage[4].fd = 7;
    b_->stage[5].fd = 7;
    bd_->build_std_dload_control_nv_fd(3, 3);
    bd_->build_std_dload_control_nv_fd(4, 4);
    bd_->build_std_dload_control_nv_fd(5, 5);
    EXPECT_EQ(b_->stage[3].fd, 7u);
    EXPECT_EQ(b_->stage[4].fd, 42u);
    EXPECT_EQ(b_->stage[5].fd, 0xFFFFFFFFu);
    // An absent entry (-1) never matches any index.
    bd_->build_std_dload_control_nv_fd(6, 0xFFFFFFFFu);
    EXPECT_EQ(b_->stage[6].fd, 0u);
    b_->nv_fd = -1;
}

}  // namespace
