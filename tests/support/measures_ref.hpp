// Scalar references of the matrix measures, written straight from their
// definitions: element (r, c) comes from a callable x(r, c), every operation
// is one rounded operation in T.
#pragma once

#include <cmath>
#include <vector>

namespace orsmtest::ref {

template <class T> constexpr T tol() { return sizeof(T) == 4 ? T(0x1p-23) : T(0x1p-52); }

// The diagonal from a00 at orders 3 to 6, from 0 at the others; the strided
// kernels start order 5 at a44 and order 6 at a44 + a55.
template <class T, class X> T trace(const X& x, int n, bool strided) {
    if (strided && n == 5) return (((x(4, 4) + x(0, 0)) + x(1, 1)) + x(2, 2)) + x(3, 3);
    if (strided && n == 6) return ((((x(4, 4) + x(5, 5)) + x(0, 0)) + x(1, 1)) + x(2, 2)) + x(3, 3);
    T s = n >= 3 && n <= 6 ? x(0, 0) : T(0);
    for (int i = n >= 3 && n <= 6 ? 1 : 0; i < n; ++i) s = s + x(i, i);
    return s;
}

// Laplace expansion along the last row of rows 0 .. k-1 on `cols`,
// recursively, terms from the last column to the first with alternating
// signs; but the two minors of order 6 that take their terms in another
// order.
template <class T, class X> T laplace(const X& x, const std::vector<int>& cols, int order) {
    const int k = int(cols.size());
    if (k == 1) return x(0, cols[0]);
    std::vector<int> pick, sign;
    for (int i = k - 1; i >= 0; --i) pick.push_back(i), sign.push_back((k - 1 - i) % 2 ? -1 : 1);
    if (order == 6 && cols == std::vector<int>{0, 1, 3, 4, 5})
        pick = {4, 2, 3, 1, 0}, sign = {1, 1, -1, -1, 1};
    if (order == 6 && k == 6) pick = {5, 4, 3, 2, 0, 1}, sign = {1, -1, 1, -1, -1, 1};
    T s = 0;
    for (int t = 0; t < k; ++t) {
        std::vector<int> rest = cols;
        rest.erase(rest.begin() + pick[t]);
        const T term = x(k - 1, cols[pick[t]]) * laplace<T>(x, rest, order);
        s = t == 0 ? term : sign[t] > 0 ? s + term : s - term;
    }
    return s;
}
template <class T, class X> T det_closed(const X& x, int n) {
    std::vector<int> cols;
    for (int c = 0; c < n; ++c) cols.push_back(c);
    return laplace<T>(x, cols, n);
}

// Elimination with partial pivoting through a row table: strict test inside
// the loop, at-or-below test on the last pivot.
template <class T, class X> T det_elim(const X& x, int n) {
    std::vector<std::vector<T>> a(n, std::vector<T>(n));
    std::vector<int> q(n);
    for (int i = 0; i < n; ++i) {
        q[i] = i;
        for (int j = 0; j < n; ++j) a[i][j] = x(i, j);
    }
    T pr = 1, s = 1;
    for (int k = 0; k < n - 1; ++k) {
        int best = k;
        for (int i = k + 1; i < n; ++i)
            if (std::fabs(a[q[i]][k]) > std::fabs(a[q[best]][k])) best = i;
        if (best != k) std::swap(q[k], q[best]), s = -s;
        const T v = a[q[k]][k];
        if (std::fabs(v) < tol<T>()) return 0;
        for (int i = k + 1; i < n; ++i) {
            const T l = a[q[i]][k] / v;
            for (int j = k + 1; j < n; ++j) a[q[i]][j] = a[q[i]][j] - a[q[k]][j] * l;
        }
        pr = v * pr;
    }
    const T last = a[q[n - 1]][n - 1];
    return std::fabs(last) <= tol<T>() ? T(0) : pr * (last * s);
}
template <class T, class X> T det(const X& x, int n) {
    return n >= 3 && n <= 6 ? det_closed<T>(x, n) : det_elim<T>(x, n);
}

// Sums of squares in the orders that bind their bits.
// Running sum, in T, or in a wider type for the lane kernels.
template <class T, class X> T squares_running(const X& x, int w, int h) {
    T s = 0;
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) s = s + T(x(r, c)) * T(x(r, c));
    return s;
}
template <class T, class X> T squares_pairs(const X& x, int w, int h) {
    std::vector<T> v;
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) v.push_back(x(r, c) * x(r, c));
    T s = 0;
    std::size_t i = 0;
    for (; i + 1 < v.size(); i += 2) s = s + (v[i] + v[i + 1]);
    if (i < v.size()) s = s + v[i];
    return s;
}
}  // namespace orsmtest::ref
