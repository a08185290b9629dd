// Boot preparation: the partition's TOC and its checks, the range of parts
// that is loaded, the load-control entries, and the NV file the NV part
// comes from.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
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
    uint32_t b_off = 0, m_off = 0, size = 0, crc = 0;
};

// The 512-byte table as the partition holds it: 32 bytes per entry, the
// count in the last word of entry 0.
std::string toc_bytes(const std::vector<Entry>& entries, uint32_t count) {
    std::string t(512, '\0');
    for (size_t i = 0; i < entries.size(); i++) {
        const Entry& e = entries[i];
        memcpy(&t[32 * i], e.name.data(), std::min<size_t>(e.name.size(), 12));
        const uint32_t words[] = {e.b_off, e.m_off, e.size, e.crc};
        memcpy(&t[32 * i + 12], words, sizeof(words));
    }
    memcpy(&t[28], &count, 4);
    return t;
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::vector<Entry> standard_parts() {
    return {{"TOC", 0, 0x1000, 0x200, 0x11},
            {"BOOT", 0x1000, 0x2000, 0x100, 0x22},
            {"MAIN", 0x2000, 0xC0200000, 0x4000, 0x33},
            {"VSS", 0x6000, 0x300000, 0x80, 0x44},
            {"NV", 0, 0x400000, 0x100, 0x55},
            {"OFFSET"}};
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
    auto fds = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(begin(fds), end(fds)));
}

bool same_file(int fd, const char* path) {
    struct stat a, b;
    return fstat(fd, &a) == 0 && stat(path, &b) == 0 && a.st_ino == b.st_ino;
}

// The kernel log lines that contain `text`.
std::string lines_with(const std::string& log, const std::string& text) {
    std::istringstream in(log);
    std::string out, l;
    while (std::getline(in, l)) {
        out += l.find(text) != std::string::npos ? l + "\n" : "";
    }
    return out;
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
    // One character per stage slot: '.' when nothing was built into it, else
    // whose descriptor it got: 'b' the partition's, 'n' the NV file's, '-'
    // none (-1); upper case when it is sent once per phone start.
    std::string slots() const {
        std::string out;
        const std_dload_control empty = {};
        for (const std_dload_control& s : b_->stage) {
            const int fd = static_cast<int32_t>(s.fd);
            char c = fd == b_->bin_fd             ? 'b'
                     : fd == b_->nv_fd && fd >= 0 ? 'n'
                     : fd == -1                   ? '-'
                                                  : '?';
            out += memcmp(&s, &empty, sizeof(s)) == 0 ? '.' : s.xmit_once == 1 ? toupper(c) : c;
        }
        return out + " " + std::to_string(b_->first_stage) + ".." +
               std::to_string(static_cast<int32_t>(b_->last_stage));
    }

    BootDump* bd_ = nullptr;
    std_boot* b_ = nullptr;
    mode_t old_mask_ = 0;
};

