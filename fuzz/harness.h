// What every fuzz target shares: a controller whose answers come from the fuzz input.
//
// An input is a fixed block of parameters for the operation (the target says how many bytes;
// a short input is padded with zeros), then the answers, one per request in the order the
// requests are sent:
//
//   N (N < 0xF0) followed by N response bytes, completion code first: the status follows
//              from the completion code, as a transport derives it (none: a bad response);
//   0xFD       no answer in time;   0xFE  the link failed;   0xFF  a refused request.
//
// When the input runs out every further request times out, so every operation ends.
//
// A target may bound the sizes a controller announces (Target::boundSizes): the SEL's entry
// count and the SDR repository's record count at kCountBound, its allocation unit size at
// kUnitBound. An input (at most 4 KiB by default) fills a few hundred records at most; the
// rest of a 65,535-entry log is zero-filled records that take the same path one after the
// other, and a repository of gigabytes is an allocation that fails or a buffer the platform
// clears: per input seconds of the same work, nothing new for the fuzzer to find. Counts
// and sizes up to the field's maximum stay covered by the targets without the bound and by
// the tests.
//
// With TVX_FUZZ_MAKE_SEEDS=DIR in the environment a target writes its seed corpus instead of
// fuzzing: it runs its operation with each of its seed parameter blocks against the default
// virtual controller and stores the parameters and the controller's real answers in DIR.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>
#include <string>
#include <vector>

#include "libipmi.h"
#include "libipmi_host.h"
#include "tvx/ipmi.h"
#include "tvx/wire.h"
#include "tvx_toipmi.h"

namespace tvxfuzz {

constexpr uint8_t kTimeout = 0xFD;
constexpr uint8_t kTransport = 0xFE;
constexpr uint8_t kRefused = 0xFF;
constexpr uint8_t kLongest = 0xEF;
constexpr uint16_t kCountBound = 256;
constexpr uint16_t kUnitBound = 64;

// The parameter block: read in order, zero once used up.
class Params {
public:
    explicit Params(std::span<const uint8_t> bytes) : bytes_(bytes) {}
    uint8_t u8() { return next_ < bytes_.size() ? bytes_[next_++] : 0; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | u8() << 8); }
    uint32_t u32() { return static_cast<uint32_t>(u16() | static_cast<uint32_t>(u16()) << 16); }
    // A value below `limit` (limit > 0).
    uint32_t below(uint32_t limit) { return u8() % limit; }

private:
    std::span<const uint8_t> bytes_;
    std::size_t next_ = 0;
};

// One fuzz target: the size of its parameter block, the operation, and the parameter blocks
// its seeds are recorded with.
struct Target {
    std::size_t paramBytes;
    void (*run)(IpmiSession *session, Params &params);
    std::vector<std::vector<uint8_t>> seeds;
    bool boundSizes = false;
};

// Defined by each target.
const Target &target();

