// Matrix-vector Mul (mv tv mav tav mva tva mava tava) in layouts S, P, L and
// both element types: exact bits against a scalar reference that sums by
// each kernel's addition tree, the order paths, the checks in their order,
// the work limits and the thread-count independence.
#include "test_mul_mv_ref.hpp"

namespace {

// ---- parameterisation -----------------------------------------------------

struct Combo {
    F form;
    Layout lay;
};
std::vector<Combo> all_combos() {
    std::vector<Combo> v;
    for (F f : {F::mv, F::tv, F::mav, F::tav, F::mva, F::tva, F::mava, F::tava})
        for (Layout l : {Layout::S, Layout::P, Layout::L})
            if (l != Layout::L || is_array(f)) v.push_back({f, l});
    return v;
}
std::string combo_name(const testing::TestParamInfo<Combo>& i) {
    return std::string(fname(i.param.form)) + "_" + name(i.param.lay);
}

class MulMv : public testing::TestWithParam<Combo> {};

// Strided variants: none, all operands, and each operand alone (one gap
// sends the whole call to the strided kernel). P: plain and SoA tables.
struct Variant {
    unsigned strided;
    bool soa;
    bool packed = false;  // S: no gaps between rows and objects
};
std::vector<Variant> variants(Layout l) {
    if (l == Layout::P) return {{0, false}, {0, true}};
    if (l == Layout::S) return {{0, false}, {0, false, true}, {7, false}, {1, false}, {2, false}, {4, false}};
    return {{0, false}, {7, false}, {1, false}, {2, false}, {4, false}};
}
const std::vector<std::pair<int, int>> kShapes = {
    {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7}, {8, 8},
    {3, 4}, {4, 3}, {2, 5}, {6, 5}, {5, 6}, {1, 7}, {8, 3}, {4, 6}};

template <class T> void check_bits(F f, Layout l) {
    for (const Variant& var : variants(l))
        for (auto [M, K] : kShapes)
            for (int count : is_array(f) ? std::vector<int>{1, 6} : std::vector<int>{1}) {
                const bool contiguous = var.strided == 0;
                const Tree t = expected_tree(f, sizeof(T) == 8, l, contiguous);
                SCOPED_TRACE(testing::Message() << fname(f) << " " << name(l) << " " << sizeof(T) * 8
                                                << "f M " << M << " K " << K << " count " << count
                                                << " strided " << var.strided << " soa " << var.soa
                                                << " tree " << "ABCD"[int(t)]);
                Call<T> c(f, l, M, K, count, var.strided, var.soa, var.packed);
                unsigned seed = 11;
                do fill_sensitive(c, seed++);
                while (!sensitive(c, t) && seed < 200);
                ASSERT_TRUE(sensitive(c, t)) << "no data found that tells the trees apart";
                c.snapshot();
                ASSERT_EQ(c.run(), StatusOk);
                EXPECT_EQ(mismatches(c, t, count), 0);
                EXPECT_TRUE(c.a->unchanged());
                EXPECT_TRUE(c.x->unchanged());
                EXPECT_TRUE(c.d->only_elements_changed());
            }
}

TEST_P(MulMv, ExactBitsByKernelTree) {
    check_bits<float>(GetParam().form, GetParam().lay);
    check_bits<double>(GetParam().form, GetParam().lay);
}

// Products that are all -0: an unrolled path starts from the first product
// and keeps -0, the general loop starts from +0. So the sign tells, for every
// kernel, that exactly the square orders 3 to 6 have paths.
template <class T> void check_paths(F f, Layout l) {
    for (const Variant& var : variants(l))
        for (auto [M, K] : kShapes) {
            Call<T> c(f, l, M, K, is_array(f) ? 3 : 1, var.strided, var.soa, var.packed);
            c.a->fill([](int, int, int) { return -T(0); });
            c.x->fill([](int n, int, int k) { return T(n + k + 1); });
            ASSERT_EQ(c.run(), StatusOk);
            const bool neg = unrolled(M, K);
            for (int n = 0; n < c.count; ++n)
                for (int i = 0; i < M; ++i)
                    EXPECT_EQ(std::signbit(c.d->at(n, 0, i)), neg)
                        << fname(f) << " " << name(l) << " M " << M << " K " << K;
        }
}

TEST_P(MulMv, OrderPathsSquareThreeToSix) {
    check_paths<float>(GetParam().form, GetParam().lay);
    check_paths<double>(GetParam().form, GetParam().lay);
}

// Each check in its order; the status of a call with two faults is that of
// the earlier check, and nothing is written.
template <class T> void check_status(F f, Layout l) {
    Call<T> c(f, l, 4, 3, is_array(f) ? 2 : 1, l == Layout::P ? 0 : 1);
    Values<T> v(3);
    c.a->fill([&](int, int, int) { return v(); });
    c.x->fill([&](int, int, int) { return v(); });
    const Args good = c.args();
    std::vector<Fld> strides, shifts;
    c.strides_shifts(strides, shifts);
    const int E = sizeof(T);

    auto expect = [&](OrsStatus want, const std::function<void(Args&)>& edit, const char* what) {
        Args g = good;
        edit(g);
        c.snapshot();
        EXPECT_EQ(invoke<T>(f, l, g), want) << fname(f) << " " << name(l) << " " << what;
        if (want != StatusOk) {
            EXPECT_TRUE(c.d->unchanged()) << what;
        }
        EXPECT_TRUE(c.a->unchanged() && c.x->unchanged()) << what;
    };
    // A bad shift and a bad stride behind every earlier fault.
    auto later = [&](Args& g) {
        if (!shifts.empty()) g[shifts.back()] = -E;
        if (!strides.empty()) g[strides.back()] = 0;
    };
    const bool arr = is_array(f);

    expect(StatusNullPointer, [&](Args& g) { g.a = nullptr; g[Cnt] = 0; g[W] = 0; }, "null src1");
    expect(StatusNullPointer, [&](Args& g) { g.x = nullptr; g[Cnt] = 0; }, "null src2");
    expect(StatusNullPointer, [&](Args& g) { g.d = nullptr; g[Cnt] = 0; }, "null dst, count 0");
    if (arr) {
        expect(StatusBadCount, [&](Args& g) { g[Cnt] = 0; g[H] = 0; later(g); }, "count 0, size 0");
        expect(StatusBadCount, [&](Args& g) { g[Cnt] = -1; }, "count -1");
    }
    for (Fld s : {W, H, Len})
        expect(StatusBadSize, [&](Args& g) { g[s] = 0; later(g); }, "size 0");
    expect(StatusBadSize, [&](Args& g) { g[Len] = -3; }, "length -3");
    // The inner size is the stored width for m forms, the height for t forms.
    expect(StatusSizeMismatch, [&](Args& g) { g[Len] = 4; later(g); }, "length 4");
    expect(StatusSizeMismatch, [&](Args& g) { g[is_t(f) ? H : W] = 5; later(g); }, "inner 5");
    if (is_t(f)) expect(StatusOk, [&](Args& g) { g[W] = 2; }, "t: width is free");
    else expect(StatusOk, [&](Args& g) { g[H] = 2; }, "m: height is free");
    for (Fld s : strides)
        for (int bad : {0, -E, E + 2, E / 2}) {
            expect(StatusBadStride, [&](Args& g) {
                g[s] = bad;
                if (!shifts.empty()) g[shifts.front()] = 2;
            }, "bad stride");
        }
    for (Fld s : shifts)
        for (int bad : {-E, 2, E + 1}) expect(StatusBadRoiShift, [&](Args& g) { g[s] = bad; }, "bad shift");
    EXPECT_EQ(strides.empty(), l == Layout::P && !arr);
    EXPECT_EQ(shifts.empty(), l == Layout::S);
}

TEST_P(MulMv, ChecksInOrderDstUntouched) {
    check_status<float>(GetParam().form, GetParam().lay);
    check_status<double>(GetParam().form, GetParam().lay);
}

INSTANTIATE_TEST_SUITE_P(Forms, MulMv, testing::ValuesIn(all_combos()), combo_name);

// ---- work estimates and limits ---------------------------------------------

int work(F f, int M, int K, int count) {
    switch (group(f)) {
        case G::mav: return M * (K + 1) * count + K;
        case G::mva: return M * K + (M + K) * count;
        default: return (M * K + M + K) * count;
    }
}
int limit(bool is64, Layout l, bool contiguous) {
    if (!contiguous || l == Layout::P) return 1441;
    return l == Layout::L ? 3601 : (is64 ? 3601 : 2501);
}
// A shape and count (count at least 2) whose work estimate is exactly W.
bool shape_for(F f, int W, int& M, int& K, int& count) {
    for (M = 1; M <= 48; ++M)
        for (K = 1; K <= 48; ++K)
            for (count = 2; work(f, M, K, count) <= W; ++count)
                if (work(f, M, K, count) == W) return true;
    return false;
}

class MulMvArray : public testing::TestWithParam<Combo> {};

// W one below the limit runs serially (all objects written even in a
// serialized region); W at the limit takes the parallel form, which in a
// serialized region writes member 0's share only.
template <class T> void check_limits(F f, Layout l) {
    for (const Variant& var : variants(l)) {
        const bool contiguous = var.strided == 0;
        const int lim = limit(sizeof(T) == 8, l, contiguous);
        for (int W : {lim - 1, lim}) {
            int M, K, count;
            ASSERT_TRUE(shape_for(f, W, M, K, count));
            SCOPED_TRACE(testing::Message() << fname(f) << " " << name(l) << " " << sizeof(T) * 8
                                            << "f W " << W << " M " << M << " K " << K << " count "
                                            << count << " strided " << var.strided);
            Call<T> c(f, l, M, K, count, var.strided, var.soa, var.packed);
            fill_sensitive(c, 5);
            c.snapshot();
            OrsStatus st = StatusBadSize;
            {
                ThreadCount tc(2);
                in_serialized_region([&] { st = c.run(); });
            }
            ASSERT_EQ(st, StatusOk);
            const int upto = W < lim ? count : first_share(count, 2);
            const Tree t = expected_tree(f, sizeof(T) == 8, l, contiguous);
            EXPECT_EQ(mismatches(c, t, upto), 0);
            EXPECT_TRUE(c.d->only_elements_changed(upto));
        }
    }
}

TEST_P(MulMvArray, LimitBoundary) {
    check_limits<float>(GetParam().form, GetParam().lay);
    check_limits<double>(GetParam().form, GetParam().lay);
}

// Far above the limit, one and two threads give the same bits, and those of
// the reference.
template <class T> void check_threads(F f, Layout l) {
    for (const Variant& var : variants(l))
        for (int N : {3, 4, 5, 6, 7}) {
            const int count = 403;
            Call<T> c(f, l, N, N, count, var.strided, var.soa, var.packed);
            fill_sensitive(c, 9);
            std::vector<T> one(std::size_t(count) * N);
            {
                ThreadCount tc(1);
                ASSERT_EQ(c.run(), StatusOk);
            }
            for (int n = 0; n < count; ++n)
                for (int i = 0; i < N; ++i) one[std::size_t(n) * N + i] = c.d->at(n, 0, i);
            c.d->fill([](int, int, int) { return T(0); });
            {
                ThreadCount tc(2);
                ASSERT_EQ(c.run(), StatusOk);
            }
            int diff = 0;
            for (int n = 0; n < count; ++n)
                for (int i = 0; i < N; ++i)
                    diff += bits(one[std::size_t(n) * N + i]) != bits(c.d->at(n, 0, i));
            EXPECT_EQ(diff, 0) << fname(f) << " " << name(l) << " order " << N;
            EXPECT_EQ(mismatches(c, expected_tree(f, sizeof(T) == 8, l, var.strided == 0), count), 0);
        }
}

TEST_P(MulMvArray, SameBitsForOneAndTwoThreads) {
    check_threads<float>(GetParam().form, GetParam().lay);
    check_threads<double>(GetParam().form, GetParam().lay);
}

std::vector<Combo> array_combos() {
    std::vector<Combo> v;
    for (const Combo& c : all_combos())
        if (is_array(c.form)) v.push_back(c);
    return v;
}
INSTANTIATE_TEST_SUITE_P(Forms, MulMvArray, testing::ValuesIn(array_combos()), combo_name);

// The data of the bit tests are not blind to the tree: on them, each pair of
// trees that are different formulas gives different bits somewhere, so a
// kernel with the wrong tree cannot pass.
TEST(MulMvReference, TreesDifferOnTestData) {
    for (int N : {4, 5, 6}) {
        Call<float> cf(F::mava, Layout::S, N, N, 6);
        Call<double> cd(F::mava, Layout::S, N, N, 6);
        fill_sensitive(cf, 11);
        fill_sensitive(cd, 11);
        for (Tree t : {Tree::A, Tree::B, Tree::C, Tree::D}) {
            EXPECT_TRUE(sensitive(cf, t)) << "32f order " << N << " tree " << "ABCD"[int(t)];
            EXPECT_TRUE(sensitive(cd, t)) << "64f order " << N << " tree " << "ABCD"[int(t)];
        }
    }
}

// For 4 by 4 32f data the contiguous mav kernel (tree C, count 1) and the mv
// kernel (tree A) differ in the last bits; the strided mav kernel sums by A.
TEST(MulMvReference, MavAndMvDifferOnFourByFour) {
    Call<float> mav(F::mav, Layout::S, 4, 4, 1), mv(F::mv, Layout::S, 4, 4, 1),
        mav_s2(F::mav, Layout::S, 4, 4, 1, 4);
    unsigned seed = 1;
    do fill_sensitive(mav, seed++);
    while (!sensitive(mav, Tree::C) || !sensitive(mav, Tree::A));
    for (Call<float>* c : {&mv, &mav_s2}) {
        c->a->fill([&](int, int r, int k) { return mav.a->at(0, r, k); });
        c->x->fill([&](int, int, int k) { return mav.x->at(0, 0, k); });
    }
    ASSERT_EQ(mav.run(), StatusOk);
    ASSERT_EQ(mv.run(), StatusOk);
    ASSERT_EQ(mav_s2.run(), StatusOk);
    int diff = 0;
    for (int i = 0; i < 4; ++i) {
        diff += bits(mav.d->at(0, 0, i)) != bits(mv.d->at(0, 0, i));
        EXPECT_EQ(bits(mav.d->at(0, 0, i)), bits(expected(mav, Tree::C, 0, i)));
        EXPECT_EQ(bits(mv.d->at(0, 0, i)), bits(expected(mav, Tree::A, 0, i)));
        EXPECT_EQ(bits(mav_s2.d->at(0, 0, i)), bits(mv.d->at(0, 0, i)));
    }
    EXPECT_GT(diff, 0);
}

}  // namespace
