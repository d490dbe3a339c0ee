// The library's event log and tvxctl sel against the default machine: they read what the profile says.
#include <cstdlib>
#include <set>

#include "libipmi_host.h"
#include "sel_machine.h"
#include "tvxctl_runner.h"

namespace simsel {
namespace {

std::vector<std::string> lines(ListNode *list)
{
    std::vector<std::string> out;
    for (ListNode *n = list; n; n = n->next) out.emplace_back(reinterpret_cast<const char *>(n->data));
    freeList(&list);
    return out;
}
std::string take(char *s)
{
    std::string out = s ? s : "(null)";
    std::free(s);
    return out;
}

class Library : public testing::Test {
protected:
    void SetUp() override
    {
        profile_ = tvxtest::readJson(std::string(TVX_MACHINES_DIR) + "/default.json");
        profile_["sel"]["clock"] = {{"fixed", "2026-11-16T21:45:12Z"}};
        for (const auto &rec : profile_["sel"]["records"])
            records_.push_back(recordBytes(rec, uint16_t(records_.size() + 1)));
    }
    void TearDown() override
    {
        ipmiHelperCloseSession(&session_);
        ipmihost_select_default();
    }
    // Starts the machine (afresh: from the profile, not its kept state) and opens a session.
    void start(bool afresh = false)
    {
        ipmiHelperCloseSession(&session_);
        writeFile(dir_.file("lab.json"), profile_.dump());
        ASSERT_EQ(ipmihost_select_machine(dir_.file("lab.json").c_str(), dir_.path().c_str()), 0)
            << ipmihost_last_error();
        ASSERT_EQ(afresh ? ipmihost_reset_machine() : 0, 0) << ipmihost_last_error();
        session_ = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
        ASSERT_NE(session_, nullptr) << ipmihost_last_error();
    }
    const json &rec(std::size_t i) const { return profile_["sel"]["records"][i]; }
    std::vector<std::string> expected(const char *lcid, bool reverse) const
    {
        std::vector<std::string> out;
        for (std::size_t i = 0; i < records_.size(); ++i)
            out.push_back(lcid ? textLine(profile_, rec(i), bytes3to6(records_[i]), lcid) : rawLine(records_[i]));
        if (reverse) std::reverse(out.begin(), out.end());
        return out;
    }

