// The headless terminal and OS window: an in-memory screen with its palette, a clock tests can
// drive, and entry points that feed the input a platform window would receive. Used where no
// display exists, by the tests, and to render pages to bitmap files.
#include "platform/headless/headless.h"

#include "graphics/bmpfile.h"
#include "platform/platform.h"

// ---------------------------------------------------------------------------------------------
// CHeadlessTerminal

IMPLEMENT_CLASS(CHeadlessTerminal, 0x2040100, CTerminal)

CHeadlessTerminal::CHeadlessTerminal(CMsgHeap* pMsgHeap, SHORT nWidth, SHORT nHeight) : CTerminal(pMsgHeap) {
  m_pCaptureWnd = m_pFocusWnd = m_pMouseWnd = 0;
  m_bQuit = FALSE;
  m_bManualClock = FALSE;
  m_dwNow = 0;
  m_dwMode = 1;
  const THeadlessMode aModes[HEADLESS_MAX_MODES] = {
      {nWidth, nHeight, BF_8BIT}, {640, 480, BF_16BIT}, {800, 600, BF_8BIT}, {1024, 768, BF_8BIT}};
  for (int i = 0; i < HEADLESS_MAX_MODES; i++) m_Modes[i] = aModes[i];
  MemSet(m_abtKeys, 0, sizeof(m_abtKeys));
}

CHeadlessTerminal::~CHeadlessTerminal() {
  while (m_pFirstWnd) delete m_pFirstWnd;
}

BOOL CHeadlessTerminal::Pump() {
  if (m_bQuit) {
    m_bQuit = FALSE;
    return FALSE;
  }
  // Fed input is already queued: what is left is the windows' idle records and the delivery.
  PumpWindowsAndQueue();
  return TRUE;
}

void CHeadlessTerminal::Quit() { m_bQuit = TRUE; }

COSWnd* CHeadlessTerminal::CreateOSWnd() {
  CHeadlessOSWnd* pWnd = new CHeadlessOSWnd(this);
  if (pWnd) LinkOSWnd(pWnd);
  return pWnd;
}

COSWnd* CHeadlessTerminal::WindowUnderCursor(TPoint* pPt) {
  COSWnd* pWnd = 0;
  for (COSWnd* p = m_pFirstWnd; p; p = p->m_pNext)
    if (p == m_pMouseWnd) pWnd = p;
  if (pPt) {
    SetPoint(pPt, 0, 0);
    if (pWnd) {
      *pPt = static_cast<CHeadlessOSWnd*>(pWnd)->m_ptMouse;
      pWnd->ClientToScreen(pPt);
    }
  }
  return pWnd && static_cast<CHeadlessOSWnd*>(pWnd)->m_bMouseIn ? pWnd : 0;
}

void CHeadlessTerminal::SetCapture(COSWnd* pWnd) { m_pCaptureWnd = pWnd; }
BOOL CHeadlessTerminal::IsKeyDown(WORD wVirtualKey) { return wVirtualKey < 256 && m_abtKeys[wVirtualKey]; }
void CHeadlessTerminal::SetKeyState(WORD wVirtualKey, BOOL bDown) {
  if (wVirtualKey < 256) m_abtKeys[wVirtualKey] = bDown ? 1 : 0;
}
COSWnd* CHeadlessTerminal::GetFocusWindow() { return m_pFocusWnd; }
void CHeadlessTerminal::SetFocusWindow(COSWnd* pWnd) { m_pFocusWnd = pWnd; }
DWORD CHeadlessTerminal::GetDisplayMode() { return m_dwMode; }

BOOL CHeadlessTerminal::SetDisplayMode(DWORD dwMode) {
  if (dwMode == m_dwMode) return TRUE;
  if (dwMode < 1 || dwMode > HEADLESS_MAX_MODES) return FALSE;
  m_dwMode = dwMode;
  for (COSWnd* p = m_pFirstWnd; p; p = p->m_pNext) p->PostMessage(MSG_DISPLAY_CHANGED, 0, 0, 0);
  return TRUE;
}

DWORD CHeadlessTerminal::NextDisplayMode(DWORD dwMode) {
  return dwMode < HEADLESS_MAX_MODES ? dwMode + 1 : 0;
}

ERR CHeadlessTerminal::GetModeInfo(DWORD dwMode, SHORT* pnWidth, SHORT* pnHeight, SHORT* pnFormat) {
  if (dwMode < 1 || dwMode > HEADLESS_MAX_MODES) return ERR_BADPARAM;
  const THeadlessMode& m = m_Modes[dwMode - 1];
  if (pnWidth) *pnWidth = m.nWidth;
  if (pnHeight) *pnHeight = m.nHeight;
  if (pnFormat) *pnFormat = m.nFormat;
  return 0;
}

