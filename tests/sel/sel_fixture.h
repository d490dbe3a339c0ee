// The event-log tests: requests the library must send and the answers a controller gives.
#pragma once

#include "scripted.h"

constexpr uint8_t kStorage = 0x28, kOem = 0xB8, kOemCmd = 0xF5;
constexpr uint32_t k16Nov2026 = 1794865512; // 16-Nov-2026 21:45:12 UTC
constexpr uint32_t k03Feb2001 = 0x3A7B8372; // 03-Feb-2001 04:05:06 UTC

class SelTest : public ScriptTest {
protected:
    void SetUp() override
    {
        ScriptTest::SetUp();
        ASSERT_NE(open(), nullptr);
    }
    static std::vector<ipmihost_call> raw() { return rawSince(0); }
};

// A 16-byte SEL record: ID, type, timestamp and bytes 7-15.
inline Bytes selRecord(uint16_t id, uint8_t type, uint32_t timestamp, const Bytes &tail)
{
    Bytes r = cat({le16(id), {type}, le32(timestamp), tail});
    r.resize(16, 0);
    return r;
}
// Get SEL Info: completion code, version, entries, free space, add and erase times, support.
inline Bytes selInfo(uint16_t entries, uint32_t addTime = 0, uint32_t eraseTime = 0)
{
    return cat({{0x00, 0x51}, le16(entries), le16(0x0800), le32(addTime), le32(eraseTime), {0x02}});
}
inline void expectCount(uint16_t n, uint16_t status = 0)
{
    expect(kStorage, 0x40, {}, status ? Bytes{} : selInfo(n), status);
}
// One step of the walk: Get SEL Entry of a whole record, no reservation.
inline void expectEntry(uint16_t id, uint16_t next, const Bytes &record)
{
    expect(kStorage, 0x43, cat({{0x00, 0x00}, le16(id), {0x00, 0xFF}}), cat({{0x00}, le16(next), record}));
}

inline Bytes errorCodeAnswer(const Bytes &code, uint8_t flags, const std::vector<std::string> &params)
{
    Bytes a = oemAnswer(cat({code, {flags, static_cast<uint8_t>(params.size())}}));
    for (const std::string &p : params) a = cat({a, {static_cast<uint8_t>(p.size())}, text(p)});
    return a;
}
// One 0x73 chunk: total length, chunk length byte, the text and (normally) its terminator.
inline Bytes chunkAnswer(uint16_t total, uint8_t c, const std::string &s, bool terminated = true)
{
    Bytes a = oemAnswer(cat({le16(total), {c}, text(s)}));
    if (terminated) a.push_back(0);
    return a;
}
inline Bytes chunkRequest(const Bytes &code, uint16_t offset, uint8_t selector, uint16_t language)
{
    return oem(cat({{0x73}, code, le16(offset), {selector}, le16(language), {0x00}}));
}
