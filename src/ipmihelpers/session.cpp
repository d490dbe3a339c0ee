// Sessions and the raw request: the base every query of the library stands on.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "common/diag.h"
#include "common/timeout.h"
#include "libipmi.h"
#include "tvx/ipmi.h"
#include "tvx_toipmi.h"

using tvx::diag::Unit;

namespace {

constexpr size_t kSessionBlockSize = 36; // the platform's session record

// The block of the session closed last, kept for the next open: an agent getter opens and
// closes a session on every call, and this spares it a calloc and a free each time. It is
// an ordinary heap block, handed out zero-filled like a fresh one; at most one is kept, and
// a close that finds the place taken frees its block.
std::atomic<void *> gSpareBlock{nullptr};
static_assert(std::atomic<void *>::is_always_lock_free);

void *takeBlock()
{
    if (void *block = gSpareBlock.exchange(nullptr, std::memory_order_acquire)) {
        std::memset(block, 0, kSessionBlockSize);
        return block;
    }
    return std::calloc(1, kSessionBlockSize);
}

void giveBack(void *block)
{
    void *empty = nullptr;
    if (!gSpareBlock.compare_exchange_strong(empty, block, std::memory_order_release, std::memory_order_relaxed))
        std::free(block);
}

} // namespace

extern "C" TVX_API IpmiSession *ipmiOpenSession(uint8_t privLevel, const char *username, void *ipAddr,
                                                uint32_t IPVersion, void *pServerIp)
{
    void *block = takeBlock();
    if (!block) {
        TVX_DIAG_LOCATED(Unit::Helpers, "Filed to allocate memory.");
        return nullptr;
    }
    IpmiSession *session = static_cast<IpmiSession *>(block);
    uint8_t priv = privLevel;
    char password[1] = {'\0'}; // local sessions carry no password
    char *user = const_cast<char *>(username);
    uint16_t status = LIBIPMI_Create_IPMI_Local_Session_Ext(session, user, password, &priv, user, ipAddr,
                                                            IPVersion, pServerIp, 2, 5);
    if (status != 0) {
        TVX_DIAG_ERROR_LINE("failed to create ipmi session with error 0x%x, username = %s, privLevel = %u, "
                            "ipAddr = %p, IPVersion = %u, pServerIp = %p",
                            status, username ? username : "(null)", priv, ipAddr, IPVersion, pServerIp);
        giveBack(block);
        return nullptr;
    }
    return session;
}

extern "C" TVX_API IpmiSession *ipmiHelperOpenSession(uint8_t privLevel, const char *username, void *ipAddr,
                                                      uint32_t IPVersion, void *pServerIp)
{
    IpmiSession *session = ipmiOpenSession(privLevel, username, ipAddr, IPVersion, pServerIp);
    if (!session) TVX_DIAG_LINE("can't open ipmihelper session");
    return session;
}

extern "C" TVX_API void ipmiHelperCloseSession(IpmiSession **session)
{
    if (!session || !*session) return;
    (void)LIBIPMI_CloseSession(*session);
    giveBack(*session);
    *session = nullptr;
}

extern "C" TVX_API int ipmiSendCmd(IpmiSession *session, uint8_t netFnLun, uint8_t command, uint32_t reqLen,
                                   uint8_t *reqData, uint32_t *resLen, uint8_t *resData)
{
    if (!session || !resData) return 0;
    if (!resLen || *resLen == 0) return 0;
    const uint32_t capacity = *resLen;
    uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(session, 0, netFnLun, command, reqData, reqLen, resData, resLen,
                                                       tvx::kPlatformTimeout);
    if (status == 0) return 1;
    if (static_cast<uint16_t>(status >> 8) == 1) {
        // The controller answered with a non-zero completion code: put it where every
        // caller looks for it.
        tvx::wire::Writer(resData, capacity).put(tvx::kCompletionCode, static_cast<uint8_t>(status & 0xFF));
        return 1;
    }
    return 0;
}
