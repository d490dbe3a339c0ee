// Machine profiles: what a good profile yields, and that every kind of mistake is reported with
// the file and the place in it.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "profile.h"
#include "scratch.h"

using nlohmann::json;
using Bytes = std::vector<uint8_t>;

namespace {

const char *kFile = "machines/t.json";

TEST(Profile, IdentityFieldsBecomeDeviceIdBytes)
{
    json doc = json::parse(R"({
      "controller": {
        "device_id": "0x21", "device_revision": 5, "provides_device_sdrs": true,
        "firmware_revision": "12.09", "device_busy": true, "ipmi_version": "1.5",
        "additional_device_support": ["sensor", "sel", "chassis"],
        "manufacturer_id": "0x0ABCDE", "product_id": 48879,
        "aux_firmware_revision": "de ad 0xbe ef", "oem_iana": 343
      }
    })");
    tvxsim::Profile p = tvxsim::parseProfile(doc.dump(), "dir/box.json");
    EXPECT_EQ(p.name, "box");
    EXPECT_EQ(p.oemIana, 343u);
    const Bytes expected = {0x21, 0x85, 0x80 | 12, 0x09, 0x51, 0x85, 0xDE, 0xBC,
                            0x0A, 0xEF, 0xBE,      0xDE, 0xAD, 0xBE, 0xEF};
    EXPECT_EQ(p.device.responseData(), expected);

    // Without the auxiliary revision the answer stops after the product ID.
    doc["controller"].erase("aux_firmware_revision");
    p = tvxsim::parseProfile(doc.dump(), "box.json");
    EXPECT_EQ(p.device.responseData(), Bytes(expected.begin(), expected.begin() + 11));
}

TEST(Profile, MistakesAreNamedWithFilePlaceAndProblem)
{
    const struct {
        const char *pointer; // where the value goes in a valid profile
        json value;
        const char *message; // what follows "machines/t.json: "
    } cases[] = {
        {"/controller/firmware_revison", "1.00", "/controller/firmware_revison: unknown key \"firmware_revison\""},
        {"/a~1b~0c", 1, "/a~1b~0c: unknown key \"a/b~c\""},
        {"/controller/firmware_revision", 3.52, "/controller/firmware_revision: expected a string"},
        {"/controller/manufacturer_id", 0x100000, "/controller/manufacturer_id: expected an integer from 0 to 1048575"},
        {"/controller/aux_firmware_revision", "00 0a 12",
         "/controller/aux_firmware_revision: expected exactly 4 bytes, got 3"},
        {"/faults", {{{"netfn", 6}, {"command", 1}, {"kind", "completion_code"}}}, "/faults/0: missing \"value\""},
    };
    for (const auto &c : cases) {
        json doc = tvxtest::baseProfile();
        doc[json::json_pointer(c.pointer)] = c.value;
        try {
            tvxsim::parseProfile(doc.dump(2), kFile);
            ADD_FAILURE() << "profile accepted: " << doc.dump();
        } catch (const tvxsim::ProfileError &e) {
            EXPECT_EQ(std::string(e.what()).rfind(std::string(kFile) + ": " + c.message, 0), 0u) << e.what();
        }
    }
    json doc = tvxtest::baseProfile();
    doc.erase("controller");
    EXPECT_THROW(tvxsim::parseProfile(doc.dump(), kFile), tvxsim::ProfileError) << "a profile needs a controller";
}

// A syntax error gives line and column; a directory opens like a file but cannot be read, which
// must not pass for an empty profile with a syntax error at 1:1. Only regular files of a
// sensible size and depth are read: no device grows without end, no FIFO waits forever, no
// nesting costs the stack.
TEST(ProfileText, SyntaxErrorsAndUnreadableFiles)
{
    tvxtest::TempDir dir;
    tvxtest::writeFile(dir.file("t.json"), "{\n  \"controller\": {\n    \"firmware_revision\": \"3.52\",\n  }\n}\n");
    tvxtest::writeFile(dir.file("deep.json"), "{\"controller\": " + std::string(100000, '[') + std::string(100000, ']') + "}");
    ASSERT_EQ(mkfifo(dir.file("fifo.json").c_str(), 0600), 0);
    tvxtest::writeFile(dir.file("big.json"), "");
    ASSERT_EQ(truncate(dir.file("big.json").c_str(), (16 << 20) + 1), 0); // sparse: costs no disk
    for (const auto &[path, message] : {std::pair{dir.file("t.json"), std::string(":4:3: syntax error")},
                                        {dir.path(), std::string(": cannot read")},
                                        {dir.file("deep.json"), std::string(":1:79: nested deeper than 64 levels")},
                                        {dir.file("fifo.json"), std::string(": cannot read the machine profile: not a regular file")},
                                        {std::string("/dev/zero"), std::string(": cannot read the machine profile: not a regular file")},
                                        {dir.file("big.json"), std::string(": cannot read the machine profile: larger than 16 MiB")}}) {
        std::string error;
        try {
            tvxsim::loadProfile(path);
        } catch (const tvxsim::ProfileError &e) {
            error = e.what();
        }
        EXPECT_EQ(error.rfind(path + message, 0), 0u) << error;
    }
}

} // namespace
