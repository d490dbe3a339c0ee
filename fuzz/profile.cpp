// Machine profiles: parsing and checking a profile, then a virtual controller built from it
// answering the requests every client starts with. A profile's faults are dropped so that the
// answers come from the machine's model.
#include <cstddef>
#include <cstdint>
#include <string>

#include "controller.h"
#include "profile.h"

namespace {

struct Probe {
    uint8_t netFn, command;
    std::vector<uint8_t> data;
};

const Probe kProbes[] = {
    {0x06, 0x01, {}},                                      // Get Device ID
    {0x0A, 0x20, {}},                                      // Get SDR Repository Info
    {0x0A, 0x23, {0x00, 0x00, 0x00, 0x00, 0x00, 0xFF}},    // Get SDR, first record
    {0x0A, 0x40, {}},                                      // Get SEL Info
    {0x0A, 0x43, {0x00, 0x00, 0x00, 0x00, 0x00, 0xFF}},    // Get SEL Entry, first
    {0x0A, 0x10, {0x00}},                                  // Get FRU Inventory Area Info
    {0x0A, 0x11, {0x00, 0x00, 0x00, 0x20}},                // Read FRU Data
    {0x04, 0x2D, {0x01}},                                  // Get Sensor Reading
    {0x06, 0x42, {0x01}},                                  // Get Channel Info
    {0x0C, 0x02, {0x01, 0x03, 0x00, 0x00}},                // Get LAN Configuration Parameters
    {0x00, 0x01, {}},                                      // Get Chassis Status
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    try {
        tvxsim::Profile profile = tvxsim::parseProfile(text, "fuzz.json");
        profile.faults.clear();
        tvxsim::Controller controller(std::move(profile), "");
        for (const Probe &p : kProbes) (void)controller.handle(p.netFn, 0, p.command, p.data);
    } catch (const tvxsim::ProfileError &) {
        // A refused profile: the expected outcome for most inputs.
    }
    return 0;
}
