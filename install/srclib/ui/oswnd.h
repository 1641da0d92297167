// The OS window layer, platform-neutral half: the terminal (display and input as a whole) and
// the one operating-system window with its off-screen surface and dirty-rectangle presentation.
#pragma once

#include "graphics/memdc.h"
#include "ui/window.h"

class COSWnd;

// Results.
#define ERR_OSWND_OPEN 0x12010002u  // Open could not make the window

// Properties passed through SetProperty / GetProperty by the start-up code.
#define PROP_TERMINAL_INIT 0x20013u
#define PROP_WND_STYLE 0x10001u
#define PROP_WND_MENU 0x10002u
#define PROP_WND_CLASS 0x20001u
#define PROP_WND_LOADMENU 0x20002u
#define PROP_WND_EXSTYLE 0x20003u
#define PROP_WND_HANDLE 0x20004u
#define PROP_WND_PARENT 0x20005u
#define PROP_WND_ICON 0x20018u

// The display and input system. Exactly one exists; it lists the OS windows it made and posts
// its own messages on the queue it was given (and does not own).
class CTerminal : public CObject {
  DECLARE_CLASS()
 public:
  explicit CTerminal(CMsgHeap* pMsgHeap);
  // Deletes every OS window still listed, then cancels queued messages naming the terminal. A
  // backend deletes its windows in its own destructor, while its operations still run.
  ~CTerminal() override;

  // Drains platform input into the queue, pumps each OS window, then delivers at most 100 due
  // records. 0 when the application must quit, else 1.
  virtual BOOL Pump() = 0;
  // Posts a record from the terminal (source kind 8, its own serial counter) to m_pMsgTarget.
  // With pMsg the record is only filled in, for the caller to run through DispatchFiltered.
  virtual ERR PostMessage(DWORD dwId, DWORD_PTR dwParam1, DWORD_PTR dwParam2, TMessage* pMsg);
  // Makes the next Pump return 0.
  virtual void Quit() = 0;
  // A new, unopened OS window at the head of the list; null when out of memory.
  virtual COSWnd* CreateOSWnd() = 0;
  // Unlinks and deletes.
  virtual void DestroyOSWnd(COSWnd* pWnd);
  // Screen position of the mouse and the OS window under it, or null.
  virtual COSWnd* WindowUnderCursor(TPoint* pPt) = 0;
  virtual void ShowCursor();
  virtual void HideCursor();
  // All mouse input to that window; null releases.
  virtual void SetCapture(COSWnd* pWnd);
  // The terminal's cursor: always null, cursors belong to the OS window.
  virtual CCursor* GetCursor();
  virtual void SetCursor(CCursor* pCursor);
  virtual BOOL IsKeyDown(WORD wVirtualKey);
  virtual COSWnd* GetFocusWindow();
  virtual void SetFocusWindow(COSWnd* pWnd);
  // Number of the current display mode, from 1; 0 when not found.
  virtual DWORD GetDisplayMode();
  // 1 if the mode is current or could be set.
  virtual BOOL SetDisplayMode(DWORD dwMode);
  // Mode 0 starts; the next mode number, 0 at the end.
  virtual DWORD NextDisplayMode(DWORD dwMode);
  // Format: BF_8BIT, BF_16BIT, BF_24BIT (for 24 and 32 bits) or 0. ERR_BADPARAM for no mode.
  virtual ERR GetModeInfo(DWORD dwMode, SHORT* pnWidth, SHORT* pnHeight, SHORT* pnFormat);
  // Tick count in milliseconds; the system tick count here.
  virtual DWORD GetTime();
  // Keys are passed through; nothing is stored here.
  virtual ERR SetProperty(DWORD dwKey, DWORD_PTR dwValue);
  virtual ERR GetProperty(DWORD dwKey, DWORD_PTR* pdwValue);
  // The OS window with that platform handle; null for a null handle.
  virtual COSWnd* FromHandle(DWORD_PTR dwHandle);

  // Puts a window made by CreateOSWnd at the head of the list.
  void LinkOSWnd(COSWnd* pWnd);
  // Removes a window from the list; nothing if it is not listed.
  void UnlinkOSWnd(COSWnd* pWnd);
  // The end of every Pump: each OS window's Pump in list order, then the due records.
  void PumpWindowsAndQueue();

  CMsgHeap* m_pMsgHeap;
  COSWnd* m_pFirstWnd;
  DWORD_PTR m_pMsgTarget;
  SHORT m_nMsgTargetKind;
  DWORD m_dwSerial;  // serial counter of the terminal's records
};

