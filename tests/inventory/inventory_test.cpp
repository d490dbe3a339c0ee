// Chassis and board inventory through the scripted exchange: which FRU devices are read, what
// their decoded records become, and the agent-connected and EEPROM requests.
#include <malloc.h>

#include <cstring>
#include <optional>

#include "fru.h"
#include "sdr_records.h"

namespace {

using InventoryTest = ScriptTest;

// ---- FRU images in the IPMI storage format, and the reads the platform makes of them --------

// A device description (the areas of a profile's "fru" entry) as the virtual controller
// encodes it; another format version patched in, with its header checksum.
Bytes fruImage(const nlohmann::json &areas, uint8_t version = 1)
{
    const nlohmann::json list = nlohmann::json::parse(nlohmann::json::array({areas}).dump()); // as read from a file
    Bytes img = tvxsim::parseFruDevices(tvxsim::Node(list, "inventory", "")).devices.at(0).image;
    img[7] = static_cast<uint8_t>(img[7] + img[0] - version), img[0] = version;
    return img;
}

// The header, then each area's first two bytes and its rest (empty image: the device is absent).
void expectFru(uint8_t id, const Bytes &img)
{
    if (img.empty()) return expect(0x28, 0x10, {id}, {0xCB}, 0x01CB);
    expect(0x28, 0x10, {id}, cat({{0x00}, le16(static_cast<uint16_t>(img.size())), {0x00}}));
    auto read = [&](size_t at, size_t n) {
        expect(0x28, 0x11, cat({{id}, le16(static_cast<uint16_t>(at)), {static_cast<uint8_t>(n)}}),
               cat({{0x00, static_cast<uint8_t>(n)}, Bytes(img.begin() + at, img.begin() + at + n)}));
    };
    read(0, 8);
    for (int k = 2; k <= 4; ++k)
        if (size_t start = img[k] * 8u) read(start, 2), read(start + 2, img[start + 1] * 8u - 2);
}

struct Device {
    uint8_t entity;
    uint8_t id;
    Bytes image; // read when the entity is the chassis or the board
};

// An SDR cache of their FRU Device Locators, 32-byte slots.
Cache locators(const std::vector<Device> &devices)
{
    std::vector<Bytes> records;
    for (size_t i = 0; i < devices.size(); ++i)
        records.push_back({uint8_t(i + 1), 0, 0x51, 0x11, 27, 0x20, devices[i].id, 0x80, 0, 0, 0x10, 0,
                           devices[i].entity, 1});
    return Cache(records, 32);
}

using Texts = std::vector<std::optional<std::string>>;
Texts texts(std::initializer_list<char *> fields)
{
    Texts out;
    for (char *f : fields) out.push_back(f ? std::optional<std::string>(f) : std::nullopt);
    return out;
}
const std::nullopt_t no = std::nullopt;

TEST_F(InventoryTest, ChassisAndBoardFromTheLocatedFruDevices)
{
    using nlohmann::json;
    const json board1 = {{"manufacturer", "Kestravone"}, {"product_name", "KV BOARD"}, {"serial_number", "S-1"},
                         {"part_number", "P-1"}, {"custom", {"", "second custom"}}};
    const json board2 = {{"serial_number", "S-2"}};
    const json product = {{"manufacturer", "Kestravone"}, {"name", "KV2400"}, {"part_number", "KV-R2"}, {"version", "A3"}};
    const json chassis = {{"type", "0x17"}, {"part_number", "CHS-1"}, {"serial_number", "ABCDE"}};
    json withCustom = chassis;
    withCustom["custom"] = {"", "xy"};
    // Chassis fields: manufacturer, part, version, custom, serial, part; board: name, custom, serial, part, mfr.
    const struct {
        const char *what;
        bool chassis;
        std::vector<Device> devices;
        int result;
        Texts fields;
    } cases[] = {
        // clang-format off
        {"typed chassis texts, no custom field: Unknown; no product area", true,
         {{0x17, 1, fruImage({{"fru_id", 1}, {"chassis", chassis}})}}, 0, {no, no, no, "Unknown", "ABCDE", "CHS-1"}},
        {"an empty first custom field replaces Unknown; a second device adds the product", true,
         {{0x17, 1, fruImage({{"fru_id", 1}, {"chassis", withCustom}})}, {0x07, 0, fruImage({{"fru_id", 0}, {"product", product}})}},
         1, {"Kestravone", "KV-R2", "A3", "", "ABCDE", "CHS-1"}},
        {"other entities are not read; version 0x11 and unreadable devices are skipped", true,
         {{0x15, 5, {}}, {0x0B, 6, {}}, {0x17, 2, {}}, {0x07, 0, fruImage({{"fru_id", 0}, {"product", product}}, 0x11)}}, 0, Texts(6, no)},
        {"board: an empty first custom field is none; a later device's texts win, empty ones do not", false,
         {{0x07, 0, fruImage({{"fru_id", 0}, {"board", board1}})}, {0x07, 3, fruImage({{"fru_id", 3}, {"board", board2}})}}, 1,
         {"KV BOARD", no, "S-2", "P-1", "Kestravone"}},
        {"no board area", false, {{0x17, 1, fruImage({{"fru_id", 1}, {"chassis", {{"part_number", "CHS-1"}}}, {"product", product}})}}, 0, Texts(5, no)},
        // clang-format on
    };
    IpmiSession *s = open();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Cache cache = locators(c.devices);
        for (const Device &d : c.devices)
            if (d.entity == 0x17 || d.entity == 0x07) expectFru(d.id, d.image);
        ChassisInfo ci;
        BoardInfo bi;
        std::memset(&ci, 0xA5, sizeof ci); // whatever the caller left there is not freed
        std::memset(&bi, 0xA5, sizeof bi);
        int r = -1;
        EXPECT_EQ(stderrOf([&] {
                      r = c.chassis ? ipmiGetChassisInfo(s, &ci, cache.get()) : ipmiGetBoardInfo(s, &bi, cache.get());
                  }),
                  "");
        EXPECT_EQ(r, c.result);
        EXPECT_EQ(c.chassis ? texts({ci.productManufacturer, ci.productPartNumber, ci.productVersion,
                                     ci.chassisCustomField, ci.chassisSerialNumber, ci.chassisPartNumber})
                            : texts({bi.productName, bi.customField, bi.serialNumber, bi.partNumber, bi.manufacturer}),
                  c.fields);
        // A type/length byte of 0xC5 sizes the copy: 197 characters and the terminator.
        EXPECT_GE(c.chassis && ci.chassisSerialNumber ? malloc_usable_size(ci.chassisSerialNumber) : 198u, 198u);
        c.chassis ? ipmiFreeChassisInfo(&ci) : ipmiFreeBoardInfo(&bi);
        EXPECT_EQ(c.chassis ? ci.chassisCustomField : bi.serialNumber, nullptr);
        EXPECT_EQ(ipmihost_script_pending(), 0u);
    }
}