TEST_F(TocTest, StandardTocBuildsOneEntryPerPart) {
    // The record is still the constructor's zero-fill: the preparation resets it first.
    write_file(kPartition, toc_bytes(standard_parts(), 6));
    clear_logs();
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_TRUE(same_file(b_->fd, kBootNode) && same_file(b_->bin_fd, kPartition) &&
                same_file(b_->nv_fd, kNvPath));
    EXPECT_EQ(slots(), "bbbBn........ 0..5");
    // Stage, offsets, size and check value; MAIN's m_off loses its top two bits.
    std::string fields;
    for (const std_dload_control& s : b_->stage) {
        char line[96];
        snprintf(line, sizeof(line), "%u %x %x %x %x %u %u|", s.stage, s.b_off, s.m_off, s.b_size,
                 s.crc, s.reserved[0], s.reserved[1]);
        fields += s.b_size != 0 ? line : "";
    }
    EXPECT_EQ(fields,
              "0 0 1000 200 11 0 0|1 1000 2000 100 22 0 0|2 2000 200000 4000 33 0 0|"
              "3 6000 300000 80 44 0 0|4 0 400000 100 55 0 0|");
    // The listing shows the raw m_off, the stage line the one that is used.
    const std::string rix = "<6>cpif: rix: ";
    EXPECT_EQ(lines_with(kmsg(), "MAIN") + lines_with(kmsg(), "opened"),
              rix +
                  "std_boot_parse_toc_img: TOC[2].name = MAIN, b_off=0x00002000, "
                  "m_off=0xc0200000, size=0x00004000 crc=0x00000033\n" +
                  rix +
                  "build_std_dload_control: stage=2, name:MAIN b_off=0x00002000, "
                  "m_offset=0x00200000 b_size=0x00004000\n" +
                  rix + "std_boot_prepare_args: DEV(/data/umts_boot0) opened (fd " +
                  std::to_string(b_->fd) + ")\n" + rix +
                  "std_boot_parse_toc_img: BIN(/data/modem.bin) opened (fd " +
                  std::to_string(b_->bin_fd) + ")\n" + rix +
                  "getNvFd: NV(/mnt/vendor/efs/nv_data.bin) opened (fd " +
                  std::to_string(b_->nv_fd) + ")\n");
    // Closing gives every descriptor back.
    int before = open_descriptors();
    bd_->std_boot_close_args();
    EXPECT_EQ(open_descriptors(), before - 3);
}

TEST_F(TocTest, LoadedRangeFollowsCountModeAndNvPath) {
    const cp_boot_mode normal = CP_BOOT_MODE_NORMAL, dump = CP_BOOT_MODE_DUMP;
    std::vector<Entry> no_info = standard_parts(), raw_info = standard_parts(),
                       nv_size_0 = standard_parts(), past_offset = standard_parts();
    no_info[0].m_off = 0;
    raw_info[0].m_off = 0xC0000000;  // the raw value is tested, top bits alone are information
    nv_size_0[4].size = 0;
    past_offset[5] = {"P5", 0x8000, 0x800000, 0x10};
    past_offset.insert(
        past_offset.end(),
        {{"P6", 0x9000, 0x900000, 0x10}, {"OFFSET"}, {"P8", 0xA000, 0xA00000, 0x10}});
    const struct {
        const char* name;
        std::vector<Entry> parts;
        uint32_t count;
        cp_boot_mode mode;
        bool nv_path;
        std::string slots;  // and the range
        bool nv_made;       // the missing NV file was created
    } cases[] = {
        // OFFSET ends the image: its slot stays empty.
        {"standard", standard_parts(), 6, normal, true, "bbbBn........ 0..5", true},
        {"count 3: NV outside the range", standard_parts(), 3, normal, true, "bbb.......... 0..2",
         true},
        {"raw TOC m_off", raw_info, 6, normal, true, "bbbBn........ 0..5", true},
        // Count 1 skips the TOC and needs no verification information for it.
        {"count 1", no_info, 1, normal, true, ".bbB......... 1..3", true},
        {"count 1, dump", no_info, 1, dump, true, ".b........... 1..1", false},
        // Count 0: the range wraps to nothing; in dump mode TOC and BOOT still go.
        {"count 0", standard_parts(), 0, normal, true, "............. 0..-1", true},
        {"count 0, dump", standard_parts(), 0, dump, true, "bb........... 0..1", false},
        // Dump mode opens and creates no NV file, whatever the NV entry's size.
        {"dump", standard_parts(), 6, dump, true, "bb........... 0..1", false},
        {"dump, NV size 0", nv_size_0, 6, dump, true, "bb........... 0..1", false},
        {"OFFSET ends the stage list", past_offset, 9, normal, true, "bbbBnbb...... 0..8", true},
        // Without an NV path the load ends with MAIN.
        {"no NV path", standard_parts(), 6, normal, false, "bbb.......... 0..2", false},
        {"no NV path, count 1", standard_parts(), 1, normal, false, ".bb.......... 1..2", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(kNvPath);
        snprintf(rix_args.nv_data_path, sizeof(rix_args.nv_data_path), "%s",
                 c.nv_path ? kNvPath : "");
        ASSERT_TRUE(boot(c.parts, c.count, c.mode));
        EXPECT_EQ(slots(), c.slots);
        EXPECT_EQ(std::filesystem::exists(kNvPath), c.nv_made);
        EXPECT_EQ(b_->nv_fd >= 0, c.nv_made);
        // Only the built stages are announced, never OFFSET.
        const std::string built = c.slots.substr(0, 13), lines = lines_with(kmsg(), ": stage=");
        EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'),
                  13 - std::count(built.begin(), built.end(), '.'));
        EXPECT_FALSE(contains("name:OFFSET") || contains("name:P8"));
        EXPECT_EQ(contains("NV("), c.nv_made);
        EXPECT_EQ(c.nv_made ? std::filesystem::file_size(kNvPath) : 0u, c.nv_made ? 0x100u : 0u);
    }
}

