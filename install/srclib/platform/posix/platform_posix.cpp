// Platform services on POSIX systems: debug channel on standard error, the assertion question
// on the terminal, a text message box, and the tick count.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include "../../base/twvmerr.h"
#include "../platform.h"

namespace {
BOOL s_bDebugEcho = TRUE;

int AnswerFromWord(const char* pch, int nDefault) {
  if (!pch) return nDefault;
  while (*pch == ' ' || *pch == '\t') pch++;
  switch (*pch) {
    case 'a':
    case 'A':
      return ASSERT_ABORT;
    case 'r':
    case 'R':
      return ASSERT_RETRY;
    case 'i':
    case 'I':
      return ASSERT_IGNORE;
    default:
      return nDefault;
  }
}
}  // namespace

void PlatDebugOutput(const char* pchText) {
  if (!s_bDebugEcho || !pchText) return;
  fputs(pchText, stderr);
  fflush(stderr);
}

void PlatSetDebugEcho(BOOL bEcho) { s_bDebugEcho = bEcho; }

int PlatAskAssert(const char* pchText) {
  // The text has already gone to the debug channel; when that echo is off, show it here.
  if (!s_bDebugEcho) fputs(pchText, stderr);
  if (!isatty(STDIN_FILENO)) return AnswerFromWord(getenv("SETUP_ASSERT"), ASSERT_IGNORE);
  for (;;) {
    fputs("Abort, Retry or Ignore? [a/r/i] ", stderr);
    fflush(stderr);
    char szLine[64];
    if (!fgets(szLine, sizeof(szLine), stdin)) return ASSERT_IGNORE;
    int nAnswer = AnswerFromWord(szLine, -1);
    if (nAnswer >= 0) return nAnswer;
  }
}

void PlatDebugBreak() { raise(SIGTRAP); }

void PlatExit(int nCode) { exit(nCode); }

int PlatMessageBox(const char* pchText, const char* pchTitle, DWORD /*dwFlags*/) {
  fprintf(stderr, "%s: %s\n", pchTitle ? pchTitle : "", pchText ? pchText : "");
  fflush(stderr);
  return 1;
}

DWORD PlatGetTickCount() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (DWORD)((unsigned long long)ts.tv_sec * 1000u + (unsigned long long)ts.tv_nsec / 1000000u);
}

void PlatShowWindow(DWORD_PTR, int) {}  // no platform window backend here yet
