// Event message texts: a SEL entry's error code, severity and parameters, the localized
// message text of the code (fetched in chunks), and the composed line.
//
// Every answer is read through a view of the bytes that actually arrived: lengths the
// controller states are trusted only as far as the received bytes and the declared text
// size allow.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/diag.h"
#include "common/list_tail.h"
#include "common/raw.h"
#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx/records.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;
using tvx::wire::View;
namespace wire = tvx::wire;
namespace vendor = tvx::oem::vendor;

namespace {

constexpr uint8_t kOemCommand = tvx::oem::cmd::kVendor;
constexpr uint32_t kRawResponse = tvx::kOemResponseSize;
// The short text answer (0x45), as the 64-byte buffer holds it: from the payload on, the
// SelEntryText record; its length byte decides how much of it is taken.
constexpr wire::U8 kEntryTextLength{tvx::oem::kPayload + offsetof(SelEntryText, length)};
constexpr std::size_t kEntryTextHead = offsetof(SelEntryText, text); // bytes before the text
// A composed line, its terminator included, fits the 255-byte buffers its readers use.
constexpr size_t kMaxLine = 255;
// The most chunk requests one text may take: an average progress of TVX_SEL_TEXT_MIN_CHUNK
// characters per chunk over the longest text fetched.
constexpr unsigned kMaxTextChunks = TVX_SEL_TEXT_MAX / TVX_SEL_TEXT_MIN_CHUNK;

// One request of this family. Returns the platform status; *len the bytes received.
uint16_t send(IpmiSession *session, const uint8_t *request, uint32_t requestLen, uint8_t (&response)[kRawResponse],
              uint32_t *len)
{
    return tvx::sendStated(session, TVX_NETFN_OEM_GROUP, kOemCommand, request, requestLen, response, len);
}

// The same, with the family's two failure messages: false when nothing usable came back.
bool sendReporting(IpmiSession *session, const uint8_t *request, uint32_t requestLen,
                   uint8_t (&response)[kRawResponse], uint32_t *len, int line, const char *function)
{
    uint16_t status = send(session, request, requestLen, response, len);
    if (status != 0) {
        tvx::diag::located(Unit::Helpers, line, function, "Failed to send request with error 0x%x",
                           tvx::swappedStatus(status));
        return false;
    }
    if (*len == 0) {
        tvx::diag::plain("response returned with length <=0\n");
        return false;
    }
    return true;
}

using tvx::received;

// An answer of this family read from its payload on (after the completion code and the IANA
// number): every field is read in order, zero where the answer ended.
wire::Reader payload(View answer)
{
    wire::Reader in(answer);
    in.seek(tvx::oem::kPayload);
    return in;
}

// Length of the zero-terminated text at the start of view (all of it if unterminated).
size_t textLength(View v)
{
    if (v.size() == 0) return 0; // an answer that ends before its text has none
    const void *zero = std::memchr(v.data(), 0, v.size());
    return zero ? static_cast<size_t>(static_cast<const uint8_t *>(zero) - v.data()) : v.size();
}

const char *severitySuffix(uint8_t flags)
{
    static constexpr const char *kSuffix[8] = {" (INFO)",    " (MINOR)",   " (MAJOR)",   " (CRITICAL)",
                                               " (UNKNOWN)", " (UNKNOWN)", " (UNKNOWN)", " (UNKNOWN)"};
    return kSuffix[(flags >> 4) & 7];
}

// A growing heap string, capped at kMaxLine - 1 characters.
struct Line {
    char *text = nullptr;
    size_t length = 0;
    size_t capacity = 0;
    bool failed = false;

