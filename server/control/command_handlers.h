// The fifteen control commands: one handler per message id, run on the socket thread.
#pragma once

#include "control/msg.h"

// Turns one record into a change of the daemon's state.
void handleMessage(msg_t msg);
