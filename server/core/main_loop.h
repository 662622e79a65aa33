// The daemon's periodic work and its ordered shutdown, apart from main() so that a test
// can drive the loop pass by pass.
#pragma once

class Parameters;
class SlaStatsImpl;

namespace vekt {

// One pass of the main loop: the ratio evaluation, the link choice, then a sleep of
// mini_est_interval milliseconds (re-read every pass). Returns false once the property
// "vendor.sla.enabled" reads 2, which ends the loop; the pass itself always runs.
bool runMainLoopPass(Parameters* params, SlaStatsImpl* stats);

// The ordered shutdown once the loop has ended, up to and including "Vekt exiting". The
// caller then idles for ever.
void shutdownDaemon(SlaStatsImpl* stats);

}  // namespace vekt
