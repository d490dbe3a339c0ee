// The login banner and short box, chosen by the board number the controller's LAN address
// gives; each address in a process of its own, where the number is still undetermined.
#include <regex>

#include <gtest/gtest.h>

#include "child.h"
#include "machine.h"

namespace {

using nlohmann::json;

// A machine whose LAN channel 1 has `address` (none: no LAN channel); the build text optional.
json machine(const char *address, const char *firmware = "1.23", const char *aux = "02 05 00 61", bool buildText = true)
{
    json p = json::parse(R"({"controller": {"firmware_revision": "1.00", "manufacturer_id": 32473, "product_id": 2893},
      "chassis": {"power_on": true}, "leds": {"identify": true, "error": "warning"},
      "config_space": {"0x2151": {"text": "R1.12.0"}, "0x0205": {"text": "RX2540 M7"}, "0x0207": {"text": "YM3K004711"},
        "0x0201": {"text": "build-host-07"}, "0x020F": {"text": "Debian 12"}, "0x0210": {"text": "INV-0042"}}})");
    p["controller"]["firmware_revision"] = firmware;
    p["controller"]["aux_firmware_revision"] = aux;
    if (buildText) p["config_space"]["0x2150"] = {{"text", "1.75.32 2024-03-11"}};
    if (address) p["lan"] = {{"channels", {{{"number", 1}, {"medium", "802.3"}, {"ip_address", address}}}}};
    return p;
}

// Compares the output with the expected text; "{stamp}" stands for the library's build date and time.
testing::AssertionResult sameOutput(const std::string &actual, const std::string &expected)
{
    static const std::regex kStamp("(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123][0-9] [0-9]{4} "
                                   "[012][0-9]:[0-5][0-9]:[0-5][0-9]");
    if (actual == expected || std::regex_replace(actual, kStamp, "{stamp}") == expected)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "output was:\n[" << actual << "]\nexpected:\n[" << expected << "]";
}

const std::string kStars = "**************************************************\r\n";
const std::string kFullBanner = kStars +
                                "*    Welcome to TALVIREN Remote Manager          *\r\n"
                                "*    Firmware Revision 2.05a (1.35)              *\n"
                                "*    SDR R1.12.0                                 *\n"
                                "*    Firmware built        1.75.32 2024-03-11    *\r\n" +
                                kStars +
                                "\nSystem Type  : RX2540 M7"
                                "\nSystem ID    : YM3K004711"
                                "\nSystem Name  : build-host-07"
                                "\nSystem OS    : Debian 12"
                                "\nSystem Status: WARNING (Identify LED is ON)"
                                "\nPower Status : On"
                                "\nAsset Tag    : INV-0042\r\n\r\n";
const std::string kShortTop = "********************************************\r\n"
                              "*                                          *\r\n"
                              "*  Welcome to KESTRAVONE Remote Manager    *\r\n";
const std::string kShortBottom = "*                                          *\r\n"
                                 "********************************************\r\n";

TEST(Banner, AddressChoosesBoardAndBox)
{
    const struct {
        json profile;
        unsigned board;
        int slave;
        std::string banner;
    } cases[] = {
        {machine("127.1.2.1"), 0, 0xC0,
         kShortTop + "*  Firmware Revision 2.5a (1.35)          *\n*  Firmware built 1.75.32 2024-03-11 *\r\n" +
             kShortBottom},
        // The fourth auxiliary byte 0 is written as it is; without a build text, the library's date.
        {machine("127.1.2.4", "2.10", "03 07 00 00", false), 3, 0xC6,
         kShortTop + std::string("*  Firmware Revision 3.7\0 (2.16)          *\n", 44) +
             "*  Firmware built {stamp}     *\r\n" + kShortBottom},
        {machine("127.1.2.0"), 255, 0x20, kFullBanner},
        {machine("127.1.2.5"), 255, 0x20, ""},
        {machine("127.1.3.1"), 255, 0x20, ""},
        {machine(nullptr), 255, 0x20, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.profile.value("lan", json()).dump());
        tvxtest::inFreshProcess([&] {
            tvxtest::ScratchMachine m(c.profile);
            // Without a session: 255, nothing asked, nothing remembered.
            EXPECT_EQ(ipmiGetSbNumber(nullptr), 255u);
            EXPECT_EQ(ipmiGetSbSlaveAddr(nullptr), 0x20);
            if (!c.banner.empty()) {
                testing::internal::CaptureStdout();
                EXPECT_GE(ipmiPrintLoginHeader(m.session()), 0);
                EXPECT_TRUE(sameOutput(testing::internal::GetCapturedStdout(), c.banner));
            }
            EXPECT_EQ(ipmiGetSbNumber(m.session()), c.board);
            // The board number is asked once per process, whatever the session.
            tvx::Session other;
            ipmihost_reset_request_count();
            for (IpmiSession *s : {m.session(), other.get()}) {
                EXPECT_EQ(ipmiGetSbNumber(s), c.board);
                EXPECT_EQ(ipmiGetSbSlaveAddr(s), c.slave);
                EXPECT_EQ(ipmiIsKVSystem(s), c.board != 255);
            }
            EXPECT_EQ(ipmihost_request_count(), 0u);
        });
    }
}

} // namespace
