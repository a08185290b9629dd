// Boot preparation: the partition's TOC and its checks, the range of parts
// that is loaded, the load-control entries, and the NV file the NV part
// comes from.
#include <fcntl.h>
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

int open_descriptors() {
    auto fds = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(begin(fds), end(fds)));
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
    }
    void TearDown() override {
        bd_->std_boot_close_args();
        RixTest::TearDown();
    }

    // Closes what an earlier run left open and writes the partition.
    void write_partition(const std::string& bytes) {
        bd_->std_boot_close_args();
        write_file(kPartition, bytes);
        clear_logs();
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
};

// The standard parts with the given entries replaced or, past the end, added.
std::vector<Entry> standard_with(const std::vector<std::pair<size_t, Entry>>& changes) {
    std::vector<Entry> parts = standard_parts();
    for (const auto& [i, e] : changes) {
        parts.resize(std::max(parts.size(), i + 1));
        parts[i] = e;
    }
    return parts;
}

// Every TOC shape the preparation meets: the stages it builds and their
// fields, the NV file it opens or makes, or its refusal.
TEST_F(TocTest, PreparationBuildsTheRangeOrRefusesTheToc) {
    // The records are still the constructor's zero-fill, descriptor 0
    // everywhere: closing one leaves standard input alone, and the
    // preparation resets the boot record first.
    bd_->std_dump_close_args();
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    write_file(kPartition, toc_bytes(standard_parts(), 6));
    clear_logs();
    ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
    EXPECT_EQ(slots(), "bbbBn........ 0..5");
    // MAIN's m_off loses its top two bits, its check value comes along; offsets and sizes are
    // seen in the daemon's boot trace. The listing shows the raw m_off.
    const std_dload_control& main_stage = b_->stage[2];
    EXPECT_EQ(std::vector<uint32_t>({main_stage.stage, main_stage.m_off, main_stage.crc}),
              std::vector<uint32_t>({2, 0x200000, 0x33}));
    EXPECT_TRUE(
        contains("std_boot_parse_toc_img: TOC[2].name = MAIN, b_off=0x00002000, "
                 "m_off=0xc0200000, size=0x00004000 crc=0x00000033\n"));
    // Closing gives every descriptor back.
    const int before = open_descriptors() - 3;
    bd_->std_boot_close_args();
    EXPECT_EQ(open_descriptors(), before);

    // The dump record lies right behind the boot record: a stage slot past
    // the table's end would land in it.
    std_dump* d = Container::getStdDump();
    memset(d, 0x5a, sizeof(*d));
    const std::vector<char> pattern(reinterpret_cast<char*>(d), reinterpret_cast<char*>(d + 1));
    const cp_boot_mode dump = CP_BOOT_MODE_DUMP;
    const Entry no_info = {"TOC", 0, 0, 0x200, 0x11}, nv_size_0 = {"NV", 0, 0x400000, 0, 0x55};
    std::vector<Entry> sixteen = standard_with({{5, {"P5", 0x5000, 0x50000, 0x10, 5}}});
    for (uint32_t i = 6; i < 16; i++) {
        sixteen.push_back({"P" + std::to_string(i), i * 0x1000, i * 0x10000, 0x10, i});
    }
    std::vector<Entry> boot_first = standard_parts();
    std::swap(boot_first[0], boot_first[1]);
    // clang-format off
    const std::vector<Entry> names = standard_with({{5, {"VSS", 0x9000, 0x900000, 0x90, 0x99}}, {6, {"NV_NORM", 0xA000, 0xA00000, 0x10}},
        {7, {"NV_PROT", 0xB000, 0xB00000, 0x10}}, {8, {"BOOTLOADER12", 0xC000, 0xC00000, 0x10}}, {9, {"NVX", 0xD000, 0xD00000, 0x10}}, {10, {"OFFSET"}}});
    // clang-format on
    auto no_slot = [](int i) {
        return "<6>cpif: rix: prepare_boot_args: ERR! TOC[" + std::to_string(i) + "].name = P" +
               std::to_string(i) + " has no stage slot, not loaded\n";
    };
    const std::string std6 = toc_bytes(standard_parts(), 6), rix = "<6>cpif: rix: ",
                      no_toc = rix + "std_boot_parse_toc_img: ERR! invalid TOC: No TOC, content: ",
                      no_nv = "std_boot_parse_toc_img: ERR! invalid TOC : There is no NV\n";
    struct Row {
        const char* name;
        // "<none>": no partition, "<dir>": a directory, "<no node>": no boot node
        std::string partition;
        std::string slots;     // and the range; "refused": the preparation fails
        bool nv_made = false;  // the NV file is there afterwards
        std::string logged = "";
        cp_boot_mode mode = CP_BOOT_MODE_NORMAL;
        bool nv_path = true;  // an NV path is set
    };
    // clang-format off
    const Row rows[] = {
        // The standard TOC is the first preparation's, above. The raw TOC
        // m_off is tested: top bits alone are information.
        {"count 3: NV outside the range", toc_bytes(standard_parts(), 3), "bbb.......... 0..2", true},
        {"raw TOC m_off", toc_bytes(standard_with({{0, {"TOC", 0, 0xC0000000, 0x200}}}), 6), "bbbBn........ 0..5", true},
        // Count 1 skips the TOC and needs no verification information for it.
        {"count 1", toc_bytes(standard_with({{0, no_info}}), 1), ".bbB......... 1..3", true},
        // Count 0: the range wraps to nothing.
        {"count 0", toc_bytes(standard_parts(), 0), "............. 0..-1", true},
        // Dump mode opens and creates no NV file, whatever the NV entry's size.
        {"dump", std6, "bb........... 0..1", false, "", dump},
        {"dump, NV size 0", toc_bytes(standard_with({{4, nv_size_0}}), 6), "bb........... 0..1", false, "", dump},
        {"OFFSET ends the stage list", toc_bytes(standard_with({{5, {"P5", 0x8000, 0x800000, 0x10}}, {6, {"P6", 0x9000, 0x900000, 0x10}}, {7, {"OFFSET"}}, {8, {"P8", 0xA000, 0xA00000, 0x10}}}), 9), "bbbBnbb...... 0..8", true},
        // Without an NV path the load ends with MAIN.
        {"no NV path", std6, "bbb.......... 0..2", false, "", CP_BOOT_MODE_NORMAL, false},
        // Sixteen entries, all named: the stage table has only thirteen slots.
        {"sixteen", toc_bytes(sixteen, 16), "bbbBnbbbbbbbb 0..12", true, no_slot(13) + no_slot(14) + no_slot(15)},
        // Names are matched whole, the last one wins; only the entry that
        // holds the VSS index is sent once, NV_NORM
        // and NV_PROT are never loaded, unknown names load like BOOT. A name
        // of 12 bytes has no NUL and is printed with exactly those bytes.
        {"names", toc_bytes(names, 11), "bbbbnB--bb... 0..10", true, "TOC[8].name = BOOTLOADER12, b_off=0x0000c000"},
        // The bytes read are shown in hex: the first 32, or fewer on a short read.
        {"BOOT first", toc_bytes(boot_first, 6), "refused", false, no_toc + "42 4F 4F 54 00 00 00 00 00 00 00 00 00 10 00 00 00 20 00 00 00 01 00 00 22 00 00 00 06 00 00 00\n"},
        {"TOCX", "TOCX", "refused", false, no_toc + "54 4F 43 58\n"},
        {"count 17", toc_bytes(standard_parts(), 17), "refused", false, rix + "std_boot_parse_toc_img: ERR! invalid TOC: Total TOC count is 17\n"},
        {"TOC without verification information", toc_bytes(standard_with({{0, no_info}}), 6), "refused", true, rix + "prepare_boot_args: ERR! invalid TOC : No info for TOC verification\n"},
        {"no NV entry", toc_bytes(standard_with({{4, {"XV", 0, 0x400000, 0x100}}}), 6), "refused", false, rix + no_nv},
        // An NV entry of size 0: creating its file fails and leaves nothing.
        {"NV entry of size 0, no NV file", toc_bytes(standard_with({{4, nv_size_0}}), 6), "refused", false, rix + "create_empty_nv: ERR! wrong size(0)\n"},
        {"no boot node", "<no node>", "refused", false, "<3>cpif: rix: (ERR! No such file or directory) std_boot_prepare_args: ERR! DEV(/data/umts_boot0) open fail\n<6>cpif: rix: prepare_boot_args: ERR! std_boot_prepare_args fail\n"},
        {"no partition", "<none>", "refused", false, "<3>cpif: rix: (ERR! No such file or directory) std_boot_parse_toc_img: ERR! BIN(/data/modem.bin) open fail\n"},
        {"unreadable partition", "<dir>", "refused", false, "<3>cpif: rix: (ERR! Is a directory) std_boot_parse_toc_img: ERR! TOC read fail\n"},
    };
    // clang-format on
    for (const Row& c : rows) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(kNvPath);
        snprintf(rix_args.nv_data_path, sizeof(rix_args.nv_data_path), "%s",
                 c.nv_path ? kNvPath : "");
        write_partition(c.partition);
        if (c.partition[0] == '<') {
            std::filesystem::remove(c.partition == "<no node>" ? kBootNode : kPartition);
        }
        if (c.partition == "<dir>") {
            std::filesystem::create_directory(kPartition);
        }
        const bool ok = bd_->prepare_boot_args(c.mode);
        EXPECT_EQ(ok ? slots() : "refused", c.slots);
        EXPECT_TRUE(contains(c.logged)) << kmsg();
        EXPECT_EQ(std::filesystem::exists(kNvPath), c.nv_made);
        if (ok) {
            EXPECT_EQ(b_->nv_fd >= 0, c.nv_made);
        } else {
            // Every descriptor is closed again and the record reset.
            EXPECT_EQ(std::vector<int>({b_->fd, b_->bin_fd, b_->nv_fd, b_->toc_idx_toc, b_->toc[0],
                                        open_descriptors()}),
                      std::vector<int>({-1, -1, -1, -1, 0, before}));
        }
        std::filesystem::remove(kPartition);
        write_file(kBootNode, "");
    }
    // No row wrote past the stage table.
    EXPECT_EQ(std::vector<char>(reinterpret_cast<char*>(d), reinterpret_cast<char*>(d + 1)),
              pattern);
}

