#!/usr/bin/env python3
"""Generate the public header include/orsm.h and the export list api/orsm.exports.

The exported interface is regular: every name is
    orsm<Family>_<form>_<type>[_<layout>]
and every argument list is built from per-operand argument groups whose
members depend on the operand kind (vector, matrix, array of either) and on
the layout (S: strided, P: element-pointer table, L: object-pointer table).
This script holds the family table and the few family-dependent argument
orders, and writes both files from it, so the two can never drift apart.

Usage:
    tools/gen_header.py            write include/orsm.h and api/orsm.exports
    tools/gen_header.py --check    exit 1 if the committed files are stale
    tools/gen_header.py --test-calls DIR
                                   write DIR/orsm_calls.hpp and DIR/orsm_calls.cpp:
                                   for the tests, an adapter per function that
                                   takes its arguments by name from one record
"""

import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
HEADER = os.path.join(ROOT, "include", "orsm.h")
EXPORTS = os.path.join(ROOT, "api", "orsm.exports")

TYPES = (("32f", "float"), ("64f", "double"))

# --------------------------------------------------------------------------
# Forms and operands
# --------------------------------------------------------------------------

def parse_form(form):
    """Split a form into operand codes, greedily: 'mava' -> ['ma', 'va']."""
    codes = []
    i = 0
    while i < len(form):
        if i + 1 < len(form) and form[i + 1] == "a":
            codes.append(form[i:i + 2])
            i += 2
        else:
            codes.append(form[i])
            i += 1
    return codes


def is_array(code):
    return code.endswith("a")


def kind(code):
    """Storage kind of an operand code: 'v', 'm', 'va' or 'ma' ('t' reads as 'm')."""
    return {"v": "v", "m": "m", "t": "m", "va": "va", "ma": "ma", "ta": "ma"}[code]


def group(role, k, layout, ctype, out, ptr_name=None):
    """Argument group of one operand.

    role   : prefix of the group members ('src1', 'dst', ...)
    k      : 'v', 'm', 'va' or 'ma'
    layout : 'S', 'P' or 'L'
    out    : True for a destination (non-const elements)
    """
    name = ptr_name or role
    array = k in ("va", "ma")
    table = layout == "P" or (layout == "L" and array)
    if table:
        ptype = ("%s* const*" % ctype) if out else ("const %s* const*" % ctype)
    else:
        ptype = ("%s*" % ctype) if out else ("const %s*" % ctype)
    args = [(ptype, name)]
    if layout == "P":
        members = ["RoiShift"] + (["Stride0"] if array else [])
    elif layout == "L" and array:
        members = ["RoiShift"] + (["Stride1"] if k == "ma" else []) + ["Stride2"]
    else:  # layout S, or a single operand of an L-layout function
        members = (["Stride0"] if array else []) + \
                  (["Stride1"] if k in ("m", "ma") else []) + ["Stride2"]
    args += [("int", role + m) for m in members]
    return args


def bare(name, ctype, out=True):
    return [(("%s*" if out else "const %s*") % ctype, name)]


def ints(*names):
    return [("int", n) for n in names]


def scalar(name, ctype):
    return [(ctype, name)]


def count_of(codes):
    return ints("count") if any(is_array(c) for c in codes) else []


def result_kind(codes, single, arr):
    return arr if any(is_array(c) for c in codes) else single

# --------------------------------------------------------------------------
# Argument builders, one per family shape
# --------------------------------------------------------------------------

def args_vec_elementwise(codes, L, T):
    """Add/Sub on vectors: vc cv vv vac cva vav vva vava."""
    vecs = [c for c in codes if c != "c"]
    a = []
    if len(vecs) == 1:
        a += group("src", kind(vecs[0]), L, T, False) + scalar("value", T)
    else:
        a += group("src1", kind(vecs[0]), L, T, False)
        a += group("src2", kind(vecs[1]), L, T, False)
    a += group("dst", result_kind(codes, "v", "va"), L, T, True)
    return a + ints("length") + count_of(codes)


