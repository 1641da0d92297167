// Tests of the binary heap routines against a reference priority queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <queue>
#include <random>
#include <vector>

#include "base/heap.h"
#include "testutil.h"

namespace {

// A key with a tag that tells equal keys apart.
struct TEntry {
  LONG lKey;
  DWORD dwTag;
};
SHORT CompareEntry(const void* a, const void* b) {
  return CompareLong(&static_cast<const TEntry*>(a)->lKey, &static_cast<const TEntry*>(b)->lKey);
}

// Heap property checked here independently of IsHeap (positions from 1).
bool HoldsHeapOrder(const std::vector<TEntry>& v, size_t n) {
  for (size_t i = 2; i <= n; i++)
    if (v[i - 1].lKey < v[i / 2 - 1].lKey) return false;
  return true;
}

// Removes the top: the last item moves to the top and sinks.
TEntry Pop(std::vector<TEntry>& v, DWORD& dwCount) {
  TEntry top = v[0];
  v[0] = v[dwCount - 1];
  dwCount--;
  EXPECT_EQ(0u, HeapSiftDown(v.data(), sizeof(TEntry), 1, dwCount, CompareEntry));
  return top;
}

TEST(Heap, HeapifyThenPopMatchesReference) {
  std::mt19937 rng(2024);
  for (DWORD n : {1u, 2u, 3u, 7u, 8u, 31u, 100u, 1000u}) {
    std::vector<TEntry> v(n);
    std::priority_queue<LONG, std::vector<LONG>, std::greater<LONG>> ref;
    for (DWORD i = 0; i < n; i++) {
      v[i] = TEntry{(LONG)(rng() % 50) - 25, i};
      ref.push(v[i].lKey);
    }
    EXPECT_EQ(0u, Heapify(v.data(), sizeof(TEntry), n, CompareEntry));
    EXPECT_TRUE(HoldsHeapOrder(v, n));
    EXPECT_TRUE(IsHeap(v.data(), sizeof(TEntry), n, CompareEntry));
    DWORD dwCount = n;
    while (dwCount) {
      TEntry e = Pop(v, dwCount);
      ASSERT_EQ(ref.top(), e.lKey);
      ref.pop();
      ASSERT_TRUE(HoldsHeapOrder(v, dwCount));
    }
  }
}

TEST(Heap, SiftUpBuildsHeapIncrementally) {
  std::mt19937 rng(77);
  std::vector<TEntry> v;
  std::vector<LONG> keys;
  for (DWORD i = 0; i < 500; i++) {
    v.push_back(TEntry{(LONG)(rng() % 1000), i});
    keys.push_back(v.back().lKey);
    EXPECT_EQ(0u, HeapSiftUp(v.data(), sizeof(TEntry), (DWORD)v.size(), CompareEntry));
    ASSERT_TRUE(HoldsHeapOrder(v, v.size()));
  }
  EXPECT_EQ(*std::min_element(keys.begin(), keys.end()), v[0].lKey);
}

TEST(Heap, TiesOnSiftUpAndSiftDown) {
  // On the way up an equal parent is passed.
  std::vector<TEntry> v = {{5, 0}, {7, 1}, {5, 2}};
  EXPECT_EQ(0u, HeapSiftUp(v.data(), sizeof(TEntry), 3, CompareEntry));
  EXPECT_EQ(2u, v[0].dwTag);  // the newcomer passed its equal parent
  EXPECT_EQ(0u, v[2].dwTag);
  // A strictly smaller parent stops it.
  std::vector<TEntry> w = {{4, 0}, {7, 1}, {5, 2}};
  HeapSiftUp(w.data(), sizeof(TEntry), 3, CompareEntry);
  EXPECT_EQ(0u, w[0].dwTag);
  EXPECT_EQ(2u, w[2].dwTag);
  // On the way down, of equal children the left one rises.
  v = {{9, 0}, {3, 1}, {3, 2}};
  HeapSiftDown(v.data(), sizeof(TEntry), 1, 3, CompareEntry);
  EXPECT_EQ(1u, v[0].dwTag);
  EXPECT_EQ(0u, v[1].dwTag);
  EXPECT_EQ(2u, v[2].dwTag);
  // A child equal to the item doesn't move it.
  w = {{3, 0}, {3, 1}, {4, 2}};
  HeapSiftDown(w.data(), sizeof(TEntry), 1, 3, CompareEntry);
  EXPECT_EQ(0u, w[0].dwTag);
  // Only a strictly smaller right child is taken.
  std::vector<TEntry> x = {{9, 0}, {4, 1}, {2, 2}, {1, 3}};
  HeapSiftDown(x.data(), sizeof(TEntry), 1, 4, CompareEntry);
  EXPECT_EQ(2u, x[0].dwTag);
  EXPECT_EQ(0u, x[2].dwTag);
  // The count bounds the walk: the item at 4 is outside a heap of 3.
  std::vector<TEntry> y = {{9, 0}, {8, 1}, {10, 2}, {1, 3}};
  HeapSiftDown(y.data(), sizeof(TEntry), 1, 3, CompareEntry);
  EXPECT_EQ(1u, y[0].dwTag);
  EXPECT_EQ(0u, y[1].dwTag);
  EXPECT_EQ(3u, y[3].dwTag);
}

TEST(Heap, IsHeapFindsViolation) {
  std::vector<TEntry> v = {{1, 0}, {2, 1}, {3, 2}, {4, 3}, {0, 4}};
  EXPECT_TRUE(IsHeap(v.data(), sizeof(TEntry), 4, CompareEntry));
  EXPECT_FALSE(IsHeap(v.data(), sizeof(TEntry), 5, CompareEntry));  // 0 under 2
  EXPECT_TRUE(IsHeap(v.data(), sizeof(TEntry), 1, CompareEntry));
  EXPECT_TRUE(IsHeap(v.data(), sizeof(TEntry), 0, CompareEntry));
  EXPECT_FALSE(IsHeap(nullptr, sizeof(TEntry), 5, CompareEntry));
}

TEST(Heap, BadParameters) {
  TEntry e[2] = {{1, 0}, {0, 1}};
  EXPECT_EQ(0x8FF23u, HeapSiftDown(nullptr, sizeof(TEntry), 1, 2, CompareEntry));
  EXPECT_EQ(0x8FF23u, HeapSiftDown(e, 0, 1, 2, CompareEntry));
  EXPECT_EQ(0x8FF23u, HeapSiftUp(nullptr, sizeof(TEntry), 2, CompareEntry));
  EXPECT_EQ(0x8FF23u, HeapSiftUp(e, 0, 2, CompareEntry));
  EXPECT_EQ(0x8FF23u, Heapify(nullptr, sizeof(TEntry), 2, CompareEntry));
  EXPECT_EQ(0x8FF23u, Heapify(e, 0, 2, CompareEntry));
  // Position 0 doesn't exist; nothing is touched.
  EXPECT_EQ(0x8FF23u, HeapSiftDown(e, sizeof(TEntry), 0, 2, CompareEntry));
  EXPECT_EQ(1, e[0].lKey);
  // Sifting up the item at 1 or an empty heap does nothing.
  EXPECT_EQ(0u, HeapSiftUp(e, sizeof(TEntry), 1, CompareEntry));
  EXPECT_EQ(0u, HeapSiftUp(e, sizeof(TEntry), 0, CompareEntry));
  EXPECT_EQ(1, e[0].lKey);
}

}  // namespace
