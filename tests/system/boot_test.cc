// The boot path end to end: the real daemon boots the virtual modem from a
// partition image, and the trace shows every request in order.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "phone.h"

namespace systest {
namespace {

constexpr uint32_t kChunk = 63488;
constexpr uint32_t kModemOffsetMask = 0x3FFFFFFF;

// A TOC entry as the partition holds it.
struct Part {
    std::string name;
    uint32_t b_off, m_off, size;
};

std::vector<Part> read_toc(const std::string& image) {
    std::ifstream in(image, std::ios::binary);
    char toc[512] = {};
    in.read(toc, sizeof(toc));
    std::vector<Part> parts;
    for (int i = 0; i < 16; i++) {
        const char* e = toc + 32 * i;
        Part p;
        p.name.assign(e, strnlen(e, 12));
        memcpy(&p.b_off, e + 12, 4);
        memcpy(&p.m_off, e + 16, 4);
        memcpy(&p.size, e + 20, 4);
        if (!p.name.empty()) {
            parts.push_back(p);
        }
    }
    return parts;
}

struct Chunk {
    uint32_t size, m_offset, b_offset, mode, len;
    bool operator==(const Chunk&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Chunk& c) {
    return os << "{size=" << c.size << " m_offset=0x" << std::hex << c.m_offset << " b_offset=0x"
              << c.b_offset << std::dec << " mode=" << c.mode << " len=" << c.len << "}";
}

std::vector<Chunk> loaded_chunks(const std::vector<TraceRequest>& loads) {
    static const std::regex re(
        ".*LOAD_CP_IMAGE size=(\\w+) m_offset=(\\w+) b_offset=(\\w+) mode=(\\w+) len=(\\w+) .*");
    std::vector<Chunk> out;
    for (const auto& r : loads) {
        std::smatch m;
        if (std::regex_match(r.line, m, re)) {
            auto num = [&](int i) {
                return static_cast<uint32_t>(std::stoul(m[i].str(), nullptr, 0));
            };
            out.push_back({num(1), num(2), num(3), num(4), num(5)});
        }
    }
    return out;
}

// The chunks of one stage: only m_offset advances, the last chunk carries
// the rest (0 bytes when the size is a multiple of the chunk).
void append_chunks(std::vector<Chunk>& out, const Part& p, uint32_t mode) {
    for (uint32_t sent = 0;; sent += kChunk) {
        uint32_t len = std::min(kChunk, p.size - sent);
        out.push_back({p.size, (p.m_off & kModemOffsetMask) + sent, p.b_off, mode, len});
        if (len < kChunk) {
            return;
        }
    }
}

// Whether `len` bytes of file a at offset a_off equal file b at b_off,
// compared a MiB at a time.
bool same_bytes(const std::string& a, uint64_t a_off, const std::string& b, uint64_t b_off,
                uint64_t len) {
    std::ifstream fa(a, std::ios::binary), fb(b, std::ios::binary);
    fa.seekg(a_off);
    fb.seekg(b_off);
    std::vector<char> ba(1 << 20), bb(1 << 20);
    while (len > 0) {
        size_t n = std::min<uint64_t>(len, ba.size());
        fa.read(ba.data(), n);
        fb.read(bb.data(), n);
        if (!fa || !fb || memcmp(ba.data(), bb.data(), n) != 0) {
            return false;
        }
        len -= n;
    }
    return true;
}

// The request names of the boot node in order, a run of image loads as one.
std::vector<std::string> request_names(const std::vector<TraceRequest>& requests) {
    std::vector<std::string> names;
    for (const auto& r : requests) {
        if (names.empty() || names.back() != r.name || r.name != "LOAD_CP_IMAGE") {
            names.push_back(r.name);
        }
    }
    return names;
}

std::vector<std::string> protocol_words(const std::string& trace) {
    std::vector<std::string> words;
    std::istringstream in(trace);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("write boot ", 0) == 0 || line.rfind("read boot ", 0) == 0) {
            words.push_back(line);
        }
    }
    return words;
}

std::string security_args(const TraceRequest& r) {
    auto begin = r.line.find("mode=");
    return r.line.substr(begin, r.line.find(" ->") - begin);
}

std::string hex(uint32_t v) {
    char buf[16];
    snprintf(buf, sizeof(buf), "0x%X", v);
    return buf;
}

const LogLine kBootDone = info("main", "Boot up process done!!!");
const LogLine kBootFailed = info("main", "start boot fail");

class Boot : public Phone {
  protected:
    void SetUp() override {
        Phone::SetUp();
        set_property("vendor.rix.rfs_check_done", "1");
        write_file("/efs/factory.prop", "ro.multisim.simslotcount=2\n");
    }

