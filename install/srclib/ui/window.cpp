// The window and event core: rectangle helpers, the window tree, the message record, the one
// heap-ordered message queue and the vocabulary of message identifiers.
#include "ui/window.h"

#include "base/heap.h"
#include "graphics/memdc.h"
#include "ui/desktop.h"
#include "ui/oswnd.h"

// ---------------------------------------------------------------------------------------------
// Rectangle and point helpers

void SetPoint(TPoint* pPt, SHORT x, SHORT y) {
  pPt->x = x;
  pPt->y = y;
}

void SetRect(TRect* pRect, SHORT nLeft, SHORT nTop, SHORT nRight, SHORT nBottom) {
  pRect->left = nLeft;
  pRect->top = nTop;
  pRect->right = nRight;
  pRect->bottom = nBottom;
}

void SetRectSize(TRect* pRect, SHORT x, SHORT y, SHORT w, SHORT h) {
  SetRect(pRect, x, y, (SHORT)(x - 1 + w), (SHORT)(y - 1 + h));
}

void GetRectEdges(const TRect* pRect, SHORT* pnLeft, SHORT* pnTop, SHORT* pnRight, SHORT* pnBottom) {
  *pnLeft = pRect->left;
  *pnTop = pRect->top;
  *pnRight = pRect->right;
  *pnBottom = pRect->bottom;
}

void GetRectSize(const TRect* pRect, SHORT* px, SHORT* py, SHORT* pw, SHORT* ph) {
  *px = pRect->left;
  *py = pRect->top;
  *pw = (SHORT)(pRect->right - pRect->left + 1);
  *ph = (SHORT)(pRect->bottom - pRect->top + 1);
}

void IntersectRect(TRect* pA, const TRect* pB) {
  if (pB->left > pA->left) pA->left = pB->left;
  if (pB->top > pA->top) pA->top = pB->top;
  if (pB->right < pA->right) pA->right = pB->right;
  if (pB->bottom < pA->bottom) pA->bottom = pB->bottom;
}

void UnionRect(TRect* pA, const TRect* pB) {
  if (pB->left < pA->left) pA->left = pB->left;
  if (pB->top < pA->top) pA->top = pB->top;
  if (pB->right > pA->right) pA->right = pB->right;
  if (pB->bottom > pA->bottom) pA->bottom = pB->bottom;
}

void OffsetRect(TRect* pRect, SHORT dx, SHORT dy) {
  SetRect(pRect, (SHORT)(pRect->left + dx), (SHORT)(pRect->top + dy), (SHORT)(pRect->right + dx),
          (SHORT)(pRect->bottom + dy));
}

void InflateRect(TRect* pRect, SHORT l, SHORT t, SHORT r, SHORT b) {
  SetRect(pRect, (SHORT)(pRect->left - l), (SHORT)(pRect->top - t), (SHORT)(pRect->right + r),
          (SHORT)(pRect->bottom + b));
}

void CentreRectOn(TRect* pRect, const TPoint* pPt) {
  const int cx = (pRect->left + pRect->right) / 2;
  const int cy = (pRect->top + pRect->bottom) / 2;
  OffsetRect(pRect, (SHORT)(pPt->x - cx), (SHORT)(pPt->y - cy));
}

void CentreRectIn(TRect* pRect, const TRect* pOuter) {
  TPoint pt;
  pt.x = (SHORT)((pOuter->left + pOuter->right) / 2);
  pt.y = (SHORT)((pOuter->top + pOuter->bottom) / 2);
  CentreRectOn(pRect, &pt);
}

// One axis of MapPoint: offset, multiply, truncating divide.
static SHORT MapValue(int v, int nFrom0, int nFrom1, int nTo0, int nTo1) {
  const long long nSpan = (long long)nFrom1 - nFrom0;
  if (!nSpan) return (SHORT)nTo0;
  return (SHORT)(nTo0 + (long long)(v - nFrom0) * ((long long)nTo1 - nTo0) / nSpan);
}

