// The desktop: root of the window tree, the only window that knows the OS window. It routes
// input to windows (mouse target, capture, hover, focus, modality), collects dirty rectangles
// and repaints them into the surface, which the OS window then presents.
#include "ui/desktop.h"

#include "ui/dragdrop.h"

IMPLEMENT_CLASS(CDesktop, 0x2020000, CWindow)

// UpdateMouse runs handlers that may pump messages; this keeps it from running inside itself.
static BOOL s_bInUpdateMouse = FALSE;
// The debug frame around repainted rectangles alternates between two colours.
static BOOL s_bRedrawToggle = FALSE;

static inline WORD HiWord(DWORD_PTR dw) { return (WORD)((dw >> 16) & 0xFFFF); }
static inline WORD LoWord(DWORD_PTR dw) { return (WORD)(dw & 0xFFFF); }

// True if p is pWindow or lies in its subtree. Compares pointers only, so a window that was
// deleted is simply not found.
static BOOL InTree(CWindow* pWindow, CWindow* p) {
  if (pWindow == p) return TRUE;
  for (CWindow* c = pWindow->GetFirstChild(); c; c = c->GetNext())
    if (InTree(c, p)) return TRUE;
  return FALSE;
}

CDesktop::CDesktop(COSWnd* pOSWnd) : CWindow(this) {
  m_dwFlags |= WF_CLIP_DIRTY;
  m_pOSWnd = pOSWnd;
  m_pTerminal = pOSWnd ? pOSWnd->m_pTerminal : 0;
  if (pOSWnd) pOSWnd->GetRect(&m_Rect, TRUE);
  MemSet(m_Dirty, 0, sizeof(m_Dirty));
  MemSet(m_Redraw, 0, sizeof(m_Redraw));
  m_nDirty = 0;
  m_nDirtyRedraw = 0;
  m_pMouseWindow = m_pCapture = m_pFocus = m_pSavedFocus = pModalWindow = 0;
  m_nBackColor = 0;
  m_dwForgotten = 0;
  if (pOSWnd) pOSWnd->SetMsgTarget(reinterpret_cast<DWORD_PTR>(this), MK_WINDOW);
  m_dwPaintCount = 0xFFFFFFFFu;
  m_bMouseDirty = TRUE;
}

CDesktop::~CDesktop() {
  while (m_pFirstChild) delete m_pFirstChild;
  if (m_pOSWnd && m_pOSWnd->m_pMsgTarget == reinterpret_cast<DWORD_PTR>(this)) m_pOSWnd->SetMsgTarget(0, 0);
  if (CMsgHeap* pHeap = DesktopQueue()) pHeap->CancelFor(this);
}

// ---------------------------------------------------------------------------------------------
// Messages

void CDesktop::MarkPaletteUsers(CWindow* pWindow) {
  for (CWindow* p = pWindow->GetFirstChild(); p; p = p->GetNext()) {
    if (!(p->m_dwFlags & WF_PALETTE_USER)) continue;
    p->m_dwFlags |= WF_MAP_COLORS;
    MarkPaletteUsers(p);
  }
}

DWORD_PTR CDesktop::HandleMessage(TMessage* pMsg) {
  switch (pMsg->dwId & 0xFF00) {
    case 0x0000:
      UpdateMouse(FALSE);
      Flush(0);
      break;
    case 0x0100:
      MouseMessage(pMsg);
      break;
    case 0x0200:
      if (m_pFocus) m_pFocus->OnKey(pMsg->dwId, HiWord(pMsg->dwParam1), LoWord(pMsg->dwParam1));
      break;
    case 0x0400: {
      TRect rc;
      ::SetRect(&rc, (SHORT)HiWord(pMsg->dwParam1), (SHORT)LoWord(pMsg->dwParam1),
                (SHORT)HiWord(pMsg->dwParam2), (SHORT)LoWord(pMsg->dwParam2));
      AddDirty(&rc, 0, FALSE);
      Flush(0);
      break;
    }
    case 0x0500:
      if (m_dwFlags & WF_PALETTE_USER) {
        m_dwFlags |= WF_MAP_COLORS;
        MarkPaletteUsers(this);
      }
      AddDirty(&m_Rect, this, FALSE);
      break;
    case 0x0900:
      if (m_pOSWnd) {
        TRect rc;
        m_pOSWnd->GetRect(&rc, TRUE);
        SetRect(&rc, FALSE, FALSE);
        m_bMouseDirty = TRUE;
        AddDirty(&rc, this, FALSE);
        Flush(0);
      }
      break;
    case 0x0B00:
      // The OS window is going away first: the desktop and every window go with it.
      m_pOSWnd = 0;
      delete this;
      break;
    case 0x0C00:
      UpdateMouse(TRUE);
      break;
    case 0x0D00:
      SetFocus(m_pSavedFocus);
      m_pSavedFocus = 0;
      break;
    case 0x0E00:
      m_pSavedFocus = m_pFocus;
      SetFocus(0);
      break;
    default:
      break;
  }
  return 0;
}

