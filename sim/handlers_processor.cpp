// Processors (OEM commands 0xF1 and 0xF5), per socket index, as "processors" describes them.
//
//   0xF1 0x15 SOCKET   the processor record (tvx/oem_hardware.h, hw::cpu)
//   0xF1 0x13 SOCKET   the model name, its characters without a terminator
//   0xF5 0x4B SOCKET   the processor status value ("status")
//   0xF5 0x4C SOCKET   the status value of the second scale ("alt_status")
// A socket beyond the list answers 0xC9; an empty socket has no record or name (0xCB); a
// request of another length answers 0xC7.
#include "hardware.h"
#include "tvx/oem_hardware.h"

namespace tvxsim {
namespace {

namespace hw = tvx::oem::hw;
namespace cpu = tvx::oem::hw::cpu;

// The processor a request names, or null with the refusal already in rsp.
const Processor *socketOf(const std::vector<Processor> &processors, const Request &req, Response &rsp,
                          bool needPresent)
{
    tvx::wire::Reader r(req.data);
    uint8_t socket = r.u8();
    if (!r.done()) return rsp.fail(cc::kRequestLengthInvalid), nullptr;
    if (socket >= processors.size()) return rsp.fail(cc::kParameterOutOfRange), nullptr;
    const Processor &p = processors[socket];
    if (needPresent && !p.present) return rsp.fail(cc::kNotPresent), nullptr;
    return &p;
}

void record(const Processor &p, Response &rsp)
{
    layoutAnswer(rsp, cpu::kRecordSize, [&p](tvx::wire::Writer &w) {
        w.put(cpu::kSignature, p.signature)
            .put(cpu::kCurrentSpeed, p.currentMhz)
            .put(cpu::kMaxSpeed, p.maxMhz)
            .put(cpu::kExternalClock, p.busMhz)
            .put(cpu::kL1Cache, p.cacheKb[0])
            .put(cpu::kL2Cache, p.cacheKb[1])
            .put(cpu::kL3Cache, p.cacheKb[2])
            .put(cpu::kCores, p.cores)
            .put(cpu::kEnabledCores, p.enabledCores)
            .put(cpu::kThreadsPerCore, p.threadsPerCore)
            .put(cpu::kEnabledThreadsPerCore, p.enabledThreadsPerCore)
            .put(cpu::kFamily, p.family)
            .put(cpu::kManufacturer, p.manufacturer);
    });
}

void install(Controller &c)
{
    auto model = hardwareModel(c);
    if (!model->processors) return;
    auto list = [model]() -> const std::vector<Processor> & { return *model->processors; };
    c.onOemSub(hw::kInventory, hw::sub::kCpuRecord, [list](Context &, const Request &req, Response &rsp) {
        if (const Processor *p = socketOf(list(), req, rsp, true)) record(*p, rsp);
    });
    c.onOemSub(hw::kInventory, hw::sub::kCpuModelName, [list](Context &, const Request &req, Response &rsp) {
        if (const Processor *p = socketOf(list(), req, rsp, true))
            rsp.append(std::span(reinterpret_cast<const uint8_t *>(p->model.data()), p->model.size()));
    });
    for (bool alt : {false, true})
        c.onOemSub(hw::kVendorQuery, alt ? hw::sub::kCpuStatusAlt : hw::sub::kCpuStatus,
                   [list, alt](Context &, const Request &req, Response &rsp) {
                       if (const Processor *p = socketOf(list(), req, rsp, false))
                           layoutAnswer(rsp, hw::kValue.end(), [&](tvx::wire::Writer &w) {
                               w.put(hw::kValue, alt ? p->altStatus : p->status);
                           });
                   });
}

} // namespace

const Subsystem kProcessorSubsystem = {"processors", install, nullptr};

} // namespace tvxsim
