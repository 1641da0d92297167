// Binary heap routines on raw arrays: the smallest item by the compare function at the top.
#include "heap.h"

// Address of the item at 1-based position dwPos.
static inline BYTE* At(void* pBase, DWORD dwItemSize, DWORD dwPos) {
  return static_cast<BYTE*>(pBase) + (size_t)(dwPos - 1) * dwItemSize;
}

ERR HeapSiftDown(void* pBase, DWORD dwItemSize, DWORD dwPos, DWORD dwCount, PFN_COMPARE funcCompare) {
  if (!pBase || !dwItemSize || !funcCompare || !dwPos) return ERR_HEAP_BADPARAM;
  DWORD i = dwPos;
  while (i <= dwCount / 2) {  // position 2i exists
    DWORD dwChild = 2 * i;
    BYTE* pChild = At(pBase, dwItemSize, dwChild);
    if (dwChild < dwCount && funcCompare(pChild + dwItemSize, pChild) < 0) {
      dwChild++;
      pChild += dwItemSize;
    }
    BYTE* pItem = At(pBase, dwItemSize, i);
    if (funcCompare(pChild, pItem) >= 0) break;
    SwapMem(pChild, pItem, dwItemSize);
    i = dwChild;
  }
  return 0;
}

ERR HeapSiftUp(void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare) {
  if (!pBase || !dwItemSize || !funcCompare) return ERR_HEAP_BADPARAM;
  DWORD i = dwCount;
  while (i > 1) {
    BYTE* pParent = At(pBase, dwItemSize, i / 2);
    BYTE* pItem = At(pBase, dwItemSize, i);
    if (funcCompare(pParent, pItem) < 0) break;
    SwapMem(pParent, pItem, dwItemSize);
    i /= 2;
  }
  return 0;
}

ERR Heapify(void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare) {
  if (!pBase || !dwItemSize || !funcCompare) return ERR_HEAP_BADPARAM;
  for (DWORD i = dwCount / 2; i >= 1; i--) HeapSiftDown(pBase, dwItemSize, i, dwCount, funcCompare);
  return 0;
}

BOOL IsHeap(const void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare) {
  if (!pBase || !dwItemSize || !funcCompare) return 0;
  void* p = const_cast<void*>(pBase);
  for (DWORD i = 2; i <= dwCount; i++)
    if (funcCompare(At(p, dwItemSize, i), At(p, dwItemSize, i / 2)) < 0) return 0;
  return 1;
}
