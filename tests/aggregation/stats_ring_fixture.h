// A fresh SlaStatsImpl over fresh settings, for the aggregation tests.
#pragma once

#include "aggregation/sla_stats_impl.h"
#include "steering/iptables_manager.h"
#include "support/parameters_fixture.h"
#include "support/stats_rings.h"

namespace vekt::test {

// Fresh settings, device root and SlaStatsImpl, the log captured; the rules a ratio pass may
// have built go at the end.
class SlaStatsTest : public ParametersTest {
protected:
    void SetUp() override {
        SlaStatsImpl::finalize();
        impl_ = SlaStatsImpl::instance();
    }
    void TearDown() override {
        SlaStatsImpl::finalize();
        IptablesManager::clean_SLM_iptables();
    }
    SlaStatsImpl* impl_ = nullptr;
};

}  // namespace vekt::test
