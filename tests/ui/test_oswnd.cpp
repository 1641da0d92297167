// Tests of the platform-neutral OS window layer over the headless backend: records posted by
// the terminal and the window, the surface and its palette, presentation and teardown.
#include "testutil.h"
#include "uitest.h"

#if UI_HAVE_HEADLESS
#include "files/file.h"
#include "files/stdfile.h"
#include "graphics/bmpfile.h"

static TRect R(int l, int t, int r, int b) {
  TRect rc;
  SetRect(&rc, (SHORT)l, (SHORT)t, (SHORT)r, (SHORT)b);
  return rc;
}

// Records every record that reaches it.
static std::vector<TMessage> g_seen;
static DWORD_PTR Seen(TMessage* pMsg) {
  g_seen.push_back(*pMsg);
  return 0;
}

TEST(TerminalPost, RecordsCarryKindSerialAndTime) {
  CWindowMsgHeap heap(10, 2);
  CHeadlessTerminal term(&heap, 64, 48);
  term.SetTime(500);
  term.m_pMsgTarget = reinterpret_cast<DWORD_PTR>(&Seen);
  term.m_nMsgTargetKind = MK_FUNCTION;
  EXPECT_EQ(0u, term.PostMessage(0x42, 1, 2, nullptr));
  EXPECT_EQ(0u, term.PostMessage(0x43, 0, 0, nullptr));
  COSWnd* w = term.CreateOSWnd();
  ASSERT_NE(nullptr, w);
  w->SetMsgTarget(reinterpret_cast<DWORD_PTR>(&Seen), MK_FUNCTION);
  term.AdvanceTime(3);
  w->PostMessage(0x44, 0, 0, nullptr);
  // Filled only: nothing is queued.
  TMessage rec;
  w->PostMessage(0x45, 0, 0, &rec);
  EXPECT_EQ(3, heap.Count());
  EXPECT_EQ(MK_OSWND, rec.nSourceKind);
  EXPECT_EQ(reinterpret_cast<DWORD_PTR>(w), rec.pSource);
  EXPECT_EQ(2u, rec.dwSerial);
  g_seen.clear();
  term.AdvanceTime(2);
  EXPECT_TRUE(term.Pump());
  // The window's idle record comes last; the terminal's records first (they were due earlier).
  ASSERT_EQ(4u, g_seen.size());
  EXPECT_EQ(0x42u, g_seen[0].dwId);
  EXPECT_EQ(MK_TERMINAL, g_seen[0].nSourceKind);
  EXPECT_EQ(1u, g_seen[0].dwSerial);
  EXPECT_EQ(500u, g_seen[0].dwTime);
  EXPECT_EQ(500u, g_seen[0].dwDue);
  EXPECT_EQ(2u, g_seen[1].dwSerial);
  EXPECT_EQ(0x44u, g_seen[2].dwId);
  EXPECT_EQ(MSG_IDLE, g_seen[3].dwId);
  EXPECT_EQ(505u, g_seen[3].dwTime);
}

TEST(TerminalPost, DeletingTheTerminalDeletesItsWindowsAndCancelsItsRecords) {
  CWindowMsgHeap heap(10, 2);
  CHeadlessTerminal* term = new CHeadlessTerminal(&heap, 64, 48);
  term->m_pMsgTarget = reinterpret_cast<DWORD_PTR>(&Seen);
  term->m_nMsgTargetKind = MK_FUNCTION;
  COSWnd* a = term->CreateOSWnd();
  COSWnd* b = term->CreateOSWnd();
  EXPECT_EQ(b, term->m_pFirstWnd);  // a new window goes to the head
  EXPECT_EQ(a, b->m_pNext);
  a->SetMsgTarget(reinterpret_cast<DWORD_PTR>(&Seen), MK_FUNCTION);
  a->PostMessage(0x50, 0, 0, nullptr);
  term->PostMessage(0x51, 0, 0, nullptr);
  g_seen.clear();
  delete term;
  // a ran its destroyed record at once. The queued records are not for them but were sent by
  // them: they still run, with no source.
  ASSERT_EQ(1u, g_seen.size());
  EXPECT_EQ(MSG_OSWND_DESTROYED, g_seen[0].dwId);
  g_seen.clear();
  heap.Process(0xFFFFFFF0u, 10);
  ASSERT_EQ(2u, g_seen.size());
  EXPECT_EQ(MK_NONE, g_seen[0].nSourceKind);
  EXPECT_EQ(MK_NONE, g_seen[1].nSourceKind);
}

