// Lanes over objects: the array kernels of Det, Invert and the solvers read
// and write groups of objects by 16-byte pieces where rows and objects
// stand apart, and element by element where they do not. Whatever the
// arrangement (rows packed, with gaps, closer than a row; objects packed,
// with gaps, overlapping; listed in order or out of it; dst inside src),
// an array call leaves memory exactly as the same objects done one at a
// time through the same function (count 1, which never forms a group).
#include <algorithm>
#include <numeric>
#include <random>

#include "calls.hpp"
#include "orscore.h"

using namespace orsmtest;

namespace {

template <class T> bool bits_equal(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

// An array operand in its own storage: object n at element n*s0 (layout S)
// or at table[n] (layout L, the places of an S arrangement, shuffled or
// not); rows s1 elements apart (vectors: elements one apart).
template <class T> struct Arr {
    int count, rows, cols, s0, s1;
    bool list, shuffled;
    std::vector<T> mem;
    std::vector<T*> table;
    Arr(int count_, int rows_, int cols_, int s0_, int s1_, bool list_ = false, bool shuffled_ = false)
        : count(count_), rows(rows_), cols(cols_), s0(s0_), s1(s1_), list(list_), shuffled(shuffled_),
          mem(std::size_t(count_) * s0_ + std::size_t(rows_) * s1_ + cols_ + 16, T(7)) {
        std::vector<int> at(count);
        std::iota(at.begin(), at.end(), 0);
        if (shuffled) std::shuffle(at.begin(), at.end(), std::mt19937(5));
        for (int n = 0; n < count; ++n) table.push_back(mem.data() + std::ptrdiff_t(at[n]) * s0);
    }
    // A copy lists its own storage.
    Arr(const Arr& o)
        : count(o.count), rows(o.rows), cols(o.cols), s0(o.s0), s1(o.s1), list(o.list), shuffled(o.shuffled),
          mem(o.mem) {
        for (T* p : o.table) table.push_back(mem.data() + (p - o.mem.data()));
    }
    T* obj(int n) { return list ? table[n] : mem.data() + std::ptrdiff_t(n) * s0; }
    // The arguments of objects [n, count) under `role`.
    void bind(Call<T>& c, const std::string& role, int n) {
        const int e = sizeof(T);
        c.ptr(role) = list ? static_cast<void*>(table.data() + n) : static_cast<void*>(obj(n));
        auto put = [&](const std::string& p, int v) {
            if (c.takes(role + p)) c.arg(role + p) = v;
        };
        put("Stride0", s0 * e), put("Stride1", s1 * e), put("Stride2", e), put("RoiShift", 0);
    }
    bool same(const Arr& o) const { return bits_equal(mem, o.mem); }
};

// The order of a call on square matrices, and its scratch and row tables
// where it takes them.
template <class T> void set_square(Call<T>& c, int N, T* buf, int* index) {
    if (c.takes("size")) c.arg("size") = N;
    else c.arg("width") = N, c.arg("height") = N;
    if (c.takes("buffer")) c.ptr("buffer") = buf;
    for (const char* p : {"dstIndex", "srcIndex"})
        if (c.takes(p)) c.ptr(p) = index;
}

// Matrices with a heavy diagonal, symmetric: every factorisation passes.
template <class T> void fill_systems(Arr<T>& a, unsigned seed) {
    std::mt19937 g(seed);
    std::uniform_real_distribution<T> u(-1, 1);
    for (int n = 0; n < a.count; ++n)
        for (int r = 0; r < a.rows; ++r)
            for (int c = 0; c <= r && c < a.cols; ++c) {
                const T v = r == c ? T(a.cols + 2) + u(g) : u(g);
                a.obj(n)[r * a.s1 + c] = v;
                if (c < a.rows && r < a.cols) a.obj(n)[c * a.s1 + r] = v;
            }
}

// The arrangements of an order-N matrix array: packed, rows with gaps and
// objects apart, rows closer than a row, objects overlapping; and listed.
struct Way {
    const char* name;
    int s0, s1;  // elements, for order N
    bool list, shuffled;
};
std::vector<Way> ways(int N, bool overlap_objects) {
    std::vector<Way> w = {{"packed", N * N, N, false, false},
                          {"gapped", N * (N + 3) + 5, N + 3, false, false},
                          {"close rows", N * N, N - 1, false, false},
                          {"listed", N * N + 1, N, true, false},
                          {"listed out of order", N * N, N, true, true}};
    if (overlap_objects) w.push_back({"objects overlapping", N, N, false, false});
    return w;
}

constexpr int kCount = 37;  // groups of every width, then single objects

// The solvers of many systems, a factor each (mava) or one for all (mva),
// with the factorisation that makes their factors.
const std::pair<const char*, const char*> kSolves[] = {
    {"LUDecomp_ma", "LUBackSubst_mava"}, {"CholeskyDecomp_ma", "CholeskyBackSubst_mava"},
    {"QRDecomp_ma", "QRBackSubst_mava"}, {"LUDecomp_ma", "LUBackSubst_mva"},
    {"CholeskyDecomp_ma", "CholeskyBackSubst_mva"}, {"QRDecomp_ma", "QRBackSubst_mva"}};

// Runs `stem` over the whole array, then one object at a time on copies,
// and compares everything the operands hold. `bind(c, ops, n)` sets the
// arguments of objects [n, count). One thread: the shares of a team write
// at once where objects overlap.
template <class T, class Ops, class Bind>
void expect_as_one_by_one(const std::string& stem, Layout lay, Ops ops, Bind bind, const std::string& where) {
    orscoreSetNumThreads(1);
    Ops one = ops;
    Call<T> c(stem, lay), c1(stem, lay);
    bind(c, ops, 0);
    c.arg("count") = kCount;
    const OrsStatus st = c.run();
    OrsStatus st1 = StatusOk;
    for (int n = 0; n < kCount; ++n) {
        bind(c1, one, n);
        c1.arg("count") = 1;
        if (const OrsStatus s = c1.run(); s != StatusOk) st1 = s;
    }
    EXPECT_EQ(st, StatusOk) << where;
    EXPECT_EQ(st1, StatusOk) << where;
    EXPECT_TRUE(ops.same(one)) << where;
}

template <class T> class Lanes : public testing::Test {};
using Types = testing::Types<float, double>;
TYPED_TEST_SUITE(Lanes, Types);

// Det: dst a packed array, also inside src, where writing a result changes
// a later object.
template <class T> struct DetOps {
    Arr<T> src;
    std::vector<T> buf;
    int dst_at;  // element of src.mem, or -1: dst apart
    std::vector<T> dst = std::vector<T>(kCount + 8, T(7));
    bool same(const DetOps& o) const { return src.same(o.src) && bits_equal(dst, o.dst); }
};
TYPED_TEST(Lanes, DetAsOneByOne) {
    using T = TypeParam;
    for (int N = 3; N <= 6; ++N)
        for (const Way& w : ways(N, true))
            for (int dst_at : {-1, 5 * N * N + 2}) {
                if (dst_at >= 0 && (w.list || w.s1 < N)) continue;
                DetOps<T> ops{Arr<T>(kCount, N, N, w.s0, w.s1, w.list, w.shuffled), std::vector<T>(N * N + N), dst_at};
                std::mt19937 g(N);
                std::uniform_real_distribution<T> u(-4, 4);
                for (T& x : ops.src.mem) x = u(g);
                auto bind = [&](Call<T>& c, DetOps<T>& o, int n) {
                    o.src.bind(c, "src", n);
                    c.ptr("dst") = (o.dst_at >= 0 ? o.src.mem.data() + o.dst_at : o.dst.data()) + n;
                    set_square(c, N, o.buf.data(), nullptr);
                };
                expect_as_one_by_one<T>("Det_ma", w.list ? Layout::L : Layout::S, ops, bind,
                                        std::string(w.name) + " order " + std::to_string(N) +
                                            (dst_at >= 0 ? " dst in src" : ""));
            }
}

// Det and the factorisations over structure-of-arrays planes (layout P,
// objects one element apart): dst apart, on src (in place), its planes between src's,
// or meeting them; counts below a group, and with a last part group; an
// object that fails (all zero, or a tiny first pivot) among the others.
enum class PlaneDst { apart, in_place, between, meeting, det_inside };
template <class T> struct PlaneOps {
    int N, count;
    PlaneDst where;
    std::vector<T> mem, dst, buf;  // src plane e at 2 e (count + 3)
    std::vector<int> index = std::vector<int>(N * count + 8, -1);
    bool same(const PlaneOps& o) const { return bits_equal(mem, o.mem) && bits_equal(dst, o.dst) && index == o.index; }
    std::vector<T*> table(bool of_dst) {
        std::vector<T*> t;
        for (int e = 0; e < N * N; ++e) {
            T* src = mem.data() + 2 * e * (count + 3);
            if (!of_dst || where == PlaneDst::in_place) t.push_back(src);
            else if (where == PlaneDst::apart) t.push_back(dst.data() + e * (count + 3));
            else t.push_back(src + (where == PlaneDst::between ? count + 3 : 1));
        }
        return t;
    }
};
template <class T> void expect_planes_as_one_by_one(const char* stem, int N, int count, PlaneDst where, int fails_at) {
    orscoreSetNumThreads(1);
    PlaneOps<T> all{N, count, where, std::vector<T>(2 * N * N * (count + 3)), std::vector<T>(N * N * (count + 3), T(7)),
                    std::vector<T>(N * N + N)};
    std::mt19937 g(N + count);
    std::uniform_real_distribution<T> u(-1, 1);
    for (std::size_t i = 0; i < all.mem.size(); ++i) {
        const std::size_t e = i / (count + 3) / 2, n = i % (2 * (count + 3));
        // A heavy diagonal; for LUDecomp every other object's on the
        // anti-diagonal, so that rows change places.
        const bool anti = std::string(stem) == "LUDecomp_ma" && n % 2 && e < std::size_t(N * N);
        const bool heavy = anti ? e % N == N - 1 - e / N : e % (N + 1) == 0;
        all.mem[i] = heavy ? T(N + 2) + u(g) : u(g);
        if (int(n) == fails_at) all.mem[i] = T(0);
        // A first pivot of 2^-24, its row and column zero: it fails only
        // where pivots must pass 2^-23 (CholeskyDecomp's order 3 in P).
        if (int(n) == -fails_at && e < std::size_t(N * N) && (e < std::size_t(N) || e % N == 0))
            all.mem[i] = e == 0 ? T(0x1p-24) : T(0);
    }
    PlaneOps<T> one = all;
    auto run = [&](PlaneOps<T>& o, int n, int k) {
        const std::vector<T*> src = o.table(false), dst = o.table(true);
        const int e = sizeof(T);
        Call<T> c(stem, Layout::P);
        c.ptr("src") = const_cast<T**>(src.data()), c.arg("srcRoiShift") = n * e, c.arg("srcStride0") = e;
        set_square(c, N, o.buf.data(), o.index.data() + n * N);
        c.arg("count") = k;
        if (c.takes("dstStride0")) {
            c.ptr("dst") = const_cast<T**>(dst.data()), c.arg("dstRoiShift") = n * e, c.arg("dstStride0") = e;
        } else {
            c.ptr("dst") = (where == PlaneDst::det_inside ? o.mem.data() + 4 * (count + 3) + 1 : o.dst.data()) + n;
        }
        return c.run();
    };
    const OrsStatus st = run(all, 0, count);
    OrsStatus st1 = StatusOk;
    for (int n = 0; n < count && st1 == StatusOk; ++n) st1 = run(one, n, 1);
    const std::string at = std::string(stem) + " order " + std::to_string(N) + " count " + std::to_string(count) +
                           " dst " + std::to_string(int(where)) + " fails at " + std::to_string(fails_at);
    EXPECT_EQ(st, st1) << at;
    EXPECT_TRUE(all.same(one)) << at;
}
TYPED_TEST(Lanes, DetOverPlanesAsOneByOne) {
    for (int N = 3; N <= 6; ++N)
        for (int count : {3, 37})
            for (PlaneDst w : {PlaneDst::apart, PlaneDst::det_inside})
                expect_planes_as_one_by_one<TypeParam>("Det_ma", N, count, w, 999);
}
TYPED_TEST(Lanes, FactorsOverPlanesAsOneByOne) {
    for (const char* stem : {"Invert_ma", "CholeskyDecomp_ma", "QRDecomp_ma", "LUDecomp_ma"})
        for (int N = 3; N <= 6; ++N)
            for (int count : {3, 37})
                for (PlaneDst w : {PlaneDst::apart, PlaneDst::in_place, PlaneDst::between, PlaneDst::meeting})
                    for (int fails_at : {999, 20, -20})  // 999: none
                        expect_planes_as_one_by_one<TypeParam>(stem, N, count, w, fails_at);
}

// The solves over planes, a factor each (mava) or one for all (mva):
// factors from the factorisations over planes, the solutions' planes apart,
// on the right-hand sides', between them, meeting them, or meeting the
// factors'.
enum class SolveDst { apart, in_place, between, meeting, meeting_factors };
template <class T> struct PlaneSolveOps {
    int N, count;
    std::vector<T> mem;  // factor plane e at e (count + 3), b plane i at (N N + 2 i)(count + 3)
    std::vector<int> index;
    std::vector<T> buf = std::vector<T>(2 * N);
    bool same(const PlaneSolveOps& o) const { return bits_equal(mem, o.mem) && index == o.index; }
    T* plane(int e) { return mem.data() + std::ptrdiff_t(e) * (count + 3); }
    std::vector<T*> factors() {
        std::vector<T*> t;
        for (int e = 0; e < N * N; ++e) t.push_back(plane(e));
        return t;
    }
    std::vector<T*> vectors(bool of_dst, SolveDst where) {
        std::vector<T*> t;
        for (int i = 0; i < N; ++i) {
            T* b = plane(N * N + 2 * i);
            if (!of_dst || where == SolveDst::in_place) t.push_back(b);
            else if (where == SolveDst::apart) t.push_back(plane(N * N + 2 * N + i));
            else if (where == SolveDst::between) t.push_back(b + count + 3);
            else if (where == SolveDst::meeting) t.push_back(b + 1);
            else t.push_back(plane(2 * i) + 1);
        }
        return t;
    }
};
template <class T>
void expect_plane_solves_as_one_by_one(const char* decomp, const char* solve, int N, int count, SolveDst where) {
    orscoreSetNumThreads(1);
    const int e = sizeof(T);
    const bool many = std::string(solve).find("mava") != std::string::npos;
    PlaneSolveOps<T> all{N, count, std::vector<T>((N * N + 3 * N) * (count + 3)), std::vector<int>(N * count)};
    std::mt19937 g(N + count);
    std::uniform_real_distribution<T> u(-1, 1);
    // Symmetric with a heavy diagonal; for LU every other object's on the
    // anti-diagonal, so that rows change places.
    const bool lu = std::string(decomp) == "LUDecomp_ma";
    for (int n = 0; n < count; ++n)
        for (int r = 0; r < N; ++r)
            for (int c = 0; c <= r; ++c) {
                const bool heavy = lu && n % 2 ? c == N - 1 - r : r == c;
                const T v = heavy ? T(N + 2) + u(g) : u(g);
                all.plane(r * N + c)[n] = v, all.plane(c * N + r)[n] = v;
            }
    for (int i = 0; i < N; ++i)
        for (int n = 0; n < count + 3; ++n) all.plane(N * N + 2 * i)[n] = u(g);
    const std::vector<T*> a = all.factors();
    Call<T> f(decomp, Layout::P);
    f.ptr("src") = const_cast<T**>(a.data()), f.arg("srcRoiShift") = 0, f.arg("srcStride0") = e;
    f.ptr("dst") = const_cast<T**>(a.data()), f.arg("dstRoiShift") = 0, f.arg("dstStride0") = e;
    set_square(f, N, all.buf.data(), all.index.data());
    f.arg("count") = count;
    ASSERT_EQ(f.run(), StatusOk) << decomp;
    PlaneSolveOps<T> one = all;
    auto run = [&](PlaneSolveOps<T>& o, int n, int k) {
        const std::vector<T*> fa = o.factors(), b = o.vectors(false, where), d = o.vectors(true, where);
        Call<T> c(solve, Layout::P);
        c.ptr("src1") = const_cast<T**>(fa.data()), c.arg("src1RoiShift") = many ? n * e : 0;
        if (many) c.arg("src1Stride0") = e;
        c.ptr("src2") = const_cast<T**>(b.data()), c.arg("src2RoiShift") = n * e, c.arg("src2Stride0") = e;
        c.ptr("dst") = const_cast<T**>(d.data()), c.arg("dstRoiShift") = n * e, c.arg("dstStride0") = e;
        set_square(c, N, o.buf.data(), o.index.data() + (many ? n * N : 0));
        c.arg("count") = k;
        return c.run();
    };
    const OrsStatus st = run(all, 0, count);
    OrsStatus st1 = StatusOk;
    for (int n = 0; n < count && st1 == StatusOk; ++n) st1 = run(one, n, 1);
    const std::string at = std::string(solve) + " order " + std::to_string(N) + " count " + std::to_string(count) +
                           " dst " + std::to_string(int(where));
    EXPECT_EQ(st, StatusOk) << at;
    EXPECT_EQ(st1, StatusOk) << at;
    EXPECT_TRUE(all.same(one)) << at;
}
TYPED_TEST(Lanes, SolvesOverPlanesAsOneByOne) {
    for (auto [decomp, solve] : kSolves)
        for (int N = 3; N <= 6; ++N)
            for (int count : {3, 37})
                for (SolveDst w : {SolveDst::apart, SolveDst::in_place, SolveDst::between, SolveDst::meeting,
                                   SolveDst::meeting_factors})
                    expect_plane_solves_as_one_by_one<TypeParam>(decomp, solve, N, count, w);
}

// The matrix-to-matrix solvers: src apart, every arrangement of dst, and
// dst on src (in place).
template <class T> struct MatOps {
    Arr<T> src, dst;
    std::vector<T> buf;
    std::vector<int> index;
    bool in_place;
    bool same(const MatOps& o) const { return src.same(o.src) && dst.same(o.dst) && index == o.index; }
};
TYPED_TEST(Lanes, FactorsAndInversesAsOneByOne) {
    using T = TypeParam;
    for (const char* stem : {"Invert_ma", "LUDecomp_ma", "CholeskyDecomp_ma", "QRDecomp_ma"})
        for (int N = 3; N <= 6; ++N)
            for (const Way& w : ways(N, true))
                for (bool in_place : {false, true}) {
                    if (in_place && (w.s0 < N * N || w.s1 < N)) continue;
                    const Way sw = in_place ? w : Way{"", N * (N + 1) + 2, N + 1, w.list, false};
                    MatOps<T> ops{Arr<T>(kCount, N, N, sw.s0, sw.s1, sw.list, w.shuffled),
                                  Arr<T>(kCount, N, N, w.s0, w.s1, w.list, w.shuffled),
                                  std::vector<T>(N * N + 2 * N), std::vector<int>(kCount * N, -1), in_place};
                    fill_systems(ops.src, unsigned(N));
                    // Invert from order 4: every ninth object's leading 2 by 2 block zero,
                    // so that its columns change places.
                    if (std::string(stem) == "Invert_ma" && N >= 4)
                        for (int n = 4; n < kCount; n += 9)
                            for (int r = 0; r < 2; ++r)
                                for (int c = 0; c < 2; ++c) ops.src.obj(n)[r * sw.s1 + c] = T(0);
                    auto bind = [&](Call<T>& c, MatOps<T>& o, int n) {
                        o.src.bind(c, "src", n);
                        (o.in_place ? o.src : o.dst).bind(c, "dst", n);
                        set_square(c, N, o.buf.data(), o.index.data() + n * N);
                    };
                    expect_as_one_by_one<T>(stem, w.list ? Layout::L : Layout::S, ops, bind,
                                            std::string(stem) + " " + w.name + " order " + std::to_string(N) +
                                                (in_place ? " in place" : ""));
                }
}

// The solves of many systems, a factor each (mava) or one for all (mva, in
// S): factors from the array factorisations, the solutions packed, with
// gaps, overlapping, or on the right-hand sides.
template <class T> struct SolveOps {
    Arr<T> a, b, d;
    std::vector<T> buf;
    std::vector<int> index;
    bool in_place;
    bool same(const SolveOps& o) const { return a.same(o.a) && b.same(o.b) && d.same(o.d); }
};
TYPED_TEST(Lanes, SolvesAsOneByOne) {
    using T = TypeParam;
    for (auto [decomp, solve] : kSolves)
        for (int N = 3; N <= 6; ++N)
            for (bool list : {false, true})
                for (int ds0 : {N, N + 2, N - 1, 0}) {  // 0: in place
                    const bool many = std::string(solve).find("mava") != std::string::npos;
                    if (list && !many) continue;
                    SolveOps<T> ops{Arr<T>(kCount, N, N, N * N, N, list), Arr<T>(kCount, 1, N, N + 1, 0, list),
                                    Arr<T>(kCount, 1, N, ds0 ? ds0 : 1, 0, list), std::vector<T>(N * N + 2 * N),
                                    std::vector<int>(kCount * N), ds0 == 0};
                    fill_systems(ops.a, unsigned(N));
                    // LU: every other object's rows upside down, so that rows change places.
                    if (std::string(decomp) == "LUDecomp_ma")
                        for (int n = 0; n < kCount; n += 2)
                            for (int r = 0; r < N / 2; ++r)
                                std::swap_ranges(ops.a.obj(n) + r * N, ops.a.obj(n) + r * N + N,
                                                 ops.a.obj(n) + (N - 1 - r) * N);
                    for (T& x : ops.b.mem) x = T(std::rand() % 200 - 100) / T(8);
                    Call<T> f(decomp, list ? Layout::L : Layout::S);
                    ops.a.bind(f, "src", 0), ops.a.bind(f, "dst", 0);
                    set_square(f, N, ops.buf.data(), ops.index.data());
                    f.arg("count") = kCount;
                    ASSERT_EQ(f.run(), StatusOk) << decomp;
                    auto bind = [&](Call<T>& c, SolveOps<T>& o, int n) {
                        o.a.bind(c, "src1", many ? n : 0), o.b.bind(c, "src2", n);
                        (o.in_place ? o.b : o.d).bind(c, "dst", n);
                        set_square(c, N, o.buf.data(), o.index.data() + (many ? n * N : 0));
                    };
                    expect_as_one_by_one<T>(solve, list ? Layout::L : Layout::S, ops, bind,
                                            std::string(solve) + " order " + std::to_string(N) + " dst s0 " +
                                                std::to_string(ds0) + (list ? " listed" : ""));
                }
}

}  // namespace
