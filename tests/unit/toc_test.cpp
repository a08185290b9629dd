// Boot preparation: the partition's TOC and its checks, the range of parts
// that is loaded, the load-control entries, and the NV file the NV part
// comes from.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
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
    std::vector<Entry> parts = standard_parts();
    parts.pop_back();
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

// stage, fd, b_off, m_off, b_size, crc, xmit_once of a stage slot.
std::vector<uint32_t> fields(const std_dload_control& s) {
    return {s.stage, s.fd, s.b_off, s.m_off, s.b_size, s.crc, s.xmit_once};
}

std::string info(const std::string& fn, const std::string& text) {
    return "<6>cpif: rix: " + fn + ": " + text + "\n";
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

    // Closes what an earlier run left open and writes the partition.
    void write_partition(const std::string& bytes) {
        bd_->std_boot_close_args();
        write_file(kPartition, bytes);
        clear_logs();
    }
    bool boot(const std::vector<Entry>& entries, uint32_t count,
              cp_boot_mode mode = CP_BOOT_MODE_NORMAL) {
        write_partition(toc_bytes(entries, count));
        return bd_->prepare_boot_args(mode);
    }
    bool contains(const std::string& text) const { return kmsg().find(text) != std::string::npos; }
    // The preparation fails, every descriptor is closed again and the record reset.
    void expect_refused(int descriptors_before, cp_boot_mode mode = CP_BOOT_MODE_NORMAL) {
        EXPECT_FALSE(bd_->prepare_boot_args(mode));
        EXPECT_EQ(std::vector<int>({b_->fd, b_->bin_fd, b_->nv_fd, b_->toc_idx_toc, b_->toc[0],
                                    open_descriptors()}),
                  std::vector<int>({-1, -1, -1, -1, 0, descriptors_before}))
            << "fd, bin_fd, nv_fd, toc_idx_toc, toc[0], open descriptors";
    }
    // One character per stage slot: '0' when nothing was built into it, '2'
    // when it is sent once per phone start, '1' otherwise.
    std::string built() const {
        std::string out;
        const std_dload_control empty = {};
        for (const std_dload_control& s : b_->stage) {
            out += memcmp(&s, &empty, sizeof(s)) == 0 ? '0' : s.xmit_once == 1 ? '2' : '1';
        }
        return out;
    }

    BootDump* bd_ = nullptr;
    std_boot* b_ = nullptr;
    mode_t old_mask_ = 0;
};

