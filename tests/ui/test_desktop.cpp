// Tests of the desktop: dirty rectangles and their merging, repaint pictures against a model,
// mouse targeting with capture and hover, focus, modality and the forgetting of windows.
#include <random>

#include "testutil.h"
#include "uitest.h"

static TRect R(int l, int t, int r, int b) {
  TRect rc;
  SetRect(&rc, (SHORT)l, (SHORT)t, (SHORT)r, (SHORT)b);
  return rc;
}

// A desktop with no OS window, covering (0, 0, 199, 199), dirty clipping off.
static CDesktop* LooseDesktop() {
  CDesktop* d = new CDesktop(nullptr);
  d->m_Rect = R(0, 0, 199, 199);
  d->ChangeFlags(0, WF_CLIP_DIRTY, FALSE);
  d->m_nDirty = 0;
  return d;
}

static bool Eq(const TRect& a, const TRect& b) { return RectsEqual(&a, &b) != 0; }

static bool Covered(CDesktop* d, int x, int y) {
  TPoint p;
  SetPoint(&p, (SHORT)x, (SHORT)y);
  for (int i = 0; i < d->m_nDirty; i++)
    if (PtInRect(&p, &d->m_Dirty[i])) return true;
  return false;
}

// ---------------------------------------------------------------------------------------------
// Dirty rectangles

TEST(DesktopDirty, OverlapMergesButNeighboursStaySeparate) {
  CDesktop* d = LooseDesktop();
  TRect a = R(0, 0, 9, 9), b = R(10, 0, 19, 9), c = R(2, 2, 11, 11);
  d->AddDirty(&a, nullptr, FALSE);
  d->AddDirty(&b, nullptr, FALSE);
  EXPECT_EQ(2, d->m_nDirty);  // bounding box 200 is not less than 100 + 100
  d->AddDirty(&c, nullptr, FALSE);
  ASSERT_EQ(1, d->m_nDirty);  // c joins a (144 < 200), the result joins b (240 < 244)
  EXPECT_TRUE(Eq(d->m_Dirty[0], R(0, 0, 19, 11)));
  // Overlapping too little to pay: 225 is not less than 200.
  TRect e = R(100, 100, 109, 109), f = R(105, 105, 114, 114);
  d->AddDirty(&e, nullptr, FALSE);
  d->AddDirty(&f, nullptr, FALSE);
  EXPECT_EQ(3, d->m_nDirty);
  delete d;
}

TEST(DesktopDirty, NoTwoEntriesWouldMergeAndEverythingStaysCovered) {
  std::mt19937 rng(11);
  for (int round = 0; round < 30; round++) {
    CDesktop* d = LooseDesktop();
    std::vector<TRect> added;
    for (int i = 0; i < 40; i++) {
      int l = rng() % 180, t = rng() % 180;
      TRect r = R(l, t, l + (int)(rng() % 20), t + (int)(rng() % 20));
      added.push_back(r);
      d->AddDirty(&r, nullptr, FALSE);
    }
    for (int i = 0; i < d->m_nDirty; i++)
      for (int j = i + 1; j < d->m_nDirty; j++) {
        TRect u = d->m_Dirty[i];
        UnionRect(&u, &d->m_Dirty[j]);
        ASSERT_GE(RectArea(&u), RectArea(&d->m_Dirty[i]) + RectArea(&d->m_Dirty[j]));
      }
    for (const TRect& r : added)
      for (int y = r.top; y <= r.bottom; y++)
        for (int x = r.left; x <= r.right; x++) ASSERT_TRUE(Covered(d, x, y));
    delete d;
  }
}

