// The library's event log and tvxctl sel against the virtual controller of a small machine.

#include "process.h"
#include "sel_machine.h"

namespace simsel {
namespace {

using Lines = std::vector<std::string>;

using tvxtest::lines;
using tvxtest::take;

const Lines kRaw = {"0001 01-Mar-2026 10:00:00 Addr:20:0, EvM:04, Sens:04:20, Trig:01, Data:52:03:05",
                    "0002 02-Mar-2026 10:00:00 OEM: D9:7E:00, Data:01:02:03:04:05:06",
                    "0003 -OEM-                OEM: Data:0D:0C:0B:0A-09:08:07:06-05:04:03:02-01"};
// The library drops a percent sign at the very end (the controller's own texts keep it).
const std::string kFanEnglish = "Fan FAN1 failed (3); %3 stays, %% too, and a final ";
const std::string kFanGerman = "01-Mar-2026 10:00:00  L\u00fcfter FAN1 ausgefallen (3) (MAJOR)";

TEST(SelLibrary, RawLinesAndTextsAreTheProfilesRecords)
{
    tvxtest::ScratchMachine m(smallMachine());
    IpmiSession *s = m.session();
    EXPECT_EQ(lines(ipmiGetSelRawStrings(s, 0)), kRaw);
    EXPECT_EQ(lines(ipmiGetSelRawStrings(s, 1)), Lines(kRaw.rbegin(), kRaw.rend()));
    // Newest first; the record without an error code has no text.
    EXPECT_EQ(lines(ipmiGetSelText(s, 1, 0)), (Lines{"02-Mar-2026 10:00:00  OEM event (CRITICAL)",
                                                     "01-Mar-2026 10:00:00  " + kFanEnglish + " (MAJOR)"}));
    SelEntryText e = getSELEntryText(s, 1);
    EXPECT_EQ(std::string(e.text, e.length), kFanEnglish.substr(0, 20));
}

// The whole entry as text, composed by the controller: the first chunk as long as asked for
// (0: the controller's chunk size of 8; at most 230), the rest in follow-ups.
TEST(SelLibrary, EntryAsTextComesWholeWithItsFollowUps)
{
    tvxtest::ScratchMachine m(smallMachine());
    const std::string english = "Fan FAN1 failed (3); %3 stays, %% too, and a final %",
                      german = "L\u00fcfter FAN1 ausgefallen (3)", time = "01-Mar-2026 10:00:00 ";
    const struct {
        uint16_t id;
        uint8_t form; // bit 0: the time, bit 1: the severity
        uint16_t lang;
        uint8_t first;
        std::string text;
        uint8_t firstLength; // the first chunk's bytes, its terminator included
    } cases[] = {
        {1, 0x03, 0x0407, 0, time + german + " (MAJOR)", 9},
        {1, 0x02, 0x040C, 20, english + " (MAJOR)", 21}, // a language without texts gets English
        {1, 0x01, 0x0409, 250, time + english, 74},      // all in the first chunk
        {0x0000, 0x00, 0x0000, 3, english, 4},           // ID 0: the first
        {1, 0x00, 0x0407, 2, german, 3},                 // the first chunk ends inside the ü
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        iESLText t = ipmiGetiESLSELEntryAsText(m.session(), 0, c.id, c.form, c.lang, c.first, 0);
        // ID, record type, language, severity flags, parameters, next ID, entries; the error code.
        const int lang = c.text.find("L\u00fc") == std::string::npos ? 0x0409 : 0x0407;
        EXPECT_EQ(std::tuple(t.field1, t.field2, t.field3, t.byte14, t.byte15, t.nextId, t.word18, t.firstLength,
                             Bytes(t.code, t.code + 4)),
                  std::tuple(1, 2, lang, 0x20, 2, 2, 3, c.firstLength, Bytes{0, 0, 0, 1}));
        EXPECT_EQ(take(t.text), c.text);
    }
}

TEST(SelLibrary, ControllersThatCannotAnswerWholeRecordsAreReadInPieces)
{
    json profile = smallMachine();
    tvxtest::ScratchMachine m(profile);
    ipmihost_reset_request_count();
    EXPECT_EQ(lines(ipmiGetSelRawStrings(m.session(), 0)), kRaw);
    EXPECT_EQ(ipmihost_request_count(), 4u); // the count, then one request per record
    profile["sel"]["max_read_bytes"] = 8;
    m.start(profile);
    ipmihost_reset_request_count();
    EXPECT_EQ(lines(ipmiGetSelRawStrings(m.session(), 0)), kRaw);
    // Per record: the refused whole read, a reservation and two halves.
    EXPECT_EQ(ipmihost_request_count(), 1u + 4 * 3);
}

TEST(SelLibrary, TvxctlListsTheLogRawAndAsTexts)
{
    // The record without a text of the controller's, decoded the standard way.
    const std::string kOemRecord = "OEM record 0xe0 0d0c0b0a090807060504030201\n";
    TempDir dir;
    tvxtest::writeFile(dir.file("small.json"), smallMachine().dump());
    const struct {
        std::vector<std::string> args;
        std::string out;
    } cases[] = {
        {{"sel", "--reverse"}, kRaw[2] + "\n" + kRaw[1] + "\n" + kRaw[0] + "\n"},
        {{"sel", "--text", "--lang", "0x0407"}, kFanGerman + "\n02-Mar-2026 10:00:00  OEM event (CRITICAL)\n" + kOemRecord},
        {{"sel", "list", "--text", "--lang", "1036"},
         "01-Mar-2026 10:00:00  " + kFanEnglish + " (MAJOR)\n02-Mar-2026 10:00:00  OEM event (CRITICAL)\n" + kOemRecord},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = {"--machine", dir.file("small.json")};
        args.insert(args.end(), c.args.begin(), c.args.end());
        tvxtest::Outcome r = tvxtest::tvxctl(dir.path(), args);
        EXPECT_EQ(std::tuple(r.code, r.out), std::tuple(0, c.out)) << r;
    }
}

} // namespace
} // namespace simsel
