// Writing one LAN configuration parameter so that it takes effect on every kind of controller:
// inside a set-in-progress / commit transaction where the controller has one (some keep a
// parameter written outside it only until the next commit, or not at all), as a single
// request where it has none. IPMICMD_SetLANConfig is meant to be built on this; see the
// comment at its declaration in libipmi.h.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "libipmi.h"

namespace libipmi {

// How long a write waits for another client's transaction to end: Set In Progress is asked
// again after firstDelayMs, then after twice as long each time (at most maxDelayMs), until
// budgetMs have passed.
struct LanSetWait {
    unsigned budgetMs = 5000;
    unsigned firstDelayMs = 5;
    unsigned maxDelayMs = 250;
};

// `request` is the Set LAN Configuration Parameters request: channel, parameter selector,
// parameter data. Returns the status of the parameter write itself (0, 0x0100|cc, or no
// answer), or that of the commit when the commit fails, or 0x0181 when another client's
// transaction did not end in time (nothing written then); `response` holds the parameter
// write's response bytes. Selector 0 (set in progress) is sent as given, in one request: the
// caller manages the transaction then.
uint16_t setLanParameterCommitted(IpmiSession *session, std::span<const uint8_t> request,
                                  std::vector<uint8_t> &response, int timeout, const LanSetWait &wait = {});

} // namespace libipmi
