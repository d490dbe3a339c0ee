#include "mib.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <array>
#include <iterator>
#include <vector>

namespace tvxagent {
namespace {

// enterprises.32473.1 (tvxHardwareMIB): .0 notifications, .1 objects.
constexpr oid kMibRoot[] = {1, 3, 6, 1, 4, 1, 32473, 1};
constexpr oid kSnmpTrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
constexpr oid kObjects = 1;
constexpr oid kNotifications = 0;
constexpr oid kTestTrap = 1;
constexpr oid kOverallStatusChange = 2;

using Path = std::vector<oid>;

Path objectPath(std::initializer_list<oid> below)
{
    Path p(std::begin(kMibRoot), std::end(kMibRoot));
    p.push_back(kObjects);
    p.insert(p.end(), below);
    return p;
}

struct TableDef {
    Table id;
    const char *name;
    std::initializer_list<oid> path; // below tvxHwObjects
    unsigned firstColumn, lastColumn, indexes;
};

const TableDef kTables[] = {
    {Table::Temperature, "tvxHwTempTable", {3}, 2, 6, 1},
    {Table::Fan, "tvxHwFanTable", {4}, 2, 6, 1},
    {Table::Voltage, "tvxHwVoltTable", {5}, 2, 7, 1},
    {Table::Current, "tvxHwCurrentTable", {6}, 2, 5, 1},
    {Table::PowerSupply, "tvxHwPsuTable", {7}, 2, 6, 1},
    {Table::Processor, "tvxHwCpuTable", {8}, 2, 16, 1},
    {Table::Memory, "tvxHwMemTable", {9}, 2, 11, 1},
    {Table::Node, "tvxHwNodeTable", {10, 1}, 2, 10, 1},
    {Table::NodeAddress, "tvxHwNodeAddrTable", {10, 2}, 3, 3, 3},
    {Table::LanChannel, "tvxHwLanChannelTable", {10, 5}, 2, 3, 1},
};

struct ScalarDef {
    Scalar id;
    const char *name;
    std::initializer_list<oid> path; // below tvxHwObjects
};

const ScalarDef kScalars[] = {
    {Scalar::AgentId, "tvxHwAgentId", {1, 1}},
    {Scalar::AgentCompany, "tvxHwAgentCompany", {1, 2}},
    {Scalar::AgentVersion, "tvxHwAgentVersion", {1, 3}},
    {Scalar::AgentBuild, "tvxHwAgentBuild", {1, 4}},
    {Scalar::StatusOverall, "tvxHwStatusOverall", {2, 1}},
    {Scalar::StatusTemperatures, "tvxHwStatusTemperatures", {2, 2}},
    {Scalar::StatusFans, "tvxHwStatusFans", {2, 3}},
    {Scalar::StatusVoltages, "tvxHwStatusVoltages", {2, 4}},
    {Scalar::StatusPowerSupplies, "tvxHwStatusPowerSupplies", {2, 5}},
    {Scalar::StatusProcessors, "tvxHwStatusProcessors", {2, 6}},
    {Scalar::StatusMemoryModules, "tvxHwStatusMemoryModules", {2, 7}},
    {Scalar::StatusBoot, "tvxHwStatusBoot", {2, 8}},
    {Scalar::LanChannelCount, "tvxHwLanChannelCount", {10, 3}},
    {Scalar::LanDefaultChannel, "tvxHwLanDefaultChannel", {10, 4}},
};

const std::initializer_list<oid> kOverallPrevious = {2, 9};
const std::initializer_list<oid> kTestTrapControl = {11, 1};
const std::initializer_list<oid> kTestTrapResult = {11, 2};
constexpr long kIdle = 1, kSend = 2;
constexpr long kAccepted = 2, kNotAccepted = 3;

// The one Mib of the process, for the handlers (net-snmp calls them with C pointers only).
Mib *gMib = nullptr;

void setValue(netsnmp_variable_list *vb, const Value &v)
{
    if (v.type == Value::Type::Integer) {
        const long n = v.integer;
        snmp_set_var_typed_value(vb, ASN_INTEGER, &n, sizeof n);
    } else {
        snmp_set_var_typed_value(vb, ASN_OCTET_STR, v.octets.data(), v.octets.size());
    }
}

// The tables: the table-data helper finds the row and column; the value comes from the row.
int tableHandler(netsnmp_mib_handler *handler, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                 netsnmp_request_info *requests)
{
    if (reqinfo->mode != MODE_GET) return SNMP_ERR_NOERROR;
    const auto *def = static_cast<const TableDef *>(handler->myvoid);
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        if (r->processed) continue;
        const auto *row = static_cast<const Row *>(netsnmp_tdata_extract_entry(r));
        const netsnmp_table_request_info *where = netsnmp_extract_table_info(r);
        if (!row || !where || where->colnum < def->firstColumn ||
            where->colnum - def->firstColumn >= row->columns.size()) {
            netsnmp_set_request_error(reqinfo, r, SNMP_NOSUCHINSTANCE);
            continue;
        }
        setValue(r->requestvb, row->columns[where->colnum - def->firstColumn]);
    }
    return SNMP_ERR_NOERROR;
}

int scalarHandler(netsnmp_mib_handler *handler, netsnmp_handler_registration *, netsnmp_agent_request_info *reqinfo,
                  netsnmp_request_info *requests)
{
    if (reqinfo->mode != MODE_GET) return SNMP_ERR_NOERROR;
    const auto *def = static_cast<const ScalarDef *>(handler->myvoid);
    const Snapshot *s = gMib ? gMib->current() : nullptr;
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        if (s && s->scalar(def->id)) setValue(r->requestvb, *s->scalar(def->id));
        else netsnmp_set_request_error(reqinfo, r, SNMP_NOSUCHINSTANCE);
    }
    return SNMP_ERR_NOERROR;
}

