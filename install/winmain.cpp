// Entry points of the Setup program and its global allocation functions.
#include <stdlib.h>
#include <string.h>

#include <new>

#include "base/memalloc.h"
#include "cinstall.h"

// All `new` memory of the program is tracked and counted against the object budget. A
// failed allocation yields null, which the compiler is told to test for. A request of 0 bytes
// gets a block of 1; one that a 32-bit size cannot express (on 64-bit builds) gets null rather
// than a block cut to the low 32 bits.
static void* NewBlock(size_t nSize) {
  DWORD dwSize = (DWORD)nSize;
  if (dwSize != nSize) return 0;
  return MemNew(dwSize ? dwSize : 1);
}
void* operator new(size_t nSize) { return NewBlock(nSize); }
void* operator new[](size_t nSize) { return NewBlock(nSize); }
void* operator new(size_t nSize, const std::nothrow_t&) noexcept { return NewBlock(nSize); }
void* operator new[](size_t nSize, const std::nothrow_t&) noexcept { return NewBlock(nSize); }
void operator delete(void* p) noexcept {
  if (p) MemDelete(p);
}
void operator delete[](void* p) noexcept {
  if (p) MemDelete(p);
}
void operator delete(void* p, size_t) noexcept {
  if (p) MemDelete(p);
}
void operator delete[](void* p, size_t) noexcept {
  if (p) MemDelete(p);
}

#if defined(_WIN32)
#include "platform/win32/winsys.h"

int WINAPI WinMain(HINSTANCE hInstance, HINSTANCE hPrevInstance, LPSTR lpCmdLine, int nCmdShow) {
  g_hInstance = hInstance;
  g_hPrevInstance = hPrevInstance;
  g_pchCmdLine = lpCmdLine ? lpCmdLine : "";
  g_nCmdShow = nCmdShow;
  int nResult = SetupMain();
  if (g_hMutex) ReleaseMutex((HANDLE)g_hMutex);
  return nResult;
}

#else
#include <stdio.h>

static const char s_szUsage[] =
    "Usage: Setup [SOURCE-DIRECTORY]\n"
    "\n"
    "Runs the installer described by install.ini. The optional argument replaces the\n"
    "directory the installer takes its source files from (normally the program's own);\n"
    "it is used as written, so give it with a trailing slash or backslash.\n"
    "\n"
    "Environment: SETUP_PREFIX (else WINEPREFIX, else ~/.wine) is the Windows-style tree\n"
    "whose dosdevices/ map drive letters; SETUP_ASSERT=abort|retry|ignore answers\n"
    "assertions when there is no terminal.\n";

int main(int argc, char** argv) {
  if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
    fputs(s_szUsage, stdout);
    return 0;
  }
  // The raw command line: the arguments after the program's name, joined by spaces.
  static char s_szCmdLine[1024];
  s_szCmdLine[0] = 0;
  for (int i = 1; i < argc; i++) {
    if (i > 1) strncat(s_szCmdLine, " ", sizeof(s_szCmdLine) - strlen(s_szCmdLine) - 1);
    strncat(s_szCmdLine, argv[i], sizeof(s_szCmdLine) - strlen(s_szCmdLine) - 1);
  }
  g_pchCmdLine = s_szCmdLine;
  g_nCmdShow = 1;
  return SetupMain();
}
#endif