TEST(TerminalModes, ModeInfoWalkAndQuit) {
  CWindowMsgHeap heap(10, 2);
  CHeadlessTerminal term(&heap, 320, 200);
  EXPECT_EQ(1u, term.GetDisplayMode());
  SHORT w = 0, h = 0, f = 0;
  ASSERT_EQ(0u, term.GetModeInfo(1, &w, &h, &f));
  EXPECT_EQ(320, w);
  EXPECT_EQ(200, h);
  EXPECT_EQ(BF_8BIT, f);
  EXPECT_EQ(ERR_BADPARAM, term.GetModeInfo(0, &w, &h, &f));
  DWORD n = 0, count = 0;
  while ((n = term.NextDisplayMode(n)) != 0) count++;
  EXPECT_EQ((DWORD)HEADLESS_MAX_MODES, count);
  EXPECT_TRUE(term.SetDisplayMode(1));
  EXPECT_TRUE(term.SetDisplayMode(2));
  EXPECT_FALSE(term.SetDisplayMode(99));
  EXPECT_EQ(2u, term.GetDisplayMode());
  // Quit ends the next pump only.
  EXPECT_TRUE(term.Pump());
  term.Quit();
  EXPECT_FALSE(term.Pump());
  EXPECT_TRUE(term.Pump());
}

TEST(OSWndSurface, ZeroSizeGivesOnePixelAndFormatZeroDeletes) {
  CWindowMsgHeap heap(10, 2);
  CHeadlessTerminal term(&heap, 64, 48);
  COSWnd* w = term.CreateOSWnd();
  ASSERT_EQ(0u, w->CreateSurface(BF_8BIT));
  ASSERT_NE(nullptr, w->m_pSurface);
  EXPECT_EQ(1, w->m_pSurface->m_nWidth);
  EXPECT_EQ(1, w->m_pSurface->m_nHeight);
  // The palette comes from the window: the display's grey ramp.
  CPalette* pal = w->m_pSurface->m_pPalette;
  ASSERT_NE(nullptr, pal);
  EXPECT_EQ(256u, pal->m_dwColors);
  TColor c;
  pal->GetColor(77, &c);
  EXPECT_EQ(77, c.btRed);
  EXPECT_EQ(77, c.btBlue);
  // A new size keeps the same palette object.
  TRect rc = R(0, 0, 9, 4);
  w->SetRect(&rc, TRUE);
  EXPECT_EQ(10, w->m_pSurface->m_nWidth);
  EXPECT_EQ(pal, static_cast<CPalette*>(w->m_pSurface->m_pPalette));
  // Another format drops the palette; back to 8 bits gets a fresh one.
  ASSERT_EQ(0u, w->CreateSurface(BF_16BIT));
  EXPECT_EQ(nullptr, static_cast<CPalette*>(w->m_pSurface->m_pPalette));
  EXPECT_EQ(16, w->m_pSurface->m_nBitsPerPixel);
  ASSERT_EQ(0u, w->CreateSurface(-1));  // the display mode's format
  EXPECT_EQ(8, w->m_pSurface->m_nBitsPerPixel);
  EXPECT_NE(nullptr, static_cast<CPalette*>(w->m_pSurface->m_pPalette));
  EXPECT_EQ(0u, w->CreateSurface(0));
  EXPECT_EQ(nullptr, w->m_pSurface);
}

