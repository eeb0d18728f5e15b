// QRDecomp and QRBackSubst against a model in every form, layout, type and
// stride mix; the quirks by example; check orders; the serial/parallel
// boundary; factor and solve together.
#include <climits>

#include "solvers.hpp"

using namespace orsmtest;

namespace {

const std::vector<Fn> all_fns = [] {
    std::vector<Fn> v = forms("QRDecomp", {"m", "ma"}), b = forms("QRBackSubst", {"mv", "mva", "mava"});
    v.insert(v.end(), b.begin(), b.end());
    return v;
}();

// Factors a (h by w) in place, v of each step in buf.
template <class T> OrsStatus qr_model(Mat<T>& a, int w, int h, T* buf) {
    auto A = [&](int r, int c) -> T& { return a[r * w + c]; };
    for (int j = 0; j < (w == h ? w - 1 : w); ++j) {
        T n2 = 0;
        for (int i = j; i < h; ++i) n2 += A(i, j) * A(i, j);
        if (std::fabs(n2) < (sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52))) return StatusDivideByZero;
        const T sg = std::sqrt(n2), p = A(j, j) + (A(j, j) > 0 ? sg : -sg);
        T s = buf[j] = 1;
        for (int i = j + 1; i < h; ++i) buf[i] = A(i, j) * (T(1) / p), s += buf[i] * buf[i];
        for (int c = j; c < w; ++c) {
            T t = A(j, c);
            for (int i = j + 1; i < h; ++i) t += A(i, c) * buf[i];
            t *= T(-2) / s;
            for (int i = j; i < h; ++i) A(i, c) += buf[i] * t;
        }
        for (int i = j + 1; i < h; ++i) A(i, j) = buf[i];
    }
    return StatusOk;
}
// Solves from factor F: b reflected in buf, then x by back substitution.
template <class T> void solve_model(const Mat<T>& F, const Mat<T>& b, T* buf, T* x, int w, int h) {
    auto A = [&](int r, int c) { return F[r * w + c]; };
    std::copy(b.begin(), b.end(), buf);
    for (int j = 0; j < (w == h ? w - 1 : w); ++j) {
        T t = buf[j], s = 1;
        for (int i = j + 1; i < h; ++i) t += buf[i] * A(i, j), s += A(i, j) * A(i, j);
        t *= T(-2) / s;
        for (int i = j; i < h; ++i) buf[i] += (i == j ? 1 : A(i, j)) * t;
    }
    for (int i = w - 1; i >= 0; --i) {
        T s = 0;
        for (int k = i + 1; k < w; ++k) s += A(i, k) * x[k];
        x[i] = (buf[i] - s) / A(i, i);
    }
}

