#include "iel_model.h"

#include "machine_state.h"
#include "sel_model.h"

namespace tvxsim::iel {
namespace {

using nlohmann::json;

const char *const kSeverityNames[kMaxSeverity + 1] = {"info", "minor", "major", "critical"};

[[noreturn]] void corrupt(const std::string &where, const std::string &what)
{
    throw ProfileError("machine state: /iel" + where + ": " + what + " (tvxctl reset starts the machine afresh)");
}

bool inRange(const json &v, uint64_t max)
{
    return v.is_number_unsigned() || (v.is_number_integer() && v.get<int64_t>() >= 0) ? v.get<uint64_t>() <= max
                                                                                      : false;
}

Entry parseEntry(const Node &n, uint16_t id)
{
    n.allowOnly({"time", "severity", "text", "record"});
    Entry e;
    e.id = id;
    e.time = sel::parseProfileTime(n.at("time"));
    if (auto s = n.find("severity")) {
        std::string name = s->string();
        bool known = false;
        for (uint8_t i = 0; i <= kMaxSeverity; ++i)
            if (name == kSeverityNames[i]) e.severity = i, known = true;
        if (!known) s->fail("expected \"info\", \"minor\", \"major\" or \"critical\", got \"" + name + "\"");
    }
    Node text = n.at("text");
    e.text = text.string();
    if (e.text.find('\0') != std::string::npos) text.fail("a text must not contain a NUL character");
    if (e.text.size() > kMaxTextLength)
        text.fail("a text of " + std::to_string(e.text.size()) + " bytes is longer than " +
                  std::to_string(kMaxTextLength));
    if (auto r = n.find("record")) {
        std::vector<uint8_t> b = r->bytes();
        if (b.size() > kRecordSize) r->fail("at most 16 bytes, got " + std::to_string(b.size()));
        std::copy(b.begin(), b.end(), e.record.begin());
    }
    return e;
}

json toJson(const Entry &e)
{
    return {{"id", e.id},
            {"time", e.time},
            {"severity", e.severity},
            {"text", e.text},
            {"record", machine::hexText(e.record)}};
}

} // namespace

std::vector<uint8_t> Entry::body() const
{
    std::vector<uint8_t> b(text.begin(), text.end());
    b.push_back(0);
    b.insert(b.end(), record.begin(), record.end());
    return b;
}

const char *severityName(uint8_t severity) { return severity <= kMaxSeverity ? kSeverityNames[severity] : ""; }

Model parseModel(const Profile &profile)
{
    Model m;
    auto iel = profile.root().find("iel");
    if (!iel) return m;
    iel->allowOnly({"capacity", "entries"});
    if (auto c = iel->find("capacity")) m.capacity = static_cast<uint16_t>(c->integer(1, kMaxCapacity));
    if (auto list = iel->find("entries")) {
        if (list->size() > m.capacity)
            list->fail(std::to_string(list->size()) + " entries do not fit the log's capacity of " +
                       std::to_string(m.capacity));
        for (std::size_t i = 0; i < list->size(); ++i)
            m.entries.push_back(parseEntry(list->at(i), static_cast<uint16_t>(i + 1)));
    }
    return m;
}

json initialState(const Model &m)
{
    json entries = json::array();
    uint32_t lastAdd = 0;
    for (const Entry &e : m.entries) {
        entries.push_back(toJson(e));
        lastAdd = std::max(lastAdd, e.time);
    }
    return {{"entries", entries},
            {"next_id", m.entries.size() + 1},
            {"last_add", lastAdd},
            {"overflow", false},
            {"dropped", 0}};
}

Log::Log(json &state, const Model &model)
{
    if (!state.is_object()) corrupt("", "the machine state is not an object");
    if (!state.contains("iel")) {
        state["iel"] = initialState(model);
        created_ = true;
    }
    log_ = &state["iel"];
    if (!log_->is_object()) corrupt("", "expected the internal event log");
    auto it = log_->find("entries");
    if (it == log_->end() || !it->is_array()) corrupt("/entries", "expected the list of entries");
    entries_ = &*it;
}

uint64_t Log::number(const char *key, uint64_t max) const
{
    auto it = log_->find(key);
    if (it == log_->end() || !inRange(*it, max))
        corrupt(std::string("/") + key, "expected a number from 0 to " + std::to_string(max));
    return it->get<uint64_t>();
}

std::size_t Log::size() const { return entries_->size(); }

long Log::indexOf(uint16_t id) const
{
    if (entries_->empty()) return -1;
    if (id == 0x0000) return 0;
    if (id == 0xFFFF) return static_cast<long>(size() - 1);
    for (std::size_t i = 0; i < size(); ++i)
        if (idAt(i) == id) return static_cast<long>(i);
    return -1;
}

uint16_t Log::idAt(std::size_t index) const
{
    const json &j = (*entries_)[index];
    auto v = j.is_object() ? j.find("id") : j.end();
    if (!j.is_object() || v == j.end() || !inRange(*v, 0xFFFE) || v->get<uint64_t>() == 0)
        corrupt("/entries/" + std::to_string(index) + "/id", "expected an entry ID from 1 to 65534");
    return v->get<uint16_t>();
}

Entry Log::at(std::size_t index) const
{
    const std::string where = "/entries/" + std::to_string(index);
    const json &j = (*entries_)[index];
    if (!j.is_object()) corrupt(where, "expected an entry");
    auto field = [&](const char *key, uint64_t max) {
        auto v = j.find(key);
        if (v == j.end() || !inRange(*v, max))
            corrupt(where + "/" + key, "expected a number from 0 to " + std::to_string(max));
        return v->get<uint64_t>();
    };
    Entry e;
    e.id = idAt(index);
    e.time = static_cast<uint32_t>(field("time", 0xFFFFFFFF));
    e.severity = static_cast<uint8_t>(field("severity", 0xFF));
    auto text = j.find("text");
    if (text == j.end() || !text->is_string() || text->get<std::string>().size() > kMaxTextLength ||
        text->get<std::string>().find('\0') != std::string::npos)
        corrupt(where + "/text", "expected a text of at most 200 bytes");
    e.text = text->get<std::string>();
    auto record = j.find("record");
    std::vector<uint8_t> bytes;
    if (record == j.end() || !record->is_string() || !machine::parseHex(record->get<std::string>(), bytes) ||
        bytes.size() != kRecordSize)
        corrupt(where + "/record", "expected the 16 record bytes in hex");
    std::copy(bytes.begin(), bytes.end(), e.record.begin());
    return e;
}

uint16_t Log::nextId(std::size_t index) const { return index + 1 < size() ? idAt(index + 1) : 0xFFFF; }

uint16_t Log::append(Entry e, uint16_t capacity)
{
    while (size() >= capacity && size() > 0) {
        entries_->erase(entries_->begin());
        (*log_)["overflow"] = true;
        (*log_)["dropped"] = std::min<uint64_t>(dropped() + 1, 0xFFFF);
    }
    // IDs run 1..0xFFFE and wrap; one still in use is skipped.
    uint16_t id = static_cast<uint16_t>(number("next_id", 0xFFFF));
    for (unsigned tries = 0; tries < 0x10000; ++tries) {
        if (id == 0x0000 || id == 0xFFFF) id = 1;
        bool used = false;
        for (std::size_t i = 0; i < size() && !used; ++i) used = idAt(i) == id;
        if (!used) break;
        ++id;
    }
    e.id = id;
    entries_->push_back(toJson(e));
    (*log_)["next_id"] = id == 0xFFFE ? 1 : id + 1;
    (*log_)["last_add"] = e.time;
    return id;
}

void Log::erase(std::size_t index) { entries_->erase(entries_->begin() + static_cast<long>(index)); }

void Log::clear()
{
    *entries_ = json::array();
    (*log_)["next_id"] = 1;
    (*log_)["overflow"] = false;
    (*log_)["dropped"] = 0;
}

uint32_t Log::lastAdd() const { return static_cast<uint32_t>(number("last_add", 0xFFFFFFFF)); }

bool Log::overflow() const
{
    auto it = log_->find("overflow");
    return it != log_->end() && it->is_boolean() && it->get<bool>();
}

uint16_t Log::dropped() const { return static_cast<uint16_t>(number("dropped", 0xFFFF)); }

std::size_t Log::bodyBytes() const
{
    std::size_t total = 0;
    for (std::size_t i = 0; i < size(); ++i) total += at(i).body().size();
    return total;
}

} // namespace tvxsim::iel
