// Sensor commands (Sensor/Event, NetFn 0x04): readings, thresholds and hysteresis of the
// controller's own sensors in the SDR repository (those of satellite controllers answer
// through them, handlers_ipmb.cpp). A sensor is addressed by the request's LUN and its
// number; one the controller does not own answers 0xCB.
#include "controller.h"
#include "sdr.h"

namespace tvxsim {
namespace {

constexpr uint16_t kReservedAsOne = 0x8000; // bit 7 of the last state byte reads as 1

namespace sensor = tvx::cmd::sensor;
namespace reading = tvx::sensor_reading;

// Get Sensor Thresholds: the readable mask, then LNC, LC, LNR, UNC, UC, UNR (0 where not
// readable). Discrete sensors have no thresholds: 0xCD.
void getThresholds(const SdrModel &m, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t number = in.u8();
    if (!rsp.complete(in)) return;
    const SensorDef *s = m.find(kControllerAddress, req.lun, number);
    if (!s) return rsp.fail(cc::kNotPresent);
    if (!s->thresholdBased()) return rsp.fail(cc::kIllegalForType);
    rsp.u8(s->readableMask);
    for (int t = 0; t < 6; ++t) {
        bool readable = s->readableMask & (1u << t);
        rsp.u8(readable ? s->thresholds[static_cast<std::size_t>(t)].value_or(0) : 0);
    }
}

// Get Sensor Hysteresis: sensor number and a reserved byte (0xFF) in; positive-going and
// negative-going hysteresis out. Discrete sensors have none: 0xCD.
void getHysteresis(const SdrModel &m, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t number = in.u8();
    in.u8(); // reserved
    if (!rsp.complete(in)) return;
    const SensorDef *s = m.find(kControllerAddress, req.lun, number);
    if (!s) return rsp.fail(cc::kNotPresent);
    if (!s->thresholdBased()) return rsp.fail(cc::kIllegalForType);
    rsp.u8(s->hysteresisPositive);
    rsp.u8(s->hysteresisNegative);
}

void install(Controller &c)
{
    std::shared_ptr<const SdrModel> m = sdrModel(c);
    c.on(tvx::netfn::kSensorEvent, sensor::kGetSensorReading,
         [m](Context &ctx, const Request &req, Response &rsp) {
             answerSensorReading(*m, kControllerAddress, ctx, req, rsp);
         });
    c.on(tvx::netfn::kSensorEvent, sensor::kGetSensorThresholds,
         [m](Context &, const Request &req, Response &rsp) { getThresholds(*m, req, rsp); });
    c.on(tvx::netfn::kSensorEvent, sensor::kGetSensorHysteresis,
         [m](Context &, const Request &req, Response &rsp) { getHysteresis(*m, req, rsp); });
}

// Sensors start from the profile's values; the state keeps only what changed since.
void initState(const Profile &, nlohmann::json &state) { state["sensors"] = nlohmann::json::object(); }

} // namespace

const Subsystem kSensorSubsystem = {"sensors", install, initState};

// Get Sensor Reading of a sensor `owner` owns: the reading, the flags and the state. A
// threshold-based sensor answers one state byte, its threshold comparison status (bits 7..6
// read as 1); a discrete sensor answers its 15 state bits in two bytes. While the reading is unavailable the answer
// carries neither a reading nor asserted states.
void answerSensorReading(const SdrModel &m, uint8_t owner, Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t number = in.u8();
    if (!rsp.complete(in)) return;
    const SensorDef *s = m.find(owner, req.lun, number);
    if (!s) return rsp.fail(cc::kNotPresent);
    SensorNow now = sensorNow(*s, ctx.state);
    uint8_t flags = static_cast<uint8_t>((now.events ? reading::kEventsEnabled : 0) |
                                         (now.scanning ? reading::kScanningEnabled : 0) |
                                         (now.unavailable ? reading::kUnavailable : 0));
    rsp.u8(now.unavailable ? 0x00 : now.reading);
    rsp.u8(flags);
    if (s->thresholdBased()) {
        rsp.u8(static_cast<uint8_t>(0xC0 | (now.unavailable ? 0 : thresholdStatus(*s, now.reading))));
        return;
    }
    uint16_t state = now.unavailable ? 0 : now.state;
    rsp.u16(static_cast<uint16_t>(kReservedAsOne | (state & 0x7FFF)));
}

} // namespace tvxsim
