// tvxctl devid: the controller's identity, decoded.
#include <cstdio>
#include <cstring>
#include <iostream>

#include "cli.h"
#include "tvx/wire.h"

namespace tvxctl {
namespace {

constexpr const char *kSupportNames[8] = {"Sensor Device",     "SDR Repository Device", "SEL Device",
                                          "FRU Inventory Device", "IPMB Event Receiver", "IPMB Event Generator",
                                          "Bridge",            "Chassis Device"};

std::string bcdMinor(uint8_t v)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "%x%x", (v >> 4) & 0xF, v & 0xF);
    return buf;
}

} // namespace

int cmdDevid(const Options &opt, const std::vector<std::string> &args)
{
    if (!args.empty()) throw Failure{kExitUsage, "devid takes no arguments"};
    Session session;
    IpmiDeviceId id = ipmiGetDeviceId(session.get());
    IpmiDeviceId zero;
    std::memset(&zero, 0, sizeof zero);
    if (std::memcmp(&id, &zero, sizeof id) == 0) throw session.failed("the controller's identity could not be read");

    std::string firmware = std::to_string(id.firmwareRevision1 & 0x7F) + "." + bcdMinor(id.firmwareRevision2);
    std::string ipmi = std::to_string(id.ipmiVersion & 0x0F) + "." + std::to_string((id.ipmiVersion >> 4) & 0x0F);
    // The manufacturer's IANA number has 20 bits; the top four of its three bytes are reserved.
    uint32_t manufacturer = tvx::wire::Reader(id.manufacturerId, sizeof id.manufacturerId).u24() & 0x0FFFFF;
    unsigned product = tvx::wire::Reader(id.productId, sizeof id.productId).u16();
    bool busy = id.firmwareRevision1 & 0x80;
    std::vector<std::string> support;
    for (int b = 0; b < 8; ++b)
        if (id.additionalDeviceSupport & (1u << b)) support.push_back(kSupportNames[b]);
    std::vector<int> aux(id.auxFirmwareRevision, id.auxFirmwareRevision + 4);

    if (opt.json) {
        printJson({{"device_id", id.deviceId},
                   {"device_revision", id.deviceRevision & 0x0F},
                   {"provides_device_sdrs", (id.deviceRevision & 0x80) != 0},
                   {"firmware_revision", firmware},
                   {"device_available", !busy},
                   {"ipmi_version", ipmi},
                   {"manufacturer_id", manufacturer},
                   {"product_id", product},
                   {"aux_firmware_revision", aux},
                   {"additional_device_support", support}});
        return kExitOk;
    }
    char line[160];
    auto row = [&](const char *name, const std::string &value) {
        std::snprintf(line, sizeof line, "%-26s: %s\n", name, value.c_str());
        std::cout << line;
    };
    char buf[64];
    row("Device ID", std::to_string(id.deviceId));
    row("Device Revision", std::to_string(id.deviceRevision & 0x0F));
    row("Provides Device SDRs", id.deviceRevision & 0x80 ? "yes" : "no");
    row("Firmware Revision", firmware);
    row("Device Available", busy ? "no (firmware update or initialisation in progress)" : "yes");
    row("IPMI Version", ipmi);
    std::snprintf(buf, sizeof buf, "%u (0x%06X)", manufacturer, manufacturer);
    row("Manufacturer ID", buf);
    std::snprintf(buf, sizeof buf, "%u (0x%04X)", product, product);
    row("Product ID", buf);
    std::string auxText;
    for (uint8_t b : id.auxFirmwareRevision) auxText += (auxText.empty() ? "" : " ") + hexByte(b);
    row("Aux Firmware Rev Info", auxText);
    row("Additional Device Support", support.empty() ? "none" : "");
    for (const auto &s : support) std::cout << "    " << s << "\n";
    return kExitOk;
}

} // namespace tvxctl
