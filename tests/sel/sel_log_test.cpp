// The system event log: raw lines, summary, UTC offset, clearing and adding records, with the
// exact requests each operation sends.
#include <cstring>
#include <limits>

#include "sel_fixture.h"

namespace {


const Bytes kExample = selRecord(0x001A, 0x02, k16Nov2026, {0x20, 0x00, 0x04, 0x01, 0x30, 0x01, 0x57, 0x00, 0x00});
const std::string kExampleLine = "001A 16-Nov-2026 21:45:12 Addr:20:0, EvM:04, Sens:01:30, Trig:01, Data:57:00:00";

// The lines of a list; every raw node holds its line in a zero-filled 255-byte buffer and a terminator.
std::vector<std::string> lines(ListNode *list)
{
    std::vector<std::string> out;
    for (ListNode *n = list; n; n = n->next) {
        out.emplace_back(reinterpret_cast<const char *>(n->data));
        EXPECT_LT(out.back().size(), 255u);
        EXPECT_EQ(Bytes(n->data + out.back().size(), n->data + 256), Bytes(256 - out.back().size(), 0));
    }
    freeList(&list);
    return out;
}

TEST(SelRawLine, RecordTypesAndTimes)
{
    const std::string unknown = "Unknown" + std::string(13, ' ') + " ", oem = "-OEM-" + std::string(15, ' ');
    const std::pair<Bytes, std::string> cases[] = {
        {kExample, kExampleLine},
        // The generator's channel byte in decimal, everything else in upper-case hex.
        {selRecord(0xFFFE, 0x02, 0, {0xAB, 0x83, 0x0C, 0xDE, 0xF0, 0x6F, 0xA1, 0xB2, 0xC3}),
         "FFFE 01-Jan-1970 00:00:00 Addr:AB:131, EvM:0C, Sens:DE:F0, Trig:6F, Data:A1:B2:C3"},
        {selRecord(0x0002, 0x01, k16Nov2026, {0x20}), "0002 " + unknown},
        {selRecord(0x0003, 0xC0, k03Feb2001, {0x11, 0x22, 0x33, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xFA}),
         "0003 03-Feb-2001 04:05:06 OEM: 11:22:33, Data:A0:A1:A2:A3:A4:FA"},
        {{0x05, 0x01, 0xFF, 0xF0, 0xE1, 0xD2, 0xC3, 0xB4, 0xA5, 0x96, 0x87, 0x78, 0x69, 0x5A, 0x4B, 0x3C},
         "0105 " + oem + " OEM: Data:F0:E1:D2:C3-B4:A5:96:87-78:69:5A:4B-3C"},
    };
    ListNode *list = nullptr;
    for (const auto &[record, line] : cases) {
        addEntryToRawStringList(&list, record.data());
        EXPECT_EQ(lines(list), std::vector<std::string>{line});
        list = nullptr;
    }
    addEntryToRawStringList(&list, nullptr);
    EXPECT_EQ(list, nullptr);
    // Times are UTC with English months; 21 characters and the terminator.
    const time_t t = k16Nov2026;
    char buf[25];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(convertTime(&t, buf, sizeof buf), 21u);
    EXPECT_STREQ(buf, "16-Nov-2026 21:45:12 ");
    char small[22];
    EXPECT_EQ(convertTime(&t, small, 21), 0u);
    EXPECT_EQ(convertTime(&t, small, 22), 21u);
    // SEL times are unsigned: from 2038 on they stay right where time_t has 32 bits too.
    for (const auto &[seconds, text] : {std::pair<uint32_t, const char *>{0x80000000u, "19-Jan-2038 03:14:08 "},
                                        {0xFFFFFFFEu, "07-Feb-2106 06:28:14 "}}) {
        const time_t late = static_cast<time_t>(seconds);
        EXPECT_EQ(convertTime(&late, small, sizeof small), 21u);
        EXPECT_STREQ(small, text);
    }
    if constexpr (sizeof(time_t) < 8) return;
    // Times whose year does not fit an int are refused; the largest that do are written whole.
    char wide[40];
    for (auto [when, text] : {std::pair<int64_t, const char *>{67768036191676799, "31-Dec-2147485547 23:59:59 "},
                              {std::numeric_limits<int64_t>::max(), ""}}) {
        const time_t w = static_cast<time_t>(when);
        EXPECT_EQ(convertTime(&w, wide, sizeof wide), std::strlen(text));
        EXPECT_STREQ(wide, text);
    }
}

using SelLog = SelTest;

// The record read writes no more records than the last count reported on the session, however
// the log grew since; a failed count leaves the caller's count and the reported one as they were.
TEST_F(SelLog, RecordReadStaysWithinTheLastReportedCount)
{
    expectCount(2);
    uint16_t count = 0;
    ASSERT_EQ(LIBIPMI_HL_GetNumOfSELEntries(session_, &count, 5), 0);
    expectCount(0, LIBIPMI_STATUS_COMPLETION_CODE(0xC1));
    EXPECT_EQ(LIBIPMI_HL_GetNumOfSELEntries(session_, &count, 5), LIBIPMI_STATUS_COMPLETION_CODE(0xC1));
    EXPECT_EQ(count, 2);
    expectEntry(0, 2, selRecord(1, 0x02, 0, {}));
    expectEntry(2, 3, selRecord(2, 0x02, 0, {}));
    std::vector<SelRecord> records(3);
    std::memset(records.data(), 0xAB, records.size() * sizeof(SelRecord));
    ASSERT_EQ(LIBIPMI_HL_GetAllSELEntries(session_, records.data(), 5), 0);
    EXPECT_EQ(Bytes(records[1].bytes, records[1].bytes + 16), selRecord(2, 0x02, 0, {}));
    EXPECT_EQ(Bytes(records[2].bytes, records[2].bytes + 16), Bytes(16, 0xAB)) << "the third record stays unwritten";
    EXPECT_EQ(ipmihost_script_pending(), 0u);
}

TEST_F(SelLog, RawStringsFollowTheNextIdsInEitherOrder)
{
    const Bytes r2 = selRecord(0x0005, 0xE1, 0, {});
    const Bytes r3 = selRecord(0x0009, 0x02, k03Feb2001, {0x41, 0x02, 0x04, 0x07, 0x88, 0x6F, 0x01, 0xFF, 0x10});
    const std::string l2 = "0005 -OEM-" + std::string(15, ' ') + " OEM: Data:00:00:00:00-00:00:00:00-00:00:00:00-00";
    const std::string l3 = "0009 03-Feb-2001 04:05:06 Addr:41:2, EvM:04, Sens:07:88, Trig:6F, Data:01:FF:10";
    // Record IDs as the next IDs give them (the order either way is read from the virtual controller).
    expectCount(3);
    expectEntry(0x0000, 0x0005, kExample);
    expectEntry(0x0005, 0x0009, r2);
    expectEntry(0x0009, 0xFFFF, r3);
    EXPECT_EQ(stderrOf([&] {
                  EXPECT_EQ(lines(ipmiGetSelRawStrings(session_, 0)), (std::vector{kExampleLine, l2, l3}));
              }),
              "");
    const std::string failed = "\nipmihelpers.cpp:{line} (ipmiGetSelRawStrings) Failed to get ";
    expectCount(0);
    EXPECT_DIAG(stderrOf([&] { EXPECT_EQ(ipmiGetSelRawStrings(session_, 0), nullptr); }), "");
    expectCount(0, kTimeout);
    EXPECT_DIAG(stderrOf([&] { EXPECT_EQ(ipmiGetSelRawStrings(session_, 0), nullptr); }),
                failed + "count of sel entries\n");
    expectCount(2);
    expectEntry(0x0000, 0x0007, kExample);
    expect(kStorage, 0x43, {0, 0, 0x07, 0, 0, 0xFF}, {0xC1}, 0x01C1);
    EXPECT_DIAG(stderrOf([&] { EXPECT_EQ(ipmiGetSelRawStrings(session_, 0), nullptr); }), failed + "sel entries\n");
    for (const ipmihost_call &c : raw()) EXPECT_EQ(c.timeout, 60);
}

TEST_F(SelLog, SummaryAndUtcOffset)
{
    const Bytes alloc = cat({{0x00}, le16(0x0200), le16(16), le16(0x0100), le16(0x0100), {1}});
    const Bytes info = selInfo(7, k16Nov2026, k03Feb2001);
    const struct {
        uint16_t countStatus, allocStatus, infoStatus;
        SelSummary want;
    } cases[] = {
        {0, 0, 0, {7, 512, k16Nov2026, k03Feb2001}},
        {0, LIBIPMI_STATUS_TRANSPORT, 0, {7, 0, k16Nov2026, k03Feb2001}},
        {kTimeout, 0, 0x01D5, {0, 512, 0, 0}}, // a completion code with the data counts as a failure
    };
    for (const auto &c : cases) {
        expect(kStorage, 0x40, {}, c.countStatus ? Bytes{} : info, c.countStatus);
        expect(kStorage, 0x41, {}, c.allocStatus ? Bytes{} : alloc, c.allocStatus);
        Bytes infoAnswer = info;
        infoAnswer[0] = uint8_t(c.infoStatus);
        expect(kStorage, 0x40, {}, infoAnswer, c.infoStatus);
        SelSummary s = ipmiGetSelInfo(session_);
        EXPECT_EQ(std::tuple(s.entries, s.maxEntries, s.lastAddTime, s.lastEraseTime),
                  std::tuple(c.want.entries, c.want.maxEntries, c.want.lastAddTime, c.want.lastEraseTime));
    }
    // clang-format off
    for (auto [status, answer, want] : {std::tuple{uint16_t(0), Bytes{0x00, 0xFF, 0x07}, 2047}, // unspecified
                                        {0, {0x00, 0xC4, 0xFF}, -60}, {0, {0x00}, -1}, {cc(0xD4), {0xD4, 0x3C, 0x00}, -1}}) {
        // clang-format on
        ipmihost_script_reset();
        expect(kStorage, 0x5C, {}, answer, status);
        EXPECT_EQ(ipmiGetSelTimeUtcOffset(session_), want) << answer.size();
        EXPECT_EQ(raw().at(0).resLenIn, 3u);
    }
}

TEST_F(SelLog, ClearReservesThenErasesAndWriteAddsASystemEvent)
{
    const struct {
        uint16_t reserveStatus;
        Bytes reserveAnswer, reservation;
        uint16_t clearStatus;
        int want;
    } cases[] = {
        {0x01C1, {0xC1, 0x34, 0x12}, {0x00, 0x00}, 0, 1}, // the reservation refused: 0 is sent
        {0, {0x00, 0x01, 0x00}, {0x01, 0x00}, kTimeout, 0},
    };
    for (const auto &c : cases) {
        expect(kStorage, 0x42, {}, c.reserveAnswer, c.reserveStatus);
        expect(kStorage, 0x47, cat({c.reservation, {'C', 'L', 'R', 0xAA}}), c.clearStatus ? Bytes{} : Bytes{0x00, 0x01},
               c.clearStatus);
        EXPECT_EQ(ipmiClearEventLog(session_), c.want);
    }
    // ID and timestamp 0, type 0x02, generator 0x20/0x00, revision 0x01, then the arguments.
    const Bytes record = {0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x20,
                          0x00, 0x01, 0x07, 0x42, 0x6F, 0xA1, 0xB2, 0xC3};
    expect(kStorage, 0x44, record, {0x00, 0x10, 0x00});
    EXPECT_EQ(ipmiWriteSelEntry(session_, 0x07, 0x42, 0x6F, 0xA1, 0xB2, 0xC3), 1);
    expect(kStorage, 0x44, record, {0xC4}, 0x01C4);
    EXPECT_DIAG(stderrOf([&] { EXPECT_EQ(ipmiWriteSelEntry(session_, 0x07, 0x42, 0x6F, 0xA1, 0xB2, 0xC3), 0); }),
                "\nipmihelpers.cpp:{line} (ipmiWriteSelEntry) Failed to send request with error 0xc401\n");
    for (const ipmihost_call &c : raw()) EXPECT_EQ(c.timeout, 60);
}

} // namespace
