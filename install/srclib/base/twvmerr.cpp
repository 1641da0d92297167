// Error registry, assertion channel and debug output.
#include "twvmerr.h"

#include <stdarg.h>
#include <stdio.h>

#include "../platform/platform.h"

TErrModule g_ErrModules[MODULE_COUNT];
WORD g_wModuleCount = 0;
TErrEntry g_ErrEntries[ERROR_COUNT];
WORD g_wErrCount = 0;

PFN_DEBUGHOOK g_pfnDebugHook = 0;
PFN_ASSERTANSWER g_pfnAssertAnswer = 0;
DWORD g_dwAssertCount = 0;
char g_szErrMsgBuf[256];

namespace {

struct TGeneralText {
  WORD wCode;
  const char* pchText;
};

const TGeneralText s_GeneralTexts[] = {
    {0xFF01, "Alloc fail"},
    {0xFF02, "Lock fail"},
    {0xFF03, "Reallock fail"},
    {0xFF04, "Handle not locked"},
    {0xFF21, "Index out of range"},
    {0xFF22, "Buffer too small"},
    {0xFF23, "Bad params"},
    {0xFF24, "Out of range"},
    {0xFF25, "Not found"},
    {0xFF26, "Invalid format"},
    {0xFF27, "General error"},
    {0xFFFE, "Unknown error"},
    {0xFFFF, "Not implemented feature"},
};

// Formats into the shared buffer. A line that would not fit is cut rather than written past
// the buffer's end.
void FormatShared(const char* pchFormat, va_list args) {
  vsnprintf(g_szErrMsgBuf, sizeof(g_szErrMsgBuf), pchFormat, args);
}

void FormatSharedF(const char* pchFormat, ...) {
  va_list args;
  va_start(args, pchFormat);
  FormatShared(pchFormat, args);
  va_end(args);
}

}  // namespace

void ErrAddModule(WORD wModule, const char* pModuleName) {
  ASSERT(g_wModuleCount < MODULE_COUNT && pModuleName);
  // The 16-bit number asks for module 0: this finds a duplicate only when module 0 is
  // registered. Callers keep registration to once.
  ASSERT(!ErrGetModule(wModule));
  if (g_wModuleCount >= MODULE_COUNT) return;  // the table would overflow: drop the record
  g_ErrModules[g_wModuleCount].wModule = wModule;
  g_ErrModules[g_wModuleCount].pchName = pModuleName;
  g_wModuleCount++;
}

void ErrAddText(ERR err, const char* pErrText) {
  ASSERT(g_wErrCount < ERROR_COUNT && pErrText);
  ASSERT(!ErrGetText(err));
  if (g_wErrCount >= ERROR_COUNT) return;
  g_ErrEntries[g_wErrCount].err = err;
  g_ErrEntries[g_wErrCount].pchText = pErrText;
  g_wErrCount++;
}

const char* ErrGetModule(ERR err) {
  for (WORD i = 0; i < g_wModuleCount; i++)
    if (g_ErrModules[i].wModule == (err >> 16)) return g_ErrModules[i].pchName;
  return 0;
}

const char* ErrGetText(ERR err) {
  WORD wLow = ERR_NUMBER(err);
  for (const TGeneralText& t : s_GeneralTexts)
    if (t.wCode == wLow) return t.pchText;
  for (WORD i = 0; i < g_wErrCount; i++)
    if (g_ErrEntries[i].err == err) return g_ErrEntries[i].pchText;
  return 0;
}

void ErrPrint(ERR err, const char* pchComment) {
  const char* pchModule = ErrGetModule(err);
  const char* pchText = ErrGetText(err);
  if (!pchModule) pchModule = "Unknown";
  if (!pchText) pchText = "Unknown";
  DebugPrintf("Module(0x%04X): %s, Error(0x%04X): %s\n", (unsigned)ERR_MODULE(err), pchModule,
              (unsigned)ERR_NUMBER(err), pchText);
  if (pchComment) DebugPrintf("Comment: %s\n", pchComment);
}

void AssertFail(const char* pchExpr, const char* pchFile, int nLine) {
  g_dwAssertCount++;
  FormatSharedF("Assert failed %s(%d): %s\n", pchFile, nLine, pchExpr);
  DebugOut(g_szErrMsgBuf);
  int nAnswer = g_pfnAssertAnswer ? g_pfnAssertAnswer(g_szErrMsgBuf) : PlatAskAssert(g_szErrMsgBuf);
  if (nAnswer == ASSERT_ABORT)
    PlatExit(0);
  else if (nAnswer == ASSERT_RETRY)
    PlatDebugBreak();
}

void TbdCalled(const char* pchFile, int nLine) {
  FormatSharedF("TBD function called %s(%d).", pchFile, nLine);
  DebugOut(g_szErrMsgBuf);
}

void TraceLine(const char* pchFile, int nLine, const char* pchText) {
  FormatSharedF("Trace %s(%d): %s", pchFile, nLine, pchText);
  DebugOut(g_szErrMsgBuf);
}

void DebugPrintf(const char* pchFormat, ...) {
  va_list args;
  va_start(args, pchFormat);
  FormatShared(pchFormat, args);
  va_end(args);
  DebugOut(g_szErrMsgBuf);
}

void DebugOut(const char* pchText) {
  if (g_pfnDebugHook) g_pfnDebugHook(pchText);
  PlatDebugOutput(pchText);
}
