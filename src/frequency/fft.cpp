// Single-precision mixed-radix FFT: digit-reversal permutation, radix-4/2
// stages for the power-of-two factor, radix 3, 5 and a generic odd radix;
// rows only, columns reached by transposing. Padding sizes are 2^a 3^b 5^c.
#include "frequency/fft.h"

#include <pmmintrin.h>

#include <cmath>
#include <cstring>

#include "frame/frame.h"

namespace qv {

FFTTables g_FFTTables = {-1, -1, nullptr, nullptr, nullptr, nullptr};

namespace {

constexpr uint32_t kMaxFFTSize = 2125764000u;

struct SizeTable {
  uint32_t v[kFFTSizeCount];
};

// Every 2^a * 3^b * 5^c up to the limit with b <= 14, sorted; built by the
// compiler so nothing runs at load time.
constexpr SizeTable MakeSizeTable() {
  SizeTable t{};
  int n = 0;
  for (uint64_t p2 = 1; p2 <= kMaxFFTSize; p2 *= 2) {
    uint64_t p3 = p2;
    for (int b = 0; b <= 14 && p3 <= kMaxFFTSize; ++b, p3 *= 3)
      for (uint64_t p5 = p3; p5 <= kMaxFFTSize; p5 *= 5) t.v[n++] = static_cast<uint32_t>(p5);
  }
  for (int i = 1; i < n; ++i) {
    const uint32_t x = t.v[i];
    int j = i - 1;
    while (j >= 0 && t.v[j] > x) {
      t.v[j + 1] = t.v[j];
      --j;
    }
    t.v[j + 1] = x;
  }
  return t;
}
constexpr SizeTable kSizeTable = MakeSizeTable();
static_assert(kSizeTable.v[0] == 1 && kSizeTable.v[kFFTSizeCount - 1] == kMaxFFTSize, "size table");

struct Reversal {
  unsigned char v[256];
};
constexpr Reversal MakeReversal() {
  Reversal r{};
  for (int i = 0; i < 256; ++i) {
    int x = 0;
    for (int b = 0; b < 8; ++b)
      if (i & (1 << b)) x |= 0x80 >> b;
    r.v[i] = static_cast<unsigned char>(x);
  }
  return r;
}
constexpr Reversal kReverse = MakeReversal();

inline uint32_t Reverse32(uint32_t v) {
  return (uint32_t(kReverse.v[v & 255]) << 24) | (uint32_t(kReverse.v[(v >> 8) & 255]) << 16) |
         (uint32_t(kReverse.v[(v >> 16) & 255]) << 8) | uint32_t(kReverse.v[v >> 24]);
}

inline bool IsPowerOfTwo(int n) { return (n & (n - 1)) == 0; }

inline int Log2(int n) {
  int m = 0;
  while ((1 << m) < n) ++m;
  return m;
}

// Complex products of two bins per register: [re0 im0 re1 im1].
inline __m128 ComplexMul(__m128 a, __m128 w) {
  const __m128 t = _mm_mul_ps(a, _mm_moveldup_ps(w));
  const __m128 s = _mm_mul_ps(_mm_shuffle_ps(a, a, _MM_SHUFFLE(2, 3, 0, 1)), _mm_movehdup_ps(w));
  return _mm_addsub_ps(t, s);
}
inline __m128 LoadPair(const FFTComplex* p) { return _mm_loadu_ps(&p->Re); }
inline void StorePair(FFTComplex* p, __m128 v) { _mm_storeu_ps(&p->Re, v); }
inline __m128 LoadTwiddles(const FFTComplex* W, int k0, int k1) {
  const __m128d lo = _mm_load_sd(reinterpret_cast<const double*>(W + k0));
  return _mm_castpd_ps(_mm_loadh_pd(lo, reinterpret_cast<const double*>(W + k1)));
}
// Flips the sign of Im in both bins: with SwapReIm this makes -i * v.
inline __m128 OddSign() { return _mm_castsi128_ps(_mm_set_epi32(int(0x80000000), 0, int(0x80000000), 0)); }
// (Im, Re) of both bins.
inline __m128 SwapReIm(__m128 v) { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(2, 3, 0, 1)); }

inline FFTComplex Mul(FFTComplex a, FFTComplex w) { return {a.Re * w.Re - a.Im * w.Im, a.Re * w.Im + a.Im * w.Re}; }

// Radix-4 stage combining four sub-transforms of length L that stand in
// bit-reversed order (A0, A2, A1, A3); dw is the twiddle step N / (4L).
void Radix4Stage(FFTComplex* X, int N, int L, int dw, const FFTComplex* W) {
  const int span = 4 * L;
  if (L == 1) {
    for (int g = 0; g < N; g += 4) {
      FFTComplex* x = X + g;
      const FFTComplex x0 = x[0], t1 = x[1], t2 = x[2], t3 = x[3];
      const FFTComplex r0 = {x0.Re + t1.Re, x0.Im + t1.Im}, r1 = {x0.Re - t1.Re, x0.Im - t1.Im};
      const FFTComplex s = {t2.Re + t3.Re, t2.Im + t3.Im}, d = {t2.Re - t3.Re, t2.Im - t3.Im};
      x[0] = {r0.Re + s.Re, r0.Im + s.Im};
      x[1] = {r1.Re + d.Im, r1.Im - d.Re};
      x[2] = {r0.Re - s.Re, r0.Im - s.Im};
      x[3] = {r1.Re - d.Im, r1.Im + d.Re};
    }
    return;
  }
  for (int g = 0; g < N; g += span) {
    FFTComplex* x = X + g;
    for (int j = 0; j < L; j += 2) {
      const int k = j * dw;
      // W[0] is (1, 0), so the first position needs no branch of its own.
      const __m128 a1 = ComplexMul(LoadPair(x + j + L), LoadTwiddles(W, 2 * k, 2 * (k + dw)));
      const __m128 a2 = ComplexMul(LoadPair(x + j + 2 * L), LoadTwiddles(W, k, k + dw));
      const __m128 a3 = ComplexMul(LoadPair(x + j + 3 * L), LoadTwiddles(W, 3 * k, 3 * (k + dw)));
      const __m128 a0 = LoadPair(x + j);
      const __m128 r0 = _mm_add_ps(a0, a1), r1 = _mm_sub_ps(a0, a1);
      const __m128 s = _mm_add_ps(a2, a3), d = SwapReIm(_mm_sub_ps(a2, a3));
      StorePair(x + j, _mm_add_ps(r0, s));
      StorePair(x + j + L, _mm_add_ps(r1, _mm_xor_ps(d, OddSign())));  // r1 - i*d
      StorePair(x + j + 2 * L, _mm_sub_ps(r0, s));
      StorePair(x + j + 3 * L, _mm_addsub_ps(r1, d));  // r1 + i*d
    }
  }
}

void Radix2Stage(FFTComplex* X, int N, int L, int dw, const FFTComplex* W) {
  for (int g = 0; g < N; g += 2 * L) {
    FFTComplex* x = X + g;
    if (L == 1) {
      const FFTComplex u = x[0], v = x[1];
      x[0] = {u.Re + v.Re, u.Im + v.Im};
      x[1] = {u.Re - v.Re, u.Im - v.Im};
      continue;
    }
    for (int j = 0; j < L; j += 2) {
      const __m128 v = ComplexMul(LoadPair(x + j + L), LoadTwiddles(W, j * dw, (j + 1) * dw));
      const __m128 u = LoadPair(x + j);
      StorePair(x + j, _mm_add_ps(u, v));
      StorePair(x + j + L, _mm_sub_ps(u, v));
    }
  }
}

// Two positions a step when L is even (every stage but a first odd one).
void Radix3Pairs(FFTComplex* X, int N, int L, int dw, const FFTComplex* W) {
  const __m128 c = _mm_set1_ps(0.8660254f), half = _mm_set1_ps(0.5f);
  for (int g = 0; g < N; g += 3 * L) {
    FFTComplex* x = X + g;
    for (int j = 0; j < L; j += 2) {
      const int k = j * dw;
      const __m128 x0 = LoadPair(x + j);
      const __m128 x1 = ComplexMul(LoadPair(x + j + L), LoadTwiddles(W, k, k + dw));
      const __m128 x2 = ComplexMul(LoadPair(x + j + 2 * L), LoadTwiddles(W, 2 * k, 2 * (k + dw)));
      const __m128 s = _mm_add_ps(x1, x2);
      const __m128 d = SwapReIm(_mm_mul_ps(_mm_sub_ps(x1, x2), c));
      const __m128 m = _mm_sub_ps(x0, _mm_mul_ps(half, s));
      StorePair(x + j, _mm_add_ps(x0, s));
      StorePair(x + j + L, _mm_add_ps(m, _mm_xor_ps(d, OddSign())));
      StorePair(x + j + 2 * L, _mm_addsub_ps(m, d));
    }
  }
}

void Radix5Pairs(FFTComplex* X, int N, int L, int dw, const FFTComplex* W) {
  const __m128 c1 = _mm_set1_ps(0.25f), c2 = _mm_set1_ps(0.559017f), c3 = _mm_set1_ps(0.95105654f);
  const __m128 c4 = _mm_set1_ps(1.5388417f), c5 = _mm_set1_ps(0.36327127f);
  for (int g = 0; g < N; g += 5 * L) {
    FFTComplex* x = X + g;
    for (int j = 0; j < L; j += 2) {
      const int k = j * dw, k1 = k + dw;
      const __m128 y0 = LoadPair(x + j);
      const __m128 y1 = ComplexMul(LoadPair(x + j + L), LoadTwiddles(W, k, k1));
      const __m128 y2 = ComplexMul(LoadPair(x + j + 2 * L), LoadTwiddles(W, 2 * k, 2 * k1));
      const __m128 y3 = ComplexMul(LoadPair(x + j + 3 * L), LoadTwiddles(W, 3 * k, 3 * k1));
      const __m128 y4 = ComplexMul(LoadPair(x + j + 4 * L), LoadTwiddles(W, 4 * k, 4 * k1));
      const __m128 a = _mm_add_ps(y1, y4), b = _mm_add_ps(y2, y3);
      const __m128 d1 = _mm_sub_ps(y1, y4), d2 = _mm_sub_ps(y2, y3);
      const __m128 t = _mm_add_ps(a, b);
      const __m128 t2 = _mm_sub_ps(y0, _mm_mul_ps(c1, t));
      const __m128 t3 = _mm_mul_ps(_mm_sub_ps(a, b), c2);
      const __m128 t4 = _mm_add_ps(t2, t3), t5 = _mm_sub_ps(t2, t3);
      const __m128 m = _mm_mul_ps(c3, _mm_add_ps(d1, d2));
      const __m128 s1 = SwapReIm(_mm_sub_ps(m, _mm_mul_ps(c5, d2)));
      const __m128 s2 = SwapReIm(_mm_sub_ps(_mm_mul_ps(c4, d1), m));
      StorePair(x + j, _mm_add_ps(y0, t));
      StorePair(x + j + L, _mm_add_ps(t4, _mm_xor_ps(s1, OddSign())));
      StorePair(x + j + 4 * L, _mm_addsub_ps(t4, s1));
      StorePair(x + j + 2 * L, _mm_add_ps(t5, _mm_xor_ps(s2, OddSign())));
      StorePair(x + j + 3 * L, _mm_addsub_ps(t5, s2));
    }
  }
}

void Radix3Stage(FFTComplex* X, int N, int L, int dw, const FFTComplex* W) {
  if ((L & 1) == 0) return Radix3Pairs(X, N, L, dw, W);
  const float c = 0.8660254f;
  for (int g = 0; g < N; g += 3 * L) {
    FFTComplex* x = X + g;
    for (int j = 0; j < L; ++j) {
      const FFTComplex x0 = x[j];
      FFTComplex x1 = x[j + L], x2 = x[j + 2 * L];
      if (j != 0) {
        x1 = Mul(x1, W[j * dw]);
        x2 = Mul(x2, W[2 * j * dw]);
      }
      const float sr = x1.Re + x2.Re, si = x1.Im + x2.Im;
      const float dr = (x1.Re - x2.Re) * c, di = (x1.Im - x2.Im) * c;
      const float mr = x0.Re - 0.5f * sr, mi = x0.Im - 0.5f * si;
      x[j] = {x0.Re + sr, x0.Im + si};
      x[j + L] = {mr + di, mi - dr};
      x[j + 2 * L] = {mr - di, mi + dr};
    }
  }
}

void Radix5Stage(FFTComplex* X, int N, int L, int dw, const FFTComplex* W) {
  if ((L & 1) == 0) return Radix5Pairs(X, N, L, dw, W);
  const float c1 = 0.25f, c2 = 0.559017f, c3 = 0.95105654f, c4 = 1.5388417f, c5 = 0.36327127f;
  for (int g = 0; g < N; g += 5 * L) {
    FFTComplex* x = X + g;
    for (int j = 0; j < L; ++j) {
      const FFTComplex y0 = x[j];
      FFTComplex y1 = x[j + L], y2 = x[j + 2 * L], y3 = x[j + 3 * L], y4 = x[j + 4 * L];
      if (j != 0) {
        const int k = j * dw;
        y1 = Mul(y1, W[k]);
        y2 = Mul(y2, W[2 * k]);
        y3 = Mul(y3, W[3 * k]);
        y4 = Mul(y4, W[4 * k]);
      }
      const float ar = y1.Re + y4.Re, ai = y1.Im + y4.Im, br = y2.Re + y3.Re, bi = y2.Im + y3.Im;
      const float d1r = y1.Re - y4.Re, d1i = y1.Im - y4.Im, d2r = y2.Re - y3.Re, d2i = y2.Im - y3.Im;
      const float tr = ar + br, ti = ai + bi;
      const float t2r = y0.Re - c1 * tr, t2i = y0.Im - c1 * ti;
      const float t3r = (ar - br) * c2, t3i = (ai - bi) * c2;
      const float t4r = t2r + t3r, t4i = t2i + t3i, t5r = t2r - t3r, t5i = t2i - t3i;
      const float mr = c3 * (d1r + d2r), mi = c3 * (d1i + d2i);
      const float s1r = mr - c5 * d2r, s1i = mi - c5 * d2i;  // sin-weighted sums of outputs 1 and 4
      const float s2r = c4 * d1r - mr, s2i = c4 * d1i - mi;  // and of outputs 2 and 3
      x[j] = {y0.Re + tr, y0.Im + ti};
      x[j + L] = {t4r + s1i, t4i - s1r};
      x[j + 4 * L] = {t4r - s1i, t4i + s1r};
      x[j + 2 * L] = {t5r + s2i, t5i - s2r};
      x[j + 3 * L] = {t5r - s2i, t5i + s2r};
    }
  }
}

// Any other odd factor p as a plain length-p DFT over the rotated inputs,
// from h sums and h differences of mirrored pairs (h = (p - 1) / 2).
void OddRadixStage(FFTComplex* X, int N, int L, int dw, int p, const FFTComplex* W) {
  const int h = (p - 1) / 2;
  FFTComplex* ab = MallocArray<FFTComplex>(size_t(h) * 2);
  // The engine reports no failure here; a missing scratch leaves the stage
  // undone rather than writing through a null pointer.
  if (ab == nullptr) return;
  FFTComplex* a = ab;
  FFTComplex* b = ab + h;
  const int step = N / p;
  for (int g = 0; g < N; g += p * L) {
    FFTComplex* x = X + g;
    for (int j = 0; j < L; ++j) {
      const FFTComplex y0 = x[j];
      double sum_re = y0.Re, sum_im = y0.Im;
      for (int q = 1; q <= h; ++q) {
        FFTComplex u = x[j + q * L], v = x[j + (p - q) * L];
        if (j != 0) {
          u = Mul(u, W[q * j * dw]);
          v = Mul(v, W[(p - q) * j * dw]);
        }
        a[q - 1] = {u.Re + v.Re, u.Im + v.Im};
        b[q - 1] = {u.Re - v.Re, u.Im - v.Im};
        sum_re += a[q - 1].Re;
        sum_im += a[q - 1].Im;
      }
      for (int k = 1; k <= h; ++k) {
        double ar = y0.Re, ai = y0.Im, br = 0, bi = 0;
        int idx = 0;
        const int advance = k * step;
        for (int q = 0; q < h; ++q) {
          idx += advance;
          if (idx >= N) idx -= N;
          const double wr = W[idx].Re, wi = W[idx].Im;
          ar += a[q].Re * wr;
          ai += a[q].Im * wr;
          br -= b[q].Im * wi;
          bi += b[q].Re * wi;
        }
        x[j + k * L] = {float(ar + br), float(ai + bi)};
        x[j + (p - k) * L] = {float(ar - br), float(ai - bi)};
      }
      x[j] = {float(sum_re), float(sum_im)};
    }
  }
  Free(ab);
}

void BuildTables(int n) {
  FFTTables& t = g_FFTTables;
  int* F = t.Factors;
  int* index = t.IndexTable;
  FFTComplex* W = t.Twiddles;
  const int count = t.FactorCount;
  W[0] = {1.0f, 0.0f};
  if (n < 6) {
    for (int i = 0; i < n; ++i) index[i] = i;
    if (n != 4) return;
    index[1] = 2;
    index[2] = 1;
  } else {
    int R[34];
    R[count] = 1;
    for (int i = count - 1; i >= 0; --i) R[i] = R[i + 1] * F[i];
    int digit[33] = {0};
    if (F[0] & 1) {
      // Mixed-radix digit reversal: digit 0 counts fastest and steps by R[1].
      int idx = 0;
      for (int i = 0; i < n; ++i) {
        index[i] = idx;
        int k = 0;
        ++digit[0];
        idx += R[1];
        while (k < count - 1 && digit[k] == F[k]) {
          digit[k] = 0;
          idx += R[k + 2] - R[k];
          ++digit[++k];
        }
      }
    } else {
      // Bit reversal inside the power-of-two factor, arranged for the radix-4
      // butterflies: positions i..i+3 take j, j + f/2, j + f/4, j + 3f/4.
      const int f = F[0], a = R[1], h = f * a / 2, q = h / 2, m = Log2(f);
      if (f == 2) {
        index[0] = 0;
        index[1] = h;
      } else {
        for (int i = 0; i < f; i += 4) {
          const uint32_t v = uint32_t(i / 4);
          const int r = f <= 256 ? (kReverse.v[v] >> (10 - m)) : int(Reverse32(v) >> (34 - m));
          const int j = r * a;
          index[i] = j;
          index[i + 1] = j + h;
          index[i + 2] = j + q;
          index[i + 3] = j + h + q;
        }
      }
      // The other factors offset each block of f by a digit-reversed counter.
      int offset = 0;
      for (int blk = f; blk < n; blk += f) {
        int k = 1;
        ++digit[1];
        offset += R[2];
        while (k < count - 1 && digit[k] == F[k]) {
          digit[k] = 0;
          offset += R[k + 2] - R[k];
          ++digit[++k];
        }
        for (int i = 0; i < f; ++i) index[blk + i] = index[i] + offset;
      }
    }
  }
  if (n < 4) return;
  // Twiddles W[k] = exp(-2 pi i k / n) by a recurrence in extended precision;
  // 2 pi is the single-precision value, as the tables always used.
  const long double T = 6.2831855f;
  long double cr, ci;
  if (IsPowerOfTwo(n)) {
    const long double angle = T / static_cast<long double>(n);
    cr = std::cos(angle);
    ci = -std::sin(angle);
  } else {
    ci = std::sin(-T / static_cast<long double>(n));
    cr = std::sqrt(1.0L - ci * ci);
  }
  if ((n & 1) == 0) W[n / 2] = {-1.0f, 0.0f};
  long double wr = 1.0L, wi = 0.0L;
  for (int k = 1; k < (n + 1) / 2; ++k) {
    const long double r = wr * cr - wi * ci;
    wi = wr * ci + wi * cr;
    wr = r;
    W[k] = {float(wr), float(wi)};
    W[n - k] = {float(wr), -float(wi)};
  }
}

void ZeroRowsOf(FFTComplex* Plane, int Width, int From, int To) {
  if (To > From) std::memset(Plane + size_t(From) * Width, 0, size_t(To - From) * Width * sizeof(FFTComplex));
}

// Rows of length n through FFT1D. When the tables could not be had (the
// engine does not report that) the rows are copied unchanged instead.
void RowPass(const FFTComplex* Src, FFTComplex* Dest, int Rows, int n, int Inverse) {
  if (g_FFTTables.Size != n) {
    if (Src != Dest && Rows > 0) std::memmove(Dest, Src, size_t(Rows) * n * sizeof(FFTComplex));
    return;
  }
  for (int y = 0; y < Rows; ++y) FFT1D(Src + size_t(y) * n, Dest + size_t(y) * n, Inverse);
}

// Out-of-place circular shift by (sx, sy): two row copies per row.
void ShiftRows(const FFTComplex* Src, FFTComplex* Dest, int Width, int Height, int sx, int sy) {
  for (int y = 0; y < Height; ++y) {
    int sy_row = y + sy;
    if (sy_row >= Height) sy_row -= Height;
    const FFTComplex* s = Src + size_t(sy_row) * Width;
    FFTComplex* d = Dest + size_t(y) * Width;
    std::memcpy(d, s + sx, size_t(Width - sx) * sizeof(FFTComplex));
    std::memcpy(d + (Width - sx), s, size_t(sx) * sizeof(FFTComplex));
  }
}

int Shift(const FFTComplex* Src, FFTComplex* Dest, int Width, int Height, int sx, int sy) {
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (Src != Dest) {
    ShiftRows(Src, Dest, Width, Height, sx, sy);
    return STATUS_OK;
  }
  const size_t bin = sizeof(FFTComplex);
  if ((Height & 1) == 0 && (Width & 1) == 0) {
    // Both halves are exact: swap diagonal quadrants row by row.
    const int hw = Width / 2;
    FFTComplex* tmp = MallocArray<FFTComplex>(hw);
    if (tmp == nullptr) return STATUS_OUT_OF_MEMORY;
    for (int y = 0; y < Height / 2; ++y) {
      FFTComplex* a = Dest + size_t(y) * Width;
      FFTComplex* b = Dest + size_t(y + Height / 2) * Width;
      std::memcpy(tmp, a, hw * bin);
      std::memcpy(a, b + hw, hw * bin);
      std::memcpy(b + hw, tmp, hw * bin);
      std::memcpy(tmp, a + hw, hw * bin);
      std::memcpy(a + hw, b, hw * bin);
      std::memcpy(b, tmp, hw * bin);
    }
    Free(tmp);
  } else if ((Height & 1) == 0) {
    // Odd width: rows y and y + H/2 trade places, each rotated by sx.
    FFTComplex* tmp = MallocArray<FFTComplex>(Width);
    if (tmp == nullptr) return STATUS_OUT_OF_MEMORY;
    for (int y = 0; y < Height / 2; ++y) {
      FFTComplex* a = Dest + size_t(y) * Width;
      FFTComplex* b = Dest + size_t(y + Height / 2) * Width;
      std::memcpy(tmp, a, Width * bin);
      std::memcpy(a, b + sx, size_t(Width - sx) * bin);
      std::memcpy(a + (Width - sx), b, size_t(sx) * bin);
      std::memcpy(b, tmp + sx, size_t(Width - sx) * bin);
      std::memcpy(b + (Width - sx), tmp, size_t(sx) * bin);
    }
    Free(tmp);
  } else {
    const size_t n = size_t(Width) * Height;
    FFTComplex* copy = MallocArray<FFTComplex>(n);
    if (copy == nullptr) return STATUS_OUT_OF_MEMORY;
    std::memcpy(copy, Src, n * bin);
    ShiftRows(copy, Dest, Width, Height, sx, sy);
    Free(copy);
  }
  return STATUS_OK;
}

// Swap or copy 2 by 2 blocks of 8-byte elements: a 128-bit register holds a row pair.
inline void Transpose2x2(const FFTComplex* s0, const FFTComplex* s1, FFTComplex* d0, FFTComplex* d1) {
  const __m128d r0 = _mm_loadu_pd(reinterpret_cast<const double*>(s0));
  const __m128d r1 = _mm_loadu_pd(reinterpret_cast<const double*>(s1));
  _mm_storeu_pd(reinterpret_cast<double*>(d0), _mm_unpacklo_pd(r0, r1));
  _mm_storeu_pd(reinterpret_cast<double*>(d1), _mm_unpackhi_pd(r0, r1));
}

constexpr int kTile = 32;

}  // namespace

