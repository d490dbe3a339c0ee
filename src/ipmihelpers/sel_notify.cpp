// The watcher's side of the SEL notification queues: registering and unregistering with the
// controller's notification service, and receiving its messages. No state is kept: every
// call derives the key and opens the queue again, so a service that restarted (with new
// queues) is found by the next call.
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>

#include "common/diag.h"
#include "tvx/sel_notify.h"
#include "tvx_toipmi.h"

namespace sn = tvx::selnotify;

namespace {

int selNotifySendRegistration(int32_t operation, int watcherId)
{
    key_t key = ftok(sn::kKeyPath, sn::kRegisterProject);
    if (key == -1) return -1;
    int queue = msgget(key, 0660);
    if (queue == -1) {
        tvx::diag::plainFormat("Can't open register queue: %s\n", std::strerror(errno));
        return -1;
    }
    sn::SelNotifyRequest message{};
    message.type = watcherId;
    message.operation = operation;
    // Flags 0: waits while the queue is full rather than losing the request.
    if (msgsnd(queue, &message, sn::kRequestBody, 0) == -1) {
        tvx::diag::plainFormat("Can't send registration request by watcher %d: %s\n", watcherId, std::strerror(errno));
        return -1;
    }
    return 0;
}

} // namespace

extern "C" {

TVX_API int selNotifyRegisterRemote(int watcherId) { return selNotifySendRegistration(sn::kRegister, watcherId); }

TVX_API int selNotifyUnregisterRemote(int watcherId) { return selNotifySendRegistration(sn::kUnregister, watcherId); }

TVX_API int selNotifyRecvRemote(int flags, uint8_t *code, uint32_t *value32, uint16_t *value16, long type)
{
    // A key or queue that cannot be had makes msgrcv fail on the invalid queue ID.
    key_t key = ftok(sn::kKeyPath, sn::kNotifyProject);
    int queue = key == -1 ? -1 : msgget(key, 0);
    sn::SelNotifyEvent message{};
    if (msgrcv(queue, &message, sn::kEventBody, type, flags) == -1) return 0;
    if (code) *code = message.code;
    if (value32) *value32 = message.value32;
    if (value16) *value16 = message.value16;
    return 1;
}

} // extern "C"
