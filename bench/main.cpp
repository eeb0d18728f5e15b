// orsm_bench: one process, one table. Every case runs all its competitors
// round-robin, sample after sample, and reports the median time per object,
// so the ratios between rows come from the same minutes of the same noisy
// machine. Each competitor's output is compared once with the plain loop
// built without contraction: the library must match it bit for bit.
//
// Library functions are referenced weakly: a function that the library in
// hand does not define yet has a null address and its rows print n/a. This
// needs the shared library (a weak reference does not pull a member out of
// a static archive).
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "orscore.h"
#include "orsm.h"
#include "peers.hpp"

#define BENCH_STR(x) #x
#define BENCH_WEAK(f) _Pragma(BENCH_STR(weak f))
#define BENCH_ORSM_USED(X)                                                                        \
    X(orsmMul_mama_32f) X(orsmMul_mama_64f) X(orsmMul_mam_32f) X(orsmMul_mam_64f)                 \
    X(orsmMul_mama_32f_P) X(orsmMul_mama_64f_P) X(orsmMul_mm_32f) X(orsmMul_mm_64f)               \
    X(orsmAdd_vava_32f) X(orsmAdd_vava_64f) X(orsmAdd_mama_32f) X(orsmAdd_mama_64f)               \
    X(orsmAdd_mama_32f_P) X(orsmAdd_mama_64f_P) X(orsmTranspose_ma_32f) X(orsmTranspose_ma_64f)       \
    X(orsmLUDecomp_ma_32f) X(orsmLUDecomp_ma_64f) X(orsmLUBackSubst_mava_32f)                     \
    X(orsmLUBackSubst_mava_64f) X(orsmDet_ma_32f) X(orsmDet_ma_64f) X(orsmInvert_ma_32f)           \
    X(orsmInvert_ma_64f) X(orsmCholeskyDecomp_ma_32f) X(orsmCholeskyDecomp_ma_64f)                 \
    X(orsmCholeskyBackSubst_mava_32f) X(orsmCholeskyBackSubst_mava_64f) X(orsmQRDecomp_ma_32f)     \
    X(orsmQRDecomp_ma_64f) X(orsmQRBackSubst_mava_32f) X(orsmQRBackSubst_mava_64f)                 \
    X(orsmEigenValuesSym_ma_32f) X(orsmEigenValuesSym_ma_64f) X(orsmDet_ma_32f_P) X(orsmDet_ma_64f_P)
BENCH_ORSM_USED(BENCH_WEAK)

namespace {

using namespace bench;

// ---- options ------------------------------------------------------------------

struct Options {
    bool quick = false;
    long large = 1000000;   // objects of the out-of-cache cases
    long small = 1000;      // objects of the in-cache cases
    int samples_small = 9;  // medians of this many samples
    int samples_large = 5;
    double target_s = 0.004;  // minimum time of one in-cache sample
    std::vector<std::string> only;
    std::string cases;  // run only the cases whose name contains this
    bool wants(const char* section) const {
        return only.empty() || std::find(only.begin(), only.end(), section) != only.end();
    }
};
Options opt;

const char* const kSections[] = {"machine", "products", "soa", "single", "add", "transpose", "solvers", "threads"};

void usage() {
    std::printf(
        "usage: orsm_bench [--quick] [--only SECTION[,SECTION...]] [--cases TEXT] [--large N]\n"
        "                  [--samples K]\n"
        "sections: machine products soa single add transpose solvers threads\n"
        "  --quick     smoke run: 100000 objects out of cache, 3 samples\n"
        "  --cases T   only the cases whose name contains T (e.g. 'mama f32 n3 N=1M')\n"
        "  --large N   objects of the out-of-cache cases (default 1000000)\n"
        "  --samples K samples per case (median; default 9 in cache, 5 out of cache)\n");
}

bool parse(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (a == "--quick") {
            opt.quick = true;
            opt.large = 100000;
            opt.samples_small = opt.samples_large = 3;
            opt.target_s = 0.001;
        } else if (a == "--only") {
            const char* v = next();
            if (!v) return false;
            std::string s = v;
            for (size_t p = 0; p <= s.size();) {
                size_t q = s.find(',', p);
                if (q == std::string::npos) q = s.size();
                const std::string name = s.substr(p, q - p);
                if (std::find(std::begin(kSections), std::end(kSections), name) == std::end(kSections)) {
                    std::fprintf(stderr, "unknown section '%s'\n", name.c_str());
                    return false;
                }
                opt.only.push_back(name);
                p = q + 1;
            }
        } else if (a == "--cases") {
            const char* v = next();
            if (!v) return false;
            opt.cases = v;
        } else if (a == "--large") {
            const char* v = next();
            if (!v || std::atol(v) < 1000) return false;
            opt.large = std::atol(v);
        } else if (a == "--samples") {
            const char* v = next();
            if (!v || std::atoi(v) < 1) return false;
            opt.samples_small = opt.samples_large = std::atoi(v);
        } else {
            return false;
        }
    }
    return true;
}

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

// ---- memory -----------------------------------------------------------------------

// Four operands of the same size (two sources, the dst under test and the
// reference dst), each large enough for the biggest case, touched once.
struct Buffers {
    size_t bytes = 0;
    unsigned char* p[4] = {};
    void init(size_t b) {
        bytes = (b + 4095) & ~size_t(4095);
        for (auto& q : p) {
            q = static_cast<unsigned char*>(std::aligned_alloc(4096, bytes));
            if (!q) {
                std::fprintf(stderr, "out of memory (%zu bytes per operand)\n", bytes);
                std::exit(1);
            }
            std::memset(q, 0, bytes);
        }
    }
    template <class T> T* a() { return reinterpret_cast<T*>(p[0]); }
    template <class T> T* b() { return reinterpret_cast<T*>(p[1]); }
    template <class T> T* c() { return reinterpret_cast<T*>(p[2]); }
    template <class T> T* r() { return reinterpret_cast<T*>(p[3]); }
};
Buffers buf;

// Stream arrays of the bandwidth reference, apart from the operands so that
// out-of-cache cases can sample the bandwidth in their own rounds.
struct Stream {
    long len = (64L << 20) / sizeof(double);  // 64 MiB per array
    double *a = nullptr, *b = nullptr, *c = nullptr;
    void init() {
        for (double** q : {&a, &b, &c}) {
            *q = static_cast<double*>(std::aligned_alloc(4096, len * sizeof(double)));
            if (!*q) std::exit(1);
            for (long i = 0; i < len; ++i) (*q)[i] = 1.0;
        }
    }
    double copy_gbs() const { return 2.0 * len * 8 / machine::copy_pass(a, b, len) * 1e-9; }
    double triad_gbs() const { return 3.0 * len * 8 / machine::triad_pass(a, b, c, 3.0, len) * 1e-9; }
};
Stream stream;
// Bandwidth of the machine section (or of one pass at start-up), used by
// quick runs, which do not sample it again in every round.
double g_copy_gbs = 0, g_triad_gbs = 0;

// Sources get values in [-1, 1), made afresh whenever the element type
// changes (the same memory serves both types).
int g_filled = 0;  // 1: float, 2: double
template <class T> void fill_sources() {
    int& filled = g_filled;
    const int want = sizeof(T) == 4 ? 1 : 2;
    if (filled == want) return;
    uint64_t s = 0x9e3779b97f4a7c15ull;
    const size_t len = buf.bytes / sizeof(T);
    for (int op = 0; op < 2; ++op) {
        T* x = op ? buf.b<T>() : buf.a<T>();
        for (size_t i = 0; i < len; ++i) {
            s ^= s << 13;
            s ^= s >> 7;
            s ^= s << 17;
            x[i] = T(double(s >> 11) * 0x1p-52 - 1.0);
        }
    }
    filled = want;
}