int testTrapResultHandler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                          netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    if (reqinfo->mode != MODE_GET) return SNMP_ERR_NOERROR;
    for (netsnmp_request_info *r = requests; r; r = r->next) setValue(r->requestvb, Value::number(gMib->testTrapResult()));
    return SNMP_ERR_NOERROR;
}

// tvxHwTestTrapControl: reads idle(1); send(2) asks for a test alert once the set commits.
int testTrapControlHandler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                           netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        switch (reqinfo->mode) {
        case MODE_GET:
            setValue(r->requestvb, Value::number(kIdle));
            break;
        case MODE_SET_RESERVE1: {
            const int wrong = netsnmp_check_vb_type(r->requestvb, ASN_INTEGER);
            if (wrong != SNMP_ERR_NOERROR) {
                netsnmp_set_request_error(reqinfo, r, wrong);
            } else if (*r->requestvb->val.integer != kIdle && *r->requestvb->val.integer != kSend) {
                netsnmp_set_request_error(reqinfo, r, SNMP_ERR_WRONGVALUE);
            }
            break;
        }
        case MODE_SET_COMMIT:
            if (*r->requestvb->val.integer == kSend) gMib->requestTestAlert();
            break;
        default: // RESERVE2, ACTION, FREE, UNDO: nothing to hold or take back
            break;
        }
    }
    return SNMP_ERR_NOERROR;
}

netsnmp_handler_registration *registration(const char *name, Netsnmp_Node_Handler *fn, const Path &path, int modes,
                                           const void *def)
{
    netsnmp_handler_registration *reg = netsnmp_create_handler_registration(name, fn, path.data(), path.size(), modes);
    if (reg) reg->handler->myvoid = const_cast<void *>(def);
    return reg;
}

void sendNotification(oid which, const std::vector<std::pair<Path, long>> &objects)
{
    Path trap(std::begin(kMibRoot), std::end(kMibRoot));
    trap.push_back(kNotifications);
    trap.push_back(which);
    netsnmp_variable_list *vars = nullptr;
    snmp_varlist_add_variable(&vars, kSnmpTrapOid, std::size(kSnmpTrapOid), ASN_OBJECT_ID,
                              reinterpret_cast<const u_char *>(trap.data()), trap.size() * sizeof(oid));
    for (const auto &[path, value] : objects)
        snmp_varlist_add_variable(&vars, path.data(), path.size(), ASN_INTEGER,
                                  reinterpret_cast<const u_char *>(&value), sizeof value);
    send_v2trap(vars);
    snmp_free_varbind(vars);
}

Path instance(std::initializer_list<oid> below)
{
    Path p = objectPath(below);
    p.push_back(0);
    return p;
}

} // namespace

struct Mib::Tables {
    struct Registered {
        const TableDef *def;
        netsnmp_tdata *data;
        netsnmp_handler_registration *reg;
        // Unregistering the handler leaves the table's description to its owner.
        netsnmp_table_registration_info *info;
    };
    std::vector<Registered> tables;
    std::vector<netsnmp_handler_registration *> scalars;
};

Mib::Mib(std::function<void()> onTestAlert, bool testAlertAvailable)
    : tables_(std::make_unique<Tables>()), onTestAlert_(std::move(onTestAlert)),
      testAlertAvailable_(testAlertAvailable)
{
    gMib = this;
}

