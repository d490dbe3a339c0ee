// The LAN channel search, reading and writing the LAN configuration parameters, and the
// IPv4 address of a local interface.
#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "scripted.h"

namespace {

using LanTest = ScriptTest;

constexpr uint16_t kTimeout = LIBIPMI_STATUS_TIMEOUT;
constexpr uint8_t kIpmb = 0x01, kLan = 0x04, kSerial = 0x05;

struct ChannelAnswer {
    uint16_t status;
    uint8_t number; // channel number in the answer
    uint8_t medium;
};

// Announces Get Channel Info for channels 1, 2, ... with these answers.
void expectChannels(const std::vector<ChannelAnswer> &answers)
{
    for (size_t i = 0; i < answers.size(); ++i) {
        const ChannelAnswer &a = answers[i];
        Bytes answer;
        if (a.status == 0) answer = {0x00, a.number, a.medium, 0x01, 0x80, 0xD9, 0x7E, 0x00, 0x00, 0x00};
        else if (a.status != kTimeout) answer = {static_cast<uint8_t>(a.status & 0xFF)};
        expectRequest(0x18, 0x42, {static_cast<uint8_t>(i + 1)}, a.status, answer);
    }
}

std::vector<Sent> channelRequests(size_t n)
{
    std::vector<Sent> out;
    for (size_t i = 1; i <= n; ++i) out.push_back({0x18, 0x42, {static_cast<uint8_t>(i)}});
    return out;
}

// The controller of these tests keeps no set-in-progress parameter (0x80 "not supported"),
// so the platform writes each parameter in a single request after asking.
Sent setInProgressRefused(uint8_t channel)
{
    expectRequest(0x30, 0x01, {channel, 0x00, 0x01}, 0x0180, {0x80});
    return {0x30, 0x01, {channel, 0x00, 0x01}};
}

// A controller whose only LAN channel is 3.
const std::vector<ChannelAnswer> kLanAt3 = {{0, 1, kIpmb}, {0, 2, kSerial}, {0, 3, kLan}};

std::vector<ChannelAnswer> noLanChannel()
{
    std::vector<ChannelAnswer> out;
    for (uint8_t ch = 1; ch <= 15; ++ch)
        out.push_back(ch % 4 == 0 ? ChannelAnswer{0x01CC, 0, 0} : ChannelAnswer{0, ch, kIpmb});
    return out;
}

std::vector<Sent> with(std::vector<Sent> head, const Sent &last)
{
    head.push_back(last);
    return head;
}

TEST_F(LanTest, FindsTheFirstLanChannel)
{
    IpmiSession *s = open();
    const struct {
        const char *what;
        std::vector<ChannelAnswer> answers;
        unsigned channel;
    } cases[] = {
        {"only channel 3", kLanAt3, 3},
        {"channels 2 and 5", {{0, 1, kIpmb}, {0, 2, kLan}}, 2},
        {"first channel", {{0, 1, kLan}}, 1},
        {"another channel number answers", {{0, 2, kLan}, {0, 5, kLan}, {0, 3, kLan}}, 3},
        {"reserved bits of the number", {{0, 0x11, kLan}, {0, 2, kLan}}, 2},
        {"reserved bits of the medium", {{0, 1, 0x84}, {0, 2, 0x44}, {0, 3, kLan}}, 3},
        {"failing channels are skipped", {{0x01CC, 0, 0}, {kTimeout, 0, 0}, {0x01C1, 0, 0}, {0, 4, kLan}}, 4},
        {"last channel", [] {
             std::vector<ChannelAnswer> a = noLanChannel();
             a.back() = {0, 15, kLan};
             return a;
         }(),
         15},
        {"none", noLanChannel(), 0},
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        expectChannels(c.answers);
        EXPECT_EQ(getChannel(s), c.channel) << c.what;
        expectSent(s, from, channelRequests(c.answers.size()), kAnyCapacity, c.what);
    }
    size_t before = ipmihost_script_call_count();
    EXPECT_EQ(getChannel(nullptr), 0u);
    EXPECT_EQ(ipmihost_script_call_count(), before);
}

TEST_F(LanTest, ReadsAddressParameters)
{
    IpmiSession *s = open();
    const struct {
        const char *what;
        uint8_t *(*getter)(IpmiSession *);
        uint8_t selector;
        uint16_t status;
        Bytes answer;
        bool block;
        Bytes expected;
    } cases[] = {
        {"IP address", ipmiGetIpAddress, 3, 0, {0x00, 0x11, 0xC0, 0xA8, 0x01, 0x02}, true, {0xC0, 0xA8, 0x01, 0x02}},
        {"net mask", ipmiGetNetMask, 6, 0, {0x00, 0x11, 0xFF, 0xFF, 0xF0, 0x00}, true, {0xFF, 0xFF, 0xF0, 0x00}},
        {"gateway", ipmiGetDefaultGateway, 12, 0, {0x00, 0x11, 0x0A, 0x00, 0x00, 0xFE}, true, {0x0A, 0x00, 0x00, 0xFE}},
        {"MAC address", ipmiGetMacAddress, 5, 0, {0x00, 0x11, 0x00, 0x1B, 0x21, 0xAB, 0xCD, 0xEF}, true,
         {0x00, 0x1B, 0x21, 0xAB, 0xCD, 0xEF}},
        {"IP address without data", ipmiGetIpAddress, 3, 0, {0x00, 0x11}, true, {0, 0, 0, 0}},
        {"MAC address cut short", ipmiGetMacAddress, 5, 0, {0x00, 0x11, 0x02, 0x03}, true, {0x02, 0x03, 0, 0, 0, 0}},
        {"IP address, completion code", ipmiGetIpAddress, 3, 0x0180, {0x80}, false, {}},
        {"net mask, no answer", ipmiGetNetMask, 6, kTimeout, {}, false, {}},
        {"gateway, link failure", ipmiGetDefaultGateway, 12, LIBIPMI_STATUS_TRANSPORT, {}, false, {}},
        {"MAC address, completion code", ipmiGetMacAddress, 5, 0x01C1, {0xC1}, false, {}},
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        expectChannels(kLanAt3);
        expectRequest(0x30, 0x02, {0x03, c.selector, 0x00, 0x00}, c.status, c.answer);
        uint8_t *block = c.getter(s);
        ASSERT_EQ(block != nullptr, c.block) << c.what;
        if (block) {
            EXPECT_EQ(Bytes(block, block + c.expected.size()), c.expected) << c.what;
        }
        std::free(block);
        expectSent(s, from, with(channelRequests(3), {0x30, 0x02, {0x03, c.selector, 0x00, 0x00}}), kAnyCapacity,
                   c.what);
    }
}

TEST_F(LanTest, RawParameterAndAddressSource)
{
    IpmiSession *s = open();
    // The whole 27-byte answer record, zero where nothing arrived.
    expectChannels(kLanAt3);
    expectRequest(0x30, 0x02, {0x03, 0x02, 0x00, 0x00}, 0, {0x00, 0x11, 0x15, 0x15, 0x14, 0x15, 0x00});
    uint8_t *parameter = _ipmiGetLanParameter(s, 2);
    ASSERT_NE(parameter, nullptr);
    Bytes expected = {0x00, 0x11, 0x15, 0x15, 0x14, 0x15, 0x00};
    expected.resize(27, 0x00);
    EXPECT_EQ(Bytes(parameter, parameter + 27), expected);
    std::free(parameter);

    expectChannels(kLanAt3);
    Bytes full = {0x00, 0x11};
    for (uint8_t i = 0; i < 25; ++i) full.push_back(static_cast<uint8_t>(0xA0 + i));
    expectRequest(0x30, 0x02, {0x03, 0x1A, 0x00, 0x00}, 0, full);
    parameter = _ipmiGetLanParameter(s, 0x1A);
    ASSERT_NE(parameter, nullptr);
    EXPECT_EQ(Bytes(parameter, parameter + 27), full);
    std::free(parameter);

    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int source;
    } sources[] = {
        {"static", 0, {0x00, 0x11, 0x01}, 1},
        {"DHCP", 0, {0x00, 0x11, 0x02}, 2},
        {"other", 0, {0x00, 0x11, 0x04}, 4},
        {"unspecified", 0, {0x00, 0x11, 0x00}, 0},
        {"no data", 0, {0x00, 0x11}, 0},
        {"0x80 reads negative", 0, {0x00, 0x11, 0x80}, -128},
        {"0xFF reads as failure", 0, {0x00, 0x11, 0xFF}, -1},
        {"completion code", 0x0180, {0x80}, -1},
        {"no answer", kTimeout, {}, -1},
    };
    for (const auto &c : sources) {
        size_t from = ipmihost_script_call_count();
        expectChannels(kLanAt3);
        expectRequest(0x30, 0x02, {0x03, 0x04, 0x00, 0x00}, c.status, c.answer);
        EXPECT_EQ(ipmiGetAddressSource(s), c.source) << c.what;
        expectSent(s, from, with(channelRequests(3), {0x30, 0x02, {0x03, 0x04, 0x00, 0x00}}), kAnyCapacity, c.what);
    }
}

