// Linked into every test program: ORSM_TEST_ISA=<sse2|avx2|avx512> forces
// the library's fast paths onto that target for the whole run, so CTest can
// run the same bit-exact checks once per target. A target the processor
// lacks skips the run.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "kernels/isa.hpp"

namespace {

class IsaEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        const char* want = std::getenv("ORSM_TEST_ISA");
        if (!want || !*want) return;
        for (int t = 0; t < orsm::isa::kTargets; ++t)
            if (std::strcmp(want, orsm::isa::name(orsm::isa::Target(t))) == 0) {
                if (!orsm::isa::force(t)) GTEST_SKIP() << want << " is not supported here";
                return;
            }
        GTEST_FAIL() << "unknown ORSM_TEST_ISA " << want;
    }
};

const auto* const registered = ::testing::AddGlobalTestEnvironment(new IsaEnvironment);

}  // namespace
