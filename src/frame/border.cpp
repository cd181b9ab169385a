// Border index tables for the filters that look samples up by position.
#include "frame/border.h"

#include "frame/frame.h"

namespace qv {

int BuildBorderTable(int* Table, int Length, int Left, int Right, int Mode) {
  if (Table == nullptr) return STATUS_NULL_REFERENCE;
  if (Length < 0 || Left < 0 || Right < 0) return STATUS_INVALID_PARAMETER;
  if (Mode < 1 || Mode > 3) return STATUS_INVALID_PARAMETER;
  const int total = Left + Length + Right;
  // With Length 0 every position would be out of an empty axis: nothing to map.
  if (Length == 0) return STATUS_OK;
  for (int k = 0; k < total; ++k) {
    const int i = k - Left;
    int v;
    if (Mode == 1)
      v = i < 0 ? 0 : (i >= Length ? Length - 1 : i);
    else if (Mode == 2)
      v = WrapIndex(Length, i);
    else
      v = MirrorIndex(Length, i);
    Table[k] = v;
  }
  return STATUS_OK;
}

}  // namespace qv