def args_mat_elementwise(codes, L, T):
    """Add/Sub on matrices: src1, src2, dst, width, height[, count]."""
    a = group("src1", kind(codes[0]), L, T, False)
    a += group("src2", kind(codes[1]), L, T, False)
    a += group("dst", result_kind(codes, "m", "ma"), L, T, True)
    return a + ints("width", "height") + count_of(codes)


def args_scale(codes, L, T):
    """Mul by a constant: src, value, dst, sizes[, count]."""
    k = kind(codes[0])
    a = group("src", k, L, T, False) + scalar("value", T)
    a += group("dst", k, L, T, True)
    sizes = ints("length") if k in ("v", "va") else ints("width", "height")
    return a + sizes + count_of(codes)


def args_mul_mv(codes, L, T):
    """Mul matrix by vector: each source followed by its own sizes."""
    a = group("src1", kind(codes[0]), L, T, False) + ints("src1Width", "src1Height")
    a += group("src2", kind(codes[1]), L, T, False) + ints("src2Length")
    a += group("dst", result_kind(codes, "v", "va"), L, T, True)
    return a + count_of(codes)


def args_mul_mm(codes, L, T):
    """Mul matrix by matrix: each source followed by its own sizes."""
    a = group("src1", kind(codes[0]), L, T, False) + ints("src1Width", "src1Height")
    a += group("src2", kind(codes[1]), L, T, False) + ints("src2Width", "src2Height")
    a += group("dst", result_kind(codes, "m", "ma"), L, T, True)
    return a + count_of(codes)


def args_gaxpy(codes, L, T):
    """Gaxpy: dst = src1 * src2 + src3; src2, src3 and dst share the vector kind."""
    vk = "va" if is_array(codes[1]) else "v"
    a = group("src1", kind(codes[0]), L, T, False) + ints("src1Width", "src1Height")
    a += group("src2", vk, L, T, False) + ints("src2Length")
    a += group("src3", vk, L, T, False) + ints("src3Length")
    a += group("dst", vk, L, T, True)
    return a + count_of(codes)


def args_load_identity(codes, L, T):
    return group("dst", "ma", L, T, True) + ints("width", "height", "count")


def args_extract(codes, L, T):
    k = kind(codes[0])
    a = group("src", k, L, T, False) + bare("dst", T)
    sizes = ints("length") if k in ("v", "va") else ints("width", "height")
    return a + sizes + count_of(codes)


def args_transpose(codes, L, T):
    k = kind(codes[0])
    a = group("src", k, L, T, False) + ints("width", "height")
    a += group("dst", k, L, T, True)
    return a + count_of(codes)


def args_dot(codes, L, T):
    a = group("src1", kind(codes[0]), L, T, False)
    a += group("src2", kind(codes[1]), L, T, False)
    return a + bare("dst", T) + ints("length") + count_of(codes)


def args_cross(codes, L, T):
    a = group("src1", kind(codes[0]), L, T, False)
    a += group("src2", kind(codes[1]), L, T, False)
    a += group("dst", result_kind(codes, "v", "va"), L, T, True)
    return a + count_of(codes)


def args_l2norm(codes, L, T):
    a = group("src", kind(codes[0]), L, T, False)
    return a + bare("dst", T) + ints("length") + count_of(codes)


def args_saxpy(codes, L, T):
    a = group("src1", kind(codes[0]), L, T, False) + scalar("value", T)
    a += group("src2", kind(codes[1]), L, T, False)
    a += group("dst", result_kind(codes, "v", "va"), L, T, True)
    return a + ints("length") + count_of(codes)


def args_lcomb(codes, L, T):
    a = group("src1", kind(codes[0]), L, T, False) + scalar("value1", T)
    a += group("src2", kind(codes[1]), L, T, False) + scalar("value2", T)
    a += group("dst", result_kind(codes, "v", "va"), L, T, True)
    return a + ints("length") + count_of(codes)


def args_trace(codes, L, T):
    a = group("src", kind(codes[0]), L, T, False) + ints("size")
    return a + bare("dst", T) + count_of(codes)


