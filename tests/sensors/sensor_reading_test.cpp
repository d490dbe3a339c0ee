// Sensor readings and component status through the scripted exchange: the exact request,
// and what each kind of answer turns into.
#include <cstdlib>
#include <cstring>

#include "scripted.h"

namespace {

class Scripted : public ScriptTest {
protected:
    void SetUp() override
    {
        ScriptTest::SetUp();
        open();
    }
    static void expect(uint8_t netFnLun, uint8_t cmd, const Bytes &req, uint16_t status, const Bytes &res)
    {
        expectRequest(netFnLun, cmd, req, status, res);
    }
    static ipmihost_call lastRaw() { return rawSince().back(); }
};

TEST_F(Scripted, SensorReadingAnswers)
{
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        int result;
        uint8_t reading;
        uint16_t state;
    } cases[] = {
        {"five bytes", 0, {0x00, 0x2A, 0xC0, 0x12, 0x85}, 1, 0x2A, 0x0512},
        {"four bytes", 0, {0x00, 0x2A, 0xC0, 0x12}, 1, 0x2A, 0x0012},
        {"three bytes", 0, {0x00, 0x2A, 0xC0}, 1, 0x2A, 0x0000},
        {"unavailable while scanning", 0, {0x00, 0x2A, 0x60, 0x12, 0x00}, 0, 0, 0},
        {"unavailable, scanning off", 0, {0x00, 0x2A, 0x20, 0x12, 0x00}, 1, 0, 0},
        {"completion code", 0x01CB, {0xCB}, 0, 0, 0},
        {"no answer", LIBIPMI_STATUS_TIMEOUT, {}, 0, 0, 0},
    };
    for (const auto &c : cases) {
        expect(0x10, 0x2D, {0x31}, c.status, c.answer);
        uint8_t reading = 0xEE;
        uint16_t state = 0xEEEE;
        EXPECT_EQ(ipmiGetSensorReading(session_, 0x31, &reading, &state), c.result) << c.what;
        EXPECT_EQ(reading, c.reading) << c.what;
        EXPECT_EQ(state, c.state) << c.what;
        ipmihost_call call = lastRaw();
        EXPECT_EQ(call.resLenIn, 5u) << c.what;
        EXPECT_EQ(call.timeout, 60) << c.what;
    }
    // Both outputs are optional; with no session nothing is sent.
    expect(0x10, 0x2D, {0x07}, 0, {0x00, 0x10, 0xC0, 0x00});
    EXPECT_EQ(ipmiGetSensorReading(session_, 0x07, nullptr, nullptr), 1);
    uint8_t reading = 0xEE;
    EXPECT_EQ(ipmiGetSensorReading(nullptr, 0x07, &reading, nullptr), 0);
    EXPECT_EQ(reading, 0xEE);
}

Bytes statusAnswer(uint8_t cc, Bytes tail)
{
    Bytes b = {cc, 0xD9, 0x7E, 0x00, 0x11, 0x22, 0x01, 0x02, 0x03, 0xFE, 0x44};
    b.insert(b.end(), tail.begin(), tail.end());
    return b;
}

TEST_F(Scripted, ComponentStatusRecord)
{
    const Bytes request = {0xD9, 0x7E, 0x00, 0x40, 0x5A, 0xA5, 0x01};
    const uint8_t key[2] = {0x5A, 0xA5};
    const struct {
        const char *what;
        uint16_t status;
        Bytes answer;
        bool record;
        int8_t st;
        uint8_t nameLength;
        std::string name;
    } cases[] = {
        {"full", 0, statusAnswer(0x00, {0x04, 'C', 'P', 'U', '1'}), true, 2, 4, "CPU1"},
        {"sixteen characters", 0, statusAnswer(0x00, {0x10, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K',
                                                      'L', 'M', 'N', 'O', 'P', 'Q'}),
         true, 2, 16, "ABCDEFGHIJKLMNOP"},
        {"name length too long", 0, statusAnswer(0x00, {0x11, 'A', 'B'}), true, 2, 17, ""},
        {"length byte masked", 0, statusAnswer(0x00, {0xE3, 'x', 'y', 'z'}), true, 2, 3, "xyz"},
        {"name cut by the answer", 0, statusAnswer(0x00, {0x08, 'a', 'b'}), true, 2, 8, "ab"},
        {"no name length", 0, statusAnswer(0x00, {}), true, 2, 0, ""},
        {"length only", 0, statusAnswer(0x00, {0x05}), true, 2, 5, ""},
        {"completion code 0x01", 0x0101, statusAnswer(0x01, {0x01, 'Z'}), true, -3, 1, "Z"},
        {"completion code 0x02", 0x0102, statusAnswer(0x02, {}), true, -2, 0, ""},
        {"completion code 0xCB", 0x01CB, statusAnswer(0xCB, {}), true, -1, 0, ""},
        {"ten bytes", 0, Bytes{0x00, 0xD9, 0x7E, 0x00, 0x11, 0x22, 0x01, 0x02, 0x03, 0xFE}, false, 0, 0, ""},
        {"bare completion code", 0x01C1, {0xC1}, false, 0, 0, ""},
        {"another vendor", 0, {0x00, 0x01, 0x02, 0x03, 1, 2, 3, 4, 5, 6, 7, 8}, false, 0, 0, ""},
        {"no answer", LIBIPMI_STATUS_TIMEOUT, {}, false, 0, 0, ""},
    };
    for (const auto &c : cases) {
        expect(0xB8, 0xF5, request, c.status, c.answer);
        ComponentStatus *s = oemGetComponentStatus(session_, key);
        EXPECT_EQ(lastRaw().resLenIn, 64u) << c.what;
        if (!c.record) {
            EXPECT_EQ(s, nullptr) << c.what;
            std::free(s);
            continue;
        }
        ASSERT_NE(s, nullptr) << c.what;
        EXPECT_EQ(s->componentId[0], 0x11) << c.what;
        EXPECT_EQ(s->componentId[1], 0x22) << c.what;
        EXPECT_EQ(0, std::memcmp(s->componentBytes, "\x01\x02\x03", 3)) << c.what;
        EXPECT_EQ(s->status, c.st) << c.what;
        EXPECT_EQ(s->componentByte, 0x44) << c.what;
        EXPECT_EQ(s->nameLength, c.nameLength) << c.what;
        EXPECT_EQ(std::string(s->name, strnlen(s->name, sizeof s->name)), c.name) << c.what;
        for (size_t i = c.name.size(); i < sizeof s->name; ++i) EXPECT_EQ(s->name[i], 0) << c.what << " pad " << i;
        std::free(s);
    }
}

} // namespace