TEST(DesktopDirty, FiftyFirstRectangleFoldsIntoTheLast) {
  CDesktop* d = LooseDesktop();
  d->m_Rect = R(0, 0, 2000, 2000);
  // Single pixels far apart never merge.
  for (int i = 0; i < 50; i++) {
    TRect r = R(i * 30, (i % 7) * 40, i * 30, (i % 7) * 40);
    d->AddDirty(&r, nullptr, FALSE);
  }
  ASSERT_EQ(50, d->m_nDirty);
  TRect last = d->m_Dirty[49];
  TRect extra = R(1600, 1900, 1600, 1900);
  d->AddDirty(&extra, nullptr, FALSE);
  EXPECT_EQ(50, d->m_nDirty);
  TRect want = last;
  UnionRect(&want, &extra);
  EXPECT_TRUE(RectsEqual(&want, &d->m_Dirty[49]));
  // The others are untouched.
  EXPECT_TRUE(Eq(d->m_Dirty[0], R(0, 0, 0, 0)));
  delete d;
}

TEST(DesktopDirty, HiddenAncestorAddsNothingAndAncestorsClip) {
  CDesktop* d = LooseDesktop();
  CTestWnd* outer = new CTestWnd(d, 10, 10, 49, 49, 1);
  CTestWnd* inner = new CTestWnd(outer, 40, 40, 79, 79, 2);
  d->m_nDirty = 0;
  inner->Invalidate(nullptr, FALSE);
  ASSERT_EQ(1, d->m_nDirty);
  EXPECT_TRUE(Eq(d->m_Dirty[0], R(40, 40, 49, 49)));  // cut by the parent
  d->m_nDirty = 0;
  outer->ChangeFlags(0, WF_VISIBLE, FALSE);
  inner->Invalidate(nullptr, FALSE);
  TRect r = R(0, 0, 5, 5);
  d->AddDirty(&r, inner, TRUE);
  EXPECT_EQ(0, d->m_nDirty);
  // Hiding a window with redraw makes its area dirty through its parent.
  outer->ChangeFlags(WF_VISIBLE, 0, FALSE);
  d->m_nDirty = 0;
  inner->ChangeFlags(0, WF_VISIBLE, TRUE);
  ASSERT_EQ(1, d->m_nDirty);
  EXPECT_TRUE(Eq(d->m_Dirty[0], R(40, 40, 49, 49)));
  delete d;
}

TEST(DesktopDirty, ClippingByOpaqueWindowsInFront) {
  CDesktop* d = LooseDesktop();
  d->ChangeFlags(WF_CLIP_DIRTY, 0, FALSE);
  CTestWnd* back = new CTestWnd(d, 0, 0, 99, 99, 1);
  CTestWnd* band = new CTestWnd(d, 0, 0, 99, 39, 2);  // in front, spans the width, covers the top
  d->m_nDirty = 0;
  back->Invalidate(nullptr, FALSE);
  ASSERT_EQ(1, d->m_nDirty);
  // The top edge moves onto the band's last row.
  EXPECT_TRUE(Eq(d->m_Dirty[0], R(0, 39, 99, 99)));
  // A transparent band clips nothing.
  band->ChangeFlags(WF_TRANSPARENT, 0, FALSE);
  d->m_nDirty = 0;
  back->Invalidate(nullptr, FALSE);
  EXPECT_TRUE(Eq(d->m_Dirty[0], R(0, 0, 99, 99)));
  // A window behind the invalidated one clips nothing.
  band->ChangeFlags(0, WF_TRANSPARENT, FALSE);
  d->m_nDirty = 0;
  band->Invalidate(nullptr, FALSE);
  EXPECT_TRUE(Eq(d->m_Dirty[0], R(0, 0, 99, 39)));
  delete d;
}

TEST(DesktopDirty, IsUnobscuredLooksAtEarlierSiblingsAndAncestors) {
  CDesktop* d = LooseDesktop();
  CTestWnd* a = new CTestWnd(d, 0, 0, 49, 49, 1);
  CTestWnd* child = new CTestWnd(a, 10, 10, 19, 19, 2);
  EXPECT_TRUE(child->IsUnobscured(nullptr));
  CTestWnd* front = new CTestWnd(d, 15, 15, 30, 30, 3);
  EXPECT_FALSE(child->IsUnobscured(nullptr));
  TRect top = R(10, 10, 19, 12);
  EXPECT_TRUE(child->IsUnobscured(&top));
  front->ChangeFlags(0, WF_VISIBLE, FALSE);  // visibility is not consulted
  EXPECT_FALSE(child->IsUnobscured(nullptr));
  CTestWnd* sticking = new CTestWnd(a, 45, 45, 60, 60, 4);
  EXPECT_FALSE(d->IsUnobscured(sticking, nullptr));
  {
    AssertCatcher catcher;
    EXPECT_FALSE(d->IsUnobscured(nullptr, nullptr));
    EXPECT_TRUE(catcher.Fired("pWindow"));
  }
  delete d;
}

