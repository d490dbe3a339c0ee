// Scratch directories and files for the tests that run a virtual controller, and a small
// machine profile distinct from the default one in every identity field.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace tvxtest {

using nlohmann::json;

// A directory that exists for the life of the object.
class TempDir {
public:
    TempDir()
    {
        std::string tmpl = (std::filesystem::temp_directory_path() / "tvx-test-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
        path_ = tmpl;
    }
    ~TempDir()
    {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline void writeFile(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + path);
}

inline std::string readFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline json readJson(const std::string &path) { return json::parse(readFile(path)); }

inline json baseProfile()
{
    return json::parse(R"({"description": "test machine", "controller": {"device_id": 32, "firmware_revision": "1.07",
      "ipmi_version": "2.0", "manufacturer_id": 32473, "product_id": "0x1234", "aux_firmware_revision": [1, 2, 3, 4]}})");
}

} // namespace tvxtest