TEST_F(TocTest, StandardTocBuildsOneEntryPerPart) {
    ASSERT_TRUE(boot(standard_parts(), 6));
    EXPECT_TRUE(same_file(b_->fd, kBootNode));
    EXPECT_TRUE(same_file(b_->bin_fd, kPartition));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvPath));
    for (int fd : b_->fd_spare) {
        EXPECT_EQ(fd, -1);
    }
    EXPECT_EQ(std::vector<int>({b_->toc_idx_toc, b_->toc_idx_boot, b_->toc_idx_main,
                                b_->toc_idx_vss, b_->toc_idx_nv, b_->toc_idx_offset,
                                b_->toc_idx_nv_norm, b_->toc_idx_nv_prot}),
              std::vector<int>({0, 1, 2, 3, 4, 5, -1, -1}));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(b_->toc), 512), toc_bytes(standard_parts(), 6));

    // MAIN's m_off has its top two bits cleared; VSS goes once per phone start.
    const uint32_t bin = b_->bin_fd, nv = b_->nv_fd;
    EXPECT_EQ(fields(b_->stage[0]), std::vector<uint32_t>({0, bin, 0, 0x1000, 0x200, 0x11, 0}));
    EXPECT_EQ(fields(b_->stage[2]),
              std::vector<uint32_t>({2, bin, 0x2000, 0x200000, 0x4000, 0x33, 0}));
    EXPECT_EQ(fields(b_->stage[3]),
              std::vector<uint32_t>({3, bin, 0x6000, 0x300000, 0x80, 0x44, 1}));
    EXPECT_EQ(fields(b_->stage[4]), std::vector<uint32_t>({4, nv, 0, 0x400000, 0x100, 0x55, 0}));
    for (uint32_t r : b_->stage[2].reserved) {
        EXPECT_EQ(r, 0u);
    }

    // The opening lines come first; the listing shows the raw m_off, the
    // stage line the one that is used.
    const std::string head =
        info("std_boot_prepare_args",
             std::string("DEV(") + kBootNode + ") opened (fd " + std::to_string(b_->fd) + ")") +
        info("std_boot_parse_toc_img",
             std::string("BIN(") + kPartition + ") opened (fd " + std::to_string(b_->bin_fd) + ")");
    EXPECT_EQ(kmsg().rfind(head, 0), 0u) << kmsg();
    EXPECT_TRUE(contains(info("std_boot_parse_toc_img",
                              "TOC[2].name = MAIN, b_off=0x00002000, m_off=0xc0200000, "
                              "size=0x00004000 crc=0x00000033")));
    EXPECT_TRUE(contains(info("build_std_dload_control",
                              "stage=2, name:MAIN b_off=0x00002000, m_offset=0x00200000 "
                              "b_size=0x00004000")));
    EXPECT_TRUE(
        contains("TOC[5].name = OFFSET, b_off=0x00000000, m_off=0x00000000, "
                 "size=0x00000000 crc=0x00000000\n"));
    EXPECT_EQ(radio().find("E/"), std::string::npos);

    // Closing gives every descriptor back.
    int before = open_descriptors();
    bd_->std_boot_close_args();
    EXPECT_EQ(open_descriptors(), before - 3);
}

TEST_F(TocTest, LoadedRangeFollowsCountModeAndNvPath) {
    // Prepares; checks the range, which stage slots were built ('1') and
    // whether the NV file was opened (created when missing) or left alone.
    auto range = [&](const char* name, const std::vector<Entry>& parts, uint32_t count,
                     cp_boot_mode mode, uint32_t first, uint32_t last, const char* slots,
                     bool nv_open) {
        SCOPED_TRACE(name);
        std::filesystem::remove(kNvPath);
        ASSERT_TRUE(boot(parts, count, mode));
        EXPECT_EQ(b_->first_stage, first);
        EXPECT_EQ(b_->last_stage, last);
        EXPECT_EQ(built(), slots);
        for (size_t i = 0; i < strlen(slots); i++) {
            if (slots[i] != '0') {
                EXPECT_EQ(b_->stage[i].b_size, parts[i].size) << "slot " << i;
            }
        }
        if (nv_open) {
            EXPECT_TRUE(same_file(b_->nv_fd, kNvPath));
            EXPECT_EQ(std::filesystem::file_size(kNvPath), 0x100u);
        } else {
            EXPECT_EQ(b_->nv_fd, -1);
            EXPECT_FALSE(std::filesystem::exists(kNvPath));
        }
    };
    const cp_boot_mode normal = CP_BOOT_MODE_NORMAL, dump = CP_BOOT_MODE_DUMP;
    // OFFSET ends the image: its slot stays empty.
    range("standard", standard_parts(), 6, normal, 0, 5, "1112100000000", true);
    EXPECT_FALSE(contains("stage=5"));
    range("count 3: NV outside the range", standard_parts(), 3, normal, 0, 2, "1110000000000",
          true);
    // Count 1 skips the TOC and needs no verification information for it.
    std::vector<Entry> parts = standard_parts();
    parts[0].m_off = 0;
    range("count 1", parts, 1, normal, 1, 3, "0112000000000", true);
    EXPECT_FALSE(contains("stage=0,"));
    EXPECT_TRUE(contains("stage=3, name:VSS"));
    range("count 1, dump", parts, 1, dump, 1, 1, "0100000000000", false);
    // Count 0: the range wraps to nothing; in dump mode TOC and BOOT still go.
    range("count 0", standard_parts(), 0, normal, 0, 0xFFFFFFFF, "0000000000000", true);
    EXPECT_FALSE(contains("stage="));
    range("count 0, dump", standard_parts(), 0, dump, 0, 1, "1100000000000", false);
    // Dump mode opens and creates no NV file, whatever the NV entry's size.
    for (uint32_t size : {0x100u, 0u}) {
        parts = standard_parts();
        parts[4].size = size;
        range("dump", parts, 6, dump, 0, 1, "1100000000000", false);
        EXPECT_FALSE(contains("NV("));
        EXPECT_FALSE(contains("stage=2"));
    }
    // A TOC that goes on after OFFSET.
    parts = standard_parts();
    parts[5] = {"P5", 0x8000, 0x800000, 0x10};
    parts.push_back({"P6", 0x9000, 0x900000, 0x10});
    parts.push_back({"OFFSET"});
    parts.push_back({"P8", 0xA000, 0xA00000, 0x10});
    range("OFFSET ends the stage list", parts, 9, normal, 0, 8, "1112111000000", true);
    EXPECT_TRUE(contains("TOC[8].name = P8"));
    EXPECT_FALSE(contains("name:P8"));
    EXPECT_FALSE(contains("name:OFFSET"));
    // Without an NV path the load ends with MAIN.
    rix_args.nv_data_path[0] = '\0';
    range("no NV path", standard_parts(), 6, normal, 0, 2, "1110000000000", false);
    range("no NV path, count 1", standard_parts(), 1, normal, 1, 2, "0110000000000", false);
}