const uint32_t* FFTSizeTable() { return kSizeTable.v; }

int OptimalFFTSize(int n) {
  if (n < 1 || static_cast<uint32_t>(n) >= kMaxFFTSize) return -1;
  int low = 0, high = kFFTSizeCount - 1;
  while (low < high) {
    const int middle = (low + high) / 2;
    if (kSizeTable.v[middle] >= static_cast<uint32_t>(n))
      high = middle;
    else
      low = middle + 1;
  }
  return static_cast<int>(kSizeTable.v[high]);
}

int FFTFactorize(int n, int* Factors) {
  if (n < 6) {
    Factors[0] = n;
    return 1;
  }
  int count = 0;
  int m = n;
  const int p = n & -n;  // largest power of two dividing n
  if (p >= 2) {
    Factors[count++] = p;
    m = n / p;
  }
  const int first_odd = count;
  for (int64_t f = 3; m > 1;) {
    if (m % f == 0) {
      Factors[count++] = static_cast<int>(f);
      m /= static_cast<int>(f);
    } else {
      f += 2;
      if (f * f > m) break;
    }
  }
  if (m > 1) Factors[count++] = m;
  // Largest odd factor first: it is the last stage, the small ones come early.
  for (int i = first_odd, j = count - 1; i < j; ++i, --j) {
    const int t = Factors[i];
    Factors[i] = Factors[j];
    Factors[j] = t;
  }
  return count;
}