TEST_F(InventoryTest, MissingArgumentsSendNothing)
{
    Cache cache = locators({{0x17, 1, {}}});
    ChassisInfo ci;
    BoardInfo bi;
    std::memset(&ci, 0xA5, sizeof ci);
    std::memset(&bi, 0xA5, sizeof bi);
    const std::string error = "ERROR: ipmihelpers.cpp:{line} ";
    EXPECT_DIAG(stderrOf([&] { ipmiGetChassisInfo(nullptr, nullptr, cache.get()); }),
                error + "chassis info pointer error\n");
    EXPECT_DIAG(stderrOf([&] { ipmiGetChassisInfo(nullptr, &ci, nullptr); }), error + "sdr info pointer error\n");
    EXPECT_DIAG(stderrOf([&] { EXPECT_EQ(ipmiGetChassisInfo(nullptr, &ci, cache.get()), 0); }),
                error + "session is null\n");
    EXPECT_EQ(ci.productManufacturer, nullptr); // cleared before the session is looked at
    EXPECT_EQ(
        stderrOf([&] { EXPECT_EQ(ipmiGetBoardInfo(nullptr, &bi, cache.get()) + ipmiOemAgetConnected(nullptr), 0); }),
        "");
    EXPECT_EQ(bi.manufacturer, nullptr);
    EXPECT_DIAG(stderrOf([] { ipmiGetEEPROMInfo(nullptr, 0); }),
                "\nipmihelpers.cpp:{line} (ipmiGetEEPROMInfo) Session check failed.\n");
    EXPECT_EQ(ipmihost_script_call_count(), 0u);
}

TEST_F(InventoryTest, AgentConnectedAndEepromInfo)
{
    IpmiSession *s = open();
    // Only byte 5 = 1 of an answer the platform took counts.
    for (auto [status, answer, result] : {std::tuple{0, oemAnswer({0x00, 0x01}), 1},
                                          {0, oemAnswer({0x01, 0x02}), 0},
                                          {0, oemAnswer({0x01}), 0},
                                          {0x01C1, oemAnswer({0x00, 0x01}, 0xC1), 0}}) {
        expect(0xB8, 0x02, oem({0x08}), answer, static_cast<uint16_t>(status));
        EXPECT_EQ(ipmiOemAgetConnected(s), result);
    }
    const Bytes block = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, none(16, 0);
    const std::string failed = "\nipmihelpers.cpp:{line} (ipmiGetEEPROMInfo) Failed to ";
    const std::string wrongSize = failed + "read device id, wrong response size.\n";
    // Only the length decides, not the completion code.
    for (auto [status, answer, info, diag] :
         {std::tuple{0, oemAnswer(block), block, std::string()},
          {0, oemAnswer(block, 0xC9), block, std::string()},
          {0, oemAnswer(Bytes(block.begin(), block.end() - 1)), none, wrongSize},
          {0, oemAnswer(cat({block, {0x00}})), none, wrongSize},
          {LIBIPMI_STATUS_TIMEOUT, Bytes{}, none, failed + "send ipmi raw command.\n"}}) {
        expect(0xB8, 0xF5, oem({0x12, 0x03}), answer, static_cast<uint16_t>(status));
        EEPROMInfo got;
        EXPECT_DIAG(stderrOf([&] { got = ipmiGetEEPROMInfo(s, 0x103); }), diag);
        EXPECT_EQ(Bytes(got.data, got.data + 16), info);
    }
}

} // namespace
