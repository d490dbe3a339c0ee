// The SPD image in chunks, the PCI slot walk and the language list: the requests each sends
// and what each answer becomes.
#include <cstdlib>

#include "scripted.h"

namespace {

using Queries = ScriptTest;

// Chunks of 64 bytes from offset 0 on; what each answer carries is copied and the next request
// starts after it; the first refusal ends the read.
TEST_F(Queries, SpdImageIsReadChunkByChunk)
{
    IpmiSession *s = open();
    Bytes image(200);
    for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<uint8_t>(0x11 + 3 * i);
    auto chunk = [&](size_t at, size_t n) { return oemAnswer(Bytes(image.begin() + at, image.begin() + at + n)); };
    const struct {
        unsigned size;
        std::vector<std::tuple<uint16_t, uint16_t, Bytes>> exchanges; // offset asked for, status, answer
        int result;
        size_t copied; // bytes of the image at the start of the buffer; the rest is zero
    } cases[] = {
        {100, {{0, 0, chunk(0, 64)}, {64, 0, chunk(64, 64)}}, 1, 100},
        {50, {{0, 0, chunk(0, 20)}, {20, 0, chunk(20, 20)}, {40, 0, chunk(40, 20)}}, 1, 50},
        {200, {{0, 0, chunk(0, 64)}, {64, 0x01CB, {0xCB}}}, 1, 64},
        {200, {{0, 0, cat({{0x00, 0xD9, 0x7E, 0x01}, Bytes(64, 0xAA)})}}, 0, 0}, // not the vendor's echo
        {200, {{0, kTimeout, {}}}, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("size " + std::to_string(c.size) + ", " + std::to_string(c.exchanges.size()) + " exchanges");
        size_t from = ipmihost_script_call_count();
        std::vector<Sent> sent;
        for (const auto &[offset, status, answer] : c.exchanges) {
            Bytes req = oem(cat({{0x31, 0x81, 0x02}, le16(offset), le16(64)}));
            expect(0xB8, 0xF1, req, answer, status);
            sent.push_back({0xB8, 0xF1, req});
        }
        Bytes buffer(c.size + 8, 0xEE);
        EXPECT_EQ(getMemorySPDdata(s, buffer.data(), c.size, 2), c.result);
        Bytes want(image.begin(), image.begin() + c.copied);
        want.resize(c.size, 0x00);
        want.resize(c.size + 8, 0xEE);
        EXPECT_EQ(buffer, want);
        expectSent(s, from, sent, 255);
    }
    uint8_t buffer[4];
    EXPECT_EQ(getMemorySPDdata(nullptr, buffer, sizeof buffer, 0), 0);
    EXPECT_EQ(getMemorySPDdata(s, buffer, 0, 0), 0);
}

Bytes pciEntry(uint8_t slot, uint16_t first, uint16_t second)
{
    return oemAnswer(cat({{0x00, 0x00, slot}, le16(first), le16(second)}));
}

TEST_F(Queries, PciTableIsWalkedUntilTheSlotHoldsADevice)
{
    IpmiSession *s = open();
    const struct {
        std::vector<Bytes> answers; // entries 1, 2, ... (a lone completion code ends the table)
        int result;
    } cases[] = {
        {{pciEntry(2, 0xFFFF, 0x1017), pciEntry(3, 0x8086, 0x1572), pciEntry(2, 0x15B3, 0x1017)}, 1},
        {{pciEntry(2, 0x15B3, 0xFFFF), {0xC9}}, 0},
        {{cat({{0x00, 0xD9, 0x7E, 0x01}, {0, 0, 2, 1, 0, 1, 0}})}, 0},
        {{oemAnswer({0, 0, 2})}, 0}, // too short to read
    };
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        for (size_t i = 0; i < c.answers.size(); ++i)
            expect(0xB8, 0xF1, oem(cat({{0x1A}, le16(static_cast<uint16_t>(i + 1))})), c.answers[i],
                   c.answers[i].size() == 1 ? 0x0100 | c.answers[i][0] : 0);
        EXPECT_EQ(ipmiGetPciInfo(s, 2), c.result);
        std::vector<ipmihost_call> raw = rawSince(from);
        ASSERT_FALSE(raw.empty());
        EXPECT_EQ(raw[0].resLenIn, 32u);
        if (raw.size() > 1) {
            EXPECT_EQ(raw[1].resLenIn, c.answers[0].size()); // the length carries over
        }
    }
    // A table that never ends is given up after 256 entries.
    for (uint16_t i = 1; i <= 256; ++i) expect(0xB8, 0xF1, oem(cat({{0x1A}, le16(i)})), pciEntry(9, 0x8086, 0x1572));
    EXPECT_EQ(ipmiGetPciInfo(s, 2), 0);
    EXPECT_EQ(ipmiGetPciInfo(nullptr, 2), 0);
}

TEST_F(Queries, LanguagesWithTheirLimitAndFallback)
{
    IpmiSession *s = open();
    Bytes many = {40};
    for (uint16_t i = 0; i < 40; ++i) many = cat({many, le16(static_cast<uint16_t>(0x0400 + i))});
    const struct {
        uint16_t status;
        Bytes answer;
        int result;
        std::vector<uint16_t> list;
    } cases[] = {
        {0, oemAnswer({2, 0x09, 0x04, 0x07, 0x04}), 2, {0x0409, 0x0407}},
        {kTimeout, {}, 1, {0x0407}},
        {0x01C1, oemAnswer({1, 0x09, 0x04}, 0xC1), 1, {0x0407}},
        {0, oemAnswer(many), 37, {0x0400, 0x0401}}, // the first of 37: the 80-byte buffer holds no more
    };
    uint16_t mine[40] = {};
    for (const auto &c : cases) {
        size_t from = ipmihost_script_call_count();
        expect(0xB8, 0xF5, oem({0x74}), c.answer, c.status);
        uint16_t *list = c.result == 2 ? mine : nullptr; // the caller's array, or one allocated
        EXPECT_EQ(ipmiGetSupportedLanguage(s, &list), c.result);
        EXPECT_EQ(std::vector<uint16_t>(list, list + c.list.size()), c.list);
        if (list != mine) std::free(list);
        expectSent(s, from, {{0xB8, 0xF5, oem({0x74})}}, 80);
    }
    uint16_t *list = mine;
    EXPECT_EQ(ipmiGetSupportedLanguage(nullptr, &list), 1);
    EXPECT_EQ(mine[0], 0x0407);
    EXPECT_EQ(ipmiGetSupportedLanguage(s, nullptr), 0);
}

} // namespace
