// tvxctl banner, power and led.
#include <cstdio>
#include <iostream>

#include "cli.h"

namespace tvxctl {

int cmdBanner(const Options &opt, const std::vector<std::string> &args)
{
    if (!args.empty()) throw Failure{kExitUsage, "banner takes no arguments"};
    if (opt.json) throw Failure{kExitUsage, "banner is text only: it prints what the console shows"};
    Session session;
    std::cout.flush();
    int result = ipmiPrintLoginHeader(session.get());
    std::fflush(stdout);
    return result >= 0 ? kExitOk : kExitFailed;
}

int cmdPower(const Options &opt, const std::vector<std::string> &args)
{
    std::string action = args.empty() ? "status" : args[0];
    if (args.size() > 1) throw Failure{kExitUsage, "power takes one action: status, on, off, cycle, reset or soft"};
    static const struct {
        const char *name;
        int (*run)(IpmiSession *);
        const char *done;
    } kActions[] = {{"on", ipmiPowerOn, "Chassis Power Control: Up/On"},
                    {"off", ipmiPowerOff, "Chassis Power Control: Down/Off"},
                    {"cycle", ipmiPowerCycle, "Chassis Power Control: Cycle"},
                    {"reset", ipmiHardReset, "Chassis Power Control: Reset"},
                    {"soft", ipmiSoftOff, "Chassis Power Control: Soft"}};
    Session session;
    if (action == "status") {
        bool on = ipmiChassisPowerStatus(session.get()) != 0;
        // 0 is "off" and "could not be read" alike: the request's fate tells them apart.
        if (!on && !session.whyFailed().empty()) throw session.failed("cannot read the chassis power state");
        if (opt.json) printJson({{"power", on ? "on" : "off"}});
        else std::cout << "Chassis Power is " << (on ? "on" : "off") << "\n";
        return kExitOk;
    }
    for (const auto &a : kActions) {
        if (action != a.name) continue;
        if (!a.run(session.get())) throw session.failed(std::string("power ") + a.name + " was not carried out");
        if (opt.json) printJson({{"action", a.name}, {"done", true}});
        else std::cout << a.done << "\n";
        return kExitOk;
    }
    throw Failure{kExitUsage, "unknown power action \"" + action + "\" (status, on, off, cycle, reset, soft)"};
}

int cmdLed(const Options &opt, const std::vector<std::string> &args)
{
    static const char *kSystem[] = {"OK", "WARNING", "CRITICAL"};
    Session session;
    if (args.empty() || (args.size() == 1 && args[0] == "status")) {
        // The library reads a refused request as 0 (off, OK); so is it shown only when the
        // request was carried out.
        int identify = ipmiGetIdenLed(session.get());
        if (!identify && !session.whyFailed().empty()) throw session.failed("cannot read the identify LED");
        int error = ipmiGetErrLed(session.get());
        if (!error && !session.whyFailed().empty()) throw session.failed("cannot read the system status (error LED)");
        std::string system = error >= 0 && error <= 2 ? kSystem[error] : "unknown (" + std::to_string(error) + ")";
        if (opt.json) {
            printJson({{"identify", identify ? "on" : "off"}, {"error_led", error}, {"system_status", system}});
        } else {
            std::cout << "Identify LED  : " << (identify ? "on" : "off") << "\n";
            std::cout << "System status : " << system << " (error LED " << error << ")\n";
        }
        return kExitOk;
    }
    if (args.size() == 2 && args[0] == "identify" && (args[1] == "on" || args[1] == "off")) {
        int status = ipmiSetIdenLed(session.get(), args[1] == "on" ? 1 : 0);
        if (status != 0) throw session.failed("cannot set the identify LED");
        if (opt.json) printJson({{"identify", args[1]}});
        else std::cout << "Identify LED " << args[1] << "\n";
        return kExitOk;
    }
    throw Failure{kExitUsage, "usage: tvxctl led [status] | led identify on|off"};
}

} // namespace tvxctl
