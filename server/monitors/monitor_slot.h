// Where each monitor lives: one of each per process, created by the control path and taken
// out by it, or by the shutdown once the control path has stopped.
#pragma once

#include "base/singleton_slot.h"

template <typename Monitor>
vekt::SingletonSlot<Monitor>& monitorSlot() {
    static vekt::SingletonSlot<Monitor> slot(vekt::LockLevel::kMonitorSingleton,
                                             "monitorSingletonMutex");
    return slot;
}