void FFTReleaseTables() {
  AlignedFree(g_FFTTables.Block);
  g_FFTTables = {-1, -1, nullptr, nullptr, nullptr, nullptr};
}

int FFTPrepareTables(int n) {
  if (n < 1) return 1;
  if (g_FFTTables.Size == n) return 0;
  FFTReleaseTables();
  void* block = AlignedMalloc(size_t(n) * 16, 32);
  if (block == nullptr) return 2;
  FFTTables& t = g_FFTTables;
  t.Block = block;
  t.Factors = static_cast<int*>(block);
  t.IndexTable = reinterpret_cast<int*>(static_cast<char*>(block) + size_t(n) * 4);
  t.Twiddles = reinterpret_cast<FFTComplex*>(static_cast<char*>(block) + size_t(n) * 8);
  int factors[32];
  t.FactorCount = FFTFactorize(n, factors);
  std::memcpy(t.Factors, factors, sizeof(int) * t.FactorCount);
  t.Size = n;
  BuildTables(n);
  return 0;
}

void FFT1D(const FFTComplex* Src, FFTComplex* Dest, int Inverse) {
  const FFTTables& t = g_FFTTables;
  const int N = t.Size;
  if (N < 1) return;
  if (!IsPowerOfTwo(N) && Src == Dest) {
    // Only the power-of-two permutation is its own inverse and can be swapped
    // in place; other lengths go through a row of scratch.
    FFTComplex* tmp = MallocArray<FFTComplex>(N);
    if (tmp == nullptr) return;  // not reported: the row stays as it was
    FFT1D(Src, tmp, Inverse);
    std::memcpy(Dest, tmp, size_t(N) * sizeof(FFTComplex));
    Free(tmp);
    return;
  }
  const int* index = t.IndexTable;
  const float sign = Inverse ? -1.0f : 1.0f;
  if (Src != Dest) {
    for (int i = 0; i < N; ++i) Dest[i] = {Src[index[i]].Re, Src[index[i]].Im * sign};
  } else {
    if (N >= 4) {
      for (int i = 0; i < N; ++i) {
        const int j = index[i];
        if (j > i) {
          const FFTComplex tmp = Dest[i];
          Dest[i] = Dest[j];
          Dest[j] = tmp;
        }
      }
    }
    if (Inverse)
      for (int i = 0; i < N; ++i) Dest[i].Im = -Dest[i].Im;
  }

  const int* F = t.Factors;
  const FFTComplex* W = t.Twiddles;
  int len = 1, dw = N, fi = 0;
  if ((F[0] & 1) == 0) {
    const int f = F[0];
    while (4 * len <= f) {
      dw /= 4;
      Radix4Stage(Dest, N, len, dw, W);
      len *= 4;
    }
    if (len < f) {
      dw /= 2;
      Radix2Stage(Dest, N, len, dw, W);
      len *= 2;
    }
    fi = 1;
  }
  for (; fi < t.FactorCount; ++fi) {
    const int p = F[fi];
    if (p == 1) continue;
    dw /= p;
    if (p == 3)
      Radix3Stage(Dest, N, len, dw, W);
    else if (p == 5)
      Radix5Stage(Dest, N, len, dw, W);
    else
      OddRadixStage(Dest, N, len, dw, p, W);
    len *= p;
  }

  if (Inverse) {
    const float scale = 1.0f / static_cast<float>(N);
    for (int i = 0; i < N; ++i) Dest[i] = {Dest[i].Re * scale, Dest[i].Im * -scale};
  }
}

