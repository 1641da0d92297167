// Tests of the native volume: files, share modes, paths, directories, listings and drives.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

#include "files/winfile.h"
#include "testutil.h"

namespace fs = std::filesystem;

namespace {

// Every test gets a fresh directory, the native volume in the table and, on POSIX, a fresh
// prefix. m_base is the Windows path of the work directory, m_hostBase the same on the host.
class WinFileFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    static unsigned s_nSerial = 0;
    m_oldCwd = fs::current_path();
    m_host = fs::temp_directory_path() /
             ("setup_winfile_" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) +
              "_" + std::to_string(++s_nSerial) + "_" + std::to_string(std::random_device()()));
    fs::create_directories(m_host);
#ifndef _WIN32
    m_prefix = m_host / "prefix";
    setenv("SETUP_PREFIX", m_prefix.c_str(), 1);
#endif
    ASSERT_EQ(FSInit(5), 0u);
    ASSERT_EQ(WinFSInit(), 0u);
#ifndef _WIN32
    m_base = "C:\\work";
    m_hostBase = m_prefix / "drive_c" / "work";
#else
    m_hostBase = m_host / "work";
    m_base = m_hostBase.string();
#endif
    fs::create_directories(m_hostBase);
  }

  void TearDown() override {
    fs::current_path(m_oldCwd);
    WinFSDone();
    FSDone();
    std::error_code ec;
    fs::remove_all(m_host, ec);
#ifndef _WIN32
    unsetenv("SETUP_PREFIX");
#endif
  }

  std::string P(const std::string& name) const { return m_base + "\\" + name; }
  fs::path H(const std::string& name) const { return m_hostBase / name; }

  void Put(const fs::path& path, const std::string& text) const {
    std::ofstream out(path, std::ios::binary);
    out << text;
  }
  std::string Get(const fs::path& path) const {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  // Opens through the registered volume and checks the stored result.
  CFile* Open(const std::string& path, WORD wMode, ERR errWant) {
    ERR err = 0xDEAD;
    CFile* pFile = FileOpen(path.c_str(), wMode, &err);
    EXPECT_EQ(err, errWant) << path << " mode " << std::hex << wMode;
    EXPECT_EQ(pFile != nullptr, errWant == 0) << path;
    return pFile;
  }

  // All names of a listing in the order given, or the error of FindFirst as a single entry.
  std::vector<std::string> List(const std::string& path, std::vector<DWORD>* pAttrs = nullptr) {
    std::vector<std::string> names;
    TFindInfo fi;
    ERR err = FileFindFirst(&fi, path.c_str());
    if (err) return {"error " + std::to_string(err)};
    do {
      names.push_back(fi.pchName);
      if (pAttrs) pAttrs->push_back(fi.dwAttr);
    } while ((err = FileFindNext(&fi)) == 0);
    EXPECT_EQ(err, ERR_FILE_NOMOREFILES);
    EXPECT_EQ(FileFindClose(&fi), 0u);
    return names;
  }

  fs::path m_oldCwd, m_host, m_hostBase;
  std::string m_base;
#ifndef _WIN32
  fs::path m_prefix;
#endif
};

class WinFileErrors : public WinFileFixture {};
class WinFileRead : public WinFileFixture {};
class WinFileOpen : public WinFileFixture {};
class WinFileShare : public WinFileFixture {};
class WinFilePaths : public WinFileFixture {};
class WinFileDirs : public WinFileFixture {};
class WinFileFind : public WinFileFixture {};
class WinFileVolumes : public WinFileFixture {};

#ifndef _WIN32
// Opens path with wMode in a second process and returns the ERR that process got.
ERR OpenInChild(const std::string& path, WORD wMode) {
  int afd[2];
  if (pipe(afd) != 0) return 0xBAD0BAD0;
  pid_t pid = fork();
  if (pid == 0) {
    close(afd[0]);
    CWinFS vol;
    ERR err = 0xDEAD;
    vol.Open(path.c_str(), wMode, &err);  // left open until the process ends
    ssize_t n = write(afd[1], &err, sizeof(err));
    _exit(n == sizeof(err) ? 0 : 1);
  }
  close(afd[1]);
  ERR err = 0xBAD1BAD1;
  if (pid < 0 || read(afd[0], &err, sizeof(err)) != sizeof(err)) err = 0xBAD2BAD2;
  close(afd[0]);
  int nStatus = 0;
  if (pid > 0) waitpid(pid, &nStatus, 0);
  return err;
}
#endif

}  // namespace

// ---------------------------------------------------------------------------------------------