#if UI_HAVE_HEADLESS
// ---------------------------------------------------------------------------------------------
// Repaint pictures

TEST(DesktopPaint, WindowTreePictureMatchesModelOnSurfaceAndScreen) {
  Toolkit tk(64, 48);
  CTestWnd* a = new CTestWnd(tk.desk, 5, 5, 40, 30, 10);
  new CTestWnd(a, 10, 10, 20, 20, 20);
  CTestWnd* c = new CTestWnd(tk.desk, 30, 20, 70, 45, 30);
  // The model: the listed fills, back to front, over black; surface and screen alike.
  auto expect = [&](std::vector<std::vector<int>> fills) {
    tk.Run();
    Picture want(64, 48, 0);
    for (const auto& f : fills) want.Fill(f[0], f[1], f[2], f[3], (BYTE)f[4]);
    EXPECT_EQ("", ComparePictures(want, tk.Surface()));
    EXPECT_EQ("", ComparePictures(want, tk.Screen()));
  };
  const std::vector<int> fa = {5, 5, 40, 30, 10}, fchild = {10, 10, 20, 20, 20};
  expect({fa, fchild, {30, 20, 70, 45, 30}});
  // Move the front window: the uncovered part shows what lies beneath.
  TRect to = R(0, 35, 20, 47);
  c->SetRect(&to, TRUE, FALSE);
  const std::vector<int> fc = {0, 35, 20, 47, 30};
  expect({fa, fchild, fc});
  // Hide the parent: its child goes with it.
  a->ChangeFlags(0, WF_VISIBLE, TRUE);
  expect({fc});
  // Raise and lower.
  a->ChangeFlags(WF_VISIBLE, 0, TRUE);
  tk.desk->SendToBack(c, TRUE);
  expect({fc, fa, fchild});
}

TEST(DesktopPaint, OnlyDirtyRectanglesReachTheScreen) {
  Toolkit tk(32, 32);
  CTestWnd* a = new CTestWnd(tk.desk, 0, 0, 15, 15, 5);
  CTestWnd* b = new CTestWnd(tk.desk, 16, 16, 31, 31, 6);
  tk.Run();
  // Draw on b behind the desktop's back, then repaint only a: the screen keeps b's old pixels.
  b->m_btColor = 9;
  a->m_btColor = 7;
  {
    CMemoryDC dc(tk.wnd->m_pSurface);
    TRect rc = R(16, 16, 31, 31);
    dc.FillRect(&rc, 9);
  }
  a->Invalidate(nullptr, FALSE);
  tk.Run();
  EXPECT_EQ(7u, tk.wnd->GetScreenPixel(3, 3));
  EXPECT_EQ(6u, tk.wnd->GetScreenPixel(20, 20));
  EXPECT_EQ(9u, tk.wnd->m_pSurface->GetPixel(20, 20));
  // A flush with WF_FULL_UPDATE presents the whole surface.
  tk.desk->ChangeFlags(WF_FULL_UPDATE, 0, FALSE);
  a->Invalidate(nullptr, FALSE);
  tk.Run();
  EXPECT_EQ(9u, tk.wnd->GetScreenPixel(20, 20));
}

