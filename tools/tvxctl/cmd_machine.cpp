// tvxctl reset / target: the virtual controller's machine and state.
#include <iostream>

#include "cli.h"
#include "libipmi_host.h"

namespace tvxctl {

int cmdReset(const Options &opt, const std::vector<std::string> &args)
{
    if (!args.empty()) throw Failure{kExitUsage, "reset takes no arguments"};
    // The machine was reset as it was selected (see main).
    const char *state = ipmihost_state_file();
    std::string path = state ? state : "";
    if (opt.json) {
        printJson({{"reset", true}, {"state_file", path}});
    } else {
        std::cout << "The machine starts afresh from its profile (state file " << path << ").\n";
    }
    return kExitOk;
}

int cmdTarget(const Options &opt, const std::vector<std::string> &args)
{
    if (!args.empty()) throw Failure{kExitUsage, "target takes no arguments"};
    std::string what = ipmihost_describe_target();
    const char *state = ipmihost_state_file();
    if (opt.json) {
        printJson({{"target", what}, {"state_file", state ? Json(state) : Json(nullptr)}});
    } else {
        std::cout << what << "\n";
    }
    return kExitOk;
}

} // namespace tvxctl
