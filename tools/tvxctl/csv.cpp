// --csv: a command's records as an RFC 4180 table. Every record of a command has the same
// keys, so the keys of the first are the header; a value that is itself a list or an object
// is written as its JSON text, null as an empty field.
#include <cstdio>
#include <iostream>

#include "cli.h"

namespace tvxctl {
namespace {

bool csvOutput = false;

std::string cell(const Json &v)
{
    if (v.is_null()) return "";
    std::string text = v.is_string() ? v.get<std::string>() : v.dump(-1, ' ', false, Json::error_handler_t::replace);
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

void row(const std::vector<std::string> &cells)
{
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) line += (i ? "," : "") + cells[i];
    std::cout << line << "\r\n";
}

} // namespace

void setCsvOutput(bool on) { csvOutput = on; }
bool csvOutputOn() { return csvOutput; }

void printCsv(const Json &j)
{
    const Json records = j.is_array() ? j : Json::array({j});
    if (!records.empty() && !records.front().is_object())
        throw Failure{kExitUsage, "--csv: this command's output is not a table (use --json)"};
    if (records.empty()) return;
    std::vector<std::string> keys;
    for (const auto &[k, v] : records.front().items()) keys.push_back(k);
    row(keys);
    for (const Json &r : records) {
        std::vector<std::string> cells;
        for (const auto &k : keys) cells.push_back(r.is_object() && r.contains(k) ? cell(r[k]) : "");
        row(cells);
    }
}

} // namespace tvxctl
