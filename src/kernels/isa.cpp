// CPUID detection of the fast-path target, and the internal hook that tests
// use to force one.
#include "kernels/isa.hpp"

namespace orsm::isa {
namespace {

Target detect() {
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
        __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq"))
        return avx512;
    if (__builtin_cpu_supports("avx2")) return avx2;
    return sse2;
}

const Target detected = detect();

}  // namespace

int detail::current_target = detected;

const char* name(Target t) {
    switch (t) {
        case avx512: return "avx512";
        case avx2: return "avx2";
        default: return "sse2";
    }
}

bool supported(Target t) { return t >= sse2 && t <= detected; }
Target best() { return detected; }

bool force(int target) {
    if (target >= kTargets || (target >= 0 && !supported(Target(target)))) return false;
    __atomic_store_n(&detail::current_target, target < 0 ? int(detected) : target, __ATOMIC_RELAXED);
    return true;
}

}  // namespace orsm::isa