void MapPoint(const TRect* pFrom, const TPoint* pPt, const TRect* pTo, TPoint* pOut) {
  const TPoint pt = *pPt;
  pOut->x = MapValue(pt.x, pFrom->left, pFrom->right, pTo->left, pTo->right);
  pOut->y = MapValue(pt.y, pFrom->top, pFrom->bottom, pTo->top, pTo->bottom);
}

void MapRect(const TRect* pFrom, const TRect* pRect, const TRect* pTo, TRect* pOut) {
  const TRect r = *pRect;
  TPoint a, b;
  SetPoint(&a, r.left, r.top);
  SetPoint(&b, r.right, r.bottom);
  MapPoint(pFrom, &a, pTo, &a);
  MapPoint(pFrom, &b, pTo, &b);
  SetRect(pOut, a.x, a.y, b.x, b.y);
}

void SplitRect(const TRect* pRect, const TRect* pHole, TRect* pLeft, TRect* pTop, TRect* pRight,
               TRect* pBottom) {
  const TRect r = *pRect;
  TRect h = *pHole;
  InflateRect(&h, 1, 1, 1, 1);
  *pTop = r;
  pTop->bottom = h.top;
  *pBottom = r;
  pBottom->top = h.bottom;
  // The side strips reach one row above the hole's frame; they overlap the top strip there.
  const SHORT nTop = r.top > h.top - 1 ? r.top : (SHORT)(h.top - 1);
  const SHORT nBottom = r.bottom < h.bottom - 1 ? r.bottom : (SHORT)(h.bottom - 1);
  SetRect(pLeft, r.left, nTop, h.left, nBottom);
  SetRect(pRight, h.right, nTop, r.right, nBottom);
}

BOOL IsRectEmpty(const TRect* pRect) { return pRect->right < pRect->left || pRect->bottom < pRect->top; }

BOOL PointsEqual(const TPoint* pA, const TPoint* pB) { return pA->x == pB->x && pA->y == pB->y; }

BOOL RectsEqual(const TRect* pA, const TRect* pB) {
  return pA->left == pB->left && pA->top == pB->top && pA->right == pB->right && pA->bottom == pB->bottom;
}

BOOL ColorsEqual(const TColor* pA, const TColor* pB) {
  return pA->btRed == pB->btRed && pA->btGreen == pB->btGreen && pA->btBlue == pB->btBlue;
}

BOOL PtInRect(const TPoint* pPt, const TRect* pRect) {
  return pPt->x >= pRect->left && pPt->x <= pRect->right && pPt->y >= pRect->top && pPt->y <= pRect->bottom;
}

BOOL ClampPointToRect(TPoint* pPt, const TRect* pRect) {
  BOOL bInside = TRUE;
  if (pPt->x < pRect->left) pPt->x = pRect->left, bInside = FALSE;
  if (pPt->x > pRect->right) pPt->x = pRect->right, bInside = FALSE;
  if (pPt->y < pRect->top) pPt->y = pRect->top, bInside = FALSE;
  if (pPt->y > pRect->bottom) pPt->y = pRect->bottom, bInside = FALSE;
  return bInside;
}

BOOL RectInRect(const TRect* pInner, const TRect* pOuter) {
  return pInner->left >= pOuter->left && pInner->right <= pOuter->right && pInner->top >= pOuter->top &&
         pInner->bottom <= pOuter->bottom;
}

BOOL PushRectInto(TRect* pRect, const TRect* pBounds) {
  BOOL bUnmoved = TRUE;
  if (pRect->left < pBounds->left)
    OffsetRect(pRect, (SHORT)(pBounds->left - pRect->left), 0), bUnmoved = FALSE;
  if (pRect->right > pBounds->right)
    OffsetRect(pRect, (SHORT)(pBounds->right - pRect->right), 0), bUnmoved = FALSE;
  if (pRect->top < pBounds->top) OffsetRect(pRect, 0, (SHORT)(pBounds->top - pRect->top)), bUnmoved = FALSE;
  if (pRect->bottom > pBounds->bottom)
    OffsetRect(pRect, 0, (SHORT)(pBounds->bottom - pRect->bottom)), bUnmoved = FALSE;
  return bUnmoved;
}

