// An ipmi_sim module that turns OpenIPMI's LAN simulator into a controller of a machine
// profile, as far as ipmi_sim itself does not already model it:
//
//  - vendor OEM requests (NetFn 0x2E, the profile's IANA number) are answered by the same
//    OEM handlers as the virtual controller: a tvxsim::Controller built from the profile,
//    with its state in memory;
//  - standard commands the library sends and ipmi_sim lacks (Get SDR Repository Allocation
//    Info, Warm/Cold Reset, Get/Set SEL Time UTC Offset, Alert Immediate) are answered by
//    that controller when it models them, else by the plain answers below; Get Self Test
//    Results and Set/Get ACPI Power State by the controller alone;
//  - chassis power: Chassis Control changes the power state that Get Chassis Status reports;
//  - Get Sensor Reading: ipmi_sim's answer, with three corrections: the threshold
//    comparisons of sensors with signed readings (ipmi_sim compares the raw bytes as
//    unsigned numbers, so -5 would lie above 23), the reserved bits 7..6 of the comparisons
//    sent as ones, and sensors powered by the host reading "unavailable" while the power is
//    off;
//  - the identity details mc_add cannot carry (auxiliary firmware revision, IPMI version,
//    device busy) come from the profile.
//
// Loaded by ipmi_sim through its configuration:  loadlib "PATH/tvx_ipmi_sim.so" "profile=PATH"
// ipmi_sim is a single-threaded event loop, so the handlers need no locking.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <OpenIPMI/mcserv.h>
#include <OpenIPMI/serv.h>
}

#include "controller.h"
#include "profile.h"
#include "sdr.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"

// ipmi_sim's table of Sensor/Event commands, exported by the program: the module chains its
// Get Sensor Reading to the original.
extern "C" cmd_handler_f sensor_event_netfn_handlers[256];

