// The Setup program as a whole: its start-up and teardown, and the single-instance check
// between two processes.
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "base/tools.h"
#include "files/file.h"
#include "files/winfile.h"

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

}  // namespace

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
