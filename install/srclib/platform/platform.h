// The few operating-system services outside files and windows, one implementation per platform.
#pragma once

#include "../base/types.h"

// Debug channel: OutputDebugStringA on Windows, standard error elsewhere.
void PlatDebugOutput(const char* pchText);
// Turns the echo of PlatDebugOutput on or off where the channel is visible (standard error).
// Tests turn it off; the debug hook still sees every line.
void PlatSetDebugEcho(BOOL bEcho);

// Asks the user Abort, Retry or Ignore about a failed assertion; returns ASSERT_ABORT,
// ASSERT_RETRY or ASSERT_IGNORE. On Windows: the system-modal box, caption "Error", stop
// icon. Elsewhere: the question on the terminal when standard input is one. Without a
// terminal the answer is read from the environment variable SETUP_ASSERT ("abort",
// "retry" or "ignore"), and is Ignore when that is unset.
int PlatAskAssert(const char* pchText);
// Stops an attached debugger here (a breakpoint trap).
void PlatDebugBreak();
// Ends the process through the ordinary exit path, so exit handlers run.
void PlatExit(int nCode);

// A platform message box with title and text; dwFlags as the Windows MB_ flags. Returns the
// button pressed (IDOK = 1 and so on). Without a display it writes to standard error and
// returns 1.
int PlatMessageBox(const char* pchText, const char* pchTitle, DWORD dwFlags);

// Shows a platform window with a show command (3 maximized, 6 minimized). Nothing happens
// for a value that is not a platform window, as a headless window's handle is.
void PlatShowWindow(DWORD_PTR hWnd, int nCmd);

// Milliseconds since some fixed point, wrapping at 32 bits.
DWORD PlatGetTickCount();
