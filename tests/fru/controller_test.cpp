// The virtual controller's FRU devices: texts in every encoding written into a profile come
// back from LIBIPMI_HL_GetFRUData over the controller's real path (answers limited to 20
// bytes, so every area is read in chunks), the controller's completion codes, profile
// errors, and tvxctl fru.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "controller.h"
#include "fru.h"
#include "machine.h"
#include "process.h"
#include "scripted.h"

namespace {

using nlohmann::json;

json profile()
{
    return json::parse(R"({
      "controller": {"firmware_revision": "1.00", "manufacturer_id": 1, "product_id": 1, "max_response_length": 20},
      "fru_locators": [{"name": "Board", "fru_id": 0, "entity": "0x07", "instance": 1},
                       {"name": "Words", "fru_id": 5, "entity": "0x0A", "instance": 1}],
      "fru": [
        {"fru_id": 0, "size": 300, "internal_use": "aa bb",
         "chassis": {"type": "0x17", "part_number": {"bcd": "12-34.5 6"}, "serial_number": {"6bit": "SER#42_X"},
                     "custom": [{"binary": "00 ff 7e"}, {"ascii": "Latin \u00e9"}]},
         "board": {"mfg_date": "1996-01-02", "manufacturer": "ACME", "product_name": {"6bit": "BOARD-7"},
                   "serial_number": {"bcd": "0123456789"}, "part_number": {"binary": "de ad"}},
         "product": {"manufacturer": "ACME", "name": "Widget", "part_number": {"6bit": "W-1"},
                     "version": {"bcd": "2.0"}, "serial_number": "SN 0001", "asset_tag": "AT",
                     "fru_file_id": {"6bit": "F"}, "custom": ["one", {"bcd": "7"}]}},
        {"fru_id": 5, "word_access": true, "product": {"name": "Worded"}}
      ]})");
}

std::string text(const FruField &f)
{
    const char *t = f.text;
    return t ? t : "(null)";
}

} // namespace

// The record stands at its fixed bytes: 945 with 4-byte pointers, a text field being its
// type/length byte with the pointer right behind it, unaligned; no byte past it is written.
TEST(FruController, EveryEncodingComesBackThroughThePlatform)
{
    constexpr bool kNarrow = sizeof(void *) == 4;
    tvxtest::ScratchMachine m(profile());
    tvx::PlatformSession session;
    ASSERT_EQ(session.status(), 0);
    IpmiSession *s = session.get();
    const size_t size = kNarrow ? 945 : 1013;
    std::vector<uint8_t> raw(size + 64, 0x5A);
    std::fill_n(raw.begin(), size, 0);
    const FruData &r = *reinterpret_cast<const FruData *>(raw.data());
    FruData words{};
    uint32_t length = 0, wordLength = 0;
    ASSERT_EQ(LIBIPMI_HL_GetFRUData(s, 0, &length, reinterpret_cast<FruData *>(raw.data()), 60), 0)
        << ipmihost_last_error();
    EXPECT_EQ(std::count(raw.begin() + size, raw.end(), 0x5A), 64);
    // A second read on the session leaves the first one's texts valid until the close.
    ASSERT_EQ(LIBIPMI_HL_GetFRUData(s, 5, &wordLength, &words, 60), 0);
    // The board's date: 1440 minutes.
    EXPECT_EQ(std::tuple(length, Bytes(r.internalUse, r.internalUse + 8), +r.chassisType,
                         Bytes(r.boardMfgDateTime, r.boardMfgDateTime + 3)),
              std::tuple(300u, Bytes{0x01, 0xAA, 0xBB, 0, 0, 0, 0, 0}, 0x17, Bytes{0xA0, 0x05, 0x00}));
    const struct {
        FruField FruData::*field;
        uint8_t typeLength;
        const char *text;
    } kFields[] = {
        // clang-format off
        {&FruData::chassisPartNumber, 0x45, "12-34.5 6"}, {&FruData::chassisSerialNumber, 0x86, "SER#42_X"},
        {&FruData::boardManufacturer, 0xC4, "ACME"}, {&FruData::boardProductName, 0x86, "BOARD-7"},
        {&FruData::boardSerialNumber, 0x45, "0123456789"}, {&FruData::boardPartNumber, 0x02, "dead"},
        {&FruData::boardFruFileId, 0xC0, ""}, {&FruData::productManufacturer, 0xC4, "ACME"},
        {&FruData::productName, 0xC6, "Widget"}, {&FruData::productPartNumber, 0x83, "W-1"},
        {&FruData::productVersion, 0x42, "2.0"}, {&FruData::productSerialNumber, 0xC7, "SN 0001"},
        {&FruData::productAssetTag, 0xC2, "AT"}, {&FruData::productFruFileId, 0x81, "F"},
        // clang-format on
    };
    for (const auto &f : kFields) {
        SCOPED_TRACE(f.text);
        const FruField field = r.*f.field;
        EXPECT_EQ(field.typeLength, f.typeLength);
        EXPECT_EQ(text(field), f.text);
    }
    EXPECT_EQ(std::vector<std::string>(r.chassisCustomFields, r.chassisCustomFields + r.chassisCustomCount),
              (std::vector<std::string>{"00ff7e", "Latin \xC3\xA9"}));
    char **boardCustom = r.boardCustomFields; // copied out of the packed record
    EXPECT_EQ(std::tuple(boardCustom, +r.boardCustomCount), std::tuple(static_cast<char **>(nullptr), 0));
    ASSERT_EQ(r.productCustomCount, 2);
    EXPECT_STREQ(r.productCustomFields[1], "7");
    EXPECT_EQ(std::tuple(text(words.productName), +words.chassisOffset), std::tuple("Worded", 0));
    auto pointerAt = [&](size_t at) {
        const char *p = nullptr;
        std::memcpy(&p, &raw[at], sizeof p);
        return p ? p : "(null)";
    };
    const struct {
        size_t narrow, wide; // position with 4-byte and with 8-byte pointers
        uint8_t typeLength;
        const char *text;
    } kTexts[] = {{19, 19, 0x45, "12-34.5 6"}, {24, 28, 0x86, "SER#42_X"}, {40, 52, 0xC4, "ACME"},
                  {55, 79, 0x02, "dead"},      {78, 118, 0xC6, "Widget"},   {103, 163, 0x81, "F"}};
    for (const auto &t : kTexts) {
        const size_t at = kNarrow ? t.narrow : t.wide;
        EXPECT_EQ(raw[at], t.typeLength) << at;
        EXPECT_STREQ(pointerAt(at + 1), t.text) << at;
    }
    // The custom fields' count bytes follow their pointers: chassis 2, board 0, product 2.
    EXPECT_EQ(Bytes({raw[kNarrow ? 33 : 45], raw[kNarrow ? 69 : 105], raw[kNarrow ? 112 : 180]}), Bytes({2, 0, 2}));
    // An absent device: the controller's completion code, nothing written.
    FruData none{};
    EXPECT_EQ(LIBIPMI_HL_GetFRUData(s, 9, &length, &none, 60), LIBIPMI_STATUS_COMPLETION_CODE(0xCB));
    EXPECT_EQ(none.formatVersion, 0);
}

