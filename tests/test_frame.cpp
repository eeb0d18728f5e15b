// The generic layer on its own: wrapping work estimates, the two senses of a
// limit, check steps in order, and the parallel dispatcher's shares, merge,
// serial fallbacks and workspace.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "common/checks.hpp"
#include "common/parallel.hpp"
#include "operand.hpp"

using namespace orsm;
using orsmtest::ThreadCount;

TEST(WorkEstimate, WrapsLikeSigned32BitArithmetic) {
    EXPECT_EQ(wmul(3, 4, 5), 60);
    EXPECT_EQ(wmul(65536, 32768), int(0x80000000u));  // wraps negative
    EXPECT_EQ(wmul(65536, 65536), 0);
    EXPECT_EQ(wadd(0x7fffffff, 1), int(0x80000000u));
    // A wrapped negative estimate never goes parallel.
    EXPECT_FALSE(goes_parallel(wmul(65536, 32768), parallel_above(3500)));
    EXPECT_FALSE(goes_parallel(wmul(65536, 32768), serial_below(2000)));
}

TEST(WorkEstimate, LimitSenses) {
    EXPECT_FALSE(goes_parallel(3500, parallel_above(3500)));
    EXPECT_TRUE(goes_parallel(3501, parallel_above(3500)));
    EXPECT_FALSE(goes_parallel(1999, serial_below(2000)));
    EXPECT_TRUE(goes_parallel(2000, serial_below(2000)));
}

TEST(Checks, FirstFailingStepDecides) {
    const float* null = nullptr;
    float x = 0;
    EXPECT_EQ(first_failure(nonnull(&x, null), count_ok(0)), StatusNullPointer);
    EXPECT_EQ(first_failure(count_ok(0), nonnull(null)), StatusBadCount);
    EXPECT_EQ(first_failure(nonnull(&x), sizes_ok(3, 0), count_ok(0)), StatusBadSize);
    EXPECT_EQ(strides_ok<float>(4, 8, 12), StatusOk);
    EXPECT_EQ(strides_ok<float>(4, 6), StatusBadStride);
    EXPECT_EQ(strides_ok<double>(12), StatusBadStride);
    EXPECT_EQ(strides_ok<float>(0), StatusBadStride);
    EXPECT_EQ(strides_ok<float>(-4), StatusBadStride);
    EXPECT_EQ(shifts_ok<float>(0), StatusOk);
    EXPECT_EQ(shifts_ok<float>(-4), StatusBadRoiShift);
    EXPECT_EQ(shifts_ok<float>(2), StatusBadRoiShift);
    EXPECT_EQ(shifts_ok<double>(4), StatusBadRoiShift);
    EXPECT_EQ(only_if(false, StatusBadStride), StatusOk);
}

namespace {
struct Share {
    int first, k;
};
// Runs parallel_form and records the shares its members ran.
std::vector<Share> shares_of(int count, OrsStatus (*status_of)(int first) = nullptr) {
    std::vector<Share> out;
    std::mutex m;
    parallel_form(count, [&](int first, int k) {
        std::lock_guard<std::mutex> g(m);
        out.push_back({first, k});
        return status_of ? status_of(first) : StatusOk;
    });
    std::sort(out.begin(), out.end(), [](Share a, Share b) { return a.first < b.first; });
    return out;
}
}  // namespace

TEST(Dispatcher, SharesAreContiguousWithTheRemainderUpFront) {
    ThreadCount tc(4);
    auto s = shares_of(10);
    // A runtime may give fewer threads than asked; with 2 cores it gives 4.
    ASSERT_EQ(s.size(), 4u);
    EXPECT_EQ(s[0].first, 0); EXPECT_EQ(s[0].k, 3);
    EXPECT_EQ(s[1].first, 3); EXPECT_EQ(s[1].k, 3);
    EXPECT_EQ(s[2].first, 6); EXPECT_EQ(s[2].k, 2);
    EXPECT_EQ(s[3].first, 8); EXPECT_EQ(s[3].k, 2);
    s = shares_of(4);
    ASSERT_EQ(s.size(), 4u);
    for (int t = 0; t < 4; ++t) EXPECT_EQ(s[t].k, 1);
}

TEST(Dispatcher, FewThreadsOrFewObjectsRunSerially) {
    for (int T : {1, 0, -3}) {
        ThreadCount tc(T);
        auto s = shares_of(10);
        ASSERT_EQ(s.size(), 1u);
        EXPECT_EQ(s[0].first, 0);
        EXPECT_EQ(s[0].k, 10);
    }
    ThreadCount tc(4);
    auto s = shares_of(3);
    ASSERT_EQ(s.size(), 1u);
    EXPECT_EQ(s[0].k, 3);
}

TEST(Dispatcher, SerializedTeamRunsOnlyMemberZerosShare) {
    ThreadCount tc(4);
    orsmtest::in_serialized_region([] {
        auto s = shares_of(10);
        ASSERT_EQ(s.size(), 1u);
        EXPECT_EQ(s[0].first, 0);
        EXPECT_EQ(s[0].k, 3);
    });
}