LONG RectWidth(const TRect* pRect) { return (LONG)pRect->right - pRect->left + 1; }
LONG RectHeight(const TRect* pRect) { return (LONG)pRect->bottom - pRect->top + 1; }
LONG RectArea(const TRect* pRect) { return RectWidth(pRect) * RectHeight(pRect); }

// ---------------------------------------------------------------------------------------------
// CMsgHeap

IMPLEMENT_CLASS(CMsgObject, 0x2030002, CObject)
IMPLEMENT_CLASS(CMsgHeap, 0x2030000, CObject)
IMPLEMENT_CLASS(CWindowMsgHeap, 0x2030001, CMsgHeap)

// Earlier due time first, then the lower serial; both unsigned.
static SHORT CompareMsg(const void* pData1, const void* pData2) {
  const TMessage* a = static_cast<const TMessage*>(pData1);
  const TMessage* b = static_cast<const TMessage*>(pData2);
  if (a->dwDue != b->dwDue) return a->dwDue < b->dwDue ? -1 : 1;
  if (a->dwSerial != b->dwSerial) return a->dwSerial < b->dwSerial ? -1 : 1;
  return 0;
}

CMsgHeap::CMsgHeap(WORD wMaxMsgs, WORD wMaxFilters) {
  m_wMsgs = 0;
  m_wFilters = 0;
  m_pMsgs = wMaxMsgs ? static_cast<TMessage*>(MEM_ALLOC(sizeof(TMessage) * wMaxMsgs)) : 0;
  m_wMaxMsgs = m_pMsgs ? wMaxMsgs : 0;
  m_pFilters = wMaxFilters ? static_cast<TMsgFilter*>(MEM_ALLOC(sizeof(TMsgFilter) * wMaxFilters)) : 0;
  m_wMaxFilters = m_pFilters ? wMaxFilters : 0;
}

CMsgHeap::~CMsgHeap() {
  if (m_pMsgs) MEM_FREE(m_pMsgs);
  if (m_pFilters) MEM_FREE(m_pFilters);
}

DWORD_PTR CMsgHeap::Dispatch(TMessage* pMsg) {
  switch (pMsg->nTargetKind) {
    case MK_FUNCTION:
      return pMsg->pTarget ? reinterpret_cast<PFN_MSGFUNC>(pMsg->pTarget)(pMsg) : 0;
    case MK_OBJECT:
      return pMsg->pTarget ? reinterpret_cast<CMsgObject*>(pMsg->pTarget)->HandleMsg(pMsg) : 0;
    default:
      return 0;
  }
}

DWORD CMsgHeap::Process(DWORD dwNow, DWORD nMax) {
  DWORD dwDone = 0;
  while (nMax && m_wMsgs && m_pMsgs[0].dwDue <= dwNow) {
    TMessage msg;
    Pop(&msg);
    DispatchFiltered(&msg);
    nMax--;
    dwDone++;
  }
  return dwDone;
}

DWORD CMsgHeap::NextDue() { return m_wMsgs ? m_pMsgs[0].dwDue : 0xFFFFFFFFu; }

ERR CMsgHeap::Pop(TMessage* pMsg) {
  if (!m_wMsgs) return ERR_NOTFOUND;
  *pMsg = m_pMsgs[0];
  m_wMsgs--;
  if (m_wMsgs) {
    m_pMsgs[0] = m_pMsgs[m_wMsgs];
    HeapSiftDown(m_pMsgs, sizeof(TMessage), 1, m_wMsgs, CompareMsg);
  }
  return 0;
}

ERR CMsgHeap::Peek(WORD wIndex, TMessage** ppMsg) {
  if (wIndex >= m_wMsgs) {
    *ppMsg = 0;
    return ERR_BADINDEX;
  }
  *ppMsg = &m_pMsgs[wIndex];
  return 0;
}

WORD CMsgHeap::Count() { return m_wMsgs; }

void CMsgHeap::Cancel(WORD wIndex) {
  if (wIndex < m_wMsgs) m_pMsgs[wIndex].nTargetKind = MK_CANCELLED;
}