    // Runs a one-shot boot to its exit; true when it exited 0.
    bool one_shot(const std::vector<std::string>& extra = {}) {
        std::vector<std::string> args = {"-t", "vm420"};
        args.insert(args.end(), extra.begin(), extra.end());
        start_rix(args);
        auto code = wait_exit(120s);
        return code && *code == 0;
    }

    // Requests of the latest run only: every run starts with the daemon's
    // back-trace size request.
    std::vector<TraceRequest> latest(const std::string& name) {
        const auto all = modem().requests();
        size_t start = 0;
        for (size_t i = 0; i < all.size(); i++) {
            if (all[i].name == "SET_BTL_SIZE") {
                start = i;
            }
        }
        std::vector<TraceRequest> out;
        for (size_t i = start; i < all.size(); i++) {
            if (all[i].name == name) {
                out.push_back(all[i]);
            }
        }
        return out;
    }
    std::vector<TraceRequest> security() { return latest("CHECK_SECURITY"); }

    // Files put in place for the daemon belong to the radio user, as on the
    // phone, since it has dropped root by the time it opens them.
    void give_to_radio(const std::string& phone_path) {
        for (auto& e : std::filesystem::recursive_directory_iterator(root() + phone_path)) {
            (void)!chown(e.path().c_str(), 1001, 1001);
        }
        (void)!chown((root() + phone_path).c_str(), 1001, 1001);
    }

    const std::map<std::string, int> kNoHandles = {{"boot", 0}, {"dump", 0}, {"memshare", 0}};
};

TEST_F(Boot, OneShotBootStreamsEveryStageIntoModemMemory) {
    // MAIN is 64 MiB + 1 byte, VSS an exact multiple of the chunk.
    build_modem({"TOC", "BOOT:size=70000", "MAIN:size=" + std::to_string((64u << 20) + 1),
                 "VSS:size=126976", "NV:size=0x10000", "OFFSET"});
    start_modem("memory_size 0x8000000\n");
    ASSERT_TRUE(one_shot()) << radio_log();
    EXPECT_EQ(count(kBootDone), 1);
    EXPECT_EQ(count(info("status_loop", "Cp boot Oneshot")), 1);

    // The daemon's own queries open and close the node around the boot's
    // state read; the modem is at state 0, so there is no power reset.
    const std::vector<std::string> expect = {"SET_BTL_SIZE",
                                             "GET_BTL_SIZE",
                                             "GET_RFBOARD_DISCONNECT",
                                             "GET_SRINFO",
                                             "GET_MODEM_STATE",
                                             "POWER_ON",
                                             "CHECK_SECURITY",
                                             "LOAD_CP_IMAGE",
                                             "CHECK_SECURITY",
                                             "CHECK_SECURITY",
                                             "CHECK_SECURITY",
                                             "START_CP_BOOTLOADER",
                                             "COMPLETE_NORMAL_BOOTUP",
                                             "NOTIFY_BOOTUP_DONE",
                                             "SET_SRINFO"};
    EXPECT_EQ(request_names(modem().requests()), expect) << modem().trace();
    EXPECT_EQ(protocol_words(modem().trace()),
              (std::vector<std::string>{"write boot 0x0000900D", "read boot 0x0000A00D",
                                        "write boot 0x00009F00", "read boot 0x0000AF00"}));
    for (const auto& r : modem().requests("START_CP_BOOTLOADER")) {
        EXPECT_NE(r.line.find("mode=0"), std::string::npos) << r.line;
    }

    // Every chunk of every stage, in TOC order, and the bytes in memory.
    const auto toc = read_toc(partition_path());
    ASSERT_EQ(toc.size(), 6u);
    std::vector<Chunk> expect_chunks;
    for (size_t i = 0; i < 5; i++) {
        append_chunks(expect_chunks, toc[i], 0);
    }
    EXPECT_EQ(loaded_chunks(modem().requests("LOAD_CP_IMAGE")), expect_chunks);
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(count(info("load_cp_image_by_stage", std::to_string(i) + " stage complelte")), 1)
            << i;
    }
    for (size_t i = 0; i < 4; i++) {
        EXPECT_TRUE(same_bytes(modem().memory_path(), toc[i].m_off & kModemOffsetMask,
                               partition_path(), toc[i].b_off, toc[i].size))
            << toc[i].name;
    }
    EXPECT_TRUE(same_bytes(modem().memory_path(), toc[4].m_off & kModemOffsetMask, nv_path(),
                           toc[4].b_off, toc[4].size));

