#include <gtest/gtest.h>

#include "aggregation/sla_stats_impl.h"
#include "base/mutex.h"
#include "config/parameters.h"
#include "steering/iptables_manager.h"

namespace vekt::test {
namespace {

using LockOrderDeathTest = ::testing::Test;

TEST(LockOrderTest, TheDaemonsOrderIsAccepted) {
    if (!lockOrderChecked()) GTEST_SKIP() << "this build does not check the lock order";
    MutexLock registry(interfaceMutex);
    MutexLock stats(slaStatsMutex);
    MutexLock rules(iptablesMutex);
    // A try against the order cannot deadlock and is allowed.
    Mutex early(LockLevel::kMonitor, "early");
    ASSERT_TRUE(early.try_lock());
    early.unlock();
}

TEST(LockOrderDeathTest, AnInversionOfTheRegistryAndStatisticsLocksAborts) {
    if (!lockOrderChecked()) GTEST_SKIP() << "this build does not check the lock order";
    EXPECT_DEATH(
        {
            MutexLock stats(slaStatsMutex);
            MutexLock registry(interfaceMutex);
        },
        "lock order violated: taking interfaceMutex \\(level 20\\) while holding slaStatsMutex "
        "\\(level 30\\)");
    // Two locks of one level are no order either.
    EXPECT_DEATH(
        {
            Mutex first(LockLevel::kLeaf, "first");
            Mutex second(LockLevel::kLeaf, "second");
            MutexLock a(first);
            MutexLock b(second);
        },
        "taking second \\(level 100\\) while holding first");
}

}  // namespace
}  // namespace vekt::test