void CMsgHeap::CancelFor(const void* pObject) {
  const DWORD_PTR dwObject = reinterpret_cast<DWORD_PTR>(pObject);
  for (WORD i = 0; i < m_wMsgs; i++) {
    if (m_pMsgs[i].pTarget == dwObject) m_pMsgs[i].nTargetKind = MK_CANCELLED;
    if (m_pMsgs[i].pSource == dwObject) m_pMsgs[i].nSourceKind = MK_NONE;
  }
}

ERR CMsgHeap::AddFilter(PFN_MSGFILTER pfnFilter, DWORD dwPriority) {
  if (!m_pFilters || m_wFilters >= m_wMaxFilters) return ERR_UNKNOWN;
  // Before the first filter of the same or a lower priority.
  WORD i = 0;
  while (i < m_wFilters && m_pFilters[i].dwPriority > dwPriority) i++;
  MemMove(&m_pFilters[i + 1], &m_pFilters[i], (DWORD)(sizeof(TMsgFilter) * (m_wFilters - i)));
  m_pFilters[i].dwPriority = dwPriority;
  m_pFilters[i].pfnFilter = pfnFilter;
  m_wFilters++;
  return 0;
}

ERR CMsgHeap::RemoveFilter(PFN_MSGFILTER pfnFilter) {
  for (WORD i = 0; i < m_wFilters; i++) {
    if (m_pFilters[i].pfnFilter == pfnFilter) {
      MemMove(&m_pFilters[i], &m_pFilters[i + 1], (DWORD)(sizeof(TMsgFilter) * (m_wFilters - i - 1)));
      m_wFilters--;
      return 0;
    }
  }
  return ERR_UNKNOWN;
}

ERR CMsgHeap::Push(const TMessage* pMsg) {
  if (!m_pMsgs) return ERR_MSGHEAP_NOARRAY;
  if (m_wMsgs >= m_wMaxMsgs) return ERR_MSGHEAP_FULL;
  m_pMsgs[m_wMsgs++] = *pMsg;
  HeapSiftUp(m_pMsgs, sizeof(TMessage), m_wMsgs, CompareMsg);
  return 0;
}

DWORD_PTR CMsgHeap::DispatchFiltered(TMessage* pMsg) {
  if (pMsg->nTargetKind == MK_CANCELLED) return 0;
  // A filter may add or remove filters while it runs: walk by index and re-check the count.
  for (WORD i = 0; i < m_wFilters; i++) {
    DWORD_PTR dwResult = 0;
    if (!m_pFilters[i].pfnFilter(pMsg, &dwResult)) return dwResult;
  }
  return Dispatch(pMsg);
}

CWindowMsgHeap::CWindowMsgHeap(WORD wMaxMsgs, WORD wMaxFilters) : CMsgHeap(wMaxMsgs, wMaxFilters) {}

DWORD_PTR CWindowMsgHeap::Dispatch(TMessage* pMsg) {
  if (pMsg->nTargetKind == MK_WINDOW)
    return pMsg->pTarget ? reinterpret_cast<CWindow*>(pMsg->pTarget)->HandleMessage(pMsg) : 0;
  return CMsgHeap::Dispatch(pMsg);
}

// ---------------------------------------------------------------------------------------------
// CWindow

IMPLEMENT_CLASS(CWindow, 0x2010000, CObject)

static const TRect s_rcEmpty = {1, 1, 0, 0};

CWindow::CWindow(CWindow* pParent, const TRect* pRect, DWORD dwFlags) {
  m_Desktop = 0;
  m_pParent = 0;
  m_Rect = pRect ? *pRect : s_rcEmpty;
  m_pNext = m_pPrev = m_pFirstChild = m_pLastChild = 0;
  m_dwFlags = dwFlags;
  if (dwFlags & WF_PALETTE_USER) m_dwFlags |= WF_MAP_COLORS;
  m_pCursor = 0;
  if (pParent) pParent->AddChild(this, TRUE);
  if (m_Desktop) m_Desktop->m_bMouseDirty = TRUE;
}

