// Gaxpy (mv mva) in layouts S, P, L and both element types: exact bits
// against a scalar reference (the matrix-vector sum by the kernel's tree,
// then src3 added last), the order paths, the checks in their order, the
// limit table and the thread-count independence.
#include "test_mul_mv_ref.hpp"

namespace {

// Contiguous kernels (S and L) sum by tree C in 32f and B in 64f; the
// strided and pointer kernels by tree A.
Tree tree(const std::string&, bool is64, Layout l, bool contiguous) {
    if (!contiguous || l == Layout::P) return Tree::A;
    return is64 ? Tree::B : Tree::C;
}
int work(const std::string&, int M, int K, int count) { return (K + 2 * M) * count; }
// Each cell of the limit table, serial below it.
int limit(bool is64, Layout l, bool contiguous) {
    switch (l) {
        case Layout::S: return contiguous ? (is64 ? 5001 : 7001) : 5001;
        case Layout::P: return is64 ? 7001 : 4501;
        default: return contiguous ? (is64 ? 6001 : 7001) : (is64 ? 5001 : 501);
    }
}
const Family kGaxpy{tree, work, limit};
std::vector<const char*> stems() { return {"Gaxpy_mv", "Gaxpy_mva"}; }

MV_FAMILY_TESTS(Gaxpy, kGaxpy, stems());

}  // namespace