Mib::~Mib()
{
    for (auto &t : tables_->tables) {
        while (netsnmp_tdata_row *row = netsnmp_tdata_row_first(t.data)) netsnmp_tdata_remove_and_delete_row(t.data, row);
        netsnmp_unregister_handler(t.reg);
        netsnmp_tdata_delete_table(t.data);
        netsnmp_table_registration_info_free(t.info);
    }
    for (netsnmp_handler_registration *reg : tables_->scalars) netsnmp_unregister_handler(reg);
    gMib = nullptr;
}

void Mib::registerObjects(const Snapshot &first)
{
    for (const TableDef &def : kTables) {
        netsnmp_tdata *data = netsnmp_tdata_create_table(def.name, 0);
        auto *info = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
        netsnmp_handler_registration *reg =
            registration(def.name, tableHandler, objectPath(def.path), HANDLER_CAN_RONLY, &def);
        if (!data || !info || !reg) {
            snmp_log(LOG_ERR, "cannot register %s: out of memory\n", def.name);
            if (data) netsnmp_tdata_delete_table(data);
            if (info) netsnmp_table_registration_info_free(info);
            continue;
        }
        for (unsigned i = 0; i < def.indexes; ++i) netsnmp_table_helper_add_index(info, ASN_INTEGER);
        info->min_column = def.firstColumn;
        info->max_column = def.lastColumn;
        if (netsnmp_tdata_register(reg, data, info) != MIB_REGISTERED_OK) {
            snmp_log(LOG_ERR, "cannot register %s\n", def.name);
            netsnmp_tdata_delete_table(data);
            netsnmp_table_registration_info_free(info);
            continue;
        }
        tables_->tables.push_back({&def, data, reg, info});
    }
    auto scalar = [this](const char *name, Netsnmp_Node_Handler *fn, const Path &path, int modes, const void *def) {
        netsnmp_handler_registration *reg = registration(name, fn, path, modes, def);
        if (reg && netsnmp_register_scalar(reg) == MIB_REGISTERED_OK) tables_->scalars.push_back(reg);
        else snmp_log(LOG_ERR, "cannot register %s\n", name);
    };
    for (const ScalarDef &def : kScalars) {
        // Objects whose getter the library lacks stay out of the tree.
        if (!first.scalar(def.id)) continue;
        scalar(def.name, scalarHandler, objectPath(def.path), HANDLER_CAN_RONLY, &def);
    }
    if (testAlertAvailable_) {
        scalar("tvxHwTestTrapControl", testTrapControlHandler, objectPath(kTestTrapControl), HANDLER_CAN_RWRITE,
               nullptr);
        scalar("tvxHwTestTrapResult", testTrapResultHandler, objectPath(kTestTrapResult), HANDLER_CAN_RONLY, nullptr);
    }
}

void Mib::install(std::shared_ptr<const Snapshot> snapshot)
{
    for (auto &t : tables_->tables) {
        while (netsnmp_tdata_row *row = netsnmp_tdata_row_first(t.data)) netsnmp_tdata_remove_and_delete_row(t.data, row);
        for (const Row &r : snapshot->table(t.def->id)) {
            netsnmp_tdata_row *row = netsnmp_tdata_create_row();
            if (!row) break;
            row->data = const_cast<Row *>(&r);
            for (long index : r.index) netsnmp_tdata_row_add_index(row, ASN_INTEGER, &index, sizeof index);
            // A second row with the same index (a repository that repeats a sensor number)
            // is left out: the first one stays visible.
            if (netsnmp_tdata_add_row(t.data, row) != SNMPERR_SUCCESS) netsnmp_tdata_delete_row(row);
        }
    }
    std::shared_ptr<const Snapshot> previous = std::move(current_);
    current_ = std::move(snapshot);
    const auto &before = previous ? previous->scalar(Scalar::StatusOverall) : std::nullopt;
    const auto &now = current_->scalar(Scalar::StatusOverall);
    if (before && now && !(*before == *now)) {
        snmp_log(LOG_NOTICE, "overall status changed from %ld to %ld\n", before->integer, now->integer);
        sendNotification(kOverallStatusChange,
                         {{instance({2, 1}), now->integer}, {instance(kOverallPrevious), before->integer}});
    }
}

void Mib::testAlertDone(bool accepted)
{
    testTrapResult_ = accepted ? kAccepted : kNotAccepted;
    snmp_log(LOG_INFO, "test alert %s by the controller\n", accepted ? "accepted" : "not accepted");
    sendNotification(kTestTrap, {{instance(kTestTrapResult), testTrapResult_}});
}

} // namespace tvxagent
