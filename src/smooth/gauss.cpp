// Gaussian blur by the second-order causal plus anticausal recursion: rows
// run across eight (or two) rows at once through transposes, columns along
// the rows. The byte export rounds each axis differently, as defined; the
// float plane version keeps everything in float.
#include "smooth/gauss.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "frame/border.h"
#include "frame/frame.h"
#include "smooth/blur_simd.h"

namespace qv {
namespace {

// Truncation toward zero that stays defined for NaN and out-of-range values
// (a NaN Radius passes the frame): those give INT_MIN, the processor's own
// answer to a failed conversion.
inline int TruncToInt(double V) { return (V > -2147483649.0 && V < 2147483648.0) ? static_cast<int>(V) : INT_MIN; }

struct VecCoefs {
  __m128 a0, a1, a2, a3, b1, b2, cp, cn;
};

VecCoefs Broadcast(const GaussCoefs& g) {
  return {_mm_set1_ps(g.A0),
          _mm_set1_ps(g.A1),
          _mm_set1_ps(g.A2),
          _mm_set1_ps(g.A3),
          _mm_set1_ps(static_cast<float>(g.B1)),
          _mm_set1_ps(static_cast<float>(g.B2)),
          _mm_set1_ps(g.CoefP),
          _mm_set1_ps(g.CoefN)};
}

// (A0 * x + A1 * xp) - (B1 * y1 + B2 * y2), the one shape of both recursions.
inline __m128 Recur(__m128 Ca, __m128 Cb, __m128 X, __m128 Xp, __m128 B1, __m128 B2, __m128 Y1, __m128 Y2) {
  return _mm_sub_ps(_mm_add_ps(_mm_mul_ps(Ca, X), _mm_mul_ps(Cb, Xp)),
                    _mm_add_ps(_mm_mul_ps(B1, Y1), _mm_mul_ps(B2, Y2)));
}

// Forward then backward along N columns of S streams of 4 float lanes;
// stream s starts at In + s * Pitch. Out receives forward plus backward.
template <int S>
void GaussKernelH(const float* In, float* Out, int N, size_t Pitch, const VecCoefs& v) {
  __m128 xp[S], y1[S], y2[S];
#pragma GCC unroll 8
  for (int s = 0; s < S; ++s) {
    xp[s] = _mm_load_ps(In + s * Pitch);
    y1[s] = y2[s] = _mm_mul_ps(xp[s], v.cp);
  }
  for (int n = 0; n < N; ++n)
#pragma GCC unroll 8
    for (int s = 0; s < S; ++s) {
      const __m128 x = _mm_load_ps(In + s * Pitch + 4 * size_t(n));
      const __m128 y = Recur(v.a0, v.a1, x, xp[s], v.b1, v.b2, y1[s], y2[s]);
      _mm_store_ps(Out + s * Pitch + 4 * size_t(n), y);
      y2[s] = y1[s];
      y1[s] = y;
      xp[s] = x;
    }
  __m128 xn1[S], xn2[S], z1[S], z2[S];
#pragma GCC unroll 8
  for (int s = 0; s < S; ++s) {
    xn1[s] = xn2[s] = _mm_load_ps(In + s * Pitch + 4 * size_t(N - 1));
    z1[s] = z2[s] = _mm_mul_ps(xn1[s], v.cn);
  }
  for (int n = N - 1; n >= 0; --n)
#pragma GCC unroll 8
    for (int s = 0; s < S; ++s) {
      const __m128 z = Recur(v.a2, v.a3, xn1[s], xn2[s], v.b1, v.b2, z1[s], z2[s]);
      float* o = Out + s * Pitch + 4 * size_t(n);
      _mm_store_ps(o, _mm_add_ps(_mm_load_ps(o), z));
      xn2[s] = xn1[s];
      xn1[s] = _mm_load_ps(In + s * Pitch + 4 * size_t(n));
      z2[s] = z1[s];
      z1[s] = z;
    }
}

// ---- byte image --------------------------------------------------------

// n floats to bytes: blocks of 16 rounded to nearest even with saturation;
// the rest get 0.5 added twice, then truncation and a clamp.
void GaussFloatRowToBytes(const float* In, unsigned char* Out, int N) {
  const int block_end = N & ~15;
  for (int i = 0; i < block_end; i += 16)
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Out + i),
                     Float16ToBytes(_mm_loadu_ps(In + i), _mm_loadu_ps(In + i + 4), _mm_loadu_ps(In + i + 8),
                                    _mm_loadu_ps(In + i + 12)));
  for (int i = block_end; i < N; ++i) Out[i] = static_cast<unsigned char>(ClampToByte(TruncToInt(In[i] + 0.5f + 0.5f)));
}

