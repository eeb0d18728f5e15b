// DotProduct and L2Norm: every result bit for bit against a scalar model of
// the addition order of its kernel (the trees of lengths 3 to 6, the
// ascending loop, the packed long sum that depends on src2's address), in
// every form, layout, type and stride mix; the root of the 32f contiguous
// norms by estimate and Newton step; the check order with dst untouched;
// each limit cell at its boundary; one against two threads.
#include <climits>

#include "calls.hpp"

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

// Trees of lengths 3 to 6 by the names of their kernels.
enum class Tree { Plain, Strided, Pairs64, Vav32, NormV32, NormGroup, NormRest, Norm64 };
template <class T> T tree(Tree t, const std::vector<T>& p) {
    const std::size_t n = p.size();
    auto asc = [&](T s, std::size_t from) {
        for (std::size_t k = from; k < n; ++k) s = s + p[k];
        return s;
    };
    if (n < 3 || n > 6) return asc(T(0), 0);
    switch (t) {
        case Tree::Strided:
            if (n == 5) return (((p[4] + p[0]) + p[1]) + p[2]) + p[3];
            if (n == 6) return ((((p[4] + p[5]) + p[0]) + p[1]) + p[2]) + p[3];
            break;
        case Tree::Pairs64:
            if (n == 4) return (p[0] + p[2]) + (p[1] + p[3]);
            if (n == 5) return ((p[0] + p[2]) + (p[1] + p[3])) + p[4];
            if (n == 6) return (p[0] + (p[2] + p[4])) + (p[1] + (p[3] + p[5]));
            break;
        case Tree::Vav32:
            if (n == 4) return (p[0] + p[1]) + (p[2] + p[3]);
            break;
        case Tree::NormV32:
            if (n == 4) return (p[0] + p[1]) + (p[2] + p[3]);
            if (n == 5) return ((p[0] + p[1]) + (p[2] + p[3])) + p[4];
            if (n == 6) return ((p[0] + p[1]) + (p[2] + p[3])) + (p[4] + p[5]);
            break;
        case Tree::NormGroup:
        case Tree::NormRest:
            if (n == 5 && t == Tree::NormGroup) return ((p[0] + p[2]) + (p[1] + p[3])) + p[4];
            if (n == 5) return ((p[0] + p[1]) + (p[2] + p[3])) + p[4];
            if (n == 6) return ((p[0] + p[2]) + p[4]) + ((p[1] + p[3]) + p[5]);
            break;
        case Tree::Norm64:
            if (n == 3) return (p[0] + p[2]) + p[1];
            if (n == 4) return (p[0] + p[2]) + (p[1] + p[3]);
            if (n == 5) return ((p[0] + p[2]) + p[4]) + (p[1] + p[3]);
            if (n == 6) return ((p[0] + p[2]) + p[4]) + ((p[1] + p[3]) + p[5]);
            break;
        case Tree::Plain: break;
    }
    return asc(p[0], 1);
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

// The 32f estimate of 1/sqrt(s) as the library defines it (1/sqrt rounded to
// 12 significant bits), then one Newton step.
float newton(float s) {
    const float y0 = 1.0f / std::sqrt(s);
    std::uint32_t b = bits(y0);
    if ((b & 0x7F800000u) != 0x7F800000u) b = (b + 0x400u) & ~0x7FFu;
    const float y = from_bits<float>(b);
    const float t = s * (y * y);
    const float u = 0.5f * (3.0f - t);
    return s * (y * u);
}

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
            const bool arr = k ? cs.arr2() : cs.arr1();
            Shape sh{1, len, count, arr, !(m.strided >> k & 1), m.soa};
            op[k] = &c.bind(k ? "src2" : cs.r1(), arr, sh, seed + unsigned(k));
            op[k]->fill([&](int, int, int) { return vals.wide(); });
        }
        c.ptr("dst") = dst.data();
        c.arg("length") = len;
        if (c.takes("count")) c.arg("count") = count;
        c.snapshot();
        dst.snapshot();
    }
    T src(int k, int n, int i) const { return op[k]->at((k ? cs.arr2() : cs.arr1()) ? n : 0, 0, i); }
    bool contiguous() const { return cs.lay != Layout::P && m.strided == 0; }
    bool vava_aligned() const {
        auto at = [&](int k) { return reinterpret_cast<std::uintptr_t>(&op[k]->at(0, 0, 0)); };
        return ((at(0) | at(1) | std::uintptr_t(op[0]->s0()) | std::uintptr_t(op[1]->s0())) & 15) == 0;
    }
    // Object n by its kernel's order.
    T want(int n) const {
        const bool is64 = sizeof(T) == 8, con = contiguous(), S = cs.lay == Layout::S;
        std::vector<T> p;
        for (int i = 0; i < len; ++i) p.push_back(src(0, n, i) * src(cs.norm() ? 0 : 1, n, i));
        const int k2 = cs.norm() ? 0 : 1;
        const bool arr = k2 ? cs.arr2() : cs.arr1();
        const std::uintptr_t addr = reinterpret_cast<std::uintptr_t>(&op[k2]->at(arr ? n : 0, 0, 0));
        const bool one = !cs.arr1(), fixed = len >= 3 && len <= 6;
        if (!cs.norm()) {
            if (!con) return tree(cs.lay == Layout::P ? Tree::Plain : Tree::Strided, p);
            if (one && len >= (is64 ? 9 : 11)) return packed(p, addr);
            if (!is64 && cs.arr2() && S && !fixed) {
                if (vava_aligned()) return len >= 8 ? packed(p, 0) : tree(Tree::Plain, p);
                return len >= 11 ? packed(p, addr) : tree(Tree::Plain, p);
            }
            return tree(is64 ? Tree::Pairs64 : cs.arr1() && !cs.arr2() ? Tree::Vav32 : Tree::Plain, p);
        }
        T s;
        if (!con) s = tree(Tree::Plain, p);
        else if (one && len >= (is64 ? 9 : 11)) s = packed(p, addr);
        else if (is64) s = tree(Tree::Norm64, p);
        else if (one) s = tree(Tree::NormV32, p);
        else s = tree(n < count - count % 4 ? Tree::NormGroup : Tree::NormRest, p);
        if constexpr (sizeof(T) == 4)
            if (con && fixed) return newton(s);
        return std::sqrt(s);
    }
    // Results [0, upto) by the model, the rest of dst and every source as
    // they were.
    testing::AssertionResult check(int upto) const {
        for (int n = 0; n < count; ++n) {
            const T got = dst.get(std::size_t(n));
            if (n < upto && bits(got) != bits(want(n)))
                return testing::AssertionFailure() << "object " << n << ": " << got << " want " << want(n);
            if (n >= upto && bits(got) != ~decltype(bits(got))(0) / 255 * kGuard)
                return testing::AssertionFailure() << "object " << n << " written";
        }
        if (!dst.guards_intact()) return testing::AssertionFailure() << "dst guard bytes";
        if (!c.unchanged()) return testing::AssertionFailure() << "a source changed";
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
                for (int count : {1, 5, 11}) {
                    if (!cs.arr1() && count > 1) continue;
                    Trial<TypeParam> t(cs, m, len, count, seed++);
                    EXPECT_EQ(t.c.run(), StatusOk) << where(cs, m, len, count);
                    EXPECT_TRUE(t.check(t.count)) << where(cs, m, len, count);
                }
}