// ---- the table ----------------------------------------------------------------------

struct Row {
    std::string impl;
    int threads = 1;
    bool available = true;
    bool is_orsm = false;
    std::function<void()> pass;  // one pass over all objects of the case
    std::string check;
    std::string other;           // for a row on another layout: said instead of the check
    double ns = 0;               // median ns per object
    std::vector<double> samples;
};

struct Case {
    std::string name;
    long objects = 0;         // objects per pass (calls, for the single-call cases)
    double bytes_per_obj = 0; // bytes moved per object
    bool out_of_cache = false;
    bool bit_exact_peers = false;  // peers too must give the reference bits
    bool orsm_exact = true;        // the library must give the reference bits
    bool is_float = true;
    long len = 0;             // elements of dst compared with the reference
    double tol = 0;           // allowed absolute error of a peer
    std::function<void()> reference;  // writes the reference into buf.r
    std::vector<Row> rows;
};

void print_header() {
    std::printf("%-28s %-16s %3s %10s %9s %8s %6s %6s %9s  %s\n", "case", "impl", "thr", "ns/obj",
                "Mobj/s", "GB/s", "%copy", "%triad", "orsm/impl", "check");
    std::printf("%s\n", std::string(118, '-').c_str());
}

void print_section(const char* title) { std::printf("-- %s\n", title); }

template <class T> std::string compare(const T* got, const T* want, long len, double tol, bool exact) {
    long differ = 0;
    double maxerr = 0;
    for (long i = 0; i < len; ++i) {
        T g = got[i], w = want[i];
        if (std::memcmp(&g, &w, sizeof(T)) == 0 || (g == 0 && w == 0)) continue;
        ++differ;
        const double e = std::isnan(double(g)) ? INFINITY : std::fabs(double(g) - double(w));
        maxerr = std::max(maxerr, e);
    }
    if (differ == 0) return "bit=";
    char s[64];
    if (exact || maxerr > tol)
        std::snprintf(s, sizeof s, "MISMATCH %ld (max %.1e)", differ, maxerr);
    else
        std::snprintf(s, sizeof s, "~ max %.1e", maxerr);
    return s;
}

void run_case(Case& cs) {
    if (!opt.cases.empty() && cs.name.find(opt.cases) == std::string::npos) return;
    cs.reference();
    const long len = cs.len;
    // Check once per competitor; the pass also serves to size the samples.
    std::vector<long> reps(cs.rows.size(), 1);
    for (size_t i = 0; i < cs.rows.size(); ++i) {
        Row& r = cs.rows[i];
        if (!r.available) continue;
        std::memset(buf.c<unsigned char>(), 0xff, len * (cs.is_float ? 4 : 8));
        const double t0 = now();
        r.pass();
        const double t = now() - t0;
        const bool exact = (r.is_orsm && cs.orsm_exact) || cs.bit_exact_peers;
        r.check = !r.other.empty() ? r.other
                  : cs.is_float ? compare(buf.c<float>(), buf.r<float>(), len, cs.tol, exact)
                              : compare(buf.c<double>(), buf.r<double>(), len, cs.tol, exact);
        if (!cs.out_of_cache) reps[i] = std::max(1L, long(std::ceil(opt.target_s / std::max(t, 1e-9))));
        if (!cs.out_of_cache) r.pass();  // warm
    }
    const int samples = cs.out_of_cache ? opt.samples_large : opt.samples_small;
    std::vector<double> copy_gbs, triad_gbs;
    for (int s = 0; s < samples; ++s) {
        if (cs.out_of_cache && !opt.quick) {
            // The bandwidth of this very minute: the machine is shared.
            copy_gbs.push_back(stream.copy_gbs());
            triad_gbs.push_back(stream.triad_gbs());
        }
        for (size_t k = 0; k < cs.rows.size(); ++k) {
            // Start each round at another row, so no row always follows the same one.
            const size_t i = (k + s) % cs.rows.size();
            Row& r = cs.rows[i];
            if (!r.available) continue;
            const double t0 = now();
            for (long q = 0; q < reps[i]; ++q) r.pass();
            const double t = now() - t0;
            r.samples.push_back(t * 1e9 / double(reps[i]) / double(cs.objects));
        }
    }
    const double copy_ref = copy_gbs.empty() ? g_copy_gbs : median(copy_gbs);
    const double triad_ref = triad_gbs.empty() ? g_triad_gbs : median(triad_gbs);
    double orsm_ns = 0;
    for (Row& r : cs.rows) {
        if (!r.available) continue;
        r.ns = median(r.samples);
        if (r.is_orsm && r.threads == 1) orsm_ns = r.ns;
    }
    for (Row& r : cs.rows) {
        char ns[32] = "n/a", mps[32] = "", gbs[32] = "", pc[32] = "", pt[32] = "", ratio[32] = "";
        if (r.available) {
            std::snprintf(ns, sizeof ns, "%.2f", r.ns);
            std::snprintf(mps, sizeof mps, "%.1f", 1e3 / r.ns);
            if (cs.bytes_per_obj > 0) {
                const double g = cs.bytes_per_obj / r.ns;
                std::snprintf(gbs, sizeof gbs, "%.2f", g);
                if (cs.out_of_cache && copy_ref > 0) {
                    std::snprintf(pc, sizeof pc, "%.0f", 100 * g / copy_ref);
                    std::snprintf(pt, sizeof pt, "%.0f", 100 * g / triad_ref);
                }
            }
            if (orsm_ns > 0) std::snprintf(ratio, sizeof ratio, "%.2f", orsm_ns / r.ns);
            else std::snprintf(ratio, sizeof ratio, "n/a");
        }
        char thr[8];
        std::snprintf(thr, sizeof thr, "%d", r.threads);
        std::printf("%-28s %-16s %3s %10s %9s %8s %6s %6s %9s  %s\n", cs.name.c_str(), r.impl.c_str(),
                    thr, ns, mps, gbs, pc, pt, ratio, r.available ? r.check.c_str() : "n/a");
    }
    std::fflush(stdout);
}

// Rows of the library at one and two threads.
template <class F> void add_orsm_rows(Case& cs, const char* impl, bool available, F call) {
    for (int t : {1, 2}) {
        Row r;
        r.impl = impl;
        r.threads = t;
        r.is_orsm = true;
        r.available = available;
        r.pass = [t, call] {
            orscoreSetNumThreads(t);
            call();
        };
        cs.rows.push_back(std::move(r));
    }
}

void add_row(Case& cs, const char* impl, bool available, std::function<void()> pass) {
    Row r;
    r.impl = impl;
    r.available = available;
    r.pass = std::move(pass);
    cs.rows.push_back(std::move(r));
}

template <class T> constexpr const char* tname() { return sizeof(T) == 4 ? "f32" : "f64"; }
template <class T> constexpr double eps() { return sizeof(T) == 4 ? 0x1p-23 : 0x1p-52; }

// The four operands of a case of element type T, with fresh sources.
template <class T> struct Ops {
    T *a, *b, *c, *r;
};
template <class T> Ops<T> operands() {
    fill_sources<T>();
    return {buf.a<T>(), buf.b<T>(), buf.c<T>(), buf.r<T>()};
}

