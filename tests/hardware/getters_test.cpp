// Processor and memory-module getters: the requests each sends in a session of its own, and
// what each answer, absence or failure becomes.
#include <cstring>
#include <functional>
#include <optional>

#include "scripted.h"

namespace {

constexpr int kUnreadable = -1; // a presence sensor that cannot be read

using Getters = ScriptTest;

void presence(int state)
{
    if (state == kUnreadable) return expect(0x10, 0x2D, {0x38}, {0xCB}, 0x01CB);
    expect(0x10, 0x2D, {0x38}, {0x00, 0x00, 0x40, static_cast<uint8_t>(state), 0x00});
}

// A processor record: every field distinct; `patch` sets bytes by their position in the answer.
Bytes record(std::initializer_list<std::pair<size_t, uint8_t>> patch = {})
{
    Bytes r = oemAnswer(cat({{0xA5, 0x06, 0, 0, 0xC4, 0x09},
                             Bytes(13, 0),
                             {0x00, 0x05, 0x00, 0x80, 0x00, 0x96},
                             {16, 14, 2, 2, 0xB3, 0x00, 2}}));
    for (auto [at, v] : patch) r[at] = v;
    return r;
}

const std::string kSendFailed = "\nsnmp/ts2hardware.cpp:{line} (getCpuInfo) Failed to send ipmi raw command.\n";

// The processor record (sub-function 0x15) and model name (0x13) getters, after the presence
// test of the processor sensor.
TEST_F(Getters, ProcessorRecordAndName)
{
    using Call = std::function<std::string()>;
    char buffer[16];
    auto step = [&] { return std::to_string(getCpuStep(buffer, sizeof buffer, 0x38, 0x101)) + "/" + buffer; };
    auto model = [&](uint32_t length) -> Call {
        return [&buffer, length] {
            std::memset(buffer, 'x', sizeof buffer);
            const char *r = getCpuModelName(buffer, length, 0x38, 1);
            return (r ? "" : "null:") + std::string(buffer, sizeof buffer);
        };
    };
    auto str = [](auto f) -> Call { return [f] { return std::to_string(f(0x38, 0x101)); }; };
    Call speed = str(getCpuCurrentSpeed), logicals = str(getCpuNumberLogicals);
    Call threading = str(getCpuMultithreadingEnabled);
    Call maker = [] { return std::string(getCpuManufacturerName(0x38, 1)); };
    const Bytes name = oemAnswer(text("Xeon 6426Y"));
    const std::string untouched = "null:" + std::string(16, 'x');
    const struct {
        std::vector<int> presence;                                  // sensor states read, in order
        std::optional<std::tuple<uint8_t, uint16_t, Bytes>> answer; // sub-function, status, answer
        Call call;
        std::string result;
        std::string diag = "";
    } cases[] = {
        {{0x80}, {{0x15, 0, record()}}, maker, "AMD"},
        {{kUnreadable}, {{0x15, 0, record({{35, 9}})}}, maker, "unknown"},
        {{0x80}, {{0x15, 0x01CB, {0xCB}}}, maker, "", kSendFailed},
        {{0x80}, {{0x15, 0, record()}}, step, "5/5"},
        {{0x80, 0x80}, {{0x15, 0, record()}}, speed, "2500"},
        {{0x00}, {}, speed, "0"},
        {{0x80}, {{0x15, 0, record()}}, logicals, "32"},
        {{0x00}, {}, logicals, "-1"},
        {{0x80}, {{0x15, 0, record()}}, [] { return std::to_string(getCpuCacheSize(0x38, 1, 2)); }, "32768"},
        {{}, {}, [] { return std::to_string(getCpuCacheSize(0x38, 1, 4)); }, "0"},
        {{0x80}, {{0x15, 0, record()}}, str(getCpuNumberCores), "16"},
        {{0x80}, {{0x15, 0, record()}}, str(getCpuEnabledCores), "14"},
        {{0x80}, {{0x15, 0, record()}}, str(getCpuFamily), "179"},
        {{0x80, 0x80}, {{0x15, 0, record()}}, threading, "3"},
        {{0x80, 0x80}, {{0x15, 0, record({{32, 1}})}}, threading, "2"},
        {{0x80, 0x80}, {{0x15, 0, record({{31, 1}, {32, 1}})}}, threading, "2"},
        {{0x00}, {}, threading, "2"},
        {{0x80, 0x80}, {{0x15, 0x01C1, {0xC1}}}, threading, "1", kSendFailed},
        {{0x80}, {{0x13, 0, name}}, model(10), "Xeon 6426Yxxxxxx"}, // exactly as long: no terminator
        {{0x80}, {{0x13, 0, name}}, model(9), untouched},
        {{0x80}, {{0x13, 0, {0x00, 0xD9}}}, model(16), untouched},
        {{0x00}, {}, model(16), untouched},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.result);
        ipmihost_script_reset();
        for (int state : c.presence) presence(state);
        if (c.answer) {
            auto &[sub, status, answer] = *c.answer;
            expect(0xB8, 0xF1, oem({sub, 0x01}), answer, status);
        }
        std::string r;
        EXPECT_DIAG(stderrOf([&] { r = c.call(); }), c.diag);
        EXPECT_EQ(r, c.result);
        if (c.answer) {
            EXPECT_EQ(rawSince().back().resLenIn, 64u);
        }
    }
}

