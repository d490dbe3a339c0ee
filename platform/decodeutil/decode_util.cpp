// libtvx_decodeUtil.so.1: the SPD decoders name what a module's JEDEC SPD image says (layouts
// in tvx/spd.h; texts and classes documented in decodeUtil.h). The port-function area is read
// in port_function.cpp.
#include "decodeUtil.h"

#include <cstddef>

#include "tvx/spd.h"

namespace {

using namespace tvx;

// What every caller hands over: the first 512 bytes of the module's EEPROM.
constexpr std::size_t kImageSize = 512;

// A decodable image and its memory type; type 0 when the image cannot be trusted.
struct Image {
    wire::View bytes;
    uint8_t type;
};

Image read(const uint8_t *spd)
{
    wire::View v(spd, kImageSize);
    return {v, spd::checkedType(v)};
}

// A hybrid module's name, "NVDIMM-N RDIMM": its media before its base type, composed at
// compile time so that it is a constant text like the others (empty: no such module).
struct Name {
    char text[24] = {};
};
struct Names {
    Name of[16];
};
constexpr Names hybridNames(const char *media, const char *const *base)
{
    Names r{};
    for (int code = 0; code < 16; ++code) {
        if (!base[code]) continue;
        std::size_t n = 0;
        for (const char *p = media; *p;) r.of[code].text[n++] = *p++;
        r.of[code].text[n++] = ' ';
        for (const char *p = base[code]; *p;) r.of[code].text[n++] = *p++;
    }
    return r;
}
// [DDR4, DDR5][media 1, 2]
constexpr Names kHybridNames[2][2] = {{hybridNames(spd::kHybridMedia[1], spd::ddr4::kModuleTypes),
                                       hybridNames(spd::kHybridMedia[2], spd::ddr4::kModuleTypes)},
                                      {hybridNames(spd::kHybridMedia[1], spd::ddr5::kModuleTypes),
                                       hybridNames(spd::kHybridMedia[2], spd::ddr5::kModuleTypes)}};

// DDR3's operable voltages by byte 6, bits 2:0 (bit 0: NOT 1.5 V operable).
constexpr const char *kDdr3Voltages[8] = {"1.5 V",         nullptr,  "1.5 V, 1.35 V",         "1.35 V",
                                          "1.5 V, 1.25 V", "1.25 V", "1.5 V, 1.35 V, 1.25 V", "1.35 V, 1.25 V"};

} // namespace

extern "C" {

const char *spdUtilGetModuleTypeString(const uint8_t *spd)
{
    const Image image = read(spd);
    const char *const *names = spd::moduleTypeNames(image.type);
    if (!names) return nullptr;
    const uint8_t code = image.bytes.get(spd::kModuleType, uint8_t{0});
    const uint8_t base = wire::bits(code, 0, 4), media = wire::bits(code, 4, 3);
    if (image.type == spd::kDdr3 || !wire::bits(code, 7, 1)) return names[base];
    if (media < 1 || media > 2 || !names[base]) return nullptr;
    return kHybridNames[image.type == spd::kDdr5][media - 1].of[base].text;
}

const char *spdUtilGetDeviceTypeString(const uint8_t *spd)
{
    switch (read(spd).type) {
    case spd::kDdr3:
        return "DDR3 SDRAM";
    case spd::kDdr4:
        return "DDR4 SDRAM";
    case spd::kDdr5:
        return "DDR5 SDRAM";
    default:
        return nullptr;
    }
}

const char *spdUtilGetVoltageInterface(const uint8_t *spd)
{
    const Image image = read(spd);
    switch (image.type) {
    case spd::kDdr3:
        return kDdr3Voltages[wire::bits(image.bytes.get(spd::ddr3::kVoltage, uint8_t{0}), 0, 3)];
    case spd::kDdr4:
        return wire::bits(image.bytes.get(spd::ddr4::kVoltage, uint8_t{0}), 0, 1) ? "1.2 V" : nullptr;
    case spd::kDdr5:
        return wire::bits(image.bytes.get(spd::ddr5::kVdd, uint8_t{0}), 4, 4) == 0 ? "1.1 V" : nullptr;
    default:
        return nullptr;
    }
}

int spdUtilGetDDRFrequencyType(const uint8_t *spd)
{
    const Image image = read(spd);
    const uint16_t mts = image.type ? spd::speedBin(image.bytes) : 0;
    return mts ? mts : -1;
}

} // extern "C"
