// The status document: one JSON object describing a snapshot. A pure function, so what a
// client reads is fixed by the snapshot alone.
#pragma once

#include <string>

#include "status/status_snapshot.h"

namespace vekt {

std::string statusDocument(const StatusSnapshot& status);

}  // namespace vekt
