// IPMI's numbers, named once for every layer: network functions, the commands this project
// sends or answers, completion codes (one name each, with the text administrators read), and
// the vendor's OEM/Group request frame.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "tvx/wire.h"

namespace tvx {

namespace netfn {
inline constexpr uint8_t kChassis = 0x00;
inline constexpr uint8_t kBridge = 0x02;
inline constexpr uint8_t kSensorEvent = 0x04;
inline constexpr uint8_t kApp = 0x06;
inline constexpr uint8_t kFirmware = 0x08;
inline constexpr uint8_t kStorage = 0x0A;
inline constexpr uint8_t kTransport = 0x0C;
inline constexpr uint8_t kGroup = 0x2C;
inline constexpr uint8_t kOem = 0x2E;
// The NetFn/LUN byte of a request to LUN 0.
constexpr uint8_t lun0(uint8_t netFn) { return static_cast<uint8_t>(netFn << 2); }
} // namespace netfn

namespace cmd {
namespace chassis {
inline constexpr uint8_t kGetCapabilities = 0x00;
inline constexpr uint8_t kGetStatus = 0x01;
inline constexpr uint8_t kControl = 0x02;
inline constexpr uint8_t kIdentify = 0x04;
inline constexpr uint8_t kSetPowerRestorePolicy = 0x06;
inline constexpr uint8_t kGetSystemRestartCause = 0x07;
inline constexpr uint8_t kSetSystemBootOptions = 0x08;
inline constexpr uint8_t kGetSystemBootOptions = 0x09;
} // namespace chassis
namespace sensor {
inline constexpr uint8_t kPlatformEvent = 0x02;
inline constexpr uint8_t kGetPefCapabilities = 0x10;
inline constexpr uint8_t kAlertImmediate = 0x16;
inline constexpr uint8_t kGetDeviceSdrInfo = 0x20;
inline constexpr uint8_t kGetDeviceSdr = 0x21;
inline constexpr uint8_t kReserveDeviceSdrRepository = 0x22;
inline constexpr uint8_t kGetSensorReadingFactors = 0x23;
inline constexpr uint8_t kGetSensorHysteresis = 0x25;
inline constexpr uint8_t kGetSensorThresholds = 0x27;
inline constexpr uint8_t kGetSensorEventEnable = 0x29;
inline constexpr uint8_t kGetSensorReading = 0x2D;
inline constexpr uint8_t kGetSensorType = 0x2F;
} // namespace sensor
namespace app {
inline constexpr uint8_t kGetDeviceId = 0x01;
inline constexpr uint8_t kColdReset = 0x02;
inline constexpr uint8_t kWarmReset = 0x03;
inline constexpr uint8_t kGetSelfTestResults = 0x04;
inline constexpr uint8_t kSetAcpiPowerState = 0x06;
inline constexpr uint8_t kGetAcpiPowerState = 0x07;
inline constexpr uint8_t kGetDeviceGuid = 0x08;
inline constexpr uint8_t kGetSystemGuid = 0x37;
inline constexpr uint8_t kGetChannelAuthCapabilities = 0x38;
inline constexpr uint8_t kGetMessageFlags = 0x31;
inline constexpr uint8_t kGetMessage = 0x33;
inline constexpr uint8_t kSendMessage = 0x34;
inline constexpr uint8_t kGetChannelAccess = 0x41;
inline constexpr uint8_t kGetChannelInfo = 0x42;
} // namespace app
namespace storage {
inline constexpr uint8_t kGetFruInventoryAreaInfo = 0x10;
inline constexpr uint8_t kReadFruData = 0x11;
inline constexpr uint8_t kWriteFruData = 0x12;
inline constexpr uint8_t kGetSdrRepositoryInfo = 0x20;
inline constexpr uint8_t kGetSdrRepositoryAllocInfo = 0x21;
inline constexpr uint8_t kReserveSdrRepository = 0x22;
inline constexpr uint8_t kGetSdr = 0x23;
inline constexpr uint8_t kGetSelInfo = 0x40;
inline constexpr uint8_t kGetSelAllocInfo = 0x41;
inline constexpr uint8_t kReserveSel = 0x42;
inline constexpr uint8_t kGetSelEntry = 0x43;
inline constexpr uint8_t kAddSelEntry = 0x44;
inline constexpr uint8_t kDeleteSelEntry = 0x46;
inline constexpr uint8_t kClearSel = 0x47;
inline constexpr uint8_t kGetSelTime = 0x48;
inline constexpr uint8_t kSetSelTime = 0x49;
inline constexpr uint8_t kGetSelTimeUtcOffset = 0x5C;
inline constexpr uint8_t kSetSelTimeUtcOffset = 0x5D;
} // namespace storage
namespace transport {
inline constexpr uint8_t kSetLanConfig = 0x01;
inline constexpr uint8_t kGetLanConfig = 0x02;
} // namespace transport
} // namespace cmd

// Answers are counted from the completion code (byte 0), as every layer holds them.
inline constexpr wire::U8 kCompletionCode{0};
inline constexpr std::size_t kAnswerData = 1; // the first data byte

// Get Device ID: the answer's additional-device-support byte (controllers send 11 data bytes,
// or 15 with the auxiliary firmware revision).
namespace device_id {
inline constexpr wire::U8 kAdditionalSupport{6};
inline constexpr uint8_t kFruInventoryDevice = 0x08;
inline constexpr uint8_t kChassisDevice = 0x80;
} // namespace device_id

// Chassis Control: the action byte.
namespace chassis_control {
inline constexpr uint8_t kPowerDown = 0x00;
inline constexpr uint8_t kPowerUp = 0x01;
inline constexpr uint8_t kPowerCycle = 0x02;
inline constexpr uint8_t kHardReset = 0x03;
inline constexpr uint8_t kDiagnosticInterrupt = 0x04;
inline constexpr uint8_t kSoftShutdown = 0x05;
} // namespace chassis_control

// Get Sensor Reading: the reading, its flags, and the state bits (threshold comparisons in
// bits 5:0 of the first state byte; discrete states 0-14 in both).
namespace sensor_reading {
inline constexpr wire::U8 kReading{1};
inline constexpr wire::U8 kFlags{2};
inline constexpr wire::U8 kState0{3};
inline constexpr wire::U8 kState1{4};
inline constexpr wire::U16 kStates{3}; // both state bytes, when both arrived
inline constexpr uint8_t kEventsEnabled = 0x80;
inline constexpr uint8_t kScanningEnabled = 0x40;
inline constexpr uint8_t kUnavailable = 0x20;
} // namespace sensor_reading

// Clear SEL: the guard bytes before the action, and the erase progress answered.
namespace clear_sel {
inline constexpr uint8_t kGuard[3] = {'C', 'L', 'R'};
inline constexpr uint8_t kGetStatus = 0x00;
inline constexpr uint8_t kInitiate = 0xAA;
inline constexpr uint8_t kEraseCompleted = 0x01;
} // namespace clear_sel

// LAN configuration parameters (selectors), and the values of "set in progress".
namespace lan {
inline constexpr uint8_t kSetInProgress = 0;
inline constexpr uint8_t kAuthTypeSupport = 1;
inline constexpr uint8_t kIpAddress = 3;
inline constexpr uint8_t kAddressSource = 4;
inline constexpr uint8_t kMacAddress = 5;
inline constexpr uint8_t kSubnetMask = 6;
inline constexpr uint8_t kDefaultGateway = 12;
inline constexpr uint8_t kDefaultGatewayMac = 13;
inline constexpr uint8_t kSetComplete = 0x00;
inline constexpr uint8_t kInProgress = 0x01;
inline constexpr uint8_t kCommitWrite = 0x02;
inline constexpr uint8_t kCurrentChannel = 0x0E; // the channel the request arrives on
inline constexpr uint8_t kMedium8023 = 0x04;     // Get Channel Info: channel medium type
inline constexpr uint8_t kDestinationCount = 17;  // read-only: bits 3:0 the destinations
inline constexpr uint8_t kDestinationType = 18;   // set selector, type, ack time-out, retries
inline constexpr uint8_t kDestinationAddress = 19; // set selector, format, gateway, IPv4, MAC
} // namespace lan

// Get Channel Info: the answer.
namespace channel_info {
inline constexpr wire::U8 kChannel{1};
inline constexpr wire::U8 kMedium{2}; // bits 6:0 the medium type
inline constexpr wire::U8 kProtocol{3};
} // namespace channel_info

// Alert Immediate: the request. Byte 0: operation (bits 7:6, 0 = initiate) and channel;
// byte 1: destination selector (bits 3:0), bit 7 = send the alert string; byte 2: the alert
// string selector; then, optionally, the platform event the alert carries: generator ID,
// event message revision, sensor type, sensor number, event direction and type, event data
// 1-3. The controller refuses those event parameters with kEventRefused.
namespace alert_immediate {
inline constexpr wire::U8 kChannel{0};
inline constexpr wire::U8 kDestination{1};
inline constexpr wire::U8 kStringSelector{2};
inline constexpr wire::U8 kGeneratorId{3};
inline constexpr wire::U8 kEventRevision{4};
inline constexpr wire::U8 kSensorType{5};
inline constexpr wire::U8 kSensorNumber{6};
inline constexpr wire::U8 kEventType{7};
inline constexpr wire::Run kEventData{8, 3};
inline constexpr std::size_t kSizeWithEvent = 11;
inline constexpr std::size_t kSizeWithoutEvent = 3;
inline constexpr uint8_t kSendString = 0x80;
inline constexpr uint8_t kEventRefused = 0x83;
inline constexpr uint8_t kAlertFailed = 0x81;
} // namespace alert_immediate

// Bridging to another controller on an IPMB channel. A system interface sends the IPMB
// request inside Send Message, addressed back to the BMC's receive-message-queue LUN, and
// fetches the responder's answer from that queue with Get Message; a LAN session carries the
// answer back by itself (libfreeipmi does that side).
namespace ipmb {
inline constexpr uint8_t kBmcAddress = 0x20; // the BMC's slave address on the primary IPMB
inline constexpr uint8_t kPrimaryChannel = 0x00;
inline constexpr uint8_t kSmsLun = 0x02; // the BMC's LUN for messages to system software

// One IPMB message. Request: responder address, NetFn/LUN, checksum, requester address,
// sequence/LUN, command, data, checksum. A response has the same header with the roles
// exchanged (requester first) and the completion code as its first data byte.
inline constexpr wire::U8 kDestination{0};
inline constexpr wire::U8 kNetFnLun{1};
inline constexpr wire::U8 kHeaderChecksum{2};
inline constexpr wire::U8 kSource{3};
inline constexpr wire::U8 kSeqLun{4}; // bits 7:2 sequence number, bits 1:0 the sender's LUN
inline constexpr wire::U8 kCommand{5};
inline constexpr std::size_t kData = 6;      // request data; in a response, the completion code
inline constexpr std::size_t kOverhead = 7;  // header and trailing checksum
inline constexpr std::size_t kMaxMessage = 32; // IPMB messages are at most 32 bytes

// The zero-sum checksum of bytes: the byte that makes their sum 0 modulo 256.
constexpr uint8_t checksum(std::span<const uint8_t> bytes)
{
    unsigned sum = 0;
    for (uint8_t b : bytes) sum += b;
    return static_cast<uint8_t>(0x100 - (sum & 0xFF));
}
// Whether both checksums of a message hold.
constexpr bool intact(wire::View m)
{
    if (m.size() < kOverhead) return false;
    unsigned head = 0, all = 0;
    for (std::size_t i = 0; i < m.size(); ++i) {
        if (i <= kHeaderChecksum.at) head += m.data()[i];
        else all += m.data()[i];
    }
    return (head & 0xFF) == 0 && (all & 0xFF) == 0;
}
// Writes one message: the header, the body (a request's data, or a response's completion
// code and data) and both checksums.
constexpr void frame(wire::Writer &w, uint8_t destination, uint8_t netFn, uint8_t destinationLun, uint8_t source,
                     uint8_t sequence, uint8_t sourceLun, uint8_t command, std::span<const uint8_t> body)
{
    const std::size_t start = w.size();
    w.u8(destination).u8(static_cast<uint8_t>(netFn << 2 | (destinationLun & 3)));
    w.u8(checksum(w.written().subspan(start)));
    const std::size_t second = w.size();
    w.u8(source).u8(static_cast<uint8_t>(sequence << 2 | (sourceLun & 3))).u8(command).bytes(body);
    if (w.ok()) w.u8(checksum(w.written().subspan(second)));
}
} // namespace ipmb

// Send Message: the channel byte (bits 3:0 the channel, bits 7:6 tracking), then the message.
namespace send_message {
inline constexpr wire::U8 kChannel{0};
inline constexpr std::size_t kMessage = 1;
inline constexpr uint8_t kNoTracking = 0x00;
inline constexpr uint8_t kNakOnWrite = 0x83; // no device acknowledged the message
} // namespace send_message

// Get Message: the answer's channel byte (bits 3:0), then the message as it arrived.
namespace get_message {
inline constexpr wire::U8 kChannel{1};
inline constexpr std::size_t kMessage = 2;
inline constexpr uint8_t kQueueEmpty = 0x80; // completion code: no message in the queue
} // namespace get_message

// Completion codes: one name per code.
namespace cc {
inline constexpr uint8_t kOk = 0x00;
inline constexpr uint8_t kNodeBusy = 0xC0;
inline constexpr uint8_t kInvalidCommand = 0xC1;
inline constexpr uint8_t kInvalidForLun = 0xC2;
inline constexpr uint8_t kTimeout = 0xC3;
inline constexpr uint8_t kOutOfSpace = 0xC4;
inline constexpr uint8_t kReservationCancelled = 0xC5;
inline constexpr uint8_t kRequestDataTruncated = 0xC6;
inline constexpr uint8_t kRequestLengthInvalid = 0xC7;
inline constexpr uint8_t kRequestLengthExceeded = 0xC8;
inline constexpr uint8_t kParameterOutOfRange = 0xC9;
inline constexpr uint8_t kCannotReturnBytes = 0xCA;
inline constexpr uint8_t kNotPresent = 0xCB;
inline constexpr uint8_t kInvalidDataField = 0xCC;
inline constexpr uint8_t kIllegalForType = 0xCD;
inline constexpr uint8_t kCannotRespond = 0xCE;
inline constexpr uint8_t kDuplicateRequest = 0xCF;
inline constexpr uint8_t kSdrUpdateMode = 0xD0;
inline constexpr uint8_t kFirmwareUpdateMode = 0xD1;
inline constexpr uint8_t kInitInProgress = 0xD2;
inline constexpr uint8_t kDestinationUnavailable = 0xD3;
inline constexpr uint8_t kInsufficientPrivilege = 0xD4;
inline constexpr uint8_t kNotSupportedInState = 0xD5;
inline constexpr uint8_t kSubFunctionDisabled = 0xD6;
inline constexpr uint8_t kUnspecified = 0xFF;

// Command-specific codes (0x80-0xBE) of the LAN configuration commands.
namespace lan {
inline constexpr uint8_t kParameterNotSupported = 0x80;
inline constexpr uint8_t kSetInProgressElsewhere = 0x81; // another client holds the transaction
inline constexpr uint8_t kReadOnlyParameter = 0x82;
} // namespace lan

// The text administrators know a completion code by (as IPMI names it).
constexpr const char *text(uint8_t code)
{
    switch (code) {
    case kOk: return "Command completed normally";
    case kNodeBusy: return "Node busy";
    case kInvalidCommand: return "Invalid command";
    case kInvalidForLun: return "Invalid command on LUN";
    case kTimeout: return "Timeout while processing command";
    case kOutOfSpace: return "Out of space";
    case kReservationCancelled: return "Reservation cancelled or invalid";
    case kRequestDataTruncated: return "Request data truncated";
    case kRequestLengthInvalid: return "Request data length invalid";
    case kRequestLengthExceeded: return "Request data field length limit exceeded";
    case kParameterOutOfRange: return "Parameter out of range";
    case kCannotReturnBytes: return "Cannot return number of requested data bytes";
    case kNotPresent: return "Requested sensor, data, or record not present";
    case kInvalidDataField: return "Invalid data field in request";
    case kIllegalForType: return "Command illegal for specified sensor or record type";
    case kCannotRespond: return "Command response could not be provided";
    case kDuplicateRequest: return "Cannot execute duplicated request";
    case kSdrUpdateMode: return "SDR repository in update mode";
    case kFirmwareUpdateMode: return "Device firmware in update mode";
    case kInitInProgress: return "BMC initialization in progress";
    case kDestinationUnavailable: return "Destination unavailable";
    case kInsufficientPrivilege: return "Insufficient privilege level";
    case kNotSupportedInState: return "Command not supported in present state";
    case kSubFunctionDisabled: return "Command sub-function disabled or unavailable";
    case kUnspecified: return "Unspecified error";
    default: return code >= 0x01 && code <= 0x7E ? "Device-specific (OEM) completion code" : "Unknown completion code";
    }
}
} // namespace cc

// The OEM/Group frame: NetFn 0x2E; request bytes 0-2 the vendor's IANA enterprise number,
// least significant byte first, then the command's own bytes; the answer repeats the number
// after the completion code and carries its payload from kPayload on.
namespace oem {
inline constexpr uint32_t kVendorIana = 32473;
inline constexpr wire::U24 kIanaEcho{1};
inline constexpr std::size_t kPayload = 4; // first payload byte of an answer
inline constexpr std::size_t kIanaSize = 3;

// A request: the IANA number followed by the given bytes, e.g. request(0x40, key0, key1).
template <typename... Bytes> constexpr std::array<uint8_t, kIanaSize + sizeof...(Bytes)> request(Bytes... bytes)
{
    std::array<uint8_t, kIanaSize + sizeof...(Bytes)> out{};
    wire::Writer w(out);
    w.u24(kVendorIana);
    (w.u8(static_cast<uint8_t>(bytes)), ...);
    return out;
}

// Whether an answer repeats the vendor's IANA number after its completion code.
constexpr bool echoesIana(wire::View answer) { return answer.get(kIanaEcho) == kVendorIana; }

// The vendor's commands (NetFn 0x2E).
namespace cmd {
inline constexpr uint8_t kPowerSource = 0x01;     // selector, 00 00 00 01, source
inline constexpr uint8_t kGracefulControl = 0x02; // code: 0x00 shutdown, 0x01 reboot
inline constexpr uint8_t kConfigSpace = 0xE0;     // config_space::kRead / kWrite, index, ID
inline constexpr uint8_t kVendor = 0xF5;          // a sub-function byte first (vendor::)
} // namespace cmd

namespace power_source {
inline constexpr uint8_t kPowerOn = 0x1B;
inline constexpr uint8_t kPowerOff = 0x17;
} // namespace power_source

namespace config_space {
inline constexpr uint8_t kRead = 0x01;  // INDEX ID_LO ID_HI -> LENGTH VALUE...
inline constexpr uint8_t kWrite = 0x02; // INDEX ID_LO ID_HI LENGTH VALUE...
inline constexpr wire::U8 kValueLength{4};
inline constexpr std::size_t kValue = 5;
} // namespace config_space

// Sub-functions of kVendor.
namespace vendor {
inline constexpr uint8_t kConsoleLog = 0x09; // followed by kConsoleClear
inline constexpr uint8_t kConsoleClear = 0x07;
inline constexpr uint8_t kComponentStatus = 0x40;
inline constexpr uint8_t kGetEntryText = 0x45;
inline constexpr uint8_t kGetFollowUp = 0x71;
inline constexpr uint8_t kGetErrorCode = 0x72;
inline constexpr uint8_t kGetTextChunk = 0x73;
inline constexpr uint8_t kGetEntryAsText = 0x89;
inline constexpr uint8_t kSetIdentifyLed = 0xB0;
inline constexpr uint8_t kGetIdentifyLed = 0xB1;
inline constexpr uint8_t kGetErrorLed = 0xB3;
inline constexpr uint8_t kResetConfigSpace = 0xE0; // followed by the guard 'C' 'L' 'R' 0xAA
inline constexpr uint8_t kResetGuard[4] = {'C', 'L', 'R', 0xAA};
} // namespace vendor
} // namespace oem

} // namespace tvx
