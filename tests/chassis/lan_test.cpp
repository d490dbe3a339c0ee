// The LAN channel search, the LAN configuration parameters and a local interface's IPv4 address.
#include <cstdlib>
#include <cstring>
#include <functional>

#include "scripted.h"

namespace {

using LanTest = ScriptTest;
constexpr uint8_t kIpmb = 0x01, kLan = 0x04, kSerial = 0x05;

struct Channel {
    uint16_t status;
    uint8_t number, medium; // as the answer gives them
};

// Announces Get Channel Info for channels 1, 2, ... with these answers; returns the requests.
std::vector<Sent> expectChannels(const std::vector<Channel> &answers)
{
    std::vector<Sent> sent;
    for (size_t i = 0; i < answers.size(); ++i) {
        const Channel &a = answers[i];
        Bytes answer;
        if (a.status == 0) answer = {0x00, a.number, a.medium, 0x01, 0x80, 0xD9, 0x7E, 0x00, 0x00, 0x00};
        else if (a.status != LIBIPMI_STATUS_TIMEOUT) answer = {static_cast<uint8_t>(a.status)};
        expect(0x18, 0x42, {uint8_t(i + 1)}, answer, a.status);
        sent.push_back({0x18, 0x42, {uint8_t(i + 1)}});
    }
    return sent;
}

const std::vector<Channel> kLanAt3 = {{0, 1, kIpmb}, {0, 2, kSerial}, {0, 3, kLan}};

std::vector<Channel> noLanChannel()
{
    std::vector<Channel> out;
    for (uint8_t ch = 1; ch <= 15; ++ch) out.push_back(ch % 4 == 0 ? Channel{0x01CC, 0, 0} : Channel{0, ch, kIpmb});
    return out;
}

TEST_F(LanTest, FindsTheFirstLanChannel)
{
    IpmiSession *s = open();
    std::vector<Channel> last = noLanChannel();
    last.back() = {0, 15, kLan};
    const struct {
        std::vector<Channel> answers;
        unsigned channel;
    } cases[] = {
        // clang-format off
        {kLanAt3, 3},
        {{{0, 2, kLan}, {0, 5, kLan}, {0, 3, kLan}}, 3}, // the channel must answer with its own number
        {{{0x01CC, 0, 0}, {LIBIPMI_STATUS_TIMEOUT, 0, 0}, {0, 3, kLan}}, 3}, {last, 15},
        // clang-format on
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        std::vector<Sent> sent = expectChannels(c.answers);
        EXPECT_EQ(getChannel(s), c.channel);
        expectSent(s, from, sent);
    }
}

// The parameters as the virtual controller and ipmi_sim answer them are read and written by
// tvxctl lan (machine and real-peer tests); here what they do not give.
TEST_F(LanTest, ReadsParametersOfTheLanChannel)
{
    IpmiSession *s = open();
    size_t from = ipmihost_script_call_count();
    std::vector<Sent> sent = expectChannels(kLanAt3);
    expect(0x30, 0x02, {0x03, 12, 0x00, 0x00}, {0x00, 0x11, 0x0A, 0x00, 0x00, 0xFE});
    sent.push_back({0x30, 0x02, {0x03, 12, 0x00, 0x00}});
    uint8_t *block = ipmiGetDefaultGateway(s);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(Bytes(block, block + 4), (Bytes{0x0A, 0x00, 0x00, 0xFE}));
    std::free(block);
    expectSent(s, from, sent);
    // A refusal gives nothing; the address source is signed.
    for (auto [status, answer] : {std::pair{cc(0x80), Bytes{0x80}}, {LIBIPMI_STATUS_TIMEOUT, Bytes{}}}) {
        expectChannels(kLanAt3);
        expect(0x30, 0x02, {0x03, 0x06, 0x00, 0x00}, answer, status);
        EXPECT_EQ(ipmiGetNetMask(s), nullptr);
    }
    for (auto [status, answer, source] :
         {std::tuple{uint16_t(0), Bytes{0x00, 0x11, 0x80}, -128}, {cc(0x80), {0x80}, -1}}) {
        expectChannels(kLanAt3);
        expect(0x30, 0x02, {0x03, 0x04, 0x00, 0x00}, answer, status);
        EXPECT_EQ(ipmiGetAddressSource(s), source);
    }
    // No LAN channel: nothing beyond the search.
    from = ipmihost_script_call_count();
    sent = expectChannels(noLanChannel());
    EXPECT_EQ(_ipmiGetLanParameter(s, 3), nullptr);
    expectSent(s, from, sent);
}

TEST_F(LanTest, WritesParameters)
{
    IpmiSession *s = open();
    const Bytes six = {0x02, 0x00, 0x5E, 0x10, 0x20, 0x30};
    using Set = std::function<int()>;
    const struct {
        Set set;
        Bytes request;
        uint16_t status;
        int result;
    } cases[] = {
        {[&] { return ipmiSetNetMask(s, six.data()); }, {0x03, 0x06, 0x02, 0x00, 0x5E, 0x10}, cc(0x82), 0},
        {[&] { return ipmiSetAddressSource(s, 0x102); }, {0x03, 0x04, 0x02}, 0, 1}, // the low byte
        // The parameter's length, from its selector.
        {[&] { return _ipmiSetLanParameter(s, 12, six.data()); }, {0x03, 0x0C, 0x02, 0x00, 0x5E, 0x10}, 0, 1},
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        std::vector<Sent> sent = expectChannels(kLanAt3);
        // This controller keeps no set-in-progress parameter: each parameter goes in one request.
        expect(0x30, 0x01, {0x03, 0x00, 0x01}, {0x80}, cc(0x80));
        expect(0x30, 0x01, c.request, {uint8_t(c.status)}, c.status);
        sent.push_back({0x30, 0x01, {0x03, 0x00, 0x01}});
        sent.push_back({0x30, 0x01, c.request});
        EXPECT_EQ(c.set(), c.result);
        expectSent(s, from, sent);
    }
    // Selectors without a known length or a missing value: nothing is sent.
    size_t before = ipmihost_script_call_count();
    for (int selector : {0, 7, 255, -3}) EXPECT_EQ(_ipmiSetLanParameter(s, selector, six.data()), 0) << selector;
    EXPECT_EQ(_ipmiSetLanParameter(s, 3, nullptr), 0);
    EXPECT_EQ(ipmihost_script_call_count(), before);
}

TEST(LocalAddress, LoopbackOfThisMachine)
{
    const struct {
        const char *name;
        unsigned size;
        int result;
        std::string text; // in the buffer with its terminator; the rest stays '#'
    } cases[] = {{"lo", 10, 1, "127.0.0.1"}, {"lo", 9, 1, "127.0.0."}, {"no-such-interface", 32, 0, ""}};
    for (const auto &c : cases) {
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(getCurrentAddress(buffer, c.size, c.name), c.result) << c.name << " " << c.size;
        std::string expected = c.result ? c.text + std::string(1, '\0') : std::string();
        expected.resize(sizeof buffer, '#');
        EXPECT_EQ(std::string(buffer, sizeof buffer), expected) << c.name << " " << c.size;
    }
}

} // namespace
