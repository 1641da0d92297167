// The headless terminal and OS window: an in-memory screen with its palette, a clock tests can
// drive, and entry points that feed the input a platform window would receive. Used where no
// display exists, by the tests, and to render pages to bitmap files.
#pragma once

#include "ui/oswnd.h"

#define HEADLESS_MAX_MODES 4

// A display mode of the headless terminal.
struct THeadlessMode {
  SHORT nWidth;
  SHORT nHeight;
  SHORT nFormat;
};

class CHeadlessTerminal : public CTerminal {
  DECLARE_CLASS()
 public:
  // Mode 1, the current one, is nWidth by nHeight at 8 bits; 640x480 at 16 bits and 800x600
  // and 1024x768 at 8 bits follow. The clock is the system tick count until SetTime is called.
  CHeadlessTerminal(CMsgHeap* pMsgHeap, SHORT nWidth, SHORT nHeight);
  // Deletes the windows while the terminal's clock still runs.
  ~CHeadlessTerminal() override;

  // Returns 0 once after Quit, else pumps every window and delivers due records; 1.
  BOOL Pump() override;
  void Quit() override;
  // A CHeadlessOSWnd, or null when out of memory.
  COSWnd* CreateOSWnd() override;
  // The window the mouse was last fed over, with the position in screen coordinates.
  COSWnd* WindowUnderCursor(TPoint* pPt) override;
  void SetCapture(COSWnd* pWnd) override;
  BOOL IsKeyDown(WORD wVirtualKey) override;
  COSWnd* GetFocusWindow() override;
  void SetFocusWindow(COSWnd* pWnd) override;
  DWORD GetDisplayMode() override;
  // Makes the mode current and posts MSG_DISPLAY_CHANGED from every window when it changed.
  BOOL SetDisplayMode(DWORD dwMode) override;
  DWORD NextDisplayMode(DWORD dwMode) override;
  ERR GetModeInfo(DWORD dwMode, SHORT* pnWidth, SHORT* pnHeight, SHORT* pnFormat) override;
  DWORD GetTime() override;

  // From here on the clock is the given value and moves only when told.
  void SetTime(DWORD dwNow);
  void AdvanceTime(DWORD dwMs);
  // Size of the current mode.
  void GetScreenSize(SHORT* pnWidth, SHORT* pnHeight);
  // The key table that IsKeyDown reads; kept by the key input of the windows.
  void SetKeyState(WORD wVirtualKey, BOOL bDown);

  COSWnd* m_pCaptureWnd;
  COSWnd* m_pFocusWnd;
  COSWnd* m_pMouseWnd;
  BOOL m_bQuit;
  BOOL m_bManualClock;
  DWORD m_dwNow;
  DWORD m_dwMode;
  THeadlessMode m_Modes[HEADLESS_MAX_MODES];
  BYTE m_abtKeys[256];
};

class CHeadlessOSWnd : public COSWnd {
  DECLARE_CLASS()
 public:
  // The display palette starts as a grey ramp: index i is (i, i, i).
  explicit CHeadlessOSWnd(CHeadlessTerminal* pTerminal);
  ~CHeadlessOSWnd() override;

  // Makes the screen (the window's area, black outside the client rectangle) and presents the
  // whole surface on it. ERR_OSWND_OPEN when the screen can't be allocated.
  ERR Open() override;
  // Places the window: with m_bCentre it covers the screen and the client rectangle is centred
  // in it (clipped); otherwise the window is the client rectangle at the given position.
  ERR SetRect(const TRect* pRect, BOOL bClient) override;
  // A direct context on the screen for bSurface 0 (origin at the client's top-left, clipped to
  // it) while the window is open.
  CDC* BeginPaint(BOOL bSurface) override;
  ERR SetPalette(CPalette* pPalette) override;
  ERR GetPalette(CPalette* pPalette) override;
  BOOL GetMousePos(TPoint* pPt) override;
  // 0x20004: the window's handle (the object itself while open, else 0).
  ERR GetProperty(DWORD dwKey, DWORD_PTR* pdwValue) override;

  // Input, as the platform window would receive it. Positions are in the window's area; the
  // records carry client coordinates. Each posts its record on the queue (none is run here).
  void FeedMouseMove(SHORT x, SHORT y);
  // dwId is one of the button records (MSG_LBUTTON_DOWN ... MSG_RBUTTON_DBLCLK).
  void FeedMouseButton(DWORD dwId, SHORT x, SHORT y);
  // The mouse left the window: no record, GetMousePos answers 0 from now on.
  void FeedMouseLeave();
  // p1: virtual key in the high word, wChar in the low word; p2: the modifiers (MOD_ALT,
  // MOD_CTRL).
  void FeedKey(BOOL bDown, WORD wVirtualKey, WORD wChar, DWORD dwModifiers);
  void FeedChar(WORD wChar, DWORD dwModifiers);
  // Keyboard focus gained or lost (MSG_OSWND_FOCUS_IN / OUT).
  void FeedFocus(BOOL bIn);
  // MSG_ACTIVATED / MSG_DEACTIVATED.
  void FeedActivate(BOOL bActive);
  void FeedDisplayChange();
  void FeedCommand(WORD wCommand);
  // A close request: MSG_CLOSE_QUERY runs at once; a non-zero answer destroys the window (it
  // is no longer open). Returns the answer.
  DWORD_PTR FeedClose();
  // A platform paint of *pRect (client coordinates; null for all): the surface is copied to the
  // screen, or without surface pixels a MSG_PAINT record runs at once.
  void FeedPaint(const TRect* pRect);

  // Writes the surface (or the screen, with the display palette) as an 8-bit bitmap file
  // through the volume table. 0, ERR_UNKNOWN when there is nothing to write, or BmpSave's error.
  ERR SaveSurface(const char* pchPath);
  ERR SaveScreen(const char* pchPath);
  // The pixel of the screen at window coordinates, or 0xFFFFFFFF outside or when not open.
  DWORD GetScreenPixel(SHORT x, SHORT y);

  BOOL m_bOpen;
  CBitmap* m_pScreen;    // what the user would see; null until Open
  TColor m_Colors[256];  // the display palette
  TPoint m_ptMouse;      // client coordinates
  BOOL m_bMouseIn;
  DWORD m_dwPresents;  // direct contexts handed out (presentations)

 private:
  CHeadlessTerminal* Terminal() { return static_cast<CHeadlessTerminal*>(m_pTerminal); }
  ERR MakeScreen();
  void ClientFromWindow(SHORT x, SHORT y, TPoint* pPt);
  void PostPoint(DWORD dwId, SHORT x, SHORT y);
};

// The headless terminal on the queue at the size of a 640 by 480 display, or null when out of
// memory. The caller deletes it (which deletes its windows).
CTerminal* CreateHeadlessTerminal(CMsgHeap* pMsgHeap);