    // TOC and VSS checked by address and size, BOOT/MAIN by their sizes.
    const auto sec = security();
    ASSERT_EQ(sec.size(), 4u) << modem().trace();
    EXPECT_EQ(security_args(sec[0]), "mode=2 param2=0x0 param3=0x0 param4=0x0");
    EXPECT_EQ(security_args(sec[1]),
              "mode=7 param2=" + hex(toc[0].m_off & kModemOffsetMask) + " param3=0x200 param4=0x0");
    EXPECT_EQ(security_args(sec[2]), "mode=7 param2=" + hex(toc[3].m_off & kModemOffsetMask) +
                                         " param3=" + hex(toc[3].size) + " param4=0x0");
    EXPECT_EQ(security_args(sec[3]),
              "mode=0 param2=" + hex(toc[1].size) + " param3=" + hex(toc[2].size) + " param4=0x0");

    EXPECT_EQ(read_file("/sys/devices/platform/cpif/sim/ds_detect"), "2");
    EXPECT_TRUE(logged(info("set_sim_configuration", "sim count: 2 (echo to ds_detect file)")));
    EXPECT_EQ(modem().handles(), kNoHandles);
    EXPECT_EQ(read_file("/sys/power/wake_lock"), "vm420");
    EXPECT_EQ(read_file("/sys/power/wake_unlock"), "vm420");
    EXPECT_EQ(property("vendor.rix.first_xmit_done"), "1");