def args_frobnorm(codes, L, T):
    a = group("src", kind(codes[0]), L, T, False) + ints("width", "height")
    return a + bare("dst", T) + count_of(codes)


def args_det(codes, L, T):
    a = group("src", kind(codes[0]), L, T, False) + ints("size")
    return a + bare("buffer", T) + bare("dst", T) + count_of(codes)


def args_ludecomp(codes, L, T):
    k = kind(codes[0])
    a = group("src", k, L, T, False) + bare("dstIndex", "int")
    a += group("dst", k, L, T, True)
    return a + ints("size") + count_of(codes)


def args_lubacksubst(codes, L, T):
    a = group("src1", kind(codes[0]), L, T, False) + bare("srcIndex", "int", out=False)
    a += group("src2", kind(codes[1]), L, T, False)
    a += group("dst", kind(codes[1]), L, T, True)
    return a + ints("size") + count_of(codes)


def args_invert(codes, L, T):
    k = kind(codes[0])
    a = group("src", k, L, T, False) + bare("buffer", T)
    a += group("dst", k, L, T, True)
    return a + ints("size") + count_of(codes)


def args_choldecomp(codes, L, T):
    k = kind(codes[0])
    a = group("src", k, L, T, False) + group("dst", k, L, T, True)
    return a + ints("size") + count_of(codes)


def args_cholbacksubst(codes, L, T):
    a = group("src1", kind(codes[0]), L, T, False)
    a += group("src2", kind(codes[1]), L, T, False)
    a += group("dst", kind(codes[1]), L, T, True)
    return a + ints("size") + count_of(codes)


def args_qrdecomp(codes, L, T):
    k = kind(codes[0])
    a = group("src", k, L, T, False) + bare("buffer", T)
    a += group("dst", k, L, T, True)
    return a + ints("width", "height") + count_of(codes)


def args_qrbacksubst(codes, L, T):
    a = group("src1", kind(codes[0]), L, T, False) + bare("buffer", T)
    a += group("src2", kind(codes[1]), L, T, False)
    a += group("dst", kind(codes[1]), L, T, True)
    return a + ints("width", "height") + count_of(codes)


def args_eigvals(codes, L, T):
    a = group("src", kind(codes[0]), L, T, False) + bare("buffer", T)
    return a + bare("dst", T) + ints("size") + count_of(codes)


def args_eigvecs(codes, L, T):
    k = kind(codes[0])
    a = group("src", k, L, T, False) + bare("buffer", T)
    a += group("dst", k, L, T, True, ptr_name="dstVectors")
    return a + bare("dstValues", T) + ints("size") + count_of(codes)

# --------------------------------------------------------------------------
# Family table
#
# Each section: (family, one-line description, builder, forms).  A form
# written with a trailing '+L' exists in layouts S, P and L; otherwise in
# S and P only.  Copy is handled apart (two-letter layouts).
# --------------------------------------------------------------------------

def F(text):
    out = []
    for tok in text.split():
        if tok.endswith("+L"):
            out.append((tok[:-2], ("", "P", "L")))
        else:
            out.append((tok, ("", "P")))
    return out


