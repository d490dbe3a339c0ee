// The system event log: raw lines, summary, UTC offset, clearing and adding records, with
// the exact requests each operation sends.
#include <clocale>
#include <cstring>
#include <string>
#include <vector>

#include "sel_fixture.h"

namespace {

constexpr uint32_t k16Nov2026 = 1794865512; // 16-Nov-2026 21:45:12 UTC
constexpr uint32_t k03Feb2001 = 0x3A7B8372; // 03-Feb-2001 04:05:06 UTC

const Bytes kExample = selRecord(0x001A, 0x02, k16Nov2026, {0x20, 0x00, 0x04, 0x01, 0x30, 0x01, 0x57, 0x00, 0x00});
const std::string kExampleLine = "001A 16-Nov-2026 21:45:12 Addr:20:0, EvM:04, Sens:01:30, Trig:01, Data:57:00:00";

std::vector<std::string> lines(ListNode *list)
{
    std::vector<std::string> out;
    for (ListNode *n = list; n; n = n->next) out.emplace_back(reinterpret_cast<const char *>(n->data));
    return out;
}

// Every raw node holds the line in a zero-filled 255-byte buffer plus the terminator.
void expectRawNodes(ListNode *list)
{
    for (ListNode *n = list; n; n = n->next) {
        size_t len = std::strlen(reinterpret_cast<const char *>(n->data));
        ASSERT_LT(len, 255u);
        for (size_t i = len; i < 256; ++i) ASSERT_EQ(n->data[i], 0) << "byte " << i;
    }
}

TEST(SelRawLine, RecordTypes)
{
    const std::string unknown = "Unknown" + std::string(13, ' ') + " ";
    const struct {
        const char *what;
        Bytes record;
        std::string line;
    } cases[] = {
        {"system event", kExample, kExampleLine},
        {"generator channel byte in decimal, hex upper case",
         selRecord(0xFFFE, 0x02, 0, {0xAB, 0x83, 0x0C, 0xDE, 0xF0, 0x6F, 0xA1, 0xB2, 0xC3}),
         "FFFE 01-Jan-1970 00:00:00 Addr:AB:131, EvM:0C, Sens:DE:F0, Trig:6F, Data:A1:B2:C3"},
        {"type 0x01", selRecord(0x0002, 0x01, k16Nov2026, {0x20}), "0002 " + unknown},
        {"type 0x00", selRecord(0x0000, 0x00, 0, {}), "0000 " + unknown},
        {"OEM timestamped 0xC0",
         selRecord(0x0003, 0xC0, k03Feb2001, {0x11, 0x22, 0x33, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xFA}),
         "0003 03-Feb-2001 04:05:06 OEM: 11:22:33, Data:A0:A1:A2:A3:A4:FA"},
        {"OEM untimed 0xFF",
         Bytes{0x05, 0x01, 0xFF, 0xF0, 0xE1, 0xD2, 0xC3, 0xB4, 0xA5, 0x96, 0x87, 0x78, 0x69, 0x5A, 0x4B, 0x3C},
         "0105 -OEM-" + std::string(15, ' ') + " OEM: Data:F0:E1:D2:C3-B4:A5:96:87-78:69:5A:4B-3C"},
    };
    for (const auto &c : cases) {
        ListNode *list = nullptr;
        addEntryToRawStringList(&list, c.record.data());
        ASSERT_NE(list, nullptr) << c.what;
        EXPECT_EQ(lines(list), std::vector<std::string>{c.line}) << c.what;
        expectRawNodes(list);
        freeList(&list);
    }
    ListNode *list = nullptr;
    addEntryToRawStringList(&list, nullptr);
    EXPECT_EQ(list, nullptr);
}

TEST(SelRawLine, ConvertTimeIsUtcWithEnglishMonths)
{
    const time_t t = k16Nov2026;
    for (const char *locale : {"C", "de_DE.UTF-8", "fr_FR.UTF-8", "C.UTF-8"}) {
        if (!std::setlocale(LC_ALL, locale)) continue; // only the locales this machine has
        char buf[25];
        std::memset(buf, 'x', sizeof buf);
        EXPECT_EQ(convertTime(&t, buf, sizeof buf), 21u) << locale;
        EXPECT_STREQ(buf, "16-Nov-2026 21:45:12 ") << locale;
    }
    std::setlocale(LC_ALL, "C");
    // 21 characters and the terminator need 22 bytes.
    char small[22];
    EXPECT_EQ(convertTime(&t, small, 21), 0u);
    EXPECT_EQ(convertTime(&t, small, 22), 21u);
    EXPECT_STREQ(small, "16-Nov-2026 21:45:12 ");
}

class SelLog : public SelTest {};

TEST_F(SelLog, RawStringsInLogOrderAndReversed)
{
    const Bytes r1 = kExample;
    const Bytes r2 = selRecord(0x0005, 0xE1, 0, {});
    const Bytes r3 = selRecord(0x0009, 0x02, k03Feb2001, {0x41, 0x02, 0x04, 0x07, 0x88, 0x6F, 0x01, 0xFF, 0x10});
    const std::string l2 = "0005 -OEM-" + std::string(15, ' ') + " OEM: Data:00:00:00:00-00:00:00:00-00:00:00:00-00";
    const std::string l3 = "0009 03-Feb-2001 04:05:06 Addr:41:2, EvM:04, Sens:07:88, Trig:6F, Data:01:FF:10";
    for (int reverse : {0, 1, 7}) {
        expectCount(3);
        // The walk follows the next-record IDs the controller gives.
        expectEntry(0x0000, 0x0005, r1);
        expectEntry(0x0005, 0x0009, r2);
        expectEntry(0x0009, 0xFFFF, r3);
        testing::internal::CaptureStderr();
        ListNode *list = ipmiGetSelRawStrings(session_, reverse);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        std::vector<std::string> want = {kExampleLine, l2, l3};
        if (reverse) want = {l3, l2, kExampleLine};
        EXPECT_EQ(lines(list), want) << "reverse " << reverse;
        expectRawNodes(list);
        freeList(&list);
    }
    for (const ipmihost_call &c : raw()) EXPECT_EQ(c.timeout, 60);
}

TEST_F(SelLog, RawStringsEmptyAndFailing)
{
    const struct {
        const char *what;
        void (*script)();
        std::string diag;
    } cases[] = {
        {"empty log", [] { expectCount(0); }, ""},
        {"count fails", [] { expectCount(0, LIBIPMI_STATUS_TIMEOUT); },
         "\nipmihelpers.cpp:{line} (ipmiGetSelRawStrings) Failed to get count of sel entries\n"},
        {"second record fails",
         [] {
             expectCount(2);
             expectEntry(0x0000, 0x0007, kExample);
             expect(kStorage, 0x43, {0, 0, 0x07, 0, 0, 0xFF}, 0x01C1, {0xC1});
         },
         "\nipmihelpers.cpp:{line} (ipmiGetSelRawStrings) Failed to get sel entries\n"},
    };
    for (const auto &c : cases) {
        c.script();
        testing::internal::CaptureStderr();
        ListNode *list = ipmiGetSelRawStrings(session_, 0);
        EXPECT_DIAG(testing::internal::GetCapturedStderr(), c.diag) << c.what;
        EXPECT_EQ(list, nullptr) << c.what;
        freeList(&list);
    }
    ipmihost_script_reset();
    EXPECT_EQ(ipmiGetSelRawStrings(nullptr, 0), nullptr);
    EXPECT_TRUE(raw().empty());
}

TEST_F(SelLog, Summary)
{
    const Bytes alloc = cat({{0x00}, le16(0x0200), le16(16), le16(0x0100), le16(0x0100), {1}});
    const struct {
        const char *what;
        uint16_t countStatus, allocStatus, infoStatus;
        SelSummary want;
    } cases[] = {
        {"all answered", 0, 0, 0, {7, 512, k16Nov2026, k03Feb2001}},
        {"allocation fails", 0, LIBIPMI_STATUS_TRANSPORT, 0, {7, 0, k16Nov2026, k03Feb2001}},
        {"info answered with a completion code", 0, 0, 0x01D5, {7, 512, 0, 0}},
        {"all fail", LIBIPMI_STATUS_TIMEOUT, LIBIPMI_STATUS_TIMEOUT, LIBIPMI_STATUS_TIMEOUT, {0, 0, 0, 0}},
    };
    for (const auto &c : cases) {
        const Bytes info = selInfo(7, k16Nov2026, k03Feb2001);
        expect(kStorage, 0x40, {}, c.countStatus, c.countStatus ? Bytes{} : info);
        expect(kStorage, 0x41, {}, c.allocStatus, c.allocStatus ? Bytes{} : alloc);
        Bytes infoAnswer = info;
        if (c.infoStatus >> 8 == 1) infoAnswer[0] = static_cast<uint8_t>(c.infoStatus);
        expect(kStorage, 0x40, {}, c.infoStatus, c.infoStatus == LIBIPMI_STATUS_TIMEOUT ? Bytes{} : infoAnswer);
        SelSummary s = ipmiGetSelInfo(session_);
        EXPECT_EQ(s.entries, c.want.entries) << c.what;
        EXPECT_EQ(s.maxEntries, c.want.maxEntries) << c.what;
        EXPECT_EQ(s.lastAddTime, c.want.lastAddTime) << c.what;
        EXPECT_EQ(s.lastEraseTime, c.want.lastEraseTime) << c.what;
    }
    ipmihost_script_reset();
    SelSummary none;
    std::memset(&none, 0xEE, sizeof none);
    none = ipmiGetSelInfo(nullptr);
    EXPECT_EQ(none.entries, 0);
    EXPECT_EQ(none.maxEntries, 0);
    EXPECT_EQ(none.lastAddTime, 0u);
    EXPECT_EQ(none.lastEraseTime, 0u);
    EXPECT_TRUE(raw().empty());
}

TEST_F(SelLog, UtcOffset)
{
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int16_t want;
    } cases[] = {
        {"unspecified", 0, {0x00, 0xFF, 0x07}, 2047},  {"minus one hour", 0, {0x00, 0xC4, 0xFF}, -60},
        {"only the completion code", 0, {0x00}, -1},   {"completion code with data", 0x01D4, {0xD4, 0x3C, 0x00}, -1},
        {"no answer", LIBIPMI_STATUS_TIMEOUT, {}, -1},
    };
    for (const auto &c : cases) {
        ipmihost_script_reset();
        expect(kStorage, 0x5C, {}, c.status, c.answer);
        EXPECT_EQ(ipmiGetSelTimeUtcOffset(session_), c.want) << c.what;
        std::vector<ipmihost_call> sent = raw();
        ASSERT_EQ(sent.size(), 1u) << c.what;
        EXPECT_EQ(sent[0].reqLen, 0u) << c.what;
        EXPECT_EQ(sent[0].resLenIn, 3u) << c.what;
        EXPECT_EQ(sent[0].timeout, 60) << c.what;
    }
    ipmihost_script_reset();
    EXPECT_EQ(ipmiGetSelTimeUtcOffset(nullptr), -1);
    EXPECT_TRUE(raw().empty());
}

