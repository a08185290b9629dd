// The boot path end to end: the real daemon boots the virtual modem from a partition image; the
// trace shows every request, modem memory every byte. Then what the options, the board, the
// silent-reset record and each failing step make of a boot.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <regex>

#include "phone.h"

namespace systest {
namespace {

constexpr uint32_t kChunk = 63488;
// The parts of the one-shot boot's partition as mkmodem lays them out.
struct Part {
    std::string name;
    uint32_t b_off, m_off, size;
};
const Part kParts[] = {{"TOC", 0, 0x1000, 0x200},
                       {"BOOT", 0x1000, 0x2000, 70000},
                       {"MAIN", 0x13000, 0x14000, (64u << 20) + 1},
                       {"VSS", 0x4014000, 0x4015000, 126976},
                       {"NV", 0, 0x4034000, 0x10000}};

// `len` bytes of a host file from `off` on.
std::string bytes(const std::string& path, uint64_t off, uint64_t len) {
    std::ifstream in(path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(off));
    std::string out(len, '\0');
    in.read(out.data(), static_cast<std::streamsize>(len));
    return in ? out : "";
}

std::string hex(uint32_t v) {
    char buf[16];
    snprintf(buf, sizeof(buf), "0x%X", v);
    return buf;
}

using Boot = Phone;

TEST_F(Boot, OneShotBootStreamsEveryStageIntoModemMemory) {
    // MAIN is 64 MiB + 1 byte, VSS an exact multiple of the chunk.
    build_modem({"TOC", "BOOT:size=70000", "MAIN:size=" + std::to_string((64u << 20) + 1),
                 "VSS:size=126976", "NV:size=0x10000", "OFFSET"});
    start_modem("memory_size 0x8000000\n");
    set_property("vendor.rix.rfs_check_done", "1");
    write_file("/efs/factory.prop", "ro.multisim.simslotcount=2\n");
    start_rix({"-t", "vm420"});
    ASSERT_EQ(wait_exit(120s), 0) << radio_log();
    EXPECT_EQ(count(kBootDone), 1);
    EXPECT_EQ(count(info("status_loop", "Cp boot Oneshot")), 1);

    // The requests and protocol words in order, the chunks of a stage as one line each: only
    // m_offset advances, the last chunk carries the rest (0 bytes on an exact multiple). The
    // modem is at state 0: no power reset. TOC and VSS are checked by address and size, BOOT/MAIN
    // by their sizes.
    std::vector<std::string> expect = {
        "ioctl memshare SET_BTL_SIZE size=0 -> 0",
        "ioctl memshare GET_BTL_SIZE -> 0 size=0",
        "ioctl boot GET_RFBOARD_DISCONNECT -> 0",
        "GET_SRINFO",
        "GET_MODEM_STATE -> 0",
        "ioctl boot POWER_ON -> 0",
        "ioctl boot CHECK_SECURITY mode=2 param2=0x0 param3=0x0 param4=0x0 -> 0"};
    for (int i = 0; i < 5; i++) {
        for (uint32_t sent = 0;; sent += kChunk) {
            const uint32_t len = std::min(kChunk, kParts[i].size - sent);
            expect.push_back("ioctl boot LOAD_CP_IMAGE size=" + hex(kParts[i].size) + " m_offset=" +
                             hex(kParts[i].m_off + sent) + " b_offset=" + hex(kParts[i].b_off) +
                             " mode=0 len=" + std::to_string(len) + " -> 0");
            if (len < kChunk) {
                break;
            }
        }
    }
    expect.insert(expect.end(),
                  {"ioctl boot CHECK_SECURITY mode=7 param2=" + hex(kParts[0].m_off) +
                       " param3=0x200 param4=0x0 -> 0",
                   "ioctl boot CHECK_SECURITY mode=7 param2=" + hex(kParts[3].m_off) +
                       " param3=" + hex(kParts[3].size) + " param4=0x0 -> 0",
                   "ioctl boot CHECK_SECURITY mode=0 param2=" + hex(kParts[1].size) +
                       " param3=" + hex(kParts[2].size) + " param4=0x0 -> 0",
                   "ioctl boot START_CP_BOOTLOADER mode=0 -> 0", "write boot 0x0000900D",
                   "read boot 0x0000A00D", "write boot 0x00009F00", "read boot 0x0000AF00",
                   "ioctl boot COMPLETE_NORMAL_BOOTUP -> 0", "ioctl boot NOTIFY_BOOTUP_DONE -> 0",
                   "SET_SRINFO"});
    std::vector<std::string> got;
    for (std::string l : lines_of(modem().trace())) {
        if (l.rfind("ioctl ", 0) != 0 && l.rfind("write boot", 0) != 0 &&
            l.rfind("read boot", 0) != 0) {
            continue;
        }
        // The silent-reset requests carry the record; only their name and result matter here.
        for (const char* name : {"GET_SRINFO", "SET_SRINFO", "GET_MODEM_STATE -> 0"}) {
            l = l.find(name) != std::string::npos ? name : l;
        }
        got.push_back(l);
    }
    EXPECT_EQ(got, expect);
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(count(info("load_cp_image_by_stage", std::to_string(i) + " stage complelte")), 1);
        EXPECT_TRUE(bytes(modem().memory_path(), kParts[i].m_off, kParts[i].size) ==
                    bytes(i < 4 ? partition_path() : nv_path(), kParts[i].b_off, kParts[i].size))
            << kParts[i].name;
    }

