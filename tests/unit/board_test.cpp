// SIM count from the factory file and its hand-over to the driver, the sales
// codes that reboot on a secure-boot failure.

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
const std::string kRix = "<6>cpif: rix: ";

class BoardTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        Container::protocol = new ProtocolTarn();
        std::filesystem::create_directories(kSimDir);
    }
};

// The count is the byte after the first '=' of the first 127 bytes, minus
// '0'; only 1 to 4 reach the driver, as one digit written in place.
TEST_F(BoardTest, SimCountIsTheCharacterAfterTheFirstEquals) {
    const struct {
        std::string text;  // "<none>": no file, "<dir>": unreadable
        int count;
        std::string factory_log, ds_detect;
    } cases[] = {
        {"a=1=3", 1, "sim_count: 1", "1000"},
        {"sim=4", 4, "sim_count: 4", "4000"},
        {"sim=0", 0, "sim_count: 0", "0000"},                // 5: in the one-shot boot rows
        {"sim=", -48, "sim_count: -48", "0000"},             // the NUL after the '='
        {"sim=\xff", 0xff - '0', "sim_count: 207", "0000"},  // a byte, whatever char's sign
        {"", -22, "can't find token!", "0000"},
        // '=' as byte 127 leaves only the terminating NUL; past it, none.
        {std::string(126, 'k') + "=3", -48, "sim_count: -48", "0000"},
        {std::string(127, 'k') + "=3", -22, "can't find token!", "0000"},
        {std::string("ab\0=3", 5), -22, "can't find token!", "0000"},  // a NUL ends the text
        {"<none>", -22, "/efs/factory.prop open fail(not support)", "0000"},
        {"<dir>", -1, "", "0000"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 20));
        std::filesystem::remove(kFactory);
        if (c.text == "<dir>") {
            std::filesystem::create_directory(kFactory);
        } else if (c.text != "<none>") {
            std::ofstream(kFactory, std::ios::binary) << c.text;
        }
        std::ofstream(kDsDetect) << "0000";
        clear_logs();
        Container::bootDump->set_sim_configuration();
        const std::string factory = c.factory_log.empty()
                                        ? "<3>cpif: rix: (ERR! Is a directory) get_factory_prop: "
                                          "/efs/factory.prop read fail\n"
                                        : kRix + "get_factory_prop: " + c.factory_log + "\n";
        EXPECT_EQ(kmsg(), factory + kRix + "set_sim_configuration: sim count: " +
                              std::to_string(c.count) + " (echo to ds_detect file)\n");
        EXPECT_EQ(read_file(kDsDetect), c.ds_detect);
    }
}

TEST_F(BoardTest, OnlyExactRebootSalesCodesMatch) {
    // clang-format off
    for (auto [code, reboot] : {std::pair{"TMB", true}, {"VZW", true}, {"XAU", true}, {"TMBX", false},
                                {"tmb", false}, {"TM", false}, {"", false}, {"XAU ", false}}) {
        // clang-format on
        clear_logs();
        set_prop("ro.dmx.sales_code", code);
        EXPECT_EQ(Container::protocol->check_dmx_sales_code(), reboot) << code;
        EXPECT_EQ(kmsg(), kRix + "check_dmx_sales_code: sales_code:" + code + "\n");
    }
}

}  // namespace