    bool reserve(size_t wanted)
    {
        if (wanted <= capacity) return true;
        char *grown = static_cast<char *>(std::realloc(text, wanted));
        if (!grown) return false;
        std::memset(grown + capacity, 0, wanted - capacity);
        text = grown;
        capacity = wanted;
        return true;
    }
    // Appends at most limit - length characters (limit leaves room for what must follow).
    void append(const char *s, size_t n, size_t limit)
    {
        if (failed || length >= limit) return;
        if (n > limit - length) n = limit - length;
        if (!reserve(length + n + 1)) {
            TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
            failed = true;
            return;
        }
        std::memcpy(text + length, s, n);
        length += n;
        text[length] = '\0';
    }
};

} // namespace

extern "C" TVX_API ErrorCodeRecord *getErrorCode(IpmiSession *session, const uint8_t *record, uint8_t selector)
{
    ErrorCodeRecord *result = static_cast<ErrorCodeRecord *>(std::calloc(1, sizeof(ErrorCodeRecord)));
    if (!result) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return nullptr;
    }
    if (!session) return result;
    if (!record) {
        std::free(result);
        return nullptr;
    }
    uint8_t request[7];
    wire::Writer w(request);
    w.u24(tvx::oem::kVendorIana).u8(vendor::kGetErrorCode).u8(selector);
    w.u16(View(record, tvx::sel::kRecordSize).get(tvx::sel::kRecordId, uint16_t{0}));
    uint8_t response[kRawResponse];
    uint32_t len = 0;
    if (send(session, request, static_cast<uint32_t>(w.size()), response, &len) != 0) {
        std::free(result);
        return nullptr;
    }
    if (len == 0) {
        tvx::diag::plain("response returned with length <=0\n");
        std::free(result);
        return nullptr;
    }
    wire::Reader in = payload(received(response, len));
    for (uint8_t &b : result->errorCode) b = in.u8();
    result->flags = in.u8();
    result->paramCount = in.u8();
    if (result->paramCount == 0) return result;
    result->params = static_cast<char **>(std::calloc(result->paramCount, sizeof(char *)));
    if (!result->params) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        result->paramCount = 0;
        freeErrorCode(result);
        return nullptr;
    }
    // Parameters: a length byte and that many characters each. An answer that ends early
    // keeps what arrived: a parameter cut by the end of the answer holds the characters
    // received, and parameters that never arrived are empty strings, so every one of
    // paramCount pointers is a valid string.
    for (uint8_t i = 0; i < result->paramCount; ++i) {
        View text = in.upTo(in.u8());
        char *param = static_cast<char *>(std::calloc(text.size() + 1, 1));
        if (!param) {
            TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
            freeErrorCode(result);
            return nullptr;
        }
        if (!text.empty()) std::memcpy(param, text.data(), text.size());
        result->params[i] = param;
    }
    return result;
}

extern "C" TVX_API void freeErrorCode(ErrorCodeRecord *record)
{
    if (!record) return;
    if (record->params) {
        for (unsigned i = 0; i < record->paramCount; ++i) std::free(record->params[i]);
        std::free(record->params);
    }
    std::free(record);
}

