// The OS window layer, platform-neutral half: the terminal (display and input as a whole) and
// the one operating-system window with its off-screen surface and dirty-rectangle presentation.
#include "ui/oswnd.h"

#include "platform/platform.h"

// ---------------------------------------------------------------------------------------------
// CTerminal

IMPLEMENT_CLASS(CTerminal, 0x2040000, CObject)

CTerminal::CTerminal(CMsgHeap* pMsgHeap) {
  m_pMsgHeap = pMsgHeap;
  m_pFirstWnd = 0;
  m_pMsgTarget = 0;
  m_nMsgTargetKind = 1;
  m_dwSerial = 0;
}

CTerminal::~CTerminal() {
  while (m_pFirstWnd) delete m_pFirstWnd;  // each window leaves the list in its destructor
  if (m_pMsgHeap) m_pMsgHeap->CancelFor(this);
}

ERR CTerminal::PostMessage(DWORD dwId, DWORD_PTR dwParam1, DWORD_PTR dwParam2, TMessage* pMsg) {
  TMessage msg;
  TMessage* p = pMsg ? pMsg : &msg;
  const DWORD dwNow = GetTime();
  p->nSourceKind = MK_TERMINAL;
  p->pSource = reinterpret_cast<DWORD_PTR>(this);
  p->pTarget = m_pMsgTarget;
  p->nTargetKind = m_nMsgTargetKind;
  p->dwId = dwId;
  p->dwParam1 = dwParam1;
  p->dwParam2 = dwParam2;
  p->dwSerial = ++m_dwSerial;
  p->dwTime = dwNow;
  p->dwDue = dwNow;
  if (pMsg) return 0;
  return m_pMsgHeap ? m_pMsgHeap->Push(p) : ERR_MSGHEAP_NOARRAY;
}

void CTerminal::DestroyOSWnd(COSWnd* pWnd) {
  if (!pWnd) return;
  UnlinkOSWnd(pWnd);
  delete pWnd;
}

void CTerminal::ShowCursor() {}
void CTerminal::HideCursor() {}
void CTerminal::SetCapture(COSWnd*) {}
CCursor* CTerminal::GetCursor() { return 0; }
void CTerminal::SetCursor(CCursor*) {}
BOOL CTerminal::IsKeyDown(WORD) { return FALSE; }
COSWnd* CTerminal::GetFocusWindow() { return 0; }
void CTerminal::SetFocusWindow(COSWnd*) {}
DWORD CTerminal::GetDisplayMode() { return 0; }
BOOL CTerminal::SetDisplayMode(DWORD) { return FALSE; }
DWORD CTerminal::NextDisplayMode(DWORD) { return 0; }
ERR CTerminal::GetModeInfo(DWORD, SHORT*, SHORT*, SHORT*) { return ERR_BADPARAM; }
DWORD CTerminal::GetTime() { return PlatGetTickCount(); }
ERR CTerminal::SetProperty(DWORD, DWORD_PTR) { return 0; }
ERR CTerminal::GetProperty(DWORD, DWORD_PTR*) { return 0; }

COSWnd* CTerminal::FromHandle(DWORD_PTR dwHandle) {
  if (!dwHandle) return 0;
  for (COSWnd* p = m_pFirstWnd; p; p = p->m_pNext) {
    DWORD_PTR dwOwn = 0;
    if (p->GetProperty(PROP_WND_HANDLE, &dwOwn) == 0 && dwOwn == dwHandle) return p;
  }
  return 0;
}

void CTerminal::LinkOSWnd(COSWnd* pWnd) {
  pWnd->m_pNext = m_pFirstWnd;
  m_pFirstWnd = pWnd;
}

void CTerminal::UnlinkOSWnd(COSWnd* pWnd) {
  for (COSWnd** pp = &m_pFirstWnd; *pp; pp = &(*pp)->m_pNext) {
    if (*pp == pWnd) {
      *pp = pWnd->m_pNext;
      pWnd->m_pNext = 0;
      return;
    }
  }
}

void CTerminal::PumpWindowsAndQueue() {
  for (COSWnd* p = m_pFirstWnd; p; p = p->m_pNext) p->Pump();
  if (m_pMsgHeap) m_pMsgHeap->Process(GetTime(), 100);
}

// ---------------------------------------------------------------------------------------------
// COSWnd

IMPLEMENT_CLASS(COSWnd, 0x2050000, CObject)

COSWnd::COSWnd(CTerminal* pTerminal) {
  m_pTerminal = pTerminal;
  m_pNext = 0;
  m_bCentre = TRUE;
  ::SetRect(&m_ClientRect, 1, 1, 0, 0);
  ::SetRect(&m_WindowRect, 1, 1, 0, 0);
  m_pSurface = 0;
  m_bFreeBits = FALSE;
  m_pMsgTarget = 0;
  m_nMsgTargetKind = 1;
  m_pfnHitTest = 0;
  SetPoint(&m_MinSize, 0, 0);
  SetPoint(&m_MaxSize, 0x7FFF, 0x7FFF);
  m_dwSerial = 0;
  m_pCursorObj = 0;
  m_szTitle[0] = 0;
}

