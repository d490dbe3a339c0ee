// Reading the repository: information, allocation, reservations, Get SDR with offsets and
// lengths and each of its completion codes, and the default machine walked along its
// next-record IDs through the platform library.
#include <cstring>
#include <set>

#include "libipmi_host.h"
#include "simsdr_util.h"
#include "tvx_toipmi.h"

namespace simsdr {
namespace {

// Three records: a 60-byte full sensor record, a 35-byte compact one and a 19-byte
// controller locator; one answer carries at most 40 record bytes.
nlohmann::json smallRepository()
{
    nlohmann::json doc = baseProfile();
    doc["sdr"] = {{"allocation_unit_size", 16}, {"allocation_units", 100}, {"max_record_units", 4},
                  {"max_read_bytes", 40},       {"add_timestamp", "0x11223344"}, {"erase_timestamp", 7},
                  {"operation_support", "0x23"}};
    doc["sensors"] = nlohmann::json::parse(R"([
      {"record": "full", "number": 1, "entity": 3, "instance": 1, "type": 1, "event_reading_type": 1,
       "name": "Exhaust Temp", "reading": 30, "thresholds": {"uc": 90}},
      {"record": "compact", "number": 2, "entity": 29, "instance": 1, "type": "0xE6",
       "event_reading_type": "0x6F", "name": "Fan", "state": 1}
    ])");
    doc["mc_locators"] = nlohmann::json::parse(R"([{"name": "BMC", "entity": 6, "instance": 1}])");
    return doc;
}

TEST(RepositoryInfo, AnswersCountsSpaceTimestampsAndAllocation)
{
    tvxsim::Controller c(profileOf(smallRepository()), "");
    // Units taken: 60 bytes -> 4, 35 -> 3, 19 -> 2; 91 of 100 free, 16 bytes each.
    EXPECT_EQ(send(c, kNetFnStorage, 0x20, {}),
              (Bytes{0x00, 0x51, 0x03, 0x00, 0xB0, 0x05, 0x44, 0x33, 0x22, 0x11, 0x07, 0x00, 0x00, 0x00, 0x23}));
    EXPECT_EQ(send(c, kNetFnStorage, 0x21, {}),
              (Bytes{0x00, 0x64, 0x00, 0x10, 0x00, 0x5B, 0x00, 0x5B, 0x00, 0x04}));
    EXPECT_EQ(send(c, kNetFnStorage, 0x20, {0x00}), Bytes{0xC7});
    EXPECT_EQ(send(c, kNetFnStorage, 0x21, {0x00}), Bytes{0xC7});
}

TEST(RepositoryInfo, EmptyRepository)
{
    tvxsim::Controller c(profileOf(baseProfile()), "");
    Bytes info = send(c, kNetFnStorage, 0x20, {});
    ASSERT_EQ(info.size(), 15u);
    EXPECT_EQ(le16(info, 2), 0) << "no records";
    EXPECT_EQ(le16(info, 4), 0xFFFE) << "4096 units of 16 bytes: 64 KB - 2 or more";
    EXPECT_EQ(getSdr(c, 0, 0, 0, 0xFF), Bytes{0xCB});
}

TEST(Reservation, EachReservationCancelsThePreviousOne)
{
    tvxsim::Controller c(profileOf(smallRepository()), "");
    EXPECT_EQ(send(c, kNetFnStorage, 0x22, {}), (Bytes{0x00, 0x01, 0x00}));
    EXPECT_EQ(getSdr(c, 1, 1, 5, 4)[0], 0x00);
    EXPECT_EQ(send(c, kNetFnStorage, 0x22, {}), (Bytes{0x00, 0x02, 0x00}));
    EXPECT_EQ(getSdr(c, 1, 1, 5, 4), Bytes{0xC5}) << "the first reservation was cancelled";
    EXPECT_EQ(getSdr(c, 2, 1, 5, 4)[0], 0x00);
    EXPECT_EQ(send(c, kNetFnStorage, 0x22, {0x00}), Bytes{0xC7});
}

// Programs sharing a machine share its controller: one's reservation cancels the other's,
// and numbering goes on where the last program left it.
TEST(Reservation, IsSharedByProgramsUsingTheSameMachine)
{
    TempDir dir;
    tvxsim::Controller first(profileOf(smallRepository()), dir.path());
    tvxsim::Controller second(profileOf(smallRepository()), dir.path());
    Bytes a = send(first, kNetFnStorage, 0x22, {});
    Bytes b = send(second, kNetFnStorage, 0x22, {});
    ASSERT_EQ(a.size(), 3u);
    ASSERT_EQ(b.size(), 3u);
    EXPECT_EQ(le16(b, 1), le16(a, 1) + 1);
    EXPECT_EQ(getSdr(first, le16(a, 1), 1, 5, 4), Bytes{0xC5});
    EXPECT_EQ(getSdr(first, le16(b, 1), 1, 5, 4)[0], 0x00);
}

TEST(GetSdr, OffsetsLengthsReservationsAndCompletionCodes)
{
    tvxsim::Controller c(profileOf(smallRepository()), "");
    send(c, kNetFnStorage, 0x22, {});                  // reservation 1, cancelled by
    ASSERT_EQ(send(c, kNetFnStorage, 0x22, {})[1], 2); // reservation 2
    // The records as stored, read from offset 0 in pieces no answer refuses.
    std::vector<Bytes> stored;
    for (uint16_t id = 1; id <= 3; ++id) {
        Bytes head = getSdr(c, 0, id, 0, 5);
        ASSERT_EQ(head.size(), 8u);
        uint8_t total = static_cast<uint8_t>(5 + head[3 + 4]);
        Bytes r(head.begin() + 3, head.end());
        for (uint8_t off = 5; off < total; off = static_cast<uint8_t>(off + 20)) {
            Bytes part = getSdr(c, 2, id, off, static_cast<uint8_t>(std::min(20, total - off)));
            ASSERT_EQ(part[0], 0x00);
            r.insert(r.end(), part.begin() + 3, part.end());
        }
        stored.push_back(r);
    }
    ASSERT_EQ(stored[0].size(), 60u);
    ASSERT_EQ(stored[1].size(), 35u);
    ASSERT_EQ(stored[2].size(), 19u);

    struct Case {
        const char *what;
        Bytes request;
        uint8_t cc;
        uint16_t next = 0;
        int record = 0; // 1-based record whose bytes [offset, offset + n) come back
        std::size_t offset = 0, n = 0;
    } cases[] = {
        {"request too short", {0, 0, 0, 0, 0}, 0xC7},
        {"request too long", {0, 0, 0, 0, 0, 5, 0}, 0xC7},
        {"header of the first record (ID 0)", {0, 0, 0, 0, 0, 5}, 0x00, 2, 1, 0, 5},
        {"whole record within one answer", {0, 0, 2, 0, 0, 0xFF}, 0x00, 3, 2, 0, 35},
        {"whole record beyond one answer", {0, 0, 1, 0, 0, 0xFF}, 0xCA},
        {"rest of a record from an offset", {2, 0, 1, 0, 20, 0xFF}, 0x00, 2, 1, 20, 40},
        {"exactly one answer's worth", {0, 0, 1, 0, 0, 40}, 0x00, 2, 1, 0, 40},
        {"one byte more than an answer carries", {0, 0, 1, 0, 0, 41}, 0xCA},
        {"offset with a cancelled reservation", {1, 0, 1, 0, 20, 0xFF}, 0xC5},
        {"offset without a reservation", {0, 0, 1, 0, 20, 0xFF}, 0xC5},
        {"offset 0 needs no reservation", {1, 0, 1, 0, 0, 5}, 0x00, 2, 1, 0, 5},
        {"unknown record ID", {0, 0, 4, 0, 0, 5}, 0xCB},
        {"unknown record ID, high byte", {0, 0, 1, 1, 0, 5}, 0xCB},
        {"last record (ID 0xFFFF)", {0, 0, 0xFF, 0xFF, 0, 0xFF}, 0x00, 0xFFFF, 3, 0, 19},
        {"offset at the end of the record", {2, 0, 2, 0, 35, 0xFF}, 0xC9},
        {"offset far beyond the record", {2, 0, 2, 0, 200, 1}, 0xC9},
        {"length past the end of the record", {2, 0, 2, 0, 30, 10}, 0xCA},
        {"the record's last bytes", {2, 0, 2, 0, 30, 5}, 0x00, 3, 2, 30, 5},
        {"no bytes, only the next ID", {0, 0, 3, 0, 0, 0}, 0x00, 0xFFFF, 3, 0, 0},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        Bytes r = send(c, kNetFnStorage, 0x23, k.request);
        ASSERT_FALSE(r.empty());
        EXPECT_EQ(r[0], k.cc);
        if (k.cc != 0) {
            EXPECT_EQ(r.size(), 1u) << "an error carries no data";
            continue;
        }
        ASSERT_GE(r.size(), 3u);
        EXPECT_EQ(le16(r, 1), k.next);
        const Bytes &rec = stored[static_cast<std::size_t>(k.record - 1)];
        EXPECT_EQ(Bytes(r.begin() + 3, r.end()),
                  Bytes(rec.begin() + static_cast<long>(k.offset), rec.begin() + static_cast<long>(k.offset + k.n)));
    }
}

// The default machine through the platform library, as any client reads it.
class DefaultMachine : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(ipmihost_select_machine(nullptr, dir.path().c_str()), 0) << ipmihost_last_error();
        session = ipmiOpenSession(TVX_PRIV_ADMIN, "admin", nullptr, 0, nullptr);
        ASSERT_NE(session, nullptr);
    }
    void TearDown() override
    {
        ipmiHelperCloseSession(&session);
        ipmihost_select_default();
    }
    Bytes request(uint8_t netFn, uint8_t cmd, Bytes data)
    {
        uint8_t rsp[300];
        uint32_t len = sizeof rsp;
        if (!ipmiSendCmd(session, static_cast<uint8_t>(netFn << 2), cmd, static_cast<uint32_t>(data.size()),
                         data.empty() ? nullptr : data.data(), &len, rsp))
            return {};
        return Bytes(rsp, rsp + len);
    }

    TempDir dir;
    IpmiSession *session = nullptr;
};