// The getters and queries of one request each: the request, and what its answer becomes.
TEST_F(Getters, OneRequestEach)
{
    IpmiSession *s = open();
    using Call = std::function<long long()>;
    const Call status = [s] { return ipmiGetMemoryModuleStatus(s, 4); },
               config = [s] { return ipmiGetMemoryModuleConfig(s, 4); };
    const Call policy = [s] { return ipmiGetMemoryPolicy(s); }, maxIndex = [s] { return getMemoryMaxIndex(s); };
    const Call cpu = [] { return getCpuStatus(0x38, 0x204, 0); }, cpuAlt = [] { return getCpuStatus(0x38, 0x204, 9); };
    const Call capacity = [] { return getMemoryModuleCapacity(4); },
               frequency = [] { return getMemoryModuleFrequency(4); };
    const Call code = [] { return getMemoryModuleStatus(4); }, configCode = [] { return getMemoryModuleConfig(4); };
    const Call approval = [] { return getMemoryModuleApprovedStatus(4); };
    const Bytes statusReq = oem({0x48, 4}), configReq = oem({0x49, 4}), policyReq = oem({0x4A}), info = oem({0x18, 4});
    const Bytes cpuReq = oem({0x4B, 4}), cpuAltReq = oem({0x4C, 4}), approvalReq = oem({0x05, 4});
    const struct {
        uint8_t command;
        Bytes request;
        uint16_t status;
        Bytes answer;
        Call call;
        long long result;
    } cases[] = {
        // Helper layer, in the caller's session.
        {0xF5, statusReq, 0, oemAnswer({0x09}), status, 9},
        {0xF5, statusReq, 0x01C9, {0xC9}, status, 0}, // module number rejected
        {0xF5, statusReq, kTimeout, {}, status, 7},
        {0xF5, statusReq, 0, oemAnswer({}), status, 0}, // the zeroed buffer shows through
        {0xF5, configReq, 0x01C9, {0xC9}, config, 7},
        {0xF5, policyReq, 0, oemAnswer({0x02, 0x0F}), policy, 2},
        {0xF5, policyReq, 0, oemAnswer({0x02, 0x0F}), maxIndex, 15},
        {0xF5, policyReq, 0, oemAnswer({0x02}), maxIndex, 0xFF}, // the 0xFF-filled buffer shows through
        {0xF5, policyReq, 0x01C1, oemAnswer({0, 9}, 0xC1), maxIndex, 0},
        // Agent getters, each in a session of its own.
        {0xF5, cpuReq, 0, oemAnswer({5}), cpu, 8},
        {0xF5, cpuReq, 0, oemAnswer({7}), cpu, 2},
        {0xF5, cpuAltReq, 0, oemAnswer({4}), cpuAlt, 1},
        {0xF5, cpuAltReq, 0, oemAnswer({0x80}), cpuAlt, 1},
        {0xF5, cpuReq, 0x01C9, {0xC9}, cpu, 2},
        {0xF1, info, 0, oemAnswer({0xC0, 0x12, 0x01, 0x80}), capacity, 1024},
        {0xF1, info, 0, oemAnswer({0xC0, 0x12, 0x00, 0x80}), capacity, 32768},
        {0xF1, info, 0, oemAnswer({0xC0, 0x12, 0xFF, 0x7F}), capacity, 32767},
        {0xF1, info, 0, oemAnswer({0xC0, 0x12, 0xFF, 0x7F}), frequency, 4800},
        {0xF1, info, 0x01CB, {0xCB}, frequency, 0xFFFFFFFF},
        {0xF1, info, 0, {0x00, 0xD9, 0x7E, 0x01, 0xC0, 0x12}, capacity, 0xFFFFFFFF},
        {0xF5, statusReq, 0, oemAnswer({9}), code, 11},
        {0xF5, statusReq, 0x01C9, {0xC9}, code, 2},
        {0xF5, configReq, 0, oemAnswer({7}), configCode, 1},
        {0xF5, configReq, 0, oemAnswer({254}), configCode, 0},
        {0x07, approvalReq, 0, oemAnswer({4, 1}), approval, 3},
        {0x07, approvalReq, 0, oemAnswer({4, 2}), approval, 2},
        {0x07, approvalReq, 0x01CB, {0xCB}, approval, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.request) + " -> " + testing::PrintToString(c.answer));
        expect(0xB8, c.command, c.request, c.answer, c.status);
        long long r = -99;
        std::string err = stderrOf([&] { r = c.call(); });
        EXPECT_EQ(r, c.result);
        if (c.request == cpuReq && c.status) {
            EXPECT_DIAG(err, "\nsnmp/ts2hardware.cpp:{line} (getCpuStatus) Failed to send ipmi raw command.\n");
        }
    }
}

// Without a session every getter gives its own failure value and says so.
TEST_F(Getters, NoSession)
{
    char buffer[8] = "keep";
    const std::vector<std::pair<std::function<long long()>, long long>> cases = {
        {[] { return (long long)(getCpuManufacturerName(0x38, 0)[0]); }, 0},
        {[] { return (long long)getCpuStatus(0x38, 0, 0); }, 1},
        {[] { return (long long)getCpuCurrentSpeed(0x38, 0); }, 0xFFFFFFFF},
        {[] { return (long long)getCpuMultithreadingEnabled(0x38, 0); }, 1},
        {[] { return (long long)getMemoryModuleCapacity(0); }, 0xFFFFFFFF},
        {[&] { return (long long)(getMemoryModuleType(buffer, 8, 0) != nullptr); }, 0},
        {[] { return (long long)getMemoryModuleMaxFrequency(0); }, -1},
    };
    for (const auto &[call, result] : cases) {
        ipmihost_script_reset();
        ipmihost_script_open_result(LIBIPMI_STATUS_AUTH_FAILED, -1);
        long long r = 0;
        EXPECT_TRUE(stderrOf([&] { r = call(); }).ends_with("\nfailed to open session\n"));
        EXPECT_EQ(r, result);
    }
    EXPECT_STREQ(buffer, "keep");
}

} // namespace
