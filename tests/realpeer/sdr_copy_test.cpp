// tvxctl's SDR repository over LAN kept on disk between runs: what a warm run sends (counted by
// the library's LAN statistics, never timed), and that a changed repository is read again.
#include <gtest/gtest.h>

#include "support.h"

using namespace realpeer;

namespace {

// The request count of one tvxctl run with --stats ("LAN requests N, ...").
unsigned long requests(const Outcome &r)
{
    const std::string key = "LAN requests ";
    std::size_t at = r.err.rfind(key);
    return at == std::string::npos ? ~0ul : std::stoul(r.err.substr(at + key.size()));
}

TEST(RealPeerSdrCopy, AWarmRunSendsTheReadingsAndOneRepositoryInfo)
{
    auto peer = startPeer("sdrcopy", defaultProfile());
    const std::string cache = workDir("sdrcopy-cache");
    const std::vector<std::string> env = {"XDG_CACHE_HOME=" + cache};
    Outcome cold = tvxctl(peer.get(), {"--stats", "sdr"}, env);
    ASSERT_EQ(cold.code, 0) << cold;
    Outcome warm = tvxctl(peer.get(), {"--stats", "sdr"}, env);
    ASSERT_EQ(warm.code, 0) << warm;
    EXPECT_EQ(warm.out, cold.out);
    // Every sensor of the table read once (locator records have no reading), and Get SDR
    // Repository Info.
    const auto table = nlohmann::json::parse(tvxctl(peer.get(), {"--json", "sdr"}, env).out);
    unsigned long sensors = 0;
    for (const auto &row : table) sensors += !row["sensor_number"].is_null();
    ASSERT_GT(sensors, 10u);
    EXPECT_EQ(requests(warm), sensors + 1) << warm.err;
    EXPECT_GT(requests(cold), requests(warm) + table.size()) << cold.err;
    Outcome bypass = tvxctl(peer.get(), {"--stats", "--no-sdr-cache", "sdr"}, env);
    EXPECT_EQ(bypass.out, cold.out);
    EXPECT_GT(requests(bypass), requests(warm) + table.size()) << bypass.err;

    // A copy of other time stamps (a record added or erased since), or not a whole copy, is
    // read again and replaced.
    const std::string path = cache + "/tvx/sdr/127.0.0.1_" + std::to_string(peer->port());
    std::string bytes = tvxtest::readFile(path);
    ASSERT_GT(bytes.size(), 16u);
    for (const std::string &spoiled : {bytes.substr(0, 8) + "\x01" + bytes.substr(9), bytes.substr(0, bytes.size() - 3)}) {
        tvxtest::writeFile(path, spoiled);
        Outcome again = tvxctl(peer.get(), {"--stats", "sdr"}, env);
        EXPECT_EQ(again.out, cold.out);
        EXPECT_GT(requests(again), requests(warm) + table.size()) << again.err;
        EXPECT_EQ(tvxtest::readFile(path), bytes);
    }
}

} // namespace
