// One whole destroy pass for one application: every IP, TCP and UDP socket of its UID, on
// loopback too, so that it reconnects over the link and the rules now in force.
#pragma once

// uid is the decimal UID text (converted with atoi, so text that is no number means UID 0).
// Returns the UDP pass's result, or -1 when the sockets could not be opened.
int killSocketsForUID(const char* uid);
