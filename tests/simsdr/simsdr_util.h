// Helpers of the SDR and sensor tests: a temporary state directory per test, profiles built
// in the test, and requests sent to a controller.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "controller.h"
#include "sdr.h"
#include "scratch.h"

namespace simsdr {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kNetFnSensor = 0x04;
constexpr uint8_t kNetFnStorage = 0x0A;
constexpr uint8_t kNetFnOemGroup = 0x2E;

using tvxtest::TempDir;

// A profile with a controller and nothing else; tests add their sections.
inline nlohmann::json baseProfile()
{
    return {{"controller", {{"firmware_revision", "1.00"}, {"manufacturer_id", 32473}, {"product_id", 1}}}};
}

inline tvxsim::Profile profileOf(const nlohmann::json &doc, const std::string &name = "test.json")
{
    return tvxsim::parseProfile(doc.dump(), name);
}

// The controller's answer (completion code first); an empty vector when there is none.
inline Bytes send(tvxsim::Controller &c, uint8_t netFn, uint8_t command, const Bytes &data, uint8_t lun = 0)
{
    tvxsim::Reply r = c.handle(netFn, lun, command, data);
    return r.answered ? r.bytes : Bytes{};
}

inline Bytes getSdr(tvxsim::Controller &c, uint16_t reservation, uint16_t id, uint8_t offset, uint8_t count)
{
    return send(c, kNetFnStorage, 0x23,
                {static_cast<uint8_t>(reservation), static_cast<uint8_t>(reservation >> 8), static_cast<uint8_t>(id),
                 static_cast<uint8_t>(id >> 8), offset, count});
}

inline uint16_t le16(const Bytes &b, std::size_t at) { return static_cast<uint16_t>(b.at(at) | b.at(at + 1) << 8); }

// Every record of the repository, walked from record 0 along the next-record IDs.
struct Walked {
    uint16_t id;
    Bytes record;
};
inline std::vector<Walked> walk(tvxsim::Controller &c)
{
    std::vector<Walked> out;
    uint16_t id = 0;
    for (int guard = 0; guard < 70000; ++guard) {
        Bytes r = getSdr(c, 0, id, 0, 0xFF);
        if (r.size() < 3 || r[0] != 0) {
            ADD_FAILURE() << "Get SDR of record " << id << " failed";
            break;
        }
        Bytes record(r.begin() + 3, r.end());
        out.push_back({id, record});
        uint16_t next = le16(r, 1);
        if (next == 0xFFFF) break;
        id = next;
    }
    return out;
}

} // namespace simsdr