namespace {

// Fetches the text of an error code from offset on, into buffer (allocated from the first
// chunk's total length when NULL). capacity is the buffer's size when known (0: trust the
// total length of each chunk, as a caller's own buffer must be that large).
char *fetchText(IpmiSession *session, const ErrorCodeRecord *code, char *buffer, size_t capacity, uint16_t offset,
                uint8_t selector, uint16_t language)
{
    // What one text may cost, whatever the controller answers: at most TVX_SEL_TEXT_MAX
    // characters are fetched, in at most kMaxTextChunks requests.
    const uint16_t start = offset;
    for (unsigned chunks = 1;; ++chunks) {
        uint8_t request[14];
        wire::Writer w(request);
        w.u24(tvx::oem::kVendorIana).u8(vendor::kGetTextChunk).bytes(code->errorCode);
        w.u16(offset).u8(selector).u16(language).u8(0x00);
        uint8_t response[kRawResponse];
        uint32_t len = 0;
        if (!sendReporting(session, request, static_cast<uint32_t>(w.size()), response, &len, __LINE__,
                           "getSelTextByErrorCode"))
            return buffer;
        wire::Reader in = payload(received(response, len));
        uint16_t total = in.u16();
        uint8_t chunk = in.u8();
        View text = in.rest();
        if (!buffer) {
            buffer = static_cast<char *>(std::calloc(static_cast<size_t>(total) + 1, 1));
            if (!buffer) {
                TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
                return nullptr;
            }
            capacity = static_cast<size_t>(total) + 1;
        }
        if (capacity == 0) capacity = static_cast<size_t>(total) + 1;
        // The chunk's text: up to its terminator, within the received bytes, and written only
        // inside the text's declared size (the terminator's place stays zero).
        size_t s = textLength(text);
        size_t room = offset < capacity - 1 ? capacity - 1 - offset : 0;
        size_t n = s < room ? s : room;
        if (n > 0) std::memcpy(buffer + offset, text.data(), n);
        // More to come only while the chunk was whole and made progress.
        if (total > offset + chunk && chunk == s && chunk > 0 && offset + chunk <= 0xFFFF &&
            static_cast<unsigned>(offset + chunk - start) < TVX_SEL_TEXT_MAX && chunks < kMaxTextChunks) {
            offset = static_cast<uint16_t>(offset + chunk);
            continue;
        }
        return buffer;
    }
}

} // namespace

extern "C" TVX_API char *getSelTextByErrorCode(IpmiSession *session, ErrorCodeRecord *errorCode, char *buffer,
                                               uint16_t offset, uint8_t selector, uint16_t language)
{
    if (!errorCode) return nullptr;
    if (!session) return buffer;
    return fetchText(session, errorCode, buffer, 0, offset, selector, language);
}

extern "C" TVX_API char *buildSelTextString(IpmiSession *session, const uint8_t *record, uint8_t selector, int withTime,
                                            int withSeverity, uint16_t language)
{
    if (!record) return nullptr;
    char time[25];
    std::memset(time, 0, sizeof time);
    if (withTime) {
        time_t t = static_cast<time_t>(View(record, tvx::sel::kRecordSize).get(tvx::sel::kTimestamp, uint32_t{0}));
        convertTime(&t, time, sizeof time);
    }
    ErrorCodeRecord *code = getErrorCode(session, record, selector);
    if (!code) return nullptr;
    char *text = getSelTextByErrorCode(session, code, nullptr, 0, selector, language);
    if (!text) {
        freeErrorCode(code);
        return nullptr;
    }
    // The line keeps its time and its severity; a message too long for the line is cut.
    const char *suffix = withSeverity ? severitySuffix(code->flags) : "";
    size_t limit = kMaxLine - 1 - std::strlen(suffix);
    Line line;
    if (!line.reserve(std::strlen(text) + (withTime ? 25 : 0) + 1)) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
    } else {
        if (withTime) {
            line.append(time, std::strlen(time), limit);
            line.append(" ", 1, limit);
        }
        for (const char *p = text; *p && !line.failed; ++p) {
            if (*p != '%') {
                line.append(p, 1, limit);
            } else if (p[1] == '\0') {
                // A percent sign at the very end stands for nothing.
            } else if (p[1] >= '1' && p[1] <= '8' && p[1] - '1' < code->paramCount) {
                const char *param = code->params[p[1] - '1'];
                line.append(param, std::strlen(param), limit);
                ++p;
            } else {
                // Another character, or a placeholder with no parameter behind it: both
                // characters stay, so the reader sees what the text expected.
                line.append(p, 2, limit);
                ++p;
            }
        }
        if (withSeverity && line.text) {
            size_t n = std::strlen(suffix);
            if (!line.reserve(line.length + n + 1)) {
                tvx::diag::plain("failed to allocate memory\n");
            } else {
                std::memcpy(line.text + line.length, suffix, n + 1);
                line.length += n;
            }
        }
    }
    std::free(text);
    freeErrorCode(code);
    return line.text;
}

