// A copy of a LAN controller's SDR repository kept on disk between programs, as FreeIPMI keeps
// its SDR cache: one file per controller, valid while the controller's Get SDR Repository Info
// reports the same addition and erase time stamps as when the copy was made.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "libipmi.h"

namespace libipmi::sdrcopy {

struct Copy {
    uint32_t additionTime = 0;
    uint32_t eraseTime = 0;
    SdrRepositoryAllocInfo alloc{};
    std::vector<std::vector<uint8_t>> records; // each whole: header and body
};

// The file for a controller: $XDG_CACHE_HOME/tvx/sdr/KEY, else ~/.cache/tvx/sdr/KEY; empty
// when neither variable is set. KEY is the endpoint with characters other than letters,
// digits, '.', '-' and '_' replaced by '_'.
std::string pathFor(const std::string &endpoint);

// The copy in `path`, or nothing when there is none or it is not a whole, well-formed copy.
std::optional<Copy> load(const std::string &path);

// Writes the copy (a temporary file renamed over the old one, so readers never see half a
// copy); directories are created with mode 0700. Returns false when it cannot be written,
// which costs the next program a walk, nothing more.
bool store(const std::string &path, const Copy &copy);

// Whether the copy belongs to the repository this answer describes.
inline bool matches(const Copy &copy, const SdrRepositoryInfo &info)
{
    return copy.additionTime == info.addTimeStamp && copy.eraseTime == info.eraseTimeStamp;
}

} // namespace libipmi::sdrcopy
