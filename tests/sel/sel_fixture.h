// The event-log tests talk to the scripted exchange through one session opened per test;
// these helpers build the requests the library must send and the answers a controller gives.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "script_fixture.h"

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kStorage = 0x28;
constexpr uint8_t kOem = 0xB8;
constexpr uint8_t kOemCmd = 0xF5;

// Announces one request and the answer to give.
inline void expect(uint8_t netFnLun, uint8_t cmd, const Bytes &req, uint16_t status, const Bytes &res)
{
    ASSERT_EQ(ipmihost_script_expect(netFnLun, cmd, req.empty() ? nullptr : req.data(),
                                     static_cast<uint32_t>(req.size()), status, res.empty() ? nullptr : res.data(),
                                     static_cast<uint32_t>(res.size())),
              0);
}

class SelTest : public ScriptTest {
protected:
    void SetUp() override
    {
        ScriptTest::SetUp();
        ASSERT_NE(open(), nullptr);
    }
    void TearDown() override
    {
        ScriptTest::TearDown();
        ipmihost_select_default();
    }
    // Only the raw requests, in the order they were sent.
    static std::vector<ipmihost_call> raw()
    {
        std::vector<ipmihost_call> out;
        for (const ipmihost_call &c : calls())
            if (c.kind == IPMIHOST_CALL_RAW) out.push_back(c);
        return out;
    }
};

inline Bytes le16(uint16_t v) { return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)}; }
inline Bytes le32(uint32_t v)
{
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 24)};
}
inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
inline Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }

// ---- Standard SEL commands ----

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
// The count the library reads first (Get SEL Info).
inline void expectCount(uint16_t n, uint16_t status = 0)
{
    expect(kStorage, 0x40, {}, status, status ? Bytes{} : selInfo(n));
}
// One step of the walk: Get SEL Entry of a whole record, no reservation.
inline void expectEntry(uint16_t id, uint16_t next, const Bytes &record)
{
    expect(kStorage, 0x43, cat({{0x00, 0x00}, le16(id), {0x00, 0xFF}}), 0, cat({{0x00}, le16(next), record}));
}

// ---- OEM event texts ----

inline const Bytes kIana = {0xD9, 0x7E, 0x00};
inline Bytes oem(const Bytes &tail) { return cat({kIana, tail}); }
inline Bytes oemAnswer(const Bytes &payload) { return cat({{0x00}, kIana, payload}); }

inline Bytes errorCodeAnswer(const Bytes &code, uint8_t flags, const std::vector<std::string> &params)
{
    Bytes a = oemAnswer(cat({code, {flags, static_cast<uint8_t>(params.size())}}));
    for (const std::string &p : params) {
        a.push_back(static_cast<uint8_t>(p.size()));
        a.insert(a.end(), p.begin(), p.end());
    }
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