TEST(DesktopPaint, TransparentWindowRepaintsParentBackgroundFirst) {
  Toolkit tk(40, 40);
  std::vector<std::string> log;
  CTestWnd* p = new CTestWnd(tk.desk, 0, 0, 39, 39, 3);
  CTestWnd* t = new CTestWnd(p, 10, 10, 29, 29, 8, WF_VISIBLE | WF_TRANSPARENT);
  p->m_name = "p";
  t->m_name = "t";
  t->m_bHollow = true;
  p->m_pLog = t->m_pLog = &log;
  tk.Run();
  log.clear();
  t->Invalidate(nullptr, FALSE);
  tk.Run();
  EXPECT_EQ((std::vector<std::string>{"paint p", "paint t", "over t", "over p"}), log);
  Picture want(40, 40, 0);
  want.Fill(0, 0, 39, 39, 3);
  want.Frame(10, 10, 29, 29, 8);
  EXPECT_EQ("", ComparePictures(want, tk.Screen()));
  // Directly on the desktop: the desktop's background (black) comes first.
  CTestWnd* top = new CTestWnd(tk.desk, 5, 5, 14, 14, 4, WF_VISIBLE | WF_TRANSPARENT);
  top->m_bHollow = true;
  top->m_name = "top";
  top->m_pLog = &log;
  tk.Run();
  tk.desk->BringToFront(p, FALSE);  // top is now behind p: only its frame outside p would show
  tk.desk->SendToBack(p, FALSE);
  log.clear();
  top->Invalidate(nullptr, FALSE);
  tk.Run();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ("paint p", log[0]);  // painted from the desktop up: p lies beneath top
  EXPECT_EQ("over top", log.back());
  Picture want2 = want;
  want2.Frame(5, 5, 14, 14, 4);
  EXPECT_EQ("", ComparePictures(want2, tk.Screen()));
}

// Records the rectangles it is asked to paint.
class CRectLogWnd : public CTestWnd {
 public:
  using CTestWnd::CTestWnd;
  void Paint(CDC* pDC, const TRect* pRect) override {
    m_rects.push_back(*pRect);
    CTestWnd::Paint(pDC, pRect);
  }
  std::vector<TRect> m_rects;
};

TEST(DesktopPaint, ChildCoveringMostOfTheAreaKeepsTheBackgroundUnpainted) {
  Toolkit tk(64, 48);
  CRectLogWnd* back = new CRectLogWnd(tk.desk, 0, 0, 63, 47, 2);
  CTestWnd* big = new CTestWnd(back, 4, 4, 59, 39, 5);
  tk.Run();
  back->m_rects.clear();
  back->Invalidate(nullptr, FALSE);
  tk.Run();
  ASSERT_FALSE(back->m_rects.empty());
  for (const TRect& r : back->m_rects) {
    TRect i = r;
    IntersectRect(&i, &big->m_Rect);
    EXPECT_TRUE(IsRectEmpty(&i)) << "background painted under the child at " << i.left << "," << i.top;
  }
  Picture want(64, 48, 0);
  want.Fill(0, 0, 63, 47, 2);
  want.Fill(4, 4, 59, 39, 5);
  EXPECT_EQ("", ComparePictures(want, tk.Screen()));
  // A hidden child gives no shortcut: the background is painted over all of it.
  big->ChangeFlags(0, WF_VISIBLE, FALSE);
  back->m_rects.clear();
  back->Invalidate(nullptr, FALSE);
  tk.Run();
  ASSERT_EQ(1u, back->m_rects.size());
  EXPECT_TRUE(RectsEqual(&back->m_rects[0], &back->m_Rect));
}

