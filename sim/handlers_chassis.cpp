// Chassis commands (NetFn 0x00), the controller's own resets (NetFn 0x06), and the OEM power
// source, graceful control and LED commands.
//
// The host's power is kept in state["chassis"]["power_on"] (other subsystems read it: sensors
// powered by the host have no reading while it is off). Power control:
//   0 power down       off (nothing to do when already off)
//   1 power up         on; records the power-on as made by command
//   2 power cycle      off, then on again; refused with 0xD5 while off
//   3 hard reset       stays on, the host restarts; 0xD5 while off
//   4 diagnostic int.  counted; 0xD5 while off
//   5 soft shutdown    the operating system shuts down and the power goes off; 0xD5 while off
// OEM graceful control (command 0x02), one code byte after the IANA number:
//   0x00 graceful shutdown  as a soft shutdown: ends off
//   0x01 graceful reboot    the operating system restarts, the power stays on
// both refused with 0xD5 while the host is off (no operating system runs to ask); other
// codes 0xCC.
// Each start of the host records its restart cause (Get System Restart Cause) and, while
// console logging is on, writes the profile's boot lines into the console log.
//
// Controller resets: Warm Reset drops LAN parameter writes in progress; Cold Reset also turns
// the identify LED off, as the restarted controller drives it anew. The host's power and every
// stored setting stay as they are.
#include <algorithm>
#include <ctime>
#include <iterator>

#include "controller.h"
#include "machine_state.h"

