#include "sel_model.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

#include "tvx/hex_string.h"

namespace tvxsim::sel {
namespace {

using nlohmann::json;
namespace field = tvx::sel;
namespace wire = tvx::wire;

const char *const kSeverityNames[4] = {"info", "minor", "major", "critical"};

std::string hex2(unsigned v) { return tvx::hexNumber(v & 0xFF, 2, true); }

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

Severity parseSeverity(const Node &n)
{
    std::string s = n.string();
    for (int i = 0; i < 4; ++i)
        if (s == kSeverityNames[i]) return static_cast<Severity>(i);
    n.fail("expected \"info\", \"minor\", \"major\" or \"critical\", got \"" + s + "\"");
}

std::optional<ErrorCode> codeFromText(const std::string &s)
{
    if (s.size() != 8) return std::nullopt;
    ErrorCode c{};
    for (int i = 0; i < 4; ++i) {
        int hi = hexDigit(s[2 * i]), lo = hexDigit(s[2 * i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        c[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return c;
}

ErrorCode parseCode(const Node &n)
{
    std::string s = n.string();
    auto c = codeFromText(s);
    if (!c) n.fail("expected an error code of 8 hex digits in the order the controller sends its bytes, such as \"1A000301\", got \"" + s + "\"");
    return *c;
}

// "2026-11-16T21:45:12Z" or seconds since 1970 (a number or a string such as "0x6A0D0F38").
uint32_t parseTime(const Node &n)
{
    if (n.json().is_string()) {
        std::string s = n.json().get<std::string>();
        int y, mo, d, h, mi, sec;
        char z = 0;
        int used = 0;
        if (std::sscanf(s.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c%n", &y, &mo, &d, &h, &mi, &sec, &z, &used) == 7 &&
            z == 'Z' && static_cast<std::size_t>(used) == s.size()) {
            if (y < 1970 || y > 2106 || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || sec > 59 || h < 0 ||
                mi < 0 || sec < 0)
                n.fail("no such time: \"" + s + "\"");
            struct tm tm{};
            tm.tm_year = y - 1900;
            tm.tm_mon = mo - 1;
            tm.tm_mday = d;
            tm.tm_hour = h;
            tm.tm_min = mi;
            tm.tm_sec = sec;
            time_t t = timegm(&tm);
            if (tm.tm_mday != d) n.fail("no such day: \"" + s + "\"");
            if (t < 0 || static_cast<int64_t>(t) > 0xFFFFFFFFLL) n.fail("\"" + s + "\" is beyond the 32-bit SEL time");
            return static_cast<uint32_t>(t);
        }
        bool number = !s.empty();
        for (char c : s) number = number && (hexDigit(c) >= 0 || c == 'x' || c == 'X');
        if (!number) n.fail("expected a UTC time such as \"2026-11-16T21:45:12Z\" or seconds since 1970, got \"" + s + "\"");
    }
    return static_cast<uint32_t>(n.integer(0, 0xFFFFFFFF));
}

int64_t signedInteger(const Node &n, int64_t min, int64_t max)
{
    const json &v = n.json();
    if (!v.is_number_integer() || v.get<int64_t>() < min || v.get<int64_t>() > max)
        n.fail("expected an integer from " + std::to_string(min) + " to " + std::to_string(max) + ", got " + v.dump());
    return v.get<int64_t>();
}

std::string checkedText(const Node &n, std::size_t maxLength, const char *what)
{
    std::string s = n.string();
    if (s.find('\0') != std::string::npos) n.fail(std::string(what) + " must not contain a NUL character");
    if (s.size() > maxLength)
        n.fail(std::string(what) + " of " + std::to_string(s.size()) + " bytes is longer than " +
               std::to_string(maxLength));
    return s;
}

void checkParameterBytes(const Node &n, const std::vector<std::string> &params)
{
    std::size_t total = 0;
    for (const auto &p : params) total += 1 + p.size();
    if (total > kMaxParameterBytes)
        n.fail("the parameters take " + std::to_string(total) + " bytes (a length byte each), more than the " +
               std::to_string(kMaxParameterBytes) + " one answer carries");
}

std::vector<std::string> parseParameters(const Node &n)
{
    std::vector<std::string> out;
    if (n.size() > kMaxParameters) n.fail("at most 8 parameters (%1 to %8), got " + std::to_string(n.size()));
    for (std::size_t i = 0; i < n.size(); ++i) out.push_back(checkedText(n.at(i), kMaxParameterLength, "a parameter"));
    checkParameterBytes(n, out);
    return out;
}

const char *const kTemplateNames[] = {"sensor", "number", "lun", "type", "event_type", "offset", "data1", "data2", "data3"};

void checkTemplate(const Node &n, const std::string &t)
{
    for (std::size_t i = 0; i < t.size(); ++i) {
        if (t[i] != '{') continue;
        auto close = t.find('}', i);
        if (close == std::string::npos) n.fail("unterminated \"{\" in \"" + t + "\"");
        std::string name = t.substr(i + 1, close - i - 1);
        bool known = false;
        for (const char *k : kTemplateNames) known = known || name == k;
        if (!known)
            n.fail("unknown field {" + name +
                   "} (known: {sensor}, {number}, {lun}, {type}, {event_type}, {offset}, {data1}, {data2}, {data3})");
        i = close;
    }
}

// Cuts s to at most max bytes without splitting a UTF-8 character.
void cutUtf8(std::string &s, std::size_t max)
{
    if (s.size() <= max) return;
    std::size_t n = max;
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
    s.resize(n);
}

std::string expand(const std::string &t, const Model &m, const Record &r)
{
    std::string out;
    for (std::size_t i = 0; i < t.size(); ++i) {
        auto close = t[i] == '{' ? t.find('}', i) : std::string::npos;
        if (close == std::string::npos) {
            out += t[i];
            continue;
        }
        std::string name = t.substr(i + 1, close - i - 1);
        const wire::View rec(r);
        auto at = [&rec](wire::U8 f) { return rec.get(f, uint8_t{0}); };
        const uint8_t lun = static_cast<uint8_t>(wire::bits(at(field::kGeneratorChannelLun), 0, 2));
        const uint8_t number = at(field::kSensorNumber);
        if (name == "sensor")
            out += at(field::kGeneratorAddress) == 0x20 ? m.sensorName(lun, number) : "sensor " + hex2(number);
        else if (name == "number") out += hex2(number);
        else if (name == "lun") out += std::to_string(lun);
        else if (name == "type") out += hex2(at(field::kSensorType));
        else if (name == "event_type") out += hex2(wire::bits(at(field::kEventDirType), 0, 7));
        else if (name == "offset") out += std::to_string(wire::bits(at(field::kEventData1), 0, 4));
        else if (name == "data1") out += std::to_string(at(field::kEventData1));
        else if (name == "data2") out += std::to_string(at(field::kEventData2));
        else if (name == "data3") out += std::to_string(at(field::kEventData3));
        else out += t.substr(i, close - i + 1);
        i = close;
    }
    return out;
}

uint8_t parseDirection(const Node &n)
{
    std::string s = n.string();
    if (s == "assertion") return 0x00;
    if (s == "deassertion") return 0x80;
    n.fail("expected \"assertion\" or \"deassertion\", got \"" + s + "\"");
}

void parseMessages(const Node &codes, Model &m)
{
    for (auto it = codes.json().begin(); it != codes.json().end(); ++it) {
        Node def = codes.at(it.key().c_str());
        auto code = codeFromText(it.key());
        if (!code)
            def.fail("an error code is 8 hex digits in the order the controller sends its bytes, such as \"1A000301\"");
        def.allowOnly({"severity", "texts"});
        Message msg;
        if (auto s = def.find("severity")) msg.severity = parseSeverity(*s);
        Node texts = def.at("texts");
        if (!texts.json().is_object() || texts.json().empty())
            texts.fail("expected texts by language, such as {\"0x0409\": \"Fan %1 failed\"}");
        for (auto t = texts.json().begin(); t != texts.json().end(); ++t) {
            Node text = texts.at(t.key().c_str());
            json key = t.key();
            uint16_t lcid = static_cast<uint16_t>(Node(key, text.file(), text.path()).integer(1, 0xFFFF));
            if (msg.texts.count(lcid)) text.fail("a second text for language " + hex2(lcid >> 8) + hex2(lcid).substr(2));
            msg.texts[lcid] = checkedText(text, kMaxTextLength, "a message text");
        }
        if (!msg.texts.count(kEnglish))
            texts.fail("missing the English text \"0x0409\", which languages without a text fall back to");
        m.messages[*code] = std::move(msg);
    }
}

void checkKnown(const Node &n, const Model &m, const ErrorCode &c)
{
    if (!m.message(c)) n.fail("error code \"" + codeText(c) + "\" has no message in /event_texts/codes");
}

void parseRules(const Node &rules, Model &m)
{
    for (std::size_t i = 0; i < rules.size(); ++i) {
        Node r = rules.at(i);
        r.allowOnly({"sensor_type", "sensor", "offset", "event_type", "direction", "error_code", "severity",
                     "parameters"});
        EventRule rule;
        if (auto v = r.find("sensor_type")) rule.sensorType = v->byte();
        if (auto v = r.find("sensor")) rule.sensor = v->byte();
        if (auto v = r.find("offset")) rule.offset = static_cast<uint8_t>(v->integer(0, 15));
        if (auto v = r.find("event_type")) rule.eventType = static_cast<uint8_t>(v->integer(0, 0x7F));
        if (auto v = r.find("direction")) rule.assertion = parseDirection(*v) == 0x00;
        Node code = r.at("error_code");
        rule.code = parseCode(code);
        checkKnown(code, m, rule.code);
        if (auto v = r.find("severity")) rule.severity = parseSeverity(*v);
        if (auto p = r.find("parameters")) {
            if (p->size() > kMaxParameters) p->fail("at most 8 parameters (%1 to %8), got " + std::to_string(p->size()));
            for (std::size_t k = 0; k < p->size(); ++k) {
                std::string t = p->at(k).string();
                checkTemplate(p->at(k), t);
                rule.parameters.push_back(t);
            }
        }
        m.rules.push_back(std::move(rule));
    }
}

Entry parseRecord(const Node &n, const Profile &profile, const Model &m, uint16_t id)
{
    Entry e;
    wire::Writer r(e.record);
    // A data run from the profile, exactly as long as the record keeps it.
    auto putData = [&r](const Node &data, wire::Run run, const char *what) {
        auto d = data.bytes();
        if (d.size() != run.size)
            data.fail(std::string("expected ") + what + ", got " + std::to_string(d.size()));
        r.put(run, d);
    };
    std::string type = n.at("type").string();
    if (type == "system") {
        n.allowOnly({"type", "time", "generator", "channel_lun", "revision", "sensor_type", "sensor", "event_type",
                     "direction", "data", "error_code", "severity", "parameters"});
        r.put(field::kRecordType, kSystemEvent);
        e.setTimestamp(parseTime(n.at("time")));
        uint8_t generator = 0x20, channelLun = 0x00, revision = 0x04;
        if (auto v = n.find("generator")) generator = v->byte();
        if (auto v = n.find("channel_lun")) channelLun = v->byte();
        if (auto v = n.find("revision")) revision = v->byte();
        const uint8_t sensorType = n.at("sensor_type").byte();
        const uint8_t sensor = n.at("sensor").byte();
        uint8_t eventType = static_cast<uint8_t>(n.at("event_type").integer(0, 0x7F));
        if (auto v = n.find("direction")) eventType = static_cast<uint8_t>(eventType | parseDirection(*v));
        r.put(field::kGeneratorAddress, generator)
            .put(field::kGeneratorChannelLun, channelLun)
            .put(field::kEvmRevision, revision)
            .put(field::kSensorType, sensorType)
            .put(field::kSensorNumber, sensor)
            .put(field::kEventDirType, eventType);
        putData(n.at("data"), field::kEventData, "the 3 event data bytes");
    } else if (type == "oem_timestamped") {
        n.allowOnly({"type", "record_type", "time", "manufacturer_id", "data", "error_code", "severity", "parameters"});
        uint8_t recordType = 0xC0;
        if (auto v = n.find("record_type")) recordType = static_cast<uint8_t>(v->integer(0xC0, 0xDF));
        r.put(field::kRecordType, recordType);
        e.setTimestamp(parseTime(n.at("time")));
        uint32_t mfr = profile.oemIana;
        if (auto v = n.find("manufacturer_id")) mfr = static_cast<uint32_t>(v->integer(0, 0xFFFFFF));
        r.put(field::kManufacturerId, mfr);
        putData(n.at("data"), field::kOemTimedData, "6 OEM data bytes");
    } else if (type == "oem" || type == "other") {
        n.allowOnly({"type", "record_type", "data", "error_code", "severity", "parameters"});
        uint8_t recordType = 0xE0;
        if (type == "oem") {
            if (auto v = n.find("record_type")) recordType = static_cast<uint8_t>(v->integer(0xE0, 0xFF));
        } else {
            recordType = n.at("record_type").byte();
        }
        r.put(field::kRecordType, recordType);
        putData(n.at("data"), field::kOemData, "the 13 bytes from byte 3 on");
    } else {
        n.at("type").fail("unknown record type \"" + type +
                          "\" (known: system, oem_timestamped, oem, other)");
    }
    e.setId(id);
    if (auto c = n.find("error_code")) {
        e.code = parseCode(*c);
        checkKnown(*c, m, *e.code);
        e.severity = m.message(*e.code)->severity;
        if (auto p = n.find("parameters")) e.parameters = parseParameters(*p);
    } else {
        if (n.has("parameters")) n.at("parameters").fail("parameters belong to an \"error_code\"");
        m.label(e); // as if the controller had logged it itself
    }
    if (auto s = n.find("severity")) {
        if (!e.code) s->fail("a severity belongs to an \"error_code\"");
        e.severity = parseSeverity(*s);
    }
    return e;
}

void parseSensorNames(const Profile &p, Model &m)
{
    // The sensors' own section is checked where it is read; only well-formed names are taken.
    auto it = p.document.find("sensors");
    if (it == p.document.end() || !it->is_array()) return;
    for (const json &s : *it) {
        if (!s.is_object() || !s.contains("number") || !s.contains("name") || !s["name"].is_string()) continue;
        try {
            Node n(s, p.file, "");
            uint8_t number = n.at("number").byte();
            uint8_t lun = s.contains("lun") ? static_cast<uint8_t>(n.at("lun").integer(0, 3)) : 0;
            m.sensorNames[static_cast<uint16_t>(lun << 8 | number)] = s["name"].get<std::string>();
        } catch (const ProfileError &) {
        }
    }
}

[[noreturn]] void corrupt(const std::string &where, const std::string &what)
{
    throw ProfileError("the machine state is corrupt: /sel" + where + ": " + what +
                       " (run 'tvxctl reset' to start the machine afresh from its profile)");
}

// A whole number from 0 to max (numbers made in memory may be signed, those read back not).
bool inRange(const json &v, int64_t max)
{
    return v.is_number_integer() && v.get<int64_t>() >= 0 && v.get<int64_t>() <= max;
}

std::string recordHex(const Record &r) { return tvx::hexBytes(r); }

} // namespace

const char *severityName(Severity s) { return kSeverityNames[static_cast<uint8_t>(s) & 3]; }

std::string codeText(const ErrorCode &c) { return tvx::hexBytes(c, 0, true); }

void Entry::setId(uint16_t id) { wire::Writer(record).put(field::kRecordId, id); }

void Entry::setTimestamp(uint32_t t) { wire::Writer(record).put(field::kTimestamp, t); }

const std::string &Message::text(uint16_t language, uint16_t *used) const
{
    auto it = texts.find(language);
    if (it == texts.end()) it = texts.find(kEnglish);
    if (used) *used = it->first;
    return it->second;
}

const Message *Model::message(const ErrorCode &c) const
{
    auto it = messages.find(c);
    return it == messages.end() ? nullptr : &it->second;
}

std::string Model::sensorName(uint8_t lun, uint8_t number) const
{
    auto it = sensorNames.find(static_cast<uint16_t>(lun << 8 | number));
    return it != sensorNames.end() ? it->second : "sensor " + hex2(number);
}

void Model::label(Entry &e) const
{
    e.code.reset();
    e.severity = Severity::Info;
    e.parameters.clear();
    if (e.type() != kSystemEvent) return;
    const wire::View r(e.record);
    const uint8_t sensorType = r.get(field::kSensorType, uint8_t{0}), sensor = r.get(field::kSensorNumber, uint8_t{0});
    const uint8_t eventDir = r.get(field::kEventDirType, uint8_t{0}), data1 = r.get(field::kEventData1, uint8_t{0});
    for (const EventRule &rule : rules) {
        if (rule.sensorType && *rule.sensorType != sensorType) continue;
        if (rule.sensor && *rule.sensor != sensor) continue;
        if (rule.eventType && *rule.eventType != wire::bits(eventDir, 0, 7)) continue;
        if (rule.assertion && *rule.assertion != !wire::bits(eventDir, 7, 1)) continue;
        if (rule.offset && *rule.offset != wire::bits(data1, 0, 4)) continue;
        e.code = rule.code;
        e.severity = rule.severity ? *rule.severity : message(rule.code)->severity;
        std::size_t total = 0;
        for (const auto &t : rule.parameters) {
            std::string p = expand(t, *this, e.record);
            cutUtf8(p, kMaxParameterLength); // it is kept in the state, a JSON text
            if (total + 1 + p.size() > kMaxParameterBytes) p.clear();
            total += 1 + p.size();
            e.parameters.push_back(std::move(p));
        }
        return;
    }
}

Model parseModel(const Profile &profile, bool withRecords)
{
    Model m;
    Node root = profile.root();
    parseSensorNames(profile, m);
    if (auto t = root.find("event_texts")) {
        t->allowOnly({"chunk_size", "codes", "sensor_events"});
        if (auto v = t->find("chunk_size")) m.chunkSize = static_cast<uint8_t>(v->integer(1, 200));
        if (auto v = t->find("codes")) {
            if (!v->json().is_object()) v->fail("expected an object of error codes, such as {\"1A000301\": {...}}");
            parseMessages(*v, m);
        }
        if (auto v = t->find("sensor_events")) parseRules(*v, m);
    }
    if (auto s = root.find("sel")) {
        s->allowOnly({"capacity", "max_read_bytes", "utc_offset_minutes", "clock", "last_erase", "records"});
        if (auto v = s->find("capacity")) m.capacity = static_cast<uint16_t>(v->integer(1, kMaxCapacity));
        if (auto v = s->find("max_read_bytes")) m.maxReadBytes = static_cast<uint8_t>(v->integer(1, kRecordSize));
        if (auto v = s->find("utc_offset_minutes")) {
            if (v->json().is_string() && v->json() == "unspecified") m.utcOffset = kUtcOffsetUnspecified;
            else if (v->json().is_string()) v->fail("expected minutes from -1440 to 1440 or \"unspecified\"");
            else m.utcOffset = static_cast<int16_t>(signedInteger(*v, -1440, 1440));
        }
        if (auto c = s->find("clock")) {
            if (c->json().is_string() && c->json() == "host") {
                // the host's clock as it is
            } else if (c->json().is_object()) {
                c->allowOnly({"fixed", "offset_seconds"});
                if (c->has("fixed") && c->has("offset_seconds")) c->fail("give \"fixed\" or \"offset_seconds\", not both");
                if (auto f = c->find("fixed")) m.clock = {true, parseTime(*f)};
                if (auto o = c->find("offset_seconds")) m.clock = {false, signedInteger(*o, -0xFFFFFFFFLL, 0xFFFFFFFFLL)};
            } else {
                c->fail("expected \"host\", {\"fixed\": \"2026-11-16T21:45:12Z\"} or {\"offset_seconds\": N}");
            }
        }
        if (auto v = s->find("last_erase")) m.lastErase = parseTime(*v);
        if (auto recs = s->find("records"); recs && withRecords) {
            if (recs->size() > m.capacity)
                recs->fail(std::to_string(recs->size()) + " records do not fit the log's capacity of " +
                           std::to_string(m.capacity));
            for (std::size_t i = 0; i < recs->size(); ++i)
                m.records.push_back(parseRecord(recs->at(i), profile, m, static_cast<uint16_t>(i + 1)));
        }
    }
    return m;
}

std::string compose(const std::string &text, const std::vector<std::string> &parameters)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 1 < text.size() && text[i + 1] >= '1' && text[i + 1] <= '8' &&
            static_cast<std::size_t>(text[i + 1] - '1') < parameters.size()) {
            out += parameters[static_cast<std::size_t>(text[i + 1] - '1')];
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

json toJson(const Entry &e)
{
    json j = {{"id", e.id()}, {"record", recordHex(e.record)}};
    if (e.code) {
        j["error_code"] = codeText(*e.code);
        j["severity"] = severityName(e.severity);
        j["parameters"] = e.parameters;
    }
    return j;
}

json initialState(const Model &m)
{
    json records = json::array();
    uint32_t lastAdd = 0;
    for (const Entry &e : m.records) {
        records.push_back(toJson(e));
        if (hasTimestamp(e.type()) && e.timestamp() > lastAdd) lastAdd = e.timestamp();
    }
    json clock = m.clock.fixed ? json{{"fixed", m.clock.value}} : json{{"offset", m.clock.value}};
    return {{"records", records},
            {"next_id", m.records.size() + 1},
            {"last_add", lastAdd},
            {"last_erase", m.lastErase},
            {"overflow", false},
            {"clock", clock},
            {"utc_offset", m.utcOffset}};
}

Log::Log(json &state, const Model &) : state_(&state)
{
    if (!state.is_object()) corrupt("", "the machine state is not an object");
    auto it = state.find("sel");
    if (it == state.end() || !it->is_object()) corrupt("", "expected the system event log");
    sel_ = &*it;
    auto r = sel_->find("records");
    if (r == sel_->end() || !r->is_array()) corrupt("/records", "expected the list of records");
    records_ = &*r;
}

uint16_t Log::number(const char *key) const
{
    auto it = sel_->find(key);
    if (it == sel_->end() || !inRange(*it, 0xFFFF))
        corrupt(std::string("/") + key, "expected a number from 0 to 65535");
    return it->get<uint16_t>();
}

uint16_t Log::idAt(std::size_t index) const
{
    const json &r = (*records_)[index];
    if (!r.is_object() || !r.contains("id") || !inRange(r["id"], 0xFFFE))
        corrupt("/records/" + std::to_string(index) + "/id", "expected a record ID");
    return r["id"].get<uint16_t>();
}

long Log::indexOf(uint16_t id) const
{
    if (records_->empty()) return -1;
    if (id == kFirst) return 0;
    if (id == kLast) return static_cast<long>(size() - 1);
    // IDs are given in ascending order from the first record on (until they wrap), so the
    // place is usually known.
    uint16_t first = idAt(0);
    if (id >= first && id - first < static_cast<long>(size()) && idAt(id - first) == id) return id - first;
    for (std::size_t i = 0; i < size(); ++i)
        if (idAt(i) == id) return static_cast<long>(i);
    return -1;
}

Entry Log::at(std::size_t index) const
{
    const std::string where = "/records/" + std::to_string(index);
    const json &j = (*records_)[index];
    Entry e;
    uint16_t id = idAt(index);
    auto rec = j.find("record");
    std::string hex = rec != j.end() && rec->is_string() ? rec->get<std::string>() : "";
    std::size_t n = 0;
    for (std::size_t i = 0; i < hex.size() && n <= kRecordSize;) {
        if (hex[i] == ' ') {
            ++i;
            continue;
        }
        int hi = hexDigit(hex[i]), lo = i + 1 < hex.size() ? hexDigit(hex[i + 1]) : -1;
        if (hi < 0 || lo < 0 || n == kRecordSize) {
            n = kRecordSize + 1;
            break;
        }
        e.record[n++] = static_cast<uint8_t>(hi << 4 | lo);
        i += 2;
    }
    if (n != kRecordSize) corrupt(where + "/record", "expected the 16 record bytes in hex");
    e.setId(id);
    if (auto c = j.find("error_code"); c != j.end()) {
        auto code = c->is_string() ? codeFromText(c->get<std::string>()) : std::nullopt;
        if (!code) corrupt(where + "/error_code", "expected 8 hex digits");
        e.code = code;
        auto s = j.find("severity");
        bool ok = false;
        for (int i = 0; s != j.end() && s->is_string() && i < 4; ++i)
            if (*s == kSeverityNames[i]) e.severity = static_cast<Severity>(i), ok = true;
        if (!ok) corrupt(where + "/severity", "expected info, minor, major or critical");
        auto p = j.find("parameters");
        if (p == j.end() || !p->is_array() || p->size() > kMaxParameters) corrupt(where + "/parameters", "expected up to 8 strings");
        std::size_t total = 0;
        for (const json &s2 : *p) {
            if (!s2.is_string() || s2.get<std::string>().size() > kMaxParameterLength)
                corrupt(where + "/parameters", "expected up to 8 strings of at most 64 bytes");
            total += 1 + s2.get<std::string>().size();
            e.parameters.push_back(s2.get<std::string>());
        }
        if (total > kMaxParameterBytes) corrupt(where + "/parameters", "the parameters are too long for one answer");
    }
    return e;
}

bool Log::used(uint16_t id) const
{
    if (records_->empty()) return false;
    // IDs ascend from the first record to the last until they wrap past 0xFFFE: beyond the
    // last and without a wrap in the log, an ID is free without looking at every record.
    const uint16_t first = idAt(0), last = idAt(size() - 1);
    if (first <= last && (id > last || id < first)) return false;
    return indexOf(id) >= 0;
}

uint16_t Log::append(Entry e)
{
    uint16_t id = number("next_id");
    // IDs run 1..0xFFFE and wrap; one still in use is skipped.
    for (unsigned tries = 0; tries < 0x10000; ++tries) {
        if (id == 0x0000 || id == 0xFFFF) id = 1;
        if (!used(id)) break;
        ++id;
    }
    e.setId(id);
    records_->push_back(toJson(e));
    (*sel_)["next_id"] = id == 0xFFFE ? 1 : id + 1;
    return id;
}

void Log::clear()
{
    *records_ = json::array();
    (*sel_)["next_id"] = 1;
}

uint32_t Log::lastAdd() const
{
    auto it = sel_->find("last_add");
    if (it == sel_->end() || !inRange(*it, 0xFFFFFFFF))
        corrupt("/last_add", "expected a time");
    return it->get<uint32_t>();
}

uint32_t Log::lastErase() const
{
    auto it = sel_->find("last_erase");
    if (it == sel_->end() || !inRange(*it, 0xFFFFFFFF))
        corrupt("/last_erase", "expected a time");
    return it->get<uint32_t>();
}

void Log::setLastAdd(uint32_t t) { (*sel_)["last_add"] = t; }
void Log::setLastErase(uint32_t t) { (*sel_)["last_erase"] = t; }

bool Log::overflow() const
{
    auto it = sel_->find("overflow");
    return it != sel_->end() && it->is_boolean() && it->get<bool>();
}

void Log::setOverflow(bool v) { (*sel_)["overflow"] = v; }

// The reservation lives in the controller's RAM: {"current": ID, "made": last ID handed out}.
// What a crash or an older program left there reads as no reservation.
uint16_t Log::reservation() const
{
    auto ram = state_->find("sel_reservation");
    if (ram == state_->end() || !ram->is_object()) return 0;
    auto it = ram->find("current");
    return it != ram->end() && inRange(*it, 0xFFFF) ? it->get<uint16_t>() : 0;
}

uint16_t Log::reserve()
{
    json &ram = (*state_)["sel_reservation"];
    if (!ram.is_object()) ram = json::object();
    auto made = ram.find("made");
    uint16_t id = static_cast<uint16_t>((made != ram.end() && inRange(*made, 0xFFFF) ? made->get<uint16_t>() : 0) + 1);
    if (id == 0) id = 1;
    ram["made"] = id;
    ram["current"] = id;
    return id;
}

void Log::cancelReservation()
{
    auto ram = state_->find("sel_reservation");
    if (ram != state_->end() && ram->is_object()) (*ram)["current"] = 0;
}

uint32_t Log::now() const
{
    auto c = sel_->find("clock");
    if (c == sel_->end() || !c->is_object()) corrupt("/clock", "expected {\"fixed\": T} or {\"offset\": S}");
    if (auto f = c->find("fixed"); f != c->end()) {
        if (!inRange(*f, 0xFFFFFFFF)) corrupt("/clock/fixed", "expected a time");
        return f->get<uint32_t>();
    }
    auto o = c->find("offset");
    if (o == c->end() || !o->is_number_integer()) corrupt("/clock/offset", "expected seconds");
    int64_t t = static_cast<int64_t>(std::time(nullptr)) + o->get<int64_t>();
    return static_cast<uint32_t>(t < 0 ? 0 : t > 0xFFFFFFFFLL ? 0xFFFFFFFFLL : t);
}

void Log::setTime(uint32_t t)
{
    (void)now(); // checks the clock
    json &c = (*sel_)["clock"];
    if (c.contains("fixed")) c["fixed"] = t;
    else c["offset"] = static_cast<int64_t>(t) - static_cast<int64_t>(std::time(nullptr));
}

int16_t Log::utcOffset() const
{
    auto it = sel_->find("utc_offset");
    if (it == sel_->end() || !it->is_number_integer() || it->get<int64_t>() < -1440 ||
        (it->get<int64_t>() > 1440 && it->get<int64_t>() != kUtcOffsetUnspecified))
        corrupt("/utc_offset", "expected minutes from -1440 to 1440 or 2047");
    return static_cast<int16_t>(it->get<int64_t>());
}

void Log::setUtcOffset(int16_t minutes) { (*sel_)["utc_offset"] = minutes; }

uint32_t parseProfileTime(const Node &n) { return parseTime(n); }

} // namespace tvxsim::sel
