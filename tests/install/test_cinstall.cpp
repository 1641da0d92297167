// The Setup program as a whole: its start-up and teardown, and the single-instance check
// between two processes.
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "base/memalloc.h"
#include "base/tools.h"
#include "cinstall.h"
#include "files/file.h"
#include "files/winfile.h"
#include "graphics/graphics.h"
#include "testutil.h"

namespace {

struct TRun {
  int nExit;
  std::string sOutput;
};

// Runs Setup in dir with the given prefix; collects standard output and error.
TRun RunSetup(const std::string& sDir, const std::string& sPrefix, const std::string& sArgs = "") {
  std::string sCmd = "cd '" + sDir + "' && SETUP_PREFIX='" + sPrefix + "' SETUP_ASSERT=ignore '" +
                     SETUP_BINARY_DIR + "/install/Setup' " + sArgs + " 2>&1 </dev/null";
  TRun run{-1, ""};
  FILE* pPipe = popen(sCmd.c_str(), "r");
  if (!pPipe) return run;
  char szBuf[4096];
  size_t n;
  while ((n = fread(szBuf, 1, sizeof(szBuf), pPipe)) > 0) run.sOutput.append(szBuf, n);
  int nStatus = pclose(pPipe);
  run.nExit = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
  return run;
}

std::string MakeTempDir() {
  char szTemplate[] = "/tmp/setup-test-XXXXXX";
  const char* pch = mkdtemp(szTemplate);
  return pch ? pch : "";
}

void WriteFile(const std::string& sPath, const std::string& sText) {
  std::ofstream out(sPath, std::ios::binary);
  out << sText;
}

// Holds the marker the way a running copy does, through the native volume of this process.
class MarkerHolder {
 public:
  explicit MarkerHolder(const std::string& sPrefix) {
    setenv("SETUP_PREFIX", sPrefix.c_str(), 1);
    FSInit(5);
    WinFSInit();
    VolEnumerate();
    std::string sPath = std::string(g_pSysVol->szPath) + "Tarnwick.mtx";
    m_pFile = FileOpen(sPath.c_str(), 0x0F, nullptr);
  }
  ~MarkerHolder() {
    delete m_pFile;
    WinFSDone();
    FSDone();
  }
  bool Held() const { return m_pFile != nullptr; }

 private:
  CFile* m_pFile;
};

bool HostFileExists(const std::string& sPath) {
  struct stat st;
  return stat(sPath.c_str(), &st) == 0;
}

// What the file layer was asked for while the installer ran in this process, and the state
// of the services at that moment.
struct TOpenSeen {
  std::string sPath;
  WORD wMode;
  DWORD dwNewLimit;     // the object budget in force
  std::string sExeVol;  // the program's volume
  bool bLzssVolume;     // whether "LZSS:" was registered
  bool bHostFile;       // whether the marker existed on the host right after the open
};

std::vector<TOpenSeen> s_opens;
std::string s_sMarkerHostPath;
bool s_bRefuseOpens = false;

CFile* RecordingOpen(const char* pchPath, WORD wMode, ERR* pErr) {
  TOpenSeen seen;
  seen.sPath = pchPath;
  seen.wMode = wMode;
  seen.dwNewLimit = g_dwNewMemLimit;
  seen.sExeVol = g_pExeVol ? g_pExeVol->szPath : "";
  const char* pch = "LZSS:x";
  WORD wLen = 0xFFFF, wIndex = 0;
  seen.bLzssVolume = FSFind(&pch, &wLen, &wIndex) != nullptr && wLen == 5;
  CFile* pFile = s_bRefuseOpens ? nullptr : FileOpen(pchPath, wMode, pErr);
  seen.bHostFile = HostFileExists(s_sMarkerHostPath);
  s_opens.push_back(seen);
  return pFile;
}

// Runs the installer's main body in this process, with the file layer's open recorded.
class InProcessRun {
 public:
  explicit InProcessRun(const char* pchCmdLine)
      : m_sPrefix(MakeTempDir()),
        m_pfnOldOpen(g_pfnFileOpen),
        m_pchOldCmdLine(g_pchCmdLine),
        m_dwOldLimit(g_dwNewMemLimit) {
    setenv("SETUP_PREFIX", m_sPrefix.c_str(), 1);
    s_sMarkerHostPath = m_sPrefix + "/drive_c/windows/Tarnwick.mtx";
    s_opens.clear();
    s_bRefuseOpens = false;
    g_pfnFileOpen = &RecordingOpen;
    g_pchCmdLine = pchCmdLine;
  }
  ~InProcessRun() {
    g_pfnFileOpen = m_pfnOldOpen;
    g_pchCmdLine = m_pchOldCmdLine;
    g_dwNewMemLimit = m_dwOldLimit;
  }

