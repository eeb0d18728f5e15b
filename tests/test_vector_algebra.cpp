// CrossProduct, Saxpy and LComb: every result bit for bit against the scalar
// formula (each product rounded, then the sum or difference) in every form,
// layout, type and stride mix; the check orders with their asymmetries; each
// cell of the limit tables at its boundary; what an overlapping dst sees.
#include <climits>

#include "calls.hpp"

using namespace orsmtest;

namespace {

struct Case {
    std::string stem;
    Layout lay;
    bool cross() const { return stem[0] == 'C'; }
    std::string form() const { return stem.substr(stem.find('_') + 1); }
    bool arr(int i) const { return is_array_code(codes(form())[i]); }  // src1, src2
    bool array() const { return arr(0) || arr(1); }
};
std::vector<Case> cases() {
    std::vector<Case> v;
    for (std::string f : {"CrossProduct", "Saxpy", "LComb"})
        for (std::string form : {"vv", "vav", "vva", "vava"})
            for (Layout l : {Layout::S, Layout::P, Layout::L})
                if (!(f == "LComb" && form == "vva") && !(form == "vv" && l == Layout::L))
                    v.push_back({f + "_" + form, l});
    return v;
}
// Element strides by bit (src1, src2, dst strided), P tables of planes, or
// object strides of 16 bytes (the aligned packed paths).
struct Mode {
    unsigned strided = 0;
    bool soa = false, aligned = false;
};
std::vector<Mode> modes(Layout l) {
    if (l == Layout::P) return {Mode{}, Mode{0, true}};
    return {Mode{}, Mode{7}, Mode{4}, Mode{1}, Mode{0, false, true}};
}

template <class T> struct Trial {
    Case cs;
    int len, count;
    Call<T> c;
    Operand<T>* op[3];
    T v1 = 0, v2 = 0;
    std::vector<std::pair<T, bool>> want;
    Trial(const Case& cs_, Mode m, int len_, int count_, unsigned seed)
        : cs(cs_), len(cs_.cross() ? 3 : len_), count(count_), c(cs_.stem, cs_.lay) {
        Values<T> vals(seed);
        const char* roles[] = {"src1", "src2", "dst"};
        for (int k = 0; k < 3; ++k) {
            Shape sh{1, len, count, k == 2 ? cs.array() : cs.arr(k), !(m.strided >> k & 1), m.soa};
            if (m.aligned) sh.obj_gap = (16 - (len + 1) * int(sizeof(T)) % 16) % 16 / int(sizeof(T));
            op[k] = &c.bind(roles[k], sh.array, sh, seed + unsigned(k));
            op[k]->fill([&](int, int, int) { return vals(); });
        }
        // Zero coefficients in some calls: they still read their operand.
        v1 = seed % 3 ? vals() : T(0), v2 = seed % 5 ? vals() : -T(0);
        if (c.takes("value")) c.set_value("value", v1);
        if (c.takes("value1")) c.set_value("value1", v1), c.set_value("value2", v2);
        if (c.takes("length")) c.arg("length") = len;
        if (c.takes("count")) c.arg("count") = count;
        c.snapshot();
        for (int n = 0; n < count; ++n)
            for (int i = 0; i < len; ++i) want.push_back(formula(n, i));
    }
    T src(int k, int n, int i) const { return op[k]->at(cs.arr(k) ? n : 0, 0, i); }
    // Element i of object n by the formula; a NaN result stands for any NaN
    // where two NaNs meet (IEEE leaves open whose payload survives).
    std::pair<T, bool> formula(int n, int i) const {
        bool nans = false;
        auto two = [&](T x, T y, char o) {
            nans = nans || (std::isnan(x) && std::isnan(y));
            return o == '+' ? x + y : o == '-' ? x - y : x * y;
        };
        if (cs.cross()) {
            const int j = (i + 1) % 3, k = (i + 2) % 3;
            const T r = two(two(src(0, n, j), src(1, n, k), '*'), two(src(0, n, k), src(1, n, j), '*'), '-');
            return {r, nans};
        }
        const T p = two(src(0, n, i), v1, '*');
        return {two(p, c.takes("value1") ? two(src(1, n, i), v2, '*') : src(1, n, i), '+'), nans};
    }
    // Objects [0, upto) of dst hold the formula, nothing else changed (a
    // source that is dst excepted).
    testing::AssertionResult check(int upto) const {
        for (int n = 0; n < upto; ++n)
            for (int i = 0; i < len; ++i) {
                const auto [w, nans] = want[std::size_t(n) * len + i];
                const T got = op[2]->at(n, 0, i);
                if (bits(w) != bits(got) && !(nans && std::isnan(got)))
                    return testing::AssertionFailure() << n << ", " << i << ": " << got << " want " << w;
            }
        if (!op[2]->only_elements_changed(upto)) return testing::AssertionFailure() << "dst outside elements";
        for (int k = 0; k < 2; ++k)
            if (op[k] != op[2] && !op[k]->unchanged()) return testing::AssertionFailure() << "src changed";
        return testing::AssertionSuccess();
    }
};
std::string where(const Case& cs, int len, int count, Mode m) {
    return cs.stem + " " + name(cs.lay) + " len=" + std::to_string(len) + " count=" + std::to_string(count) +
           " strided=" + std::to_string(m.strided) + (m.soa ? " soa" : "") + (m.aligned ? " aligned" : "");
}

template <class T> class VectorAlgebra : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(VectorAlgebra, Types);

// Lengths with and without unrolled paths, past the long loop's start; one
// object, and six (a round of four and two more).
TYPED_TEST(VectorAlgebra, ResultsBitExact) {
    unsigned seed = 1;
    for (const Case& cs : cases())
        for (Mode m : modes(cs.lay))
            for (int len : cs.cross() ? std::vector{3} : std::vector{1, 2, 3, 4, 5, 6, 7, 9, 12, 41})
                for (int count : {1, 6}) {
                    Trial<TypeParam> t(cs, m, len, cs.array() ? count : 1, seed++);
                    EXPECT_EQ(t.c.run(), StatusOk) << where(cs, len, count, m);
                    EXPECT_TRUE(t.check(t.count)) << where(cs, len, count, m);
                }
}

// Check orders: pointers, count, length, strides (object strides in P),
// shifts, each where the call has it. The cross product has no size, and
// its vav checks count after the strides (and in L after the shifts too)
// where vva and vava check it second.
std::vector<Fault> faults(const Case& cs, int E) {
    const std::string bad = cs.lay == Layout::P ? "dstStride0=" + std::to_string(-E)
                                                : "dstStride2=" + std::to_string(E + 2);
    const Fault p{"dst=0", StatusNullPointer}, c{"count=0", StatusBadCount}, l{"length=0", StatusBadSize},
        s{bad, StatusBadStride}, h{"dstRoiShift=2", StatusBadRoiShift};
    if (!cs.cross() || cs.form() != "vav") return {p, c, l, s, h};
    return cs.lay == Layout::L ? std::vector{p, s, h, c} : std::vector{p, s, c, h};
}
TYPED_TEST(VectorAlgebra, FaultsInOrderWithDstUntouched) {
    for (const Case& cs : cases()) {
        Trial<TypeParam> t(cs, Mode{}, 4, 3, 5);
        expect_checks_in_order(t.c, faults(cs, sizeof(TypeParam)));
        Trial<TypeParam> u(cs, Mode{}, 3, 2, 9);
        check_every_argument(u.c);
    }
}

// Limits, serial below each (value, sense) cell; the 64f cross vva in P
// never goes parallel.
template <class T> Limit limit(const Case& cs, Mode m) {
    const bool is64 = sizeof(T) == 8, S = cs.lay == Layout::S, P = cs.lay == Layout::P, strided = m.strided;
    if (cs.cross()) return {is64 && P && cs.form() == "vva" ? INT_MAX : 3001, true};
    if (cs.stem[0] == 'L') return {!is64 && cs.lay == Layout::L && strided ? 3751 : 4501, true};
    if (P) return {1201, true};
    if (S) return {strided ? (is64 ? 1201 : 2001) : 3001, true};
    return {is64 ? 1001 : strided && cs.form() != "vva" ? 1001 : 1501, true};
}
TYPED_TEST(VectorAlgebra, ParallelFromTheLimitWithTheSameBits) {
    for (const Case& cs : cases()) {
        if (!cs.array()) continue;
        const bool two = cs.arr(0) && cs.arr(1);
        auto work = [&](int len, int, int n) {
            if (cs.cross()) return len == 3 ? (two ? 3 * n : 2 * n + 1) : INT_MAX;
            return two ? 3 * len * n : len * (2 * n + 1);
        };
        for (Mode m : modes(cs.lay)) {
            const Limit lim = limit<TypeParam>(cs, m);
            const bool never = lim.value == INT_MAX;
            for (int side : {0, 1}) {
                const int at = never ? 3000 : lim.last_serial();
                const auto g = limit_cell(work, at + 1, side, false);
                Trial<TypeParam> t(cs, m, g[0], g[2], 21);
                EXPECT_EQ(run_serialized(t.c), StatusOk);
                EXPECT_TRUE(t.check(side && !never ? first_share(g[2], 2) : g[2]))
                    << where(cs, g[0], g[2], m) << " W=" << g[3] << (side ? " parallel" : " serial");
            }
            // A real team of two gives the same bits as one thread.
            Trial<TypeParam> t(cs, m, 5, 1601, 41);
            ThreadCount tc(2);
            EXPECT_EQ(t.c.run(), StatusOk);
            EXPECT_TRUE(t.check(t.count)) << where(cs, 5, 1601, m) << " two threads";
        }
    }
}

// ---- overlapping operands ----------------------------------------------------------

template <class T> std::string unit_strides() {
    const std::string E = std::to_string(sizeof(T));
    return "src1Stride2=" + E + " src2Stride2=" + E + " dstStride2=" + E;
}

// In vv each element (in the cross product each object) is read before it is
// written: dst may be the source it is computed from.
TYPED_TEST(VectorAlgebra, InPlace) {
    for (const Case& cs : cases())
        for (int len : {3, 5, 12})
            if (!cs.array()) {
                Trial<TypeParam> t(cs, Mode{}, len, 1, 3);
                t.op[2] = t.op[cs.stem[0] == 'S'];
                t.c.attach("dst", *t.op[2]);
                EXPECT_EQ(t.c.run(), StatusOk);
                EXPECT_TRUE(t.check(1)) << where(cs, len, 1, Mode{});
            }
}

// A Saxpy dst one element above src2 sees each element written before it is
// read, past the 64f long loop's start too.
TYPED_TEST(VectorAlgebra, SaxpyDstAboveSrc2) {
    using T = TypeParam;
    std::vector<T> x(12, T(1)), y(13, T(0));
    Call<T> c("Saxpy_vv", "S");
    c.ptr("src1") = x.data(), c.ptr("src2") = y.data(), c.ptr("dst") = y.data() + 1;
    c.set(unit_strides<T>() + " length=12").set_value("value", T(3));
    ASSERT_EQ(c.run(), StatusOk);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(y[i + 1], T(3 * (i + 1))) << i;
}

// dst object 0 lies on the fixed src2. LComb's contiguous kernels load src2
// once ahead of the objects at lengths 3 to 6, so every object sees it as it
// was; the cross product reads it afresh for each object, so objects 1 on
// see object 0's result.
template <class T> void fixed_vector_held(const std::string& stem, Layout lay, int len) {
    std::vector<T> a(len * 3), d(len * 3);
    for (int i = 0; i < len * 3; ++i) a[i] = T(i % 5 + 1), d[i] = T(i % 3 + 2);
    const std::vector<T> b0(d.begin(), d.begin() + len);
    T* at[] = {&a[0], &a[len], &a[2 * len]};
    T* dt[] = {&d[0], &d[len], &d[2 * len]};
    Call<T> c(stem, lay);
    const bool S = lay == Layout::S, lcomb = c.takes("length");
    c.ptr("src1") = S ? static_cast<void*>(a.data()) : at;
    c.ptr("src2") = d.data();
    c.ptr("dst") = S ? static_cast<void*>(d.data()) : dt;
    const std::string s0 = std::to_string(len * sizeof(T));
    c.set(unit_strides<T>() + " count=3" + (S ? " src1Stride0=" + s0 + " dstStride0=" + s0 : ""));
    if (lcomb) c.arg("length") = len, c.set_value("value1", T(2)), c.set_value("value2", T(-1));
    ASSERT_EQ(c.run(), StatusOk);
    for (int n = 0; n < 3; ++n)
        for (int i = 0; i < len; ++i) {
            const T *x = &a[n * len], *y = lcomb || n == 0 ? b0.data() : d.data();
            const int j = (i + 1) % 3, k = (i + 2) % 3;
            EXPECT_EQ(d[n * len + i], lcomb ? x[i] * 2 - y[i] : x[j] * y[k] - x[k] * y[j])
                << stem << " " << name(lay) << " " << len << " " << n << " " << i;
        }
}
TEST(VectorAlgebraOverlap, FixedVectorHeldOnlyWhereLoadedOnce) {
    for (Layout l : {Layout::S, Layout::L}) {
        for (int len = 3; len <= 6; ++len) fixed_vector_held<double>("LComb_vav", l, len);
        fixed_vector_held<float>("LComb_vav", l, 4);
        fixed_vector_held<float>("CrossProduct_vav", l, 3);
    }
}

}  // namespace
