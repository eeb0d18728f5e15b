// Element-wise calls whose dst shares memory with a source, in the storage
// that the fast paths take (planes of one element stride in layout P, packed
// arrays in layout S). Every operand lies in one buffer; the call's result
// over the whole buffer must equal a step-by-step model of the kernel it
// falls back to (objects ascending, each object read whole on the order
// paths or one element at a time in the general loop). Where dst is exactly
// a source (in place) the fast path runs and must give the same buffer.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kernels/streaming.hpp"
#include "operand.hpp"

using namespace orsmtest;

namespace {

// An operand in the shared buffer: element e (= r * w + c) of object n is at
// index off[e] + n * step. `step` is 0 for a single operand.
struct Place {
    std::vector<long> off;
    long step = 0;
    long at(int n, int e) const { return off[e] + n * step; }
};

// Planes (layout P, one element stride): plane e starts at base + e * gap.
Place planes(long base, long gap, int E) {
    Place p;
    for (int e = 0; e < E; ++e) p.off.push_back(base + e * gap);
    p.step = 1;
    return p;
}
// A packed block (layout S): object n, element e at base + n * E + e.
Place block(long base, int E) {
    Place p;
    for (int e = 0; e < E; ++e) p.off.push_back(base + e);
    p.step = E;
    return p;
}
Place single(Place p) {
    p.step = 0;
    return p;
}

template <class T>
T apply(char op, T x, T y) {
    return op == '+' ? x + y : op == '-' ? x - y : x * y;
}

// How the kernel that runs without the fast path walks the call.
enum class Walk {
    element,       // general loop: one element read and written at a time
    whole,         // order path: each object read whole, then written
    whole_held,    // order path with the single source read once, up front
    element_major  // what a fast path does: entry by entry, objects inside
};

// d = a op b over `count` objects of E elements; b may be absent (`value`).
template <class T>
void model(std::vector<T>& m, Walk walk, char op, const Place& d, const Place& a, const Place* b,
           T value, int E, int count) {
    auto B = [&](int n, int e) { return b ? m[b->at(n, e)] : value; };
    std::vector<T> held(E);
    if (walk == Walk::whole_held)
        for (int e = 0; e < E; ++e) held[e] = B(0, e);
    if (walk == Walk::element_major) {
        // A single source's element is read once per entry, before its run.
        for (int e = 0; e < E; ++e) {
            const T one = B(0, e);
            for (int n = 0; n < count; ++n)
                m[d.at(n, e)] = apply(op, m[a.at(n, e)], b && b->step ? B(n, e) : one);
        }
        return;
    }
    for (int n = 0; n < count; ++n) {
        if (walk == Walk::element) {
            for (int e = 0; e < E; ++e) m[d.at(n, e)] = apply(op, m[a.at(n, e)], B(n, e));
            continue;
        }
        std::vector<T> x(E), y(E);
        for (int e = 0; e < E; ++e) {
            x[e] = m[a.at(n, e)];
            y[e] = walk == Walk::whole_held ? held[e] : B(n, e);
        }
        for (int e = 0; e < E; ++e) m[d.at(n, e)] = apply(op, x[e], y[e]);
    }
}

// One overlap scenario: operand places in a buffer of `size` elements, the
// walk of the kernel that serves it, and whether the fast path's own order
// would give a different buffer (so the scenario can tell the two apart).
struct Scenario {
    std::string name;
    Place a, b, d;
    bool has_b;
    Walk walk;
    bool order_matters;
};

// The library call: tables (P) or base pointers (S) into the buffer.
template <class T>
using Run = std::function<OrsStatus(T* m, const Scenario& s, T value, int w, int h, int count)>;

template <class T>
std::vector<T*> table(T* m, const Place& p) {
    std::vector<T*> t;
    for (long o : p.off) t.push_back(m + o);
    return t;
}

template <class T>
void check(const Scenario& s, const Run<T>& run, char op, int w, int h, int count, long size) {
    SCOPED_TRACE(s.name);
    // One thread: a parallel call splits the objects, and shares that
    // overlap one another race.
    ThreadCount one(1);
    const int E = w * h;
    Values<T> vals(17);
    std::vector<T> mem(size);
    for (auto& v : mem) v = vals.wide();
    const T value = vals.wide();
    std::vector<T> want = mem, other = mem;
    model(want, s.walk, op, s.d, s.a, s.has_b ? &s.b : nullptr, value, E, count);
    model(other, Walk::element_major, op, s.d, s.a, s.has_b ? &s.b : nullptr, value, E, count);
    auto same = [](const std::vector<T>& x, const std::vector<T>& y) {
        for (std::size_t i = 0; i < x.size(); ++i)
            if (bits(x[i]) != bits(y[i])) return false;
        return true;
    };
    if (s.order_matters) {
        ASSERT_FALSE(same(want, other)) << "scenario cannot tell the orders apart";
    }
    ASSERT_EQ(run(mem.data(), s, value, w, h, count), StatusOk);
    for (long i = 0; i < size; ++i)
        ASSERT_EQ(bits(mem[i]), bits(want[i])) << "element " << i << " of the buffer";
}

// Every scenario of a builder over a few counts; Mul by a constant has no
// src2, so its scenarios on src2 drop out.
using Builder = std::vector<Scenario> (*)(int E, int count, bool b_single, Walk walk, long& size);
template <class T>
void run_scenarios(Builder build, int w, int h, bool b_single, Walk walk, char op,
                   const Run<T>& run) {
    for (int count : {9, 17, 100}) {
        SCOPED_TRACE(::testing::Message() << w << "x" << h << " count " << count);
        long size = 0;
        for (Scenario s : build(w * h, count, b_single, walk, size)) {
            if (op == '*' && s.name.find("src2") != std::string::npos) continue;
            s.has_b = op != '*';
            check<T>(s, run, op, w, h, count, size);
        }
    }
}

// The 32f or 64f member of a pair.
template <class T, class F32, class F64>
auto pick(F32 f32, F64 f64) {
    if constexpr (sizeof(T) == 4)
        return f32;
    else
        return f64;
}

template <class T>
class Fastpath : public ::testing::Test {};
using Types = ::testing::Types<float, double>;
TYPED_TEST_SUITE(Fastpath, Types);

// ---- layout P: planes ------------------------------------------------------------

// Scenarios over E planes of `count` objects: src1 planes from 0, src2 planes
// (or the single src2) after them, free room for dst after those.
std::vector<Scenario> plane_scenarios(int E, int count, bool b_single, Walk walk, long& size) {
    const long gap = count + 3;  // planes of an operand a few elements apart
    const long A = 0, B = E * gap, D = 2 * E * gap;
    size = 3 * E * gap + gap;
    const Place pa = planes(A, gap, E);
    const Place pb = b_single ? single(planes(B, gap, E)) : planes(B, gap, E);
    std::vector<Scenario> s;
    // dst plane e (e >= 1) is src1's plane e - 1 one object on: object order
    // reads what the previous object wrote, entry order reads it fresh.
    Place back = planes(A - gap + 1, gap, E);
    back.off[0] = D;
    s.push_back({"dst plane e on src1 plane e-1, one object on", pa, pb, back, true, walk, true});
    // dst planes overlap one another: the last writer differs by order.
    Place self;
    self.step = 1;
    for (int e = 0; e < E; ++e) self.off.push_back(D + e * 3);
    s.push_back({"dst planes overlapping each other", pa, pb, self, true, walk, true});
    s.push_back({"dst plane e on src1 plane e, one object on", pa, pb, planes(A + 1, gap, E), true,
                 walk, false});
    // In place: dst planes are the planes of a source; the fast path runs.
    s.push_back({"in place on src1", pa, pb, pa, true, walk, false});
    if (!b_single) {
        s.push_back({"in place on src2", pa, pb, pb, true, walk, false});
    } else {
        // Element e of the single src2 lies inside dst plane e, half way.
        const Place pd = planes(D, gap, E);
        Place inside = single(pd);
        for (auto& o : inside.off) o += count / 2;
        s.push_back({"single src2 inside the dst planes", pa, inside, pd, true, walk,
                     walk == Walk::element});
    }
    return s;
}

// Streaming stores for every call while alive.
struct StreamAll {
    long old = orsm::streaming::set_min_bytes(0);
    ~StreamAll() { orsm::streaming::set_min_bytes(old); }
};

template <class T> void planes_that_meet() {
    // Vector Add and Sub in layout P have the general loop only.
    run_scenarios<T>(plane_scenarios, 5, 1, false, Walk::element, '+',
                     [](T* m, const Scenario& s, T, int w, int, int n) {
                         const auto a = table(m, s.a), b = table(m, s.b), d = table(m, s.d);
                         const int es = sizeof(T);
                         return pick<T>(orsmAdd_vava_32f_P, orsmAdd_vava_64f_P)(
                             a.data(), 0, es, b.data(), 0, es, d.data(), 0, es, w, n);
                     });
    run_scenarios<T>(plane_scenarios, 6, 1, true, Walk::element, '-',
                     [](T* m, const Scenario& s, T, int w, int, int n) {
                         const auto a = table(m, s.a), b = table(m, s.b), d = table(m, s.d);
                         const int es = sizeof(T);
                         return pick<T>(orsmSub_vav_32f_P, orsmSub_vav_64f_P)(
                             a.data(), 0, es, b.data(), 0, d.data(), 0, es, w, n);
                     });
    // Matrix Add/Sub: order paths read each object whole (and hold a single
    // source); 7 by 5 takes the general loop.
    auto mama = [](T* m, const Scenario& s, T, int w, int h, int n) {
        const auto a = table(m, s.a), b = table(m, s.b), d = table(m, s.d);
        const int es = sizeof(T);
        return pick<T>(orsmAdd_mama_32f_P, orsmAdd_mama_64f_P)(a.data(), 0, es, b.data(), 0, es,
                                                               d.data(), 0, es, w, h, n);
    };
    run_scenarios<T>(plane_scenarios, 3, 3, false, Walk::whole, '+', mama);
    run_scenarios<T>(plane_scenarios, 7, 5, false, Walk::element, '+', mama);
    auto mam = [](T* m, const Scenario& s, T, int w, int h, int n) {
        const auto a = table(m, s.a), b = table(m, s.b), d = table(m, s.d);
        const int es = sizeof(T);
        return pick<T>(orsmSub_mam_32f_P, orsmSub_mam_64f_P)(a.data(), 0, es, b.data(), 0, d.data(),
                                                             0, es, w, h, n);
    };
    run_scenarios<T>(plane_scenarios, 4, 4, true, Walk::whole_held, '-', mam);
    run_scenarios<T>(plane_scenarios, 7, 5, true, Walk::element, '-', mam);
    // Mul by a constant: length 7 takes the general loop.
    run_scenarios<T>(plane_scenarios, 7, 1, true, Walk::element, '*',
                     [](T* m, const Scenario& s, T v, int w, int, int n) {
                         const auto a = table(m, s.a), d = table(m, s.d);
                         const int es = sizeof(T);
                         return pick<T>(orsmMul_vac_32f_P, orsmMul_vac_64f_P)(
                             a.data(), 0, es, v, d.data(), 0, es, w, n);
                     });
}

// ---- layout S: packed arrays ------------------------------------------------------

// Packed blocks of `count` objects: src1 first, then src2, then room for dst.
std::vector<Scenario> block_scenarios(int E, int count, bool b_single, Walk walk, long& size) {
    const long A = 0, B = long(E) * count + 5, D = 2 * B;
    size = 3 * B + E;
    const Place pa = block(A, E);
    const Place pb = b_single ? single(block(B, E)) : block(B, E);
    std::vector<Scenario> s;
    s.push_back({"dst one element past src1", pa, pb, block(A + 1, E), true, walk, false});
    s.push_back({"dst one object and one element past src1", pa, pb, block(A + E + 1, E), true,
                 walk, false});
    s.push_back({"dst one element before src2", pa, pb, block(B - 1, E), true, walk, false});
    s.push_back({"in place on src1", pa, pb, pa, true, walk, false});
    if (!b_single) {
        s.push_back({"in place on src2", pa, pb, pb, true, walk, false});
    } else {
        Place inside = single(block(D + long(E) * (count / 2), E));
        s.push_back(
            {"single src2 inside the dst block", pa, inside, block(D, E), true, walk, false});
    }
    return s;
}

template <class T> void packed_that_meet() {
    auto mama = [](T* m, const Scenario& s, T, int w, int h, int n) {
        const int es = sizeof(T), s0 = w * h * es, s1 = w * es;
        return pick<T>(orsmAdd_mama_32f, orsmAdd_mama_64f)(m + s.a.off[0], s0, s1, es,
                                                           m + s.b.off[0], s0, s1, es,
                                                           m + s.d.off[0], s0, s1, es, w, h, n);
    };
    run_scenarios<T>(block_scenarios, 4, 4, false, Walk::whole, '+', mama);
    run_scenarios<T>(block_scenarios, 7, 5, false, Walk::element, '+', mama);
    auto mam = [](T* m, const Scenario& s, T, int w, int h, int n) {
        const int es = sizeof(T), s0 = w * h * es, s1 = w * es;
        return pick<T>(orsmSub_mam_32f, orsmSub_mam_64f)(m + s.a.off[0], s0, s1, es, m + s.b.off[0],
                                                         s1, es, m + s.d.off[0], s0, s1, es, w, h,
                                                         n);
    };
    run_scenarios<T>(block_scenarios, 4, 4, true, Walk::whole_held, '-', mam);
    run_scenarios<T>(block_scenarios, 7, 5, true, Walk::element, '-', mam);
    // Vectors of length 7 take the general loop.
    run_scenarios<T>(block_scenarios, 7, 1, false, Walk::element, '+',
                     [](T* m, const Scenario& s, T, int w, int, int n) {
                         const int es = sizeof(T);
                         return pick<T>(orsmAdd_vava_32f, orsmAdd_vava_64f)(
                             m + s.a.off[0], w * es, es, m + s.b.off[0], w * es, es, m + s.d.off[0],
                             w * es, es, w, n);
                     });
    run_scenarios<T>(block_scenarios, 7, 1, true, Walk::element, '*',
                     [](T* m, const Scenario& s, T v, int w, int, int n) {
                         const int es = sizeof(T);
                         return pick<T>(orsmMul_vac_32f, orsmMul_vac_64f)(
                             m + s.a.off[0], w * es, es, v, m + s.d.off[0], w * es, es, w, n);
                     });
}

// Planes of a few elements past each alignment; dst stored past the caches
// from the first aligned element (in place too) gives the same buffer.
TYPED_TEST(Fastpath, PlanesThatMeetDstFallBackToObjectOrder) { planes_that_meet<TypeParam>(); }
TYPED_TEST(Fastpath, PlanesThatMeetDstStreamed) {
    StreamAll on;
    planes_that_meet<TypeParam>();
}
TYPED_TEST(Fastpath, PackedArraysThatMeetDstFallBackToObjectOrder) { packed_that_meet<TypeParam>(); }
TYPED_TEST(Fastpath, PackedArraysThatMeetDstStreamed) {
    StreamAll on;
    packed_that_meet<TypeParam>();
}

}  // namespace