DWORD CHeadlessTerminal::GetTime() { return m_bManualClock ? m_dwNow : PlatGetTickCount(); }

void CHeadlessTerminal::SetTime(DWORD dwNow) {
  m_bManualClock = TRUE;
  m_dwNow = dwNow;
}

void CHeadlessTerminal::AdvanceTime(DWORD dwMs) {
  if (!m_bManualClock) SetTime(PlatGetTickCount());
  m_dwNow += dwMs;
}

void CHeadlessTerminal::GetScreenSize(SHORT* pnWidth, SHORT* pnHeight) {
  *pnWidth = *pnHeight = 0;
  GetModeInfo(m_dwMode, pnWidth, pnHeight, 0);
}

CTerminal* CreateHeadlessTerminal(CMsgHeap* pMsgHeap) { return new CHeadlessTerminal(pMsgHeap, 640, 480); }

// ---------------------------------------------------------------------------------------------
// CHeadlessOSWnd

IMPLEMENT_CLASS(CHeadlessOSWnd, 0x2050100, COSWnd)

CHeadlessOSWnd::CHeadlessOSWnd(CHeadlessTerminal* pTerminal) : COSWnd(pTerminal) {
  m_bOpen = FALSE;
  m_pScreen = 0;
  for (int i = 0; i < 256; i++) m_Colors[i] = MakeColor((BYTE)i, (BYTE)i, (BYTE)i);
  SetPoint(&m_ptMouse, 0, 0);
  m_bMouseIn = FALSE;
  m_dwPresents = 0;
}

CHeadlessOSWnd::~CHeadlessOSWnd() {
  if (CHeadlessTerminal* pTerminal = Terminal()) {
    if (pTerminal->m_pCaptureWnd == this) pTerminal->m_pCaptureWnd = 0;
    if (pTerminal->m_pFocusWnd == this) pTerminal->m_pFocusWnd = 0;
    if (pTerminal->m_pMouseWnd == this) pTerminal->m_pMouseWnd = 0;
  }
  delete m_pScreen;
}

ERR CHeadlessOSWnd::MakeScreen() {
  const LONG w = RectWidth(&m_WindowRect), h = RectHeight(&m_WindowRect);
  if (w <= 0 || h <= 0 || w > 0x7FFF || h > 0x7FFF) return ERR_OSWND_OPEN;
  if (!m_pScreen) {
    m_pScreen = new CBitmap();
    if (!m_pScreen) return ERR_OSWND_OPEN;
  }
  if (m_pScreen->m_nWidth != w || m_pScreen->m_nHeight != h || !m_pScreen->m_hBits) {
    CPalette* pPalette = new CPalette();
    if (!pPalette || pPalette->SetSize(256)) {
      delete pPalette;
      return ERR_OSWND_OPEN;
    }
    for (DWORD i = 0; i < 256; i++) pPalette->SetColor(i, &m_Colors[i]);
    if (m_pScreen->Create((SHORT)w, (SHORT)h, BF_8BIT, pPalette, BL_FORWARD, 0)) return ERR_OSWND_OPEN;
    // Everything outside the client rectangle stays black.
    CMemoryDC dc(m_pScreen);
    TRect rc;
    m_pScreen->GetRect(&rc);
    dc.FillRect(&rc, 0);
  }
  return 0;
}

ERR CHeadlessOSWnd::Open() {
  if (IsRectEmpty(&m_ClientRect)) {
    SHORT w = 0, h = 0;
    if (Terminal()) Terminal()->GetScreenSize(&w, &h);
    TRect rc;
    SetRectSize(&rc, 0, 0, w, h);
    SetRect(&rc, TRUE);
  }
  if (!m_bOpen) {
    if (MakeScreen()) return ERR_OSWND_OPEN;
    m_bOpen = TRUE;
  }
  // The first platform paint shows the whole surface.
  FeedPaint(0);
  return 0;
}