TEST(DesktopPaint, LockedDesktopHoldsRedrawAndPaintRecordsRepaint) {
  Toolkit tk(16, 16);
  CTestWnd* a = new CTestWnd(tk.desk, 0, 0, 15, 15, 4);
  tk.Run();
  const DWORD dwCount = tk.desk->m_dwPaintCount;
  tk.desk->ChangeFlags(WF_LOCKED, 0, FALSE);
  a->m_btColor = 6;
  a->Invalidate(nullptr, FALSE);
  tk.Run();
  EXPECT_EQ(4u, tk.wnd->GetScreenPixel(1, 1));
  EXPECT_EQ(dwCount, tk.desk->m_dwPaintCount);
  tk.desk->ChangeFlags(0, WF_LOCKED, FALSE);
  tk.Run();
  EXPECT_EQ(6u, tk.wnd->GetScreenPixel(1, 1));
  EXPECT_EQ(dwCount + 1, tk.desk->m_dwPaintCount);
  // A paint record carries left/top and right/bottom in high and low words.
  a->m_btColor = 7;
  tk.wnd->m_bFreeBits = TRUE;  // no surface pixels: the platform paint asks the desktop
  a->Invalidate(nullptr, FALSE);
  tk.Run();
  EXPECT_EQ(0u, tk.wnd->m_pSurface->m_hBits);
  a->m_btColor = 8;
  TRect rc = R(2, 3, 5, 6);
  tk.wnd->FeedPaint(&rc);
  EXPECT_EQ(8u, tk.wnd->GetScreenPixel(2, 3));
  EXPECT_EQ(8u, tk.wnd->GetScreenPixel(5, 6));
  EXPECT_EQ(7u, tk.wnd->GetScreenPixel(6, 6));
}

TEST(DesktopPaint, ShowRedrawFramesRepaintedRectangles) {
  Toolkit tk(20, 20);
  CTestWnd* a = new CTestWnd(tk.desk, 0, 0, 19, 19, 4);
  tk.Run();
  tk.desk->ChangeFlags(WF_SHOW_REDRAW, 0, FALSE);
  TRect r = R(5, 5, 9, 9);
  a->Invalidate(&r, FALSE);
  tk.Run();
  const DWORD first = tk.wnd->GetScreenPixel(5, 5);
  EXPECT_TRUE(first == 0xFF || first == 0);
  EXPECT_EQ(first, tk.wnd->GetScreenPixel(9, 9));
  EXPECT_EQ(4u, tk.wnd->GetScreenPixel(7, 7));
  a->Invalidate(&r, FALSE);
  tk.Run();
  EXPECT_EQ(first == 0xFF ? 0u : 0xFFu, tk.wnd->GetScreenPixel(5, 5));  // alternates
}

// ---------------------------------------------------------------------------------------------
// Mouse, capture, focus

static std::vector<DWORD> Ids(const CTestWnd* w) {
  std::vector<DWORD> v;
  for (auto& e : w->m_mouse) v.push_back(e.id);
  return v;
}

TEST(DesktopMouse, EnterLeaveTargetAndCapture) {
  Toolkit tk(64, 48);
  CTestWnd* a = new CTestWnd(tk.desk, 0, 0, 29, 47, 1);
  CTestWnd* b = new CTestWnd(tk.desk, 30, 0, 63, 47, 2);
  tk.wnd->FeedMouseMove(5, 5);
  tk.Run();
  tk.wnd->FeedMouseMove(40, 6);
  tk.wnd->FeedMouseButton(MSG_LBUTTON_DOWN, 41, 7);
  tk.Run();
  EXPECT_EQ((std::vector<DWORD>{MOUSE_ENTER, MSG_MOUSE_MOVE, MOUSE_LEAVE}), Ids(a));
  EXPECT_EQ((std::vector<DWORD>{MOUSE_ENTER, MSG_MOUSE_MOVE, MSG_LBUTTON_DOWN}), Ids(b));
  EXPECT_EQ(41, b->m_mouse.back().pt.x);
  EXPECT_EQ(7, b->m_mouse.back().pt.y);
  EXPECT_EQ(b, tk.desk->m_pMouseWindow);
  // The mouse leaves the OS window: the hover window gets MOUSE_LEAVE at the next idle.
  tk.wnd->FeedMouseLeave();
  tk.desk->m_bMouseDirty = TRUE;
  tk.Run();
  EXPECT_EQ(MOUSE_LEAVE, b->m_mouse.back().id);
  EXPECT_EQ(nullptr, tk.desk->m_pMouseWindow);
  // A captured window gets the messages outside it, and the hover window is null.
  b->m_mouse.clear();
  tk.wnd->FeedMouseButton(MSG_LBUTTON_DOWN, 5, 5);
  tk.Run();
  tk.desk->SetCapture(a);
  EXPECT_EQ(tk.wnd, tk.term->m_pCaptureWnd);
  a->m_mouse.clear();
  tk.wnd->FeedMouseMove(50, 20);
  tk.wnd->FeedMouseButton(MSG_LBUTTON_UP, 51, 21);
  tk.Run();
  EXPECT_TRUE(b->m_mouse.empty());
  EXPECT_EQ(nullptr, tk.desk->m_pMouseWindow);
  EXPECT_EQ((std::vector<DWORD>{MOUSE_LEAVE, MSG_MOUSE_MOVE, MSG_LBUTTON_UP}), Ids(a));
  EXPECT_EQ(51, a->m_mouse.back().pt.x);
  // Outside the OS window a captured mouse still reports.
  tk.wnd->FeedMouseMove(-10, 100);
  tk.Run();
  EXPECT_EQ(MSG_MOUSE_MOVE, a->m_mouse.back().id);
  EXPECT_EQ(-10, a->m_mouse.back().pt.x);
  // Taking capture away from a window for another one cancels it.
  tk.desk->SetCapture(b);
  EXPECT_EQ(MOUSE_CANCEL, a->m_mouse.back().id);
  tk.desk->SetCapture(nullptr);
  EXPECT_EQ(nullptr, tk.term->m_pCaptureWnd);
  EXPECT_EQ(MOUSE_CANCEL, a->m_mouse.back().id);  // releasing cancels nobody
  EXPECT_EQ(0u, std::count(Ids(b).begin(), Ids(b).end(), MOUSE_CANCEL));
}

