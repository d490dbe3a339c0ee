// The console's login banner, and the partition helpers that tell a standard server from a
// system board of a partitionable server by the controller's own LAN address.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tvx/wire.h"
#include "tvx_toipmi.h"

namespace {

// The controller's IPv4 address on a system board of a partitionable server: 127.1.2.N,
// where N - 1 is the board's number.
constexpr tvx::wire::Run kBoardNetwork{0, 3};
constexpr tvx::wire::U8 kBoardHost{3};
constexpr uint8_t kBoardNetworkBytes[3] = {127, 1, 2};

// The firmware revision the banner shows from the auxiliary revision bytes: major, minor and
// a letter (the third byte is not shown).
constexpr tvx::wire::U8 kAuxMajor{0}, kAuxMinor{1}, kAuxLetter{3};
struct Revision {
    int major, minor, letter;
};
Revision auxRevision(const IpmiDeviceId &id)
{
    const tvx::wire::View aux(id.auxFirmwareRevision, sizeof id.auxFirmwareRevision);
    return {aux.get(kAuxMajor, uint8_t{0}), aux.get(kAuxMinor, uint8_t{0}), aux.get(kAuxLetter, uint8_t{0})};
}

constexpr uint8_t kUndetermined = 254;
constexpr uint8_t kNotPartitioned = 255;
// The system-board number, determined once per process.
uint8_t gSbNumber = kUndetermined;

constexpr const char *kStars = "**************************************************";
constexpr int kBoxWidth = 48;
// The library's own build date and time, "Aug  4 2016 13:35:13", shown when the controller
// has no firmware build text.
constexpr const char *kBuildStamp = __DATE__ " " __TIME__;

// A configuration-space text: true when it has at least one character.
bool readText(IpmiSession *session, uint16_t variable, char (&text)[256])
{
    std::memset(text, 0, sizeof text);
    return ipmiReadConfigSpaceVariable(session, 0, variable, reinterpret_cast<uint8_t *>(text)) >= 1;
}

// A boxed line: exactly 48 characters (padded or cut) and " *", ending in "\r\n" or "\n".
int boxed(const char *line, bool carriageReturn)
{
    return carriageReturn ? std::printf("%-*.*s *\r\n", kBoxWidth, kBoxWidth, line)
                          : std::printf("%-*.*s *\n", kBoxWidth, kBoxWidth, line);
}

} // namespace

extern "C" {

TVX_API unsigned ipmiGetSbNumber(IpmiSession *session)
{
    if (!session) return kNotPartitioned;
    if (gSbNumber != kUndetermined) return gSbNumber;
    if (uint8_t *address = ipmiGetIpAddress(session)) {
        const tvx::wire::View ip(address, 4);
        if (std::memcmp(ip.get(kBoardNetwork).data(), kBoardNetworkBytes, sizeof kBoardNetworkBytes) == 0)
            gSbNumber = static_cast<uint8_t>(ip.get(kBoardHost, uint8_t{0}) - 1);
        std::free(address);
    }
    if (gSbNumber > 3) gSbNumber = kNotPartitioned;
    return gSbNumber;
}

TVX_API int ipmiIsKVSystem(IpmiSession *session) { return ipmiGetSbNumber(session) != kNotPartitioned ? 1 : 0; }

TVX_API int ipmiGetSbSlaveAddr(IpmiSession *session)
{
    unsigned board = ipmiGetSbNumber(session);
    if (board == kNotPartitioned) return 0x20;
    return 0xC0 | ((board * 2) & 0x3F);
}

TVX_API int KV_rmMenu(IpmiSession *session)
{
    std::puts("********************************************\r");
    std::puts("*                                          *\r");
    std::puts("*  Welcome to KESTRAVONE Remote Manager    *\r");
    IpmiDeviceId id = ipmiGetDeviceId(session);
    const Revision aux = auxRevision(id);
    std::printf("*  Firmware Revision %d.%d%c (%X.%02d)          *\n", aux.major, aux.minor, aux.letter,
                id.firmwareRevision1, id.firmwareRevision2);
    char text[256];
    if (readText(session, TVX_VAR_FIRMWARE_BUILD, text)) std::printf("*  Firmware built %s *\r\n", text);
    else std::printf("*  Firmware built %s     *\r\n", kBuildStamp);
    std::puts("*                                          *\r");
    return std::puts("********************************************\r");
}

TVX_API int ipmiPrintLoginHeader(IpmiSession *session)
{
    if (ipmiIsKVSystem(session)) return KV_rmMenu(session);
    char line[64];
    char text[256];
    std::printf("%s\r\n", kStars);
    boxed("*    Welcome to TALVIREN Remote Manager", true);

    IpmiDeviceId id = ipmiGetDeviceId(session);
    const Revision aux = auxRevision(id);
    // A fourth auxiliary byte of 0 ends the text there, as a character it cannot be shown.
    std::snprintf(line, sizeof line, "*    Firmware Revision %d.%02d%c (%X.%02d)", aux.major, aux.minor, aux.letter,
                  id.firmwareRevision1, id.firmwareRevision2);
    boxed(line, false);

    if (!readText(session, TVX_VAR_SDR_TEXT, text)) std::snprintf(text, 31, "%s", "info is not available");
    std::snprintf(line, sizeof line, "*    SDR %-30.30s", text);
    boxed(line, false);

    if (readText(session, TVX_VAR_FIRMWARE_BUILD, text)) std::snprintf(line, sizeof line, "*    Firmware built %25.25s", text);
    else std::snprintf(line, sizeof line, "*    Firmware built %s", kBuildStamp);
    boxed(line, true);
    std::printf("%s\r\n", kStars);

    static constexpr struct {
        uint16_t variable;
        const char *label;
    } kIdentity[] = {{TVX_VAR_SYSTEM_TYPE, "System Type  : "},
                     {TVX_VAR_SYSTEM_ID, "System ID    : "},
                     {TVX_VAR_SYSTEM_NAME, "System Name  : "},
                     {TVX_VAR_SYSTEM_OS, "System OS    : "}};
    for (const auto &item : kIdentity)
        std::printf("\n%s%s", item.label, readText(session, item.variable, text) ? text : "Unknown");

    std::printf("\nSystem Status: ");
    static constexpr const char *kStatus[] = {"OK", "WARNING", "CRITICAL"};
    int status = ipmiGetErrLed(session);
    if (status >= 0 && status <= 2) std::printf("%s", kStatus[status]);
    int identify = ipmiGetIdenLed(session);
    if (identify == 0) std::printf(" (Identify LED is OFF)");
    else if (identify == 1) std::printf(" (Identify LED is ON)");
    std::printf("\nPower Status : %s", ipmiChassisPowerStatus(session) ? "On" : "Off");
    std::printf("\nAsset Tag    : %s", readText(session, TVX_VAR_ASSET_TAG, text) ? text : "Unknown");
    std::puts("\r");
    return std::puts("\r");
}

} // extern "C"
