// Virtual machines for tests and benchmarks: scratch directories, profiles, and the one
// fixture that writes a profile into a scratch directory (which also holds its state),
// selects it and opens a library session, all undone at the end. Free of gtest, so the
// benchmarks use it too; failures throw, which a test reports as its failure.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "libipmi_host.h"
#include "tvx/session.h"

namespace tvxtest {

using nlohmann::json;

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

// A heap text the library returned, freed ("(null)" for none).
inline std::string take(char *s)
{
    std::string out = s ? s : "(null)";
    std::free(s);
    return out;
}

// The lines of a list the library returned, freed.
inline std::vector<std::string> lines(ListNode *list)
{
    std::vector<std::string> out;
    for (ListNode *n = list; n; n = n->next) out.emplace_back(reinterpret_cast<const char *>(n->data));
    freeList(&list);
    return out;
}

// A shipped machine profile (machines/NAME).
inline json shippedProfile(const std::string &name) { return readJson(std::string(TVX_MACHINES_DIR) + "/" + name); }

// A small profile distinct from the default machine in every identity field.
inline json baseProfile()
{
    return json::parse(R"({"description": "test machine", "controller": {"device_id": 32, "firmware_revision": "1.07",
      "ipmi_version": "2.0", "manufacturer_id": 32473, "product_id": "0x1234", "aux_firmware_revision": [1, 2, 3, 4]}})");
}

// The default machine with `count` generated sensors: full temperature and compact fan
// records in turn, entity instances spread so that lookups have to walk.
inline json generatedRepository(int count)
{
    json profile = shippedProfile("default.json"), sensors = json::array();
    for (int i = 0; i < count; ++i) {
        bool full = i % 2 == 0;
        sensors.push_back({{"record", full ? "full" : "compact"},
                           {"number", i % 250},
                           {"lun", i / 250},
                           {"name", "S" + std::to_string(i)},
                           {"entity", full ? 0x03 : 0x1D},
                           {"instance", i % 120},
                           {"type", full ? 0x01 : 0x04},
                           {"event_reading_type", 0x01},
                           {"units", {{"base", full ? 1 : 18}}},
                           {"reading", 40 + i % 10}});
    }
    profile["sensors"] = sensors;
    // The parts whose records or sensors are gone.
    for (const char *part : {"fru_locators", "mc_locators", "components", "processors", "fan_speed_limits"})
        profile.erase(part);
    profile["sdr"]["allocation_units"] = 8192;
    return profile;
}

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

// The machine of `profile` (written to DIR/machine.json, its state in DIR), selected, with a
// library session open.
class ScratchMachine {
public:
    explicit ScratchMachine(const json &profile) { start(profile); }
    ~ScratchMachine()
    {
        session_.close();
        ipmihost_select_default();
    }
    ScratchMachine(const ScratchMachine &) = delete;
    ScratchMachine &operator=(const ScratchMachine &) = delete;

    // Selects `profile` anew on a new session; afresh: from the profile, not the kept state.
    void start(const json &profile, bool afresh = false)
    {
        session_.close();
        writeFile(profilePath(), profile.dump());
        if (ipmihost_select_machine(profilePath().c_str(), dir_.path().c_str()) != 0 ||
            (afresh && ipmihost_reset_machine() != 0))
            throw std::runtime_error(ipmihost_last_error());
        if (!session_.open()) throw std::runtime_error("no session: " + std::string(ipmihost_last_error()));
    }
    IpmiSession *session() const { return session_.get(); }
    const TempDir &dir() const { return dir_; }
    std::string profilePath() const { return dir_.file("machine.json"); }

private:
    TempDir dir_;
    tvx::Session session_{tvx::deferred};
};

} // namespace tvxtest
