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
    }
    T src(int k, int n, int i) const { return op[k]->at(cs.arr(k) ? n : 0, 0, i); }
    // Element i of object n by the formula, and whether two NaNs meet in it
    // (IEEE leaves open whose payload survives).
    T want(int n, int i, bool& nans) const {
        auto two = [&](T x, T y, char o) {
            nans = nans || (std::isnan(x) && std::isnan(y));
            return o == '+' ? x + y : o == '-' ? x - y : x * y;
        };
        if (cs.cross()) {
            const int j = (i + 1) % 3, k = (i + 2) % 3;
            return two(two(src(0, n, j), src(1, n, k), '*'), two(src(0, n, k), src(1, n, j), '*'), '-');
        }
        const T p = two(src(0, n, i), v1, '*');
        return two(p, c.takes("value1") ? two(src(1, n, i), v2, '*') : src(1, n, i), '+');
    }
    testing::AssertionResult check(int upto) const {
        for (int n = 0; n < upto; ++n)
            for (int i = 0; i < len; ++i) {
                bool nans = false;
                const T w = want(n, i, nans), got = op[2]->at(n, 0, i);
                if (bits(w) != bits(got) && !(nans && std::isnan(got)))
                    return testing::AssertionFailure() << "(" << n << ", " << i << ") " << got << " want " << w;
            }
        if (!op[2]->only_elements_changed(upto)) return testing::AssertionFailure() << "dst outside its elements";
        if (!op[0]->unchanged() || !op[1]->unchanged()) return testing::AssertionFailure() << "a source changed";
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
            for (int len : cs.cross() ? std::vector<int>{3} : std::vector<int>{1, 2, 3, 4, 5, 6, 7, 9, 12, 41})
                for (int count : {1, 6}) {
                    Trial<TypeParam> t(cs, m, len, cs.array() ? count : 1, seed++);
                    EXPECT_EQ(t.c.run(), StatusOk) << where(cs, len, count, m);
                    EXPECT_TRUE(t.check(t.count)) << where(cs, len, count, m);
                }
}

// Check orders, a letter per step: pointers, count, length, strides (object
// strides in P), shifts. The cross product has no size, and its vav checks
// count after the strides (and in L after the shifts too) where vva and vava
// check it second.
std::string order(const Case& cs) {
    const char l = name(cs.lay)[0];
    std::string o = cs.cross() ? (cs.form() == "vav" ? (l == 'L' ? "pshc" : "psch") : "pcsh") : "pclsh";
    if (!cs.array()) o.erase(o.find('c'), 1);
    if (l == 'S') o.erase(o.find('h'), 1);
    if (l == 'P' && !cs.array()) o.erase(o.find('s'), 1);
    return o;
}
TYPED_TEST(VectorAlgebra, FaultsInOrderWithDstUntouched) {
    const int E = sizeof(TypeParam);
    for (const Case& cs : cases()) {
        auto edit = [&](char f) -> std::pair<std::string, OrsStatus> {
            switch (f) {
                case 'p': return {"dst=0", StatusNullPointer};
                case 'c': return {"count=0", StatusBadCount};
                case 'l': return {"length=0", StatusBadSize};
                case 's': return {cs.lay == Layout::P ? "dstStride0=" + std::to_string(-E) : "dstStride2=" + std::to_string(E + 2), StatusBadStride};
                default: return {"dstRoiShift=2", StatusBadRoiShift};
            }
        };
        const std::string o = order(cs);
        for (std::size_t i = 0; i < o.size(); ++i)
            for (std::size_t j = i; j < o.size(); ++j) {
                Trial<TypeParam> t(cs, Mode{}, 4, 3, 5);
                EXPECT_EQ(t.c.set(edit(o[i]).first + " " + edit(o[j]).first).run(), edit(o[i]).second)
                    << cs.stem << name(cs.lay) << " " << o[i] << o[j];
                EXPECT_TRUE(t.c.unchanged()) << cs.stem << name(cs.lay) << " " << o[i] << o[j];
            }
        Trial<TypeParam> t(cs, Mode{}, 3, 2, 9);
        check_every_argument(t.c);
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
TYPED_TEST(VectorAlgebra, ParallelFromTheLimit) {
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
                const auto g = side ? geometry(work, at + 1, 1, false) : geometry(work, at, -1, false);
                Trial<TypeParam> t(cs, m, g[0], g[2], 21);
                OrsStatus st = StatusBadSize;
                serialized([&] { st = t.c.run(); });
                EXPECT_EQ(st, StatusOk);
                EXPECT_TRUE(t.check(side && !never ? first_share(g[2], 2) : g[2]))
                    << where(cs, g[0], g[2], m) << " W=" << g[3] << (side ? " parallel" : " serial");
            }
        }
    }
}
TYPED_TEST(VectorAlgebra, SameResultsWithOneAndTwoThreads) {
    for (int threads : {1, 2}) {
        ThreadCount tc(threads);
        for (const Case& cs : cases())
            if (cs.array())
                for (Mode m : modes(cs.lay)) {
                    Trial<TypeParam> t(cs, m, 5, 1601, 41);
                    EXPECT_EQ(t.c.run(), StatusOk);
                    EXPECT_TRUE(t.check(t.count)) << where(cs, 5, 1601, m) << " threads=" << threads;
                }
    }
}

