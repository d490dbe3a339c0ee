// The PCI slot table (OEM command 0xF1) and the languages of the controller's texts (OEM
// command 0xF5), as "pci_slots" and "languages" describe them.
//
//   0xF1 0x1A ENTRY (16 bits)   entry 1, 2, ...: a tag (the entry number), the slot, vendor and
//                               device ID (0xFFFF 0xFFFF: empty); past the last entry 0xC9
//   0xF5 0x74                   the number of languages, then their LCIDs
// A request of another length answers 0xC7.
#include "hardware.h"
#include "tvx/oem_hardware.h"

namespace tvxsim {
namespace {

namespace hw = tvx::oem::hw;

void pciEntry(const std::vector<PciSlotEntry> &table, const Request &req, Response &rsp)
{
    tvx::wire::Reader r(req.data);
    uint16_t number = r.u16();
    if (!r.done()) return rsp.fail(cc::kRequestLengthInvalid);
    if (number == 0 || number > table.size()) return rsp.fail(cc::kParameterOutOfRange);
    const PciSlotEntry &e = table[number - 1];
    layoutAnswer(rsp, hw::kPciEntrySize, [&](tvx::wire::Writer &w) {
        w.put(hw::kPciEntryTag, number).put(hw::kPciSlot, e.slot).put(hw::kPciFirstId, e.vendor).put(hw::kPciSecondId, e.device);
    });
}

void languages(const std::vector<uint16_t> &list, const Request &req, Response &rsp)
{
    if (!req.data.empty()) return rsp.fail(cc::kRequestLengthInvalid);
    layoutAnswer(rsp, hw::language(list.size()).at, [&list](tvx::wire::Writer &w) {
        w.put(hw::kLanguageCount, static_cast<uint8_t>(list.size()));
        for (std::size_t i = 0; i < list.size(); ++i) w.put(hw::language(i), list[i]);
    });
}

void install(Controller &c)
{
    auto model = hardwareModel(c);
    if (model->pciSlots)
        c.onOemSub(hw::kInventory, hw::sub::kPciSlotEntry,
                   [model](Context &, const Request &req, Response &rsp) { pciEntry(*model->pciSlots, req, rsp); });
    if (model->languages)
        c.onOemSub(hw::kVendorQuery, hw::sub::kLanguages,
                   [model](Context &, const Request &req, Response &rsp) { languages(*model->languages, req, rsp); });
}

} // namespace

const Subsystem kPlatformInfoSubsystem = {"platform_info", install, nullptr};

} // namespace tvxsim