TEST_F(WinFileErrors, TableOfOSErrorsAndCodesFromTheOperations) {
  const struct {
    DWORD dwOS;
    ERR err;
  } aTable[] = {{0, ERR_NOERR},
                {2, ERR_FILE_NOTFOUND},
                {3, ERR_FILE_PATHNOTFOUND},
                {4, ERR_FILE_TOOMANY},
                {5, ERR_FILE_ACCESS},
                {15, ERR_FILE_NOVOLUME},
                {18, ERR_FILE_NOMOREFILES},
                {19, ERR_FILE_WRITEPROTECT},
                {21, ERR_FILE_NOTREADY},
                {26, ERR_FILE_BADVOLUME},
                {32, ERR_FILE_SHARING},
                {80, ERR_FILE_EXIST},
                {112, ERR_FILE_DISKFULL},
                {131, ERR_FILE_SEEK},
                {183, 0x30000019u}};
  for (const auto& e : aTable) EXPECT_EQ(ErrFromOS(e.dwOS, 0x12345678u), e.err) << e.dwOS;
  // "Already exists" has no text of its own; unlisted numbers give the caller's default.
  EXPECT_EQ(ErrGetText(ErrFromOS(183, ERR_FILE_GENERAL)), nullptr);
  EXPECT_EQ(ErrFromOS(999, 0x12345678u), 0x12345678u);
  EXPECT_EQ(ErrFromOS(1, ERR_FILE_READ), ERR_FILE_READ);
  EXPECT_EQ(ErrFromOS(0xFFFFFFFF, ERR_FILE_OPEN), ERR_FILE_OPEN);
  // What the OS reports comes out as the same ERR on every platform.
  Put(H("f.txt"), "x");
  Open(P("absent.txt"), FILE_MODE_READ, ERR_FILE_NOTFOUND);
  Open(P("nodir\\absent.txt"), FILE_MODE_READ, ERR_FILE_PATHNOTFOUND);
  Open(P("f.txt"), FILE_READ | FILE_WRITE | FILE_CREATENEW, ERR_FILE_EXIST);
  EXPECT_EQ(FileDelete(P("absent.txt").c_str()), ERR_FILE_NOTFOUND);
  EXPECT_EQ(DirCreate(m_base.c_str(), "d"), 0u);
  EXPECT_EQ(DirCreate(m_base.c_str(), "d"), 0x30000019u);
  EXPECT_EQ(DirCreate(P("nodir").c_str(), "d"), ERR_FILE_PATHNOTFOUND);
  EXPECT_EQ(FileDelete(P("d").c_str()), ERR_FILE_ACCESS);
  EXPECT_TRUE(fs::is_directory(H("d")));
}

// ---------------------------------------------------------------------------------------------

TEST_F(WinFileRead, ShortAndEmptyReads) {
  Put(H("data.bin"), "0123456789ABCD");
  CFile* pFile = Open(P("data.bin"), FILE_MODE_READ, 0);
  ASSERT_NE(pFile, nullptr);
  ASSERT_EQ(pFile->Seek(10, FILE_BEGIN), 0u);
  char ach[16];
  memset(ach, '#', sizeof(ach));
  DWORD dwRead = 0xDEAD;
  EXPECT_EQ(pFile->Read(ach, 10, &dwRead), ERR_FILE_EOF);
  EXPECT_EQ(dwRead, 4u);
  EXPECT_EQ(std::string(ach, 5), "ABCD#");
  // At the end nothing more comes; without a count pointer the result is the same.
  EXPECT_EQ(pFile->Read(ach, 3, &dwRead), ERR_FILE_EOF);
  EXPECT_EQ(dwRead, 0u);
  ASSERT_EQ(pFile->Seek(-2, FILE_END), 0u);
  EXPECT_EQ(pFile->Read(ach, 8, nullptr), ERR_FILE_EOF);
  EXPECT_EQ(pFile->GetPos(), 14u);
  // A read of nothing succeeds, even at the end.
  dwRead = 0xDEAD;
  EXPECT_EQ(pFile->Read(ach, 0, &dwRead), 0u);
  EXPECT_EQ(dwRead, 0u);
  ASSERT_EQ(pFile->Seek(1, FILE_BEGIN), 0u);
  EXPECT_EQ(pFile->Read(ach, 0, &dwRead), 0u);
  EXPECT_EQ(pFile->Read(ach, 1, &dwRead), 0u);
  EXPECT_EQ(ach[0], '1');
  EXPECT_EQ(dwRead, 1u);
  delete pFile;
}

TEST_F(WinFileRead, WriteSeekSizeTruncate) {
  CFile* pFile = Open(P("new.bin"), FILE_MODE_CREATE, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetMode(), FILE_MODE_CREATE);
  EXPECT_TRUE(pFile->IsValid());
  DWORD dwWritten = 0;
  EXPECT_EQ(pFile->Write("hello, world", 12, &dwWritten), 0u);
  EXPECT_EQ(dwWritten, 12u);
  EXPECT_EQ(pFile->GetSize(), 12u);
  EXPECT_EQ(pFile->GetPos(), 12u);
  EXPECT_EQ(pFile->Seek(-5, FILE_CURRENT), 0u);
  EXPECT_EQ(pFile->GetPos(), 7u);
  EXPECT_EQ(pFile->Seek(2, FILE_BEGIN), 0u);
  EXPECT_EQ(pFile->Write("LL", 2, nullptr), 0u);
  // A position before the start is refused and the position stays.
  EXPECT_EQ(pFile->Seek(-20, FILE_CURRENT), ERR_FILE_SEEK);
  EXPECT_EQ(pFile->GetPos(), 4u);
  EXPECT_EQ(pFile->Seek(5, FILE_BEGIN), 0u);
  EXPECT_EQ(pFile->Truncate(), 0u);
  EXPECT_EQ(pFile->GetSize(), 5u);
  EXPECT_EQ(pFile->Flush(), 0u);
  // ReadAt is the base class's seek and read.
  char ach[8] = {};
  DWORD dwRead = 0;
  EXPECT_EQ(pFile->ReadAt(ach, 1, 4, &dwRead), 0u);
  EXPECT_EQ(std::string(ach, dwRead), "eLLo");
  delete pFile;
  EXPECT_EQ(Get(H("new.bin")), "heLLo");

  // A handle the OS does not know: size and position assert with their own texts.
  AssertCatcher catcher;
  CWinFile bad((DWORD_PTR)-1, FILE_MODE_READ);
  EXPECT_EQ(bad.GetSize(), 0xFFFFFFFFu);
  EXPECT_EQ(bad.GetPos(), 0xFFFFFFFFu);
  EXPECT_EQ(catcher.Texts().size(), 2u);
  EXPECT_TRUE(catcher.Fired(": dwSize!=0xFFFFFFFF\n"));
  EXPECT_TRUE(catcher.Fired(": dwPos!=0xFFFFFFFF\n"));
}

