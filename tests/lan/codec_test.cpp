// What libfreeipmi reports, as this library's statuses and answers.
#include <freeipmi/api/ipmi-api.h>
#include <gtest/gtest.h>

#include "lan_codec.h"

using namespace libipmi;

TEST(LanCodec, ErrorsMapToTheLibraryStatuses)
{
    const std::pair<int, uint16_t> cases[] = {
        // One error of each status.
        {IPMI_ERR_PASSWORD_INVALID, LIBIPMI_STATUS_AUTH_FAILED},  {IPMI_ERR_SESSION_TIMEOUT, LIBIPMI_STATUS_TIMEOUT},
        {IPMI_ERR_HOSTNAME_INVALID, LIBIPMI_STATUS_CONFIG_ERROR}, {IPMI_ERR_OUT_OF_MEMORY, LIBIPMI_STATUS_NO_MEMORY},
        {IPMI_ERR_SYSTEM_ERROR, LIBIPMI_STATUS_TRANSPORT},
    };
    for (auto [errnum, status] : cases) {
        EXPECT_EQ(lan::statusForError(errnum), status) << "errnum " << errnum;
        // None of these may look like a completion code.
        EXPECT_FALSE(LIBIPMI_STATUS_IS_COMPLETION_CODE(lan::statusForError(errnum)));
    }
    EXPECT_EQ(std::tuple(lan::connectionLost(IPMI_ERR_SESSION_TIMEOUT), lan::connectionLost(IPMI_ERR_SYSTEM_ERROR),
                         lan::connectionLost(IPMI_ERR_PARAMETERS)),
              std::tuple(true, true, false));
}

TEST(LanCodec, RawResponsesLoseTheCommandByte)
{
    using V = std::vector<uint8_t>;
    // clang-format off
    for (const auto &[raw, status, bytes] : {
             std::tuple{V{0x01, 0x00, 0x20, 0x83}, LIBIPMI_STATUS_OK, std::optional<V>(V{0x00, 0x20, 0x83})},
             {V{0x01, 0xCB, 0x01}, LIBIPMI_STATUS_COMPLETION_CODE(0xCB), V{0xCB, 0x01}},
             {V{0x01}, LIBIPMI_STATUS_BAD_RESPONSE, std::nullopt},       // no completion code after the command
             {V{}, LIBIPMI_STATUS_BAD_RESPONSE, std::nullopt},
             {V{0x02, 0x00}, LIBIPMI_STATUS_BAD_RESPONSE, std::nullopt}}) { // the answer to another command
        // clang-format on
        Answer a = lan::answerFromRaw(0x01, raw);
        EXPECT_EQ(std::tuple(a.status, a.bytes), std::tuple(status, bytes));
    }
    // Never more than the platform's largest response.
    std::vector<uint8_t> huge(LIBIPMI_MAX_RESPONSE_LEN + 10, 0x11);
    huge[0] = 0x05;
    huge[1] = 0x00;
    Answer a = lan::answerFromRaw(0x05, huge);
    ASSERT_TRUE(a.bytes);
    EXPECT_EQ(a.bytes->size(), LIBIPMI_MAX_RESPONSE_LEN);
}
