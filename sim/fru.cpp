#include "fru.h"

#include <cstdio>
#include <map>

#include "controller.h"
#include "tvx/hex_string.h"
#include "tvx/records.h"

namespace tvxsim {
namespace {

namespace fru = tvx::fru;
namespace wire = tvx::wire;
constexpr uint8_t kFormatVersion = fru::kVersion1;
constexpr uint8_t kEndOfFields = fru::area::kEndOfFields;
constexpr std::size_t kMaxFieldBytes = 0x3F; // the length bits of a type/length byte
constexpr std::size_t kMaxAreaBytes = 0xFF * fru::kOffsetUnit;
constexpr uint32_t kMaxMinutes = 0xFFFFFF;

using TypeCode = fru::Encoding;
constexpr TypeCode kBinary = TypeCode::Binary, kBcdPlus = TypeCode::BcdPlus, kSixBit = TypeCode::Ascii6,
                   kEightBit = TypeCode::Text8;

uint8_t zeroChecksum(const std::vector<uint8_t> &bytes, std::size_t from, std::size_t to)
{
    unsigned sum = 0;
    for (std::size_t i = from; i < to; ++i) sum += bytes[i];
    return static_cast<uint8_t>(-sum);
}

std::string hexByte(unsigned v) { return tvx::hexNumber(v, 2, true); }

void appendField(std::vector<uint8_t> &out, TypeCode type, const std::vector<uint8_t> &bytes)
{
    wire::Appender(out).u8(static_cast<uint8_t>(static_cast<unsigned>(type) << 6 | bytes.size())).bytes(bytes);
}

void refuseTrailingSpace(const Node &n, const std::string &text, const char *encoding)
{
    if (!text.empty() && text.back() == ' ')
        n.fail(std::string("a ") + encoding + " text cannot end with a space: readers drop it as padding");
}

std::vector<uint8_t> bcdPlus(const Node &n, const std::string &text)
{
    refuseTrailingSpace(n, text, "BCD plus");
    std::vector<uint8_t> nibbles;
    for (char c : text) {
        if (c >= '0' && c <= '9') nibbles.push_back(static_cast<uint8_t>(c - '0'));
        else if (c == ' ') nibbles.push_back(0xA);
        else if (c == '-') nibbles.push_back(0xB);
        else if (c == '.') nibbles.push_back(0xC);
        else n.fail(std::string("BCD plus holds only digits, space, '-' and '.', got '") + c + "'");
    }
    if (nibbles.size() % 2) nibbles.push_back(0xA); // padded with a space
    std::vector<uint8_t> out;
    for (std::size_t i = 0; i < nibbles.size(); i += 2)
        out.push_back(static_cast<uint8_t>(nibbles[i] << 4 | nibbles[i + 1]));
    return out;
}

// Four characters in three bytes, the first character in the low bits of the first byte.
std::vector<uint8_t> sixBit(const Node &n, const std::string &text)
{
    refuseTrailingSpace(n, text, "6-bit packed");
    std::vector<uint8_t> out((text.size() * 6 + 7) / 8, 0);
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c > 0x5F)
            n.fail(std::string("6-bit packed ASCII holds only ' ' to '_' (no lower "
                               "case), got '") +
                   text[i] + "'");
        unsigned v = c - 0x20u;
        for (unsigned b = 0; b < 6; ++b) {
            std::size_t bit = i * 6 + b;
            if (v >> b & 1u) out[bit / 8] = static_cast<uint8_t>(out[bit / 8] | 1u << (bit % 8));
        }
    }
    return out;
}

// A text field: a string (8-bit ASCII) or {"ascii" | "bcd" | "6bit" | "binary": value}.
void appendText(std::vector<uint8_t> &out, const Node &n)
{
    TypeCode type = kEightBit;
    std::vector<uint8_t> bytes;
    std::optional<Node> value;
    if (n.json().is_string()) {
        value = n;
    } else {
        n.allowOnly({"ascii", "bcd", "6bit", "binary"});
        if (n.json().size() != 1) n.fail("expected one of \"ascii\", \"bcd\", \"6bit\" or \"binary\"");
        for (const char *k : {"ascii", "bcd", "6bit", "binary"})
            if (auto v = n.find(k)) {
                value = v;
                type = std::string(k) == "ascii"  ? kEightBit
                       : std::string(k) == "bcd"  ? kBcdPlus
                       : std::string(k) == "6bit" ? kSixBit
                                                  : kBinary;
            }
    }
    if (type == kBinary) {
        bytes = value->bytes();
    } else {
        std::string text = value->string();
        if (type == kBcdPlus) {
            bytes = bcdPlus(*value, text);
        } else if (type == kSixBit) {
            bytes = sixBit(*value, text);
        } else {
            if (text.find('\0') != std::string::npos) value->fail("a text cannot contain a NUL character");
            if (text.size() == 1)
                value->fail("a one-character 8-bit text would read as the "
                            "end-of-fields marker; use \"6bit\"");
            bytes.assign(text.begin(), text.end());
        }
    }
    if (bytes.size() > kMaxFieldBytes)
        value->fail("the field takes " + std::to_string(bytes.size()) + " bytes, more than the " +
                    std::to_string(kMaxFieldBytes) + " a FRU field holds");
    appendField(out, type, bytes);
}