 private:
  std::string m_sPrefix;
  PFN_FILEOPEN m_pfnOldOpen;
  const char* m_pchOldCmdLine;
  DWORD m_dwOldLimit;
};

}  // namespace

TEST(StartUp, BudgetDrivesAndCommandLineBeforeTheMarker) {
  InProcessRun run("\"D:\\SRC\\\"");
  g_dwNewMemLimit = 0xFFFFFFFF;
  EXPECT_EQ(RunInstaller(), 0u);
  // The marker is the only file opened by a run without a script session.
  ASSERT_EQ(s_opens.size(), 1u);
  const TOpenSeen& seen = s_opens[0];
  EXPECT_EQ(seen.sPath, "C:\\windows\\Tarnwick.mtx");
  EXPECT_EQ(seen.wMode, 0x0F);
  EXPECT_EQ(seen.dwNewLimit, 0x1F400u);
  // The command line replaces the program's volume whole, quotes and all.
  EXPECT_EQ(seen.sExeVol, "\"D:\\SRC\\\"");
  EXPECT_FALSE(seen.bLzssVolume);
  EXPECT_TRUE(seen.bHostFile);
  // Everything is down again: no volume table, no held marker, and the marker is gone.
  EXPECT_EQ(g_pFS, nullptr);
  EXPECT_EQ(g_pMutexFile, nullptr);
  EXPECT_FALSE(HostFileExists(s_sMarkerHostPath));
  EXPECT_EQ(g_dwNewMemLimit, 0x1F400u);
}

TEST(StartUp, EmptyCommandLineKeepsTheProgramsVolume) {
  InProcessRun run("");
  RunInstaller();
  ASSERT_EQ(s_opens.size(), 1u);
  EXPECT_NE(s_opens[0].sExeVol, "");
  EXPECT_EQ(s_opens[0].sExeVol.back(), '\\');
}

TEST(StartUp, SecondCopyReadsTheScriptBeforeCompressedFilesExist) {
  InProcessRun run("");
  s_bRefuseOpens = true;  // as if another copy held the marker
  EXPECT_EQ(RunInstaller(), 0u);
  ASSERT_EQ(s_opens.size(), 2u);
  EXPECT_EQ(s_opens[0].sPath, "C:\\windows\\Tarnwick.mtx");
  EXPECT_EQ(s_opens[1].sPath, "install.ini");
  EXPECT_EQ(s_opens[1].wMode, 0x01);
  EXPECT_FALSE(s_opens[1].bLzssVolume);
  EXPECT_EQ(g_pFS, nullptr);  // the file services were stopped on this path too
}

namespace {

// The state of the services when the first statistics line goes out.
bool s_bFirstLineSeen = false;
bool s_bMarkerAtStatistics = true;
bool s_bVolumesAtStatistics = true;
void StatisticsHook(const char* pchText) {
  if (s_bFirstLineSeen || strstr(pchText, "Max memory used: ") == nullptr) return;
  s_bFirstLineSeen = true;
  s_bMarkerAtStatistics = HostFileExists(s_sMarkerHostPath);
  s_bVolumesAtStatistics = g_pFS != nullptr;
}

}  // namespace

TEST(StartUp, StatisticsComeAfterEveryServiceIsDown) {
  InProcessRun run("");
  s_bFirstLineSeen = false;
  PFN_DEBUGHOOK pfnOld = g_pfnDebugHook;
  g_pfnDebugHook = &StatisticsHook;
  RunInstaller();
  g_pfnDebugHook = pfnOld;
  ASSERT_TRUE(s_bFirstLineSeen);
  EXPECT_FALSE(s_bMarkerAtStatistics);
  EXPECT_FALSE(s_bVolumesAtStatistics);
}

TEST(StartUp, StatisticsAfterTeardownThenTheLeakReport) {
  InProcessRun run("");
  // A block that outlives the main body shows up in the leak report after the statistics.
  void* pLeak = MemAlloc(4, "early.cpp", 1);
  ASSERT_NE(pLeak, nullptr);
  std::string sText;
  int nResult;
  {
    DebugCapture capture;
    nResult = SetupMain();
    sText = capture.Text();
  }
  MEM_FREE(pLeak);
  EXPECT_EQ(nResult, 0);
  std::string sExpected = "\n\nMax memory used: " + std::to_string(g_dwMaxMemUsed) + "l\n" +
                          "Max memory used for handles: " + std::to_string(g_dwMaxHandleMemUsed) + "\n" +
                          "Max memory used for ptrs: " + std::to_string(g_dwMaxPtrMemUsed) + "\n" +
                          "Max memory used for new: " + std::to_string(g_dwMaxNewMemUsed) + "\n" +
                          "Bytes swapped in bitmaps: " + std::to_string(g_dwBytesSwapped) + "\n" +
                          "Detected memory leaks! Dumping objects:\n"
                          "-> Pointer, Size: 4, Allocated: early.cpp(1)\n"
                          "  CD CD CD CD ....\n";
  EXPECT_EQ(sText, sExpected);
}

