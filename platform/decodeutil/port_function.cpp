// pniReadPortFnSpecificArea: the specific area of a server network port function, read from
// the controller that the IPMI library's sessions reach, in pieces (OEM command 0xF1,
// sub-function 0x1C: the three identity bytes, an offset and a length; the answer carries
// the area's bytes). A controller without the request (a stock controller over LAN answers
// 0xC1) has no area to give: the function then reports it unavailable. The caller's buffer
// is written only when the whole area arrived.
#include <cstdlib>
#include <cstring>

#include "decodeUtil.h"
#include "libipmi.h"
#include "tvx/oem_hardware.h"

namespace {

namespace hw = tvx::oem::hw;
namespace area = tvx::oem::hw::port_area;

constexpr int kUnavailable = -1;
constexpr int kTimeout = 60;
constexpr uint8_t kAdministrator = 4;

class LocalSession {
public:
    LocalSession() : block_(static_cast<IpmiSession *>(std::calloc(1, LIBIPMI_SESSION_SIZE)))
    {
        if (!block_) return;
        char empty[1] = {'\0'};
        uint8_t priv = kAdministrator;
        open_ = LIBIPMI_Create_IPMI_Local_Session_Ext(block_, empty, empty, &priv, empty, nullptr, 0, nullptr, 2, 5) == 0;
    }
    ~LocalSession()
    {
        if (open_) (void)LIBIPMI_CloseSession(block_);
        std::free(block_);
    }
    LocalSession(const LocalSession &) = delete;
    LocalSession &operator=(const LocalSession &) = delete;
    IpmiSession *get() const { return open_ ? block_ : nullptr; }

private:
    IpmiSession *block_;
    bool open_ = false;
};

// One piece of the area into `out`: whether exactly it arrived.
bool readPiece(IpmiSession *session, const uint8_t (&identity)[3], uint16_t offset, uint8_t length, uint8_t *out)
{
    auto request = hw::portAreaRequest(identity, offset, length);
    uint8_t answer[tvx::oem::kPayload + area::kMaxChunk];
    uint32_t received = sizeof answer;
    if (LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, tvx::netfn::lun0(tvx::netfn::kOem), hw::kInventory,
                                         request.data(), request.size(), answer, &received, kTimeout) != 0)
        return false;
    tvx::wire::View got(answer, received < sizeof answer ? received : sizeof answer);
    if (got.get(tvx::kCompletionCode) != tvx::cc::kOk || !tvx::oem::echoesIana(got)) return false;
    tvx::wire::View piece = got.from(tvx::oem::kPayload);
    if (piece.size() != length) return false;
    std::memcpy(out, piece.data(), length);
    return true;
}

} // namespace

extern "C" int pniReadPortFnSpecificArea(uint8_t id0, uint8_t id1, uint8_t id2, uint32_t size, uint8_t *buffer)
{
    if (!buffer || size == 0 || size > area::kSize) return kUnavailable;
    LocalSession session;
    if (!session.get()) return kUnavailable;
    const uint8_t identity[3] = {id0, id1, id2};
    uint8_t whole[area::kSize];
    for (uint32_t offset = 0; offset < size; offset += area::kMaxChunk) {
        uint32_t left = size - offset;
        uint8_t length = static_cast<uint8_t>(left < area::kMaxChunk ? left : area::kMaxChunk);
        if (!readPiece(session.get(), identity, static_cast<uint16_t>(offset), length, whole + offset)) return kUnavailable;
    }
    std::memcpy(buffer, whole, size);
    return 0;
}
