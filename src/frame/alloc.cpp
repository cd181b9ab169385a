// Scratch allocation for all operators: malloc/calloc and an aligned pair,
// counted and optionally failed on request by the tests.
#include <cstdlib>

#include "frame/frame.h"

namespace qv {
namespace {
int g_fail_at = 0;    // 0: never fail
int g_requests = 0;   // requests since Reset
int g_live = 0;       // blocks obtained and not yet freed since Reset
bool g_armed = false; // counting only when a test asked for it

// True when this request must fail.
bool CountRequest() {
  if (!g_armed) return false;
  ++g_requests;
  if (g_fail_at > 0 && g_requests == g_fail_at) return true;
  return false;
}
void CountGot(void* p) {
  if (g_armed && p != nullptr) ++g_live;
}
void CountFreed(void* p) {
  if (g_armed && p != nullptr) --g_live;
}
}  // namespace

void* Malloc(size_t Bytes) {
  if (CountRequest()) return nullptr;
  void* p = std::malloc(Bytes == 0 ? 1 : Bytes);
  CountGot(p);
  return p;
}

void* Calloc(size_t Count, size_t Size) {
  if (CountRequest()) return nullptr;
  void* p = std::calloc(Count == 0 ? 1 : Count, Size == 0 ? 1 : Size);
  CountGot(p);
  return p;
}

void Free(void* Ptr) {
  CountFreed(Ptr);
  std::free(Ptr);
}

void* AlignedMalloc(size_t Bytes, size_t Alignment) {
  if (CountRequest()) return nullptr;
  void* p = nullptr;
  if (posix_memalign(&p, Alignment < sizeof(void*) ? sizeof(void*) : Alignment, Bytes == 0 ? 1 : Bytes) != 0)
    return nullptr;
  CountGot(p);
  return p;
}

void AlignedFree(void* Ptr) {
  CountFreed(Ptr);
  std::free(Ptr);
}

namespace alloc_hook {
void FailAt(int N) {
  g_fail_at = N;
  g_requests = 0;
  g_armed = true;
}
void Reset() {
  g_fail_at = 0;
  g_requests = 0;
  g_live = 0;
  g_armed = true;
}
void Disarm() {
  g_fail_at = 0;
  g_armed = false;
}
int Requests() { return g_requests; }
int Live() { return g_live; }
}  // namespace alloc_hook
}  // namespace qv
