// Sensors: one sensor's reading, and the conversion of a raw reading into its unit through
// the factors of the sensor's full sensor record.
#include <cmath>
#include <limits>

#include "command.h"
#include "internal.h"
#include "tvx/records.h"

namespace libipmi {
namespace {

namespace sdr = tvx::sdr;
namespace full = tvx::sdr::full;

// An answer carries at least the completion code, the reading and the flags; the two state
// bytes are optional.
constexpr std::size_t kMinReadingAnswer = tvx::sensor_reading::kFlags.end();

enum AnalogFormat : uint8_t { kUnsigned = 0, kOnesComplement = 1, kTwosComplement = 2, kNoAnalogReading = 3 };

enum Linearization : uint8_t {
    kLinear = 0, kLn, kLog10, kLog2, kExp, kExp10, kExp2, kInverse, kSquare, kCube, kSqrt, kCubeRoot,
    kLastStandard = kCubeRoot
};

int signExtend(unsigned value, unsigned bits)
{
    unsigned sign = 1u << (bits - 1);
    return static_cast<int>(value & (sign - 1)) - static_cast<int>(value & sign);
}

double rawValue(uint8_t format, uint8_t raw)
{
    switch (format) {
    case kOnesComplement: return (raw & 0x80) ? -static_cast<double>(~raw & 0x7F) : raw;
    case kTwosComplement: return static_cast<int8_t>(raw);
    default: return raw;
    }
}

// 10^k for a record's four-bit signed exponents (k from -8 to 7): the doubles nearest to
// them, which are exactly what std::pow(10.0, k) returns, without a pow call per conversion.
constexpr double kPowersOfTen[16] = {1e-8, 1e-7, 1e-6, 1e-5, 1e-4, 1e-3, 1e-2, 1e-1,
                                     1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7};
double powerOfTen(int k) { return kPowersOfTen[k + 8]; }

double linearize(uint8_t linearization, double x)
{
    switch (linearization) {
    case kLn: return std::log(x);
    case kLog10: return std::log10(x);
    case kLog2: return std::log2(x);
    case kExp: return std::exp(x);
    case kExp10: return std::pow(10.0, x);
    case kExp2: return std::exp2(x);
    case kInverse: return 1.0 / x;
    case kSquare: return x * x;
    case kCube: return x * x * x;
    case kSqrt: return std::sqrt(x);
    case kCubeRoot: return std::cbrt(x);
    default: return x;
    }
}

} // namespace
} // namespace libipmi

using namespace libipmi;

extern "C" uint16_t IPMICMD_GetSensorReading(IpmiSession *s, SensorReadingRequest *req, SensorReadingResponse *res,
                                             int timeout)
{
    return boundaryStatus([&]() -> uint16_t {
        if (!s) return LIBIPMI_STATUS_NO_SESSION;
        if (!req || !res) return LIBIPMI_STATUS_INVALID_ARGUMENT;
        // A sensor that system software owns is not read from any controller.
        if (wire::bits(req->ownerId, 0, 1)) return LIBIPMI_STATUS_NOT_AVAILABLE;
        const uint8_t request[1] = {req->sensorNumber};
        const uint8_t lun = static_cast<uint8_t>(wire::bits(req->ownerLun, 0, 2));
        const Route owner{static_cast<uint8_t>(wire::bits(req->ownerLun, 4, 4)), req->ownerId};
        Reply r = command(s, netfn::kSensorEvent, tvx::cmd::sensor::kGetSensorReading, request, timeout,
                          owner.direct() ? nullptr : &owner, lun);
        return storeReply(r, res, sizeof *res, kMinReadingAnswer);
    });
}

// y = L[(M x + B 10^K1) 10^K2], with x the raw reading in the record's analog data format.
// Fails, leaving *value alone, for a record that is not a full sensor record or too short to
// hold the factors, one without analog reading, a linearization that is OEM or unknown, and
// a result that is not a finite float (the logarithm of a non-positive number, 1/0, overflow).
extern "C" int ipmi_convert_reading(uint8_t *fullSensorRecord, uint8_t raw, float *value)
{
    return boundary<int>(-1, [&]() -> int {
        if (!fullSensorRecord || !value) return -1;
        // The record as long as its header says, every factor read within it.
        const wire::View header(fullSensorRecord, sdr::kHeaderSize);
        if (header.get(sdr::kRecordType) != sdr::kFullSensor) return -1;
        const wire::View rec(fullSensorRecord, sdr::kHeaderSize + header.get(sdr::kLength, uint8_t{0}));
        if (!rec.has(full::kExponents)) return -1;
        auto byte = [&rec](wire::U8 f) { return static_cast<unsigned>(rec.get(f, uint8_t{0})); };
        uint8_t format = static_cast<uint8_t>(wire::bits(byte(sdr::kUnits1), 6, 2));
        if (format == kNoAnalogReading) return -1;
        uint8_t linearization = static_cast<uint8_t>(wire::bits(byte(full::kLinearization), 0, 7));
        if (linearization > kLastStandard) return -1;
        // M and B: ten-bit two's complement numbers, their two high bits in bits 7:6 of the
        // byte after them.
        int m = signExtend(byte(full::kM) | wire::bits(byte(full::kMTolerance), 6, 2) << 8, 10);
        int b = signExtend(byte(full::kB) | wire::bits(byte(full::kBAccuracy), 6, 2) << 8, 10);
        int k2 = signExtend(wire::bits(byte(full::kExponents), 4, 4), 4);
        int k1 = signExtend(wire::bits(byte(full::kExponents), 0, 4), 4);
        double x = rawValue(format, raw);
        double y = linearize(linearization, (m * x + b * powerOfTen(k1)) * powerOfTen(k2));
        if (!std::isfinite(y) || std::fabs(y) > std::numeric_limits<float>::max()) return -1;
        *value = static_cast<float>(y);
        return 0;
    });
}