// ---- the long sum and src2's address ----------------------------------------------

// vv and v with src2 at every element offset from a 16-byte boundary (and
// 32f at byte offsets that no element size divides), lengths past the
// thresholds with every tail.
TYPED_TEST(DotNorm, LongSumFollowsTheAddressOfSrc2) {
    using T = TypeParam;
    const int E = sizeof(T);
    Values<T> vals(5);
    alignas(64) static unsigned char mem[2][64 + 64 * sizeof(T)];
    for (int off : E == 4 ? std::vector{0, 4, 8, 12, 2, 7} : std::vector{0, 8, 4, 12})
        for (int len = 8; len <= 40; len += 3)
            for (bool norm : {false, true}) {
                T* a = reinterpret_cast<T*>(mem[0] + 16);
                T* b = reinterpret_cast<T*>(mem[1] + 16 + off);
                std::vector<T> p;
                for (int k = 0; k < len; ++k) {
                    const T x = vals.wide(), y = vals.wide();
                    std::memcpy(reinterpret_cast<unsigned char*>(a) + k * E, &x, E);
                    std::memcpy(reinterpret_cast<unsigned char*>(b) + k * E, &y, E);
                    p.push_back(norm ? y * y : x * y);
                }
                const T s = len >= (E == 8 ? 9 : 11) ? packed(p, reinterpret_cast<std::uintptr_t>(b))
                                                     : tree(Tree::Plain, p);
                T got = 0;
                Call<T> c(norm ? "L2Norm_v" : "DotProduct_vv", "S");
                c.ptr(norm ? "src" : "src2") = b, c.ptr("dst") = &got;
                c.set((norm ? "srcStride2=" : "src2Stride2=") + std::to_string(E) + " length=" + std::to_string(len));
                if (!norm) c.ptr("src1") = a, c.arg("src1Stride2") = E;
                ASSERT_EQ(c.run(), StatusOk);
                EXPECT_EQ(bits(got), bits(norm ? std::sqrt(s) : s)) << off << " " << len << " " << norm;
            }
}

