// LUDecomp and LUBackSubst: results and pivot tables bit for bit against a
// model of each path in every form, layout, type and stride mix, with
// singular objects and dst on a source; the path quirks on worked examples;
// check orders; the serial/parallel boundary; factor and solve together.
#include <numeric>

#include "solvers.hpp"

using namespace orsmtest;

namespace {

bool size_path(int n) { return n >= 3 && n <= 6; }

// One matrix into d (dst as it stood) and its table q. The size paths fail
// below epsilon, exchange before the test, test the physical last element
// and write pivot rows as they stand final (P: all at the end); the general
// loop fails at or below epsilon, exchanges after the test, tests the last
// pivot through the table and leaves all of dst its working copy.
template <class T> OrsStatus lu_model(bool fixed, bool whole_at_end, Mat<T> a, Mat<T>& d, int* q, int N) {
    const double eps = std::numeric_limits<T>::epsilon();
    auto A = [&](int r, int c) -> T& { return a[r * N + c]; };
    auto fails = [&](T x) { return fixed ? std::fabs(double(x)) < eps : std::fabs(double(x)) <= eps; };
    auto row = [&](int r) { std::copy_n(&A(r, 0), N, &d[r * N]); };
    auto done = [&](OrsStatus st) {
        if (!fixed) d = a;
        return st;
    };
    std::iota(q, q + N, 0);
    for (int k = 0; k + 1 < N; ++k) {
        int best = k;
        for (int i = k + 1; i < N; ++i)
            if (std::fabs(double(A(q[i], k))) > std::fabs(double(A(q[best], k)))) best = i;
        const T m = A(q[best], k);
        if (fixed) std::swap(q[k], q[best]);
        if (fails(m)) return done(StatusSingular);
        if (!fixed) std::swap(q[k], q[best]);
        const int p = q[k];
        const T r = T(1) / A(p, k);
        if (fixed && !whole_at_end) row(p);
        for (int i = k + 1; i < N; ++i) A(q[i], k) *= r;
        for (int i = k + 1; i < N; ++i)
            for (int j = k + 1; j < N; ++j) A(q[i], j) -= A(p, j) * A(q[i], k);
    }
    if (fails(fixed ? A(N - 1, N - 1) : A(q[N - 1], N - 1))) return done(StatusSingular);
    if (fixed && whole_at_end) d = a;
    else if (fixed) row(q[N - 1]);
    return done(StatusOk);
}

// One system, b read at q(i), x into d (which may be b). Size paths read all
// of b first, subtract term by term (forward: column 0 last) and multiply by
// reciprocals; the general loop sums each row's terms from zero, keeping its
// intermediate vector in d, then subtracts and divides.
template <class T> void solve_model(bool fixed, const Mat<T>& a, const int* q, const T* b, T* d, int N) {
    auto M = [&](int i, int j) { return a[q[i] * N + j]; };
    if (fixed) {
        Mat<T> y(N);
        for (int i = 0; i < N; ++i) y[i] = b[q[i]];
        for (int i = 1; i < N; ++i) {
            for (int j = 1; j < i; ++j) y[i] -= M(i, j) * y[j];
            y[i] -= M(i, 0) * y[0];
        }
        for (int i = N - 1; i >= 0; --i) {
            for (int j = N - 1; j > i; --j) y[i] -= M(i, j) * y[j];
            d[i] = y[i] = y[i] * (T(1) / M(i, i));
        }
        return;
    }
    d[0] = b[q[0]];
    for (int i = 1; i < N; ++i) {
        T s = 0;
        for (int j = 0; j < i; ++j) s += M(i, j) * d[j];
        d[i] = b[q[i]] - s;
    }
    d[N - 1] /= M(N - 1, N - 1);
    for (int i = N - 2; i >= 0; --i) {
        T s = 0;
        for (int j = i + 1; j < N; ++j) s += M(i, j) * d[j];
        d[i] = (d[i] - s) / M(i, i);
    }
}

const std::vector<Fn> decomp_fns = forms("LUDecomp", {"m", "ma"}), back_fns = forms("LUBackSubst", {"mv", "mva", "mava"});

// ---- LUDecomp ----------------------------------------------------------------------

// Random objects; each of `zeros` (object, column) zeroes a column, which
// makes that object singular at that column on both kinds of path.
template <class T> struct Decomp : FactorCall<T> {
    using FactorCall<T>::N, FactorCall<T>::count, FactorCall<T>::c, FactorCall<T>::a, FactorCall<T>::d;
    Packed<int> index;
    std::vector<int> q;  // the tables
    Decomp(const Fn& f, int n, int cnt, Mode m, unsigned seed, std::vector<std::pair<int, int>> zeros = {},
           bool in_place = false)
        : FactorCall<T>(f, n, cnt, m), index(std::size_t(n) * count) {
        Values<T> v(seed, 0);
        this->bind(seed, in_place, v, [&](int o, int, int k) {
            const T x = v();
            return std::count(zeros.begin(), zeros.end(), std::pair{o, k}) ? T(0) : x;
        });
        for (int i = 0; i < N * count; ++i) q.push_back(index.get(i));
        c.ptr("dstIndex") = index.data();
        this->ready();
    }
    // The model run as the kernel would on each share.
    OrsStatus model(const Shares& shares) {
        // The strided S array kernel's general loop gives every object the
        // same table entries.
        const bool one_table =
            this->fn.second == Layout::S && is_array(this->fn) && this->mode.strided && !size_path(N);
        return over_shares(shares, [&](int o, int, int first) {
            const std::size_t table = std::size_t(one_table ? first : o) * N;
            return lu_model(size_path(N), this->fn.second == Layout::P, a[o], d[o], &q[table], N);
        });
    }
    testing::AssertionResult check() const {
        if (auto r = FactorCall<T>::check(); !r) return r;
        for (int i = 0; i < N * count; ++i)
            if (index.get(i) != q[i]) return testing::AssertionFailure() << "table entry " << i << ": " << index.get(i);
        if (!index.guards_intact()) return testing::AssertionFailure() << "table guards";
        return testing::AssertionSuccess();
    }
};

template <class T> class LU : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(LU, Types);

// Orders on both kinds of path; regular objects, an object singular at each
// column in turn amid the array (its predecessors finished, its successors
// and their table entries untouched), and dst on src.
TYPED_TEST(LU, DecompBitExactWithFailuresInPlace) {
    unsigned seed = 1;
    for (const Fn& f : decomp_fns)
        for (Mode m : modes(f.second))
            for (int N : {1, 2, 3, 4, 5, 6, 7, 9})
                for (int zero = -1; zero < N; ++zero)
                    for (bool in_place : {false, true}) {
                        Decomp<TypeParam> t(f, N, 4, m, seed++, {{is_array(f) ? 2 : 0, zero}}, in_place);
                        const OrsStatus want = t.model({{0, t.count}});
                        EXPECT_EQ(want, zero < 0 ? StatusOk : StatusSingular);
                        EXPECT_EQ(t.c.run(), want) << t.where << " zero column " << zero;
                        EXPECT_TRUE(t.check()) << t.where << " zero column " << zero << (in_place ? " in place" : "");
                    }
}

// Contiguous S and L arrays factor groups of objects side by side: counts
// around the group sizes of every target, a singular object in the first
// group, a later one or the tail, and dst on src. One thread: a failure
// ends the whole call.
TYPED_TEST(LU, DecompGroupsAsOneByOne) {
    unsigned seed = 500;
    ThreadCount one(1);
    for (const Fn& f : {decomp_fns[2], decomp_fns[4]})
    for (int N = 3; N <= 6; ++N)
        for (int count : {15, 17, 37})
            for (int bad : {-1, 1, 18, 36})
                for (bool in_place : {false, true}) {
                    std::vector<std::pair<int, int>> zeros;
                    if (bad >= 0 && bad < count) zeros.push_back({bad, N - 2});
                    Decomp<TypeParam> t(f, N, count, Mode{}, seed++, zeros, in_place);
                    EXPECT_EQ(t.c.run(), t.model({{0, t.count}})) << t.where;
                    EXPECT_TRUE(t.check()) << t.where << " singular " << bad << (in_place ? " in place" : "");
                }
}

// Objects that overlap what other objects of the call write: dst one object
// past src in layout S, and in layout L objects in place one row apart.
// Each object is written before the next one is read, as calls on one
// object at a time would do.
TYPED_TEST(LU, DecompOverlapAsOneByOne) {
    using T = TypeParam;
    const int E = sizeof(T);
    Values<T> v(21, 0);
    ThreadCount one(1);
    for (bool list : {false, true})
        for (int N = 3; N <= 6; ++N) {
            const int count = 37, NN = N * N, step = list ? N : NN;
            Mat<T> a((count + 1) * NN);
            for (auto& x : a) x = v();
            Mat<T> b = a;
            std::vector<int> qa(count * N, -1), qb = qa;
            std::vector<T*> objs(count);
            for (int n = 0; n < count; ++n) objs[n] = a.data() + n * step;
            const T* const* srcs = objs.data();
            OrsStatus st;
            if constexpr (sizeof(T) == 4)
                st = list ? orsmLUDecomp_ma_32f_L(srcs, 0, N * E, E, qa.data(), objs.data(), 0, N * E, E, N, count)
                          : orsmLUDecomp_ma_32f(a.data(), NN * E, N * E, E, qa.data(), a.data() + NN, NN * E, N * E,
                                                E, N, count);
            else
                st = list ? orsmLUDecomp_ma_64f_L(srcs, 0, N * E, E, qa.data(), objs.data(), 0, N * E, E, N, count)
                          : orsmLUDecomp_ma_64f(a.data(), NN * E, N * E, E, qa.data(), a.data() + NN, NN * E, N * E,
                                                E, N, count);
            OrsStatus want = StatusOk;
            for (int n = 0; n < count && want == StatusOk; ++n) {
                T *s = b.data() + n * step, *d = list ? s : s + NN;
                if constexpr (sizeof(T) == 4) want = orsmLUDecomp_m_32f(s, N * E, E, qb.data() + n * N, d, N * E, E, N);
                else want = orsmLUDecomp_m_64f(s, N * E, E, qb.data() + n * N, d, N * E, E, N);
            }
            EXPECT_EQ(st, want) << N << (list ? " L" : " S");
            EXPECT_TRUE(same(a, b, 0)) << N << (list ? " L" : " S");
            EXPECT_EQ(qa, qb) << N << (list ? " L" : " S");
        }
}

// Worked examples: rows, then the status, table and dst (prefilled with 9s)
// a contiguous single-matrix call must give.
TYPED_TEST(LU, DecompQuirksByExample) {
    using T = TypeParam;
    const T e = std::numeric_limits<T>::epsilon();
    struct Ex {
        Mat<T> a;
        OrsStatus st;
        std::vector<int> q;
        Mat<T> d;
    };
    const Ex ex[] = {
        // Determinant 2, but the physical a[2][2] ends 0: singular, pivot
        // rows 2 and 1 written, row 0 as it was.
        {{1, 1, 1, 1, 2, 3, 2, 0, 0}, StatusSingular, {2, 1, 0}, {9, 9, 9, 0.5, 2, 3, 2, 0, 0}},
        // Singular with a last pivot of 0 in row 0, but the physical a[2][2] is 1.
        {{1, 2, 3, 2, 4, 6, 4, 0, 1}, StatusOk, {2, 1, 0}, {0.25, 0.5, 0, 0.5, 4, 5.5, 4, 0, 1}},
        // The general loop tests the true last pivot.
        {{1, 1, 2, 0}, StatusOk, {1, 0}, {0.5, 1, 2, 0}},
        // Epsilon fails the general loop, passes a size path; the test is
        // absolute.
        {{e}, StatusSingular, {0}, {e}},
        {{e, 0, 0, 0, 1, 0, 0, 0, 1}, StatusOk, {0, 1, 2}, {e, 0, 0, 0, 1, 0, 0, 0, 1}},
        {{e / 2, 0, 0, 0, 1, 0, 0, 0, 1}, StatusSingular, {0, 1, 2}, Mat<T>(9, T(9))},
        // A failing column's exchange: made by a size path, not by the
        // general loop.
        {{e / 4, 0, 0, e / 2, 1, 0, 0, 0, 1}, StatusSingular, {1, 0, 2}, Mat<T>(9, T(9))},
        {{e / 4, 1, e / 2, 1}, StatusSingular, {0, 1}, {e / 4, 1, e / 2, 1}},
        // Equal magnitudes: the earlier table position stays, on both paths.
        {{-2, 1, 2, 5}, StatusOk, {0, 1}, {-2, 1, -1, 6}},
        {{-2, 0, 0, 2, 4, 0, 1, 1, 1}, StatusOk, {0, 1, 2}, {-2, 0, 0, -1, 4, 0, -0.5, 0.25, 1}},
    };
    for (const Ex& x : ex) {
        const int N = int(x.q.size()), E = sizeof(T);
        std::vector<int> q(N, -1);
        Mat<T> d(N * N, T(9));
        OrsStatus st;
        if constexpr (sizeof(T) == 4) st = orsmLUDecomp_m_32f(x.a.data(), N * E, E, q.data(), d.data(), N * E, E, N);
        else st = orsmLUDecomp_m_64f(x.a.data(), N * E, E, q.data(), d.data(), N * E, E, N);
        EXPECT_EQ(st, x.st) << x.a[0] << " size " << N;
        EXPECT_EQ(q, x.q) << x.a[0] << " size " << N;
        EXPECT_EQ(d, x.d) << x.a[0] << " size " << N;
        // The same object over a packed array, which runs in groups: every
        // object as the single call, or a failure at the first one.
        const int count = 37, NN = N * N;
        Mat<T> as, ds(count * NN, T(9));
        std::vector<int> qs(count * N, -1);
        for (int n = 0; n < count; ++n) as.insert(as.end(), x.a.begin(), x.a.end());
        if constexpr (sizeof(T) == 4)
            st = orsmLUDecomp_ma_32f(as.data(), NN * E, N * E, E, qs.data(), ds.data(), NN * E, N * E, E, N, count);
        else
            st = orsmLUDecomp_ma_64f(as.data(), NN * E, N * E, E, qs.data(), ds.data(), NN * E, N * E, E, N, count);
        EXPECT_EQ(st, x.st) << x.a[0] << " size " << N << " array";
        for (int n = 0; n < count; ++n) {
            const bool done = n == 0 || x.st == StatusOk;
            EXPECT_EQ(Mat<T>(&ds[n * NN], &ds[n * NN] + NN), done ? x.d : Mat<T>(NN, T(9))) << x.a[0] << " " << n;
            EXPECT_EQ(std::vector<int>(&qs[n * N], &qs[n * N] + N), done ? x.q : std::vector<int>(N, -1))
                << x.a[0] << " " << n;
        }
    }
}

// ---- LUBackSubst -------------------------------------------------------------------

// Random factors with random tables (each object its own in mava); a
// `pivot` step gets 0 on U's diagonal.
template <class T> struct Back : SolveCall<T> {
    using SolveCall<T>::N, SolveCall<T>::count, SolveCall<T>::many, SolveCall<T>::b, SolveCall<T>::d;
    Packed<int> index;
    std::vector<int> q;  // the tables
    Back(const Fn& f, int n, int cnt, Mode mode, unsigned seed, bool in_place = false, int pivot = -1)
        : SolveCall<T>(f, n, cnt, mode), index(std::size_t(n) * (many ? count : 1)) {
        Values<T> v(seed, 0);
        std::mt19937 rng(seed);
        for (int o = 0; o < (many ? count : 1); ++o) {
            std::vector<int> p(N);
            std::iota(p.begin(), p.end(), 0);
            std::shuffle(p.begin(), p.end(), rng);
            for (int i = 0; i < N; ++i) index.data()[o * N + i] = p[i], q.push_back(p[i]);
        }
        this->bind(seed, in_place, v, [&](int o, int r, int k) {
            const T x = v();
            const int step = int(std::find(&q[o * N], &q[o * N] + N, r) - &q[o * N]);
            return k != step ? x : step == pivot ? T(0) : T(3) + x / T(4);
        });
        this->c.ptr("srcIndex") = index.data();
        this->ready();
    }
    // dst objects [0, upto) hold the model's solutions; the rest stand.
    testing::AssertionResult check(int upto) const {
        return this->solved(upto, [&](int o) {
            Mat<T> in = this->bv[o], out(N);
            T* x = b == d ? in.data() : out.data();  // in place: over b
            solve_model(size_path(N), this->factor(o), &q[many ? o * N : 0], in.data(), x, N);
            return Mat<T>(x, x + N);
        });
    }
};

// Both kinds of path, every form, layout and stride mix; dst on src2 (a size
// path reads all of b first, the general loop from order 2 on overwrites b
// before the table reads it); a zero pivot gives infinities and NaNs.
TYPED_TEST(LU, BackSubstBitExact) {
    unsigned seed = 100;
    for (const Fn& f : back_fns)
        for (Mode m : modes(f.second))
            for (int N : {1, 2, 3, 4, 5, 6, 7, 10})
                for (int variant = 0; variant < 3; ++variant) {
                    Back<TypeParam> t(f, N, 5, m, seed++, variant == 1, variant == 2 ? N / 2 : -1);
                    EXPECT_EQ(t.c.run(), StatusOk) << t.where;
                    EXPECT_TRUE(t.check(t.count)) << t.where << " variant " << variant;
                }
}

// Contiguous S and L systems with a factor each are solved in groups side by
// side: counts around the group sizes, dst on src2, a zero pivot.
TYPED_TEST(LU, BackSubstGroupsAsOneByOne) {
    unsigned seed = 600;
    for (Layout lay : {Layout::S, Layout::L})
    for (int N = 3; N <= 6; ++N)
        for (int count : {7, 9, 37})
            for (int variant = 0; variant < 3; ++variant) {
                Back<TypeParam> t({"LUBackSubst_mava", lay}, N, count, Mode{}, seed++, variant == 1,
                                  variant == 2 ? N / 2 : -1);
                EXPECT_EQ(t.c.run(), StatusOk) << t.where;
                EXPECT_TRUE(t.check(t.count)) << t.where << " variant " << variant;
            }
}

// A x = b through both families leaves a small residual on both kinds of
// path: the table one writes is the table the other reads.
TYPED_TEST(LU, FactorThenSolveSmallResidual) {
    using T = TypeParam;
    const int E = sizeof(T);
    Values<T> v(3, 0);
    for (int N = 1; N <= 9; ++N) {
        Mat<T> A(N * N), F(N * N), b(N), y(N);
        std::vector<int> q(N);
        for (auto& x : A) x = v();
        for (auto& x : b) x = v();
        if constexpr (sizeof(T) == 4) {
            ASSERT_EQ(orsmLUDecomp_m_32f(A.data(), N * E, E, q.data(), F.data(), N * E, E, N), StatusOk);
            ASSERT_EQ(orsmLUBackSubst_mv_32f(F.data(), N * E, E, q.data(), b.data(), E, y.data(), E, N), StatusOk);
        } else {
            ASSERT_EQ(orsmLUDecomp_m_64f(A.data(), N * E, E, q.data(), F.data(), N * E, E, N), StatusOk);
            ASSERT_EQ(orsmLUBackSubst_mv_64f(F.data(), N * E, E, q.data(), b.data(), E, y.data(), E, N), StatusOk);
        }
        expect_small_residual(A, y, b, N, 16);
    }
}

// ---- argument checks ---------------------------------------------------------------

// Pointers, count, size, strides, shifts: each fault alone, and the earlier
// of any two, decides, with every operand untouched.
TYPED_TEST(LU, ChecksInOrder) {
    std::vector<Fn> fns = decomp_fns;
    fns.insert(fns.end(), back_fns.begin(), back_fns.end());
    checks_in_order<TypeParam>(fns, [](const Fn& f) {
        return std::vector<Fault>{{"dst=0", StatusNullPointer}, {"count=0", StatusBadCount}, {"size=-1", StatusBadSize},
                                  dst_stride_fault<TypeParam>(f.second), {"dstRoiShift=2", StatusBadRoiShift}};
    });
}

// ---- serial and parallel -----------------------------------------------------------

// LUDecomp: only the 32f list form goes parallel, from size^2 count = 1001
// on; the other array forms stay serial however large the work. A parallel
// call in a serialized region does member 0's share only.
TYPED_TEST(LU, DecompParallelOnlyIn32fList) {
    const bool is32 = sizeof(TypeParam) == 4;
    factor_limit_cells<Decomp, TypeParam>(
        decomp_fns, [](const Fn&, Mode) { return 1001; },
        [&](const Fn& f, Mode) { return is32 && f.second == Layout::L; });
    // A real team, shares of 32 and 31 objects, a singular object in each:
    // each share stops at its own.
    for (Mode m : modes(Layout::L)) {
        if (!is32) break;
        Decomp<TypeParam> t(decomp_fns[4], 4, 63, m, 9, {{20, 3}, {40, 1}});
        const OrsStatus want = t.model({{0, 32}, {32, 31}});
        ThreadCount tc(2);
        EXPECT_EQ(t.c.run(), want);
        EXPECT_TRUE(t.check()) << t.where << " two threads";
    }
}

// LUBackSubst: serial below 701 in mva ((size + 2 count) size) and below
// 1201 in mava (size (size + 2) count), in every layout and type.
TYPED_TEST(LU, BackSubstParallelFromTheLimit) {
    solver_limit_cells<Back, TypeParam>(back_fns, [](const Fn& f, Mode) { return is_mava(f) ? 1201 : 701; });
    // A real team of two.
    for (const Fn& f : back_fns)
        for (Mode m : modes(f.second)) {
            if (!is_array(f)) continue;
            Back<TypeParam> t(f, 4, 301, m, 13);
            ThreadCount tc(2);
            EXPECT_EQ(t.c.run(), StatusOk);
            EXPECT_TRUE(t.check(t.count)) << t.where << " two threads";
        }
}

}  // namespace