TEST_F(WinFileRead, AccessFollowsTheModeAndTheHandleProperty) {
  Put(H("data.bin"), "abc");
  CFile* pFile = Open(P("data.bin"), FILE_MODE_READ, 0);
  ASSERT_NE(pFile, nullptr);
  DWORD dwWritten = 0xDEAD;
  EXPECT_EQ(pFile->Write("x", 1, &dwWritten), ERR_FILE_ACCESS);
  EXPECT_EQ(dwWritten, 0u);
  // Windows refuses with "access denied"; Wine reports another error, so under it only the
  // refusal is checked.
#ifndef _WIN32
  EXPECT_EQ(pFile->Truncate(), ERR_FILE_ACCESS);
#else
  EXPECT_NE(pFile->Truncate(), 0u);
#endif
  // The OS handle is the one property.
  DWORD_PTR h = 0;
  EXPECT_EQ(pFile->GetProperty(PID_OSHANDLE, &h, sizeof(h)), 0u);
  EXPECT_NE(h, (DWORD_PTR)0);
  EXPECT_NE(h, (DWORD_PTR)-1);
  EXPECT_EQ(pFile->GetProperty(PID_OSHANDLE + 1, &h, sizeof(h)), ERR_FILE_UNKNOWNPID);
  EXPECT_EQ(pFile->GetProperty(PID_OSHANDLE, &h, 1), ERR_BADPARAM);
  EXPECT_EQ(pFile->SetProperty(PID_OSHANDLE, &h, sizeof(h)), ERR_FILE_UNKNOWNPID);
  EXPECT_NE(pFile->Cast(0x3010A00), nullptr);
  EXPECT_STREQ(pFile->GetClassName(), "CWinFile");
  delete pFile;
  EXPECT_EQ(Get(H("data.bin")), "abc");

  pFile = Open(P("seq.bin"), FILE_MODE_WRITESEQ, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->Write("abc", 3, nullptr), 0u);
  char ach[4];
  DWORD dwRead = 0xDEAD;
  ASSERT_EQ(pFile->Seek(0, FILE_BEGIN), 0u);
  EXPECT_EQ(pFile->Read(ach, 3, &dwRead), ERR_FILE_ACCESS);
  EXPECT_EQ(dwRead, 0u);
  delete pFile;
  EXPECT_EQ(Get(H("seq.bin")), "abc");
}

// ---------------------------------------------------------------------------------------------

TEST_F(WinFileOpen, CreationFormsAndDirectories) {
  // Create alone fails on an existing file; with replace it empties it.
  CFile* pFile = Open(P("a.bin"), FILE_READ | FILE_WRITE | FILE_CREATENEW, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->Write("12345", 5, nullptr), 0u);
  delete pFile;
  Open(P("a.bin"), FILE_READ | FILE_WRITE | FILE_CREATENEW, ERR_FILE_EXIST);
  EXPECT_EQ(Get(H("a.bin")), "12345");
  pFile = Open(P("a.bin"), FILE_MODE_READWRITE, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetSize(), 5u);
  delete pFile;
  pFile = Open(P("a.bin"), FILE_MODE_CREATE, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetSize(), 0u);
  delete pFile;
  // Replace alone is no creation.
  Open(P("b.bin"), FILE_READ | FILE_WRITE | FILE_REPLACE, ERR_FILE_NOTFOUND);
  EXPECT_FALSE(fs::exists(H("b.bin")));
  // A directory is no file; the result may be thrown away.
  fs::create_directories(H("sub"));
  Open(P("sub"), FILE_MODE_READ, ERR_FILE_ACCESS);
  EXPECT_EQ(FileOpen(P("absent").c_str(), FILE_MODE_READ, nullptr), nullptr);
  EXPECT_FALSE(FileExists(P("sub").c_str()));
  EXPECT_FALSE(FileExists(P("absent").c_str()));
  Put(H("here.txt"), "");
  EXPECT_TRUE(FileExists(P("here.txt").c_str()));
}

// ---------------------------------------------------------------------------------------------