TEST(DesktopMouse, DeletedCaptureWindowIsForgottenButThePlatformCaptureStays) {
  Toolkit tk(20, 20);
  CTestWnd* a = new CTestWnd(tk.desk, 0, 0, 9, 9, 4);
  CTestWnd* b = new CTestWnd(tk.desk, 10, 0, 19, 9, 5);
  tk.desk->SetCapture(a);
  ASSERT_EQ(tk.wnd, tk.term->m_pCaptureWnd);
  delete a;
  EXPECT_EQ(nullptr, tk.desk->GetCapture());
  // Forgetting a window clears the desktop's pointer only; the OS window keeps the mouse
  // until the desktop next takes and releases capture.
  EXPECT_EQ(tk.wnd, tk.term->m_pCaptureWnd);
  tk.desk->SetCapture(nullptr);  // unchanged: nothing to do
  EXPECT_EQ(tk.wnd, tk.term->m_pCaptureWnd);
  tk.desk->SetCapture(b);
  tk.desk->SetCapture(nullptr);
  EXPECT_EQ(nullptr, tk.term->m_pCaptureWnd);
}

// Deletes itself when the mouse leaves it.
class CSelfDeletingWnd : public CTestWnd {
 public:
  using CTestWnd::CTestWnd;
  void OnMouse(DWORD dwId, const TPoint* pPt) override {
    CTestWnd::OnMouse(dwId, pPt);
    if (dwId == MOUSE_LEAVE) delete this;
  }
};

TEST(DesktopMouse, DeletingTheWindowUnderTheMouseEntersTheOneBelowAtNextIdle) {
  Toolkit tk(64, 48);
  CTestWnd* below = new CTestWnd(tk.desk, 0, 0, 63, 47, 1);
  CTestWnd* above = new CTestWnd(tk.desk, 10, 10, 30, 30, 2);
  tk.wnd->FeedMouseMove(15, 15);
  tk.Run();
  EXPECT_EQ(above, tk.desk->m_pMouseWindow);
  below->m_mouse.clear();
  delete above;
  EXPECT_EQ(nullptr, tk.desk->m_pMouseWindow);
  EXPECT_TRUE(below->m_mouse.empty());
  tk.Run();  // no movement, just the idle record
  EXPECT_EQ((std::vector<DWORD>{MOUSE_ENTER}), Ids(below));
  EXPECT_EQ(below, tk.desk->m_pMouseWindow);
  // A window deleted by its own leave handler is not touched again.
  bool gone = false;
  CSelfDeletingWnd* w = new CSelfDeletingWnd(tk.desk, 10, 10, 20, 20, 2);
  w->m_pDeleted = &gone;
  tk.wnd->FeedMouseMove(16, 16);
  tk.Run();
  EXPECT_EQ(w, tk.desk->m_pMouseWindow);
  tk.wnd->FeedMouseMove(40, 40);
  tk.Run();
  EXPECT_TRUE(gone);
  EXPECT_EQ(below, tk.desk->m_pMouseWindow);
  EXPECT_EQ(MSG_MOUSE_MOVE, below->m_mouse.back().id);
}