// ---- overlapping operands ----------------------------------------------------------

// Sets element strides E and object strides s0 of a raw call.
template <class T> void strides(Call<T>& c, int s0) {
    for (std::string r : {"src1", "src2", "dst"}) {
        if (c.takes(r + "Stride2")) c.arg(r + "Stride2") = sizeof(T);
        if (c.takes(r + "Stride0")) c.arg(r + "Stride0") = s0;
    }
}

// In vv each element (each object, in the cross product) is read before it
// is written, so dst may be a source; and a Saxpy dst one element above
// src2 sees, past the 64f long loop's start too, each element written
// before it is read.
template <class T> void in_place_and_shifted() {
    for (std::string stem : {"CrossProduct_vv", "Saxpy_vv", "LComb_vv"})
        for (int len : {3, 5, 12}) {
            const int n = stem[0] == 'C' ? 3 : len;
            std::vector<T> a(n + 1), b(n + 1), d(n);
            for (int i = 0; i < n; ++i) a[i] = T(i + 1) / 3, b[i] = T(7 - i) / 5;
            Call<T> c(stem, "S");
            c.ptr("src1") = a.data(), c.ptr("src2") = b.data(), c.ptr("dst") = d.data();
            strides(c, 0);
            if (c.takes("length")) c.arg("length") = n, c.set_value(stem[0] == 'S' ? "value" : "value1", T(3));
            if (c.takes("value2")) c.set_value("value2", T(-0.75));
            ASSERT_EQ(c.run(), StatusOk);
            std::vector<T>& io = stem[0] == 'S' ? b : a;
            c.ptr("dst") = io.data();
            ASSERT_EQ(c.run(), StatusOk);
            EXPECT_TRUE(std::equal(d.begin(), d.end(), io.begin())) << stem << " " << len;
            if (stem[0] != 'S' || len < 9) continue;
            std::vector<T> x(n, T(1)), y(n + 1, T(0));
            c.ptr("src1") = x.data(), c.ptr("src2") = y.data(), c.ptr("dst") = y.data() + 1;
            ASSERT_EQ(c.run(), StatusOk);
            for (int i = 0; i < n; ++i) EXPECT_EQ(y[i + 1], T(3 * (i + 1))) << stem << " " << len << " " << i;
        }
}
TEST(VectorAlgebraOverlap, InPlaceAndShifted) {
    in_place_and_shifted<float>();
    in_place_and_shifted<double>();
}

// dst object 0 lies on the fixed src2. LComb's contiguous kernels load src2
// once ahead of the objects at lengths 3 to 6, so every object sees it as it
// was; the cross product reads it afresh for each object, so objects 1 on
// see object 0's result.
template <class T> void fixed_vector_held(const std::string& stem, Layout lay, int len) {
    const int count = 3;
    std::vector<T> arr(len * count), mem(len * count);
    std::vector<T*> at, dt;
    for (int i = 0; i < len * count; ++i) arr[i] = T(i % 5 + 1), mem[i] = T(i % 3 + 2);
    for (int n = 0; n < count; ++n) at.push_back(&arr[n * len]), dt.push_back(&mem[n * len]);
    const std::vector<T> src2(mem.begin(), mem.begin() + len);
    Call<T> c(stem, lay);
    c.ptr("src1") = lay == Layout::S ? static_cast<void*>(arr.data()) : at.data();
    c.ptr("src2") = mem.data();
    c.ptr("dst") = lay == Layout::S ? static_cast<void*>(mem.data()) : dt.data();
    strides(c, len * sizeof(T));
    c.arg("count") = count;
    const bool lcomb = c.takes("length");
    if (lcomb) c.arg("length") = len, c.set_value("value1", T(2)), c.set_value("value2", T(-1));
    ASSERT_EQ(c.run(), StatusOk);
    for (int n = 0; n < count; ++n) {
        // The fixed vector as object n read it.
        const T* b = lcomb || n == 0 ? src2.data() : mem.data();
        for (int i = 0; i < len; ++i) {
            const T* a = &arr[n * len];
            const T want = lcomb ? a[i] * 2 - b[i]
                                 : a[(i + 1) % 3] * b[(i + 2) % 3] - a[(i + 2) % 3] * b[(i + 1) % 3];
            EXPECT_EQ(mem[n * len + i], want) << stem << " " << name(lay) << " " << len << " " << n << " " << i;
        }
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