TEST_F(WinFileShare, ExclusiveOpensKeepOthersOut) {
  Put(H("f.bin"), "data");
  CFile* pFirst = Open(P("f.bin"), FILE_MODE_READ, 0);
  ASSERT_NE(pFirst, nullptr);
  Open(P("f.bin"), FILE_MODE_READ, ERR_FILE_SHARING);
  Open(P("f.bin"), FILE_MODE_READ | FILE_OTHERS_READ | FILE_OTHERS_WRITE, ERR_FILE_SHARING);
  // A file held open is not deleted, renamed, or seen to exist by a reader.
  EXPECT_EQ(FileDelete(P("f.bin").c_str()), ERR_FILE_SHARING);
  EXPECT_EQ(FileRename(P("f.bin").c_str(), P("g.bin").c_str()), ERR_FILE_SHARING);
  EXPECT_FALSE(FileExists(P("f.bin").c_str()));
  delete pFirst;
  EXPECT_TRUE(FileExists(P("f.bin").c_str()));
  CFile* pSecond = Open(P("f.bin"), FILE_MODE_READ, 0);
  delete pSecond;
  EXPECT_EQ(FileDelete(P("f.bin").c_str()), 0u);
  EXPECT_FALSE(fs::exists(H("f.bin")));
  // The single-instance marker: the first copy holds the file created with 0x0F; replacing it
  // from elsewhere fails and leaves it alone.
  CFile* pMarker = Open(P("marker.mtx"), FILE_MODE_CREATE, 0);
  ASSERT_NE(pMarker, nullptr);
  EXPECT_EQ(pMarker->Write("first", 5, nullptr), 0u);
  Open(P("marker.mtx"), FILE_MODE_CREATE, ERR_FILE_SHARING);
  EXPECT_EQ(pMarker->GetSize(), 5u);
  delete pMarker;
  EXPECT_EQ(Get(H("marker.mtx")), "first");
  delete Open(P("marker.mtx"), FILE_MODE_CREATE, 0);
  EXPECT_EQ(Get(H("marker.mtx")), "");
}

TEST_F(WinFileShare, ShareBitsLetOthersIn) {
  Put(H("f.bin"), "data");
  CFile* pA = Open(P("f.bin"), FILE_READ | FILE_OTHERS_READ, 0);
  CFile* pB = Open(P("f.bin"), FILE_READ | FILE_OTHERS_READ, 0);
  // Both deny writing, so a writer is refused even if it would share everything.
  Open(P("f.bin"), FILE_MODE_READWRITE | FILE_OTHERS_READ | FILE_OTHERS_WRITE, ERR_FILE_SHARING);
  // A reader that denies reading meets readers: refused.
  Open(P("f.bin"), FILE_READ | FILE_OTHERS_WRITE, ERR_FILE_SHARING);
  delete pA;
  delete pB;

  CFile* pC = Open(P("f.bin"), FILE_READ | FILE_OTHERS_READ | FILE_OTHERS_WRITE, 0);
  CFile* pD = Open(P("f.bin"), FILE_MODE_READWRITE | FILE_OTHERS_READ | FILE_OTHERS_WRITE, 0);
  ASSERT_NE(pC, nullptr);
  ASSERT_NE(pD, nullptr);
  // pC lets others write but a new reader that denies writing meets the writer pD.
  Open(P("f.bin"), FILE_READ | FILE_OTHERS_READ, ERR_FILE_SHARING);
  EXPECT_EQ(pD->Write("D", 1, nullptr), 0u);
  char ch = 0;
  EXPECT_EQ(pC->Read(&ch, 1, nullptr), 0u);
  EXPECT_EQ(ch, 'D');
  delete pC;
  delete pD;
}

#ifndef _WIN32
TEST_F(WinFileShare, ExclusiveOpensHoldAgainstAnotherProcess) {
  Put(H("f.bin"), "data");
  CFile* pFirst = Open(P("f.bin"), FILE_MODE_READ, 0);
  ASSERT_NE(pFirst, nullptr);
  EXPECT_EQ(OpenInChild(P("f.bin"), FILE_MODE_READ), ERR_FILE_SHARING);
  delete pFirst;
  EXPECT_EQ(OpenInChild(P("f.bin"), FILE_MODE_READ), 0u);

  // Two copies of the program: the second can't take the marker, and doesn't empty it.
  CFile* pMarker = Open(P("Tarnwick.mtx"), FILE_MODE_CREATE, 0);
  ASSERT_NE(pMarker, nullptr);
  EXPECT_EQ(pMarker->Write("held", 4, nullptr), 0u);
  EXPECT_EQ(OpenInChild(P("Tarnwick.mtx"), FILE_MODE_CREATE), ERR_FILE_SHARING);
  EXPECT_EQ(Get(H("Tarnwick.mtx")), "held");
  // Readers that share with each other are fine across processes too.
  CFile* pShared = Open(P("f.bin"), FILE_READ | FILE_OTHERS_READ, 0);
  EXPECT_EQ(OpenInChild(P("f.bin"), FILE_READ | FILE_OTHERS_READ), 0u);
  EXPECT_EQ(OpenInChild(P("f.bin"), FILE_MODE_READWRITE | FILE_OTHERS_READ), ERR_FILE_SHARING);
  delete pShared;
  delete pMarker;
  EXPECT_EQ(OpenInChild(P("Tarnwick.mtx"), FILE_MODE_CREATE), 0u);
}
#endif

// ---------------------------------------------------------------------------------------------