// A call with guarded operands and scratch of `height` elements. Column
// `bad` of objects 2 and 160 (or of the one factor) is zero in QRDecomp; in
// QRBackSubst it puts a zero on R's diagonal.
template <class T> struct Trial {
    bool qrd, ma, va;
    int w, h, count;
    Call<T> c;
    Packed<T> buf;
    Mat<T> mbuf;  // the model's scratch, as the caller's stood
    Operand<T>*m, *b = nullptr, *d;
    std::vector<Mat<T>> a, bv, want;  // matrices, right-hand sides, dst
    Trial(const Fn& f, int w_, int h_, int cnt, Mode md, unsigned seed, int bad = -1, bool in_place = false)
        : qrd(f.first[2] == 'D'), ma(f.first.find("ma") != std::string::npos), va(!qrd && f.first.back() == 'a'),
          w(w_), h(h_), count(is_array(f) ? cnt : 1), c(f.first, f.second), buf(h_) {
        Values<T> v(seed, 0);
        auto sh = [&](int rows, int cols, bool arr) {
            return Shape{rows, cols, arr ? count : 1, arr, !md.strided, md.soa};
        };
        m = &c.bind(qrd ? "src" : "src1", ma, sh(h, w, ma), seed);
        m->fill([&](int o, int r, int k) {
            const T x = v();
            const bool zero = k == bad && (ma ? o == (bad % 2 ? 2 : 21) || o == 160 : o == 0) && (qrd || r == k);
            return zero ? T(0) : qrd ? x : r != k ? x / 8 : 3 + x / 4;
        });
        if (!qrd) b = &c.bind("src2", va, sh(1, h, va), seed + 1), b->fill([&](int, int, int) { return v(); });
        d = in_place ? &c.attach("dst", qrd ? *m : *b)
                     : &c.bind("dst", ma || va, qrd ? sh(h, w, ma) : sh(1, w, va), seed);
        for (int o = 0; o < count; ++o) {
            a.push_back(elements(*m, ma ? o : 0)), want.push_back(elements(*d, o));
            if (b) bv.push_back(elements(*b, o));
        }
        for (int i = 0; i < h; ++i) mbuf.push_back(buf.get(i));
        c.ptr("buffer") = buf.data();
        c.arg("width") = w, c.arg("height") = h;
        if (c.takes("count")) c.arg("count") = count;
        c.snapshot();
    }
    bool fixed() const { return !qrd && w == h && w >= 3 && w <= 6; }  // no scratch
    std::string where() const { return c.name() + " " + std::to_string(w) + "x" + std::to_string(h); }
    // The model on each share, with the caller's scratch or a member's.
    OrsStatus model(const Shares& shares, bool caller = true) {
        Mat<T> own(h);
        return over_shares(shares, [&](int o, int, int) -> OrsStatus {
            T* s = caller && !fixed() ? mbuf.data() : own.data();
            if (qrd) return qr_model(want[o] = a[o], w, h, s);
            solve_model(a[o], bv[o], s, want[o].data(), w, h);
            return StatusOk;
        });
    }
    // The square solve paths take the general loop's order here, on every
    // target: exact too.
    testing::AssertionResult check() const {
        if (auto r = results(*d, count, [&](int o) -> const Mat<T>& { return want[o]; }, {m, b}); !r) return r;
        Mat<T> scratch;
        for (int i = 0; i < h; ++i) scratch.push_back(buf.get(i));
        if (buf.guards_intact() && same(scratch, mbuf)) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "scratch";
    }
};

template <class T> class QR : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(QR, Types);

// Square and tall shapes on every path; a zero column at each place in
// object 2 or 21 of 37, or of 32 on src (a square factor's last column is
// not tested; earlier objects finish, later ones stay; groups of every
// vector width run, last of all with 32, which then leave the scratch), a
// zero on R's diagonal (infinities), dst on a source.
TYPED_TEST(QR, AsTheModel) {
    ThreadCount one(1);
    unsigned seed = 1;
    for (const Fn& f : all_fns)
        for (Mode m : modes(f.second))
            for (auto [w, h] : {std::pair{1, 1}, {1, 5}, {2, 2}, {3, 3}, {3, 4}, {4, 4}, {5, 5}, {6, 6}, {3, 9},
                                {7, 7}})
                for (int bad = -1; bad < w; ++bad)
                    for (bool in_place : {false, true}) {
                        Trial<TypeParam> t(f, w, h, in_place ? 32 : 37, m, seed++, bad, in_place);
                        if (bad >= 0 && t.fixed()) continue;  // infinities in a free order
                        const OrsStatus want = t.model({{0, t.count}});
                        EXPECT_EQ(want, !t.qrd || bad < 0 || (bad == w - 1 && w == h) ? StatusOk : StatusDivideByZero);
                        EXPECT_EQ(t.c.run(), want) << t.where() << " bad " << bad;
                        EXPECT_TRUE(t.check()) << t.where() << " bad " << bad << (in_place ? " in place" : "");
                    }
}

