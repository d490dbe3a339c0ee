// Component status (OEM 0xF5, sub-function 0x40) and the dispatch of OEM sub-functions.
#include <cstdlib>

#include "libipmi_host.h"
#include "simsdr_util.h"
#include "tvx_toipmi.h"

namespace simsdr {
namespace {

const std::string kLongName = "Component name of 31 characters";

nlohmann::json componentProfile()
{
    nlohmann::json doc = baseProfile();
    doc["components"] = nlohmann::json::parse(R"([
      {"key": "01 01", "id": "00 01", "bytes": "03 01 00", "status": 2, "byte": 5, "name": "CPU1"},
      {"key": "05 02", "id": "00 41", "bytes": "0b 02 00", "status": 1, "name": "Riser",
       "completion_code": "0x02"},
      {"key": [6, 0], "id": [0, 6], "bytes": [1, 2, 3], "status": 3, "name": ""}
    ])");
    doc["components"][2]["name"] = kLongName;
    return doc;
}

Bytes oem(tvxsim::Controller &c, Bytes afterIana)
{
    Bytes data{0xD9, 0x7E, 0x00};
    data.insert(data.end(), afterIana.begin(), afterIana.end());
    return send(c, kNetFnOemGroup, 0xF5, data);
}

TEST(ComponentStatus, AnswersTheProfilesComponents)
{
    tvxsim::Controller c(profileOf(componentProfile()), "");
    Bytes longAnswer{0x00, 0xD9, 0x7E, 0x00, 0x00, 0x06, 1, 2, 3, 3, 0, 31};
    longAnswer.insert(longAnswer.end(), kLongName.begin(), kLongName.end());
    struct Case {
        const char *what;
        Bytes request;
        Bytes answer;
    } cases[] = {
        {"a component", {0x40, 0x01, 0x01, 0x01},
         {0x00, 0xD9, 0x7E, 0x00, 0x00, 0x01, 0x03, 0x01, 0x00, 0x02, 0x05, 0x04, 'C', 'P', 'U', '1'}},
        {"a component known but unreadable", {0x40, 0x05, 0x02, 0x01},
         {0x02, 0xD9, 0x7E, 0x00, 0x00, 0x41, 0x0B, 0x02, 0x00, 0x01, 0x00, 0x05, 'R', 'i', 's', 'e', 'r'}},
        {"the longest name", {0x40, 0x06, 0x00, 0x01}, longAnswer},
        {"an unknown key", {0x40, 0x01, 0x02, 0x01}, {0xCB, 0xD9, 0x7E, 0x00}},
        {"another selector", {0x40, 0x01, 0x01, 0x02}, {0xCC, 0xD9, 0x7E, 0x00}},
        {"a request too short", {0x40, 0x01, 0x01}, {0xC7, 0xD9, 0x7E, 0x00}},
        {"a request too long", {0x40, 0x01, 0x01, 0x01, 0x00}, {0xC7, 0xD9, 0x7E, 0x00}},
        {"no sub-function", {}, {0xC7, 0xD9, 0x7E, 0x00}},
        {"an unknown sub-function", {0x99, 0x01, 0x01, 0x01}, {0xC1, 0xD9, 0x7E, 0x00}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        EXPECT_EQ(oem(c, k.request), k.answer);
    }
}

// Each subsystem registers its own sub-functions of a command; each handler sees the bytes
// after the selector.
TEST(OemSubFunctions, DispatchBySelectorToEachHandler)
{
    static const tvxsim::Subsystem echo = {
        "echo",
        [](tvxsim::Controller &ctl) {
            ctl.onOemSub(0xF5, 0x72, [](tvxsim::Context &, const tvxsim::Request &req, tvxsim::Response &rsp) {
                rsp.u8(0x72);
                rsp.append(req.data);
            });
        },
        nullptr};
    const tvxsim::Subsystem subsystems[] = {tvxsim::kComponentSubsystem, echo};
    tvxsim::Controller c(profileOf(componentProfile()), "", subsystems);
    EXPECT_EQ(oem(c, {0x72, 0xAA, 0xBB}), (Bytes{0x00, 0xD9, 0x7E, 0x00, 0x72, 0xAA, 0xBB}));
    EXPECT_EQ(oem(c, {0x72}), (Bytes{0x00, 0xD9, 0x7E, 0x00, 0x72}));
    EXPECT_EQ(oem(c, {0x40, 0x05, 0x02, 0x01})[0], 0x02);
    EXPECT_EQ(send(c, kNetFnOemGroup, 0xF6, {0xD9, 0x7E, 0x00, 0x40}), (Bytes{0xC1, 0xD9, 0x7E, 0x00}))
        << "a command without handlers";
}

} // namespace
} // namespace simsdr
