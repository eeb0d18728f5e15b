// DotProduct and L2Norm: every result bit for bit against a scalar model of
// the addition order of its kernel (the trees of lengths 3 to 6, the
// ascending loop, the packed long sum that depends on src2's address), in
// every form, layout, type and stride mix; the root of the 32f contiguous
// norms by estimate and Newton step; the check order with dst untouched;
// each limit cell at its boundary; one against two threads.
#include <climits>

#include "calls.hpp"
#include "vectors/dot.hpp"

using namespace orsmtest;

namespace {

struct Case {
    std::string stem;
    Layout lay;
    bool norm() const { return stem[0] == 'L'; }
    std::string form() const { return stem.substr(stem.find('_') + 1); }
    bool arr1() const { return form().size() > 2 || form() == "va"; }
    bool arr2() const { return form() == "vava"; }
    const char* r1() const { return norm() ? "src" : "src1"; }
};
std::vector<Case> cases() {
    std::vector<Case> v;
    for (std::string s : {"DotProduct_vv", "DotProduct_vav", "DotProduct_vava", "L2Norm_v", "L2Norm_va"})
        for (Layout l : {Layout::S, Layout::P, Layout::L})
            if (l != Layout::L || Case{s, l}.arr1()) v.push_back({s, l});
    return v;
}
// Element strides by bit (src1, src2 strided), or P tables of planes.
struct Mode {
    unsigned strided = 0;
    bool soa = false;
};
std::vector<Mode> modes(const Case& cs) {
    if (cs.lay == Layout::P) return {Mode{}, Mode{0, true}};
    if (cs.norm()) return {Mode{}, Mode{1}};
    return {Mode{}, Mode{1}, Mode{2}};
}

// ---- the model --------------------------------------------------------------------

// Trees of lengths 3 to 6 by the names of their kernels; other lengths, and
// the trees' gaps, ascending (from +0 below length 3 and above 6).
enum class Tree { Plain, Strided, Pairs64, Vav32, NormV32, NormGroup, NormRest, Norm64 };
template <class T> T tree(Tree t, const std::vector<T>& p) {
    const std::size_t n = p.size();
    T s = n < 3 || n > 6 ? T(0) : p[0];
    for (std::size_t k = n < 3 || n > 6 ? 0 : 1; k < n; ++k) s = s + p[k];
    auto q = [&](std::size_t k) { return k < n ? p[k] : T(0); };
    const T a = q(0), b = q(1), c = q(2), d = q(3), e = q(4), f = q(5);
    using V = Tree;
    if (n == 3 && t == V::Norm64) return (a + c) + b;
    if (n == 4 && (t == V::Pairs64 || t == V::Norm64)) return (a + c) + (b + d);
    if (n == 4 && (t == V::Vav32 || t == V::NormV32)) return (a + b) + (c + d);
    if (n == 5 && t == V::Strided) return (((e + a) + b) + c) + d;
    if (n == 5 && (t == V::Pairs64 || t == V::NormGroup)) return ((a + c) + (b + d)) + e;
    if (n == 5 && (t == V::NormV32 || t == V::NormRest)) return ((a + b) + (c + d)) + e;
    if (n == 5 && t == V::Norm64) return ((a + c) + e) + (b + d);
    if (n == 6 && t == V::Strided) return ((((e + f) + a) + b) + c) + d;
    if (n == 6 && t == V::Pairs64) return (a + (c + e)) + (b + (d + f));
    if (n == 6 && t == V::NormV32) return ((a + b) + (c + d)) + (e + f);
    if (n == 6 && (t == V::NormGroup || t == V::NormRest || t == V::Norm64)) return ((a + c) + e) + ((b + d) + f);
    return s;
}

// The packed sum: a prologue that brings src2 (at byte address `addr`) to a
// 16-byte boundary, rounds of eight elements over two accumulators of
// 16-byte lanes, the lanes added, then the tail one at a time.
template <class T> T packed(const std::vector<T>& p, std::uintptr_t addr) {
    const int E = sizeof(T), len = int(p.size()), a = int(addr % 16);
    T s = T(0);
    if (a % E) {
        for (T x : p) s = s + x;
        return s;
    }
    const int e = a ? (16 - a) / E : 0;
    T acc[8] = {};  // A lanes in 0..3, B lanes in 4..7
    if (E == 8 && e == 1) acc[0] = p[0];
    else
        for (int k = 0; k < e; ++k) acc[0] = acc[0] + p[k];
    const int end = e + (len - e) / 8 * 8;
    for (int k = e; k < end; ++k) {
        const int i = (k - e) % 8;  // 32f: A A A A B B B B; 64f: A A B B A A B B
        const int slot = E == 4 ? i : (i / 2 % 2) * 4 + i % 2;
        acc[slot] = acc[slot] + p[k];
    }
    if (E == 4)
        s = ((acc[0] + acc[4]) + (acc[1] + acc[5])) + ((acc[2] + acc[6]) + (acc[3] + acc[7]));
    else
        s = (acc[0] + acc[4]) + (acc[1] + acc[5]);
    for (int k = end; k < len; ++k) s = s + p[k];
    return s;
}

// The 32f root by estimate and Newton step, as the library takes it; the
// estimate's bounds are tested on their own below.
float newton(float s) { return orsm::dot::newton_root(s); }

template <class T> struct Trial {
    Case cs;
    Mode m;
    int len, count;
    Call<T> c;
    Operand<T>* op[2] = {};
    Packed<T> dst;
    Trial(const Case& cs_, Mode m_, int len_, int count_, unsigned seed)
        : cs(cs_), m(m_), len(len_), count(cs_.arr1() ? count_ : 1), c(cs_.stem, cs_.lay), dst(count) {
        Values<T> vals(seed);
        for (int k = 0; k < (cs.norm() ? 1 : 2); ++k) {
            Shape sh{1, len, count, arr(k), !(m.strided >> k & 1), m.soa};
            op[k] = &c.bind(k ? "src2" : cs.r1(), arr(k), sh, seed + unsigned(k));
            op[k]->fill([&](int, int, int) { return vals.wide(); });
        }
        c.ptr("dst") = dst.data();
        c.arg("length") = len;
        if (c.takes("count")) c.arg("count") = count;
        c.snapshot();
        dst.snapshot();
    }
    bool arr(int k) const { return k ? cs.arr2() : cs.arr1(); }
    const T* at(int k, int n) const { return &op[k]->at(arr(k) ? n : 0, 0, 0); }
    T src(int k, int n, int i) const { return op[k]->at(arr(k) ? n : 0, 0, i); }
    bool contiguous() const { return cs.lay != Layout::P && m.strided == 0; }
    // Object n by its kernel's order.
    T want(int n) const {
        const bool is64 = sizeof(T) == 8, con = contiguous(), one = !cs.arr1(), fixed = len >= 3 && len <= 6;
        const int k2 = cs.norm() ? 0 : 1;
        std::vector<T> p;
        for (int i = 0; i < len; ++i) p.push_back(src(0, n, i) * src(k2, n, i));
        const auto addr = reinterpret_cast<std::uintptr_t>(at(k2, n));
        const bool long_sum = con && one && len >= (is64 ? 9 : 11);
        if (!cs.norm()) {
            if (!con) return tree(cs.lay == Layout::P ? Tree::Plain : Tree::Strided, p);
            if (long_sum) return packed(p, addr);
            if (!is64 && cs.arr2() && cs.lay == Layout::S && !fixed) {
                const auto o = reinterpret_cast<std::uintptr_t>(at(0, 0)) | reinterpret_cast<std::uintptr_t>(at(1, 0)) |
                               std::uintptr_t(op[0]->s0() | op[1]->s0());
                if (o % 16 == 0) return len >= 8 ? packed(p, 0) : tree(Tree::Plain, p);
                return len >= 11 ? packed(p, addr) : tree(Tree::Plain, p);
            }
            return tree(is64 ? Tree::Pairs64 : one || cs.arr2() ? Tree::Plain : Tree::Vav32, p);
        }
        const Tree t = !con ? Tree::Plain : is64 ? Tree::Norm64 : one ? Tree::NormV32
                     : n < count - count % 4 ? Tree::NormGroup : Tree::NormRest;
        const T s = long_sum ? packed(p, addr) : tree(t, p);
        if constexpr (sizeof(T) == 4)
            if (con && fixed) return newton(s);
        return std::sqrt(s);
    }
    // Results [0, upto) by the model, the rest of dst and every source as
    // they were.
    testing::AssertionResult check(int upto) const {
        for (int n = 0; n < count; ++n) {
            const auto got = bits(dst.get(std::size_t(n))), guard = ~decltype(got)(0) / 255 * kGuard;
            if (n < upto ? got != bits(want(n)) : got != guard)
                return testing::AssertionFailure() << "object " << n << ": " << dst.get(std::size_t(n));
        }
        if (!dst.guards_intact() || !c.unchanged()) return testing::AssertionFailure() << "guards or sources";
        return testing::AssertionSuccess();
    }
};
std::string where(const Case& cs, Mode m, int len, int count) {
    return cs.stem + " " + name(cs.lay) + " len=" + std::to_string(len) + " count=" + std::to_string(count) +
           " strided=" + std::to_string(m.strided) + (m.soa ? " soa" : "");
}

template <class T> class DotNorm : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(DotNorm, Types);

// Lengths around the unrolled paths and both long-sum thresholds; one
// object, five (a group of four and one) and eleven.
TYPED_TEST(DotNorm, ResultsBitExact) {
    unsigned seed = 1;
    for (const Case& cs : cases())
        for (Mode m : modes(cs))
            for (int len : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 16, 27})
                for (int count : cs.arr1() ? std::vector{1, 5, 11} : std::vector{1}) {
                    Trial<TypeParam> t(cs, m, len, count, seed++);
                    EXPECT_EQ(t.c.run(), StatusOk) << where(cs, m, len, count);
                    EXPECT_TRUE(t.check(t.count)) << where(cs, m, len, count);
                }
}