// Groups of eight single-channel rows (G of them side by side): rows
// 4h..4h+3 form stream h, one column of a stream being the four rows' samples
// of that column. Each stream's arithmetic is the same whatever G is; more
// streams only hide more of the recursion's latency.
template <int G>
void GaussRows8(const unsigned char* Src, unsigned char* Dest, int Width, int Stride, float* In, float* Out,
                const VecCoefs& v) {
  const size_t pitch = size_t(Width) * 4;
  const int block_end = Width & ~15;
  for (int h = 0; h < 2 * G; ++h) {
    const unsigned char* r[4];
    for (int k = 0; k < 4; ++k) r[k] = Src + size_t(4 * h + k) * Stride;
    float* run = In + h * pitch;
    for (int x = 0; x < block_end; x += 16) {
      __m128i q[4];
      for (int k = 0; k < 4; ++k) q[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(r[k] + x));
      Transpose4x4I32(q[0], q[1], q[2], q[3]);
      for (int k = 0; k < 4; ++k) {
        const __m128i c = Transpose4x4Bytes(q[k]);  // four columns of four rows
        float* col = run + 4 * size_t(x + 4 * k);
        _mm_store_ps(col, BytesToFloat4(c));
        _mm_store_ps(col + 4, BytesToFloat4(_mm_srli_si128(c, 4)));
        _mm_store_ps(col + 8, BytesToFloat4(_mm_srli_si128(c, 8)));
        _mm_store_ps(col + 12, BytesToFloat4(_mm_srli_si128(c, 12)));
      }
    }
    for (int x = block_end; x < Width; ++x)
      for (int k = 0; k < 4; ++k) run[4 * size_t(x) + k] = r[k][x];
  }
  GaussKernelH<2 * G>(In, Out, Width, pitch, v);
  const int body_end = Width & ~7;
  for (int h = 0; h < 2 * G; ++h) {
    unsigned char* r[4];
    for (int k = 0; k < 4; ++k) r[k] = Dest + size_t(4 * h + k) * Stride;
    const float* run = Out + h * pitch;
    for (int x = 0; x < body_end; x += 8) {
      const float* col = run + 4 * size_t(x);
      __m128 a0 = _mm_load_ps(col), a1 = _mm_load_ps(col + 4), a2 = _mm_load_ps(col + 8), a3 = _mm_load_ps(col + 12);
      __m128 b0 = _mm_load_ps(col + 16), b1 = _mm_load_ps(col + 20), b2 = _mm_load_ps(col + 24),
             b3 = _mm_load_ps(col + 28);
      Transpose4x4F32(a0, a1, a2, a3);
      Transpose4x4F32(b0, b1, b2, b3);
      const __m128i r01 = _mm_packs_epi32(_mm_cvtps_epi32(a0), _mm_cvtps_epi32(b0));
      const __m128i r11 = _mm_packs_epi32(_mm_cvtps_epi32(a1), _mm_cvtps_epi32(b1));
      const __m128i r21 = _mm_packs_epi32(_mm_cvtps_epi32(a2), _mm_cvtps_epi32(b2));
      const __m128i r31 = _mm_packs_epi32(_mm_cvtps_epi32(a3), _mm_cvtps_epi32(b3));
      const __m128i p01 = _mm_packus_epi16(r01, r11), p23 = _mm_packus_epi16(r21, r31);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(r[0] + x), p01);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(r[1] + x), _mm_unpackhi_epi64(p01, p01));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(r[2] + x), p23);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(r[3] + x), _mm_unpackhi_epi64(p23, p23));
    }
    for (int x = body_end; x < Width; ++x)
      for (int k = 0; k < 4; ++k)
        r[k][x] = static_cast<unsigned char>(ClampToByte(TruncToInt(run[4 * size_t(x) + k] + 0.5f)));
  }
}

