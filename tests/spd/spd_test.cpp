// The SPD decoders against decode-dimms on real and generated DDR3/DDR4 images, DDR5 against
// its layout by hand, and the images no decoder may trust.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "decodeUtil.h"
#include "scratch.h"
#include "tvx/spd.h"

namespace {

namespace spd = tvx::spd;
using Bytes = std::vector<uint8_t>;

// What the decoders and the capacity say of the first 512 bytes (the rest zero, as the
// library's zero-filled buffer leaves a short image).
struct Decoded {
    std::string type, module, voltage;
    int mts;
    uint64_t mb;
    bool operator==(const Decoded &) const = default;
};
void PrintTo(const Decoded &d, std::ostream *os)
{
    *os << d.type << " | " << d.module << " | " << d.voltage << " | " << d.mts << " | " << d.mb;
}
Decoded decode(const Bytes &image)
{
    std::array<uint8_t, 512> buf{};
    std::copy_n(image.begin(), std::min(image.size(), buf.size()), buf.begin());
    auto text = [](const char *s) { return std::string(s ? s : "-"); };
    const tvx::wire::View v(buf.data(), buf.size());
    return {text(spdUtilGetDeviceTypeString(buf.data())), text(spdUtilGetModuleTypeString(buf.data())),
            text(spdUtilGetVoltageInterface(buf.data())), spdUtilGetDDRFrequencyType(buf.data()),
            spd::checkedType(v) ? spd::capacityMb(v) : 0};
}

Bytes generate(const spd::ModuleSpec &spec, const std::function<void(Bytes &)> &patch = {})
{
    Bytes image(spd::kMaxSize);
    image.resize(spd::encode(spec, image));
    if (patch) patch(image), spd::seal(image);
    return image;
}

// decode-dimms' reading of the images, written as hex dumps ("0000: xx xx ...", 16 bytes a
// line): per image name, its "Label   value" lines.
std::map<std::string, std::map<std::string, std::string>> decodeDimms(const std::map<std::string, Bytes> &images)
{
    tvxtest::TempDir dir;
    std::string cmd = std::string(DECODE_DIMMS) + " -x";
    for (const auto &[name, bytes] : images) {
        std::string dump;
        for (std::size_t at = 0; at + 16 <= bytes.size(); at += 16) {
            char line[64];
            std::snprintf(line, sizeof line, "%04zx: ", at);
            tvx::wire::formatHex(std::span(bytes).subspan(at, 16), line + 6, sizeof line - 6);
            dump += std::string(line) + "\n";
        }
        tvxtest::writeFile(dir.file(name), dump);
        cmd += " " + dir.file(name);
    }
    std::map<std::string, std::map<std::string, std::string>> out;
    std::map<std::string, std::string> *current = nullptr;
    FILE *p = popen((cmd + " 2>&1").c_str(), "r");
    for (char buf[256]; p && std::fgets(buf, sizeof buf, p);) {
        const std::string line(buf, std::strcspn(buf, "\n"));
        const auto gap = line.find("  "), value = line.find_first_not_of(' ', gap);
        if (line.rfind("Decoding EEPROM: ", 0) == 0) current = &out[line.substr(line.rfind('/') + 1)];
        else if (current && gap != std::string::npos && gap > 0 && value != std::string::npos)
            (*current)[line.substr(0, gap)] = line.substr(value);
    }
    if (p) pclose(p);
    return out;
}

std::string squeeze(std::string s)
{
    std::erase(s, ' ');
    return s;
}

} // namespace

