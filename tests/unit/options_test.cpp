// The command line: which options win, which are refused, and that nothing
// longer than its field is ever stored.
#include <string>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "rix_test.h"
#include "srinfo/srinfo.h"

namespace {

class OptionsTest : public RixTest {};

TEST_F(OptionsTest, ModemFillsDefaultsAndCreatesObjects) {
    EXPECT_EQ(Container::getStdBoot(), nullptr);
    EXPECT_EQ(Container::getStdDump(), nullptr);
    ASSERT_EQ(parse({"-t", "vm420"}), 0);
    ASSERT_NE(Container::bootDump, nullptr);
    ASSERT_NE(Container::srinfo, nullptr);
    EXPECT_EQ(rix_args.modem_type, 1);
    EXPECT_EQ(rix_args.daemon_mode, 0);
    EXPECT_STREQ(rix_args.modem_name, "vm420");
    EXPECT_STREQ(rix_args.dev_prefix, "umts");
    EXPECT_STREQ(rix_args.boot_node, "/dev/umts_boot0");
    EXPECT_EQ(rix_args.boot_node_path, rix_args.boot_node);
    EXPECT_STREQ(rix_args.dump_node, "/dev/umts_ramdump0");
    EXPECT_STREQ(rix_args.partition_path, "/dev/block/by-name/modem");
    EXPECT_STREQ(rix_args.nv_data_path, "/mnt/vendor/efs/nv_data.bin");
    EXPECT_STREQ(rix_args.nv_norm_path, "");
    EXPECT_STREQ(rix_args.nv_prot_path, "");
    EXPECT_STREQ(rix_args.nv_temp_path, "/mnt/vendor/efs/nv_data_temp.bin");
    EXPECT_EQ(rix_args.last_stage, 5);
    EXPECT_EQ(rix_args.options, 0u);
    // The records are the controller's, zero-filled until first used.
    std_boot* b = Container::getStdBoot();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->fd, 0);
    EXPECT_EQ(b->toc_idx_toc, 0);
    EXPECT_EQ(Container::getStdDump()->log_fd, 0);
    EXPECT_NE(radio().find("D/boot: rix: setRixArgs: VM420 modem\n"), std::string::npos);
}

TEST_F(OptionsTest, ModemNameIsMatchedByPrefix) {
    for (const char* name : {"vm420x", "quoll_sit2", "quoll_sit"}) {
        Container::reset();
        EXPECT_EQ(parse({"-t", name}), 0) << name;
        EXPECT_STREQ(rix_args.modem_name, name);
    }
    for (const char* name : {"vm42", "quoll_si", "VM420", ""}) {
        Container::reset();
        EXPECT_EQ(parse({"-t", name}), 1) << name;
        EXPECT_EQ(Container::bootDump, nullptr);
        EXPECT_EQ(Container::srinfo, nullptr);
    }
    EXPECT_NE(radio().find("rix: parseArgs: Unknown modem\n"), std::string::npos);
}

TEST_F(OptionsTest, UnknownModemStopsReadingOptions) {
    EXPECT_EQ(parse({"-t", "other", "-d"}), 1);
    EXPECT_EQ(rix_args.daemon_mode, 0);
    EXPECT_EQ(radio().find("Daemon Mode"), std::string::npos);
}

TEST_F(OptionsTest, OnlyTheFirstModemCounts) {
    ASSERT_EQ(parse({"-t", "vm420", "-t", "quoll_sit", "-t", "bogus"}), 0);
    EXPECT_STREQ(rix_args.modem_name, "vm420");
    // The second and third are ignored without a message, the bogus one too.
    EXPECT_EQ(radio().find("Unknown modem"), std::string::npos);
    size_t first = radio().find("VM420 modem");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(radio().find("VM420 modem", first + 1), std::string::npos);
}

TEST_F(OptionsTest, PathsBeforeTheModemAreOverwrittenAfterItKept) {
    ASSERT_EQ(parse({"-B", "umts_boot1", "-D", "dump1", "-P", "p1", "-n", "/a", "-t", "vm420"}), 0);
    EXPECT_STREQ(rix_args.boot_node, "/dev/umts_boot0");
    EXPECT_STREQ(rix_args.dump_node, "/dev/umts_ramdump0");
    EXPECT_STREQ(rix_args.partition_path, "/dev/block/by-name/modem");
    EXPECT_STREQ(rix_args.nv_data_path, "/mnt/vendor/efs/nv_data.bin");

    Container::reset();
    ASSERT_EQ(parse({"-t", "vm420", "-B", "umts_boot1", "-D", "dump1", "-P", "by-name/m2", "-n",
                     "/data/nv"}),
              0);
    EXPECT_STREQ(rix_args.boot_node, "/dev/umts_boot1");
    EXPECT_EQ(rix_args.boot_node_path, rix_args.boot_node);
    EXPECT_STREQ(rix_args.dump_node, "/dev/dump1");
    EXPECT_STREQ(rix_args.partition_path, "/dev/block/by-name/m2");
    EXPECT_STREQ(rix_args.nv_data_path, "/data/nv/nv_data.bin");
    const std::string log = radio();
    EXPECT_NE(log.find("rix: parseArgs: set boot_node : umts_boot1\n"
                       "D/boot: rix: parseArgs: boot_node : /dev/umts_boot1\n"),
              std::string::npos);
    EXPECT_NE(log.find("rix: parseArgs: set partition number : by-name/m2\n"
                       "D/boot: rix: parseArgs: partition path : /dev/block/by-name/m2\n"),
              std::string::npos);
    EXPECT_NE(log.find("rix: parseArgs: nv data file path : /data/nv/nv_data.bin\n"
                       "D/boot: rix: parseArgs: nv norm file path : \n"
                       "D/boot: rix: parseArgs: nv prot file path : \n"),
              std::string::npos);
}

