// ipmitool's verbs in tvxctl against ipmi_sim, beside ipmitool itself on the same simulator:
// the same lines for chassis status, and the same decoding of every SEL record by sel elist.
#include <cstdlib>

#include <gtest/gtest.h>

#include "support.h"

using namespace realpeer;

namespace {

TEST(IpmitoolVerbs, ChassisStatusPrintsWhatIpmitoolPrints)
{
    Outcome ours = tvxctl(&defaultPeer(), {"chassis", "status"});
    Outcome theirs = ipmitool(defaultPeer(), {"chassis", "status"});
    ASSERT_TRUE(ours.code == 0 && theirs.code == 0) << ours.err << theirs.err;
    EXPECT_EQ(ours.out, theirs.out);
}

TEST(IpmitoolVerbs, SelElistDecodesEveryRecordAsIpmitoolDoes)
{
    setenv("TZ", "UTC", 1); // both print the controller's times in the local zone
    auto peer = startPeer("elist", defaultProfile());
    // A threshold event, a sensor-specific one, and a deassertion, beside the profile's log.
    for (const std::vector<std::string> &event : {std::vector<std::string>{"0x01", "0x30", "0x01", "0x09", "0xff", "0xff"},
                                                  {"0x07", "0x01", "0x6f", "0x00", "0xff", "0xff"},
                                                  {"0x04", "0x40", "0x81", "0x02", "0xff", "0xff"}}) {
        std::vector<std::string> args = {"sel", "add"};
        args.insert(args.end(), event.begin(), event.end());
        ASSERT_EQ(tvxctl(peer.get(), args).code, 0);
    }
    Outcome ours = tvxctl(peer.get(), {"sel", "elist"});
    Outcome theirs = ipmitool(*peer, {"sel", "elist"});
    ASSERT_TRUE(ours.code == 0 && theirs.code == 0) << ours.err << theirs.err;
    // The columns of each line: ID, date, time, sensor, event, direction (ipmitool's reading
    // and threshold after them, which tvxctl does not print, are left out).
    auto a = table(ours.out, '|'), b = table(theirs.out, '|');
    ASSERT_EQ(a.size(), b.size()) << ours.out << "---\n" << theirs.out;
    ASSERT_GE(a.size(), 3u);
    for (size_t i = 0; i < a.size(); ++i) {
        auto &mine = a[i], &peers = b[i];
        for (auto *cells : {&mine, &peers}) cells->resize(std::min<size_t>(cells->size(), 6));
        SCOPED_TRACE(testing::PrintToString(mine) + "\n" + testing::PrintToString(peers));
        ASSERT_EQ(mine.size(), peers.size());
        if (mine.size() < 5) { // an OEM record without a time stamp: ID, type, bytes
            EXPECT_EQ(mine, peers);
            continue;
        }
        // The sensor's type word: ipmitool knows no vendor sensor types ("Unknown", and no
        // event text) and calls 0x23 "Watchdog2"; the library's tables name them. The sensor's
        // name or number after it is the same.
        const std::string label = peers[3].substr(peers[3].find(' ') + 1);
        EXPECT_TRUE(mine[3].ends_with(label)) << mine[3];
        const bool vendorType = peers[3].rfind("Unknown ", 0) == 0;
        for (size_t c = 0; c < mine.size(); ++c)
            if (c != 3 && !(vendorType && c == 4)) {
                EXPECT_EQ(mine[c], peers[c]) << "column " << c;
            }
    }
}

} // namespace
