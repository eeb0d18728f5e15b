// LUDecomp and LUBackSubst: every result bit for bit, with the pivot table,
// against a scalar model of the bound order in every form, layout, type and
// stride mix; what stands in dst and the table when an object is singular;
// the quirks of each path taken from worked examples; check orders; the
// serial/parallel boundary; a factor and its solve giving back x.
#include <climits>
#include <cmath>
#include <limits>
#include <numeric>

#include "calls.hpp"

using namespace orsmtest;

namespace {

template <class T> using Mat = std::vector<T>;  // row-major, size by size

// ---- models ------------------------------------------------------------------------

// One matrix by the rules of its path into d (dst as it stood) and the
// table. The size paths (orders 3 to 6) fail below epsilon, exchange before
// the test, test the physical last element and write pivot rows as they
// stand final (layout P: all at the end); the general loop fails at or below
// epsilon, exchanges after the test, tests the last pivot through the table
// and leaves all of dst the working copy.
template <class T> OrsStatus lu_model(bool fixed, bool whole_at_end, Mat<T> a, Mat<T>& d, int* q, int N) {
    const double eps = std::numeric_limits<T>::epsilon();
    auto A = [&](int r, int c) -> T& { return a[r * N + c]; };
    auto fails = [&](double m) { return fixed ? m < eps : m <= eps; };
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
        const double m = std::fabs(double(A(q[best], k)));
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
    if (fails(std::fabs(double(fixed ? A(N - 1, N - 1) : A(q[N - 1], N - 1))))) return done(StatusSingular);
    if (fixed && whole_at_end) d = a;
    else if (fixed) row(q[N - 1]);
    return done(StatusOk);
}

// One system: b read at q(i), x into d (which may be b). Size paths read all
// of b first, subtract term by term (forward: column 0 last) and multiply by
// reciprocals; the general loop sums each row's terms from zero in d, then
// subtracts and divides.
template <class T> void solve_model(bool fixed, const Mat<T>& a, const int* q, const T* b, T* d, int N) {
    auto M = [&](int i, int j) { return a[q[i] * N + j]; };
    if (fixed) {
        std::vector<T> y(N);
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

bool size_path(int n) { return n >= 3 && n <= 6; }

template <class T> Mat<T> matrix_of(const Operand<T>& o, int n, int N) {
    Mat<T> m(N * N);
    for (int i = 0; i < N * N; ++i) m[i] = o.at(n, i / N, i % N);
    return m;
}
template <class T> bool same(T a, T b) { return bits(a) == bits(b) || (std::isnan(a) && std::isnan(b)); }

// Element strides unlike the element size (S, L), or P tables of planes.
struct Mode {
    bool strided = false, soa = false;
};
std::vector<Mode> modes(Layout l) {
    return l == Layout::P ? std::vector<Mode>{{}, {false, true}} : std::vector<Mode>{{}, {true, false}};
}

// ---- LUDecomp ----------------------------------------------------------------------

template <class T> struct Decomp {
    Layout lay;
    bool array;
    int N, count;
    Mode mode;
    Call<T> c;
    Operand<T>*src, *dst;
    Packed<int> index;
    std::vector<Mat<T>> a, d;  // sources, and dst as it stood
    std::vector<int> q;        // the table as it stood

    // Random objects; each `zeros` (object, column) makes an object singular
    // at that column.
    Decomp(Layout l, bool arr, int n, int cnt, Mode m, unsigned seed, std::vector<std::pair<int, int>> zeros = {},
           bool in_place = false)
        : lay(l), array(arr), N(n), count(arr ? cnt : 1), mode(m), c(arr ? "LUDecomp_ma" : "LUDecomp_m", l),
          index(std::size_t(N) * count) {
        Values<T> v(seed, 0);
        const Shape sh{N, N, count, array, !m.strided, m.soa};
        src = &c.bind("src", array, sh, seed);
        src->fill([&](int o, int, int k) {
            const T x = v();
            return std::count(zeros.begin(), zeros.end(), std::pair{o, k}) ? T(0) : x;
        });
        dst = in_place ? &c.attach("dst", *src) : &c.bind("dst", array, sh, seed + 1);
        if (!in_place) dst->fill([&](int, int, int) { return v(); });
        c.ptr("dstIndex") = index.data();
        c.arg("size") = N;
        if (c.takes("count")) c.arg("count") = count;
        for (int o = 0; o < count; ++o) a.push_back(matrix_of(*src, o, N)), d.push_back(matrix_of(*dst, o, N));
        for (int i = 0; i < N * count; ++i) q.push_back(index.get(i));
        c.snapshot();
        index.snapshot();
    }
    // Runs the model on the shares given (first object, objects), as the
    // kernel would, and gives the status of the first failing share.
    OrsStatus model(std::initializer_list<std::pair<int, int>> shares) {
        // The strided S array kernel's general loop writes every object's
        // table over entries 0 to N-1.
        const bool one_table = lay == Layout::S && array && mode.strided && !size_path(N);
        OrsStatus out = StatusOk;
        for (auto [f, k] : shares)
            for (int o = f; o < f + k; ++o) {
                const OrsStatus st = lu_model(size_path(N), lay == Layout::P, a[o], d[o],
                                              &q[std::size_t(one_table ? f : o) * N], N);
                if (st != StatusOk) {
                    if (out == StatusOk) out = st;
                    break;
                }
            }
        return out;
    }
    testing::AssertionResult check() const {
        for (int o = 0; o < count; ++o)
            for (int i = 0; i < N * N; ++i)
                if (!same(dst->at(o, i / N, i % N), d[o][i]))
                    return testing::AssertionFailure() << "object " << o << " element " << i << ": "
                                                       << dst->at(o, i / N, i % N) << " want " << d[o][i];
        for (int i = 0; i < N * count; ++i)
            if (index.get(i) != q[i])
                return testing::AssertionFailure() << "table " << i << ": " << index.get(i) << " want " << q[i];
        if (!dst->only_elements_changed()) return testing::AssertionFailure() << "dst outside its elements";
        if (!index.guards_intact()) return testing::AssertionFailure() << "table guards";
        if (src != dst && !src->unchanged()) return testing::AssertionFailure() << "src changed";
        return testing::AssertionSuccess();
    }
    std::string where() const {
        return c.name() + " size=" + std::to_string(N) + " count=" + std::to_string(count) +
               (mode.strided ? " strided" : "") + (mode.soa ? " soa" : "");
    }
};

struct Form {
    Layout lay;
    bool array;
};
const Form decomp_forms[] = {{Layout::S, false}, {Layout::P, false}, {Layout::S, true}, {Layout::P, true}, {Layout::L, true}};

template <class T> class LU : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(LU, Types);

// Orders on both kinds of path; regular objects, then an object singular at
// each column in turn in the middle of the array (its predecessors finished,
// its successors and their table entries untouched), and dst on src.
TYPED_TEST(LU, DecompBitExactWithFailuresInPlace) {
    unsigned seed = 1;
    for (Form f : decomp_forms)
        for (Mode m : modes(f.lay))
            for (int N : {1, 2, 3, 4, 5, 6, 7, 9})
                for (int zero = -1; zero < N; ++zero)
                    for (bool in_place : {false, true}) {
                        Decomp<TypeParam> t(f.lay, f.array, N, 4, m, seed++, {{f.array ? 2 : 0, zero}}, in_place);
                        const OrsStatus want = t.model({{0, t.count}});
                        EXPECT_EQ(want, zero < 0 ? StatusOk : StatusSingular) << t.where();
                        EXPECT_EQ(t.c.run(), want) << t.where() << " zero column " << zero;
                        EXPECT_TRUE(t.check()) << t.where() << " zero column " << zero << (in_place ? " in place" : "");
                    }
}

// Worked examples, one per quirk.
template <class T> struct Small {
    std::vector<T> a, d;
    int q[8];
    // A contiguous single-matrix call with dst prefilled by 9s.
    Small(std::initializer_list<T> rows) : a(rows), d(a.size(), T(9)) { std::fill_n(q, 8, -1); }
    OrsStatus run() {
        const int N = int(std::lround(std::sqrt(double(a.size())))), E = sizeof(T);
        if constexpr (sizeof(T) == 4) return orsmLUDecomp_m_32f(a.data(), N * E, E, q, d.data(), N * E, E, N);
        else return orsmLUDecomp_m_64f(a.data(), N * E, E, q, d.data(), N * E, E, N);
    }
};
TYPED_TEST(LU, DecompQuirksByExample) {
    using T = TypeParam;
    const T eps = std::numeric_limits<T>::epsilon();
    // Determinant 2, yet the physical a[2][2] ends 0: singular, with the
    // pivot rows 2 and 1 written and row 0 as it was.
    Small<T> s1({1, 1, 1, 1, 2, 3, 2, 0, 0});
    EXPECT_EQ(s1.run(), StatusSingular);
    EXPECT_EQ(std::vector<int>(s1.q, s1.q + 3), (std::vector<int>{2, 1, 0}));
    EXPECT_EQ(s1.d, (std::vector<T>{9, 9, 9, 0.5, 2, 3, 2, 0, 0}));
    // Singular, with a last pivot of 0 in row 0, but the physical a[2][2] is 1.
    Small<T> s2({1, 2, 3, 2, 4, 6, 4, 0, 1});
    EXPECT_EQ(s2.run(), StatusOk);
    EXPECT_EQ(std::vector<int>(s2.q, s2.q + 3), (std::vector<int>{2, 1, 0}));
    EXPECT_EQ(s2.d, (std::vector<T>{0.25, 0.5, 0, 0.5, 4, 5.5, 4, 0, 1}));
    // The general loop tests the true last pivot.
    Small<T> s3({1, 1, 2, 0});
    EXPECT_EQ(s3.run(), StatusOk);
    EXPECT_EQ(std::vector<int>(s3.q, s3.q + 2), (std::vector<int>{1, 0}));
    EXPECT_EQ(s3.d, (std::vector<T>{0.5, 1, 2, 0}));
    // Epsilon itself: singular on the general loop, regular on a size path.
    Small<T> s4({eps});
    EXPECT_EQ(s4.run(), StatusSingular);
    EXPECT_EQ(s4.q[0], 0);
    EXPECT_EQ(s4.d[0], eps);
    Small<T> s5({eps, 0, 0, 0, 1, 0, 0, 0, 1});
    EXPECT_EQ(s5.run(), StatusOk);
    Small<T> s6({eps / 2, 0, 0, 0, 1, 0, 0, 0, 1});
    EXPECT_EQ(s6.run(), StatusSingular);
    // Absolute: a regular matrix of small elements is singular.
    Small<T> s7({eps / 4, 0, 0, 0, eps / 2, 0, 0, 0, eps / 8});
    EXPECT_EQ(s7.run(), StatusSingular);
    // Equal magnitudes: the earlier table position wins on both paths.
    Small<T> s8({-2, 1, 0, 2, 0, 1, 1, 1, 1});
    EXPECT_EQ(s8.run(), StatusOk);
    EXPECT_EQ(s8.q[0], 0);
    Small<T> s9({-2, 1, 2, 5});
    EXPECT_EQ(s9.run(), StatusOk);
    EXPECT_EQ(s9.q[0], 0);
}

// ---- LUBackSubst -------------------------------------------------------------------

template <class T> struct Back {
    std::string form;
    Layout lay;
    int N, count;
    Call<T> c;
    Operand<T>*m, *b, *d;
    Packed<int> index;
    std::vector<int> q;
    std::vector<std::vector<T>> bvals;  // src2 as it stood
    bool many() const { return form == "mava"; }

    // Random factors with random tables (each object its own in mava); a
    // zero `pivot` puts 0 on U's diagonal at that step.
    Back(const std::string& f, Layout l, int n, int cnt, Mode mode, unsigned seed, bool in_place = false, int pivot = -1)
        : form(f), lay(l), N(n), count(f == "mv" ? 1 : cnt), c("LUBackSubst_" + f, l),
          index(std::size_t(N) * (f == "mava" ? count : 1)) {
        Values<T> v(seed, 0);
        std::mt19937 rng(seed);
        const bool va = form != "mv";
        for (int o = 0; o < (many() ? count : 1); ++o) {
            std::vector<int> p(N);
            std::iota(p.begin(), p.end(), 0);
            std::shuffle(p.begin(), p.end(), rng);
            for (int i = 0; i < N; ++i) index.data()[o * N + i] = p[i], q.push_back(p[i]);
        }
        m = &c.bind("src1", many(), Shape{N, N, count, many(), !mode.strided, mode.soa}, seed);
        m->fill([&](int o, int r, int k) {
            const int step = int(std::find(&q[o * N], &q[o * N] + N, r) - &q[o * N]);
            const T x = v();
            return k == step ? (step == pivot ? T(0) : T(3) + x / T(4)) : x;
        });
        b = &c.bind("src2", va, Shape{1, N, count, va, !mode.strided, mode.soa}, seed + 1);
        b->fill([&](int, int, int) { return v(); });
        for (int o = 0; o < count; ++o) {
            bvals.emplace_back(N);
            for (int i = 0; i < N; ++i) bvals[o][i] = b->at(o, 0, i);
        }
        d = in_place ? &c.attach("dst", *b) : &c.bind("dst", va, Shape{1, N, count, va, true, mode.soa}, seed + 2);
        c.ptr("srcIndex") = index.data();
        c.arg("size") = N;
        if (c.takes("count")) c.arg("count") = count;
        c.snapshot();
    }
    // dst objects [0, upto) hold the model's solutions, objects from upto on
    // are as they stood.
    testing::AssertionResult check(int upto) const {
        for (int o = 0; o < upto; ++o) {
            const int fo = many() ? o : 0;
            // In place, the model solves over its own copy of b.
            std::vector<T> bv = bvals[o], out(N);
            T* x = b == d ? bv.data() : out.data();
            solve_model(size_path(N), matrix_of(*m, fo, N), &q[fo * N], bv.data(), x, N);
            for (int i = 0; i < N; ++i)
                if (!same(d->at(o, 0, i), x[i]))
                    return testing::AssertionFailure() << "object " << o << " element " << i << ": "
                                                       << d->at(o, 0, i) << " want " << x[i];
        }
        if (!d->only_elements_changed(upto)) return testing::AssertionFailure() << "dst outside its objects";
        if (!m->unchanged() || (b != d && !b->unchanged())) return testing::AssertionFailure() << "a source changed";
        return testing::AssertionSuccess();
    }
    std::string where() const {
        return c.name() + " size=" + std::to_string(N) + " count=" + std::to_string(count);
    }
};

struct BForm {
    const char* form;
    Layout lay;
};
std::vector<BForm> back_forms() {
    std::vector<BForm> v;
    for (const char* f : {"mv", "mva", "mava"})
        for (Layout l : {Layout::S, Layout::P, Layout::L})
            if (!(f[2] == 0 && l == Layout::L)) v.push_back({f, l});
    return v;
}

// Both kinds of path, every form, layout and stride mix; dst on src2 (the
// size paths and order 1 read b before writing, the general loop from order
// 2 on keeps its intermediate vector in dst); a zero pivot passes on as
// infinities and NaNs with StatusOk.
TYPED_TEST(LU, BackSubstBitExact) {
    unsigned seed = 100;
    for (BForm f : back_forms())
        for (Mode m : modes(f.lay))
            for (int N : {1, 2, 3, 4, 5, 6, 7, 10})
                for (int variant = 0; variant < 3; ++variant) {
                    Back<TypeParam> t(f.form, f.lay, N, 5, m, seed++, variant == 1, variant == 2 ? N / 2 : -1);
                    EXPECT_EQ(t.c.run(), StatusOk) << t.where();
                    EXPECT_TRUE(t.check(t.count)) << t.where() << " variant " << variant;
                }
}

// In place, with a table that is not the identity: order 2 takes the
// general loop, which stores x's first element over b[0] before it reads
// b[0]. M is rows 1, 0 of src1: U = [[4, 1], [0, 2]], L(1, 0) = 1.
template <class T> OrsStatus mv(const T* a, const int* q, const T* b, T* d, int N) {
    const int E = sizeof(T);
    if constexpr (sizeof(T) == 4) return orsmLUBackSubst_mv_32f(a, N * E, E, q, b, E, d, E, N);
    else return orsmLUBackSubst_mv_64f(a, N * E, E, q, b, E, d, E, N);
}
TYPED_TEST(LU, BackSubstInPlaceOrderTwoReadsOverwritten) {
    using T = TypeParam;
    const int q[] = {1, 0};
    const T a[] = {1, 2, 4, 1};
    T b[] = {3, 5};
    ASSERT_EQ(mv<T>(a, q, b, b, 2), StatusOk);
    EXPECT_EQ(b[1], T(0));     // (5 - 1 * 5) / 2, where the solution has -1
    EXPECT_EQ(b[0], T(1.25));  // (5 - 1 * 0) / 4
}

// ---- a factor and its solve --------------------------------------------------------

// A x = b solved through both families leaves a small residual on both
// kinds of path: the table format the one writes is the one the other reads.
TYPED_TEST(LU, FactorThenSolveSmallResidual) {
    using T = TypeParam;
    const int E = sizeof(T);
    Values<T> v(3, 0);
    for (int N = 1; N <= 9; ++N) {
        std::vector<T> A(N * N), F(N * N), b(N), y(N);
        std::vector<int> q(N);
        for (auto& e : A) e = v();
        for (auto& e : b) e = v();
        if constexpr (sizeof(T) == 4) ASSERT_EQ(orsmLUDecomp_m_32f(A.data(), N * E, E, q.data(), F.data(), N * E, E, N), StatusOk);
        else ASSERT_EQ(orsmLUDecomp_m_64f(A.data(), N * E, E, q.data(), F.data(), N * E, E, N), StatusOk);
        ASSERT_EQ(mv<T>(F.data(), q.data(), b.data(), y.data(), N), StatusOk);
        for (int i = 0; i < N; ++i) {
            double r = -double(b[i]), scale = std::fabs(double(b[i]));
            for (int j = 0; j < N; ++j) r += double(A[i * N + j]) * y[j], scale += std::fabs(double(A[i * N + j]) * y[j]);
            EXPECT_LE(std::fabs(r), 16 * N * std::numeric_limits<T>::epsilon() * scale) << N << " " << i;
        }
    }
}

// ---- argument checks ---------------------------------------------------------------

// Pointers, count, size, strides, shifts: each fault alone and the earlier
// of any two decides, with every operand untouched.
TYPED_TEST(LU, ChecksInOrder) {
    const int E = sizeof(TypeParam);
    std::vector<std::pair<std::string, Layout>> calls;
    for (Form f : decomp_forms) calls.push_back({f.array ? "LUDecomp_ma" : "LUDecomp_m", f.lay});
    for (BForm f : back_forms()) calls.push_back({std::string("LUBackSubst_") + f.form, f.lay});
    for (auto& [stem, lay] : calls) {
        Call<TypeParam> c(stem, lay);
        bind_all(c, 3, 3, 2);
        check_every_argument(c);
        const std::pair<std::string, OrsStatus> faults[] = {
            {"dst=0", StatusNullPointer},
            {"count=0", StatusBadCount},
            {"size=-1", StatusBadSize},
            {lay == Layout::P ? "dstStride0=" + std::to_string(-E) : "dstStride2=" + std::to_string(E + 2),
             StatusBadStride},
            {"dstRoiShift=2", StatusBadRoiShift}};
        std::vector<std::pair<std::string, OrsStatus>> steps;
        for (auto& fs : faults)
            if (c.takes(fs.first.substr(0, fs.first.find('=')))) steps.push_back(fs);
        const gen::Bag good = c.bag();
        for (std::size_t i = 0; i < steps.size(); ++i)
            for (std::size_t j = i; j < steps.size(); ++j) {
                c.bag() = good;
                EXPECT_EQ(c.set(steps[i].first + " " + steps[j].first).run(), steps[i].second)
                    << c.name() << " " << steps[i].first << " " << steps[j].first;
                EXPECT_TRUE(c.unchanged()) << c.name();
            }
    }
}

// ---- serial and parallel -----------------------------------------------------------

// LUDecomp: only the 32f list form goes parallel, from size * size * count =
// 1001 on; every other array form runs serially however large the work.
// Inside a serialized region a parallel call processes member 0's share.
TYPED_TEST(LU, DecompParallelOnlyIn32fList) {
    const bool is32 = sizeof(TypeParam) == 4;
    for (Form f : decomp_forms) {
        if (!f.array) continue;
        auto work = [](int s, int, int n) { return s * s * n; };
        for (Mode m : modes(f.lay))
            for (int side : {0, 1}) {
                const auto g = side ? geometry(work, 1001, 1, false) : geometry(work, 1000, -1, false);
                Decomp<TypeParam> t(f.lay, true, g[0], g[2], m, 7);
                const bool par = side && is32 && f.lay == Layout::L;
                const int k = par ? first_share(t.count, 2) : t.count;
                const OrsStatus want = t.model({{0, k}});
                OrsStatus st = StatusBadSize;
                serialized([&] { st = t.c.run(); });
                EXPECT_EQ(st, want);
                EXPECT_TRUE(t.check()) << t.where() << (par ? " parallel" : " serial");
            }
    }
    // A real team: shares of 32 and 31 objects, with a singular object in
    // each share; each share stops at its own, the other share's objects
    // before it stand finished.
    if (!is32) return;
    for (Mode m : modes(Layout::L)) {
        Decomp<TypeParam> t(Layout::L, true, 4, 63, m, 9, {{20, 3}, {40, 1}});
        const OrsStatus want = t.model({{0, 32}, {32, 31}});
        ThreadCount tc(2);
        EXPECT_EQ(want, StatusSingular);
        EXPECT_EQ(t.c.run(), want);
        EXPECT_TRUE(t.check()) << t.where() << " two threads";
    }
}

// LUBackSubst: serial below 701 for mva ((size + 2 count) size) and below
// 1201 for mava (size (size + 2) count), in every layout and type.
TYPED_TEST(LU, BackSubstParallelFromTheLimit) {
    for (BForm f : back_forms()) {
        if (std::string(f.form) == "mv") continue;
        const bool mava = std::string(f.form) == "mava";
        auto work = [&](int s, int, int n) { return mava ? s * (s + 2) * n : (s + 2 * n) * s; };
        const int lim = mava ? 1201 : 701;
        for (Mode m : modes(f.lay)) {
            for (int side : {0, 1}) {
                const auto g = side ? geometry(work, lim, 1, false) : geometry(work, lim - 1, -1, false);
                Back<TypeParam> t(f.form, f.lay, g[0], g[2], m, 11);
                serialized([&] { EXPECT_EQ(t.c.run(), StatusOk); });
                EXPECT_TRUE(t.check(side ? first_share(t.count, 2) : t.count))
                    << t.where() << " W=" << g[3] << (side ? " parallel" : " serial");
            }
            Back<TypeParam> t(f.form, f.lay, 4, 301, m, 13);
            ThreadCount tc(2);
            EXPECT_EQ(t.c.run(), StatusOk);
            EXPECT_TRUE(t.check(t.count)) << t.where() << " two threads";
        }
    }
}

}  // namespace
