// The library's SDR cache, list, sensor readings and component status; 1,000 records from the controller.
#include <cstdlib>
#include <cstring>

#include "machine.h"
#include "sdr_records.h"

namespace {

// A record with just the key fields the lookups read.
Bytes rec(uint8_t type, uint8_t number, uint8_t entity, uint8_t instance, uint8_t sensorType)
{
    return record(type, number, sensorType, 0x01, entity, instance, "");
}

size_t length(const ListNode *l)
{
    size_t n = 0;
    for (; l; l = l->next) ++n;
    return n;
}

TEST(SdrCache, LookupsByEntityIndexAndType)
{
    // A full record, an MC locator (0x12) with the same bytes, then compact matches.
    Cache c({rec(0x01, 10, 0x1D, 1, 0x04), rec(0x12, 10, 0x1D, 1, 0x04), rec(0x02, 11, 0x1D, 1, 0x04),
             rec(0x02, 12, 0x1D, 1, 0x04), rec(0x02, 13, 0x1D, 2, 0x04), rec(0x01, 14, 0x1D, 2, 0x04)});
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 1, 0x04, c.get()), c.slot(2));
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 2, 0x04, c.get()), c.slot(4));
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 3, 0x04, c.get()), nullptr);
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 1, 0x01, c.get()), nullptr);
    EXPECT_EQ(getSdrByIndex(5, c.get()), c.slot(5));
    EXPECT_EQ(getSdrByIndex(6, c.get()), nullptr) << "never a pointer past the cache";
    SDRInfo zeroSlot{0, c.bytes.data(), 2}, empty{};
    EXPECT_EQ(getSdrByIndex(0, &zeroSlot), nullptr);
    EXPECT_EQ(getSdrByIndex(0, &empty), nullptr);
    EXPECT_EQ(findCompactSdrByEntity(0, 0, 0, &empty), nullptr);

    ListNode *full = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&full, 0x01, 0x04, c.get()), 2u);
    ASSERT_EQ(length(full), 2u);
    EXPECT_EQ(0, std::memcmp(full->data, c.slot(0), 64));
    EXPECT_EQ(0, std::memcmp(full->next->data, c.slot(5), 64));
    EXPECT_EQ(full->data[64], 0) << "each copy is followed by a zero byte";
    // The list is appended to, not replaced; compact copies are 48 bytes.
    EXPECT_EQ(ipmiFindSensorByType(&full, 0x02, 0x04, c.get()), 3u);
    ASSERT_EQ(length(full), 5u);
    EXPECT_EQ(0, std::memcmp(full->next->next->data, c.slot(2), 48));
    EXPECT_EQ(full->next->next->data[48], 0);
    freeList(&full);
    EXPECT_EQ(full, nullptr);
    ListNode *none = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&none, 0x12, 0x04, c.get()), 0u) << "only sensor records are found";
    EXPECT_EQ(none, nullptr);

    // 20-byte slots: the 64-byte copy of the last slot takes only what the cache holds.
    Cache small({rec(0x01, 1, 3, 1, 0x01), rec(0x01, 2, 3, 1, 0x01)}, 20);
    EXPECT_EQ(ipmiFindSensorByType(&full, 0x01, 0x01, small.get()), 2u);
    ASSERT_EQ(length(full), 2u);
    EXPECT_EQ(0, std::memcmp(full->next->data, small.slot(1), 20));
    EXPECT_EQ(full->next->data[20], 0);
    freeList(&full);
}

using Scripted = ScriptTest;

// Readings of the virtual controller's sensors through the library are read in the controller
// tests; here what it does not give: unavailable with scanning off, a completion code.
TEST_F(Scripted, SensorReadingAnswers)
{
    open();
    for (const auto &[answer, status, result] :
         {std::tuple{Bytes{0x00, 0x2A, 0x20, 0x12, 0x00}, uint16_t(0), 1}, {Bytes{0xCB}, cc(0xCB), 0}}) {
        expect(0x10, 0x2D, {0x31}, answer, status);
        uint8_t reading = 0xEE;
        uint16_t state = 0xEEEE;
        EXPECT_EQ(ipmiGetSensorReading(session_, 0x31, &reading, &state), result) << answer.size();
        EXPECT_EQ(std::tuple(reading, state), std::tuple(0, 0));
        EXPECT_EQ(rawSince().back().resLenIn, 5u);
    }
    // Both outputs are optional.
    expect(0x10, 0x2D, {0x07}, {0x00, 0x10, 0xC0, 0x00});
    EXPECT_EQ(ipmiGetSensorReading(session_, 0x07, nullptr, nullptr), 1);
}