TEST_F(SelLog, ClearReservesThenErases)
{
    const struct {
        const char *what;
        uint16_t reserveStatus;
        Bytes reserveAnswer;
        Bytes reservation;
        uint16_t clearStatus;
        int want;
    } cases[] = {
        {"reserved", 0, {0x00, 0x34, 0x12}, {0x34, 0x12}, 0, 1},
        {"reservation refused", 0x01C1, {0xC1, 0x34, 0x12}, {0x00, 0x00}, 0, 1},
        {"clear not answered", 0, {0x00, 0x01, 0x00}, {0x01, 0x00}, LIBIPMI_STATUS_TIMEOUT, 0},
    };
    for (const auto &c : cases) {
        expect(kStorage, 0x42, {}, c.reserveStatus, c.reserveAnswer);
        expect(kStorage, 0x47, cat({c.reservation, {'C', 'L', 'R', 0xAA}}), c.clearStatus,
               c.clearStatus ? Bytes{} : Bytes{0x00, 0x01});
        EXPECT_EQ(ipmiClearEventLog(session_), c.want) << c.what;
    }
    for (const ipmihost_call &c : raw()) EXPECT_EQ(c.timeout, 60);
    ipmihost_script_reset();
    EXPECT_EQ(ipmiClearEventLog(nullptr), 0);
    EXPECT_TRUE(raw().empty());
}

