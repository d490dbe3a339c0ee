// Helpers shared by the chassis, configuration-space, LAN and banner tests: announcing
// requests to the scripted exchange and checking what reached the platform.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "script_fixture.h"

using Bytes = std::vector<uint8_t>;

// The vendor's IANA number as it opens every OEM/Group request and answer.
inline const Bytes kIana = {0xD9, 0x7E, 0x00};

inline Bytes cat(Bytes head, const Bytes &tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// An OEM/Group request: the IANA number, then the given bytes.
inline Bytes oem(const Bytes &tail) { return cat(kIana, tail); }

// An OEM/Group answer: completion code, IANA echo, payload.
inline Bytes oemAnswer(const Bytes &payload, uint8_t cc = 0x00) { return cat(cat({cc}, kIana), payload); }

inline void expectRequest(uint8_t netFnLun, uint8_t command, const Bytes &req, uint16_t status, const Bytes &res)
{
    ASSERT_EQ(ipmihost_script_expect(netFnLun, command, req.empty() ? nullptr : req.data(),
                                     static_cast<uint32_t>(req.size()), status, res.empty() ? nullptr : res.data(),
                                     static_cast<uint32_t>(res.size())),
              0);
}

inline Bytes requestOf(const ipmihost_call &c)
{
    return c.reqData ? Bytes(c.reqData, c.reqData + c.reqLen) : Bytes{};
}

// The raw requests logged after the first `from` entries of the call log.
inline std::vector<ipmihost_call> rawSince(size_t from)
{
    std::vector<ipmihost_call> out;
    std::vector<ipmihost_call> log = calls();
    for (size_t i = from; i < log.size(); ++i)
        if (log[i].kind == IPMIHOST_CALL_RAW) out.push_back(log[i]);
    return out;
}

struct Sent {
    uint8_t netFnLun;
    uint8_t command;
    Bytes request;
};

constexpr int64_t kAnyCapacity = -1;

// Checks every raw request logged after `from` against `expected`, in order: session,
// payload type 0, NetFn/LUN, command, exact request bytes, time-out 60, and the response
// length on entry unless it is kAnyCapacity.
inline void expectSent(const IpmiSession *session, size_t from, const std::vector<Sent> &expected,
                       int64_t capacity, const std::string &what)
{
    std::vector<ipmihost_call> raw = rawSince(from);
    ASSERT_EQ(raw.size(), expected.size()) << what;
    for (size_t i = 0; i < raw.size(); ++i) {
        const ipmihost_call &c = raw[i];
        EXPECT_EQ(c.session, session) << what << ", request " << i;
        EXPECT_EQ(c.payloadType, 0) << what << ", request " << i;
        EXPECT_EQ(c.netFnLun, expected[i].netFnLun) << what << ", request " << i;
        EXPECT_EQ(c.command, expected[i].command) << what << ", request " << i;
        EXPECT_EQ(requestOf(c), expected[i].request) << what << ", request " << i;
        EXPECT_EQ(c.timeout, 60) << what << ", request " << i;
        EXPECT_EQ(c.resLenPtrNull, 0) << what << ", request " << i;
        if (capacity != kAnyCapacity) {
            EXPECT_EQ(c.resLenIn, static_cast<uint32_t>(capacity)) << what << ", request " << i;
        }
    }
}