BOOL CDesktop::StillThere(CWindow* pWindow, DWORD dwForgotten) {
  if (!pWindow) return FALSE;
  return dwForgotten == m_dwForgotten || InTree(this, pWindow);
}

void CDesktop::MouseMessage(TMessage* pMsg) {
  const TPoint pt = ParamToPoint(pMsg->dwParam1);
  CCursor* pCursor = m_pTerminal ? m_pTerminal->GetCursor() : 0;
  CWindow* pTarget = FindTarget(&pt, &pCursor);
  if (m_pCapture && pTarget != m_pCapture) pTarget = 0;
  const DWORD dwForgotten = m_dwForgotten;
  if (pTarget != m_pMouseWindow) {
    CWindow* pOld = m_pMouseWindow;
    m_pMouseWindow = pTarget;
    if (pOld) pOld->OnMouse(MOUSE_LEAVE, &pt);
    if (StillThere(pTarget, dwForgotten)) pTarget->OnMouse(MOUSE_ENTER, &pt);
  }
  if (m_pTerminal) m_pTerminal->SetCursor(pCursor);
  m_bMouseDirty = TRUE;
  if (m_pCapture)
    m_pCapture->OnMouse(pMsg->dwId, &pt);
  else if (StillThere(pTarget, dwForgotten))
    pTarget->OnMouse(pMsg->dwId, &pt);
}

// ---------------------------------------------------------------------------------------------
// Mouse, capture, focus, modality

CWindow* CDesktop::FindTarget(const TPoint* pPt, CCursor** ppCursor) {
  if (pModalWindow) return pModalWindow->FindTarget(pPt, ppCursor);
  CWindow* pTarget = CWindow::FindTarget(pPt, ppCursor);
  if (!pTarget && (m_dwFlags & (WF_CURSOR_TREE | WF_CURSOR_SELF))) *ppCursor = m_pCursor;
  return pTarget;
}

void CDesktop::UpdateMouse(BOOL bForce) {
  if (!m_pOSWnd || !(m_bMouseDirty || bForce) || s_bInUpdateMouse) return;
  m_bMouseDirty = FALSE;
  s_bInUpdateMouse = TRUE;
  TPoint pt = {0, 0};
  const BOOL bOver = m_pOSWnd->GetMousePos(&pt);
  if (!bOver && !m_pCapture) {
    if (m_pMouseWindow) {
      CWindow* pOld = m_pMouseWindow;
      m_pMouseWindow = 0;
      pOld->OnMouse(MOUSE_LEAVE, &pt);
    }
    s_bInUpdateMouse = FALSE;
    return;
  }
  CCursor* const pStartCursor = m_pOSWnd->GetCursor();
  CCursor* pCursor = pStartCursor;
  CWindow* pTarget = FindTarget(&pt, &pCursor);
  if (m_pCapture && pTarget != m_pCapture) {
    pTarget = 0;
    pCursor = pStartCursor;
  }
  if (pTarget != m_pMouseWindow) {
    CWindow* pOld = m_pMouseWindow;
    m_pMouseWindow = 0;
    if (pOld) pOld->OnMouse(MOUSE_LEAVE, &pt);
    if (m_bMouseDirty) {
      // The old window changed the tree (it may be gone or moved): search once more.
      pCursor = pStartCursor;
      pTarget = FindTarget(&pt, &pCursor);
      if (m_pCapture && pTarget != m_pCapture) {
        pTarget = 0;
        pCursor = pStartCursor;
      }
      m_bMouseDirty = FALSE;
    }
    m_pMouseWindow = pTarget;
    if (pTarget) pTarget->OnMouse(MOUSE_ENTER, &pt);
  }
  if (g_pDDManager && g_pDDManager->m_pObject) g_pDDManager->GetCursor(&pCursor);
  if (pCursor != pStartCursor && m_pOSWnd) m_pOSWnd->SetCursor(pCursor);
  s_bInUpdateMouse = FALSE;
}

