// One sensor's reading and state bits, and a component's status from the controller.
#include <cstdlib>
#include <cstring>

#include "common/raw.h"
#include "tvx/ipmi.h"
#include "tvx_toipmi.h"

namespace wire = tvx::wire;
namespace reading = tvx::sensor_reading;

namespace {

// The component status answer after the IANA number: component ID (2 bytes), 3 component
// bytes, the status (bits 1:0), a component byte, the name's length (bits 4:0), the name.
constexpr std::size_t kComponentFixedEnd = 11; // bytes up to the name's length
constexpr std::size_t kMaxName = 16;

} // namespace

extern "C" TVX_API int ipmiGetSensorReading(IpmiSession *session, uint8_t sensorNumber, uint8_t *reading,
                                            uint16_t *stateBits)
{
    if (!session) return 0;
    if (reading) *reading = 0;
    if (stateBits) *stateBits = 0;
    uint8_t request[1] = {sensorNumber};
    uint8_t response[5] = {0, 0, 0, 0, 0};
    uint32_t len = sizeof response;
    if (!ipmiSendCmd(session, TVX_NETFN_SENSOR, tvx::cmd::sensor::kGetSensorReading, sizeof request, request, &len,
                     response))
        return 0;
    if (tvx::completionCode(response) != tvx::cc::kOk) return 0;
    wire::View rsp = tvx::received(response, len);
    uint8_t flags = rsp.get(reading::kFlags, uint8_t{0});
    if (flags & reading::kUnavailable) {
        // Unavailable while scanning: no reading. With scanning disabled the sensor is
        // simply not being read, which the callers count as a reading of 0.
        return (flags & reading::kScanningEnabled) ? 0 : 1;
    }
    if (reading) *reading = rsp.get(reading::kReading, uint8_t{0});
    // A threshold sensor answers one state byte, a discrete sensor two.
    uint16_t state = 0;
    if (len == reading::kState0.end()) state = rsp.get(reading::kState0, uint8_t{0});
    else if (len == reading::kStates.end()) state = rsp.get(reading::kStates, uint16_t{0});
    if (stateBits) *stateBits = static_cast<uint16_t>(state & 0x7FFF);
    return 1;
}

extern "C" TVX_API ComponentStatus *oemGetComponentStatus(IpmiSession *session, const uint8_t *key)
{
    if (!key) return nullptr;
    // The caller's two key bytes, then the selector 0x01.
    auto request = tvx::oem::request(tvx::oem::vendor::kComponentStatus, key[0], key[1], 0x01);
    uint8_t response[64];
    std::memset(response, 0, sizeof response);
    uint32_t len = sizeof response;
    if (!ipmiSendCmd(session, TVX_NETFN_OEM_GROUP, tvx::oem::cmd::kVendor, request.size(), request.data(), &len,
                     response))
        return nullptr;
    if (!tvx::oem::echoesIana(wire::View(response, sizeof response))) return nullptr;
    if (len < kComponentFixedEnd) return nullptr;
    ComponentStatus *status = static_cast<ComponentStatus *>(std::calloc(1, sizeof(ComponentStatus)));
    if (!status) return nullptr;
    wire::Reader in(tvx::received(response, len));
    in.seek(tvx::oem::kPayload);
    std::memcpy(status->componentId, in.bytes(sizeof status->componentId).data(), sizeof status->componentId);
    std::memcpy(status->componentBytes, in.bytes(sizeof status->componentBytes).data(),
                sizeof status->componentBytes);
    const uint8_t state = in.u8();
    switch (tvx::completionCode(response)) {
    case 0x00: status->status = static_cast<int8_t>(wire::bits(state, 0, 2)); break;
    case 0x01: status->status = -3; break;
    case 0x02: status->status = -2; break;
    default: status->status = -1; break;
    }
    status->componentByte = in.u8();
    if (in.remaining() > 0) {
        status->nameLength = static_cast<uint8_t>(wire::bits(in.u8(), 0, 5));
        // The name: as many characters as its length says (at most 16), and only those that
        // arrived; the rest stays zero. A length beyond 16 leaves it empty.
        if (status->nameLength <= kMaxName) {
            wire::View name = in.upTo(status->nameLength);
            if (!name.empty()) std::memcpy(status->name, name.data(), name.size());
        }
    }
    return status;
}
