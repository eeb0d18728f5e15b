// The harness of the factorisation and solver families: their functions by
// form and layout and the stride mixes each runs under; objects read back as
// row-major matrices and compared bit for bit; a model run share by share as
// a team runs the call; calls on N by N objects whose results are compared
// with the model's, the bytes around them and the sources untouched; the
// check order; the limit cells; the residual of a solve.
#pragma once

#include <cmath>
#include <limits>

#include "calls.hpp"

namespace orsmtest {

template <class T> using Mat = std::vector<T>;  // row-major
using Fn = std::pair<std::string, Layout>;      // stem and layout

// family_form in S and P, the forms with an array in L too:
// forms("LUDecomp", {"m", "ma"}).
inline std::vector<Fn> forms(const std::string& family, std::initializer_list<const char*> fs) {
    std::vector<Fn> v;
    for (std::string f : fs)
        for (Layout l : {Layout::S, Layout::P, Layout::L})
            if (f.back() == 'a' || l != Layout::L) v.push_back({family + "_" + f, l});
    return v;
}
// Whether a form takes an array (and a count): "ma", "mva", "mava".
inline bool is_array(const Fn& f) { return f.first.back() == 'a'; }
inline bool is_mava(const Fn& f) { return f.first.find("mava") != std::string::npos; }

// Element strides unlike the element size (S, L), or P tables of planes.
struct Mode {
    bool strided = false, soa = false;
};
inline std::vector<Mode> modes(Layout l) { return {Mode{}, Mode{l != Layout::P, l == Layout::P}}; }

// Every element of object n, row by row.
template <class T> Mat<T> elements(const Operand<T>& op, int n) {
    Mat<T> m;
    for (int i = 0, cols = op.shape().cols; i < op.shape().rows * cols; ++i) m.push_back(op.at(n, i / cols, i % cols));
    return m;
}
// Same bits, or NaN for NaN (which payload survives where two NaNs meet is
// the compiler's choice).
template <class T> bool same_bits(T got, T want) {
    return bits(got) == bits(want) || (std::isnan(got) && std::isnan(want));
}
// The elements of `want` as they stand first in `got`, element by element.
template <class T> testing::AssertionResult same(const Mat<T>& got, const Mat<T>& want, int o = 0) {
    if (got.size() < want.size()) return testing::AssertionFailure() << "object " << o << ": too few elements";
    for (std::size_t i = 0; i < want.size(); ++i)
        if (!same_bits(got[i], want[i]))
            return testing::AssertionFailure() << "object " << o << " [" << i << "] " << got[i] << " want " << want[i];
    return testing::AssertionSuccess();
}

// The objects of a call as a team shares them out: (first object, objects)
// a member.
using Shares = std::vector<std::pair<int, int>>;
// A model run as the call runs: each share stops at its first failing step,
// and the call's status is the first failing share's. A step takes `group`
// objects side by side while that many are left in the share, then one:
// step(o, n, first) models objects [o, o + n) of the share from `first`.
template <class Step> OrsStatus over_shares(const Shares& shares, Step&& step, int group = 1) {
    OrsStatus out = StatusOk;
    for (auto [first, k] : shares)
        for (int o = first, n; o < first + k; o += n) {
            n = first + k - o >= group ? group : 1;
            if (const OrsStatus st = step(o, n, first); st != StatusOk) {
                if (out == StatusOk) out = st;
                break;
            }
        }
    return out;
}

// dst's objects [0, upto) as want(o) has them; no byte of dst outside them
// changed, nor any of a source (null: none) that is not dst.
template <class T, class Want>
testing::AssertionResult results(const Operand<T>& dst, int upto, Want&& want,
                                 std::initializer_list<const Operand<T>*> sources) {
    for (int o = 0; o < upto; ++o)
        if (auto r = same(elements(dst, o), want(o), o); !r) return r;
    if (!dst.only_elements_changed(upto)) return testing::AssertionFailure() << "dst outside its objects";
    for (const Operand<T>* s : sources)
        if (s && s != &dst && !s->unchanged()) return testing::AssertionFailure() << "source changed";
    return testing::AssertionSuccess();
}

// A call of a square family on guarded operands: N by N matrices, `count`
// objects where the form takes an array; `where` names it.
template <class T> struct SquareCall {
    Fn fn;
    int N, count;
    Mode mode;
    Call<T> c;
    std::string where;
    SquareCall(const Fn& f, int n, int cnt, Mode m)
        : fn(f), N(n), count(is_array(f) ? cnt : 1), mode(m), c(f.first, f.second),
          where(c.name() + " size=" + std::to_string(n) + " count=" + std::to_string(count) +
                (m.strided ? " strided" : m.soa ? " soa" : "")) {}
    // Objects of `rows` rows (1: vectors) of N, an array or one.
    Shape sh(int rows, bool array) const { return {rows, N, array ? count : 1, array, !mode.strided, mode.soa}; }
    // The sizes set and every operand's bytes noted: the call is ready.
    void ready() {
        c.arg("size") = N;
        if (c.takes("count")) c.arg("count") = count;
        c.snapshot();
    }
};

// A factorisation: src from gen(o, r, k), dst on src or apart with values
// from v. a: the sources; d: dst as it stood, for the model to write.
template <class T> struct FactorCall : SquareCall<T> {
    Operand<T>*src = nullptr, *dst = nullptr;
    std::vector<Mat<T>> a, d;
    using SquareCall<T>::SquareCall;
    template <class G> void bind(unsigned seed, bool in_place, Values<T>& v, G&& gen) {
        const bool arr = is_array(this->fn);
        src = &this->c.bind("src", arr, this->sh(this->N, arr), seed);
        src->fill(gen);
        dst = in_place ? &this->c.attach("dst", *src) : &this->c.bind("dst", arr, this->sh(this->N, arr), seed + 1);
        if (!in_place) dst->fill([&](int, int, int) { return v(); });
        for (int o = 0; o < this->count; ++o) a.push_back(elements(*src, o)), d.push_back(elements(*dst, o));
    }
    // dst as the model left d.
    testing::AssertionResult check() const {
        return results(*dst, this->count, [&](int o) -> const Mat<T>& { return d[o]; }, {src});
    }
};

// A solver: factors in src1 from gen(o, r, k), one for all systems or one
// each (mava); right-hand sides in src2 from v (bv: as they stood); dst on
// src2 or apart.
template <class T> struct SolveCall : SquareCall<T> {
    bool many;
    Operand<T>*m = nullptr, *b = nullptr, *d = nullptr;
    std::vector<Mat<T>> bv;
    SolveCall(const Fn& f, int n, int cnt, Mode mode) : SquareCall<T>(f, n, cnt, mode), many(is_mava(f)) {}
    template <class G> void bind(unsigned seed, bool in_place, Values<T>& v, G&& gen) {
        const bool va = is_array(this->fn);
        m = &this->c.bind("src1", many, this->sh(this->N, many), seed);
        m->fill(gen);
        b = &this->c.bind("src2", va, this->sh(1, va), seed + 1);
        b->fill([&](int, int, int) { return v(); });
        for (int o = 0; o < this->count; ++o) bv.push_back(elements(*b, o));
        d = in_place ? &this->c.attach("dst", *b) : &this->c.bind("dst", va, this->sh(1, va), seed + 2);
    }
    Mat<T> factor(int o) const { return elements(*m, many ? o : 0); }  // of system o
    // dst objects [0, upto) as solve(o) has them; the rest stand.
    template <class Solve> testing::AssertionResult solved(int upto, Solve&& solve) const {
        return results(*d, upto, solve, {m, b});
    }
};

// ---- whole tests ----------------------------------------------------------------------

// dst's stride faults: a negative object stride in P, an element stride of
// no whole number of elements elsewhere.
template <class T> Fault dst_stride_fault(Layout l) {
    const std::string E = std::to_string(sizeof(T));
    return {l == Layout::P ? "dstStride0=-" + E : "dstStride2=" + E + "1", StatusBadStride};
}
// Each function on valid 3 by 3 operands, two objects: every argument's
// fault alone, then faults(f) in the order they are checked.
template <class T, class Faults> void checks_in_order(const std::vector<Fn>& fns, Faults&& faults) {
    for (const Fn& f : fns) {
        Call<T> c(f.first, f.second);
        bind_all(c, 3, 3, 2);
        check_every_argument(c);
        expect_checks_in_order(c, faults(f));
    }
}

// A factorisation's array forms at the cells of limit(f, m) over size^2
// count: at the last serial work every object done; at the first parallel
// one, in a serialized region, member 0's share where parallel(f, m), all
// objects where the form stays serial.
template <template <class> class Decomp, class T, class Limit, class Parallel>
void factor_limit_cells(const std::vector<Fn>& fns, Limit&& limit, Parallel&& parallel) {
    auto work = [](int s, int, int n) { return s * s * n; };
    for (const Fn& f : fns)
        for (Mode m : modes(f.second))
            for (int side = 0; side < 2 && is_array(f); ++side) {
                const auto g = limit_cell(work, limit(f, m), side, false);
                Decomp<T> t(f, g[0], g[2], m, 7);
                const OrsStatus want = t.model({{0, side && parallel(f, m) ? first_share(t.count, 2) : t.count}});
                serialized([&] { EXPECT_EQ(t.c.run(), want); });
                EXPECT_TRUE(t.check()) << t.where << " W=" << g[3];
            }
}
// A solver's array forms at the cells of limit(f, m) over size (size + 2)
// count in mava, (size + 2 count) size in mva: at the last serial work every
// system solved; at the first parallel one, in a serialized region, member
// 0's share.
template <template <class> class Back, class T, class Limit>
void solver_limit_cells(const std::vector<Fn>& fns, Limit&& limit) {
    for (const Fn& f : fns) {
        auto work = [&](int s, int, int n) { return is_mava(f) ? s * (s + 2) * n : (s + 2 * n) * s; };
        for (Mode m : modes(f.second))
            for (int side = 0; side < 2 && is_array(f); ++side) {
                const auto g = limit_cell(work, limit(f, m), side, false);
                Back<T> t(f, g[0], g[2], m, 11);
                serialized([&] { EXPECT_EQ(t.c.run(), StatusOk); });
                EXPECT_TRUE(t.check(side ? first_share(t.count, 2) : t.count)) << t.where << " W=" << g[3];
            }
    }
}

// A x = b row by row within `k` N epsilon of the magnitudes of its terms.
template <class T> void expect_small_residual(const Mat<T>& A, const Mat<T>& x, const Mat<T>& b, int N, double k) {
    for (int i = 0; i < N; ++i) {
        double r = -double(b[i]), scale = std::fabs(double(b[i]));
        for (int j = 0; j < N; ++j) r += double(A[i * N + j]) * x[j], scale += std::fabs(double(A[i * N + j]) * x[j]);
        EXPECT_LE(std::fabs(r), k * N * std::numeric_limits<T>::epsilon() * scale) << "size " << N << " row " << i;
    }
}

}  // namespace orsmtest