SECTIONS = [
    ("LoadIdentity", "fill each matrix of an array with the identity (ones on the main diagonal)",
     args_load_identity, F("ma+L")),
    ("Copy", "copy an array of vectors or matrices, possibly between two layouts",
     None, None),
    ("Extract", "gather a vector, a matrix or an array of them into one packed block",
     args_extract, F("v m t va+L ma+L ta+L")),
    ("Transpose", "write the transpose of a matrix or of each matrix of an array",
     args_transpose, F("m ma+L")),
    ("Add", "element-wise sum of vectors or matrices, or of a vector and a constant",
     None, F("vc vv vac+L vav+L vava+L")),
    ("Add", None,
     None, F("mm tm tt mam+L tam+L mat+L tat+L mama+L tama+L tata+L")),
    ("Sub", "element-wise difference of vectors or matrices, or of a vector and a constant",
     None, F("vc cv vv vac+L cva+L vav+L vva+L vava+L")),
    ("Sub", None,
     None, F("mm tm mt tt mam+L tam+L mat+L tat+L mama+L tama+L mata+L tata+L "
             "mma+L tma+L mta+L tta+L")),
    ("Mul", "scale a vector or a matrix (possibly read transposed) by a constant",
     args_scale, F("vc mc tc vac+L mac+L tac+L")),
    ("DotProduct", "inner product of two vectors; one scalar per pair into a packed array",
     args_dot, F("vv vav+L vava+L")),
    ("CrossProduct", "cross product of two 3-element vectors",
     args_cross, F("vv vav+L vva+L vava+L")),
    ("L2Norm", "Euclidean length of a vector; one scalar per vector into a packed array",
     args_l2norm, F("v va+L")),
    ("Saxpy", "dst = src1 * value + src2 on vectors",
     args_saxpy, F("vv vav+L vva+L vava+L")),
    ("LComb", "linear combination dst = src1 * value1 + src2 * value2 on vectors",
     args_lcomb, F("vv vav+L vava+L")),
    ("Mul", "product of a matrix (possibly read transposed) and a vector",
     args_mul_mv, F("mv tv mav+L tav+L mva+L tva+L mava+L tava+L")),
    ("Gaxpy", "dst = src1 * src2 + src3: matrix times vector plus vector",
     args_gaxpy, F("mv mva+L")),
    ("Mul", "product of two matrices, either of them possibly read transposed",
     args_mul_mm, F("mm tm mt tt mam+L tam+L mat+L tat+L mama+L tama+L mata+L tata+L "
                    "mma+L tma+L mta+L tta+L")),
    ("Trace", "sum of the main diagonal of a square matrix; one scalar per matrix",
     args_trace, F("m ma+L")),
    ("FrobNorm", "Frobenius norm of a matrix; one scalar per matrix",
     args_frobnorm, F("m ma+L")),
    ("Det", "determinant of a square matrix; one scalar per matrix",
     args_det, F("m ma+L")),
    ("LUDecomp", "LU factorisation with partial pivoting; pivot rows into dstIndex",
     args_ludecomp, F("m ma+L")),
    ("LUBackSubst", "solve A x = b from an LU factor and its pivot table",
     args_lubacksubst, F("mv mva+L mava+L")),
    ("Invert", "inverse of a square matrix",
     args_invert, F("m ma+L")),
    ("CholeskyDecomp", "Cholesky factorisation of a symmetric positive definite matrix",
     args_choldecomp, F("m ma+L")),
    ("CholeskyBackSubst", "solve A x = b from a Cholesky factor",
     args_cholbacksubst, F("mv mva+L mava+L")),
    ("QRDecomp", "QR factorisation by Householder reflections",
     args_qrdecomp, F("m ma+L")),
    ("QRBackSubst", "least-squares solve of A x = b from a QR factor",
     args_qrbacksubst, F("mv mva+L mava+L")),
    ("EigenValuesSym", "eigenvalues of a symmetric matrix",
     args_eigvals, F("m ma+L")),
    ("EigenValuesVectorsSym", "eigenvalues and eigenvectors of a symmetric matrix",
     args_eigvecs, F("m ma+L")),
]

COPY_LAYOUTS = ("SS", "SP", "SL", "PS", "PP", "PL", "LS", "LP", "LL")


def args_copy(form, pair, T):
    k = form  # 'va' or 'ma'
    a = group("src", k, pair[0], T, False) + group("dst", k, pair[1], T, True)
    sizes = ints("length") if k == "va" else ints("width", "height")
    return a + sizes + ints("count")


def builder_for(family, codes):
    if family in ("Add", "Sub"):
        vector = all(c in ("c", "v", "va") for c in codes)
        return args_vec_elementwise if vector else args_mat_elementwise
    raise AssertionError(family)


