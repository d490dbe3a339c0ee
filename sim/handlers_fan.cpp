// The vendor's fan speed limits (OEM command 0xF5, sub-function 0x33): for one fan, named by
// its sensor number, the highest speed it reached at full duty and its rated speed, as the
// profile's "fan_speed_limits" give them:
//
//   "fan_speed_limits": [{"fan": "0x20", "max_rpm": 5700, "rated_rpm": 6000, "width": 2}]
//
// Request after the IANA number and the sub-function: the fan number.
// Answer after the completion code and the IANA number: the maximum, then the rated speed,
// each little-endian in `width` bytes (1 to 8, default 2). A fan without limits answers 0xCB;
// a request of another length 0xC7.
#include <map>

#include "controller.h"
#include "sdr.h"

namespace tvxsim {
namespace {

constexpr uint8_t kOemVendorCommand = 0xF5;
constexpr uint8_t kFanSpeedLimits = 0x33;
constexpr uint8_t kFanSensorType = 0x04;

struct Limits {
    uint32_t maximum = 0;
    uint32_t rated = 0;
    unsigned width = 2;
};

using LimitTable = std::map<uint8_t, Limits>;

LimitTable parseLimits(const Profile &profile, const SdrModel &sdr)
{
    LimitTable out;
    auto list = profile.root().find("fan_speed_limits");
    if (!list) return out;
    for (std::size_t i = 0; i < list->size(); ++i) {
        Node n = list->at(i);
        n.allowOnly({"fan", "max_rpm", "rated_rpm", "width"});
        Node fan = n.at("fan");
        const uint8_t number = fan.byte();
        const SensorDef *s = sdr.find(kControllerAddress, 0, number);
        if (!s || s->sensorType != kFanSensorType)
            fan.fail("no fan sensor (sensor type 0x04) with this number in /sensors");
        if (out.count(number)) fan.fail("this fan's limits are given twice");
        Limits l;
        if (auto w = n.find("width")) l.width = static_cast<unsigned>(w->integer(1, 8));
        const uint64_t largest = l.width >= 4 ? 0xFFFFFFFFu : (uint64_t{1} << (8 * l.width)) - 1;
        l.maximum = static_cast<uint32_t>(n.at("max_rpm").integer(0, largest));
        l.rated = static_cast<uint32_t>(n.at("rated_rpm").integer(0, largest));
        out[number] = l;
    }
    return out;
}

// A number in `width` little-endian bytes (the bytes beyond the fourth are zero).
void putNumber(Response &out, uint32_t value, unsigned width)
{
    switch (width) {
    case 1:
        out.u8(static_cast<uint8_t>(value));
        break;
    case 2:
        out.u16(static_cast<uint16_t>(value));
        break;
    case 3:
        out.u24(value);
        break;
    default:
        out.u32(value);
        for (unsigned i = 4; i < width; ++i) out.u8(0);
    }
}

void install(Controller &c)
{
    auto limits = std::make_shared<const LimitTable>(parseLimits(c.profile(), *sdrModel(c)));
    c.onOemSub(kOemVendorCommand, kFanSpeedLimits, [limits](Context &, const Request &req, Response &rsp) {
        if (req.data.size() != 1) return rsp.fail(cc::kRequestLengthInvalid);
        auto it = limits->find(req.data[0]);
        if (it == limits->end()) return rsp.fail(cc::kNotPresent);
        putNumber(rsp, it->second.maximum, it->second.width);
        putNumber(rsp, it->second.rated, it->second.width);
    });
}

} // namespace

const Subsystem kFanSubsystem = {"fans", install, nullptr};

} // namespace tvxsim
