// The platform library's SDR repository and sensor operations through the scripted exchange:
// the information records, the walk that reads every record into slots, and Get Sensor
// Reading, with the exact requests and what each kind of answer may overwrite.
#include <algorithm>
#include <cstring>
#include <functional>

#include "scripted.h"

namespace platform_test {

constexpr uint8_t kNetFnLunSensor = 0x04 << 2, kNetFnLunStorage = 0x0A << 2;
constexpr int kTimeout = 60;

// A session block of the platform's own, opened on the scripted exchange.
class ScriptSession : public ScriptTest {
protected:
    void SetUp() override
    {
        ScriptTest::SetUp();
        open();
    }
    void TearDown() override
    {
        if (opened_) LIBIPMI_CloseSession(session());
        ScriptTest::TearDown();
    }
    void open()
    {
        ASSERT_EQ(LIBIPMI_Create_IPMI_Local_Session_Ext(session(), nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, 2, 5),
                  LIBIPMI_STATUS_OK);
        opened_ = true;
    }
    void close()
    {
        ASSERT_EQ(LIBIPMI_CloseSession(session()), LIBIPMI_STATUS_OK);
        opened_ = false;
    }
    IpmiSession *session() { return reinterpret_cast<IpmiSession *>(block_); }
    static void expect(uint8_t netFnLun, uint8_t cmd, const Bytes &req, const Bytes &res, uint16_t status = LIBIPMI_STATUS_OK)
    {
        expectRequest(netFnLun, cmd, req, status, res);
    }
    static size_t rawRequestCount() { return rawSince().size(); }

private:
    alignas(8) uint8_t block_[LIBIPMI_SESSION_SIZE] = {};
    bool opened_ = false;
};

namespace {

constexpr uint8_t kGetRepoInfo = 0x20;
constexpr uint8_t kGetAllocInfo = 0x21;
constexpr uint8_t kReserve = 0x22;
constexpr uint8_t kGetSdr = 0x23;
constexpr uint8_t kGuard = 0xA5;
constexpr size_t kGuardSize = 32;
const Bytes kJunk(6, 0xEE); // what some controllers append after a whole record

// A record: header (ID, version 0x51, type, body length) and a body whose bytes differ from
// record to record, so a record in the wrong slot or at the wrong offset shows.
Bytes makeRecord(uint16_t id, uint8_t type, uint8_t bodyLength)
{
    Bytes r = cat({le16(id), {0x51, type, bodyLength}});
    for (unsigned i = 0; i < bodyLength; ++i) r.push_back(static_cast<uint8_t>(id * 37 + i * 11 + 1));
    return r;
}

Bytes allocAnswer(uint16_t unitSize, uint8_t maxUnits)
{
    return cat({{0x00}, le16(0x0400), le16(unitSize), le16(0x0100), le16(0x0080), {maxUnits}});
}

Bytes getSdrRequest(uint16_t reservation, uint16_t id, uint8_t offset, uint8_t count)
{
    return cat({le16(reservation), le16(id), {offset, count}});
}

// One announced request and its answer.
struct Step {
    uint8_t cmd;
    Bytes req;
    Bytes res;
    uint16_t status = LIBIPMI_STATUS_OK;
};

Step allocStep(uint16_t unitSize, uint8_t maxUnits) { return {kGetAllocInfo, {}, allocAnswer(unitSize, maxUnits)}; }
Step reserveStep(uint16_t reservation) { return {kReserve, {}, cat({{0x00}, le16(reservation)})}; }

// Get SDR of the whole record `id` (0 for the first), answered with `record`, the next ID and junk.
Step wholeStep(uint16_t reservation, uint16_t id, uint16_t next, const Bytes &record)
{
    return {kGetSdr, getSdrRequest(reservation, id, 0, 0xFF), cat({{0x00}, le16(next), record, kJunk})};
}

// Get SDR of `count` bytes at `offset`, answered with exactly those bytes of `record`.
Step pieceStep(uint16_t reservation, uint16_t id, uint16_t next, const Bytes &record, uint8_t offset, uint8_t count)
{
    Bytes part(record.begin() + offset, record.begin() + offset + count);
    return {kGetSdr, getSdrRequest(reservation, id, offset, count), cat({{0x00}, le16(next), part})};
}

Step refusedStep(uint16_t reservation, uint16_t id, uint8_t offset, uint8_t count, uint8_t code)
{
    return {kGetSdr, getSdrRequest(reservation, id, offset, count), {code}};
}

// A caller's buffer with guard bytes after bufferSize; everything starts as kGuard.
struct Buffer {
    explicit Buffer(uint32_t bufferSize) : size(bufferSize), bytes(bufferSize + kGuardSize, kGuard) {}
    uint32_t size;
    Bytes bytes;
    uint8_t *data() { return bytes.data(); }
    bool guardIntact() const
    {
        return std::all_of(bytes.begin() + size, bytes.end(), [](uint8_t b) { return b == kGuard; });
    }
    // The slot's bytes, which must be the record followed by zeros.
    ::testing::AssertionResult slotHolds(uint32_t slotSize, uint32_t index, const Bytes &record) const
    {
        Bytes want = record;
        want.resize(slotSize, 0x00);
        Bytes got(bytes.begin() + index * slotSize, bytes.begin() + (index + 1) * slotSize);
        if (got == want) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "slot " << index << " differs";
    }
};

class SdrRepository : public ScriptSession {
protected:
    static void announce(const std::vector<Step> &steps)
    {
        for (const Step &s : steps) expect(kNetFnLunStorage, s.cmd, s.req, s.res, s.status);
    }
};

// ---- The information records -----------------------------------------------------------

struct InfoCase {
    const char *name;
    Bytes answer;
    uint16_t scriptedStatus;
    uint16_t expectedStatus;
    size_t storedBytes; // how many leading record bytes come from the answer (0: untouched)
};

TEST_F(SdrRepository, InfoRecordsStoreWhatArrivedAndMapStatus)
{
    struct Command {
        const char *name;
        uint8_t cmd;
        size_t size;
        std::function<uint16_t(IpmiSession *, uint8_t *)> call;
    };
    const Command commands[] = {
        {"alloc info", kGetAllocInfo, sizeof(SdrRepositoryAllocInfo),
         [](IpmiSession *s, uint8_t *rec) {
             return IPMICMD_GetSDRRepositoryAllocInfo(s, reinterpret_cast<SdrRepositoryAllocInfo *>(rec), kTimeout);
         }},
        {"repository info", kGetRepoInfo, sizeof(SdrRepositoryInfo),
         [](IpmiSession *s, uint8_t *rec) {
             return IPMICMD_GetSDRRepositoryInfo(s, reinterpret_cast<SdrRepositoryInfo *>(rec), kTimeout);
         }},
    };
    for (const Command &c : commands) {
        Bytes full{0x00};
        for (size_t i = 1; i < c.size; ++i) full.push_back(static_cast<uint8_t>(0x10 + i));
        Bytes longer = cat({full, {0x77, 0x78, 0x79}});
        Bytes shortAnswer(full.begin(), full.end() - 1);
        const InfoCase cases[] = {
            {"complete answer", full, 0, LIBIPMI_STATUS_OK, c.size},
            {"longer answer is cut to the record", longer, 0, LIBIPMI_STATUS_OK, c.size},
            {"short answer", shortAnswer, 0, LIBIPMI_STATUS_BAD_RESPONSE, 0},
            {"completion code only", {0xC1}, LIBIPMI_STATUS_COMPLETION_CODE(0xC1), LIBIPMI_STATUS_COMPLETION_CODE(0xC1), 1},
            {"completion code with data", {0xC0, 0x01, 0x02}, LIBIPMI_STATUS_COMPLETION_CODE(0xC0),
             LIBIPMI_STATUS_COMPLETION_CODE(0xC0), 3},
            {"completion code status without bytes", {}, LIBIPMI_STATUS_COMPLETION_CODE(0xCC),
             LIBIPMI_STATUS_COMPLETION_CODE(0xCC), 1},
            {"no answer", {}, LIBIPMI_STATUS_TIMEOUT, LIBIPMI_STATUS_TIMEOUT, 0},
            {"success without a completion code", {}, 0, LIBIPMI_STATUS_BAD_RESPONSE, 0},
        };
        for (const InfoCase &k : cases) {
            SCOPED_TRACE(std::string(c.name) + ": " + k.name);
            expect(kNetFnLunStorage, c.cmd, {}, k.answer, k.scriptedStatus);
            Bytes record(c.size + kGuardSize, kGuard);
            EXPECT_EQ(c.call(session(), record.data()), k.expectedStatus);
            Bytes want(c.size + kGuardSize, kGuard);
            if (k.storedBytes && k.answer.empty()) want[0] = static_cast<uint8_t>(k.expectedStatus & 0xFF);
            else std::copy_n(k.answer.begin(), k.storedBytes, want.begin());
            EXPECT_EQ(record, want);
        }
    }
}

// ---- The walk --------------------------------------------------------------------------

TEST_F(SdrRepository, SmallRepositoryOneRequestPerRecordInRepositoryOrder)
{
    // 16-byte units, at most 4 per record: 64-byte slots. Record IDs are not consecutive.
    const Bytes a = makeRecord(0x0001, 0x01, 59), b = makeRecord(0x0005, 0x02, 43), c = makeRecord(0x0009, 0x12, 27);
    announce({allocStep(16, 4), reserveStep(0xBEEF), wholeStep(0xBEEF, 0x0000, 0x0005, a),
              wholeStep(0xBEEF, 0x0005, 0x0009, b), wholeStep(0xBEEF, 0x0009, 0xFFFF, c)});
    // Room for four slots and 7 bytes more: the spare slot and the tail must come back zeroed.
    Buffer buf(4 * 64 + 7);
    ASSERT_EQ(LIBIPMI_HL_GetAllSDRs(session(), buf.data(), buf.size, kTimeout), LIBIPMI_STATUS_OK);
    EXPECT_TRUE(buf.slotHolds(64, 0, a));
    EXPECT_TRUE(buf.slotHolds(64, 1, b));
    EXPECT_TRUE(buf.slotHolds(64, 2, c));
    EXPECT_TRUE(buf.slotHolds(64, 3, {}));
    EXPECT_TRUE(std::all_of(buf.bytes.begin() + 256, buf.bytes.begin() + buf.size, [](uint8_t x) { return x == 0; }));
    EXPECT_TRUE(buf.guardIntact());
    // Allocation info, one reservation, one Get SDR per record.
    EXPECT_EQ(rawRequestCount(), 5u);
}

TEST_F(SdrRepository, AllocationInfoTheCallerJustReadIsNotAskedAgain)
{
    const Bytes a = makeRecord(0x0010, 0x01, 59), b = makeRecord(0x0011, 0x02, 27);
    // As the library's cache does: allocation info, repository info, then the walk.
    announce({allocStep(32, 2)});
    expect(kNetFnLunStorage, kGetRepoInfo, {}, cat({{0x00, 0x51}, le16(2), le16(0), Bytes(9, 0)}));
    announce({reserveStep(0x0102), wholeStep(0x0102, 0, 0x0011, a), wholeStep(0x0102, 0x0011, 0xFFFF, b)});
    SDRInfo info{};
    ASSERT_EQ(getSDRInfo(session(), &info), 1);
    ASSERT_EQ(info.count, 2u);
    ASSERT_EQ(info.recordSize, 64u);
    EXPECT_TRUE(std::equal(a.begin(), a.end(), getSdrByIndex(0, &info)));
    EXPECT_TRUE(std::equal(b.begin(), b.end(), getSdrByIndex(1, &info)));
    freeSDRInfo(&info);
    EXPECT_EQ(rawRequestCount(), 5u);

    // A second walk on the same session still needs no allocation info.
    announce({reserveStep(0x0103), wholeStep(0x0103, 0, 0x0011, a), wholeStep(0x0103, 0x0011, 0xFFFF, b)});
    Buffer buf(128);
    ASSERT_EQ(LIBIPMI_HL_GetAllSDRs(session(), buf.data(), buf.size, kTimeout), LIBIPMI_STATUS_OK);
    EXPECT_TRUE(buf.slotHolds(64, 1, b));
    EXPECT_EQ(rawRequestCount(), 8u);
}

// A controller that returns at most 33 record bytes per Get SDR (0xCA for more), as a real
// peer does: whole reads are given up for the walk, and chunks settle on the largest size.
TEST_F(SdrRepository, PartialReadsWhenWholeRecordsAreRefused)
{
    const Bytes a = makeRecord(0x0001, 0x01, 59), b = makeRecord(0x0002, 0x01, 59), c = makeRecord(0x0003, 0x01, 59),
                d = makeRecord(0x0004, 0x12, 15);
    const uint16_t r = 0x0A0B;
    std::vector<Step> steps = {allocStep(64, 1), reserveStep(r), refusedStep(r, 0, 0, 0xFF, 0xCA),
                               pieceStep(r, 0, 2, a, 0, 5),
                               // Shrinking until a chunk is taken...
                               refusedStep(r, 0, 5, 59, 0xCA), refusedStep(r, 0, 5, 45, 0xCA),
                               refusedStep(r, 0, 5, 34, 0xCA), pieceStep(r, 0, 2, a, 5, 26),
                               // ...then closing in on the limit with chunks that are taken.
                               pieceStep(r, 0, 2, a, 31, 30), pieceStep(r, 0, 2, a, 61, 3),
                               // No whole read any more.
                               pieceStep(r, 2, 3, b, 0, 5), pieceStep(r, 2, 3, b, 5, 32), pieceStep(r, 2, 3, b, 37, 27),
                               pieceStep(r, 3, 4, c, 0, 5), pieceStep(r, 3, 4, c, 5, 33), pieceStep(r, 3, 4, c, 38, 26),
                               pieceStep(r, 4, 0xFFFF, d, 0, 5), pieceStep(r, 4, 0xFFFF, d, 5, 15)};
    announce(steps);
    Buffer buf(4 * 64);
    ASSERT_EQ(LIBIPMI_HL_GetAllSDRs(session(), buf.data(), buf.size, kTimeout), LIBIPMI_STATUS_OK);
    EXPECT_TRUE(buf.slotHolds(64, 0, a));
    EXPECT_TRUE(buf.slotHolds(64, 1, b));
    EXPECT_TRUE(buf.slotHolds(64, 2, c));
    EXPECT_TRUE(buf.slotHolds(64, 3, d));
    EXPECT_TRUE(buf.guardIntact());
    EXPECT_EQ(rawRequestCount(), steps.size());
}

// A record of 260 bytes read in 42-byte pieces: the offset is one byte, so the piece that
// would leave the rest starting at 257 stops at 255 instead.
TEST_F(SdrRepository, PiecesOfALongRecordStayAddressable)
{
    const Bytes a = makeRecord(0x0001, 0x02, 80), b = makeRecord(0x0002, 0xC0, 255);
    const uint16_t r = 0x0C0D;
    announce({allocStep(20, 13), reserveStep(r), refusedStep(r, 0, 0, 0xFF, 0xCA), pieceStep(r, 0, 2, a, 0, 5),
              refusedStep(r, 0, 5, 80, 0xCA), refusedStep(r, 0, 5, 60, 0xCA), refusedStep(r, 0, 5, 45, 0xCA),
              pieceStep(r, 0, 2, a, 5, 34), pieceStep(r, 0, 2, a, 39, 39), pieceStep(r, 0, 2, a, 78, 7),
              pieceStep(r, 2, 0xFFFF, b, 0, 5), pieceStep(r, 2, 0xFFFF, b, 5, 42), refusedStep(r, 2, 47, 43, 0xCA),
              pieceStep(r, 2, 0xFFFF, b, 47, 42), pieceStep(r, 2, 0xFFFF, b, 89, 42), pieceStep(r, 2, 0xFFFF, b, 131, 42),
              pieceStep(r, 2, 0xFFFF, b, 173, 42), pieceStep(r, 2, 0xFFFF, b, 215, 40),
              pieceStep(r, 2, 0xFFFF, b, 255, 5)});
    Buffer buf(2 * 260);
    ASSERT_EQ(LIBIPMI_HL_GetAllSDRs(session(), buf.data(), buf.size, kTimeout), LIBIPMI_STATUS_OK);
    EXPECT_TRUE(buf.slotHolds(260, 0, a));
    EXPECT_TRUE(buf.slotHolds(260, 1, b));
    EXPECT_TRUE(buf.guardIntact());
}

TEST_F(SdrRepository, RequestTooLongIsTreatedLikeCannotReturn)
{
    const Bytes a = makeRecord(0x0001, 0x02, 43);
    announce({allocStep(48, 1), reserveStep(7), refusedStep(7, 0, 0, 0xFF, 0xC8), pieceStep(7, 0, 0xFFFF, a, 0, 5),
              refusedStep(7, 0, 5, 43, 0xC8), pieceStep(7, 0, 0xFFFF, a, 5, 33), pieceStep(7, 0, 0xFFFF, a, 38, 10)});
    Buffer buf(48);
    ASSERT_EQ(LIBIPMI_HL_GetAllSDRs(session(), buf.data(), buf.size, kTimeout), LIBIPMI_STATUS_OK);
    EXPECT_TRUE(buf.slotHolds(48, 0, a));
}

// A controller that refuses every body chunk: the chunks shrink strictly down to the floor,
// then the walk fails with the controller's completion code.
TEST_F(SdrRepository, ChunksShrinkToAFloorThenTheWalkFails)
{
    const Bytes a = makeRecord(0x0001, 0x01, 59);
    announce({allocStep(64, 1), reserveStep(7), refusedStep(7, 0, 0, 0xFF, 0xCA), pieceStep(7, 0, 0xFFFF, a, 0, 5)});
    // Any count at offset 5 is refused.
    const Bytes bodyPrefix = cat({le16(7), le16(0), {5}});
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(ipmihost_script_expect_prefix(kNetFnLunStorage, kGetSdr, bodyPrefix.data(), 5,
                                                LIBIPMI_STATUS_COMPLETION_CODE(0xCA), Bytes{0xCA}.data(), 1),
                  0);
    Buffer buf(64);
    EXPECT_EQ(LIBIPMI_HL_GetAllSDRs(session(), buf.data(), buf.size, kTimeout), LIBIPMI_STATUS_COMPLETION_CODE(0xCA));
    EXPECT_TRUE(buf.guardIntact());
    std::vector<unsigned> counts;
    for (size_t i = 0; i < ipmihost_script_call_count(); ++i) {
        ipmihost_call call{};
        ASSERT_EQ(ipmihost_script_call(i, &call), 0);
        if (call.kind == IPMIHOST_CALL_RAW && call.command == kGetSdr && call.reqLen == 6 && call.reqData[4] == 5)
            counts.push_back(call.reqData[5]);
    }
    ASSERT_GE(counts.size(), 2u);
    EXPECT_EQ(counts.front(), 59u);
    EXPECT_TRUE(std::is_sorted(counts.rbegin(), counts.rend()) &&
                std::adjacent_find(counts.begin(), counts.end()) == counts.end())
        << "chunk sizes must strictly shrink";
    EXPECT_EQ(counts.back(), 8u);
    EXPECT_LE(counts.size(), 12u);
    ipmihost_script_reset(); // the unused refusals
}

TEST_F(SdrRepository, LostReservationRestartsTheWalkFromTheFirstRecord)
{
    const Bytes a = makeRecord(0x0001, 0x01, 20), b = makeRecord(0x0002, 0x01, 20), c = makeRecord(0x0003, 0x01, 20);
    std::vector<Step> steps = {allocStep(32, 1), reserveStep(0x0101), wholeStep(0x0101, 0, 2, a),
                               refusedStep(0x0101, 2, 0, 0xFF, 0xC5),
                               // A new reservation, from the first record again.
                               reserveStep(0x0202), wholeStep(0x0202, 0, 2, a), wholeStep(0x0202, 2, 3, b),
                               wholeStep(0x0202, 3, 0xFFFF, c)};
    announce(steps);
    Buffer buf(3 * 32);
    ASSERT_EQ(LIBIPMI_HL_GetAllSDRs(session(), buf.data(), buf.size, kTimeout), LIBIPMI_STATUS_OK);
    EXPECT_TRUE(buf.slotHolds(32, 0, a));
    EXPECT_TRUE(buf.slotHolds(32, 1, b));
    EXPECT_TRUE(buf.slotHolds(32, 2, c));
    EXPECT_EQ(rawRequestCount(), steps.size());
}

TEST_F(SdrRepository, ReservationLostEveryTimeFailsAfterBoundedRestarts)
{
    std::vector<Step> steps = {allocStep(32, 1)};
    for (uint16_t i = 1; i <= 6; ++i) {
        steps.push_back(reserveStep(i));
        steps.push_back(refusedStep(i, 0, 0, 0xFF, 0xC5));
    }
    announce(steps);
    Buffer buf(64);
    EXPECT_EQ(LIBIPMI_HL_GetAllSDRs(session(), buf.data(), buf.size, kTimeout), LIBIPMI_STATUS_RETRIES_EXHAUSTED);
    EXPECT_TRUE(buf.guardIntact());
    EXPECT_EQ(rawRequestCount(), steps.size());
}

// Walks that must fail: the status, and nothing written past the buffer. Every announced
// request is sent and no other, so a walk that reads on after it should have stopped shows.
TEST_F(SdrRepository, WalksThatFailStopWithAClearStatus)
{
    const Bytes r1 = makeRecord(0x0001, 0x01, 20), r2 = makeRecord(0x0002, 0x01, 20), r3 = makeRecord(0x0003, 0x01, 20);
    const Bytes big = makeRecord(0x0001, 0x01, 40); // 45 bytes: longer than a 32-byte slot
    auto truncated = [](Step s, size_t keep) {
        s.res.resize(keep);
        return s;
    };
    struct Case {
        const char *name;
        uint32_t bufferSize;
        std::vector<Step> steps;
        uint16_t status;
    };
    // 32-byte slots throughout (16-byte units, 2 per record).
    const Case cases[] = {
        {"more records than slots: the third is never asked for", 2 * 32 + 31,
         {allocStep(16, 2), reserveStep(1), wholeStep(1, 0, 2, r1), wholeStep(1, 2, 3, r2)},
         LIBIPMI_STATUS_BUFFER_TOO_SMALL},
        {"buffer smaller than one slot", 31, {allocStep(16, 2), reserveStep(1), wholeStep(1, 0, 0xFFFF, r1)},
         LIBIPMI_STATUS_BUFFER_TOO_SMALL},
        {"record longer than a slot", 4 * 32, {allocStep(16, 2), reserveStep(1), wholeStep(1, 0, 0xFFFF, big)},
         LIBIPMI_STATUS_BUFFER_TOO_SMALL},
        {"record longer than a slot, read in pieces: body never asked for", 4 * 32,
         {allocStep(16, 2), reserveStep(1), refusedStep(1, 0, 0, 0xFF, 0xCA), pieceStep(1, 0, 0xFFFF, big, 0, 5)},
         LIBIPMI_STATUS_BUFFER_TOO_SMALL},
        {"chain loops back to an earlier record", 8 * 32,
         {allocStep(16, 2), reserveStep(1), wholeStep(1, 0, 2, r1), wholeStep(1, 2, 3, r2), wholeStep(1, 3, 2, r3)},
         LIBIPMI_STATUS_BAD_RESPONSE},
        {"chain leads back to the first record by its own ID", 8 * 32,
         {allocStep(16, 2), reserveStep(1), wholeStep(1, 0, 2, r1), wholeStep(1, 2, 1, r2)}, LIBIPMI_STATUS_BAD_RESPONSE},
        {"chain leads back to 'first record'", 8 * 32,
         {allocStep(16, 2), reserveStep(1), wholeStep(1, 0, 2, r1), wholeStep(1, 2, 0, r2)}, LIBIPMI_STATUS_BAD_RESPONSE},
        {"chain that never ends is bounded by the slots", 3 * 32,
         {allocStep(16, 2), reserveStep(1), wholeStep(1, 0, 0x0101, r1), wholeStep(1, 0x0101, 0x0102, r2),
          wholeStep(1, 0x0102, 0x0103, r3)},
         LIBIPMI_STATUS_BUFFER_TOO_SMALL},
        {"whole record shorter than its header says", 4 * 32,
         {allocStep(16, 2), reserveStep(1), truncated(wholeStep(1, 0, 0xFFFF, r1), 3 + 24)}, LIBIPMI_STATUS_BAD_RESPONSE},
        {"answer shorter than a header", 4 * 32,
         {allocStep(16, 2), reserveStep(1), truncated(wholeStep(1, 0, 0xFFFF, r1), 3 + 4)}, LIBIPMI_STATUS_BAD_RESPONSE},
        {"answer with the next record ID only", 4 * 32,
         {allocStep(16, 2), reserveStep(1), truncated(wholeStep(1, 0, 0xFFFF, r1), 3)}, LIBIPMI_STATUS_BAD_RESPONSE},
        {"header piece cut short", 4 * 32,
         {allocStep(16, 2), reserveStep(1), refusedStep(1, 0, 0, 0xFF, 0xCA),
          truncated(pieceStep(1, 0, 0xFFFF, r1, 0, 5), 3 + 4)},
         LIBIPMI_STATUS_BAD_RESPONSE},
        {"body piece with fewer bytes than asked", 4 * 32,
         {allocStep(16, 2), reserveStep(1), refusedStep(1, 0, 0, 0xFF, 0xCA), pieceStep(1, 0, 0xFFFF, r1, 0, 5),
          truncated(pieceStep(1, 0, 0xFFFF, r1, 5, 20), 3 + 19)},
         LIBIPMI_STATUS_BAD_RESPONSE},
        {"reservation answer without its ID", 4 * 32, {allocStep(16, 2), {kReserve, {}, {0x00, 0x01}}},
         LIBIPMI_STATUS_BAD_RESPONSE},
        {"reservation refused", 4 * 32,
         {allocStep(16, 2), {kReserve, {}, {0xC1}, LIBIPMI_STATUS_COMPLETION_CODE(0xC1)}},
         LIBIPMI_STATUS_COMPLETION_CODE(0xC1)},
        {"allocation info refused", 4 * 32, {{kGetAllocInfo, {}, {0xC1}, LIBIPMI_STATUS_COMPLETION_CODE(0xC1)}},
         LIBIPMI_STATUS_COMPLETION_CODE(0xC1)},
        {"allocation info with no room for a record", 4 * 32, {allocStep(0, 2)}, LIBIPMI_STATUS_BAD_RESPONSE},
        {"a later record is missing", 4 * 32,
         {allocStep(16, 2), reserveStep(1), wholeStep(1, 0, 2, r1), refusedStep(1, 2, 0, 0xFF, 0xCB)},
         LIBIPMI_STATUS_COMPLETION_CODE(0xCB)},
        {"Get SDR refused", 4 * 32, {allocStep(16, 2), reserveStep(1), refusedStep(1, 0, 0, 0xFF, 0xC1)},
         LIBIPMI_STATUS_COMPLETION_CODE(0xC1)},
        {"no answer mid-walk", 4 * 32,
         {allocStep(16, 2), reserveStep(1), wholeStep(1, 0, 2, r1),
          {kGetSdr, getSdrRequest(1, 2, 0, 0xFF), {}, LIBIPMI_STATUS_TIMEOUT}},
         LIBIPMI_STATUS_TIMEOUT},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        // Each case on a fresh session, so no allocation info is remembered.
        close();
        open();
        ipmihost_script_reset();
        announce(c.steps);
        Buffer buf(c.bufferSize);
        EXPECT_EQ(LIBIPMI_HL_GetAllSDRs(session(), buf.data(), buf.size, kTimeout), c.status);
        EXPECT_TRUE(buf.guardIntact());
        EXPECT_EQ(ipmihost_script_pending(), 0u);
        EXPECT_EQ(ipmihost_script_mismatches(), 0u) << ipmihost_script_last_mismatch();
    }
}

constexpr uint8_t kGetSensorReading = 0x2D;
constexpr uint8_t kUnset = 0x5A; // what the caller put in the record beforehand
constexpr size_t kRecordSize = sizeof(SensorReadingResponse);
constexpr size_t kReadingGuard = 16;

using SensorReading = ScriptSession;

TEST_F(SensorReading, CopiesExactlyTheBytesThatArrived)
{
    struct Case {
        const char *name;
        Bytes answer;
        uint16_t scriptedStatus;
        uint16_t status;
        size_t stored; // leading bytes taken from the answer; the rest stays kUnset
    };
    const Case cases[] = {
        {"reading and flags only", {0x00, 0x42, 0xC0}, 0, LIBIPMI_STATUS_OK, 3},
        {"with states 0-7", {0x00, 0x42, 0xC0, 0x81}, 0, LIBIPMI_STATUS_OK, 4},
        {"with states 0-14", {0x00, 0x42, 0xC0, 0x81, 0x7F}, 0, LIBIPMI_STATUS_OK, 5},
        {"longer answer is cut to the record", {0x00, 0x42, 0xC0, 0x81, 0x7F, 0x99, 0x98}, 0, LIBIPMI_STATUS_OK, 5},
        {"without flags", {0x00, 0x42}, 0, LIBIPMI_STATUS_BAD_RESPONSE, 0},
        {"absent sensor", {0xCB}, LIBIPMI_STATUS_COMPLETION_CODE(0xCB), LIBIPMI_STATUS_COMPLETION_CODE(0xCB), 1},
        {"completion code in the answer decides", {0xCC}, 0, LIBIPMI_STATUS_COMPLETION_CODE(0xCC), 1},
        {"no answer", {}, LIBIPMI_STATUS_TIMEOUT, LIBIPMI_STATUS_TIMEOUT, 0},
        {"transport failure", {}, LIBIPMI_STATUS_TRANSPORT, LIBIPMI_STATUS_TRANSPORT, 0},
    };
    uint8_t sensor = 0x30;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ++sensor;
        expect(kNetFnLunSensor, kGetSensorReading, {sensor}, c.answer, c.scriptedStatus);
        Bytes record(kRecordSize + kReadingGuard, kUnset);
        SensorReadingRequest req{sensor};
        EXPECT_EQ(IPMICMD_GetSensorReading(session(), &req, reinterpret_cast<SensorReadingResponse *>(record.data()),
                                           kTimeout),
                  c.status);
        Bytes want(kRecordSize + kReadingGuard, kUnset);
        std::copy_n(c.answer.begin(), c.stored, want.begin());
        EXPECT_EQ(record, want);
    }
}

} // namespace
} // namespace platform_test
