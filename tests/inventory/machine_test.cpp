// The internal event log, the host agent and the EEPROM blocks on the virtual controller: the
// library against it, and tvxctl iel / fru summary as a user runs them.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "libipmi_host.h"
#include "machine.h"
#include "process.h"
#include "tvx_toipmi.h"

namespace {

using tvxtest::json;

constexpr uint32_t kClock = 1794865512; // 2026-11-16T21:45:12Z

// The entry's body, or "(none)" when it could not be read.
std::string body(IpmiSession *s, uint16_t id, uint16_t expectedLength, iELEntry *header = nullptr)
{
    iELEntry e = ipmiGetiELEntry(s, id, 0);
    std::string out = e.body ? std::string(reinterpret_cast<char *>(e.body), expectedLength) : "(none)";
    std::free(e.body);
    e.body = nullptr;
    if (header) *header = e;
    return out;
}

TEST(InventoryMachine, InternalEventLogKeepsWhatIsWritten)
{
    json p = tvxtest::baseProfile();
    p["sel"] = {{"clock", {{"fixed", "2026-11-16T21:45:12Z"}}}};
    p["host_agent"] = {{"state", "connected"}};
    p["eeprom_info"] = {"00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f"};
    p["iel"] = {{"capacity", 3},
                {"entries",
                 {{{"time", "2026-11-01T10:00:00Z"}, {"text", "Booted"}, {"record", "01 02"}},
                  {{"time", 1794500000}, {"severity", "minor"}, {"text", "Fan 2 slow"}}}}};
    tvxtest::ScratchMachine m(p);
    IpmiSession *ses = m.session();
    iELSummary s = ipmiGetiELInfo(ses);
    EXPECT_EQ(std::vector<unsigned>({s.s0, s.s1, s.s2, s.s4, s.s8, s.s9, s.s11, s.s13, s.s15, s.s17, s.s19}),
              std::vector<unsigned>({1, 0, 2, 1794500000, 50, 1, 2, 3, 1, 23 + 27, 0}));
    EXPECT_EQ(body(ses, 1, 23), std::string("Booted\0\x01\x02", 9) + std::string(14, '\0')); // text, zero, record

    // A text long enough for two pieces; the controller stamps the time.
    const std::string longText(70, 'L');
    const uint8_t record[16] = {0xAA, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xBB};
    ASSERT_EQ(ipmiWriteiELEntry(ses, 3, 9, 9, record, longText.c_str(), 9), 1);
    iELEntry h;
    EXPECT_EQ(body(ses, 0xFFFF, 87, &h), longText + '\0' + std::string(reinterpret_cast<const char *>(record), 16));
    EXPECT_EQ(std::vector<unsigned>({h.e0, h.e2, h.e3, h.e5}), std::vector<unsigned>({3, 3, 0xFFFF, kClock}));
    body(ses, 2, 27, &h);
    EXPECT_EQ(+h.e3, 3); // the next-entry IDs link the log

    // Full: the oldest entry makes room, and the summary says so.
    ASSERT_EQ(ipmiWriteiELEntry(ses, 0, 0, 0, record, "", 0), 1);
    s = ipmiGetiELInfo(ses);
    EXPECT_EQ(std::vector<unsigned>({s.s1, s.s2, s.s9, s.s11, s.s15, s.s19}),
              std::vector<unsigned>({0x80, 3, 2, 4, 0, 1}));

    // Refused: a severity above critical; clearing an entry that is not there.
    testing::internal::CaptureStderr();
    EXPECT_EQ(ipmiWriteiELEntry(ses, 4, 0, 0, record, "x", 0), 0);
    EXPECT_EQ(ipmiCleariELLog(ses, 0, 2), 1);
    EXPECT_EQ(ipmiCleariELLog(ses, 0, 2), 0);
    EXPECT_EQ(body(ses, 2, 0), "(none)");
    EXPECT_EQ(+ipmiGetiELInfo(ses).s2, 2);
    // Clearing everything starts the IDs afresh.
    EXPECT_EQ(ipmiCleariELLog(ses, 1, 0x1234), 1);
    EXPECT_EQ(+ipmiGetiELInfo(ses).s2, 0);
    ASSERT_EQ(ipmiWriteiELEntry(ses, 1, 0, 0, record, "after", 0), 1);
    body(ses, 0, 22, &h);
    EXPECT_EQ(+h.e0, 1);

    // The agent and the EEPROM blocks (the low byte of the index names one); OEM command 0x02
    // still takes the graceful-control codes too.
    // Agent connected, the last byte of block 0x100, the first of a block that is not there.
    EXPECT_EQ((std::vector<int>{ipmiOemAgetConnected(ses), ipmiGetEEPROMInfo(ses, 0x100).data[15],
                                ipmiGetEEPROMInfo(ses, 1).data[0], ipmiSendGracefullControl(ses, 1)}),
              (std::vector<int>{1, 0x0F, 0, 1}));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("(ipmiWriteiELEntry) Failed to send ipmi raw command."), std::string::npos) << err;
    EXPECT_NE(err.find("(ipmiGetEEPROMInfo) Failed to send ipmi raw command."), std::string::npos) << err;
}

TEST(MachineTvxctl, IelAndTheInventorySummary)
{
    tvxtest::TempDir dir;
    auto tvxctl = [&](const std::vector<std::string> &args) { return tvxtest::tvxctlJson(dir.path(), args); };
    json j = tvxctl({"iel"});
    EXPECT_EQ(j["entries"].size(), j["summary"]["entries"].get<size_t>());
    EXPECT_EQ(j["entries"][0]["text"], "Controller firmware 3.50 started (cold boot)");
    tvxctl({"iel", "add", "--severity", "major", "PSU1 fan degraded", "0a 0B:0c"});
    j = tvxctl({"iel", "show", "0xFFFF"});
    EXPECT_EQ((std::vector<json>{j["severity"], j["text"], j["record"]}),
              (std::vector<json>{"major", "PSU1 fan degraded", "0a 0b 0c 00 00 00 00 00 00 00 00 00 00 00 00 00"}));
    tvxctl({"iel", "clear", std::to_string(j["id"].get<int>())});
    EXPECT_NE(tvxctl({"iel", "show", "0xFFFF"})["id"], j["id"]);
    EXPECT_EQ(tvxtest::tvxctl(dir.path(), {"iel", "add", "x", "0g"}).code, 2);

    j = tvxctl({"fru", "summary"});
    EXPECT_EQ(
        std::vector<json>({j["product_part_number"], j["chassis_serial_number"], j["chassis_custom_field"],
                           j["board_part_number"], j["board_custom_field"]}),
        std::vector<json>({"KV2400-R2-S6", "KVC24C0099821", "2U 12x3.5in SAS backplane", "38-4215-07", "WGS04 GS50"}));
}

} // namespace