TEST(Dispatcher, AFailureInOneShareLeavesTheOthersRunning) {
    ThreadCount tc(2);
    auto s = shares_of(8, [](int first) -> OrsStatus { return first == 4 ? StatusSingular : StatusOk; });
    EXPECT_EQ(s.size(), 2u);
    std::atomic<int> ran{0};
    const OrsStatus st = parallel_form(8, [&](int first, int) {
        ++ran;
        return first == 4 ? StatusSingular : StatusOk;
    });
    EXPECT_EQ(st, StatusSingular);
    EXPECT_EQ(ran.load(), 2);
    // Two failures: one of them, by time.
    const OrsStatus st2 = parallel_form(8, [&](int first, int) {
        return first == 0 ? StatusSingular : StatusNotConverged;
    });
    EXPECT_TRUE(st2 == StatusSingular || st2 == StatusNotConverged);
}

// Successes take no lock, so a failure has to win over any number of members
// that succeed, in whichever order they finish, at every team size and with
// or without workspace.
TEST(Dispatcher, OneFailingShareAmongSuccessesDecides) {
    for (int T : {2, 3, 4}) {
        ThreadCount tc(T);
        for (int failing = 0; failing < T; ++failing) {
            const int count = 4 * T + 1;
            // first object of member `failing` by the chunk/rem split
            const int chunk = count / T, rem = count % T;
            const int f0 = failing < rem ? failing * (chunk + 1) : failing * chunk + rem;
            for (int rep = 0; rep < 10; ++rep) {
                std::atomic<int> shares{0};
                const OrsStatus st = parallel_form(count, [&](int first, int) {
                    ++shares;
                    return first == f0 ? StatusDivideByZero : StatusOk;
                });
                ASSERT_EQ(st, StatusDivideByZero) << "T " << T << " failing member " << failing;
                ASSERT_EQ(shares.load(), T);
                float caller[2];
                const OrsStatus sw = parallel_form_ws(count, 2, caller, [&](int first, int, float* ws) {
                    ws[0] = ws[1] = float(first);
                    return first == f0 ? StatusNotConverged : StatusOk;
                });
                ASSERT_EQ(sw, StatusNotConverged);
            }
        }
        EXPECT_EQ(parallel_form(3 * T, [](int, int) { return StatusOk; }), StatusOk);
    }
}

// Calls may run at once from several threads of the caller: each call's
// status is its own, never another call's failure.
TEST(Dispatcher, ConcurrentCallsKeepTheirOwnStatus) {
    ThreadCount tc(2);
    const OrsStatus want[] = {StatusOk, StatusSingular, StatusOk, StatusNotPositiveDefinite};
    std::atomic<int> wrong{0};
    std::vector<std::thread> callers;
    for (OrsStatus w : want)
        callers.emplace_back([w, &wrong] {
            for (int rep = 0; rep < 20; ++rep) {
                const OrsStatus st = parallel_form(10, [w](int first, int) { return first == 0 ? w : StatusOk; });
                if (st != w) ++wrong;
            }
        });
    for (auto& c : callers) c.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(Dispatcher, WorkspaceGivesEachMemberItsOwnPart) {
    ThreadCount tc(2);
    double caller[5];
    std::vector<std::pair<int, double*>> seen;
    std::mutex m;
    const OrsStatus st = parallel_form_ws(6, 5, caller, [&](int first, int, double* ws) {
        for (int i = 0; i < 5; ++i) ws[i] = first;  // the part is writable
        std::lock_guard<std::mutex> g(m);
        seen.push_back({first, ws});
        return StatusOk;
    });
    EXPECT_EQ(st, StatusOk);
    ASSERT_EQ(seen.size(), 2u);
    std::sort(seen.begin(), seen.end());
    EXPECT_NE(seen[0].second, caller);
    EXPECT_EQ(seen[1].second - seen[0].second, 5);
    // The serial fallback hands over the caller's buffer.
    ThreadCount one(1);
    parallel_form_ws(6, 5, caller, [&](int, int, double* ws) {
        EXPECT_EQ(ws, caller);
        return StatusOk;
    });
}

TEST(Dispatcher, UnderTheLimitNoTeamIsFormed) {
    ThreadCount tc(2);
    int calls = 0;
    dispatch(100, parallel_above(3500), 8, [&](int first, int k) {
        ++calls;
        EXPECT_EQ(first, 0);
        EXPECT_EQ(k, 8);
        EXPECT_FALSE(omp_in_parallel());
        return StatusOk;
    });
    EXPECT_EQ(calls, 1);
}

#include "kernels/isa.hpp"

TEST(Isa, ForcingATargetAndBack) {
    using namespace orsm::isa;
    const Target was = current();
    EXPECT_TRUE(supported(sse2));
    EXPECT_TRUE(force(sse2));
    EXPECT_EQ(current(), sse2);
    EXPECT_FALSE(force(kTargets));  // no such target: nothing changes
    EXPECT_EQ(current(), sse2);
    for (int t = 0; t < kTargets; ++t) EXPECT_EQ(force(t), supported(Target(t)));
    EXPECT_TRUE(force(-1));
    EXPECT_EQ(current(), best());
    if (was != best()) force(was);
}