namespace {

namespace cc = tvx::cc;
namespace cmd = tvx::cmd;
namespace netfn = tvx::netfn;
namespace wire = tvx::wire;
using Bytes = std::vector<uint8_t>;

// ipmi_sim sends at most 31 bytes after the IANA number of an OEM answer.
constexpr std::size_t kMaxOemDataAfterIana = 31;
// Every answer of ipmi_sim, completion code included.
constexpr std::size_t kMaxAnswer = 36;

struct Module {
    sys_data_t *sys = nullptr;
    std::unique_ptr<tvxsim::Controller> controller;
    std::string profilePath;
    // The chassis power model.
    bool powerOn = true;
    // SEL time offset from UTC in minutes; 0x07FF: unspecified.
    uint16_t utcOffset = 0x07FF;
};

Module &module()
{
    static Module m;
    return m;
}

void logLine(const std::string &text)
{
    Module &m = module();
    if (m.sys && m.sys->log) m.sys->log(m.sys, SETUP_ERROR, nullptr, "tvx module: %s", text.c_str());
    else std::fprintf(stderr, "tvx module: %s\n", text.c_str());
}

void answer(const std::vector<uint8_t> &bytes, unsigned char *rdata, unsigned int *rdata_len)
{
    std::size_t n = bytes.size() > kMaxAnswer ? kMaxAnswer : bytes.size();
    if (n == 0) return answer({cc::kUnspecified}, rdata, rdata_len);
    std::memcpy(rdata, bytes.data(), n);
    *rdata_len = static_cast<unsigned int>(n);
}

// The request's data bytes, walked field by field.
// ipmi_sim is a C program: no exception may leave a callback. Whatever a handler throws is
// logged and answered with completion code 0xFF (unspecified error).
template <void (*Handler)(lmc_data_t *, msg_t *, unsigned char *, unsigned int *, void *)>
void guarded(lmc_data_t *mc, msg_t *msg, unsigned char *rdata, unsigned int *rdata_len, void *cb) noexcept
{
    try {
        Handler(mc, msg, rdata, rdata_len, cb);
        return;
    } catch (const std::exception &e) {
        try {
            logLine(e.what());
        } catch (...) {
        }
    } catch (...) {
    }
    rdata[0] = cc::kUnspecified;
    *rdata_len = 1;
}

wire::Reader requestOf(const msg_t *msg) { return wire::Reader(msg->data, msg->len); }

// The controller's answer to a standard command, unless it does not model the command (or
// cannot answer at all).
bool askController(const msg_t *msg, std::vector<uint8_t> &out)
{
    Module &m = module();
    if (!m.controller) return false;
    tvxsim::Reply reply;
    try {
        reply = m.controller->handle(msg->netfn & 0x3E, msg->rs_lun & 3, msg->cmd,
                                     std::span<const uint8_t>(msg->data, msg->len));
    } catch (const std::exception &e) {
        logLine(e.what());
        return false;
    }
    const std::optional<uint8_t> code = wire::View(reply.bytes).get(tvx::kCompletionCode);
    if (!reply.answered || !code || *code == cc::kInvalidCommand) return false;
    out = std::move(reply.bytes);
    return true;
}

// ---- OEM requests ---------------------------------------------------------------------------

// ipmi_sim has taken the IANA number off the request and puts it back after the completion
// code of the answer; the controller frames both itself, so it is put back on the way in and
// taken off again on the way out.
void handleOem(lmc_data_t *, msg_t *msg, unsigned char *rdata, unsigned int *rdata_len, void *)
{
    Module &m = module();
    Bytes request;
    wire::Appender(request).u24(msg->iana).bytes({msg->data, msg->len});
    tvxsim::Reply reply;
    try {
        reply = m.controller->handle(netfn::kOem, msg->rs_lun & 3, msg->cmd, request);
    } catch (const std::exception &e) {
        logLine(e.what());
        answer({cc::kUnspecified}, rdata, rdata_len);
        return;
    }
    const wire::View got(reply.bytes);
    const std::optional<uint8_t> code = got.get(tvx::kCompletionCode);
    if (!reply.answered || !code) {
        // ipmi_sim always answers; the nearest it can say to "nothing" is that the command
        // timed out inside the controller.
        answer({cc::kTimeout}, rdata, rdata_len);
        return;
    }
    const wire::View payload = got.from(tvx::oem::kPayload);
    Bytes out{*code};
    wire::Appender(out).bytes(payload.span());
    if (payload.size() > kMaxOemDataAfterIana) out = {cc::kCannotReturnBytes};
    answer(out, rdata, rdata_len);
}

// ---- Standard commands ipmi_sim lacks -------------------------------------------------------

void handleSdrAllocInfo(lmc_data_t *, msg_t *msg, unsigned char *rdata, unsigned int *rdata_len, void *)
{
    Bytes out;
    if (askController(msg, out)) return answer(out, rdata, rdata_len);
    if (!requestOf(msg).done()) return answer({cc::kRequestLengthInvalid}, rdata, rdata_len);
    // ipmi_sim reports 0xFFFE bytes free in Get SDR Repository Info; in units of 16 bytes that
    // is 0x0FFF of 0x1000 units. The largest record is a full sensor record, 64 bytes.
    constexpr uint16_t kUnits = 0x1000, kUnitSize = 16, kFree = 0x0FFF;
    constexpr uint8_t kMaxRecordUnits = 4;
    wire::Appender(out).u8(cc::kOk).u16(kUnits).u16(kUnitSize).u16(kFree).u16(kFree).u8(kMaxRecordUnits);
    answer(out, rdata, rdata_len);
}

void handleReset(lmc_data_t *, msg_t *msg, unsigned char *rdata, unsigned int *rdata_len, void *)
{
    Bytes out;
    if (askController(msg, out)) return answer(out, rdata, rdata_len);
    if (!requestOf(msg).done()) return answer({cc::kRequestLengthInvalid}, rdata, rdata_len);
    // A simulated controller restarts instantly and keeps its sessions.
    answer({cc::kOk}, rdata, rdata_len);
}

void handleGetUtcOffset(lmc_data_t *, msg_t *msg, unsigned char *rdata, unsigned int *rdata_len, void *)
{
    Bytes out;
    if (askController(msg, out)) return answer(out, rdata, rdata_len);
    if (!requestOf(msg).done()) return answer({cc::kRequestLengthInvalid}, rdata, rdata_len);
    wire::Appender(out).u8(cc::kOk).u16(module().utcOffset);
    answer(out, rdata, rdata_len);
}

void handleSetUtcOffset(lmc_data_t *, msg_t *msg, unsigned char *rdata, unsigned int *rdata_len, void *)
{
    Bytes out;
    if (askController(msg, out)) return answer(out, rdata, rdata_len);
    wire::Reader in = requestOf(msg);
    const uint16_t v = in.u16();
    if (!in.done()) return answer({cc::kRequestLengthInvalid}, rdata, rdata_len);
    int16_t minutes = static_cast<int16_t>(v);
    if (v != 0x07FF && (minutes < -1440 || minutes > 1440))
        return answer({cc::kParameterOutOfRange}, rdata, rdata_len);
    module().utcOffset = v;
    answer({cc::kOk}, rdata, rdata_len);
}

void handleAlertImmediate(lmc_data_t *, msg_t *msg, unsigned char *rdata, unsigned int *rdata_len, void *)
{
    Bytes out;
    if (askController(msg, out)) return answer(out, rdata, rdata_len);
    // The channel and the destination selector at least.
    if (!requestOf(msg).skip(2).ok()) return answer({cc::kRequestLengthInvalid}, rdata, rdata_len);
    // The alert goes nowhere but is reported as sent: status 0x00, normal end.
    answer({cc::kOk, 0x00}, rdata, rdata_len);
}

// Commands ipmi_sim lacks that the controller model answers from the profile and its state
// (Get Self Test Results, Set/Get ACPI Power State).
void handleFromController(lmc_data_t *, msg_t *msg, unsigned char *rdata, unsigned int *rdata_len, void *)
{
    Bytes out;
    if (!askController(msg, out)) out = {cc::kInvalidCommand};
    answer(out, rdata, rdata_len);
}

// Get Device ID, only for identities ipmi_sim cannot report itself: it always answers IPMI
// version 2.0, never "device busy", and always the four auxiliary revision bytes.
void handleGetDeviceId(lmc_data_t *, msg_t *msg, unsigned char *rdata, unsigned int *rdata_len, void *)
{
    Bytes out;
    if (!askController(msg, out)) out = {cc::kUnspecified};
    answer(out, rdata, rdata_len);
}

// ---- Sensor readings -------------------------------------------------------------------------

cmd_handler_f originalGetSensorReading = nullptr;

void handleGetSensorReading(lmc_data_t *mc, msg_t *msg, unsigned char *rdata, unsigned int *rdata_len, void *cb)
{
    namespace reading = tvx::sensor_reading;
    originalGetSensorReading(mc, msg, rdata, rdata_len, cb);
    Module &m = module();
    wire::Reader request = requestOf(msg);
    const uint8_t number = request.u8();
    const wire::View got(rdata, *rdata_len);
    if (!m.controller || !request.ok() || !got.has(reading::kState0) ||
        got.get(tvx::kCompletionCode) != cc::kOk)
        return;
    std::shared_ptr<const tvxsim::SdrModel> model;
    try {
        model = tvxsim::sdrModel(*m.controller);
    } catch (const std::exception &e) {
        logLine(e.what());
        return;
    }
    const tvxsim::SensorDef *sensor = model->find(tvxsim::kControllerAddress, msg->rs_lun & 3, number);
    if (!sensor) return;
    wire::Writer fix(rdata, *rdata_len);
    const uint8_t flags = got.get(reading::kFlags, uint8_t{0});
    if (sensor->poweredByHost && !m.powerOn)
        fix.put(reading::kFlags, static_cast<uint8_t>(flags | reading::kUnavailable));
    if (sensor->thresholdBased()) {
        const bool isSigned = sensor->format == tvxsim::AnalogFormat::OnesComplement ||
                              sensor->format == tvxsim::AnalogFormat::TwosComplement;
        // Bits 7..6 of the threshold comparisons are reserved and sent as ones.
        uint8_t bits = isSigned ? tvxsim::thresholdStatus(*sensor, got.get(reading::kReading, uint8_t{0}))
                                : static_cast<uint8_t>(wire::bits(got.get(reading::kState0, uint8_t{0}), 0, 6));
        fix.put(reading::kState0, static_cast<uint8_t>(0xC0 | bits));
    }
}

// ---- Chassis power ----------------------------------------------------------------------------

int chassisSet(lmc_data_t *, int op, unsigned char *val, void *)
{
    Module &m = module();
    switch (op) {
    case CHASSIS_CONTROL_POWER:
        // ipmi_sim itself turns a power cycle into off, then on again a second later.
        m.powerOn = *val != 0;
        return 0;
    case CHASSIS_CONTROL_GRACEFUL_SHUTDOWN:
        m.powerOn = false;
        return 0;
    case CHASSIS_CONTROL_RESET:
    case CHASSIS_CONTROL_BOOT:
    case CHASSIS_CONTROL_BOOT_INFO_ACK:
    case CHASSIS_CONTROL_IDENTIFY:
        return 0;
    default:
        return EINVAL;
    }
}

int chassisGet(lmc_data_t *, int op, unsigned char *val, void *)
{
    Module &m = module();
    switch (op) {
    case CHASSIS_CONTROL_POWER:
        *val = m.powerOn ? 1 : 0;
        return 0;
    default:
        *val = 0;
        return 0;
    }
}

// Event texts come in chunks of the profile's size; a chunk's answer (text size, length,
// the chunk and its terminator) must fit behind the IANA number, so the chunks are made
// small enough for ipmi_sim. The library follows whatever chunk size the controller uses.
void fitTextChunks(tvxsim::Profile &profile)
{
    constexpr int kLargestChunk = kMaxOemDataAfterIana - 4;
    auto found = profile.document.find("event_texts");
    if (found == profile.document.end() || !found->is_object()) return;
    nlohmann::json &texts = *found;
    const nlohmann::json &size = texts["chunk_size"];
    if (!size.is_number_integer() || size.get<int>() > kLargestChunk)
        texts["chunk_size"] = static_cast<unsigned>(kLargestChunk);
}

std::string option(const char *opts, const char *name)
{
    std::string all = opts ? opts : "";
    std::string key = std::string(name) + "=";
    std::size_t start = 0;
    while (start < all.size()) {
        std::size_t end = all.find(' ', start);
        std::string item = all.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (item.rfind(key, 0) == 0) return item.substr(key.size());
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return "";
}

} // namespace

extern "C" __attribute__((visibility("default"))) int ipmi_sim_module_print_version(sys_data_t *, char *)
{
    std::printf("tvx ipmi_sim module 1.0\n");
    return 0;
}

namespace {

int initModule(sys_data_t *sys, const char *options)
{
    // A console client that disconnects early must not kill the simulator.
    std::signal(SIGPIPE, SIG_IGN);
    Module &m = module();
    m.sys = sys;
    m.profilePath = option(options, "profile");
    if (m.profilePath.empty()) {
        logLine("no profile given (loadlib \"...\" \"profile=PATH\")");
        return EINVAL;
    }
    try {
        tvxsim::Profile profile = tvxsim::loadProfile(m.profilePath);
        fitTextChunks(profile);
        m.controller = std::make_unique<tvxsim::Controller>(std::move(profile), "");
    } catch (const std::exception &e) {
        logLine(e.what());
        return EINVAL;
    }
    int rv = ipmi_emu_register_iana_handler(m.controller->profile().oemIana, guarded<handleOem>, nullptr);
    struct Std {
        unsigned char netfn, cmd;
        cmd_handler_f handler;
    };
    const Std standard[] = {
        {netfn::kStorage, cmd::storage::kGetSdrRepositoryAllocInfo, guarded<handleSdrAllocInfo>},
        {netfn::kApp, cmd::app::kColdReset, guarded<handleReset>},
        {netfn::kApp, cmd::app::kWarmReset, guarded<handleReset>},
        {netfn::kStorage, cmd::storage::kGetSelTimeUtcOffset, guarded<handleGetUtcOffset>},
        {netfn::kStorage, cmd::storage::kSetSelTimeUtcOffset, guarded<handleSetUtcOffset>},
        {netfn::kSensorEvent, cmd::sensor::kAlertImmediate, guarded<handleAlertImmediate>},
        {netfn::kApp, cmd::app::kGetSelfTestResults, guarded<handleFromController>},
        {netfn::kApp, cmd::app::kSetAcpiPowerState, guarded<handleFromController>},
        {netfn::kApp, cmd::app::kGetAcpiPowerState, guarded<handleFromController>},
    };
    for (const Std &s : standard) rv = rv ? rv : ipmi_emu_register_cmd_handler(s.netfn, s.cmd, s.handler, nullptr);
    originalGetSensorReading = sensor_event_netfn_handlers[cmd::sensor::kGetSensorReading];
    if (!rv && originalGetSensorReading)
        rv = ipmi_emu_register_cmd_handler(netfn::kSensorEvent, cmd::sensor::kGetSensorReading, guarded<handleGetSensorReading>,
                                           nullptr);
    const tvxsim::DeviceIdentity &id = m.controller->profile().device;
    if (!rv && (id.ipmiVersionBcd != 0x02 || id.busy || !id.auxFirmwareRevision))
        rv = ipmi_emu_register_cmd_handler(netfn::kApp, cmd::app::kGetDeviceId, guarded<handleGetDeviceId>, nullptr);
    if (rv) logLine("cannot register the command handlers");
    return rv;
}

void postInitModule(sys_data_t *sys)
{
    Module &m = module();
    lmc_data_t *mc = sys->ipmb_addrs[sys->bmc_ipmb];
    if (!mc || !m.controller) {
        logLine("no controller at the BMC's address (mc_add missing?)");
        return;
    }
    ipmi_mc_set_chassis_control_func(mc, chassisSet, chassisGet, nullptr);
    const tvxsim::DeviceIdentity &id = m.controller->profile().device;
    if (id.auxFirmwareRevision) {
        unsigned char aux[4];
        std::memcpy(aux, id.auxFirmwareRevision->data(), 4);
        ipmi_mc_set_aux_fw_revision(mc, aux);
    }
}

} // namespace

extern "C" __attribute__((visibility("default"))) int ipmi_sim_module_init(sys_data_t *sys, const char *options)
{
    try {
        return initModule(sys, options);
    } catch (...) {
        return ENOMEM; // only an allocation can fail here: every other failure is reported
    }
}

extern "C" __attribute__((visibility("default"))) void ipmi_sim_module_post_init(sys_data_t *sys)
{
    try {
        postInitModule(sys);
    } catch (...) {
        // Nothing to undo: the controller keeps what it had.
    }
}