int TransposeComplex(const FFTComplex* Src, FFTComplex* Dest, int Width, int Height) {
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  // Dest is Height wide and Width tall: Dest[x][y] = Src[y][x].
  for (int ty = 0; ty < Height; ty += kTile) {
    const int ye = ty + kTile < Height ? ty + kTile : Height;
    for (int tx = 0; tx < Width; tx += kTile) {
      const int xe = tx + kTile < Width ? tx + kTile : Width;
      int y = ty;
      for (; y + 1 < ye; y += 2) {
        const FFTComplex* s0 = Src + size_t(y) * Width;
        const FFTComplex* s1 = s0 + Width;
        int x = tx;
        for (; x + 1 < xe; x += 2)
          Transpose2x2(s0 + x, s1 + x, Dest + size_t(x) * Height + y, Dest + size_t(x + 1) * Height + y);
        for (; x < xe; ++x) {
          Dest[size_t(x) * Height + y] = s0[x];
          Dest[size_t(x) * Height + y + 1] = s1[x];
        }
      }
      for (; y < ye; ++y)
        for (int x = tx; x < xe; ++x) Dest[size_t(x) * Height + y] = Src[size_t(y) * Width + x];
    }
  }
  return STATUS_OK;
}

void TransposeComplexInPlace(FFTComplex* Plane, int Size) {
  const size_t n = size_t(Size);
  for (int ty = 0; ty < Size; ty += kTile) {
    const int ye = ty + kTile < Size ? ty + kTile : Size;
    for (int tx = ty; tx < Size; tx += kTile) {
      const int xe = tx + kTile < Size ? tx + kTile : Size;
      for (int y = ty; y < ye; ++y) {
        // Within the diagonal tile only the part above the diagonal swaps.
        for (int x = tx == ty ? y + 1 : tx; x < xe; ++x) {
          const FFTComplex a = Plane[y * n + x];
          Plane[y * n + x] = Plane[x * n + y];
          Plane[x * n + y] = a;
        }
      }
    }
  }
}

