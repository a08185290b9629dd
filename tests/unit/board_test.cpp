// SIM count from the factory file and its hand-over to the driver, the sales
// codes that reboot on a secure-boot failure, the RF sub-board query's
// failure paths.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "dump/protocol.h"
#include "rix_test.h"

namespace {

const char kFactory[] = "/efs/factory.prop";
const char kSimDir[] = "/sys/devices/platform/cpif/sim";
const char kDsDetect[] = "/sys/devices/platform/cpif/sim/ds_detect";

class BoardTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        Container::protocol = new ProtocolTarn();
        std::filesystem::create_directories(kSimDir);
        clear_logs();
    }

    static void factory(const std::string& text) {
        std::ofstream(kFactory, std::ios::binary) << text;
    }
};

TEST_F(BoardTest, SimCountIsTheCharacterAfterTheFirstEquals) {
    factory("ro.sim.count=2\n");
    Container::bootDump->set_sim_configuration();
    EXPECT_EQ(read_file(kDsDetect), "2");  // one digit, no newline
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: get_factory_prop: sim_count: 2\n"
              "<6>cpif: rix: set_sim_configuration: sim count: 2 (echo to ds_detect file)\n");
}

TEST_F(BoardTest, SimConfigurationIsWrittenInPlaceNotTruncated) {
    std::ofstream(kDsDetect) << "0000";
    factory("a=1=3");
    Container::bootDump->set_sim_configuration();
    EXPECT_EQ(read_file(kDsDetect), "1000");
}

TEST_F(BoardTest, CountsOutsideOneToFourAreLoggedButNotWritten) {
    struct Case {
        const char* text;
        int count;
    } cases[] = {
        {"sim=5", 5},
        {"sim=0", 0},
        {"sim=x", 'x' - '0'},
        {"sim=", -48},             // the NUL after the '='
        {"sim=\xff", 0xff - '0'},  // a byte, whatever the signedness of char
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        clear_logs();
        factory(c.text);
        EXPECT_EQ(Container::protocol->get_factory_prop(), c.count);
        Container::bootDump->set_sim_configuration();
        EXPECT_FALSE(std::filesystem::exists(kDsDetect));
        EXPECT_NE(kmsg().find("set_sim_configuration: sim count: " + std::to_string(c.count) +
                              " (echo to ds_detect file)\n"),
                  std::string::npos);
    }
}

TEST_F(BoardTest, FactoryFileWithoutTokenOrMissingGivesMinus22) {
    for (const char* text : {"no token here\n", ""}) {
        clear_logs();
        factory(text);
        EXPECT_EQ(Container::protocol->get_factory_prop(), -22) << text;
        EXPECT_EQ(kmsg(), "<6>cpif: rix: get_factory_prop: can't find token!\n");
    }

    std::filesystem::remove(kFactory);
    clear_logs();
    Container::bootDump->set_sim_configuration();
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: get_factory_prop: /efs/factory.prop open fail(not support)\n"
              "<6>cpif: rix: set_sim_configuration: sim count: -22 (echo to ds_detect file)\n");
    EXPECT_FALSE(std::filesystem::exists(kDsDetect));
}

TEST_F(BoardTest, OnlyTheFirst127BytesAreSearched) {
    // '=' as byte 127 (the 127th read) leaves only the terminating NUL.
    factory(std::string(126, 'k') + "=3");
    EXPECT_EQ(Container::protocol->get_factory_prop(), -48);
    // '=' past the bytes read is not found.
    factory(std::string(127, 'k') + "=3");
    EXPECT_EQ(Container::protocol->get_factory_prop(), -22);
    // A NUL ends the text before a later '='.
    factory(std::string("ab\0=3", 5));
    EXPECT_EQ(Container::protocol->get_factory_prop(), -22);
}

TEST_F(BoardTest, UnreadableFactoryFileReturnsTheReadResult) {
    std::filesystem::create_directory(kFactory);
    EXPECT_EQ(Container::protocol->get_factory_prop(), -1);
    EXPECT_EQ(kmsg(),
              "<3>cpif: rix: (ERR! Is a directory) get_factory_prop: /efs/factory.prop read "
              "fail\n");
}

TEST_F(BoardTest, SimConfigurationOpenFailureIsAnErrorAndNothingFollows) {
    factory("sim=2");
    // A link in place of the attribute is not followed.
    std::filesystem::create_symlink("/data/elsewhere", kDsDetect);
    Container::bootDump->set_sim_configuration();
    EXPECT_FALSE(std::filesystem::exists("/data/elsewhere"));
    EXPECT_NE(kmsg().find("<3>cpif: rix: (ERR! Too many levels of symbolic links) "
                          "set_sim_configuration: SIM conf: open failed\n"),
              std::string::npos);

    // No driver attribute directory at all.
    std::filesystem::remove_all(kSimDir);
    clear_logs();
    Container::bootDump->set_sim_configuration();
    EXPECT_NE(kmsg().find("<3>cpif: rix: (ERR! No such file or directory) "
                          "set_sim_configuration: SIM conf: open failed\n"),
              std::string::npos);
}

TEST_F(BoardTest, SimConfigurationWriteFailureIsAnError) {
    factory("sim=4");
    // A full device in the attribute's place: every write fails with ENOSPC.
    std::ofstream(kDsDetect) << "";
    ASSERT_EQ(mount("/dev/full", kDsDetect, nullptr, MS_BIND, nullptr), 0);
    Container::bootDump->set_sim_configuration();
    umount(kDsDetect);
    EXPECT_NE(kmsg().find("<3>cpif: rix: (ERR! No space left on device) set_sim_configuration: "
                          "SIM conf: write failed\n"),
              std::string::npos);
}

TEST_F(BoardTest, OnlyExactRebootSalesCodesMatch) {
    struct Case {
        const char* code;
        bool reboot;
    } cases[] = {
        {"TMB", true},  {"VZW", true}, {"XAU", true}, {"TMBX", false},
        {"tmb", false}, {"TM", false}, {"", false},   {"XAU ", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        clear_logs();
        set_prop("ro.dmx.sales_code", c.code);
        EXPECT_EQ(Container::protocol->check_dmx_sales_code(), c.reboot);
        EXPECT_EQ(kmsg(),
                  std::string("<6>cpif: rix: check_dmx_sales_code: sales_code:") + c.code + "\n");
    }
}

TEST_F(BoardTest, RfBoardQueryFailuresAreErrors) {
    strcpy(rix_args.boot_node, "/data/umts_boot0");
    EXPECT_EQ(Container::bootDump->get_rfboard_disconnect(), -1);
    EXPECT_EQ(kmsg(),
              "<3>cpif: rix: (ERR! No such file or directory) get_rfboard_disconnect: "
              "/data/umts_boot0 open fail(No such file or directory)\n");

    // A node that is not the driver refuses the request.
    std::ofstream("/data/umts_boot0") << "";
    clear_logs();
    EXPECT_EQ(Container::bootDump->get_rfboard_disconnect(), -1);
    EXPECT_EQ(kmsg(),
              "<3>cpif: rix: (ERR! Inappropriate ioctl for device) get_rfboard_disconnect: "
              "IOCTL_GET_RFBOARD_DISCONNECT fail (-1)\n");
}

}  // namespace