TEST_F(OptionsTest, OptionLettersAccumulateByFirstCharacter) {
    ASSERT_EQ(parse({"-o", "rm"}), 0);
    EXPECT_EQ(rix_args.options, BOPT_RUN_WITH_ROOT);
    Container::reset();
    ASSERT_EQ(parse({"-o", "r", "-o", "m", "-o", "v", "-o", "s", "-o", "c", "-o", "u"}), 0);
    EXPECT_EQ(rix_args.options, BOPT_RUN_WITH_ROOT | BOPT_MINIDUMP | BOPT_VERIFY_VSS |
                                    BOPT_REINIT_VSS | BOPT_NV_CHECKSUM | BOPT_UPLOAD_TEST);
    for (const char* text : {"run with root", "support minidump", "verify vss", "reinit vss",
                             "nv checksum", "Upload Test"}) {
        EXPECT_NE(radio().find(std::string("D/boot: rix: parseArgs: ") + text + "\n"),
                  std::string::npos)
            << text;
    }
    Container::reset();
    clear_logs();
    ASSERT_EQ(parse({"-o", "x"}), 0);
    EXPECT_EQ(rix_args.options, 0u);
    // "ERR!" in the text does not make it an error message.
    EXPECT_EQ(kmsg(), "<6>cpif: rix: parseArgs: ERR! invalid option x\n");
    // An empty argument prints as a NUL: the kernel record still holds the
    // whole line, and the next message starts a line of its own.
    for (const char* opt : {"-o", "-s"}) {
        Container::reset();
        clear_logs();
        parse({opt, "", "-d"});
        const std::string text = opt[1] == 'o' ? "ERR! invalid option " : "SRINFO type: ";
        EXPECT_EQ(kmsg().substr(0, kmsg().find('\n') + 1),
                  "<6>cpif: rix: parseArgs: " + text + std::string(1, '\0') + "\n");
        EXPECT_EQ(radio().substr(0, radio().find('\n') + 1),
                  "D/boot: rix: parseArgs: " + text + "\n");
    }
}

TEST_F(OptionsTest, SilentResetTypeOneOnly) {
    ASSERT_EQ(parse({"-s", "1", "-t", "vm420"}), 0);
    EXPECT_NE(radio().find("rix: parseArgs: SRINFO type: 1\n"), std::string::npos);
    Container::reset();
    clear_logs();
    EXPECT_EQ(parse({"-s", "2", "-d"}), 1);
    EXPECT_EQ(rix_args.daemon_mode, 0);
    const std::string k = kmsg();
    size_t type = k.find("<6>cpif: rix: parseArgs: SRINFO type: 2\n");
    size_t err = k.find("<3>cpif: rix: (ERR! ");
    ASSERT_NE(type, std::string::npos);
    ASSERT_NE(err, std::string::npos);
    EXPECT_LT(type, err);
    EXPECT_NE(k.find(") parseArgs: invalid srinfo type: 2\n"), std::string::npos);
    EXPECT_NE(radio().find("E/boot: rix: (ERR! "), std::string::npos);
}

TEST_F(OptionsTest, IgnoredAndUnknownOptions) {
    ASSERT_EQ(parse({"-b", "x", "-m", "y", "-z", "-d", "-t"}), 0);
    EXPECT_EQ(rix_args.daemon_mode, 1);
    // Unknown option and missing argument both come back from getopt as '?'.
    const std::string log = radio();
    size_t first = log.find("rix: parseArgs: WARNING! invalid option ?\n");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(log.find("WARNING! invalid option ?", first + 1), std::string::npos);
    EXPECT_NE(log.find("rix: parseArgs: Daemon Mode\n"), std::string::npos);
    EXPECT_EQ(Container::bootDump, nullptr);
    EXPECT_EQ(rix_args.modem_type, 0);
}

TEST_F(OptionsTest, OverlongArgumentsAreRefusedNotCut) {
    const std::string node27(27, 'n');  // "/dev/" + 27 = 32: one too many
    const std::string node26(26, 'n');
    ASSERT_EQ(parse({"-t", "vm420", "-B", node26}), 0);
    EXPECT_EQ(std::string(rix_args.boot_node), "/dev/" + node26);

    struct Case {
        std::vector<std::string> args;
    } cases[] = {
        {{"-t", "vm420", "-B", node27}},
        {{"-t", "vm420", "-D", node27}},
        {{"-t", "vm420", "-P", std::string(501, 'p')}},  // "/dev/block/" + 501 = 512
        {{"-t", "vm420", "-n", std::string(500, 'd')}},  // + "/nv_data.bin" = 512
        {{"-t", "vm420" + std::string(27, 'x')}},        // 32 characters
        {{"-t", "vm420", "-B", std::string(100000, 'x')}},
    };
    for (const auto& c : cases) {
        Container::reset();
        clear_logs();
        EXPECT_EQ(parse(c.args), 1) << c.args.back().size();
        EXPECT_NE(radio().find("rix: parseArgs: ERR! argument too long: "), std::string::npos);
    }
    // A refused path leaves the field as it was.
    EXPECT_STREQ(rix_args.boot_node, "/dev/umts_boot0");

    Container::reset();
    EXPECT_EQ(parse({"-t", "vm420" + std::string(26, 'x'), "-P", std::string(500, 'p')}), 0);
    EXPECT_EQ(strlen(rix_args.modem_name), 31u);
    EXPECT_EQ(strlen(rix_args.partition_path), 511u);
}

}  // namespace