int FFT2D(const FFTComplex* Src, FFTComplex* Dest, int Width, int Height, int Inverse, int ZeroRows) {
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  // Callers pass positive sizes; these guards only keep other input harmless.
  if (Width < 1 || Height < 1) return STATUS_INVALID_PARAMETER;
  if (ZeroRows < 0) ZeroRows = 0;
  if (ZeroRows > Height) ZeroRows = Height;
  const int rows = Height - ZeroRows;
  if (Width == Height) {
    // The status is deliberately not looked at: RowPass copies when it failed.
    FFTPrepareTables(Width);
    RowPass(Src, Dest, rows, Width, Inverse);
    ZeroRowsOf(Dest, Width, rows, Height);
    TransposeComplexInPlace(Dest, Width);
    RowPass(Dest, Dest, Height, Width, Inverse);
    TransposeComplexInPlace(Dest, Width);
    FFTReleaseTables();
    return STATUS_OK;
  }
  FFTComplex* scratch = MallocArray<FFTComplex>(size_t(Width) * Height);
  if (scratch == nullptr) return STATUS_OUT_OF_MEMORY;
  FFTPrepareTables(Width);
  RowPass(Src, scratch, rows, Width, Inverse);
  ZeroRowsOf(scratch, Width, rows, Height);
  FFTReleaseTables();
  TransposeComplex(scratch, Dest, Width, Height);
  FFTPrepareTables(Height);
  RowPass(Dest, scratch, Width, Height, Inverse);
  FFTReleaseTables();
  TransposeComplex(scratch, Dest, Height, Width);
  Free(scratch);
  return STATUS_OK;
}

int FFTShift(const FFTComplex* Src, FFTComplex* Dest, int Width, int Height) {
  return Shift(Src, Dest, Width, Height, Width - Width / 2, Height - Height / 2);
}

int FFTInverseShift(const FFTComplex* Src, FFTComplex* Dest, int Width, int Height) {
  return Shift(Src, Dest, Width, Height, Width / 2, Height / 2);
}

}  // namespace qv