// A field the format requires: the profile's text, or an empty 8-bit field.
void appendMandatory(std::vector<uint8_t> &out, const Node &area, const char *key)
{
    if (auto n = area.find(key)) appendText(out, *n);
    else appendField(out, kEightBit, {});
}

void appendCustom(std::vector<uint8_t> &out, const Node &area)
{
    if (auto list = area.find("custom"))
        for (std::size_t i = 0; i < list->size(); ++i) appendText(out, list->at(i));
}

// Closes an area begun with its format version and a length placeholder: end marker,
// padding to a multiple of 8 with the checksum as the last byte.
std::vector<uint8_t> closeArea(std::vector<uint8_t> area, const Node &where)
{
    area.push_back(kEndOfFields);
    area.resize((area.size() + 1 + 7) / 8 * 8 - 1, 0x00);
    if (area.size() + 1 > kMaxAreaBytes)
        where.fail("the area takes " + std::to_string(area.size() + 1) + " bytes, more than the " +
                   std::to_string(kMaxAreaBytes) + " an area can have");
    wire::Appender(area).put(fru::area::kLength, static_cast<uint8_t>((area.size() + 1) / fru::kOffsetUnit));
    area.push_back(zeroChecksum(area, 0, area.size()));
    return area;
}

uint8_t languageOf(const Node &area)
{
    auto n = area.find("language");
    return n ? n->byte() : 0; // 0: English
}

std::vector<uint8_t> chassisArea(const Node &n)
{
    n.allowOnly({"type", "part_number", "serial_number", "custom"});
    uint8_t type = 0x02; // "unknown"
    if (auto t = n.find("type")) type = t->byte();
    std::vector<uint8_t> a = {kFormatVersion, 0, type};
    appendMandatory(a, n, "part_number");
    appendMandatory(a, n, "serial_number");
    appendCustom(a, n);
    return closeArea(std::move(a), n);
}

uint32_t mfgMinutes(const Node &n)
{
    if (!n.json().is_string() || n.string().find('-') == std::string::npos)
        return static_cast<uint32_t>(n.integer(0, kMaxMinutes));
    long m = fruMinutesFromIso(n.string());
    if (m < 0 || m > static_cast<long>(kMaxMinutes))
        n.fail("expected minutes since 1996-01-01 (0 to 16777215) or a date such "
               "as \"2024-02-27\" or "
               "\"2024-02-27T14:30Z\" from 1996 to 2027, got \"" +
               n.string() + "\"");
    return static_cast<uint32_t>(m);
}

std::vector<uint8_t> boardArea(const Node &n)
{
    n.allowOnly({"language", "mfg_date", "manufacturer", "product_name", "serial_number", "part_number", "fru_file_id",
                 "custom"});
    uint32_t minutes = 0; // unspecified
    if (auto d = n.find("mfg_date")) minutes = mfgMinutes(*d);
    std::vector<uint8_t> a;
    wire::Appender(a).u8(kFormatVersion).u8(0).u8(languageOf(n)).u24(minutes);
    for (const char *key : {"manufacturer", "product_name", "serial_number", "part_number", "fru_file_id"})
        appendMandatory(a, n, key);
    appendCustom(a, n);
    return closeArea(std::move(a), n);
}

std::vector<uint8_t> productArea(const Node &n)
{
    n.allowOnly({"language", "manufacturer", "name", "part_number", "version", "serial_number", "asset_tag",
                 "fru_file_id", "custom"});
    std::vector<uint8_t> a = {kFormatVersion, 0, languageOf(n)};
    for (const char *key :
         {"manufacturer", "name", "part_number", "version", "serial_number", "asset_tag", "fru_file_id"})
        appendMandatory(a, n, key);
    appendCustom(a, n);
    return closeArea(std::move(a), n);
}

std::vector<uint8_t> internalUseArea(const Node &n)
{
    std::vector<uint8_t> a = {kFormatVersion};
    std::vector<uint8_t> data = n.bytes();
    a.insert(a.end(), data.begin(), data.end());
    a.resize((a.size() + 7) / 8 * 8, 0x00);
    return a;
}

