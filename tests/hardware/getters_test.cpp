// Processor and memory-module getters: the requests each sends in a session of its own, and
// what each answer, absence or failure becomes.
#include <cstring>
#include <functional>
#include <optional>

#include "scripted.h"

namespace {

constexpr uint16_t kTimeout = LIBIPMI_STATUS_TIMEOUT;
constexpr int kUnreadable = -1; // a presence sensor that cannot be read

class Getters : public ScriptTest {
protected:
    // Every session a getter opened was closed again.
    void TearDown() override
    {
        ipmiHelperCloseSession(&session_);
        size_t opened = 0, closed = 0;
        for (const ipmihost_call &c : calls()) {
            opened += c.kind == IPMIHOST_CALL_OPEN && c.status == 0;
            closed += c.kind == IPMIHOST_CALL_CLOSE;
        }
        EXPECT_EQ(opened, closed);
        ScriptTest::TearDown();
    }
};

void presence(int state)
{
    if (state == kUnreadable) return expectRequest(0x10, 0x2D, {0x38}, 0x01CB, {0xCB});
    expectRequest(0x10, 0x2D, {0x38}, 0, {0x00, 0x00, 0x40, static_cast<uint8_t>(state), 0x00});
}

// A processor record: every field distinct; `patch` sets bytes by their position in the answer.
Bytes record(std::initializer_list<std::pair<size_t, uint8_t>> patch = {})
{
    Bytes r = oemAnswer(cat({{0xA5, 0x06, 0, 0, 0xC4, 0x09}, Bytes(13, 0), {0x00, 0x05, 0x00, 0x80, 0x00, 0x96},
                             {16, 14, 2, 2, 0xB3, 0x00, 2}}));
    for (auto [at, v] : patch) r[at] = v;
    return r;
}

const std::string kSendFailed = "\nsnmp/ts2hardware.cpp:{line} (getCpuInfo) Failed to send ipmi raw command.\n";

TEST_F(Getters, ProcessorRecordValues)
{
    char text[8];
    auto step = [&] { return std::to_string(getCpuStep(text, sizeof text, 0x38, 0x101)) + "/" + text; };
    using Call = std::function<std::string()>;
    auto str = [](auto f) -> Call { return [f] { return std::to_string(f(0x38, 0x101)); }; };
    Call speed = str(getCpuCurrentSpeed), logicals = str(getCpuNumberLogicals);
    Call threading = str(getCpuMultithreadingEnabled);
    const struct {
        std::vector<int> presence; // sensor states read, in order
        std::optional<std::pair<uint16_t, Bytes>> answer;
        std::function<std::string()> call;
        std::string result;
        std::string diag = "";
    } cases[] = {
        {{0x80}, {{0, record()}}, [] { return std::string(getCpuManufacturerName(0x38, 1)); }, "AMD"},
        {{kUnreadable}, {{0, record({{35, 9}})}}, [] { return std::string(getCpuManufacturerName(0x38, 1)); }, "unknown"},
        {{0x80}, {{0x01CB, {0xCB}}}, [] { return std::string(getCpuManufacturerName(0x38, 1)); }, "", kSendFailed},
        {{0x00}, {}, [] { return std::string(getCpuManufacturerName(0x38, 1)); }, ""},
        {{0x80}, {{0, record()}}, step, "5/5"},
        {{0x80}, {{kTimeout, {}}}, step, "0/0", kSendFailed},
        {{0x80, 0x80}, {{0, record()}}, speed, "2500"},
        {{0x00}, {}, speed, "0"},
        {{0x80, 0x80}, {{0, oemAnswer({}, 0x01)}}, speed, "4294967295"},
        {{0x80}, {{0, record()}}, logicals, "32"},
        {{0x00}, {}, logicals, "-1"},
        {{0x80}, {{0, record()}}, [] { return std::to_string(getCpuCacheSize(0x38, 1, 2)); }, "32768"},
        {{}, {}, [] { return std::to_string(getCpuCacheSize(0x38, 1, 4)); }, "0"},
        {{0x80}, {{0, record()}}, str(getCpuNumberCores), "16"},
        {{0x80}, {{0, record()}}, str(getCpuEnabledCores), "14"},
        {{0x80}, {{0, record()}}, str(getCpuFamily), "179"},
        {{0x80, 0x80}, {{0, record()}}, threading, "3"},
        {{0x80, 0x80}, {{0, record({{32, 1}})}}, threading, "2"},
        {{0x80, 0x80}, {{0, record({{31, 1}, {32, 1}})}}, threading, "2"},
        {{0x00}, {}, threading, "2"},
        {{0x80, 0x80}, {{0x01C1, {0xC1}}}, threading, "1", kSendFailed},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.result);
        ipmihost_script_reset();
        for (int state : c.presence) presence(state);
        if (c.answer) expectRequest(0xB8, 0xF1, oem({0x15, 0x01}), c.answer->first, c.answer->second);
        std::string r;
        EXPECT_DIAG(stderrOf([&] { r = c.call(); }), c.diag);
        EXPECT_EQ(r, c.result);
        if (c.answer) {
            EXPECT_EQ(rawSince().back().resLenIn, 64u);
        }
    }
}

