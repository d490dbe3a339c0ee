// Memory modules (OEM commands 0xF5, 0xF1 and 0x07), per module index, as "memory" describes
// them.
//
//   0xF5 0x48 MODULE          the module's status value
//   0xF5 0x49 MODULE          its configuration value
//   0xF5 0x4A                 the memory policy and the highest module index
//   0xF1 0x18 MODULE          frequency and capacity
//   0xF1 0x31 0x81 MODULE OFFSET LENGTH   SPD image bytes from OFFSET (16 bits each)
//   0x07 0x05 MODULE          the module index and 1 when the module is approved
// A module beyond the list answers 0xC9; an empty slot has no frequency, capacity, approval
// or SPD image (0xCB), nor has a module without an image; an SPD read at or past the end of
// the image answers 0xC9, one of length 0 or from another source 0xCC. An SPD read answers at
// most LENGTH bytes, and no more than /controller/max_response_length allows. A request of
// another length answers 0xC7.
#include <algorithm>

#include "hardware.h"
#include "tvx/oem_hardware.h"

namespace tvxsim {
namespace {

namespace hw = tvx::oem::hw;
namespace mod = tvx::oem::hw::module;
using Memory = HardwareModel::Memory;

// The module a request names (its first byte), or null with the refusal in rsp.
const MemoryModule *moduleOf(const Memory &memory, uint8_t index, Response &rsp, bool needPresent)
{
    if (index >= memory.modules.size()) return rsp.fail(cc::kParameterOutOfRange), nullptr;
    const MemoryModule &m = memory.modules[index];
    if (needPresent && !m.present) return rsp.fail(cc::kNotPresent), nullptr;
    return &m;
}

// Handlers whose request is the module index alone.
template <typename Answer> Handler byModule(std::shared_ptr<const HardwareModel> model, bool needPresent, Answer answer)
{
    return [model, needPresent, answer](Context &, const Request &req, Response &rsp) {
        tvx::wire::Reader r(req.data);
        uint8_t index = r.u8();
        if (!r.done()) return rsp.fail(cc::kRequestLengthInvalid);
        if (const MemoryModule *m = moduleOf(*model->memory, index, rsp, needPresent)) answer(*m, index, rsp);
    };
}

void value(Response &rsp, uint8_t v)
{
    layoutAnswer(rsp, hw::kValue.end(), [v](tvx::wire::Writer &w) { w.put(hw::kValue, v); });
}

void policy(const Memory &memory, const Request &req, Response &rsp)
{
    if (!req.data.empty()) return rsp.fail(cc::kRequestLengthInvalid);
    layoutAnswer(rsp, hw::kMaxModuleIndex.end(), [&memory](tvx::wire::Writer &w) {
        w.put(hw::kPolicy, memory.policy).put(hw::kMaxModuleIndex, static_cast<uint8_t>(memory.modules.size() - 1));
    });
}

void spdRead(const Memory &memory, const Context &ctx, const Request &req, Response &rsp)
{
    tvx::wire::Reader r(req.data);
    uint8_t source = r.u8(), index = r.u8();
    uint16_t offset = r.u16(), length = r.u16();
    if (!r.done()) return rsp.fail(cc::kRequestLengthInvalid);
    if (source != hw::kSpdSourceEeprom || length == 0) return rsp.fail(cc::kInvalidDataField);
    const MemoryModule *m = moduleOf(memory, index, rsp, true);
    if (!m) return;
    if (m->spd.empty()) return rsp.fail(cc::kNotPresent);
    if (offset >= m->spd.size()) return rsp.fail(cc::kParameterOutOfRange);
    std::size_t n = std::min<std::size_t>(length, m->spd.size() - offset);
    // Completion code and IANA echo come before the data; without a limit of the profile's the
    // answer still fits an IPMI message (255 bytes with its completion code).
    constexpr std::size_t kMessageLimit = 255;
    const std::size_t limit = ctx.profile.maxResponseLength != 0 ? ctx.profile.maxResponseLength : kMessageLimit;
    n = std::min(n, limit - tvx::oem::kPayload);
    rsp.append(std::span<const uint8_t>(m->spd).subspan(offset, n));
}

void install(Controller &c)
{
    auto model = hardwareModel(c);
    if (!model->memory) return;
    c.onOemSub(hw::kVendorQuery, hw::sub::kMemoryModuleStatus,
               byModule(model, false, [](const MemoryModule &m, uint8_t, Response &rsp) { value(rsp, m.status); }));
    c.onOemSub(hw::kVendorQuery, hw::sub::kMemoryModuleConfig,
               byModule(model, false, [](const MemoryModule &m, uint8_t, Response &rsp) { value(rsp, m.config); }));
    c.onOemSub(hw::kVendorQuery, hw::sub::kMemoryPolicy,
               [model](Context &, const Request &req, Response &rsp) { policy(*model->memory, req, rsp); });
    c.onOemSub(hw::kInventory, hw::sub::kMemoryModuleInfo,
               byModule(model, true, [](const MemoryModule &m, uint8_t, Response &rsp) {
                   layoutAnswer(rsp, mod::kInfoSize, [&m](tvx::wire::Writer &w) {
                       w.put(mod::kFrequency, m.frequency).put(mod::kCapacity, m.capacity);
                   });
               }));
    c.onOemSub(hw::kInventory, hw::sub::kSpdRead,
               [model](Context &ctx, const Request &req, Response &rsp) { spdRead(*model->memory, ctx, req, rsp); });
    c.onOemSub(hw::kModuleApproval, hw::sub::kApproval,
               byModule(model, true, [](const MemoryModule &m, uint8_t index, Response &rsp) {
                   layoutAnswer(rsp, mod::kApprovalSize, [&](tvx::wire::Writer &w) {
                       w.put(mod::kApprovalModule, index).put(mod::kApproved, static_cast<uint8_t>(m.approved ? mod::kIsApproved : 0));
                   });
               }));
}

} // namespace

const Subsystem kMemorySubsystem = {"memory", install, nullptr};

} // namespace tvxsim