CWindow::CWindow(CDesktop* pDesktop) {
  m_Desktop = pDesktop;
  m_pParent = 0;
  m_Rect = s_rcEmpty;
  m_pNext = m_pPrev = m_pFirstChild = m_pLastChild = 0;
  m_dwFlags = WF_DEFAULT;
  m_pCursor = 0;
}

CWindow::~CWindow() {
  while (m_pFirstChild) delete m_pFirstChild;
  if (m_pParent) m_pParent->RemoveChild(this, FALSE);
  if (m_Desktop && static_cast<CWindow*>(m_Desktop) != this) m_Desktop->ForgetWindow(this);
}

void CWindow::GetRect(TRect* pRect) { *pRect = m_Rect; }

void CWindow::SetRect(const TRect* pRect, BOOL bRedraw, BOOL bMoveChildren) {
  const TRect rcNew = *pRect;
  if (RectsEqual(&rcNew, &m_Rect)) return;
  const TRect rcOld = m_Rect;
  m_Rect = rcNew;
  const SHORT dx = (SHORT)(rcNew.left - rcOld.left), dy = (SHORT)(rcNew.top - rcOld.top);
  if (bMoveChildren && (dx || dy)) {
    for (CWindow* p = m_pFirstChild; p; p = p->m_pNext) {
      TRect rc = p->m_Rect;
      OffsetRect(&rc, dx, dy);
      p->SetRect(&rc, FALSE, TRUE);
    }
  }
  if (bRedraw && m_Desktop) {
    m_Desktop->m_bMouseDirty = TRUE;
    TRect aStrips[4];
    SplitRect(&rcOld, &rcNew, &aStrips[0], &aStrips[1], &aStrips[2], &aStrips[3]);
    for (int i = 0; i < 4; i++) Invalidate(&aStrips[i], FALSE);
    Invalidate(&rcNew, FALSE);
  }
}

DWORD CWindow::GetFlags() { return m_dwFlags; }

void CWindow::SetFlags(DWORD dwFlags, BOOL bRedraw) {
  m_dwFlags = dwFlags;
  // A redraw request repaints even when no flag changed: callers use it after a state change
  // of their own.
  if (!bRedraw || !m_Desktop) return;
  m_Desktop->m_bMouseDirty = TRUE;
  Invalidate(0, FALSE);
}

DWORD CWindow::GetId() { return 0; }

CWindow* CWindow::FindChild(DWORD dwId) {
  for (CWindow* p = m_pFirstChild; p; p = p->m_pNext)
    if (p->GetId() == dwId) return p;
  return 0;
}

void CWindow::Paint(CDC*, const TRect*) {}
void CWindow::PaintOver(CDC*, const TRect*) {}

void CWindow::Invalidate(const TRect* pRect, BOOL) {
  if (!m_Desktop) return;
  // Clipped by the ancestors only: the area may be one the window has just left or uncovered
  // by hiding itself.
  m_Desktop->AddDirty(pRect ? pRect : &m_Rect, this, FALSE);
}

BOOL CWindow::HitTest(const TPoint* pPt) { return IsFlag(WF_VISIBLE) && PtInRect(pPt, &m_Rect); }

CWindow* CWindow::ChildAt(const TPoint* pPt) {
  for (CWindow* p = m_pFirstChild; p; p = p->m_pNext)
    if (p->HitTest(pPt)) return p;
  return 0;
}

CWindow* CWindow::DeepChildAt(const TPoint* pPt) {
  if (!HitTest(pPt)) return 0;
  CWindow* pWindow = this;
  for (CWindow* pChild; (pChild = pWindow->ChildAt(pPt)) != 0;) pWindow = pChild;
  return pWindow;
}

BOOL CWindow::IsUnobscured(const TRect* pRect) {
  return m_Desktop ? m_Desktop->IsUnobscured(this, pRect) : 0;
}

CWindow* CWindow::FindTarget(const TPoint* pPt, CCursor** ppCursor) {
  if (IsFlag(WF_CURSOR_TREE)) *ppCursor = m_pCursor;
  CWindow* pChild = ChildAt(pPt);
  if (!pChild) {
    if (IsFlag(WF_CURSOR_SELF)) *ppCursor = m_pCursor;
    return this;
  }
  return pChild->FindTarget(pPt, ppCursor);
}

