// The agent's identity, component status and rollup through the scripted exchange: the
// requests each getter sends and what every kind of answer becomes.
#include <cstring>
#include <functional>

#include "sdr_records.h"

namespace {

using AgentStatus = ScriptTest;

void signalAnswer(uint8_t kind, uint8_t entity, uint8_t instance, uint16_t status, const Bytes &answer)
{
    expect(0xB8, 0xF5, oem({0x42, entity, instance, kind, 0x00}), answer, status);
}
void presenceAnswer(uint8_t kind, uint8_t entity, uint8_t instance, uint16_t status, const Bytes &answer)
{
    expect(0xB8, 0xF5, oem({0x54, entity, instance, kind, 0x00}), answer, status);
}

TEST_F(AgentStatus, IdentityTexts)
{
    char buffer[64];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(snmpGetAgentId(buffer, 43), 43);
    EXPECT_EQ(std::string(buffer, 44), "Halvex Tessorin 2 hardware monitoring agentx");
    EXPECT_EQ(std::tuple(snmpGetAgentId(buffer, 42), snmpGetAgentCompany(buffer, 7)), std::tuple(-1, -1))
        << "too small";
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(snmpGetAgentCompany(buffer, 8), 8);
    EXPECT_EQ(std::string(buffer, 9), "Veltranex");
    EXPECT_EQ(snmpGetAgentWriteAllowed() * 10 + snmpGetAgentShutdownAllowed(), 22);

    // The firmware build variable: text up to its first NUL; nothing read leaves the buffer.
    const Bytes version = oemAnswer({0x06, '2', '.', '1', 0x00, 'z', 'z'});
    expect(0xB8, 0xE0, oem({0x01, 0x01, 0x50, 0x21}), version);
    std::strcpy(buffer, "old");
    EXPECT_EQ(snmpGetAgentVersion(buffer, sizeof buffer), 10);
    EXPECT_STREQ(buffer, "Build: 2.1");
    expect(0xB8, 0xE0, oem({0x01, 0x00, 0x50, 0x21}), oemAnswer({0x00}));
    std::strcpy(buffer, "old");
    EXPECT_EQ(snmpGetAgentBuild(buffer, sizeof buffer), 3);
    EXPECT_STREQ(buffer, "old");
    expect(0xB8, 0xE0, oem({0x01, 0x00, 0x50, 0x21}), version);
    EXPECT_EQ(snmpGetAgentBuild(buffer, 6), 5);
    EXPECT_STREQ(buffer, "Build");
    ipmihost_script_open_result(LIBIPMI_STATUS_TIMEOUT, -1);
    std::string err = stderrOf([&] { EXPECT_EQ(snmpGetAgentVersion(buffer, sizeof buffer), 14); });
    EXPECT_STREQ(buffer, "Build: unknown");
    EXPECT_EQ(err.find("failed to open session"), std::string::npos);
}

TEST_F(AgentStatus, SignalPresenceAndComponentStatus)
{
    IpmiSession *s = open();
    const struct {
        uint16_t status;
        Bytes answer;
        int signal, presence;
    } cases[] = {
        // clang-format off
        {0, oemAnswer({0x07}), 3, 7},           {0, oemAnswer({0x01}, 0x01), 253, -1},
        {0, oemAnswer({}, 0x02), 254, -1},      {0, oemAnswer({0x00}, 0xC1), 255, -1},
        {0, oemAnswer({0xFE}), 2, 254},         {0, oemAnswer({}), 3, 255}, // short: the 0xFF fill
        // another vendor's number; no answer
        {0, {0x00, 0xD9, 0x7E, 0x01, 0x02}, 255, -1}, {LIBIPMI_STATUS_TIMEOUT, {}, 255, -1},
        // clang-format on
    };
    for (const auto &c : cases) {
        signalAnswer(0x0D, 0x1A, 0x02, c.status, c.answer);
        EXPECT_EQ(componentStatusSignalRead(s, 0x0D, 0x1A, 0x02), c.signal);
        presenceAnswer(0x0D, 0x1A, 0x02, c.status, c.answer);
        EXPECT_EQ(getCompStatusPresent(s, 0x0D, 0x1A, 0x02), c.presence);
    }
    // Absent by presence code 1 or 2; else the signal state decides.
    const struct {
        Bytes presence, signal;
        uint32_t status;
    } components[] = {
        {oemAnswer({0x01}), {}, 6},
        {oemAnswer({0x02}), {}, 6},
        {oemAnswer({0x00}), oemAnswer({0x00}), 2},
        {oemAnswer({}, 0xCB), oemAnswer({0x03}), 5},
        {oemAnswer({0x03}), oemAnswer({}, 0x02), 6},
        {oemAnswer({0x03}), oemAnswer({}, 0x01), 6},
        {oemAnswer({0x03}), oemAnswer({}, 0xC0), 1},
    };
    for (const auto &c : components) {
        presenceAnswer(0x04, 0x1D, 0x01, 0, c.presence);
        if (!c.signal.empty()) signalAnswer(0x04, 0x1D, 0x01, 0, c.signal);
        EXPECT_EQ(getComponentSensorStatus(0x04, 0x1D, 0x01), c.status);
    }
    ipmihost_script_open_result(LIBIPMI_STATUS_TIMEOUT, -1);
    std::string err = stderrOf([] { EXPECT_EQ(getComponentSensorStatus(0x04, 0x1D, 0x01), 0u); });
    EXPECT_NE(err.find("failed to open session\n"), std::string::npos);
}

TEST_F(AgentStatus, ExplainingTexts)
{
    IpmiSession *s = open();
    Cache cache({compact(0x50, 0x25, 0x6F, 0x1D, 1, "FAN1 PRESENT"), compact(0x51, 0xE6, 0x6F, 0x1D, 1, "FAN1"),
                 compact(0x60, 0x07, 0x6F, 0x03, 1, "CPU1"), compact(0x70, 0xE8, 0x6F, 0x0A, 1, "PSU1"),
                 compact(0x80, 0xDE, 0x6F, 0x20, 1, "DIMM1"), compact(0x61, 0x07, 0x03, 0x03, 2, "CPU2")});
    auto policy = [](uint8_t p) { expect(0xB8, 0xF5, oem({0x4A}), oemAnswer({p, 0x08})); };
    using Script = std::function<void()>;
    const struct {
        uint8_t entity, instance, kind, statusIn;
        Script script;
        const char *text;
        int statusOut;
    } cases[] = {
        // clang-format off
        {0x1A, 2, 0x0D, 0, [] { signalAnswer(0x0D, 0x1A, 2, 0, oemAnswer({}, 0x02)); }, "Empty Slot", 254},
        {0x1D, 1, 0x04, 0, [] { expectReading(0x50, discreteAnswer(0x00)); }, nullptr, 253},
        {0x1D, 1, 0x04, 0, [] { expectReading(0x50, discreteAnswer(0x01)); expectReading(0x51, discreteAnswer(0x20)); },
         "Fan not installed", 0},
        {0x1D, 1, 0x04, 2, [] { expectNoReading(0x50); expectPower(false); expectNoReading(0x51); expectPower(false); },
         "Power Off", 2},
        {0x03, 1, 0x07, 0, [] { expectReading(0x60, discreteAnswer(0x0000)); }, "Processor not installed", 0},
        {0x03, 1, 0x07, 0, [] { expectReading(0x60, discreteAnswer(0x0180)); }, "Disabled", 0},
        {0x03, 1, 0x07, 0, [] { expectNoReading(0x60); expectPower(true); }, nullptr, 0},
        {0x03, 2, 0x07, 0, [] {}, nullptr, 0}, // not sensor-specific: nothing to say
        {0x0A, 1, 0x08, 0, [] { expectReading(0x70, discreteAnswer(0x0001)); }, "PSU not installed", 0},
        {0x20, 1, 0x0C, 0, [&] { policy(0); expectReading(0x80, discreteAnswer(0x0001)); }, "Empty Slot", 0},
        {0x20, 1, 0x0C, 0, [&] { policy(0); expectReading(0x80, discreteAnswer(0x0082)); }, "Unknown", 0},
        {0x20, 1, 0x0C, 0, [&] { policy(0); expectNoReading(0x80); expectPower(true); }, "N/A", 0},
        {0x20, 1, 0x0C, 1, [&] { policy(0); expectPower(false); }, "Power Off", 1},
        {0x20, 1, 0x0C, 0, [&] { policy(1); }, nullptr, 0},
        // A PCI slot: empty by the slot table (instance + 1), whatever the signal said.
        {0x31, 4, 0x2B, 0, [] {
             signalAnswer(0x2B, 0x31, 4, 0, oemAnswer({0x01}));
             expect(0xB8, 0xF1, oem({0x1A, 0x01, 0x00}), oemAnswer({0, 0, 3, 0x86, 0x80, 0x10, 0x15}));
             expect(0xB8, 0xF1, oem({0x1A, 0x02, 0x00}), oemAnswer({}, 0xC9)); },
         "Empty PCI Slot", 1},
        {0x31, 4, 0x2B, 0, [] { signalAnswer(0x2B, 0x31, 4, 0, oemAnswer({}, 0x01)); }, nullptr, 253},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.kind) + "/" + std::to_string(c.entity) + "." + std::to_string(c.instance));
        c.script();
        uint8_t status = c.statusIn;
        const char *text = ipmiGetSignalStatus(s, c.entity, c.instance, c.kind, &status, cache.get());
        EXPECT_STREQ(text, c.text);
        EXPECT_EQ(status, c.statusOut);
        EXPECT_EQ(ipmihost_script_pending(), 0u);
    }
}

