// A virtual controller built from a JSON profile with its state in a private directory,
// driven request by request.
#pragma once

#include <memory>

#include <gtest/gtest.h>

#include "controller.h"
#include "simsel_util.h"

namespace simsel {

inline constexpr uint8_t kStorage = 0x0A;
inline constexpr uint8_t kGetSelInfo = 0x40, kGetAllocInfo = 0x41, kReserve = 0x42, kGetEntry = 0x43, kAdd = 0x44,
                         kClear = 0x47, kGetTime = 0x48, kSetTime = 0x49, kGetUtc = 0x5C, kSetUtc = 0x5D;
inline constexpr uint8_t kIana[3] = {0xD9, 0x7E, 0x00};

inline uint16_t le16(const Bytes &b, std::size_t at) { return static_cast<uint16_t>(b.at(at) | b.at(at + 1) << 8); }
inline uint32_t le32(const Bytes &b, std::size_t at) { return le16(b, at) | static_cast<uint32_t>(le16(b, at + 2)) << 16; }

class Machine : public testing::Test {
protected:
    // Starts the controller for doc (the same state directory every time within a test).
    // sensors, when given, stands for the SDR part of the profile another section describes.
    void start(const json &doc = smallMachine(), const json &sensors = nullptr)
    {
        profile_ = doc;
        tvxsim::Profile p = tvxsim::parseProfile(doc.dump(), "selmachine.json");
        if (!sensors.is_null()) p.document["sensors"] = sensors;
        ctl_ = std::make_unique<tvxsim::Controller>(std::move(p), dir_.path());
    }

    Bytes send(uint8_t netFn, uint8_t cmd, const Bytes &data)
    {
        tvxsim::Reply r = ctl_->handle(netFn, 0, cmd, data);
        EXPECT_TRUE(r.answered);
        return r.bytes;
    }
    Bytes storage(uint8_t cmd, const Bytes &data = {}) { return send(kStorage, cmd, data); }
    // An event-text request: the answer without the IANA echo, which is checked here.
    Bytes text(uint8_t sub, const Bytes &data)
    {
        Bytes req(kIana, kIana + 3);
        req.push_back(sub);
        req.insert(req.end(), data.begin(), data.end());
        Bytes r = send(0x2E, 0xF5, req);
        EXPECT_GE(r.size(), 4u);
        if (r.size() < 4) return r;
        EXPECT_EQ(Bytes(r.begin() + 1, r.begin() + 4), Bytes(kIana, kIana + 3));
        r.erase(r.begin() + 1, r.begin() + 4);
        return r;
    }
    uint16_t reserve()
    {
        Bytes r = storage(kReserve);
        EXPECT_EQ(r.size(), 3u);
        return r.size() == 3 ? le16(r, 1) : 0;
    }
    // Whole record: completion code, next ID, 16 bytes.
    Bytes entry(uint16_t id)
    {
        return storage(kGetEntry, {0, 0, static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8), 0, 0xFF});
    }
    Bytes clear(uint16_t reservation, uint8_t action = 0xAA)
    {
        return storage(kClear, {static_cast<uint8_t>(reservation), static_cast<uint8_t>(reservation >> 8), 'C', 'L', 'R', action});
    }

    TempDir dir_;
    json profile_;
    std::unique_ptr<tvxsim::Controller> ctl_;
};

} // namespace simsel