def functions():
    """Yield (section index, name, args) for every exported function."""
    for si, (fam, _desc, build, forms) in enumerate(SECTIONS):
        if fam == "Copy":
            for form in ("va", "ma"):
                for tcode, ctype in TYPES:
                    for pair in COPY_LAYOUTS:
                        name = "orsmCopy_%s_%s_%s" % (form, tcode, pair)
                        yield si, name, args_copy(form, pair, ctype)
            continue
        for form, layouts in forms:
            codes = parse_form(form)
            b = build or builder_for(fam, codes)
            for tcode, ctype in TYPES:
                for lay in layouts:
                    name = "orsm%s_%s_%s%s" % (fam, form, tcode, "_" + lay if lay else "")
                    yield si, name, b(codes, lay or "S", ctype)

# --------------------------------------------------------------------------
# Output
# --------------------------------------------------------------------------

PREAMBLE = r"""/*
 * orsm.h - public interface of the orsm small-matrix algebra library.
 *
 * This file is generated by tools/gen_header.py; edit the generator, not
 * this file, and regenerate (the export list api/orsm.exports comes from the
 * same table).
 *
 * Naming.  Every function but orsmGetLibVersion is named
 *     orsm<Family>_<form>_<type>[_<layout>]
 * <form> lists the source operands in call order: m (matrix), t (matrix read
 * transposed), v (vector), c (constant), and ma, ta, va for arrays of them.
 * <type> is 32f (float) or 64f (double).  <layout> is absent for the strided
 * layout, P for the element-pointer layout and L for the object-pointer
 * layout; Copy alone carries two letters, source layout then destination.
 *
 * Layouts and argument groups.  Each operand x brings a group of arguments:
 *     strided (no suffix)  x, [xStride0], [xStride1], xStride2
 *         x points at the first element; element (r, c) of object n lies at
 *         byte offset n*xStride0 + r*xStride1 + c*xStride2.
 *     P                    x, xRoiShift, [xStride0]
 *         x is a table with one pointer per element (row-major, width*height
 *         or length entries), shared by all objects; element k of object n
 *         lies at x[k] + xRoiShift + n*xStride0 bytes.
 *     L                    x, xRoiShift, [xStride1], xStride2   (arrays only)
 *         x is a table with one pointer per object; element (r, c) of object
 *         n lies at x[n] + xRoiShift + r*xStride1 + c*xStride2 bytes.
 * Stride0 appears for array operands, Stride1 for matrices.  In an L function
 * a single (non-array) vector or matrix operand is passed as in the strided
 * layout.  All strides and shifts count bytes.
 *
 * How tables are typed.  A P-layout operand and an L-layout array operand is
 * a table of pointers: a source table is `const float* const*` (or double),
 * a destination table is `float* const*`.  C++ callers may pass a `float**`
 * for either without a cast.  C does not convert `float**` to
 * `const float* const*` implicitly, so a C caller holding `float**` source
 * tables must cast, e.g. `(const float* const*)table`; destination tables
 * need no cast.
 *
 * Scalar results (DotProduct, L2Norm, Trace, FrobNorm, Det), the Extract
 * block, eigenvalues and LU pivot tables are plain packed arrays in every
 * layout: result n at element n.  `buffer` is caller-owned scratch whose
 * contents are undefined on return.
 *
 * Every function returns an OrsStatus: StatusOk (0) or a negative code.
 * Argument faults are reported before anything is read or written.
 */
#ifndef ORSM_ORSM_H
#define ORSM_ORSM_H

#ifndef ORSM_API
#  if defined(__GNUC__) || defined(__clang__)
#    define ORSM_API __attribute__((visibility("default")))
#  else
#    define ORSM_API
#  endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result of every function but orsmGetLibVersion: 0 on success, else < 0. */
typedef int OrsStatus;

enum {
    StatusOk                  =    0, /* all done */
    StatusBadSize             =   -6, /* width, height, size or length below 1 */
    StatusNullPointer         =   -8, /* a pointer argument is null */
    StatusDivideByZero        =  -10, /* QR: a column too small to reflect */
    StatusNotPositiveDefinite = -179, /* Cholesky: pivot not above the limit */
    StatusBadStride           = -182, /* stride below 1 or not a multiple of the element size */
    StatusSingular            = -195, /* pivot or determinant within tolerance of zero */
    StatusBadRoiShift         = -202, /* shift negative or not a multiple of the element size */
    StatusBadCount            = -203, /* count below 1 */
    StatusSizeMismatch        = -204, /* operand sizes do not fit each other */
    StatusNotConverged        = -205  /* eigenvalue iteration did not converge */
};

/* Constant record describing the library build; owned by the library. */
typedef struct OrsLibraryVersion {
    int versionMajor;
    int versionMinor;
    int buildMajor;
    int buildNumber;
    char cpuTag[4];
    const char* libraryName;
    const char* versionText;
    const char* buildDateText;
} OrsLibraryVersion;

/* Version query: returns the library's one static version record. */
ORSM_API const OrsLibraryVersion* orsmGetLibVersion(void);
"""

