// tvxctl raw NETFN CMD [BYTE...]: one request, as ipmitool raw sends it.
#include <cstdio>
#include <iostream>

#include "cli.h"
#include "libipmi.h"
#include "tvx/ipmi.h"

namespace tvxctl {

int cmdRaw(const Options &opt, const std::vector<std::string> &args)
{
    if (args.size() < 2) throw Failure{kExitUsage, "raw needs NETFN and CMD, e.g. 'raw 0x06 0x01'"};
    uint8_t netFn, cmd;
    if (!parseByte(args[0], netFn) || netFn > 0x3F)
        throw Failure{kExitUsage, "invalid NETFN \"" + args[0] + "\" (0x00 to 0x3f)"};
    if (!parseByte(args[1], cmd)) throw Failure{kExitUsage, "invalid CMD \"" + args[1] + "\" (0x00 to 0xff)"};
    std::vector<uint8_t> request;
    for (std::size_t i = 2; i < args.size(); ++i) {
        uint8_t b;
        if (!parseByte(args[i], b)) throw Failure{kExitUsage, "invalid data byte \"" + args[i] + "\" (0x00 to 0xff)"};
        request.push_back(b);
    }
    Session session;
    std::vector<uint8_t> response(LIBIPMI_MAX_RESPONSE_LEN);
    uint32_t len = static_cast<uint32_t>(response.size());
    uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(session.get(), 0, tvx::netfn::lun0(netFn), cmd,
                                                       request.empty() ? nullptr : request.data(),
                                                       static_cast<uint32_t>(request.size()), response.data(), &len, 60);
    if (status != 0 && !LIBIPMI_STATUS_IS_COMPLETION_CODE(status))
        throw Failure{kExitFailed, "unable to send RAW command (netfn=" + hexByte(netFn) + " cmd=" + hexByte(cmd) +
                                       "): " + statusText(status)};
    response.resize(len);
    // The completion code, else (nothing arrived) the one the status carries; then the data.
    const tvx::wire::View answer(response);
    const uint8_t cc = answer.get(tvx::kCompletionCode, static_cast<uint8_t>(status & 0xFF));
    const tvx::wire::View data = answer.from(tvx::kAnswerData);
    if (opt.json) {
        printJson({{"netfn", netFn},
                   {"command", cmd},
                   {"completion_code", cc},
                   {"completion_code_text", tvx::cc::text(cc)},
                   {"data", std::vector<int>(data.span().begin(), data.span().end())}});
        return cc == 0 ? kExitOk : kExitFailed;
    }
    if (cc != 0) {
        std::fprintf(stderr, "tvxctl: unable to send RAW command (netfn=%s cmd=%s rsp=%s): %s\n", hexByte(netFn).c_str(),
                     hexByte(cmd).c_str(), hexByte(cc).c_str(), tvx::cc::text(cc));
        return kExitFailed;
    }
    // Data bytes as ipmitool prints them: " xx", sixteen to a line.
    constexpr std::size_t kPerLine = 16;
    for (std::size_t at = 0; at < data.size(); at += kPerLine)
        std::printf("%s %s", at ? "\n" : "", tvx::hexBytes(data.upTo(at, kPerLine).span()).c_str());
    std::printf("\n");
    return kExitOk;
}

} // namespace tvxctl