// The documented closed forms: aligned, length 16.
TEST(DotNormLongSum, AlignedSixteen) {
    alignas(16) float a[16], b[16];
    alignas(16) double c[16], d[16];
    float p[16];
    double q[16];
    Values<double> vals(9);
    for (int k = 0; k < 16; ++k) {
        a[k] = float(vals.wide()), b[k] = float(vals.wide()), p[k] = a[k] * b[k];
        c[k] = vals.wide(), d[k] = vals.wide(), q[k] = c[k] * d[k];
    }
    float r32 = 0;
    double r64 = 0;
    ASSERT_EQ(orsmDotProduct_vv_32f(a, 4, b, 4, &r32, 16), StatusOk);
    ASSERT_EQ(orsmDotProduct_vv_64f(c, 8, d, 8, &r64, 16), StatusOk);
    EXPECT_EQ(r32, (((p[0] + p[8]) + (p[4] + p[12])) + ((p[1] + p[9]) + (p[5] + p[13]))) +
                       (((p[2] + p[10]) + (p[6] + p[14])) + ((p[3] + p[11]) + (p[7] + p[15]))));
    double L[4];
    for (int j = 0; j < 4; ++j) L[j] = (((0.0 + q[j]) + q[j + 4]) + q[j + 8]) + q[j + 12];
    EXPECT_EQ(r64, (L[0] + L[2]) + (L[1] + L[3]));
}

// vava 32f: 16-byte aligned bases and object strides start the packed
// rounds at length 8 with no prologue; a stride of 36 keeps length 9 in the
// plain loop, and from length 11 each object has its own prologue.
TEST(DotNormLongSum, Vava32AlignmentTest) {
    Values<float> vals(13);
    alignas(16) static float a[16 * 24], b[16 * 24];
    for (float& x : a) x = vals.wide();
    for (float& x : b) x = vals.wide();
    for (int len : {7, 8, 9, 10, 11, 12, 15})
        for (int stride : {32, 36, 48, 52, 64})
            for (int shift : {0, 1}) {
                if (len * 4 > stride) continue;
                const int count = 5;
                float got[count];
                ASSERT_EQ(orsmDotProduct_vava_32f(a + shift, stride, 4, b, stride, 4, got, len, count), StatusOk);
                const bool al = stride % 16 == 0 && shift == 0;
                for (int n = 0; n < count; ++n) {
                    const float* x = a + shift + n * stride / 4;
                    const float* y = b + n * stride / 4;
                    std::vector<float> p;
                    for (int k = 0; k < len; ++k) p.push_back(x[k] * y[k]);
                    const float w = al ? (len >= 8 ? packed(p, 0) : tree(Tree::Plain, p))
                                       : len >= 11 ? packed(p, reinterpret_cast<std::uintptr_t>(y))
                                                   : tree(Tree::Plain, p);
                    EXPECT_EQ(bits(got[n]), bits(w)) << len << " " << stride << " " << shift << " " << n;
                }
            }
}

