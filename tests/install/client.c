/* A client program as an integrator writes it: built against the installed library through
   pkg-config, it prints the controller's identity. */
#include <stdio.h>
#include <string.h>

#include <tvx_toipmi.h>

int main(void)
{
    IpmiSession *session = ipmiHelperOpenSession(TVX_PRIV_ADMIN, "", NULL, 0, NULL);
    if (!session) return 1;
    IpmiDeviceId id = ipmiGetDeviceId(session);
    ipmiHelperCloseSession(&session);
    printf("firmware %u.%02x product 0x%02X%02X manufacturer %u\n", id.firmwareRevision1 & 0x7Fu,
           id.firmwareRevision2, id.productId[1], id.productId[0],
           (unsigned)(id.manufacturerId[0] | id.manufacturerId[1] << 8 | id.manufacturerId[2] << 16));
    return id.deviceId == 0 ? 1 : 0;
}