POSTAMBLE = """
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ORSM_ORSM_H */
"""

WRAP = 100
INDENT = "    "


def format_decl(name, args):
    head = "ORSM_API OrsStatus %s(" % name
    params = ["%s %s" % (t, n) for t, n in args]
    one = head + ", ".join(params) + ");"
    if len(one) <= WRAP:
        return one
    lines = [head]
    cur = INDENT
    for i, p in enumerate(params):
        piece = p + (");" if i == len(params) - 1 else ",")
        if cur != INDENT and len(cur) + 1 + len(piece) > WRAP:
            lines.append(cur.rstrip())
            cur = INDENT
        cur += ("" if cur == INDENT else " ") + piece
    lines.append(cur)
    return "\n".join(lines)


def render():
    out = [PREAMBLE]
    names = ["orsmGetLibVersion"]
    last = None
    for si, name, args in functions():
        if si != last:
            fam, desc, _b, _f = SECTIONS[si]
            if desc is not None:
                out.append("\n/* %s: %s. */\n" % (fam, desc))
            else:
                out.append("\n")
            last = si
        out.append(format_decl(name, args) + "\n")
        names.append(name)
    out.append(POSTAMBLE)
    return "".join(out), names


def check_counts(names):
    fn = [n for n in names if n != "orsmGetLibVersion"]
    assert len(names) == 689, len(names)
    assert len(set(names)) == len(names), "duplicate names"
    n32 = sorted(n for n in fn if "_32f" in n)
    n64 = sorted(n for n in fn if "_64f" in n)
    assert len(n32) == 344 and len(n64) == 344, (len(n32), len(n64))
    assert [n.replace("_32f", "_64f") for n in n32] == n64
    per_layout = {"": 0, "P": 0, "L": 0, "copy": 0}
    per_family = {}
    for n in fn:
        parts = n.split("_")
        fam = parts[0][4:]
        per_family[fam] = per_family.get(fam, 0) + 1
        lay = parts[3] if len(parts) > 3 else ""
        per_layout["copy" if fam == "Copy" else lay] += 1
    assert per_layout == {"": 246, "P": 246, "L": 160, "copy": 36}, per_layout
    expected = {
        "Add": 80, "Sub": 130, "Mul": 162, "LoadIdentity": 6, "Copy": 36,
        "Extract": 30, "Transpose": 10, "DotProduct": 16, "CrossProduct": 22,
        "L2Norm": 10, "Saxpy": 22, "LComb": 16, "Gaxpy": 10, "Trace": 10,
        "FrobNorm": 10, "Det": 10, "LUDecomp": 10, "LUBackSubst": 16,
        "Invert": 10, "CholeskyDecomp": 10, "CholeskyBackSubst": 16,
        "QRDecomp": 10, "QRBackSubst": 16, "EigenValuesSym": 10,
        "EigenValuesVectorsSym": 10,
    }
    assert per_family == expected, per_family


