// libtvx_toipmi against the virtual controller of the shipped default machine: power control
// seen by the power status, LEDs, the LAN settings of each channel, configuration variables and
// the console log, each change seen by the next request.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "libipmi.h"
#include "libipmi_host.h"
#include "sim_test_util.h"
#include "tvx_toipmi.h"

using nlohmann::json;
using simtest::Bytes;

namespace {

const std::string kProfile = std::string(TVX_MACHINES_DIR) + "/default.json";

Bytes ipv4(const std::string &text)
{
    Bytes b(4);
    unsigned v[4];
    EXPECT_EQ(std::sscanf(text.c_str(), "%u.%u.%u.%u", &v[0], &v[1], &v[2], &v[3]), 4) << text;
    for (int i = 0; i < 4; ++i) b[i] = static_cast<uint8_t>(v[i]);
    return b;
}

Bytes mac(const std::string &text)
{
    Bytes b(6);
    unsigned v[6];
    EXPECT_EQ(std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]), 6) << text;
    for (int i = 0; i < 6; ++i) b[i] = static_cast<uint8_t>(v[i]);
    return b;
}

// A heap block from the library as bytes (freed); empty for null.
Bytes take(uint8_t *p, std::size_t n)
{
    if (!p) return {};
    Bytes b(p, p + n);
    std::free(p);
    return b;
}

class DefaultMachine : public testing::Test {
protected:
    void SetUp() override
    {
        profile_ = json::parse(simtest::readFile(kProfile));
        ASSERT_EQ(ipmihost_select_machine(kProfile.c_str(), dir_.path().c_str()), 0) << ipmihost_last_error();
        session_ = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
        ASSERT_NE(session_, nullptr) << ipmihost_last_error();
    }
    void TearDown() override
    {
        ipmiHelperCloseSession(&session_);
        ipmihost_select_default();
    }
    json state() const { return json::parse(simtest::readFile(dir_.file("default.state.json")))["state"]; }
    const json &channel(std::size_t i) const { return profile_["lan"]["channels"][i]; }
    std::string text(uint16_t id, std::size_t index = 0) const
    {
        char key[8];
        std::snprintf(key, sizeof key, "0x%04X", id);
        const json &t = profile_["config_space"][key]["text"];
        return t.is_array() ? t[index].get<std::string>() : t.get<std::string>();
    }
    // A configuration variable as the library reads it: its length, or -1, and the bytes.
    std::pair<int, std::string> read(uint16_t id, uint8_t index = 0)
    {
        uint8_t buffer[256] = {0};
        int n = ipmiReadConfigSpaceVariable(session_, index, id, buffer);
        return {n, n > 0 ? std::string(reinterpret_cast<char *>(buffer), static_cast<std::size_t>(n)) : ""};
    }

    simtest::TempDir dir_;
    json profile_;
    IpmiSession *session_ = nullptr;
};

TEST_F(DefaultMachine, PowerControlIsSeenByThePowerStatus)
{
    using Op = std::function<int(IpmiSession *)>;
    const struct {
        const char *what;
        Op op;
        int result, poweredAfter;
    } steps[] = {
        {"off", ipmiPowerOff, 1, 0},
        {"off again", ipmiPowerOff, 1, 0},
        {"cycle while off", ipmiPowerCycle, 0, 0},
        {"reset while off", ipmiHardReset, 0, 0},
        {"soft while off", ipmiSoftOff, 0, 0},
        {"graceful shutdown while off", [](IpmiSession *s) { return ipmiSendGracefullControl(s, 0); }, 0, 0},
        {"on", ipmiPowerOn, 1, 1},
        {"on again", ipmiPowerOn, 1, 1},
        {"cycle", ipmiPowerCycle, 1, 1},
        {"reset", ipmiHardReset, 1, 1},
        {"soft", ipmiSoftOff, 1, 0},
        {"control 1 (up)", [](IpmiSession *s) { return ipmiSendChassisControl(s, 1); }, 1, 1},
        {"control 9 (none)", [](IpmiSession *s) { return ipmiSendChassisControl(s, 9); }, 0, 1},
        {"graceful reboot", [](IpmiSession *s) { return ipmiSendGracefullControl(s, 1); }, 1, 1},
        {"graceful code 7", [](IpmiSession *s) { return ipmiSendGracefullControl(s, 7); }, 0, 1},
        {"graceful shutdown", [](IpmiSession *s) { return ipmiSendGracefullControl(s, 0); }, 1, 0},
        {"control 0 (down)", [](IpmiSession *s) { return ipmiSendChassisControl(s, 0); }, 1, 0},
    };
    ASSERT_TRUE(profile_["chassis"]["power_on"].get<bool>());
    EXPECT_EQ(ipmiChassisPowerStatus(session_), 1);
    for (const auto &s : steps) {
        EXPECT_EQ(s.op(session_), s.result) << s.what;
        EXPECT_EQ(ipmiChassisPowerStatus(session_), s.poweredAfter) << "after " << s.what;
        EXPECT_EQ(state()["chassis"]["power_on"], s.poweredAfter == 1) << "after " << s.what;
    }
}

