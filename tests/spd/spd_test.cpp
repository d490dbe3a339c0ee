// The SPD decoders against decode-dimms on real and generated DDR3/DDR4 images, DDR5 against
// its layout by hand, and the images no decoder may trust.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <tuple>
#include <vector>

#include "decodeUtil.h"
#include "machine.h"
#include "tvx/spd.h"

namespace {

namespace spd = tvx::spd;
using Bytes = std::vector<uint8_t>;
// Type, module type, voltage ("-": NULL), frequency class and capacity in MB.
using Decoded = std::tuple<std::string, std::string, std::string, int, uint64_t>;

// What the decoders say of the image's first 512 bytes, zero-filled as the library hands them.
Decoded decode(Bytes image)
{
    image.resize(512);
    auto text = [](const char *s) { return std::string(s ? s : "-"); };
    const tvx::wire::View v(image.data(), image.size());
    return {text(spdUtilGetDeviceTypeString(image.data())), text(spdUtilGetModuleTypeString(image.data())),
            text(spdUtilGetVoltageInterface(image.data())), spdUtilGetDDRFrequencyType(image.data()),
            spd::checkedType(v) ? spd::capacityMb(v) : 0};
}

// An encoded module, changed afterwards (CRCs renewed) when `change` is given.
Bytes generate(const spd::Module &module, const std::function<void(Bytes &)> &change = {})
{
    Bytes image(spd::kMaxSize);
    image.resize(spd::encode(module, image));
    if (change) change(image), spd::seal(image);
    return image;
}

#ifdef TVX_SPD_DATA
Bytes load(const std::string &path)
{
    const std::string s = tvxtest::readFile(path);
    return Bytes(s.begin(), s.end());
}
#endif

// decode-dimms' reading of the images, handed over as od's hex dumps: per image, its
// "Label   value" lines.
std::map<std::string, std::map<std::string, std::string>> decodeDimms(const std::map<std::string, Bytes> &images)
{
    tvxtest::TempDir dir;
    for (const auto &[name, bytes] : images)
        tvxtest::writeFile(dir.file(name), std::string(bytes.begin(), bytes.end()));
    const std::string cmd = "cd '" + dir.path() +
                            "' && for f in *; do od -Ax -tx1 -v -w16 \"$f\" > \"$f.hex\"; done && " + DECODE_DIMMS +
                            " -x *.hex 2>&1";
    std::map<std::string, std::map<std::string, std::string>> out;
    std::map<std::string, std::string> *current = nullptr;
    FILE *p = popen(cmd.c_str(), "r");
    for (char buf[256]; p && std::fgets(buf, sizeof buf, p);) {
        const std::string line(buf, std::strcspn(buf, "\n"));
        const auto gap = line.find("  "), value = line.find_first_not_of(' ', gap);
        if (line.rfind("Decoding EEPROM: ", 0) == 0) current = &out[line.substr(17, line.size() - 21)];
        else if (current && gap && value != std::string::npos) (*current)[line.substr(0, gap)] = line.substr(value);
    }
    if (p) pclose(p);
    return out;
}

} // namespace

TEST(Spd, DecodersAgreeWithDecodeDimms)
{
    ASSERT_STRNE(DECODE_DIMMS, "") << "decode-dimms (Debian's i2c-tools) is not installed";
    const uint8_t ddr3 = spd::kDdr3, ddr4 = spd::kDdr4;
    // clang-format off
    std::map<std::string, Bytes> images = {
        {"ddr3-rdimm-1333", generate({ddr3, 0x01, 1333, 8192, true})},
        {"ddr3l-rdimm-1866", generate({ddr3, 0x01, 1866, 32768, true, 1350})},
        {"ddr3-udimm-1600", generate({ddr3, 0x02, 1600, 4096})},
        {"ddr3-udimm-800-1.35v-only", generate({ddr3, 0x02, 800, 1024}, [](Bytes &b) { b[6] = 0x03; })},
        {"ddr3l-sodimm-1066", generate({ddr3, 0x03, 1066, 2048, false, 1350})},
        {"ddr3u-lrdimm-2133", generate({ddr3, 0x0B, 2133, 65536, true, 1250})},
        {"ddr4-rdimm-2400", generate({ddr4, 0x01, 2400, 32768, true})},
        {"ddr4-rdimm-2933", generate({ddr4, 0x01, 2933, 65536, true})},
        {"ddr4-udimm-2133", generate({ddr4, 0x02, 2133, 8192})},
        {"ddr4-sodimm-2666", generate({ddr4, 0x03, 2666, 16384})},
        {"ddr4-lrdimm-3200", generate({ddr4, 0x04, 3200, 131072, true})},
    };
    // clang-format on
#ifdef TVX_SPD_DATA
    for (const auto &f : std::filesystem::directory_iterator(TVX_SPD_DATA))
        if (f.path().extension() == ".bin" && f.path().filename().string().rfind("ddr5", 0) != 0)
            images[f.path().filename()] = load(f.path());
#endif
    const auto oracle = decodeDimms(images);
    for (const auto &[name, image] : images) {
        auto d = oracle.count(name) ? oracle.at(name) : std::map<std::string, std::string>{}; // none: a bad CRC
        // decode-dimms lists DDR3 voltages its own way: "1.5V tolerant" when NOT 1.5 V operable,
        // "1.2X V" for 1.25 V.
        std::string want = d.count("Operable voltages") ? d["Operable voltages"] : d["Module Nominal Voltage"];
        if (want.rfind("1.5V tolerant", 0) == 0) want.erase(0, want.find(',') + 1);
        if (auto x = want.find("1.2X"); x != std::string::npos) want.replace(x, 4, "1.25");
        auto got = decode(image);
        std::erase(std::get<2>(got), ' '), std::erase(want, ' ');
        EXPECT_EQ(got, Decoded(d["Fundamental Memory type"], d["Module Type"], want,
                               std::atoi(d["Maximum module speed"].c_str()), std::atoll(d["Size"].c_str())))
            << name;
    }
}