void CDesktop::SetModalWindow(CWindow* pModal) {
  ASSERT_TEXT(!pModal || pModal->m_Desktop == this, "!pModalWindow || &pModalWindow->m_Desktop == this");
  pModalWindow = pModal;
  m_bMouseDirty = TRUE;
}

CWindow* CDesktop::GetCapture() { return m_pCapture; }

void CDesktop::SetCapture(CWindow* pWindow) {
  if (pWindow == m_pCapture) return;
  m_bMouseDirty = TRUE;
  const DWORD dwForgotten = m_dwForgotten;
  if (m_pCapture && pWindow) {
    TPoint pt = {0, 0};
    if (m_pOSWnd) m_pOSWnd->GetMousePos(&pt);
    m_pCapture->OnMouse(MOUSE_CANCEL, &pt);
    m_bMouseDirty = TRUE;
    if (!StillThere(pWindow, dwForgotten)) pWindow = 0;
  }
  m_pCapture = pWindow;
  if (m_pTerminal) m_pTerminal->SetCapture(pWindow ? m_pOSWnd : 0);
}

CWindow* CDesktop::GetFocus() { return m_pFocus; }

void CDesktop::SetFocus(CWindow* pWindow) {
  if (pWindow == m_pFocus) return;
  const DWORD dwForgotten = m_dwForgotten;
  if (m_pFocus) m_pFocus->OnKey(MSG_FOCUS_OUT, 0, 0);
  if (pWindow && !StillThere(pWindow, dwForgotten)) pWindow = 0;
  m_pFocus = pWindow;
  if (pWindow) {
    pWindow->OnKey(MSG_FOCUS_IN, 0, 0);
    if (m_pTerminal) m_pTerminal->SetFocusWindow(m_pOSWnd);
  }
}

void CDesktop::ForgetWindow(CWindow* pWindow) {
  if (m_pFocus == pWindow) m_pFocus = 0;
  if (m_pSavedFocus == pWindow) m_pSavedFocus = 0;
  // Only the pointer: the platform capture stays with the OS window until the desktop next
  // takes and releases capture.
  if (m_pCapture == pWindow) m_pCapture = 0;
  if (pModalWindow == pWindow) pModalWindow = 0;
  if (m_pMouseWindow == pWindow) m_pMouseWindow = 0;
  m_bMouseDirty = TRUE;
  m_dwForgotten++;
  if (CMsgHeap* pHeap = DesktopQueue()) pHeap->CancelFor(pWindow);
}

// ---------------------------------------------------------------------------------------------
// Dirty rectangles

void CDesktop::ClipByWindowsAbove(TRect* pRect, CWindow* pStart, BOOL bIncludeSelf) {
  TRect r = *pRect;
  CWindow* w = pStart;
  while (w && !IsRectEmpty(&r)) {
    BOOL bOverlap = FALSE;
    if (w->m_dwFlags & WF_VISIBLE) {
      const TRect wr = w->m_Rect;
      const BOOL bSpanH = wr.left <= r.left && wr.right >= r.right;
      const BOOL bSpanV = wr.top <= r.top && wr.bottom >= r.bottom;
      if (bSpanH || bSpanV) {
        if (w != pStart && !(w->m_dwFlags & WF_TRANSPARENT)) {
          // Conservative: the edge moves onto the covering window's last row, never past it.
          if (bSpanH) {
            if (wr.top <= r.top && wr.bottom >= r.top) r.top = wr.bottom;
            if (wr.bottom >= r.bottom && wr.top <= r.bottom) r.bottom = wr.top;
          }
          if (bSpanV) {
            if (wr.left <= r.left && wr.right >= r.left) r.left = wr.right;
            if (wr.right >= r.right && wr.left <= r.right) r.right = wr.left;
          }
        }
        if (w != pStart || bIncludeSelf) bOverlap = TRUE;
      }
    }
    // Painting order: into the children (back-most first) of a window that overlapped, else
    // on to the window in front, climbing to the parent's front sibling when a chain ends.
    if (bOverlap && w->m_pLastChild) {
      w = w->m_pLastChild;
    } else {
      while (w && !w->m_pPrev) w = w->m_pParent;
      if (w) w = w->m_pPrev;
    }
  }
  *pRect = r;
}