TEST_F(WinFilePaths, ComponentsMatchWithoutRegardToCase) {
  fs::create_directories(H("MixedCase"));
  Put(H("MixedCase") / "File.TXT", "content");
  CFile* pFile = Open(P("mixedcase\\FILE.txt"), FILE_MODE_READ, 0);
  ASSERT_NE(pFile, nullptr);
  char ach[8] = {};
  EXPECT_EQ(pFile->Read(ach, 7, nullptr), 0u);
  EXPECT_EQ(std::string(ach), "content");
  delete pFile;
  // A new file lands in the existing directory, under the name as written.
  pFile = Open(P("MIXEDCASE\\New.txt"), FILE_MODE_CREATE, 0);
  delete pFile;
  EXPECT_TRUE(fs::exists(H("MixedCase") / "New.txt"));
  // Either separator, and "." and "..".
  EXPECT_TRUE(FileExists((m_base + "/MixedCase/File.TXT").c_str()));
  EXPECT_TRUE(FileExists(P("MixedCase\\..\\mixedcase\\.\\file.txt").c_str()));
  // Replacing through another spelling writes the existing file, not a second one.
  pFile = Open(P("MIXEDCASE\\FILE.TXT"), FILE_MODE_CREATE, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->Write("new", 3, nullptr), 0u);
  delete pFile;
  EXPECT_EQ(Get(H("MixedCase") / "File.TXT"), "new");
}

TEST_F(WinFilePaths, RenameRulesAndCaseChange) {
  Put(H("a.txt"), "A");
  Put(H("b.txt"), "B");
  EXPECT_EQ(FileRename(P("a.txt").c_str(), P("b.txt").c_str()), 0x30000019u);
  EXPECT_EQ(Get(H("a.txt")), "A");
  EXPECT_EQ(Get(H("b.txt")), "B");
  EXPECT_EQ(FileRename(P("a.txt").c_str(), P("c.txt").c_str()), 0u);
  EXPECT_FALSE(fs::exists(H("a.txt")));
  EXPECT_EQ(Get(H("c.txt")), "A");
  // A rename that changes only the case of the name. Wine keeps the host name as it was, so
  // the new spelling is checked on POSIX only.
  EXPECT_EQ(FileRename(P("c.txt").c_str(), P("C.TXT").c_str()), 0u);
  EXPECT_EQ(Get(H("C.TXT")), "A");
#ifndef _WIN32
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(m_hostBase)) names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"C.TXT", "b.txt"}));
#endif
  EXPECT_EQ(FileRename(P("absent").c_str(), P("d.txt").c_str()), ERR_FILE_NOTFOUND);
}

#ifndef _WIN32
TEST_F(WinFilePaths, DriveLettersGoThroughThePrefix) {
  // A fresh prefix gets drive C: with its Windows directory.
  EXPECT_TRUE(fs::is_symlink(m_prefix / "dosdevices" / "c:"));
  EXPECT_EQ(fs::read_symlink(m_prefix / "dosdevices" / "c:"), fs::path("../drive_c"));
  EXPECT_TRUE(fs::is_directory(m_prefix / "drive_c" / "windows" / "system32"));

  fs::create_directories(m_host / "xdrive" / "Sub");
  Put(m_host / "xdrive" / "Sub" / "data.bin", "on x");
  fs::create_directory_symlink(m_host / "xdrive", m_prefix / "dosdevices" / "x:");
  EXPECT_TRUE(FileExists("X:\\Sub\\data.bin"));
  EXPECT_TRUE(FileExists("x:/sub/DATA.BIN"));
  EXPECT_TRUE(FileExists("X:\\..\\..\\Sub\\data.bin"));  // never above the root
  EXPECT_TRUE(FileExists("X:Sub\\data.bin"));
  Open("Q:\\data.bin", FILE_MODE_READ, ERR_FILE_PATHNOTFOUND);
  // A path that names no drive is a host path, with either separator.
  std::string host = (m_host / "xdrive" / "Sub" / "data.bin").string();
  EXPECT_TRUE(FileExists(host.c_str()));
  std::replace(host.begin(), host.end(), '/', '\\');
  EXPECT_TRUE(FileExists(host.c_str()));
  // Relative paths start at the current directory.
  fs::current_path(m_host / "xdrive");
  EXPECT_TRUE(FileExists("sub\\Data.bin"));
  // A drive's root lists no dot entries; names in order without regard to case.
  Put(m_host / "xdrive" / "root.txt", "r");
  EXPECT_EQ(List("X:\\"), (std::vector<std::string>{"root.txt", "Sub"}));
  EXPECT_EQ(List("x:"), (std::vector<std::string>{"root.txt", "Sub"}));
}
#endif

// ---------------------------------------------------------------------------------------------

