// Layout accessors: how element (r, c) of object n of an operand is reached in
// each of the three layouts, and how an operand moves to object f for a share
// of a parallel call. A vector is a matrix of one row (element i is (0, i)).
//
//  S: base + n*stride0 + r*stride1 + c*stride2
//  P: table[r*cols + c] + shift + n*stride0      (one table for all objects)
//  L: table[n] + shift + r*stride1 + c*stride2   (one pointer per object)
//
// A single operand of an array function is an S or P accessor with stride0 0.
// Accessors are plain values; `Contig` fixes stride2 at the element size so
// the contiguous kernels are the same templates with a compile-time stride.
#pragma once

#include "base.hpp"

namespace orsm {

template <class T, bool Contig = false> struct SAcc {
    using value_type = T;
    static constexpr bool contiguous = Contig;
    T* base;
    ptrdiff_t s0, s1, s2_;

    [[gnu::always_inline]] ptrdiff_t s2() const { return Contig ? ptrdiff_t(sizeof(T)) : s2_; }
    [[gnu::always_inline]] T& operator()(int n, int r, int c) const {
        return *byte_off(base, n * s0 + r * s1 + c * s2());
    }
    [[gnu::always_inline]] T& v(int n, int i) const { return (*this)(n, 0, i); }
    // First element of object n, for kernels that walk rows themselves.
    [[gnu::always_inline]] T* obj(int n) const { return byte_off(base, n * s0); }
    [[gnu::always_inline]] SAcc object(int f) const { return {byte_off(base, f * s0), s0, s1, s2_}; }
    template <bool C> [[gnu::always_inline]] SAcc<T, C> as() const { return {base, s0, s1, s2_}; }
};

template <class T> struct PAcc {
    using value_type = T;
    static constexpr bool contiguous = false;
    T* const* table;
    ptrdiff_t shift, s0;
    int cols;  // entries per stored row: the stored matrix's width

    [[gnu::always_inline]] T& operator()(int n, int r, int c) const {
        return *byte_off(table[r * cols + c], shift + n * s0);
    }
    [[gnu::always_inline]] T& v(int n, int i) const { return (*this)(n, 0, i); }
    [[gnu::always_inline]] PAcc object(int f) const { return {table, shift + f * s0, s0, cols}; }
};

template <class T, bool Contig = false> struct LAcc {
    using value_type = T;
    static constexpr bool contiguous = Contig;
    T* const* table;
    ptrdiff_t shift, s1, s2_;

    [[gnu::always_inline]] ptrdiff_t s2() const { return Contig ? ptrdiff_t(sizeof(T)) : s2_; }
    [[gnu::always_inline]] T& operator()(int n, int r, int c) const {
        return *byte_off(table[n], shift + r * s1 + c * s2());
    }
    [[gnu::always_inline]] T& v(int n, int i) const { return (*this)(n, 0, i); }
    [[gnu::always_inline]] T* obj(int n) const { return byte_off(table[n], shift); }
    [[gnu::always_inline]] LAcc object(int f) const { return {table + f, shift, s1, s2_}; }
    template <bool C> [[gnu::always_inline]] LAcc<T, C> as() const { return {table, shift, s1, s2_}; }
};

// Reads an operand transposed: logical (r, c) is stored (c, r). The stored
// operand's strides and table describe the stored matrix.
template <class A> struct TAcc {
    using value_type = typename A::value_type;
    static constexpr bool contiguous = A::contiguous;
    A a;
    [[gnu::always_inline]] value_type& operator()(int n, int r, int c) const { return a(n, c, r); }
    [[gnu::always_inline]] TAcc object(int f) const { return {a.object(f)}; }
};
template <class A> TAcc<A> transposed(A a) { return {a}; }

// Constructors named after the argument groups, so a frame reads like its
// argument list. Strides and shifts are widened to pointer width before any
// product, so addressing never overflows 32 bits.
template <class T> SAcc<T> s_mat(T* p, int s0, int s1, int s2) { return {p, s0, s1, s2}; }
template <class T> SAcc<T> s_one(T* p, int s1, int s2) { return {p, 0, s1, s2}; }
template <class T> SAcc<T> s_vec(T* p, int s0, int s2) { return {p, s0, 0, s2}; }
template <class T> PAcc<T> p_arr(T* const* t, int shift, int s0, int cols) { return {t, shift, s0, cols}; }
template <class T> PAcc<T> p_one(T* const* t, int shift, int cols) { return {t, shift, 0, cols}; }
template <class T> LAcc<T> l_mat(T* const* t, int shift, int s1, int s2) { return {t, shift, s1, s2}; }
template <class T> LAcc<T> l_vec(T* const* t, int shift, int s2) { return {t, shift, 0, s2}; }

// The contiguity test of S and L frames: every element stride equals the
// element size. One operand with a gap sends the whole call to the strided
// kernel.
template <class T, class... I> bool all_contiguous(I... s2) {
    return ((s2 == esize<T>) && ...);
}

}  // namespace orsm