// vv and v with src2 at every element offset from a 16-byte boundary (and at
// offsets no element size divides: the plain loop), lengths past the
// thresholds with every tail; and the documented closed forms, aligned at
// length 16.
TYPED_TEST(DotNorm, LongSumFollowsTheAddressOfSrc2) {
    using T = TypeParam;
    const int E = sizeof(T);
    Values<T> vals(5);
    alignas(64) static unsigned char mem[2][64 + 64 * sizeof(T)];
    for (int off : E == 4 ? std::vector{0, 4, 8, 12, 2, 7} : std::vector{0, 8, 4, 12})
        for (int len = 8; len <= 40; len += 3)
            for (bool norm : {false, true}) {
                if (off % E && len < (E == 8 ? 9 : 11)) continue;  // only the long sum takes any address
                T *a = reinterpret_cast<T*>(mem[0] + 16), *b = reinterpret_cast<T*>(mem[1] + 16 + off), got = 0;
                std::vector<T> p;
                for (int k = 0; k < len; ++k) {
                    const T x = vals.wide(), y = vals.wide();
                    std::memcpy(a + k, &x, E), std::memcpy(reinterpret_cast<char*>(b) + k * E, &y, E);
                    p.push_back(norm ? y * y : x * y);
                }
                const T s = len >= (E == 8 ? 9 : 11) ? packed(p, reinterpret_cast<std::uintptr_t>(b)) : tree(Tree::Plain, p);
                Call<T> c(norm ? "L2Norm_v" : "DotProduct_vv", "S");
                c.ptr(norm ? "src" : "src2") = b, c.ptr("dst") = &got;
                c.set((norm ? "srcStride2=" : "src2Stride2=") + std::to_string(E) + " length=" + std::to_string(len));
                if (!norm) c.ptr("src1") = a, c.arg("src1Stride2") = E;
                ASSERT_EQ(c.run(), StatusOk);
                EXPECT_EQ(bits(got), bits(norm ? std::sqrt(s) : s)) << off << " " << len << " " << norm;
            }
    std::vector<T> p(16), L(4, T(0));
    for (int k = 0; k < 16; ++k) p[k] = vals.wide(), L[k % 4] = L[k % 4] + p[k];
    const T w = E == 8 ? (L[0] + L[2]) + (L[1] + L[3])
                       : (((p[0] + p[8]) + (p[4] + p[12])) + ((p[1] + p[9]) + (p[5] + p[13]))) +
                             (((p[2] + p[10]) + (p[6] + p[14])) + ((p[3] + p[11]) + (p[7] + p[15])));
    EXPECT_EQ(bits(packed(p, 0)), bits(w));
}