TEST(OSWndSurface, PaletteRangeIsTrimmedAndChecked) {
  Toolkit tk(8, 8);
  CPalette src;
  ASSERT_EQ(0u, src.SetSize(4));
  for (DWORD i = 0; i < 4; i++) {
    TColor c = MakeColor((BYTE)(10 + i), 0, 0);
    src.SetColor(i, &c);
  }
  CPalette* own = tk.wnd->m_pSurface->m_pPalette;
  ASSERT_EQ(0u, tk.wnd->SetPaletteRange(&src, 254, 1, 10));  // two fit
  TColor c;
  own->GetColor(253, &c);
  EXPECT_EQ(253, c.btRed);
  own->GetColor(254, &c);
  EXPECT_EQ(11, c.btRed);
  own->GetColor(255, &c);
  EXPECT_EQ(12, c.btRed);
  EXPECT_EQ(ERR_BADPARAM, tk.wnd->SetPaletteRange(&src, 256, 0, 1));
  EXPECT_EQ(ERR_BADPARAM, tk.wnd->SetPaletteRange(&src, 0, 4, 1));
  EXPECT_EQ(0xFFFEu, tk.wnd->SetPalette(nullptr));
  CPalette empty;
  EXPECT_EQ(0xFFFEu, tk.wnd->SetPalette(&empty));
  // Each change posts a palette record to the desktop.
  TMessage* p = nullptr;
  int n = 0;
  for (WORD i = 0; i < tk.heap->Count(); i++)
    if (tk.heap->Peek(i, &p) == 0 && p->dwId == MSG_PALETTE_CHANGED) n++;
  EXPECT_EQ(1, n);
}

TEST(OSWndSurface, SetPaletteTakesAtMost256AndGetPaletteKeepsExtraBytes) {
  Toolkit tk(8, 8);
  CPalette big;
  ASSERT_EQ(0u, big.SetSize(300));
  for (DWORD i = 0; i < 300; i++) {
    TColor c = MakeColor((BYTE)(255 - (i & 0xFF)), (BYTE)i, 7);
    c.btExtra = 99;
    big.SetColor(i, &c);
  }
  ASSERT_EQ(0u, tk.wnd->SetPalette(&big));
  CPalette back;
  ASSERT_EQ(0u, back.SetSize(256));
  for (DWORD i = 0; i < 256; i++) {
    TColor c = MakeColor(0, 0, 0);
    c.btExtra = 5;
    back.SetColor(i, &c);
  }
  ASSERT_EQ(0u, tk.wnd->GetPalette(&back));
  EXPECT_EQ(256u, back.m_dwColors);
  for (DWORD i = 0; i < 256; i++) {
    TColor c;
    back.GetColor(i, &c);
    ASSERT_EQ(255 - i, c.btRed);
    ASSERT_EQ(i, c.btGreen);
    ASSERT_EQ(5, c.btExtra);
  }
  // The surface's palette followed.
  TColor s;
  tk.wnd->m_pSurface->m_pPalette->GetColor(3, &s);
  EXPECT_EQ(252, s.btRed);
}

TEST(OSWndPresent, FreeBitsDropsPixelsAfterPresentingOnlyPaintingMakesThemAgain) {
  Toolkit tk(16, 16);
  CTestWnd* a = new CTestWnd(tk.desk, 0, 0, 15, 15, 3);
  tk.wnd->m_bFreeBits = TRUE;
  tk.Run();
  EXPECT_EQ(0u, tk.wnd->m_pSurface->m_hBits);
  EXPECT_EQ(3u, tk.wnd->GetScreenPixel(4, 4));
  a->m_btColor = 4;
  TRect r = R(0, 0, 3, 3);
  a->Invalidate(&r, FALSE);
  tk.Run();
  EXPECT_EQ(4u, tk.wnd->GetScreenPixel(0, 0));
  EXPECT_EQ(3u, tk.wnd->GetScreenPixel(4, 4));
  // A surface made again at the same size keeps the released pixels released.
  ASSERT_EQ(0u, tk.wnd->m_pSurface->m_hBits);
  CPalette* pPalette = tk.wnd->m_pSurface->m_pPalette;
  EXPECT_EQ(0u, tk.wnd->CreateSurface(BF_8BIT));  // same size and format: nothing to make
  EXPECT_EQ(0u, tk.wnd->m_pSurface->m_hBits);
  CPalette* const pKept = tk.wnd->m_pSurface->m_pPalette;  // a packed field: compared through a copy
  EXPECT_EQ(pPalette, pKept);
  // Still without pixels, a platform paint asks the desktop to repaint.
  a->m_btColor = 9;
  tk.wnd->FeedPaint(nullptr);
  EXPECT_EQ(9u, tk.wnd->GetScreenPixel(7, 7));
}