TEST_F(TocTest, NvChecksumFallsBackToTheTempFile) {
    rix_args.options |= BOPT_NV_CHECKSUM;  // the modem's paths are kNvPath and kNvTempPath
    // TotalSize 4, data 01 02 03 04, check value 0x0201 + 0x0403; 0x0605 is corrupted.
    std::string nv("\0\0\0\0\0\0\0\0\x04\0\0\0\0\0\0\0\x01\x02\x03\x04\x04\x06", 22);
    // A valid file is used as it is. A corrupted one is replaced by the temp file, created when
    // missing, and its descriptor closed; when the temp file cannot be had either, the first
    // one stays.
    const struct {
        char check;
        const char *temp, *opened;
    } cases[] = {
        {0x04, kNvTempPath, kNvPath},
        {0x05, kNvTempPath, kNvTempPath},
        {0x05, "/mnt/vendor/none/t.bin", kNvPath},
    };
    const int before = open_descriptors();
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.check) + " " + c.temp);
        nv[20] = c.check;
        write_file(kNvPath, nv);
        snprintf(rix_args.nv_temp_path, sizeof(rix_args.nv_temp_path), "%s", c.temp);
        write_partition(toc_bytes(standard_parts(), 6));
        ASSERT_TRUE(bd_->prepare_boot_args(CP_BOOT_MODE_NORMAL));
        EXPECT_EQ(
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(b_->nv_fd)).string(),
            c.opened);
        EXPECT_EQ(open_descriptors(), before + 3);
        EXPECT_EQ(std::filesystem::exists(kNvTempPath), c.check == 0x05);
    }
    EXPECT_EQ(std::filesystem::file_size(kNvTempPath), 0x100u);
}

}  // namespace
