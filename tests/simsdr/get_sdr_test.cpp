// Reading the repository: information, allocation, reservations, Get SDR with offsets and
// lengths and each of its completion codes, and the default machine walked along its
// next-record IDs through the platform library.
#include "simsdr_util.h"

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

} // namespace
} // namespace simsdr