TEST(DesktopMouse, ModalWindowTakesAllHitsButKeysStillGoToFocus) {
  Toolkit tk(64, 48);
  CTestWnd* other = new CTestWnd(tk.desk, 0, 0, 29, 47, 1);
  CTestWnd* dialog = new CTestWnd(tk.desk, 30, 0, 63, 47, 2);
  tk.desk->SetModalWindow(dialog);
  tk.desk->SetFocus(other);
  tk.wnd->FeedMouseButton(MSG_LBUTTON_DOWN, 5, 5);
  tk.wnd->FeedKey(TRUE, 0x41, 'a', 0);
  tk.Run();
  EXPECT_TRUE(std::count(Ids(other).begin(), Ids(other).end(), MSG_LBUTTON_DOWN) == 0);
  EXPECT_EQ(MSG_LBUTTON_DOWN, dialog->m_mouse.back().id);
  ASSERT_FALSE(other->m_keys.empty());
  EXPECT_EQ(MSG_KEY_DOWN, other->m_keys.back().id);
  EXPECT_EQ(0x41, other->m_keys.back().vk);
  EXPECT_EQ('a', other->m_keys.back().ch);
  EXPECT_TRUE(tk.term->IsKeyDown(0x41));
  // Deleting the modal window lifts the restriction.
  delete dialog;
  EXPECT_EQ(nullptr, tk.desk->pModalWindow);
  {
    // A window of another desktop is refused with the assertion's text.
    CDesktop* stranger = new CDesktop(nullptr);
    CTestWnd* w = new CTestWnd(stranger, 0, 0, 1, 1, 0);
    AssertCatcher catcher;
    tk.desk->SetModalWindow(w);
    EXPECT_TRUE(catcher.Fired("!pModalWindow || &pModalWindow->m_Desktop == this"));
    tk.desk->SetModalWindow(nullptr);
    delete stranger;
  }
}

TEST(DesktopFocus, FocusReturnsAfterTheOSWindowIsDeactivatedAndActivated) {
  Toolkit tk(32, 32);
  CTestWnd* a = new CTestWnd(tk.desk, 0, 0, 15, 15, 1);
  CTestWnd* b = new CTestWnd(tk.desk, 16, 0, 31, 15, 2);
  tk.desk->SetFocus(a);
  tk.desk->SetFocus(b);
  ASSERT_EQ(2u, a->m_keys.size());
  EXPECT_EQ(MSG_FOCUS_IN, a->m_keys[0].id);
  EXPECT_EQ(MSG_FOCUS_OUT, a->m_keys[1].id);
  EXPECT_EQ(tk.wnd, tk.term->GetFocusWindow());
  b->m_keys.clear();
  tk.wnd->FeedFocus(FALSE);
  tk.Run();
  EXPECT_EQ(nullptr, tk.desk->GetFocus());
  ASSERT_EQ(1u, b->m_keys.size());
  EXPECT_EQ(MSG_FOCUS_OUT, b->m_keys[0].id);
  tk.wnd->FeedChar('x', 0);  // no focus: nobody gets it
  tk.wnd->FeedFocus(TRUE);
  tk.Run();
  EXPECT_EQ(b, tk.desk->GetFocus());
  ASSERT_EQ(2u, b->m_keys.size());
  EXPECT_EQ(MSG_FOCUS_IN, b->m_keys[1].id);
  EXPECT_EQ(nullptr, tk.desk->m_pSavedFocus);
  // A saved focus window deleted meanwhile is not restored.
  tk.wnd->FeedFocus(FALSE);
  tk.Run();
  delete b;
  tk.wnd->FeedFocus(TRUE);
  tk.Run();
  EXPECT_EQ(nullptr, tk.desk->GetFocus());
}