TEST_F(TocTest, BadTocOrUnreadablePartitionIsRefusedAndEverythingClosed) {
    const int before = open_descriptors();
    std::vector<Entry> boot_first = standard_parts(), no_info = standard_parts(),
                       no_nv = standard_parts(), nv_size_0 = standard_parts();
    std::swap(boot_first[0], boot_first[1]);
    no_info[0].m_off = 0;
    no_nv[4].name = "XV";
    nv_size_0[4].size = 0;
    const std::string no_toc =
        "<6>cpif: rix: std_boot_parse_toc_img: ERR! invalid TOC: No TOC, content: ";
    const std::string no_nv_line = "std_boot_parse_toc_img: ERR! invalid TOC : There is no NV\n";
    const struct {
        const char* name;
        std::string
            partition;  // "<none>": no partition, "<dir>": a directory, "<no node>": no boot node
        int nv_file;    // 1: there before and opened, 0: never made, -1: not looked at
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
         "<6>cpif: rix: std_boot_parse_toc_img: ERR! invalid TOC: Total TOC count is 17\n",
         "TOC[0]"},
        {"count -1", toc_bytes(standard_parts(), 0xFFFFFFFF), 0,
         "<6>cpif: rix: std_boot_parse_toc_img: ERR! invalid TOC: Total TOC count is -1\n",
         "TOC[0]"},
        {"TOC without verification information", toc_bytes(no_info, 6), -1,
         "<6>cpif: rix: prepare_boot_args: ERR! invalid TOC : No info for TOC verification\n",
         "stage="},
        {"no NV entry", toc_bytes(no_nv, 6), 0, "<6>cpif: rix: " + no_nv_line, "NV("},
        // An NV entry of size 0 with an NV file: opened, then refused.
        {"NV entry of size 0", toc_bytes(nv_size_0, 6), 1, "<6>cpif: rix: " + no_nv_line, "stage="},
        // Without the file, its creation fails first and leaves nothing.
        {"NV entry of size 0, no NV file", toc_bytes(nv_size_0, 6), 0,
         "<6>cpif: rix: create_empty_nv: ERR! wrong size(0)\n", "There is no NV"},
        {"no boot node", "<no node>", -1,
         "<3>cpif: rix: (ERR! No such file or directory) std_boot_prepare_args: ERR! "
         "DEV(/data/umts_boot0) open fail\n<6>cpif: rix: prepare_boot_args: ERR! "
         "std_boot_prepare_args fail\n",
         "BIN("},
        {"no partition", "<none>", -1,
         "<3>cpif: rix: (ERR! No such file or directory) std_boot_parse_toc_img: ERR! "
         "BIN(/data/modem.bin) open fail\n",
         "std_boot_prepare_args fail"},
        {"unreadable partition", "<dir>", -1,
         "<3>cpif: rix: (ERR! Is a directory) std_boot_parse_toc_img: ERR! TOC read fail\n",
         "TOC["},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(kNvPath);
        if (c.nv_file == 1) {
            write_file(kNvPath, std::string(64, '\xff'));
        }
        write_partition(c.partition);
        if (c.partition == "<none>" || c.partition == "<dir>") {
            std::filesystem::remove(kPartition);
        }
        if (c.partition == "<dir>") {
            std::filesystem::create_directory(kPartition);
        }
        if (c.partition == "<no node>") {
            unlink(kBootNode);
        }
        EXPECT_FALSE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
        // Every descriptor is closed again and the record reset.
        EXPECT_EQ(std::vector<int>({b_->fd, b_->bin_fd, b_->nv_fd, b_->toc_idx_toc, b_->toc[0],
                                    open_descriptors()}),
                  std::vector<int>({-1, -1, -1, -1, 0, before}));
        EXPECT_TRUE(contains(c.logged)) << kmsg();
        EXPECT_FALSE(contains(c.not_logged)) << kmsg();
        if (c.nv_file >= 0) {
            EXPECT_EQ(std::filesystem::exists(kNvPath), c.nv_file == 1);
            EXPECT_EQ(contains("getNvFd: NV(/mnt/vendor/efs/nv_data.bin) opened"), c.nv_file == 1);
        }
        std::filesystem::remove(kPartition);
        write_file(kBootNode, "");
    }
}

