// Machine profiles: what a good profile yields, and that every kind of mistake is reported with
// the file and the place in it.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "bytes.h"
#include "controller.h"
#include "fru.h"
#include "machine.h"

using nlohmann::json;

namespace {

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
    EXPECT_EQ(tvxsim::parseProfile(doc.dump(), "box.json").device.responseData(),
              Bytes(expected.begin(), expected.begin() + 11));
}

// Each section's checks: the base profile with a part merged in, and the start of the message
// after "t.json: ". Nothing is started: no state is written.
TEST(Profile, MistakesAreNamedWithFilePlaceAndProblem)
{
    const char *sensor = R"({"record": "compact", "number": 1, "entity": 3, "instance": 1, "type": 1,
                             "event_reading_type": 1, "name": "T")";
    const std::pair<std::string, std::string> cases[] = {
        {R"({"controller": {"firmware_revison": "1.00"}})",
         "/controller/firmware_revison: unknown key \"firmware_revison\""},
        {R"({"a/b~c": 1})", "/a~1b~0c: unknown key \"a/b~c\""},
        {R"({"controller": {"firmware_revision": 3.52}})", "/controller/firmware_revision: expected a string"},
        {R"({"controller": {"manufacturer_id": 1048576}})",
         "/controller/manufacturer_id: expected an integer from 0 to 1048575"},
        {R"({"controller": {"aux_firmware_revision": "00 0a 12"}})",
         "/controller/aux_firmware_revision: expected exactly 4 bytes, got 3"},
        {R"({"controller": null})", "/: missing \"controller\""},
        {R"({"faults": [{"netfn": 6, "command": 1, "kind": "completion_code"}]})", "/faults/0: missing \"value\""},
        // The event log and its texts.
        {R"({"sel": {"records": [{"type": "oem_timestamped", "time": 0, "data": "01 02 03 04 05 06",
                               "error_code": "0000000F"}]}})",
         "/sel/records/0/error_code: error code \"0000000F\" has no message"},
        {R"({"event_texts": {"codes": {"00000001": {"texts": {"0x0409": "x"}}},
             "sensor_events": [{"error_code": "00000001", "parameters": ["{name}"]}]}})",
         "/event_texts/sensor_events/0/parameters/0: unknown field {name}"},
        // Sensors and the SDR repository.
        {R"({"sensors": [)" + std::string(sensor) + R"(, "thresholds": {"lnc": 30, "unc": 10}}]})",
         "/sensors/0/thresholds/unc: unc (10) must lie above lnc (30)"},
        {R"({"sensors": [)" + std::string(sensor) + "}, " + sensor + "}]}",
         "/sensors/1/number: sensor number 0x01 on LUN 0 of owner 0x20 is already used by /sensors/0"},
        {R"({"sdr": {"allocation_units": 1}, "sensors": [)" + std::string(sensor) + "}]}",
         "/sdr/allocation_units: the records take 3 allocation units, more than the 1"},
        // Configuration space and LAN channels.
        {R"({"config_space": {"0x0500": {"text": "abc", "max_length": 2}}})",
         "/config_space/0x0500/text: the value at index 0 has 3 bytes; at most 2 fit"},
        {R"({"lan": {"channels": [{"number": 1, "medium": "802.3", "subnet_mask": "255.0.255.0"}]}})",
         "/lan/channels/0/subnet_mask: a subnet mask is ones"},
        {R"({"lan": {"channels": [{"number": 3, "medium": "serial", "ip_address": "10.0.0.1"}]}})",
         "/lan/channels/0/ip_address: LAN settings belong to 802.3"},
        // FRU devices.
        {R"({"fru": [{"fru_id": 0, "board": {"serial_number": {"bcd": "12A"}}}]})",
         "/fru/0/board/serial_number/bcd: BCD plus holds only"},
        {R"({"fru": [{"fru_id": 0, "chassis": {"part_number": "X"}}]})", "/fru/0/chassis/part_number: a one-character"},
        {R"({"fru": [{"fru_id": 0, "board": {"manufacturer": ")" + std::string(64, 'm') + R"("}}]})",
         "/fru/0/board/manufacturer: the field takes 64 bytes"},
        {R"({"fru": [{"fru_id": 0, "size": 16, "board": {}}]})", "/fru/0/size: the FRU data takes 24 bytes"},
        {R"({"fru": [{"fru_id": 0}, {"fru_id": "0x00"}]})",
         "/fru/1/fru_id: FRU device 0x00 is already described by /fru/0"},
        {R"({"fru": [{"fru_id": 0, "word_access": true, "size": 33}]})", "/fru/0: a device accessed by words"},
        // The internal event log and the EEPROM blocks.
        {R"({"iel": {"capacity": 1, "entries": [{"time": 0, "text": "a"}, {"time": 0, "text": "b"}]}})",
         "/iel/entries: 2 entries do not fit"},
        {R"({"iel": {"entries": [{"time": 0, "text": "x", "severity": "fatal"}]}})",
         "/iel/entries/0/severity: expected"},
        {R"({"host_agent": {"state": "online"}})", "/host_agent/state: expected"},
        {R"({"eeprom_info": ["00 01"]})", "/eeprom_info/0: expected exactly 16 bytes"},
        // Processors and memory modules.
        {R"({"sensors": [{"record": "compact", "number": 1, "entity": 3, "instance": 1, "type": 7,
                          "event_reading_type": "0x6F", "name": "CPU", "state": 0}],
             "processors": [{"socket": "C", "sensor": 1}]})",
         "/processors/0/sensor: the sensor's state lacks the presence bit"},
        {R"({"memory": {"modules": [{"slot": "A1", "frequency": 4800, "capacity_mb": 40000}]}})",
         "/memory/modules/0/capacity_mb: a capacity of 32768 MB or more"},
        {R"({"memory": {"modules": [{"slot": "A2", "empty": true, "spd": "00"}]}})",
         "/memory/modules/0/spd: an empty slot holds no module"},
        {R"({"memory": {"modules": [{"slot": "A1", "frequency": 1, "capacity_mb": 1024,
                                     "spd": {"file": "missing.bin"}}]}})",
         "/memory/modules/0/spd/file: missing.bin: cannot read"},
    };
    for (const auto &[part, message] : cases) {
        json doc = tvxtest::baseProfile();
        doc.merge_patch(json::parse(part));
        tvxtest::TempDir state;
        std::string error = "(accepted)";
        try {
            tvxsim::Profile p = tvxsim::parseProfile(doc.dump(2), "t.json");
            tvxsim::Controller c(p, state.path());
            tvxsim::parseFruModel(p);
        } catch (const tvxsim::ProfileError &e) {
            error = e.what();
        }
        EXPECT_EQ(error.rfind("t.json: " + message, 0), 0u) << error;
        EXPECT_FALSE(std::filesystem::exists(state.file("t.state.json"))) << "no state written for " << message;
    }
}