// vava 32f: 16-byte aligned bases and object strides start the packed
// rounds at length 8 with no prologue; a stride of 36 keeps length 9 in the
// plain loop, and from length 11 each object has its own prologue.
TEST(DotNormLongSum, Vava32AlignmentTest) {
    Values<float> vals(13);
    alignas(16) static float a[16 * 24], b[16 * 24];
    for (int i = 0; i < 16 * 24; ++i) a[i] = vals.wide(), b[i] = vals.wide();
    for (int len : {7, 8, 9, 10, 11, 12, 15})
        for (int stride : {32, 36, 48, 52, 64})
            for (int shift : {0, 1}) {
                float got[5];
                if (len * 4 > stride) continue;
                ASSERT_EQ(orsmDotProduct_vava_32f(a + shift, stride, 4, b, stride, 4, got, len, 5), StatusOk);
                for (int n = 0; n < 5; ++n) {
                    const float *x = a + shift + n * stride / 4, *y = b + n * stride / 4;
                    std::vector<float> p;
                    for (int k = 0; k < len; ++k) p.push_back(x[k] * y[k]);
                    const bool al = stride % 16 == 0 && shift == 0;
                    const float w = len >= (al ? 8 : 11) ? packed(p, al ? 0 : reinterpret_cast<std::uintptr_t>(y))
                                                        : tree(Tree::Plain, p);
                    EXPECT_EQ(bits(got[n]), bits(w)) << len << " " << stride << " " << shift << " " << n;
                }
            }
}

