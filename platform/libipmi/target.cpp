// Which controller sessions open on: the host program's selection, else TVX_IPMI_TARGET.
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "controller.h"
#include "internal.h"
#include "lan_spec.h"
#include "libipmi_host.h"

namespace libipmi {
namespace {

struct Selection {
    ShortLock mutex;
    std::shared_ptr<Target> selected;     // chosen through the control API
    std::shared_ptr<Target> fromEnv;      // built from the environment on first use
    std::string lastPrinted;
};

Selection &sel()
{
    static Selection s;
    return s;
}

bool endsWith(const std::string &s, const char *suffix)
{
    std::string t(suffix);
    return s.size() >= t.size() && s.compare(s.size() - t.size(), t.size(), t) == 0;
}

// The last failure's reason, per thread: a program's threads each read the reason of their
// own failures, never another thread's.
std::string &threadLastError()
{
    static thread_local std::string text;
    return text;
}

} // namespace

void setLastError(const std::string &message) { threadLastError() = message; }

const char *lastError() { return threadLastError().c_str(); }

uint16_t statusForCurrentException() noexcept
{
    uint16_t status = LIBIPMI_STATUS_TRANSPORT;
    try {
        try {
            throw;
        } catch (const std::bad_alloc &) {
            status = LIBIPMI_STATUS_NO_MEMORY;
            setLastError("out of memory");
        } catch (const tvxsim::ProfileError &e) {
            status = LIBIPMI_STATUS_CONFIG_ERROR;
            setLastError(e.what());
        } catch (const nlohmann::json::exception &e) {
            status = LIBIPMI_STATUS_CONFIG_ERROR;
            setLastError(std::string("bad machine profile or state: ") + e.what());
        } catch (const std::exception &e) {
            setLastError(std::string("internal failure: ") + e.what());
        } catch (...) {
            setLastError("internal failure");
        }
    } catch (...) {
        // Not even the message could be kept (out of memory): the status says enough.
    }
    return status;
}

void setSelectedTarget(std::shared_ptr<Target> target)
{
    {
        std::lock_guard<ShortLock> g(sel().mutex);
        sel().selected.swap(target);
    }
    // The target replaced (now in `target`) is shut down outside the lock.
}

std::shared_ptr<Target> makeTarget(const std::string &spec, const std::string &stateDir, bool reset)
{
    if (spec.empty() || spec == "default") return makeMachineTarget("", stateDir, reset);
    if (spec.rfind("machine:", 0) == 0) {
        std::string path = spec.substr(8);
        if (path.empty()) {
            setLastError("target \"machine:\" names no profile (machine:PATH)");
            return nullptr;
        }
        return makeMachineTarget(path, stateDir, reset);
    }
    const bool script = spec == "script:" || spec == "script", lan = spec.rfind("lan://", 0) == 0;
    if (reset && (script || lan)) {
        // Only a virtual machine has a profile to start afresh from.
        setLastError("\"" + lan::redact(spec) + "\" is not a virtual machine: nothing to start afresh");
        return nullptr;
    }
    if (script) return scriptTarget();
    if (lan) return makeLanTarget(spec);
    if (endsWith(spec, ".json")) return makeMachineTarget(spec, stateDir, reset);
    // A mistyped LAN target may carry a password: never repeat it.
    setLastError("unknown target \"" + lan::redact(spec) +
                 "\" (expected \"default\", \"machine:PATH\", a profile path ending in .json, \"lan://USER@HOST\" "
                 "or \"script:\")");
    return nullptr;
}

std::shared_ptr<Target> resolveTarget(const char *target, const char *stateDir, bool reset)
{
    const char *spec = target && *target ? target : std::getenv(IPMIHOST_TARGET_ENV);
    return makeTarget(spec ? spec : "", stateDirOrDefault(stateDir), reset);
}

std::string stateDirOrDefault(const char *stateDir)
{
    const char *dir = stateDir ? stateDir : std::getenv(IPMIHOST_STATE_ENV);
    return dir ? dir : "";
}

std::shared_ptr<Target> currentTarget(uint16_t &status)
{
    {
        std::lock_guard<ShortLock> g(sel().mutex);
        if (sel().selected) return sel().selected;
        if (sel().fromEnv) return sel().fromEnv;
    }
    std::shared_ptr<Target> t = resolveTarget(nullptr, nullptr);
    std::lock_guard<ShortLock> g(sel().mutex);
    if (!t) {
        status = LIBIPMI_STATUS_CONFIG_ERROR;
        // An unmodified client has no other way to learn why nothing works: say it on the
        // standard error stream, once per distinct problem.
        if (threadLastError() != sel().lastPrinted) {
            std::fprintf(stderr, "libipmi: %s\n", threadLastError().c_str());
            sel().lastPrinted = threadLastError();
        }
        return nullptr;
    }
    if (!sel().fromEnv) sel().fromEnv = t;
    return sel().fromEnv;
}

} // namespace libipmi

using namespace libipmi;

extern "C" int ipmihost_select_machine(const char *profilePath, const char *stateDir)
{
    return boundary<int>(-1, [&]() -> int {
        auto t = makeMachineTarget(profilePath ? profilePath : "", stateDirOrDefault(stateDir));
        if (!t) return -1;
        setSelectedTarget(t);
        return 0;
    });
}

extern "C" int ipmihost_select_target(const char *target, const char *stateDir)
{
    return boundary<int>(-1, [&]() -> int {
        auto t = resolveTarget(target, stateDir);
        if (!t) return -1;
        setSelectedTarget(t);
        return 0;
    });
}

extern "C" int ipmihost_reset_target(const char *target, const char *stateDir)
{
    return boundary<int>(-1, [&]() -> int {
        auto t = resolveTarget(target, stateDir, true);
        if (!t) return -1;
        setSelectedTarget(t);
        return 0;
    });
}

extern "C" int ipmihost_select_script(void)
{
    return boundary<int>(-1, [&]() -> int {
        setSelectedTarget(scriptTarget());
        return 0;
    });
}

extern "C" void ipmihost_select_default(void)
{
    boundaryVoid([&] {
        std::shared_ptr<Target> selected, fromEnv; // shut down outside the lock
        std::lock_guard<ShortLock> g(sel().mutex);
        selected.swap(sel().selected);
        fromEnv.swap(sel().fromEnv);
    });
}

extern "C" const char *ipmihost_last_error(void)
{
    return boundary<const char *>("", [&]() -> const char * { return lastError(); });
}

extern "C" const char *ipmihost_describe_target(void)
{
    return boundary<const char *>("", [&]() -> const char * {
        static thread_local std::string text;
        uint16_t status = 0;
        auto t = currentTarget(status);
        text = t ? t->describe() : std::string("(none: ") + lastError() + ")";
        return text.c_str();
    });
}
