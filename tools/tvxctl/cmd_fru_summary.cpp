// tvxctl fru summary: the chassis and board texts the library's inventory getters collect
// from the system chassis and system board FRU devices (what the agent reports).
#include <cstdio>
#include <cstring>

#include "cli.h"

namespace tvxctl {
namespace {

Json text(const char *t) { return t ? Json(t) : Json(nullptr); }

} // namespace

int cmdFruSummary(const Options &opt, IpmiSession *session)
{
    SDRInfo sdr;
    std::memset(&sdr, 0, sizeof sdr);
    if (!getSDRInfo(session, &sdr)) throw Failure{kExitFailed, "cannot read the SDR repository"};
    ChassisInfo chassis;
    BoardInfo board;
    std::memset(&chassis, 0, sizeof chassis);
    std::memset(&board, 0, sizeof board);
    const int haveProduct = ipmiGetChassisInfo(session, &chassis, &sdr);
    const int haveBoard = ipmiGetBoardInfo(session, &board, &sdr);
    freeSDRInfo(&sdr);
    // Labels as the device listing uses them, with the JSON names.
    const struct {
        const char *key, *label, *value;
    } rows[] = {
        {"product_manufacturer", "Product Manufacturer", chassis.productManufacturer},
        {"product_part_number", "Product Part Number", chassis.productPartNumber},
        {"product_version", "Product Version", chassis.productVersion},
        {"chassis_serial_number", "Chassis Serial", chassis.chassisSerialNumber},
        {"chassis_part_number", "Chassis Part Number", chassis.chassisPartNumber},
        {"chassis_custom_field", "Chassis Extra", chassis.chassisCustomField},
        {"board_manufacturer", "Board Mfg", board.manufacturer},
        {"board_product_name", "Board Product", board.productName},
        {"board_serial_number", "Board Serial", board.serialNumber},
        {"board_part_number", "Board Part Number", board.partNumber},
        {"board_custom_field", "Board Extra", board.customField},
    };
    if (opt.json) {
        Json j = {{"product_area_found", haveProduct == 1}, {"board_area_found", haveBoard == 1}};
        for (const auto &r : rows) j[r.key] = text(r.value);
        printJson(j);
    } else {
        std::printf("Summary (system chassis and board)\n");
        for (const auto &r : rows) std::printf("  %-22s: %s\n", r.label, r.value ? r.value : "");
    }
    ipmiFreeChassisInfo(&chassis);
    ipmiFreeBoardInfo(&board);
    return kExitOk;
}

} // namespace tvxctl