extern "C" TVX_API ListNode *ipmiGetSelText(IpmiSession *session, int reverse, uint8_t selector)
{
    if (!session) return nullptr;
    uint16_t count = 0;
    (void)LIBIPMI_HL_GetNumOfSELEntries(session, &count, tvx::kPlatformTimeout);
    if (count == 0) {
        tvx::diag::plain("SEL has no entries\n");
        return nullptr;
    }
    uint8_t *records = static_cast<uint8_t *>(std::calloc(count, TVX_SEL_RECORD_SIZE));
    if (!records) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return nullptr;
    }
    if (LIBIPMI_HL_GetAllSELEntries(session, reinterpret_cast<SelRecord *>(records), tvx::kPlatformTimeout) != 0) {
        tvx::diag::plain("failed to get sel entries\n");
        std::free(records);
        return nullptr;
    }
    ListNode *list = nullptr;
    tvx::ListTail tail(&list);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t index = reverse ? count - 1 - i : i;
        char *line = buildSelTextString(session, records + index * TVX_SEL_RECORD_SIZE, selector, 1, 1,
                                        TVX_LANG_ENGLISH);
        if (!line) continue;
        tail.add(line, static_cast<uint32_t>(std::strlen(line)));
        std::free(line);
    }
    std::free(records);
    return list;
}

extern "C" TVX_API SelEntryText getSELEntryText(IpmiSession *session, uint16_t recordId)
{
    SelEntryText entry;
    std::memset(&entry, 0, sizeof entry);
    uint8_t request[6];
    wire::Writer w(request);
    w.u24(tvx::oem::kVendorIana).u8(vendor::kGetEntryText).u16(recordId);
    uint8_t response[64];
    std::memset(response, 0, sizeof response);
    uint32_t len = sizeof response;
    if (!ipmiSendCmd(session, TVX_NETFN_OEM_GROUP, kOemCommand, static_cast<uint32_t>(w.size()), request, &len,
                     response))
        return entry;
    // The 64-byte answer buffer is zero-filled, so bytes beyond what arrived read as zero.
    const View filled(response);
    if (!tvx::oem::echoesIana(filled) || len < kEntryTextLength.end()) return entry;
    uint8_t length = filled.get(kEntryTextLength, uint8_t{0});
    size_t copy = length > sizeof entry.text ? sizeof entry - 1 : length + kEntryTextHead;
    std::memcpy(&entry, filled.upTo(tvx::oem::kPayload, copy).data(), copy);
    if (length > sizeof entry.text) entry.length = sizeof entry.text;
    entry.terminator = 0;
    return entry;
}

namespace {

// Appends the follow-up chunks of a text to buffer (size bytes, already holding `end`
// characters). Returns false when a request failed or an answer broke the rules.
bool readFollowUps(IpmiSession *session, uint8_t handle, char *buffer, size_t size, size_t end)
{
    // A controller that keeps announcing more than fits is stopped once the buffer is full, the
    // text holds TVX_SEL_TEXT_MAX characters or kMaxTextChunks chunks were asked for; chunks
    // that add nothing are given up on sooner.
    constexpr unsigned kIdleRounds = 8;
    unsigned idleRounds = 0;
    for (unsigned chunks = 1;; ++chunks) {
        auto request = tvx::oem::request(vendor::kGetFollowUp, handle);
        uint8_t response[kRawResponse];
        uint32_t len = 0;
        if (!sendReporting(session, request.data(), request.size(), response, &len, __LINE__,
                           "ipmiInterpretSELEntryUsTextFollowUp"))
            return false;
        wire::Reader in = payload(received(response, len));
        uint16_t remaining = in.u16();
        uint8_t chunk = in.u8();
        if (chunk > size) {
            tvx::diag::plain("response > buffer size\n");
            return false;
        }
        // At most chunk - 1 characters, only those received, and never past the buffer's
        // last byte, which stays the terminator.
        View text = in.rest();
        size_t n = textLength(text);
        if (chunk > 0 && n > static_cast<size_t>(chunk) - 1) n = static_cast<size_t>(chunk) - 1;
        if (chunk == 0) n = 0;
        size_t room = end < size - 1 ? size - 1 - end : 0;
        if (n > room) n = room;
        if (n > 0) std::memcpy(buffer + end, text.data(), n);
        end += n;
        buffer[end] = '\0';
        if (remaining == 0) return true;
        if (end >= size - 1 || end >= TVX_SEL_TEXT_MAX || chunks >= kMaxTextChunks) return true;
        if (n == 0 && ++idleRounds > kIdleRounds) return true;
    }
}

} // namespace

