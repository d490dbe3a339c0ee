#include "queues.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tvx/sel_notify.h"

namespace selnotifyd {
namespace {

namespace sn = tvx::selnotify;

// Beside the key path, so every service keyed from it finds the same lock.
constexpr const char *kLockPath = "/tmp/.tvx-selnotifyd.lock";
constexpr std::size_t kMaxWatchers = 1024;

std::string errorText() { return std::strerror(errno); }

bool alive(pid_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

// The PID the lock file names (0 when it names none).
pid_t lockOwner(int fd)
{
    char text[32] = {};
    ssize_t n = pread(fd, text, sizeof text - 1, 0);
    return n > 0 ? static_cast<pid_t>(std::atol(text)) : 0;
}

} // namespace

std::string keyText(int key)
{
    char b[16];
    std::snprintf(b, sizeof b, "0x%08x", static_cast<unsigned>(key));
    return b;
}

bool Queues::claim(std::string &error)
{
    registerKey_ = ftok(sn::kKeyPath, sn::kRegisterProject);
    notifyKey_ = ftok(sn::kKeyPath, sn::kNotifyProject);
    if (registerKey_ == -1 || notifyKey_ == -1) {
        error = std::string("cannot derive the queue keys from ") + sn::kKeyPath + ": " + errorText();
        return false;
    }
    lockFd_ = open(kLockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lockFd_ == -1 && errno == EACCES) lockFd_ = open(kLockPath, O_RDONLY | O_CLOEXEC); // another user's
    if (lockFd_ == -1) {
        error = std::string("cannot open ") + kLockPath + ": " + errorText();
        return false;
    }
    if (flock(lockFd_, LOCK_EX | LOCK_NB) == -1) {
        pid_t owner = lockOwner(lockFd_);
        error = "another tvx-selnotifyd" + (owner ? " (PID " + std::to_string(owner) + ")" : std::string()) +
                " owns the SEL notification queues";
        close(lockFd_);
        lockFd_ = -1;
        return false;
    }
    // Queues that outlived their service: taken over unless a live process receives on them.
    for (key_t key : {registerKey_, notifyKey_}) {
        int id = msgget(key, 0);
        if (id == -1) continue;
        msqid_ds ds{};
        if (msgctl(id, IPC_STAT, &ds) == 0 && key == registerKey_ && ds.msg_lrpid != getpid() && alive(ds.msg_lrpid)) {
            error =
                "the SEL notification queues belong to a running process (PID " + std::to_string(ds.msg_lrpid) + ")";
            remove();
            return false;
        }
        if (msgctl(id, IPC_RMID, nullptr) == -1) {
            error = "cannot remove the SEL notification queues left behind: " + errorText();
            remove();
            return false;
        }
        log_("removed a queue left behind by an earlier service (key " + keyText(key) + ")");
    }
    // The PID only makes the refusal of a second service more helpful.
    std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(lockFd_, 0) == 0) (void)!pwrite(lockFd_, pid.data(), pid.size(), 0);
    return true;
}

bool Queues::create(std::string &error)
{
    registerQueue_ = msgget(registerKey_, IPC_CREAT | IPC_EXCL | 0660);
    notifyQueue_ = registerQueue_ == -1 ? -1 : msgget(notifyKey_, IPC_CREAT | IPC_EXCL | 0660);
    if (registerQueue_ == -1 || notifyQueue_ == -1) {
        error = "cannot create the SEL notification queues: " + errorText();
        remove();
        return false;
    }
    return true;
}

void Queues::remove()
{
    if (registerQueue_ != -1) msgctl(registerQueue_, IPC_RMID, nullptr);
    if (notifyQueue_ != -1) msgctl(notifyQueue_, IPC_RMID, nullptr);
    registerQueue_ = notifyQueue_ = -1;
    if (lockFd_ != -1) {
        (void)!ftruncate(lockFd_, 0); // the next owner writes its own PID anyway
        close(lockFd_);               // releases the lock
        lockFd_ = -1;
    }
}

void Queues::apply(long watcher, int32_t operation)
{
    if (watcher <= 0) return; // msgsnd never delivers such a type
    if (operation == sn::kRegister) {
        if (watchers_.count(watcher)) return;
        if (watchers_.size() >= kMaxWatchers) {
            log_("refused watcher " + std::to_string(watcher) + ": " + std::to_string(kMaxWatchers) +
                 " watchers are registered");
            return;
        }
        watchers_.insert(watcher);
        log_("watcher " + std::to_string(watcher) + " registered");
    } else if (operation == sn::kUnregister) {
        if (!watchers_.erase(watcher)) return;
        full_.erase(watcher);
        // What it did not collect would otherwise stay in the notify queue for good.
        sn::SelNotifyEvent drop{};
        while (msgrcv(notifyQueue_, &drop, sn::kEventBody, watcher, IPC_NOWAIT | MSG_NOERROR) != -1) {}
        log_("watcher " + std::to_string(watcher) + " unregistered");
    } else {
        log_("ignored request " + std::to_string(operation) + " of watcher " + std::to_string(watcher));
    }
}

bool Queues::receive(int flags)
{
    sn::SelNotifyRequest request{};
    // MSG_NOERROR: a larger message is cut and taken, so it cannot block the queue.
    if (msgrcv(registerQueue_, &request, sn::kRequestBody, 0, flags | MSG_NOERROR) == -1) {
        if (errno == EINTR || errno == ENOMSG) return false;
        log_("cannot receive from the register queue: " + errorText());
        broken_ = true;
        return false;
    }
    apply(request.type, request.operation);
    return true;
}

bool Queues::serveOne() { return receive(0); }

void Queues::serveWaiting()
{
    while (receive(IPC_NOWAIT)) {}
}

bool Queues::notify(const SelEvent &event)
{
    for (long watcher : watchers_) {
        sn::SelNotifyEvent message{};
        message.type = watcher;
        message.code = event.code;
        message.value16 = event.value16;
        message.value32 = event.value32;
        // Never waits: a watcher that stopped reading must not stop the service.
        if (msgsnd(notifyQueue_, &message, sn::kEventBody, IPC_NOWAIT) == 0) {
            full_.erase(watcher);
            continue;
        }
        if (errno == EIDRM || errno == EINVAL) {
            log_("the notify queue was removed");
            return false;
        }
        if (full_.insert(watcher).second)
            log_("the notify queue is full: events for watcher " + std::to_string(watcher) + " are dropped (" +
                 errorText() + ")");
    }
    return true;
}

} // namespace selnotifyd