TEST_F(TocTest, SixteenEntriesNeverReachPastTheStageTable) {
    // The dump record lies right behind the boot record: a stage slot past
    // the table's end would land in it.
    std_dump* d = Container::getStdDump();
    memset(d, 0x5a, sizeof(*d));
    const std::vector<char> pattern(reinterpret_cast<char*>(d), reinterpret_cast<char*>(d + 1));
    std::vector<Entry> offset_at_14 = sixteen_parts();
    offset_at_14[14].name = "OFFSET";
    const struct {
        std::vector<Entry> parts;
        uint32_t count;
        std::vector<int> dropped;
    } cases[] = {
        {sixteen_parts(), 16, {13, 14, 15}}, {offset_at_14, 16, {13}}, {sixteen_parts(), 13, {}}};
    for (const auto& c : cases) {
        ASSERT_TRUE(boot(c.parts, c.count));
        EXPECT_EQ(slots(), "bbbBnbbbbbbbb 0..12");
        std::string dropped;
        for (int i : c.dropped) {
            dropped += "<6>cpif: rix: prepare_boot_args: ERR! TOC[" + std::to_string(i) +
                       "].name = P" + std::to_string(i) + " has no stage slot, not loaded\n";
        }
        EXPECT_EQ(lines_with(kmsg(), "has no stage slot"), dropped);
        EXPECT_FALSE(contains("stage=13"));
        EXPECT_TRUE(
            contains("build_std_dload_control: stage=12, name:P12 b_off=0x0000c000, "
                     "m_offset=0x000c0000 b_size=0x00000010\n"));
        // Every entry is still listed.
        EXPECT_TRUE(contains("TOC[15].name = P15, b_off=0x0000f000, m_off=0x000f0000"));
    }
    // Built directly with a range past the table, the list still stops.
    b_->last_stage = 15;
    bd_->build_std_dload_control();
    bd_->build_std_dload_control_nv_fd(13, 4);
    EXPECT_EQ(std::vector<char>(reinterpret_cast<char*>(d), reinterpret_cast<char*>(d + 1)),
              pattern);
}

