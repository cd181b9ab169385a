// The call frame shared by every export: channel derivation, status values,
// and the scratch allocation helpers (with a failure hook for the tests).
#pragma once

#include <cstddef>
#include <cstdint>

#include "quelvin.h"

namespace qv {

// Channel = Stride / Width as a real idiv the optimiser cannot drop, move
// below an early return, or fold: a Width of 0 (or INT_MIN / -1) must raise
// the processor's divide fault exactly where the frame derives the channel.
static inline int DeriveChannel(int Stride, int Width) {
  int q = Stride;
  asm volatile("cltd\n\tidivl %1" : "+a"(q) : "r"(Width) : "rdx", "cc", "memory");
  return q;
}

// The guarded frames have already rejected Width < 1, so no fault is possible.
static inline int GuardedChannel(int Stride, int Width) { return Width < 1 ? 0 : Stride / Width; }

static inline bool IsChannel134(int Channel) { return Channel == 1 || Channel == 3 || Channel == 4; }
static inline bool IsChannel34(int Channel) { return Channel == 3 || Channel == 4; }

// Bytes of a whole-run walk: Height * Stride in 32 bits, as the library is
// specified; callers have checked both are positive.
static inline size_t RunBytes(int Height, int Stride) {
  return static_cast<size_t>(static_cast<unsigned>(Height) * static_cast<unsigned>(Stride));
}

// Scratch memory. Every operator requests all its buffers first and frees
// what it got on any failure. Aligned blocks must go back through AlignedFree.
void* Malloc(size_t Bytes);
void* Calloc(size_t Count, size_t Size);
void Free(void* Ptr);
void* AlignedMalloc(size_t Bytes, size_t Alignment);
void AlignedFree(void* Ptr);

// Frees every block given (null is fine): the failure and exit paths of the
// all-or-nothing allocation idiom. Not for aligned blocks.
template <typename... T>
static inline void FreeAll(T*... Ptr) {
  (Free(Ptr), ...);
}

template <typename T>
static inline T* MallocArray(size_t Count) {
  return static_cast<T*>(Malloc(Count * sizeof(T)));
}
template <typename T>
static inline T* CallocArray(size_t Count) {
  return static_cast<T*>(Calloc(Count, sizeof(T)));
}
template <typename T>
static inline T* AlignedArray(size_t Count, size_t Alignment = 16) {
  return static_cast<T*>(AlignedMalloc(Count * sizeof(T), Alignment));
}

// Hidden hooks for the tests, compiled into the product too so the tests run
// the very objects that ship; idle (one predictable branch) unless armed.
// Not thread-safe: arm them only in single-threaded tests.
namespace alloc_hook {
// Make the n-th request from now fail (1 = the next one); 0 disarms.
void FailAt(int N);
// Requests made and blocks still live since the last Reset.
void Reset();
// Stop counting and failing.
void Disarm();
int Requests();
int Live();
}  // namespace alloc_hook

}  // namespace qv
