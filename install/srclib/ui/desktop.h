// The desktop: root of the window tree, the only window that knows the OS window. It routes
// input to windows (mouse target, capture, hover, focus, modality), collects dirty rectangles
// and repaints them into the surface, which the OS window then presents.
#pragma once

#include "ui/oswnd.h"
#include "ui/window.h"

#define DESKTOP_MAX_DIRTY 50

class CDesktop : public CWindow {
  DECLARE_CLASS()
 public:
  // Registers itself as the OS window's message target and takes its client rectangle.
  explicit CDesktop(COSWnd* pOSWnd);
  // Deletes all windows, unregisters from the OS window if it is still there and cancels the
  // records queued for itself.
  ~CDesktop() override;

  void Paint(CDC* pDC, const TRect* pRect) override;
  void PaintOver(CDC* pDC, const TRect* pRect) override;
  CWindow* FindTarget(const TPoint* pPt, CCursor** ppCursor) override;
  // Every low-level record of the OS window ends here. Always 0.
  DWORD_PTR HandleMessage(TMessage* pMsg) override;

  // Hit testing is restricted to this window's subtree; null lifts the restriction.
  virtual void SetModalWindow(CWindow* pModalWindow);
  virtual CWindow* GetCapture();
  // All mouse messages to this window; null releases. A window losing capture to another gets
  // MOUSE_CANCEL.
  virtual void SetCapture(CWindow* pWindow);
  // Recomputes the window under the mouse (MOUSE_LEAVE, MOUSE_ENTER) and the cursor when the
  // tree changed or bForce is set. Not re-entered from its own handlers.
  virtual void UpdateMouse(BOOL bForce);
  virtual CWindow* GetFocus();
  // MSG_FOCUS_OUT to the old window, MSG_FOCUS_IN to the new one, through OnKey.
  virtual void SetFocus(CWindow* pWindow);
  // Adds *pRect, clipped by pWindow and its ancestors (from its parent unless bIncludeSelf),
  // to the dirty list; nothing when one of them is hidden. Rectangles whose bounding box is
  // smaller than their area sum are merged; at 50 entries the newest folds into the last.
  virtual void AddDirty(const TRect* pRect, CWindow* pWindow, BOOL bIncludeSelf);
  // Paints the dirty list into the surface and presents it. Nothing while WF_LOCKED is set.
  virtual void Flush(SHORT nIgnored);
  // Paints *pRect of pWindow's subtree, skipping background hidden by a child that covers
  // more than half of it.
  virtual void PaintRect(CDC* pDC, const TRect* pRect, CWindow* pWindow);
  // Paints pWindow (or its first opaque ancestor) and everything in front of it over *pRect.
  virtual void PaintRegion(CDC* pDC, const TRect* pRect, CWindow* pWindow);
  // 1 when no earlier sibling of pWindow or of an ancestor meets the rectangle (pWindow's,
  // cut to *pRect when given) and every ancestor contains it.
  virtual BOOL IsUnobscured(CWindow* pWindow, const TRect* pRect);
  // Clears every pointer that names pWindow and cancels its queued records. Called by every
  // window's destructor.
  virtual void ForgetWindow(CWindow* pWindow);

  using CWindow::IsUnobscured;

  COSWnd* m_pOSWnd;
  CTerminal* m_pTerminal;
  TRect m_Dirty[DESKTOP_MAX_DIRTY];
  SHORT m_nDirty;
  TRect m_Redraw[DESKTOP_MAX_DIRTY];
  SHORT m_nDirtyRedraw;
  DWORD m_dwPaintCount;
  CWindow* m_pMouseWindow;
  CWindow* m_pCapture;
  CWindow* m_pFocus;
  CWindow* m_pSavedFocus;
  CWindow* pModalWindow;
  BOOL m_bMouseDirty;
  DWORD m_nBackColor;

 private:
  void MouseMessage(TMessage* pMsg);
  CMsgHeap* DesktopQueue() { return m_pTerminal ? m_pTerminal->m_pMsgHeap : 0; }
  void ClipByWindowsAbove(TRect* pRect, CWindow* pWindow, BOOL bIncludeSelf);
  static void MarkPaletteUsers(CWindow* pWindow);
  // After handlers ran: whether pWindow still exists, given the count of forgotten windows
  // taken before them.
  BOOL StillThere(CWindow* pWindow, DWORD dwForgotten);
  // Windows forgotten so far (each destructor adds one).
  DWORD m_dwForgotten;
};

// Brings up the OS window and the desktop on a made terminal, in start-up order: terminal
// cursor none, the display mode's size, an OS window of that client size with an 8-bit
// surface, the desktop (cursor tree on, dirty clipping off, no cursor) painted once, no
// capture, the OS window opened. Returns the desktop (its m_pOSWnd is the OS window), or null
// when the OS window or the desktop could not be made (what was made is deleted again).
CDesktop* CreateDesktop(CTerminal* pTerminal);