ERR CHeadlessOSWnd::SetRect(const TRect* pRect, BOOL bClient) {
  SHORT sw = 0, sh = 0;
  if (Terminal()) Terminal()->GetScreenSize(&sw, &sh);
  TRect rcScreen;
  SetRectSize(&rcScreen, 0, 0, sw, sh);
  if (!bClient) {
    UpdateClient(m_bCentre ? &rcScreen : pRect, FALSE);
    if (m_bOpen) MakeScreen();
    return 0;
  }
  TRect rcClient = *pRect;
  OffsetRect(&rcClient, (SHORT)-rcClient.left, (SHORT)-rcClient.top);
  TRect rcWindow = m_bCentre ? rcScreen : *pRect;
  m_WindowRect = rcWindow;
  // The real client area is the whole window (no frame). A centred client rectangle sits in
  // the middle of it, truncating halves, clipped to it.
  TRect rcArea = rcWindow;
  OffsetRect(&rcArea, (SHORT)-rcArea.left, (SHORT)-rcArea.top);
  if (m_bCentre) {
    OffsetRect(&rcClient, (SHORT)((RectWidth(&rcArea) - RectWidth(&rcClient)) / 2),
               (SHORT)((RectHeight(&rcArea) - RectHeight(&rcClient)) / 2));
    IntersectRect(&rcClient, &rcArea);
  }
  if (m_bOpen) {
    MakeScreen();
    // Whatever the old client area showed is black until the next paint.
    CMemoryDC dc(m_pScreen);
    dc.FillRect(&rcArea, 0);
  }
  UpdateClient(&rcClient, TRUE);
  return 0;
}

CDC* CHeadlessOSWnd::BeginPaint(BOOL bSurface) {
  CDC* pDC = COSWnd::BeginPaint(bSurface);
  if (pDC || bSurface || !m_bOpen || !m_pScreen) return pDC;
  CMemoryDC* pDirect = new CMemoryDC(m_pScreen);
  if (!pDirect) return 0;
  pDirect->MoveOrigin(m_ClientRect.left, m_ClientRect.top);
  TRect rc;
  GetRect(&rc, TRUE);
  pDirect->SetClip(&rc);
  m_dwPresents++;
  return pDirect;
}

ERR CHeadlessOSWnd::SetPalette(CPalette* pPalette) {
  if (!pPalette || !pPalette->m_hColors) return ERR_UNKNOWN;
  const DWORD dwCount = pPalette->m_dwColors < 256 ? pPalette->m_dwColors : 256;
  for (DWORD i = 0; i < dwCount; i++) {
    TColor c;
    if (pPalette->GetColor(i, &c)) continue;
    c.btExtra = 0;
    m_Colors[i] = c;
    if (m_pScreen && m_pScreen->m_pPalette) m_pScreen->m_pPalette->SetColor(i, &c);
  }
  return SetPaletteRange(pPalette, 0, 0, 0xFFFFFFFFu);
}

ERR CHeadlessOSWnd::GetPalette(CPalette* pPalette) {
  if (!pPalette || pPalette->SetSize(0x100) || !pPalette->m_hColors) return ERR_UNKNOWN;
  for (DWORD i = 0; i < 256; i++) {
    TColor c = m_Colors[i];
    TColor old;
    c.btExtra = pPalette->GetColor(i, &old) ? 0 : old.btExtra;  // the extra byte is not copied
    pPalette->SetColor(i, &c);
  }
  return 0;
}

BOOL CHeadlessOSWnd::GetMousePos(TPoint* pPt) {
  *pPt = m_ptMouse;
  return m_bMouseIn;
}

ERR CHeadlessOSWnd::GetProperty(DWORD dwKey, DWORD_PTR* pdwValue) {
  if (dwKey == PROP_WND_HANDLE && pdwValue) *pdwValue = m_bOpen ? reinterpret_cast<DWORD_PTR>(this) : 0;
  return 0;
}

void CHeadlessOSWnd::ClientFromWindow(SHORT x, SHORT y, TPoint* pPt) {
  pPt->x = (SHORT)(x - m_ClientRect.left);
  pPt->y = (SHORT)(y - m_ClientRect.top);
}

void CHeadlessOSWnd::PostPoint(DWORD dwId, SHORT x, SHORT y) {
  TRect rcArea = m_WindowRect;
  OffsetRect(&rcArea, (SHORT)-rcArea.left, (SHORT)-rcArea.top);
  TPoint ptWindow;
  SetPoint(&ptWindow, x, y);
  m_bMouseIn = PtInRect(&ptWindow, &rcArea);
  ClientFromWindow(x, y, &m_ptMouse);
  CHeadlessTerminal* pTerminal = Terminal();
  if (pTerminal && m_bMouseIn) pTerminal->m_pMouseWnd = this;
  // Outside the window only a captured mouse still reports.
  if (m_bMouseIn || (pTerminal && pTerminal->m_pCaptureWnd == this))
    PostMessage(dwId, PointToParam(&m_ptMouse), 0, 0);
}

void CHeadlessOSWnd::FeedMouseMove(SHORT x, SHORT y) { PostPoint(MSG_MOUSE_MOVE, x, y); }

void CHeadlessOSWnd::FeedMouseButton(DWORD dwId, SHORT x, SHORT y) {
  ASSERT((dwId & 0xFF00) == 0x0100 && dwId != MSG_MOUSE_MOVE);
  PostPoint(dwId, x, y);
}