TEST(OSWndPresent, CentredClientIsSurroundedByBlackAndMouseIsClientRelative) {
  Toolkit tk(40, 30);
  new CTestWnd(tk.desk, 0, 0, 1000, 1000, 200);
  TRect rc = R(0, 0, 19, 9);
  tk.wnd->SetRect(&rc, TRUE);
  tk.Run();
  TRect want0 = R(10, 10, 29, 19);
  EXPECT_TRUE(RectsEqual(&tk.wnd->m_ClientRect, &want0));
  Picture want(40, 30, 0);
  want.Fill(10, 10, 29, 19, 200);
  EXPECT_EQ("", ComparePictures(want, tk.Screen()));
  tk.wnd->FeedMouseMove(12, 11);
  TPoint p;
  EXPECT_TRUE(tk.wnd->GetMousePos(&p));
  EXPECT_EQ(2, p.x);
  EXPECT_EQ(1, p.y);
  TPoint screen;
  EXPECT_EQ(tk.wnd, tk.term->WindowUnderCursor(&screen));
  EXPECT_EQ(12, screen.x);
  EXPECT_EQ(11, screen.y);
  TPoint q = {12, 11};
  tk.wnd->ScreenToClient(&q);
  EXPECT_EQ(2, q.x);
  tk.wnd->ClientToScreen(&q);
  EXPECT_EQ(12, q.x);
}

TEST(OSWndLife, CloseDropsSurfaceAndPostsClosed) {
  Toolkit tk(8, 8);
  g_seen.clear();
  tk.wnd->Close();
  EXPECT_EQ(nullptr, tk.wnd->m_pSurface);
  TMessage* p = nullptr;
  ASSERT_EQ(0u, tk.heap->Peek(0, &p));
  EXPECT_EQ(MSG_OSWND_CLOSED, p->dwId);
  tk.Run();  // the desktop ignores it and paints nothing without a surface
  char title[8];
  tk.wnd->SetTitle("a long title");
  tk.wnd->GetTitle(title, sizeof(title));
  EXPECT_STREQ("a long ", title);
}

TEST(OSWndLife, CloseRequestIsRefusedUnlessAnswered) {
  Toolkit tk(8, 8);
  EXPECT_EQ(0u, tk.wnd->FeedClose());  // the desktop answers 0
  EXPECT_TRUE(tk.wnd->m_bOpen);
  DWORD_PTR handle = 0;
  tk.wnd->GetProperty(PROP_WND_HANDLE, &handle);
  EXPECT_EQ(reinterpret_cast<DWORD_PTR>(tk.wnd), handle);
  EXPECT_EQ(tk.wnd, tk.term->FromHandle(handle));
  EXPECT_EQ(nullptr, tk.term->FromHandle(0));
  tk.wnd->SetMsgTarget(reinterpret_cast<DWORD_PTR>(&Seen), MK_FUNCTION);
  // A function that answers non-zero lets the window go.
  struct Yes {
    static DWORD_PTR Answer(TMessage*) { return 1; }
  };
  tk.wnd->SetMsgTarget(reinterpret_cast<DWORD_PTR>(&Yes::Answer), MK_FUNCTION);
  EXPECT_EQ(1u, tk.wnd->FeedClose());
  EXPECT_FALSE(tk.wnd->m_bOpen);
  EXPECT_EQ(0xFFFFFFFFu, tk.wnd->GetScreenPixel(0, 0));
  tk.wnd->SetMsgTarget(reinterpret_cast<DWORD_PTR>(tk.desk), MK_WINDOW);
}

