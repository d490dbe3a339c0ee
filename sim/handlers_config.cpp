// The configuration space (OEM command 0xE0), its reset to the profile's defaults and the
// console log (OEM command 0xF5, sub-functions 0xE0 and 0x09).
//
// Variables are declared in the profile with a default per index; only those (variable,
// index) pairs exist, everything else answers 0xCB. What is written is kept in
// state["config_space"]["0xIIII"]["INDEX"] as hex text; a reset forgets every written value.
//
//   read   01 INDEX ID_LO ID_HI              -> LENGTH VALUE...
//   write  02 INDEX ID_LO ID_HI LENGTH VALUE...
// A write whose length byte disagrees with the bytes sent answers 0xC7; a value longer than
// 250 bytes, or than the variable holds, 0xC8; a number or address of the wrong size, or a
// ConfConsLoggingEnable other than 0 or 1, 0xCC.
#include <algorithm>
#include <iterator>

#include "controller.h"
#include "machine_state.h"

namespace tvxsim {
namespace {

namespace oem = tvx::oem;
constexpr uint8_t kRead = oem::config_space::kRead, kWrite = oem::config_space::kWrite;

void readVariable(Context &ctx, uint8_t index, uint16_t id, Response &rsp)
{
    auto value = machine::configValue(ctx, id, index);
    if (!value) return rsp.fail(cc::kNotPresent);
    rsp.u8(static_cast<uint8_t>(value->size()));
    rsp.append(*value);
}

void writeVariable(Context &ctx, uint8_t index, uint16_t id, std::span<const uint8_t> value, Response &rsp)
{
    const auto &vars = ctx.profile.settings.configSpace;
    auto var = vars.find(id);
    if (var == vars.end() || !var->second.defaults.count(index)) return rsp.fail(cc::kNotPresent);
    const ConfigVariable &v = var->second;
    if (v.fixedLength && value.size() != v.maxLength) return rsp.fail(cc::kInvalidDataField);
    if (value.size() > v.maxLength) return rsp.fail(cc::kRequestLengthExceeded);
    if (id == kVarConsoleLogging && wire::Reader(value).u8() > 1) return rsp.fail(cc::kInvalidDataField);
    nlohmann::json &space = machine::section(ctx.state, "config_space");
    nlohmann::json &written = space[machine::variableKey(id)];
    if (!written.is_object()) written = nlohmann::json::object();
    written[std::to_string(index)] = machine::hexText(value);
    ctx.changed();
}

void configSpace(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t op = in.u8();
    if (!in.ok()) return rsp.fail(cc::kRequestLengthInvalid);
    if (op != kRead && op != kWrite) return rsp.fail(cc::kInvalidDataField);
    const uint8_t index = in.u8();
    const uint16_t id = in.u16();
    if (op == kRead) {
        if (!rsp.complete(in)) return;
        return readVariable(ctx, index, id, rsp);
    }
    const uint8_t length = in.u8();
    const wire::View value = in.rest();
    if (!in.ok() || value.size() != length) return rsp.fail(cc::kRequestLengthInvalid);
    if (length > kConfigValueMax) return rsp.fail(cc::kRequestLengthExceeded);
    writeVariable(ctx, index, id, value.span(), rsp);
}

// 'C' 'L' 'R' 0xAA guards against an accidental reset.
void resetConfigSpace(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const wire::View guard = in.bytes(sizeof oem::vendor::kResetGuard);
    if (!rsp.complete(in)) return;
    if (!std::equal(guard.span().begin(), guard.span().end(), std::begin(oem::vendor::kResetGuard)))
        return rsp.fail(cc::kInvalidDataField);
    ctx.state["config_space"] = nlohmann::json::object();
    ctx.changed();
}

void consoleLog(Context &ctx, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t action = in.u8();
    if (!rsp.complete(in)) return;
    if (action != oem::vendor::kConsoleClear) return rsp.fail(cc::kInvalidDataField);
    machine::section(ctx.state, "console")["log"] = nlohmann::json::array();
    ctx.changed();
}

void install(Controller &c)
{
    c.onOem(oem::cmd::kConfigSpace, configSpace);
    c.onOemSub(oem::cmd::kVendor, oem::vendor::kResetConfigSpace, resetConfigSpace);
    c.onOemSub(oem::cmd::kVendor, oem::vendor::kConsoleLog, consoleLog);
}

void initState(const Profile &p, nlohmann::json &state)
{
    state["config_space"] = nlohmann::json::object();
    state["console"] = {{"log", p.settings.console.log}};
}

} // namespace

const Subsystem kConfigSpaceSubsystem = {"config_space", install, initState};

} // namespace tvxsim