// A syntax error gives line and column; a directory opens like a file but cannot be read, which
// must not pass for an empty profile with a syntax error at 1:1. Only regular files of a
// sensible size and depth are read: no device grows without end, no FIFO waits forever, no
// nesting costs the stack.
TEST(Profile, SyntaxErrorsAndUnreadableFiles)
{
    tvxtest::TempDir dir;
    tvxtest::writeFile(dir.file("t.json"), "{\n  \"controller\": {\n    \"firmware_revision\": \"3.52\",\n  }\n}\n");
    tvxtest::writeFile(dir.file("deep.json"), "{\"controller\": " + std::string(100000, '[') + std::string(100000, ']') + "}");
    tvxtest::writeFile(dir.file("huge.json"), "{\"description\": 2e0330}");
    ASSERT_EQ(mkfifo(dir.file("fifo.json").c_str(), 0600), 0);
    tvxtest::writeFile(dir.file("big.json"), "");
    ASSERT_EQ(truncate(dir.file("big.json").c_str(), (16 << 20) + 1), 0); // sparse: costs no disk
    for (const auto &[path, message] : {std::pair{dir.file("t.json"), std::string(":4:3: syntax error")},
                                        {dir.path(), std::string(": cannot read")},
                                        {dir.file("deep.json"), std::string(":1:79: nested deeper than 64 levels")},
                                        {dir.file("huge.json"), std::string(": number overflow parsing '2e0330'")},
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
