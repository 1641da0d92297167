// Start-up and teardown order of the installer's services, and the statistics at exit.
#include "cinstall.h"

#include "base/memalloc.h"
#include "base/twvmerr.h"

void* g_hInstance = 0;
void* g_hPrevInstance = 0;
const char* g_pchCmdLine = "";
int g_nCmdShow = 0;
void* g_hMutex = 0;
char g_szRunAfterExit[256];

// Limit of memory for objects and other `new` blocks, set before anything is allocated.
static const DWORD NEW_MEM_LIMIT = 0x1F400;

DWORD RunInstaller() {
  // Start-up. The object budget comes first, before any object exists.
  g_dwNewMemLimit = NEW_MEM_LIMIT;

  // Teardown, in the reverse order of start-up; the statistics come last. "%ul" prints the
  // value followed by a letter l, as this report always has.
  DebugPrintf("\n\nMax memory used: %ul\n", (unsigned)g_dwMaxMemUsed);
  DebugPrintf("Max memory used for handles: %lu\n", (unsigned long)g_dwMaxHandleMemUsed);
  DebugPrintf("Max memory used for ptrs: %lu\n", (unsigned long)g_dwMaxPtrMemUsed);
  DebugPrintf("Max memory used for new: %lu\n", (unsigned long)g_dwMaxNewMemUsed);
  return 0;
}

int SetupMain() {
  DWORD dwResult = RunInstaller();
  MemReportLeaks();
  // g_hMutex is never created; the release belongs to the platform entry point.
  return (int)dwResult;
}