// One operating-system window. The neutral half keeps the client rectangle, the off-screen
// surface it is drawn into, and the presentation of dirty rectangles; a backend supplies the
// direct device context, the mouse position and the platform calls.
class COSWnd : public CObject {
  DECLARE_CLASS()
 public:
  explicit COSWnd(CTerminal* pTerminal);
  // Cancels queued messages naming the window, runs a MSG_OSWND_DESTROYED record at once (the
  // desktop then deletes itself), deletes the surface and leaves the terminal's list.
  ~COSWnd() override;

  // Drains the window's platform messages, then posts MSG_IDLE.
  virtual void Pump();
  // Source kind 9, the window serial counter, target m_pMsgTarget. With pMsg the record is only
  // filled in for the caller to run; without, it is pushed and Push's result returned.
  virtual ERR PostMessage(DWORD dwId, DWORD_PTR dwParam1, DWORD_PTR dwParam2, TMessage* pMsg);
  // -1: the display's format; 0: deletes the surface. Otherwise makes the surface at the
  // client size (1 by 1 for an empty client); an 8-bit surface keeps its palette or gets one
  // from GetPalette. 0, ERR_ALLOCFAIL, or the bitmap's error (the surface is then deleted).
  virtual ERR CreateSurface(SHORT nFormat);
  // Makes the window appear; 0 or ERR_OSWND_OPEN.
  virtual ERR Open() = 0;
  // Destroys the surface and posts MSG_OSWND_CLOSED.
  virtual void Close();
  virtual void ScreenToClient(TPoint* pPt);
  virtual void ClientToScreen(TPoint* pPt);
  // At most 128 characters; the buffer always ends with a zero when dwSize > 0.
  virtual void GetTitle(char* pchBuf, DWORD dwSize);
  virtual void SetTitle(const char* pchTitle);
  // The client rectangle moved to (0, 0), or the outer rectangle.
  virtual void GetRect(TRect* pRect, BOOL bClient);
  // The backend places the window, then calls UpdateClient.
  virtual ERR SetRect(const TRect* pRect, BOOL bClient);
  virtual void Reserved();
  // bSurface: a memory device context on the surface (pixels made again when released).
  // Otherwise a direct context on the window, or null. The caller passes it to EndPaint.
  virtual CDC* BeginPaint(BOOL bSurface);
  // Deletes pDC. If it drew on the surface, presents the rectangles (all of the surface when
  // pRects is null) through a direct context, then releases the surface's pixels when
  // m_bFreeBits is set.
  virtual void EndPaint(CDC* pDC, const TRect* pRects, SHORT nCount);
  // 0xFFFE for no palette or one without colours; else takes up to 256 colours.
  virtual ERR SetPalette(CPalette* pPalette) = 0;
  // SetSize(256) and reads the window's 256 colours back; btExtra is not written. 0xFFFE on
  // failure.
  virtual ERR GetPalette(CPalette* pPalette) = 0;
  // Client coordinates; 1 if the mouse is over this window.
  virtual BOOL GetMousePos(TPoint* pPt) = 0;
  virtual BOOL ShowCursor();
  virtual BOOL HideCursor();
  virtual CCursor* GetCursor();
  virtual void SetCursor(CCursor* pCursor);
  virtual ERR SetProperty(DWORD dwKey, DWORD_PTR dwValue);
  virtual ERR GetProperty(DWORD dwKey, DWORD_PTR* pdwValue);

  // Copies dwCount colours (-1: all) of pPalette from iSource into the surface's palette at
  // iDest, trimmed to both, then posts MSG_PALETTE_CHANGED. ERR_BADPARAM for an index past a
  // palette, ERR_UNKNOWN without a surface palette.
  ERR SetPaletteRange(CPalette* pPalette, DWORD iDest, DWORD iSource, DWORD dwCount);
  // The client update after a move: with bClient only the outer rectangle is stored; else the
  // client rectangle, the surface made again at the same format, and a MSG_SIZE record run at
  // once when the rectangle changed.
  void UpdateClient(const TRect* pRect, BOOL bClient);
  // Registers the desktop (or another window) as target of the window's records.
  void SetMsgTarget(DWORD_PTR pTarget, SHORT nKind);
  // Gives the surface pixel memory again after m_bFreeBits released it. 0 or ERR_ALLOCFAIL.
  ERR EnsureSurfaceBits();

  CTerminal* m_pTerminal;
  COSWnd* m_pNext;
  BOOL m_bCentre;
  TRect m_ClientRect;
  TRect m_WindowRect;
  CBitmap* m_pSurface;
  BOOL m_bFreeBits;
  DWORD_PTR m_pMsgTarget;
  SHORT m_nMsgTargetKind;
  BOOL (*m_pfnHitTest)(COSWnd* pWnd, const TPoint* pPt);
  TPoint m_MinSize;
  TPoint m_MaxSize;
  DWORD m_dwSerial;  // serial counter of the window's records
  CCursor* m_pCursorObj;
  char m_szTitle[129];
};
