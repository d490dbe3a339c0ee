// The hardware the controller reports through its OEM queries, as the machine profile
// describes it: processors per socket ("processors"), memory modules per slot with their SPD
// images and the memory policy ("memory"), the PCI slot table ("pci_slots") and the languages
// of the controller's texts ("languages"). A section that is absent makes the controller
// answer its queries "invalid command", as a controller without that feature does.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "controller.h"
#include "profile.h"
#include "sdr.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace tvxsim {

struct Processor {
    std::string pointer; // where it stands in the profile, for messages
    std::string socket;  // the socket's label
    uint8_t sensor = 0;  // its processor sensor in the SDR repository (presence)
    bool present = true;
    uint8_t manufacturer = 0; // 1 Intel, 2 AMD, else unknown
    std::string model;
    uint32_t signature = 0;
    uint16_t family = 0;
    uint16_t currentMhz = 0, maxMhz = 0, busMhz = 0;
    uint16_t cacheKb[3] = {0, 0, 0}; // L1, L2, L3
    uint8_t cores = 0, enabledCores = 0, threadsPerCore = 0, enabledThreadsPerCore = 0;
    uint8_t status = 0;    // the value answered to the status query
    uint8_t altStatus = 0; // the value answered to the query of the second scale
};

struct MemoryModule {
    std::string pointer;
    std::string slot; // the slot's label
    bool present = true;
    uint8_t status = 0; // the controller's value (empty slot: 0)
    uint8_t config = 0;
    bool approved = true;
    uint16_t frequency = 0;
    uint16_t capacity = 0;     // as sent: MB, or with bit 15 set GB in bits 14:0
    std::vector<uint8_t> spd; // the SPD EEPROM image (empty: none can be read)
};

struct PciSlotEntry {
    uint8_t slot = 0;
    uint16_t vendor = 0xFFFF, device = 0xFFFF; // 0xFFFF: the slot holds no device
};

struct HardwareModel {
    std::optional<std::vector<Processor>> processors;
    struct Memory {
        uint8_t policy = 0;
        std::vector<MemoryModule> modules; // by module index
    };
    std::optional<Memory> memory;
    std::optional<std::vector<PciSlotEntry>> pciSlots; // entry 1 first
    std::optional<std::vector<uint16_t>> languages;
};

// Reads the four sections. A processor's "sensor" must name a processor sensor (type 0x07) of
// "sensors" whose presence state agrees with "present"; SPD image files are read relative to
// the profile's directory. Throws ProfileError naming the file and JSON pointer.
HardwareModel parseHardwareModel(const Profile &profile, const SdrModel &sdr);

// The model of a controller's profile, built on first use and kept with the controller.
std::shared_ptr<const HardwareModel> hardwareModel(Controller &controller);

// Answers with a payload laid out by named fields whose positions count from the completion
// code (tvx/oem_hardware.h): `fill` writes them into a zeroed answer of `size` bytes, and what
// follows the IANA echo goes into the response (the controller frames it).
template <typename Fill> void layoutAnswer(Response &rsp, std::size_t size, Fill fill)
{
    std::vector<uint8_t> answer(size, 0);
    tvx::wire::Writer writer(answer);
    fill(writer);
    rsp.append(std::span<const uint8_t>(answer).subspan(tvx::oem::kPayload));
}

} // namespace tvxsim