TEST_F(LanTest, WritesParameters)
{
    IpmiSession *s = open();
    const Bytes four = {0xC0, 0xA8, 0x64, 0xC8};
    const Bytes six = {0x02, 0x00, 0x5E, 0x10, 0x20, 0x30};
    using Setter = int (*)(IpmiSession *, const uint8_t *);
    const struct {
        const char *what;
        Setter set;
        const Bytes &data;
        Bytes request;
        uint16_t status;
        Bytes answer;
        int result;
    } cases[] = {
        {"IP address", ipmiSetIpAddress, four, {0x03, 0x03, 0xC0, 0xA8, 0x64, 0xC8}, 0, {0x00}, 1},
        {"net mask", ipmiSetNetMask, four, {0x03, 0x06, 0xC0, 0xA8, 0x64, 0xC8}, 0, {0x00}, 1},
        {"gateway", ipmiSetDefaultGateway, four, {0x03, 0x0C, 0xC0, 0xA8, 0x64, 0xC8}, 0, {0x00}, 1},
        {"MAC address", ipmiSetMacAddress, six, {0x03, 0x05, 0x02, 0x00, 0x5E, 0x10, 0x20, 0x30}, 0, {0x00}, 1},
        {"address source", [](IpmiSession *x, const uint8_t *) { return ipmiSetAddressSource(x, 0x102); }, four,
         {0x03, 0x04, 0x02}, 0, {0x00}, 1},
        {"selector 4 takes one byte", [](IpmiSession *x, const uint8_t *d) { return _ipmiSetLanParameter(x, 4, d); },
         six, {0x03, 0x04, 0x02}, 0, {0x00}, 1},
        {"selector 5 takes six", [](IpmiSession *x, const uint8_t *d) { return _ipmiSetLanParameter(x, 5, d); }, six,
         {0x03, 0x05, 0x02, 0x00, 0x5E, 0x10, 0x20, 0x30}, 0, {0x00}, 1},
        {"selector 12 takes four", [](IpmiSession *x, const uint8_t *d) { return _ipmiSetLanParameter(x, 12, d); },
         six, {0x03, 0x0C, 0x02, 0x00, 0x5E, 0x10}, 0, {0x00}, 1},
        {"completion code not examined", ipmiSetIpAddress, four, {0x03, 0x03, 0xC0, 0xA8, 0x64, 0xC8}, 0, {0x82}, 1},
        {"completion code status", ipmiSetNetMask, four, {0x03, 0x06, 0xC0, 0xA8, 0x64, 0xC8}, 0x0182, {0x82}, 0},
        {"no answer", ipmiSetDefaultGateway, four, {0x03, 0x0C, 0xC0, 0xA8, 0x64, 0xC8}, kTimeout, {}, 0},
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        expectChannels(kLanAt3);
        Sent ask = setInProgressRefused(0x03);
        expectRequest(0x30, 0x01, c.request, c.status, c.answer);
        EXPECT_EQ(c.set(s, c.data.data()), c.result) << c.what;
        expectSent(s, from, with(with(channelRequests(3), ask), {0x30, 0x01, c.request}), kAnyCapacity, c.what);
    }

    // Selectors without a known length, a missing value or session: nothing is sent.
    size_t before = ipmihost_script_call_count();
    for (int selector : {0, 1, 2, 7, 8, 9, 10, 11, 13, 255, -3})
        EXPECT_EQ(_ipmiSetLanParameter(s, selector, six.data()), 0) << "selector " << selector;
    EXPECT_EQ(_ipmiSetLanParameter(s, 3, nullptr), 0);
    EXPECT_EQ(ipmiSetMacAddress(s, nullptr), 0);
    EXPECT_EQ(ipmiSetIpAddress(nullptr, four.data()), 0);
    EXPECT_EQ(ipmiSetAddressSource(nullptr, 1), 0);
    EXPECT_EQ(_ipmiSetLanParameter(nullptr, 5, six.data()), 0);
    EXPECT_EQ(ipmihost_script_call_count(), before);
}