void CHeadlessOSWnd::FeedMouseLeave() { m_bMouseIn = FALSE; }

void CHeadlessOSWnd::FeedKey(BOOL bDown, WORD wVirtualKey, WORD wChar, DWORD dwModifiers) {
  if (Terminal()) Terminal()->SetKeyState(wVirtualKey, bDown);
  PostMessage(bDown ? MSG_KEY_DOWN : MSG_KEY_UP, ((DWORD_PTR)wVirtualKey << 16) | wChar, dwModifiers, 0);
}

void CHeadlessOSWnd::FeedChar(WORD wChar, DWORD dwModifiers) { PostMessage(MSG_CHAR, wChar, dwModifiers, 0); }

void CHeadlessOSWnd::FeedFocus(BOOL bIn) {
  if (Terminal()) {
    if (bIn)
      Terminal()->m_pFocusWnd = this;
    else if (Terminal()->m_pFocusWnd == this)
      Terminal()->m_pFocusWnd = 0;
  }
  PostMessage(bIn ? MSG_OSWND_FOCUS_IN : MSG_OSWND_FOCUS_OUT, 0, 0, 0);
}

void CHeadlessOSWnd::FeedActivate(BOOL bActive) {
  PostMessage(bActive ? MSG_ACTIVATED : MSG_DEACTIVATED, 0, 0, 0);
}
void CHeadlessOSWnd::FeedDisplayChange() { PostMessage(MSG_DISPLAY_CHANGED, 0, 0, 0); }
void CHeadlessOSWnd::FeedCommand(WORD wCommand) { PostMessage(MSG_COMMAND, wCommand, 0, 0); }

DWORD_PTR CHeadlessOSWnd::FeedClose() {
  CMsgHeap* pHeap = m_pTerminal ? m_pTerminal->m_pMsgHeap : 0;
  if (!pHeap) return 0;
  TMessage msg;
  PostMessage(MSG_CLOSE_QUERY, 0, 0, &msg);
  const DWORD_PTR dwAnswer = pHeap->DispatchFiltered(&msg);
  if (dwAnswer) {
    // Allowed: the platform window is destroyed; the object stays until the terminal deletes it.
    m_bOpen = FALSE;
    delete m_pScreen;
    m_pScreen = 0;
  }
  return dwAnswer;
}

void CHeadlessOSWnd::FeedPaint(const TRect* pRect) {
  TRect rc;
  GetRect(&rc, TRUE);
  if (pRect) IntersectRect(&rc, pRect);
  if (IsRectEmpty(&rc)) return;
  if (m_pSurface && m_pSurface->m_hBits) {
    CDC* pDirect = BeginPaint(FALSE);
    if (!pDirect) return;
    pDirect->Blit(m_pSurface, rc.left, rc.top, (SHORT)RectWidth(&rc), (SHORT)RectHeight(&rc), rc.left, rc.top,
                  TRANS_NONE, 0);
    EndPaint(pDirect, 0, 0);
    return;
  }
  CMsgHeap* pHeap = m_pTerminal ? m_pTerminal->m_pMsgHeap : 0;
  if (!pHeap) return;
  TMessage msg;
  PostMessage(MSG_PAINT, ((DWORD_PTR)(WORD)rc.left << 16) | (WORD)rc.top,
              ((DWORD_PTR)(WORD)rc.right << 16) | (WORD)rc.bottom, &msg);
  pHeap->DispatchFiltered(&msg);
}

// Writes a copy in bottom-up order, the usual order of bitmap files, leaving the original as is.
static ERR SaveCopy(const char* pchPath, CBitmap* pBitmap) {
  if (!pBitmap || !pBitmap->m_hBits) return ERR_UNKNOWN;
  CBitmap* pCopy = new CBitmap(*pBitmap);
  if (!pCopy) return ERR_ALLOCFAIL;
  const ERR err = pCopy->m_hBits ? BmpSave(pchPath, pCopy, BL_BACKWARD) : ERR_ALLOCFAIL;
  delete pCopy;
  return err;
}

ERR CHeadlessOSWnd::SaveSurface(const char* pchPath) { return SaveCopy(pchPath, m_pSurface); }
ERR CHeadlessOSWnd::SaveScreen(const char* pchPath) { return SaveCopy(pchPath, m_pScreen); }

DWORD CHeadlessOSWnd::GetScreenPixel(SHORT x, SHORT y) {
  if (!m_bOpen || !m_pScreen) return 0xFFFFFFFFu;
  return m_pScreen->GetPixel(x, y);
}
