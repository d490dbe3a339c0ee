// The library's SDR cache, list, sensor readings, component status and sensor texts: over
// hand-made caches, through the scripted exchange, and built from the virtual controller
// (the default machine, and 1,000 records read with one Get SDR request per record).
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "generated_machine.h"
#include "scripted.h"
#include "libipmi_host.h"
#include "tvx_toipmi.h"

namespace {

struct Rec {
    uint8_t type, sensorNumber, entity, instance, sensorType;
};

// A cache of hand-made slots: just the positions the lookups read, the rest a fill pattern.
class Cache {
public:
    Cache(uint32_t slotSize, std::vector<Rec> recs)
    {
        info_.recordSize = slotSize;
        info_.count = static_cast<uint32_t>(recs.size());
        info_.records = static_cast<uint8_t *>(std::malloc(slotSize * recs.size()));
        std::memset(info_.records, 0xA5, slotSize * recs.size());
        for (size_t i = 0; i < recs.size(); ++i) {
            uint8_t *s = info_.records + i * slotSize;
            s[0] = static_cast<uint8_t>(i + 1);
            s[1] = 0;
            if (slotSize > 3) s[3] = recs[i].type;
            if (slotSize > 7) s[7] = recs[i].sensorNumber;
            if (slotSize > 8) s[8] = recs[i].entity;
            if (slotSize > 9) s[9] = recs[i].instance;
            if (slotSize > 12) s[12] = recs[i].sensorType;
        }
    }
    ~Cache() { freeSDRInfo(&info_); }
    SDRInfo *get() { return &info_; }
    uint8_t *slot(size_t i) { return info_.records + i * info_.recordSize; }

private:
    SDRInfo info_{};
};

size_t length(const ListNode *l)
{
    size_t n = 0;
    for (; l; l = l->next) ++n;
    return n;
}

TEST(SdrCache, CompactLookupSkipsFullAndOtherRecordsAndTakesTheFirstMatch)
{
    // A full record for the same entity and type comes first; an MC locator (0x12) with
    // the same bytes; then two compact matches.
    Cache c(64, {{0x01, 10, 0x1D, 1, 0x04}, {0x12, 10, 0x1D, 1, 0x04}, {0x02, 11, 0x1D, 1, 0x04},
                 {0x02, 12, 0x1D, 1, 0x04}, {0x02, 13, 0x1D, 2, 0x04}});
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 1, 0x04, c.get()), c.slot(2));
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 2, 0x04, c.get()), c.slot(4));
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 3, 0x04, c.get()), nullptr);
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 1, 0x01, c.get()), nullptr);
}

TEST(SdrCache, IndexLookupAndEmptyCaches)
{
    Cache c(32, {{0x01, 1, 3, 1, 1}, {0x02, 2, 3, 1, 1}});
    EXPECT_EQ(getSdrByIndex(0, c.get()), c.slot(0));
    EXPECT_EQ(getSdrByIndex(1, c.get()), c.slot(1));
    EXPECT_EQ(getSdrByIndex(2, c.get()), nullptr) << "never a pointer past the cache";

    SDRInfo empty{};
    for (uint32_t i : {0u, 1u, 100u}) EXPECT_EQ(getSdrByIndex(i, &empty), nullptr);
    EXPECT_EQ(findCompactSdrByEntity(0, 0, 0, &empty), nullptr);
    ListNode *list = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&list, 1, 1, &empty), 0u);
    EXPECT_EQ(list, nullptr);

    SDRInfo zeroSlot{0, c.get()->records, 2};
    EXPECT_EQ(getSdrByIndex(0, &zeroSlot), nullptr);
}

