#define LOG_TAG "SLM-Vekt-SockDiag"

#include "netlink/kill_sockets.h"

#include <errno.h>
#include <log/log.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>

#include "netlink/sock_diag.h"

int killSocketsForUID(const char* uid) {
    android::net::SockDiag sockDiag;
    if (!sockDiag.open()) {
        ALOGE(" SLA_GAMING Error opening NETLINK_SOCK_DIAG socket: %s", strerror(errno));
        return -1;
    }

    // Protocol 0 is asked for on purpose, though the kernel keeps no dump for it and
    // normally refuses: the three passes and their lines are one fixed sequence, and a
    // failed pass never stops the next. The error lines hand strerror the negative result
    // unchanged ("Unknown error -N"); that text is kept as it is.
    int ret = sockDiag.destroySockets(IPPROTO_IP, atoi(uid), false);
    if (ret < 0) {
        ALOGE(" SLA_GAMING Error destroying IP sockets: %s", strerror(ret));
    } else {
        ALOGE(" SLA_GAMING destroying IP sockets: %s", uid);
    }

    ret = sockDiag.destroySockets(IPPROTO_TCP, atoi(uid), false);
    if (ret < 0) {
        ALOGE(" SLA_GAMING Error destroying TCP sockets: %s", strerror(ret));
    } else {
        ALOGE(" SLA_GAMING destroying TCP sockets: %s", uid);
    }

    ret = sockDiag.destroySockets(IPPROTO_UDP, atoi(uid), false);
    if (ret < 0) {
        ALOGE(" SLA_GAMING Error destroying UDP sockets: %s", strerror(ret));
    } else {
        ALOGE(" SLA_GAMING destroying UDP sockets: %s", uid);
    }
    return ret;
}