void CDesktop::AddDirty(const TRect* pRect, CWindow* pWindow, BOOL bIncludeSelf) {
  TRect r = *pRect;
  if (pWindow) {
    for (CWindow* w = bIncludeSelf ? pWindow : pWindow->m_pParent; w; w = w->m_pParent) {
      if (!(w->m_dwFlags & WF_VISIBLE)) return;
      IntersectRect(&r, &w->m_Rect);
    }
    if (m_dwFlags & WF_CLIP_DIRTY) ClipByWindowsAbove(&r, pWindow, bIncludeSelf);
  }
  if (IsRectEmpty(&r)) return;
  for (;;) {
    for (SHORT i = 0; i < m_nDirty;) {
      TRect u = r;
      UnionRect(&u, &m_Dirty[i]);
      if (RectArea(&u) < RectArea(&r) + RectArea(&m_Dirty[i])) {
        m_Dirty[i] = m_Dirty[--m_nDirty];
        r = u;
        i = 0;
      } else {
        i++;
      }
    }
    if (m_nDirty < DESKTOP_MAX_DIRTY) break;
    // Full: the newest folds into the last entry, and the merge runs again.
    UnionRect(&r, &m_Dirty[--m_nDirty]);
  }
  m_Dirty[m_nDirty++] = r;
}

void CDesktop::Flush(SHORT) {
  ASSERT(!m_nDirtyRedraw);
  if ((m_dwFlags & WF_LOCKED) || !m_nDirty || !m_pOSWnd || m_nDirtyRedraw) return;
  MemCopy(m_Redraw, m_Dirty, sizeof(m_Dirty));
  m_nDirtyRedraw = m_nDirty;
  m_nDirty = 0;
  CDC* pDC = m_pOSWnd->BeginPaint(TRUE);
  if (pDC) {
    for (SHORT i = 0; i < m_nDirtyRedraw; i++) {
      TRect rc = m_Redraw[i];
      PaintRect(pDC, &rc, this);
    }
    if (m_pOSWnd) {
      if (m_dwFlags & WF_FULL_UPDATE)
        m_pOSWnd->EndPaint(pDC, 0, 0);
      else
        m_pOSWnd->EndPaint(pDC, m_Redraw, m_nDirtyRedraw);
    } else {
      delete pDC;
    }
  }
  m_dwPaintCount++;
  m_nDirtyRedraw = 0;
}

// ---------------------------------------------------------------------------------------------
// Painting

void CDesktop::PaintRect(CDC* pDC, const TRect* pRect, CWindow* pWindow) {
  if (!pWindow || IsRectEmpty(pRect)) return;
  TRect r = *pRect;
  LONG nArea = RectArea(&r);
  CWindow* c = pWindow->m_pFirstChild;
  while (c) {
    TRect aStrips[4];
    SplitRect(&r, &c->m_Rect, &aStrips[0], &aStrips[1], &aStrips[2], &aStrips[3]);
    TRect i = r;
    IntersectRect(&i, &c->m_Rect);
    if ((c->m_dwFlags & WF_VISIBLE) && !IsRectEmpty(&i) && 2 * RectArea(&i) > nArea) {
      // The child covers most of the rectangle: paint the rest around it, then go on inside it
      // without painting what lies beneath.
      for (int k = 0; k < 4; k++) PaintRect(pDC, &aStrips[k], pWindow);
      pWindow = c;
      r = i;
      c = c->m_pFirstChild;
      nArea = RectArea(&r);
    } else {
      c = c->m_pNext;
    }
  }
  PaintRegion(pDC, &r, pWindow);
}

