// Helpers shared by the window toolkit tests: a headless toolkit on a driven clock, windows that
// fill their rectangle and record what they receive, and an independent picture model.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "graphics/memdc.h"
#include "ui/desktop.h"
#include "ui/window.h"

#if !defined(_WIN32)
#include "platform/headless/headless.h"
#define UI_HAVE_HEADLESS 1
#endif

// A window that fills its part of every paint with one palette index and records events.
class CTestWnd : public CWindow {
 public:
  CTestWnd(CWindow* pParent, SHORT l, SHORT t, SHORT r, SHORT b, BYTE btColor, DWORD dwFlags = WF_VISIBLE)
      : CWindow(pParent, MakeRc(l, t, r, b), dwFlags), m_btColor(btColor) {}
  ~CTestWnd() override {
    if (m_pDeleted) *m_pDeleted = true;
  }

  static const TRect* MakeRc(SHORT l, SHORT t, SHORT r, SHORT b) {
    static TRect rc;
    ::SetRect(&rc, l, t, r, b);
    return &rc;
  }

  void Paint(CDC* pDC, const TRect* pRect) override {
    m_nPaints++;
    if (m_pLog) m_pLog->push_back("paint " + m_name);
    if (!m_bHollow)
      pDC->FillRect(pRect, m_btColor);
    else {
      // A transparent window: only a frame of its rectangle.
      pDC->FrameRect(&m_Rect, m_btColor, LS_SOLID);
    }
  }
  void PaintOver(CDC*, const TRect*) override {
    if (m_pLog) m_pLog->push_back("over " + m_name);
  }
  DWORD_PTR HandleMessage(TMessage* pMsg) override {
    m_msgs.push_back(*pMsg);
    return m_dwReply;
  }
  void OnMouse(DWORD dwId, const TPoint* pPt) override {
    m_mouse.push_back({dwId, *pPt});
    if (m_pLog) m_pLog->push_back("mouse " + std::to_string(dwId) + " " + m_name);
  }
  void OnKey(DWORD dwId, WORD wVk, WORD wChar) override {
    m_keys.push_back({dwId, wVk, wChar});
    if (m_pLog) m_pLog->push_back("key " + std::to_string(dwId) + " " + m_name);
  }
  DWORD GetId() override { return m_dwId; }
  CDDServer* DragSourceAt(const TPoint* pPt) override {
    return m_pServer ? m_pServer : CWindow::DragSourceAt(pPt);
  }
  CDDClient* DropTargetAt(const TPoint* pPt) override {
    return m_pClient ? m_pClient : CWindow::DropTargetAt(pPt);
  }

  struct MouseEvent {
    DWORD id;
    TPoint pt;
  };
  struct KeyEvent {
    DWORD id;
    WORD vk, ch;
  };
  BYTE m_btColor;
  bool m_bHollow = false;
  int m_nPaints = 0;
  DWORD m_dwId = 0;
  DWORD_PTR m_dwReply = 0;
  std::string m_name;
  std::vector<std::string>* m_pLog = nullptr;
  bool* m_pDeleted = nullptr;
  std::vector<TMessage> m_msgs;
  std::vector<MouseEvent> m_mouse;
  std::vector<KeyEvent> m_keys;
  CDDServer* m_pServer = nullptr;
  CDDClient* m_pClient = nullptr;
};

// A picture of palette indices, computed by the tests without the code under test.
struct Picture {
  int w, h;
  std::vector<BYTE> px;
  Picture(int w_, int h_, BYTE fill) : w(w_), h(h_), px((size_t)w_ * h_, fill) {}
  void Fill(int l, int t, int r, int b, BYTE c) {
    for (int y = t < 0 ? 0 : t; y <= b && y < h; y++)
      for (int x = l < 0 ? 0 : l; x <= r && x < w; x++) px[(size_t)y * w + x] = c;
  }
  void Frame(int l, int t, int r, int b, BYTE c) {
    Fill(l, t, r, t, c);
    Fill(l, b, r, b, c);
    Fill(l, t, l, b, c);
    Fill(r, t, r, b, c);
  }
  BYTE At(int x, int y) const { return px[(size_t)y * w + x]; }
};

// The pixels of an 8-bit bitmap as a picture.
inline Picture PictureOf(CBitmap* pBitmap) {
  Picture p(pBitmap->m_nWidth, pBitmap->m_nHeight, 0);
  for (int y = 0; y < p.h; y++)
    for (int x = 0; x < p.w; x++) p.px[(size_t)y * p.w + x] = (BYTE)pBitmap->GetPixel((SHORT)x, (SHORT)y);
  return p;
}

// The first differing pixel, or an empty text when the pictures are equal.
inline std::string ComparePictures(const Picture& want, const Picture& got) {
  if (want.w != got.w || want.h != got.h) return "size differs";
  for (int y = 0; y < want.h; y++)
    for (int x = 0; x < want.w; x++)
      if (want.At(x, y) != got.At(x, y))
        return "pixel (" + std::to_string(x) + ", " + std::to_string(y) + "): want " +
               std::to_string(want.At(x, y)) + ", got " + std::to_string(got.At(x, y));
  return "";
}

#if UI_HAVE_HEADLESS
// A whole headless toolkit: queue, terminal on a driven clock at 1000 ms, an open OS window of
// w by h with an 8-bit surface, and the desktop (dirty clipping off, as at start-up).
struct Toolkit {
  CWindowMsgHeap* heap = nullptr;
  CHeadlessTerminal* term = nullptr;
  CHeadlessOSWnd* wnd = nullptr;
  CDesktop* desk = nullptr;

  explicit Toolkit(SHORT w = 64, SHORT h = 48) {
    heap = new CWindowMsgHeap(100, 10);
    term = new CHeadlessTerminal(heap, w, h);
    term->SetTime(1000);
    desk = CreateDesktop(term);
    wnd = desk ? static_cast<CHeadlessOSWnd*>(desk->m_pOSWnd) : nullptr;
  }
  ~Toolkit() {
    delete desk;
    delete term;
    delete heap;
  }
  // Pumps until the queue holds nothing due (bounded).
  void Run() {
    for (int i = 0; i < 20; i++) {
      term->Pump();
      if (heap->NextDue() > term->GetTime()) break;
    }
  }
  Picture Surface() { return PictureOf(wnd->m_pSurface); }
  Picture Screen() { return PictureOf(wnd->m_pScreen); }
};
#endif