TEST_F(WinFileDirs, CreateOneLevelAndRemoveEmpty) {
  EXPECT_EQ(DirCreate(m_base.c_str(), "one"), 0u);
  EXPECT_EQ(DirCreate((m_base + "\\").c_str(), "two"), 0u);
  EXPECT_TRUE(fs::is_directory(H("one")));
  EXPECT_TRUE(fs::is_directory(H("two")));
  EXPECT_EQ(DirCreate(P("one").c_str(), "deeper"), 0u);
  EXPECT_TRUE(fs::is_directory(H("one") / "deeper"));
  // Names holding a separator or a colon are refused and nothing is made.
  EXPECT_EQ(DirCreate(m_base.c_str(), "three\\four"), ERR_BADPARAM);
  EXPECT_EQ(DirCreate(m_base.c_str(), "C:"), ERR_BADPARAM);
  EXPECT_EQ(DirCreate(m_base.c_str(), "a:b"), ERR_BADPARAM);
  EXPECT_EQ(DirRemove(m_base.c_str(), "one\\deeper"), ERR_BADPARAM);
  EXPECT_FALSE(fs::exists(H("three")));
  EXPECT_FALSE(fs::exists(H("a:b")));
  EXPECT_TRUE(fs::is_directory(H("one") / "deeper"));
  // Removal: only empty directories.
  fs::create_directories(H("full") / "inner");
  fs::create_directories(H("empty"));
  Put(H("file.txt"), "f");
  EXPECT_EQ(DirRemove(m_base.c_str(), "empty"), 0u);
  EXPECT_FALSE(fs::exists(H("empty")));
  EXPECT_EQ(DirRemove(m_base.c_str(), "full"), ERR_FILE_GENERAL);
  EXPECT_TRUE(fs::exists(H("full") / "inner"));
  EXPECT_EQ(DirRemove(m_base.c_str(), "absent"), ERR_FILE_NOTFOUND);
  EXPECT_EQ(DirRemove(m_base.c_str(), "file.txt"), ERR_FILE_GENERAL);
  EXPECT_TRUE(fs::exists(H("file.txt")));
  // Null arguments.
  CWinFS vol;
  AssertCatcher catcher;
  EXPECT_EQ(vol.CreateDir(nullptr, "x"), ERR_BADPARAM);
  EXPECT_TRUE(catcher.Fired("pPath && pDirName"));
  catcher.Clear();
  EXPECT_EQ(vol.RemoveDir(m_base.c_str(), nullptr), ERR_BADPARAM);
  EXPECT_TRUE(catcher.Fired("pPath && pDirName"));
}

// ---------------------------------------------------------------------------------------------

TEST_F(WinFileFind, ListsEverythingWithDotEntries) {
  fs::create_directories(H("dir") / "sub");
  Put(H("dir") / "b.txt", "b");
  Put(H("dir") / "A.txt", "a");
  std::vector<DWORD> attrs;
  std::vector<std::string> names = List(P("dir"), &attrs);
  ASSERT_EQ(names.size(), 5u);
  std::vector<std::string> sorted = names;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(sorted, (std::vector<std::string>{".", "..", "A.txt", "b.txt", "sub"}));
  for (size_t i = 0; i < names.size(); i++) {
    bool bDir = names[i] == "." || names[i] == ".." || names[i] == "sub";
    EXPECT_EQ((attrs[i] & FILE_ATTR_DIRECTORY) != 0, bDir) << names[i];
    EXPECT_EQ(attrs[i] & ~0x9B7u, 0u) << names[i];
  }
  // The same with a trailing backslash.
  EXPECT_EQ(List(P("dir") + "\\").size(), 5u);
#ifndef _WIN32
  // Listed as Windows orders a directory: dot entries, then names without regard to case.
  EXPECT_EQ(names, (std::vector<std::string>{".", "..", "A.txt", "b.txt", "sub"}));
#endif
  // An empty path lists the current directory.
  fs::current_path(H("dir") / "sub");
  Put(H("dir") / "sub" / "here.txt", "h");
  names = List("");
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{".", "..", "here.txt"}));
}

TEST_F(WinFileFind, EndCloseAndErrors) {
  Put(H("only.txt"), "x");
  TFindInfo fi;
  ASSERT_EQ(FileFindFirst(&fi, m_base.c_str()), 0u);
  EXPECT_NE(fi.pFS, nullptr);
  EXPECT_NE(fi.pData, nullptr);
  ERR err;
  int nCount = 1;
  while ((err = FileFindNext(&fi)) == 0) nCount++;
  EXPECT_EQ(err, ERR_FILE_NOMOREFILES);
  EXPECT_EQ(nCount, 3);
  EXPECT_EQ(FileFindNext(&fi), ERR_FILE_NOMOREFILES);
  EXPECT_EQ(FileFindClose(&fi), 0u);
  EXPECT_EQ(fi.pFS, nullptr);
  EXPECT_EQ(fi.pData, nullptr);
  EXPECT_EQ(fi.pchName, nullptr);

  EXPECT_EQ(List(P("absent")), (std::vector<std::string>{"error " + std::to_string(ERR_FILE_PATHNOTFOUND)}));

  CWinFS vol;
  AssertCatcher catcher;
  TFindInfo empty;
  memset(&empty, 0, sizeof(empty));
  EXPECT_EQ(vol.FindNext(&empty), ERR_BADPARAM);
  EXPECT_TRUE(catcher.Fired("fi.pData"));
  catcher.Clear();
  EXPECT_EQ(vol.FindClose(&empty), ERR_BADPARAM);
  EXPECT_TRUE(catcher.Fired("fi.pData"));
  catcher.Clear();
  EXPECT_EQ(vol.FindFirst(&empty, nullptr), ERR_BADPARAM);
  EXPECT_TRUE(catcher.Fired("pPath"));
}

#ifndef _WIN32
TEST_F(WinFileFind, AttributesOfThisSide) {
  Put(H(".hidden"), "h");
  Put(H("ro.txt"), "r");
  fs::permissions(H("ro.txt"), fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                  fs::perm_options::remove);
  std::vector<DWORD> attrs;
  std::vector<std::string> names = List(m_base, &attrs);
  ASSERT_EQ(names, (std::vector<std::string>{".", "..", ".hidden", "ro.txt"}));
  EXPECT_EQ(attrs[2], (DWORD)(FILE_ATTR_HIDDEN | FILE_ATTR_ARCHIVE));
  EXPECT_EQ(attrs[3], (DWORD)(FILE_ATTR_READONLY | FILE_ATTR_ARCHIVE));
  // A read-only file is not deleted.
  EXPECT_EQ(FileDelete(P("ro.txt").c_str()), ERR_FILE_ACCESS);
  EXPECT_TRUE(fs::exists(H("ro.txt")));
}
#endif

