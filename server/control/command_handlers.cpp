#define LOG_TAG "SLM-Vekt-VektSocket-Server"

#include "control/command_handlers.h"

#include <log/log.h>

void handleMessage(msg_t msg) {
    if (msg.id < MSG_UPDATE_INTERFACES || msg.id > MSG_GAME_AI_FAST_CHOOSE) {
        ALOGE("unknow mesage!!!");
    }
}
