// The committed LAN parameter write, against a scripted raw exchange.
#include <deque>

#include <gtest/gtest.h>

#include "internal.h"
#include "lan_config_commit.h"

namespace {

struct Sent {
    uint8_t netFn, command;
    std::vector<uint8_t> data;
};

std::vector<Sent> gSent;
std::deque<uint16_t> gAnswers; // the status for each request in turn (0 when none is left)

} // namespace

// The test's own raw exchange: records the request and answers with the next status.
uint16_t libipmi::exchange(IpmiSession *, uint8_t netFn, uint8_t command, std::span<const uint8_t> request,
                           std::vector<uint8_t> &response, int, const Route *, uint8_t)
{
    gSent.push_back({netFn, command, std::vector<uint8_t>(request.begin(), request.end())});
    uint16_t status = 0;
    if (!gAnswers.empty()) status = gAnswers.front(), gAnswers.pop_front();
    if (status == 0) response = {0x00};
    else if (LIBIPMI_STATUS_IS_COMPLETION_CODE(status)) response = {static_cast<uint8_t>(status & 0xFF)};
    else response.clear();
    return status;
}

TEST(LanConfigCommit, WritesInsideATransactionWhereThereIsOne)
{
    using V = std::vector<uint8_t>;
    constexpr uint16_t cc80 = LIBIPMI_STATUS_COMPLETION_CODE(0x80), cc81 = LIBIPMI_STATUS_COMPLETION_CODE(0x81),
                       ccC9 = LIBIPMI_STATUS_COMPLETION_CODE(0xC9);
    const V ip = {0x01, 0x03, 192, 168, 1, 2};
    const V lock = {0x01, 0x00, 0x01}, commit = {0x01, 0x00, 0x02}, done = {0x01, 0x00, 0x00};
    struct Case {
        const char *what;
        V request;
        std::deque<uint16_t> answers;
        std::vector<V> sent;
        uint16_t status;
    };
    const Case cases[] = {
        {"the transaction, committed and ended", ip, {}, {lock, ip, commit, done}, 0},
        {"a refused write is not committed, but the transaction ends", ip, {0, ccC9}, {lock, ip, done}, ccC9},
        {"no transaction on this controller", ip, {cc80}, {lock, ip}, 0},
        {"another client's transaction is waited out, then one of our own", ip, {cc81, cc81}, {lock, lock, lock, ip, commit, done}, 0},
        {"one that does not end: nothing written, 0x81", ip, {cc81, cc81, cc81, cc81}, {lock, lock, lock, lock}, cc81},
        {"no answer to Set In Progress: nothing written", ip, {LIBIPMI_STATUS_TIMEOUT}, {lock}, LIBIPMI_STATUS_TIMEOUT},
        {"a commit without support (0x80) took effect", ip, {0, 0, cc80, 0}, {lock, ip, commit, done}, 0},
        {"a failed commit did not, but ends the transaction", ip, {0, 0, LIBIPMI_STATUS_TIMEOUT, 0}, {lock, ip, commit, done},
         LIBIPMI_STATUS_TIMEOUT},
    };
    // Waits of 1, 2 and 1 ms: four requests of Set In Progress in all.
    const libipmi::LanSetWait wait{4, 1, 2};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        gSent.clear();
        gAnswers = c.answers;
        std::vector<uint8_t> response;
        EXPECT_EQ(libipmi::setLanParameterCommitted(nullptr, c.request, response, 60, wait), c.status);
        // Each a Set LAN Configuration Parameters request.
        std::vector<std::tuple<uint8_t, uint8_t, V>> sent, want;
        for (const Sent &s : gSent) sent.push_back({s.netFn, s.command, s.data});
        for (const V &data : c.sent) want.push_back({0x0C, 0x01, data});
        EXPECT_EQ(sent, want);
        // The response is the parameter write's own.
        if (c.status == ccC9) {
            EXPECT_EQ(response, V{0xC9});
        }
    }
}