// ---------------------------------------------------------------------------------------------

TEST_F(WinFileVolumes, RegistrationUnderTheEmptyPrefix) {
  Put(H("f.txt"), "x");
  EXPECT_TRUE(FileExists(P("f.txt").c_str()));
  EXPECT_EQ(WinFSDone(), 0u);
  EXPECT_FALSE(FileExists(P("f.txt").c_str()));
  EXPECT_EQ(FileOpen(P("f.txt").c_str(), FILE_MODE_READ, nullptr), nullptr);
  EXPECT_EQ(WinFSInit(), 0u);
  EXPECT_TRUE(FileExists(P("f.txt").c_str()));

  // A full table refuses the volume, which is not left behind.
  EXPECT_EQ(WinFSDone(), 0u);
  FSDone();
  ASSERT_EQ(FSInit(1), 0u);
  CFS* pOther = new CFS;
  ASSERT_NE(pOther, nullptr);
  ASSERT_EQ(FSAdd("x:", pOther, 0), 0u);
  DWORD dwBlocks = g_dwPtrInfoCount;
  AssertCatcher catcher;
  EXPECT_EQ(WinFSInit(), 0u);
  EXPECT_TRUE(catcher.Fired("g_pFS && g_wCount<g_wMaxFS"));
  EXPECT_EQ(g_wCount, 1);
  EXPECT_EQ(g_dwPtrInfoCount, dwBlocks);
}

TEST_F(WinFileVolumes, RootAsCurrentDirectoryEndsInTwoBackslashes) {
#ifndef _WIN32
  fs::current_path(m_prefix / "drive_c");
#else
  fs::current_path("C:\\");
#endif
  DWORD dwCount = VolEnumerate();
  ASSERT_GE(dwCount, 1u);
  EXPECT_EQ(g_btVNum, dwCount);
  EXPECT_STREQ(g_pCurVol->szPath, "C:\\\\");
  EXPECT_EQ(g_pCurVol->dwLetter, (DWORD)'C');
  EXPECT_TRUE(g_pCurVol->wFlags & DRIVE_FLAG_CURRENT);
  // The Windows directory is on C: too, so both records carry the drive's finished flags.
  EXPECT_EQ(g_pSysVol->dwLetter, (DWORD)'C');
  EXPECT_EQ(g_pSysVol->szPath[strlen(g_pSysVol->szPath) - 1], '\\');
  EXPECT_EQ(g_pSysVol->wFlags, g_pCurVol->wFlags);
  EXPECT_TRUE(g_pSysVol->wFlags & DRIVE_FLAG_SYSTEM);
  for (BYTE i = 0; i < g_btVNum; i++) {
    TDriveInfo info;
    EXPECT_EQ(VolGetInfo(i, &info), 0u);
    char szRoot[8];
    EXPECT_EQ(VolGetRoot(i, szRoot), 0u);
    EXPECT_EQ(szRoot, std::string(1, (char)info.dwLetter) + ":\\");
    EXPECT_EQ(VolCopyRoot(&info, szRoot), 0u);
    EXPECT_EQ(szRoot, std::string(1, (char)info.dwLetter) + ":\\");
    if (i > 0) {
      EXPECT_GT(info.dwLetter, g_DriveInfo[i - 1].dwLetter);
    }
    WORD wType = info.wFlags & (DRIVE_FLAG_REMOVABLE | DRIVE_FLAG_FIXED | DRIVE_FLAG_REMOTE |
                                DRIVE_FLAG_CDROM | DRIVE_FLAG_RAMDISK);
    EXPECT_TRUE(wType && !(wType & (wType - 1))) << "one type per drive: " << std::hex << info.wFlags;
    if (info.dwLetter == 'C') {
      EXPECT_EQ(info.wFlags, g_pCurVol->wFlags);
    } else {
      EXPECT_FALSE(info.wFlags & (DRIVE_FLAG_SYSTEM | DRIVE_FLAG_CURRENT));
    }
  }
}

