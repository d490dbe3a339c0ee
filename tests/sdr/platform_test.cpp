// The platform library's SDR information records, the walk into slots and Get Sensor Reading, scripted.
#include <algorithm>

#include "scripted.h"

namespace {

constexpr uint8_t kStorage = 0x0A << 2, kGetRepoInfo = 0x20, kGetAllocInfo = 0x21, kReserve = 0x22, kGetSdr = 0x23;
constexpr uint8_t kGuard = 0xA5;
constexpr int kWaitSeconds = 60;
constexpr uint16_t kOk = LIBIPMI_STATUS_OK, kBad = LIBIPMI_STATUS_BAD_RESPONSE,
                   kSmall = LIBIPMI_STATUS_BUFFER_TOO_SMALL;

// A record: header and a body whose bytes differ from record to record.
Bytes makeRecord(uint16_t id, uint8_t type, uint8_t bodyLength)
{
    Bytes r = cat({le16(id), {0x51, type, bodyLength}});
    for (unsigned i = 0; i < bodyLength; ++i) r.push_back(uint8_t(id * 37 + i * 11 + 1));
    return r;
}

// One announced request on the storage NetFn and its answer.
struct Step {
    uint8_t cmd;
    Bytes req, res;
    uint16_t status = kOk;
};
Step alloc(uint16_t unitSize, uint8_t maxUnits)
{
    return {kGetAllocInfo, {}, cat({{0x00}, le16(0x0400), le16(unitSize), le16(0x0100), le16(0x0080), {maxUnits}})};
}
Step reserve(uint16_t reservation) { return {kReserve, {}, cat({{0x00}, le16(reservation)})}; }
Bytes getSdr(uint16_t reservation, uint16_t id, uint8_t offset, uint8_t count)
{
    return cat({le16(reservation), le16(id), {offset, count}});
}
// Get SDR of the whole record `id`, answered with it, the next ID and junk appended.
Step whole(uint16_t r, uint16_t id, uint16_t next, const Bytes &record)
{
    return {kGetSdr, getSdr(r, id, 0, 0xFF), cat({{0x00}, le16(next), record, Bytes(6, 0xEE)})};
}
// Get SDR of `count` bytes at `offset`, answered with exactly those bytes of `record`.
Step piece(uint16_t r, uint16_t id, uint16_t next, const Bytes &record, uint8_t offset, uint8_t count)
{
    return {kGetSdr, getSdr(r, id, offset, count),
            cat({{0x00}, le16(next), Bytes(record.begin() + offset, record.begin() + offset + count)})};
}
Step refused(uint16_t r, uint16_t id, uint8_t offset, uint8_t count, uint8_t code)
{
    return {kGetSdr, getSdr(r, id, offset, count), {code}, cc(code)};
}
Step cut(Step s, size_t keep) { return s.res.resize(keep), s; }

// A platform session on the scripted exchange, and a buffer with guard bytes after it.
class SdrWalk : public ScriptTest {
protected:
    void SetUp() override
    {
        ScriptTest::SetUp();
        openPlatform();
    }
    IpmiSession *session() { return platform_.get(); }
    static void announce(const std::vector<Step> &steps)
    {
        for (const Step &s : steps) expect(kStorage, s.cmd, s.req, s.res, s.status);
    }
    // Walks into a buffer of `size` bytes, which must leave the guard after it intact.
    uint16_t walk(uint32_t size)
    {
        buffer_.assign(size + 32, kGuard);
        uint16_t st = LIBIPMI_HL_GetAllSDRs(session(), buffer_.data(), size, kWaitSeconds);
        EXPECT_TRUE(std::all_of(buffer_.begin() + size, buffer_.end(), [](uint8_t b) { return b == kGuard; }));
        buffer_.resize(size);
        return st;
    }
    // The slots must hold the records, each followed by zeros, and the rest of the buffer zeros.
    void expectSlots(uint32_t slotSize, const std::vector<Bytes> &records)
    {
        Bytes want;
        for (Bytes r : records) want = cat({want, (r.resize(slotSize, 0), r)});
        want.resize(buffer_.size(), 0);
        EXPECT_EQ(buffer_, want);
    }
    Bytes buffer_;
};

// An information record takes what arrived (repository information is stored the same way).
TEST_F(SdrWalk, InfoRecordsStoreWhatArrivedAndMapStatus)
{
    const size_t size = sizeof(SdrRepositoryAllocInfo);
    Bytes full{0x00};
    for (size_t i = 1; i < size; ++i) full.push_back(uint8_t(0x10 + i));
    // clang-format off
    for (const auto &[answer, scripted, status, stored] : {
             std::tuple{full, uint16_t(0), kOk, size}, {Bytes(full.begin(), full.end() - 1), 0, kBad, 0},
             {Bytes{0xC0, 0x01, 0x02}, cc(0xC0), cc(0xC0), 3}, {Bytes{}, LIBIPMI_STATUS_TIMEOUT, LIBIPMI_STATUS_TIMEOUT, 0},
             {Bytes{}, 0, kBad, 0}}) { // success without a completion code
        // clang-format on
        expect(kStorage, kGetAllocInfo, {}, answer, scripted);
        Bytes record(size + 32, kGuard), want = record;
        EXPECT_EQ(IPMICMD_GetSDRRepositoryAllocInfo(
                      session(), reinterpret_cast<SdrRepositoryAllocInfo *>(record.data()), kWaitSeconds),
                  status);
        std::copy_n(answer.begin(), stored, want.begin());
        EXPECT_EQ(record, want) << answer.size();
    }
}

TEST_F(SdrWalk, OneRequestPerRecordAndAllocationInfoAskedOncePerSession)
{
    // 64-byte slots, IDs not consecutive; allocation info, repository info, then the walk.
    const Bytes a = makeRecord(0x0001, 0x01, 59), b = makeRecord(0x0005, 0x02, 43), c = makeRecord(0x0009, 0x12, 27);
    announce({alloc(16, 4), {kGetRepoInfo, {}, cat({{0x00, 0x51}, le16(3), le16(0), Bytes(9, 0)})}});
    announce({reserve(0xBEEF), whole(0xBEEF, 0, 5, a), whole(0xBEEF, 5, 9, b), whole(0xBEEF, 9, 0xFFFF, c)});
    SDRInfo info{};
    ASSERT_EQ(getSDRInfo(session(), &info), 1);
    ASSERT_EQ(std::tuple(info.count, info.recordSize), std::tuple(3u, 64u));
    EXPECT_TRUE(std::equal(b.begin(), b.end(), getSdrByIndex(1, &info)));
    freeSDRInfo(&info);
    // Room for four slots and 7 bytes more: the spare slot and the tail come back zeroed.
    announce({reserve(0x0102), whole(0x0102, 0, 5, a), whole(0x0102, 5, 9, b), whole(0x0102, 9, 0xFFFF, c)});
    ASSERT_EQ(walk(4 * 64 + 7), kOk);
    expectSlots(64, {a, b, c});
}

// Whole reads refused (0xC8 taken as 0xCA): after the header the chunks shrink until one is taken,
// then close in on the largest; no whole read after that; 260 bytes in 42-byte pieces, where
// the one-byte offset stops at 255.
TEST_F(SdrWalk, PiecesOfALongRecordStayAddressable)
{
    const Bytes a = makeRecord(1, 0x02, 80), b = makeRecord(2, 0xC0, 255);
    announce({alloc(20, 13), reserve(7), refused(7, 0, 0, 0xFF, 0xC8), piece(7, 0, 2, a, 0, 5),
              refused(7, 0, 5, 80, 0xCA), refused(7, 0, 5, 60, 0xC8), refused(7, 0, 5, 45, 0xCA),
              piece(7, 0, 2, a, 5, 34), piece(7, 0, 2, a, 39, 39), piece(7, 0, 2, a, 78, 7),
              piece(7, 2, 0xFFFF, b, 0, 5), piece(7, 2, 0xFFFF, b, 5, 42), refused(7, 2, 47, 43, 0xCA),
              piece(7, 2, 0xFFFF, b, 47, 42), piece(7, 2, 0xFFFF, b, 89, 42), piece(7, 2, 0xFFFF, b, 131, 42),
              piece(7, 2, 0xFFFF, b, 173, 42), piece(7, 2, 0xFFFF, b, 215, 40), piece(7, 2, 0xFFFF, b, 255, 5)});
    ASSERT_EQ(walk(2 * 260), kOk);
    expectSlots(260, {a, b});
}

// Every body chunk refused: the chunks shrink strictly to a floor, then the walk fails.
TEST_F(SdrWalk, ChunksShrinkToAFloorThenTheWalkFails)
{
    announce({alloc(64, 1), reserve(7), refused(7, 0, 0, 0xFF, 0xCA), piece(7, 0, 0xFFFF, makeRecord(1, 1, 59), 0, 5)});
    const Bytes bodyPrefix = cat({le16(7), le16(0), {5}}), refusal = {0xCA};
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(ipmihost_script_expect_prefix(kStorage, kGetSdr, bodyPrefix.data(), 5, cc(0xCA), refusal.data(), 1),
                  0);
    EXPECT_EQ(walk(64), cc(0xCA));
    std::vector<unsigned> counts;
    for (const ipmihost_call &c : rawSince())
        if (c.command == kGetSdr && c.reqLen == 6 && c.reqData[4] == 5) counts.push_back(c.reqData[5]);
    ASSERT_GE(counts.size(), 2u);
    EXPECT_EQ(std::tuple(counts.front(), counts.back()), std::tuple(59u, 8u));
    EXPECT_TRUE(std::adjacent_find(counts.begin(), counts.end(), std::less_equal<>()) == counts.end())
        << "chunk sizes must strictly shrink";
    EXPECT_LE(counts.size(), 12u);
    ipmihost_script_reset(); // the unused refusals
}

TEST_F(SdrWalk, LostReservationRestartsTheWalkFromTheFirstRecordABoundedNumberOfTimes)
{
    const Bytes a = makeRecord(1, 0x01, 20), b = makeRecord(2, 0x01, 20), c = makeRecord(3, 0x01, 20);
    announce({alloc(32, 1), reserve(0x0101), whole(0x0101, 0, 2, a), refused(0x0101, 2, 0, 0xFF, 0xC5),
              // A new reservation, from the first record again.
              reserve(0x0202), whole(0x0202, 0, 2, a), whole(0x0202, 2, 3, b), whole(0x0202, 3, 0xFFFF, c)});
    ASSERT_EQ(walk(3 * 32), kOk);
    expectSlots(32, {a, b, c});

    std::vector<Step> steps;
    for (uint16_t i = 1; i <= 6; ++i) steps.insert(steps.end(), {reserve(i), refused(i, 0, 0, 0xFF, 0xC5)});
    announce(steps);
    EXPECT_EQ(walk(64), LIBIPMI_STATUS_RETRIES_EXHAUSTED);
}

// Walks that must fail: the status, nothing past the buffer, and no request after the stop.
TEST_F(SdrWalk, WalksThatFailStopWithAClearStatus)
{
    const Bytes r1 = makeRecord(1, 0x01, 20), r2 = makeRecord(2, 0x01, 20), r3 = makeRecord(3, 0x01, 20);
    const Bytes big = makeRecord(1, 0x01, 40);   // 45 bytes: longer than a 32-byte slot
    const Step a = alloc(16, 2), r = reserve(1); // 32-byte slots throughout
    const struct {
        const char *name;
        uint32_t bufferSize;
        std::vector<Step> steps;
        uint16_t status;
    } cases[] = {
        // clang-format off
        {"more records than slots: the third is never asked for", 2 * 32 + 31,
         {a, r, whole(1, 0, 2, r1), whole(1, 2, 3, r2)}, kSmall},
        {"record longer than a slot, read in pieces: body never asked for", 128,
         {a, r, refused(1, 0, 0, 0xFF, 0xCA), piece(1, 0, 0xFFFF, big, 0, 5)}, kSmall},
        {"chain loops back to an earlier record", 256,
         {a, r, whole(1, 0, 2, r1), whole(1, 2, 3, r2), whole(1, 3, 2, r3)}, kBad},
        {"whole record shorter than its header says", 128, {a, r, cut(whole(1, 0, 0xFFFF, r1), 3 + 24)}, kBad},
        {"allocation info refused", 128, {{kGetAllocInfo, {}, {0xD4}, cc(0xD4)}}, cc(0xD4)},
        {"no answer mid-walk", 128,
         {a, r, whole(1, 0, 2, r1), {kGetSdr, getSdr(1, 2, 0, 0xFF), {}, LIBIPMI_STATUS_TIMEOUT}},
         LIBIPMI_STATUS_TIMEOUT},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        openPlatform(); // each case on a fresh session, so no allocation info is remembered
        ipmihost_script_reset();
        announce(c.steps);
        EXPECT_EQ(walk(c.bufferSize), c.status);
        EXPECT_EQ(ipmihost_script_pending(), 0u);
        EXPECT_EQ(ipmihost_script_mismatches(), 0u) << ipmihost_script_last_mismatch();
    }
}

TEST_F(SdrWalk, SensorReadingCopiesExactlyTheBytesThatArrived)
{
    const struct {
        Bytes answer;
        uint16_t scripted, status;
        size_t stored; // leading bytes taken from the answer; the rest stays as it was
    } cases[] = {
        {{0x00, 0x42, 0xC0, 0x81, 0x7F}, 0, kOk, 5},
        {{0x00, 0x42, 0xC0, 0x81, 0x7F, 0x99, 0x98}, 0, kOk, 5}, // a longer answer is cut to the record
        {{0x00, 0x42}, 0, kBad, 0},                              // without flags
        {{0xCC}, 0, cc(0xCC), 1},                                // the completion code in the answer decides
    };
    uint8_t sensor = 0x30;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.answer.size());
        expect(0x04 << 2, 0x2D, {++sensor}, c.answer, c.scripted);
        Bytes record(sizeof(SensorReadingResponse) + 16, 0x5A), want = record;
        SensorReadingRequest req{sensor};
        EXPECT_EQ(IPMICMD_GetSensorReading(session(), &req, reinterpret_cast<SensorReadingResponse *>(record.data()),
                                           kWaitSeconds),
                  c.status);
        std::copy_n(c.answer.begin(), c.stored, want.begin());
        EXPECT_EQ(record, want);
    }
}

} // namespace
