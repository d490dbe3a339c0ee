// Event message texts: error codes, chunks, composed lines, the log as text, entry texts and follow-ups.
#include <cstdlib>

#include "machine.h"
#include "sel_fixture.h"

namespace {

const Bytes kCode = {0xDE, 0xAD, 0xBE, 0xEF};

void expectErrorCode(uint8_t selector, uint16_t id, const Bytes &answer, uint16_t status = 0)
{
    expect(kOem, kOemCmd, oem(cat({{0x72, selector}, le16(id)})), answer, status);
}
using tvxtest::take;
Bytes cut(Bytes b, size_t n) { return b.resize(n), b; }
Bytes followUp(uint16_t remaining, uint8_t c, const std::string &s)
{
    return cat({oemAnswer(cat({le16(remaining), {c}, text(s)})), {0}});
}
// An entry-as-text answer with every field distinct, then the first chunk.
Bytes iesl(uint16_t textSize, uint8_t firstLength, uint8_t handle, const std::string &first)
{
    Bytes fields = {0x11, 0x11, 0x22, 0x22, 0x33, 0x33, 0xC0, 0xC1, 0xC2, 0xC3, 0x14, 0x15, 0x99, 0x00, 0x18, 0x18};
    return cat({oemAnswer(cat({fields, le16(textSize), {firstLength, handle}, text(first)})), {0}});
}

using SelText = SelTest;

TEST_F(SelText, ErrorCodeRecord)
{
    Bytes full = oemAnswer(cat({kCode, {0x20, 1, 0xFF}}));
    full.resize(255, 'k');
    const uint8_t record[16] = {0x42, 0x01, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0x20, 0, 4, 1, 0x30, 1, 0x57, 0, 0};
    // clang-format off
    for (const auto &[answer, flags, params] : {
             std::tuple{errorCodeAnswer(kCode, 0x35, {"FAN1", "12"}), 0x35, std::vector<std::string>{"FAN1", "12"}},
             {oemAnswer(cat({kCode, {0x10, 1, 10, 'a', 'b', 'c'}})), 0x10, {"abc"}}, // cut by the answer's end
             {oemAnswer(cat({kCode, {0, 3, 2, 'A', 'B'}})), 0, {"AB", "", ""}},     // never arrived: empty
             {full, 0x20, {std::string(244, 'k')}}}) {                             // the longest
        // clang-format on
        ipmihost_script_reset();
        expectErrorCode(0x09, 0x0142, answer);
        ErrorCodeRecord *r = getErrorCode(session_, record, 0x09);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(std::tuple(Bytes(r->errorCode, r->errorCode + 4), +r->flags,
                             std::vector<std::string>(r->params, r->params + r->paramCount)),
                  std::tuple(kCode, flags, params));
        freeErrorCode(r);
        EXPECT_EQ(raw().at(0).resLenIn, 255u);
    }
    // A failed request gives nothing and says nothing.
    expectErrorCode(0x09, 0x0142, {0xC1}, cc(0xC1));
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(getErrorCode(session_, record, 0x09), nullptr); }), "");
}

TEST_F(SelText, TextChunks)
{
    const std::string kFailed = "\nipmihelpers.cpp:{line} (getSelTextByErrorCode) Failed to send request with error ";
    const struct {
        std::vector<std::tuple<uint16_t, uint16_t, Bytes>> chunks; // offset, status, answer
        const char *want;                                          // nullptr: no text
        std::string diag;
    } cases[] = {
        // clang-format off
        {{{0, 0, chunkAnswer(18, 8, "Fan %1 f")}, {8, 0, chunkAnswer(18, 6, "ailed ")},
          {14, 0, chunkAnswer(18, 4, "(%2)")}}, "Fan %1 failed (%2)", ""},
        {{{0, 0, chunkAnswer(18, 9, "Fan %1 f")}}, "Fan %1 f", ""},           // length byte longer than the text
        {{{0, 0, chunkAnswer(3, 5, "hello", false)}}, "hel", ""},             // unterminated, beyond the size
        {{{0, 0, chunkAnswer(6, 4, "abcd")}, {4, 0, chunkAnswer(6, 4, "efgh")}}, "abcdef", ""}, // the same later
        {{{0, 0, chunkAnswer(10, 4, "abcd")}, {4, cc(0xC9), {0xC9}}}, "abcd", kFailed + "0xc901\n"},
        {{{0, LIBIPMI_STATUS_TRANSPORT, {}}}, nullptr, kFailed + "0x400\n"},
        // clang-format on
    };
    ErrorCodeRecord code = {{0x11, 0x22, 0x33, 0x44}, 0x30, 0, nullptr};
    for (const auto &c : cases) {
        for (const auto &[offset, status, answer] : c.chunks)
            expect(kOem, kOemCmd, chunkRequest({0x11, 0x22, 0x33, 0x44}, offset, 0x05, 0x0407), answer, status);
        char *s = nullptr;
        EXPECT_DIAG(stderrOf([&] { s = getSelTextByErrorCode(session_, &code, nullptr, 0, 0x05, 0x0407); }), c.diag);
        EXPECT_EQ(take(s), c.want ? c.want : "(null)");
    }
}

