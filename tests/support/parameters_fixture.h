// Base fixture for tests of code that uses the singletons: a fresh device root and a fresh
// Parameters for each test, and a capture of the log.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "config/parameters.h"
#include "base/device_root.h"
#include "support/temp_root.h"
#include "vekt_host/log_capture.h"

namespace vekt::test {

class ParametersTest : public ::testing::Test {
protected:
    ParametersTest() : scopedRoot_(root_.dir()) { Parameters::destroyInstanceForTest(); }
    ~ParametersTest() override { Parameters::destroyInstanceForTest(); }

    Parameters* params() { return Parameters::instance(); }

    TempRoot root_;
    vekt::host::LogCapture log_;

private:
    ScopedDeviceRoot scopedRoot_;
};

}  // namespace vekt::test
