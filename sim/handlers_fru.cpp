// FRU inventory commands (Storage, NetFn 0x0A) over the profile's FRU devices.
//
// Get FRU Inventory Area Info: 0xC7 unless the request is the one device ID byte, 0xCB for
// a device the profile does not describe; else the size in bytes and the access type (bit 0:
// by words).
//
// Read FRU Data, checked in this order:
//   0xC7  the request is not 4 bytes long (device ID, offset LSB first, count)
//   0xCB  no such device
//   0xCC  a count of 0
//   0xC9  the offset lies at or beyond the end of the inventory area
//   0xCA  the count is more than one answer carries (/controller/max_response_length less
//         the completion code and the count byte)
// A read running past the end answers the bytes up to the end. Devices accessed by words
// take the offset and count in words and answer the count in words.
#include <algorithm>

#include "controller.h"
#include "fru.h"

namespace tvxsim {

void answerFruAreaInfo(const FruModel &m, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t device = in.u8();
    if (!rsp.complete(in)) return;
    const FruDevice *d = m.find(device);
    if (!d) return rsp.fail(cc::kNotPresent);
    rsp.u16(static_cast<uint16_t>(d->image.size()));
    rsp.u8(d->wordAccess ? 0x01 : 0x00);
}

void answerReadFru(const FruModel &m, std::size_t limit, const Request &req, Response &rsp)
{
    wire::Reader in = req.reader();
    const uint8_t device = in.u8();
    const uint16_t offsetUnits = in.u16();
    const uint8_t countUnits = in.u8();
    if (!rsp.complete(in)) return;
    const FruDevice *d = m.find(device);
    if (!d) return rsp.fail(cc::kNotPresent);
    const std::size_t unit = d->wordAccess ? 2 : 1;
    const std::size_t offset = static_cast<std::size_t>(offsetUnits) * unit;
    const std::size_t count = static_cast<std::size_t>(countUnits) * unit;
    if (count == 0) return rsp.fail(cc::kInvalidDataField);
    if (offset >= d->image.size()) return rsp.fail(cc::kParameterOutOfRange);
    // Completion code and count come before the data; without a limit of the profile's the
    // answer still fits an IPMI message (255 bytes with its completion code).
    constexpr std::size_t kMessageLimit = 255;
    if (count + 2 > (limit != 0 ? limit : kMessageLimit)) return rsp.fail(cc::kCannotReturnBytes);
    const std::size_t n = std::min(count, d->image.size() - offset);
    rsp.u8(static_cast<uint8_t>(n / unit));
    rsp.append(std::span<const uint8_t>(d->image).subspan(offset, n / unit * unit));
}

namespace {

namespace storage = tvx::cmd::storage;

void install(Controller &c)
{
    std::shared_ptr<const FruModel> m = fruModel(c);
    c.on(tvx::netfn::kStorage, storage::kGetFruInventoryAreaInfo,
         [m](Context &, const Request &req, Response &rsp) { answerFruAreaInfo(*m, req, rsp); });
    c.on(tvx::netfn::kStorage, storage::kReadFruData, [m](Context &ctx, const Request &req, Response &rsp) {
        answerReadFru(*m, ctx.profile.maxResponseLength, req, rsp);
    });
}

} // namespace

const Subsystem kFruSubsystem = {"fru", install, nullptr};

} // namespace tvxsim