DWORD_PTR CWindow::HandleMessage(TMessage*) { return 0; }
void CWindow::OnKey(DWORD, WORD, WORD) {}
void CWindow::OnMouse(DWORD, const TPoint*) {}

CDDServer* CWindow::DragSourceAt(const TPoint* pPt) {
  CWindow* pChild = ChildAt(pPt);
  return pChild ? pChild->DragSourceAt(pPt) : 0;
}

CDDClient* CWindow::DropTargetAt(const TPoint* pPt) {
  for (CWindow* p = m_pFirstChild; p; p = p->m_pNext) {
    if (!p->HitTest(pPt)) continue;
    CDDClient* pClient = p->DropTargetAt(pPt);
    if (pClient) return pClient;
  }
  return 0;
}

BOOL CWindow::IsFlag(DWORD dwMask) { return (GetFlags() & dwMask) == dwMask; }

void CWindow::ChangeFlags(DWORD dwSet, DWORD dwClear, BOOL bRedraw) {
  SetFlags((GetFlags() & ~dwClear) | dwSet, bRedraw);
}

void CWindow::ToGlobal(TPoint* pPt) {
  pPt->x = (SHORT)(pPt->x + m_Rect.left);
  pPt->y = (SHORT)(pPt->y + m_Rect.top);
}
void CWindow::ToGlobal(TRect* pRect) { OffsetRect(pRect, m_Rect.left, m_Rect.top); }
void CWindow::ToLocal(TPoint* pPt) {
  pPt->x = (SHORT)(pPt->x - m_Rect.left);
  pPt->y = (SHORT)(pPt->y - m_Rect.top);
}
void CWindow::ToLocal(TRect* pRect) { OffsetRect(pRect, (SHORT)-m_Rect.left, (SHORT)-m_Rect.top); }

void CWindow::SetParent(CWindow* pParent, BOOL bRedraw) {
  if (pParent == m_pParent) return;
  if (m_pParent) m_pParent->RemoveChild(this, bRedraw);
  if (pParent) pParent->AddChild(this, bRedraw);
}

BOOL CWindow::HasChild(CWindow* pChild) {
  for (CWindow* p = m_pFirstChild; p; p = p->m_pNext)
    if (p == pChild) return TRUE;
  return FALSE;
}

void CWindow::SetDesktopTree(CWindow* pWindow, CDesktop* pDesktop) {
  pWindow->m_Desktop = pDesktop;
  for (CWindow* p = pWindow->m_pFirstChild; p; p = p->m_pNext) SetDesktopTree(p, pDesktop);
}

void CWindow::Redraw(const TRect* pRect) {
  if (!m_Desktop) return;
  m_Desktop->m_bMouseDirty = TRUE;
  Invalidate(pRect, FALSE);
}

void CWindow::AddChild(CWindow* pChild, BOOL bRedraw) {
  if (!pChild || pChild == this) return;
  if (pChild->m_pParent) pChild->m_pParent->Unlink(pChild);
  pChild->m_pParent = this;
  pChild->m_pPrev = 0;
  pChild->m_pNext = m_pFirstChild;
  if (m_pFirstChild)
    m_pFirstChild->m_pPrev = pChild;
  else
    m_pLastChild = pChild;
  m_pFirstChild = pChild;
  if (pChild->m_Desktop != m_Desktop) SetDesktopTree(pChild, m_Desktop);
  if (bRedraw) pChild->Redraw(&pChild->m_Rect);
}

void CWindow::AddChildBack(CWindow* pChild, BOOL bRedraw) {
  if (!pChild || pChild == this) return;
  if (pChild->m_pParent) pChild->m_pParent->Unlink(pChild);
  pChild->m_pParent = this;
  pChild->m_pNext = 0;
  pChild->m_pPrev = m_pLastChild;
  if (m_pLastChild)
    m_pLastChild->m_pNext = pChild;
  else
    m_pFirstChild = pChild;
  m_pLastChild = pChild;
  if (pChild->m_Desktop != m_Desktop) SetDesktopTree(pChild, m_Desktop);
  if (bRedraw) pChild->Redraw(&pChild->m_Rect);
}

