// Mul of matrix by matrix, single and over arrays, every form, type and
// layout: exact bits against an ascending-k reference, the sign of all -0
// sums by kernel, the shape quirks of two kernels, the checks and their
// order, the parallel limits and independence from the thread count.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "operand.hpp"

using namespace orsmtest;

namespace {

enum class G { one, mam, mma, mama };
enum Kind { C, S2, P, L, LS2 };

// One exported function: group, form (bit 0: src1 stored transposed, bit 1:
// src2), layout, type and its address.
struct Fn {
    const char* name;
    G g;
    int form;
    Layout lay;
    bool f64;
    void* fp;
};

#define E(fn, grp, f, l, d) Fn{#fn, G::grp, f, Layout::l, d, reinterpret_cast<void*>(&fn)},
#define ONE(t, d, nm, f) E(orsmMul_##nm##_##t, one, f, S, d) E(orsmMul_##nm##_##t##_P, one, f, P, d)
#define ARR(t, d, grp, nm, f)                                                            \
    E(orsmMul_##nm##_##t, grp, f, S, d) E(orsmMul_##nm##_##t##_P, grp, f, P, d)          \
    E(orsmMul_##nm##_##t##_L, grp, f, L, d)
#define TYPE(t, d)                                                                       \
    ONE(t, d, mm, 0) ONE(t, d, tm, 1) ONE(t, d, mt, 2) ONE(t, d, tt, 3)                 \
    ARR(t, d, mam, mam, 0) ARR(t, d, mam, tam, 1) ARR(t, d, mam, mat, 2)                 \
    ARR(t, d, mam, tat, 3) ARR(t, d, mma, mma, 0) ARR(t, d, mma, tma, 1)                 \
    ARR(t, d, mma, mta, 2) ARR(t, d, mma, tta, 3) ARR(t, d, mama, mama, 0)               \
    ARR(t, d, mama, tama, 1) ARR(t, d, mama, mata, 2) ARR(t, d, mama, tata, 3)
const std::vector<Fn> kFns = {TYPE(32f, false) TYPE(64f, true)};
#undef TYPE
#undef ARR
#undef ONE
#undef E

const Fn& fn(const std::string& name) {
    for (const Fn& f : kFns)
        if (name == f.name) return f;
    throw std::runtime_error("no function " + name);
}

bool arr1(const Fn& f) { return f.g == G::mam || f.g == G::mama; }
bool arr2(const Fn& f) { return f.g == G::mma || f.g == G::mama; }

// Which square orders each kernel treats in an unrolled path (the others,
// and every other shape, take a general loop that starts its sums at +0).
unsigned orders(const Fn& f, Kind k) {
    const unsigned all = 0x78, o3 = 0x08, o345 = 0x38, o356 = 0x68;
    if (f.f64) return all;
    if (f.g == G::one) return (f.form == 1 && k == C) ? o345 : all;
    if (f.g == G::mama) return (f.form == 0 && k == S2) ? o345 : all;
    if (f.g != G::mam) return all;
    if (k == LS2) return o3;
    switch (f.form) {
        case 0: return k == P ? o3 : all;
        case 1: return (k == S2 || k == P) ? o3 : all;
        case 2: return k == C ? o356 : k == L ? all : o3;
        default: return all;
    }
}
Kind kind_of(const Fn& f, bool contiguous) {
    if (f.lay == Layout::P) return P;
    if (f.lay == Layout::S) return contiguous ? C : S2;
    return contiguous ? L : LS2;
}
bool unrolled(const Fn& f, Kind k, int M, int K, int N) {
    return M == K && K == N && M >= 3 && M <= 6 && ((orders(f, k) >> M) & 1u);
}

// The arguments of one call, whatever the function's signature.
struct OpArgs {
    const void* ptr;
    int s0, s1, s2, shift;
};
struct Args {
    OpArgs a, b, d;
    int w1, h1, w2, h2, count;
};

enum GroupKind { kSM, kS1, kPM, kP1, kLM };
GroupKind group_kind(Layout lay, bool array) {
    if (lay == Layout::P) return array ? kPM : kP1;
    if (lay == Layout::L) return array ? kLM : kS1;
    return array ? kSM : kS1;
}

template <GroupKind k, class X> auto group_args(const OpArgs& o) {
    X* const p = static_cast<X*>(const_cast<void*>(o.ptr));
    X* const* t = static_cast<X* const*>(const_cast<void*>(o.ptr));
    if constexpr (k == kSM) return std::tuple<X*, int, int, int>{p, o.s0, o.s1, o.s2};
    if constexpr (k == kS1) return std::tuple<X*, int, int>{p, o.s1, o.s2};
    if constexpr (k == kPM) return std::tuple<X* const*, int, int>{t, o.shift, o.s0};
    if constexpr (k == kP1) return std::tuple<X* const*, int>{t, o.shift};
    if constexpr (k == kLM) return std::tuple<X* const*, int, int, int>{t, o.shift, o.s1, o.s2};
}

template <class T, GroupKind k1, GroupKind k2, GroupKind kd, bool arr>
OrsStatus invoke_as(void* fp, const Args& c) {
    auto args = std::tuple_cat(group_args<k1, const T>(c.a), std::tuple<int, int>{c.w1, c.h1},
                               group_args<k2, const T>(c.b), std::tuple<int, int>{c.w2, c.h2},
                               group_args<kd, T>(c.d));
    auto all = [&] {
        if constexpr (arr)
            return std::tuple_cat(args, std::tuple<int>{c.count});
        else
            return args;
    }();
    return std::apply(
        [&](auto... xs) {
            using Fp = OrsStatus (*)(decltype(xs)...);
            return reinterpret_cast<Fp>(fp)(xs...);
        },
        all);
}

template <class T> OrsStatus invoke(const Fn& f, const Args& c) {
    const bool a1 = arr1(f), a2 = arr2(f);
    const GroupKind k1 = group_kind(f.lay, a1), k2 = group_kind(f.lay, a2);
    const GroupKind kd = group_kind(f.lay, f.g != G::one);
#define CASE(x1, x2, xd, arr) \
    if (k1 == x1 && k2 == x2 && kd == xd) return invoke_as<T, x1, x2, xd, arr>(f.fp, c);
    if (f.g == G::one) {
        CASE(kS1, kS1, kS1, false)
        CASE(kP1, kP1, kP1, false)
    }
    CASE(kSM, kS1, kSM, true)
    CASE(kPM, kP1, kPM, true)
    CASE(kLM, kS1, kLM, true)
    CASE(kS1, kSM, kSM, true)
    CASE(kP1, kPM, kPM, true)
    CASE(kS1, kLM, kLM, true)
    CASE(kSM, kSM, kSM, true)
    CASE(kPM, kPM, kPM, true)
    CASE(kLM, kLM, kLM, true)
#undef CASE
    ADD_FAILURE() << "no signature for " << f.name;
    return 1;
}

// Layout variants of a call: which operands have an element gap (S, L), and
// whether P objects are packed side by side.
struct Variant {
    bool gap1 = false, gap2 = false, gapd = false, soa = false;
    bool contiguous() const { return !gap1 && !gap2 && !gapd; }
};
const Variant kVariants[] = {{}, {true, false, false}, {false, false, true}, {true, true, true, true}};

// The three operands of a call laid out for M by K times K by N.
template <class T> struct Call {
    const Fn& f;
    int M, K, N, count;
    Variant v;
    Operand<T> a, b, d;

    static Shape shape(const Fn& f, int rows, int cols, bool array, int count, bool gap,
                       bool soa) {
        Shape s;
        s.rows = rows;
        s.cols = cols;
        s.array = array;
        s.count = array ? count : 1;
        s.contiguous = !gap;
        s.soa = soa && array && f.lay == Layout::P;
        return s;
    }
    static Layout lay(const Fn& f, bool array) {
        return (f.lay == Layout::L && !array) ? Layout::S : f.lay;
    }
    // Stored shapes may be larger than the call's sizes (quirk tests).
    Call(const Fn& fn_, int M_, int K_, int N_, int count_, Variant v_ = {}, int extra = 0,
         unsigned seed = 1)
        : f(fn_), M(M_), K(K_), N(N_), count(fn_.g == G::one ? 1 : count_), v(v_),
          a(lay(f, arr1(f)),
            shape(f, (f.form & 1 ? K : M) + extra, (f.form & 1 ? M : K) + extra, arr1(f), count,
                  v.gap1, v.soa),
            seed),
          b(lay(f, arr2(f)),
            shape(f, (f.form & 2 ? N : K) + extra, (f.form & 2 ? K : N) + extra, arr2(f), count,
                  v.gap2, v.soa),
            seed + 1),
          d(lay(f, f.g != G::one), shape(f, M + extra, N + extra, f.g != G::one, count, v.gapd, v.soa),
            seed + 2) {}

    static OpArgs op_args(Operand<T>& o) {
        const void* p = o.layout() == Layout::S ? static_cast<const void*>(o.ptr())
                                                : static_cast<const void*>(o.table());
        return {p, o.s0(), o.s1(), o.s2(), o.shift()};
    }
    Args args() {
        const int w1 = f.form & 1 ? M : K, h1 = f.form & 1 ? K : M;
        const int w2 = f.form & 2 ? K : N, h2 = f.form & 2 ? N : K;
        return {op_args(a), op_args(b), op_args(d), w1, h1, w2, h2, count};
    }
    OrsStatus run() { return invoke<T>(f, args()); }
    OrsStatus run(const Args& c) { return invoke<T>(f, c); }

    // op(src1)(i, k) and op(src2)(k, j) of object n.
    T A(int n, int i, int k) const {
        const int o = arr1(f) ? n : 0;
        return f.form & 1 ? a.at(o, k, i) : a.at(o, i, k);
    }
    T B(int n, int k, int j) const {
        const int o = arr2(f) ? n : 0;
        return f.form & 2 ? b.at(o, j, k) : b.at(o, k, j);
    }
    // The ascending-k sum, from the first product (unrolled) or from +0.
    T expected(int n, int i, int j, int KK, bool from_first) const {
        T s = from_first ? A(n, i, 0) * B(n, 0, j) : T(0) + A(n, i, 0) * B(n, 0, j);
        for (int k = 1; k < KK; ++k) s = s + A(n, i, k) * B(n, k, j);
        return s;
    }

    Kind kind() const { return kind_of(f, v.contiguous()); }
    void fill(int dataset, unsigned seed) {
        Values<T> gen(seed);
        std::mt19937 pick(seed);
        auto special = [&]() -> T {
            // Finite and infinite values, zeros and subnormals: products and
            // sums of these give NaNs only of the one default kind.
            switch (pick() % 10) {
                case 0: return T(0);
                case 1: return -T(0);
                case 2: return std::numeric_limits<T>::infinity();
                case 3: return std::numeric_limits<T>::denorm_min() * T(3);
                default: return gen.wide();
            }
        };
        switch (dataset) {
            case 0:
                a.fill([&](int, int, int) { return gen.wide(); });
                b.fill([&](int, int, int) { return gen.wide(); });
                break;
            case 1:
                a.fill([&](int, int, int) { return special(); });
                b.fill([&](int, int, int) { return special(); });
                break;
            default:  // every product -0
                a.fill([&](int, int, int) { return T(0); });
                b.fill([&](int, int, int) { return -T(0); });
                break;
        }
        d.fill([](int, int, int) { return std::numeric_limits<T>::quiet_NaN(); });
        a.snapshot();
        b.snapshot();
        d.snapshot();
    }

    // dst of objects below `upto` holds the expected bits, the other objects
    // and every byte outside the dst elements are unchanged, sources too.
    ::testing::AssertionResult check(int upto) const {
        const bool from_first = unrolled(f, kind(), M, K, N);
        if (!a.unchanged() || !b.unchanged()) return ::testing::AssertionFailure() << "source written";
        if (!d.only_elements_changed(upto)) return ::testing::AssertionFailure() << "guard written";
        for (int n = 0; n < count; ++n)
            for (int i = 0; i < M; ++i)
                for (int j = 0; j < N; ++j) {
                    const T got = d.at(n, i, j);
                    const T want = n < upto ? expected(n, i, j, K, from_first)
                                            : std::numeric_limits<T>::quiet_NaN();
                    if (bits(got) != bits(want))
                        return ::testing::AssertionFailure()
                               << "object " << n << " (" << i << ", " << j << "): got " << got
                               << " want " << want << (from_first ? " [path]" : " [loop]");
                }
        return ::testing::AssertionSuccess();
    }
};

struct Dims {
    int M, K, N;
};
// Square orders 1 to 8 and shapes that no path takes.
const Dims kShapes[] = {{1, 1, 1}, {2, 2, 2}, {3, 3, 3}, {4, 4, 4}, {5, 5, 5}, {6, 6, 6},
                        {7, 7, 7}, {8, 8, 8}, {2, 3, 5}, {5, 2, 3}, {3, 3, 4}, {4, 3, 3},
                        {3, 4, 5}, {6, 5, 4}, {1, 7, 2}, {8, 1, 3}, {4, 6, 4}};

// Calls check<T>(f) with T the function's element type.
#define BY_TYPE(check, f) ((f).f64 ? check<double>(f) : check<float>(f))

class EachFunction : public ::testing::TestWithParam<int> {
  protected:
    const Fn& f() const { return kFns[GetParam()]; }
};
class EachArrayFunction : public EachFunction {};
std::vector<int> array_functions() {
    std::vector<int> out;
    for (int i = 0; i < int(kFns.size()); ++i)
        if (kFns[i].g != G::one) out.push_back(i);
    return out;
}
std::string fn_name(const ::testing::TestParamInfo<int>& info) { return kFns[info.param].name; }

// Every function, shape, layout variant and data set: the bits of the
// ascending-k sum, -0 only where an unrolled path serves an all -0 sum.
template <class T> void exact_bits(const Fn& f) {
    unsigned seed = 11;
    for (const Dims& s : kShapes)
        for (const Variant& v : kVariants) {
            if (f.lay == Layout::P && !v.soa && !v.contiguous()) continue;
            for (int dataset = 0; dataset < 3; ++dataset) {
                Call<T> c(f, s.M, s.K, s.N, 3, v, 0, ++seed);
                c.fill(dataset, seed);
                SCOPED_TRACE(::testing::Message() << "M " << s.M << " K " << s.K << " N " << s.N
                                                  << " variant " << (&v - kVariants)
                                                  << " data " << dataset);
                ASSERT_EQ(c.run(), StatusOk);
                ASSERT_TRUE(c.check(c.count));
            }
        }
}
TEST_P(EachFunction, ExactBits) {
    BY_TYPE(exact_bits, f());
}

// The checks in their order: pointers, count, sizes, inner sizes, strides,
// shifts; each failure leaves every operand untouched.
template <class T> void statuses(const Fn& f) {
    const bool arr = f.g != G::one;
    Call<T> c(f, 3, 4, 5, 2, {}, 0, 5);
    c.fill(0, 5);
    const Args ok = c.args();
    using Mut = std::function<void(Args&)>;
    const Mut null_src1 = [](Args& x) { x.a.ptr = nullptr; };
    const Mut null_src2 = [](Args& x) { x.b.ptr = nullptr; };
    const Mut null_dst = [](Args& x) { x.d.ptr = nullptr; };
    const Mut no_count = [](Args& x) { x.count = 0; };
    const Mut size0 = [](Args& x) { x.h2 = 0; };
    const Mut mismatch = [&](Args& x) { (f.form & 1 ? x.h1 : x.w1) += 1; };
    // Every stride that the function takes, one at a time.
    std::vector<Mut> bad_strides, bad_shifts;
    const auto add_strides = [&](OpArgs Args::*op, bool array) {
        const GroupKind k = group_kind(f.lay, array);
        if (k == kSM) bad_strides.push_back([op](Args& x) { (x.*op).s0 = 0; });
        if (k == kPM) bad_strides.push_back([op](Args& x) { (x.*op).s0 = -int(sizeof(T)); });
        if (k != kPM && k != kP1) {
            bad_strides.push_back([op](Args& x) { (x.*op).s1 += 2; });
            bad_strides.push_back([op](Args& x) { (x.*op).s2 = 0; });
        }
        if (k == kPM || k == kP1 || k == kLM) {
            bad_shifts.push_back([op](Args& x) { (x.*op).shift = -int(sizeof(T)); });
            bad_shifts.push_back([op](Args& x) { (x.*op).shift += 2; });
        }
    };
    add_strides(&Args::a, arr1(f));
    add_strides(&Args::b, arr2(f));
    add_strides(&Args::d, arr);

    // A fault of a later step, to show that an earlier step answers first.
    const Mut later = bad_strides.empty() ? bad_shifts[0] : bad_strides[0];

    auto expect = [&](OrsStatus want, std::initializer_list<Mut> faults) {
        Args x = ok;
        for (const Mut& m : faults) m(x);
        EXPECT_EQ(c.run(x), want);
        EXPECT_TRUE(c.a.unchanged() && c.b.unchanged() && c.d.unchanged());
    };
    expect(StatusNullPointer, {null_src1, size0, no_count});
    expect(StatusNullPointer, {null_src2});
    expect(StatusNullPointer, {null_dst, no_count});
    if (arr) expect(StatusBadCount, {no_count, size0, mismatch});
    for (auto sz : {&Args::w1, &Args::h1, &Args::w2, &Args::h2})
        expect(StatusBadSize, {[sz](Args& x) { x.*sz = -1; }, later});
    expect(StatusSizeMismatch, {mismatch, later});
    for (const Mut& s : bad_strides) {
        expect(StatusBadStride, {s});
        if (!bad_shifts.empty()) expect(StatusBadStride, {s, bad_shifts[0]});
    }
    for (const Mut& s : bad_shifts) expect(StatusBadRoiShift, {s});
    EXPECT_EQ(c.run(ok), StatusOk);
    EXPECT_TRUE(c.check(c.count));
}
TEST_P(EachFunction, ChecksInOrder) {
    BY_TYPE(statuses, f());
}

// The parallel limit of every array function, contiguous and strided: the
// last count under it runs serially (all objects written inside a
// serialized region), the first at it goes to the parallel form (only the
// first share written). M 3, K 4, N 5.
int limit_of(const Fn& f, Kind k) {
    if (k == C) return f.f64 ? 3601 : 2501;
    return k == L ? 3601 : 1441;
}
int work_of(const Fn& f, int M, int K, int N, int count) {
    switch (f.g) {
        case G::mam: return K * N + (K + N) * M * count;
        case G::mma: return M * K + (M + K) * N * count;
        default: return (M * K + K * N + M * N) * count;
    }
}
// A shape and count whose work is exactly W (sizes up to 24), if any.
struct Sized {
    int M, K, N, count;
};
Sized with_work(const Fn& f, int W) {
    for (int M = 1; M <= 24; ++M)
        for (int K = 1; K <= 24; ++K)
            for (int N = 1; N <= 24; ++N) {
                const int one = work_of(f, M, K, N, 1), two = work_of(f, M, K, N, 2);
                const int per = two - one, fixed = one - per;
                if ((W - fixed) % per == 0 && (W - fixed) / per >= 2)
                    return {M, K, N, (W - fixed) / per};
            }
    return {0, 0, 0, 0};
}
template <class T> void limits(const Fn& f) {
    const ThreadCount threads(2);
    for (const Variant& v : {Variant{}, Variant{false, false, true}}) {
        if (f.lay == Layout::P && !v.contiguous()) continue;
        const Kind k = kind_of(f, v.contiguous());
        const int lim = limit_of(f, k);
        auto run = [&](Sized s, bool parallel) {
            SCOPED_TRACE(::testing::Message() << "M " << s.M << " K " << s.K << " N " << s.N
                                              << " count " << s.count << " kind " << k);
            ASSERT_GT(s.count, 1);
            Call<T> c(f, s.M, s.K, s.N, s.count, v, 0, unsigned(s.count));
            c.fill(0, 3);
            in_serialized_region([&] { EXPECT_EQ(c.run(), StatusOk); });
            EXPECT_TRUE(c.check(parallel ? first_share(s.count, 2) : s.count));
        };
        // W equal to the limit goes parallel, one less stays serial.
        run(with_work(f, lim), true);
        run(with_work(f, lim - 1), false);
        // The first parallel count for M 3, K 4, N 5, and the one before.
        int first_parallel = 1;
        while (work_of(f, 3, 4, 5, first_parallel) < lim) ++first_parallel;
        if (std::string(f.name) == "orsmMul_mam_32f") {
            EXPECT_EQ(first_parallel, v.contiguous() ? 92 : 53);
        }
        run({3, 4, 5, first_parallel - 1}, false);
        run({3, 4, 5, first_parallel}, true);
    }
}
TEST_P(EachArrayFunction, ParallelLimit) {
    BY_TYPE(limits, f());
}

// The same bits with one thread and with two, on an unrolled order and on
// the general loop, well above every limit.
template <class T> void thread_counts(const Fn& f) {
    for (const Dims& s : {Dims{4, 4, 4}, Dims{3, 4, 5}})
        for (int threads : {1, 2}) {
            const ThreadCount tc(threads);
            Call<T> c(f, s.M, s.K, s.N, 201, {}, 0, 9);
            c.fill(0, 9);
            EXPECT_EQ(c.run(), StatusOk);
            EXPECT_TRUE(c.check(c.count)) << threads << " threads, M " << s.M;
        }
}
TEST_P(EachArrayFunction, ThreadCountIndependent) {
    BY_TYPE(thread_counts, f());
}

INSTANTIATE_TEST_SUITE_P(Mul, EachFunction, ::testing::Range(0, int(kFns.size())), fn_name);
INSTANTIATE_TEST_SUITE_P(Mul, EachArrayFunction, ::testing::ValuesIn(array_functions()), fn_name);


// Two table kernels test orders 3 and 4 on the bitwise OR of the four sizes:
// any mix of sizes 1 to 3 runs the order-3 path over nine entries of every
// table. Their siblings test each size and write only M by N elements.
// Operands are laid out as 3 by 3 tables; the call passes the smaller sizes.
template <class T> void or_of_sizes(const Fn& f, bool quirk) {
    for (const Dims& s : {Dims{2, 3, 3}, Dims{3, 3, 2}, Dims{1, 2, 1}, Dims{3, 1, 3}, Dims{2, 2, 3}}) {
        SCOPED_TRACE(::testing::Message() << "M " << s.M << " K " << s.K << " N " << s.N);
        Call<T> c(f, 3, 3, 3, 1, {}, 0, 4);
        c.fill(0, 4);
        Args x = c.args();
        const bool t1 = f.form & 1, t2 = f.form & 2;
        x.w1 = t1 ? s.M : s.K, x.h1 = t1 ? s.K : s.M;
        x.w2 = t2 ? s.K : s.N, x.h2 = t2 ? s.N : s.K;
        ASSERT_EQ(c.run(x), StatusOk);
        ASSERT_TRUE(c.d.only_elements_changed());
        // Stored element (r, c) of a table of width w, in the 3 by 3 layout.
        auto tab = [](const Operand<T>& o, int r, int col, int w) {
            const int e = r * w + col;
            return o.at(0, e / 3, e % 3);
        };
        const int M = quirk ? 3 : s.M, K = quirk ? 3 : s.K, N = quirk ? 3 : s.N;
        const int w1 = quirk ? 3 : x.w1, w2 = quirk ? 3 : x.w2;
        for (int e = 0; e < 9; ++e) {
            const T got = c.d.at(0, e / 3, e % 3);
            if (e >= M * N) {
                EXPECT_TRUE(std::isnan(got)) << "entry " << e << " written";
                continue;
            }
            const int i = e / N, j = e % N;
            T sum = quirk ? T(-0.0) : T(0);  // the path starts from its first product
            for (int k = 0; k < K; ++k) {
                const T a = t1 ? tab(c.a, k, i, w1) : tab(c.a, i, k, w1);
                const T b = t2 ? tab(c.b, j, k, w2) : tab(c.b, k, j, w2);
                sum = (k == 0 && quirk) ? a * b : sum + a * b;
            }
            EXPECT_EQ(bits(got), bits(sum)) << "entry " << e;
        }
    }
}
TEST(MulQuirk, OrOfSizesTables) {
    or_of_sizes<float>(fn("orsmMul_mm_32f_P"), true);
    or_of_sizes<double>(fn("orsmMul_tt_64f_P"), true);
    or_of_sizes<double>(fn("orsmMul_mm_64f_P"), false);
    or_of_sizes<float>(fn("orsmMul_tt_32f_P"), false);
    or_of_sizes<float>(fn("orsmMul_mt_32f_P"), false);
}

// The contiguous 32f array-by-fixed kernel with src2 read transposed enters
// its order-4 path on M 4, K 4, N 3 and runs it as N 4: it reads a fourth
// stored row of src2 and stores a fourth element after each dst row. The
// operands are laid out 4 by 4, so that row and that element lie inside
// them; the call passes src2Height 3. The L and strided kernels and the 64f
// twin write three columns by the general loop.
template <class T> void mat_off_by_one(const Fn& f, Variant v, bool quirk) {
    SCOPED_TRACE(f.name);
    Call<T> c(f, 4, 4, 4, 3, v, 0, 8);
    c.fill(0, 8);
    Args x = c.args();
    x.h2 = 3;
    ASSERT_EQ(c.run(x), StatusOk);
    ASSERT_TRUE(c.d.only_elements_changed());
    for (int n = 0; n < c.count; ++n)
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) {
                const T got = c.d.at(n, i, j);
                if (j == 3 && !quirk) {
                    EXPECT_TRUE(std::isnan(got));
                    continue;
                }
                EXPECT_EQ(bits(got), bits(c.expected(n, i, j, 4, quirk))) << n << i << j;
            }
}
TEST(MulQuirk, MatOrderFourEntry) {
    mat_off_by_one<float>(fn("orsmMul_mat_32f"), {}, true);
    mat_off_by_one<float>(fn("orsmMul_mat_32f"), {false, false, true}, false);
    mat_off_by_one<float>(fn("orsmMul_mat_32f_L"), {}, false);
    mat_off_by_one<double>(fn("orsmMul_mat_64f"), {}, false);
    mat_off_by_one<float>(fn("orsmMul_tat_32f"), {}, false);
}

// Odd multiples of 8 bytes for object and row strides and for addresses of
// 64f operands: any alignment gives the same bits (the fixed-by-array forms
// included, whose object stride must never be assumed to keep 16-byte
// alignment).
template <class F>
void misaligned_64f(F mul, bool t1, int obj_stride_elems, int dst_offset_elems) {
    const int n = 4, count = 5;
    std::vector<double> a(n * n), b(obj_stride_elems * count + 8), d(n * n * count + 8, -1.0);
    Values<double> gen(3);
    for (double& v : a) v = gen.wide();
    for (double& v : b) v = gen.wide();
    double* dst = d.data() + dst_offset_elems;
    ASSERT_EQ(mul(a.data(), n * 8, 8, n, n, b.data() + 1, obj_stride_elems * 8, n * 8, 8, n, n,
                  dst, n * n * 8, n * 8, 8, count),
              StatusOk);
    for (int o = 0; o < count; ++o)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                double s = 0;
                for (int k = 0; k < n; ++k) {
                    const double p = (t1 ? a[k * n + i] : a[i * n + k]) *
                                     b[1 + o * obj_stride_elems + k * n + j];
                    s = k == 0 ? p : s + p;
                }
                EXPECT_EQ(bits(dst[o * n * n + i * n + j]), bits(s)) << o << i << j;
            }
}
TEST(MulAlignment, AnyObjectStride64f) {
    for (int stride : {16, 17, 19})
        for (int off : {0, 1}) {
            misaligned_64f(orsmMul_mma_64f, false, stride, off);
            misaligned_64f(orsmMul_tma_64f, true, stride, off);
        }
}

}  // namespace
