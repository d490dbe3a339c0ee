// LIBIPMI_HL_GetFRUData against FRU images that a controller sends through the scripted
// exchange: damaged headers and areas, answers cut short, reads refused as too long. Every
// read the platform sends is announced with its exact request bytes.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fru.h"
#include "scripted.h"

namespace {

constexpr uint8_t kNetFnLunStorage = 0x0A << 2, kId = 0x03;
constexpr int kWaitSeconds = 60;
constexpr uint8_t kOk = 0x00;

// A valid image: chassis area at 8 (16 bytes), board area at 24 (24 bytes), 48 in all.
Bytes validImage()
{
    nlohmann::json doc = {{"controller", {{"firmware_revision", "1.00"}, {"manufacturer_id", 1}, {"product_id", 1}}},
                          {"fru",
                           {{{"fru_id", kId},
                             {"chassis", {{"part_number", "P1"}, {"serial_number", "S1"}}},
                             {"board", {{"manufacturer", "ACME"}, {"product_name", "MB"}, {"custom", {"C1"}}}}}}}};
    return tvxsim::parseFruModel(tvxsim::parseProfile(doc.dump(), "t.json")).devices.at(0).image;
}

// Mends the checksum that ends at byte `last` (7: the header, 23: the chassis area).
void mend(Bytes &b, std::size_t last)
{
    b[last] = 0;
    for (std::size_t i = last == 7 ? 0 : 8; i < last; ++i) b[last] = static_cast<uint8_t>(b[last] - b[i]);
}

struct Case {
    const char *what;
    void (*damage)(Bytes &);
    // The reads expected, as "OFFSET:COUNT", answered from the image; "!CC" answers a
    // completion code (hex) instead, "<N" only the first N bytes.
    const char *reads;
    uint16_t status;
    uint8_t chassisOffset = 0, boardOffset = 0; // in the record, on success
};

const Case kCases[] = {
    {"valid, read as needed", [](Bytes &) {}, "0:8 8:2 10:14 24:2 26:22", 0, 1, 3},
    {"bad header checksum", [](Bytes &b) { b[7] ^= 1; }, "0:8", LIBIPMI_STATUS_BAD_RESPONSE},
    {"other header version", [](Bytes &b) { b[0] = 2, mend(b, 7); }, "0:8", LIBIPMI_STATUS_BAD_RESPONSE},
    {"board offset past the end", [](Bytes &b) { b[3] = 0x20, mend(b, 7); }, "0:8 8:2 10:14", 0, 1, 0},
    {"board length past the end", [](Bytes &b) { b[25] = 9; }, "0:8 8:2 10:14 24:2", 0, 1, 0},
    {"bad chassis checksum", [](Bytes &b) { b[20] ^= 0x40; }, "0:8 8:2 10:14 24:2 26:22", 0, 0, 3},
    {"field past the area", [](Bytes &b) { b[11] = 0xCF, mend(b, 23); }, "0:8 8:2 10:14 24:2 26:22", 0, 0, 3},
    {"no end marker", [](Bytes &b) { b[17] = 0x00, mend(b, 23); }, "0:8 8:2 10:14 24:2 26:22", 0, 0, 3},
    {"short answers set the read size", [](Bytes &) {}, "0:8<6 6:2 8:2 10:6 16:6 22:2 24:2 26:6 32:6 38:6 44:4", 0, 1,
     3},
    {"reads refused as too long shrink", [](Bytes &) {}, "0:8 8:2 10:14!CA 10:11 21:3 24:2 26:12!C8 26:11 37:11", 0, 1,
     3},
    {"a refused one-byte read fails", [](Bytes &) {}, "0:8!CA 0:6!CA 0:5!CA 0:4!CA 0:3!CA 0:2!CA 0:1!CA",
     LIBIPMI_STATUS_COMPLETION_CODE(0xCA)},
    {"an answer without data bytes", [](Bytes &) {}, "0:8<0", LIBIPMI_STATUS_BAD_RESPONSE},
};

// Announces the reads of a case, answered from `image`.
void announce(const char *reads, const Bytes &image)
{
    for (const char *p = reads; *p;) {
        unsigned offset = 0, count = 0, n = 0;
        int used = 0;
        char kind = 0;
        if (std::sscanf(p, "%u:%u%n", &offset, &count, &used) != 2) break;
        p += used;
        if (*p == '!' || *p == '<') {
            kind = *p++;
            n = static_cast<unsigned>(std::strtoul(p, const_cast<char **>(&p), kind == '!' ? 16 : 10));
        }
        Bytes answer = {kOk, static_cast<uint8_t>(count)};
        unsigned bytes = kind == '<' ? n : count;
        answer.insert(answer.end(), image.begin() + offset, image.begin() + offset + bytes);
        if (kind == '!') answer = {static_cast<uint8_t>(n)};
        expect(kNetFnLunStorage, 0x11, {kId, static_cast<uint8_t>(offset), 0, static_cast<uint8_t>(count)}, answer);
        while (*p == ' ') ++p;
    }
}

} // namespace