COSWnd::~COSWnd() {
  CMsgHeap* pHeap = m_pTerminal ? m_pTerminal->m_pMsgHeap : 0;
  if (pHeap) {
    pHeap->CancelFor(this);
    TMessage msg;
    PostMessage(MSG_OSWND_DESTROYED, 0, 0, &msg);
    pHeap->DispatchFiltered(&msg);
  }
  delete m_pSurface;
  m_pSurface = 0;
  if (m_pTerminal) m_pTerminal->UnlinkOSWnd(this);
}

void COSWnd::Pump() {
  if (m_pTerminal && m_pTerminal->m_pMsgHeap) PostMessage(MSG_IDLE, 0, 0, 0);
}

ERR COSWnd::PostMessage(DWORD dwId, DWORD_PTR dwParam1, DWORD_PTR dwParam2, TMessage* pMsg) {
  TMessage msg;
  TMessage* p = pMsg ? pMsg : &msg;
  const DWORD dwNow = m_pTerminal ? m_pTerminal->GetTime() : 0;
  p->nSourceKind = MK_OSWND;
  p->pSource = reinterpret_cast<DWORD_PTR>(this);
  p->pTarget = m_pMsgTarget;
  p->nTargetKind = m_nMsgTargetKind;
  p->dwId = dwId;
  p->dwParam1 = dwParam1;
  p->dwParam2 = dwParam2;
  p->dwSerial = ++m_dwSerial;
  p->dwTime = dwNow;
  p->dwDue = dwNow;
  if (pMsg) return 0;
  CMsgHeap* pHeap = m_pTerminal ? m_pTerminal->m_pMsgHeap : 0;
  return pHeap ? pHeap->Push(p) : ERR_MSGHEAP_NOARRAY;
}

ERR COSWnd::CreateSurface(SHORT nFormat) {
  if (nFormat == -1) {
    SHORT w = 0, h = 0, f = 0;
    if (m_pTerminal) m_pTerminal->GetModeInfo(m_pTerminal->GetDisplayMode(), &w, &h, &f);
    nFormat = f;
  }
  if (nFormat == 0) {
    delete m_pSurface;
    m_pSurface = 0;
    return 0;
  }
  if (!m_pSurface) {
    m_pSurface = new CBitmap();
    if (!m_pSurface) return ERR_ALLOCFAIL;
  }
  LONG w = RectWidth(&m_ClientRect), h = RectHeight(&m_ClientRect);
  if (w <= 0 || h <= 0) w = h = 1;
  ERR err = 0;
  CPalette* pPalette = m_pSurface->m_pPalette;
  // Pixels released after a presentation are not made again here; BeginPaint does that.
  if (w != m_pSurface->m_nWidth || h != m_pSurface->m_nHeight || nFormat != m_pSurface->m_nFormat) {
    // Create would delete the palette: keep it aside while the pixels are made again.
    m_pSurface->m_pPalette = 0;
    err = m_pSurface->Create((SHORT)w, (SHORT)h, nFormat, 0, BL_FORWARD, 0);
  } else {
    pPalette = 0;  // unchanged surface: its palette stays where it is
  }
  if (!err && nFormat == BF_8BIT && !m_pSurface->m_pPalette) {
    if (!pPalette) {
      pPalette = new CPalette();
      if (!pPalette)
        err = ERR_ALLOCFAIL;
      else
        GetPalette(pPalette);
    }
    m_pSurface->m_pPalette = pPalette;
    pPalette = 0;
  }
  delete pPalette;  // a palette left over from an 8-bit surface that is 8-bit no more
  if (err) {
    delete m_pSurface;
    m_pSurface = 0;
  }
  return err;
}

ERR COSWnd::EnsureSurfaceBits() {
  if (!m_pSurface) return ERR_UNKNOWN;
  if (m_pSurface->m_hBits) return 0;
  CPalette* pPalette = m_pSurface->m_pPalette;
  m_pSurface->m_pPalette = 0;
  const ERR err = m_pSurface->Create(m_pSurface->m_nWidth, m_pSurface->m_nHeight, m_pSurface->m_nFormat,
                                     pPalette, BL_FORWARD, 0);
  return err ? ERR_ALLOCFAIL : 0;
}

void COSWnd::Close() {
  delete m_pSurface;
  m_pSurface = 0;
  PostMessage(MSG_OSWND_CLOSED, 0, 0, 0);
}

void COSWnd::ScreenToClient(TPoint* pPt) {
  pPt->x = (SHORT)(pPt->x - m_WindowRect.left - m_ClientRect.left);
  pPt->y = (SHORT)(pPt->y - m_WindowRect.top - m_ClientRect.top);
}

