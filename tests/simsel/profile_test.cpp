// Bad "sel" and "event_texts" sections: the machine does not start, and the message names the
// file, the JSON pointer and what is wrong.
#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

#include "controller.h"
#include "simsel_util.h"

namespace simsel {
namespace {

TEST(SelProfile, BadSectionsAreNamedWithTheirPlace)
{
    using Edit = std::function<void(json &)>;
    const struct {
        Edit edit;
        std::string message; // after "selmachine.json: "
    } cases[] = {
        {[](json &d) { d["sel"]["capacity"] = 0; }, "/sel/capacity: expected an integer from 1 to 8192"},
        {[](json &d) { d["sel"]["utc_offset_minutes"] = 1441; }, "/sel/utc_offset_minutes: expected an integer from -1440 to 1440"},
        {[](json &d) { d["sel"]["clock"] = {{"fixed", 1}, {"offset_seconds", 2}}; }, "/sel/clock: give \"fixed\" or \"offset_seconds\""},
        {[](json &d) { d["sel"]["last_erase"] = "2026-13-01T00:00:00Z"; }, "/sel/last_erase: no such time"},
        {[](json &d) { d["sel"]["records"][0]["colour"] = "red"; }, "/sel/records/0/colour: unknown key"},
        {[](json &d) { d["sel"]["records"][0]["event_type"] = "0x80"; }, "/sel/records/0/event_type: expected an integer from 0 to 127"},
        {[](json &d) { d["sel"]["records"][1]["data"] = "01 02"; }, "/sel/records/1/data: expected 6 OEM data bytes"},
        {[](json &d) { d["sel"]["records"][0]["error_code"] = "0000000F"; }, "/sel/records/0/error_code: error code \"0000000F\" has no message"},
        {[](json &d) { d["sel"]["records"][0]["parameters"] = json(std::vector<std::string>(9, "x")); }, "/sel/records/0/parameters: at most 8 parameters"},
        {[](json &d) { d["sel"]["records"][0]["parameters"] = {std::string("a\0b", 3)}; }, "/sel/records/0/parameters/0: a parameter must not contain a NUL"},
        {[](json &d) { d["event_texts"]["codes"]["00000002"]["texts"].erase("0x0409"); }, "/event_texts/codes/00000002/texts: expected texts by language"},
        {[](json &d) { d["event_texts"]["codes"]["00000001"]["texts"]["0x0407"] = std::string("a\0b", 3); }, "/event_texts/codes/00000001/texts/0x0407: a message text must not contain a NUL"},
        {[](json &d) { d["event_texts"]["sensor_events"][0]["parameters"] = {"{name}"}; }, "/event_texts/sensor_events/0/parameters/0: unknown field {name}"},
        {[](json &d) { d["event_texts"]["sensor_events"][2]["error_code"] = "0000000E"; }, "/event_texts/sensor_events/2/error_code: error code \"0000000E\" has no message"},
    };
    for (const auto &c : cases) {
        json doc = smallMachine();
        c.edit(doc);
        TempDir state;
        try {
            tvxsim::Controller ctl(tvxsim::parseProfile(doc.dump(), "selmachine.json"), state.path());
            ADD_FAILURE() << "accepted, expected: " << c.message;
        } catch (const tvxsim::ProfileError &e) {
            EXPECT_EQ(std::string(e.what()).rfind("selmachine.json: " + c.message, 0), 0u) << e.what();
        }
        // Nothing started: no state was written.
        EXPECT_TRUE(std::filesystem::is_empty(state.path())) << c.message;
    }
}

TEST(SelProfile, EveryRecordFormAndTheDefaultsAreAccepted)
{
    json doc = smallMachine();
    doc["sel"].erase("capacity");
    doc["sel"]["records"] = json::parse(R"([
      {"type": "system", "time": "0x6A0D0F68", "generator": "0x41", "channel_lun": 2, "revision": 3, "sensor_type": 1,
       "sensor": 2, "event_type": 1, "direction": "deassertion", "data": [1, 2, 3]},
      {"type": "oem_timestamped", "time": 5, "manufacturer_id": "0x123456", "data": "1 2 3 4 5 6"},
      {"type": "oem", "record_type": "0xFF", "data": "00 01 02 03 04 05 06 07 08 09 0a 0b 0c"},
      {"type": "other", "record_type": "0x01", "data": "00 01 02 03 04 05 06 07 08 09 0a 0b 0c", "error_code": "00000002"}
    ])");
    TempDir state;
    tvxsim::Controller ctl(tvxsim::parseProfile(doc.dump(), "forms.json"), state.path());
    std::vector<Bytes> want = profileRecords(doc);
    for (uint16_t id = 1; id <= want.size(); ++id) {
        Bytes r = ctl.handle(0x0A, 0, 0x43, Bytes{0, 0, uint8_t(id), 0, 0, 0xFF}).bytes;
        ASSERT_EQ(r.size(), 19u);
        EXPECT_EQ(Bytes(r.begin() + 3, r.end()), want[id - 1]) << id;
    }
    // The default capacity and the default UTC offset (unspecified).
    Bytes alloc = ctl.handle(0x0A, 0, 0x41, {}).bytes;
    EXPECT_EQ(alloc.at(1) | alloc.at(2) << 8, 512);
    json noOffset = smallMachine();
    noOffset["sel"].erase("utc_offset_minutes");
    TempDir other;
    tvxsim::Controller c2(tvxsim::parseProfile(noOffset.dump(), "nooffset.json"), other.path());
    EXPECT_EQ(c2.handle(0x0A, 0, 0x5C, {}).bytes, (Bytes{0x00, 0xFF, 0x07}));
}

} // namespace
} // namespace simsel