TEST(SdrCache, FindByTypeCopiesFullAndCompactRecordsInOrder)
{
    Cache c(64, {{0x01, 1, 3, 1, 0x01}, {0x02, 2, 3, 1, 0x01}, {0x01, 3, 3, 2, 0x01}, {0x01, 4, 3, 2, 0x02},
                 {0x03, 5, 3, 1, 0x01}});
    ListNode *full = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&full, 0x01, 0x01, c.get()), 2u);
    ASSERT_EQ(length(full), 2u);
    EXPECT_EQ(0, std::memcmp(full->data, c.slot(0), 64));
    EXPECT_EQ(0, std::memcmp(full->next->data, c.slot(2), 64));
    EXPECT_EQ(full->data[64], 0) << "each copy is followed by a zero byte";

    // The list is appended to, not replaced.
    EXPECT_EQ(ipmiFindSensorByType(&full, 0x02, 0x01, c.get()), 1u);
    ASSERT_EQ(length(full), 3u);
    EXPECT_EQ(0, std::memcmp(full->next->next->data, c.slot(1), 48));
    EXPECT_EQ(full->next->next->data[48], 0) << "compact copies are 48 bytes";

    for (uint8_t other : {0x00, 0x03, 0x11, 0x12}) {
        ListNode *none = nullptr;
        EXPECT_EQ(ipmiFindSensorByType(&none, other, 0x01, c.get()), 0u) << int(other);
        EXPECT_EQ(none, nullptr);
    }
    freeList(&full);
    EXPECT_EQ(full, nullptr);
}

TEST(SdrCache, FindByTypeNeverCopiesPastTheEndOfASmallCache)
{
    // 20-byte slots: a full record copy (64 bytes) of the last slot may take only what the
    // cache still holds; the sanitizer run catches any read beyond it.
    Cache c(20, {{0x01, 1, 3, 1, 0x01}, {0x01, 2, 3, 1, 0x01}});
    ListNode *list = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&list, 0x01, 0x01, c.get()), 2u);
    ASSERT_EQ(length(list), 2u);
    EXPECT_EQ(0, std::memcmp(list->next->data, c.slot(1), 20));
    EXPECT_EQ(list->next->data[20], 0);
    freeList(&list);
}

TEST(List, AppendsCopiesAtTheTailAndFreesEverything)
{
    ListNode *list = nullptr;
    EXPECT_EQ(addToList(&list, "x", 0), 0);
    EXPECT_EQ(addToList(&list, nullptr, 4), 0);
    EXPECT_EQ(list, nullptr);

    char text[] = "alpha";
    ASSERT_EQ(addToList(&list, text, 5), 1);
    text[0] = 'X'; // the list holds a copy
    ASSERT_EQ(addToList(&list, "beta", 4), 1);
    uint32_t word = 0x01020304;
    ASSERT_EQ(addToList(&list, &word, sizeof word), 1);
    ASSERT_EQ(length(list), 3u);
    EXPECT_STREQ(reinterpret_cast<char *>(list->data), "alpha");
    EXPECT_STREQ(reinterpret_cast<char *>(list->next->data), "beta");
    EXPECT_EQ(0, std::memcmp(list->next->next->data, &word, 4));
    EXPECT_EQ(list->next->next->next, nullptr);
    freeList(&list);
    EXPECT_EQ(list, nullptr);
    freeList(&list);
}

class Scripted : public ScriptTest {
protected:
    void SetUp() override
    {
        ScriptTest::SetUp();
        open();
    }
    static void expect(uint8_t netFnLun, uint8_t cmd, const Bytes &req, uint16_t status, const Bytes &res)
    {
        expectRequest(netFnLun, cmd, req, status, res);
    }
    static ipmihost_call lastRaw() { return rawSince().back(); }
};

