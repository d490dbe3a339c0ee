// ipmi_convert_reading against FreeIPMI: random full records, every raw value converted by both.
#include <gtest/gtest.h>

#include <freeipmi/freeipmi.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include "libipmi.h"
#include "tvx/records.h"

namespace {

using Record = std::array<uint8_t, 64>;

constexpr float kUnchanged = -12345.5f;
constexpr uint8_t kInverse = 7;   // linearization 1/x
constexpr uint8_t kCubeRoot = 11; // linearization cube^-1

struct Factors {
    int m, b, k1, k2;
    uint8_t format, linearization;
};

// A full sensor record with the factors; random bytes elsewhere (and in the factors' bytes'
// other bits), so reading a neighbour shows.
Record makeFullRecord(const Factors &f, std::mt19937 &rng)
{
    namespace sdr = tvx::sdr;
    Record r;
    for (uint8_t &x : r) x = static_cast<uint8_t>(rng());
    auto put = [&r](tvx::wire::U8 field, unsigned value, unsigned keep = 0) {
        r[field.at] = static_cast<uint8_t>(value | (r[field.at] & keep));
    };
    tvx::wire::Writer(r.data(), r.size())
        .put(sdr::kRecordId, uint16_t(1))
        .put(sdr::kVersion, uint8_t(0x51))
        .put(sdr::kRecordType, sdr::kFullSensor)
        .put(sdr::kLength, uint8_t(r.size() - sdr::kHeaderSize));
    const unsigned m = static_cast<unsigned>(f.m) & 0x3FF, b = static_cast<unsigned>(f.b) & 0x3FF;
    put(sdr::kUnits1, f.format << 6, 0x3F);
    put(sdr::full::kLinearization, f.linearization, 0x80);
    put(sdr::full::kM, m & 0xFF);
    put(sdr::full::kMTolerance, (m >> 8) << 6, 0x3F);
    put(sdr::full::kB, b & 0xFF);
    put(sdr::full::kBAccuracy, (b >> 8) << 6, 0x3F);
    put(sdr::full::kExponents, (f.k2 & 0x0F) << 4 | (f.k1 & 0x0F));
    return r;
}

int inRange(std::mt19937 &rng, int lo, int hi)
{
    return lo + static_cast<int>(rng() % static_cast<unsigned>(hi - lo + 1));
}

TEST(ConvertReading, AgreesWithFreeIpmiOnEveryRawValue)
{
    std::unique_ptr<std::remove_pointer_t<ipmi_sdr_ctx_t>, void (*)(ipmi_sdr_ctx_t)> sdr(ipmi_sdr_ctx_create(),
                                                                                         ipmi_sdr_ctx_destroy);
    ASSERT_NE(sdr, nullptr);
    std::mt19937 rng(20240611u);
    constexpr int kRecordsPerKind = 32;
    for (uint8_t format = 0; format <= 2; ++format) {
        for (uint8_t lin = 0; lin <= 11; ++lin) {
            size_t compared = 0, refused = 0;
            for (int i = 0; i < kRecordsPerKind; ++i) {
                // Exponentials overflow quickly: keep some of their records small enough to compare.
                const bool small = (lin == 4 || lin == 5 || lin == 6) && i % 2 == 0;
                // clang-format off
                Factors f = small ? Factors{inRange(rng, -8, 8), inRange(rng, -20, 20), inRange(rng, -2, 0),
                                            inRange(rng, -3, -1), format, lin}
                                  : Factors{inRange(rng, -512, 511), inRange(rng, -512, 511), inRange(rng, -8, 7),
                                            inRange(rng, -8, 7), format, lin};
                // clang-format on
                Record rec = makeFullRecord(f, rng);

                int8_t rExp = 0, bExp = 0;
                int16_t m = 0, b = 0;
                uint8_t parsedLin = 0, parsedFormat = 0;
                ASSERT_EQ(ipmi_sdr_parse_sensor_decoding_data(sdr.get(), rec.data(), rec.size(), &rExp, &bExp, &m, &b,
                                                              &parsedLin, &parsedFormat),
                          0)
                    << ipmi_sdr_ctx_errormsg(sdr.get());
                // The record carries the factors where FreeIPMI finds them.
                ASSERT_EQ(std::tuple(m, b, bExp, rExp, parsedLin, parsedFormat),
                          std::tuple(f.m, f.b, f.k1, f.k2, lin, format));

                for (unsigned raw = 0; raw <= 0xFF; ++raw) {
                    double reference = 0;
                    // FreeIPMI takes 0x0B as 1/x^3, here it is the cube root: convert linearly, then cbrt.
                    const uint8_t referenceLin = parsedLin == kCubeRoot ? 0 : parsedLin;
                    // FreeIPMI reads a signed reading through plain char, which is unsigned on
                    // ARM, where it would take 0x80 and up as positive: such a reading goes to
                    // it as its magnitude, unsigned, with the sign moved into M (same product).
                    const bool foldSign = !std::numeric_limits<char>::is_signed &&
                                          parsedFormat != IPMI_SDR_ANALOG_DATA_FORMAT_UNSIGNED && raw >= 0x80;
                    const unsigned wrap = parsedFormat == IPMI_SDR_ANALOG_DATA_FORMAT_1S_COMPLEMENT ? 0xFF : 0x100;
                    ASSERT_EQ(ipmi_sensor_decode_value(rExp, bExp, foldSign ? -m : m, b, referenceLin,
                                                       foldSign ? IPMI_SDR_ANALOG_DATA_FORMAT_UNSIGNED : parsedFormat,
                                                       static_cast<uint8_t>(foldSign ? wrap - raw : raw), &reference),
                              0);
                    if (parsedLin == kCubeRoot) reference = std::cbrt(reference);
                    float value = kUnchanged;
                    int rc = ipmi_convert_reading(rec.data(), static_cast<uint8_t>(raw), &value);
                    // No float for it: log of x <= 0, an overflow, 1/0 (FreeIPMI reports 0).
                    bool representable = std::isfinite(reference) && std::fabs(reference) <= FLT_MAX &&
                                         !(lin == kInverse && reference == 0.0);
                    SCOPED_TRACE(::testing::Message()
                                 << "format " << int(format) << " lin " << int(lin) << " M " << f.m << " B " << f.b
                                 << " K1 " << f.k1 << " K2 " << f.k2 << " raw " << raw << " reference " << reference);
                    if (!representable) {
                        ASSERT_NE(rc, 0);
                        ASSERT_EQ(value, kUnchanged);
                        ++refused;
                        continue;
                    }
                    ASSERT_EQ(rc, 0);
                    // float against double: a few float ULPs, with an absolute floor.
                    double tolerance = std::max(std::fabs(reference) * 4 * FLT_EPSILON, 1e-37);
                    ASSERT_NEAR(value, reference, tolerance);
                    ++compared;
                }
            }
            SCOPED_TRACE(::testing::Message() << "format " << int(format) << " lin " << int(lin));
            // Every kind must have been checked on many values, not only refused.
            EXPECT_GE(compared, 16u * 256u / 2) << refused << " refused";
        }
    }
}

TEST(ConvertReading, RecordsWithoutAConvertibleReadingFailAndLeaveTheValue)
{
    std::mt19937 rng(7u);
    auto with = [&](uint8_t format, uint8_t lin) { return makeFullRecord({10, -3, 1, -1, format, lin}, rng); };
    // No analog reading; OEM non-linear and unknown linearizations.
    std::vector<Record> cases = {with(3, 0), with(2, 0x70), with(2, 12)};
    // A compact or event-only record, and one that ends before its factors.
    for (auto [field, byte] :
         {std::pair{tvx::sdr::kRecordType, 0x02}, {tvx::sdr::kRecordType, 0x03}, {tvx::sdr::kLength, 24}})
        cases.push_back(with(0, 0)), cases.back()[field.at] = uint8_t(byte);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        for (unsigned raw : {0u, 0x7Fu, 0x80u, 0xFFu}) {
            float value = kUnchanged;
            EXPECT_NE(ipmi_convert_reading(cases[i].data(), static_cast<uint8_t>(raw), &value), 0);
            EXPECT_EQ(value, kUnchanged);
        }
    }
    Record ok = with(0, 0);
    EXPECT_NE(ipmi_convert_reading(nullptr, 1, nullptr), 0);
    float value = kUnchanged;
    EXPECT_NE(ipmi_convert_reading(nullptr, 1, &value), 0);
    EXPECT_EQ(value, kUnchanged);
    EXPECT_NE(ipmi_convert_reading(ok.data(), 1, nullptr), 0);
    // The same record with a full type converts: the failures above come from what was changed.
    EXPECT_EQ(ipmi_convert_reading(ok.data(), 1, &value), 0);
}

} // namespace