// A single-channel row by itself: y and z carried in double with the double
// B1 and B2, each stored as float, their sum truncated; the low byte is kept.
void GaussRowScalar(const unsigned char* Src, unsigned char* Dest, int Width, float* Line, const GaussCoefs& g) {
  double xp = Src[0], y1 = xp * double(g.CoefP), y2 = y1;
  for (int n = 0; n < Width; ++n) {
    const double x = Src[n];
    const double y = (double(g.A0) * x + double(g.A1) * xp) - (g.B1 * y1 + g.B2 * y2);
    Line[n] = static_cast<float>(y);
    y2 = y1;
    y1 = y;
    xp = x;
  }
  double xn1 = Src[Width - 1], xn2 = xn1, z1 = xn1 * double(g.CoefN), z2 = z1;
  for (int n = Width - 1; n >= 0; --n) {
    const double z = (double(g.A2) * xn1 + double(g.A3) * xn2) - (g.B1 * z1 + g.B2 * z2);
    const float zf = static_cast<float>(z);
    Dest[n] = static_cast<unsigned char>(TruncToInt(double(Line[n]) + double(zf)));
    xn2 = xn1;
    xn1 = Src[n];
    z2 = z1;
    z1 = z;
  }
}

// Widens one 3- or 4-channel row into a stream of 4 float lanes per pixel.
void WidenPixels(const unsigned char* Row, float* Run, int Width, int Channel) {
  const __m128i spread3 = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
  // Four pixels per 16-byte load while the load stays inside the row.
  const int block_end = Channel == 4 ? (Width & ~3) : ((Width - 2) / 4) * 4;
  int x = 0;
  for (; x < block_end; x += 4) {
    __m128i q = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Row + x * Channel));
    if (Channel == 3) q = _mm_shuffle_epi8(q, spread3);
    float* p = Run + 4 * size_t(x);
    _mm_store_ps(p, BytesToFloat4(q));
    _mm_store_ps(p + 4, BytesToFloat4(_mm_srli_si128(q, 4)));
    _mm_store_ps(p + 8, BytesToFloat4(_mm_srli_si128(q, 8)));
    _mm_store_ps(p + 12, BytesToFloat4(_mm_srli_si128(q, 12)));
  }
  for (; x < Width; ++x)
    for (int c = 0; c < 4; ++c) Run[4 * size_t(x) + c] = c < Channel ? Row[x * Channel + c] : 0.0f;
}

// A 3-channel stream back to bytes: 4 pixels per step while the pixel index
// is below (Width - 2) rounded down to a multiple of 4, the rest by
// trunc(v + 0.5) with the low byte kept and no clamp.
void NarrowPixels3(const float* Run, unsigned char* Row, int Width) {
  const __m128i drop3 = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  const int body_end = ((Width - 2) / 4) * 4;
  int x = 0;
  for (; x < body_end; x += 4) {
    const float* p = Run + 4 * size_t(x);
    const __m128i q = Float16ToBytes(_mm_load_ps(p), _mm_load_ps(p + 4), _mm_load_ps(p + 8), _mm_load_ps(p + 12));
    // The 4 bytes past the 12 useful ones stay inside the row and are
    // overwritten by the next step or the tail.
    _mm_storeu_si128(reinterpret_cast<__m128i*>(Row + 3 * x), _mm_shuffle_epi8(q, drop3));
  }
  for (; x < Width; ++x)
    for (int c = 0; c < 3; ++c) Row[3 * x + c] = static_cast<unsigned char>(TruncToInt(Run[4 * size_t(x) + c] + 0.5f));
}