TEST(HeadlessInput, FedInputBecomesTheRecordsOfThePlatformWindow) {
  Toolkit tk(32, 32);
  tk.wnd->SetMsgTarget(reinterpret_cast<DWORD_PTR>(&Seen), MK_FUNCTION);
  g_seen.clear();
  tk.wnd->FeedMouseMove(3, 4);
  tk.wnd->FeedMouseButton(MSG_LBUTTON_DBLCLK, 5, 6);
  tk.wnd->FeedMouseButton(MSG_RBUTTON_UP, 7, 8);
  tk.wnd->FeedKey(TRUE, 0x0D, 13, MOD_CTRL);
  tk.wnd->FeedKey(FALSE, 0x0D, 13, MOD_ALT | MOD_CTRL);
  tk.wnd->FeedChar('z', MOD_ALT);
  tk.wnd->FeedActivate(FALSE);
  tk.wnd->FeedActivate(TRUE);
  tk.wnd->FeedDisplayChange();
  tk.wnd->FeedCommand(0x1234);
  tk.wnd->FeedMouseMove(100, 100);  // outside, no capture: nothing
  tk.term->Pump();
  std::vector<DWORD> ids;
  for (auto& m : g_seen) ids.push_back(m.dwId);
  EXPECT_EQ((std::vector<DWORD>{MSG_MOUSE_MOVE, MSG_LBUTTON_DBLCLK, MSG_RBUTTON_UP, MSG_KEY_DOWN, MSG_KEY_UP,
                                MSG_CHAR, MSG_DEACTIVATED, MSG_ACTIVATED, MSG_DISPLAY_CHANGED, MSG_COMMAND,
                                MSG_IDLE}),
            ids);
  ASSERT_EQ(11u, g_seen.size());
  TPoint p = ParamToPoint(g_seen[1].dwParam1);
  EXPECT_EQ(5, p.x);
  EXPECT_EQ(6, p.y);
  EXPECT_EQ((0x0Du << 16) | 13u, g_seen[3].dwParam1);
  EXPECT_EQ(MOD_CTRL, g_seen[3].dwParam2);
  EXPECT_EQ(MOD_ALT | MOD_CTRL, g_seen[4].dwParam2);
  EXPECT_EQ((DWORD_PTR)'z', g_seen[5].dwParam1);
  EXPECT_EQ(0x1234u, g_seen[9].dwParam1);
  EXPECT_FALSE(tk.term->IsKeyDown(0x0D));
  // Serials increase in posting order.
  for (size_t i = 1; i < g_seen.size(); i++) EXPECT_LT(g_seen[i - 1].dwSerial, g_seen[i].dwSerial);
  tk.wnd->SetMsgTarget(reinterpret_cast<DWORD_PTR>(tk.desk), MK_WINDOW);
}

TEST(HeadlessPicture, SavedScreenReadsBackAsTheSamePicture) {
  ASSERT_EQ(0u, FSInit(5));
  ASSERT_EQ(0u, StdFSInit());
  {
    Toolkit tk(24, 16);
    new CTestWnd(tk.desk, 2, 2, 12, 9, 40);
    CTestWnd* b = new CTestWnd(tk.desk, 8, 5, 20, 14, 90);
    b->m_bHollow = true;
    tk.Run();
    const std::string path = std::string(SETUP_BINARY_DIR) + "/ui_screen.bmp";
    ASSERT_EQ(0u, tk.wnd->SaveScreen(path.c_str()));
    ERR err = 0;
    CBitmap* back = BmpLoad(path.c_str(), &err, FALSE);
    ASSERT_NE(nullptr, back) << std::hex << err;
    Picture want(24, 16, 0);
    want.Fill(2, 2, 12, 9, 40);
    want.Frame(8, 5, 20, 14, 90);
    EXPECT_EQ("", ComparePictures(want, PictureOf(back)));
    TColor c;
    ASSERT_NE(nullptr, static_cast<CPalette*>(back->m_pPalette));
    back->m_pPalette->GetColor(90, &c);
    EXPECT_EQ(90, c.btGreen);  // the display palette went with it
    delete back;
    const std::string path2 = std::string(SETUP_BINARY_DIR) + "/ui_surface.bmp";
    ASSERT_EQ(0u, tk.wnd->SaveSurface(path2.c_str()));
    back = BmpLoad(path2.c_str(), &err, FALSE);
    ASSERT_NE(nullptr, back);
    EXPECT_EQ("", ComparePictures(want, PictureOf(back)));
    delete back;
    EXPECT_EQ(BL_FORWARD, tk.wnd->m_pSurface->m_nPitch > 0 ? BL_FORWARD : BL_BACKWARD);  // left as it was
    FileDelete(path.c_str());
    FileDelete(path2.c_str());
  }
  StdFSDone();
  FSDone();
}
#endif

