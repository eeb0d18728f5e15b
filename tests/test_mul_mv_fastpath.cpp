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

template <class T> void check_counts(F f) {
    for (const Lay& lay : kLays)
        for (int N = 3; N <= 6; ++N)
            for (int count : {1, 7, 17, 1000}) {
                const Tree t = expected_tree(f, sizeof(T) == 8, lay.l, true);
                SCOPED_TRACE(testing::Message() << fname(f) << " " << lay.name << " " << sizeof(T) * 8
                                                << "f order " << N << " count " << count);
                Call<T> c(f, lay.l, N, N, count, 0, lay.soa, lay.packed);
                unsigned seed = 31;
                do fill_sensitive(c, seed++);
                while (!sensitive(c, t) && seed < 100);
                c.snapshot();
                ASSERT_EQ(c.run(), StatusOk);
                EXPECT_EQ(mismatches(c, t, count), 0);
                EXPECT_TRUE(c.a->unchanged() && c.x->unchanged());
                EXPECT_TRUE(c.d->only_elements_changed());
            }
}

class FastMulMv : public testing::TestWithParam<F> {};

TEST_P(FastMulMv, EveryOrderAndCountByKernelTree) {
    check_counts<float>(GetParam());
    check_counts<double>(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Forms, FastMulMv,
                         testing::Values(F::mav, F::tav, F::mva, F::tva, F::mava, F::tava),
                         [](const testing::TestParamInfo<F>& i) { return std::string(fname(i.param)); });

// ---- dst meeting a source ---------------------------------------------------

// All operands of an mva call in one buffer: the fixed matrix at `a`, x
// element (n, k) and dst element (n, i) at positions given by the layout.
// The reference runs the scalar kernel's order: object by object, the
// whole vector read before any row is written.
template <class T> struct Shared {
    int N, count;
    std::vector<T> buf;
    std::function<std::size_t(int, int)> xat, dat;
    std::size_t a;

    std::vector<T> reference(Tree t) const {
        std::vector<T> m = buf;
        for (int n = 0; n < count; ++n) {
            std::vector<T> xv(N), out(N);
            for (int k = 0; k < N; ++k) xv[k] = m[xat(n, k)];
            for (int i = 0; i < N; ++i) {
                std::vector<T> p(N);
                for (int k = 0; k < N; ++k) p[k] = m[a + std::size_t(i * N + k)] * xv[k];
                out[i] = tree_sum(t, p, i);
            }
            for (int i = 0; i < N; ++i) m[dat(n, i)] = out[i];
        }
        return m;
    }
    void fill(unsigned seed) {
        Values<T> v(seed);
        for (T& e : buf) e = v.wide();
    }
    int diff(const std::vector<T>& want) const {
        int bad = 0;
        for (std::size_t j = 0; j < buf.size(); ++j) bad += bits(buf[j]) != bits(want[j]);
        return bad;
    }
};

// Layout P, x planes of `count` + `extra` elements; dst plane i starts
// `xoff` elements into x plane i (or, with `xoff` negative, the dst planes
// are one plane with `-xoff` elements between rows).
template <class T> void check_planes(int N, int xoff) {
    const int count = 40, len = count + 8;
    Shared<T> s{N, count, std::vector<T>(std::size_t(N * N + (N + 2) * len)), {}, {}, 0};
    const std::size_t x0 = std::size_t(N * N), d0 = x0 + std::size_t(N * len);
    const bool rows_meet = xoff < 0;
    s.xat = [=](int n, int k) { return x0 + std::size_t(k * len + n); };
    s.dat = [=](int n, int i) {
        return rows_meet ? d0 + std::size_t(i * -xoff + n) : x0 + std::size_t(i * len + xoff + n);
    };
    s.fill(7);
    std::vector<const T*> at(std::size_t(N * N)), xt(N);
    std::vector<T*> dt(N);
    for (int j = 0; j < N * N; ++j) at[j] = &s.buf[s.a + std::size_t(j)];
    for (int k = 0; k < N; ++k) xt[k] = &s.buf[s.xat(0, k)];
    for (int i = 0; i < N; ++i) dt[i] = &s.buf[s.dat(0, i)];
    const auto want = s.reference(Tree::A);
    const int E = sizeof(T);
    OrsStatus st;
    if constexpr (sizeof(T) == 4)
        st = orsmMul_mva_32f_P(at.data(), 0, N, N, xt.data(), 0, E, N, dt.data(), 0, E, count);
    else
        st = orsmMul_mva_64f_P(at.data(), 0, N, N, xt.data(), 0, E, N, dt.data(), 0, E, count);
    ASSERT_EQ(st, StatusOk);
    EXPECT_EQ(s.diff(want), 0) << "order " << N << " offset " << xoff;
}

// Layout S packed, dst starting `xoff` elements after x (0: in place).
template <class T> void check_packed(int N, int xoff) {
    const int count = 40;
    Shared<T> s{N, count, std::vector<T>(std::size_t(N * N + N * (count + 2))), {}, {}, 0};
    const std::size_t x0 = std::size_t(N * N);
    s.xat = [=](int n, int k) { return x0 + std::size_t(n * N + k); };
    s.dat = [=](int n, int i) { return x0 + std::size_t(xoff + n * N + i); };
    s.fill(9);
    const auto want = s.reference(sizeof(T) == 4 ? Tree::C : Tree::B);
    const int E = sizeof(T);
    const T* x = &s.buf[x0];
    T* d = &s.buf[x0 + std::size_t(xoff)];
    OrsStatus st;
    if constexpr (sizeof(T) == 4)
        st = orsmMul_mva_32f(s.buf.data(), N * E, E, N, N, x, N * E, E, N, d, N * E, E, count);
    else
        st = orsmMul_mva_64f(s.buf.data(), N * E, E, N, N, x, N * E, E, N, d, N * E, E, count);
    ASSERT_EQ(st, StatusOk);
    EXPECT_EQ(s.diff(want), 0) << "order " << N << " offset " << xoff;
}

TEST(FastMulMvOverlap, PlanesMeetingFallBackToScalarOrder) {
    for (int N = 3; N <= 6; ++N) {
        // dst object n is x object n + 1 (or n + 5, inside one vector).
        for (int off : {1, 5}) {
            check_planes<float>(N, off);
            check_planes<double>(N, off);
        }
        // dst planes overlapping each other, and dst equal to x (in place).
        check_planes<float>(N, -3);
        check_planes<double>(N, -3);
        check_planes<float>(N, 0);
        check_planes<double>(N, 0);
    }
}

TEST(FastMulMvOverlap, PackedMeetingKeepsScalarOrder) {
    for (int N = 3; N <= 6; ++N)
        for (int off : {0, 1, N, N + 2}) {
            check_packed<float>(N, off);
            check_packed<double>(N, off);
        }
}

}  // namespace
