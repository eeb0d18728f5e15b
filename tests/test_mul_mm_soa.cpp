// Mul over arrays in layout P with planes of one element stride: the kernel
// with lanes over objects. Counts around the vector widths (a last partial
// block done again whole, calls narrower than a vector), and dst planes
// that share an alignment or not, with streaming stores on (the limit
// lowered to nothing) and off. Every element of the buffer is compared:
// dst planes hold the ascending-k sums, everything else is untouched.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "kernels/streaming.hpp"
#include "operand.hpp"

using namespace orsmtest;

namespace {

enum class Grp { mama, mam, mma };

// Streaming stores for every call while alive.
struct StreamAll {
    long old = orsm::streaming::set_min_bytes(0);
    ~StreamAll() { orsm::streaming::set_min_bytes(old); }
};

template <class T> struct Fns;
template <> struct Fns<float> {
    static constexpr auto mama = orsmMul_mama_32f_P;
    static constexpr auto mam = orsmMul_mam_32f_P;
    static constexpr auto mma = orsmMul_mma_32f_P;
};
template <> struct Fns<double> {
    static constexpr auto mama = orsmMul_mama_64f_P;
    static constexpr auto mam = orsmMul_mam_64f_P;
    static constexpr auto mma = orsmMul_mma_64f_P;
};

struct Shape {
    int M, K, N;
};

// Planes of src1 (M by K), src2 (K by N) and dst (M by N) in one buffer
// aligned to 64 bytes. A fixed operand has one element per plane. With
// `mis` of -1 the planes lie at scattered offsets; otherwise every dst plane
// starts `mis` elements past a 64-byte boundary.
template <class T> void soa_case(Grp g, Shape s, int count, int mis, unsigned seed) {
    const bool a1 = g != Grp::mma, a2 = g != Grp::mam;
    const int M = s.M, K = s.K, N = s.N, es = sizeof(T), line = 64 / es;
    const int na = M * K, nb = K * N, nd = M * N;
    std::mt19937 rng(seed);
    std::vector<long> at(na + nb + nd);
    long off = 2;
    for (int e = 0; e < na + nb + nd; ++e) {
        const bool dst = e >= na + nb;
        if (dst && mis >= 0) off = (off + line - 1) / line * line + mis;
        else off += rng() % 5;
        at[e] = off;
        off += (e < na ? (a1 ? count : 1) : dst ? count : (a2 ? count : 1)) + 1 + rng() % 3;
    }
    std::vector<T> store(off + 2 * line);
    T* const buf = store.data() + (line - (reinterpret_cast<std::uintptr_t>(store.data()) % 64) / es) % line;
    const long size = off + line / 2;
    Values<T> vals(seed);
    for (long i = 0; i < size; ++i) buf[i] = vals.wide();
    const std::vector<T> before(buf, buf + size);

    std::vector<const T*> ta(na), tb(nb);
    std::vector<T*> td(nd);
    for (int e = 0; e < na; ++e) ta[e] = buf + at[e];
    for (int e = 0; e < nb; ++e) tb[e] = buf + at[na + e];
    for (int e = 0; e < nd; ++e) td[e] = buf + at[na + nb + e];
    OrsStatus st = StatusOk;
    if (g == Grp::mama)
        st = Fns<T>::mama(ta.data(), 0, es, K, M, tb.data(), 0, es, N, K, td.data(), 0, es, count);
    else if (g == Grp::mam)
        st = Fns<T>::mam(ta.data(), 0, es, K, M, tb.data(), 0, N, K, td.data(), 0, es, count);
    else
        st = Fns<T>::mma(ta.data(), 0, K, M, tb.data(), 0, es, N, K, td.data(), 0, es, count);
    ASSERT_EQ(st, StatusOk);

    std::vector<T> want = before;
    for (int n = 0; n < count; ++n)
        for (int i = 0; i < M; ++i)
            for (int j = 0; j < N; ++j) {
                auto A = [&](int k) { return before[at[i * K + k] + (a1 ? n : 0)]; };
                auto B = [&](int k) { return before[at[na + k * N + j] + (a2 ? n : 0)]; };
                T sum = A(0) * B(0);
                for (int k = 1; k < K; ++k) sum = sum + A(k) * B(k);
                want[at[na + nb + i * N + j] + n] = sum;
            }
    for (long i = 0; i < size; ++i) ASSERT_EQ(bits(buf[i]), bits(want[i])) << "element " << i;
}

template <class T> class MulSoa : public ::testing::Test {};
using Types = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MulSoa, Types);

const Shape kShapes[] = {{3, 3, 3}, {4, 4, 4}, {5, 5, 5}, {6, 6, 6}, {2, 2, 2}, {3, 4, 5}};
const int kCounts[] = {1, 2, 3, 5, 7, 8, 9, 15, 16, 17, 31, 33, 40, 100};

void sweep(void (*one)(Grp, Shape, int, int, unsigned)) {
    ThreadCount single(1);
    unsigned seed = 7;
    for (Grp g : {Grp::mama, Grp::mam, Grp::mma})
        for (const Shape& s : kShapes)
            for (int count : kCounts)
                for (int mis : {-1, 0, 1, 3}) {
                    SCOPED_TRACE(::testing::Message() << "group " << int(g) << " shape " << s.M << "x"
                                                      << s.K << "x" << s.N << " count " << count
                                                      << " dst misaligned by " << mis);
                    one(g, s, count, mis, ++seed);
                    if (::testing::Test::HasFatalFailure()) return;
                }
}

TYPED_TEST(MulSoa, PartialBlocksAndNarrowCalls) { sweep(&soa_case<TypeParam>); }

TYPED_TEST(MulSoa, StreamingStoresGiveTheSameBuffer) {
    StreamAll on;
    sweep(&soa_case<TypeParam>);
}

// A parallel call streams each share on its own; the result is the same.
TYPED_TEST(MulSoa, StreamingSharesOfAParallelCall) {
    StreamAll on;
    ThreadCount two(2);
    for (int count : {33, 100, 4001}) soa_case<TypeParam>(Grp::mama, {4, 4, 4}, count, 0, count);
}

}  // namespace