TEST_F(WinFileVolumes, SpaceWithAndWithoutPointers) {
  ASSERT_GE(VolEnumerate(), 1u);
  EXPECT_EQ(VolGetSpace(0, nullptr, nullptr, nullptr, nullptr), 0u);
  DWORD dwTotal = 0, dwFree = 0, dwCluster = 0, dwFreeClusters = 0;
  ASSERT_EQ(VolGetSpace(0, &dwTotal, &dwFree, &dwCluster, &dwFreeClusters), 0u);
  EXPECT_GT(dwCluster, 0u);
  EXPECT_GT(dwTotal, 0u);
  EXPECT_LE(dwFree, dwTotal);
  // Free KB and free clusters come from two queries of the disk; other processes writing in
  // between may move them apart a little.
  long long llClusterKB = (long long)(((unsigned long long)dwCluster * dwFreeClusters) >> 10);
  long long llGap = (long long)dwFree - llClusterKB;
  EXPECT_LT(llGap < 0 ? -llGap : llGap, 64 * 1024)
      << "free KB " << dwFree << " from clusters " << llClusterKB;
  EXPECT_EQ(VolGetSpace(MAX_DRIVES, &dwTotal, nullptr, nullptr, nullptr), ERR_UNKNOWN);
  char szRoot[8] = "junk";
  EXPECT_EQ(VolGetRoot(MAX_DRIVES, szRoot), ERR_BADPARAM);
  EXPECT_STREQ(szRoot, "");
#ifndef _WIN32
  // The figures agree with those of df for the same directory.
  std::string cmd = "df -P -k '" + (m_prefix / "drive_c").string() + "' 2>/dev/null";
  FILE* pPipe = popen(cmd.c_str(), "r");
  ASSERT_NE(pPipe, nullptr);
  char szLine[512];
  unsigned long long qwDfTotal = 0, qwDfAvail = 0;
  int nFields = 0;
  if (fgets(szLine, sizeof(szLine), pPipe) && fgets(szLine, sizeof(szLine), pPipe))
    nFields = sscanf(szLine, "%*s %llu %*u %llu", &qwDfTotal, &qwDfAvail);
  pclose(pPipe);
  ASSERT_EQ(nFields, 2) << szLine;
  EXPECT_EQ((unsigned long long)dwTotal, qwDfTotal & 0xFFFFFFFFull);
  long long llDiff = (long long)dwFree - (long long)(qwDfAvail & 0xFFFFFFFFull);
  EXPECT_LT(llDiff < 0 ? -llDiff : llDiff, 256 * 1024) << "free KB " << dwFree << " df " << qwDfAvail;
#endif
}

#ifndef _WIN32
TEST_F(WinFileVolumes, DriveTypesAndMissingTargets) {
  // /dev/shm is a RAM disk where the mount table says it is tmpfs.
  bool bShmTmpfs = false;
  {
    std::ifstream mounts("/proc/mounts");
    std::string dev, dir, type;
    std::string rest;
    while (mounts >> dev >> dir >> type && std::getline(mounts, rest))
      if (dir == "/dev/shm") bShmTmpfs = type == "tmpfs";
  }
  if (fs::is_directory("/dev/shm")) fs::create_directory_symlink("/dev/shm", m_prefix / "dosdevices" / "d:");
  fs::create_directory_symlink(m_host / "nowhere", m_prefix / "dosdevices" / "e:");
  DWORD dwCount = VolEnumerate();
  bool bSawD = false;
  for (BYTE i = 0; i < dwCount; i++) {
    EXPECT_NE(g_DriveInfo[i].dwLetter, (DWORD)'E') << "a drive whose target is missing is not listed";
    if (g_DriveInfo[i].dwLetter == 'D') {
      bSawD = true;
      if (bShmTmpfs) {
        EXPECT_EQ(g_DriveInfo[i].wFlags, DRIVE_FLAG_RAMDISK);
      }
    }
  }
  EXPECT_EQ(bSawD, fs::is_directory("/dev/shm"));
}

TEST_F(WinFileVolumes, DirectoriesUnderNoDriveAreHostPaths) {
  fs::create_directories(m_host / "outside");
  Put(m_host / "outside" / "install.ini", "[x]");
  fs::current_path(m_host / "outside");
  VolEnumerate();
  std::string want = fs::canonical(m_host / "outside").string() + "/";
  std::replace(want.begin(), want.end(), '/', '\\');
  EXPECT_EQ(std::string(g_pCurVol->szPath), want);
  EXPECT_EQ(g_pCurVol->dwLetter, (DWORD)'\\');
  EXPECT_EQ(g_pCurVol->wFlags, 0u);
  EXPECT_TRUE(FileExists((std::string(g_pCurVol->szPath) + "install.ini").c_str()));

  // The program's directory: the test program itself is found through it.
  std::string exeDir = g_pExeVol->szPath;
  ASSERT_FALSE(exeDir.empty());
  EXPECT_EQ(exeDir.back(), '\\');
  std::string exeName = fs::read_symlink("/proc/self/exe").filename().string();
  EXPECT_TRUE(FileExists((exeDir + exeName).c_str())) << exeDir << exeName;

  // Under a mapped drive the same directory is a drive path.
  fs::create_directory_symlink(m_host, m_prefix / "dosdevices" / "m:");
  VolEnumerate();
  EXPECT_STREQ(g_pCurVol->szPath, "M:\\outside\\");
  EXPECT_EQ(g_pCurVol->dwLetter, (DWORD)'M');
  EXPECT_TRUE(g_pCurVol->wFlags & DRIVE_FLAG_CURRENT);

  // The limit of 128 bytes holds a path of 127 characters, which leaves no room for the
  // backslash; one more character and the record stays empty but for the backslash.
  for (size_t nLen : {126u, 127u, 128u}) {
    std::string name((size_t)(nLen - strlen("M:\\outside\\")), 'd');
    fs::create_directories(m_host / "outside" / name);
    fs::current_path(m_host / "outside" / name);
    VolEnumerate();
    std::string path = "M:\\outside\\" + name;
    ASSERT_EQ(path.size(), nLen);
    std::string want = nLen == 126 ? path + "\\" : nLen == 127 ? path : "\\";
    EXPECT_EQ(std::string(g_pCurVol->szPath), want) << nLen;
  }
}
#endif