TEST(SetupProgram, RunsUpAndDownAndPrintsPeakCounters) {
  std::string sPrefix = MakeTempDir();
  std::string sDir = MakeTempDir();
  TRun run = RunSetup(sDir, sPrefix);
  EXPECT_EQ(run.nExit, 0);
  EXPECT_NE(run.sOutput.find("\n\nMax memory used: "), std::string::npos) << run.sOutput;
  // The format prints the value followed by a letter l.
  size_t nPos = run.sOutput.find("Max memory used: ");
  ASSERT_NE(nPos, std::string::npos);
  size_t nEnd = run.sOutput.find('\n', nPos);
  EXPECT_EQ(run.sOutput[nEnd - 1], 'l');
  EXPECT_NE(run.sOutput.find("Max memory used for handles: "), std::string::npos);
  EXPECT_NE(run.sOutput.find("Max memory used for ptrs: "), std::string::npos);
  EXPECT_NE(run.sOutput.find("Max memory used for new: "), std::string::npos);
  EXPECT_NE(run.sOutput.find("Bytes swapped in bitmaps: 0\n"), std::string::npos) << run.sOutput;
  EXPECT_FALSE(HostFileExists(sPrefix + "/drive_c/windows/Tarnwick.mtx"));
  // Everything allocated during the run was released again.
  EXPECT_EQ(run.sOutput.find("Detected memory leaks!"), std::string::npos) << run.sOutput;
  EXPECT_EQ(run.sOutput.find("Assert failed"), std::string::npos) << run.sOutput;
}

TEST(SetupProgram, MarkerLeftBehindDoesNotBlock) {
  std::string sPrefix = MakeTempDir();
  std::string sDir = MakeTempDir();
  // A marker left by a crash: present, but nobody holds it open.
  ASSERT_EQ(RunSetup(sDir, sPrefix).nExit, 0);
  WriteFile(sPrefix + "/drive_c/windows/Tarnwick.mtx", "");
  TRun run = RunSetup(sDir, sPrefix);
  EXPECT_NE(run.sOutput.find("Max memory used: "), std::string::npos) << run.sOutput;
  EXPECT_EQ(run.sOutput.find("Please close"), std::string::npos);
}

TEST(SetupProgram, SecondCopyShowsTheScriptMessage) {
  std::string sPrefix = MakeTempDir();
  std::string sDir = MakeTempDir();
  WriteFile(
      sDir + "/install.ini",
      "; a script\r\n[Messages]\r\nError = Game Setup\r\nAlreadyRunning = Setup is already running.\r\n");
  MarkerHolder holder(sPrefix);
  ASSERT_TRUE(holder.Held());
  TRun run = RunSetup(sDir, sPrefix);
  EXPECT_EQ(run.nExit, 0);
  EXPECT_NE(run.sOutput.find("Game Setup: Setup is already running."), std::string::npos) << run.sOutput;
  // It stops before the session: no statistics, nothing leaked.
  EXPECT_EQ(run.sOutput.find("Max memory used"), std::string::npos) << run.sOutput;
  EXPECT_EQ(run.sOutput.find("Detected memory leaks!"), std::string::npos) << run.sOutput;
}

TEST(SetupProgram, SecondCopyDefaultsWithoutScriptOrKeys) {
  std::string sPrefix = MakeTempDir();
  std::string sDir = MakeTempDir();
  MarkerHolder holder(sPrefix);
  ASSERT_TRUE(holder.Held());
  TRun run = RunSetup(sDir, sPrefix);
  EXPECT_NE(run.sOutput.find("Setup: Please close other Tarnwick applications before running this program."),
            std::string::npos)
      << run.sOutput;
  // Only the title is in the script: the message keeps its default.
  WriteFile(sDir + "/install.ini", "[Messages]\nError = Only Title\n");
  run = RunSetup(sDir, sPrefix);
  EXPECT_NE(run.sOutput.find("Only Title: Please close other Tarnwick applications"), std::string::npos)
      << run.sOutput;
}
#endif
