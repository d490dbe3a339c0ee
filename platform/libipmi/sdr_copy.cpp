// The on-disk SDR copy of a LAN controller. The file:
//
//   "TVXSDR1\n"                          8 bytes
//   addition time stamp, erase time stamp  u32 each, as Get SDR Repository Info gave them
//   allocation info                      units u16, unit size u16, free units u16,
//                                        largest free block u16, maximum record size u8
//   record count                         u32
//   the records, whole, one after the other (each as long as its header says)
//
// Anything else (short, long, a record past the end, a slot too small for a record) is not a
// copy, and the repository is read from the controller again.
#include "sdr_copy.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tvx/records.h"
#include "tvx/wire.h"

namespace libipmi::sdrcopy {
namespace {

namespace wire = tvx::wire;
namespace sdr = tvx::sdr;

constexpr char kMagic[8] = {'T', 'V', 'X', 'S', 'D', 'R', '1', '\n'};
constexpr uint32_t kMaxRecords = 0xFFFF;
constexpr std::size_t kMaxFile = 64 + std::size_t{kMaxRecords} * sdr::kMaxRecordSize;

bool makeDirs(const std::string &dir)
{
    for (std::size_t slash = 1; slash != std::string::npos;) {
        slash = dir.find('/', slash + 1);
        std::string part = dir.substr(0, slash);
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
    }
    return true;
}

} // namespace

std::string pathFor(const std::string &endpoint)
{
    std::string base;
    if (const char *x = std::getenv("XDG_CACHE_HOME"); x && *x == '/') base = x;
    else if (const char *h = std::getenv("HOME"); h && *h == '/') base = std::string(h) + "/.cache";
    else return {};
    std::string key = endpoint;
    for (char &c : key) {
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                     c == '-' || c == '_';
        if (!plain) c = '_';
    }
    return base + "/tvx/sdr/" + key;
}

std::optional<Copy> load(const std::string &path)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::vector<uint8_t> bytes;
    uint8_t buf[8192];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || bytes.size() + static_cast<std::size_t>(n) > kMaxFile) {
            if (n != 0) bytes.clear(), bytes.shrink_to_fit();
            break;
        }
        bytes.insert(bytes.end(), buf, buf + n);
    }
    ::close(fd);
    wire::Reader in(bytes.data(), bytes.size());
    wire::View magic = in.bytes(sizeof kMagic);
    if (!in.ok() || std::memcmp(magic.data(), kMagic, sizeof kMagic) != 0) return std::nullopt;
    Copy c;
    c.additionTime = in.u32();
    c.eraseTime = in.u32();
    c.alloc.completionCode = 0;
    c.alloc.numAllocUnits = in.u16();
    c.alloc.allocUnitSize = in.u16();
    c.alloc.numFreeUnits = in.u16();
    c.alloc.largestFreeBlock = in.u16();
    c.alloc.maxRecordSize = in.u8();
    const uint32_t count = in.u32();
    if (!in.ok() || count > kMaxRecords) return std::nullopt;
    const std::size_t slot = static_cast<std::size_t>(c.alloc.allocUnitSize) * c.alloc.maxRecordSize;
    c.records.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        wire::View header = in.bytes(sdr::kHeaderSize);
        if (!in.ok()) return std::nullopt;
        const std::size_t length = sdr::kHeaderSize + header.get(sdr::kLength, uint8_t{0});
        if (length > slot) return std::nullopt;
        wire::View body = in.bytes(length - sdr::kHeaderSize);
        if (!in.ok()) return std::nullopt;
        std::vector<uint8_t> record(header.data(), header.data() + sdr::kHeaderSize);
        record.insert(record.end(), body.data(), body.data() + body.size());
        c.records.push_back(std::move(record));
    }
    if (!in.rest().empty()) return std::nullopt;
    return c;
}

bool store(const std::string &path, const Copy &copy)
{
    std::size_t slash = path.rfind('/');
    if (slash == std::string::npos || !makeDirs(path.substr(0, slash))) return false;
    std::vector<uint8_t> bytes(kMagic, kMagic + sizeof kMagic);
    wire::Appender out(bytes);
    out.u32(copy.additionTime).u32(copy.eraseTime);
    out.u16(copy.alloc.numAllocUnits).u16(copy.alloc.allocUnitSize).u16(copy.alloc.numFreeUnits);
    out.u16(copy.alloc.largestFreeBlock).u8(copy.alloc.maxRecordSize);
    out.u32(static_cast<uint32_t>(copy.records.size()));
    for (const auto &r : copy.records) out.bytes(r);
    // A name of this process's own, so that programs storing at once do not mix their bytes.
    const std::string temp = path + ".tmp" + std::to_string(::getpid());
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    bool ok = done == bytes.size() && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (ok && ::rename(temp.c_str(), path.c_str()) == 0) return true;
    ::unlink(temp.c_str());
    return false;
}

} // namespace libipmi::sdrcopy