void CDesktop::PaintRegion(CDC* pDC, const TRect* pRect, CWindow* pWindow) {
  if (!pWindow || IsRectEmpty(pRect)) return;
  const TRect rc = *pRect;
  CWindow* w = pWindow;
  while (w->m_dwFlags & WF_TRANSPARENT) {
    w = w->m_pParent;
    if (!w) {
      pDC->FillRect(&rc, 0);
      w = this;
      break;
    }
  }
  for (;;) {
    TRect r = rc;
    IntersectRect(&r, &w->m_Rect);
    if ((w->m_dwFlags & WF_VISIBLE) && !IsRectEmpty(&r)) {
      pDC->SetClip(&r);
      w->Paint(pDC, &r);
      w->PaintChildren(pDC, &r);
      w->PaintOver(pDC, &r);
    }
    if (w->m_pPrev) {
      w = w->m_pPrev;
      continue;
    }
    // The end of a chain: the parent draws over its children, then its own front siblings.
    for (;;) {
      CWindow* pParent = w->m_pParent;
      if (!pParent) {
        if (m_dwFlags & WF_SHOW_REDRAW) {
          s_bRedrawToggle = !s_bRedrawToggle;
          pDC->FrameRect(&rc, s_bRedrawToggle ? 0xFF : 0, 0xFFFF);
        }
        return;
      }
      pDC->SetClip(&rc);
      pParent->PaintOver(pDC, &rc);
      if (pParent->m_pPrev) {
        w = pParent->m_pPrev;
        break;
      }
      w = pParent;
    }
  }
}

BOOL CDesktop::IsUnobscured(CWindow* pWindow, const TRect* pRect) {
  ASSERT(pWindow);
  if (!pWindow) return FALSE;
  TRect r = pWindow->m_Rect;
  if (pRect) IntersectRect(&r, pRect);
  for (CWindow* w = pWindow; w; w = w->m_pParent) {
    for (CWindow* s = w->m_pPrev; s; s = s->m_pPrev) {
      TRect t = r;
      IntersectRect(&t, &s->m_Rect);
      if (!IsRectEmpty(&t)) return FALSE;
    }
    if (w->m_pParent && !RectInRect(&r, &w->m_pParent->m_Rect)) return FALSE;
  }
  return TRUE;
}

void CDesktop::Paint(CDC* pDC, const TRect* pRect) {
  if (m_dwFlags & WF_MAP_COLORS) {
    const TColor black = MakeColor(0, 0, 0);
    DWORD dwPixel = 0;
    pDC->ColorToPixel(&black, &dwPixel);
    m_nBackColor = dwPixel;
    m_dwFlags &= ~WF_MAP_COLORS;
  }
  pDC->FillRect(pRect, m_nBackColor);
}

void CDesktop::PaintOver(CDC* pDC, const TRect*) {
  if (!g_pDDManager || !g_pDDManager->m_pObject || !g_pDDManager->m_pObject->m_pImage || !m_pOSWnd) return;
  TPoint pt = {0, 0};
  m_pOSWnd->GetMousePos(&pt);
  pDC->Blit(g_pDDManager->m_pObject->m_pImage, pt.x, pt.y, 32000, 32000, 0, 0, TRANS_NONE, 0);
}

// ---------------------------------------------------------------------------------------------
// Start-up

CDesktop* CreateDesktop(CTerminal* pTerminal) {
  if (!pTerminal) return 0;
  pTerminal->SetCursor(0);
  SHORT nWidth = 0, nHeight = 0, nFormat = 0;
  pTerminal->GetModeInfo(pTerminal->GetDisplayMode(), &nWidth, &nHeight, &nFormat);
  pTerminal->SetProperty(PROP_TERMINAL_INIT, 0);
  COSWnd* pOSWnd = pTerminal->CreateOSWnd();
  if (!pOSWnd) return 0;
  TRect rc;
  SetRectSize(&rc, 0, 0, nWidth, nHeight);
  pOSWnd->SetRect(&rc, TRUE);
  pOSWnd->SetProperty(PROP_WND_ICON, 0x80);  // before Open: the window keeps the class icon
  pOSWnd->CreateSurface(BF_8BIT);
  CDesktop* pDesktop = new CDesktop(pOSWnd);
  if (!pDesktop) {
    pTerminal->DestroyOSWnd(pOSWnd);
    return 0;
  }
  pDesktop->ChangeFlags(WF_CURSOR_TREE, WF_CLIP_DIRTY, TRUE);
  pDesktop->m_pCursor = 0;
  pDesktop->AddDirty(&pDesktop->m_Rect, pDesktop, FALSE);
  pDesktop->Flush(0);
  pDesktop->SetCapture(0);
  pOSWnd->Open();
  return pDesktop;
}
