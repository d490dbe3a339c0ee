// The login banner and short box, chosen by the board number; each address in a process of its own.
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <regex>

#include "scripted.h"

namespace {

using namespace testing::internal;

constexpr uint16_t kTimeout = LIBIPMI_STATUS_TIMEOUT;

using BannerTest = ScriptTest;

// One configuration-space variable as the controller answers it.
struct Var {
    uint16_t status;
    Bytes answer;
};

Var textVar(const std::string &t) { return {0, oemAnswer(cat({{static_cast<uint8_t>(t.size())}, text(t)}))}; }
const Var kAbsent = {0, oemAnswer({}, 0xCB)};

struct Controller {
    Bytes deviceId; // the Get Device ID answer; empty: no answer
    Var sdr, build, type, id, name, os;
    uint8_t errorLed, identifyLed;
    bool powered;
    Var asset;
};

Bytes deviceId(uint8_t fw1, uint8_t fw2, Bytes aux)
{
    return cat({{0x00, 0x20, 0x81, fw1, fw2, 0x02, 0xBF, 0xD9, 0x7E, 0x00, 0x4D, 0x0B}, aux});
}

void expectVariable(uint16_t variable, const Var &v)
{
    const Bytes request = oem({0x01, 0x00, static_cast<uint8_t>(variable & 0xFF), static_cast<uint8_t>(variable >> 8)});
    expect(0xB8, 0xE0, request, v.answer, v.status);
}

void expectDeviceId(const Controller &c)
{
    if (c.deviceId.empty()) expect(0x18, 0x01, {}, {}, kTimeout);
    else expect(0x18, 0x01, {}, c.deviceId);
}

// The controller's LAN address, read from LAN channel 1; none: no channel answers.
void expectAddress(const Bytes &address)
{
    for (uint8_t ch = 1; address.empty() && ch <= 15; ++ch) expect(0x18, 0x42, {ch}, {0xCC}, 0x01CC);
    if (address.empty()) return;
    expect(0x18, 0x42, {0x01}, {0x00, 0x01, 0x04, 0x01, 0x80, 0xD9, 0x7E, 0x00, 0x00, 0x00});
    expect(0x30, 0x02, {0x01, 0x03, 0x00, 0x00}, cat({{0x00, 0x11}, address}));
}

void expectStandard(const Controller &c)
{
    expectDeviceId(c);
    expectVariable(0x2151, c.sdr);
    expectVariable(0x2150, c.build);
    expectVariable(0x0205, c.type);
    expectVariable(0x0207, c.id);
    expectVariable(0x0201, c.name);
    expectVariable(0x020F, c.os);
    expect(0xB8, 0xF5, oem({0xB3}), oemAnswer({c.errorLed}));
    expect(0xB8, 0xF5, oem({0xB1}), oemAnswer({c.identifyLed}));
    expect(0x00, 0x01, {}, {0x00, static_cast<uint8_t>(c.powered ? 0x01 : 0x00), 0x00, 0x00});
    expectVariable(0x0210, c.asset);
}

void expectShort(const Controller &c)
{
    expectDeviceId(c);
    expectVariable(0x2150, c.build);
}

// Compares the output with the expected text; "{stamp}" stands for the library's build date and time.
testing::AssertionResult sameOutput(const std::string &actual, const std::string &expected)
{
    static const std::string kStamp = "{stamp}";
    static const std::regex kStampForm(
        "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123][0-9] [0-9]{4} [012][0-9]:[0-5][0-9]:[0-5][0-9]");
    size_t at = expected.find(kStamp);
    bool same;
    if (at == std::string::npos) {
        same = actual == expected;
    } else {
        same = actual.size() == expected.size() - kStamp.size() + 20 && actual.compare(0, at, expected, 0, at) == 0 &&
               std::regex_match(actual.substr(at, 20), kStampForm) &&
               actual.compare(at + 20, std::string::npos, expected, at + kStamp.size()) == 0;
    }
    if (same) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "output was:\n[" << actual << "]\nexpected:\n[" << expected << "]";
}

const Controller kFull = {deviceId(0x01, 0x23, {0x02, 0x05, 0x00, 'a'}),
                          textVar("R1.12.0"),
                          textVar("1.75.32 2024-03-11"),
                          textVar("RX2540 M7"),
                          textVar("YM3K004711"),
                          textVar("build-host-07"),
                          textVar("Debian 12"),
                          1,
                          1,
                          true,
                          textVar("INV-0042")};

const std::string kStars = "**************************************************\r\n";
const std::string kWelcome = "*    Welcome to TALVIREN Remote Manager          *\r\n";

const std::string kFullBanner = kStars + kWelcome +
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
const std::string kFullShortBox = kShortTop +
                                  "*  Firmware Revision 2.5a (1.35)          *\n"
                                  "*  Firmware built 1.75.32 2024-03-11 *\r\n" +
                                  kShortBottom;

// Runs f in a child process, where the board number is still undetermined.
void inFreshProcess(const std::function<void()> &f)
{
    std::fflush(stdout);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const testing::TestResult *result = testing::UnitTest::GetInstance()->current_test_info()->result();
        int before = result->total_part_count();
        f();
        std::fflush(stdout);
        _exit(result->total_part_count() == before ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child process failed";
}

struct Banner {
    Controller controller;
    std::string out, err;
};

TEST_F(BannerTest, AddressChoosesBoardAndBox)
{
    Controller board3 = kFull;
    board3.deviceId = deviceId(0x02, 0x10, {0x03, 0x07, 0x00, 0x00});
    board3.build = kAbsent;
    const struct {
        Bytes address; // empty: no LAN channel answers
        bool bannerFirst;
        unsigned board;
        int slave;
        std::vector<Banner> banners; // a standard server shows the full banner, a board the short box
    } cases[] = {
        {{127, 1, 2, 1}, false, 0, 0xC0, {{kFull, kFullShortBox, ""}}},
        // The banner itself determines the board; the fourth auxiliary byte 0 is written as it is.
        {{127, 1, 2, 4},
         true,
         3,
         0xC6,
         {{board3,
           kShortTop + std::string("*  Firmware Revision 3.7\0 (2.16)          *\n", 44) +
               "*  Firmware built {stamp}     *\r\n" + kShortBottom,
           ""}}},
        {{127, 1, 2, 0}, true, 255, 0x20, {{kFull, kFullBanner, ""}}},
        {{127, 1, 2, 5}, false, 255, 0x20, {}},
        {{127, 1, 3, 1}, false, 255, 0x20, {}},
        {{}, false, 255, 0x20, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.address));
        inFreshProcess([&] {
            IpmiSession *s = open();
            // Without a session: 255, nothing asked, nothing remembered.
            EXPECT_EQ(ipmiGetSbNumber(nullptr), 255u);
            EXPECT_EQ(ipmiGetSbSlaveAddr(nullptr), 0x20);
            expectAddress(c.address);
            auto numbers = [&](IpmiSession *on) {
                EXPECT_EQ(ipmiGetSbNumber(on), c.board);
                EXPECT_EQ(ipmiGetSbSlaveAddr(on), c.slave);
                EXPECT_EQ(ipmiIsKVSystem(on), c.board != 255);
            };
            size_t from = 0; // the address is asked for with the numbers or with the first banner
            if (!c.bannerFirst) numbers(s), from = ipmihost_script_call_count();
            for (const Banner &b : c.banners) {
                c.board == 255 ? expectStandard(b.controller) : expectShort(b.controller);
                std::string out, err = stderrOf([&] {
                                     CaptureStdout();
                                     EXPECT_GE(ipmiPrintLoginHeader(s), 0);
                                     out = GetCapturedStdout();
                                 });
                EXPECT_TRUE(sameOutput(out, b.out));
                EXPECT_DIAG(err, b.err);
                EXPECT_EQ(rawSince(from).size(), (c.board == 255 ? 11u : 2u) + (from ? 0 : 2));
                from = ipmihost_script_call_count();
            }
            // The board number is asked once per process, whatever the session.
            from = ipmihost_script_call_count();
            IpmiSession *other = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
            numbers(other);
            numbers(s);
            ipmiHelperCloseSession(&other);
            EXPECT_TRUE(rawSince(from).empty());
            EXPECT_EQ(ipmihost_script_pending(), 0u);
            EXPECT_EQ(ipmihost_script_mismatches(), 0u) << ipmihost_script_last_mismatch();
        });
    }
}

} // namespace
