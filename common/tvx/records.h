// The standard IPMI records, field by field, defined once for every layer: sensor data
// records (full, compact, FRU and management-controller device locators), the 16-byte SEL
// record, and the FRU storage format's common header and areas. Positions are counted from
// the record's first byte (the SDR header's record ID; the SEL record's ID; the FRU common
// header's format version), as IPMI 2.0 and the FRU storage definition lay them out.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tvx/wire.h"

namespace tvx::sdr {

using wire::Run;
using wire::U16;
using wire::U8;

// Header, common to every record type.
inline constexpr U16 kRecordId{0};
inline constexpr U8 kVersion{2};
inline constexpr U8 kRecordType{3};
inline constexpr U8 kLength{4}; // bytes that follow the header
inline constexpr std::size_t kHeaderSize = 5;
inline constexpr std::size_t kMaxRecordSize = kHeaderSize + 0xFF;

// Record types.
inline constexpr uint8_t kFullSensor = 0x01;
inline constexpr uint8_t kCompactSensor = 0x02;
inline constexpr uint8_t kEventOnly = 0x03;
inline constexpr uint8_t kEntityAssociation = 0x08;
inline constexpr uint8_t kGenericDeviceLocator = 0x10;
inline constexpr uint8_t kFruDeviceLocator = 0x11;
inline constexpr uint8_t kMcDeviceLocator = 0x12;
inline constexpr uint8_t kMcConfirmation = 0x13;
inline constexpr uint8_t kOemRecord = 0xC0;

constexpr bool isSensorRecord(uint8_t type) { return type == kFullSensor || type == kCompactSensor; }

// Sensor key and body fields common to full and compact sensor records.
inline constexpr U8 kOwnerId{5};   // bit 0: 0 IPMB slave address, 1 system software ID; bits 7:1 the address
inline constexpr U8 kOwnerLun{6};  // bits 7:4 channel, bits 1:0 LUN
inline constexpr U8 kSensorNumber{7};
inline constexpr U8 kEntityId{8};
inline constexpr U8 kEntityInstance{9}; // bit 7: logical (device-relative) instance; bits 6:0 instance
inline constexpr U8 kInitialization{10};
inline constexpr U8 kCapabilities{11};
inline constexpr U8 kSensorType{12};
inline constexpr U8 kEventReadingType{13};
inline constexpr U16 kAssertionMask{14};   // threshold sensors: also the lower threshold reading mask
inline constexpr U16 kDeassertionMask{16}; // threshold sensors: also the upper threshold reading mask
inline constexpr U16 kReadingMask{18};     // threshold sensors: settable (15:8) and readable (5:0) thresholds
inline constexpr U8 kUnits1{20};           // bits 7:6 analog format, 5:3 rate unit, 2:1 modifier use, 0 percentage
inline constexpr U8 kBaseUnit{21};
inline constexpr U8 kModifierUnit{22};

// Full sensor record (type 0x01).
namespace full {
inline constexpr U8 kLinearization{23}; // bits 6:0
inline constexpr U8 kM{24};             // M: 8 low bits; 2 high bits in bits 7:6 of kMTolerance
inline constexpr U8 kMTolerance{25};
inline constexpr U8 kB{26}; // B: 8 low bits; 2 high bits in bits 7:6 of kBAccuracy
inline constexpr U8 kBAccuracy{27};
inline constexpr U8 kAccuracyDirection{28};
inline constexpr U8 kExponents{29}; // bits 7:4 R (result) exponent, bits 3:0 B exponent, both signed
inline constexpr U8 kAnalogFlags{30}; // bit 0 nominal, bit 1 normal max, bit 2 normal min specified
inline constexpr U8 kNominalReading{31};
inline constexpr U8 kNormalMaximum{32};
inline constexpr U8 kNormalMinimum{33};
inline constexpr U8 kSensorMaximum{34};
inline constexpr U8 kSensorMinimum{35};
inline constexpr U8 kUpperNonRecoverable{36};
inline constexpr U8 kUpperCritical{37};
inline constexpr U8 kUpperNonCritical{38};
inline constexpr U8 kLowerNonRecoverable{39};
inline constexpr U8 kLowerCritical{40};
inline constexpr U8 kLowerNonCritical{41};
inline constexpr U8 kPositiveHysteresis{42};
inline constexpr U8 kNegativeHysteresis{43};
inline constexpr U8 kOem{46};
inline constexpr U8 kIdStringType{47};
inline constexpr Run kIdString{48, 16};
inline constexpr std::size_t kMaxSize = 64;
} // namespace full

// Compact sensor record (type 0x02).
namespace compact {
inline constexpr U8 kRecordSharing1{23};
inline constexpr U8 kRecordSharing2{24};
inline constexpr U8 kPositiveHysteresis{25};
inline constexpr U8 kNegativeHysteresis{26};
inline constexpr U8 kOem{30};
inline constexpr U8 kIdStringType{31};
inline constexpr Run kIdString{32, 16};
inline constexpr std::size_t kMaxSize = 48;
} // namespace compact

// FRU device locator (type 0x11).
namespace fru_locator {
inline constexpr U8 kAccessAddress{5}; // bits 7:1 the controller's slave address
inline constexpr U8 kFruDeviceId{6};   // logical FRU device ID, or the device's slave address
inline constexpr U8 kAccessLunBus{7};  // bit 7 logical device; bits 4:3 LUN; bits 2:0 private bus
inline constexpr U8 kChannel{8};       // bits 7:4
inline constexpr U8 kDeviceType{10};
inline constexpr U8 kDeviceTypeModifier{11};
inline constexpr U8 kEntityId{12};
inline constexpr U8 kEntityInstance{13};
inline constexpr U8 kOem{14};
inline constexpr U8 kIdStringType{15};
inline constexpr Run kIdString{16, 16};
} // namespace fru_locator

// Management controller device locator (type 0x12).
namespace mc_locator {
inline constexpr U8 kSlaveAddress{5}; // bits 7:1
inline constexpr U8 kChannel{6};      // bits 3:0
inline constexpr U8 kPowerStateInit{7};
inline constexpr U8 kCapabilities{8}; // bit 3: FRU inventory device
inline constexpr U8 kEntityId{12};
inline constexpr U8 kEntityInstance{13};
inline constexpr U8 kOem{14};
inline constexpr U8 kIdStringType{15};
inline constexpr Run kIdString{16, 16};
} // namespace mc_locator

// The length in bytes an ID string's type/length byte gives (bits 4:0; bits 7:6 the
// encoding, as in the FRU's type/length fields).
constexpr std::size_t idStringLength(uint8_t typeLength) { return typeLength & 0x1F; }

// Where a record type keeps its ID string's type/length byte (the string follows it), or
// nothing for record types without one.
constexpr const U8 *idStringType(uint8_t recordType)
{
    switch (recordType) {
    case kFullSensor: return &full::kIdStringType;
    case kCompactSensor: return &compact::kIdStringType;
    case kFruDeviceLocator: return &fru_locator::kIdStringType;
    case kMcDeviceLocator: return &mc_locator::kIdStringType;
    default: return nullptr;
    }
}

} // namespace tvx::sdr

