// Sleeps that return at once while it lives: a missing statistics file is retried with
// sleeps, and a main-loop pass ends with one, which tests and fuzzing need not wait out.
#pragma once

#include "base/clock.h"

namespace vekt::test {

class ScopedNoSleep : public Sleeper {
public:
    void sleepMs(int64_t) override {}

private:
    ScopedSeamOverride<Sleeper> scope_{sleeperSeam(), *this};
};

}  // namespace vekt::test