namespace detail {

struct Feed {
    const uint8_t *data = nullptr;
    std::size_t size = 0;
};

inline Feed &feed()
{
    static Feed f;
    return f;
}

inline uint16_t statusOf(const uint8_t *bytes, uint32_t length)
{
    if (length == 0) return LIBIPMI_STATUS_BAD_RESPONSE;
    return bytes[0] == 0 ? LIBIPMI_STATUS_OK : LIBIPMI_STATUS_COMPLETION_CODE(bytes[0]);
}

// The announced size fields, where an answer's data (completion code first) holds them.
constexpr tvx::wire::U16 kSelEntries{offsetof(SelInfo, entries)};
constexpr tvx::wire::U16 kSdrRecordCount{offsetof(SdrRepositoryInfo, recordCount)};
constexpr tvx::wire::U16 kSdrAllocUnitSize{offsetof(SdrRepositoryAllocInfo, allocUnitSize)};

inline void bound(uint8_t *res, uint32_t length, tvx::wire::U16 field, uint16_t limit)
{
    const tvx::wire::View answer(res, length);
    const uint16_t value = answer.get(field, uint16_t{0});
    if (value > limit) tvx::wire::Writer(res, length).put(field, static_cast<uint16_t>(value % limit + 1));
}

inline void boundSizes(uint8_t netFnLun, uint8_t command, uint8_t *res, uint32_t length)
{
    namespace storage = tvx::cmd::storage;
    if (netFnLun >> 2 != tvx::netfn::kStorage) return;
    if (command == storage::kGetSelInfo) bound(res, length, kSelEntries, kCountBound);
    if (command == storage::kGetSdrRepositoryInfo) bound(res, length, kSdrRecordCount, kCountBound);
    if (command == storage::kGetSdrRepositoryAllocInfo) bound(res, length, kSdrAllocUnitSize, kUnitBound);
}

inline uint16_t answerFromInput(void *, uint8_t netFnLun, uint8_t command, const uint8_t *, uint32_t, uint8_t *res,
                                uint32_t *resLen)
{
    Feed &f = feed();
    if (f.size == 0) {
        *resLen = 0;
        return LIBIPMI_STATUS_TIMEOUT;
    }
    uint32_t capacity = *resLen;
    uint8_t head = *f.data++;
    --f.size;
    *resLen = 0;
    if (head == kTimeout) return LIBIPMI_STATUS_TIMEOUT;
    if (head == kTransport) return LIBIPMI_STATUS_TRANSPORT;
    if (head == kRefused) return LIBIPMI_STATUS_INVALID_ARGUMENT;
    std::size_t n = head > kLongest ? kLongest : head;
    if (n > f.size) n = f.size;
    if (n > capacity) n = capacity;
    std::memcpy(res, f.data, n);
    f.data += n;
    f.size -= n;
    *resLen = static_cast<uint32_t>(n);
    if (target().boundSizes) boundSizes(netFnLun, command, res, *resLen);
    return statusOf(res, *resLen);
}

// Recording: the answers of a real controller, reached through a session opened on it.
struct Recorder {
    alignas(8) uint8_t block[LIBIPMI_SESSION_SIZE] = {};
    IpmiSession *machine() { return reinterpret_cast<IpmiSession *>(block); }
    std::vector<uint8_t> answers;
    std::vector<std::vector<uint8_t>> requests; // [NetFn/LUN] [command] [N] [N data bytes]
};

inline uint16_t answerFromMachine(void *context, uint8_t netFnLun, uint8_t command, const uint8_t *req,
                                  uint32_t reqLen, uint8_t *res, uint32_t *resLen)
{
    auto *r = static_cast<Recorder *>(context);
    std::vector<uint8_t> &request = r->requests.emplace_back();
    request.insert(request.end(), {netFnLun, command, static_cast<uint8_t>(reqLen > 255 ? 255 : reqLen)});
    request.insert(request.end(), req, req + request[2]);
    uint32_t capacity = *resLen;
    uint16_t status = LIBIPMI_Send_RAW_IPMI2_0_Command(r->machine(), 0, netFnLun, command,
                                                      const_cast<uint8_t *>(req), reqLen, res, &capacity, 5);
    if (status == LIBIPMI_STATUS_OK || LIBIPMI_STATUS_IS_COMPLETION_CODE(status)) {
        if (capacity > kLongest) capacity = kLongest;
        r->answers.push_back(static_cast<uint8_t>(capacity));
        r->answers.insert(r->answers.end(), res, res + capacity);
        *resLen = capacity;
        return statusOf(res, capacity);
    }
    *resLen = 0;
    r->answers.push_back(status == LIBIPMI_STATUS_TIMEOUT ? kTimeout : kTransport);
    return status;
}

inline void runOnce(std::span<const uint8_t> input)
{
    const Target &t = target();
    std::size_t p = input.size() < t.paramBytes ? input.size() : t.paramBytes;
    Params params(input.first(p));
    ipmihost_script_reset();
    IpmiSession *session = ipmiOpenSession(TVX_PRIV_ADMIN, "", nullptr, 0, nullptr);
    if (!session) std::abort(); // the scripted exchange always opens
    t.run(session, params);
    ipmiHelperCloseSession(&session);
    // The script keeps a record of every call: dropped here rather than by the next input, so
    // that an input frees what it allocated and libFuzzer does not run it again to look for a
    // leak.
    ipmihost_script_reset();
}

inline void writeFile(const std::string &path, const std::vector<uint8_t> &bytes)
{
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || std::fclose(f) != 0) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

// Also writes the requests sent, 16 to a file, as seeds for the virtual controller's request
// handling when TVX_FUZZ_MAKE_REQUEST_SEEDS=DIR is set.
inline void makeSeeds(const char *dir)
{
    const char *requestDir = std::getenv("TVX_FUZZ_MAKE_REQUEST_SEEDS");
    std::string prefix = std::getenv("TVX_FUZZ_NAME") ? std::getenv("TVX_FUZZ_NAME") : "seed";
    const Target &t = target();
    int n = 0;
    for (const std::vector<uint8_t> &params : t.seeds) {
        Recorder r;
        uint8_t priv = TVX_PRIV_ADMIN;
        if (ipmihost_select_machine(nullptr, nullptr) != 0 ||
            LIBIPMI_Create_IPMI_Local_Session_Ext(r.machine(), const_cast<char *>(""), const_cast<char *>(""), &priv,
                                                  nullptr, nullptr, 0, nullptr, 0, 0) != LIBIPMI_STATUS_OK) {
            std::fprintf(stderr, "cannot open the default machine: %s\n", ipmihost_last_error());
            std::exit(1);
        }
        ipmihost_select_script();
        ipmihost_script_set_responder(answerFromMachine, &r);
        std::vector<uint8_t> block(params);
        block.resize(t.paramBytes);
        runOnce(block);
        LIBIPMI_CloseSession(r.machine());
        block.insert(block.end(), r.answers.begin(), r.answers.end());
        writeFile(std::string(dir) + "/seed-" + std::to_string(n), block);
        for (std::size_t i = 0; requestDir && i < r.requests.size(); i += 16) {
            std::vector<uint8_t> batch;
            for (std::size_t j = i; j < r.requests.size() && j < i + 16; ++j)
                batch.insert(batch.end(), r.requests[j].begin(), r.requests[j].end());
            writeFile(std::string(requestDir) + "/" + prefix + "-" + std::to_string(n) + "-" + std::to_string(i / 16),
                      batch);
        }
        ++n;
    }
    std::printf("%d seeds in %s\n", n, dir);
    std::exit(0);
}

} // namespace detail

