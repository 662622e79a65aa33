// The fifteen control commands: one handler per message id, run on the socket thread one
// record at a time. Most handlers compare their argument with the last one they accepted
// and do nothing when it is unchanged.
#pragma once

#include <string>
#include <vector>

#include "control/msg.h"

// Turns one record into a change of the daemon's state.
void handleMessage(msg_t msg);

// Id 1: diffs the new interface list against the previous one; removals come first, so
// a replaced interface frees its mark and route table before the new one asks for one.
void updateInterfaces(const char* text);
int addInterfaces(const char* name);
int removeInterfaces(const char* name);

// Ids 2, 5, 7: the UID whitelists ("NULL" empties a list).
void setUidWhitelist(const char* text);
void setDWUidWhitelist(const char* text);
void setDDUidWhitelist(const char* text);
// Id 4: the Wi-Fi gateway list, kept out of the steering tree.
void setWifiGateway(const char* text);
// Id 6: dual Wi-Fi monitor on ("1") or off ("0").
void setDoubleWifiMonitor(const char* text);

void StartSlsServer(const char* text);           // id 9
void StopSlsServer();                            // id 10
void setVoipStatus(const char* text);            // id 11
void updateSlsInterfacesRtt(const char* text);   // id 12
void setGameAiModeEnable(const char* text);      // id 13
void setGameAiModeCheckRtt(const char* text);    // id 14
void setGameAiModeFastChoose(const char* text);  // id 15

// Interface names of the id-1 message being handled, and of the previous one.
extern std::vector<std::string> gCurInterfaceList;
extern std::vector<std::string> gPreInterfaceList;

// Test-only: forgets every last-accepted argument, as at start-up.
void resetHandlerStateForTest();
