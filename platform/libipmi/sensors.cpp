// Sensors: one sensor's reading, and the conversion of a raw reading into its unit through
// the factors of the sensor's full sensor record.
#include <cmath>
#include <limits>

#include "command.h"
#include "internal.h"

namespace libipmi {
namespace {

constexpr uint8_t kGetSensorReading = 0x2D;
// An answer carries at least the completion code, the reading and the flags; the two state
// bytes are optional.
constexpr std::size_t kMinReadingAnswer = 3;

// Full sensor record, offsets from the start of the record (header included).
namespace full {
constexpr uint8_t kRecordType = 0x01;
constexpr std::size_t kTypeAt = 3;
constexpr std::size_t kLengthAt = 4;
constexpr std::size_t kUnits1At = 20;        // bits 7:6 analog data format
constexpr std::size_t kLinearizationAt = 23; // bits 6:0
constexpr std::size_t kMAt = 24;             // M: 8 low bits here, 2 high bits in bits 7:6 of the next byte
constexpr std::size_t kBAt = 26;             // B: likewise
constexpr std::size_t kExponentsAt = 29;     // bits 7:4 R exponent (K2), bits 3:0 B exponent (K1)
constexpr std::size_t kHeaderSize = 5;
} // namespace full

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
    if (!s) return LIBIPMI_STATUS_NO_SESSION;
    if (!req || !res) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    const uint8_t request[1] = {req->sensorNumber};
    Reply r = command(s, netfn::kSensor, kGetSensorReading, request, timeout);
    return storeReply(r, res, sizeof *res, kMinReadingAnswer);
}

// y = L[(M x + B 10^K1) 10^K2], with x the raw reading in the record's analog data format.
// Fails, leaving *value alone, for a record that is not a full sensor record or too short to
// hold the factors, one without analog reading, a linearization that is OEM or unknown, and
// a result that is not a finite float (the logarithm of a non-positive number, 1/0, overflow).
extern "C" int ipmi_convert_reading(uint8_t *fullSensorRecord, uint8_t raw, float *value)
{
    const uint8_t *rec = fullSensorRecord;
    if (!rec || !value) return -1;
    if (rec[full::kTypeAt] != full::kRecordType) return -1;
    if (full::kHeaderSize + rec[full::kLengthAt] <= full::kExponentsAt) return -1;
    uint8_t format = rec[full::kUnits1At] >> 6;
    if (format == kNoAnalogReading) return -1;
    uint8_t linearization = rec[full::kLinearizationAt] & 0x7F;
    if (linearization > kLastStandard) return -1;
    int m = signExtend(rec[full::kMAt] | (rec[full::kMAt + 1] & 0xC0u) << 2, 10);
    int b = signExtend(rec[full::kBAt] | (rec[full::kBAt + 1] & 0xC0u) << 2, 10);
    int k2 = signExtend(rec[full::kExponentsAt] >> 4, 4);
    int k1 = signExtend(rec[full::kExponentsAt] & 0x0Fu, 4);
    double x = rawValue(format, raw);
    double y = linearize(linearization, (m * x + b * std::pow(10.0, k1)) * std::pow(10.0, k2));
    if (!std::isfinite(y) || std::fabs(y) > std::numeric_limits<float>::max()) return -1;
    *value = static_cast<float>(y);
    return 0;
}