TEST(Spd, DecodersAgreeWithDecodeDimms)
{
    ASSERT_STRNE(DECODE_DIMMS, "") << "decode-dimms (Debian's i2c-tools) is not installed";
    const uint8_t ddr3 = spd::kDdr3, ddr4 = spd::kDdr4;
    std::map<std::string, Bytes> images = {
        {"ddr3-rdimm-1333", generate({ddr3, 0x01, 1333, 8192, true})},
        {"ddr3l-rdimm-1866", generate({ddr3, 0x01, 1866, 32768, true, 1350})},
        {"ddr3-udimm-1600", generate({ddr3, 0x02, 1600, 4096})},
        {"ddr3l-sodimm-1066", generate({ddr3, 0x03, 1066, 2048, false, 1350})},
        {"ddr3u-lrdimm-1600", generate({ddr3, 0x0B, 1600, 65536, true, 1250})},
        {"ddr3-72b-so-udimm-2133", generate({ddr3, 0x08, 2133, 8192, true})},
        {"ddr3-udimm-800-only-1.35v", generate({ddr3, 0x02, 800, 1024}, [](Bytes &b) { b[6] = 0x03; })},
        {"ddr4-rdimm-2400", generate({ddr4, 0x01, 2400, 32768, true})},
        {"ddr4-rdimm-2933", generate({ddr4, 0x01, 2933, 65536, true})},
        {"ddr4-udimm-2133", generate({ddr4, 0x02, 2133, 8192})},
        {"ddr4-udimm-1600", generate({ddr4, 0x02, 1600, 2048})},
        {"ddr4-sodimm-2666", generate({ddr4, 0x03, 2666, 16384})},
        {"ddr4-sodimm-1866", generate({ddr4, 0x03, 1866, 4096})},
        {"ddr4-lrdimm-3200", generate({ddr4, 0x04, 3200, 131072, true})},
    };
#ifdef TVX_SPD_DATA
    for (const auto &f : std::filesystem::directory_iterator(TVX_SPD_DATA)) {
        const std::string name = f.path().filename(), bytes = tvxtest::readFile(f.path());
        if (f.path().extension() == ".bin" && name.rfind("ddr5", 0) != 0)
            images[name] = Bytes(bytes.begin(), bytes.end());
    }
#endif
    const auto oracle = decodeDimms(images);
    for (const auto &[name, image] : images) {
        SCOPED_TRACE(name);
        ASSERT_FALSE(image.empty()) << "the encoder refused the module";
        ASSERT_TRUE(oracle.count(name)) << "decode-dimms did not decode the image (bad CRC?)";
        auto d = oracle.at(name);
        // decode-dimms lists DDR3 voltages its own way: "1.5V tolerant" when NOT 1.5 V operable.
        std::string volts =
            squeeze(d.count("Operable voltages") ? d["Operable voltages"] : d["Module Nominal Voltage"]);
        for (const char *tolerant : {"1.5Vtolerant,", "1.5Vtolerant"})
            if (volts.rfind(tolerant, 0) == 0) volts.erase(0, std::strlen(tolerant));
        if (auto x = volts.find("1.2XV"); x != std::string::npos) volts.replace(x, 5, "1.25V");
        Decoded got = decode(image);
        got.voltage = squeeze(got.voltage);
        EXPECT_EQ(got, (Decoded{d["Fundamental Memory type"], d["Module Type"], volts,
                                std::atoi(d["Maximum module speed"].c_str()), std::stoull(d["Size"])}));
    }
}

TEST(Spd, Ddr5ByItsLayout)
{
    struct Row {
        std::string name;
        Bytes image;
        Decoded want;
    };
    std::vector<Row> rows = {
        {"rdimm", generate({spd::kDdr5, 0x01, 4800, 65536, true}), {"DDR5 SDRAM", "RDIMM", "1.1 V", 4800, 65536}},
        {"udimm", generate({spd::kDdr5, 0x02, 5600, 16384}), {"DDR5 SDRAM", "UDIMM", "1.1 V", 5600, 16384}},
        {"nvdimm-n",
         generate({spd::kDdr5, 0x91, 6400, 32768, true}),
         {"DDR5 SDRAM", "NVDIMM-N RDIMM", "1.1 V", 6400, 32768}},
    };
    // The generated RDIMM's key bytes: type, module type, VDD, tCKmin 416 ps, two 32-bit
    // sub-channels with 8 ECC bits each.
    for (auto [at, value] : {std::pair{2, 0x12}, {3, 0x01}, {16, 0x00}, {20, 0xA0}, {21, 0x01}, {235, 0x32}})
        EXPECT_EQ(rows[0].image.at(at), value) << "byte " << at;
#ifdef TVX_SPD_DATA
    // The real modules, as the shared data's table reads them by the layout.
    std::istringstream tsv(tvxtest::readFile(TVX_SPD_DATA "/expected.tsv"));
    for (std::string line; std::getline(tsv, line);) {
        std::vector<std::string> c;
        for (std::istringstream cells(line); c.emplace_back(), std::getline(cells, c.back(), '\t');) {}
        if (c[1] != "DDR5 SDRAM") continue;
        const std::string bytes = tvxtest::readFile(TVX_SPD_DATA "/" + c[0]);
        rows.push_back(
            {c[0], Bytes(bytes.begin(), bytes.end()), {c[1], c[2], c[6], std::stoi(c[3]), std::stoull(c[5])}});
    }
    EXPECT_EQ(rows.size(), 6u);
#endif
    for (const Row &r : rows) EXPECT_EQ(decode(r.image), r.want) << r.name;
}