def render_test_calls():
    """The tests' call adapters: every argument name of the interface becomes
    an enumerator, and each function an entry that reads its arguments from
    a Bag indexed by those enumerators (pointers, ints, floats, doubles)."""
    fns = list(functions())
    params = []
    for _si, _name, args in fns:
        for _t, n in args:
            if n not in params:
                params.append(n)
    arity = max(len(args) for _si, _n, args in fns)
    hpp = ["// Generated by tools/gen_header.py --test-calls; do not edit.\n",
           "#pragma once\n\n#include \"orsm.h\"\n\nnamespace orsmtest::gen {\n\n",
           "enum Param : int {\n"]
    hpp += ["    %s,\n" % n for n in params]
    hpp.append("    kParams\n};\n\n")
    hpp.append("""// Every argument of a call, by name; a function reads the ones it takes.
struct Bag {
    void* ptr[kParams] = {};
    int i[kParams] = {};
    float f[kParams] = {};
    double d[kParams] = {};
};

struct Fn {
    const char* name;
    const void* address;  // null while the library lacks the function
    OrsStatus (*call)(const Bag&);
    int arity;
    Param params[%d];
    const char* types[%d];
};

// The entry of an exported function the library has, or null; the enumerator of an argument
// name, or -1; the name of an enumerator.
const Fn* find(const char* name);
int param(const char* name);
const char* param_name(int k);

}  // namespace orsmtest::gen
""" % (arity, arity))
    cpp = ["// Generated by tools/gen_header.py --test-calls; do not edit.\n",
           "#include \"orsm_calls.hpp\"\n\n#include <cstring>\n\nnamespace orsmtest::gen {\nnamespace {\n\n",
           "const char* const kNames[] = {\n"]
    cpp += ["    \"%s\",\n" % n for n in params]
    cpp.append("};\n\n}  // namespace\n}  // namespace orsmtest::gen\n\n")
    # Weak references: a test program links whatever functions the library
    # has so far, and finds only those.
    cpp += ["#pragma weak %s\n" % name for _si, name, _args in fns]
    cpp.append("\nnamespace orsmtest::gen {\nnamespace {\n\nconst Fn kFns[] = {\n")
    for _si, name, args in fns:
        exprs = []
        for t, n in args:
            if t.endswith("*"):
                exprs.append("static_cast<%s>(b.ptr[%s])" % (t, n))
            elif t == "int":
                exprs.append("b.i[%s]" % n)
            else:
                exprs.append("b.%s[%s]" % ("f" if t == "float" else "d", n))
        cpp.append("    {\"%s\", reinterpret_cast<const void*>(&%s), [](const Bag& b) { return %s(%s); }, %d, {%s}, {%s}},\n" % (
            name, name, name, ", ".join(exprs), len(args), ", ".join(n for _t, n in args),
            ", ".join('"%s"' % t for t, _n in args)))
    cpp.append("""};

}  // namespace

const Fn* find(const char* name) {
    for (const Fn& f : kFns)
        if (std::strcmp(f.name, name) == 0) return f.address ? &f : nullptr;
    return nullptr;
}

int param(const char* name) {
    for (int k = 0; k < kParams; ++k)
        if (std::strcmp(kNames[k], name) == 0) return k;
    return -1;
}

const char* param_name(int k) { return kNames[k]; }

}  // namespace orsmtest::gen
""")
    return "".join(hpp), "".join(cpp)


def write_if_changed(path, text):
    try:
        with open(path) as f:
            if f.read() == text:
                return
    except OSError:
        pass
    os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    with open(path, "w") as f:
        f.write(text)


def main(argv):
    if "--test-calls" in argv:
        out = argv[argv.index("--test-calls") + 1]
        hpp, cpp = render_test_calls()
        write_if_changed(os.path.join(out, "orsm_calls.hpp"), hpp)
        write_if_changed(os.path.join(out, "orsm_calls.cpp"), cpp)
        return 0
    header, names = render()
    check_counts(names)
    exports = "".join(n + "\n" for n in sorted(names, key=lambda s: s.encode()))
    if "--check" in argv:
        ok = True
        for path, text in ((HEADER, header), (EXPORTS, exports)):
            try:
                with open(path) as f:
                    if f.read() != text:
                        print("stale: %s" % path)
                        ok = False
            except OSError:
                print("missing: %s" % path)
                ok = False
        return 0 if ok else 1
    for path, text in ((HEADER, header), (EXPORTS, exports)):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write(text)
    print("%d functions written" % len(names))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