TEST_F(SelLog, WriteAddsSystemEventRecord)
{
    // ID and timestamp 0, type 0x02, generator 0x20/0x00, revision 0x01, then the arguments.
    const Bytes record = {0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x20,
                          0x00, 0x01, 0x07, 0x42, 0x6F, 0xA1, 0xB2, 0xC3};
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int want;
        std::string diag;
    } cases[] = {
        {"added", 0, {0x00, 0x10, 0x00}, 1, ""},
        {"no answer",
         LIBIPMI_STATUS_TIMEOUT,
         {},
         0,
         "\nipmihelpers.cpp:{line} (ipmiWriteSelEntry) Failed to send request with error 0x300\n"},
    };
    for (const auto &c : cases) {
        expect(kStorage, 0x44, record, c.status, c.answer);
        testing::internal::CaptureStderr();
        EXPECT_EQ(ipmiWriteSelEntry(session_, 0x07, 0x42, 0x6F, 0xA1, 0xB2, 0xC3), c.want) << c.what;
        EXPECT_DIAG(testing::internal::GetCapturedStderr(), c.diag) << c.what;
    }
    ipmihost_script_reset();
    EXPECT_EQ(ipmiWriteSelEntry(nullptr, 1, 2, 3, 4, 5, 6), 0);
    EXPECT_TRUE(raw().empty());
}

} // namespace