    TempDir dir_;
    json profile_;
    std::vector<Bytes> records_; // as the log holds them
    IpmiSession *session_ = nullptr;
};

TEST_F(Library, RawLinesAndTextsAreTheProfilesRecords)
{
    start();
    ASSERT_GE(records_.size(), 40u);
    EXPECT_EQ(lines(ipmiGetSelRawStrings(session_, 0)), expected(nullptr, false));
    EXPECT_EQ(lines(ipmiGetSelRawStrings(session_, 1)), expected(nullptr, true));
    EXPECT_EQ(lines(ipmiGetSelText(session_, 1, 0)), expected("0x0409", true));
    std::set<std::string> severities;
    for (std::size_t i = 0; i < records_.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(take(buildSelTextString(session_, records_[i].data(), 0, 1, 1, TVX_LANG_GERMAN)),
                  textLine(profile_, rec(i), bytes3to6(records_[i]), "0x0407"));
        // A language the machine has no texts in reads in English.
        EXPECT_EQ(take(buildSelTextString(session_, records_[i].data(), 0, 0, 0, 0x040C)),
                  message(profile_, rec(i), "0x0409"));
        severities.insert(severity(profile_, rec(i)));
        // The short entry text and the whole entry as text, follow-ups included.
        uint16_t id = uint16_t(i + 1);
        SelEntryText e = getSELEntryText(session_, id);
        EXPECT_EQ(std::string(e.text, e.length), message(profile_, rec(i), "0x0409").substr(0, 20));
        std::string want = message(profile_, rec(i), "0x0407") + " (" + severity(profile_, rec(i)) + ")";
        if (timestamped(rec(i))) want = timeText(bytes3to6(records_[i])) + " " + want;
        iESLText t = ipmiGetiESLSELEntryAsText(session_, 0, id, 0x03, TVX_LANG_GERMAN, 0, 0);
        EXPECT_EQ(take(t.text), want);
        EXPECT_EQ(t.nextId, i + 1 < records_.size() ? id + 1 : 0xFFFF);
    }
    EXPECT_EQ(severities, (std::set<std::string>{"INFO", "MINOR", "MAJOR", "CRITICAL"}));
}

TEST_F(Library, ClearingEmptiesTheLogAndWritingLabelsBySensorEvent)
{
    start();
    ASSERT_EQ(ipmiClearEventLog(session_), 1);
    EXPECT_EQ(ipmiGetSelInfo(session_).lastEraseTime, kFixedNow);
    EXPECT_EQ(ipmiGetSelRawStrings(session_, 0), nullptr);
    // The default machine's labels by sensor type and offset; "{sensor}" is the sensor's name.
    const struct {
        uint8_t type, sensor, dirType, d1, d2, d3;
        const char *code;
        std::vector<std::string> params;
        const char *severity;
    } writes[] = {
        {0x04, 0x20, 0x01, 0x52, 0x03, 0x05, "02000101", {"{sensor}"}, "major"},
        {0x01, 0x03, 0x01, 0x57, 86, 85, "03000101", {"{sensor}", "86", "85"}, "minor"},
        {0x30, 0x99, 0x6F, 0x03, 0x10, 0x20, "0F000001", {"{sensor}", "0x30", "3", "3", "16", "32"}, "info"},
    };
    uint16_t id = 0;
    for (const auto &w : writes) {
        ASSERT_EQ(ipmiWriteSelEntry(session_, w.type, w.sensor, w.dirType, w.d1, w.d2, w.d3), 1);
        ++id;
        std::vector<std::string> params = w.params;
        for (auto &p : params)
            if (p == "{sensor}") p = sensorName(profile_, w.sensor);
        Bytes r = {uint8_t(id), uint8_t(id >> 8), 0x02,     0,         0,    0,    0,   0x20, 0x00,
                   0x01,        w.type,           w.sensor, w.dirType, w.d1, w.d2, w.d3};
        for (int i = 0; i < 4; ++i) r[3 + i] = uint8_t(kFixedNow >> (8 * i));
        // The record as the controller stamped it, then its label.
        EXPECT_EQ(lines(ipmiGetSelRawStrings(session_, 1)).at(0), rawLine(r));
        EXPECT_EQ(take(buildSelTextString(session_, r.data(), 0, 1, 1, TVX_LANG_ENGLISH)),
                  textLine(profile_, {{"error_code", w.code}, {"parameters", params}, {"severity", w.severity}},
                           kFixedNow, "0x0409"));
    }
}

TEST_F(Library, ControllersThatCannotAnswerWholeRecordsAreReadInPieces)
{
    start();
    ipmihost_reset_request_count();
    std::vector<std::string> whole = lines(ipmiGetSelRawStrings(session_, 0));
    EXPECT_EQ(ipmihost_request_count(), 1 + records_.size()); // the count, then one request per record
    profile_["sel"]["max_read_bytes"] = 8;
    start();
    ipmihost_reset_request_count();
    EXPECT_EQ(lines(ipmiGetSelRawStrings(session_, 0)), whole);
    // Per record: the refused whole read, a reservation and two halves.
    EXPECT_EQ(ipmihost_request_count(), 1 + 4 * records_.size());
}

// tvxctl sel on the built-in default machine in an empty state directory.
TEST_F(Library, TvxctlListsTheLogRawAndAsTexts)
{
    auto run = [&](const std::vector<std::string> &args) {
        tvxtest::Outcome r = tvxtest::runTvxctl(TVXCTL_PATH, dir_.path(), args);
        EXPECT_EQ(r.code, 0) << r;
        std::vector<std::string> out;
        std::istringstream in(r.out);
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    };
    profile_ = tvxtest::readJson(std::string(TVX_MACHINES_DIR) + "/default.json");
    EXPECT_EQ(run({"sel", "--reverse"}), expected(nullptr, true));
    EXPECT_EQ(run({"sel", "--text", "--lang", "0x0407"}), expected("0x0407", false));
    EXPECT_EQ(run({"sel", "list", "--text", "--lang", "1036"}), expected("0x0409", false));
}

} // namespace
} // namespace simsel
