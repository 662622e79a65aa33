#include "status/status_counters.h"

namespace vekt {

StatusCounters& statusCounters() {
    static StatusCounters counters;
    return counters;
}

}  // namespace vekt