// The contiguous single calls, for worked examples and factor and solve.
template <class T> OrsStatus decomp(const Mat<T>& a, T* buf, T* d, int w, int h) {
    if constexpr (sizeof(T) == 4) return orsmQRDecomp_m_32f(a.data(), w * 4, 4, buf, d, w * 4, 4, w, h);
    else return orsmQRDecomp_m_64f(a.data(), w * 8, 8, buf, d, w * 8, 8, w, h);
}
template <class T> OrsStatus solve(const Mat<T>& f, T* buf, const Mat<T>& b, T* x, int w, int h) {
    if constexpr (sizeof(T) == 4) return orsmQRBackSubst_mv_32f(f.data(), w * 4, 4, buf, b.data(), 4, x, 4, w, h);
    else return orsmQRBackSubst_mv_64f(f.data(), w * 8, 8, buf, b.data(), 8, x, 8, w, h);
}

// Status and dst (as given, a NaN for a NaN, or none), and whether the
// scratch stays as it was.
TYPED_TEST(QR, ByExample) {
    using T = TypeParam;
    const T e = T(0x1p-12), nan = std::numeric_limits<T>::quiet_NaN(), inf = std::numeric_limits<T>::infinity();
    const bool f32 = sizeof(T) == 4;
    // b: QRBackSubst's right-hand side, none for QRDecomp.
    const struct { int w, h; Mat<T> a, b; OrsStatus st; Mat<T> d; bool scratch_kept; } ex[] = {
        {1, 1, {0}, {}, StatusOk, {0}, true},  // no step, whatever the value
        {2, 3, {0, 1, 0, 2, 0, 3}, {}, StatusDivideByZero, {0, 1, 0, 2, 0, 3}, true},  // a zero column: a copy
        {2, 2, {1, 0, 0, 1}, {}, StatusOk, {-1, 0, 0, 1}, false},  // R's diagonal against the pivot's sign,
        {2, 2, {0, 1, 1, 0}, {}, StatusOk, {1, 0, -1, 1}, false},  // a pivot of 0 taking the negative one
        // The squared norm: 2^-24 fails in 32f only, 2^-23 itself passes.
        {2, 2, {e, 0, 0, 1}, {}, f32 ? StatusDivideByZero : StatusOk, {f32 ? e : -e, 0, 0, 1}, f32},
        {1, 2, {e, e}, {}, StatusOk, {}, false},
        {2, 2, {nan, 1, 1, 1}, {}, StatusOk, {nan}, false},  // a NaN passes the test
        {1, 1, {0}, {3}, StatusOk, {inf}, false},            // no test for a singular R
        {1, 2, {2, 1}, {1, 3}, StatusOk, {-1.5}, false},     // one reflection, one division
    };
    for (const auto& x : ex) {
        Mat<T> d(x.a.size(), T(9));
        Packed<T> buf(x.h);
        buf.snapshot();
        EXPECT_EQ(x.b.empty() ? decomp(x.a, buf.data(), d.data(), x.w, x.h)
                              : solve(x.a, buf.data(), x.b, d.data(), x.w, x.h),
                  x.st);
        EXPECT_TRUE(same(d, x.d)) << x.w << "x" << x.h << " " << x.a[0];
        EXPECT_TRUE(buf.unchanged() == x.scratch_kept && buf.guards_intact()) << x.w << "x" << x.h << " " << x.a[0];
    }
}

// Rows of 801 elements and more are copied as blocks where they lie apart:
// the same as the element loop, in place, apart, and one element past src
// (rows overlap, and the loop smears). A zero first column stops the call
// after the copy.
TYPED_TEST(QR, LongRowsCopiedAsByElements) {
    using T = TypeParam;
    const int n = 801;
    for (int shift : {0, n * n + 5, 1}) {
        Mat<T> mem(2 * n * n + 8), buf(n);
        for (std::size_t i = 0; i < mem.size(); ++i) mem[i] = i % n ? T(i % 1000) : 0;
        Mat<T> want = mem;
        for (int i = 0; i < n * n; ++i) want[shift + i] = want[i];
        EXPECT_EQ(decomp(mem, buf.data(), mem.data() + shift, n, n), StatusDivideByZero);
        EXPECT_TRUE(same(mem, want)) << shift;
    }
}