TEST_F(Getters, ProcessorModelName)
{
    const Bytes name = text("Xeon 6426Y");
    const struct {
        int presence;
        uint16_t status;
        Bytes answer;
        uint32_t length;
        bool named;
    } cases[] = {
        {0x80, 0, oemAnswer(name), 10, true}, // exactly as long as the name: no terminator
        {0x80, 0, oemAnswer(name), 9, false},
        {0x80, 0, {0x00, 0xD9}, 64, false},
        {0x80, 0x01CB, {0xCB}, 64, false},
        {0x00, 0, {}, 64, false},
    };
    for (const auto &c : cases) {
        ipmihost_script_reset();
        presence(c.presence);
        if (c.presence) expectRequest(0xB8, 0xF1, oem({0x13, 0x02}), c.status, c.answer);
        char buffer[16];
        std::memset(buffer, 'x', sizeof buffer);
        char *r = nullptr;
        stderrOf([&] { r = getCpuModelName(buffer, c.length, 0x38, 2); });
        EXPECT_EQ(r, c.named ? buffer : nullptr);
        EXPECT_EQ(std::string(buffer, sizeof buffer), c.named ? "Xeon 6426Yxxxxxx" : std::string(16, 'x'));
    }
}

TEST_F(Getters, ProcessorStatusScales)
{
    const struct {
        uint32_t mode;
        uint16_t status;
        Bytes answer;
        uint32_t code;
    } cases[] = {
        {0, 0, oemAnswer({0}), 2}, {0, 0, oemAnswer({5}), 8}, {0, 0, oemAnswer({6}), 1}, {0, 0, oemAnswer({7}), 2},
        {1, 0, oemAnswer({4}), 1}, {1, 0, oemAnswer({6}), 8}, {7, 0, oemAnswer({0x80}), 1},
        {0, 0x01C9, {0xC9}, 2},   {1, kTimeout, {}, 2},
    };
    for (const auto &c : cases) {
        ipmihost_script_reset();
        expectRequest(0xB8, 0xF5, oem({uint8_t(c.mode ? 0x4C : 0x4B), 0x03}), c.status, c.answer);
        uint32_t code = 0;
        std::string err = stderrOf([&] { code = getCpuStatus(0x38, 0x203, c.mode); });
        EXPECT_EQ(code, c.code);
        EXPECT_DIAG(err, c.status ? "\nsnmp/ts2hardware.cpp:{line} (getCpuStatus) Failed to send ipmi raw command.\n" : "");
        EXPECT_EQ(rawSince().back().resLenIn, 8u);
    }
}

