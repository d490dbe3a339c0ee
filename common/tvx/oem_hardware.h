// The vendor's OEM requests about the hardware the controller manages: processors, memory
// modules (status, configuration, approval, size and speed, SPD image), the memory policy,
// the PCI slot table and the languages of the controller's texts. All are OEM/Group requests
// (NetFn 0x2E) in the frame of tvx/ipmi.h: the IANA number, a sub-function byte, then the
// bytes below; answers carry the completion code, the IANA echo and their payload from
// oem::kPayload on. Answer positions count from the completion code.
//
// The library builds the requests with the builders here and reads the answers by these
// fields; the virtual controller reads the requests in the documented order and writes its
// answers by the same fields.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "tvx/ipmi.h"
#include "tvx/wire.h"

namespace tvx::oem::hw {

using wire::U16;
using wire::U32;
using wire::U8;

// ---- Commands and their sub-functions -------------------------------------------------------

inline constexpr uint8_t kVendorQuery = 0xF5;   // short status queries
inline constexpr uint8_t kInventory = 0xF1;     // inventory records and tables
inline constexpr uint8_t kModuleApproval = 0x07; // whether a memory module is approved

namespace sub {
// kVendorQuery
inline constexpr uint8_t kMemoryModuleStatus = 0x48; // module
inline constexpr uint8_t kMemoryModuleConfig = 0x49; // module
inline constexpr uint8_t kMemoryPolicy = 0x4A;       // (nothing)
inline constexpr uint8_t kCpuStatus = 0x4B;          // socket ('K')
inline constexpr uint8_t kCpuStatusAlt = 0x4C;       // socket ('L'): the second status scale
inline constexpr uint8_t kSignalRead = 0x42;         // entity ID, instance, kind, 0 ('B')
inline constexpr uint8_t kPresence = 0x54;           // entity ID, instance, kind, 0 ('T')
inline constexpr uint8_t kLanguages = 0x74;          // (nothing)
// kInventory
inline constexpr uint8_t kCpuModelName = 0x13;    // socket
inline constexpr uint8_t kCpuRecord = 0x15;       // socket
inline constexpr uint8_t kMemoryModuleInfo = 0x18; // module
inline constexpr uint8_t kPciSlotEntry = 0x1A;    // entry number (16 bits)
inline constexpr uint8_t kPortFunctionArea = 0x1C; // identity (3 bytes), offset (16), length
inline constexpr uint8_t kSpdRead = 0x31;         // source, module, offset (16), length (16)
// kModuleApproval
inline constexpr uint8_t kApproval = 0x05; // module
} // namespace sub

// The source byte of an SPD read: the module's SPD EEPROM.
inline constexpr uint8_t kSpdSourceEeprom = 0x81;
// The chunk the library asks for at a time.
inline constexpr uint16_t kSpdChunk = 64;

// ---- Request builders ---------------------------------------------------------------------

// IANA number, sub-function and one argument byte (a module or socket index).
constexpr std::array<uint8_t, 5> indexRequest(uint8_t subFunction, uint8_t index)
{
    return request(subFunction, index);
}
// IANA number and sub-function alone.
constexpr std::array<uint8_t, 4> plainRequest(uint8_t subFunction) { return request(subFunction); }

inline constexpr std::size_t kSpdRequestSize = kIanaSize + 7;
constexpr std::array<uint8_t, kSpdRequestSize> spdChunkRequest(uint8_t module, uint16_t offset, uint16_t length)
{
    std::array<uint8_t, kSpdRequestSize> r{};
    wire::Writer(r).bytes(request(sub::kSpdRead, kSpdSourceEeprom, module)).u16(offset).u16(length);
    return r;
}

inline constexpr std::size_t kPciRequestSize = kIanaSize + 3;
constexpr std::array<uint8_t, kPciRequestSize> pciEntryRequest(uint16_t entry)
{
    std::array<uint8_t, kPciRequestSize> r{};
    wire::Writer(r).bytes(request(sub::kPciSlotEntry)).u16(entry);
    return r;
}

// A component's signal state or presence: which component, by its SDR entity and the kind of
// component as an IPMI sensor-type code.
inline constexpr std::size_t kComponentRequestSize = kIanaSize + 5;
constexpr std::array<uint8_t, kComponentRequestSize> componentRequest(uint8_t subFunction, uint8_t entityId,
                                                                      uint8_t entityInstance, uint8_t kind)
{
    return request(subFunction, entityId, entityInstance, kind, 0x00);
}

// A piece of a network port function's specific area.
inline constexpr std::size_t kPortAreaRequestSize = kIanaSize + 7;
constexpr std::array<uint8_t, kPortAreaRequestSize> portAreaRequest(const uint8_t (&identity)[3], uint16_t offset,
                                                                    uint8_t length)
{
    std::array<uint8_t, kPortAreaRequestSize> r{};
    wire::Writer(r)
        .bytes(request(sub::kPortFunctionArea, identity[0], identity[1], identity[2]))
        .u16(offset)
        .u8(length);
    return r;
}

// ---- Answers --------------------------------------------------------------------------------

// One value: memory module status and configuration, processor status.
inline constexpr U8 kValue{kPayload};

// Memory policy.
inline constexpr U8 kPolicy{kPayload};
inline constexpr U8 kMaxModuleIndex{kPayload + 1}; // the highest module index the controller knows

// Languages: a count, then that many LCIDs.
inline constexpr U8 kLanguageCount{kPayload};
inline constexpr std::size_t kFirstLanguage = kPayload + 1;
constexpr U16 language(std::size_t i) { return U16{kFirstLanguage + 2 * i}; }

// SPD chunk: the image bytes from kPayload to the end of the answer.

// PCI slot entry. The two identifiers are the vendor and device ID of what the slot holds;
// kNoDevice in either marks an empty slot. The end of the table answers 0xC9.
inline constexpr U16 kPciEntryTag{kPayload}; // the controller's own (not interpreted)
inline constexpr U8 kPciSlot{kPayload + 2};
inline constexpr U16 kPciFirstId{kPayload + 3};
inline constexpr U16 kPciSecondId{kPayload + 5};
inline constexpr std::size_t kPciEntrySize = kPayload + 7;
inline constexpr uint16_t kNoDevice = 0xFFFF;

// Processor record (multi-byte values little-endian; units the controller's).
namespace cpu {
inline constexpr U32 kSignature{4};     // the processor signature (CPUID leaf 1 EAX)
inline constexpr U16 kSignatureLow{4};  // bits 3:0 the stepping
inline constexpr U16 kCurrentSpeed{8};  // MHz
inline constexpr U16 kMaxSpeed{10};     // MHz
inline constexpr U16 kExternalClock{12}; // MHz
inline constexpr U16 kL1Cache{23};      // KB
inline constexpr U16 kL2Cache{25};
inline constexpr U16 kL3Cache{27};
inline constexpr U8 kCores{29};
inline constexpr U8 kEnabledCores{30};
inline constexpr U8 kThreadsPerCore{31};
inline constexpr U8 kEnabledThreadsPerCore{32};
inline constexpr U16 kFamily{33};      // the SMBIOS processor family
inline constexpr U8 kManufacturer{35}; // kIntel, kAmd, anything else unknown
inline constexpr std::size_t kRecordSize = 36;
inline constexpr uint8_t kIntel = 1, kAmd = 2;
// The model name answer: the name's characters from kPayload to the end, without a NUL.
} // namespace cpu

// Memory module size and speed.
namespace module {
inline constexpr U16 kFrequency{kPayload};
inline constexpr U16 kCapacity{kPayload + 2}; // MB; with kInGigabytes set, bits 14:0 count GB
inline constexpr std::size_t kInfoSize = kPayload + 4;
inline constexpr uint16_t kInGigabytes = 0x8000;
// Approval answer: the module index, then 1 when the module is approved.
inline constexpr U8 kApprovalModule{kPayload};
inline constexpr U8 kApproved{kPayload + 1};
inline constexpr std::size_t kApprovalSize = kPayload + 2;
inline constexpr uint8_t kIsApproved = 1;
} // namespace module

// Component signal state and presence. The signal state is in bits 1:0 of kValue; a
// component the controller knows but cannot read answers 0x01, an empty slot 0x02.
namespace component {
inline constexpr unsigned kSignalBits = 2;
inline constexpr uint8_t kCannotRead = 0x01;
inline constexpr uint8_t kEmptySlot = 0x02;
// Presence codes that mean "not there".
inline constexpr uint8_t kAbsent = 1, kAbsentToo = 2;
} // namespace component

// The specific area of a server network port function: the MAC address, then a count byte
// (bits 3:0 IPv4 addresses, bits 7:4 IPv6 addresses) and the addresses, IPv4 first. The
// port-function area answer carries the requested bytes from kPayload on.
namespace port_area {
inline constexpr uint32_t kSize = 345;       // the area's size
inline constexpr std::size_t kBufferSize = 348;
inline constexpr wire::Run kMac{6, 6};
inline constexpr U8 kCounts{44};
inline constexpr std::size_t kAddresses = 45;
inline constexpr std::size_t kIpv4Size = 4, kIpv6Size = 16;
inline constexpr uint8_t kMaxChunk = 64;     // bytes per request
constexpr unsigned ipv4Count(uint8_t counts) { return wire::bits(counts, 0, 4); }
constexpr unsigned ipv6Count(uint8_t counts) { return wire::bits(counts, 4, 4); }
constexpr wire::Run ipv4(unsigned i) { return {kAddresses + kIpv4Size * i, kIpv4Size}; }
constexpr wire::Run ipv6(unsigned ipv4s, unsigned i) { return {kAddresses + kIpv4Size * ipv4s + kIpv6Size * i, kIpv6Size}; }
} // namespace port_area

} // namespace tvx::oem::hw