// Unrolled lengths sum from their first term, the loops from +0: products
// all -0 give -0 at lengths 3 to 6 and +0 elsewhere. A zero vector's norm is
// NaN on the estimate path (32f contiguous, lengths 3 to 6), 0 elsewhere.
TYPED_TEST(DotNorm, SignedZerosAndZeroNorms) {
    using T = TypeParam;
    for (const Case& cs : cases())
        for (Mode m : modes(cs))
            for (int len : {1, 3, 4, 5, 6, 7, 12}) {
                Trial<T> t(cs, m, len, 6, 3);
                for (int k = 0; k < (cs.norm() ? 1 : 2); ++k)
                    t.op[k]->fill([&](int, int, int) { return k ? T(1) : -T(0); });
                ASSERT_EQ(t.c.run(), StatusOk);
                const bool fixed = len >= 3 && len <= 6, nan = cs.norm() && fixed && t.contiguous() && sizeof(T) == 4;
                for (int n = 0; n < t.count; ++n) {
                    const T r = t.dst.get(std::size_t(n));
                    EXPECT_EQ(std::isnan(r), nan) << where(cs, m, len, t.count);
                    EXPECT_TRUE(nan || std::signbit(r) == (fixed && !cs.norm())) << where(cs, m, len, t.count);
                }
            }
}

// The reciprocal-root estimate is within 1.5 * 2^-12 of 1/sqrt(s) at every
// exponent and takes subnormals as zero; the roots of the estimate path stay
// within 2 units in the last place of the true root, and some differ from it.
TEST(DotNormRoot, EstimateAndNewtonStep) {
    using orsm::dot::rsqrt_estimate;
    Values<float> vals(17);
    for (int ex = -126; ex < 128; ++ex)
        for (int i = 0; i < 64; ++i) {
            const float s = std::ldexp(1.0f + float(i) / 64 + float(ex & 7) / 512, ex);
            EXPECT_LE(std::fabs(double(rsqrt_estimate(s)) * std::sqrt(double(s)) - 1), 1.5 / 4096) << s;
        }
    const float inf = INFINITY, tiny = std::numeric_limits<float>::denorm_min();
    EXPECT_TRUE(rsqrt_estimate(0.0f) == inf && rsqrt_estimate(tiny * 5) == inf && rsqrt_estimate(inf) == 0.0f);
    EXPECT_TRUE(std::isnan(rsqrt_estimate(NAN)) && std::isnan(rsqrt_estimate(-1.0f)));
    int differ = 0;
    for (int i = 0; i < 4000; ++i) {
        float x[4] = {vals.wide(), vals.wide(), vals.wide(), vals.wide()}, r;
        ASSERT_EQ(orsmL2Norm_v_32f(x, 4, &r, 4), StatusOk);
        const float e = std::sqrt((x[0] * x[0] + x[1] * x[1]) + (x[2] * x[2] + x[3] * x[3]));
        EXPECT_LE(std::fabs(r - e), 2 * (std::nextafter(e, INFINITY) - e));
        differ += r != e;
    }
    EXPECT_GT(differ, 0);
}

