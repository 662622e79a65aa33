#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "support/emulation.h"
#include "vekt_host/log_capture.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Log lines go to the in-process captures; set VEKT_TEST_LOG=1 to see them as well.
    const char* echo = getenv("VEKT_TEST_LOG");
    vekt::host::setStderrEcho(echo != nullptr && strcmp(echo, "1") == 0);
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    // A death test starts this binary again; in a cross build that takes the emulator.
    if (!vekt::test::emulator().empty()) {
        std::vector<std::string> again(argv, argv + argc);
        again.insert(again.begin(), vekt::test::emulator());
        ::testing::internal::SetInjectableArgvs(again);
    }
    return RUN_ALL_TESTS();
}