    // The silent-reset record was kept before the boot and handed back
    // after it; its log directory is the log group's.
    EXPECT_NE(control("query facts").find("srinfo_restores=1"), std::string::npos);
    EXPECT_FALSE(exists("/data/vendor/log/rix/err/last_sr_info_umts"));
    struct stat hex = {};
    ASSERT_EQ(stat((root() + "/data/vendor/log/rix/sr_info_umts").c_str(), &hex), 0);
    EXPECT_EQ(hex.st_gid, 1007u);
    struct stat st = {};
    ASSERT_EQ(stat((root() + "/data/vendor/log/rix").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0775u);
    EXPECT_EQ(st.st_gid, 1007u);
}

TEST_F(Boot, LaterBootsSkipVssUnlessVerifiedOrReinitialised) {
    build_modem();
    start_modem();
    set_property("vendor.rix.first_xmit_done", "1");
    auto vss_loaded = [&] {
        const auto toc = read_toc(partition_path());
        for (const auto& c : loaded_chunks(latest("LOAD_CP_IMAGE"))) {
            if (c.size == toc[3].size && c.b_offset == toc[3].b_off) {
                return true;
            }
        }
        return false;
    };
    auto vss_mode = [&]() -> std::string {
        const auto sec = security();
        return sec.size() == 4 ? security_args(sec[2]).substr(0, 7) : "none";
    };

    ASSERT_TRUE(one_shot()) << radio_log();
    EXPECT_TRUE(logged(info("load_cp_images", "stage[3] : stage is already xmit once")));
    EXPECT_TRUE(logged(info("boot", "skip VSS check")));
    EXPECT_FALSE(vss_loaded());
    EXPECT_EQ(vss_mode(), "none");

    control("set misbehave_clear 1");
    ASSERT_TRUE(one_shot({"-o", "v"})) << radio_log();
    EXPECT_EQ(vss_mode(), "mode=12");
    EXPECT_FALSE(vss_loaded());

    ASSERT_TRUE(one_shot({"-o", "s"})) << radio_log();
    EXPECT_TRUE(vss_loaded());
    // The kernel copy holds the latest run only: the reinit boot sends VSS
    // but still skips its check.
    EXPECT_NE(kmsg().find("rix: boot: skip VSS check\n"), std::string::npos) << kmsg();
}

TEST_F(Boot, NvFileIsCreatedOrReplacedByTheTempFile) {
    // A directory without an NV file: it is created full of 0xFF at the
    // TOC's size and sent.
    build_modem();
    start_modem();
    write_file("/mnt/vendor/efs/fresh/.keep", "");
    give_to_radio("/mnt/vendor/efs/fresh");
    ASSERT_TRUE(one_shot({"-n", "/mnt/vendor/efs/fresh"})) << radio_log();
    const std::string created = read_file("/mnt/vendor/efs/fresh/nv_data.bin");
    EXPECT_EQ(created, std::string(0x10000, '\xFF'));

    // With the checksum option a corrupted file is not sent: the temp file is.
    build_modem(kBootableParts, {"--total-size", "0xFFEE", "--corrupt"});
    ASSERT_TRUE(one_shot({"-o", "c"})) << radio_log();
    EXPECT_TRUE(exists("/mnt/vendor/efs/nv_data_temp.bin")) << radio_log();
    EXPECT_NE(kmsg().find("checksum : "), std::string::npos);
}

TEST_F(Boot, RfBoardAndSimCountDecideWhatIsBootedAndWritten) {
    build_modem();
    start_modem("rf_level 1\n");
    write_file("/efs/factory.prop", "sim=5");
    ASSERT_TRUE(one_shot()) << radio_log();
    EXPECT_TRUE(logged(info("get_rfboard_disconnect", "RF sub board is disconnected, gpio_val:1")));
    EXPECT_NE(kmsg().find(") main: goto skip cpboot<6>"), std::string::npos) << kmsg();
    EXPECT_TRUE(modem().requests("POWER_ON").empty());

    // Level 2 is "disconnected" as well, but only 1 skips the boot.
    control("set rf_level 2");
    ASSERT_TRUE(one_shot()) << radio_log();
    EXPECT_EQ(modem().requests("POWER_ON").size(), 1u);
    EXPECT_TRUE(logged(info("set_sim_configuration", "sim count: 5 (echo to ds_detect file)")));
    EXPECT_FALSE(exists("/sys/devices/platform/cpif/sim/ds_detect") &&
                 !read_file("/sys/devices/platform/cpif/sim/ds_detect").empty());
}

// One failing step: the boot ends with its line, releases everything and is
// tried again a second later.
struct Failure {
    const char* label;
    const char* scenario;
    std::vector<std::string> parts;  // empty: the bootable default
    const char* line;                // the boot's "ERR!" line
};

void PrintTo(const Failure& f, std::ostream* os) {
    *os << f.label;
}

class BootFailure : public Boot, public ::testing::WithParamInterface<Failure> {};

TEST_P(BootFailure, EndsTheBootReleasesEverythingAndRetries) {
    const Failure& f = GetParam();
    build_modem(f.parts.empty() ? kBootableParts : f.parts);
    start_modem(f.scenario);
    start_rix({"-d", "-t", "vm420"});
    ASSERT_TRUE(wait_logged(kBootFailed, 10s, 2)) << radio_log();
    // The cycle sleeps a second before the next attempt: nothing is open now.
    EXPECT_EQ(modem().handles(), kNoHandles);
    EXPECT_GE(count(info("boot", f.line)), 2) << radio_log();
    EXPECT_EQ(count(kBootDone), 0);
    const std::string locks = read_file("/sys/power/wake_lock");
    const std::string unlocks = read_file("/sys/power/wake_unlock");
    EXPECT_GE(locks.size(), 10u);
    EXPECT_LE(locks.size() - unlocks.size(), 5u) << "every attempt releases its wake lock";
    EXPECT_EQ(property("sys.powerctl"), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, BootFailure,
    ::testing::Values(
        Failure{
            "PowerReset", "state 2\nresult POWER_RESET -5\n", {}, "ERR! std_boot_power_reset fail"},
        Failure{"PowerOn", "result POWER_ON -5\n", {}, "ERR! std_boot_power_on fail"},
        Failure{"NonSecure", "security 2 -1\n", {}, "ERR! security check fail"},
        Failure{"Load", "result LOAD_CP_IMAGE -22\n", {}, "ERR! BOOT_STAGE fail"},
        Failure{"Toc", "security 7 5\n", {}, "ERR! security check fail for TOC"},
        Failure{
            "BootMain", "security 0 0xCAE20020\n", {}, "ERR! security check fail for BOOT/MAIN"},
        Failure{"Bootloader",
                "result START_CP_BOOTLOADER -5\n",
                {},
                "ERR! std_boot_start_cp_bootloader fail"},
        Failure{"Handshake", "answer 0x900D 0xA00E\n", {}, "ERR! std_boot_finish_handshake fail"},
        Failure{"Finish", "answer 0x9F00 0xAF01\n", {}, "ERR! std_boot_finish_handshake fail"},
        Failure{"Complete",
                "result COMPLETE_NORMAL_BOOTUP -5\n",
                {},
                "ERR! std_boot_complete_normal_bootup fail"},
        Failure{"TocName", "", {"BOOT:size=1", "TOC"}, "ERR! prepare_boot_args fail"},
        Failure{"TocCount",
                "",
                {"--count", "17", "TOC", "BOOT:size=100", "NV:size=0x100"},
                "ERR! prepare_boot_args fail"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST_F(Boot, TolerableAnswersBootAndSecureFailureRebootsByRegion) {
    // Mode 2 answered 11 is tolerated after its error line.
    build_modem();
    start_modem("security 2 11\n");
    ASSERT_TRUE(one_shot()) << radio_log();
    EXPECT_EQ(count(kBootDone), 1);
    EXPECT_NE(kmsg().find(") std_security_req: ERR! IOCTL_CHECK_SECURITY fail (0xb)\n"),
              std::string::npos);

    // A secure-boot failure code reboots a phone of a listed region only.
    control("set security 7 0x00FEED04");
    set_property("ro.dmx.sales_code", "TMB");
    start_rix({"-d", "-t", "vm420"});
    ASSERT_TRUE(wait_property("sys.powerctl", "reboot,secure")) << radio_log();
    EXPECT_TRUE(logged(info("std_security_req", "fail to check secure cp boot mode(7)")));
    EXPECT_TRUE(wait_logged(info("boot", "ERR! security check fail for TOC")));
}

TEST_F(Boot, HandshakeWithoutAnswerFailsAfterThePollTimeout) {
    build_modem();
    start_modem("answer 0x900D none\n");
    start_rix({"-d", "-t", "vm420"});
    ASSERT_TRUE(wait_logged(info("boot", "Handshake")));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(wait_logged(info("boot", "ERR! std_boot_finish_handshake fail"), 40s));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 29s);
    EXPECT_TRUE(logged(info("std_udl_req_resp", "ERR! std_udl_poll fail")) ||
                radio_log().find("std_udl_poll") != std::string::npos)
        << radio_log();
    ASSERT_TRUE(wait_logged(kBootFailed));
    EXPECT_EQ(modem().handles(), kNoHandles);
}

TEST_F(Boot, SilentResetRecordIsKeptOnceAndInvalidBlocksAreRefused) {
    build_modem();
    // A record still waiting from an earlier boot: no new one is fetched,
    // and the waiting one is handed back after the boot.
    write_file("/data/vendor/log/rix/err/last_sr_info_umts", "{\"JVER\":\"OLD\"}");
    give_to_radio("/data/vendor/log/rix");
    start_modem();
    ASSERT_TRUE(one_shot()) << radio_log();
    EXPECT_TRUE(modem().requests("GET_SRINFO").empty()) << modem().trace();
    EXPECT_TRUE(logged(info("store_srinfo", "srinfo_last file exist, skip!")));
    EXPECT_NE(control("query facts").find("srinfo_restored=\"{\\\"JVER\\\":\\\"OLD\\\"}"),
              std::string::npos)
        << control("query facts");
    EXPECT_FALSE(exists("/data/vendor/log/rix/err/last_sr_info_umts"));

    // A block with the wrong marker is not kept.
    control("set srinfo_marker 0x12345678");
    ASSERT_TRUE(one_shot()) << radio_log();
    EXPECT_NE(radio_log().find("Crash info string was invalid(12345678/5245564a)"),
              std::string::npos)
        << radio_log();
    EXPECT_FALSE(exists("/data/vendor/log/rix/err/last_sr_info_umts"));
}

}  // namespace
}  // namespace systest
