// The internal event log through the scripted exchange: the bytes of every request, entry
// bodies in 50-byte pieces, and what broken answers become.
#include <numeric>

#include "scripted.h"

namespace {

using IelTest = ScriptTest;

// Entry 0x0105: severity 2, next 0x0106, time 0x6A95335E, body length T, then the piece.
Bytes entryAnswer(uint16_t total, const Bytes &piece)
{
    return oemAnswer(cat({le16(0x0105), {0x02}, le16(0x0106), le32(0x6A95335E), le16(total), piece}));
}
const std::string failed = "\nipmihelpers.cpp:{line} (ipmiGetiELEntry) Failed to ";
const std::string wrongSize = failed + "read iEL entry, wrong response size.\n";

TEST_F(IelTest, EntryBodiesArriveInFiftyBytePieces)
{
    Bytes body(120);
    std::iota(body.begin(), body.end(), uint8_t{1});
    auto part = [&](size_t at, size_t n) { return Bytes(body.begin() + at, body.begin() + at + n); };
    struct Piece {
        uint16_t offset;
        uint16_t status;
        Bytes answer;
    };
    const struct {
        const char *what;
        uint16_t offset;
        std::vector<Piece> pieces;
        bool read;  // the header and a body buffer are returned
        Bytes want; // the body buffer
        std::string diag = "";
    } cases[] = {
        // clang-format off
        {"T = 50: one request", 0, {{0, 0, entryAnswer(50, part(0, 50))}}, true, part(0, 50)},
        {"T = 51: two", 0, {{0, 0, entryAnswer(51, part(0, 50))}, {50, 0, entryAnswer(51, part(50, 1))}}, true, part(0, 51)},
        {"T = 120: three, in order", 0, {{0, 0, entryAnswer(120, part(0, 50))}, {50, 0, entryAnswer(120, part(50, 50))},
                                         {100, 0, entryAnswer(120, part(100, 20))}}, true, body},
        {"from an offset", 100, {{100, 0, entryAnswer(120, part(100, 20))}}, true, part(100, 20)},
        {"at the end: an empty body", 120, {{120, 0, entryAnswer(120, {})}}, true, {}},
        {"a later piece that fails leaves its part zero", 0, {{0, 0, entryAnswer(120, part(0, 50))},
         {50, LIBIPMI_STATUS_TIMEOUT, {}}}, true, cat({part(0, 50), Bytes(70, 0)}), failed + "send request with error 0x300\n"},
        {"a later piece with another length is refused", 0, {{0, 0, entryAnswer(120, part(0, 50))},
         {50, 0, entryAnswer(200, part(50, 50))}}, true, cat({part(0, 50), Bytes(70, 0)}), wrongSize},
        {"a body shorter than the piece it promises", 0, {{0, 0, entryAnswer(60, part(0, 20))}}, false, {}, wrongSize},
        {"a length below the offset", 80, {{80, 0, entryAnswer(60, {})}}, false, {}, wrongSize},
        {"an empty answer", 0, {{0, 0, {}}}, false, {}, "response returned with length <=0\n"},
        {"a completion code", 0, {{0, 0x01CB, oemAnswer({}, 0xCB)}}, false, {}, failed + "send request with error 0xcb01\n"},
        // clang-format on
    };
    IpmiSession *s = open();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        for (const Piece &p : c.pieces)
            expect(0xB8, 0xF5, oem(cat({{0x84}, le16(0x0105), le16(p.offset)})), p.answer, p.status);
        iELEntry e;
        EXPECT_DIAG(stderrOf([&] { e = ipmiGetiELEntry(s, 0x0105, c.offset); }), c.diag);
        EXPECT_EQ(ipmihost_script_pending(), 0u);
        // Header fields come from the first answer; e9 is always 0.
        using Fields = std::vector<unsigned>;
        EXPECT_EQ((Fields{e.e0, e.e2, e.e3, e.e5, e.e9}),
                  (c.read ? Fields{0x0105, 2, 0x0106, 0x6A95335E, 0} : Fields(5, 0)));
        ASSERT_EQ(e.body != nullptr, c.read);
        EXPECT_EQ(c.read ? Bytes(e.body, e.body + c.want.size()) : Bytes{}, c.want);
        std::free(e.body);
    }
}

