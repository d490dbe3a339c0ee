// FRU inventory over LAN from ipmi_sim, which answers at most 34 FRU bytes per read: the
// platform reads FRU 0 in chunks and decodes what ipmitool prints for the same simulator.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "libipmi.h"
#include "libipmi_host.h"
#include "support.h"

using namespace realpeer;

namespace {

std::string trimmed(std::string s)
{
    while (!s.empty() && (s.back() == ' ' || s.back() == '\r')) s.pop_back();
    std::size_t start = s.find_first_not_of(' ');
    return start == std::string::npos ? "" : s.substr(start);
}

// "Label : value" lines of `ipmitool fru print`; repeated labels (custom fields) in order.
std::map<std::string, std::vector<std::string>> printedFields(const std::string &text)
{
    std::map<std::string, std::vector<std::string>> out;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(at, end - at);
        at = end + 1;
        std::size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        out[trimmed(line.substr(0, colon))].push_back(trimmed(line.substr(colon + 1)));
    }
    return out;
}

std::vector<std::string> texts(std::initializer_list<const char *> list)
{
    std::vector<std::string> out;
    for (const char *t : list)
        if (t && *t) out.push_back(trimmed(t));
    return out;
}

std::vector<std::string> customs(char **fields, uint8_t count)
{
    std::vector<std::string> out;
    for (uint8_t i = 0; i < count; ++i) out.push_back(trimmed(fields[i]));
    return out;
}

} // namespace

TEST(RealPeerFru, ReadsInChunksWhatIpmitoolPrints)
{
    auto &peer = defaultPeer();
    ASSERT_EQ(ipmihost_select_target(peer.target("&timeout=2000").c_str(), nullptr), 0) << ipmihost_last_error();
    alignas(8) uint8_t block[LIBIPMI_SESSION_SIZE] = {};
    auto *s = reinterpret_cast<IpmiSession *>(block);
    ASSERT_EQ(LIBIPMI_Create_IPMI_Local_Session_Ext(s, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, 2, 5),
              0)
        << ipmihost_last_error();
    FruData r;
    std::memset(&r, 0, sizeof r);
    uint32_t length = 0;
    ASSERT_EQ(LIBIPMI_HL_GetFRUData(s, 0, &length, &r, 60), 0) << ipmihost_last_error();
    EXPECT_EQ(length, 512u);

    Outcome tool = ipmitool(peer, {"fru", "print", "0"});
    ASSERT_EQ(tool.exitCode, 0) << tool.err;
    auto printed = printedFields(tool.out);
    const struct {
        const char *label;
        std::vector<std::string> ours;
    } kCases[] = {
        {"Board Mfg", texts({r.boardManufacturer.text})},
        {"Board Product", texts({r.boardProductName.text})},
        {"Board Serial", texts({r.boardSerialNumber.text})},
        {"Board Part Number", texts({r.boardPartNumber.text})},
        {"Board Extra", customs(r.boardCustomFields, r.boardCustomCount)},
        {"Product Manufacturer", texts({r.productManufacturer.text})},
        {"Product Name", texts({r.productName.text})},
        {"Product Part Number", texts({r.productPartNumber.text})},
        {"Product Version", texts({r.productVersion.text})},
        {"Product Serial", texts({r.productSerialNumber.text})},
        {"Product Asset Tag", texts({r.productAssetTag.text})},
        {"Product Extra", customs(r.productCustomFields, r.productCustomCount)},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.label);
        EXPECT_FALSE(c.ours.empty());
        EXPECT_EQ(printed[c.label], c.ours) << tool.out;
    }
    EXPECT_EQ(LIBIPMI_CloseSession(s), 0);
    ipmihost_select_default();
}