TEST_F(Getters, MemoryModuleValues)
{
    using Call = std::function<std::string()>;
    auto str = [](auto f) -> Call { return [f] { return std::to_string(f(4)); }; };
    Call capacity = str(getMemoryModuleCapacity), frequency = str(getMemoryModuleFrequency);
    Call status = str(getMemoryModuleStatus), config = str(getMemoryModuleConfig);
    Call approval = str(getMemoryModuleApprovedStatus);
    const Bytes info = oem({0x18, 4}), statusReq = oem({0x48, 4}), configReq = oem({0x49, 4});
    const struct {
        uint8_t command;
        Bytes request;
        uint16_t status;
        Bytes answer;
        std::function<std::string()> call;
        std::string result;
    } cases[] = {
        {0xF1, info, 0, oemAnswer({0xC0, 0x12, 0x01, 0x80}), capacity, "1024"},
        {0xF1, info, 0, oemAnswer({0xC0, 0x12, 0x00, 0x80}), capacity, "32768"},
        {0xF1, info, 0, oemAnswer({0xC0, 0x12, 0xFF, 0x7F}), capacity, "32767"},
        {0xF1, info, 0, oemAnswer({0xC0, 0x12, 0xFF, 0x7F}), frequency, "4800"},
        {0xF1, info, 0x01CB, {0xCB}, frequency, "4294967295"},
        {0xF1, info, 0, {0x00, 0xD9, 0x7E, 0x01, 0xC0, 0x12}, capacity, "4294967295"},
        {0xF5, statusReq, 0, oemAnswer({9}), status, "11"},
        {0xF5, statusReq, 0, oemAnswer({6}), status, "1"},
        {0xF5, statusReq, 0, oemAnswer({5}), status, "7"},
        {0xF5, statusReq, 0x01C9, {0xC9}, status, "2"},
        {0xF5, statusReq, kTimeout, {}, status, "1"},
        {0xF5, configReq, 0, oemAnswer({7}), config, "1"},
        {0xF5, configReq, 0, oemAnswer({0}), config, "2"},
        {0xF5, configReq, 0, oemAnswer({255}), config, "1"},
        {0xF5, configReq, 0, oemAnswer({254}), config, "0"},
        {0x07, oem({0x05, 4}), 0, oemAnswer({4, 1}), approval, "3"},
        {0x07, oem({0x05, 4}), 0, oemAnswer({4, 2}), approval, "2"},
        {0x07, oem({0x05, 4}), 0x01CB, {0xCB}, approval, "1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.answer));
        ipmihost_script_reset();
        expectRequest(0xB8, c.command, c.request, c.status, c.answer);
        EXPECT_EQ(c.call(), c.result);
    }
    // The highest module index comes in the caller's session, from the policy answer.
    IpmiSession *s = open();
    for (auto [answer, index] : {std::pair{oemAnswer({0, 15}), 15u}, {oemAnswer({0}), 0xFFu}, {oemAnswer({0, 9}, 0xC1), 0u}}) {
        expectRequest(0xB8, 0xF5, oem({0x4A}), answer[0] ? 0x0100 | answer[0] : 0, answer);
        EXPECT_EQ(getMemoryMaxIndex(s), index);
    }
}

// Without a session every getter gives its own failure value and says so once.
TEST_F(Getters, NoSession)
{
    char buffer[8] = "keep";
    MemoryModuleInfo info = {1, 2};
    const std::vector<std::pair<std::function<long long()>, long long>> cases = {
        {[] { return (long long)(getCpuManufacturerName(0x38, 0)[0]); }, 0},
        {[&] { return (long long)(getCpuModelName(buffer, 8, 0x38, 0) != nullptr); }, 0},
        {[&] { return (long long)getCpuStep(buffer, 8, 0x38, 0); }, 0},
        {[] { return (long long)getCpuStatus(0x38, 0, 0); }, 1},
        {[] { return (long long)getCpuCurrentSpeed(0x38, 0); }, 0xFFFFFFFF},
        {[] { return (long long)getCpuNumberLogicals(0x38, 0); }, -1},
        {[] { return (long long)getCpuMultithreadingEnabled(0x38, 0); }, 1},
        {[] { return (long long)getCpuNumberCores(0x38, 0); }, 0},
        {[&] { return (long long)getMemoryModuleInfo(0, &info); }, 0},
        {[] { return (long long)getMemoryModuleCapacity(0); }, 0xFFFFFFFF},
        {[] { return (long long)getMemoryModuleStatus(0); }, 1},
        {[] { return (long long)getMemoryModuleConfig(0); }, 1},
        {[] { return (long long)getMemoryModuleApprovedStatus(0); }, 1},
        {[&] { return (long long)(getMemoryModuleForm(buffer, 8, 0) != nullptr); }, 0},
        {[&] { return (long long)(getMemoryModuleType(buffer, 8, 0) != nullptr); }, 0},
        {[] { return (long long)getMemoryModuleMaxFrequency(0); }, -1},
    };
    for (const auto &[call, result] : cases) {
        ipmihost_script_reset();
        ipmihost_script_open_result(LIBIPMI_STATUS_AUTH_FAILED, -1);
        long long r = 0;
        std::string err = stderrOf([&] { r = call(); });
        EXPECT_EQ(r, result);
        EXPECT_TRUE(err.ends_with("\nfailed to open session\n")) << err;
    }
    EXPECT_STREQ(buffer, "keep");
    EXPECT_EQ(info.frequency, 1u);
}

} // namespace