TEST_F(SelText, TextOfLargestDeclaredSize)
{
    ErrorCodeRecord code = {{1, 2, 3, 4}, 0, 0, nullptr};
    // The buffer of a 65535-character text: its last byte is the terminator.
    expect(kOem, kOemCmd, chunkRequest({1, 2, 3, 4}, 0, 0, 0x0409), chunkAnswer(65535, 4, "abc"));
    char *s = getSelTextByErrorCode(session_, &code, nullptr, 0, 0, 0x0409);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "abc");
    EXPECT_EQ(s[65535], '\0');
    std::free(s);
    // Near the end of such a text offsets do not wrap: a chunk reaching past 65535 is cut at the
    // declared size and ends the walk.
    std::string buffer(65536, '\0');
    expect(kOem, kOemCmd, chunkRequest({1, 2, 3, 4}, 65530, 0, 0x0409), chunkAnswer(65535, 10, "0123456789"));
    EXPECT_EQ(getSelTextByErrorCode(session_, &code, buffer.data(), 65530, 0, 0x0409), buffer.data());
    EXPECT_STREQ(buffer.data() + 65530, "01234");
}

// A composed line for a record with ID 0x0042 and the Nov 2026 timestamp, selector 3.
const Bytes kRecord = selRecord(0x0042, 0x02, k16Nov2026, {0x20, 0, 4, 4, 0x30, 1, 0, 0, 0});

void expectLine(uint8_t flags, const std::vector<std::string> &params, const std::string &message,
                uint16_t language = 0x0409, uint8_t selector = 3, uint16_t id = 0x0042)
{
    expectErrorCode(selector, id, errorCodeAnswer(kCode, flags, params));
    expect(kOem, kOemCmd, chunkRequest(kCode, 0, selector, language),
           chunkAnswer(uint16_t(message.size()), uint8_t(message.size()), message));
}

TEST_F(SelText, ComposedLines)
{
    const std::vector<std::string> fan = {"FAN1", "12"};
    const std::string kTime = "16-Nov-2026 21:45:12  ", p(120, 'p'), q(120, 'q');
    std::string long240;
    for (size_t i = 0; i < 240; ++i) long240 += static_cast<char>('a' + i % 26);
    const struct {
        std::string message;
        std::vector<std::string> params;
        uint8_t flags;
        int withTime, withSeverity;
        std::string want;
    } cases[] = {
        // clang-format off
        {"Fan %1 failed (%2)", fan, 0x30, 1, 1, kTime + "Fan FAN1 failed (12) (CRITICAL)"},
        {"Fan %1 failed (%2)", fan, 0x30, 1, 0, kTime + "Fan FAN1 failed (12)"},
        {"x", {}, 0x40, 0, 1, "x (UNKNOWN)"}, {"x", {}, 0xB0, 0, 1, "x (CRITICAL)"}, // from bits 4-6 only
        {"%1 and %3 end with %", {"A", "B"}, 0, 0, 0, "A and %3 end with "}, // a placeholder without its parameter
        {"%2%1|%8", {"%2", "x", "p3", "p4", "p5", "p6", "p7", "p8"}, 0, 0, 0, "x%2|p8"}, // not expanded again
        // Long lines are cut keeping time and severity: 22 + 221 + 11 characters; grown by parameters.
        {long240, {}, 0x30, 1, 1, kTime + long240.substr(0, 221) + " (CRITICAL)"},
        {"%1%2%1", {p, q}, 0x00, 0, 1, p + q + "ppppppp (INFO)"},
        // clang-format on
    };
    for (const auto &c : cases) {
        expectLine(c.flags, c.params, c.message, 0x0407);
        EXPECT_EQ(take(buildSelTextString(session_, kRecord.data(), 3, c.withTime, c.withSeverity, 0x0407)), c.want);
    }
}