TEST_F(DefaultMachine, LedsSourcesAndControllerReset)
{
    const int error = profile_["leds"]["error"] == "ok" ? 0 : profile_["leds"]["error"] == "warning" ? 1 : 2;
    EXPECT_EQ(ipmiGetErrLed(session_), error);
    EXPECT_EQ(ipmiGetIdenLed(session_), 0);
    EXPECT_EQ(ipmiSetIdenLed(session_, 1), 0);
    EXPECT_EQ(ipmiGetIdenLed(session_), 1);
    EXPECT_EQ(ipmiReset(session_, 1), 1); // warm: the LED stays
    EXPECT_EQ(ipmiGetIdenLed(session_), 1);
    EXPECT_EQ(ipmiReset(session_, 0), 1); // cold: the controller starts afresh
    EXPECT_EQ(ipmiGetIdenLed(session_), 0);
    EXPECT_NE(ipmiSetIdenLed(session_, 5), 0); // not a state the LED has

    EXPECT_EQ(ipmiPowerOnSource(session_, 0x05), 1);
    EXPECT_EQ(ipmiPowerOffSource(session_, 0x106), 1); // the low byte is sent
    json chassis = state()["chassis"];
    EXPECT_EQ(chassis["power_on_source"], 0x05);
    EXPECT_EQ(chassis["power_off_source"], 0x06);
}

TEST_F(DefaultMachine, LanSettingsOfEachChannel)
{
    EXPECT_EQ(getChannel(session_), 1u);
    const json &one = channel(0);
    EXPECT_EQ(take(ipmiGetIpAddress(session_), 4), ipv4(one["ip_address"]));
    EXPECT_EQ(take(ipmiGetNetMask(session_), 4), ipv4(one["subnet_mask"]));
    EXPECT_EQ(take(ipmiGetDefaultGateway(session_), 4), ipv4(one["default_gateway"]));
    EXPECT_EQ(take(ipmiGetMacAddress(session_), 6), mac(one["mac_address"]));
    EXPECT_EQ(ipmiGetAddressSource(session_), one["address_source"] == "static" ? 1 : 2);

    const struct {
        const char *what;
        int (*set)(IpmiSession *, const uint8_t *);
        uint8_t *(*get)(IpmiSession *);
        Bytes value;
    } settings[] = {
        {"ip", ipmiSetIpAddress, ipmiGetIpAddress, {192, 168, 40, 17}},
        {"netmask", ipmiSetNetMask, ipmiGetNetMask, {255, 255, 252, 0}},
        {"gateway", ipmiSetDefaultGateway, ipmiGetDefaultGateway, {192, 168, 40, 1}},
        {"mac", ipmiSetMacAddress, ipmiGetMacAddress, {0x02, 0x11, 0x22, 0x33, 0x44, 0x55}},
    };
    for (const auto &s : settings) {
        EXPECT_EQ(s.set(session_, s.value.data()), 1) << s.what;
        EXPECT_EQ(take(s.get(session_), s.value.size()), s.value) << s.what;
    }
    EXPECT_EQ(ipmiSetAddressSource(session_, 2), 1);
    EXPECT_EQ(ipmiGetAddressSource(session_), 2);
    // Refused by the controller: the setting stays.
    const Bytes multicast = {0x01, 0x00, 0x5E, 0x00, 0x00, 0x01}, gapped = {255, 0, 255, 0};
    EXPECT_EQ(ipmiSetMacAddress(session_, multicast.data()), 0);
    EXPECT_EQ(ipmiSetNetMask(session_, gapped.data()), 0);
    EXPECT_EQ(ipmiSetAddressSource(session_, 9), 0);
    EXPECT_EQ(take(ipmiGetMacAddress(session_), 6), settings[3].value);
    EXPECT_EQ(ipmiGetAddressSource(session_), 2);

    // Channel 2 keeps its own settings; the library only ever uses the first LAN channel.
    auto get2 = [&](uint8_t selector, std::size_t n) {
        LanConfigGetRequest req = {2, selector, 0, 0};
        LanConfigGetResponse res;
        std::memset(&res, 0, sizeof res);
        EXPECT_EQ(IPMICMD_GetLANConfig(session_, &req, &res, 60), 0);
        EXPECT_EQ(res.parameterRevision, 0x11);
        return Bytes(res.data, res.data + n);
    };
    EXPECT_EQ(get2(3, 4), ipv4(channel(1)["ip_address"]));
    EXPECT_EQ(get2(5, 6), mac(channel(1)["mac_address"]));
    LanConfigSetRequest set = {2, 3, {172, 16, 5, 9}};
    uint8_t cc = 0xFF;
    EXPECT_EQ(IPMICMD_SetLANConfig(session_, &set, 6, &cc, 60), 0);
    EXPECT_EQ(cc, 0x00);
    EXPECT_EQ(get2(3, 4), (Bytes{172, 16, 5, 9}));
    EXPECT_EQ(take(ipmiGetIpAddress(session_), 4), settings[0].value);
    EXPECT_EQ(state()["lan"]["2"]["ip_address"], "172.16.5.9");

    // The serial channel is found but is no LAN channel.
    ChannelInfoRequest req = {3};
    ChannelInfoResponse info;
    std::memset(&info, 0, sizeof info);
    EXPECT_EQ(IPMICMD_GetChannelInfo(session_, &req, &info, 60), 0);
    EXPECT_EQ(info.mediumType, 5);
    EXPECT_EQ(Bytes(info.vendorId, info.vendorId + 3), (Bytes{0xF2, 0x1B, 0x00}));
}

