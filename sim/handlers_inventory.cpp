// The OEM requests around the inventory: whether the host's agent is connected (OEM command
// 0x02, sub-function 0x08) and the controller's EEPROM information blocks (command 0xF5,
// sub-function 0x12), both as the profile describes them:
//
//   "host_agent": {"state": "connected"}        never_connected (the default), connected,
//                                               connection_lost
//   "eeprom_info": ["16 bytes", ...]            block 0, 1, ... (16 bytes each, uninterpreted)
//
// Agent answer: a reserved byte 0x00, then the state (0 never connected, 1 connected, 2 the
// connection was lost). EEPROM answer: the 16 bytes of the block the index byte names; an
// index without a block answers 0xCB. Requests of another length answer 0xC7.
#include "controller.h"
#include "tvx/inventory.h"

namespace tvxsim {
namespace {

namespace layout = tvx::inventory;

struct Inventory {
    uint8_t agentState = layout::kAgentNeverConnected;
    std::vector<std::array<uint8_t, layout::kEepromBlock.size>> eepromBlocks;
};

Inventory parseInventory(const Profile &profile)
{
    Inventory inv;
    Node root = profile.root();
    if (auto agent = root.find("host_agent")) {
        agent->allowOnly({"state"});
        if (auto s = agent->find("state")) {
            static const char *const kStates[] = {"never_connected", "connected", "connection_lost"};
            std::string name = s->string();
            bool known = false;
            for (uint8_t i = 0; i < 3; ++i)
                if (name == kStates[i]) inv.agentState = i, known = true;
            if (!known)
                s->fail("expected \"never_connected\", \"connected\" or \"connection_lost\", got \"" + name + "\"");
        }
    }
    if (auto blocks = root.find("eeprom_info")) {
        if (blocks->size() > 256) blocks->fail("at most 256 blocks (index 0 to 255)");
        for (std::size_t i = 0; i < blocks->size(); ++i) {
            Node n = blocks->at(i);
            std::vector<uint8_t> b = n.bytes();
            if (b.size() != layout::kEepromBlock.size)
                n.fail("expected exactly 16 bytes, got " + std::to_string(b.size()));
            auto &block = inv.eepromBlocks.emplace_back();
            std::copy(b.begin(), b.end(), block.begin());
        }
    }
    return inv;
}

void install(Controller &c)
{
    auto inv = std::make_shared<const Inventory>(parseInventory(c.profile()));
    c.onOemSub(layout::kAgentCommand, layout::kAgentConnected, [inv](Context &, const Request &req, Response &rsp) {
        if (!req.data.empty()) return rsp.fail(cc::kRequestLengthInvalid);
        rsp.u8(0x00);
        rsp.u8(inv->agentState);
    });
    c.onOemSub(layout::kEepromCommand, layout::kEepromInfo, [inv](Context &, const Request &req, Response &rsp) {
        if (req.data.size() != 1) return rsp.fail(cc::kRequestLengthInvalid);
        if (req.data[0] >= inv->eepromBlocks.size()) return rsp.fail(cc::kNotPresent);
        rsp.append(inv->eepromBlocks[req.data[0]]);
    });
}

} // namespace

const Subsystem kInventorySubsystem = {"inventory", install, nullptr};

} // namespace tvxsim