void CWindow::Unlink(CWindow* pChild) {
  if (pChild->m_pPrev)
    pChild->m_pPrev->m_pNext = pChild->m_pNext;
  else
    m_pFirstChild = pChild->m_pNext;
  if (pChild->m_pNext)
    pChild->m_pNext->m_pPrev = pChild->m_pPrev;
  else
    m_pLastChild = pChild->m_pPrev;
  pChild->m_pNext = pChild->m_pPrev = 0;
  pChild->m_pParent = 0;
}

BOOL CWindow::RemoveChild(CWindow* pChild, BOOL bRedraw) {
  if (!pChild || pChild->m_pParent != this) return FALSE;
  Unlink(pChild);
  if (bRedraw && m_Desktop) {
    // The area it covered is this window's again.
    m_Desktop->m_bMouseDirty = TRUE;
    m_Desktop->AddDirty(&pChild->m_Rect, this, TRUE);
  }
  return TRUE;
}

void CWindow::BringToFront(CWindow* pChild, BOOL bRedraw) {
  if (!RemoveChild(pChild, FALSE)) return;
  AddChild(pChild, bRedraw);
}

void CWindow::SendToBack(CWindow* pChild, BOOL bRedraw) {
  if (!RemoveChild(pChild, FALSE)) return;
  AddChildBack(pChild, bRedraw);
}

void CWindow::PaintChildren(CDC* pDC, const TRect* pRect) {
  const TRect rcAll = *pRect;
  for (CWindow* p = m_pLastChild; p; p = p->m_pPrev) {
    if (!p->IsFlag(WF_VISIBLE)) continue;
    TRect r = rcAll;
    IntersectRect(&r, &p->m_Rect);
    if (IsRectEmpty(&r)) continue;
    pDC->SetClip(&r);
    p->Paint(pDC, &r);
    p->PaintChildren(pDC, &r);
    p->PaintOver(pDC, &r);
  }
  pDC->SetClip(&rcAll);
}

CMsgHeap* CWindow::Queue() {
  if (!m_Desktop || !m_Desktop->m_pOSWnd) return 0;
  CTerminal* pTerminal = m_Desktop->m_pOSWnd->m_pTerminal;
  return pTerminal ? pTerminal->m_pMsgHeap : 0;
}

BOOL CWindow::MakeRecord(TMessage* pMsg, CWindow* pTarget, DWORD dwId, DWORD_PTR dwParam1, DWORD_PTR dwParam2,
                         DWORD dwDelay) {
  if (!Queue()) return FALSE;
  const DWORD dwNow = m_Desktop->m_pOSWnd->m_pTerminal->GetTime();
  pMsg->nTargetKind = MK_WINDOW;
  pMsg->pTarget = reinterpret_cast<DWORD_PTR>(pTarget);
  pMsg->nSourceKind = MK_WINDOW;
  pMsg->pSource = reinterpret_cast<DWORD_PTR>(this);
  pMsg->dwId = dwId;
  pMsg->dwParam1 = dwParam1;
  pMsg->dwParam2 = dwParam2;
  pMsg->dwTime = dwNow;
  pMsg->dwDue = dwNow + dwDelay;
  pMsg->dwSerial = 0;
  return TRUE;
}

void CWindow::PostTo(CWindow* pTarget, DWORD dwId, DWORD_PTR dwParam1, DWORD_PTR dwParam2, DWORD dwDelay) {
  TMessage msg;
  if (!MakeRecord(&msg, pTarget, dwId, dwParam1, dwParam2, dwDelay)) return;
  Queue()->Push(&msg);  // a full queue loses the message
}

DWORD_PTR CWindow::SendTo(CWindow* pTarget, DWORD dwId, DWORD_PTR dwParam1, DWORD_PTR dwParam2, DWORD) {
  TMessage msg;
  if (!MakeRecord(&msg, pTarget, dwId, dwParam1, dwParam2, 0)) return 0;
  return Queue()->DispatchFiltered(&msg);
}
