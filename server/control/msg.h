// The control record: fixed 1032 bytes, host byte order, no header beyond these fields.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr size_t kMsgTextSize = 1024;

struct msg_t {
    int32_t id;      // message id, 1 to 15
    int32_t length;  // length of the text; only checked (above 1023 the record is dropped)
    char message[kMsgTextSize];  // NUL-terminated argument text
};
static_assert(sizeof(msg_t) == 1032, "control record layout");
static_assert(offsetof(msg_t, message) == 8, "control record layout");

// The handlers keep the last accepted gateway and whitelist texts in buffers of these
// sizes, and a longer text ends the daemon: clients must stay below them.
constexpr size_t kGatewayTextSize = 64;
constexpr size_t kWhitelistTextSize = 2048;

// Message ids of the control protocol.
enum MsgId : int32_t {
    MSG_UPDATE_INTERFACES = 1,
    MSG_SLA_UID_WHITELIST = 2,
    MSG_INTERFACE_MODE = 3,
    MSG_WIFI_GATEWAY = 4,
    MSG_DW_UID_WHITELIST = 5,
    MSG_DW_MONITOR = 6,
    MSG_DD_UID_WHITELIST = 7,
    MSG_BSSID = 8,
    MSG_START_SLS = 9,
    MSG_STOP_SLS = 10,
    MSG_VOIP = 11,
    MSG_SERVICE_RTT = 12,
    MSG_GAME_AI_MODE = 13,
    MSG_GAME_AI_CHECK_RTT = 14,
    MSG_GAME_AI_FAST_CHOOSE = 15,
};
