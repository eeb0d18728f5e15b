// Matrix-vector Mul (mv tv mav tav mva tva mava tava) in layouts S, P, L and
// both element types: exact bits against a scalar reference that sums by
// each kernel's addition tree, the order paths, the checks in their order,
// the work limits and the thread-count independence.
#include "test_mul_mv_ref.hpp"

namespace {

int work(const std::string& stem, int M, int K, int count) {
    const auto cd = codes(stem.substr(4));
    if (is_array_code(cd[0]) && !is_array_code(cd[1])) return M * (K + 1) * count + K;
    if (!is_array_code(cd[0]) && is_array_code(cd[1])) return M * K + (M + K) * count;
    return (M * K + M + K) * count;
}
int limit(bool is64, Layout l, bool contiguous) {
    if (!contiguous || l == Layout::P) return 1441;
    return l == Layout::L ? 3601 : (is64 ? 3601 : 2501);
}
const Family kMul{mul_tree, work, limit};
std::vector<const char*> stems() { return {"Mul_mv", "Mul_tv", "Mul_mav", "Mul_tav", "Mul_mva", "Mul_tva", "Mul_mava", "Mul_tava"}; }

MV_FAMILY_TESTS(MulMv, kMul, stems());

}  // namespace
