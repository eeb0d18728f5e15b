// What the fast paths of the matrix products add, on every target (the
// file runs once per instruction set): structure-of-arrays P operands with
// lanes over objects, counts not a multiple of the lane count; P, S and L
// calls whose dst overlaps a source or itself, which must keep the
// baseline's order of reads and writes; S and L objects at odd offsets with
// packed and gapped rows.
// Values are finite and non-zero, so every product sum has the bits of the
// ascending-k reference whichever start (+0 or the first product) a kernel
// uses; the -0 rule is test_mul_mm's.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "operand.hpp"

using namespace orsmtest;

namespace {

enum class G { mam, mma, mama };
enum class Lay { S, P, L };

// One operand's arguments (pointer or table, strides, shift) for any layout.
struct Op {
    const void* p;
    int s0, s1, s2, shift;
};
template <class X> X* P(const Op& o) { return static_cast<X*>(const_cast<void*>(o.p)); }
template <class X> X* const* Tb(const Op& o) { return static_cast<X* const*>(const_cast<void*>(o.p)); }

// The exported functions of one form and type, each called from Op groups.
template <class T> struct Forms {
    using S_mam = OrsStatus (*)(const T*, int, int, int, int, int, const T*, int, int, int, int, T*, int,
                                int, int, int);
    using S_mma = OrsStatus (*)(const T*, int, int, int, int, const T*, int, int, int, int, int, T*, int,
                                int, int, int);
    using S_mama = OrsStatus (*)(const T*, int, int, int, int, int, const T*, int, int, int, int, int, T*,
                                 int, int, int, int);
    using P_mam = OrsStatus (*)(const T* const*, int, int, int, int, const T* const*, int, int, int,
                                T* const*, int, int, int);
    using P_mma = OrsStatus (*)(const T* const*, int, int, int, const T* const*, int, int, int, int,
                                T* const*, int, int, int);
    using P_mama = OrsStatus (*)(const T* const*, int, int, int, int, const T* const*, int, int, int, int,
                                 T* const*, int, int, int);
    using L_mam = OrsStatus (*)(const T* const*, int, int, int, int, int, const T*, int, int, int, int,
                                T* const*, int, int, int, int);
    using L_mma = OrsStatus (*)(const T*, int, int, int, int, const T* const*, int, int, int, int, int,
                                T* const*, int, int, int, int);
    using L_mama = OrsStatus (*)(const T* const*, int, int, int, int, int, const T* const*, int, int, int,
                                 int, int, T* const*, int, int, int, int);
    const char* name;
    G g;
    int form;  // bit 0: src1 stored transposed, bit 1: src2
    S_mam smam;
    S_mma smma;
    S_mama smama;
    P_mam pmam;
    P_mma pmma;
    P_mama pmama;
    L_mam lmam;
    L_mma lmma;
    L_mama lmama;

    OrsStatus call(Lay lay, const Op& a, int w1, int h1, const Op& b, int w2, int h2, const Op& d,
                   int count) const {
        using C = const T;
        switch (lay) {
            case Lay::S:
                if (g == G::mam)
                    return smam(P<C>(a), a.s0, a.s1, a.s2, w1, h1, P<C>(b), b.s1, b.s2, w2, h2, P<T>(d),
                                d.s0, d.s1, d.s2, count);
                if (g == G::mma)
                    return smma(P<C>(a), a.s1, a.s2, w1, h1, P<C>(b), b.s0, b.s1, b.s2, w2, h2, P<T>(d),
                                d.s0, d.s1, d.s2, count);
                return smama(P<C>(a), a.s0, a.s1, a.s2, w1, h1, P<C>(b), b.s0, b.s1, b.s2, w2, h2,
                             P<T>(d), d.s0, d.s1, d.s2, count);
            case Lay::P:
                if (g == G::mam)
                    return pmam(Tb<C>(a), a.shift, a.s0, w1, h1, Tb<C>(b), b.shift, w2, h2, Tb<T>(d),
                                d.shift, d.s0, count);
                if (g == G::mma)
                    return pmma(Tb<C>(a), a.shift, w1, h1, Tb<C>(b), b.shift, b.s0, w2, h2, Tb<T>(d),
                                d.shift, d.s0, count);
                return pmama(Tb<C>(a), a.shift, a.s0, w1, h1, Tb<C>(b), b.shift, b.s0, w2, h2, Tb<T>(d),
                             d.shift, d.s0, count);
            default:
                if (g == G::mam)
                    return lmam(Tb<C>(a), a.shift, a.s1, a.s2, w1, h1, P<C>(b), b.s1, b.s2, w2, h2,
                                Tb<T>(d), d.shift, d.s1, d.s2, count);
                if (g == G::mma)
                    return lmma(P<C>(a), a.s1, a.s2, w1, h1, Tb<C>(b), b.shift, b.s1, b.s2, w2, h2,
                                Tb<T>(d), d.shift, d.s1, d.s2, count);
                return lmama(Tb<C>(a), a.shift, a.s1, a.s2, w1, h1, Tb<C>(b), b.shift, b.s1, b.s2, w2,
                             h2, Tb<T>(d), d.shift, d.s1, d.s2, count);
        }
    }
};

#define ONE_FORM(grp, nm, f, t)                                                                      \
    Forms<T>{#nm, G::grp, f,                                                                          \
             G::grp == G::mam ? (typename Forms<T>::S_mam)(void*)&orsmMul_##nm##_##t : nullptr,     \
             G::grp == G::mma ? (typename Forms<T>::S_mma)(void*)&orsmMul_##nm##_##t : nullptr,     \
             G::grp == G::mama ? (typename Forms<T>::S_mama)(void*)&orsmMul_##nm##_##t : nullptr,   \
             G::grp == G::mam ? (typename Forms<T>::P_mam)(void*)&orsmMul_##nm##_##t##_P : nullptr, \
             G::grp == G::mma ? (typename Forms<T>::P_mma)(void*)&orsmMul_##nm##_##t##_P : nullptr, \
             G::grp == G::mama ? (typename Forms<T>::P_mama)(void*)&orsmMul_##nm##_##t##_P          \
                               : nullptr,                                                            \
             G::grp == G::mam ? (typename Forms<T>::L_mam)(void*)&orsmMul_##nm##_##t##_L : nullptr, \
             G::grp == G::mma ? (typename Forms<T>::L_mma)(void*)&orsmMul_##nm##_##t##_L : nullptr, \
             G::grp == G::mama ? (typename Forms<T>::L_mama)(void*)&orsmMul_##nm##_##t##_L          \
                               : nullptr}
#define ALL_FORMS(t)                                                                                 \
    {ONE_FORM(mam, mam, 0, t), ONE_FORM(mam, tam, 1, t), ONE_FORM(mam, mat, 2, t),                  \
     ONE_FORM(mam, tat, 3, t), ONE_FORM(mma, mma, 0, t), ONE_FORM(mma, tma, 1, t),                  \
     ONE_FORM(mma, mta, 2, t), ONE_FORM(mma, tta, 3, t), ONE_FORM(mama, mama, 0, t),                \
     ONE_FORM(mama, tama, 1, t), ONE_FORM(mama, mata, 2, t), ONE_FORM(mama, tata, 3, t)}

template <class T> const std::vector<Forms<T>>& forms();
template <> const std::vector<Forms<float>>& forms() {
    using T = float;
    static const std::vector<Forms<T>> v = ALL_FORMS(32f);
    return v;
}
template <> const std::vector<Forms<double>>& forms() {
    using T = double;
    static const std::vector<Forms<T>> v = ALL_FORMS(64f);
    return v;
}

// Finite values whose products neither overflow nor vanish.
template <class T> T value(std::mt19937& rng) {
    std::uniform_real_distribution<double> u(0.25, 4.0);
    return T((rng() & 1 ? -1 : 1) * u(rng));
}

// The ascending-k sum of op(a)(i, k) * op(b)(k, j).
template <class T, class FA, class FB> T ref_sum(FA A, FB B, int i, int j, int K) {
    T s = A(i, 0) * B(0, j);
    for (int k = 1; k < K; ++k) s = s + A(i, k) * B(k, j);
    return s;
}

struct Shape3 {
    int M, K, N;
};
const Shape3 kShapes[] = {{3, 3, 3}, {4, 4, 4}, {5, 5, 5}, {6, 6, 6}, {3, 4, 5}, {2, 2, 2}};

// Layout P over planes: element e of object n at plane e, element n. The
// planes of the three operands lie in one buffer, in scrambled order,
// separated by guard elements. Fixed operands have one element per plane.
template <class T> void soa_case(const Forms<T>& f, Shape3 s, int count, unsigned seed) {
    const bool a1 = f.g != G::mma, a2 = f.g != G::mam;
    const int M = s.M, K = s.K, N = s.N, es = sizeof(T);
    const int na = M * K, nb = K * N, nd = M * N;
    const int la = a1 ? count : 1, lb = a2 ? count : 1, gap = 3;
    std::vector<int> order(na + nb + nd);
    for (int e = 0; e < int(order.size()); ++e) order[e] = e;
    std::mt19937 rng(seed);
    std::shuffle(order.begin(), order.end(), rng);
    std::vector<long> at(order.size());
    long off = gap;
    for (int e : order) {
        at[e] = off;
        off += (e < na ? la : e < na + nb ? lb : count) + gap;
    }
    std::vector<T> buf(off + 64);
    for (T& x : buf) x = value<T>(rng);
    std::vector<const T*> ta(na), tb(nb);
    std::vector<T*> td(nd);
    for (int e = 0; e < na; ++e) ta[e] = buf.data() + at[e];
    for (int e = 0; e < nb; ++e) tb[e] = buf.data() + at[na + e];
    for (int e = 0; e < nd; ++e) td[e] = buf.data() + at[na + nb + e];
    const std::vector<T> before = buf;
    // Stored sizes and element (r, c) of the stored matrices.
    const int w1 = f.form & 1 ? M : K, h1 = f.form & 1 ? K : M;
    const int w2 = f.form & 2 ? K : N, h2 = f.form & 2 ? N : K;
    auto A = [&](int n, int i, int k) {
        const int e = f.form & 1 ? k * w1 + i : i * w1 + k;
        return before[at[e] + (a1 ? n : 0)];
    };
    auto B = [&](int n, int k, int j) {
        const int e = f.form & 2 ? j * w2 + k : k * w2 + j;
        return before[at[na + e] + (a2 ? n : 0)];
    };
    const Op oa{ta.data(), es, 0, 0, 0}, ob{tb.data(), es, 0, 0, 0}, od{td.data(), es, 0, 0, 0};
    ASSERT_EQ(f.call(Lay::P, oa, w1, h1, ob, w2, h2, od, count), StatusOk);
    std::vector<T> want = before;
    for (int n = 0; n < count; ++n)
        for (int i = 0; i < M; ++i)
            for (int j = 0; j < N; ++j)
                want[at[na + nb + i * N + j] + n] =
                    ref_sum<T>([&](int r, int k) { return A(n, r, k); },
                               [&](int k, int c) { return B(n, k, c); }, i, j, K);
    for (std::size_t x = 0; x < buf.size(); ++x)
        ASSERT_EQ(bits(buf[x]), bits(want[x])) << "element " << x << " of the buffer";
}

template <class T> class FastPath : public ::testing::Test {};
using Types = ::testing::Types<float, double>;
TYPED_TEST_SUITE(FastPath, Types);

TYPED_TEST(FastPath, StructureOfArraysPlanes) {
    unsigned seed = 1;
    for (const auto& f : forms<TypeParam>())
        for (const Shape3& s : kShapes)
            for (int count : {1, 7, 17, 1000}) {
                SCOPED_TRACE(::testing::Message() << f.name << " M " << s.M << " K " << s.K << " N "
                                                  << s.N << " count " << count);
                soa_case(f, s, count, ++seed);
            }
}

// P calls whose dst meets a source or itself. The baseline kernels work one
// object at a time (the general loop with dst as its accumulator, the
// unrolled paths reading op(src2) whole and then row by row of dst), and
// with such operands that order is visible in the results. The model below
// runs those steps on a copy of the memory.
template <class T> struct Planes {
    std::vector<T> buf;
    std::vector<const T*> ta, tb;
    std::vector<T*> td;
};
template <class T>
void sequential_model(std::vector<T>& mem, const std::vector<long>& ea, const std::vector<long>& eb,
                      const std::vector<long>& ed, int n_, bool unrolled, int count) {
    for (int o = 0; o < count; ++o) {
        auto a = [&](int i, int k) -> T& { return mem[ea[i * n_ + k] + o]; };
        auto b = [&](int k, int j) -> T& { return mem[eb[k * n_ + j] + o]; };
        auto d = [&](int i, int j) -> T& { return mem[ed[i * n_ + j] + o]; };
        if (unrolled) {
            std::vector<T> bv(n_ * n_);
            for (int k = 0; k < n_; ++k)
                for (int j = 0; j < n_; ++j) bv[k * n_ + j] = b(k, j);
            for (int i = 0; i < n_; ++i) {
                std::vector<T> av(n_), row(n_);
                for (int k = 0; k < n_; ++k) av[k] = a(i, k);
                for (int j = 0; j < n_; ++j) {
                    T s = av[0] * bv[j];
                    for (int k = 1; k < n_; ++k) s = s + av[k] * bv[k * n_ + j];
                    d(i, j) = s;
                }
            }
        } else {
            for (int i = 0; i < n_; ++i)
                for (int j = 0; j < n_; ++j) {
                    d(i, j) = T(0);
                    for (int k = 0; k < n_; ++k) d(i, j) = d(i, j) + a(i, k) * b(k, j);
                }
        }
    }
}

// mama: planes of src1, src2, dst one after another, count + 1 apart;
// dst either src1 moved on by one object, or its planes one element apart.
template <class T> void overlap_case(const char* name, OrsStatus (*fn)(const T* const*, int, int, int, int,
                                                                        const T* const*, int, int, int, int,
                                                                        T* const*, int, int, int),
                                     int n_, bool unrolled, bool self) {
    const int count = 40, es = sizeof(T), nn = n_ * n_, plane = count + 1;
    std::vector<long> ea(nn), eb(nn), ed(nn);
    for (int e = 0; e < nn; ++e) {
        ea[e] = long(e) * plane;
        eb[e] = long(nn + e) * plane;
        ed[e] = self ? long(2 * nn) * plane + e : ea[e] + 1;
    }
    std::mt19937 rng(7);
    std::vector<T> mem(size_t(3 * nn + 1) * plane + 64);
    for (T& x : mem) x = value<T>(rng);
    std::vector<T> want = mem;
    sequential_model(want, ea, eb, ed, n_, unrolled, count);
    std::vector<const T*> ta(nn), tb(nn);
    std::vector<T*> td(nn);
    for (int e = 0; e < nn; ++e) {
        ta[e] = mem.data() + ea[e];
        tb[e] = mem.data() + eb[e];
        td[e] = mem.data() + ed[e];
    }
    SCOPED_TRACE(::testing::Message() << name << " order " << n_ << (self ? " dst on itself" : " dst on src1"));
    ASSERT_EQ(fn(ta.data(), 0, es, n_, n_, tb.data(), 0, es, n_, n_, td.data(), 0, es, count), StatusOk);
    for (std::size_t x = 0; x < mem.size(); ++x) ASSERT_EQ(bits(mem[x]), bits(want[x])) << "element " << x;
}

TEST(FastPathOverlap, PlanesThatMeetKeepTheOrderOfWrites) {
    const ThreadCount one(1);  // the model is of one thread
    for (bool self : {false, true}) {
        // Unrolled paths: every mama order; the general loop: order 7.
        for (int n_ : {3, 4, 5, 6}) {
            overlap_case<float>("orsmMul_mama_32f_P", &orsmMul_mama_32f_P, n_, true, self);
            overlap_case<double>("orsmMul_mama_64f_P", &orsmMul_mama_64f_P, n_, true, self);
        }
        overlap_case<float>("orsmMul_mama_32f_P", &orsmMul_mama_32f_P, 7, false, self);
        overlap_case<double>("orsmMul_mama_64f_P", &orsmMul_mama_64f_P, 2, false, self);
    }
}

// Calls an S or L form on square operands of order n_ inside `mem`: object
// n of operand x (0 src1, 1 src2, 2 dst) starts at element first(x, n), rows
// s1 bytes apart; S objects s0 bytes apart, L array operands by tables.
template <class T, class First>
OrsStatus call_sl(const Forms<T>& f, Lay lay, std::vector<T>& mem, First first, int s0, int s1, int n_,
                  int count) {
    const bool array[3] = {f.g != G::mma, f.g != G::mam, true};
    const int es = sizeof(T);
    std::vector<const T*> tab[3];
    Op op[3];
    for (int x = 0; x < 3; ++x) {
        for (int n = 0; n < count; ++n) tab[x].push_back(mem.data() + first(x, n));
        op[x] = lay == Lay::L && array[x] ? Op{tab[x].data(), 0, s1, es, 0}
                                          : Op{mem.data() + first(x, 0), array[x] ? s0 : 0, s1, es, 0};
    }
    return f.call(lay, op[0], n_, n_, op[1], n_, n_, op[2], count);
}

// S and L: objects at odd element offsets (the base one element past an
// aligned address, odd object strides), rows packed or `gap` elements apart
// (rows of 64f orders 5 and 6 up to 64 bytes apart are loaded whole).
template <class T> void odd_case(const Forms<T>& f, Lay lay, int n_, int gap, unsigned seed) {
    const bool a1 = f.g != G::mma, a2 = f.g != G::mam;
    const int count = 37, es = sizeof(T), row = n_ + gap;
    const int obj = row * n_ + 1;  // odd object stride in elements when row * n_ is even
    std::mt19937 rng(seed);
    const int base_a = 1, base_b = base_a + count * obj + 5, base_d = base_b + count * obj + 5;
    std::vector<T> mem(base_d + count * obj + 16);
    for (T& x : mem) x = value<T>(rng);
    const std::vector<T> before = mem;
    // Object n of each operand: L objects in a scrambled order.
    std::vector<int> perm(count);
    for (int n = 0; n < count; ++n) perm[n] = n;
    if (lay == Lay::L) std::shuffle(perm.begin(), perm.end(), rng);
    auto start = [&](int base, bool array, int n) { return base + (array ? perm[n] * obj : 0); };
    const int base[3] = {base_a, base_b, base_d};
    const bool array[3] = {a1, a2, true};
    ASSERT_EQ(call_sl(f, lay, mem, [&](int x, int n) { return start(base[x], array[x], n); }, obj * es,
                      row * es, n_, count),
              StatusOk);
    std::vector<T> want = before;
    for (int n = 0; n < count; ++n) {
        auto A = [&](int i, int k) {
            return before[start(base_a, a1, n) + (f.form & 1 ? k * row + i : i * row + k)];
        };
        auto B = [&](int k, int j) {
            return before[start(base_b, a2, n) + (f.form & 2 ? j * row + k : k * row + j)];
        };
        for (int i = 0; i < n_; ++i)
            for (int j = 0; j < n_; ++j)
                want[start(base_d, true, n) + i * row + j] = ref_sum<T>(A, B, i, j, n_);
    }
    for (std::size_t x = 0; x < mem.size(); ++x)
        ASSERT_EQ(bits(mem[x]), bits(want[x])) << "element " << x;
}

TYPED_TEST(FastPath, OddOffsetsLayoutsSAndL) {
    unsigned seed = 100;
    for (const auto& f : forms<TypeParam>())
        for (Lay lay : {Lay::S, Lay::L})
            for (int n_ = 3; n_ <= 6; ++n_)
                for (int gap : {0, 1, 3}) {
                    SCOPED_TRACE(::testing::Message() << f.name << (lay == Lay::L ? "_L" : "") << " order "
                                                      << n_ << " row gap " << gap);
                    odd_case(f, lay, n_, gap, ++seed);
                }
}

// S and L calls whose dst meets a source within each object: dst on src1
// (in place, also with src1 transposed), dst one row past or before src1,
// dst on the array src2. The baseline unrolled paths take one object at a
// time, read op(src2) whole (a fixed operand once, before the first
// object), then each row of op(src1) just before storing that row of dst;
// the model runs those steps (or those of the general loop, where a kernel
// has no path for the order) on a copy of the memory. L tables point at the
// same objects as the S strides.
enum class Meet { src1, row_past_src1, row_before_src1, src2 };
template <class T> void meet_case(const Forms<T>& f, Lay lay, int n_, Meet meet) {
    const bool a1 = f.g != G::mma, a2 = f.g != G::mam;
    const int count = 9, es = sizeof(T), obj = n_ * n_ + 1;  // packed rows, odd object stride
    const int span = count * obj + 2 * n_;
    const int base_a = n_ + 1, base_b = base_a + span;
    int base_d = base_b + span + n_;
    if (meet == Meet::src1) base_d = base_a;
    if (meet == Meet::row_past_src1) base_d = base_a + n_;
    if (meet == Meet::row_before_src1) base_d = base_a - n_;
    if (meet == Meet::src2) base_d = base_b;
    std::mt19937 rng(unsigned(n_ * 31 + int(meet)));
    std::vector<T> mem(base_b + 2 * span + 16);
    for (T& x : mem) x = value<T>(rng);
    std::vector<T> want = mem;
    auto at = [&](int base, bool array, int n, int r, int c) { return base + (array ? n * obj : 0) + r * n_ + c; };
    auto A = [&](int n, int i, int k) -> T& {
        return want[f.form & 1 ? at(base_a, a1, n, k, i) : at(base_a, a1, n, i, k)];
    };
    auto B = [&](int n, int k, int j) -> T& {
        return want[f.form & 2 ? at(base_b, a2, n, j, k) : at(base_b, a2, n, k, j)];
    };
    std::vector<T> bv(n_ * n_), av(n_ * n_);
    auto fetch_b = [&](int n) {
        for (int k = 0; k < n_; ++k)
            for (int j = 0; j < n_; ++j) bv[k * n_ + j] = B(n, k, j);
    };
    if (!a1)
        for (int i = 0; i < n_; ++i)
            for (int k = 0; k < n_; ++k) av[i * n_ + k] = A(0, i, k);
    // The contiguous S kernel of mat 32f runs order 4 in its general loop:
    // each element set to +0, then stored after every product.
    const bool general = lay == Lay::S && f.g == G::mam && f.form == 2 && sizeof(T) == 4 && n_ == 4;
    if (!a2) fetch_b(0);
    for (int n = 0; n < count && general; ++n)
        for (int i = 0; i < n_; ++i)
            for (int j = 0; j < n_; ++j) {
                T acc = want[at(base_d, true, n, i, j)] = T(0);
                for (int k = 0; k < n_; ++k) want[at(base_d, true, n, i, j)] = acc = acc + A(n, i, k) * B(n, k, j);
            }
    for (int n = 0; n < count && !general; ++n) {
        if (a2) fetch_b(n);
        for (int i = 0; i < n_; ++i) {
            if (a1)
                for (int k = 0; k < n_; ++k) av[i * n_ + k] = A(n, i, k);
            for (int j = 0; j < n_; ++j)
                want[at(base_d, true, n, i, j)] = ref_sum<T>([&](int r, int k) { return av[r * n_ + k]; },
                                                             [&](int k, int c) { return bv[k * n_ + c]; }, i,
                                                             j, n_);
        }
    }
    const int base[3] = {base_a, base_b, base_d};
    const bool array[3] = {a1, a2, true};
    ASSERT_EQ(call_sl(f, lay, mem, [&](int x, int n) { return at(base[x], array[x], n, 0, 0); }, obj * es,
                      n_ * es, n_, count),
              StatusOk);
    for (std::size_t x = 0; x < mem.size(); ++x) ASSERT_EQ(bits(mem[x]), bits(want[x])) << "element " << x;
}

TYPED_TEST(FastPath, SAndLObjectsThatMeetKeepTheOrderOfReads) {
    const ThreadCount one(1);  // the model is of one thread
    for (const auto& f : forms<TypeParam>())
        for (Lay lay : {Lay::S, Lay::L})
            for (int n_ = 3; n_ <= 6; ++n_)
                for (Meet meet : {Meet::src1, Meet::row_past_src1, Meet::row_before_src1, Meet::src2}) {
                    // dst meets the array operands only.
                    if (meet == Meet::src2 ? f.g == G::mam : f.g == G::mma) continue;
                    SCOPED_TRACE(::testing::Message() << f.name << (lay == Lay::L ? "_L" : "") << " order "
                                                      << n_ << " meet " << int(meet));
                    meet_case(f, lay, n_, meet);
                }
}

}  // namespace
