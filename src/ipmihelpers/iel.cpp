// The controller's internal event log (OEM command 0xF5): its summary, an entry with its
// body read in 50-byte pieces, writing an entry, and clearing one entry or all of them.
#include <cstdlib>
#include <cstring>

#include "common/diag.h"
#include "common/raw.h"
#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/iel.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;
using tvx::wire::View;
namespace iel = tvx::iel;

namespace {

// The answer's payload, after the completion code and the IANA echo.
View payloadOf(const uint8_t (&response)[tvx::kOemResponseSize], uint32_t len)
{
    return View(response, len < sizeof response ? len : sizeof response).from(tvx::oem::kPayload);
}

// One piece of an entry: its header and the body bytes it carries.
struct Piece {
    iELEntry header{};
    uint16_t bodyLength = 0; // T
    View body;
    uint16_t status = 0;
};

// Failed: no answer (status) or an empty one. Refused: the answer does not hold the piece it
// promises (T below the offset, fewer body bytes than the piece needs, or another T than the
// pieces before).
enum class Read { Ok, Failed, Empty, Refused };

// Reads the piece at (entryId, offset) into `response`.
Read readPiece(IpmiSession *session, uint16_t entryId, uint16_t offset, uint8_t (&response)[tvx::kOemResponseSize],
               Piece &piece)
{
    uint8_t request[tvx::oem::kIanaSize + 5];
    tvx::wire::Writer w(request, sizeof request);
    w.bytes(tvx::oem::request(iel::kRead)).u16(entryId).u16(offset);
    uint32_t len = 0;
    piece.status = tvx::sendStated(session, TVX_NETFN_OEM_GROUP, iel::kCommand, request, w.size(), response, &len);
    if (piece.status != 0) return Read::Failed;
    if (len == 0) return Read::Empty;
    View payload = payloadOf(response, len);
    auto length = payload.get(iel::entry::kBodyLength);
    if (!length || *length < offset) return Read::Refused;
    const std::size_t rest = static_cast<std::size_t>(*length - offset);
    const std::size_t want = rest < iel::kPieceSize ? rest : iel::kPieceSize;
    piece.body = payload.upTo(iel::entry::kBody, want);
    if (piece.body.size() != want) return Read::Refused;
    piece.bodyLength = *length;
    piece.header.e0 = payload.get(iel::entry::kEntryId, uint16_t{0});
    piece.header.e2 = payload.get(iel::entry::kSeverity, uint8_t{0});
    piece.header.e3 = payload.get(iel::entry::kNextId, uint16_t{0});
    piece.header.e5 = payload.get(iel::entry::kTimestamp, uint32_t{0});
    return Read::Ok;
}

// What went wrong with a piece, said for the entry read.
void report(Read read, const Piece &piece, int line)
{
    static const char kFunction[] = "ipmiGetiELEntry";
    if (read == Read::Failed)
        tvx::diag::located(Unit::Helpers, line, kFunction, "Failed to send request with error 0x%x",
                           tvx::swappedStatus(piece.status));
    else if (read == Read::Empty) tvx::diag::plain("response returned with length <=0\n");
    else if (read == Read::Refused)
        tvx::diag::located(Unit::Helpers, line, kFunction, "Failed to read iEL entry, wrong response size.");
}

} // namespace

extern "C" {

TVX_API iELSummary ipmiGetiELInfo(IpmiSession *session)
{
    iELSummary summary{};
    if (!session) return summary;
    const auto request = tvx::oem::request(iel::kSummary);
    uint8_t response[tvx::kOemResponseSize];
    uint32_t len = 0;
    uint16_t status =
        tvx::sendStated(session, TVX_NETFN_OEM_GROUP, iel::kCommand, request.data(), request.size(), response, &len);
    if (status != 0 || response[0] != tvx::cc::kOk) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return summary;
    }
    tvx::wire::Reader r(payloadOf(response, len));
    iELSummary s{};
    s.s0 = r.u8();
    s.s1 = r.u8();
    s.s2 = r.u16();
    s.s4 = r.u32();
    s.s8 = r.u8();
    s.s9 = r.u16();
    s.s11 = r.u16();
    s.s13 = r.u16();
    s.s15 = r.u16();
    s.s17 = r.u16();
    s.s19 = r.u16();
    // A summary cut short would pass zeros off as values.
    if (!r.ok()) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to read iEL info, wrong response size.");
        return summary;
    }
    return s;
}