// Pointers, count, sizes, strides, shifts, then width above height: each
// fault alone, and the earlier of any two, decides, every operand untouched.
TYPED_TEST(QR, ChecksInOrder) {
    checks_in_order<TypeParam>(all_fns, [](const Fn& f) {
        return std::vector<Fault>{{"dst=0", StatusNullPointer}, {"count=0", StatusBadCount},
                                  {"height=0", StatusBadSize}, dst_stride_fault<TypeParam>(f.second),
                                  {"dstRoiShift=2", StatusBadRoiShift}, {"width=4", StatusSizeMismatch}};
    });
}

// Serial below 2801 (strided) and 1801 (P, L): a forking call in a
// serialized region does member 0's share only, on scratch of its own. A
// real team of two gives the one-thread results, each share stopping at
// its own failing object.
TYPED_TEST(QR, ParallelFromTheLimit) {
    for (const Fn& f : all_fns) {
        const std::string form = f.first.substr(f.first.find('_') + 1);
        auto work = [&](int w, int h, int n) {
            return w > h            ? INT_MAX
                   : form == "ma"  ? w * h * 2 * n
                   : form == "mva" ? w * h + (w + h) * n
                                   : (w * (h + 1) + h) * n;
        };
        const int lim = f.second == Layout::S ? 2801 : 1801;
        for (Mode m : modes(f.second))
            for (int side = 0; side < 4 && is_array(f); ++side) {
                // The last serial and first parallel cells; 301 objects on one thread and on two.
                const auto g = side < 2 ? limit_cell(work, lim, side, true) : std::array<int, 4>{4, 6, 301, 0};
                Trial<TypeParam> t(f, g[0], g[1], g[2], m, 7, side < 2 ? -1 : 1);
                if (side < 2) {
                    const OrsStatus want = t.model({{0, side ? first_share(t.count, 2) : t.count}}, !side);
                    serialized([&] { EXPECT_EQ(t.c.run(), want); });
                } else {
                    const OrsStatus want = side == 2 ? t.model({{0, 301}}) : t.model({{0, 151}, {151, 150}}, false);
                    ThreadCount tc(side - 1);
                    EXPECT_EQ(t.c.run(), want);
                }
                EXPECT_TRUE(t.check()) << t.where() << " case " << side;
            }
    }
}

// Residuals: each column of A solves to the unit vector of its index with
// nothing left in the residual part (Q^T A = R over zeros, so Q R = A), and
// b = A x0 solves to x0, square or tall.
TYPED_TEST(QR, FactorAndSolve) {
    using T = TypeParam;
    Values<T> v(3, 0);
    for (auto [w, h] : {std::pair{1, 1}, {2, 2}, {3, 3}, {3, 4}, {3, 7}, {5, 5}, {6, 6}, {6, 8}, {9, 9}, {4, 12}}) {
        Mat<T> A(w * h), F(w * h), b(h), x(w), buf(h);
        for (int i = 0; i < w * h; ++i) A[i] = v() + (i / w == i % w ? 20 : 0);
        ASSERT_EQ(decomp(A, buf.data(), F.data(), w, h), StatusOk);
        const T tol = 64 * h * std::numeric_limits<T>::epsilon();
        for (int c = 0; c <= w; ++c) {  // column c, then b = A (1, 2, ..., w)
            for (int r = 0; r < h; ++r) b[r] = c < w ? A[r * w + c] : 0;
            for (int i = 0; i < w * h && c == w; ++i) b[i / w] += A[i] * T(i % w + 1);
            solve(F, buf.data(), b, x.data(), w, h);
            for (int i = 0; i < w; ++i) EXPECT_NEAR(x[i], c < w ? T(i == c) : T(i + 1), w * tol) << w << "x" << h;
            for (int i = w; i < h && c < w; ++i) EXPECT_NEAR(buf[i], 0, 20 * tol) << w << "x" << h << " residual";
        }
    }
}

}  // namespace