TEST_F(Scripted, SensorReadingAnswers)
{
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int result;
        uint8_t reading;
        uint16_t state;
    } cases[] = {
        {"five bytes", 0, {0x00, 0x2A, 0xC0, 0x12, 0x85}, 1, 0x2A, 0x0512},
        {"four bytes", 0, {0x00, 0x2A, 0xC0, 0x12}, 1, 0x2A, 0x0012},
        {"three bytes", 0, {0x00, 0x2A, 0xC0}, 1, 0x2A, 0x0000},
        {"unavailable while scanning", 0, {0x00, 0x2A, 0x60, 0x12, 0x00}, 0, 0, 0},
        {"unavailable, scanning off", 0, {0x00, 0x2A, 0x20, 0x12, 0x00}, 1, 0, 0},
        {"completion code", 0x01CB, {0xCB}, 0, 0, 0}, {"no answer", LIBIPMI_STATUS_TIMEOUT, {}, 0, 0, 0},
    };
    for (const auto &c : cases) {
        expect(0x10, 0x2D, {0x31}, c.status, c.answer);
        uint8_t reading = 0xEE;
        uint16_t state = 0xEEEE;
        EXPECT_EQ(ipmiGetSensorReading(session_, 0x31, &reading, &state), c.result) << c.what;
        EXPECT_EQ(reading, c.reading) << c.what;
        EXPECT_EQ(state, c.state) << c.what;
        ipmihost_call call = lastRaw();
        EXPECT_EQ(call.resLenIn, 5u) << c.what;
        EXPECT_EQ(call.timeout, 60) << c.what;
    }
    // Both outputs are optional; with no session nothing is sent.
    expect(0x10, 0x2D, {0x07}, 0, {0x00, 0x10, 0xC0, 0x00});
    EXPECT_EQ(ipmiGetSensorReading(session_, 0x07, nullptr, nullptr), 1);
    uint8_t reading = 0xEE;
    EXPECT_EQ(ipmiGetSensorReading(nullptr, 0x07, &reading, nullptr), 0);
    EXPECT_EQ(reading, 0xEE);
}

Bytes statusAnswer(uint8_t cc, Bytes tail)
{
    Bytes b = {cc, 0xD9, 0x7E, 0x00, 0x11, 0x22, 0x01, 0x02, 0x03, 0xFE, 0x44};
    b.insert(b.end(), tail.begin(), tail.end());
    return b;
}

TEST_F(Scripted, ComponentStatusRecord)
{
    const Bytes request = {0xD9, 0x7E, 0x00, 0x40, 0x5A, 0xA5, 0x01};
    const uint8_t key[2] = {0x5A, 0xA5};
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        bool record;
        int8_t st;
        uint8_t nameLength;
        std::string name;
    } cases[] = {
        {"full", 0, statusAnswer(0x00, {0x04, 'C', 'P', 'U', '1'}), true, 2, 4, "CPU1"},
        {"sixteen characters", 0, statusAnswer(0x00, {0x10, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K',
                                                      'L', 'M', 'N', 'O', 'P', 'Q'}),
         true, 2, 16, "ABCDEFGHIJKLMNOP"},
        {"name length too long", 0, statusAnswer(0x00, {0x11, 'A', 'B'}), true, 2, 17, ""},
        {"length byte masked", 0, statusAnswer(0x00, {0xE3, 'x', 'y', 'z'}), true, 2, 3, "xyz"},
        {"name cut by the answer", 0, statusAnswer(0x00, {0x08, 'a', 'b'}), true, 2, 8, "ab"},
        {"no name length", 0, statusAnswer(0x00, {}), true, 2, 0, ""},
        {"length only", 0, statusAnswer(0x00, {0x05}), true, 2, 5, ""},
        {"completion code 0x01", 0x0101, statusAnswer(0x01, {0x01, 'Z'}), true, -3, 1, "Z"},
        {"completion code 0x02", 0x0102, statusAnswer(0x02, {}), true, -2, 0, ""},
        {"completion code 0xCB", 0x01CB, statusAnswer(0xCB, {}), true, -1, 0, ""},
        {"ten bytes", 0, Bytes{0x00, 0xD9, 0x7E, 0x00, 0x11, 0x22, 0x01, 0x02, 0x03, 0xFE}, false, 0, 0, ""},
        {"bare completion code", 0x01C1, {0xC1}, false, 0, 0, ""},
        {"another vendor", 0, {0x00, 0x01, 0x02, 0x03, 1, 2, 3, 4, 5, 6, 7, 8}, false, 0, 0, ""},
        {"no answer", LIBIPMI_STATUS_TIMEOUT, {}, false, 0, 0, ""},
    };
    for (const auto &c : cases) {
        expect(0xB8, 0xF5, request, c.status, c.answer);
        ComponentStatus *s = oemGetComponentStatus(session_, key);
        EXPECT_EQ(lastRaw().resLenIn, 64u) << c.what;
        if (!c.record) {
            EXPECT_EQ(s, nullptr) << c.what;
            std::free(s);
            continue;
        }
        ASSERT_NE(s, nullptr) << c.what;
        EXPECT_EQ(s->componentId[0], 0x11) << c.what;
        EXPECT_EQ(s->componentId[1], 0x22) << c.what;
        EXPECT_EQ(0, std::memcmp(s->componentBytes, "\x01\x02\x03", 3)) << c.what;
        EXPECT_EQ(s->status, c.st) << c.what;
        EXPECT_EQ(s->componentByte, 0x44) << c.what;
        EXPECT_EQ(s->nameLength, c.nameLength) << c.what;
        EXPECT_EQ(std::string(s->name, strnlen(s->name, sizeof s->name)), c.name) << c.what;
        for (size_t i = c.name.size(); i < sizeof s->name; ++i) EXPECT_EQ(s->name[i], 0) << c.what << " pad " << i;
        std::free(s);
    }
}