// ---- signed zeros and the norm's root -------------------------------------------

// Unrolled lengths sum from their first term, the loops from +0: products
// all -0 give -0 at lengths 3 to 6 and +0 elsewhere.
TYPED_TEST(DotNorm, UnrolledSumsStartFromTheFirstTerm) {
    using T = TypeParam;
    for (const Case& cs : cases())
        for (int len : {1, 3, 4, 5, 6, 7, 12}) {
            if (cs.norm()) continue;
            Trial<T> t(cs, Mode{}, len, 5, 3);
            for (int k = 0; k < 2; ++k) t.op[k]->fill([&](int, int, int) { return k ? T(1) : -T(0); });
            ASSERT_EQ(t.c.run(), StatusOk);
            const bool neg = len >= 3 && len <= 6;
            for (int n = 0; n < t.count; ++n)
                EXPECT_EQ(std::signbit(t.dst.get(std::size_t(n))), neg) << where(cs, Mode{}, len, t.count);
        }
}

// The 32f contiguous norms of lengths 3 to 6 take the root by estimate and
// Newton step: a zero vector gives NaN there and 0 everywhere else; the
// roots stay within 2 units in the last place of the true root, and some
// differ from it.
TEST(DotNormRoot, EstimateOnlyOnThe32fContiguousPaths) {
    for (const Case& cs : cases()) {
        if (!cs.norm()) continue;
        for (Mode m : modes(cs))
            for (int len : {1, 3, 4, 5, 6, 7, 12}) {
                Trial<float> t(cs, m, len, 6, 4);
                Trial<double> u(cs, m, len, 6, 4);
                t.op[0]->fill([](int, int, int) { return 0.0f; });
                u.op[0]->fill([](int, int, int) { return 0.0; });
                ASSERT_EQ(t.c.run(), StatusOk);
                ASSERT_EQ(u.c.run(), StatusOk);
                const bool nan = t.contiguous() && len >= 3 && len <= 6;
                for (int n = 0; n < t.count; ++n) {
                    EXPECT_EQ(std::isnan(t.dst.get(std::size_t(n))), nan) << where(cs, m, len, t.count);
                    EXPECT_EQ(bits(u.dst.get(std::size_t(n))), 0u) << where(cs, m, len, t.count);
                }
            }
    }
    int differ = 0;
    Values<float> vals(17);
    for (int i = 0; i < 4000; ++i) {
        float x[4] = {vals.wide(), vals.wide(), vals.wide(), vals.wide()}, r;
        ASSERT_EQ(orsmL2Norm_v_32f(x, 4, &r, 4), StatusOk);
        const float s = (x[0] * x[0] + x[1] * x[1]) + (x[2] * x[2] + x[3] * x[3]), e = std::sqrt(s);
        EXPECT_LE(std::fabs(r - e), 2 * (std::nextafter(e, INFINITY) - e)) << s;
        differ += r != e;
    }
    EXPECT_GT(differ, 0);
}

// ---- faults -------------------------------------------------------------------------

// Check order: pointers, count, length, strides, shifts (each where the
// call has it); any two faults answer with the first; dst stays untouched.
TYPED_TEST(DotNorm, FaultsInOrderWithDstUntouched) {
    const std::string E = std::to_string(sizeof(TypeParam));
    for (const Case& cs : cases()) {
        const std::string r = cs.r1();
        std::string o = "pclsh";
        if (!cs.arr1()) o.erase(o.find('c'), 1);
        if (cs.lay == Layout::S) o.erase(o.find('h'), 1);
        if (cs.lay == Layout::P && !cs.arr1()) o.erase(o.find('s'), 1);
        auto edit = [&](char f) -> std::pair<std::string, OrsStatus> {
            switch (f) {
                case 'p': return {"dst=0", StatusNullPointer};
                case 'c': return {"count=0", StatusBadCount};
                case 'l': return {"length=0", StatusBadSize};
                case 's':
                    return {cs.lay == Layout::P ? r + "Stride0=-" + E : r + "Stride2=" + E + "2", StatusBadStride};
                default: return {r + "RoiShift=2", StatusBadRoiShift};
            }
        };
        for (std::size_t i = 0; i < o.size(); ++i)
            for (std::size_t j = i; j < o.size(); ++j) {
                Trial<TypeParam> t(cs, Mode{}, 4, 3, 5);
                EXPECT_EQ(t.c.set(edit(o[i]).first + " " + edit(o[j]).first).run(), edit(o[i]).second)
                    << cs.stem << name(cs.lay) << " " << o[i] << o[j];
                EXPECT_TRUE(t.c.unchanged() && t.dst.unchanged()) << cs.stem << name(cs.lay) << " " << o[i] << o[j];
            }
        Trial<TypeParam> t(cs, Mode{}, 3, 2, 9);
        check_every_argument(t.c);
        EXPECT_TRUE(t.dst.unchanged()) << cs.stem << name(cs.lay);
    }
}

