// What the subagent serves: every value of the hardware MIB, read from the controller in one
// collection. The request path only ever reads a finished snapshot; collections happen on the
// collector's thread and replace the served snapshot whole, so a walk sees one consistent view.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tvxagent {

// One object instance's value: an INTEGER (enumerations, Integer32, TruthValue) or an OCTET
// STRING (DisplayString, MacAddress, port-function identities).
struct Value {
    enum class Type : uint8_t { Integer, Octets };
    Type type = Type::Integer;
    long integer = 0;
    std::string octets;

    static Value number(long v) { return {Type::Integer, v, {}}; }
    static Value text(std::string s) { return {Type::Octets, 0, std::move(s)}; }
    bool operator==(const Value &) const = default;
};

// A table row: its index (one integer per index object) and its accessible columns, the
// first of them being the table's first accessible column.
struct Row {
    std::vector<long> index;
    std::vector<Value> columns;
};

enum class Table : std::size_t {
    Temperature,
    Fan,
    Voltage,
    Current,
    PowerSupply,
    Processor,
    Memory,
    Node,
    NodeAddress,
    LanChannel,
    Count
};

enum class Scalar : std::size_t {
    AgentId,
    AgentCompany,
    AgentVersion,
    AgentBuild,
    StatusOverall,
    StatusTemperatures,
    StatusFans,
    StatusVoltages,
    StatusPowerSupplies,
    StatusProcessors,
    StatusMemoryModules,
    StatusBoot,
    LanChannelCount,
    LanDefaultChannel,
    Count
};

struct Snapshot {
    std::array<std::vector<Row>, static_cast<std::size_t>(Table::Count)> tables;
    // An absent scalar is not served (the library in use does not offer its getter).
    std::array<std::optional<Value>, static_cast<std::size_t>(Scalar::Count)> scalars;
    bool sdrCacheValid = false; // false: the repository could not be read, the sensor tables are empty
    uint32_t sdrRecords = 0;

    std::vector<Row> &table(Table t) { return tables[static_cast<std::size_t>(t)]; }
    const std::vector<Row> &table(Table t) const { return tables[static_cast<std::size_t>(t)]; }
    std::optional<Value> &scalar(Scalar s) { return scalars[static_cast<std::size_t>(s)]; }
    const std::optional<Value> &scalar(Scalar s) const { return scalars[static_cast<std::size_t>(s)]; }
};

} // namespace tvxagent