// What the controller cannot give (the virtual controller's components are read in the
// controller tests): a component that answers completion code 1, answers too short, another
// vendor's answer.
TEST_F(Scripted, ComponentStatusRecord)
{
    open();
    const uint8_t key[2] = {0x5A, 0xA5};
    const Bytes head = {0x11, 0x22, 0x01, 0x02, 0x03, 0xFE, 0x44};
    for (const auto &[answer, record] :
         {std::pair{oemAnswer(cat({head, {0x01, 'Z'}}), 0x01),
                    cat({{0x11, 0x22, 0x01, 0x02, 0x03, uint8_t(-3), 0x44, 1, 'Z'}, Bytes(15, 0)})},
          {oemAnswer({0x11, 0x22, 0x01, 0x02, 0x03, 0xFE}), Bytes{}}, // ten bytes
          {Bytes{0x00, 0x01, 0x02, 0x03, 1, 2, 3, 4, 5, 6, 7, 8}, Bytes{}}}) {
        expect(0xB8, 0xF5, oem({0x40, 0x5A, 0xA5, 0x01}), answer, answer[0] ? cc(answer[0]) : 0);
        ComponentStatus *s = oemGetComponentStatus(session_, key);
        EXPECT_EQ(s ? Bytes(reinterpret_cast<uint8_t *>(s), reinterpret_cast<uint8_t *>(s) + sizeof *s) : Bytes{},
                  record);
        EXPECT_EQ(rawSince().back().resLenIn, 64u);
        std::free(s);
    }
}

// The text lookups' own logic (not their tables): severity order, the lowest asserted state,
// unknown codes, the vendor match of OEM rows and the static buffers' fallbacks.
TEST(SensorTexts, PickTheRightRowOrAFallback)
{
    using Texts = std::vector<std::string>;
    EXPECT_EQ((Texts{ipmiSdrGetStatus(0), ipmiSdrGetStatus(0x3F), ipmiSdrGetStatus(0x32), ipmiSdrGetStatus(0x09),
                     ipmiSdrGetStatus(0xC8)}),
              (Texts{"OK", "LowNRecov", "UpNRecov", "LowWarn", "UpWarn"}));
    int32_t offset = 7;
    EXPECT_EQ(ipmiGetDiscreteState(0x25, 0x6F, 0x00, 0x00, &offset), nullptr);
    EXPECT_EQ(offset, 7) << "untouched when nothing is asserted";
    EXPECT_STREQ(ipmiGetDiscreteState(0x25, 0x6F, 0x06, 0x00, &offset), "Absent");
    EXPECT_EQ(offset, 1);
    EXPECT_EQ(ipmiGetDiscreteState(0x25, 0x6F, 0x00, 0x00, nullptr), nullptr);
    EXPECT_EQ(ipmiGetDiscreteState(0x99, 0x6F, 0x01, 0x00, &offset), nullptr);
    EXPECT_EQ(offset, -1);
    // Rows of vendor 12634 match any vendor; another vendor's row does not.
    EXPECT_EQ((Texts{ipmiSdrGetSensorTypeDesc(0x01), ipmiSdrGetSensorTypeDesc(0xE6), ipmiSdrGetSensorTypeDesc(0xF0),
                     ipmiSdrGetSensorTypeDesc(0x7E), oemval2str(1, 0xE6, ipmi_oem_sdr_type_vals),
                     oemval2str(1, 5, nullptr), getUnitDesc(92), getUnitDesc(93)}),
              (Texts{"Temperature", "Fan Status", "PICMG FRU Hotswap", "OEM reserved #7e", "OEM reserved #e6",
                     "OEM reserved #05", "grams", "unknown"}));
}

TEST(SdrCacheOfAThousandRecords, CostsOneGetSdrPerRecordPlusReservationAndInfo)
{
    tvxtest::ScratchMachine m(tvxtest::generatedRepository(1000));
    SDRInfo info{};
    ipmihost_reset_request_count();
    ASSERT_EQ(getSDRInfo(m.session(), &info), 1);
    EXPECT_EQ(info.count, 1000u);
    // Allocation info, repository info, one reservation and one Get SDR per record.
    EXPECT_LE(ipmihost_request_count(), 1000u + 3u);
    for (uint32_t i = 0; i < 1000; ++i) {
        const uint8_t *r = getSdrByIndex(i, &info);
        ASSERT_EQ(Bytes(r, r + 4), cat({le16(uint16_t(i + 1)), {0x51, uint8_t(i % 2 == 0 ? 0x01 : 0x02)}})) << i;
    }
    ListNode *fans = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&fans, 2, 0x04, &info), 500u);
    freeList(&fans);
    freeSDRInfo(&info);
}

} // namespace