TEST(Spd, DecodersRefuseWhatTheyCannotTrust)
{
    const Bytes ddr3 = generate({spd::kDdr3, 0x02, 1600, 4096}), ddr4 = generate({spd::kDdr4, 0x01, 2400, 16384, true}),
                ddr5 = generate({spd::kDdr5, 0x02, 4800, 16384});
    const Decoded none{"-", "-", "-", -1, 0}, ddr3Udimm{"DDR3 SDRAM", "UDIMM", "1.5 V", 1600, 4096},
        ddr4Rdimm{"DDR4 SDRAM", "RDIMM", "1.2 V", 2400, 16384}, ddr5Udimm{"DDR5 SDRAM", "UDIMM", "1.1 V", 4800, 16384};
    auto with = [](Decoded d, auto field, auto value) { return d.*field = value, d; };
    struct Row {
        const char *name;
        const Bytes &base;
        std::function<void(Bytes &)> change;
        bool reseal;
        Decoded want;
    };
    const Bytes erased(512, 0xFF), blank(512, 0);
    const Row rows[] = {
        {"erased", erased, {}, false, none},
        {"blank", blank, {}, false, none},
        {"cut after 64 bytes", ddr4, [](Bytes &b) { std::fill(b.begin() + 64, b.end(), 0); }, false, none},
        {"DDR5 cut after 448 bytes", ddr5, [](Bytes &b) { std::fill(b.begin() + 448, b.end(), 0); }, false, none},
        {"a changed byte", ddr4, [](Bytes &b) { b[18] ^= 1; }, false, none},
        {"DDR2", ddr4, [](Bytes &b) { b[2] = 0x08; }, true, none},
        {"DDR4 declaring no bytes used", ddr4, [](Bytes &b) { b[0] = 0x20; }, true, none},
        {"DDR5 of 256 bytes", ddr5, [](Bytes &b) { b[0] = 0x10; }, true, none},
        {"DDR3 CRC over 0-116", ddr3, [](Bytes &b) { b[0] |= 0x80, spd::seal(b), b[120] ^= 0xFF; }, false, ddr3Udimm},
        {"DDR4 extended module type", ddr4, [](Bytes &b) { b[3] = 0x00; }, true,
         with(ddr4Rdimm, &Decoded::module, "-")},
        {"DDR4 NVDIMM-P", ddr4, [](Bytes &b) { b[3] = 0xA4; }, true,
         with(ddr4Rdimm, &Decoded::module, "NVDIMM-P LRDIMM")},
        {"DDR4 reserved hybrid", ddr4, [](Bytes &b) { b[3] = 0xB1; }, true, with(ddr4Rdimm, &Decoded::module, "-")},
        {"DDR4 1.2 V endurant only", ddr4, [](Bytes &b) { b[11] = 0x02; }, true,
         with(ddr4Rdimm, &Decoded::voltage, "-")},
        {"DDR3 no voltage", ddr3, [](Bytes &b) { b[6] = 0x01; }, true, with(ddr3Udimm, &Decoded::voltage, "-")},
        {"DDR3 1.35 and 1.25 V", ddr3, [](Bytes &b) { b[6] = 0x07; }, true,
         with(ddr3Udimm, &Decoded::voltage, "1.35 V, 1.25 V")},
        {"DDR5 reserved VDD", ddr5, [](Bytes &b) { b[16] = 0x10; }, true, with(ddr5Udimm, &Decoded::voltage, "-")},
        {"DDR3 in 1/16 ns", ddr3, [](Bytes &b) { b[11] = 16, b[12] = 20, b[34] = 0; }, true, ddr3Udimm},
        {"DDR3 no fine timebase", ddr3, [](Bytes &b) { b[9] = 0x10; }, true, with(ddr3Udimm, &Decoded::mts, -1)},
        {"DDR4 reserved timebases", ddr4, [](Bytes &b) { b[17] = 0x01; }, true, with(ddr4Rdimm, &Decoded::mts, -1)},
        {"DDR4 1500 ps", ddr4, [](Bytes &b) { b[18] = 12, b[125] = 0; }, true, with(ddr4Rdimm, &Decoded::mts, -1)},
        {"DDR4 700 ps", ddr4, [](Bytes &b) { b[18] = 6, b[125] = 0xCE; }, true, with(ddr4Rdimm, &Decoded::mts, 2666)},
        {"DDR4 500 ps", ddr4, [](Bytes &b) { b[18] = 4, b[125] = 0; }, true, with(ddr4Rdimm, &Decoded::mts, 3200)},
        {"DDR5 700 ps", ddr5, [](Bytes &b) { b[20] = 0xBC, b[21] = 0x02; }, true, with(ddr5Udimm, &Decoded::mts, -1)},
    };
    for (const Row &r : rows) {
        Bytes image = r.base;
        if (r.change) r.change(image);
        if (r.reseal) spd::seal(image);
        EXPECT_EQ(decode(image), r.want) << r.name;
    }
    EXPECT_EQ(spdUtilGetModuleTypeString(nullptr), nullptr);
    EXPECT_EQ(spdUtilGetDDRFrequencyType(nullptr), -1);
}