extern "C" TVX_API char *ipmiInterpretSELEntryUsTextFollowUp(IpmiSession *session, uint8_t handle, unsigned size)
{
    if (!session) return nullptr;
    char *buffer = static_cast<char *>(std::calloc(size ? size : 1, 1));
    if (!buffer) return nullptr;
    if (static_cast<uint16_t>(size) == 0) return buffer;
    if (!readFollowUps(session, handle, buffer, size, 0)) {
        std::free(buffer);
        return nullptr;
    }
    return buffer;
}

extern "C" TVX_API iESLText ipmiGetiESLSELEntryAsText(IpmiSession *session, uint8_t selector, uint16_t recordId,
                                                      uint8_t p7, uint16_t p8, uint8_t p10, uint8_t p11)
{
    iESLText result;
    std::memset(&result, 0, sizeof result);
    if (!session) return result;
    uint8_t request[13];
    wire::Writer w(request);
    w.u24(tvx::oem::kVendorIana).u8(vendor::kGetEntryAsText).u8(selector).u16(recordId);
    w.u8(p7).u16(p8).u8(p10).u8(p11).u8(0x00);
    uint8_t response[kRawResponse];
    uint32_t len = 0;
    uint16_t status = send(session, request, static_cast<uint32_t>(w.size()), response, &len);
    if (status != 0) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Failed to send request with error 0x%x", tvx::swappedStatus(status));
        tvx::diag::plainFormat("\nrecordId = 0x%x\n", recordId);
        result.nextId = 0xFFFF;
        return result;
    }
    if (len == 0) {
        tvx::diag::plain("response returned with length <=0\n");
        result.nextId = 0xFFFF;
        return result;
    }
    wire::Reader in = payload(received(response, len));
    result.field1 = in.u16();
    result.field2 = in.u16();
    result.field3 = in.u16();
    for (uint8_t &b : result.code) b = in.u8();
    result.byte14 = in.u8();
    result.byte15 = in.u8();
    result.nextId = in.u16();
    result.word18 = in.u16();
    result.textSize = in.u16();
    result.firstLength = in.u8();
    result.followUpHandle = in.u8();
    View first = in.rest();
    if (result.textSize == 0) return result;
    result.text = static_cast<char *>(std::calloc(result.textSize, 1));
    if (!result.text) return result;
    // The first chunk: at most firstLength - 1 characters, those received, within the text.
    size_t n = textLength(first);
    size_t most = result.firstLength > 0 ? static_cast<size_t>(result.firstLength) - 1 : 0;
    if (n > most) n = most;
    if (n > static_cast<size_t>(result.textSize) - 1) n = static_cast<size_t>(result.textSize) - 1;
    if (n > 0) std::memcpy(result.text, first.data(), n);
    if (result.followUpHandle != 0 && result.textSize > result.firstLength) {
        unsigned rest = static_cast<unsigned>(result.textSize - result.firstLength);
        char *more = ipmiInterpretSELEntryUsTextFollowUp(session, result.followUpHandle, rest);
        if (more) {
            // Append after the first chunk's text, keeping the terminator inside the buffer.
            size_t end = std::strlen(result.text);
            size_t room = static_cast<size_t>(result.textSize) - 1 - end;
            size_t m = strnlen(more, rest);
            if (m > room) m = room;
            if (m > rest - 1) m = rest - 1;
            std::memcpy(result.text + end, more, m);
            std::free(more);
        }
    }
    return result;
}