// Frees a list the library built.
inline void drop(ListNode *list) { freeList(&list); }

} // namespace tvxfuzz

// A controller can announce an SDR repository of up to 4 GiB or a SEL of 65,535 entries, and
// the library allocates (and the platform zero-fills) what it is told: the allocation itself
// is documented behaviour, not a finding. Above 64 MiB (libFuzzer itself takes 20 MiB at
// once) malloc fails here instead, which the library reports like any failed allocation;
// with no cap most of the time went to clearing gigabytes no answer ever filled (the input
// holds a few KiB of answers).
// A freed block waits in a quarantine of 16 MiB rather than 256 (a use after free within an
// input is still caught; fewer fresh pages to fault in), and a report names 5 frames of where
// a block was allocated and freed (replay the input for more): a third more executions.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64:quarantine_size_mb=16:malloc_context_size=5";
}

// The scripted controller answers at once from the input, and what the platform does after a
// pause (polling a bridged answer, waiting out another client's LAN transaction) is counted in
// attempts and in the delays it asked for, not in time that passed. Pausing for real only made
// an input that answers "busy" cost seconds of doing nothing: here a pause returns at once.
extern "C" int nanosleep(const struct timespec *, struct timespec *) { return 0; }

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    if (const char *dir = std::getenv("TVX_FUZZ_MAKE_SEEDS")) tvxfuzz::detail::makeSeeds(dir);
    ipmihost_select_script();
    ipmihost_script_set_responder(tvxfuzz::detail::answerFromInput, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    std::span<const uint8_t> input(data, size);
    std::size_t p = tvxfuzz::target().paramBytes;
    tvxfuzz::detail::feed() = {size > p ? data + p : nullptr, size > p ? size - p : 0};
    tvxfuzz::detail::runOnce(input);
    return 0;
}