// Sends the answers one status getter needs.
void memoryStatus(uint8_t module, uint8_t value) { expect(0xB8, 0xF5, oem({0x48, module}), oemAnswer({value})); }
void cpuStatus(uint8_t socket, uint8_t value) { expect(0xB8, 0xF5, oem({0x4B, socket}), oemAnswer({value})); }
void boot(const Bytes &answer) { signalAnswer(0x00, 0x22, 0x00, 0, answer); }

TEST_F(AgentStatus, RollupKeepsTheWorstCountingComponent)
{
    EXPECT_EQ((std::vector<int>{getUnitComponentStatus(0x01, 5), getUnitComponentStatus(0xE8, 8),
                                getUnitComponentStatus(0x0C, 10), getUnitComponentStatus(0x0C, 11),
                                getUnitComponentStatus(0x09, 3)}),
              (std::vector<int>{3, 0, 1, 0, 0}));

    Cache cache({full(0x01, 0x01, "Ambient"), compact(0x90, 0x0C, 0x01, 0x20, 1, "DIMM A"),
                 compact(0x60, 0x07, 0x03, 0x03, 1, "CPU0 other"), compact(0x61, 0x07, 0x6F, 0x03, 1, "CPU0"),
                 compact(0x91, 0x0C, 0x6F, 0x20, 2, "DIMM B"), compact(0x70, 0xE8, 0x6F, 0x0A, 1, "PSU1"),
                 full(0x05, 0x0B, "Power"), compact(0x62, 0x07, 0x6F, 0x03, 2, "CPU1")});
    Cache empty({});
    using Script = std::function<void()>;
    const struct {
        SDRInfo *info;
        uint8_t filter;
        Script script;
        uint32_t result;
    } cases[] = {
        // Temperature upper critical (2), DIMM status 6 (3), CPU 2 (1), PSU 2 (0), boot 1.
        {cache.get(), 0,
         [] {
             expectReading(0x01, thresholdAnswer(0x20, 0x08));
             memoryStatus(0, 4);
             cpuStatus(0, 0);
             memoryStatus(1, 0);
             expectReading(0x70, discreteAnswer(0x0001));
             cpuStatus(1, 0);
             boot(oemAnswer({0x00}));
         },
         3},
        // Processor status 1 does not count; the failing second socket (index 1) does.
        {cache.get(), 0x07, [] { cpuStatus(0, 6); cpuStatus(1, 4); }, 3},
        {cache.get(), 0x07, [] { cpuStatus(0, 6); cpuStatus(1, 6); }, 5},
        // The boot status joins the unfiltered rollup only, unless it is unknown.
        {empty.get(), 0, [] { boot(oemAnswer({0x02})); }, 2},
        {empty.get(), 0, [] { boot(oemAnswer({}, 0xC1)); }, 5},
        {empty.get(), 0x04, [] {}, 5},
    };
    for (const auto &c : cases) {
        c.script();
        EXPECT_EQ(getStatusOverall(c.info, c.filter), c.result) << "filter " << int(c.filter);
        EXPECT_EQ(ipmihost_script_pending(), 0u);
    }
    // The wrappers pass their class.
    memoryStatus(0, 3);
    memoryStatus(1, 2);
    EXPECT_EQ(getStatusMemoryModule(cache.get()), 3u);
    ipmihost_script_open_result(LIBIPMI_STATUS_TIMEOUT, -1);
    stderrOf([&] { EXPECT_EQ(getStatusOverall(cache.get(), 0), 5u); });
    boot(oemAnswer({0x03}));
    EXPECT_EQ(getStatusBoot(), 3u);
}

} // namespace
