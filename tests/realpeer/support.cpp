#include "support.h"

#include <unistd.h>

#include "libipmi.h"

namespace realpeer {

std::string defaultProfile() { return std::string(TVX_MACHINES_DIR) + "/default.json"; }

std::string workDir(const std::string &name)
{
    std::string dir = std::string(TVX_REALPEER_WORK) + "/" + name + "-" + std::to_string(::getpid());
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

std::unique_ptr<tvxsim::ipmisim::Peer> startPeer(const std::string &name, const std::string &profilePath,
                                                 bool withModule)
{
    tvxsim::ipmisim::PeerOptions o;
    o.profilePath = profilePath;
    if (withModule) o.modulePath = TVX_IPMI_SIM_MODULE;
    o.workDir = workDir(name);
    return std::make_unique<tvxsim::ipmisim::Peer>(std::move(o));
}

tvxsim::ipmisim::Peer &defaultPeer()
{
    static std::unique_ptr<tvxsim::ipmisim::Peer> peer = startPeer("default", defaultProfile());
    return *peer;
}

Outcome tvxctl(const tvxsim::ipmisim::Peer *peer, const std::vector<std::string> &args,
               const std::vector<std::string> &env)
{
    static const std::string scratch = workDir("tvxctl");
    std::vector<std::string> argv;
    if (peer) argv = {"--target", peer->target("&timeout=2000")};
    argv.insert(argv.end(), args.begin(), args.end());
    return tvxtest::tvxctl(scratch, argv, env);
}

Outcome ipmitool(const tvxsim::ipmisim::Peer &peer, const std::vector<std::string> &args)
{
    const auto &u = peer.options().users.front();
    std::vector<std::string> argv = {
        "ipmitool", "-I",   "lanplus", "-H",       "127.0.0.1", "-p", std::to_string(peer.port()),
        "-U",       u.name, "-P",      u.password, "-C",        "3",  "-N",
        "1",        "-R",   "2"};
    argv.insert(argv.end(), args.begin(), args.end());
    return tvxtest::run(argv);
}

uint16_t raw(IpmiSession *session, uint8_t netFn, uint8_t command, const std::vector<uint8_t> &request,
             std::vector<uint8_t> &response)
{
    response.assign(LIBIPMI_MAX_RESPONSE_LEN, 0);
    uint32_t len = static_cast<uint32_t>(response.size());
    std::vector<uint8_t> rq = request;
    uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, static_cast<uint8_t>(netFn << 2), command,
                                                       rq.empty() ? nullptr : rq.data(),
                                                       static_cast<uint32_t>(rq.size()), response.data(), &len, 60);
    response.resize(status == 0 || LIBIPMI_STATUS_IS_COMPLETION_CODE(status) ? len : 0);
    return status;
}

} // namespace realpeer
