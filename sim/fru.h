// The controller's FRU devices as the machine profile describes them ("fru"), and the one
// encoder that turns a description into FRU inventory bytes: a common header and the
// internal-use, chassis, board and product areas in the IPMI FRU storage format, each area
// padded to a multiple of 8 bytes and closed by its zero checksum. The virtual controller
// serves these bytes and the ipmi_sim configuration generator loads the same bytes into
// ipmi_sim.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "profile.h"

namespace tvxsim {

class Controller;
struct Request;
class Response;

struct FruDevice {
    uint8_t id = 0;
    std::string pointer;        // where the device stands in the profile, for messages
    std::vector<uint8_t> image; // the whole inventory area (its size is image.size())
    bool wordAccess = false;    // offsets and counts go in 16-bit words
};

struct FruModel {
    std::vector<FruDevice> devices; // in profile order
    const FruDevice *find(uint8_t id) const;
};

// Reads the profile's "fru" section (absent: no FRU devices). Throws ProfileError naming the
// file and JSON pointer of a bad value.
FruModel parseFruModel(const Profile &profile);
// The same for a list of device descriptions anywhere in a profile (a satellite's "fru").
FruModel parseFruDevices(const Node &list);

// Get FRU Inventory Area Info and Read FRU Data over a controller's devices; reads answer at
// most `maxResponse` bytes, completion code included (0: what an IPMI message holds, 255).
void answerFruAreaInfo(const FruModel &model, const Request &req, Response &rsp);
void answerReadFru(const FruModel &model, std::size_t maxResponse, const Request &req, Response &rsp);

// The model of a controller's profile, built on first use and kept with the controller.
std::shared_ptr<const FruModel> fruModel(Controller &controller);

// Minutes since 1996-01-01 00:00 UTC, the FRU manufacturing-date epoch, for a date from
// 1996-01-01 on ("YYYY-MM-DD" or "YYYY-MM-DDTHH:MM[:SS]Z"); -1 when the text is not one.
long fruMinutesFromIso(const std::string &text);

} // namespace tvxsim