TEST_F(DefaultMachine, ConfigurationVariablesAndConsoleLog)
{
    for (uint16_t id : {TVX_VAR_SYSTEM_NAME, TVX_VAR_SYSTEM_TYPE, TVX_VAR_SYSTEM_ID, TVX_VAR_SYSTEM_OS, TVX_VAR_ASSET_TAG,
                        TVX_VAR_SDR_TEXT, TVX_VAR_FIRMWARE_BUILD}) {
        auto [n, value] = read(id);
        EXPECT_EQ(n, static_cast<int>(text(id).size())) << std::hex << id;
        EXPECT_EQ(value, text(id)) << std::hex << id;
    }
    EXPECT_EQ(read(TVX_VAR_FIRMWARE_BUILD, 1).second, text(TVX_VAR_FIRMWARE_BUILD, 1));
    // Fan fail shutdown delay per index: two bytes, least significant first.
    for (uint8_t i = 0; i < profile_["config_space"]["0x0072"]["u16"].size(); ++i) {
        unsigned delay = profile_["config_space"]["0x0072"]["u16"][i];
        EXPECT_EQ(read(0x0072, i), std::make_pair(2, std::string{char(delay & 0xFF), char(delay >> 8)})) << int(i);
    }
    EXPECT_EQ(read(0x9999).first, -1);

    const std::string name = "db04-renamed";
    EXPECT_EQ(ipmiWriteConfigSpaceVariable(session_, TVX_VAR_SYSTEM_NAME, 0, reinterpret_cast<const uint8_t *>(name.data()),
                                           static_cast<uint8_t>(name.size())),
              1);
    EXPECT_EQ(read(TVX_VAR_SYSTEM_NAME).second, name);
    char dest[32];
    EXPECT_EQ(getConfigSpaceVariable(dest, sizeof dest, 0, TVX_VAR_SYSTEM_NAME), dest);
    EXPECT_EQ(std::string(dest), name);
    EXPECT_EQ(getConfigSpaceVariable(dest, 4, 0, TVX_VAR_SYSTEM_NAME), nullptr); // does not fit
    const uint8_t two[2] = {1, 2};
    EXPECT_EQ(ipmiWriteConfigSpaceVariable(session_, 0x9999, 0, two, 2), 0);

    uint32_t logging = 7;
    EXPECT_EQ(ipmiConsoleLogGetState(session_, &logging), 0);
    EXPECT_EQ(logging, profile_["console"]["logging"].get<bool>() ? 1u : 0u);
    ipmiConsoleLogStart(session_);
    ipmiConsoleLogGetState(session_, &logging);
    EXPECT_EQ(logging, 1u);
    EXPECT_EQ(ipmiPowerCycle(session_), 1); // the host starts while its console is logged
    EXPECT_EQ(state()["console"]["log"].size(), profile_["console"]["log"].size() + profile_["console"]["boot_lines"].size());
    EXPECT_EQ(ipmiConsoleLogClear(session_), 0);
    EXPECT_EQ(state()["console"]["log"], json::array());

    EXPECT_EQ(ipmiResetConfigSpace(session_), 1);
    EXPECT_EQ(read(TVX_VAR_SYSTEM_NAME).second, text(TVX_VAR_SYSTEM_NAME));
    ipmiConsoleLogGetState(session_, &logging);
    EXPECT_EQ(logging, profile_["console"]["logging"].get<bool>() ? 1u : 0u);
    ipmiConsoleLogStop(session_);
    ipmiConsoleLogGetState(session_, &logging);
    EXPECT_EQ(logging, 0u);
}

} // namespace