TEST(SensorTexts, ThresholdStatusTakesTheMostSevereLowerFirst)
{
    const struct {
        uint32_t bits;
        const char *text;
    } cases[] = {
        {0x00, "OK"},     {0x40, "OK"},        {0xC0, "OK"},       {0x01, "LowWarn"},  {0x08, "UpWarn"},
        {0x09, "LowWarn"}, {0x03, "LowCrit"},  {0x18, "UpCrit"},   {0x12, "LowCrit"},  {0x19, "UpCrit"},
        {0x24, "LowNRecov"}, {0x20, "UpNRecov"}, {0x3F, "LowNRecov"}, {0x38, "UpNRecov"}, {0x109, "LowWarn"},
    };
    for (const auto &c : cases) EXPECT_STREQ(ipmiSdrGetStatus(c.bits), c.text) << std::hex << c.bits;
}

TEST(SensorTexts, DiscreteStateLookup)
{
    const struct {
        uint8_t sensorType, eventType, low, high;
        const char *text; // nullptr: no text
        int32_t offset;
    } cases[] = {
        {0x08, 0x6F, 0x41, 0x00, "Presence detected", 0}, {0x08, 0x6F, 0x08, 0x00, "Power Supply AC lost", 3},
        {0x01, 0x6F, 0x01, 0x00, "[no description]", -1}, {0x21, 0x6F, 0x80, 0x02, "Interlock", 7},
        {0x21, 0x6F, 0x01, 0x02, "Fault Status", 0}, {0x21, 0x6F, 0x40, 0x02, "Device Removal Request", 6},
        {0x21, 0x6F, 0x20, 0x00, "Slot Power is Off", 5}, {0x0C, 0x6F, 0x10, 0x02, "Memory Device Disabled", 4},
        // Offsets above 7 come from the high byte, but only once the low byte is non-zero.
        {0xEA, 0x6F, 0x08, 0x01, "Config Space Change Notify", 8}, {0x07, 0x6F, 0x80, 0x04, "Processor detected", 7},
        {0x07, 0x6F, 0x00 + 0x01, 0x04, "IERR", 0},
        {0x22, 0x6F, 0x02, 0x20, "S1: sleeping with system hw & processor context maintained", 1},
        {0xE6, 0x6F, 0x02, 0x00, "Fan failed", 1}, {0xDF, 0x6F, 0x80, 0x00, "Unknown Configuration", 7},
        // Generic tables, by event/reading type.
        {0x01, 0x01, 0x04, 0x00, "Lower Critical going low ", 2}, {0x02, 0x0B, 0x02, 0x00, "Redundancy Lost", 1},
        {0x04, 0x08, 0x03, 0x00, "Device Absent", 0}, {0x05, 0x0C, 0x08, 0x00, "D3 Power State", 3},
        // Asserted states without a row, OEM reading types, unknown keys.
        {0x22, 0x6F, 0x00 + 0x01, 0x00, "S0/G0: working", 0}, {0x05, 0x70, 0x01, 0x00, nullptr, -1},
        {0x30, 0x6F, 0xFF, 0xFF, nullptr, -1}, {0x05, 0x6F, 0x80, 0x00, nullptr, -1},
    };
    for (const auto &c : cases) {
        int32_t offset = 99;
        const char *text = ipmiGetDiscreteState(c.sensorType, c.eventType, c.low, c.high, &offset);
        if (c.text) {
            ASSERT_NE(text, nullptr) << std::hex << int(c.sensorType) << " " << int(c.low);
            EXPECT_STREQ(text, c.text);
        } else {
            EXPECT_EQ(text, nullptr) << std::hex << int(c.sensorType) << " " << int(c.low);
        }
        EXPECT_EQ(offset, c.offset) << std::hex << int(c.sensorType) << " " << int(c.low);
        // The offset pointer is optional.
        EXPECT_EQ(ipmiGetDiscreteState(c.sensorType, c.eventType, c.low, c.high, nullptr), text);
    }
}

