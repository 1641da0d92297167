// Window toolkit benchmarks: records posted and delivered through the queue, a full repaint of
// a 640x480 desktop holding 50 overlapping windows (beside a plain copy of the same bytes), and
// one idle pump with nothing to paint.
#include <benchmark/benchmark.h>
#include <string.h>

#include <random>
#include <vector>

#include "graphics/memdc.h"
#include "platform/headless/headless.h"
#include "ui/desktop.h"

namespace {

// A window that fills what it is asked to paint.
class FillWnd : public CWindow {
 public:
  FillWnd(CWindow* pParent, const TRect* pRect, BYTE btColor)
      : CWindow(pParent, pRect, WF_VISIBLE), m_bt(btColor) {}
  void Paint(CDC* pDC, const TRect* pRect) override { pDC->FillRect(pRect, m_bt); }
  DWORD_PTR HandleMessage(TMessage*) override {
    m_n++;
    return 0;
  }
  BYTE m_bt;
  DWORD m_n = 0;
};

struct Kit {
  CWindowMsgHeap* heap;
  CHeadlessTerminal* term;
  CDesktop* desk;
  Kit(SHORT w, SHORT h) {
    heap = new CWindowMsgHeap(100, 10);
    term = new CHeadlessTerminal(heap, w, h);
    term->SetTime(1);
    desk = CreateDesktop(term);
  }
  ~Kit() {
    delete desk;
    delete term;
    delete heap;
  }
};

void BM_PostAndDispatch(benchmark::State& state) {
  Kit kit(64, 48);
  TRect rc;
  SetRect(&rc, 0, 0, 9, 9);
  FillWnd* a = new FillWnd(kit.desk, &rc, 1);
  FillWnd* b = new FillWnd(kit.desk, &rc, 2);
  const int nBatch = 100;  // the queue's capacity
  for (auto _ : state) {
    for (int i = 0; i < nBatch; i++) a->PostTo(b, 0x1000, (DWORD_PTR)i, 0, (DWORD)(i & 7));
    kit.heap->Process(100, nBatch);
  }
  if (b->m_n != (DWORD)(nBatch * state.iterations())) state.SkipWithError("records lost");
  state.SetItemsProcessed(state.iterations() * nBatch);
  state.counters["ns_per_record"] = benchmark::Counter(
      (double)state.iterations() * nBatch, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_PostAndDispatch);

// 50 windows of 40..200 by 30..150 pixels, scattered over the desktop, a few nested.
void BuildTree(CDesktop* desk) {
  std::mt19937 rng(5);
  std::vector<CWindow*> all;
  for (int i = 0; i < 50; i++) {
    const int w = 40 + (int)(rng() % 161), h = 30 + (int)(rng() % 121);
    const int x = (int)(rng() % (640 - w)), y = (int)(rng() % (480 - h));
    TRect rc;
    SetRectSize(&rc, (SHORT)x, (SHORT)y, (SHORT)w, (SHORT)h);
    CWindow* parent = desk;
    if (!all.empty() && rng() % 4 == 0) {
      CWindow* p = all[rng() % all.size()];
      IntersectRect(&rc, &p->m_Rect);
      if (!IsRectEmpty(&rc))
        parent = p;
      else
        SetRectSize(&rc, (SHORT)x, (SHORT)y, (SHORT)w, (SHORT)h);
    }
    all.push_back(new FillWnd(parent, &rc, (BYTE)(1 + i)));
  }
}

// The picture the tree should give, painted naively back to front without the desktop.
void PaintModel(CWindow* w, std::vector<BYTE>& px) {
  for (CWindow* c = w->GetLastChild(); c; c = c->GetPrev()) {
    TRect r = c->m_Rect;
    for (CWindow* a = w; a; a = a->GetParent()) IntersectRect(&r, &a->m_Rect);
    for (int y = r.top; y <= r.bottom; y++)
      for (int x = r.left; x <= r.right; x++) px[(size_t)y * 640 + x] = static_cast<FillWnd*>(c)->m_bt;
    PaintModel(c, px);
  }
}

void BM_FullRepaint640x480_50Windows(benchmark::State& state) {
  Kit kit(640, 480);
  BuildTree(kit.desk);
  kit.term->Pump();
  CBitmap* surface = kit.desk->m_pOSWnd->m_pSurface;
  {
    CMemoryDC dc(surface);  // wipe, so the check below sees only what the repaints drew
    dc.FillRect(&kit.desk->m_Rect, 0xEE);
  }
  for (auto _ : state) {
    kit.desk->AddDirty(&kit.desk->m_Rect, kit.desk, FALSE);
    kit.desk->Flush(0);
  }
  state.SetBytesProcessed(state.iterations() * 640 * 480);
  std::vector<BYTE> want(640 * 480, 0);
  PaintModel(kit.desk, want);
  for (int y = 0; y < 480; y++)
    for (int x = 0; x < 640; x++)
      if (surface->GetPixel((SHORT)x, (SHORT)y) != want[(size_t)y * 640 + x]) {
        state.SkipWithError("the repaint differs from the model");
        return;
      }
}
BENCHMARK(BM_FullRepaint640x480_50Windows)->Unit(benchmark::kMicrosecond);

// The reference: the same number of bytes copied once.
void BM_Memcpy640x480(benchmark::State& state) {
  std::vector<BYTE> src(640 * 480, 3), dst(640 * 480);
  for (auto _ : state) {
    memcpy(dst.data(), src.data(), src.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * 640 * 480);
}
BENCHMARK(BM_Memcpy640x480)->Unit(benchmark::kMicrosecond);

void BM_IdlePumpNothingToPaint(benchmark::State& state) {
  Kit kit(640, 480);
  BuildTree(kit.desk);
  kit.term->Pump();
  for (auto _ : state) benchmark::DoNotOptimize(kit.term->Pump());
  if (kit.desk->m_nDirty) state.SkipWithError("something was left to paint");
}
BENCHMARK(BM_IdlePumpNothingToPaint);

}  // namespace

BENCHMARK_MAIN();