// ---------------------------------------------------------------------------------------------
// Other records

TEST(DesktopRecords, PaletteChangeMarksPaletteUsersThroughPaletteUsersOnly) {
  Toolkit tk(16, 16);
  CTestWnd* user = new CTestWnd(tk.desk, 0, 0, 7, 7, 1, WF_VISIBLE | WF_PALETTE_USER);
  CTestWnd* under = new CTestWnd(user, 0, 0, 3, 3, 1, WF_VISIBLE | WF_PALETTE_USER);
  CTestWnd* plain = new CTestWnd(tk.desk, 8, 8, 15, 15, 1, WF_VISIBLE);
  CTestWnd* hidden = new CTestWnd(plain, 8, 8, 9, 9, 1, WF_VISIBLE | WF_PALETTE_USER);
  user->m_dwFlags &= ~WF_MAP_COLORS;
  under->m_dwFlags &= ~WF_MAP_COLORS;
  hidden->m_dwFlags &= ~WF_MAP_COLORS;
  tk.wnd->PostMessage(MSG_PALETTE_CHANGED, 0, 0, nullptr);
  tk.Run();
  EXPECT_TRUE(user->IsFlag(WF_MAP_COLORS));
  EXPECT_TRUE(under->IsFlag(WF_MAP_COLORS));
  EXPECT_FALSE(plain->IsFlag(WF_MAP_COLORS));
  EXPECT_FALSE(hidden->IsFlag(WF_MAP_COLORS));  // reached only through a palette user
}

TEST(DesktopRecords, DesktopMapsBlackThroughTheSurfacePalette) {
  Toolkit tk(8, 8);
  // A palette whose black is at index 9.
  CPalette pal;
  ASSERT_EQ(0u, pal.SetSize(256));
  for (DWORD i = 0; i < 256; i++) {
    TColor c = MakeColor((BYTE)(i == 9 ? 0 : 200), (BYTE)(i == 9 ? 0 : 200), (BYTE)(i == 9 ? 0 : 200));
    pal.SetColor(i, &c);
  }
  ASSERT_EQ(0u, tk.wnd->SetPalette(&pal));
  tk.Run();
  EXPECT_EQ(9u, tk.desk->m_nBackColor);
  EXPECT_EQ(9u, tk.wnd->GetScreenPixel(3, 3));
}

TEST(DesktopRecords, SizeRecordResizesTheDesktop) {
  Toolkit tk(64, 48);
  TRect rc = R(0, 0, 31, 23);
  tk.wnd->SetRect(&rc, TRUE);  // runs MSG_SIZE at once
  EXPECT_TRUE(RectsEqual(&tk.desk->m_Rect, &rc));
  EXPECT_EQ(32, tk.wnd->m_pSurface->m_nWidth);
  EXPECT_EQ(24, tk.wnd->m_pSurface->m_nHeight);
  // Centred in the 64 by 48 window.
  EXPECT_TRUE(Eq(tk.wnd->m_ClientRect, R(16, 12, 47, 35)));
  tk.Run();
  EXPECT_EQ(0u, tk.wnd->GetScreenPixel(15, 12));
}

TEST(DesktopRecords, OSWindowGoingFirstTakesTheDesktopAndItsWindows) {
  Toolkit tk(16, 16);
  bool gone = false;
  CTestWnd* a = new CTestWnd(tk.desk, 0, 0, 7, 7, 1);
  a->m_pDeleted = &gone;
  a->PostTo(a, 0x99, 0, 0, 0);
  tk.term->DestroyOSWnd(tk.wnd);
  EXPECT_TRUE(gone);
  tk.desk = nullptr;  // deleted itself
  tk.wnd = nullptr;
  EXPECT_EQ(nullptr, tk.term->m_pFirstWnd);
  tk.Run();  // the cancelled record is dropped
  EXPECT_EQ(0, tk.heap->Count());
}
#endif