// The log's texts in either order, without the records that have none, are read from the
// virtual controller; here the selector passed on and the failures.
TEST_F(SelText, WholeLogAsText)
{
    expectCount(2);
    expectEntry(0x0000, 0x0043, kRecord);
    expectEntry(0x0043, 0xFFFF, selRecord(0x0043, 0x02, k03Feb2001, {}));
    expectLine(0x30, {"FAN1", "12"}, "Fan %1 failed (%2)", 0x0409, 7);
    expectLine(0x20, {}, "Power supply redundancy lost", 0x0409, 7, 0x43);
    EXPECT_EQ(tvxtest::lines(ipmiGetSelText(session_, 0, 7)),
              (std::vector<std::string>{"16-Nov-2026 21:45:12  Fan FAN1 failed (12) (CRITICAL)",
                                        "03-Feb-2001 04:05:06  Power supply redundancy lost (MAJOR)"}));
    expectCount(0, kTimeout);
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(ipmiGetSelText(session_, 0, 7), nullptr); }), "SEL has no entries\n");
    expectCount(1);
    expect(kStorage, 0x43, {0, 0, 0, 0, 0, 0xFF}, {}, kTimeout);
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(ipmiGetSelText(session_, 0, 7), nullptr); }), "failed to get sel entries\n");
}

// The short entry text: at most 20 characters, and nothing from another vendor's answer.
TEST_F(SelText, EntryTextIsCappedAt20)
{
    const Bytes info = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (bool ours : {true, false}) {
        Bytes answer = oemAnswer(cat({info, {25}, text(letters)}));
        answer[3] = ours ? 0x00 : 0x01;
        expect(kOem, kOemCmd, oem({0x45, 0x34, 0x12}), answer);
        SelEntryText e = getSELEntryText(session_, 0x1234);
        Bytes want = ours ? cat({info, {20}, text(letters.substr(0, 20))}) : Bytes{};
        want.resize(32, 0);
        EXPECT_EQ(Bytes(reinterpret_cast<uint8_t *>(&e), reinterpret_cast<uint8_t *>(&e) + 32), want);
        EXPECT_EQ(raw().back().resLenIn, 64u);
    }
}

TEST_F(SelText, FollowUpChunks)
{
    const std::string kFailed =
        "\nipmihelpers.cpp:{line} (ipmiInterpretSELEntryUsTextFollowUp) Failed to send request with error ";
    const struct {
        unsigned size;
        std::vector<std::pair<uint16_t, Bytes>> chunks; // status, answer
        const char *want;
        std::string diag;
    } cases[] = {
        // clang-format off
        {20, {{0, followUp(9, 7, "hello ")}, {0, followUp(3, 4, "wor")}, {0, followUp(0, 3, "ld")}}, "hello world", ""},
        {20, {{0, followUp(0, 3, "hello")}}, "he", ""},                                       // length byte shorter
        {6, {{0, followUp(5, 4, "abc")}, {0, followUp(0, 6, "defgh")}}, "abcde", ""},         // past the buffer
        {6, {{0, followUp(3, 3, "ab")}, {0, followUp(0, 200, "x")}}, nullptr, "response > buffer size\n"},
        {20, {{0, followUp(5, 4, "abc")}, {kTimeout, {}}}, nullptr, kFailed + "0x300\n"},
        // clang-format on
    };
    for (const auto &c : cases) {
        for (const auto &k : c.chunks) expect(kOem, kOemCmd, oem({0x71, 0x5C}), k.second, k.first);
        char *s = nullptr;
        EXPECT_DIAG(stderrOf([&] { s = ipmiInterpretSELEntryUsTextFollowUp(session_, 0x5C, c.size); }), c.diag);
        EXPECT_EQ(s ? s[c.size - 1] : '\0', '\0');
        EXPECT_EQ(take(s), c.want ? c.want : "(null)");
    }
    EXPECT_EQ(take(ipmiInterpretSELEntryUsTextFollowUp(session_, 0x5C, 0)), "") << "size 0 asks for nothing";
    // A controller that keeps announcing more but sends empty chunks is given up on.
    expect(kOem, kOemCmd, oem({0x71, 0x01}), followUp(50, 3, "ab"));
    for (int i = 0; i < 40; ++i) expect(kOem, kOemCmd, oem({0x71, 0x01}), followUp(50, 0, ""));
    EXPECT_EQ(take(ipmiInterpretSELEntryUsTextFollowUp(session_, 0x01, 64)), "ab");
    EXPECT_GT(ipmihost_script_pending(), 0u);
    ipmihost_script_reset();
}

// A controller that declares the largest text and serves it one character per answer: each
// text stops after a bounded number of requests instead of 65535.
TEST_F(SelText, OneTextCostsAtMostABoundedNumberOfRequests)
{
    static const Bytes kChunk = chunkAnswer(65535, 1, "x");
    static const Bytes kFollowUp = followUp(65535, 2, "y");
    auto answer = [](void *, uint8_t, uint8_t, const uint8_t *req, uint32_t reqLen, uint8_t *res, uint32_t *resLen) {
        const Bytes &a = reqLen > 3 && req[3] == 0x71 ? kFollowUp : kChunk;
        std::copy(a.begin(), a.end(), res);
        *resLen = static_cast<uint32_t>(a.size());
        return uint16_t{0};
    };
    ASSERT_EQ(ipmihost_script_set_responder(answer, nullptr), 0);
    ErrorCodeRecord code = {{1, 2, 3, 4}, 0, 0, nullptr};
    const size_t kRequests = TVX_SEL_TEXT_MAX / TVX_SEL_TEXT_MIN_CHUNK;
    ipmihost_reset_request_count();
    EXPECT_EQ(take(getSelTextByErrorCode(session_, &code, nullptr, 0, 0, 0x0409)), std::string(kRequests, 'x'));
    EXPECT_EQ(ipmihost_request_count(), kRequests) << "message text";
    ipmihost_reset_request_count();
    EXPECT_EQ(take(ipmiInterpretSELEntryUsTextFollowUp(session_, 1, 65535)), std::string(kRequests, 'y'));
    EXPECT_EQ(ipmihost_request_count(), kRequests) << "follow-ups";
    ipmihost_script_set_responder(nullptr, nullptr);
}