TEST_F(LanTest, WithoutLanChannel)
{
    IpmiSession *s = open();
    const struct {
        const char *what;
        bool (*call)(IpmiSession *);
    } getters[] = {
        {"_ipmiGetLanParameter", [](IpmiSession *x) {
             uint8_t *p = _ipmiGetLanParameter(x, 3);
             std::free(p);
             return p == nullptr;
         }},
        {"ipmiGetIpAddress", [](IpmiSession *x) {
             uint8_t *p = ipmiGetIpAddress(x);
             std::free(p);
             return p == nullptr;
         }},
        {"ipmiGetMacAddress", [](IpmiSession *x) {
             uint8_t *p = ipmiGetMacAddress(x);
             std::free(p);
             return p == nullptr;
         }},
        {"ipmiGetAddressSource", [](IpmiSession *x) { return ipmiGetAddressSource(x) == -1; }},
    };
    for (const auto &g : getters) {
        size_t from = ipmihost_script_call_count();
        expectChannels(noLanChannel());
        EXPECT_TRUE(g.call(s)) << g.what;
        expectSent(s, from, channelRequests(15), kAnyCapacity, g.what);
        size_t before = ipmihost_script_call_count();
        EXPECT_TRUE(g.call(nullptr)) << g.what << " without a session";
        EXPECT_EQ(ipmihost_script_call_count(), before) << g.what << " without a session";
    }

    // A write goes to channel 0 and reports what the platform says.
    const Bytes address = {0x0A, 0x01, 0x02, 0x03};
    for (uint16_t status : {uint16_t{0}, uint16_t{0x01CC}}) {
        size_t from = ipmihost_script_call_count();
        expectChannels(noLanChannel());
        Sent ask = setInProgressRefused(0x00);
        expectRequest(0x30, 0x01, {0x00, 0x03, 0x0A, 0x01, 0x02, 0x03}, status, {static_cast<uint8_t>(status)});
        EXPECT_EQ(ipmiSetIpAddress(s, address.data()), status == 0 ? 1 : 0) << "status " << status;
        expectSent(s, from, with(with(channelRequests(15), ask), {0x30, 0x01, {0x00, 0x03, 0x0A, 0x01, 0x02, 0x03}}),
                   kAnyCapacity, "channel 0");
    }
}

