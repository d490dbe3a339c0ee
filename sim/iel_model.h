// The controller's internal event log as the machine profile describes it ("iel") and as it
// stands in the machine state (state["iel"]). All access to that state goes through Log.
//
// An entry has an ID, a time, a severity (0 info, 1 minor, 2 major, 3 critical), a text and a
// 16-byte record. Its body, as reads return it, is the text, a zero byte and the record, so
// bodies are as long as their texts make them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "profile.h"

namespace tvxsim::iel {

inline constexpr std::size_t kRecordSize = 16;
// Longest text: a write request (header, text, zero byte, record) fits one IPMI message.
inline constexpr std::size_t kMaxTextLength = 200;
inline constexpr uint16_t kMaxCapacity = 4096;
inline constexpr uint8_t kMaxSeverity = 3;
inline constexpr uint8_t kVersion = 0x01;

struct Entry {
    uint16_t id = 0;
    uint32_t time = 0;
    uint8_t severity = 0;
    std::string text;
    std::array<uint8_t, kRecordSize> record{};

    std::vector<uint8_t> body() const;
};

struct Model {
    uint16_t capacity = 256;
    std::vector<Entry> entries; // the initial log, IDs 1, 2, ...
};

// Reads "iel". Throws ProfileError naming the file and the JSON pointer of what is wrong.
Model parseModel(const Profile &profile);

const char *severityName(uint8_t severity); // "info" ... "critical", "" beyond

// The log in the machine state. A state from before the machine had this log gets the
// profile's; created() tells that the state was changed so. Reads check what they find: a
// state changed by hand into something unusable throws ProfileError saying where.
class Log {
public:
    Log(nlohmann::json &state, const Model &model);
    bool created() const { return created_; }

    std::size_t size() const;
    // Index of an entry ID (0x0000: the first, 0xFFFF: the last), or -1.
    long indexOf(uint16_t id) const;
    Entry at(std::size_t index) const;
    // ID of the entry after index, or 0xFFFF after the last.
    uint16_t nextId(std::size_t index) const;

    // Assigns the ID and appends; a full log first drops its oldest entry.
    uint16_t append(Entry e, uint16_t capacity);
    void erase(std::size_t index);
    void clear();

    uint32_t lastAdd() const;
    bool overflow() const;
    uint16_t dropped() const;
    std::size_t bodyBytes() const;

private:
    uint16_t idAt(std::size_t index) const;
    uint64_t number(const char *key, uint64_t max) const;
    nlohmann::json *log_;
    nlohmann::json *entries_;
    bool created_ = false;
};

nlohmann::json initialState(const Model &m);

} // namespace tvxsim::iel
