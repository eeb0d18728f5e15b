// The fast matrix-vector kernels of orders 3 to 6 (rows of an object in
// vector lanes, packed layout S vectorized over objects, structure-of-arrays
// layout P with objects in lanes): the same bits as each kernel's tree at
// every count around the vector widths, and, where dst meets a source, the
// result of the scalar kernel's order of reads and writes.
#include "test_mul_mv_ref.hpp"

namespace {

struct Lay {
    Layout l;
    bool packed, soa;
    const char* name;
};
const Lay kLays[] = {{Layout::S, true, false, "S packed"},
                     {Layout::S, false, false, "S with gaps"},
                     {Layout::L, false, false, "L"},
                     {Layout::P, false, true, "P planes"}};

template <class T> void check_counts(const std::string& stem) {
    for (const Lay& lay : kLays)
        for (int N = 3; N <= 6; ++N)
            for (int count : {1, 7, 17, 1000}) {
                MvCall<T> c(stem, lay.l, N, N, count, 0, lay.soa, lay.packed);
                const Tree t = mul_tree(stem, sizeof(T) == 8, lay.l, true);
                MV_TRACE(c, " " << lay.name);
                expect_exact_call(c, t, 31, count);
            }
}

class FastMulMv : public testing::TestWithParam<const char*> {};

TEST_P(FastMulMv, EveryOrderAndCountByKernelTree) {
    check_counts<float>(GetParam());
    check_counts<double>(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Forms, FastMulMv,
                         testing::Values("Mul_mav", "Mul_tav", "Mul_mva", "Mul_tva", "Mul_mava", "Mul_tava"),
                         [](const testing::TestParamInfo<const char*>& i) { return std::string(i.param + 4); });

// ---- dst meeting a source ---------------------------------------------------

// All operands of an mva call in one buffer: the fixed matrix first, then
// x and dst. Layout P (planes): x planes of count + 8 elements, dst plane i
// `off` elements into x plane i, or, with `off` negative, the dst planes one
// plane with -off elements between rows. Layout S packed: dst `off`
// elements after x (0: in place). The reference runs the scalar kernel's
// order: object by object, the whole vector read before any row is written.
template <class T> void check_meeting(bool planes, int N, int off) {
    const int count = 40, len = count + 8, E = sizeof(T);
    const std::size_t x0 = std::size_t(N * N), d0 = x0 + std::size_t(N * len);
    auto xat = [&](int n, int k) { return x0 + std::size_t(planes ? k * len + n : n * N + k); };
    auto dat = [&](int n, int i) {
        if (!planes) return x0 + std::size_t(off + n * N + i);
        return off < 0 ? d0 + std::size_t(i * -off + n) : x0 + std::size_t(i * len + off + n);
    };
    std::vector<T> buf(std::size_t(N * N + (N + 2) * len));
    Values<T> v(planes ? 7 : 9);
    for (T& e : buf) e = v.wide();
    std::vector<T> want = buf;
    const Tree t = planes ? Tree::A : sizeof(T) == 4 ? Tree::C : Tree::B;
    for (int n = 0; n < count; ++n) {
        std::vector<T> xv(N), out(N), p(N);
        for (int k = 0; k < N; ++k) xv[k] = want[xat(n, k)];
        for (int i = 0; i < N; ++i) {
            for (int k = 0; k < N; ++k) p[k] = want[std::size_t(i * N + k)] * xv[k];
            out[i] = tree_sum(t, p, i);
        }
        for (int i = 0; i < N; ++i) want[dat(n, i)] = out[i];
    }
    Call<T> c("Mul_mva", planes ? Layout::P : Layout::S);
    std::vector<T*> at(std::size_t(N * N)), xt(N), dt(N);
    for (int j = 0; j < N * N; ++j) at[j] = &buf[std::size_t(j)];
    for (int k = 0; k < N; ++k) xt[k] = &buf[xat(0, k)];
    for (int i = 0; i < N; ++i) dt[i] = &buf[dat(0, i)];
    c.ptr("src1") = planes ? static_cast<void*>(at.data()) : buf.data();
    c.ptr("src2") = planes ? static_cast<void*>(xt.data()) : xt[0];
    c.ptr("dst") = planes ? static_cast<void*>(dt.data()) : dt[0];
    c.set("src1Stride1=" + std::to_string(N * E) + " src2Stride0=" + std::to_string(planes ? E : N * E) +
          " dstStride0=" + std::to_string(planes ? E : N * E));
    c.arg("src1Stride2") = c.arg("src2Stride2") = c.arg("dstStride2") = E;
    c.arg("src1Width") = c.arg("src1Height") = c.arg("src2Length") = N;
    c.arg("count") = count;
    ASSERT_EQ(c.run(), StatusOk);
    int bad = 0;
    for (std::size_t j = 0; j < buf.size(); ++j) bad += bits(buf[j]) != bits(want[j]);
    EXPECT_EQ(bad, 0) << (planes ? "planes" : "packed") << " order " << N << " offset " << off;
}

// Planes: dst object n is x object n + 1 (or n + 5, inside one vector), dst
// planes overlapping each other, and dst equal to x (in place).
TEST(FastMulMvOverlap, PlanesMeetingFallBackToScalarOrder) {
    for (int N = 3; N <= 6; ++N)
        for (int off : {1, 5, -3, 0}) {
            check_meeting<float>(true, N, off);
            check_meeting<double>(true, N, off);
        }
}

TEST(FastMulMvOverlap, PackedMeetingKeepsScalarOrder) {
    for (int N = 3; N <= 6; ++N)
        for (int off : {0, 1, N, N + 2}) {
            check_meeting<float>(false, N, off);
            check_meeting<double>(false, N, off);
        }
}

}  // namespace
