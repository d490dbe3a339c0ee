// The virtual controller behind the platform library: machine selection and injected faults.
#include <gtest/gtest.h>

#include <cstring>

#include "libipmi.h"
#include "libipmi_host.h"
#include "scratch.h"

using nlohmann::json;
using Bytes = std::vector<uint8_t>;
using tvxtest::TempDir;

namespace {

struct Result {
    uint16_t status;
    Bytes bytes; // what was stored, completion code first
};

class Host : public testing::Test {
protected:
    void SetUp() override
    {
        profilePath_ = dir_.file("host-test.json");
        select(tvxtest::baseProfile());
    }
    void TearDown() override
    {
        if (open_) LIBIPMI_CloseSession(session());
    }

    void select(const json &doc)
    {
        tvxtest::writeFile(profilePath_, doc.dump());
        ASSERT_EQ(ipmihost_select_machine(profilePath_.c_str(), dir_.path().c_str()), 0) << ipmihost_last_error();
    }
    IpmiSession *session() { return reinterpret_cast<IpmiSession *>(block_); }
    void open()
    {
        std::memset(block_, 0, sizeof block_);
        uint8_t priv = 4;
        ASSERT_EQ(LIBIPMI_Create_IPMI_Local_Session_Ext(session(), nullptr, nullptr, &priv, nullptr, nullptr, 0,
                                                        nullptr, 0, 0),
                  0)
            << ipmihost_last_error();
        open_ = true;
    }
    Result raw(uint8_t netFn, uint8_t cmd, Bytes req = {})
    {
        if (!open_) open();
        uint8_t res[64];
        std::memset(res, 0x5A, sizeof res);
        uint32_t len = sizeof res;
        uint16_t st = LIBIPMI_Send_RAW_IPMI2_0_Command(session(), 0, static_cast<uint8_t>(netFn << 2), cmd,
                                                       req.empty() ? nullptr : req.data(),
                                                       static_cast<uint32_t>(req.size()), res, &len, 5);
        EXPECT_LE(len, sizeof res);
        return {st, Bytes(res, res + std::min<uint32_t>(len, sizeof res))};
    }
    static ipmihost_fault fault(uint8_t netFn, uint8_t cmd, int kind, uint8_t value = 0, uint32_t count = 0,
                                Bytes match = {})
    {
        ipmihost_fault f{};
        f.netFn = netFn;
        f.command = cmd;
        f.kind = kind;
        f.value = value;
        f.count = count;
        f.matchLen = static_cast<uint8_t>(match.size());
        std::copy(match.begin(), match.end(), f.match);
        return f;
    }

    TempDir dir_;
    std::string profilePath_;
    alignas(8) unsigned char block_[LIBIPMI_SESSION_SIZE] = {};
    bool open_ = false;
};

Bytes xorData(Bytes b, uint8_t with)
{
    for (std::size_t i = 1; i < b.size(); ++i) b[i] ^= with;
    return b;
}

TEST_F(Host, EachInjectedFaultKindBecomesItsStatus)
{
    const Bytes good = raw(0x06, 0x01).bytes;
    ASSERT_EQ(good.size(), 16u);
    ASSERT_EQ(good[0], 0x00);
    Bytes longer = good;
    longer.insert(longer.end(), 3, 0xEE);
    struct Case {
        const char *name;
        int kind;
        uint8_t value;
        uint16_t status;
        Bytes stored;
    };
    const Case cases[] = {
        {"completion code", IPMIHOST_FAULT_COMPLETION_CODE, 0xC0, LIBIPMI_STATUS_COMPLETION_CODE(0xC0), {0xC0}},
        {"no answer", IPMIHOST_FAULT_NO_ANSWER, 0, LIBIPMI_STATUS_TIMEOUT, {}},
        {"short to nothing", IPMIHOST_FAULT_SHORT, 0, LIBIPMI_STATUS_BAD_RESPONSE, {}},
        {"long", IPMIHOST_FAULT_LONG, 3, LIBIPMI_STATUS_OK, longer},
        {"garbled default", IPMIHOST_FAULT_GARBLED, 0, LIBIPMI_STATUS_OK, xorData(good, 0xA5)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ipmihost_fault f = fault(0x06, 0x01, c.kind, c.value, 1);
        ASSERT_EQ(ipmihost_inject_fault(&f), 0) << ipmihost_last_error();
        Result hit = raw(0x06, 0x01);
        EXPECT_EQ(hit.status, c.status);
        EXPECT_EQ(hit.bytes, c.stored);
        Result next = raw(0x06, 0x01);
        EXPECT_EQ(next.status, LIBIPMI_STATUS_OK);
        EXPECT_EQ(next.bytes, good);
    }
}

TEST_F(Host, ALostRequestIsNotCarriedOutAndFaultsCanBeCleared)
{
    ipmihost_fault lost = fault(0x06, 0x06, IPMIHOST_FAULT_NO_ANSWER, 0, 0, {0x83});
    ASSERT_EQ(ipmihost_inject_fault(&lost), 0);
    ipmihost_reset_request_count();
    EXPECT_EQ(raw(0x06, 0x06, {0x83, 0x7F}).status, LIBIPMI_STATUS_TIMEOUT);
    EXPECT_EQ(raw(0x06, 0x07).bytes, (Bytes{0x00, 0x00, 0x00}));
    EXPECT_EQ(ipmihost_request_count(), 2u); // the lost request counts too
    ipmihost_clear_faults();
    EXPECT_EQ(raw(0x06, 0x06, {0x83, 0x7F}).status, LIBIPMI_STATUS_OK);
    EXPECT_EQ(raw(0x06, 0x07).bytes, (Bytes{0x00, 0x03, 0x00}));
}

TEST_F(Host, BadProfileKeepsThePreviousMachine)
{
    const std::string statePath = ipmihost_state_file();
    EXPECT_EQ(statePath, dir_.file("host-test.state.json"));
    const std::string badPath = dir_.file("broken.json");
    json bad = tvxtest::baseProfile();
    bad["controller"]["product_id"] = 0x10000;
    tvxtest::writeFile(badPath, bad.dump());

    EXPECT_EQ(ipmihost_select_machine(badPath.c_str(), dir_.path().c_str()), -1);
    const std::string err = ipmihost_last_error();
    EXPECT_NE(err.find(badPath + ": /controller/product_id: "), std::string::npos) << err;
    EXPECT_FALSE(std::filesystem::exists(dir_.file("broken.state.json")));
    EXPECT_FALSE(std::filesystem::exists(dir_.file("broken.lock")));

    // Sessions still reach the machine selected before.
    EXPECT_EQ(ipmihost_state_file(), statePath);
    Result id = raw(0x06, 0x01);
    ASSERT_EQ(id.status, LIBIPMI_STATUS_OK);
    EXPECT_EQ(id.bytes[10], 0x34);
    EXPECT_EQ(id.bytes[11], 0x12);
}

TEST_F(Host, CorruptStateFailsSelectionNamingTheFile)
{
    const std::string statePath = ipmihost_state_file();
    tvxtest::writeFile(statePath, "{ not json");
    EXPECT_EQ(ipmihost_select_machine(profilePath_.c_str(), dir_.path().c_str()), -1);
    const std::string err = ipmihost_last_error();
    EXPECT_EQ(err.rfind(statePath + ": ", 0), 0u) << err;
}

} // namespace
