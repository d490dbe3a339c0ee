// ipmi_convert_reading against FreeIPMI: random full records, every raw value converted by both.
#include <gtest/gtest.h>

#include <freeipmi/freeipmi.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "libipmi.h"

namespace {

using Record = std::array<uint8_t, 64>;

constexpr float kUnchanged = -12345.5f;
constexpr uint8_t kInverse = 7;   // linearization 1/x
constexpr uint8_t kCubeRoot = 11; // linearization cube^-1

struct Factors {
    int m, b, k1, k2;
    uint8_t format, linearization;
};

// A full sensor record with the factors; random bytes elsewhere, so reading a neighbour shows.
Record makeFullRecord(const Factors &f, std::mt19937 &rng)
{
    Record r;
    for (uint8_t &x : r) x = static_cast<uint8_t>(rng());
    r[0] = 0x01; // record ID
    r[1] = 0x00;
    r[2] = 0x51;
    r[3] = 0x01; // full sensor record
    r[4] = static_cast<uint8_t>(r.size() - 5);
    r[20] = static_cast<uint8_t>(f.format << 6 | (r[20] & 0x3F));
    r[23] = static_cast<uint8_t>((r[23] & 0x80) | f.linearization);
    unsigned m = static_cast<unsigned>(f.m) & 0x3FF, b = static_cast<unsigned>(f.b) & 0x3FF;
    r[24] = static_cast<uint8_t>(m & 0xFF);
    r[25] = static_cast<uint8_t>((m >> 8) << 6 | (r[25] & 0x3F));
    r[26] = static_cast<uint8_t>(b & 0xFF);
    r[27] = static_cast<uint8_t>((b >> 8) << 6 | (r[27] & 0x3F));
    r[29] = static_cast<uint8_t>((f.k2 & 0x0F) << 4 | (f.k1 & 0x0F));
    return r;
}

int inRange(std::mt19937 &rng, int lo, int hi)
{
    return lo + static_cast<int>(rng() % static_cast<unsigned>(hi - lo + 1));
}

class ConvertReading : public ::testing::Test {
protected:
    void SetUp() override
    {
        sdr_ = ipmi_sdr_ctx_create();
        ASSERT_NE(sdr_, nullptr);
    }
    void TearDown() override { ipmi_sdr_ctx_destroy(sdr_); }
    ipmi_sdr_ctx_t sdr_ = nullptr;
};

TEST_F(ConvertReading, AgreesWithFreeIpmiOnEveryRawValue)
{
    std::mt19937 rng(20240611u);
    constexpr int kRecordsPerKind = 48;
    for (uint8_t format = 0; format <= 2; ++format) {
        for (uint8_t lin = 0; lin <= 11; ++lin) {
            size_t compared = 0, refused = 0;
            bool sawNegativeM = false, sawPositiveM = false, sawNegativeB = false, sawPositiveB = false;
            for (int i = 0; i < kRecordsPerKind; ++i) {
                // Exponentials overflow quickly: keep some of their records small enough to compare.
                const bool small = (lin == 4 || lin == 5 || lin == 6) && i % 2 == 0;
                Factors f{inRange(rng, -512, 511),
                          inRange(rng, -512, 511),
                          inRange(rng, -8, 7),
                          inRange(rng, -8, 7),
                          format,
                          lin};
                if (small) {
                    f.m = inRange(rng, -8, 8);
                    f.b = inRange(rng, -20, 20);
                    f.k1 = inRange(rng, -2, 0);
                    f.k2 = inRange(rng, -3, -1);
                }
                sawNegativeM |= f.m<0, sawPositiveM |= f.m> 0, sawNegativeB |= f.b<0, sawPositiveB |= f.b> 0;
                Record rec = makeFullRecord(f, rng);

                int8_t rExp = 0, bExp = 0;
                int16_t m = 0, b = 0;
                uint8_t parsedLin = 0, parsedFormat = 0;
                ASSERT_EQ(ipmi_sdr_parse_sensor_decoding_data(sdr_, rec.data(), rec.size(), &rExp, &bExp, &m, &b,
                                                              &parsedLin, &parsedFormat),
                          0)
                    << ipmi_sdr_ctx_errormsg(sdr_);
                // The record carries the factors where FreeIPMI finds them.
                ASSERT_EQ(m, f.m);
                ASSERT_EQ(b, f.b);
                ASSERT_EQ(bExp, f.k1);
                ASSERT_EQ(rExp, f.k2);
                ASSERT_EQ(parsedLin, lin);
                ASSERT_EQ(parsedFormat, format);

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
            EXPECT_TRUE(sawNegativeM && sawPositiveM && sawNegativeB && sawPositiveB);
            // Every kind must have been checked on many values, not only refused.
            EXPECT_GE(compared, 16u * 256u / 2) << refused << " refused";
        }
    }
}

TEST_F(ConvertReading, RecordsWithoutAConvertibleReadingFailAndLeaveTheValue)
{
    std::mt19937 rng(7u);
    auto with = [&](uint8_t format, uint8_t lin) { return makeFullRecord({10, -3, 1, -1, format, lin}, rng); };
    std::vector<Record> cases;
    for (uint8_t lin = 0; lin <= 11; ++lin) cases.push_back(with(3, lin));          // no analog reading
    for (uint8_t lin : {0x70, 0x7F, 12, 0x3F, 0x6F}) cases.push_back(with(2, lin)); // OEM non-linear, unknown
    // A compact or event-only record, and one that ends before its factors.
    for (auto [at, byte] : {std::pair{3, 0x02}, {3, 0x03}, {4, 24}})
        cases.push_back(with(0, 0)), cases.back()[at] = uint8_t(byte);
    for (Record &rec : cases) {
        SCOPED_TRACE(::testing::Message()
                     << "type " << int(rec[3]) << " length " << int(rec[4]) << " lin " << int(rec[23] & 0x7F));
        for (unsigned raw : {0u, 0x7Fu, 0x80u, 0xFFu}) {
            float value = kUnchanged;
            EXPECT_NE(ipmi_convert_reading(rec.data(), static_cast<uint8_t>(raw), &value), 0);
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
