// Start-up of the daemon, up to its first boot: the command line, the privileges it keeps, the
// back-trace area size, and a shutdown already requested. A requested shutdown parks the daemon
// right after the size exchange, which leaves the whole start-up to be read.
#include "phone.h"

namespace systest {
namespace {

// NET_ADMIN, NET_RAW, SYS_ADMIN, SYS_BOOT, SYSLOG, BLOCK_SUSPEND
constexpr const char* kRadioCaps = "0000001400603000";
const LogLine kStart = info("main", "Start Velmora v3 (RIX) RIX-V3-20250515R1");
const std::string kBtl = "persist.vendor.rix.btl_size";
const std::string kEio = "Input/output error";
const std::string kNoEntry = "No such file or directory";

struct Start {
    const char* label;
    std::vector<std::string> args;
    std::string modem;               // vmodem scenario
    std::string btl;                 // the property before the start
    std::string omit;                // a node left out of the phone
    int exit;                        // the daemon's exit status; -1: parked by the shutdown
    std::string btl_after;           // the property written back
    std::vector<std::string> trace;  // the driver's whole trace
    std::vector<LogLine> seen, unseen = {};
    // Rows print as their label in test names and messages.
    friend void PrintTo(const Start& row, std::ostream* os) { *os << row.label; }
};

class StartUp : public Phone, public ::testing::WithParamInterface<Start> {};

TEST_P(StartUp, Runs) {
    const Start& s = GetParam();
    start_modem(s.modem);
    if (!s.btl.empty()) {
        set_property(kBtl, s.btl);
    }
    if (s.exit < 0) {
        set_property("sys.shutdown.requested", "1");
    }
    Sandbox sandbox;
    if (!s.omit.empty()) {
        sandbox.omit_nodes = {s.omit};
    }
    const auto begin = std::chrono::steady_clock::now();
    start_rix(s.args, sandbox);
    if (s.exit >= 0) {
        EXPECT_EQ(wait_exit(), s.exit) << radio_log();
        // Nothing is logged after the refusal.
        EXPECT_EQ(lines_of(kmsg()).back(), s.seen.back().kernel);
        EXPECT_EQ(lines_of(radio_log()).back(), s.seen.back().android);
    } else {
        ASSERT_TRUE(wait_request("POWER_OFF")) << radio_log();
        ASSERT_TRUE(wait_property(kBtl, s.btl_after)) << radio_log();
        std::this_thread::sleep_for(1s);
        EXPECT_TRUE(rix_running()) << "the daemon sleeps for ever after the power-off";
        EXPECT_EQ(property("vendor.rix.deviceOffRes"), std::nullopt)
            << "only a shutdown seen in the status loop writes it";
        EXPECT_EQ(modem().handles(),
                  (std::map<std::string, int>{{"boot", 0}, {"dump", 0}, {"memshare", 0}}));
        const bool root = s.args[1] == "-o";
        EXPECT_EQ(proc_status("Uid"), root ? "0\t0\t0\t0" : "1001\t1001\t1001\t1001");
        if (!root) {
            EXPECT_EQ(proc_status("CapEff"), kRadioCaps);
            EXPECT_EQ(proc_status("CapPrm"), kRadioCaps);
            EXPECT_EQ(proc_status("CapInh"), "0000000000000000");
        }
        EXPECT_EQ(count(info("main", "Start with root")), root ? 1 : 0);
    }
    EXPECT_EQ(count(kStart), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, s.args.size() == 1 ? 1s : 0s);
    EXPECT_EQ(lines_of(modem().trace()), s.trace);
    for (const auto& line : s.seen) {
        EXPECT_EQ(count(line), 1) << line.kernel << "\n" << kmsg();
    }
    for (const auto& line : s.unseen) {
        EXPECT_EQ(count(line), 0) << line.kernel;
    }
    EXPECT_EQ(radio_log().find("capset failed"), std::string::npos);
}

const std::vector<std::string> kOff = {"open boot flags=0x8802", "ioctl boot POWER_OFF -> 0",
                                       "release boot"};
// The size exchange on the memshare node (sizes as signed 32-bit numbers), then the power-off.
std::vector<std::string> sized(const std::string& set, const std::string& get) {
    return {"open memshare flags=0x8002",
            "ioctl memshare SET_BTL_SIZE size=" + set,
            "ioctl memshare GET_BTL_SIZE -> " + get,
            "release memshare",
            kOff[0],
            kOff[1],
            kOff[2]};
}
const std::vector<std::string> kRadio = {"-d", "-t", "vm420"};

// clang-format off
const Start kStarts[] = {
    // A refused command line ends with -22 before any request, after its own line; one
    // without -t leaves no controller: one message, one second, the same end.
    {"RefusedModemName", {"-t", "nosuchmodem"}, "", "", "", 234, "", {},
     {info("parseArgs", "Unknown modem")}},
    {"WithoutModemType", {"-d"}, "", "", "", 234, "", {}, {info("main", "Invaild modem type 0")}},
    // MiB << 20 in 32 unsigned bits to the driver; the driver's answer written back.
    {"Radio", kRadio, "", "16", "", -1, "16", sized("16777216 -> 0", "0 size=16777216"),
     {info("adjust_btl_ramsize", "persist.vendor.rix.btl_size 0x01000000"),
      info("main", "deviceOff = 1")}},
    {"RunWithRoot", {"-d", "-o", "r", "-t", "vm420"}, "", "", "", -1, "0",
     sized("0 -> 0", "0 size=0"), {info("parseArgs", "run with root")}},
    {"TopBit", kRadio, "", "2048", "", -1, "2048", sized("-2147483648 -> 0", "0 size=-2147483648"),
     {info("adjust_btl_ramsize", "persist.vendor.rix.btl_size 0x80000000")}},
    {"Wraps", kRadio, "", "4096", "", -1, "0", sized("0 -> 0", "0 size=0"),
     {info("adjust_btl_ramsize", "persist.vendor.rix.btl_size 0x00000000")}},
    {"SetRefused", kRadio, "btl_size 0x800000\nresult SET_BTL_SIZE -5\n", "16", "", -1, "8",
     sized("16777216 -> -5 forced", "0 size=8388608"),
     {error(kEio, "adjust_btl_ramsize", "Failed to IOCTL_SET_BTL_SIZE")}},
    {"GetRefused", kRadio, "result GET_BTL_SIZE -5\n", "16", "", -1, "",
     sized("16777216 -> 0", "-5 forced"),
     {error(kEio, "adjust_btl_ramsize", "Failed to IOCTL_GET_BTL_SIZE")},
     {error(kEio, "main", "adjust btl ramsize fail")}},
    {"NoMemshare", kRadio, "", "16", "ramdump_memshare", -1, "", kOff,
     {error(kNoEntry, "adjust_btl_ramsize", "ERR! (/dev/ramdump_memshare) open fail")},
     {error(kNoEntry, "main", "adjust btl ramsize fail")}}};
// clang-format on
INSTANTIATE_TEST_SUITE_P(CommandLine, StartUp, ::testing::ValuesIn(kStarts),
                         [](const auto& row) { return std::string(row.param.label); });

}  // namespace
}  // namespace systest
