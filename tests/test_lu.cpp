// LUDecomp and LUBackSubst: results and pivot tables bit for bit against a
// model of each path in every form, layout, type and stride mix, with
// singular objects and dst on a source; the path quirks on worked examples;
// check orders; the serial/parallel boundary; factor and solve together.
#include <cmath>
#include <limits>
#include <numeric>

#include "calls.hpp"

using namespace orsmtest;

namespace {

template <class T> using Mat = std::vector<T>;  // row-major
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

template <class T> Mat<T> elements(const Operand<T>& o, int n, int rows, int N) {
    Mat<T> m(rows * N);
    for (int i = 0; i < rows * N; ++i) m[i] = o.at(n, i / N, i % N);
    return m;
}
// Same bits, or NaN for NaN (which payload survives where two NaNs meet is
// the compiler's choice).
template <class T> testing::AssertionResult same(const Mat<T>& got, const Mat<T>& want, int o) {
    for (std::size_t i = 0; i < got.size(); ++i)
        if (bits(got[i]) != bits(want[i]) && !(std::isnan(got[i]) && std::isnan(want[i])))
            return testing::AssertionFailure() << "object " << o << " [" << i << "] " << got[i] << " want " << want[i];
    return testing::AssertionSuccess();
}

// Element strides unlike the element size (S, L), or P tables of planes.
struct Mode {
    bool strided = false, soa = false;
};
std::vector<Mode> modes(Layout l) { return {Mode{}, Mode{l != Layout::P, l == Layout::P}}; }

using Fn = std::pair<std::string, Layout>;
const Fn decomp_fns[] = {{"LUDecomp_m", Layout::S}, {"LUDecomp_m", Layout::P}, {"LUDecomp_ma", Layout::S},
                         {"LUDecomp_ma", Layout::P}, {"LUDecomp_ma", Layout::L}};
std::vector<Fn> back_fns() {
    std::vector<Fn> v;
    for (std::string f : {"mv", "mva", "mava"})
        for (Layout l : {Layout::S, Layout::P, Layout::L})
            if (f != "mv" || l != Layout::L) v.push_back({"LUBackSubst_" + f, l});
    return v;
}

// A call with guarded operands: `sh` shapes them, `where` names the call.
template <class T> struct Trial {
    Fn fn;
    int N, count;
    Mode mode;
    Call<T> c;
    Packed<int> index;
    std::vector<int> q;  // the table
    std::string where;
    Trial(const Fn& f, int n, int cnt, Mode m, int tables)
        : fn(f), N(n), count(cnt), mode(m), c(f.first, f.second), index(std::size_t(n) * tables),
          where(c.name() + " size=" + std::to_string(n) + " count=" + std::to_string(cnt) +
                (m.strided ? " strided" : m.soa ? " soa" : "")) {}
    Shape sh(int rows, bool array) const { return {rows, N, array ? count : 1, array, !mode.strided, mode.soa}; }
    void ready(const char* index_role) {
        c.ptr(index_role) = index.data();
        c.arg("size") = N;
        if (c.takes("count")) c.arg("count") = count;
        c.snapshot();
    }
};

// ---- LUDecomp ----------------------------------------------------------------------

// Random objects; each of `zeros` (object, column) zeroes a column, which
// makes that object singular at that column on both kinds of path.
template <class T> struct Decomp : Trial<T> {
    using Trial<T>::N, Trial<T>::count, Trial<T>::c, Trial<T>::index, Trial<T>::q;
    Operand<T>*src, *dst;
    std::vector<Mat<T>> a, d;  // sources, and dst as it stood
    static bool arr(const Fn& f) { return f.first.back() == 'a'; }
    Decomp(const Fn& f, int n, int cnt, Mode m, unsigned seed, std::vector<std::pair<int, int>> zeros = {},
           bool in_place = false)
        : Trial<T>(f, n, arr(f) ? cnt : 1, m, arr(f) ? cnt : 1) {
        Values<T> v(seed, 0);
        src = &c.bind("src", arr(f), this->sh(N, arr(f)), seed);
        src->fill([&](int o, int, int k) {
            const T x = v();
            return std::count(zeros.begin(), zeros.end(), std::pair{o, k}) ? T(0) : x;
        });
        dst = in_place ? &c.attach("dst", *src) : &c.bind("dst", arr(f), this->sh(N, arr(f)), seed + 1);
        if (!in_place) dst->fill([&](int, int, int) { return v(); });
        for (int o = 0; o < count; ++o) a.push_back(elements(*src, o, N, N)), d.push_back(elements(*dst, o, N, N));
        for (int i = 0; i < N * count; ++i) q.push_back(index.get(i));
        this->ready("dstIndex");
    }
    // The model run as the kernel would on each share (first object,
    // objects); the status of the first failing share.
    OrsStatus model(std::initializer_list<std::pair<int, int>> shares) {
        // The strided S array kernel's general loop gives every object the
        // same table entries.
        const bool one_table = this->fn.second == Layout::S && arr(this->fn) && this->mode.strided && !size_path(N);
        OrsStatus out = StatusOk;
        for (auto [f, k] : shares)
            for (int o = f; o < f + k; ++o) {
                const OrsStatus st = lu_model(size_path(N), this->fn.second == Layout::P, a[o], d[o],
                                              &q[std::size_t(one_table ? f : o) * N], N);
                if (st != StatusOk) {
                    out = out == StatusOk ? st : out;
                    break;
                }
            }
        return out;
    }
    testing::AssertionResult check() const {
        for (int o = 0; o < count; ++o)
            if (auto r = same(elements(*dst, o, N, N), d[o], o); !r) return r;
        for (int i = 0; i < N * count; ++i)
            if (index.get(i) != q[i]) return testing::AssertionFailure() << "table entry " << i << ": " << index.get(i);
        if (!dst->only_elements_changed() || !index.guards_intact()) return testing::AssertionFailure() << "guards";
        if (src != dst && !src->unchanged()) return testing::AssertionFailure() << "src changed";
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
                        Decomp<TypeParam> t(f, N, 4, m, seed++, {{Decomp<TypeParam>::arr(f) ? 2 : 0, zero}}, in_place);
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
template <class T> struct Back : Trial<T> {
    using Trial<T>::N, Trial<T>::count, Trial<T>::c, Trial<T>::index, Trial<T>::q;
    bool many;
    Operand<T>*m, *b, *d;
    std::vector<Mat<T>> bv;  // src2 as it stood
    Back(const Fn& f, int n, int cnt, Mode mode, unsigned seed, bool in_place = false, int pivot = -1)
        : Trial<T>(f, n, f.first.back() == 'v' ? 1 : cnt, mode, f.first.find("mava") != std::string::npos ? cnt : 1),
          many(f.first.find("mava") != std::string::npos) {
        Values<T> v(seed, 0);
        std::mt19937 rng(seed);
        const bool va = f.first.back() == 'a';
        for (int o = 0; o < (many ? count : 1); ++o) {
            std::vector<int> p(N);
            std::iota(p.begin(), p.end(), 0);
            std::shuffle(p.begin(), p.end(), rng);
            for (int i = 0; i < N; ++i) index.data()[o * N + i] = p[i], q.push_back(p[i]);
        }
        m = &c.bind("src1", many, this->sh(N, many), seed);
        m->fill([&](int o, int r, int k) {
            const T x = v();
            const int step = int(std::find(&q[o * N], &q[o * N] + N, r) - &q[o * N]);
            return k != step ? x : step == pivot ? T(0) : T(3) + x / T(4);
        });
        b = &c.bind("src2", va, this->sh(1, va), seed + 1);
        b->fill([&](int, int, int) { return v(); });
        for (int o = 0; o < count; ++o) bv.push_back(elements(*b, o, 1, N));
        d = in_place ? &c.attach("dst", *b) : &c.bind("dst", va, this->sh(1, va), seed + 2);
        this->ready("srcIndex");
    }
    // dst objects [0, upto) hold the model's solutions; the rest stand.
    testing::AssertionResult check(int upto) const {
        for (int o = 0; o < upto; ++o) {
            Mat<T> in = bv[o], out(N);
            T* x = b == d ? in.data() : out.data();  // in place: over b
            solve_model(size_path(N), elements(*m, many ? o : 0, N, N), &q[many ? o * N : 0], in.data(), x, N);
            if (auto r = same(elements(*d, o, 1, N), Mat<T>(x, x + N), o); !r) return r;
        }
        if (!d->only_elements_changed(upto)) return testing::AssertionFailure() << "dst outside its objects";
        if (!m->unchanged() || (b != d && !b->unchanged())) return testing::AssertionFailure() << "source changed";
        return testing::AssertionSuccess();
    }
};

// Both kinds of path, every form, layout and stride mix; dst on src2 (a size
// path reads all of b first, the general loop from order 2 on overwrites b
// before the table reads it); a zero pivot gives infinities and NaNs.
TYPED_TEST(LU, BackSubstBitExact) {
    unsigned seed = 100;
    for (const Fn& f : back_fns())
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
        for (int i = 0; i < N; ++i) {
            double r = -double(b[i]), scale = std::fabs(double(b[i]));
            for (int j = 0; j < N; ++j) r += double(A[i * N + j]) * y[j], scale += std::fabs(double(A[i * N + j]) * y[j]);
            EXPECT_LE(std::fabs(r), 16 * N * std::numeric_limits<T>::epsilon() * scale) << N << " " << i;
        }
    }
}

// ---- argument checks ---------------------------------------------------------------

// Pointers, count, size, strides, shifts: each fault alone, and the earlier
// of any two, decides, with every operand untouched.
TYPED_TEST(LU, ChecksInOrder) {
    const std::string E = std::to_string(sizeof(TypeParam));
    std::vector<Fn> fns(std::begin(decomp_fns), std::end(decomp_fns));
    for (const Fn& f : back_fns()) fns.push_back(f);
    for (const Fn& f : fns) {
        Call<TypeParam> c(f.first, f.second);
        bind_all(c, 3, 3, 2);
        check_every_argument(c);
        const std::string stride = f.second == Layout::P ? "dstStride0=-" + E : "dstStride2=" + E + "1";
        expect_checks_in_order(c, {{"dst=0", StatusNullPointer}, {"count=0", StatusBadCount},
                                   {"size=-1", StatusBadSize}, {stride, StatusBadStride},
                                   {"dstRoiShift=2", StatusBadRoiShift}});
    }
}

// ---- serial and parallel -----------------------------------------------------------

// LUDecomp: only the 32f list form goes parallel, from size^2 count = 1001
// on; the other array forms stay serial however large the work. A parallel
// call in a serialized region does member 0's share only.
TYPED_TEST(LU, DecompParallelOnlyIn32fList) {
    const bool is32 = sizeof(TypeParam) == 4;
    auto work = [](int s, int, int n) { return s * s * n; };
    for (const Fn& f : decomp_fns)
        for (Mode m : modes(f.second))
            for (int side = 0; side < 2 && f.first.back() == 'a'; ++side) {
                const auto g = side ? geometry(work, 1001, 1, false) : geometry(work, 1000, -1, false);
                Decomp<TypeParam> t(f, g[0], g[2], m, 7);
                const bool par = side && is32 && f.second == Layout::L;
                const OrsStatus want = t.model({{0, par ? first_share(t.count, 2) : t.count}});
                serialized([&] { EXPECT_EQ(t.c.run(), want); });
                EXPECT_TRUE(t.check()) << t.where << (par ? " parallel" : " serial");
            }
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
    for (const Fn& f : back_fns()) {
        const bool mava = f.first.find("mava") != std::string::npos;
        if (f.first.back() == 'v') continue;
        auto work = [&](int s, int, int n) { return mava ? s * (s + 2) * n : (s + 2 * n) * s; };
        const int lim = mava ? 1201 : 701;
        for (Mode m : modes(f.second)) {
            for (int side : {0, 1}) {
                const auto g = side ? geometry(work, lim, 1, false) : geometry(work, lim - 1, -1, false);
                Back<TypeParam> t(f, g[0], g[2], m, 11);
                serialized([&] { EXPECT_EQ(t.c.run(), StatusOk); });
                EXPECT_TRUE(t.check(side ? first_share(t.count, 2) : t.count)) << t.where << " W=" << g[3];
            }
            Back<TypeParam> t(f, 4, 301, m, 13);
            ThreadCount tc(2);
            EXPECT_EQ(t.c.run(), StatusOk);
            EXPECT_TRUE(t.check(t.count)) << t.where << " two threads";
        }
    }
}

}  // namespace
