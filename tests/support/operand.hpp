// Test support shared by every family: operands laid out in layouts S, P and
// L inside a guarded arena, value generators with the awkward floating-point
// cases, bit-level comparison, and the nested-region technique that makes
// the parallel dispatch observable.
#pragma once

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "orscore.h"
#include "orsm.h"

namespace orsmtest {

enum class Layout { S, P, L };
inline const char* name(Layout l) { return l == Layout::S ? "S" : l == Layout::P ? "P" : "L"; }

// How an operand is spread out in memory.
struct Shape {
    int rows = 1, cols = 1;  // the stored matrix (a vector is one row)
    int count = 1;           // objects (1 for a single operand)
    bool array = true;       // false: single operand (no object stride)
    bool contiguous = true;  // element stride equal to the element size (S, L)
    bool soa = false;        // P only: object stride equal to the element size
    int row_gap = 1;         // extra elements between rows (S, L)
    int obj_gap = 3;         // extra elements between objects (S)
};

inline constexpr unsigned char kGuard = 0xA5;
inline constexpr std::size_t kPad = 64;  // guard bytes before and after

// One operand of a call, in one layout, inside its own guarded arena.
template <class T> class Operand {
  public:
    Operand(Layout layout, Shape shape, unsigned seed = 1) : layout_(layout), sh_(shape) {
        const int E = sizeof(T);
        const int nobj = sh_.count;
        const int nel = sh_.rows * sh_.cols;
        std::mt19937 rng(seed);
        shift_ = (layout == Layout::S) ? 0 : 2 * E;
        switch (layout) {
            case Layout::S:
            case Layout::L: {
                s2_ = sh_.contiguous ? E : 2 * E;
                s1_ = sh_.cols * s2_ + sh_.row_gap * E;
                const int span = sh_.rows * s1_ + sh_.obj_gap * E;
                s0_ = (layout == Layout::S && sh_.array) ? span : 0;
                std::vector<int> place(nobj);
                for (int n = 0; n < nobj; ++n) place[n] = n;
                if (layout == Layout::L) std::shuffle(place.begin(), place.end(), rng);
                size_ = kPad * 2 + std::size_t(span) * nobj;
                for (int n = 0; n < nobj; ++n) {
                    const std::size_t base = kPad + std::size_t(place[n]) * span;
                    obj_base_.push_back(base);
                    for (int r = 0; r < sh_.rows; ++r)
                        for (int c = 0; c < sh_.cols; ++c)
                            offs_.push_back(base + std::size_t(r) * s1_ + std::size_t(c) * s2_);
                }
                break;
            }
            case Layout::P: {
                // Table entries in scrambled order, so a wrong table index
                // reads a wrong element.
                std::vector<int> perm(nel);
                for (int i = 0; i < nel; ++i) perm[i] = i;
                std::shuffle(perm.begin(), perm.end(), rng);
                int slot;  // bytes between consecutive table slots
                if (!sh_.array) {
                    s0_ = 0;
                    slot = 2 * E;
                } else if (sh_.soa) {
                    s0_ = E;
                    slot = (nobj + 1) * E;
                } else {
                    s0_ = (nel * 2 + 1) * E;
                    slot = 2 * E;
                }
                size_ = kPad * 2 + std::size_t(slot) * nel + std::size_t(s0_) * nobj;
                elem0_.resize(nel);
                for (int i = 0; i < nel; ++i) elem0_[i] = kPad + std::size_t(perm[i]) * slot;
                for (int n = 0; n < nobj; ++n)
                    for (int i = 0; i < nel; ++i)
                        offs_.push_back(elem0_[i] + std::size_t(n) * s0_);
                break;
            }
        }
        mem_.assign(size_, kGuard);
        rebuild_tables();
    }
    Operand(const Operand&) = delete;
    Operand& operator=(const Operand&) = delete;

    // Element (r, c) of object n, as stored.
    T& at(int n, int r, int c) { return *reinterpret_cast<T*>(mem_.data() + offset(n, r, c)); }
    T at(int n, int r, int c) const {
        T v;
        std::memcpy(&v, mem_.data() + offset(n, r, c), sizeof v);
        return v;
    }

    // Arguments of the operand's group.
    T* ptr() { return reinterpret_cast<T*>(mem_.data() + obj_base_.at(0)); }  // layout S
    T* const* table() { return tables_.data(); }                                // P and L
    const T* const* ctable() { return tables_.data(); }
    int s0() const { return s0_; }
    int s1() const { return s1_; }
    int s2() const { return s2_; }
    int shift() const { return shift_; }
    const Shape& shape() const { return sh_; }
    Layout layout() const { return layout_; }

    // Guard checks: take a snapshot before a call, then ask whether only
    // element bytes (of the objects below `upto`) changed, or nothing did.
    void snapshot() { snap_ = mem_; }
    bool unchanged() const { return mem_ == snap_; }
    // True when no byte outside the elements of objects [0, upto) changed.
    bool only_elements_changed(int upto = -1) const {
        if (upto < 0) upto = sh_.count;
        std::vector<char> allowed(size_, 0);
        const int nel = sh_.rows * sh_.cols;
        for (int n = 0; n < upto; ++n)
            for (int i = 0; i < nel; ++i)
                std::fill_n(allowed.begin() + offs_[std::size_t(n) * nel + i], sizeof(T), 1);
        for (std::size_t b = 0; b < size_; ++b)
            if (!allowed[b] && mem_[b] != snap_[b]) return false;
        return true;
    }
    // Fills every element of every object from gen(n, r, c).
    template <class G> void fill(G&& gen) {
        for (int n = 0; n < sh_.count; ++n)
            for (int r = 0; r < sh_.rows; ++r)
                for (int c = 0; c < sh_.cols; ++c) at(n, r, c) = gen(n, r, c);
    }

  private:
    std::size_t offset(int n, int r, int c) const {
        const int nel = sh_.rows * sh_.cols;
        return offs_.at(std::size_t(n) * nel + std::size_t(r) * sh_.cols + c);
    }
    void rebuild_tables() {
        unsigned char* m = mem_.data();
        auto entry = [&](std::size_t off) { return reinterpret_cast<T*>(m + off - shift_); };
        tables_.clear();
        if (layout_ == Layout::P)
            for (std::size_t off : elem0_) tables_.push_back(entry(off));
        else if (layout_ == Layout::L)
            for (std::size_t off : obj_base_) tables_.push_back(entry(off));
    }

    Layout layout_;
    Shape sh_;
    int s0_ = 0, s1_ = 0, s2_ = 0, shift_ = 0;
    std::size_t size_ = 0;
    std::vector<std::size_t> obj_base_, elem0_, offs_;
    std::vector<unsigned char> mem_, snap_;
    std::vector<T*> tables_;
};

// A packed block with guard bytes around it (Extract's dst, scalar results).
template <class T> class Packed {
  public:
    explicit Packed(std::size_t n) : n_(n), mem_(kPad * 2 + n * sizeof(T), kGuard) {}
    T* data() { return reinterpret_cast<T*>(mem_.data() + kPad); }
    T get(std::size_t i) const {
        T v;
        std::memcpy(&v, mem_.data() + kPad + i * sizeof(T), sizeof v);
        return v;
    }
    void snapshot() { snap_ = mem_; }
    bool unchanged() const { return mem_ == snap_; }
    bool guards_intact() const {
        for (std::size_t b = 0; b < kPad; ++b)
            if (mem_[b] != kGuard || mem_[mem_.size() - 1 - b] != kGuard) return false;
        return true;
    }

  private:
    std::size_t n_;
    std::vector<unsigned char> mem_, snap_;
};

// Bit pattern of a value, for exact comparisons that see NaN payloads and
// signed zeros.
template <class T> auto bits(T v) {
    using B = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
    B b;
    std::memcpy(&b, &v, sizeof b);
    return b;
}
template <class T> T from_bits(std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t> b) {
    T v;
    std::memcpy(&v, &b, sizeof v);
    return v;
}

// Random values with a share of the awkward ones: NaNs with payloads
// (signalling too), infinities, signed zeros, subnormals, huge and tiny.
template <class T> class Values {
  public:
    explicit Values(unsigned seed = 7, double special = 0.1) : rng_(seed), special_(special) {}
    T operator()() {
        std::uniform_real_distribution<double> u(0, 1);
        if (u(rng_) < special_) {
            using L = std::numeric_limits<T>;
            switch (rng_() % 8) {
                case 0: return L::quiet_NaN();
                case 1: return from_bits<T>(bits(L::signaling_NaN()) | 1);
                case 2: return L::infinity();
                case 3: return -L::infinity();
                case 4: return T(0);
                case 5: return -T(0);
                case 6: return L::denorm_min() * T(rng_() % 1000 + 1);
                default: return L::max() / T(3);
            }
        }
        std::uniform_real_distribution<T> d(T(-8), T(8));
        return d(rng_);
    }
    // Finite values over a wide dynamic range, for sums whose bits depend on
    // the order of additions.
    T wide() {
        std::uniform_int_distribution<int> e(-20, 20);
        std::uniform_real_distribution<T> d(T(-1), T(1));
        // Draw the exponent first, in a fixed order: compilers evaluate
        // function arguments in different orders.
        const int ex = e(rng_);
        const T m = d(rng_);
        return std::ldexp(m, ex);
    }

  private:
    std::mt19937 rng_;
    double special_;
};

// Sets the library's thread count for the lifetime of the object.
class ThreadCount {
  public:
    explicit ThreadCount(int n) : old_(orscoreGetNumThreads()) { orscoreSetNumThreads(n); }
    ~ThreadCount() { orscoreSetNumThreads(old_); }

  private:
    int old_;
};

// Runs fn inside an active two-thread OpenMP region with nested parallelism
// off, on member 0: a parallel form called there gets a serialized team, so
// only member 0's share is processed. That is how a test sees whether a call
// took the parallel path.
template <class F> void in_serialized_region(F&& fn) {
    const int levels = omp_get_max_active_levels();
    omp_set_max_active_levels(1);
#pragma omp parallel num_threads(2)
    {
        if (omp_get_thread_num() == 0) fn();
    }
    omp_set_max_active_levels(levels);
}

// The share of objects that member 0 processes with T threads.
inline int first_share(int count, int T) { return count / T + (count % T != 0 ? 1 : 0); }

}  // namespace orsmtest
