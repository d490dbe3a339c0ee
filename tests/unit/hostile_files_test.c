/* A C program (no C++ runtime of its own to catch anything) feeding the library a corrupt
   machine state and corrupt profiles: every call returns its failure value, none aborts. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "libipmi_host.h"
#include "tvx_toipmi.h"

static int failures = 0;

static void check(int ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "FAIL: %s (last error: %s)\n", what, ipmihost_last_error());
        ++failures;
    }
}

static void writeText(const char *path, const char *text)
{
    FILE *f = fopen(path, "w");
    if (!f || fputs(text, f) < 0 || fclose(f) != 0) {
        fprintf(stderr, "cannot write %s\n", path);
        exit(2);
    }
}

int main(void)
{
    char dir[] = "/tmp/tvx-hostile-XXXXXX";
    if (!mkdtemp(dir)) return 2;

    /* A state file whose ACPI state is a number instead of an object. */
    check(ipmihost_select_machine(NULL, dir) == 0, "the default machine starts");
    char state[512];
    snprintf(state, sizeof state, "%s", ipmihost_state_file());
    writeText(state, "{\"format\": 1, \"profile\": \"default.json\", \"state\": {\"acpi\": 5}}");
    check(ipmihost_select_machine(NULL, dir) == 0, "the machine starts on the corrupt state");
    IpmiSession *session = ipmiOpenSession(TVX_PRIV_ADMIN, "", NULL, 0, NULL);
    check(session != NULL, "a session opens");
    uint8_t response[64];
    uint32_t length = sizeof response;
    check(ipmiSendCmd(session, TVX_NETFN_APP, 0x07, 0, NULL, &length, response) == 0,
          "Get ACPI Power State on the corrupt state has no answer");
    check(strstr(ipmihost_last_error(), "wrong type") != NULL, "the failure names the wrong type");
    check(strstr(ipmihost_last_error(), state) != NULL, "the failure names the state file");
    ipmiHelperCloseSession(&session);

    /* Profiles with values of the wrong type, selected directly and through the environment. */
    static const char *const profiles[] = {"{\"sdr\": 5}", "{\"sensors\": [{\"number\": []}]}", "[1, 2]", "{\"sel\""};
    char profile[600];
    snprintf(profile, sizeof profile, "%s/bad.json", dir);
    for (size_t i = 0; i < sizeof profiles / sizeof profiles[0]; ++i) {
        writeText(profile, profiles[i]);
        check(ipmihost_select_machine(profile, dir) == -1, profiles[i]);
        check(strstr(ipmihost_last_error(), "bad.json") != NULL, "the failure names the profile");
        char target[700];
        snprintf(target, sizeof target, "machine:%s", profile);
        setenv("TVX_IPMI_TARGET", target, 1);
        ipmihost_select_default();
        session = ipmiOpenSession(TVX_PRIV_ADMIN, "", NULL, 0, NULL);
        check(session == NULL, "no session on a corrupt profile");
        ipmiHelperCloseSession(&session);
    }
    remove(profile);
    remove(state);
    rmdir(dir);
    return failures ? 1 : 0;
}