TEST_F(TocTest, BadTocOrUnreadablePartitionIsRefusedAndEverythingClosed) {
    const int before = open_descriptors();
    std::vector<Entry> boot_first = standard_parts(), no_info = standard_parts(),
                       no_nv = standard_parts(), nv_size_0 = standard_parts();
    std::swap(boot_first[0], boot_first[1]);
    no_info[0].m_off = 0;
    no_nv[4].name = "XV";
    nv_size_0[4].size = 0;
    const std::string no_toc = "std_boot_parse_toc_img: ERR! invalid TOC: No TOC, content: ";
    const std::string no_nv_line = "std_boot_parse_toc_img: ERR! invalid TOC : There is no NV\n";
    const struct {
        const char* name;
        std::string partition;
        int nv_file;  // 1: there before and opened, 0: never made, -1: not looked at
        std::string logged, not_logged;
    } cases[] = {
        // The bytes read are shown in hex: the first 32, or fewer on a short read.
        {"BOOT first", toc_bytes(boot_first, 6), 0,
         no_toc + "42 4F 4F 54 00 00 00 00 00 00 00 00 00 10 00 00 00 20 00 00 00 01 00 00 22 "
                  "00 00 00 06 00 00 00\n",
         "TOC[0]"},
        {"TOCX", "TOCX", 0, no_toc + "54 4F 43 58\n", "TOC[0]"},
        {"TO", std::string("TO\0", 3), 0, no_toc + "54 4F 00\n", "TOC[0]"},
        {"empty partition", "", 0, no_toc + "\n", "TOC[0]"},
        {"count 17", toc_bytes(standard_parts(), 17), 0,
         "std_boot_parse_toc_img: ERR! invalid TOC: Total TOC count is 17\n", "TOC[0]"},
        {"count -1", toc_bytes(standard_parts(), 0xFFFFFFFF), 0,
         "std_boot_parse_toc_img: ERR! invalid TOC: Total TOC count is -1\n", "TOC[0]"},
        {"TOC without verification information", toc_bytes(no_info, 6), -1,
         "prepare_boot_args: ERR! invalid TOC : No info for TOC verification\n", "stage="},
        {"no NV entry", toc_bytes(no_nv, 6), 0, no_nv_line, "NV("},
        // An NV entry of size 0 with an NV file: opened, then refused.
        {"NV entry of size 0", toc_bytes(nv_size_0, 6), 1, no_nv_line, "stage="},
        // Without the file, its creation fails first and leaves nothing.
        {"NV entry of size 0, no NV file", toc_bytes(nv_size_0, 6), 0,
         "create_empty_nv: ERR! wrong size(0)\n", "There is no NV"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(kNvPath);
        if (c.nv_file == 1) {
            write_file(kNvPath, std::string(64, '\xff'));
        }
        write_partition(c.partition);
        expect_refused(before);
        EXPECT_TRUE(contains("<6>cpif: rix: " + c.logged)) << kmsg();
        EXPECT_FALSE(contains(c.not_logged)) << kmsg();
        if (c.nv_file >= 0) {
            EXPECT_EQ(std::filesystem::exists(kNvPath), c.nv_file == 1);
            EXPECT_EQ(contains("getNvFd: NV(/mnt/vendor/efs/nv_data.bin) opened"), c.nv_file == 1);
        }
    }
    // No boot node; no partition; a partition that opens but cannot be read.
    unlink(kBootNode);
    clear_logs();
    expect_refused(before);
    EXPECT_EQ(kmsg(),
              "<3>cpif: rix: (ERR! No such file or directory) std_boot_prepare_args: ERR! "
              "DEV(/data/umts_boot0) open fail\n" +
                  info("prepare_boot_args", "ERR! std_boot_prepare_args fail"));

    write_file(kBootNode, "");
    std::filesystem::remove(kPartition);
    clear_logs();
    expect_refused(before);
    EXPECT_TRUE(
        contains("<3>cpif: rix: (ERR! No such file or directory) std_boot_parse_toc_img: "
                 "ERR! BIN(/data/modem.bin) open fail\n"));
    EXPECT_FALSE(contains("std_boot_prepare_args fail"));

    std::filesystem::create_directory(kPartition);
    clear_logs();
    expect_refused(before);
    EXPECT_TRUE(contains(
        "<3>cpif: rix: (ERR! Is a directory) std_boot_parse_toc_img: ERR! TOC read fail\n"));
    std::filesystem::remove(kPartition);

    // Top bits alone are TOC verification information: the raw value is tested.
    no_info[0].m_off = 0xC0000000;
    ASSERT_TRUE(boot(no_info, 6));
    EXPECT_EQ(b_->stage[0].m_off, 0u);
    EXPECT_FALSE(contains("No info"));

    // Without an NV path the NV entry is still required.
    rix_args.nv_data_path[0] = '\0';
    write_partition(toc_bytes(nv_size_0, 6));
    expect_refused(before);
    EXPECT_TRUE(contains(no_nv_line));

    // Count 0 is accepted and given back as it is.
    write_partition(toc_bytes(standard_parts(), 0));
    unsigned count = 99;
    bd_->std_boot_init_args();
    ASSERT_TRUE(bd_->std_boot_parse_toc_img(CP_BOOT_MODE_NORMAL, &count));
    EXPECT_EQ(count, 0u);
}

TEST_F(TocTest, SixteenEntriesNeverReachPastTheStageTable) {
    // The dump record lies right behind the boot record: a stage slot past
    // the table's end would land in it.
    std_dump* d = Container::getStdDump();
    memset(d, 0x5a, sizeof(*d));
    std_dump pattern;
    memcpy(&pattern, d, sizeof(pattern));
    // Prepares; the entries named as having no slot, and the dump record kept.
    auto run = [&](const std::vector<Entry>& parts, uint32_t count, const std::string& dropped) {
        SCOPED_TRACE("count " + std::to_string(count) + ", dropped: " + dropped);
        ASSERT_TRUE(boot(parts, count));
        EXPECT_EQ(b_->first_stage, 0u);
        EXPECT_EQ(b_->last_stage, 12u);
        EXPECT_EQ(memcmp(d, &pattern, sizeof(pattern)), 0);
        EXPECT_FALSE(contains("stage=13"));
        std::string names;
        const std::regex line(
            R"(<6>cpif: rix: prepare_boot_args: ERR! TOC\[(\d+)\]\.name = (\S+) has no stage slot, not loaded\n)");
        const std::string k = kmsg();
        size_t lines = 0;
        for (std::sregex_iterator m(k.begin(), k.end(), line), end; m != end; ++m, ++lines) {
            names += (names.empty() ? "" : " ") + (*m)[1].str() + ":" + (*m)[2].str();
        }
        // Every such line has the form above.
        size_t mentions = 0;
        for (size_t at = k.find("has no stage slot"); at != std::string::npos;
             at = k.find("has no stage slot", at + 1)) {
            mentions++;
        }
        EXPECT_EQ(mentions, lines);
        EXPECT_EQ(names, dropped);
    };
    run(sixteen_parts(), 16, "13:P13 14:P14 15:P15");
    EXPECT_EQ(fields(b_->stage[12]),
              std::vector<uint32_t>(
                  {12, static_cast<uint32_t>(b_->bin_fd), 12 * 0x1000, 12 * 0x10000, 0x10, 12, 0}));
    EXPECT_TRUE(contains("build_std_dload_control: stage=12, name:P12 "));
    // Every entry is still listed.
    EXPECT_TRUE(contains("TOC[15].name = P15, b_off=0x0000f000, m_off=0x000f0000"));
    // An OFFSET at 14 ends the image; a count of 13 fits the table exactly.
    std::vector<Entry> parts = sixteen_parts();
    parts[14].name = "OFFSET";
    run(parts, 16, "13:P13");
    run(sixteen_parts(), 13, "");

    // Built directly with a range past the table, the list still stops.
    b_->last_stage = 15;
    bd_->build_std_dload_control();
    bd_->build_std_dload_control_nv_fd(13, 4);
    EXPECT_EQ(memcmp(d, &pattern, sizeof(pattern)), 0);
}

TEST_F(TocTest, NamesAreMatchedWholeAndTheLastOneWins) {
    std::vector<Entry> parts = standard_parts();
    parts[5] = {"VSS", 0x9000, 0x900000, 0x90, 0x99};
    parts.push_back({"NV_NORM", 0xA000, 0xA00000, 0x10});
    parts.push_back({"NV_PROT", 0xB000, 0xB00000, 0x10});
    parts.push_back({"BOOTLOADER12", 0xC000, 0xC00000, 0x10});  // 12 bytes, no NUL
    parts.push_back({"NVX", 0xD000, 0xD00000, 0x10});
    parts.push_back({"OFFSET"});
    ASSERT_TRUE(boot(parts, 11));
    EXPECT_EQ(std::vector<int>({b_->toc_idx_boot, b_->toc_idx_vss, b_->toc_idx_nv,
                                b_->toc_idx_nv_norm, b_->toc_idx_nv_prot, b_->toc_idx_offset}),
              std::vector<int>({1, 5, 4, 6, 7, 10}));
    EXPECT_EQ(b_->last_stage, 10u);
    // Only the entry that holds the index is sent once.
    EXPECT_EQ(built(), "1111121111000");
    // NV_NORM and NV_PROT are never loaded; unknown names load like BOOT.
    const uint32_t bin = b_->bin_fd;
    EXPECT_EQ(std::vector<uint32_t>({b_->stage[6].fd, b_->stage[7].fd, b_->stage[8].fd,
                                     b_->stage[9].fd, b_->stage[9].m_off}),
              std::vector<uint32_t>({0xFFFFFFFF, 0xFFFFFFFF, bin, bin, 0xD00000}));
    // A name that fills all 12 bytes is printed with exactly those bytes.
    EXPECT_TRUE(contains("TOC[8].name = BOOTLOADER12, b_off=0x0000c000"));
    EXPECT_TRUE(contains("stage=8, name:BOOTLOADER12 b_off=0x0000c000"));

    // With the VSS option the part goes at every boot.
    rix_args.options |= BOPT_REINIT_VSS;
    ASSERT_TRUE(boot(parts, 11));
    EXPECT_EQ(built(), "1111111111000");
}

TEST_F(TocTest, NvChecksumFallsBackToTheTempFile) {
    rix_args.options |= BOPT_NV_CHECKSUM;
    // Valid: TotalSize 4, data 01 02 03 04, check value 0x0201 + 0x0403.
    std::string nv("\0\0\0\0\0\0\0\0\x04\0\0\0\0\0\0\0\x01\x02\x03\x04\x04\x06", 22);
    write_file(kNvPath, nv);
    ASSERT_TRUE(boot(standard_parts(), 6));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvPath));
    EXPECT_TRUE(contains("CsumCheckForFile: /mnt/vendor/efs/nv_data.bin checksum : verified"));
    EXPECT_FALSE(std::filesystem::exists(kNvTempPath));
    bd_->std_boot_close_args();

    // A corrupted file is replaced by the temp file, created when missing;
    // the first descriptor is closed.
    nv[20] = 0x05;
    write_file(kNvPath, nv);
    int before = open_descriptors();
    ASSERT_TRUE(boot(standard_parts(), 6));
    EXPECT_TRUE(contains("checksum : corrupted"));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvTempPath));
    EXPECT_EQ(b_->stage[4].fd, static_cast<uint32_t>(b_->nv_fd));
    EXPECT_EQ(std::filesystem::file_size(kNvTempPath), 0x100u);
    EXPECT_EQ(open_descriptors(), before + 3);

    // When the temp file cannot be had either, the first descriptor stays.
    snprintf(rix_args.nv_temp_path, sizeof(rix_args.nv_temp_path), "%s", "/mnt/vendor/none/t.bin");
    ASSERT_TRUE(boot(standard_parts(), 6));
    EXPECT_TRUE(contains("create_empty_nv(/mnt/vendor/none/t.bin, 256) fail"));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvPath));
    EXPECT_EQ(open_descriptors(), before + 3);

    // Dump mode checks the file too, but opens nothing.
    ASSERT_TRUE(boot(standard_parts(), 6, CP_BOOT_MODE_DUMP));
    EXPECT_TRUE(contains("checksum : corrupted"));
    EXPECT_EQ(b_->nv_fd, -1);
    EXPECT_EQ(open_descriptors(), before + 2);

    // Without a data path the temp file is used.
    rix_args.nv_data_path[0] = '\0';
    snprintf(rix_args.nv_temp_path, sizeof(rix_args.nv_temp_path), "%s", kNvTempPath);
    ASSERT_TRUE(boot(standard_parts(), 6));
    EXPECT_TRUE(contains("<6>cpif: rix: CsumCheckForFile: Failed to open file<6>"));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvTempPath));
    EXPECT_EQ(b_->last_stage, 2u);
}

TEST_F(TocTest, NvDescriptorGoesOnlyToTheNvStage) {
    bd_->std_boot_init_args();
    b_->nv_fd = 42;
    b_->toc_idx_nv = 4;
    b_->toc_idx_nv_norm = 5;
    for (unsigned i : {3, 4, 5}) {
        b_->stage[i].fd = 7;
        bd_->build_std_dload_control_nv_fd(i, i);
    }
    EXPECT_EQ(b_->stage[3].fd, 7u);
    EXPECT_EQ(b_->stage[4].fd, 42u);
    EXPECT_EQ(b_->stage[5].fd, 0xFFFFFFFFu);
    // An absent entry (-1) never matches any index.
    bd_->build_std_dload_control_nv_fd(6, 0xFFFFFFFFu);
    EXPECT_EQ(b_->stage[6].fd, 0u);
    b_->nv_fd = -1;
}

}  // namespace