TVX_API iELEntry ipmiGetiELEntry(IpmiSession *session, uint16_t entryId, uint16_t offset)
{
    iELEntry entry{};
    if (!session) return entry;
    uint8_t response[tvx::kOemResponseSize];
    Piece first;
    Read read = readPiece(session, entryId, offset, response, first);
    if (read != Read::Ok) {
        report(read, first, __LINE__);
        return entry;
    }
    entry = first.header;
    const std::size_t total = first.bodyLength - offset;
    auto *body = static_cast<uint8_t *>(std::calloc(total ? total : 1, 1));
    if (!body) return entry;
    if (!first.body.empty()) std::memcpy(body, first.body.data(), first.body.size());
    // The rest, one piece per request; a piece that cannot be read leaves its part (and what
    // follows) zero. Every piece must agree on the body's length.
    for (std::size_t at = first.body.size(); at < total;) {
        Piece next;
        read = readPiece(session, entryId, static_cast<uint16_t>(offset + at), response, next);
        if (read == Read::Ok && next.bodyLength != first.bodyLength) read = Read::Refused;
        if (read != Read::Ok) {
            report(read, next, __LINE__);
            break;
        }
        std::memcpy(body + at, next.body.data(), next.body.size());
        at += next.body.size();
    }
    entry.body = body;
    return entry;
}

TVX_API int ipmiWriteiELEntry(IpmiSession *session, uint8_t w4, uint8_t w5, uint8_t w6, const uint8_t *record,
                              const char *text, uint8_t w7)
{
    if (!session || !record || !text) return 0;
    const std::size_t textLength = std::strlen(text);
    // The controller takes the text's length as 16 bits; a longer one cannot be sent whole.
    if (textLength > UINT16_MAX) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return 0;
    }
    const uint32_t requestLen = static_cast<uint32_t>(iel::kWriteHeaderSize + textLength + 1 + iel::kRecordSize);
    auto *request = static_cast<uint8_t *>(std::calloc(requestLen, 1));
    if (!request) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return 0;
    }
    tvx::wire::Writer w(request, requestLen);
    w.bytes(tvx::oem::request(iel::kWrite, w4, w5, w6, w7))
        .bytes({reinterpret_cast<const uint8_t *>(text), textLength})
        .u8(0)
        .bytes({record, iel::kRecordSize});
    uint8_t response[1] = {0};
    uint32_t len = sizeof response;
    uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, TVX_NETFN_OEM_GROUP, iel::kCommand, request,
                                                       requestLen, response, &len, tvx::kPlatformTimeout);
    std::free(request);
    if (status != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return 0;
    }
    return 1;
}

TVX_API int ipmiCleariELLog(IpmiSession *session, int all, uint16_t entryId)
{
    if (!session) return 0;
    uint8_t request[tvx::oem::kIanaSize + 4];
    tvx::wire::Writer w(request, sizeof request);
    w.bytes(tvx::oem::request(iel::kClear, all ? iel::kClearAll : iel::kClearOne)).u16(all ? 0 : entryId);
    uint8_t response[tvx::kOemResponseSize];
    uint32_t len = 0;
    uint16_t status = tvx::sendStated(session, TVX_NETFN_OEM_GROUP, iel::kCommand, request, w.size(), response, &len);
    if (status != 0 || response[0] != tvx::cc::kOk) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send ipmi raw command.");
        return 0;
    }
    return 1;
}

} // extern "C"
