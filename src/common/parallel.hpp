// The one parallel dispatcher behind every parallel form.
//
// A frame that has passed its checks computes its work estimate W and asks
// `goes_parallel(W, limit)`. Below the limit it runs its share function on
// all objects in the caller's thread and touches no runtime at all. Above it
// the parallel form reads the thread count T and:
//   - with T below 2 or count below T, runs the whole call serially (with
//     the caller's buffer, for families that have one);
//   - otherwise fixes the shares before the region (member t gets chunk+1
//     objects if t < rem, else chunk), opens a region asking for T threads,
//     and each member runs exactly its own share. A serialized or smaller
//     team therefore processes only the shares of the members it has.
//   - statuses merge under the runtime's unnamed critical section: the first
//     member to arrive with a failure decides, later ones are dropped. A
//     member that succeeded would only store zero over zero, so it leaves
//     the lock alone: the success path of a team takes no lock and writes
//     no shared line.
//
// A fork and join cost about a microsecond when the runtime's members are
// still spinning from the previous region and 7 us and more when they have
// to be woken; the team adds next to nothing to that. The limits keep the
// smallest calls from it.
#pragma once

#include <omp.h>

#include "base.hpp"
#include "orscore.h"

namespace orsm {

// A limit with the sense its family gives it: `serial_below` limits send W
// equal to the limit to the parallel form, `parallel_above` limits keep it
// serial. Comparisons are signed, so a wrapped negative W stays serial.
struct Limit {
    int value;
    bool equal_goes_parallel;
};
constexpr Limit serial_below(int v) { return {v, true}; }
constexpr Limit parallel_above(int v) { return {v, false}; }
constexpr bool goes_parallel(int W, Limit lim) {
    return lim.equal_goes_parallel ? W >= lim.value : W > lim.value;
}

inline int omp_thread_count() { return __atomic_load_n(&threads_omp_of_n_ors, __ATOMIC_RELAXED); }

namespace detail {
// Runs share(t, first, k) for each member t of a team of T, with shares
// fixed here, and merges the statuses by the first-error rule.
template <class Member> OrsStatus team(int T, int count, Member&& member) {
    const int chunk = count / T;
    const int rem = count % T;
    OrsStatus status = StatusOk;
#pragma omp parallel num_threads(T)
    {
        const int t = omp_get_thread_num();
        const int first = t < rem ? t * (chunk + 1) : t * chunk + rem;
        const int k = t < rem ? chunk + 1 : chunk;
        const OrsStatus st = member(t, first, k);
        if (st != StatusOk) {
#pragma omp critical
            {
                if (status == StatusOk) status = st;
            }
        }
    }
    return status;
}
}  // namespace detail

// Parallel form of a family without workspace. share(first, k) runs the
// serial kernel on objects first .. first+k-1 and returns its status.
template <class Share> OrsStatus parallel_form(int count, Share&& share) {
    const int T = omp_thread_count();
    if (T < 2 || count < T) return share(0, count);
    return detail::team(T, count, [&](int, int first, int k) { return share(first, k); });
}

// Parallel form of a family whose kernels need scratch. The forking path
// takes one block of elemsPerMember * T elements from the OpenMP allocator
// (size in 32-bit arithmetic) and gives member t part t; the serial path
// passes the caller's buffer. share(first, k, E* buffer).
template <class E, class Share>
OrsStatus parallel_form_ws(int count, int elemsPerMember, E* callerBuffer, Share&& share) {
    const int T = omp_thread_count();
    if (T < 2 || count < T) return share(0, count, callerBuffer);
    const int bytes = wmul(elemsPerMember, T, int(sizeof(E)));
    E* block = static_cast<E*>(omp_alloc(static_cast<std::uint32_t>(bytes), omp_default_mem_alloc));
    const OrsStatus st = detail::team(T, count, [&](int t, int first, int k) {
        return share(first, k, block + ptrdiff_t(t) * elemsPerMember);
    });
    omp_free(block, omp_default_mem_alloc);
    return st;
}

// The frame's decision in one place: parallel form above the limit, the
// share function over all objects otherwise.
template <class Share> OrsStatus dispatch(int W, Limit lim, int count, Share&& share) {
    return goes_parallel(W, lim) ? parallel_form(count, share) : share(0, count);
}
template <class E, class Share>
OrsStatus dispatch_ws(int W, Limit lim, int count, int elemsPerMember, E* buffer, Share&& share) {
    return goes_parallel(W, lim) ? parallel_form_ws(count, elemsPerMember, buffer, share)
                                 : share(0, count, buffer);
}

}  // namespace orsm
