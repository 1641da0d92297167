// Platform services on Windows: OutputDebugStringA, the assertion box, message boxes and the
// tick count.
#include <stdlib.h>

#include "../../base/twvmerr.h"
#include "../platform.h"
#include "winsys.h"

void PlatDebugOutput(const char* pchText) {
  if (pchText) OutputDebugStringA(pchText);
}

void PlatSetDebugEcho(BOOL) {}  // the debugger's channel is never echoed elsewhere

int PlatAskAssert(const char* pchText) {
  const char* pchAnswer = getenv("SETUP_ASSERT");
  if (pchAnswer && *pchAnswer) {
    // Unattended runs (tests, CI) answer without a box.
    if (*pchAnswer == 'a' || *pchAnswer == 'A') return ASSERT_ABORT;
    if (*pchAnswer == 'r' || *pchAnswer == 'R') return ASSERT_RETRY;
    return ASSERT_IGNORE;
  }
  // MB_ABORTRETRYIGNORE | MB_ICONHAND | MB_SYSTEMMODAL
  int nId = MessageBoxA(NULL, pchText, "Error", 0x1012);
  if (nId == IDABORT) return ASSERT_ABORT;
  if (nId == IDRETRY) return ASSERT_RETRY;
  return ASSERT_IGNORE;
}

void PlatDebugBreak() { DebugBreak(); }

void PlatExit(int nCode) { exit(nCode); }

int PlatMessageBox(const char* pchText, const char* pchTitle, DWORD dwFlags) {
  return MessageBoxA(NULL, pchText, pchTitle, (UINT)dwFlags);
}

DWORD PlatGetTickCount() { return GetTickCount(); }

void PlatShowWindow(DWORD_PTR hWnd, int nCmd) {
  if (hWnd && IsWindow((HWND)hWnd)) ShowWindow((HWND)hWnd, nCmd);
}