TEST(Spd, DecodersFollowTheLayout)
{
    const spd::Module udimm3{spd::kDdr3, 0x02, 1600, 4096}, rdimm4{spd::kDdr4, 0x01, 2400, 16384, true},
        udimm5{spd::kDdr5, 0x02, 4800, 16384};
    auto flipped = [](Bytes b, std::size_t at) { return b.at(at) ^= 0xFF, b; };
    auto cut = [](Bytes b, std::size_t size) { return b.resize(size), b; };
    const std::string t3 = "DDR3 SDRAM", t4 = "DDR4 SDRAM", t5 = "DDR5 SDRAM";
    const Decoded none{"-", "-", "-", -1, 0};
    // clang-format off
    std::vector<std::tuple<std::string, Bytes, Decoded>> rows = {
        {"DDR5 RDIMM", generate({spd::kDdr5, 0x01, 4800, 65536, true}), {t5, "RDIMM", "1.1 V", 4800, 65536}},
        {"DDR5 UDIMM", generate({spd::kDdr5, 0x02, 5600, 16384}), {t5, "UDIMM", "1.1 V", 5600, 16384}},
        {"erased", Bytes(512, 0xFF), none},
        {"DDR4 with a changed byte", flipped(generate(rdimm4), 18), none},
        {"DDR5 cut after 448 bytes", cut(generate(udimm5), 448), none},
        {"DDR4 declaring no bytes used", generate(rdimm4, [](Bytes &b) { b[0] = 0x20; }), none},
        {"DDR5 of 256 bytes", generate(udimm5, [](Bytes &b) { b[0] = 0x10; }), none},
        {"DDR3 CRC over 0-116", flipped(generate(udimm3, [](Bytes &b) { b[0] |= 0x80; }), 120), {t3, "UDIMM", "1.5 V", 1600, 4096}},
        {"DDR4 extended type", generate(rdimm4, [](Bytes &b) { b[3] = 0x00; }), {t4, "-", "1.2 V", 2400, 16384}},
        {"DDR4 NVDIMM-P", generate(rdimm4, [](Bytes &b) { b[3] = 0xA4; }), {t4, "NVDIMM-P LRDIMM", "1.2 V", 2400, 16384}},
        {"DDR4 reserved hybrid", generate(rdimm4, [](Bytes &b) { b[3] = 0xB1; }), {t4, "-", "1.2 V", 2400, 16384}},
        {"DDR4 1.2 V endurant only", generate(rdimm4, [](Bytes &b) { b[11] = 0x02; }), {t4, "RDIMM", "-", 2400, 16384}},
        {"DDR3 no voltage", generate(udimm3, [](Bytes &b) { b[6] = 0x01; }), {t3, "UDIMM", "-", 1600, 4096}},
        {"DDR5 reserved VDD", generate(udimm5, [](Bytes &b) { b[16] = 0x10; }), {t5, "UDIMM", "-", 4800, 16384}},
        {"DDR3 in 1/16 ns", generate(udimm3, [](Bytes &b) { b[11] = 16, b[12] = 20, b[34] = 0; }), {t3, "UDIMM", "1.5 V", 1600, 4096}},
        {"DDR3 no fine timebase", generate(udimm3, [](Bytes &b) { b[9] = 0x10; }), {t3, "UDIMM", "1.5 V", -1, 4096}},
        {"DDR4 reserved timebases", generate(rdimm4, [](Bytes &b) { b[17] = 0x01; }), {t4, "RDIMM", "1.2 V", -1, 16384}},
        {"DDR4 1500 ps", generate(rdimm4, [](Bytes &b) { b[18] = 12, b[125] = 0; }), {t4, "RDIMM", "1.2 V", -1, 16384}},
        {"DDR4 700 ps", generate(rdimm4, [](Bytes &b) { b[18] = 6, b[125] = 0xCE; }), {t4, "RDIMM", "1.2 V", 2666, 16384}},
    };
    // clang-format on
    // The generated DDR5 RDIMM's type, module type, VDD, tCKmin (416 ps) and two 32-bit
    // sub-channels with 8 ECC bits each, as the layout places them.
    for (auto [at, value] : {std::pair{2, 0x12}, {3, 0x01}, {16, 0x00}, {20, 0xA0}, {21, 0x01}, {235, 0x32}})
        EXPECT_EQ(std::get<1>(rows[0]).at(at), value) << "byte " << at;
#ifdef TVX_SPD_DATA
    // The real DDR5 modules, as the shared data's table reads them by the layout.
    std::istringstream tsv(tvxtest::readFile(TVX_SPD_DATA "/expected.tsv"));
    for (std::string line, c[7]; std::getline(tsv, line);) {
        std::istringstream cells(line);
        for (std::string &cell : c) std::getline(cells, cell, '\t');
        if (c[1] == "DDR5 SDRAM")
            rows.push_back(
                {c[0], load(TVX_SPD_DATA "/" + c[0]), {c[1], c[2], c[6], std::stoi(c[3]), std::stoull(c[5])}});
    }
#endif
    for (const auto &[name, image, want] : rows) EXPECT_EQ(decode(image), want) << name;
    EXPECT_EQ(spdUtilGetModuleTypeString(nullptr), nullptr);
}
