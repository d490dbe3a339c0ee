// FRU inventory over LAN from ipmi_sim, which answers at most 34 FRU bytes per read: the
// platform reads FRU 0 in chunks and decodes what ipmitool prints for the same simulator.
#include <gtest/gtest.h>

#include "scripted.h"
#include "support.h"

using namespace realpeer;

namespace {

// Texts as ipmitool shows them: absent and empty fields print nothing; the blanks that pad
// 6-bit and BCD plus texts are not shown.
std::vector<std::string> shown(std::initializer_list<const char *> list)
{
    std::vector<std::string> out;
    for (const char *t : list)
        if (t && *t) out.push_back(trim(t));
    return out;
}

} // namespace

TEST(RealPeerFru, ReadsInChunksWhatIpmitoolPrints)
{
    auto &peer = defaultPeer();
    ASSERT_EQ(ipmihost_select_target(peer.target("&timeout=2000").c_str(), nullptr), 0) << ipmihost_last_error();
    PlatformSession s;
    ASSERT_EQ(s.open(), 0);
    FruData r{};
    uint32_t length = 0;
    ASSERT_EQ(LIBIPMI_HL_GetFRUData(s.get(), 0, &length, &r, 60), 0) << ipmihost_last_error();
    EXPECT_EQ(length, 512u);
    ASSERT_EQ(r.boardCustomCount, 3); // 8-bit, 6-bit and binary
    ASSERT_EQ(r.productCustomCount, 1);

    Outcome tool = ipmitool(peer, {"fru", "print", "0"});
    ASSERT_EQ(tool.code, 0) << tool;
    Fields printed = fields(tool.out);
    const std::pair<const char *, std::vector<std::string>> kFields[] = {
        // clang-format off
        {"Board Mfg", shown({r.boardManufacturer.text})}, {"Board Product", shown({r.boardProductName.text})},
        {"Board Serial", shown({r.boardSerialNumber.text})}, {"Board Part Number", shown({r.boardPartNumber.text})},
        {"Board Extra", shown({r.boardCustomFields[0], r.boardCustomFields[1], r.boardCustomFields[2]})},
        {"Product Manufacturer", shown({r.productManufacturer.text})},
        {"Product Name", shown({r.productName.text})}, {"Product Part Number", shown({r.productPartNumber.text})},
        {"Product Version", shown({r.productVersion.text})}, {"Product Serial", shown({r.productSerialNumber.text})},
        {"Product Asset Tag", shown({r.productAssetTag.text})}, {"Product Extra", shown({r.productCustomFields[0]})},
        // clang-format on
    };
    for (const auto &[label, ours] : kFields) {
        SCOPED_TRACE(label);
        EXPECT_FALSE(ours.empty());
        EXPECT_EQ(printed[label], ours) << tool.out;
    }
    s.close();
    ipmihost_select_default();
}