namespace tvx::sel {

using wire::Run;
using wire::U16;
using wire::U24;
using wire::U32;
using wire::U8;

inline constexpr std::size_t kRecordSize = 16;
inline constexpr U16 kRecordId{0};
inline constexpr U8 kRecordType{2};
inline constexpr U32 kTimestamp{3}; // system event and timestamped OEM records

// System event record (type 0x02).
inline constexpr uint8_t kSystemEvent = 0x02;
inline constexpr U16 kGeneratorId{7};
inline constexpr U8 kGeneratorAddress{7};    // bit 0: software ID; bits 7:1 the address
inline constexpr U8 kGeneratorChannelLun{8}; // bits 7:4 channel, bits 1:0 LUN
inline constexpr U8 kEvmRevision{9};
inline constexpr U8 kSensorType{10};
inline constexpr U8 kSensorNumber{11};
inline constexpr U8 kEventDirType{12}; // bit 7: deassertion; bits 6:0 event/reading type
inline constexpr U8 kEventData1{13};
inline constexpr U8 kEventData2{14};
inline constexpr U8 kEventData3{15};
inline constexpr Run kEventData{13, 3};

// Timestamped OEM records (0xC0-0xDF).
inline constexpr U24 kManufacturerId{7};
inline constexpr Run kManufacturerIdBytes{7, 3};
inline constexpr Run kOemTimedData{10, 6};
// Non-timestamped OEM records (0xE0-0xFF).
inline constexpr Run kOemData{3, 13};

// Timestamps below this count seconds since the controller's initialisation, not since 1970.
inline constexpr uint32_t kPreInitLimit = 0x20000000;
inline constexpr uint32_t kUnspecifiedTime = 0xFFFFFFFF;

constexpr bool isOemTimed(uint8_t type) { return type >= 0xC0 && type <= 0xDF; }
constexpr bool isOemUntimed(uint8_t type) { return type >= 0xE0; }
constexpr bool hasTimestamp(uint8_t type) { return type == kSystemEvent || isOemTimed(type); }

} // namespace tvx::sel

namespace tvx::fru {

using wire::U24;
using wire::U8;

// Common header (8 bytes); area offsets in multiples of 8 bytes, 0 for "no such area".
inline constexpr std::size_t kHeaderSize = 8;
inline constexpr U8 kFormatVersion{0}; // bits 3:0, 1
inline constexpr U8 kInternalUseOffset{1};
inline constexpr U8 kChassisOffset{2};
inline constexpr U8 kBoardOffset{3};
inline constexpr U8 kProductOffset{4};
inline constexpr U8 kMultiRecordOffset{5};
inline constexpr U8 kHeaderChecksum{7};
inline constexpr std::size_t kOffsetUnit = 8;
inline constexpr uint8_t kVersion1 = 0x01;

// Chassis, board and product areas: version and length (in multiples of 8) first, a zero-sum
// checksum byte last, type/length fields in between ended by kEndOfFields.
namespace area {
inline constexpr U8 kVersion{0};
inline constexpr U8 kLength{1};
inline constexpr uint8_t kEndOfFields = 0xC1;
} // namespace area
namespace chassis {
inline constexpr U8 kType{2};
inline constexpr std::size_t kFirstField = 3; // part number, serial number, custom fields
} // namespace chassis
namespace board {
inline constexpr U8 kLanguage{2};
inline constexpr U24 kMfgMinutes{3}; // minutes since 1996-01-01 00:00 UTC
inline constexpr wire::Run kMfgDateTime{3, 3}; // the same three bytes, as they stand
inline constexpr std::size_t kFirstField = 6; // manufacturer, product name, serial, part number, FRU file ID
} // namespace board
namespace product {
inline constexpr U8 kLanguage{2};
inline constexpr std::size_t kFirstField = 3; // manufacturer, name, part/model, version, serial, asset tag, FRU file ID
} // namespace product

// A type/length byte: bits 7:6 the encoding, bits 5:0 the length in bytes.
enum class Encoding : uint8_t { Binary = 0, BcdPlus = 1, Ascii6 = 2, Text8 = 3 };
constexpr Encoding encodingOf(uint8_t typeLength) { return static_cast<Encoding>(typeLength >> 6); }
constexpr std::size_t lengthOf(uint8_t typeLength) { return typeLength & 0x3F; }

} // namespace tvx::fru