#if UI_HAVE_HEADLESS
// A window that the mouse drags around: press takes capture, moves follow, release lets go.
class CDragWnd : public CTestWnd {
 public:
  using CTestWnd::CTestWnd;
  void OnMouse(DWORD dwId, const TPoint* pPt) override {
    CTestWnd::OnMouse(dwId, pPt);
    if (dwId == MSG_LBUTTON_DOWN) {
      m_grab = *pPt;
      m_Desktop->SetCapture(this);
    } else if (dwId == MSG_MOUSE_MOVE && m_Desktop->GetCapture() == this) {
      TRect rc = m_Rect;
      OffsetRect(&rc, (SHORT)(pPt->x - m_grab.x), (SHORT)(pPt->y - m_grab.y));
      m_grab = *pPt;
      SetRect(&rc, TRUE, TRUE);
    } else if (dwId == MSG_LBUTTON_UP) {
      m_Desktop->SetCapture(nullptr);
    }
  }
  TPoint m_grab = {0, 0};
};

TEST(HeadlessPicture, WindowDraggedByFedInputMatchesModelAtEveryStep) {
  ASSERT_EQ(0u, FSInit(5));
  ASSERT_EQ(0u, StdFSInit());
  {
    Toolkit tk(48, 32);
    new CTestWnd(tk.desk, 0, 0, 47, 7, 60);  // a bar at the top
    CDragWnd* w = new CDragWnd(tk.desk, 4, 10, 13, 17, 120);
    new CTestWnd(w, 6, 12, 8, 14, 180);  // moves with it
    struct Step {
      int x, y;  // where the mouse goes
      int l, t;  // where the window should be
    } steps[] = {{20, 14, 19, 8}, {40, 25, 39, 19}, {47, 31, 46, 25}, {-5, 0, -6, -6}};
    // Pressed beside the child, so the press reaches the dragged window itself.
    tk.wnd->FeedMouseButton(MSG_LBUTTON_DOWN, 5, 16);
    tk.wnd->FeedMouseMove(5, 16);
    tk.Run();
    int n = 0;
    for (const Step& s : steps) {
      tk.wnd->FeedMouseMove((SHORT)s.x, (SHORT)s.y);
      tk.Run();
      // Beyond the window's edge (the last step) the mouse is captured and still drags.
      Picture want(48, 32, 0);
      want.Fill(0, 0, 47, 7, 60);
      want.Fill(s.l, s.t, s.l + 9, s.t + 7, 120);
      want.Fill(s.l + 2, s.t + 2, s.l + 4, s.t + 4, 180);
      EXPECT_EQ("", ComparePictures(want, tk.Screen())) << "step " << n;
      const std::string path = std::string(SETUP_BINARY_DIR) + "/ui_drag_" + std::to_string(n++) + ".bmp";
      EXPECT_EQ(0u, tk.wnd->SaveScreen(path.c_str()));  // kept for a person to look at
    }
    tk.wnd->FeedMouseButton(MSG_LBUTTON_UP, -5, 0);
    tk.Run();
    EXPECT_EQ(nullptr, tk.desk->GetCapture());
    EXPECT_EQ(nullptr, tk.term->m_pCaptureWnd);
  }
  StdFSDone();
  FSDone();
}
#endif