// Vertical forward step on n samples: four at a time in float, the rest in
// double with the double B1 and B2, stored as float.
void ForwardRowV(const float* X, const float* Xp, const float* Y1, const float* Y2, float* Y, int N,
                 const GaussCoefs& g, const VecCoefs& v, bool DoubleRest) {
  const int block_end = N & ~3;
  for (int i = 0; i < block_end; i += 4)
    _mm_storeu_ps(Y + i, Recur(v.a0, v.a1, _mm_loadu_ps(X + i), _mm_loadu_ps(Xp + i), v.b1, v.b2, _mm_loadu_ps(Y1 + i),
                               _mm_loadu_ps(Y2 + i)));
  if (DoubleRest) {
    for (int i = block_end; i < N; ++i)
      Y[i] = static_cast<float>((double(g.A0) * X[i] + double(g.A1) * Xp[i]) - (g.B1 * Y1[i] + g.B2 * Y2[i]));
  } else {
    const float b1 = static_cast<float>(g.B1), b2 = static_cast<float>(g.B2);
    for (int i = block_end; i < N; ++i) Y[i] = (g.A0 * X[i] + g.A1 * Xp[i]) - (b1 * Y1[i] + b2 * Y2[i]);
  }
}

void BackwardRowV(const float* Xn1, const float* Xn2, const float* Z1, const float* Z2, float* Z, int N,
                  const GaussCoefs& g, const VecCoefs& v, bool DoubleRest) {
  const int block_end = N & ~3;
  for (int i = 0; i < block_end; i += 4)
    _mm_storeu_ps(Z + i, Recur(v.a2, v.a3, _mm_loadu_ps(Xn1 + i), _mm_loadu_ps(Xn2 + i), v.b1, v.b2,
                               _mm_loadu_ps(Z1 + i), _mm_loadu_ps(Z2 + i)));
  if (DoubleRest) {
    for (int i = block_end; i < N; ++i)
      Z[i] = static_cast<float>((double(g.A2) * Xn1[i] + double(g.A3) * Xn2[i]) - (g.B1 * Z1[i] + g.B2 * Z2[i]));
  } else {
    const float b1 = static_cast<float>(g.B1), b2 = static_cast<float>(g.B2);
    for (int i = block_end; i < N; ++i) Z[i] = (g.A2 * Xn1[i] + g.A3 * Xn2[i]) - (b1 * Z1[i] + b2 * Z2[i]);
  }
}

void WidenRow(const unsigned char* Row, float* Out, int N) {
  const int block_end = N & ~15;
  for (int i = 0; i < block_end; i += 16) {
    const __m128i q = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Row + i));
    _mm_store_ps(Out + i, BytesToFloat4(q));
    _mm_store_ps(Out + i + 4, BytesToFloat4(_mm_srli_si128(q, 4)));
    _mm_store_ps(Out + i + 8, BytesToFloat4(_mm_srli_si128(q, 8)));
    _mm_store_ps(Out + i + 12, BytesToFloat4(_mm_srli_si128(q, 12)));
  }
  for (int i = block_end; i < N; ++i) Out[i] = Row[i];
}

void ScaleRow(const float* In, float* Out, int N, float K) {
  for (int i = 0; i < N; ++i) Out[i] = In[i] * K;
}

// Columns of the byte image: forward bytes go to Dest, backward bytes are
// rounded on their own and added with saturation.
void GaussColumnsU8(const unsigned char* Temp, unsigned char* Dest, int Height, int Stride, int N, float* Lines,
                    const GaussCoefs& g, const VecCoefs& v) {
  // Rows are padded to a multiple of 4 floats so that every row is aligned.
  const size_t pitch = (size_t(N) + 3) & ~size_t(3);
  float* r[5];
  for (int k = 0; k < 5; ++k) r[k] = Lines + k * pitch;
  unsigned char* bytes = reinterpret_cast<unsigned char*>(Lines + 5 * pitch);

  float *x = r[0], *xp = r[1], *y1 = r[2], *y2 = r[3], *y = r[4];
  WidenRow(Temp, xp, N);
  ScaleRow(xp, y1, N, g.CoefP);
  ScaleRow(xp, y2, N, g.CoefP);
  for (int row = 0; row < Height; ++row) {
    WidenRow(Temp + size_t(row) * Stride, x, N);
    ForwardRowV(x, xp, y1, y2, y, N, g, v, true);
    GaussFloatRowToBytes(y, Dest + size_t(row) * Stride, N);
    float* t = xp;
    xp = x;
    x = t;
    t = y2;
    y2 = y1;
    y1 = y;
    y = t;
  }

  float *xn1 = r[0], *xn2 = r[1], *z1 = r[2], *z2 = r[3], *z = r[4];
  WidenRow(Temp + size_t(Height - 1) * Stride, xn1, N);
  std::memcpy(xn2, xn1, sizeof(float) * N);
  ScaleRow(xn1, z1, N, g.CoefN);
  ScaleRow(xn1, z2, N, g.CoefN);
  const int block_end = N & ~15;
  for (int row = Height - 1; row >= 0; --row) {
    BackwardRowV(xn1, xn2, z1, z2, z, N, g, v, true);
    GaussFloatRowToBytes(z, bytes, N);
    unsigned char* d = Dest + size_t(row) * Stride;
    for (int i = 0; i < block_end; i += 16) {
      __m128i* p = reinterpret_cast<__m128i*>(d + i);
      _mm_storeu_si128(p, _mm_adds_epu8(_mm_loadu_si128(p), _mm_loadu_si128(reinterpret_cast<__m128i*>(bytes + i))));
    }
    for (int i = block_end; i < N; ++i) {
      const int s = d[i] + bytes[i];
      d[i] = static_cast<unsigned char>(s > 255 ? 255 : s);
    }
    WidenRow(Temp + size_t(row) * Stride, xn2, N);  // the oldest x becomes x[row]
    float* t = xn1;
    xn1 = xn2;
    xn2 = t;
    t = z2;
    z2 = z1;
    z1 = z;
    z = t;
  }
}