// ---- serial and parallel ------------------------------------------------------------

template <class T> Limit limit(const Case& cs, Mode m) {
    if (cs.norm()) return {1501, true};
    const bool is64 = sizeof(T) == 8, strided = m.strided != 0;
    switch (cs.lay) {
        case Layout::S: return {is64 ? (strided ? 2001 : 3501) : (strided ? 2621 : 5001), true};
        case Layout::P: return {is64 ? 2001 : 2401, true};
        default: return {is64 ? (strided ? 3301 : 4201) : 2401, true};
    }
}
int work(const Case& cs, int len, int n) {
    return cs.norm() ? len * n : cs.arr2() ? 2 * len * n : len * (n + 1);
}

// At the last serial work estimate every object is written; one past it,
// inside a serialized two-thread region, only member 0's share.
TYPED_TEST(DotNorm, ParallelFromTheLimit) {
    for (const Case& cs : cases()) {
        if (!cs.arr1()) continue;
        for (Mode m : modes(cs)) {
            const Limit lim = limit<TypeParam>(cs, m);
            auto wk = [&](int len, int, int n) { return work(cs, len, n); };
            for (int side : {0, 1}) {
                const auto g = side ? geometry(wk, lim.last_serial() + 1, 1, false)
                                    : geometry(wk, lim.last_serial(), -1, false);
                Trial<TypeParam> t(cs, m, g[0], g[2], 21);
                OrsStatus st = StatusBadSize;
                serialized([&] { st = t.c.run(); });
                EXPECT_EQ(st, StatusOk);
                EXPECT_TRUE(t.check(side ? first_share(g[2], 2) : g[2]))
                    << where(cs, m, g[0], g[2]) << " W=" << g[3] << (side ? " parallel" : " serial");
            }
        }
    }
}

// A real team of two gives the bits of one thread; the norm's groups of four
// are the call's even where a share starts inside one.
TYPED_TEST(DotNorm, TwoThreadsGiveTheSameBits) {
    ThreadCount tc(2);
    for (const Case& cs : cases()) {
        if (!cs.arr1()) continue;
        for (Mode m : modes(cs))
            for (int len : {5, 13}) {
                Trial<TypeParam> t(cs, m, len, 1001, 41);
                EXPECT_EQ(t.c.run(), StatusOk);
                EXPECT_TRUE(t.check(t.count)) << where(cs, m, len, 1001) << " two threads";
            }
    }
}

// 32f norms of length 5 on one vector whose group and remainder trees give
// different roots: every object shows which tree it took. Serially the last
// count % 4 objects take the remainder tree; with two threads too, though
// each share starts its own run of groups.
TEST(DotNormRoot, GroupsOfFourAreTheCalls) {
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
                ThreadCount tc(threads);
                Trial<float> t({"L2Norm_va", l}, Mode{}, 5, count, 1);
                t.op[0]->fill([&](int, int, int k) { return x[std::size_t(k)]; });
                t.c.snapshot();
                ASSERT_EQ(t.c.run(), StatusOk);
                EXPECT_TRUE(t.check(count)) << name(l) << " " << threads << " threads, count " << count;
            }
}

}  // namespace
