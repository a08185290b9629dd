// The command line: which options win, which are refused, and that nothing
// longer than its field is ever stored.
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "rix_test.h"
#include "srinfo/srinfo.h"

namespace {

// What a modem fills in, with the records still zero-filled.
std::string modem(const std::string& name,
                  const std::string& paths =
                      "/dev/umts_boot0 /dev/umts_ramdump0 "
                      "/dev/block/by-name/modem /mnt/vendor/efs/nv_data.bin") {
    return "records 000: 1 " + name + " umts " + paths +
           " [] [] /mnt/vendor/efs/nv_data_temp.bin 5";
}
const std::string kDefault = modem("vm420") + " -d0 -o0";
const std::string m = "VM420 modem|";

class OptionsTest : public RixTest {
  protected:
    // The objects and records with every field a modem fills in ("none"
    // when no modem was accepted), then the daemon mode and options.
    static std::string state() {
        const struct rix_args& a = rix_args;
        char flags[32];
        snprintf(flags, sizeof(flags), " -d%d -o%x", a.daemon_mode, a.options);
        if (Container::bootDump == nullptr || Container::srinfo == nullptr) {
            const bool any = Container::bootDump || Container::srinfo || Container::getStdBoot();
            return (any ? "half made" : "none") + std::string(flags);
        }
        const std_boot* b = Container::getStdBoot();
        return "records " + std::to_string(b->fd) + std::to_string(b->toc_idx_toc) +
               std::to_string(Container::getStdDump()->log_fd) + ": " +
               std::to_string(a.modem_type) + " " + a.modem_name + " " + a.dev_prefix + " " +
               (a.boot_node_path == a.boot_node ? a.boot_node : "?") + " " + a.dump_node + " " +
               a.partition_path + " " + a.nv_data_path + " [" + a.nv_norm_path + "] [" +
               a.nv_prot_path + "] " + a.nv_temp_path + " " + std::to_string(a.last_stage) + flags;
    }
    // The radio log, a '|' ending each line, without the debug prefix and
    // the two function names; errno's text left out.
    std::string log() const {
        std::string r =
            std::regex_replace(radio(), std::regex("D/boot: rix: (parseArgs|setRixArgs): "), "");
        r = std::regex_replace(r, std::regex(R"(\(ERR! [^)]*\))"), "(ERR!)");
        return std::regex_replace(r, std::regex("\n"), "|");
    }
};

TEST_F(OptionsTest, ArgumentsSetTheModemPathsAndOptions) {
    const std::string none = "none -d0 -o0", unknown = "Unknown modem|";
    const std::string paths =
        "set boot_node : umts_boot1|boot_node : /dev/umts_boot1|set dump_node : dump1|dump_node : "
        "/dev/dump1|set partition number : by-name/m2|partition path : /dev/block/by-name/m2|"
        "set nv partition : /data/nv|nv data file path : /data/nv/nv_data.bin|"
        "nv norm file path : |nv prot file path : |";
    const struct {
        std::vector<std::string> args;
        int result;
        std::string state, log;
    } cases[] = {
        // clang-format off
        {{"-t", "vm420"}, 0, kDefault, m},
        // The modem name is matched by its prefix; the first accepted one counts.
        {{"-t", "vm420x"}, 0, modem("vm420x") + " -d0 -o0", m},
        {{"-t", "quoll_sit2", "-t", "vm420", "-t", "bogus"}, 0, modem("quoll_sit2") + " -d0 -o0", m},
        {{"-t", "vm42"}, 1, none, unknown},
        {{"-t", "", "-d"}, 1, none, unknown},  // later options unread
        // Paths given before the modem are overwritten by its defaults.
        {{"-B", "umts_boot1", "-D", "dump1", "-P", "by-name/m2", "-n", "/data/nv", "-t", "vm420"}, 0, kDefault, paths + m},
        {{"-t", "vm420", "-B", "umts_boot1", "-D", "dump1", "-P", "by-name/m2", "-n", "/data/nv"}, 0,
         modem("vm420", "/dev/umts_boot1 /dev/dump1 /dev/block/by-name/m2 /data/nv/nv_data.bin") + " -d0 -o0", m + paths},
        // -o: the first character picks one bit; "ERR!" in an information text.
        {{"-o", "rm"}, 0, "none -d0 -o100", "run with root|"},
        {{"-o", "r", "-o", "m", "-o", "v", "-o", "s", "-o", "c", "-o", "u", "-o", "x"}, 0, "none -d0 -o11f00",
         "run with root|support minidump|verify vss|reinit vss|nv checksum|Upload Test|ERR! invalid option x|"},
        {{"-s", "1", "-t", "vm420"}, 0, kDefault, "SRINFO type: 1|" + m},
        {{"-s", "2", "-d"}, 1, none, "SRINFO type: 2|E/boot: rix: (ERR!) parseArgs: invalid srinfo type: 2|"},
        // -b and -m are ignored; an unknown option and a missing argument warn.
        {{"-b", "x", "-m", "y", "-z", "-d", "-t"}, 0, "none -d1 -o0",
         "WARNING! invalid option ?|Daemon Mode|WARNING! invalid option ?|"},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        Container::reset();
        clear_logs();
        EXPECT_EQ(parse(c.args), c.result);
        EXPECT_EQ(state(), c.state);
        EXPECT_EQ(log(), c.log);
    }
}

TEST_F(OptionsTest, OverlongArgumentsAreRefusedNotCut) {
    const std::string node27(27, 'n');  // "/dev/" + 27 = 32: one too many
    const std::pair<std::string, std::string> cases[] = {
        {"-B", "set boot_node : " + node27},
        {"-D", "set dump_node : " + node27},
        {"-P", "set partition number : " + std::string(501, 'p')},  // "/dev/block/" + 501 = 512
        {"-n", "set nv partition : " + std::string(500, 'd')},      // + "/nv_data.bin" = 512
        {"", "vm420" + std::string(27, 'x')},                       // a modem name of 32 characters
    };
    for (const auto& [opt, line] : cases) {
        Container::reset();
        clear_logs();
        const std::string arg = opt.empty() ? line : line.substr(line.find(": ") + 2);
        EXPECT_EQ(parse(opt.empty() ? std::vector<std::string>{"-t", arg}
                                    : std::vector<std::string>{"-t", "vm420", opt, arg}),
                  1);
        EXPECT_EQ(log(),
                  (opt.empty() ? "" : m + line + "|") + "ERR! argument too long: " + arg + "|");
        // A refused path leaves the field as it was.
        EXPECT_EQ(state(), opt.empty() ? "none -d0 -o0" : kDefault);
    }
    Container::reset();
    EXPECT_EQ(parse({"-t", "vm420" + std::string(26, 'x'), "-P", std::string(500, 'p'), "-B",
                     std::string(26, 'n')}),
              0);
    EXPECT_EQ(std::vector<size_t>({strlen(rix_args.modem_name), strlen(rix_args.partition_path),
                                   strlen(rix_args.boot_node)}),
              std::vector<size_t>({31, 511, 31}));
}

}  // namespace