// ---- float plane ---------------------------------------------------------

void GaussRows8Float(const float* Src, float* Dest, int Width, float* In, float* Out, const VecCoefs& v) {
  const size_t pitch = size_t(Width) * 4;
  const int block_end = Width & ~3;
  for (int h = 0; h < 2; ++h) {
    const float* r[4];
    for (int k = 0; k < 4; ++k) r[k] = Src + size_t(4 * h + k) * Width;
    float* run = In + h * pitch;
    for (int x = 0; x < block_end; x += 4) {
      __m128 a0 = _mm_loadu_ps(r[0] + x), a1 = _mm_loadu_ps(r[1] + x), a2 = _mm_loadu_ps(r[2] + x),
             a3 = _mm_loadu_ps(r[3] + x);
      Transpose4x4F32(a0, a1, a2, a3);
      float* col = run + 4 * size_t(x);
      _mm_store_ps(col, a0);
      _mm_store_ps(col + 4, a1);
      _mm_store_ps(col + 8, a2);
      _mm_store_ps(col + 12, a3);
    }
    for (int x = block_end; x < Width; ++x)
      for (int k = 0; k < 4; ++k) run[4 * size_t(x) + k] = r[k][x];
  }
  GaussKernelH<2>(In, Out, Width, pitch, v);
  for (int h = 0; h < 2; ++h) {
    float* r[4];
    for (int k = 0; k < 4; ++k) r[k] = Dest + size_t(4 * h + k) * Width;
    const float* run = Out + h * pitch;
    for (int x = 0; x < block_end; x += 4) {
      const float* col = run + 4 * size_t(x);
      __m128 a0 = _mm_load_ps(col), a1 = _mm_load_ps(col + 4), a2 = _mm_load_ps(col + 8), a3 = _mm_load_ps(col + 12);
      Transpose4x4F32(a0, a1, a2, a3);
      _mm_storeu_ps(r[0] + x, a0);
      _mm_storeu_ps(r[1] + x, a1);
      _mm_storeu_ps(r[2] + x, a2);
      _mm_storeu_ps(r[3] + x, a3);
    }
    for (int x = block_end; x < Width; ++x)
      for (int k = 0; k < 4; ++k) r[k][x] = run[4 * size_t(x) + k];
  }
}

// The same recursion in scalar float, lane for lane what the vectors do.
void GaussRowScalarFloat(const float* Src, float* Dest, int Width, float* Line, const GaussCoefs& g) {
  const float b1 = static_cast<float>(g.B1), b2 = static_cast<float>(g.B2);
  float xp = Src[0], y1 = xp * g.CoefP, y2 = y1;
  for (int n = 0; n < Width; ++n) {
    const float x = Src[n];
    const float y = (g.A0 * x + g.A1 * xp) - (b1 * y1 + b2 * y2);
    Line[n] = y;
    y2 = y1;
    y1 = y;
    xp = x;
  }
  float xn1 = Src[Width - 1], xn2 = xn1, z1 = xn1 * g.CoefN, z2 = z1;
  for (int n = Width - 1; n >= 0; --n) {
    const float z = (g.A2 * xn1 + g.A3 * xn2) - (b1 * z1 + b2 * z2);
    const float x = Src[n];
    Dest[n] = Line[n] + z;
    xn2 = xn1;
    xn1 = x;
    z2 = z1;
    z1 = z;
  }
}

}  // namespace

