// The vendor's component status (OEM command 0xF5, sub-function 0x40): the status of one
// component of the machine, named by two key bytes, as the profile's "components" list
// describes it.
//
// Request after the IANA number and the sub-function: key0, key1, 0x01.
// Answer after the completion code and the IANA number: component ID (2 bytes), 3 component
// bytes, status (bits 1..0), 1 component byte, name length (bits 4..0), name characters.
// A component the controller knows but cannot read answers its own completion code (0x01,
// 0x02) with the same layout. A key the controller does not know answers 0xCB (requested
// data not present) with nothing after the IANA number; a selector other than 0x01 answers
// 0xCC, a request of another length 0xC7.
#include <algorithm>
#include <array>
#include <map>

#include "controller.h"

namespace tvxsim {
namespace {

constexpr uint8_t kSelector = 0x01;

// The two key bytes that name a component.
using Key = std::array<uint8_t, 2>;

struct Component {
    uint8_t completionCode = 0;
    std::vector<uint8_t> answer; // the bytes after the IANA number
};

std::vector<uint8_t> fixedBytes(const Node &obj, const char *key, std::size_t count)
{
    Node n = obj.at(key);
    std::vector<uint8_t> b = n.bytes();
    if (b.size() != count)
        n.fail("expected exactly " + std::to_string(count) + " byte" + (count == 1 ? "" : "s") + ", got " +
               std::to_string(b.size()));
    return b;
}

std::map<Key, Component> parseComponents(const Profile &profile)
{
    std::map<Key, Component> out;
    std::map<Key, std::string> where;
    auto list = profile.root().find("components");
    if (!list) return out;
    for (std::size_t i = 0; i < list->size(); ++i) {
        Node n = list->at(i);
        n.allowOnly({"key", "id", "bytes", "status", "byte", "name", "completion_code"});
        std::vector<uint8_t> key = fixedBytes(n, "key", 2);
        Key k;
        std::copy(key.begin(), key.end(), k.begin());
        if (auto other = where.find(k); other != where.end())
            n.at("key").fail("the key is already used by " + other->second);
        where[k] = n.path();
        Component c;
        std::vector<uint8_t> id = fixedBytes(n, "id", 2);
        std::vector<uint8_t> bytes = fixedBytes(n, "bytes", 3);
        uint8_t status = static_cast<uint8_t>(n.at("status").integer(0, 3));
        uint8_t byte = 0;
        if (auto v = n.find("byte")) byte = v->byte();
        Node nameNode = n.at("name");
        std::string name = nameNode.string();
        if (name.size() > 31)
            nameNode.fail("a component name has at most 31 characters, got " + std::to_string(name.size()));
        for (char ch : name)
            if (static_cast<unsigned char>(ch) < 0x20 || static_cast<unsigned char>(ch) > 0x7E)
                nameNode.fail("\"" + name + "\": only printable ASCII characters fit a component name");
        if (auto v = n.find("completion_code")) c.completionCode = v->byte();
        wire::Appender(c.answer)
            .bytes(id)
            .bytes(bytes)
            .u8(status)
            .u8(byte)
            .u8(static_cast<uint8_t>(name.size()))
            .bytes({reinterpret_cast<const uint8_t *>(name.data()), name.size()});
        out[k] = std::move(c);
    }
    return out;
}

void install(Controller &c)
{
    auto components = std::make_shared<const std::map<Key, Component>>(parseComponents(c.profile()));
    c.onOemSub(tvx::oem::cmd::kVendor, tvx::oem::vendor::kComponentStatus, [components](Context &, const Request &req,
                                                                                     Response &rsp) {
        wire::Reader in = req.reader();
        const wire::View key = in.bytes(std::tuple_size_v<Key>);
        const uint8_t selector = in.u8();
        if (!rsp.complete(in)) return;
        if (selector != kSelector) return rsp.fail(cc::kInvalidDataField);
        Key k;
        std::copy(key.span().begin(), key.span().end(), k.begin());
        auto it = components->find(k);
        if (it == components->end()) return rsp.fail(cc::kNotPresent);
        rsp.fail(it->second.completionCode);
        rsp.append(it->second.answer);
    });
}

} // namespace

const Subsystem kComponentSubsystem = {"components", install, nullptr};

} // namespace tvxsim
