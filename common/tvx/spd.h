// The JEDEC serial presence detect (SPD) images of DDR3, DDR4 and DDR5 memory modules, field
// by field, defined once for every layer: the decode-utility library reads modules with these
// layouts, the virtual controller builds its modules' images with the encoder at the end.
// Positions count from the image's first byte. Byte 2, the memory type, selects the layout.
//
// What an image says in numbers lives here (its memory type once its CRC holds, its speed bin,
// its capacity); the texts an administrator reads are the decode-utility library's.
//
// Header-only and free of the C++ runtime, like wire.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "tvx/wire.h"

namespace tvx::spd {

using wire::Run;
using wire::U16;
using wire::U8;
using wire::View;

// The key bytes, common to every generation.
inline constexpr U8 kMemoryType{2};
inline constexpr U8 kModuleType{3}; // bits 3:0 the generation's module type; DDR4, DDR5: 7 hybrid, 6:4 its media
inline constexpr uint8_t kDdr3 = 0x0B;
inline constexpr uint8_t kDdr4 = 0x0C;
inline constexpr uint8_t kDdr5 = 0x12;

// The largest image of the three generations (DDR5); what the encoder needs at most.
inline constexpr std::size_t kMaxSize = 1024;

// A module's speed bin: its data rate as JEDEC names it (DDR4-2666: 2666 MT/s) and the
// minimum clock cycle time that the bin requires, in ps, as the SPD stores it.
struct SpeedBin {
    uint16_t mts;
    uint16_t tckPs;
};

namespace ddr3 {
inline constexpr std::size_t kSize = 256;
inline constexpr U8 kBytes{
    0}; // bits 3:0 bytes used (1: 128, 2: 176, 3: 256), 6:4 size (1: 256), 7: CRC covers 0-116 only
inline constexpr U8 kRevision{1};
inline constexpr U8 kDensity{4};      // bits 3:0 die density 256 Mb << n, 6:4 banks 8 << n
inline constexpr U8 kAddressing{5};   // bits 2:0 column bits - 9, 5:3 row bits - 12
inline constexpr U8 kVoltage{6};      // bit 0 NOT 1.5 V operable, bit 1 1.35 V operable, bit 2 1.25 V operable
inline constexpr U8 kOrganization{7}; // bits 2:0 device width 4 << n, 5:3 ranks - 1
inline constexpr U8 kBusWidth{8};     // bits 2:0 primary width 8 << n, 4:3 extension (1: 8 bits)
inline constexpr U8 kFineTimebase{9}; // ps: dividend in bits 7:4, divisor in bits 3:0
inline constexpr U8 kMtbDividend{10}; // medium timebase in ns: dividend / divisor
inline constexpr U8 kMtbDivisor{11};
inline constexpr U8 kTckMin{12};        // medium timebase units
inline constexpr U16 kCasLatencies{14}; // bit n: CL n + 4
inline constexpr U8 kTaaMin{16};
inline constexpr U8 kTrcdMin{18};
inline constexpr U8 kTrpMin{20};
inline constexpr U8 kTrasTrcHigh{21}; // bits 3:0 tRAS bits 11:8, 7:4 tRC bits 11:8
inline constexpr U8 kTrasMin{22};
inline constexpr U8 kTrcMin{23};
inline constexpr U8 kTckMinFine{34};           // signed fine timebase units, added to kTckMin
inline constexpr U16 kModuleManufacturer{117}; // JEP106: continuation count, then code
inline constexpr U16 kCrc{126};
inline constexpr Run kPartNumber{128, 18};
inline constexpr SpeedBin kSpeedBins[] = {{800, 2500},  {1066, 1875}, {1333, 1500},
                                          {1600, 1250}, {1866, 1071}, {2133, 938}};
// Module types (byte 3, bits 3:0), by code.
inline constexpr const char *kModuleTypes[16] = {
    nullptr,        "RDIMM",        "UDIMM",        "SO-DIMM", "Micro-DIMM",  "Mini-RDIMM",  "Mini-UDIMM", "Mini-CDIMM",
    "72b-SO-UDIMM", "72b-SO-RDIMM", "72b-SO-CDIMM", "LRDIMM",  "16b-SO-DIMM", "32b-SO-DIMM", nullptr,      nullptr};
} // namespace ddr3

namespace ddr4 {
inline constexpr std::size_t kSize = 512;
inline constexpr U8 kBytes{0}; // bits 3:0 bytes used 128 x n, 6:4 size 256 x n
inline constexpr U8 kRevision{1};
inline constexpr U8 kDensity{4};       // bits 3:0 die density (kDieMb), 5:4 bank bits - 2, 7:6 bank group bits
inline constexpr U8 kAddressing{5};    // bits 2:0 column bits - 9, 5:3 row bits - 12
inline constexpr U8 kPackage{6};       // bit 7 non-monolithic, 6:4 dies - 1, 1:0 signal loading (2: 3DS)
inline constexpr U8 kOptional{7};      // bits 3:0 maximum activate count (8: unlimited)
inline constexpr U8 kVoltage{11};      // bit 0 1.2 V operable, bit 1 1.2 V endurant
inline constexpr U8 kOrganization{12}; // bits 2:0 device width 4 << n, 5:3 ranks - 1
inline constexpr U8 kBusWidth{13};     // bits 2:0 primary width 8 << n, 4:3 extension (1: 8 bits)
inline constexpr U8 kTimebases{17};    // 0: medium timebase 125 ps, fine timebase 1 ps (the only defined)
inline constexpr U8 kTckMin{18};       // medium timebase units
inline constexpr U8 kTckMax{19};
inline constexpr wire::U32 kCasLatencies{20}; // bit n: CL n + 7
inline constexpr U8 kTaaMin{24};
inline constexpr U8 kTrcdMin{25};
inline constexpr U8 kTrpMin{26};
inline constexpr U8 kTrasTrcHigh{27}; // bits 3:0 tRAS bits 11:8, 7:4 tRC bits 11:8
inline constexpr U8 kTrasMin{28};
inline constexpr U8 kTrcMin{29};
inline constexpr U8 kTckMaxFine{124}; // signed fine timebase units
inline constexpr U8 kTckMinFine{125};
inline constexpr U16 kCrc{126};       // over bytes 0-125
inline constexpr U16 kModuleCrc{254}; // over bytes 128-253
inline constexpr U16 kModuleManufacturer{320};
inline constexpr Run kPartNumber{329, 20};
inline constexpr uint32_t kDieMb[16] = {32, 64, 128, 256, 512, 1024, 2048, 4096, 1536, 3072};
inline constexpr SpeedBin kSpeedBins[] = {{1600, 1250}, {1866, 1071}, {2133, 938}, {2400, 833},
                                          {2666, 750},  {2933, 682},  {3200, 625}};
inline constexpr const char *kModuleTypes[16] = {
    nullptr,        "RDIMM",        "UDIMM", "SO-DIMM", "LRDIMM",      "Mini-RDIMM",  "Mini-UDIMM", nullptr,
    "72b-SO-RDIMM", "72b-SO-UDIMM", nullptr, nullptr,   "16b-SO-DIMM", "32b-SO-DIMM", nullptr,      nullptr};
} // namespace ddr4

namespace ddr5 {
inline constexpr std::size_t kSize = 1024;
inline constexpr U8 kBytes{0}; // bits 6:4 size (1: 256, 2: 512, 3: 1024, 4: 2048)
inline constexpr U8 kRevision{1};
inline constexpr U8 kDensity{4};       // bits 4:0 die density (kDieMb), 7:5 package (kDiesPerPackage)
inline constexpr U8 kAddressing{5};    // bits 7:5 column bits - 10, 4:0 row bits - 16
inline constexpr U8 kIoWidth{6};       // bits 7:5 device width 4 << n
inline constexpr U8 kBanks{7};         // bits 7:5 bank group bits, 2:0 bank bits per group
inline constexpr U8 kSecondDensity{8}; // the same four bytes for the odd ranks of an asymmetric module
inline constexpr U8 kSecondIoWidth{10};
inline constexpr U8 kVdd{16};     // bits 7:4 nominal (0: 1.1 V), 3:2 operable, 1:0 endurant
inline constexpr U8 kVddq{17};    // as kVdd (0: 1.1 V)
inline constexpr U8 kVpp{18};     // as kVdd (0: 1.8 V)
inline constexpr U16 kTckMin{20}; // ps
inline constexpr U16 kTckMax{22};
inline constexpr wire::U32 kCasLatencies{24}; // bit n: CL 20 + 2n (byte 28 goes on with CL 84-98)
inline constexpr U16 kTaaMin{30};             // ps
inline constexpr U16 kTrcdMin{32};
inline constexpr U16 kTrpMin{34};
inline constexpr U16 kTrasMin{36};
inline constexpr U16 kTrcMin{38};
inline constexpr U8 kOrganization{234}; // bit 6 asymmetric, 5:3 package ranks per sub-channel - 1
inline constexpr U8 kBusWidth{235};     // bits 6:5 sub-channels - 1, 4:3 extension (2: 8 bits), 2:0 width 8 << n
inline constexpr U16 kCrc{510};         // over bytes 0-509
inline constexpr U16 kModuleManufacturer{512};
inline constexpr Run kPartNumber{521, 30};
inline constexpr uint32_t kDieMb[32] = {0, 512, 1024, 1536, 2048, 3072, 4096, 6144, 8192};
inline constexpr uint8_t kDiesPerPackage[8] = {1, 2, 2, 4, 8, 16};
inline constexpr SpeedBin kSpeedBins[] = {{3200, 625}, {3600, 555}, {4000, 500}, {4400, 454}, {4800, 416},
                                          {5200, 384}, {5600, 357}, {6000, 333}, {6400, 312}, {6800, 294},
                                          {7200, 277}, {7600, 263}, {8000, 250}, {8400, 238}, {8800, 227}};
inline constexpr const char *kModuleTypes[16] = {nullptr,   "RDIMM",  "UDIMM", "SO-DIMM", "LRDIMM", "CUDIMM",
                                                 "CSODIMM", "MRDIMM", "CAMM2", nullptr,   "DDIMM",  "Solder-down",
                                                 nullptr,   nullptr,  nullptr, nullptr};
} // namespace ddr5

// Hybrid media (byte 3, bits 6:4, when bit 7 is set) of DDR4 and DDR5 modules.
inline constexpr const char *kHybridMedia[8] = {nullptr, "NVDIMM-N", "NVDIMM-P"};

// The CRC of SPD images: CRC-16, polynomial 0x1021, initial value 0, most significant bit
// first; stored least significant byte first.
constexpr uint16_t crc16(std::span<const uint8_t> bytes)
{
    uint32_t crc = 0;
    for (uint8_t b : bytes) {
        crc ^= static_cast<uint32_t>(b) << 8;
        for (int i = 0; i < 8; ++i) crc = (crc & 0x8000 ? crc << 1 ^ 0x1021 : crc << 1) & 0xFFFF;
    }
    return static_cast<uint16_t>(crc);
}

// Whether the CRC stored at `at` holds over the image's bytes [from, to).
constexpr bool crcHolds(View image, std::size_t from, std::size_t to, U16 at)
{
    auto stored = image.get(at);
    return stored && image.has(from, to - from) && crc16(image.span().subspan(from, to - from)) == *stored;
}

// The bytes that a generation's base CRC covers (DDR3 may cover bytes 0-116 only).
constexpr std::size_t baseCrcEnd(View image, uint8_t type)
{
    if (type == kDdr3) return wire::bits(image.get(ddr3::kBytes, uint8_t{0}), 7, 1) ? 117 : 126;
    return type == kDdr5 ? 510 : 126;
}

// The memory type of an image this layout reads: DDR3, DDR4 or DDR5, declaring enough bytes
// for its base block, with that block's CRC intact. 0 for anything else (blank, erased,
// truncated, another memory type, a damaged image).
constexpr uint8_t checkedType(View image)
{
    const uint8_t type = image.get(kMemoryType, uint8_t{0});
    const uint8_t bytes = image.get(ddr3::kBytes, uint8_t{0});
    switch (type) {
    case kDdr3:
    case kDdr4:
        if (wire::bits(bytes, 0, 4) == 0) return 0; // bytes used undefined
        return crcHolds(image, 0, baseCrcEnd(image, type), ddr3::kCrc) ? type : 0;
    case kDdr5:
        if (wire::bits(bytes, 4, 3) < 2) return 0; // smaller than the 512 bytes the CRC needs
        return crcHolds(image, 0, 510, ddr5::kCrc) ? type : 0;
    default:
        return 0;
    }
}

// The generation's speed bins, fastest last (empty for other memory types).
constexpr std::span<const SpeedBin> speedBins(uint8_t type)
{
    switch (type) {
    case kDdr3:
        return ddr3::kSpeedBins;
    case kDdr4:
        return ddr4::kSpeedBins;
    case kDdr5:
        return ddr5::kSpeedBins;
    default:
        return {};
    }
}

// The module type names of a generation, by code of byte 3, bits 3:0 (null for reserved codes).
constexpr const char *const *moduleTypeNames(uint8_t type)
{
    switch (type) {
    case kDdr3:
        return ddr3::kModuleTypes;
    case kDdr4:
        return ddr4::kModuleTypes;
    case kDdr5:
        return ddr5::kModuleTypes;
    default:
        return nullptr;
    }
}

// The fastest speed bin of its generation that the module's minimum cycle time (tCKmin, with
// the fine-timebase correction) meets, in MT/s; 0 when the image holds no usable cycle time
// or is slower than the slowest bin. A cycle time may exceed the bin's by one rounding step
// (one fine-timebase unit, at least 1 ps): SPD values are rounded to that step.
// `image` must have passed checkedType.
constexpr uint16_t speedBin(View image)
{
    const uint8_t type = image.get(kMemoryType, uint8_t{0});
    // The cycle time in units of 1/den ps, and the rounding step in the same units.
    int64_t tck = 0, den = 1, step = 1;
    if (type == kDdr3) {
        const uint8_t ftb = image.get(ddr3::kFineTimebase, uint8_t{0});
        const int64_t ftbDividend = wire::bits(ftb, 4, 4), ftbDivisor = wire::bits(ftb, 0, 4);
        const int64_t mtbDividend = image.get(ddr3::kMtbDividend, uint8_t{0});
        const int64_t mtbDivisor = image.get(ddr3::kMtbDivisor, uint8_t{0});
        if (ftbDivisor == 0 || mtbDividend == 0 || mtbDivisor == 0) return 0;
        den = mtbDivisor * ftbDivisor;
        const auto fine = static_cast<int8_t>(image.get(ddr3::kTckMinFine, uint8_t{0}));
        tck = image.get(ddr3::kTckMin, uint8_t{0}) * 1000 * mtbDividend * ftbDivisor + fine * ftbDividend * mtbDivisor;
        step = ftbDividend > ftbDivisor ? ftbDividend * mtbDivisor : den;
    } else if (type == kDdr4) {
        if (image.get(ddr4::kTimebases, uint8_t{0xFF}) != 0) return 0;
        tck =
            image.get(ddr4::kTckMin, uint8_t{0}) * 125 + static_cast<int8_t>(image.get(ddr4::kTckMinFine, uint8_t{0}));
    } else if (type == kDdr5) {
        tck = image.get(ddr5::kTckMin, uint16_t{0});
    }
    if (tck <= 0) return 0;
    uint16_t best = 0;
    for (const SpeedBin &bin : speedBins(type))
        if (tck <= bin.tckPs * den + step) best = bin.mts;
    return best;
}

// The module's capacity in MB; 0 when the organisation bytes hold reserved values.
// `image` must have passed checkedType.
constexpr uint64_t capacityMb(View image)
{
    const uint8_t type = image.get(kMemoryType, uint8_t{0});
    auto byte = [&](U8 f) { return image.get(f, uint8_t{0}); };
    if (type == kDdr3 || type == kDdr4) {
        const bool isDdr3 = type == kDdr3;
        const uint8_t density = wire::bits(byte(isDdr3 ? ddr3::kDensity : ddr4::kDensity), 0, 4);
        const uint8_t org = byte(isDdr3 ? ddr3::kOrganization : ddr4::kOrganization);
        const uint8_t bus = wire::bits(byte(isDdr3 ? ddr3::kBusWidth : ddr4::kBusWidth), 0, 3);
        const uint64_t dieMb = isDdr3 ? (density <= 6 ? 32u << density : 0) : ddr4::kDieMb[density];
        if (dieMb == 0 || bus > 3 || wire::bits(org, 0, 3) > 3) return 0;
        const uint64_t devicesPerRank = (8u << bus) / (4u << wire::bits(org, 0, 3));
        uint64_t dies = 1;
        const uint8_t package = byte(ddr4::kPackage);
        if (!isDdr3 && wire::bits(package, 0, 2) == 2) dies = wire::bits(package, 4, 3) + 1u; // 3DS
        return dieMb * devicesPerRank * (wire::bits(org, 3, 3) + 1u) * dies;
    }
    if (type != kDdr5) return 0;
    const uint8_t bus = byte(ddr5::kBusWidth), org = byte(ddr5::kOrganization);
    if (wire::bits(bus, 0, 3) > 3) return 0;
    // Per rank of one sub-channel's devices: width / device width x dies x die density.
    auto rankMb = [&](U8 density, U8 width) -> uint64_t {
        const uint8_t d = byte(density), w = wire::bits(byte(width), 5, 3);
        if (w > 3) return 0;
        return (8u << wire::bits(bus, 0, 3)) / (4u << w) * uint64_t{ddr5::kDiesPerPackage[wire::bits(d, 5, 3)]} *
               ddr5::kDieMb[wire::bits(d, 0, 5)];
    };
    const unsigned ranks = wire::bits(org, 3, 3) + 1u;
    const bool asymmetric = wire::bits(org, 6, 1);
    // An asymmetric module's odd ranks use the second device description.
    const uint64_t perSubChannel = (ranks + 1) / 2 * rankMb(ddr5::kDensity, ddr5::kIoWidth) +
                                   ranks / 2 *
                                       rankMb(asymmetric ? ddr5::kSecondDensity : ddr5::kDensity,
                                              asymmetric ? ddr5::kSecondIoWidth : ddr5::kIoWidth);
    return (wire::bits(bus, 5, 2) + 1u) * perSubChannel;
}

// Recomputes the image's CRCs (base block; DDR4's module block too) after its bytes changed.
constexpr void seal(std::span<uint8_t> image)
{
    View v(image);
    const uint8_t type = v.get(kMemoryType, uint8_t{0});
    if (type != kDdr3 && type != kDdr4 && type != kDdr5) return;
    const std::size_t end = baseCrcEnd(v, type);
    if (image.size() < end) return;
    wire::Writer w(image);
    const U16 crc = type == kDdr5 ? ddr5::kCrc : ddr3::kCrc;
    if (v.has(crc)) w.put(crc, crc16(image.first(end)));
    if (type == kDdr4 && v.has(ddr4::kModuleCrc)) w.put(ddr4::kModuleCrc, crc16(image.subspan(128, 126)));
}

// What the encoder builds: a module of a generation, type, speed, capacity and voltage.
struct Module {
    uint8_t type;       // kDdr3, kDdr4 or kDdr5
    uint8_t moduleType; // byte 3: the generation's module type code (with hybrid bits 7:4 on DDR4/DDR5)
    uint16_t mts;       // one of the generation's speed bins
    uint32_t capacityMb;
    bool ecc = false; // an 8-bit ECC extension of the data bus (registered modules have one)
    // DDR3 only: the lowest operable voltage, in mV: 1500 (DDR3), 1350 (DDR3L: 1.5 and 1.35 V)
    // or 1250 (DDR3U: 1.5, 1.35 and 1.25 V). DDR4 modules are 1.2 V, DDR5 modules 1.1 V.
    uint16_t lowestMv = 1500;
    uint16_t manufacturer = 0;        // JEP106 as stored: continuation count (odd parity), then code
    const char *partNumber = nullptr; // ASCII, cut to the field and padded with spaces
};

// Builds the image of `module` into `out` (zero-filled first) with valid CRCs; returns the
// image's size (DDR3 256, DDR4 512, DDR5 1024 bytes), or 0 when the speed is not one of the
// generation's bins, the module type not one of its types, the voltage not one it has, no
// organisation of 1, 2 or 4 ranks of x4, x8 or x16 single-die devices gives the capacity, or
// `out` is too short. The organisation is the first found: x8 devices before x4 and x16,
// fewer ranks first, then the smallest die. Timings are typical of the generation (tAA, tRCD
// and tRP 13.125, 13.75 or 16 ns).
constexpr std::size_t encode(const Module &module, std::span<uint8_t> out)
{
    const uint8_t type = module.type;
    const std::size_t size = type == kDdr3 ? ddr3::kSize : type == kDdr4 ? ddr4::kSize : ddr5::kSize;
    const char *const *names = moduleTypeNames(type);
    if (!names || !names[wire::bits(module.moduleType, 0, 4)] || out.size() < size) return 0;
    if (type == kDdr3 && module.moduleType > 0x0F) return 0;
    uint16_t tck = 0;
    for (const SpeedBin &bin : speedBins(type))
        if (bin.mts == module.mts) tck = bin.tckPs;
    uint8_t volts = 0;
    if (type == kDdr3)
        volts = module.lowestMv == 1500 ? 0 : module.lowestMv == 1350 ? 0x02 : module.lowestMv == 1250 ? 0x06 : 0xFF;
    if (tck == 0 || volts == 0xFF) return 0;

    // Organisation: device width code, ranks, density code (die MB by generation).
    const bool ddr5 = type == kDdr5;
    const uint32_t deviceBusBits = ddr5 ? 32 : 64; // per sub-channel on DDR5 (two of them)
    // Die densities of the generation's devices: DDR3 512 Mb-16 Gb, DDR4 2-32 Gb, DDR5 8-64 Gb.
    const int firstDensity = type == kDdr3   ? 1
                             : type == kDdr4 ? 3
                                             : 2,
              lastDensity = type == kDdr3   ? 6
                            : type == kDdr4 ? 7
                                            : 8;
    int width = -1, ranks = 0, density = -1;
    for (int w : {1, 0, 2}) {
        for (int r : {1, 2, 4}) {
            for (int d = firstDensity; d <= lastDensity && density < 0; ++d) {
                const uint64_t dieMb = ddr5 ? ddr5::kDieMb[d] : 32u << d;
                if (dieMb && dieMb * (deviceBusBits / (4u << w)) * r * (ddr5 ? 2 : 1) == module.capacityMb)
                    width = w, ranks = r, density = d;
            }
            if (density >= 0) break;
        }
        if (density >= 0) break;
    }
    if (density < 0) return 0;

    for (std::size_t i = 0; i < size; ++i) out[i] = 0;
    wire::Writer w(out.first(size));
    auto u8 = [&](U8 f, unsigned v) { w.put(f, static_cast<uint8_t>(v)); };
    auto u16 = [&](U16 f, unsigned v) { w.put(f, static_cast<uint16_t>(v)); };
    // Row bits from the die's size: banks x rows x columns x width = die bits.
    auto log2 = [](uint64_t v) {
        int n = 0;
        while ((uint64_t{1} << n) < v) ++n;
        return n;
    };
    const uint64_t dieBits = (ddr5 ? ddr5::kDieMb[density] : 32u << density) * 8ull * 1024 * 1024;
    const int widthBits = 2 + width;
    // Timings in ps and the CAS latency at this speed.
    const unsigned taa = type == kDdr3 ? 13125 : type == kDdr4 ? 13750 : 16000;
    auto cycles = [&](unsigned ps, unsigned t) { return (ps + t - 1) / t; };
    const unsigned mtbTck = cycles(tck, 125); // medium-timebase units, rounded up
    const int fineTck = static_cast<int>(tck) - static_cast<int>(mtbTck * 125);
    auto fill = [&](Run r, const char *text) {
        for (std::size_t i = 0; i < r.size; ++i) {
            const char c = text && *text ? *text++ : ' ';
            out[r.at + i] = static_cast<uint8_t>(c);
        }
    };
    u8(kMemoryType, type);
    u8(kModuleType, module.moduleType);
    if (type == kDdr3) {
        const int columns = width == 0 ? 11 : 10, rows = log2(dieBits) - 3 - columns - widthBits;
        u8(ddr3::kBytes, 0x13); // 256 bytes used of 256, CRC over 0-125
        u8(ddr3::kRevision, 0x13);
        u8(ddr3::kDensity, static_cast<unsigned>(density)); // 8 banks
        u8(ddr3::kAddressing, static_cast<unsigned>((rows - 12) << 3 | (columns - 9)));
        u8(ddr3::kVoltage, volts);
        u8(ddr3::kOrganization, static_cast<unsigned>((ranks - 1) << 3 | width));
        u8(ddr3::kBusWidth, (module.ecc ? 1u << 3 : 0u) | 3u);
        u8(ddr3::kFineTimebase, 0x11); // 1 ps
        u8(ddr3::kMtbDividend, 1);     // 1/8 ns
        u8(ddr3::kMtbDivisor, 8);
        u8(ddr3::kTckMin, mtbTck);
        u8(ddr3::kTckMinFine, static_cast<unsigned>(fineTck) & 0xFF);
        const unsigned cl = cycles(taa, tck), slowest = cycles(taa, 2500);
        u16(ddr3::kCasLatencies, ((1u << (cl - 3)) - 1) & ~((1u << (slowest - 4)) - 1));
        for (U8 f : {ddr3::kTaaMin, ddr3::kTrcdMin, ddr3::kTrpMin}) u8(f, taa / 125);
        const unsigned tras = 35000 / 125, trc = tras + taa / 125;
        u8(ddr3::kTrasTrcHigh, (trc >> 8) << 4 | tras >> 8);
        u8(ddr3::kTrasMin, tras & 0xFF);
        u8(ddr3::kTrcMin, trc & 0xFF);
        u16(ddr3::kModuleManufacturer, module.manufacturer);
        fill(ddr3::kPartNumber, module.partNumber);
    } else if (type == kDdr4) {
        const int groupBits = width == 2 ? 1 : 2, columns = 10;
        const int rows = log2(dieBits) - groupBits - 2 - columns - widthBits;
        u8(ddr4::kBytes, 0x23); // 384 bytes used of 512
        u8(ddr4::kRevision, 0x11);
        u8(ddr4::kDensity, static_cast<unsigned>(groupBits << 6 | density)); // 4 banks per group
        u8(ddr4::kAddressing, static_cast<unsigned>((rows - 12) << 3 | (columns - 9)));
        u8(ddr4::kOptional, 0x08);
        u8(ddr4::kVoltage, 0x03); // 1.2 V operable and endurant
        u8(ddr4::kOrganization, static_cast<unsigned>((ranks - 1) << 3 | width));
        u8(ddr4::kBusWidth, (module.ecc ? 1u << 3 : 0u) | 3u);
        u8(ddr4::kTckMin, mtbTck);
        u8(ddr4::kTckMinFine, static_cast<unsigned>(fineTck) & 0xFF);
        u8(ddr4::kTckMax, 13); // 1.6 ns: 13 x 125 ps - 25 ps
        u8(ddr4::kTckMaxFine, 0x100 - 25);
        const unsigned cl = cycles(taa, tck), slowest = cycles(taa, 1250);
        w.put(ddr4::kCasLatencies, ((1u << (cl - 6)) - 1) & ~((1u << (slowest - 7)) - 1));
        for (U8 f : {ddr4::kTaaMin, ddr4::kTrcdMin, ddr4::kTrpMin}) u8(f, taa / 125);
        const unsigned tras = 32000 / 125, trc = tras + taa / 125;
        u8(ddr4::kTrasTrcHigh, (trc >> 8) << 4 | tras >> 8);
        u8(ddr4::kTrasMin, tras & 0xFF);
        u8(ddr4::kTrcMin, trc & 0xFF);
        u16(ddr4::kModuleManufacturer, module.manufacturer);
        fill(ddr4::kPartNumber, module.partNumber);
    } else {
        // 8 Gb dies have 2 banks per group, larger ones 4; x16 devices half the groups.
        const int groupBits = width == 2 ? 2 : 3, bankBits = density == 2 ? 1 : 2, columns = 10;
        const int rows = log2(dieBits) - groupBits - bankBits - columns - widthBits;
        u8(ddr5::kBytes, 0x30); // 1024 bytes
        u8(ddr5::kRevision, 0x10);
        u8(ddr5::kDensity, static_cast<unsigned>(density)); // monolithic
        u8(ddr5::kAddressing, static_cast<unsigned>((columns - 10) << 5 | (rows - 16)));
        u8(ddr5::kIoWidth, static_cast<unsigned>(width << 5));
        u8(ddr5::kBanks, static_cast<unsigned>(groupBits << 5 | bankBits));
        u16(ddr5::kTckMin, tck);
        u16(ddr5::kTckMax, 1010);
        const unsigned cl = (cycles(taa, tck) + 1) & ~1u, slowest = (cycles(taa, 625) + 1) & ~1u;
        uint32_t cas = 0;
        for (unsigned c = slowest; c <= cl; c += 2) cas |= 1u << (c - 20) / 2;
        w.put(ddr5::kCasLatencies, cas);
        for (U16 f : {ddr5::kTaaMin, ddr5::kTrcdMin, ddr5::kTrpMin}) u16(f, taa);
        u16(ddr5::kTrasMin, 32000);
        u16(ddr5::kTrcMin, 32000 + taa);
        u8(ddr5::kOrganization, static_cast<unsigned>((ranks - 1) << 3));
        u8(ddr5::kBusWidth, 1u << 5 | (module.ecc ? 2u << 3 : 0u) | 2u); // two 32-bit sub-channels
        u16(ddr5::kModuleManufacturer, module.manufacturer);
        fill(ddr5::kPartNumber, module.partNumber);
    }
    seal(out.first(size));
    return w.ok() ? size : 0;
}

} // namespace tvx::spd