std::vector<uint8_t> encodeDevice(const Node &n)
{
    std::vector<uint8_t> image(fru::kHeaderSize, 0);
    wire::Appender header(image);
    header.put(fru::kFormatVersion, kFormatVersion);
    struct Area {
        const char *key;
        wire::U8 offset; // its place in the common header
        std::vector<uint8_t> (*encode)(const Node &);
    };
    static constexpr Area kAreas[] = {{"internal_use", fru::kInternalUseOffset, internalUseArea},
                                      {"chassis", fru::kChassisOffset, chassisArea},
                                      {"board", fru::kBoardOffset, boardArea},
                                      {"product", fru::kProductOffset, productArea}};
    for (const Area &a : kAreas) {
        auto area = n.find(a.key);
        if (!area) continue;
        std::vector<uint8_t> bytes = a.encode(*area);
        if (image.size() / fru::kOffsetUnit > 0xFF)
            area->fail("the area would start at byte " + std::to_string(image.size()) +
                       ", past the last offset the common header can name (2040)");
        header.put(a.offset, static_cast<uint8_t>(image.size() / fru::kOffsetUnit));
        image.insert(image.end(), bytes.begin(), bytes.end());
    }
    header.put(fru::kHeaderChecksum, zeroChecksum(image, 0, fru::kHeaderChecksum.at));
    return image;
}

FruDevice parseDevice(const Node &n)
{
    n.allowOnly({"fru_id", "size", "word_access", "raw", "internal_use", "chassis", "board", "product"});
    FruDevice d;
    d.pointer = n.path();
    d.id = n.at("fru_id").byte();
    if (d.id == 0xFF) n.at("fru_id").fail("FRU device ID 0xFF is reserved");
    if (auto raw = n.find("raw")) {
        for (const char *k : {"internal_use", "chassis", "board", "product"})
            if (n.has(k)) n.at(k).fail("a device given as \"raw\" bytes has no areas besides");
        d.image = raw->bytes();
        if (d.image.empty()) raw->fail("expected at least one byte");
    } else {
        d.image = encodeDevice(n);
    }
    if (auto size = n.find("size")) {
        std::size_t want = size->integer(1, 0xFFFF);
        if (want < d.image.size())
            size->fail("the FRU data takes " + std::to_string(d.image.size()) + " bytes, more than the size " +
                       std::to_string(want));
        d.image.resize(want, 0xFF); // unwritten storage reads as erased
    }
    if (d.image.size() > 0xFFFF)
        n.fail("the FRU data takes " + std::to_string(d.image.size()) + " bytes, more than 65535");
    if (auto w = n.find("word_access")) d.wordAccess = w->boolean();
    if (d.wordAccess && d.image.size() % 2)
        n.fail("a device accessed by words has an even size, got " + std::to_string(d.image.size()) + " bytes");
    return d;
}

long daysFromCivil(long y, unsigned m, unsigned d)
{
    y -= m <= 2;
    const long era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<long>(doe) - 719468;
}

} // namespace

long fruMinutesFromIso(const std::string &text)
{
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0, used = 0;
    bool dateOnly = std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &y, &mo, &d, &used) == 3 &&
                    static_cast<std::size_t>(used) == text.size();
    if (!dateOnly) {
        used = 0;
        int fields = std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2dZ%n", &y, &mo, &d, &h, &mi, &s, &used);
        if (fields != 6 || static_cast<std::size_t>(used) != text.size()) {
            used = 0;
            s = 0;
            if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2dZ%n", &y, &mo, &d, &h, &mi, &used) != 5 ||
                static_cast<std::size_t>(used) != text.size())
                return -1;
        }
    }
    static constexpr int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (y < 1996 || mo < 1 || mo > 12 || d < 1 || d > kDays[mo - 1] || h > 23 || mi > 59 || s > 59) return -1;
    bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    if (mo == 2 && d == 29 && !leap) return -1;
    long days = daysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d)) - daysFromCivil(1996, 1, 1);
    return days * 1440 + h * 60 + mi;
}

const FruDevice *FruModel::find(uint8_t id) const
{
    for (const FruDevice &d : devices)
        if (d.id == id) return &d;
    return nullptr;
}

FruModel parseFruModel(const Profile &profile)
{
    auto list = profile.root().find("fru");
    return list ? parseFruDevices(*list) : FruModel{};
}

FruModel parseFruDevices(const Node &list)
{
    FruModel model;
    std::map<uint8_t, std::string> seen;
    for (std::size_t i = 0; i < list.size(); ++i) {
        Node n = list.at(i);
        FruDevice d = parseDevice(n);
        if (auto other = seen.find(d.id); other != seen.end())
            n.at("fru_id").fail("FRU device " + hexByte(d.id) + " is already described by " + other->second);
        seen[d.id] = d.pointer;
        model.devices.push_back(std::move(d));
    }
    return model;
}

std::shared_ptr<const FruModel> fruModel(Controller &controller)
{
    return controller.attachedOrParsed<FruModel>("fru", parseFruModel);
}

} // namespace tvxsim