struct AddressCase {
    const char *name;
    unsigned size;
    int result;
    std::string text; // expected in the buffer, up to and with its terminator; rest stays '#'
};

void checkAddresses(const std::vector<AddressCase> &cases)
{
    for (const auto &c : cases) {
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(getCurrentAddress(buffer, c.size, c.name), c.result) << c.name << ", size " << c.size;
        std::string expected = c.result ? c.text + std::string(1, '\0') : std::string();
        expected.resize(sizeof buffer, '#');
        EXPECT_EQ(std::string(buffer, sizeof buffer), expected) << c.name << ", size " << c.size;
    }
}

TEST(LocalAddress, LoopbackOfThisMachine)
{
    checkAddresses({
        {"lo", 32, 1, "127.0.0.1"},
        {"lo", 10, 1, "127.0.0.1"},
        {"lo", 9, 1, "127.0.0."},
        {"lo", 8, 1, "127.0.0"},
        {"lo", 1, 1, ""},
        {"lo0", 32, 0, ""},
        {"no-such-interface", 32, 0, ""},
    });
}

// Interfaces of a network namespace of our own (needs the right to create one):
// eth0 10.1.1.1 with the labelled second address eth0:1 10.1.1.2, eth1 with an IPv6 and an
// IPv4 address, v6only with an IPv6 address alone.
TEST(LocalAddress, InterfacesOfANamespace)
{
    int unshareError = 0, setupStatus = -1;
    std::vector<std::pair<int, std::string>> results;
    const std::vector<AddressCase> cases = {
        {"eth1", 32, 1, "192.168.100.200"},
        {"eth1", 8, 1, "192.168"},
        {"eth0", 32, 1, "10.1.1.1"},
        {"eth0:1", 32, 1, "10.1.1.2"},
        {"eth", 32, 1, "10.1.1.1"},
        {"v6only", 32, 0, ""},
        {"eth2", 32, 0, ""},
        {"lo", 32, 1, "127.0.0.1"},
    };
    // The namespace belongs to this thread alone, and ends with it.
    std::thread worker([&] {
        if (unshare(CLONE_NEWNET) != 0) {
            unshareError = errno;
            return;
        }
        setupStatus = std::system("ip link set lo up"
                                  " && ip link add eth0 type veth peer name peer0"
                                  " && ip link add eth1 type veth peer name v6only"
                                  " && ip addr add 10.1.1.1/24 dev eth0"
                                  " && ip addr add 10.1.1.2/24 dev eth0 label eth0:1"
                                  " && ip -6 addr add fd00::1/64 dev eth1 nodad"
                                  " && ip addr add 192.168.100.200/24 dev eth1"
                                  " && ip -6 addr add fd00::2/64 dev v6only nodad");
        if (setupStatus != 0) return;
        for (const auto &c : cases) {
            char buffer[32];
            std::memset(buffer, '#', sizeof buffer);
            int r = getCurrentAddress(buffer, c.size, c.name);
            results.emplace_back(r, std::string(buffer, sizeof buffer));
        }
    });
    worker.join();
    if (unshareError == EPERM) GTEST_SKIP() << "no right to create a network namespace";
    ASSERT_EQ(unshareError, 0) << std::strerror(unshareError);
    ASSERT_EQ(setupStatus, 0) << "could not set up the interfaces with ip(8)";
    ASSERT_EQ(results.size(), cases.size());
    for (size_t i = 0; i < cases.size(); ++i) {
        const AddressCase &c = cases[i];
        std::string expected = c.result ? c.text + std::string(1, '\0') : std::string();
        expected.resize(32, '#');
        EXPECT_EQ(results[i].first, c.result) << c.name << ", size " << c.size;
        EXPECT_EQ(results[i].second, expected) << c.name << ", size " << c.size;
    }
}

} // namespace