TEST_F(TocTest, NamesAreMatchedWholeAndTheLastOneWins) {
    std::vector<Entry> parts = standard_parts();
    parts[5] = {"VSS", 0x9000, 0x900000, 0x90, 0x99};
    parts.insert(parts.end(), {{"NV_NORM", 0xA000, 0xA00000, 0x10},
                               {"NV_PROT", 0xB000, 0xB00000, 0x10},
                               {"BOOTLOADER12", 0xC000, 0xC00000, 0x10},  // 12 bytes, no NUL
                               {"NVX", 0xD000, 0xD00000, 0x10},
                               {"OFFSET"}});
    ASSERT_TRUE(boot(parts, 11));
    EXPECT_EQ(std::vector<int>({b_->toc_idx_boot, b_->toc_idx_vss, b_->toc_idx_nv,
                                b_->toc_idx_nv_norm, b_->toc_idx_nv_prot, b_->toc_idx_offset}),
              std::vector<int>({1, 5, 4, 6, 7, 10}));
    // Only the entry that holds the index is sent once; NV_NORM and NV_PROT
    // are never loaded; unknown names load like BOOT.
    EXPECT_EQ(slots(), "bbbbnB--bb... 0..10");
    EXPECT_EQ(b_->stage[9].m_off, 0xD00000u);
    // A name that fills all 12 bytes is printed with exactly those bytes.
    EXPECT_TRUE(contains("TOC[8].name = BOOTLOADER12, b_off=0x0000c000"));
    EXPECT_TRUE(contains("stage=8, name:BOOTLOADER12 b_off=0x0000c000"));
    // With the VSS option the part goes at every boot.
    rix_args.options |= BOPT_REINIT_VSS;
    ASSERT_TRUE(boot(parts, 11));
    EXPECT_EQ(slots(), "bbbbnb--bb... 0..10");

    // The NV descriptor goes only to the NV stage; an absent entry (-1)
    // never matches any index.
    b_->toc_idx_nv_norm = -1;
    for (unsigned i : {3u, 4u, 6u, 0xFFFFFFFFu}) {
        b_->stage[i & 7].fd = 999;  // no descriptor this test holds
        bd_->build_std_dload_control_nv_fd(i & 7, i);
    }
    EXPECT_EQ(slots().substr(0, 8), "bbb?nb??");
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

    // A corrupted file is replaced by the temp file, created when missing;
    // the first descriptor is closed. When the temp file cannot be had
    // either, the first descriptor stays. Dump mode checks, opens nothing.
    nv[20] = 0x05;
    write_file(kNvPath, nv);
    bd_->std_boot_close_args();
    const int before = open_descriptors();
    const struct {
        const char *temp, *opened;
        cp_boot_mode mode;
        int descriptors;
        const char* logged;
    } cases[] = {
        {kNvTempPath, kNvTempPath, CP_BOOT_MODE_NORMAL, 3, "checksum : corrupted"},
        {"/mnt/vendor/none/t.bin", kNvPath, CP_BOOT_MODE_NORMAL, 3,
         "create_empty_nv(/mnt/vendor/none/t.bin, 256) fail"},
        {kNvTempPath, nullptr, CP_BOOT_MODE_DUMP, 2, "checksum : corrupted"},
    };
    for (const auto& c : cases) {
        snprintf(rix_args.nv_temp_path, sizeof(rix_args.nv_temp_path), "%s", c.temp);
        ASSERT_TRUE(boot(standard_parts(), 6, c.mode));
        EXPECT_TRUE(contains(c.logged)) << c.temp;
        EXPECT_TRUE(c.opened ? same_file(b_->nv_fd, c.opened) : b_->nv_fd == -1) << c.temp;
        EXPECT_EQ(open_descriptors(), before + c.descriptors) << c.temp;
        EXPECT_EQ(slots().substr(0, 5), c.descriptors == 3 ? "bbbBn" : "bb...");
    }
    EXPECT_EQ(std::filesystem::file_size(kNvTempPath), 0x100u);

    // Without a data path the temp file is used.
    rix_args.nv_data_path[0] = '\0';
    ASSERT_TRUE(boot(standard_parts(), 6));
    EXPECT_TRUE(contains("<6>cpif: rix: CsumCheckForFile: Failed to open file<6>"));
    EXPECT_TRUE(same_file(b_->nv_fd, kNvTempPath));
    EXPECT_EQ(slots(), "bbb.......... 0..2");
}

}  // namespace