    EXPECT_EQ(read_file("/sys/devices/platform/cpif/sim/ds_detect"), "2");
    EXPECT_EQ(modem().handles(),
              (std::map<std::string, int>{{"boot", 0}, {"dump", 0}, {"memshare", 0}}));
    EXPECT_EQ(read_file("/sys/power/wake_lock"), "vm420");
    EXPECT_EQ(read_file("/sys/power/wake_unlock"), "vm420");
    EXPECT_EQ(property("vendor.rix.first_xmit_done"), "1");

    // The silent-reset record was kept before the boot and handed back after it, naming the
    // file it deleted; its hex log is the log group's.
    EXPECT_NE(control("query facts").find("srinfo_restores=1"), std::string::npos);
    EXPECT_EQ(count(info("restore_srinfo", "done = " + kLogDir + "/err/last_sr_info_umts")), 1);
    EXPECT_FALSE(exists(kLogDir + "/err/last_sr_info_umts"));
    struct stat hex_log = {};
    ASSERT_EQ(stat((root() + kLogDir + "/sr_info_umts").c_str(), &hex_log), 0);
    EXPECT_EQ(hex_log.st_gid, 1007u);
}

// One one-shot boot: what the row sets up, what must be seen.
struct OneShotRow {
    const char* label;
    std::vector<std::string> args = {};
    std::vector<std::string> parts = kBootableParts, nv = kValidNv;
    std::string scenario = "";
    std::vector<std::pair<std::string, std::string>> props = {}, files = {};  // before the start
    std::vector<LogLine> seen = {};                 // in this order, in both copies
    std::vector<std::string> has = {}, lacks = {};  // in the trace, kernel log or modem facts
    std::string made = "";                          // the file the row makes
    std::string made_of = "";                       // its content; "" when only its presence
    std::string unwritten = "";                     // a file of the phone left missing or empty
    // Rows print as their label in test names and messages.
    friend void PrintTo(const OneShotRow& row, std::ostream* os) { *os << row.label; }
};

class OneShot : public Phone, public ::testing::WithParamInterface<OneShotRow> {};

TEST_P(OneShot, BootsAsTheRowSays) {
    const OneShotRow& r = GetParam();
    build_modem(r.parts, r.nv);
    start_modem(r.scenario);
    set_property("vendor.rix.rfs_check_done", "1");
    for (const auto& [name, value] : r.props) {
        set_property(name, value);
    }
    for (const auto& [path, content] : r.files) {
        write_file(path, content);
        // Files put in place belong to the radio user, as the daemon has dropped root.
        for (std::string p = path; p.size() > 12; p = p.substr(0, p.rfind('/'))) {
            (void)!chown((root() + p).c_str(), 1001, 1001);
        }
    }
    std::vector<std::string> args = {"-t", "vm420"};
    args.insert(args.end(), r.args.begin(), r.args.end());
    start_rix(args);
    ASSERT_EQ(wait_exit(120s), 0) << radio_log();
    const auto kernel = lines_of(kmsg());
    auto at = kernel.begin();
    for (const auto& line : r.seen) {
        EXPECT_GE(count(line), 1) << line.kernel;
        at = std::find(at, kernel.end(), line.kernel);
        EXPECT_NE(at, kernel.end()) << line.kernel << ": not there or out of order\n" << kmsg();
        at = at == kernel.end() ? kernel.begin() : at;
    }
    const std::string seen = modem().trace() + kmsg() + control("query facts");
    for (const auto& part : r.has) {
        EXPECT_NE(seen.find(part), std::string::npos) << part << "\n" << seen;
    }
    for (const auto& part : r.lacks) {
        EXPECT_EQ(seen.find(part), std::string::npos) << part << "\n" << seen;
    }
    EXPECT_TRUE(r.made.empty() || exists(r.made)) << r.made;
    EXPECT_TRUE(r.made_of.empty() || read_file(r.made) == r.made_of) << r.made;
    EXPECT_TRUE(r.unwritten.empty() || read_file(r.unwritten).empty()) << r.unwritten;
}

const std::string kSrLast = kLogDir + "/err/last_sr_info_umts";
const std::string kFirstLoad = "vendor.rix.first_xmit_done";
const std::string kVssLoad = "LOAD_CP_IMAGE size=0x1000 ";
const std::string kZeros = " param2=0x0 param3=0x0 param4=0x0 -> 0";
const LogLine kSkipVss = info("boot", "skip VSS check");

// clang-format off
const OneShotRow kOneShots[] = {
    // Once a first load is marked, VSS is neither sent nor checked, unless -o v checks it (mode
    // 12) or -o s sends it again (its check still skipped).
    {.label = "LaterBootSkipsVss", .props = {{kFirstLoad, "1"}},
     .seen = {info("load_cp_images", "stage[3] : stage is already xmit once"), kSkipVss},
     .lacks = {kVssLoad, "param3=0x1000 param4"}},
    {.label = "VerifyOptionChecksVss", .args = {"-o", "v"}, .props = {{kFirstLoad, "1"}},
     .has = {"CHECK_SECURITY mode=12 param2=0x114000 param3=0x1000 "}, .lacks = {kVssLoad}},
    {.label = "ReinitOptionSendsVss", .args = {"-o", "s"}, .props = {{kFirstLoad, "1"}},
     .seen = {kSkipVss}, .has = {kVssLoad}},
    // The load's result is the mark's first character minus '0': "2" sends VSS (it is not "1")
    // but skips its check (the result is not 0).
    {.label = "FirstLoadMarkTwoSendsVssButSkipsItsCheck", .props = {{kFirstLoad, "2"}},
     .seen = {kSkipVss}, .has = {kVssLoad}},
    // A directory without an NV file: it is made full of 0xFF at the TOC's size and sent.
    {.label = "MissingNvIsCreated", .args = {"-n", "/mnt/vendor/efs/fresh"},
     .files = {{"/mnt/vendor/efs/fresh/.keep", ""}}, .made = "/mnt/vendor/efs/fresh/nv_data.bin",
     .made_of = std::string(0x10000, '\xFF')},
    // With the checksum option a corrupted file is replaced by the temp file.
    {.label = "CorruptNvIsReplaced", .args = {"-o", "c"},
     .nv = {"--total-size", "0xFFEE", "--corrupt"}, .has = {"checksum : "}, .made = "/mnt/vendor/efs/nv_data_temp.bin"},
    // RF level exactly 1 skips the boot; 2 is "disconnected" too but boots. A SIM count outside
    // 1..4 is logged, not written.
    {.label = "RfLevelOneSkipsTheBoot", .scenario = "rf_level 1\n",
     .seen = {info("get_rfboard_disconnect", "RF sub board is disconnected, gpio_val:1")},
     .has = {") main: goto skip cpboot<6>"}, .lacks = {"POWER_ON"}},
    {.label = "RfLevelTwoBoots", .scenario = "rf_level 2\n",
     .files = {{"/efs/factory.prop", "sim=5"}},
     .seen = {info("get_rfboard_disconnect", "RF sub board is disconnected, gpio_val:2"),
              info("set_sim_configuration", "sim count: 5 (echo to ds_detect file)")},
     .has = {"ioctl boot POWER_ON -> 0"}, .unwritten = "/sys/devices/platform/cpif/sim/ds_detect"},
    // A failed RF query and an empty factory file only cost their lines.
    {.label = "FailedBoardQueriesStillBoot", .scenario = "result GET_RFBOARD_DISCONNECT -5\n",
     .files = {{"/efs/factory.prop", ""}},
     .seen = {error("Input/output error", "get_rfboard_disconnect", "IOCTL_GET_RFBOARD_DISCONNECT fail (-1)"),
              info("get_factory_prop", "can't find token!"), kBootDone},
     .unwritten = "/sys/devices/platform/cpif/sim/ds_detect"},
    // Neither can a wake-lock or SIM file that cannot be opened; the release has its own file.
    {.label = "UnopenableWakeLockAndSimFileAreOnlyLogged",
     .files = {{"/sys/power/wake_lock/x", ""}, {"/sys/devices/platform/cpif/sim/ds_detect/x", ""},
               {"/efs/factory.prop", "sim=2"}},
     .seen = {error("Is a directory", "boot_wake_lock", "user wake_lock open fail"),
              error("Is a directory", "set_sim_configuration", "SIM conf: open failed"), kBootDone},
     .made = "/sys/power/wake_unlock", .made_of = "vm420"},
    // Mode 2 answered 11 is tolerated after its error line.
    {.label = "NonSecureAnswerElevenBoots", .scenario = "security 2 11\n", .seen = {kBootDone},
     .has = {") std_security_req: ERR! IOCTL_CHECK_SECURITY fail (0xb)\n"}},
    // A TOC count of 0 loads nothing but still asks every check, with zeros, in this order.
    {.label = "TocCountZeroChecksEveryPart", .parts = {"--count", "0", "TOC", "BOOT:size=70000", "MAIN:size=0x100000", "VSS:size=4096", "NV:size=0x10000", "OFFSET"},
     .seen = {info("boot", "Request security : non-secure mode"),
              info("boot", "Request Security : TOC secure mode"),
              info("boot", "Request Security : VSS secure mode"),
              info("boot", "Request security : BOOT/MAIN secure mode"), kBootDone},
     .has = {"CHECK_SECURITY mode=2" + kZeros + "\nioctl boot CHECK_SECURITY mode=7" + kZeros +
             "\nioctl boot CHECK_SECURITY mode=7" + kZeros +
             "\nioctl boot CHECK_SECURITY mode=0" + kZeros},
     .lacks = {"LOAD_CP_IMAGE"}},
    // A part of size 0 and one without a descriptor (NV_NORM) are skipped.
    {.label = "SkippedPartsAreOnlyLogged",
     .parts = {"TOC", "BOOT:size=4096", "MAIN:size=0x10000", "VSS:size=0", "NV:size=0x10000", "NV_NORM:size=16", "OFFSET"},
     .seen = {info("load_cp_images", "b_size is not valid. skip stage[3]"),
              info("load_cp_images", "fd is not valid. skip stage[5]"), kBootDone}},
    // A part whose size equals its offset in the partition is sent like any other.
    {.label = "PartAsLargeAsItsOffsetIsSent",
     .parts = {"TOC", "BOOT:size=4096", "MAIN:size=0x10000", "VSS:size=4096", "NV:size=0x10000",
               "OFFSET"},
     .has = {"LOAD_CP_IMAGE size=0x1000 m_offset=0x2000 b_offset=0x1000 mode=0 len=4096"}},
    // A record still waiting from an earlier boot: no new one is fetched, the waiting one is
    // handed back after the boot.
    {.label = "WaitingSilentResetRecordIsHandedBack", .files = {{kSrLast, "{\"JVER\":\"OLD\"}"}},
     .seen = {info("store_srinfo", "srinfo_last file exist, skip!")},
     .has = {R"(srinfo_restored="{\"JVER\":\"OLD\"})"}, .lacks = {"GET_SRINFO"},
     .unwritten = kSrLast},
    // A block with the wrong marker is not kept, and the hand-back finds no file.
    {.label = "InvalidSilentResetBlockIsRefused", .scenario = "srinfo_marker 0x12345678\n",
     .seen = {error("No such file or directory", "open_srinfo_last", "last_sr_info open fail"),
              info("restore_srinfo", "sr_info_last open fail(-1)")},
     .has = {"Crash info string was invalid(12345678/5245564a)"}, .lacks = {"SET_SRINFO"},
     .unwritten = kSrLast},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Rows, OneShot, ::testing::ValuesIn(kOneShots),
                         [](const auto& row) { return std::string(row.param.label); });

// One failing step: the boot ends with its line, releases everything and is tried again a
// second later (or after the poll time-out of a silent boot loader), also without -d.
struct Failure {
    const char* label;
    const char* scenario;
    std::vector<std::string> parts;  // empty: the bootable default
    const char* line;                // the boot's "ERR!" line
    std::vector<LogLine> also = {};  // lines of each attempt
    const char* request = "";        // a request that must have been made
    const char* reboot = "";         // sys.powerctl of a phone sold as TMB
    bool one_shot = false;
    Millis gap = 1s;  // at least between two attempts
    // Rows print as their label in test names and messages.
    friend void PrintTo(const Failure& row, std::ostream* os) { *os << row.label; }
};

class BootFailure : public Phone, public ::testing::WithParamInterface<Failure> {};

TEST_P(BootFailure, EndsTheBootReleasesEverythingAndRetries) {
    const Failure& f = GetParam();
    build_modem(f.parts.empty() ? kBootableParts : f.parts);
    start_modem(f.scenario);
    set_property("vendor.rix.rfs_check_done", "1");
    if (*f.reboot != '\0') {
        set_property("ro.dmx.sales_code", "TMB");
    }
    // A silent boot loader costs the 30 s poll: on a faster clock where the build allows it.
    const Millis gap = f.gap > 1s ? f.gap / kClockSpeed : f.gap;
    start_rix(f.one_shot ? std::vector<std::string>{"-t", "vm420"}
                         : std::vector<std::string>{"-d", "-t", "vm420"},
              f.gap > 1s ? fast_clock() : Sandbox{});
    ASSERT_TRUE(wait_logged(kBootFailed, 10s + gap)) << radio_log();
    const auto first = std::chrono::steady_clock::now();
    ASSERT_TRUE(wait_logged(kBootFailed, 10s + gap, 2)) << radio_log();
    EXPECT_GE(std::chrono::steady_clock::now() - first, gap * 9 / 10);
    // The cycle sleeps a second before the next attempt: nothing is open now.
    EXPECT_EQ(modem().handles(),
              (std::map<std::string, int>{{"boot", 0}, {"dump", 0}, {"memshare", 0}}));
    EXPECT_GE(count(info("boot", f.line)), 2) << radio_log();
    for (const auto& line : f.also) {
        EXPECT_GE(count(line), 1) << line.kernel;
    }
    EXPECT_EQ(count(kBootDone), 0);
    EXPECT_EQ(count(info("status_loop", "Cp boot Oneshot")), 0);
    EXPECT_TRUE(rix_running());
    const std::string locks = read_file("/sys/power/wake_lock");
    EXPECT_GE(locks.size(), 10u);
    EXPECT_LE(locks.size() - read_file("/sys/power/wake_unlock").size(), 5u)
        << "every attempt releases its wake lock";
    EXPECT_TRUE(*f.request == '\0' || !modem().requests(f.request).empty()) << f.request;
    EXPECT_EQ(property("sys.powerctl"),
              *f.reboot == '\0' ? std::nullopt : std::optional<std::string>(f.reboot));
}

const std::string kEio = "Input/output error";
// clang-format off
const Failure kFailures[] = {
    {"PowerReset", "state 2\nresult POWER_RESET -5\n", {}, "ERR! std_boot_power_reset fail",
     {error(kEio, "std_boot_power_reset", "ERR! IOCTL_POWER_RESET fail")}},
    // A state that cannot be read leads to a power reset.
    {"UnreadableStateThenPowerOn", "result GET_MODEM_STATE -5\nresult POWER_ON -5\n", {},
     "ERR! std_boot_power_on fail",
     {info("get_modem_state", "modem_status: -1"), info("boot", "Power reset CP_BOOT_MODE_NORMAL"),
      error(kEio, "std_boot_power_on", "ERR! IOCTL_POWER_ON fail (-1)")}, "POWER_RESET"},
    {"NonSecure", "security 2 -1\n", {}, "ERR! security check fail"},
    {"Load", "result LOAD_CP_IMAGE -22\n", {}, "ERR! BOOT_STAGE fail"},
    // A secure-boot failure code reboots a phone of a listed region.
    {"SecureBootFailure", "security 7 0x00FEED04\n", {}, "ERR! security check fail for TOC",
     {info("std_security_req", "fail to check secure cp boot mode(7)")}, "", "reboot,secure"},
    {"BootMain", "security 0 0xCAE20020\n", {}, "ERR! security check fail for BOOT/MAIN"},
    {"Bootloader", "result START_CP_BOOTLOADER -5\n", {}, "ERR! std_boot_start_cp_bootloader fail",
     {error(kEio, "std_boot_start_cp_bootloader", "ERR! IOCTL_START_CP_BOOTLOADER fail")}},
    {"Handshake", "answer 0x900D 0xA00E\n", {}, "ERR! std_boot_finish_handshake fail"},
    {"SilentBootLoader", "answer 0x900D none\n", {}, "ERR! std_boot_finish_handshake fail",
     {info("std_udl_poll", "ERR! poll fail (events 0x1, TIMEOUT)")}, "", "", false, 30s},
    // The second handshake word answered wrongly: the first answer was right.
    {"Finish", "answer 0x9F00 0xAF01\n", {}, "ERR! std_boot_finish_handshake fail"},
    // A completion failure is still reported to the driver.
    {"Complete", "result COMPLETE_NORMAL_BOOTUP -5\n", {},
     "ERR! std_boot_complete_normal_bootup fail", {error(kEio, "std_boot_complete_normal_bootup",
                                                         "ERR! IOCTL_COMPLETE_NORMAL_BOOTUP fail (-1)")},
     "NOTIFY_BOOTUP_FAIL"},
    // Also without -d a failed boot is tried again.
    {"TocName", "", {"BOOT:size=1", "TOC"}, "ERR! prepare_boot_args fail", {}, "", "", true},
    {"TocCount", "", {"--count", "17", "TOC", "BOOT:size=100", "NV:size=0x100"},
     "ERR! prepare_boot_args fail"},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Steps, BootFailure, ::testing::ValuesIn(kFailures),
                         [](const auto& row) { return std::string(row.param.label); });

}  // namespace
}  // namespace systest
