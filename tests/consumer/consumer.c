/* Without a client every call but the last is refused, and says so in the log. */
#include <lumora.h>
#include <stdio.h>

int main(void) {
    char version[LUM_MIN_VERSION_BUFFER_LENGTH];
    unsigned int sent = 0;
    if (LUM_GetClientVersion(0, version, sizeof(version)) != -1 ||
        LUM_SendData(1, 1, "a", 1, &sent, 0) != -1) {
        fputs("a call without a client succeeds\n", stderr);
        return 1;
    }
    return LUM_DeInitServer();
}