TEST_F(DefaultMachine, WalkAlongNextRecordIds)
{
    Bytes info = request(kNetFnStorage, 0x20, {});
    Bytes alloc = request(kNetFnStorage, 0x21, {});
    ASSERT_EQ(info.size(), 15u);
    ASSERT_EQ(alloc.size(), 10u);
    const std::size_t slot = static_cast<std::size_t>(le16(alloc, 3)) * alloc[9];
    EXPECT_EQ(slot, 64u);

    std::vector<Bytes> records;
    uint16_t id = 0, expectId = 1;
    while (records.size() < 1000) {
        Bytes r = request(kNetFnStorage, 0x23,
                          {0, 0, static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8), 0, 0xFF});
        ASSERT_GE(r.size(), 3u + 5u);
        ASSERT_EQ(r[0], 0x00);
        Bytes rec(r.begin() + 3, r.end());
        EXPECT_EQ(le16(rec, 0), expectId++);
        EXPECT_EQ(rec[2], 0x51);
        EXPECT_EQ(rec[4], rec.size() - 5);
        EXPECT_LE(rec.size(), slot);
        records.push_back(rec);
        id = le16(r, 1);
        if (id == 0xFFFF) break;
    }
    ASSERT_EQ(records.size(), le16(info, 2)) << "the walk meets every record the repository counts";

    // What the machine holds: locators for the chassis and the board, the controller's own
    // locator, an ID string that uses all 16 characters, unique sensor numbers that all
    // answer, and for each fan a full speed sensor with a compact status record.
    std::set<uint8_t> numbers, fruEntities, fanSpeed, fanStatus;
    int mcLocators = 0, sixteen = 0, warnings = 0, processorTemps = 0;
    for (const Bytes &rec : records) {
        uint8_t type = rec[3];
        std::size_t nameAt = type == 0x01 ? 48 : type == 0x02 ? 32 : 16;
        ASSERT_EQ(rec.size(), nameAt + (rec[nameAt - 1] & 0x1F));
        if (rec.size() - nameAt == 16) ++sixteen;
        if (type == 0x11) fruEntities.insert(rec[12]);
        if (type == 0x12) ++mcLocators;
        if (type != 0x01 && type != 0x02) continue;
        EXPECT_TRUE(numbers.insert(rec[7]).second) << "sensor number " << int(rec[7]) << " used twice";
        if (rec[12] == 0x04) fanSpeed.insert(rec[9]);
        if (rec[12] == 0xE6 && rec[13] == 0x6F && type == 0x02) fanStatus.insert(rec[9]);
        if (type == 0x01 && rec[12] == 0x01 && rec[8] == 0x03) ++processorTemps;
        Bytes reading = request(kNetFnSensor, 0x2D, {rec[7]});
        ASSERT_GE(reading.size(), 4u) << "sensor " << int(rec[7]);
        EXPECT_EQ(reading[0], 0x00);
        if (rec[13] == 0x01 && (reading[3] & 0x3F)) ++warnings;
    }
    EXPECT_EQ(fruEntities, (std::set<uint8_t>{0x07, 0x17, 0x0A}));
    EXPECT_EQ(mcLocators, 1);
    EXPECT_GE(sixteen, 1);
    EXPECT_EQ(processorTemps, 2);
    EXPECT_EQ(fanSpeed.size(), 4u);
    EXPECT_EQ(fanStatus, fanSpeed);
    EXPECT_EQ(warnings, 1) << "one sensor at a threshold makes the tables interesting";

    // The library's lookups over a cache holding these records find the fan status records
    // and skip everything that is not a compact sensor record.
    SDRInfo cache{static_cast<uint32_t>(slot), static_cast<uint8_t *>(std::calloc(records.size(), slot)),
                  static_cast<uint32_t>(records.size())};
    ASSERT_NE(cache.records, nullptr);
    for (std::size_t i = 0; i < records.size(); ++i)
        std::memcpy(cache.records + i * slot, records[i].data(), records[i].size());
    const uint8_t *fan3 = findCompactSdrByEntity(0x1D, 3, 0xE6, &cache);
    ASSERT_NE(fan3, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(fan3) + 32, 11), "FAN3 Status");
    ListNode *temps = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&temps, TVX_SDR_FULL_SENSOR, 0x01, &cache), 6u);
    freeList(&temps);
    freeSDRInfo(&cache);
}

} // namespace
} // namespace simsdr
