// Start-up and teardown order of the installer's services, and the statistics at exit.
#include "cinstall.h"

#include "base/memalloc.h"
#include "base/tools.h"
#include "base/twvmerr.h"
#include "config/ini.h"
#include "files/file.h"
#include "files/lzssfile.h"
#include "files/rlcache.h"
#include "files/winfile.h"
#include "graphics/graphics.h"
#include "platform/headless/headless.h"
#include "platform/platform.h"
#include "ui/desktop.h"
#include "ui/oswnd.h"
#include "ui/window.h"

void* g_hInstance = 0;
void* g_hPrevInstance = 0;
const char* g_pchCmdLine = "";
int g_nCmdShow = 0;
void* g_hMutex = 0;
char g_szRunAfterExit[256];
CFile* g_pMutexFile = 0;
CTerminal* g_pTerminal = 0;
COSWnd* g_pOSWnd = 0;
CDesktop* g_pDesktop = 0;

// Name of the single-instance marker in the Windows directory.
static const char s_szMarkerName[] = "Tarnwick.mtx";

// Limit of memory for objects and other `new` blocks, set before anything is allocated.
static const DWORD NEW_MEM_LIMIT = 0x1F400;

BOOL StartInstanceLock() {
  ASSERT(g_pSysVol);
  if (!g_pSysVol) return FALSE;
  char szPath[sizeof(g_pSysVol->szPath) + sizeof(s_szMarkerName)];
  StrCpy(szPath, g_pSysVol->szPath);
  StrCat(szPath, s_szMarkerName);
  // Created or truncated, read and write, shared with nobody: a second copy fails to open it
  // for as long as this one holds it.
  g_pMutexFile = g_pfnFileOpen(szPath, FILE_MODE_CREATE, 0);
  return g_pMutexFile != 0;
}

void StopInstanceLock() {
  if (g_pMutexFile) {
    delete g_pMutexFile;
    g_pMutexFile = 0;
  }
  if (!g_pSysVol) return;
  char szPath[sizeof(g_pSysVol->szPath) + sizeof(s_szMarkerName)];
  StrCpy(szPath, g_pSysVol->szPath);
  StrCat(szPath, s_szMarkerName);
  FileDelete(szPath);
}

// The second-copy message: the script's own title and text when it can be read, else the
// defaults. The script is read as plain text: the LZSS: volume does not exist yet.
static void ShowAlreadyRunning() {
  char szTitle[256];
  char szText[256];
  StrCpy(szTitle, "Setup");
  StrCpy(szText, "Please close other Tarnwick applications before running this program.");
  CFile* pFile = g_pfnFileOpen("install.ini", FILE_MODE_READ, 0);
  if (pFile) {
    CIni* pIni = new CIni;
    if (pIni && pIni->Load(pFile) == 0) {
      pIni->GetString("Messages", "Error", szTitle, sizeof(szTitle));
      pIni->GetString("Messages", "AlreadyRunning", szText, sizeof(szText));
    }
    delete pFile;
    delete pIni;
  }
  PlatMessageBox(szText, szTitle, 0);
}

void MinimizeTerminal(BOOL bMinimize) {
  if (!g_pOSWnd) return;
  DWORD_PTR hWnd = 0;
  g_pOSWnd->GetProperty(PROP_WND_HANDLE, &hWnd);
  PlatShowWindow(hWnd, bMinimize ? 6 : 3);
}

DWORD RunInstaller() {
  // Start-up. The object budget comes first, before any object exists.
  g_dwNewMemLimit = NEW_MEM_LIMIT;
  FSInit(5);
  WinFSInit();
  VolEnumerate();
  // The command line names the directory of the source files, taken whole as written.
  if (g_pchCmdLine && *g_pchCmdLine && g_pExeVol)
    StrNCpy(g_pExeVol->szPath, g_pchCmdLine, sizeof(g_pExeVol->szPath) - 1);
  if (!StartInstanceLock()) {
    ShowAlreadyRunning();
    WinFSDone();
    FSDone();
    return 0;
  }
  // Compressed files exist only from here on: the second-copy message above reads the script
  // as plain text.
  LZSSFSInit();
  LangInit("English");
  // The resource cache: a file-based locator behind a cache of 256 buckets and 0x19000 bytes.
  ResCacheInit();
  // The one message queue, the display and input system over it, the OS window with its 8-bit
  // surface, and the desktop on it. Without a terminal there is nothing to show: stop at once.
  CMsgHeap* pMsgHeap = new CWindowMsgHeap(100, 10);
  ASSERT(pMsgHeap);
  g_pTerminal = CreateHeadlessTerminal(pMsgHeap);
  if (!g_pTerminal) return 0;
  g_pDesktop = CreateDesktop(g_pTerminal);
  g_pOSWnd = g_pDesktop ? g_pDesktop->m_pOSWnd : 0;

  // Teardown, in the reverse order of start-up.
  StopInstanceLock();
  MinimizeTerminal(1);
  delete g_pDesktop;
  g_pDesktop = 0;
  // The terminal deletes any OS window still listed.
  delete g_pTerminal;
  g_pTerminal = 0;
  g_pOSWnd = 0;
  delete pMsgHeap;
  LZSSFSDone();
  WinFSDone();
  FSDone();
  ResCacheDone();

  // The statistics come last. "%ul" prints the value followed by a letter l, as this report
  // always has.
  DebugPrintf("\n\nMax memory used: %ul\n", (unsigned)g_dwMaxMemUsed);
  DebugPrintf("Max memory used for handles: %lu\n", (unsigned long)g_dwMaxHandleMemUsed);
  DebugPrintf("Max memory used for ptrs: %lu\n", (unsigned long)g_dwMaxPtrMemUsed);
  DebugPrintf("Max memory used for new: %lu\n", (unsigned long)g_dwMaxNewMemUsed);
  DebugPrintf("Bytes swapped in bitmaps: %lu\n", (unsigned long)g_dwBytesSwapped);
  return 0;
}

int SetupMain() {
  DWORD dwResult = RunInstaller();
  MemReportLeaks();
  // g_hMutex is never created; the release belongs to the platform entry point.
  return (int)dwResult;
}