TEST_F(IelTest, SummaryWriteAndClearRequests)
{
    IpmiSession *s = open();
    const Bytes summary = cat(
        {{0x01, 0x80}, le16(33), le32(0x6A95335E), {50}, le16(1), le16(33), le16(256), le16(223), le16(1807), le16(4)});
    expect(0xB8, 0xF5, oem({0x82}), oemAnswer(summary));
    iELSummary got = ipmiGetiELInfo(s);
    EXPECT_EQ(Bytes(reinterpret_cast<uint8_t *>(&got), reinterpret_cast<uint8_t *>(&got) + sizeof got), summary);
    const std::string infoFailed = "\nipmihelpers.cpp:{line} (ipmiGetiELInfo) Failed to ";
    for (auto [status, answer, diag] :
         {std::tuple{0x01C1, oemAnswer({}, 0xC1), infoFailed + "send ipmi raw command.\n"},
          {0, oemAnswer(Bytes(summary.begin(), summary.end() - 1)),
           infoFailed + "read iEL info, wrong response size.\n"}}) {
        expect(0xB8, 0xF5, oem({0x82}), answer, static_cast<uint16_t>(status));
        EXPECT_DIAG(stderrOf([&] { got = ipmiGetiELInfo(s); }), diag);
        EXPECT_EQ(got.s2 | got.s4 | got.s19, 0u);
    }

    // Write: 8 header bytes, the text, a zero byte, the 16-byte record; a 1-byte answer buffer.
    Bytes record(16);
    std::iota(record.begin(), record.end(), uint8_t{0xA0});
    for (auto [text8, status] : {std::pair{"Fan 2 replaced", 0}, {"", 0}, {"x", 0x01CC}}) {
        size_t from = ipmihost_script_call_count();
        Sent req{0xB8, 0xF5, cat({oem({0x8A, 3, 4, 5, 6}), text(text8), {0x00}, record})};
        expect(req.netFnLun, req.command, req.request, {uint8_t(status)}, static_cast<uint16_t>(status));
        int r = -1;
        EXPECT_DIAG(stderrOf([&] { r = ipmiWriteiELEntry(s, 3, 4, 5, record.data(), text8, 6); }),
                    status ? "\nipmihelpers.cpp:{line} (ipmiWriteiELEntry) Failed to send ipmi raw command.\n" : "");
        EXPECT_EQ(r, status ? 0 : 1);
        expectSent(s, from, {req}, 1);
    }

    // Clear: all ignores the entry ID; the completion code counts.
    for (auto [all, request, status] : {std::tuple{7, oem({0x87, 0x80, 0x00, 0x00}), 0},
                                        {0, oem({0x87, 0x00, 0x34, 0x12}), 0},
                                        {0, oem({0x87, 0x00, 0x34, 0x12}), 0x01CB}}) {
        expect(0xB8, 0xF5, request, oemAnswer({}, uint8_t(status)), static_cast<uint16_t>(status));
        std::string err = stderrOf([&] { EXPECT_EQ(ipmiCleariELLog(s, all, 0x1234), status ? 0 : 1); });
        EXPECT_EQ(err.empty(), status == 0) << err;
    }

    // Without a session nothing is sent.
    EXPECT_EQ(ipmiWriteiELEntry(nullptr, 0, 0, 0, record.data(), "x", 0), 0);
    EXPECT_EQ(ipmiCleariELLog(nullptr, 1, 0), 0);
    EXPECT_EQ(+ipmiGetiELInfo(nullptr).s0, 0); // + reads the packed field into a value
    EXPECT_EQ(static_cast<uint8_t *>(ipmiGetiELEntry(nullptr, 1, 0).body), nullptr);
    EXPECT_EQ(ipmihost_script_pending(), 0u);
}

} // namespace