GaussCoefs MakeGaussCoefs(float Radius) {
  if (Radius < 0.01f) Radius = 0.01f;  // a NaN stays NaN
  const double alpha = double(1.695f) / double(Radius);
  const double e1 = std::exp(-alpha), e2 = std::exp(-2.0 * alpha);
  const double k = (1.0 - e1) * (1.0 - e1) / (1.0 + 2.0 * alpha * e1 - e2);
  const double a2 = k * (alpha + 1.0) * e1;
  GaussCoefs g;
  g.A0 = static_cast<float>(k);
  g.A1 = static_cast<float>(k * (alpha - 1.0) * e1);
  g.A2 = static_cast<float>(a2);
  g.A3 = static_cast<float>(-k * e2);
  g.B1 = -2.0 * e1;
  g.B2 = e2;
  // The rounded A1 and A3 enter the border gains; K and A2 do not. They pass
  // through a volatile: g++ 12's vectoriser otherwise adds the unrounded
  // doubles here.
  volatile float a1 = g.A1, a3 = g.A3;
  g.CoefP = static_cast<float>((k + double(a1)) / (1.0 + g.B1 + g.B2));
  g.CoefN = static_cast<float>((a2 + double(a3)) / (1.0 + g.B1 + g.B2));
  return g;
}

int GaussBlurFloat(const float* Src, float* Dest, int Width, int Height, int Reserved, float Radius) {
  (void)Reserved;
  if (Src == nullptr || Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || Radius <= 0) return STATUS_INVALID_PARAMETER;

  const GaussCoefs g = MakeGaussCoefs(Radius);
  const VecCoefs v = Broadcast(g);
  float* in = AlignedArray<float>(size_t(Width) * 8, 16);
  float* out = AlignedArray<float>(size_t(Width) * 8, 16);
  float* rows = AlignedArray<float>(size_t(Width) * 5, 16);
  float* plane = AlignedArray<float>(size_t(Width) * Height, 16);
  if (in == nullptr || out == nullptr || rows == nullptr || plane == nullptr) {
    AlignedFree(in);
    AlignedFree(out);
    AlignedFree(rows);
    AlignedFree(plane);
    return STATUS_OUT_OF_MEMORY;
  }
  const size_t W = size_t(Width);
  const int group_end = (Height / 8) * 8;
  for (int y = 0; y < group_end; y += 8) GaussRows8Float(Src + y * W, plane + y * W, Width, in, out, v);
  for (int y = group_end; y < Height; ++y) GaussRowScalarFloat(Src + y * W, plane + y * W, Width, in, g);

  // Forward rows go straight to Dest; the x rows are rows of the plane.
  float* init1 = rows;
  float* init2 = rows + W;
  ScaleRow(plane, init1, Width, g.CoefP);
  ScaleRow(plane, init2, Width, g.CoefP);
  for (int y = 0; y < Height; ++y) {
    const float* xp = plane + (y > 0 ? y - 1 : 0) * W;
    const float* y1 = y >= 1 ? Dest + (y - 1) * W : init1;
    const float* y2 = y >= 2 ? Dest + (y - 2) * W : init2;
    ForwardRowV(plane + y * W, xp, y1, y2, Dest + y * W, Width, g, v, false);
  }
  // Backward: three rotating z rows, each new one added to Dest.
  float *z1 = rows, *z2 = rows + W, *z = rows + 2 * W;
  const float* last = plane + (Height - 1) * W;
  ScaleRow(last, z1, Width, g.CoefN);
  ScaleRow(last, z2, Width, g.CoefN);
  for (int y = Height - 1; y >= 0; --y) {
    const float* xn1 = plane + (y + 1 < Height ? y + 1 : Height - 1) * W;
    const float* xn2 = plane + (y + 2 < Height ? y + 2 : Height - 1) * W;
    BackwardRowV(xn1, xn2, z1, z2, z, Width, g, v, false);
    float* d = Dest + y * W;
    for (int i = 0; i < Width; ++i) d[i] = d[i] + z[i];
    float* t = z2;
    z2 = z1;
    z1 = z;
    z = t;
  }
  AlignedFree(in);
  AlignedFree(out);
  AlignedFree(rows);
  AlignedFree(plane);
  return STATUS_OK;
}

}  // namespace qv