TEST_F(SelText, EntryAsText)
{
    const Bytes request = oem({0x89, 0x02, 0x34, 0x12, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x00});
    const struct {
        Bytes answer;
        std::vector<Bytes> followUps;
        const char *want;
        std::string diag;
    } cases[] = {
        {iesl(20, 6, 0, "helloXYZ"), {}, "hello", ""},                   // first chunk cut to its length
        {iesl(8, 0, 0x44, "abc"), {followUp(0, 5, "wxyz")}, "wxyz", ""}, // no first chunk
        {iesl(13, 6, 0x44, "hello"), {followUp(0, 8, "world!!")}, "hello", "response > buffer size\n"},
    };
    for (const auto &c : cases) {
        expect(kOem, kOemCmd, request, c.answer);
        for (const Bytes &f : c.followUps) expect(kOem, kOemCmd, oem({0x71, 0x44}), f);
        iESLText t;
        EXPECT_EQ(stderrOf([&] { t = ipmiGetiESLSELEntryAsText(session_, 0x02, 0x1234, 0x07, 0x0908, 0x0A, 0x0B); }),
                  c.diag);
        EXPECT_EQ(
            std::tuple(t.field1, t.field2, t.field3, t.byte14, t.byte15, t.nextId, t.word18, Bytes(t.code, t.code + 4)),
            std::tuple(0x1111, 0x2222, 0x3333, 0x14, 0x15, 0x0099, 0x1818, Bytes({0xC0, 0xC1, 0xC2, 0xC3})));
        EXPECT_EQ(t.text ? t.text[t.textSize - 1] : '\0', '\0');
        EXPECT_EQ(take(t.text), c.want ? c.want : "(null)");
    }
    // A failed request: the record ID is named and the next ID says "none".
    expect(kOem, kOemCmd, request, {}, kTimeout);
    iESLText failed;
    EXPECT_DIAG(stderrOf([&] { failed = ipmiGetiESLSELEntryAsText(session_, 0x02, 0x1234, 0x07, 0x0908, 0x0A, 0x0B); }),
                "\nipmihelpers.cpp:{line} (ipmiGetiESLSELEntryAsText) Failed to send request with error 0x300\n"
                "\nrecordId = 0x1234\n");
    EXPECT_EQ(std::tuple(failed.nextId, failed.textSize, failed.text), std::tuple(0xFFFF, 0, nullptr));
}

// Answers that stop before the first text byte give an empty text on each path that reads one.
TEST_F(SelText, AnswersEndingBeforeTheTextGiveAnEmptyText)
{
    ErrorCodeRecord code = {{1, 2, 3, 4}, 0, 0, nullptr};
    const Bytes chunkRequest0 = chunkRequest({1, 2, 3, 4}, 0, 0, 0x0409);
    auto chunkText = [&] { return take(getSelTextByErrorCode(session_, &code, nullptr, 0, 0, 0x0409)); };
    expect(kOem, kOemCmd, chunkRequest0, cut(chunkAnswer(5, 0, ""), 7));
    EXPECT_EQ(chunkText(), "");
    expect(kOem, kOemCmd, chunkRequest0, {0x00});
    EXPECT_EQ(chunkText(), "");
    expect(kOem, kOemCmd, oem({0x71, 0x5C}), cut(followUp(0, 0, ""), 7));
    EXPECT_EQ(take(ipmiInterpretSELEntryUsTextFollowUp(session_, 0x5C, 6)), "");
    // Every field up to the follow-up handle arrived, the text did not.
    expect(kOem, kOemCmd, oem({0x89, 0x02, 0x34, 0x12, 0, 0, 0, 0, 0, 0x00}), cut(iesl(10, 6, 0, "abc"), 24));
    iESLText t = ipmiGetiESLSELEntryAsText(session_, 0x02, 0x1234, 0, 0, 0, 0);
    EXPECT_EQ(std::tuple(t.textSize, t.firstLength, take(t.text)), std::tuple(10, 6, ""));
}

} // namespace
