// The management network getters, the channel search with its process-wide caches and the
// test trap through the scripted exchange. Every case that involves a cache runs in a process
// of its own, so that it starts with nothing cached.
#include <cstring>
#include <functional>
#include <string>

#include "child.h"
#include "scripted.h"

namespace {

using Network = ScriptTest;

// The port-function area as the platform reads it from the controller, 64 bytes a request.
void portArea(uint8_t id0, const Bytes &area)
{
    for (size_t offset = 0; offset < 345; offset += 64) {
        const size_t length = std::min<size_t>(64, 345 - offset);
        Bytes piece(length, 0);
        for (size_t i = 0; i < length && offset + i < area.size(); ++i) piece[i] = area[offset + i];
        expect(0xB8, 0xF1, oem(cat({{0x1C, id0, 0x00, 0x01}, le16(static_cast<uint16_t>(offset)),
                                           {static_cast<uint8_t>(length)}})), oemAnswer(piece));
    }
}
// An area: MAC, counts byte, then the addresses as given.
Bytes area(uint8_t counts, const Bytes &addresses)
{
    Bytes a(45, 0);
    const Bytes mac = {0x00, 0x1B, 0x21, 0xAA, 0xBB, 0xCC};
    std::copy(mac.begin(), mac.end(), a.begin() + 6);
    a[44] = counts;
    return cat({a, addresses});
}
const Bytes kV4 = {10, 0, 0, 5};
const Bytes kV6a = {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const Bytes kV6b = {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7};

std::string nodeAddress(uint8_t node, uint8_t type, uint8_t id0, uint8_t index)
{
    char buffer[48];
    std::memset(buffer, 'x', sizeof buffer);
    return getUnitNodeIpAddress(buffer, sizeof buffer, node, type, id0, 0x00, 0x01, index);
}

TEST_F(Network, PortFunctionAndControllerAddresses)
{
    const struct {
        Bytes area; // empty: the controller does not know the request
        uint8_t type, index;
        std::string text;
    } cases[] = {
        {area(0x21, cat({kV4, kV6a, kV6b})), 2, 0, "10.0.0.5"},
        {area(0x21, cat({kV4, kV6a, kV6b})), 4, 1, "2001:db8::7"},
        {area(0x21, cat({kV4, kV6a, kV6b})), 2, 1, ""},
        {area(0x10, kV6a), 4, 0, "fe80::1"},
        {area(0x10, kV6a), 2, 0, ""},
        {area(0x11, cat({Bytes(4, 0), kV6a})), 2, 0, ""}, // all zero
        {{}, 2, 0, ""},
    };
    for (const auto &c : cases) {
        if (c.area.empty()) expect(0xB8, 0xF1, oem({0x1C, 0x05, 0x00, 0x01, 0x00, 0x00, 0x40}), {0xC1});
        else portArea(0x05, c.area);
        EXPECT_EQ(nodeAddress(TVX_NODE_PORT_FUNCTION, c.type, 0x05, c.index), c.text);
    }

    // The MAC address: six bytes written into the caller's buffer, nothing else touched.
    portArea(0x05, area(0x00, {}));
    uint8_t mac[8];
    std::memset(mac, 0xEE, sizeof mac);
    getUnitNodeMacAddress(mac, 0, TVX_NODE_PORT_FUNCTION, 0x05, 0x00, 0x01);
    EXPECT_EQ(Bytes(mac, mac + 8), (Bytes{0x00, 0x1B, 0x21, 0xAA, 0xBB, 0xCC, 0xEE, 0xEE}));

    // The controller's IPv6 address and gateway from its variables; all zero says nothing.
    expect(0xB8, 0xE0, oem({0x01, 0x01, 0x25, 0x1A}), oemAnswer(cat({{16}, kV6b})));
    EXPECT_EQ(nodeAddress(TVX_NODE_CONTROLLER, 4, 0, 1), "2001:db8::7");
    expect(0xB8, 0xE0, oem({0x01, 0x00, 0x3A, 0x1A}), oemAnswer(cat({{16}, Bytes(16, 0)})));
    char buffer[8] = "keep";
    EXPECT_STREQ(getNodeGatewayAddress(buffer, sizeof buffer, 4, 7), "");
    EXPECT_STREQ(getNodeIpNetMaskAddress(buffer, sizeof buffer, 4, 7), "");
    // No session: the buffer as it was.
    std::strcpy(buffer, "keep");
    ipmihost_script_open_result(LIBIPMI_STATUS_TIMEOUT, -1);
    std::string err = stderrOf([&] { getNodeGatewayAddress(buffer, sizeof buffer, 4, 7); });
    EXPECT_STREQ(buffer, "keep");
    EXPECT_NE(err.find("failed to open session\n"), std::string::npos);

    // Small tables.
    EXPECT_STREQ(getControllerModelName(3), "Zenth S3");
    EXPECT_STREQ(getControllerModelName(5), "");
    const uint8_t one[16] = {0, 0, 0, 1};
    EXPECT_EQ(std::tuple(isEmptyIPAddress(one, 2), isEmptyIPAddress(kV6a.data(), 3),
                         isEmptyIPAddress(Bytes(16, 0).data(), 4)),
              std::tuple(0, 1, 1));
}

TEST_F(Network, DhcpUseOfIpv6ByItsSourceVariable)
{
    const struct {
        Bytes answer;
        int result;
    } cases[] = {
        {oemAnswer({1, 2}), 3}, {oemAnswer({1, 1}), 2}, {oemAnswer({1, 4}), 2},
        {oemAnswer({1, 0}), 1}, {oemAnswer({0}), 1},    {oemAnswer({}, 0xCB), 1},
    };
    for (const auto &c : cases) {
        expect(0xB8, 0xE0, oem({0x01, 0x00, 0x36, 0x1A}), c.answer);
        EXPECT_EQ(getUnitNodeUseDHCP(4, 7), c.result);
    }
    EXPECT_EQ(getUnitNodeUseDHCP(2, 2), 1);
    EXPECT_EQ(getUnitNodeUseDHCP(3, 7), 1);
}

// Get Channel Info for channels 1 to `last`: LAN (802.3) where `lan` says so.
void channels(const std::string &lan, uint8_t last = 7)
{
    for (uint8_t ch = 1; ch <= last && ch <= lan.size(); ++ch) {
        if (lan[ch - 1] == '-') {
            expect(0x18, 0x42, {ch}, {0xCC});
            continue;
        }
        uint8_t medium = lan[ch - 1] == 'L' ? 0x04 : 0x0C;
        expect(0x18, 0x42, {ch}, {0x00, ch, medium, 0x01, 0x80, 0xF2, 0x1B, 0x00, 0x00});
    }
}

TEST_F(Network, ChannelSearchStopsAtTheWantedInstance)
{
    IpmiSession *s = open();
    const struct {
        uint8_t instance, asked, result;
    } cases[] = {{1, 1, 1}, {2, 3, 3}, {3, 7, 255}, {0, 7, 255}};
    for (const auto &c : cases) {
        channels("LsL-sss", c.asked);
        EXPECT_EQ(getChannelNumber(s, 4, c.instance), c.result);
    }
    channels("LsL-sss");
    EXPECT_EQ(getChannelInstanceCount(s, 4), 2);
}

// Runs `body` in a fresh process (nothing cached yet), the script checked there.
void inFreshProcess(const std::function<void()> &body)
{
    tvxtest::inFreshProcess([&] {
        body();
        EXPECT_EQ(ipmihost_script_mismatches(), 0u) << ipmihost_script_last_mismatch();
        EXPECT_EQ(ipmihost_script_pending(), 0u);
    });
}

// Each in a fresh process: the lookups keep a channel they found and
// the absence of any LAN channel, and search again for a default channel they did not find.
TEST_F(Network, ChannelLookupsKeepWhatTheyFound)
{
    constexpr int kCount = 0, kDefault = 1;
    const struct {
        const char *what;
        std::vector<std::tuple<std::string, uint8_t, int, int>> steps; // channels answered (up to), lookup, result
    } cases[] = {
        {"found", {{"sLsL---", 7, kCount, 2}, {"", 0, kCount, 2}, {"sL", 2, kDefault, 2}, {"", 0, kDefault, 2}}},
        {"no LAN channel", {{"sss----", 7, kCount, 0}, {"", 0, kDefault, 255}, {"", 0, kDefault, 255}}},
        {"default gone", {{"-L-----", 7, kCount, 1}, {"-------", 7, kDefault, 255}, {"-L", 2, kDefault, 2}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        inFreshProcess([&] {
            IpmiSession *s = open();
            for (const auto &[lan, last, lookup, result] : c.steps) {
                channels(lan, last);
                EXPECT_EQ(lookup == kCount ? getLanChannelCount(s) : getDefaultLanChannelNumber(s), result);
            }
        });
    }
}

// Alert Immediate for channel 1 and a destination: with the test event, or the plain one.
void alertWithEvent(uint8_t dest, uint16_t status, const Bytes &answer)
{
    expect(0x10, 0x16, {0x01, dest, 0x00, 0x20, 0x04, 0x12, 0xFF, 0x6F, 0xE4, 0x01, 0x80}, answer, status);
}
void plainAlert(uint8_t dest, uint16_t status, const Bytes &answer)
{
    expect(0x10, 0x16, {0x01, dest, 0x80}, answer, status);
}
void destinationCount(uint8_t n) { expect(0xB8, 0xE0, oem({0x01, 0x00, 0x12, 0x14}), oemAnswer({1, n})); }

TEST_F(Network, TestTrapTriesEveryDestinationAndReportsTheLast)
{
    inFreshProcess([&] {
        channels("L------");
        channels("L", 1);
        destinationCount(3);
        alertWithEvent(1, 0, {0x83}); // refuses the event: the plain alert follows
        plainAlert(1, 0, {0x00});
        alertWithEvent(2, 0, {0x81}); // answered: accepted, whatever the code
        alertWithEvent(3, LIBIPMI_STATUS_TIMEOUT, {});
        plainAlert(3, LIBIPMI_STATUS_TIMEOUT, {});
        EXPECT_EQ(sendTestTrap(), 0) << "three destinations";

        destinationCount(0);
        EXPECT_EQ(sendTestTrap(), 0) << "none";

        destinationCount(2);
        alertWithEvent(1, 0, {0x00});
        alertWithEvent(2, 0, {0x83});
        plainAlert(2, 0, {0xC1});
        EXPECT_EQ(sendTestTrap(), 1) << "answered plain alert";

        expect(0xB8, 0xE0, oem({0x01, 0x00, 0x12, 0x14}), oemAnswer({2, 1, 0}));
        EXPECT_EQ(sendTestTrap(), 0) << "count too long";
    });
}

} // namespace