extern "C" QV_API int QV_GaussBlur(const unsigned char* Src, unsigned char* Dest, int Width, int Height, int Stride,
                                   float Radius) {
  const int Channel = qv::DeriveChannel(Stride, Width);
  if (Src == nullptr) return STATUS_NULL_REFERENCE;
  if (Dest == nullptr) return STATUS_NULL_REFERENCE;
  if (Width < 1 || Height < 1 || Radius <= 0) return STATUS_INVALID_PARAMETER;  // a NaN passes
  if (!qv::IsChannel134(Channel)) return STATUS_NOT_SUPPORTED;

  const qv::GaussCoefs g = qv::MakeGaussCoefs(Radius);
  const qv::VecCoefs v = qv::Broadcast(g);
  const int n = Width * Channel;
  // Five float rows and one byte row; the rows are padded to 4 floats.
  const size_t pitch = (size_t(n) + 3) & ~size_t(3);
  // The row buffers hold two groups of rows (16 gray rows, or 4 colour rows)
  // so that the row recursions run four streams at once.
  float* in = qv::AlignedArray<float>(size_t(Width) * 16, 16);
  float* out = qv::AlignedArray<float>(size_t(Width) * 16, 16);
  float* lines = static_cast<float*>(qv::AlignedMalloc(pitch * 5 * sizeof(float) + size_t(n), 16));
  unsigned char* temp = static_cast<unsigned char*>(qv::AlignedMalloc(qv::RunBytes(Height, Stride), 16));
  if (in == nullptr || out == nullptr || lines == nullptr || temp == nullptr) {
    qv::AlignedFree(in);
    qv::AlignedFree(out);
    qv::AlignedFree(lines);
    qv::AlignedFree(temp);
    return STATUS_OUT_OF_MEMORY;
  }

  const size_t S = size_t(Stride);
  if (Channel == 1) {
    const int group_end = (Height / 8) * 8;
    int y = 0;
    for (; y + 16 <= group_end; y += 16) qv::GaussRows8<2>(Src + y * S, temp + y * S, Width, Stride, in, out, v);
    for (; y < group_end; y += 8) qv::GaussRows8<1>(Src + y * S, temp + y * S, Width, Stride, in, out, v);
    for (; y < Height; ++y) qv::GaussRowScalar(Src + y * S, temp + y * S, Width, in, g);
  } else {
    const size_t pitch4 = size_t(Width) * 4;
    for (int y = 0; y < Height;) {
      const int rows = Height - y >= 4 ? 4 : (Height - y >= 2 ? 2 : 1);
      for (int k = 0; k < rows; ++k) qv::WidenPixels(Src + (y + k) * S, in + k * pitch4, Width, Channel);
      if (rows == 4)
        qv::GaussKernelH<4>(in, out, Width, pitch4, v);
      else if (rows == 2)
        qv::GaussKernelH<2>(in, out, Width, pitch4, v);
      else
        qv::GaussKernelH<1>(in, out, Width, pitch4, v);
      for (int k = 0; k < rows; ++k) {
        if (Channel == 4)
          qv::GaussFloatRowToBytes(out + k * pitch4, temp + (y + k) * S, n);
        else
          qv::NarrowPixels3(out + k * pitch4, temp + (y + k) * S, Width);
      }
      y += rows;
    }
  }
  qv::GaussColumnsU8(temp, Dest, Height, Stride, n, lines, g, v);
  qv::AlignedFree(in);
  qv::AlignedFree(out);
  qv::AlignedFree(lines);
  qv::AlignedFree(temp);
  return STATUS_OK;
}
