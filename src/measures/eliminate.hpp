// The determinant by Gaussian elimination with row pivoting in a caller's
// scratch, shared by Det (orders 1, 2 and 7 up) and by Invert's cofactor
// method (the whole matrix and each of its minors).
//
// The scratch holds the working copy, size by size packed by rows, then the
// row table of size 32-bit integers. Rows never move: the table says which
// row stands at each place. Pivots are searched in table order, the first
// strictly greatest magnitude winning; each later row takes its multiplier
// by a true division and is updated from column k + 1 on; the running
// product takes each pivot; the result is pr * (x * s) with x the last pivot
// through the table and s the sign of the exchanges.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "measures/measures.hpp"

namespace orsm::meas {

template <class T> struct Scratch {
    T* a;
    unsigned char* q;  // row table, as bytes: the block is typed by the caller
    int size;
    T& at(int r, int c) const { return a[ptrdiff_t(r) * size + c]; }
    int row(int i) const {
        std::int32_t v;
        std::memcpy(&v, q + ptrdiff_t(i) * 4, 4);
        return v;
    }
    void set_row(int i, std::int32_t v) const { std::memcpy(q + ptrdiff_t(i) * 4, &v, 4); }
};

// How a pivot inside the loop fails. Det stops at a magnitude strictly below
// the tolerance, so a NaN pivot goes on; Invert at one not at or above it,
// so a NaN pivot fails. The last pivot fails at or below the tolerance in
// both.
enum class LoopTest { Below, NotAtOrAbove };

template <class T> struct Elimination {
    bool ok;  // false: a pivot failed its test
    T det;
};

// Element (i, j) of object n is src(n, i, j), for i and j below size.
template <LoopTest Test, class A, class T> Elimination<T> eliminate(const A& src, int n, int size, T* buffer) {
    constexpr T tol = tolerance<T>();
    const Scratch<T> w{buffer, reinterpret_cast<unsigned char*>(buffer + ptrdiff_t(size) * size), size};
    for (int i = 0; i < size; ++i) {
        w.set_row(i, i);
        for (int j = 0; j < size; ++j) w.at(i, j) = src(n, i, j);
    }
    T pr = 1;
    int sign = 1;
    for (int k = 0; k + 1 < size; ++k) {
        // The first strictly greatest magnitude in table order.
        int best = k;
        T big = std::fabs(w.at(w.row(k), k));
        for (int i = k + 1; i < size; ++i) {
            const T c = std::fabs(w.at(w.row(i), k));
            if (c > big) best = i, big = c;
        }
        if (best != k) {
            const int t = w.row(k);
            w.set_row(k, w.row(best));
            w.set_row(best, t);
            sign = -sign;
        }
        const int p = w.row(k);
        const T v = w.at(p, k);
        // Strict here, not at the last pivot below.
        if (Test == LoopTest::Below ? std::fabs(v) < tol : !(std::fabs(v) >= tol)) return {false, T(0)};
        for (int i = k + 1; i < size; ++i) {
            const int r = w.row(i);
            const T l = w.at(r, k) / v;
            for (int j = k + 1; j < size; ++j) w.at(r, j) = w.at(r, j) - w.at(p, j) * l;
        }
        pr = v * pr;
    }
    const T x = w.at(w.row(size - 1), size - 1);
    if (std::fabs(x) <= tol) return {false, T(0)};
    return {true, pr * (x * T(sign))};
}

}  // namespace orsm::meas