TEST(SensorTexts, SensorTypeNames)
{
    char hex2d[32];
    std::snprintf(hex2d, sizeof hex2d, "OEM reserved #%02x", 0x2D);
    const struct {
        uint32_t type;
        std::string text;
    } cases[] = {
        {0x00, "reserved"}, {0x01, "Temperature"}, {0x2D, hex2d}, {0xF0, "PICMG FRU Hotswap"},
        {0xC0, "I2C Bus"}, // the vendor's own row, not vendor 15000's
        {0xE6, "Fan Status"}, {0xDF, std::string("Memory Module Configuration Status").substr(0, 31)},
        {0x1234, "OEM reserved #1234"},
    };
    for (const auto &c : cases) EXPECT_EQ(ipmiSdrGetSensorTypeDesc(c.type), c.text) << std::hex << c.type;
}

TEST(SensorTexts, OemValueLookup)
{
    EXPECT_STREQ(oemval2str(15000, 0xC0, ipmi_oem_sdr_type_vals), "OEM Firmware Info");
    EXPECT_STREQ(oemval2str(32473, 0xC0, ipmi_oem_sdr_type_vals), "I2C Bus");
    EXPECT_STREQ(oemval2str(1, 0xF1, ipmi_oem_sdr_type_vals), "PICMG IPMB0 Link State");
    EXPECT_STREQ(oemval2str(1, 0xC0, ipmi_oem_sdr_type_vals), "OEM reserved #c0");
    // A caller's table ends at the first row with vendor 0 or no text.
    const OemValueString mine[] = {{7, 1, "one"}, {0, 2, "hidden"}, {7, 2, "two"}, {0xFFFF, 0, nullptr}};
    EXPECT_STREQ(oemval2str(7, 1, mine), "one");
    EXPECT_STREQ(oemval2str(7, 2, mine), "OEM reserved #02");
    // Texts are cut to the buffer.
    const OemValueString longText[] = {{7, 1, "0123456789012345678901234567890123456789"}, {0xFFFF, 0, nullptr}};
    EXPECT_EQ(std::string(oemval2str(7, 1, longText)), "0123456789012345678901234567890");
}

using nlohmann::json;

std::string tempDir()
{
    char pattern[] = "/tmp/tvx-sdrcache-XXXXXX";
    const char *dir = mkdtemp(pattern);
    return dir ? dir : "";
}

json loadDefault()
{
    std::ifstream in(std::string(TVX_MACHINES_DIR) + "/default.json");
    return json::parse(in);
}

class Machine {
public:
    explicit Machine(const std::string &profile)
    {
        dir_ = tempDir();
        if (ipmihost_select_machine(profile.c_str(), dir_.c_str()) != 0) ADD_FAILURE() << ipmihost_last_error();
        session_ = ipmiOpenSession(4, "", nullptr, 0, nullptr);
    }
    ~Machine()
    {
        freeSDRInfo(&info);
        ipmiHelperCloseSession(&session_);
        ipmihost_select_default();
        std::system(("rm -rf " + dir_).c_str());
    }
    IpmiSession *session() const { return session_; }
    const std::string &dir() const { return dir_; }
    SDRInfo info{};

private:
    std::string dir_;
    IpmiSession *session_ = nullptr;
};