// Check order: pointers, count, length, strides, shifts (each where the
// call has it); of two faults the first answers; dst stays untouched.
TYPED_TEST(DotNorm, FaultsInOrderWithDstUntouched) {
    const std::string E = std::to_string(sizeof(TypeParam));
    for (const Case& cs : cases()) {
        const std::string r = cs.r1();
        Trial<TypeParam> t(cs, Mode{}, 4, 3, 5);
        expect_checks_in_order(t.c,
                               {{"dst=0", StatusNullPointer},
                                {"count=0", StatusBadCount},
                                {"length=0", StatusBadSize},
                                {cs.lay == Layout::P ? r + "Stride0=-" + E : r + "Stride2=" + E + "2", StatusBadStride},
                                {r + "RoiShift=2", StatusBadRoiShift}},
                               [&] { return t.dst.unchanged(); });
        Trial<TypeParam> u(cs, Mode{}, 3, 2, 9);
        check_every_argument(u.c);
        EXPECT_TRUE(u.dst.unchanged()) << cs.stem << name(cs.lay);
    }
}

// Limits, serial below each cell: at the last serial estimate every object
// is written; one past it, inside a serialized two-thread region, only
// member 0's share.
template <class T> Limit limit(const Case& cs, Mode m) {
    const bool is64 = sizeof(T) == 8, strided = m.strided != 0;
    if (cs.norm()) return {1501, true};
    if (cs.lay == Layout::S) return {is64 ? (strided ? 2001 : 3501) : (strided ? 2621 : 5001), true};
    if (cs.lay == Layout::P) return {is64 ? 2001 : 2401, true};
    return {is64 ? (strided ? 3301 : 4201) : 2401, true};
}
TYPED_TEST(DotNorm, ParallelFromTheLimit) {
    for (const Case& cs : cases())
        for (Mode m : cs.arr1() ? modes(cs) : std::vector<Mode>{})
            for (int side : {0, 1}) {
                auto wk = [&](int l, int, int n) { return cs.norm() ? l * n : cs.arr2() ? 2 * l * n : l * (n + 1); };
                const int last = limit<TypeParam>(cs, m).last_serial();
                const auto g = limit_cell(wk, last + 1, side, false);
                Trial<TypeParam> t(cs, m, g[0], g[2], 21);
                EXPECT_EQ(run_serialized(t.c), StatusOk);
                EXPECT_TRUE(t.check(side ? first_share(g[2], 2) : g[2])) << where(cs, m, g[0], g[2]) << " W=" << g[3];
            }
}

// A real team of two gives the bits of one thread. The 32f norm's groups of
// four are the call's, though a share may start inside one: on a vector
// whose group and remainder trees give different roots, every object shows
// which tree it took.
TYPED_TEST(DotNorm, TwoThreadsGiveTheSameBits) {
    ThreadCount tc(2);
    for (const Case& cs : cases())
        for (Mode m : cs.arr1() ? modes(cs) : std::vector<Mode>{})
            for (int len : {5, 13}) {
                Trial<TypeParam> t(cs, m, len, 1001, 41);
                EXPECT_EQ(t.c.run(), StatusOk);
                EXPECT_TRUE(t.check(t.count)) << where(cs, m, len, 1001) << " two threads";
            }
    if (sizeof(TypeParam) == 8) return;
    Values<float> vals(23, 0.0);
    std::vector<float> x(5), p(5);
    auto root = [&](Tree t) {
        for (int k = 0; k < 5; ++k) p[k] = x[k] * x[k];
        return newton(tree(t, p));
    };
    do
        for (float& v : x) v = vals();
    while (root(Tree::NormGroup) == root(Tree::NormRest));
    for (Layout l : {Layout::S, Layout::L})
        for (int threads : {1, 2})
            for (int count : {5, 303, 606}) {
                ThreadCount tn(threads);
                Trial<float> t({"L2Norm_va", l}, Mode{}, 5, count, 1);
                t.op[0]->fill([&](int, int, int k) { return x[std::size_t(k)]; });
                t.c.snapshot();
                ASSERT_EQ(t.c.run(), StatusOk);
                EXPECT_TRUE(t.check(count)) << name(l) << " " << threads << " threads, count " << count;
            }
}

}  // namespace