namespace tvxsim {
namespace {

using machine::flag;
using machine::number;
using machine::section;

namespace control = tvx::chassis_control;
namespace oem = tvx::oem;

// Last power event: the power came on through an IPMI command.
constexpr uint8_t kLastEventCommandOn = 0x10;
// System restart causes.
constexpr uint8_t kCauseUnknown = 0x00, kCauseChassisControl = 0x01, kCauseSoftReset = 0x0A;
// The channel a request arrives on, recorded with the restart cause.
constexpr uint8_t kRequestChannel = 0x01;

nlohmann::json &chassis(Context &ctx) { return section(ctx.state, "chassis"); }

bool powerOn(Context &ctx) { return flag(chassis(ctx), "power_on", ctx.profile.settings.chassis.powerOn); }

void setPower(Context &ctx, bool on)
{
    chassis(ctx)["power_on"] = on;
    ctx.changed();
}

// The host starts (power up, cycle, reset, reboot).
void hostStarts(Context &ctx, uint8_t cause, bool byCommand)
{
    nlohmann::json &c = chassis(ctx);
    c["power_on"] = true;
    c["restart_cause"] = cause;
    if (byCommand) c["last_power_event"] = kLastEventCommandOn;
    if (machine::consoleLogging(ctx)) machine::appendConsole(ctx, ctx.profile.settings.console.bootLines);
    ctx.changed();
}

// ---- identify ----------------------------------------------------------------------------

enum class Identify { Off, Timed, Indefinite };

Identify identifyState(Context &ctx)
{
    const nlohmann::json &leds = section(ctx.state, "leds");
    if (!flag(leds, "identify", ctx.profile.settings.leds.identify)) return Identify::Off;
    uint64_t until = number(leds, "identify_until", 0, UINT64_MAX);
    if (until == 0) return Identify::Indefinite;
    return static_cast<uint64_t>(std::time(nullptr)) < until ? Identify::Timed : Identify::Off;
}

void setIdentify(Context &ctx, bool on, uint64_t until)
{
    nlohmann::json &leds = section(ctx.state, "leds");
    leds["identify"] = on;
    leds["identify_until"] = on ? until : 0;
    ctx.changed();
}

// ---- chassis commands ----------------------------------------------------------------------

void getChassisStatus(Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    const ChassisSettings &s = ctx.profile.settings.chassis;
    const nlohmann::json &c = chassis(ctx);
    uint8_t power = static_cast<uint8_t>((powerOn(ctx) ? 0x01 : 0x00) | static_cast<uint8_t>(s.restorePolicy) << 5);
    uint8_t misc = 0x40; // identify state is reported
    if (s.intrusion) misc |= 0x01;
    if (s.frontPanelLockout) misc |= 0x02;
    if (s.driveFault) misc |= 0x04;
    if (s.coolingFault) misc |= 0x08;
    switch (identifyState(ctx)) {
    case Identify::Timed: misc |= 0x10; break;
    case Identify::Indefinite: misc |= 0x20; break;
    case Identify::Off: break;
    }
    rsp.u8(power);
    rsp.u8(static_cast<uint8_t>(number(c, "last_power_event", 0, 0xFF)));
    rsp.u8(misc);
    if (s.frontPanel) rsp.u8(*s.frontPanel);
}

void chassisControl(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t action = in.u8();
    if (!rsp.complete(in)) return;
    if (action > control::kSoftShutdown) return rsp.fail(cc::kInvalidDataField);
    bool on = powerOn(ctx);
    if (!on && action >= control::kPowerCycle) return rsp.fail(cc::kNotSupportedInState);
    switch (action) {
    case control::kPowerDown:
    case control::kSoftShutdown:
        if (on) setPower(ctx, false);
        break;
    case control::kPowerUp:
        if (!on) hostStarts(ctx, kCauseChassisControl, true);
        break;
    case control::kPowerCycle: // off, then on again
        setPower(ctx, false);
        hostStarts(ctx, kCauseChassisControl, true);
        break;
    case control::kHardReset:
        hostStarts(ctx, kCauseChassisControl, false);
        break;
    case control::kDiagnosticInterrupt: {
        nlohmann::json &c = chassis(ctx);
        c["diagnostic_interrupts"] = number(c, "diagnostic_interrupts", 0, UINT32_MAX) + 1;
        ctx.changed();
        break;
    }
    }
}

// Interval in seconds (absent: 15; 0: off); force byte bit 0: on until told otherwise.
void chassisIdentify(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t interval = in.remaining() ? in.u8() : 15;
    const uint8_t force = in.remaining() ? in.u8() : 0;
    if (!rsp.complete(in)) return;
    if (force & 0xFE) return rsp.fail(cc::kInvalidDataField);
    if (force & 0x01) setIdentify(ctx, true, 0);
    else if (interval == 0) setIdentify(ctx, false, 0);
    else setIdentify(ctx, true, static_cast<uint64_t>(std::time(nullptr)) + interval);
}

void getSystemRestartCause(Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    rsp.u8(static_cast<uint8_t>(number(chassis(ctx), "restart_cause", kCauseUnknown, 0x0F)));
    rsp.u8(kRequestChannel);
}

// ---- controller resets ---------------------------------------------------------------------

void coldReset(Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    machine::forgetLanWritesInProgress(ctx);
    if (identifyState(ctx) != Identify::Off) setIdentify(ctx, false, 0);
}

void warmReset(Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    machine::forgetLanWritesInProgress(ctx);
}

// ---- OEM -----------------------------------------------------------------------------------

// Selector (0x1B power-on source, 0x17 power-off source), 00 00 00 01, the source byte.
constexpr uint8_t kSourceFixed[4] = {0x00, 0x00, 0x00, 0x01};
void powerSource(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t selector = in.u8();
    const wire::View fixed = in.bytes(sizeof kSourceFixed);
    const uint8_t source = in.u8();
    if (!rsp.complete(in)) return;
    if ((selector != oem::power_source::kPowerOn && selector != oem::power_source::kPowerOff) ||
        !std::equal(fixed.span().begin(), fixed.span().end(), std::begin(kSourceFixed)))
        return rsp.fail(cc::kInvalidDataField);
    chassis(ctx)[selector == oem::power_source::kPowerOn ? "power_on_source" : "power_off_source"] = source;
    ctx.changed();
}

void gracefulControl(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t code = in.u8();
    if (!rsp.complete(in)) return;
    if (code > 0x01) return rsp.fail(cc::kInvalidDataField);
    if (!powerOn(ctx)) return rsp.fail(cc::kNotSupportedInState);
    if (code == 0x00) setPower(ctx, false);
    else hostStarts(ctx, kCauseSoftReset, false);
}

void setIdentifyLed(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t state = in.u8();
    if (!rsp.complete(in)) return;
    if (state > 1) return rsp.fail(cc::kInvalidDataField);
    setIdentify(ctx, state == 1, 0);
}

void getIdentifyLed(Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    rsp.u8(identifyState(ctx) != Identify::Off ? 0x01 : 0x00);
}

void getErrorLed(Context &ctx, const Request &req, Response &rsp)
{
    if (!rsp.complete(req.reader())) return;
    rsp.u8(static_cast<uint8_t>(number(section(ctx.state, "leds"), "error", ctx.profile.settings.leds.error, 0xFF)));
}

void install(Controller &c)
{
    namespace chassisCmd = tvx::cmd::chassis;
    // A controller that is no chassis device answers the Chassis commands as unknown (0xC1).
    if (c.profile().device.chassisDevice) {
        c.on(tvx::netfn::kChassis, chassisCmd::kGetStatus, getChassisStatus);
        c.on(tvx::netfn::kChassis, chassisCmd::kControl, chassisControl);
        c.on(tvx::netfn::kChassis, chassisCmd::kIdentify, chassisIdentify);
        c.on(tvx::netfn::kChassis, chassisCmd::kGetSystemRestartCause, getSystemRestartCause);
    }
    c.on(tvx::netfn::kApp, tvx::cmd::app::kColdReset, coldReset);
    c.on(tvx::netfn::kApp, tvx::cmd::app::kWarmReset, warmReset);
    c.onOem(oem::cmd::kPowerSource, powerSource);
    c.onOem(oem::cmd::kGracefulControl, gracefulControl);
    c.onOemSub(oem::cmd::kVendor, oem::vendor::kSetIdentifyLed, setIdentifyLed);
    c.onOemSub(oem::cmd::kVendor, oem::vendor::kGetIdentifyLed, getIdentifyLed);
    c.onOemSub(oem::cmd::kVendor, oem::vendor::kGetErrorLed, getErrorLed);
}

void initState(const Profile &p, nlohmann::json &state)
{
    const ChassisSettings &c = p.settings.chassis;
    state["chassis"] = {{"power_on", c.powerOn},
                        {"last_power_event", 0},
                        {"restart_cause", kCauseUnknown},
                        {"power_on_source", c.powerOnSource},
                        {"power_off_source", c.powerOffSource}};
    state["leds"] = {{"identify", p.settings.leds.identify}, {"identify_until", 0}, {"error", p.settings.leds.error}};
}

} // namespace

const Subsystem kChassisSubsystem = {"chassis", install, initState};

} // namespace tvxsim
