// Which shapes each matrix-matrix Mul kernel treats apart, as data.
//
// Every kernel has unrolled paths for some square orders (M, K and N all
// equal to the order) and a general loop for the rest. An unrolled path
// starts a sum with its first product, the general loop adds that product to
// +0, so the only visible difference between them is the sign of a sum whose
// products are all -0. Which kernel has which orders is therefore part of
// the results, and it is irregular: the exceptions to "orders 3 to 6" are
// listed below, cell by cell.
#pragma once

namespace orsm::matmul {

// Bit n set: order n has an unrolled path.
enum : unsigned {
    O3 = 1u << 3,
    O4 = 1u << 4,
    O5 = 1u << 5,
    O6 = 1u << 6,
    O345 = O3 | O4 | O5,
    O3456 = O345 | O6,
    O356 = O3 | O5 | O6,
};

enum class Quirk : unsigned char {
    none,
    // Orders 3 and 4 are tested on the bitwise OR of the four stored sizes,
    // so any mix of sizes 1, 2 and 3 (not all 1, not all 2) takes the
    // order-3 path over nine table entries of every operand.
    or_sizes,
    // The order-4 test looks for N 3 instead of N 4; the path then runs as
    // N 4, reading one stored src2 row past the operand and storing one
    // element past each dst row. A true order 4 takes the general loop.
    mat_n3,
};

// Shapes without an own path: the kernel's own general loop, or a loop over
// objects calling the single-matrix kernel (contiguous or strided) on each.
enum class Via : unsigned char { own, single_contig, single_s2 };

struct Paths {
    unsigned orders = O3456;
    Quirk quirk = Quirk::none;
    Via via = Via::own;
    unsigned single = O3456;  // orders of the single kernel named by `via`
};

// Orders a contiguous kernel runs unrolled, one object at a time: its own
// paths, or those of the contiguous single kernel it calls per object.
constexpr unsigned unrolled_orders(Paths p) {
    return p.orders | (p.via == Via::single_contig ? p.single : 0u);
}

// Kernel kinds: contiguous S, strided S, P, contiguous L, strided L.
enum class Kind : unsigned char { C, S2, P, L, LS2 };
// Form groups: one matrix by one matrix, array by fixed matrix, fixed by
// array, array by array.
enum class Group : unsigned char { one, mam, mma, mama };
// Forms within a group, by which operand is stored transposed.
enum Form : unsigned char { mm = 0, tm = 1, mt = 2, tt = 3 };
enum Type : unsigned char { f32 = 0, f64 = 1 };

namespace detail {
struct Cell {
    Group g;
    Form f;
    Type t;
    Kind k;
    Paths p;
};
constexpr Paths own(unsigned orders, Quirk q = Quirk::none) { return {orders, q, Via::own, 0}; }
constexpr Paths each(Via v) { return {0, Quirk::none, v, 0}; }
constexpr Paths own_else_each(unsigned orders, Via v) { return {orders, Quirk::none, v, 0}; }

// The exceptions. Everything not listed has its own paths for orders 3 to 6,
// except the strided L kernels, which by default call the strided single
// kernel on each object.
constexpr Cell cells[] = {
    // single matrices
    {Group::one, tm, f32, Kind::C, own(O345)},
    {Group::one, mm, f32, Kind::P, own(O3456, Quirk::or_sizes)},
    {Group::one, tt, f64, Kind::P, own(O3456, Quirk::or_sizes)},
    // array by fixed matrix, 32f
    {Group::mam, mm, f32, Kind::P, own(O3)},
    {Group::mam, mm, f32, Kind::LS2, own(O3)},
    {Group::mam, tm, f32, Kind::S2, own(O3)},
    {Group::mam, tm, f32, Kind::P, own(O3)},
    {Group::mam, tm, f32, Kind::LS2, own(O3)},
    {Group::mam, mt, f32, Kind::C, own(O356, Quirk::mat_n3)},
    {Group::mam, mt, f32, Kind::S2, own(O3)},
    {Group::mam, mt, f32, Kind::P, own(O3)},
    {Group::mam, mt, f32, Kind::LS2, own(O3)},
    {Group::mam, tt, f32, Kind::LS2, own(O3)},
    // fixed matrix by array
    {Group::mma, tm, f32, Kind::L, own_else_each(O3456, Via::single_contig)},
    {Group::mma, tm, f64, Kind::L, own_else_each(O3456, Via::single_contig)},
    {Group::mma, mt, f32, Kind::L, each(Via::single_contig)},
    {Group::mma, tt, f32, Kind::L, each(Via::single_contig)},
    {Group::mma, tt, f64, Kind::L, each(Via::single_contig)},
    // array by array
    {Group::mama, mm, f32, Kind::S2, own(O345)},
};

constexpr Paths lookup(Group g, Form f, Type t, Kind k) {
    for (const Cell& c : cells)
        if (c.g == g && c.f == f && c.t == t && c.k == k) return c.p;
    if (g != Group::one && k == Kind::LS2) return each(Via::single_s2);
    return own(O3456);
}
}  // namespace detail

// The paths of one kernel, with the orders of the single kernel it may call.
constexpr Paths paths(Group g, Form f, Type t, Kind k) {
    Paths p = detail::lookup(g, f, t, k);
    if (p.via != Via::own)
        p.single = detail::lookup(Group::one, f, t,
                                  p.via == Via::single_contig ? Kind::C : Kind::S2).orders;
    return p;
}

static_assert(paths(Group::mma, tm, f32, Kind::L).single == O345);
static_assert(paths(Group::mam, tt, f64, Kind::LS2).via == Via::single_s2);
static_assert(paths(Group::mam, tt, f32, Kind::LS2).orders == O3);

}  // namespace orsm::matmul
