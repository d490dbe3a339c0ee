// Which controller sessions open on: the host program's selection, else TVX_IPMI_TARGET.
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "internal.h"
#include "lan_spec.h"
#include "libipmi_host.h"

namespace libipmi {
namespace {

struct Selection {
    std::mutex mutex;
    std::shared_ptr<Target> selected;     // chosen through the control API
    std::shared_ptr<Target> fromEnv;      // built from the environment on first use
    std::string lastError;
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

} // namespace

void setLastError(const std::string &message)
{
    std::lock_guard<std::mutex> g(sel().mutex);
    sel().lastError = message;
}

const char *lastError()
{
    static thread_local std::string copy;
    std::lock_guard<std::mutex> g(sel().mutex);
    copy = sel().lastError;
    return copy.c_str();
}

void setSelectedTarget(std::shared_ptr<Target> target)
{
    std::lock_guard<std::mutex> g(sel().mutex);
    sel().selected = std::move(target);
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
        std::lock_guard<std::mutex> g(sel().mutex);
        if (sel().selected) return sel().selected;
        if (sel().fromEnv) return sel().fromEnv;
    }
    std::shared_ptr<Target> t = resolveTarget(nullptr, nullptr);
    std::lock_guard<std::mutex> g(sel().mutex);
    if (!t) {
        status = LIBIPMI_STATUS_CONFIG_ERROR;
        // An unmodified client has no other way to learn why nothing works: say it on the
        // standard error stream, once per distinct problem.
        if (sel().lastError != sel().lastPrinted) {
            std::fprintf(stderr, "libipmi: %s\n", sel().lastError.c_str());
            sel().lastPrinted = sel().lastError;
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
    auto t = makeMachineTarget(profilePath ? profilePath : "", stateDirOrDefault(stateDir));
    if (!t) return -1;
    setSelectedTarget(t);
    return 0;
}

extern "C" int ipmihost_select_target(const char *target, const char *stateDir)
{
    auto t = resolveTarget(target, stateDir);
    if (!t) return -1;
    setSelectedTarget(t);
    return 0;
}

extern "C" int ipmihost_reset_target(const char *target, const char *stateDir)
{
    auto t = resolveTarget(target, stateDir, true);
    if (!t) return -1;
    setSelectedTarget(t);
    return 0;
}

extern "C" int ipmihost_select_script(void)
{
    setSelectedTarget(scriptTarget());
    return 0;
}

extern "C" void ipmihost_select_default(void)
{
    std::lock_guard<std::mutex> g(sel().mutex);
    sel().selected.reset();
    sel().fromEnv.reset();
}

extern "C" const char *ipmihost_last_error(void) { return lastError(); }

extern "C" const char *ipmihost_describe_target(void)
{
    static thread_local std::string text;
    uint16_t status = 0;
    auto t = currentTarget(status);
    text = t ? t->describe() : std::string("(none: ") + lastError() + ")";
    return text.c_str();
}
