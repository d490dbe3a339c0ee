// One sensor's reading and state bits, and a component's status from the controller.
#include <cstdlib>
#include <cstring>

#include "common/bytes.h"
#include "common/oem.h"
#include "tvx_toipmi.h"

namespace {

constexpr uint8_t kGetSensorReading = 0x2D;
constexpr uint8_t kOemVendorCommand = 0xF5;
constexpr uint8_t kComponentStatus = 0x40;
constexpr uint8_t kFlagScanning = 0x40;
constexpr uint8_t kFlagUnavailable = 0x20;

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
    if (!ipmiSendCmd(session, TVX_NETFN_SENSOR, kGetSensorReading, sizeof request, request, &len, response)) return 0;
    if (response[0] != 0) return 0;
    // Never trust a stated length beyond the buffer: the view covers what can have arrived.
    tvx::ByteView rsp(response, len < sizeof response ? len : sizeof response);
    uint8_t flags = rsp.u8(2);
    if (flags & kFlagUnavailable) {
        // Unavailable while scanning: no reading. With scanning disabled the sensor is
        // simply not being read, which the callers count as a reading of 0.
        return (flags & kFlagScanning) ? 0 : 1;
    }
    if (reading) *reading = rsp.u8(1);
    uint16_t state = 0;
    if (len == 4) state = rsp.u8(3);
    else if (len == 5) state = static_cast<uint16_t>(rsp.u8(3) | rsp.u8(4) << 8);
    if (stateBits) *stateBits = static_cast<uint16_t>(state & 0x7FFF);
    return 1;
}

extern "C" TVX_API ComponentStatus *oemGetComponentStatus(IpmiSession *session, const uint8_t *key)
{
    if (!key) return nullptr;
    auto request = tvx::oem::oemRequest(kComponentStatus, key[0], key[1], 0x01);
    uint8_t response[64];
    std::memset(response, 0, sizeof response);
    uint32_t len = sizeof response;
    if (!ipmiSendCmd(session, TVX_NETFN_OEM_GROUP, kOemVendorCommand, request.size(), request.data(), &len, response))
        return nullptr;
    tvx::ByteView rsp(response, len < sizeof response ? len : sizeof response);
    if (!tvx::oem::echoesIana(tvx::ByteView(response, sizeof response))) return nullptr;
    if (len <= 10) return nullptr;
    ComponentStatus *status = static_cast<ComponentStatus *>(std::calloc(1, sizeof(ComponentStatus)));
    if (!status) return nullptr;
    status->componentId[0] = rsp.u8(4);
    status->componentId[1] = rsp.u8(5);
    status->componentBytes[0] = rsp.u8(6);
    status->componentBytes[1] = rsp.u8(7);
    status->componentBytes[2] = rsp.u8(8);
    switch (response[0]) {
    case 0x00: status->status = static_cast<int8_t>(rsp.u8(9) & 0x03); break;
    case 0x01: status->status = -3; break;
    case 0x02: status->status = -2; break;
    default: status->status = -1; break;
    }
    status->componentByte = rsp.u8(10);
    if (rsp.has(11)) {
        status->nameLength = rsp.u8(11) & 0x1F;
        // The name: as many characters as its length says (at most 16) from byte 12, and only
        // those that arrived; the rest stays zero. A length beyond 16 leaves it empty.
        if (rsp.has(12) && status->nameLength <= 16) {
            tvx::ByteView name = rsp.from(12);
            size_t n = name.size() < status->nameLength ? name.size() : status->nameLength;
            std::memcpy(status->name, name.data(), n);
        }
    }
    return status;
}
