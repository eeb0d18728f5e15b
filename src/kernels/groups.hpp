// Groups of objects side by side: the frame's half of the fast paths whose
// vector lanes run over objects (kernels/lanes.hpp holds the kernels' half).
//
// Such a kernel reads all objects of a group before it writes any, where the
// scalar path finishes one object before it reads the next. The two give the
// same results only when nothing a call writes meets what it reads from
// another object; a frame takes the groups only when the tests here say so.
#pragma once

#include "common/base.hpp"

namespace orsm::groups {

// A packed S operand: object n at base + n*s0, row r at + r*s1, elements
// one element apart (a vector: one row, s1 unused).
template <class T> struct Packed {
    T* base;
    ptrdiff_t s0, s1;
    const char* lo() const { return reinterpret_cast<const char*>(base); }
    // One past the last byte of objects [0, count) of `rows` rows of `cols`.
    const char* hi(int count, int rows, int cols) const {
        return lo() + (count - 1) * s0 + (rows - 1) * s1 + cols * ptrdiff_t(sizeof(T));
    }
};

// The bytes of `count` runs of `per` elements one after another.
struct Bytes {
    const char* lo;
    const char* hi;
    template <class T> static Bytes of(const T* p, ptrdiff_t elems) {
        const char* c = reinterpret_cast<const char*>(p);
        return {c, c + elems * ptrdiff_t(sizeof(T))};
    }
    template <class T> static Bytes of(const Packed<T>& p, int count, int rows, int cols) {
        return {p.lo(), p.hi(count, rows, cols)};
    }
    bool meets(Bytes o) const { return lo < o.hi && o.lo < hi; }
};

// dst rewrites src in place object by object: the same place and strides,
// rows and objects apart. The scalar path too reads such an object whole
// before it writes it, so groups give its results.
template <class T> bool in_place(const Packed<const T>& s, const Packed<T>& d, int rows, int cols) {
    const ptrdiff_t row = cols * ptrdiff_t(sizeof(T));
    return s.lo() == d.lo() && s.s0 == d.s0 && (rows == 1 || (s.s1 == d.s1 && s.s1 >= row)) &&
           s.s0 >= (rows - 1) * s.s1 + row;
}

}  // namespace orsm::groups