void COSWnd::ClientToScreen(TPoint* pPt) {
  pPt->x = (SHORT)(pPt->x + m_WindowRect.left + m_ClientRect.left);
  pPt->y = (SHORT)(pPt->y + m_WindowRect.top + m_ClientRect.top);
}

void COSWnd::GetTitle(char* pchBuf, DWORD dwSize) {
  if (!pchBuf || !dwSize) return;
  StrNCpy(pchBuf, m_szTitle, dwSize - 1 < 128 ? dwSize - 1 : 128);
}

void COSWnd::SetTitle(const char* pchTitle) { StrNCpy(m_szTitle, pchTitle ? pchTitle : "", 128); }

void COSWnd::GetRect(TRect* pRect, BOOL bClient) {
  if (bClient) {
    *pRect = m_ClientRect;
    OffsetRect(pRect, (SHORT)-m_ClientRect.left, (SHORT)-m_ClientRect.top);
  } else {
    *pRect = m_WindowRect;
  }
}

ERR COSWnd::SetRect(const TRect* pRect, BOOL bClient) {
  UpdateClient(pRect, bClient);
  return 0;
}

void COSWnd::Reserved() {}

void COSWnd::UpdateClient(const TRect* pRect, BOOL bClient) {
  if (!bClient) {
    m_WindowRect = *pRect;
    return;
  }
  const TRect rcOld = m_ClientRect;
  m_ClientRect = *pRect;
  if (m_pSurface) CreateSurface(m_pSurface->m_nFormat);
  if (!RectsEqual(&rcOld, &m_ClientRect) && m_pTerminal && m_pTerminal->m_pMsgHeap) {
    TMessage msg;
    PostMessage(MSG_SIZE, 0, 0, &msg);
    m_pTerminal->m_pMsgHeap->DispatchFiltered(&msg);
  }
}

CDC* COSWnd::BeginPaint(BOOL bSurface) {
  if (!bSurface || !m_pSurface) return 0;
  if (EnsureSurfaceBits()) return 0;
  return new CMemoryDC(m_pSurface);
}

void COSWnd::EndPaint(CDC* pDC, const TRect* pRects, SHORT nCount) {
  if (!pDC) return;
  CBitmap* pBitmap = pDC->GetBitmap();
  delete pDC;
  if (!pBitmap || pBitmap != m_pSurface) return;
  CDC* pDirect = BeginPaint(FALSE);
  if (pDirect) {
    // No list presents the whole surface.
    TRect rcAll;
    m_pSurface->GetRect(&rcAll);
    if (!pRects) nCount = 1;
    for (SHORT i = 0; i < nCount; i++) {
      const TRect r = pRects ? pRects[i] : rcAll;
      pDirect->Blit(m_pSurface, r.left, r.top, (SHORT)RectWidth(&r), (SHORT)RectHeight(&r), r.left, r.top,
                    TRANS_NONE, 0);
    }
    EndPaint(pDirect, 0, 0);
  }
  if (m_bFreeBits && m_pSurface->m_hBits) {
    HANDLE_FREE(m_pSurface->m_hBits);
    m_pSurface->m_hBits = 0;
  }
}

ERR COSWnd::SetPaletteRange(CPalette* pPalette, DWORD iDest, DWORD iSource, DWORD dwCount) {
  CPalette* pOwn = m_pSurface ? m_pSurface->m_pPalette : 0;
  if (!pPalette || !pOwn || !pOwn->m_hColors || !pPalette->m_hColors) return ERR_UNKNOWN;
  if (iDest >= pOwn->m_dwColors || iSource >= pPalette->m_dwColors) return ERR_BADPARAM;
  if (dwCount > pOwn->m_dwColors - iDest) dwCount = pOwn->m_dwColors - iDest;
  if (dwCount > pPalette->m_dwColors - iSource) dwCount = pPalette->m_dwColors - iSource;
  if (pPalette != pOwn || iDest != iSource) CopyColors(pPalette, pOwn, iSource, iDest, dwCount);
  PostMessage(MSG_PALETTE_CHANGED, 0, 0, 0);
  return 0;
}

void COSWnd::SetMsgTarget(DWORD_PTR pTarget, SHORT nKind) {
  m_pMsgTarget = pTarget;
  m_nMsgTargetKind = nKind;
}

BOOL COSWnd::ShowCursor() { return TRUE; }
BOOL COSWnd::HideCursor() { return TRUE; }
CCursor* COSWnd::GetCursor() { return m_pCursorObj; }
void COSWnd::SetCursor(CCursor* pCursor) { m_pCursorObj = pCursor; }
ERR COSWnd::SetProperty(DWORD, DWORD_PTR) { return 0; }
ERR COSWnd::GetProperty(DWORD, DWORD_PTR*) { return 0; }