// A case of count objects of element type T that move bytes_per_obj each
// (0: not reported) and whose dst holds len elements; peers may differ from
// the reference by tol (0: they must give its bits too).
template <class T> Case new_case(std::string name, long count, double bytes_per_obj, long len, double tol) {
    Case cs;
    cs.name = std::move(name);
    cs.objects = count;
    cs.bytes_per_obj = bytes_per_obj;
    cs.out_of_cache = count > opt.small;
    cs.is_float = sizeof(T) == 4;
    cs.len = len;
    cs.tol = tol;
    cs.bit_exact_peers = tol == 0;
    return cs;
}

std::string count_name(long n) {
    char s[32];
    if (n % 1000000 == 0) std::snprintf(s, sizeof s, "%ldM", n / 1000000);
    else if (n % 1048576 == 0) std::snprintf(s, sizeof s, "%ldMi", n / 1048576);
    else if (n % 1000 == 0) std::snprintf(s, sizeof s, "%ldk", n / 1000);
    else if (n % 1024 == 0) std::snprintf(s, sizeof s, "%ldKi", n / 1024);
    else std::snprintf(s, sizeof s, "%ld", n);
    return s;
}

// ---- the library's entry points by element type -------------------------------------

template <class T> struct Lib;
#define BENCH_LIB(T, t)                                                                           \
    template <> struct Lib<T> {                                                                   \
        static auto mama() { return &orsmMul_mama_##t; }                                          \
        static auto mam() { return &orsmMul_mam_##t; }                                            \
        static auto mama_p() { return &orsmMul_mama_##t##_P; }                                    \
        static auto mm() { return &orsmMul_mm_##t; }                                              \
        static auto add_vava() { return &orsmAdd_vava_##t; }                                      \
        static auto add_mama() { return &orsmAdd_mama_##t; }                                      \
        static auto add_mama_p() { return &orsmAdd_mama_##t##_P; }                                \
        static auto transpose() { return &orsmTranspose_ma_##t; }                                 \
        static auto lu() { return &orsmLUDecomp_ma_##t; }                                         \
        static auto lu_solve() { return &orsmLUBackSubst_mava_##t; }                              \
        static auto det() { return &orsmDet_ma_##t; }                                             \
        static auto det_p() { return &orsmDet_ma_##t##_P; }                                       \
        static auto invert_p() { return &orsmInvert_ma_##t##_P; }                                 \
        static auto lu_p() { return &orsmLUDecomp_ma_##t##_P; }                                   \
        static auto lu_solve_p() { return &orsmLUBackSubst_mava_##t##_P; }                        \
        static auto chol_p() { return &orsmCholeskyDecomp_ma_##t##_P; }                           \
        static auto chol_solve_p() { return &orsmCholeskyBackSubst_mava_##t##_P; }                \
        static auto qr_p() { return &orsmQRDecomp_ma_##t##_P; }                                   \
        static auto qr_solve_p() { return &orsmQRBackSubst_mava_##t##_P; }                        \
        static auto lu_one() { return &orsmLUDecomp_m_##t; }                                      \
        static auto chol_one() { return &orsmCholeskyDecomp_m_##t; }                              \
        static auto qr_one() { return &orsmQRDecomp_m_##t; }                                      \
        static auto lu_mva() { return &orsmLUBackSubst_mva_##t; }                                 \
        static auto chol_mva() { return &orsmCholeskyBackSubst_mva_##t; }                         \
        static auto qr_mva() { return &orsmQRBackSubst_mva_##t; }                                 \
        static auto lu_mva_p() { return &orsmLUBackSubst_mva_##t##_P; }                           \
        static auto chol_mva_p() { return &orsmCholeskyBackSubst_mva_##t##_P; }                   \
        static auto qr_mva_p() { return &orsmQRBackSubst_mva_##t##_P; }                           \
        static auto invert() { return &orsmInvert_ma_##t; }                                       \
        static auto chol() { return &orsmCholeskyDecomp_ma_##t; }                                 \
        static auto chol_solve() { return &orsmCholeskyBackSubst_mava_##t; }                      \
        static auto qr() { return &orsmQRDecomp_ma_##t; }                                         \
        static auto qr_solve() { return &orsmQRBackSubst_mava_##t; }                              \
        static auto eigvals() { return &orsmEigenValuesSym_ma_##t; }                              \
    };
BENCH_LIB(float, 32f)
BENCH_LIB(double, 64f)

template <class F> bool have(F* f) { return f != nullptr; }

// Fails loudly if a library call refuses its arguments: a benchmark of a
// status return is worthless.
void need_ok(OrsStatus st, const char* what) {
    if (st != 0) {
        std::fprintf(stderr, "%s returned status %d\n", what, st);
        std::exit(2);
    }
}

// ---- 1. machine reference --------------------------------------------------------------

void run_machine() {
    const int samples = opt.quick ? 3 : 7;
    std::vector<double> copy, triad;
    stream.copy_gbs();
    stream.triad_gbs();
    for (int s = 0; s < samples; ++s) {
        copy.push_back(stream.copy_gbs());
        triad.push_back(stream.triad_gbs());
    }
    g_copy_gbs = median(copy);
    g_triad_gbs = median(triad);
    std::printf("machine: single thread, 64 MiB per array, bytes counted as read + written (no write-allocate)\n");
    std::printf("  copy  a[i] = b[i]            %7.2f GB/s\n", g_copy_gbs);
    std::printf("  triad a[i] = b[i] + s*c[i]   %7.2f GB/s\n", g_triad_gbs);
    if (!opt.quick)
        std::printf("  (out-of-cache cases sample both again in their own rounds: %%copy and %%triad use those)\n");
    // The in-cache cases move 100 to 430 KiB per call: more than L1 holds,
    // so their operands stream from L2. The same triad over arrays that
    // small gives the rate L2 feeds a core at (repeated passes, all hits).
    for (const long kib : {8L, 128L}) {
        const long len = kib * 1024 / long(sizeof(double));
        const long reps = (opt.quick ? 4L : 64L) * 1024 * 1024 / len;
        std::vector<double> v;
        machine::triad_pass(stream.a, stream.b, stream.c, 3.0, len);
        for (int s = 0; s < samples; ++s) {
            double t = 0;
            for (long r = 0; r < reps; ++r) t += machine::triad_pass(stream.a, stream.b, stream.c, 3.0, len);
            v.push_back(3.0 * double(len) * 8 * double(reps) / t * 1e-9);
        }
        std::printf("  triad in %s (3 x %3ld KiB)      %7.2f GB/s\n", kib < 32 ? "L1" : "L2", kib, median(v));
    }
    const long iters = opt.quick ? 2000000 : 10000000;
    const int wide = machine::widest_vector_bytes();
    std::printf("  arithmetic peak, GFLOP/s, register-resident independent chains (widest vector with "
                "-march=native: %d bits)\n",
                wide * 8);
    std::printf("  mul+add: multiply chains and add chains interleaved, the peak without fused operations\n");
    std::printf("    %-8s %10s %10s %10s %10s %10s %10s\n", "vector", "mul f32", "add f32", "mul+add f32",
                "mul f64", "add f64", "mul+add f64");
    double best_f32 = 0, best_f64 = 0;
    for (int bytes = 16; bytes <= wide; bytes *= 2) {
        auto med = [&](double (*f)(int, long)) {
            std::vector<double> v;
            for (int s = 0; s < 3; ++s) v.push_back(f(bytes, iters * 16 / bytes));
            return median(v);
        };
        const double mf = med(machine::peak_mul_f32), af = med(machine::peak_add_f32);
        const double xf = med(machine::peak_mix_f32);
        const double md = med(machine::peak_mul_f64), ad = med(machine::peak_add_f64);
        const double xd = med(machine::peak_mix_f64);
        best_f32 = std::max(best_f32, xf);
        best_f64 = std::max(best_f64, xd);
        std::printf("    %3d bits %10.1f %10.1f %11.1f %10.1f %10.1f %11.1f\n", bytes * 8, mf, af, xf, md, ad, xd);
    }
    std::printf("  peak without FMA: %.1f GFLOP/s f32, %.1f GFLOP/s f64 (an order-n product, 2n^3 flops, "
                "takes at least 2n^3/peak ns)\n",
                best_f32, best_f64);
    std::printf("\n");
}

// ---- 2. products, layout S, contiguous ---------------------------------------------------

template <class T> void products_case(bool fixed, int n, long count) {
    const auto [a, b, c, r] = operands<T>();
    const int nn = n * n, es = sizeof(T);
    Case cs = new_case<T>(std::string(fixed ? "mam " : "mama ") + tname<T>() + " n" + std::to_string(n) +
                              " N=" + count_name(count),
                          count, double((fixed ? 2 : 3) * nn * es), long(nn) * count, 2.0 * n * eps<T>());
    cs.reference = [=] {
        fixed ? nofma::loop_mam(n, a, b, r, count) : nofma::loop_mama(n, a, b, r, count);
    };
    const int os = nn * es, rs = n * es, ic = int(count);
    if (fixed) {
        auto f = Lib<T>::mam();
        add_orsm_rows(cs, "orsm mam", have(f), [=] {
            need_ok(f(a, os, rs, es, n, n, b, rs, es, n, n, c, os, rs, es, ic), "orsmMul_mam");
        });
    } else {
        auto f = Lib<T>::mama();
        add_orsm_rows(cs, "orsm mama", have(f), [=] {
            need_ok(f(a, os, rs, es, n, n, b, os, rs, es, n, n, c, os, rs, es, ic), "orsmMul_mama");
        });
    }
    const bool eig_f = fma::eigen_available(), eig_n = nofma::eigen_available();
    const bool xs = xsmm::available() && xsmm::prepare(n, count);
    // The same peers for both forms: mam reads only the first matrix of b.
    using Peer = void (*)(int, const T*, const T*, T*, long);
    const struct {
        const char* impl;
        bool available;
        Peer mama, mam;
    } peers[] = {
        {"eigen fma", eig_f, fma::eigen_mama, fma::eigen_mam},
        {"eigen nofma", eig_n, nofma::eigen_mama, nofma::eigen_mam},
        {"libxsmm", xs, xsmm::mama, xsmm::mam},
        {"libxsmm batch", xs && xsmm::has_batch(), xsmm::mama_batch, xsmm::mam_batch},
        {"loop fma", true, fma::loop_mama, fma::loop_mam},
        {"loop nofma", true, nofma::loop_mama, nofma::loop_mam},
    };
    for (const auto& p : peers) {
        const Peer f = fixed ? p.mam : p.mama;
        add_row(cs, p.impl, p.available, [=] { f(n, a, b, c, count); });
    }
    run_case(cs);
}

template <class T> void products_for_type() {
    for (bool fixed : {false, true})
        for (long count : {opt.small, opt.large})
            for (int n = 3; n <= 6; ++n) products_case<T>(fixed, n, count);
}

// ---- layout P over structure-of-arrays operands --------------------------------------------

template <class T> struct SoaTables {
    std::vector<const T*> a, b;
    std::vector<T*> c;
    SoaTables(int nn, long count) : a(nn), b(nn), c(nn) {
        for (int e = 0; e < nn; ++e) {
            a[e] = buf.a<T>() + e * count;
            b[e] = buf.b<T>() + e * count;
            c[e] = buf.c<T>() + e * count;
        }
    }
};

template <class T> void soa_mul_case(int n, long count) {
    const auto [a, b, c, r] = operands<T>();
    const int nn = n * n, es = sizeof(T);
    Case cs = new_case<T>(std::string("mama_P soa ") + tname<T>() + " n" + std::to_string(n) + " N=" +
                              count_name(count),
                          count, double(3 * nn * es), long(nn) * count, 2.0 * n * eps<T>());
    cs.reference = [=] { nofma::loop_mama_soa(n, a, b, r, count); };
    auto tables = std::make_shared<SoaTables<T>>(nn, count);
    auto f = Lib<T>::mama_p();
    const int ic = int(count);
    add_orsm_rows(cs, "orsm mama_P", have(f), [=] {
        need_ok(f(tables->a.data(), 0, es, n, n, tables->b.data(), 0, es, n, n, tables->c.data(), 0, es, ic),
                "orsmMul_mama_P");
    });
    add_row(cs, "soa loop fma", true, [=] { fma::loop_mama_soa(n, a, b, c, count); });
    add_row(cs, "soa loop nofma", true, [=] { nofma::loop_mama_soa(n, a, b, c, count); });
    // The packed peers of the products section on the same count, for the
    // ratio to layout S (the same bytes read as packed objects).
    const bool xs = xsmm::available() && xsmm::prepare(n, count);
    const struct {
        const char* impl;
        bool available;
        void (*f)(int, const T*, const T*, T*, long);
    } packed[] = {{"S eigen fma", fma::eigen_available(), fma::eigen_mama},
                  {"S libxsmm", xs, xsmm::mama},
                  {"S libxsmm batch", xs && xsmm::has_batch(), xsmm::mama_batch}};
    for (const auto& p : packed) {
        auto f = p.f;
        add_row(cs, p.impl, p.available, [=] { f(n, a, b, c, count); });
        cs.rows.back().other = "packed";
    }
    run_case(cs);
}

// ---- single products: the cost of one call --------------------------------------------------

template <class T> void single_case(int n) {
    const auto [a, b, c, r] = operands<T>();
    const int es = sizeof(T), rs = n * es;
    const long calls = 1000;
    Case cs = new_case<T>(std::string("mm ") + tname<T>() + " n" + std::to_string(n) + " one call", calls, 0,
                          long(n) * n, 2.0 * n * eps<T>());
    cs.reference = [=] { nofma::loop_mm_repeat(n, a, b, r, 1); };
    auto f = Lib<T>::mm();
    Row row;
    row.impl = "orsm mm";
    row.is_orsm = true;
    row.available = have(f);
    row.pass = [=] {
        for (long q = 0; q < calls; ++q) need_ok(f(a, rs, es, n, n, b, rs, es, n, n, c, rs, es), "orsmMul_mm");
    };
    cs.rows.push_back(std::move(row));
    add_row(cs, "eigen fma inl", fma::eigen_available(), [=] { fma::eigen_mm_repeat(n, a, b, c, calls); });
    add_row(cs, "eigen nofma inl", nofma::eigen_available(),
            [=] { nofma::eigen_mm_repeat(n, a, b, c, calls); });
    add_row(cs, "loop nofma inl", true, [=] { nofma::loop_mm_repeat(n, a, b, c, calls); });
    run_case(cs);
}

// ---- 3. element-wise ----------------------------------------------------------------------

// Add over large or cached contiguous arrays. vava: vectors of length 4;
// mama: 4 by 4 matrices. Either way 3 arrays move.
template <class T> void add_case(bool matrices, long count) {
    const auto [a, b, c, r] = operands<T>();
    const int es = sizeof(T), per = matrices ? 16 : 4;
    Case cs = new_case<T>(std::string(matrices ? "add mama 4x4 " : "add vava len4 ") + tname<T>() + " N=" +
                              count_name(count),
                          count, double(3 * per * es), long(per) * count, 0);
    cs.reference = [=] { nofma::loop_add(a, b, r, long(per) * count); };
    const int ic = int(count), os = per * es;
    if (matrices) {
        auto f = Lib<T>::add_mama();
        add_orsm_rows(cs, "orsm add_mama", have(f), [=] {
            need_ok(f(a, os, 4 * es, es, b, os, 4 * es, es, c, os, 4 * es, es, 4, 4, ic), "orsmAdd_mama");
        });
    } else {
        auto f = Lib<T>::add_vava();
        add_orsm_rows(cs, "orsm add_vava", have(f), [=] {
            need_ok(f(a, os, es, b, os, es, c, os, es, 4, ic), "orsmAdd_vava");
        });
    }
    add_row(cs, "loop", true, [=] { fma::loop_add(a, b, c, long(per) * count); });
    run_case(cs);
}

template <class T> void add_soa_case(long count) {
    const auto [a, b, c, r] = operands<T>();
    const int es = sizeof(T);
    Case cs = new_case<T>(std::string("add mama_P soa 4x4 ") + tname<T>() + " N=" + count_name(count), count,
                          double(3 * 16 * es), 16 * count, 0);
    // The 16 planes lie back to back: the SoA sum is one flat sum.
    cs.reference = [=] { nofma::loop_add(a, b, r, 16 * count); };
    auto tables = std::make_shared<SoaTables<T>>(16, count);
    auto f = Lib<T>::add_mama_p();
    const int ic = int(count);
    add_orsm_rows(cs, "orsm add_mama_P", have(f), [=] {
        need_ok(f(tables->a.data(), 0, es, tables->b.data(), 0, es, tables->c.data(), 0, es, 4, 4, ic),
                "orsmAdd_mama_P");
    });
    add_row(cs, "soa loop", true, [=] { fma::loop_add(a, b, c, 16 * count); });
    run_case(cs);
}

// ---- data movement: Transpose ------------------------------------------------------------------

template <class T> void transpose_case(int n, long count) {
    fill_sources<T>();
    T* a = buf.a<T>();
    T* c = buf.c<T>();
    T* r = buf.r<T>();
    const int nn = n * n, es = sizeof(T), os = nn * es, rs = n * es, ic = int(count);
    Case cs = new_case<T>(std::string("transpose ") + tname<T>() + " n" + std::to_string(n) + " N=" +
                              count_name(count),
                          count, double(2 * nn * es), long(nn) * count, 0);
    cs.reference = [=] { nofma::loop_transpose(n, a, r, count); };
    auto f = Lib<T>::transpose();
    add_orsm_rows(cs, "orsm transpose", have(f), [=] {
        need_ok(f(a, os, rs, es, n, n, c, os, rs, es, ic), "orsmTranspose_ma");
    });
    add_row(cs, "loop", true, [=] { fma::loop_transpose(n, a, c, count); });
    run_case(cs);
}

// ---- solvers: factor and solve, invert, determinant, eigenvalues -------------------------

// Systems that every method handles: symmetric, with a dominant positive
// diagonal (so also positive definite), off-diagonal elements in [-1, 1).
// Written over the sources, which the next case of another kind fills again.
template <class T> void fill_systems(int n, long count) {
    T* a = buf.a<T>();
    T* b = buf.b<T>();
    // Diagonals spread apart: the symmetric eigenvalue method stops without
    // converging on about one matrix in a thousand when they lie close.
    uint64_t s = 0x243f6a8885a308d3ull;
    auto next = [&] {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return double(s >> 11) * 0x1p-53;  // [0, 1)
    };
    for (long o = 0; o < count; ++o) {
        T* m = a + o * n * n;
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < i; ++j) m[i * n + j] = m[j * n + i] = T(2 * next() - 1);
            m[i * n + i] = T(n + i + next());
            b[o * n + i] = T(2 * next() - 1);
        }
    }
    g_filled = 0;
}

using solvers::Op;
const char* op_name(Op op) {
    switch (op) {
        case Op::lu_solve: return "lu solve";
        case Op::det: return "det";
        case Op::inverse: return "invert";
        case Op::chol_solve: return "cholesky solve";
        case Op::qr_solve: return "qr solve";
        case Op::eigvals: return "eigvals sym";
    }
    return "";
}

// Elements of the result per object.
int out_len(Op op, int n) { return op == Op::inverse ? n * n : op == Op::det ? 1 : n; }

// The reference: Eigen in double precision on the same inputs, rounded to T.
template <class T> void solver_reference(Op op, int n, long count) {
    const long la = long(n) * n * count, lb = long(n) * count, lo = long(out_len(op, n)) * count;
    std::vector<double> a(buf.a<T>(), buf.a<T>() + la), b(buf.b<T>(), buf.b<T>() + lb), out(lo);
    solvers::eigen(op, n, a.data(), b.data(), out.data(), count);
    std::copy(out.begin(), out.end(), buf.r<T>());
}

// The library's call for op, or null when a function it needs is missing.
template <class T> std::function<void()> orsm_solver(Op op, int n, long count) {
    const int es = sizeof(T), os = n * n * es, rs = n * es, vs = n * es, ic = int(count);
    const T* a = buf.a<T>();
    const T* b = buf.b<T>();
    T* c = buf.c<T>();
    // Factors, pivot tables and scratch of the call, kept by the row.
    auto f = std::make_shared<std::vector<T>>(size_t(n) * n * count);
    auto idx = std::make_shared<std::vector<int>>(size_t(n) * count);
    auto scratch = std::make_shared<std::vector<T>>(size_t(n) * n + 2 * n);
    switch (op) {
        case Op::lu_solve: {
            auto d = Lib<T>::lu();
            auto s = Lib<T>::lu_solve();
            if (!have(d) || !have(s)) return {};
            return [=] {
                need_ok(d(a, os, rs, es, idx->data(), f->data(), os, rs, es, n, ic), "orsmLUDecomp_ma");
                need_ok(s(f->data(), os, rs, es, idx->data(), b, vs, es, c, vs, es, n, ic), "orsmLUBackSubst_mava");
            };
        }
        case Op::det: {
            auto d = Lib<T>::det();
            if (!have(d)) return {};
            return [=] { need_ok(d(a, os, rs, es, n, scratch->data(), c, ic), "orsmDet_ma"); };
        }
        case Op::inverse: {
            auto d = Lib<T>::invert();
            if (!have(d)) return {};
            return [=] { need_ok(d(a, os, rs, es, scratch->data(), c, os, rs, es, n, ic), "orsmInvert_ma"); };
        }
        case Op::chol_solve: {
            auto d = Lib<T>::chol();
            auto s = Lib<T>::chol_solve();
            if (!have(d) || !have(s)) return {};
            return [=] {
                need_ok(d(a, os, rs, es, f->data(), os, rs, es, n, ic), "orsmCholeskyDecomp_ma");
                need_ok(s(f->data(), os, rs, es, b, vs, es, c, vs, es, n, ic), "orsmCholeskyBackSubst_mava");
            };
        }
        case Op::qr_solve: {
            auto d = Lib<T>::qr();
            auto s = Lib<T>::qr_solve();
            if (!have(d) || !have(s)) return {};
            return [=] {
                need_ok(d(a, os, rs, es, scratch->data(), f->data(), os, rs, es, n, n, ic), "orsmQRDecomp_ma");
                need_ok(s(f->data(), os, rs, es, scratch->data(), b, vs, es, c, vs, es, n, n, ic),
                        "orsmQRBackSubst_mava");
            };
        }
        case Op::eigvals: {
            auto d = Lib<T>::eigvals();
            if (!have(d)) return {};
            return [=] { need_ok(d(a, os, rs, es, scratch->data(), c, n, ic), "orsmEigenValuesSym_ma"); };
        }
    }
    return {};
}

// The same systems as structure-of-arrays planes (layout P, objects one
// element apart), laid out before the case, one thread. Solutions and
// inverses stay in planes (the tests hold them to the rows' bits);
// determinants go to c and are checked.
template <class T> struct Planes {
    std::vector<T> a, b, f, x, scratch;
    std::vector<int> idx;
    std::vector<const T*> ta, tb, tf;
    std::vector<T*> tfw, tx;
    Planes(int n, long count)
        : a(size_t(n) * n * count), b(size_t(n) * count), f(a.size()), x(a.size()), scratch(size_t(n) * n + 2 * n),
          idx(size_t(n) * count) {
        const T* sa = buf.a<T>();
        const T* sb = buf.b<T>();
        for (int e = 0; e < n * n; ++e) {
            for (long o = 0; o < count; ++o) a[e * count + o] = sa[o * n * n + e];
            ta.push_back(a.data() + e * count), tf.push_back(f.data() + e * count);
            tfw.push_back(f.data() + e * count), tx.push_back(x.data() + e * count);
        }
        for (int i = 0; i < n; ++i) {
            for (long o = 0; o < count; ++o) b[i * count + o] = sb[o * n + i];
            tb.push_back(b.data() + i * count);
        }
    }
};
template <class T> std::function<void()> orsm_planes_solver(Op op, int n, long count) {
    auto p = std::make_shared<Planes<T>>(n, count);
    const int es = sizeof(T), ic = int(count);
    T* c = buf.c<T>();
    auto one = [](auto call) {
        return [=] {
            orscoreSetNumThreads(1);
            call();
        };
    };
    switch (op) {
        case Op::lu_solve:
            return one([=] {
                need_ok(Lib<T>::lu_p()(p->ta.data(), 0, es, p->idx.data(), p->tfw.data(), 0, es, n, ic),
                        "orsmLUDecomp_ma_P");
                need_ok(Lib<T>::lu_solve_p()(p->tf.data(), 0, es, p->idx.data(), p->tb.data(), 0, es, p->tx.data(),
                                             0, es, n, ic),
                        "orsmLUBackSubst_mava_P");
            });
        case Op::chol_solve:
            return one([=] {
                need_ok(Lib<T>::chol_p()(p->ta.data(), 0, es, p->tfw.data(), 0, es, n, ic), "orsmCholeskyDecomp_ma_P");
                need_ok(Lib<T>::chol_solve_p()(p->tf.data(), 0, es, p->tb.data(), 0, es, p->tx.data(), 0, es, n, ic),
                        "orsmCholeskyBackSubst_mava_P");
            });
        case Op::qr_solve:
            return one([=] {
                need_ok(Lib<T>::qr_p()(p->ta.data(), 0, es, p->scratch.data(), p->tfw.data(), 0, es, n, n, ic),
                        "orsmQRDecomp_ma_P");
                need_ok(Lib<T>::qr_solve_p()(p->tf.data(), 0, es, p->scratch.data(), p->tb.data(), 0, es,
                                             p->tx.data(), 0, es, n, n, ic),
                        "orsmQRBackSubst_mava_P");
            });
        case Op::inverse:
            return one([=] {
                need_ok(Lib<T>::invert_p()(p->ta.data(), 0, es, p->scratch.data(), p->tx.data(), 0, es, n, ic),
                        "orsmInvert_ma_P");
            });
        case Op::det:
            return one([=] { need_ok(Lib<T>::det_p()(p->ta.data(), 0, es, n, p->scratch.data(), c, ic), "orsmDet_ma_P"); });
        default: return {};
    }
}

template <class T> void solver_case(Op op, int n, long count) {
    fill_systems<T>(n, count);
    // Results agree to a few units of rounding of their size: the
    // determinant is near n^n, everything else near 1.
    const double scale = op == Op::det ? std::pow(double(n) + 1, n) : 1.0;
    Case cs = new_case<T>(std::string(op_name(op)) + " " + tname<T>() + " n" + std::to_string(n) + " N=" +
                              count_name(count),
                          count, 0, long(out_len(op, n)) * count, 64.0 * n * eps<T>() * scale);
    cs.bit_exact_peers = false;
    cs.orsm_exact = false;
    cs.reference = [=] { solver_reference<T>(op, n, count); };
    const std::function<void()> call = orsm_solver<T>(op, n, count);
    add_orsm_rows(cs, "orsm", bool(call), call);
    const T* a = buf.a<T>();
    const T* b = buf.b<T>();
    T* c = buf.c<T>();
    add_row(cs, "eigen", solvers::eigen_available(), [=] { solvers::eigen(op, n, a, b, c, count); });
    add_row(cs, "lapack per matrix", solvers::lapack_available(), [=] { solvers::lapack(op, n, a, b, c, count); });
    if (const std::function<void()> planes = orsm_planes_solver<T>(op, n, count)) {
        add_row(cs, "orsm P soa", true, planes);
        if (op != Op::det) cs.rows.back().other = "planes";
    }
    run_case(cs);
}

// One factor for all the vectors (the mva forms): matrix 0 factored once a
// pass, then every vector solved, the vectors packed (orsm) or as
// structure-of-arrays planes (orsm P soa, one thread; its solutions stay in
// planes, which the tests hold to the packed rows' bits).
template <class T> void solver_one_case(Op op, int n, long count) {
    fill_systems<T>(n, count);
    Case cs = new_case<T>(std::string(op_name(op)) + " 1 factor " + tname<T>() + " n" + std::to_string(n) + " N=" +
                              count_name(count),
                          count, 0, long(n) * count, 64.0 * n * eps<T>());
    cs.bit_exact_peers = false;
    cs.orsm_exact = false;
    cs.reference = [=] {
        std::vector<double> a(buf.a<T>(), buf.a<T>() + n * n), b(buf.b<T>(), buf.b<T>() + long(n) * count),
            out(size_t(n) * count);
        solvers::eigen_one(op, n, a.data(), b.data(), out.data(), count);
        std::copy(out.begin(), out.end(), buf.r<T>());
    };
    const T* a = buf.a<T>();
    const T* b = buf.b<T>();
    T* c = buf.c<T>();
    const int es = sizeof(T), rs = n * es, vs = n * es, ic = int(count);
    auto f = std::make_shared<std::vector<T>>(size_t(n) * n);
    auto idx = std::make_shared<std::vector<int>>(n);
    auto scratch = std::make_shared<std::vector<T>>(size_t(2) * n);
    // The factor's elements and the vectors as planes.
    auto p = std::make_shared<Planes<T>>(n, count);
    auto fe = std::make_shared<std::vector<const T*>>();
    for (int e = 0; e < n * n; ++e) fe->push_back(f->data() + e);
    auto factor = [=] {
        if (op == Op::lu_solve) need_ok(Lib<T>::lu_one()(a, rs, es, idx->data(), f->data(), rs, es, n), "orsmLUDecomp_m");
        if (op == Op::chol_solve) need_ok(Lib<T>::chol_one()(a, rs, es, f->data(), rs, es, n), "orsmCholeskyDecomp_m");
        if (op == Op::qr_solve)
            need_ok(Lib<T>::qr_one()(a, rs, es, scratch->data(), f->data(), rs, es, n, n), "orsmQRDecomp_m");
    };
    add_orsm_rows(cs, "orsm", true, [=] {
        factor();
        if (op == Op::lu_solve)
            need_ok(Lib<T>::lu_mva()(f->data(), rs, es, idx->data(), b, vs, es, c, vs, es, n, ic), "orsmLUBackSubst_mva");
        if (op == Op::chol_solve)
            need_ok(Lib<T>::chol_mva()(f->data(), rs, es, b, vs, es, c, vs, es, n, ic), "orsmCholeskyBackSubst_mva");
        if (op == Op::qr_solve)
            need_ok(Lib<T>::qr_mva()(f->data(), rs, es, scratch->data(), b, vs, es, c, vs, es, n, n, ic),
                    "orsmQRBackSubst_mva");
    });
    add_row(cs, "orsm P soa", true, [=] {
        orscoreSetNumThreads(1);
        factor();
        const T* const* fp = fe->data();
        if (op == Op::lu_solve)
            need_ok(Lib<T>::lu_mva_p()(fp, 0, idx->data(), p->tb.data(), 0, es, p->tx.data(), 0, es, n, ic),
                    "orsmLUBackSubst_mva_P");
        if (op == Op::chol_solve)
            need_ok(Lib<T>::chol_mva_p()(fp, 0, p->tb.data(), 0, es, p->tx.data(), 0, es, n, ic),
                    "orsmCholeskyBackSubst_mva_P");
        if (op == Op::qr_solve)
            need_ok(Lib<T>::qr_mva_p()(fp, 0, scratch->data(), p->tb.data(), 0, es, p->tx.data(), 0, es, n, n, ic),
                    "orsmQRBackSubst_mva_P");
    });
    cs.rows.back().other = "planes";
    add_row(cs, "eigen", solvers::eigen_available(), [=] { solvers::eigen_one(op, n, a, b, c, count); });
    run_case(cs);
}

template <class T> void solvers_for_type() {
    for (Op op : {Op::lu_solve, Op::chol_solve, Op::qr_solve, Op::inverse, Op::det, Op::eigvals})
        for (int n = 3; n <= 6; ++n) solver_case<T>(op, n, opt.small);
    for (Op op : {Op::lu_solve, Op::chol_solve, Op::qr_solve})
        for (int n = 3; n <= 6; ++n) solver_one_case<T>(op, n, opt.small);
}

// ---- threads: what a second thread gives above the limits ------------------------------------

// One library call timed at 1 and at 2 threads, the two alternating sample
// after sample. Both must give the reference's bits: results never depend
// on the thread count. Medians tell what the shared machine gives now; the
// best samples of each tell what a quiet machine would.
struct Speedup {
    double med1 = 0, med2 = 0;    // median microseconds per call
    double best1 = 0, best2 = 0;  // fastest sample, microseconds per call
    bool bits_ok = true;
};

template <class T> Speedup time_threads(long len, const std::function<void()>& reference,
                                        const std::function<void()>& call) {
    reference();
    Speedup sp;
    double t_one = 0;
    for (int t : {1, 2}) {
        orscoreSetNumThreads(t);
        std::memset(buf.c<T>(), 0xff, len * sizeof(T));
        const double t0 = now();
        call();
        if (t == 1) t_one = now() - t0;
        sp.bits_ok = sp.bits_ok && compare(buf.c<T>(), buf.r<T>(), len, 0, true) == "bit=";
        call();  // warm
    }
    const long reps = std::max(1L, long(std::ceil(opt.target_s / std::max(t_one, 1e-9))));
    std::vector<double> s[2];
    for (int k = 0; k < opt.samples_small; ++k) {
        for (int i = 0; i < 2; ++i) {
            const int t = 1 + (i + k) % 2;
            orscoreSetNumThreads(t);
            const double t0 = now();
            for (long q = 0; q < reps; ++q) call();
            s[t - 1].push_back((now() - t0) * 1e6 / double(reps));
        }
    }
    sp.med1 = median(s[0]);
    sp.med2 = median(s[1]);
    sp.best1 = *std::min_element(s[0].begin(), s[0].end());
    sp.best2 = *std::min_element(s[1].begin(), s[1].end());
    return sp;
}

// The object count at which the speedup first reaches `target`, by
// interpolation in log(count) between the two counts that bracket it;
// 0 when no count reaches it, -1 when the smallest already does.
double crossover(const std::vector<long>& counts, const std::vector<double>& ratio, double target) {
    if (ratio[0] >= target) return -1;
    for (size_t i = 1; i < ratio.size(); ++i) {
        if (ratio[i] < target) continue;
        const double x0 = std::log(double(counts[i - 1])), x1 = std::log(double(counts[i]));
        const double f = (target - ratio[i - 1]) / (ratio[i] - ratio[i - 1]);
        return std::exp(x0 + f * (x1 - x0));
    }
    return 0;
}

std::string crossover_text(const std::vector<long>& counts, const std::vector<double>& ratio, double target) {
    const double x = crossover(counts, ratio, target);
    char s[48];
    if (x > 0) std::snprintf(s, sizeof s, "N ~ %.0f", x);
    else if (x < 0) std::snprintf(s, sizeof s, "N <= %s", count_name(counts.front()).c_str());
    else std::snprintf(s, sizeof s, "not by N=%s", count_name(counts.back()).c_str());
    return s;
}

void print_threads_row(const std::string& name, const Speedup& sp, long count) {
    std::printf("%-26s %9.2f %9.2f %7.2f %9.2f %9.2f %7.2f %8.2f  %s\n", name.c_str(), sp.med1, sp.med2,
                sp.med1 / sp.med2, sp.best1, sp.best2, sp.best1 / sp.best2, 1e3 * sp.best2 / double(count),
                sp.bits_ok ? "bit=" : "MISMATCH");
}

template <class T> void threads_for_type(const std::vector<long>& counts, double target) {
    const auto [a, b, c, r] = operands<T>();
    const int es = sizeof(T);
    enum What { Mul, Add, Transpose };
    struct Kind {
        const char* name;
        int n;
        What what;
    };
    const Kind kinds[] = {{"mul mama 4x4", 4, Mul},  {"mul mama 6x6", 6, Mul},        {"add mama 4x4", 4, Add},
                          {"transpose 4x4", 4, Transpose}, {"transpose 6x6", 6, Transpose}};
    for (const Kind& k : kinds) {
        const int n = k.n, os = n * n * es, rs = n * es;
        auto mul = Lib<T>::mama();
        auto add = Lib<T>::add_mama();
        auto tra = Lib<T>::transpose();
        const bool available = k.what == Mul ? have(mul) : k.what == Add ? have(add) : have(tra);
        const std::string kname = std::string(k.name) + " " + tname<T>();
        if (!available) {
            std::printf("%-26s n/a\n", kname.c_str());
            continue;
        }
        std::vector<double> med, best;
        for (long count : counts) {
            const int ic = int(count);
            const long len = long(n) * n * count;
            std::function<void()> reference, call;
            if (k.what == Mul) {
                reference = [=] { nofma::loop_mama(n, a, b, r, count); };
                call = [=] { need_ok(mul(a, os, rs, es, n, n, b, os, rs, es, n, n, c, os, rs, es, ic), "orsmMul_mama"); };
            } else if (k.what == Add) {
                reference = [=] { nofma::loop_add(a, b, r, len); };
                call = [=] { need_ok(add(a, os, rs, es, b, os, rs, es, c, os, rs, es, n, n, ic), "orsmAdd_mama"); };
            } else {
                reference = [=] { nofma::loop_transpose(n, a, r, count); };
                call = [=] { need_ok(tra(a, os, rs, es, n, n, c, os, rs, es, ic), "orsmTranspose_ma"); };
            }
            const Speedup sp = time_threads<T>(len, reference, call);
            med.push_back(sp.med1 / sp.med2);
            best.push_back(sp.best1 / sp.best2);
            print_threads_row(kname + " N=" + count_name(count), sp, count);
        }
        std::printf("%-26s %.1fx at: medians %s, best samples %s\n", "", target,
                    crossover_text(counts, med, target).c_str(), crossover_text(counts, best, target).c_str());
        std::fflush(stdout);
    }
}

// The fixed cost of a team: the cheapest call that goes parallel (Add on
// 4 by 4 matrices, W = 48 N just past its limit of 3500) at 1 and 2 threads.
void threads_team_cost() {
    const auto [a, b, c, r] = operands<float>();
    const long count = 73;
    const int es = 4, os = 16 * es, rs = 4 * es, ic = int(count);
    auto f = Lib<float>::add_mama();
    if (!have(f)) return;
    const Speedup sp = time_threads<float>(
        16 * count, [=] { nofma::loop_add(a, b, r, 16 * count); },
        [=] { need_ok(f(a, os, rs, es, b, os, rs, es, c, os, rs, es, 4, 4, ic), "orsmAdd_mama"); });
    print_threads_row("team: add mama 4x4 f32 N=73", sp, count);
    std::printf("%-26s a team costs %.2f us (best samples), %.2f us (medians)\n", "", sp.best2 - sp.best1 / 2,
                sp.med2 - sp.med1 / 2);
}

void run_threads() {
    const double target = 1.7;
    std::printf("\n-- threads: orsm at 2 threads against 1 (layout S, contiguous, every call above its limit)\n");
    std::printf("%-26s %9s %9s %7s %9s %9s %7s %8s  %s\n", "case", "med 1thr", "med 2thr", "speedup", "best 1thr",
                "best 2thr", "speedup", "ns/obj", "check");
    std::printf("%-26s %9s %9s %7s %9s %9s %7s %8s\n", "", "us/call", "us/call", "median", "us/call", "us/call",
                "best", "best 2thr");
    std::printf("%s\n", std::string(106, '-').c_str());
    threads_team_cost();
    const std::vector<long> counts = opt.quick ? std::vector<long>{1000, 10000, 100000}
                                               : std::vector<long>{1000, 2000, 5000, 10000, 30000, 100000};
    threads_for_type<float>(counts, target);
    threads_for_type<double>(counts, target);
}

}  // namespace

int main(int argc, char** argv) {
    if (!parse(argc, argv)) {
        usage();
        return 1;
    }
    const double t_start = now();
    // The largest operand: 6 by 6 doubles times the large count, or one of
    // the 64 MiB arrays of the bandwidth and add cases.
    const size_t need = std::max<size_t>(size_t(opt.large) * 36 * 8, size_t(64) << 20);
    buf.init(need);
    stream.init();
    const int threads0 = orscoreGetNumThreads();

    // A strong reference, so the link keeps liborsm even where every other
    // reference is weak.
    const OrsLibraryVersion* version = orsmGetLibVersion();
    std::printf("orsm %s (%s)\n", version->versionText, version->libraryName);
    std::printf("orsm_bench%s: %ld objects in cache, %ld out of cache; medians of %d / %d samples\n",
                opt.quick ? " --quick" : "", opt.small, opt.large, opt.samples_small, opt.samples_large);
    std::printf("peers: eigen %s, libxsmm %s (target %s)\n",
                fma::eigen_available() ? "yes" : "missing", xsmm::available() ? "yes" : "missing",
                xsmm::available() ? xsmm::target() : "-");
    const char* wait = std::getenv("OMP_WAIT_POLICY");
    std::printf("threads: orsm rows at 1 and 2 (orscoreSetNumThreads; default here %d), OMP_WAIT_POLICY=%s\n",
                threads0, wait ? wait : "(unset)");
    std::printf("orsm/impl: median time of orsm at 1 thread divided by the row's (below 1: orsm is faster)\n");
    std::printf("check: output against the plain loop without contraction (bit= identical bits;\n"
                "       ~ within rounding, allowed for peers only; MISMATCH flags an error)\n\n");

    if (opt.wants("machine")) {
        run_machine();
    } else {
        g_copy_gbs = stream.copy_gbs();
        g_triad_gbs = stream.triad_gbs();
    }

    print_header();
    if (opt.wants("products")) {
        print_section("products: Mul over arrays, layout S, contiguous objects");
        products_for_type<float>();
        products_for_type<double>();
    }
    if (opt.wants("soa")) {
        print_section("products: Mul mama, layout P over structure-of-arrays planes (xStride0 = element size)");
        for (long count : {opt.small, opt.large})
            for (int n = 3; n <= 6; ++n) soa_mul_case<float>(n, count);
        for (long count : {opt.small, opt.large})
            for (int n = 3; n <= 6; ++n) soa_mul_case<double>(n, count);
    }
    if (opt.wants("single")) {
        print_section("products: one Mul mm call, ns per call");
        single_case<float>(3);
        single_case<float>(4);
        single_case<double>(3);
        single_case<double>(4);
    }
    if (opt.wants("add")) {
        print_section("element-wise Add, contiguous and structure-of-arrays (3 arrays move)");
        const long big16f = (64L << 20) / (16 * 4), big16d = (64L << 20) / (16 * 8);
        add_case<float>(false, big16f * 4);
        add_case<double>(false, big16d * 4);
        add_case<float>(true, big16f);
        add_case<double>(true, big16d);
        add_case<float>(true, opt.small);
        add_case<double>(true, opt.small);
        add_soa_case<float>(opt.small);
        add_soa_case<float>(big16f);
    }
    if (opt.wants("transpose")) {
        print_section("data movement: Transpose over arrays, layout S, contiguous (2 arrays move)");
        for (long count : {opt.small, opt.large})
            for (int n = 3; n <= 6; ++n) transpose_case<float>(n, count);
        for (long count : {opt.small, opt.large})
            for (int n = 3; n <= 6; ++n) transpose_case<double>(n, count);
    }
    if (opt.wants("solvers")) {
        print_section("solvers over arrays, layout S, contiguous, 1,000 systems in cache (check: against "
                      "Eigen in double, within rounding)");
        solvers_for_type<float>();
        solvers_for_type<double>();
    }
    if (opt.wants("threads")) run_threads();
    orscoreSetNumThreads(threads0);
    std::printf("\ntotal %.1f s\n", now() - t_start);
    return 0;
}