TEST(FruController, CompletionCodesAndTheResponseLimit)
{
    tvxsim::Profile p = tvxsim::parseProfile(profile().dump(), "fru.json");
    const Bytes image = tvxsim::parseFruModel(p).devices.at(1).image;
    tvxsim::Controller c(p, "");
    const struct {
        uint8_t command;
        Bytes request, answer;
    } kCases[] = {
        {0x10, {0}, {0x00, 0x2C, 0x01, 0x00}},
        {0x10, {}, {0xC7}},
        {0x10, {9}, {0xCB}},
        {0x11, {0, 0, 0, 0}, {0xCC}},
        {0x11, {0, 0x2C, 0x01, 1}, {0xC9}},
        {0x11, {0, 0, 0, 19}, {0xCA}},
        {0x11, {0, 0x2A, 0x01, 18}, {0x00, 2, 0xFF, 0xFF}}, // the bytes up to the end
        {0x11, {5, 1, 0, 2}, {0x00, 2, image[2], image[3], image[4], image[5]}},
        {0x11, {5, 0, 0, 10}, {0xCA}},   // 10 words are 20 bytes
        {0x23, {0, 0, 0, 0, 0, 17}, {}}, // Get SDR: 17 record bytes fit 20
        {0x23, {0, 0, 0, 0, 0, 18}, {0xCA}},
    };
    for (const auto &k : kCases) {
        SCOPED_TRACE(testing::Message() << "command " << int(k.command) << " request size " << k.request.size());
        tvxsim::Reply reply = c.handle(0x0A, 0, k.command, k.request);
        ASSERT_TRUE(reply.answered);
        if (k.answer.empty()) EXPECT_EQ(reply.bytes.size(), 20u);
        else EXPECT_EQ(reply.bytes, k.answer);
    }
}

TEST(FruController, TvxctlListsTheLocatedDevices)
{
    tvxtest::TempDir dir;
    tvxtest::writeFile(dir.file("fru.json"), profile().dump());
    json list = tvxtest::tvxctlJson(dir.path(), {"--machine", dir.file("fru.json"), "fru"});
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ((std::vector<json>{list[0]["name"], list[0]["board"]["mfg_date"], list[0]["chassis"]["custom"],
                                 list[1]["product"]["name"]}),
              (std::vector<json>{"Board", "1996-01-02T00:00:00Z", {"00ff7e", "Latin \u00e9"}, "Worded"}));
    auto absent = tvxtest::tvxctl(dir.path(), {"--machine", dir.file("fru.json"), "fru", "9"});
    EXPECT_EQ(absent.code, 1) << absent;
    EXPECT_NE(absent.out.find("FRU 9: "), std::string::npos) << absent;
}