int countSensors(const json &sensors, const char *record, int type)
{
    int n = 0;
    for (const auto &s : sensors) {
        std::string t = s["type"].is_string() ? s["type"].get<std::string>() : std::to_string(s["type"].get<int>());
        if (s["record"] == record && std::stoi(t, nullptr, 0) == type) ++n;
    }
    return n;
}

TEST(SdrCacheOnTheDefaultMachine, HoldsEveryRecordAndAnswersLookups)
{
    json profile = loadDefault();
    Machine m(std::string(TVX_MACHINES_DIR) + "/default.json");
    ASSERT_NE(m.session(), nullptr);
    ASSERT_EQ(getSDRInfo(m.session(), &m.info), 1);
    size_t records = profile["sensors"].size() + profile.value("fru_locators", json::array()).size() +
                     profile.value("mc_locators", json::array()).size();
    EXPECT_EQ(m.info.count, records);
    EXPECT_EQ(m.info.recordSize, profile["sdr"]["allocation_unit_size"].get<uint32_t>() *
                                     profile["sdr"]["max_record_units"].get<uint32_t>());

    // Records in repository order with consecutive IDs, each starting with its header.
    for (uint32_t i = 0; i < m.info.count; ++i) {
        uint8_t *r = getSdrByIndex(i, &m.info);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r[0] | r[1] << 8, static_cast<int>(i + 1));
        EXPECT_EQ(r[2], 0x51);
    }

    // Every sensor of the profile is found where it should be.
    for (const auto &s : profile["sensors"]) {
        auto number = [](const json &v) {
            return v.is_string() ? std::stoi(v.get<std::string>(), nullptr, 0) : v.get<int>();
        };
        if (s["record"] != "compact") continue;
        uint8_t *r = findCompactSdrByEntity(static_cast<uint8_t>(number(s["entity"])),
                                            static_cast<uint8_t>(number(s["instance"])),
                                            static_cast<uint8_t>(number(s["type"])), &m.info);
        ASSERT_NE(r, nullptr) << s["name"];
        EXPECT_EQ(r[7], number(s["number"])) << s["name"];
    }

    for (int type : {0x01, 0x02, 0x04, 0xE6}) {
        for (const char *kind : {"full", "compact"}) {
            ListNode *list = nullptr;
            uint32_t n = ipmiFindSensorByType(&list, std::strcmp(kind, "full") == 0 ? 1 : 2, static_cast<uint8_t>(type),
                                              &m.info);
            EXPECT_EQ(static_cast<int>(n), countSensors(profile["sensors"], kind, type)) << kind << " " << type;
            freeList(&list);
        }
    }
}

TEST(SdrCacheOfAThousandRecords, CostsOneGetSdrPerRecordPlusReservationAndInfo)
{
    std::string dir = tempDir();
    std::string path = dir + "/thousand.json";
    std::ofstream(path) << tvxtest::generatedRepository(TVX_MACHINES_DIR, 1000).dump();
    Machine m(path);
    ASSERT_NE(m.session(), nullptr);
    ipmihost_reset_request_count();
    ASSERT_EQ(getSDRInfo(m.session(), &m.info), 1);
    EXPECT_EQ(m.info.count, 1000u);
    // Allocation info, repository info, one reservation and one Get SDR per record.
    EXPECT_LE(ipmihost_request_count(), 1000u + 3u);
    for (uint32_t i = 0; i < 1000; ++i) {
        uint8_t *r = getSdrByIndex(i, &m.info);
        ASSERT_EQ(r[0] | r[1] << 8, static_cast<int>(i + 1));
        ASSERT_EQ(r[3], i % 2 == 0 ? 0x01 : 0x02) << i;
    }
    ListNode *fans = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&fans, 2, 0x04, &m.info), 500u);
    freeList(&fans);
    std::system(("rm -rf " + dir).c_str());
}

} // namespace
