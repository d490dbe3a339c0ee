/* The public header from a C11 program: sessions, the raw request and the identity of the
   built-in default machine, which is the controller when nothing else is selected. */
#include <stdio.h>
#include <string.h>

#include "tvx_toipmi.h"

static int failures;

#define CHECK(cond)                                                        \
    do {                                                                   \
        if (!(cond)) {                                                     \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                    \
        }                                                                  \
    } while (0)

int main(void)
{
    IpmiSession *session = ipmiHelperOpenSession(TVX_PRIV_ADMIN, "", NULL, 0, NULL);
    CHECK(session != NULL);
    if (!session) return 1;

    IpmiDeviceId id = ipmiGetDeviceId(session);
    static const uint8_t manufacturer[3] = {0xD9, 0x7E, 0x00};
    static const uint8_t product[2] = {0x4D, 0x0B};
    static const uint8_t aux[4] = {0x04, 0x0C, 0x00, 0x62};
    CHECK((id.firmwareRevision1 & 0x7F) == 3 && id.firmwareRevision2 == 0x52 && id.ipmiVersion == 0x02);
    CHECK(memcmp(id.manufacturerId, manufacturer, sizeof manufacturer) == 0);
    CHECK(memcmp(id.productId, product, sizeof product) == 0);
    CHECK(memcmp(id.auxFirmwareRevision, aux, sizeof aux) == 0);

    /* The same request through ipmiSendCmd gives the same bytes after the completion code. */
    uint8_t res[32];
    uint32_t len = sizeof res;
    CHECK(ipmiSendCmd(session, TVX_NETFN_APP, 0x01, 0, NULL, &len, res) == 1);
    CHECK(len == 16 && res[0] == 0x00);
    CHECK(memcmp(res + 1, &id, sizeof id) == 0);

    ipmiHelperCloseSession(&session);
    CHECK(session == NULL);

    if (failures) fprintf(stderr, "%d check(s) failed\n", failures);
    else printf("C header test passed\n");
    return failures ? 1 : 0;
}
