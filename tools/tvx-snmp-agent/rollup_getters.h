// The agent identity, status rollup, management network and test alert getters of the
// library, as far as the library in use offers them. The declarations are weak: with a
// library that lacks a getter its address is null, and the subagent leaves that object out
// rather than refusing to start. Everything else of the subagent calls these through
// collectRollup and rollupSendTestAlert only.
#pragma once

#include <cstdint>

#include "snapshot.h"
#include "tvx_toipmi.h"

extern "C" {
#define TVX_AGENT_WEAK __attribute__((weak))
TVX_AGENT_WEAK int snmpGetAgentId(char *buffer, unsigned length);
TVX_AGENT_WEAK int snmpGetAgentCompany(char *buffer, unsigned length);
TVX_AGENT_WEAK int snmpGetAgentVersion(char *buffer, unsigned length);
TVX_AGENT_WEAK int snmpGetAgentBuild(char *buffer, unsigned length);
TVX_AGENT_WEAK uint32_t getStatusBoot(void);
TVX_AGENT_WEAK uint32_t getStatusOverall(SDRInfo *info, uint8_t sensorTypeFilter);
TVX_AGENT_WEAK uint32_t getStatusPowerSupply(SDRInfo *info);
TVX_AGENT_WEAK uint32_t getStatusTemperature(SDRInfo *info);
TVX_AGENT_WEAK uint32_t getStatusFans(SDRInfo *info);
TVX_AGENT_WEAK uint32_t getStatusVoltages(SDRInfo *info);
TVX_AGENT_WEAK uint32_t getStatusCpu(SDRInfo *info);
TVX_AGENT_WEAK uint32_t getStatusMemoryModule(SDRInfo *info);
TVX_AGENT_WEAK char *getUnitNodeName(char *buffer, uint32_t length, uint8_t nodeType, uint8_t addressType,
                                     uint8_t id0, uint8_t id1, uint8_t id2, uint8_t addressIndex);
TVX_AGENT_WEAK char *getUnitNodeIpAddress(char *buffer, uint32_t length, uint8_t nodeType, uint8_t addressType,
                                          uint8_t id0, uint8_t id1, uint8_t id2, uint8_t addressIndex);
TVX_AGENT_WEAK uint8_t *getUnitNodeMacAddress(uint8_t *buffer, uint32_t length, uint8_t nodeType, uint8_t id0,
                                              uint8_t id1, uint8_t id2);
TVX_AGENT_WEAK char *getNodeIpNetMaskAddress(char *buffer, uint32_t length, uint8_t addressType, uint8_t nodeType);
TVX_AGENT_WEAK char *getNodeGatewayAddress(char *buffer, uint32_t length, uint8_t addressType, uint8_t nodeType);
TVX_AGENT_WEAK int getUnitNodeUseDHCP(uint8_t addressType, uint8_t nodeType);
TVX_AGENT_WEAK int getChannelNumber(IpmiSession *session, uint8_t mediumType, uint8_t instance);
TVX_AGENT_WEAK int getLanChannelCount(IpmiSession *session);
TVX_AGENT_WEAK int getDefaultLanChannelNumber(IpmiSession *session);
TVX_AGENT_WEAK int sendTestTrap(void);
#undef TVX_AGENT_WEAK
}

namespace tvxagent {

// Fills the identity and status scalars, the network tables and the LAN channel scalars from
// the getters the library offers.
void collectRollup(Snapshot &out, SDRInfo *info);
bool rollupTestAlertAvailable();
bool rollupSendTestAlert();

} // namespace tvxagent