using FruDecode = ScriptTest;

TEST_F(FruDecode, DamagedImagesAndAwkwardControllers)
{
    IpmiSession *s = openPlatform();
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        Bytes image = validImage();
        ASSERT_EQ(image.size(), 48u);
        c.damage(image);
        expect(kNetFnLunStorage, 0x10, {kId}, {kOk, 48, 0, 0x00});
        announce(c.reads, image);
        FruData rec;
        std::memset(&rec, 0xAB, sizeof rec);
        uint32_t length = 7;
        ASSERT_EQ(LIBIPMI_HL_GetFRUData(s, kId, &length, &rec, kWaitSeconds), c.status);
        EXPECT_EQ(ipmihost_script_pending(), 0u);
        if (c.status != 0) { // nothing written on failure
            EXPECT_EQ(std::tuple(length, +rec.formatVersion), std::tuple(7u, 0xAB));
            continue;
        }
        EXPECT_EQ(
            std::tuple(length, +rec.chassisOffset, +rec.boardOffset, +rec.chassisPartNumber.typeLength,
                       +rec.boardCustomCount, +rec.productOffset, +rec.productManufacturer.typeLength),
            std::tuple(48u, +c.chassisOffset, +c.boardOffset, c.chassisOffset ? 0xC2 : 0, c.boardOffset ? 1 : 0, 0, 0));
        const char *part = rec.chassisPartNumber.text, *maker = rec.boardManufacturer.text;
        EXPECT_STREQ(part, c.chassisOffset ? "P1" : nullptr);
        EXPECT_STREQ(maker, c.boardOffset ? "ACME" : nullptr);
        if (c.boardOffset) {
            EXPECT_STREQ(rec.boardCustomFields[0], "C1");
        }
    }
}

TEST_F(FruDecode, WordDevicesAndRefusedInfo)
{
    IpmiSession *s = openPlatform();
    Bytes image = validImage();
    // By words: offsets and counts halved, whole words only, the answer's count in words.
    expect(kNetFnLunStorage, 0x10, {kId}, {kOk, 48, 0, 0x01});
    for (auto [offset, count] : {std::pair{0, 4}, {4, 1}, {5, 7}, {12, 1}, {13, 11}}) {
        Bytes answer = {kOk, static_cast<uint8_t>(count)};
        answer.insert(answer.end(), image.begin() + 2 * offset, image.begin() + 2 * (offset + count));
        expect(kNetFnLunStorage, 0x11, {kId, static_cast<uint8_t>(offset), 0, static_cast<uint8_t>(count)}, answer);
    }
    FruData rec{};
    uint32_t length = 0;
    ASSERT_EQ(LIBIPMI_HL_GetFRUData(s, kId, &length, &rec, kWaitSeconds), 0);
    const char *serial = rec.chassisSerialNumber.text;
    EXPECT_STREQ(serial, "S1");

    for (const Bytes &info : {Bytes{0xCB}, Bytes{kOk, 7, 0, 0}, Bytes{kOk, 40}}) {
        expect(kNetFnLunStorage, 0x10, {kId}, info);
        EXPECT_EQ(LIBIPMI_HL_GetFRUData(s, kId, &length, &rec, kWaitSeconds),
                  info.size() == 1 ? LIBIPMI_STATUS_COMPLETION_CODE(0xCB) : LIBIPMI_STATUS_BAD_RESPONSE);
    }
    EXPECT_EQ(LIBIPMI_HL_GetFRUData(s, kId, nullptr, &rec, kWaitSeconds), LIBIPMI_STATUS_INVALID_ARGUMENT);
    platform_.close();
    EXPECT_EQ(LIBIPMI_HL_GetFRUData(platform_.get(), kId, &length, &rec, kWaitSeconds), LIBIPMI_STATUS_NO_SESSION);
}
