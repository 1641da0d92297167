// Binary heap routines on raw arrays: the smallest item by the compare function at the top.
#pragma once

#include "tools.h"

// A heap of dwCount items of dwItemSize bytes; positions are counted from 1, the children of
// position i are 2i and 2i + 1.

// Returned when pBase, dwItemSize or funcCompare is null (or a sift starts at position 0).
#define ERR_HEAP_BADPARAM 0x0008FF23u

// Moves the item at dwPos down while a child is strictly smaller, taking the right child only
// when it is strictly smaller than the left. 0 or ERR_HEAP_BADPARAM.
ERR HeapSiftDown(void* pBase, DWORD dwItemSize, DWORD dwPos, DWORD dwCount, PFN_COMPARE funcCompare);
// Moves item dwCount (just appended) up until its parent is strictly smaller; an item equal
// to its parent rises past it. 0 or ERR_HEAP_BADPARAM.
ERR HeapSiftUp(void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare);
// Makes a heap of any array: HeapSiftDown from dwCount / 2 down to 1.
ERR Heapify(void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare);
// 1 if no item from position 2 on is smaller than its parent; 0 otherwise or for a null base.
BOOL IsHeap(const void* pBase, DWORD dwItemSize, DWORD dwCount, PFN_COMPARE funcCompare);
