#include "pet_trap.h"

#include <ctime>

#if TVX_SIM_NETSNMP
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#endif

#include "machine_settings.h"
#include "tvx/wire.h"

namespace tvxsim {
namespace {

#if TVX_SIM_NETSNMP
const oid kPetEnterprise[] = {1, 3, 6, 1, 4, 1, 3183, 1, 1};
const oid kPetVariable[] = {1, 3, 6, 1, 4, 1, 3183, 1, 1, 1};
#endif

constexpr uint32_t kPetEpoch = 883612800; // 1998-01-01 00:00 UTC: PET time stamps count from it
constexpr uint16_t kUtcOffsetUnspecified = 0xFFFF;
constexpr uint8_t kSourceIpmi = 0x20; // trap and event source type: IPMI
constexpr uint8_t kSeverityUnspecified = 0x00;
constexpr uint8_t kUnspecifiedDevice = 0xFF, kUnspecifiedSensor = 0xFF;
constexpr uint8_t kOffsetUnspecified = 0x0F;
constexpr std::size_t kEventDataBytes = 8; // data 1-3, the rest unspecified (0xFF)
constexpr uint8_t kLanguageEnglish = 0x19;
constexpr uint8_t kEndOfCustomFields = 0xC1;

#if TVX_SIM_NETSNMP
// Centiseconds since the system started: the trap's time stamp (sysUpTime).
u_long uptime()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<u_long>(t.tv_sec) * 100 + static_cast<u_long>(t.tv_nsec / 10000000);
}

struct SessionCloser {
    void *handle;
    ~SessionCloser()
    {
        if (handle) snmp_sess_close(handle);
    }
};
#endif

} // namespace

uint32_t petSpecificTrap(const std::optional<PlatformEvent> &event)
{
    if (!event) return kOffsetUnspecified;
    const uint32_t direction = tvx::wire::bits(event->eventType, 7, 1);
    return static_cast<uint32_t>(event->sensorType) << 16 | static_cast<uint32_t>(event->eventType & 0x7F) << 8 |
           direction << 7 | tvx::wire::bits(event->data[0], 0, 4);
}

std::vector<uint8_t> petVariableBinding(const PetTrap &trap)
{
    std::vector<uint8_t> v;
    tvx::wire::Appender<std::vector<uint8_t>> out(v);
    const std::array<uint8_t, 16> guid{};                     // the controller reports no system GUID
    const time_t now = std::time(nullptr), epoch = kPetEpoch; // time_t: 32-bit signed on armhf
    out.bytes(guid).be16(trap.sequence).be32(now > epoch ? static_cast<uint32_t>(now - epoch) : 0);
    out.be16(kUtcOffsetUnspecified).u8(kSourceIpmi).u8(kSourceIpmi).u8(kSeverityUnspecified);
    if (trap.event) out.u8(trap.event->generator).u8(trap.event->sensorNumber);
    else out.u8(kUnspecifiedDevice).u8(kUnspecifiedSensor);
    out.u8(0).u8(0); // entity and instance: not in the event message
    std::array<uint8_t, kEventDataBytes> data;
    data.fill(0xFF);
    if (trap.event) std::copy(trap.event->data.begin(), trap.event->data.end(), data.begin());
    out.bytes(data).u8(kLanguageEnglish).be32(trap.manufacturerId).be16(trap.systemId).u8(kEndOfCustomFields);
    return v;
}

bool sendPetTrap(const PetTrap &trap, std::string &error)
{
#if !TVX_SIM_NETSNMP
    // A build without net-snmp (a cross build for a target that lacks it) sends no traps.
    (void)trap;
    error = "this build of the virtual controller has no SNMP library to send traps with";
    return false;
#else
    const std::string peer = "udp:" + ipv4Text(trap.destination) + ":" + std::to_string(trap.port);
    netsnmp_session settings;
    snmp_sess_init(&settings);
    settings.version = SNMP_VERSION_1;
    settings.peername = const_cast<char *>(peer.c_str());
    std::string community = trap.community;
    settings.community = reinterpret_cast<u_char *>(community.data());
    settings.community_len = community.size();
    SessionCloser session{snmp_sess_open(&settings)};
    if (!session.handle) {
        char *text = nullptr;
        int libError = 0, sysError = 0;
        snmp_error(&settings, &libError, &sysError, &text);
        error = "cannot open an SNMP session to " + peer + (text ? ": " + std::string(text) : "");
        std::free(text);
        return false;
    }
    netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_TRAP);
    if (!pdu) return error = "out of memory", false;
    pdu->enterprise = snmp_duplicate_objid(kPetEnterprise, OID_LENGTH(kPetEnterprise));
    pdu->enterprise_length = OID_LENGTH(kPetEnterprise);
    pdu->trap_type = SNMP_TRAP_ENTERPRISESPECIFIC;
    pdu->specific_type = static_cast<long>(petSpecificTrap(trap.event));
    pdu->time = uptime();
    std::copy(trap.agent.begin(), trap.agent.end(), pdu->agent_addr);
    const std::vector<uint8_t> binding = petVariableBinding(trap);
    if (!pdu->enterprise || !snmp_pdu_add_variable(pdu, kPetVariable, OID_LENGTH(kPetVariable), ASN_OCTET_STR,
                                                   binding.data(), binding.size())) {
        snmp_free_pdu(pdu);
        return error = "out of memory", false;
    }
    if (!snmp_sess_send(session.handle, pdu)) { // the PDU is the caller's again when sending fails
        snmp_free_pdu(pdu);
        char *text = nullptr;
        int libError = 0, sysError = 0;
        snmp_sess_error(session.handle, &libError, &sysError, &text);
        error = "cannot send the trap to " + peer + (text ? ": " + std::string(text) : "");
        std::free(text);
        return false;
    }
    return true;
#endif
}

} // namespace tvxsim
