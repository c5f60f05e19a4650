#include "dynamics/interlayer_exchange.hpp"

#include <cstdint>

namespace torix {

namespace {

// The first magnetic cell met from height k of a column going along s
// (+1 or -1), and the periods crossed on the way (periodic z only); z = -1
// when the column ends first.  Going round a periodic column meets the
// start cell at the latest.
struct Met {
    int z = -1, shift = 0;
};
Met first_met(const std::int32_t* q, std::int64_t plane, int nz, int k, int s, bool periodic) {
    int z = k, shift = 0;
    for (int step = 0; step <= nz; ++step) {
        z += s;
        if (z < 0 || z > nz) {
            if (!periodic) return {};
            z = z < 0 ? nz : 0;
            shift += s;
        }
        if (q[z * plane] != 0) return {z, shift};
    }
    return {};
}

// Calls fn(pa, pb, shift) for every link of column (i, j), pa the m1 cell
// and pb the m2 cell, from the bottom of the column up.
template <class Fn>
void column_links(const InterlayerExchange& t, const IntGrid& mask, int i, int j, Fn&& fn) {
    const int nz = mask.hi(2);
    const std::int64_t sx = mask.extent(0), plane = sx * mask.extent(1);
    const std::int64_t base = i + sx * j;
    const std::int32_t* q = mask.data() + base;
    for (int k = 0; k <= nz; ++k) {
        if (q[k * plane] != t.m1) continue;
        for (int s : {-1, 1}) {
            const Met c = first_met(q, plane, nz, k, s, t.periodic_z);
            if (c.z >= 0 && q[c.z * plane] == t.m2) fn(base + k * plane, base + c.z * plane, c.shift);
        }
    }
}

struct Pair {
    double ma[3], mb[3];  // reduced magnetizations
    double msa, msb;
    double c;             // ma . mb
};

Pair pair_of(const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask, std::int64_t pa, std::int64_t pb) {
    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(mask.size());
    const double* m = M.data();
    Pair r;
    r.msa = MS(mask.data()[pa]);
    r.msb = MS(mask.data()[pb]);
    for (int k = 0; k < 3; ++k) r.ma[k] = m[pa + k * np] / r.msa, r.mb[k] = m[pb + k * np] / r.msb;
    r.c = r.ma[0] * r.mb[0] + r.ma[1] * r.mb[1] + r.ma[2] * r.mb[2];
    return r;
}

}  // namespace

std::vector<InterlayerLink> interlayer_links(const InterlayerExchange& t, const IntGrid& mask) {
    std::vector<InterlayerLink> links;
    for (int j = 0; j <= mask.hi(1); ++j)
        for (int i = 0; i <= mask.hi(0); ++i)
            column_links(t, mask, i, j,
                         [&](std::int64_t a, std::int64_t b, int shift) { links.push_back({a, b, shift}); });
    return links;
}

void interlayer_field(const InterlayerExchange& t, const VecGrid& M, const Array<double, 1>& MS, const IntGrid& mask,
                      VecGrid& H) {
    const std::ptrdiff_t np = static_cast<std::ptrdiff_t>(mask.size());
    const int sx = mask.extent(0), columns = sx * mask.extent(1);
    double* h = H.data();
    // A column's links touch only that column: columns run in parallel.
#pragma omp parallel for schedule(static) if (np > 16384)
    for (int col = 0; col < columns; ++col)
        column_links(t, mask, col % sx, col / sx, [&](std::int64_t pa, std::int64_t pb, int) {
            const Pair p = pair_of(M, MS, mask, pa, pb);
            const double f = t.J1 + 2.0 * t.J2 * p.c;
            for (int k = 0; k < 3; ++k) {
                h[pa + k * np] += f * p.mb[k] / (p.msa * t.dz);
                h[pb + k * np] += f * p.ma[k] / (p.msb * t.dz);
            }
        });
}

double interlayer_energy(const InterlayerExchange& t, const VecGrid& M, const Array<double, 1>& MS,
                         const IntGrid& mask) {
    double e = 0.0;
    for (const InterlayerLink& l : interlayer_links(t, mask)) {
        const Pair p = pair_of(M, MS, mask, l.a, l.b);
        e += -(t.J1 * p.c + t.J2 * p.c * p.c) / t.dz;
    }
    return e;
}

void interlayer_jacobian(const InterlayerExchange& t, const VecGrid& M, const Array<double, 1>& MS,
                         const IntGrid& mask, std::vector<FieldJacobianBlock>& out) {
    // With c = M_a . M_b / (MS_a MS_b):
    //   dH_a/dM_b = [(J1 + 2 J2 c) I + 2 J2 m_b m_a^T] / (MS_a MS_b dz),
    //   dH_a/dM_a = 2 J2 m_b m_b^T / (MS_a^2 dz),
    // and the same with a and b exchanged.
    for (const InterlayerLink& l : interlayer_links(t, mask)) {
        const Pair p = pair_of(M, MS, mask, l.a, l.b);
        const double f = t.J1 + 2.0 * t.J2 * p.c;
        FieldJacobianBlock ab, ba, aa, bb;
        ab.target = l.a, ab.source = l.b, ab.shift = {0, 0, l.shift};
        ba.target = l.b, ba.source = l.a, ba.shift = {0, 0, -l.shift};
        aa.target = aa.source = l.a;
        bb.target = bb.source = l.b;
        const double sab = 1.0 / (p.msa * p.msb * t.dz);
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) {
                const double id = r == c ? f : 0.0;
                ab.J[r + 3 * c] = (id + 2.0 * t.J2 * p.mb[r] * p.ma[c]) * sab;
                ba.J[r + 3 * c] = (id + 2.0 * t.J2 * p.ma[r] * p.mb[c]) * sab;
                aa.J[r + 3 * c] = 2.0 * t.J2 * p.mb[r] * p.mb[c] / (p.msa * p.msa * t.dz);
                bb.J[r + 3 * c] = 2.0 * t.J2 * p.ma[r] * p.ma[c] / (p.msb * p.msb * t.dz);
            }
        out.push_back(ab);
        out.push_back(ba);
        if (t.J2 != 0.0) {
            out.push_back(aa);
            out.push_back(bb);
        }
    }
}

}  // namespace torix
