// Tests of the file base class, the volume table and the free file functions.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "base/memalloc.h"
#include "files/file.h"
#include "testfile.h"
#include "testutil.h"

namespace {

// A volume that records what it was asked, and counts its deletions.
class CRecFS : public CFS {
 public:
  explicit CRecFS(const char* pchTag) : m_pchTag(pchTag) {}
  ~CRecFS() override { s_nDeleted++; }
  CFile* Open(const char* pchPath, WORD wMode, ERR* pErr) override {
    Note("Open", pchPath);
    m_wMode = wMode;
    if (pErr) *pErr = 0x1234;
    return 0;
  }
  BOOL Exists(const char* pchPath) override {
    Note("Exists", pchPath);
    return 7;
  }
  ERR Delete(const char* pchPath) override {
    Note("Delete", pchPath);
    return 0x11;
  }
  ERR Rename(const char* pchOld, const char* pchNew) override {
    Note("Rename", std::string(pchOld) + ">" + pchNew);
    return 0x12;
  }
  ERR CreateDir(const char* pPath, const char* pDirName) override {
    Note("CreateDir", std::string(pPath) + "|" + pDirName);
    return 0x13;
  }
  ERR RemoveDir(const char* pPath, const char* pDirName) override {
    Note("RemoveDir", std::string(pPath) + "|" + pDirName);
    return 0x14;
  }
  ERR FindFirst(TFindInfo* pInfo, const char* pPath) override {
    Note("FindFirst", pPath);
    pInfo->pFS = this;
    return 0x15;
  }
  ERR FindNext(TFindInfo* pInfo) override {
    Note("FindNext", "");
    return 0x16;
  }
  ERR FindClose(TFindInfo* pInfo) override {
    Note("FindClose", "");
    return 0x17;
  }

  void Note(const char* pchOp, const std::string& path) {
    m_calls.push_back(std::string(pchOp) + ":" + path);
  }
  const char* m_pchTag;
  std::vector<std::string> m_calls;
  WORD m_wMode = 0;
  static int s_nDeleted;
};
int CRecFS::s_nDeleted = 0;

// Each test starts with an empty table of five records and ends with everything released.
class FileTable : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dwMemBefore = g_dwPtrMemUsed;
    CRecFS::s_nDeleted = 0;
    ASSERT_EQ(FSInit(5), 0u);
  }
  void TearDown() override {
    FSDone();
    EXPECT_EQ(g_dwPtrMemUsed, m_dwMemBefore) << "the table and its volumes are not all freed";
  }
  // Registers a new recording volume under pchName.
  CRecFS* Add(const char* pchName) {
    CRecFS* pVol = new CRecFS(pchName);
    EXPECT_NE(pVol, nullptr);
    EXPECT_EQ(FSAdd(pchName, pVol, 0), 0u);
    return pVol;
  }
  // The volume chosen for pchPath and the path it would receive.
  CFS* Find(const char* pchPath, std::string* pRest) {
    const char* pch = pchPath;
    WORD wMax = 0xFFFF, wIndex = 0;
    CFS* pVol = FSFind(&pch, &wMax, &wIndex);
    if (pRest) *pRest = pVol ? pch : "";
    return pVol;
  }
  DWORD m_dwMemBefore = 0;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Selection of a volume by prefix.

TEST_F(FileTable, LongestPrefixWinsWithoutRegardToCase) {
  FSDone();  // a table of eight for the six prefixes
  ASSERT_EQ(FSInit(8), 0u);
  for (const char* pch : {"", "LZSS:", "pak:\\", "pak1:\\", "cd:", "cd:\\sub\\"}) Add(pch);
  const struct {
    const char* path;
    const char* vol;  // the prefix of the volume chosen
    const char* rest;
  } cases[] = {
      {"LZSS:a.bin", "LZSS:", "a.bin"},
      {"a.bin", "", "a.bin"},
      {"LZSS", "", "LZSS"},  // shorter than the prefix that it starts
      {"lzss:a.bin", "LZSS:", "a.bin"},
      {"LzSs:B", "LZSS:", "B"},
      {"PAK:\\x", "pak:\\", "x"},
      {"pak1:\\x", "pak1:\\", "x"},
      {"pak:\\data\\a.bmp", "pak:\\", "data\\a.bmp"},
      {"pak:x", "", "pak:x"},  // no notion of separators
      {"cd:\\sub\\f", "cd:\\sub\\", "f"},
      {"CD:\\SUB\\f", "cd:\\sub\\", "f"},
      {"cd:\\other", "cd:", "\\other"},
  };
  for (const auto& c : cases) {
    std::string rest;
    CRecFS* pVol = static_cast<CRecFS*>(Find(c.path, &rest));
    ASSERT_NE(pVol, nullptr) << c.path;
    EXPECT_STREQ(pVol->m_pchTag, c.vol) << c.path;
    EXPECT_EQ(rest, c.rest) << c.path;
  }
  // Without the empty prefix, a path no prefix matches has no volume.
  delete FSRemove("");
  EXPECT_EQ(Find("c:\\a.bin", nullptr), nullptr);
}

TEST_F(FileTable, FindReportsIndexAndLengthAndHonoursLimit) {
  Add("");
  Add("ab");
  CRecFS* pAbc = Add("abc");
  // Sorted: "", "ab", "abc".
  const char* pch = "abcd";
  WORD wMax = 0xFFFF, wIndex = 0;
  EXPECT_EQ(FSFind(&pch, &wMax, &wIndex), pAbc);
  EXPECT_EQ(wIndex, 2);
  EXPECT_EQ(wMax, 3);
  EXPECT_STREQ(pch, "d");

  // A limit of 2 stops the scan at the first longer candidate.
  pch = "abcd";
  wMax = 2;
  wIndex = 0;
  EXPECT_EQ(FSFind(&pch, &wMax, &wIndex), g_pFS[1].pVol);
  EXPECT_EQ(wIndex, 1);
  EXPECT_EQ(wMax, 2);
  EXPECT_STREQ(pch, "cd");

  // Starting past the empty prefix, a path that matches nothing finds nothing.
  pch = "zz";
  wMax = 0xFFFF;
  wIndex = 1;
  EXPECT_EQ(FSFind(&pch, &wMax, &wIndex), nullptr);
  EXPECT_STREQ(pch, "zz");
}

// ---------------------------------------------------------------------------------------------
// Table management.

TEST_F(FileTable, RecordsAreSortedWithoutRegardToCaseAndKeptByPointer) {
  Add("pak:\\");
  Add("LZSS:");
  Add("");
  static const char szName[] = "Cd:";
  CRecFS* pVol = new CRecFS("x");
  ASSERT_NE(pVol, nullptr);
  EXPECT_EQ(FSAdd(szName, pVol, 0xABCD), 0u);
  ASSERT_EQ(g_wCount, 4);
  EXPECT_STREQ(g_pFS[0].pchName, "");
  EXPECT_EQ(g_pFS[1].pchName, szName);
  EXPECT_EQ(g_pFS[1].dwFlags, 0xABCDu);
  EXPECT_EQ(g_pFS[1].pVol, pVol);
  EXPECT_STREQ(g_pFS[2].pchName, "LZSS:");
  EXPECT_STREQ(g_pFS[3].pchName, "pak:\\");
}

TEST_F(FileTable, DuplicatePrefixAsserts) {
  CRecFS* pFirst = Add("LZSS:");
  AssertCatcher catcher;
  CRecFS* pSecond = Add("lzss:");
  ASSERT_EQ(catcher.Count(), 1u);
  EXPECT_TRUE(catcher.Fired(": n\n")) << catcher.Texts()[0];
  EXPECT_EQ(g_wCount, 2);
  // The older record stays first and keeps winning.
  EXPECT_EQ(Find("LZSS:a", nullptr), pFirst);
  EXPECT_EQ(g_pFS[1].pVol, pSecond);
}

TEST_F(FileTable, FullTableAssertsAndRefuses) {
  Add("a");
  Add("b");
  Add("c");
  Add("d");
  Add("e");
  CRecFS* pExtra = new CRecFS("f");
  ASSERT_NE(pExtra, nullptr);
  {
    AssertCatcher catcher;
    EXPECT_EQ(FSAdd("", pExtra, 0), ERR_OUTOFRANGE);
    EXPECT_TRUE(catcher.Fired("g_pFS && g_wCount<g_wMaxFS"));
  }
  EXPECT_EQ(g_wCount, 5);
  for (WORD i = 0; i < g_wCount; i++) EXPECT_NE(g_pFS[i].pVol, pExtra);
  // The refused volume is still the caller's.
  delete pExtra;
}

TEST_F(FileTable, RemoveTakesOutAnExactPrefixAndClosesTheGap) {
  CRecFS* pNative = Add("");
  CRecFS* pLzss = Add("LZSS:");
  CRecFS* pPak = Add("pak:\\");
  CRecFS* pZ = Add("z:");
  // A longer name that begins with a registered prefix removes nothing.
  EXPECT_EQ(FSRemove("pak:\\data"), nullptr);
  EXPECT_EQ(FSRemove("pak1:\\"), nullptr);
  EXPECT_EQ(g_wCount, 4);
  // The exact prefix, in any case; the later records move up in order.
  EXPECT_EQ(FSRemove("PAK:\\"), pPak);
  delete pPak;
  ASSERT_EQ(g_wCount, 3);
  EXPECT_EQ(g_pFS[2].pVol, pZ);
  EXPECT_EQ(Find("pak:\\x", nullptr), pNative);
  EXPECT_EQ(Find("z:x", nullptr), pZ);
  // The empty name takes the native volume.
  EXPECT_EQ(FSRemove(""), pNative);
  delete pNative;
  ASSERT_EQ(g_wCount, 2);
  EXPECT_EQ(g_pFS[0].pVol, pLzss);
  EXPECT_EQ(Find("a.bin", nullptr), nullptr);
}

TEST_F(FileTable, DoneDeletesRegisteredVolumesAndKeepsCount) {
  Add("");
  Add("LZSS:");
  Add("pak:\\");
  FSDone();
  EXPECT_EQ(CRecFS::s_nDeleted, 3);
  EXPECT_EQ(g_pFS, nullptr);
  EXPECT_EQ(g_wCount, 3);
  EXPECT_EQ(g_pSysVol, nullptr);
  // No table: nothing is found, and a second FSDone is harmless.
  EXPECT_EQ(Find("a", nullptr), nullptr);
  FSDone();
  EXPECT_EQ(CRecFS::s_nDeleted, 3);
}

TEST_F(FileTable, InitClearsDriveTablesAndRegistersTexts) {
  g_btVNum = 3;
  g_DriveInfo[2].dwLetter = 'E';
  FSDone();
  ASSERT_EQ(FSInit(5), 0u);
  EXPECT_EQ(g_btVNum, 0);
  EXPECT_EQ(g_DriveInfo[2].dwLetter, 0u);
  ASSERT_NE(g_pSysVol, nullptr);
  ASSERT_NE(g_pCurVol, nullptr);
  ASSERT_NE(g_pExeVol, nullptr);
  EXPECT_EQ(g_pSysVol->szPath[0], 0);
  EXPECT_EQ(g_pCurVol->wFlags, 0);
  EXPECT_EQ(g_wMaxFS, 5);
  EXPECT_EQ(g_wCount, 0);

  EXPECT_STREQ(ErrGetModule(ERR_FILE_EOF), "FILES");
  EXPECT_STREQ(ErrGetText(ERR_FILE_GENERAL), "General file service error");
  EXPECT_STREQ(ErrGetText(ERR_FILE_EOF), "End of file");
  EXPECT_STREQ(ErrGetText(ERR_FILE_EXIST), "File exist");
  EXPECT_STREQ(ErrGetText(ERR_FILE_UNKNOWNPID), "Unknown PID");
  EXPECT_EQ(ErrGetText(ERR_FILE_ALREADYEXISTS), nullptr);
  EXPECT_EQ(ErrGetText(0x30000002u), nullptr);
  EXPECT_EQ(ErrGetText(0x30000015u), nullptr);
}

TEST_F(FileTable, VolGetInfoCopiesARecord) {
  g_btVNum = 2;
  g_DriveInfo[1].dwLetter = 'D';
  g_DriveInfo[1].wFlags = DRIVE_FLAG_CDROM;
  strcpy(g_DriveInfo[1].szRoot, "D:\\");
  TDriveInfo info;
  memset(&info, 0xEE, sizeof(info));
  EXPECT_EQ(VolGetInfo(1, &info), 0u);
  EXPECT_EQ(info.dwLetter, static_cast<DWORD>('D'));
  EXPECT_EQ(info.wFlags, DRIVE_FLAG_CDROM);
  EXPECT_STREQ(info.szRoot, "D:\\");

  AssertCatcher catcher;
  EXPECT_EQ(VolGetInfo(2, &info), 0u);
  EXPECT_TRUE(catcher.Fired("btNum<g_btVNum"));
  // Far outside the table: asserts and reads nothing.
  memset(&info, 0xEE, sizeof(info));
  VolGetInfo(200, &info);
  EXPECT_EQ(info.dwLetter, 0xEEEEEEEEu);
}

// ---------------------------------------------------------------------------------------------
// Free functions.

TEST_F(FileTable, FreeFunctionsPassTheRestOfThePath) {
  CRecFS* pNative = Add("");
  CRecFS* pLzss = Add("LZSS:");
  EXPECT_EQ(g_pfnFileOpen, &FileOpen);
  ERR err = 0;
  EXPECT_EQ(g_pfnFileOpen("lzss:c:\\x.bin", 0x1E, &err), nullptr);
  EXPECT_EQ(err, 0x1234u);
  EXPECT_EQ(pLzss->m_wMode, 0x1E);
  EXPECT_EQ(FileExists("c:\\a"), 7);
  EXPECT_EQ(FileDelete("LZSS:d"), 0x11u);
  EXPECT_EQ(DirCreate("c:\\games", "new"), 0x13u);
  EXPECT_EQ(DirRemove("LZSS:c:\\g", "old"), 0x14u);
  TFindInfo fi;
  memset(&fi, 0, sizeof(fi));
  EXPECT_EQ(FileFindFirst(&fi, "LZSS:dir"), 0x15u);
  EXPECT_EQ(FileFindNext(&fi), 0x16u);
  EXPECT_EQ(FileFindClose(&fi), 0x17u);

  // A rename needs both paths on one volume; each loses its own prefix.
  EXPECT_EQ(FileRename("LZSS:a", "c:\\b"), ERR_NOTIMPL);
  EXPECT_EQ(FileRename("c:\\b", "LZSS:a"), ERR_NOTIMPL);
  EXPECT_EQ(FileRename("lzss:a", "LZSS:b"), 0x12u);

  EXPECT_EQ(pNative->m_calls, (std::vector<std::string>{"Exists:c:\\a", "CreateDir:c:\\games|new"}));
  EXPECT_EQ(pLzss->m_calls,
            (std::vector<std::string>{"Open:c:\\x.bin", "Delete:d", "RemoveDir:c:\\g|old", "FindFirst:dir",
                                      "FindNext:", "FindClose:", "Rename:a>b"}));
}

TEST_F(FileTable, FreeFunctionsWithoutVolume) {
  Add("LZSS:");
  ERR err = 0x5555;
  EXPECT_EQ(FileOpen("c:\\a", 1, &err), nullptr);
  EXPECT_EQ(err, 0x5555u);
  EXPECT_EQ(FileExists("c:\\a"), 0);
  EXPECT_EQ(FileDelete("c:\\a"), ERR_FILE_GENERAL);
  EXPECT_EQ(FileRename("c:\\a", "c:\\b"), ERR_NOTIMPL);
  EXPECT_EQ(DirCreate("c:\\", "a"), ERR_FILE_GENERAL);
  EXPECT_EQ(DirRemove("c:\\", "a"), ERR_FILE_GENERAL);
  TFindInfo fi;
  memset(&fi, 0, sizeof(fi));
  EXPECT_EQ(FileFindFirst(&fi, "c:\\"), ERR_FILE_GENERAL);
  EXPECT_EQ(FileFindNext(&fi), ERR_FILE_GENERAL);
  EXPECT_EQ(FileFindClose(&fi), ERR_FILE_GENERAL);
}

// ---------------------------------------------------------------------------------------------
// The base class.

TEST(FileBase, DefaultsOfTheBaseClass) {
  CFile file;
  BYTE buf[4];
  DWORD dw = 99;
  EXPECT_EQ(file.GetMode(), 0);
  EXPECT_EQ(file.IsValid(), 0);
  EXPECT_EQ(file.Read(buf, 4, &dw), 0u);
  EXPECT_EQ(file.Write(buf, 4, nullptr), 0u);
  EXPECT_EQ(file.Seek(10, FILE_END), 0u);
  EXPECT_EQ(file.GetSize(), 0u);
  EXPECT_EQ(file.GetPos(), 0u);
  EXPECT_EQ(file.Flush(), 0u);
  EXPECT_EQ(file.Truncate(), 0u);
  EXPECT_EQ(file.GetBase(), 0u);
  EXPECT_EQ(file.Reserved(), 0u);
  EXPECT_EQ(file.GetProperty(1, &dw, 4), ERR_FILE_UNKNOWNPID);
  EXPECT_EQ(file.SetProperty(1, &dw, 4), ERR_FILE_UNKNOWNPID);
  EXPECT_STREQ(file.GetClassName(), "CFile");
  EXPECT_EQ(file.Cast(file.GetClassId()), &file);

  CFS fs;
  ERR err = 1;
  EXPECT_EQ(fs.Open("a", 1, &err), nullptr);
  EXPECT_EQ(fs.Exists("a"), 0);
  EXPECT_EQ(fs.Delete("a"), ERR_NOTIMPL);
  EXPECT_EQ(fs.Rename("a", "b"), ERR_NOTIMPL);
  EXPECT_EQ(fs.CreateDir("a", "b"), ERR_NOTIMPL);
  EXPECT_EQ(fs.RemoveDir("a", "b"), ERR_NOTIMPL);
  EXPECT_EQ(fs.FindFirst(nullptr, "a"), ERR_NOTIMPL);
  EXPECT_EQ(fs.ReservedOp1("a", 0, 0), ERR_NOTIMPL);
  EXPECT_EQ(fs.GetFileOffset("a", &err), 0u);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(fs.GetFileOffset("a", nullptr), 0u);
  EXPECT_NE(fs.GetClassId(), file.GetClassId());
}

TEST(FileBase, PositionedAccessSeeksFirst) {
  CTestFile file(std::vector<BYTE>{1, 2, 3, 4, 5, 6});
  BYTE buf[3] = {0};
  DWORD dwRead = 0;
  EXPECT_EQ(file.ReadAt(buf, 2, 3, &dwRead), 0u);
  EXPECT_EQ(dwRead, 3u);
  EXPECT_EQ(buf[0], 3);
  EXPECT_EQ(buf[2], 5);
  EXPECT_EQ(file.ReadAt(buf, 4, 3, &dwRead), ERR_FILE_EOF);
  EXPECT_EQ(dwRead, 2u);
  const BYTE w[2] = {9, 8};
  EXPECT_EQ(file.WriteAt(w, 1, 2, nullptr), 0u);
  EXPECT_EQ(file.m_data, (std::vector<BYTE>{1, 9, 8, 4, 5, 6}));

  // A failed seek is returned and nothing is read or written.
  file.m_errSeek = ERR_FILE_SEEK;
  EXPECT_EQ(file.ReadAt(buf, 0, 1, nullptr), ERR_FILE_SEEK);
  EXPECT_EQ(file.WriteAt(w, 0, 1, nullptr), ERR_FILE_SEEK);
  EXPECT_EQ(file.m_nReads, 2);
  EXPECT_EQ(file.m_nWrites, 1);
}

// ---------------------------------------------------------------------------------------------
// Move.

namespace {
std::vector<BYTE> Pattern(size_t n) {
  std::vector<BYTE> v(n);
  for (size_t i = 0; i < n; i++) v[i] = static_cast<BYTE>(i * 7 + 1);
  return v;
}
// What a move of count bytes from src to dest does to data, computed independently.
std::vector<BYTE> Expected(std::vector<BYTE> v, size_t dest, size_t src, size_t count) {
  if (src > v.size()) return v;
  if (count > v.size() - src) count = v.size() - src;
  std::vector<BYTE> part(v.begin() + src, v.begin() + src + count);
  if (dest + count > v.size()) v.resize(dest + count);
  std::copy(part.begin(), part.end(), v.begin() + dest);
  return v;
}
}  // namespace

TEST(FileMove, MovesInChunksInEitherDirectionCutAtTheEnd) {
  const struct {
    size_t size;
    DWORD dest, src, count, buf;
    size_t moved;  // what is left of count inside the file
  } cases[] = {
      {100, 10, 30, 50, 7, 50},
      // Destination above the source with overlapping ranges: copying from the start would
      // smear the first chunk over the rest.
      {100, 30, 10, 50, 1, 50},
      {100, 30, 10, 50, 3, 50},
      {100, 30, 10, 50, 16, 50},
      {100, 30, 10, 50, 200, 50},
      {50, 0, 40, 1000, 8, 10},
      {50, 1, 45, 0xFFFFFFF0u, 8, 5},  // a count that would wrap past 4 GiB
      {20, 0, 21, 5, 8, 0},            // source beyond the end
      {20, 0, 20, 5, 8, 0},            // source at the end
      {20, 0, 3, 0, 8, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.dest << " <- " << c.src << " x " << c.count << " buffer " << c.buf);
    CTestFile file(Pattern(c.size));
    EXPECT_EQ(file.Move(c.dest, c.src, c.count, c.buf, nullptr), 0u);
    EXPECT_EQ(file.m_data, Expected(Pattern(c.size), c.dest, c.src, c.moved));
    if (c.moved == 0) {
      EXPECT_EQ(file.m_nReads + file.m_nWrites, 0);
    }
  }
  // The caller's buffer is used: the last chunk of a backward move is the range's first bytes.
  CTestFile file(Pattern(64));
  BYTE buf[5] = {};
  EXPECT_EQ(file.Move(20, 2, 40, sizeof(buf), buf), 0u);
  EXPECT_EQ(file.m_data, Expected(Pattern(64), 20, 2, 40));
  EXPECT_EQ(buf[0], Pattern(64)[2]);
}

TEST(FileMove, FailingDiskIsNotReported) {
  CTestFile file(Pattern(40));
  file.m_nFailAfter = 3;  // the first chunk moves, the second chunk's write fails
  EXPECT_EQ(file.Move(0, 10, 30, 4, nullptr), 0u);
  EXPECT_EQ(file.m_nReads, 2);
  EXPECT_EQ(file.m_nWrites, 2);
  std::vector<BYTE> want = Pattern(40);
  std::copy(want.begin() + 10, want.begin() + 14, want.begin());
  EXPECT_EQ(file.m_data, want);
}

TEST(FileMove, FailedAllocation) {
  CTestFile file(Pattern(20));
  DWORD dwOld = g_dwPtrMemLimit;
  g_dwPtrMemLimit = g_dwPtrMemUsed;  // no room for the buffer
  EXPECT_EQ(file.Move(0, 5, 10, 4, nullptr), ERR_FILE_NOMEM);
  g_dwPtrMemLimit = dwOld;
  EXPECT_EQ(file.m_data, Pattern(20));
}

// ---------------------------------------------------------------------------------------------
// Memory images.

TEST(FileImage, ImageIsACopyOfTheRange) {
  DWORD dwMem = g_dwPtrMemUsed;
  CTestFile file(Pattern(30));
  void* pImage = nullptr;
  EXPECT_EQ(file.LoadImage(5, 10, &pImage), 0u);
  ASSERT_NE(pImage, nullptr);
  EXPECT_EQ(file.Images(), 1);
  EXPECT_EQ(memcmp(pImage, Pattern(30).data() + 5, 10), 0);
  // A copy: writing to it leaves the file alone.
  static_cast<BYTE*>(pImage)[0] ^= 0xFF;
  EXPECT_EQ(file.m_data, Pattern(30));
  EXPECT_EQ(file.FreeImage(pImage), 0u);
  EXPECT_EQ(file.Images(), 0);
  // A failed read frees the image.
  pImage = &file;
  EXPECT_EQ(file.LoadImage(25, 10, &pImage), ERR_FILE_EOF);
  EXPECT_EQ(pImage, nullptr);
  EXPECT_EQ(file.Images(), 0);
  EXPECT_EQ(g_dwPtrMemUsed, dwMem);
}

TEST(FileImage, ReleaseWithoutImageAndDestroyWithImageOutAssert) {
  CTestFile* pFile = new CTestFile(Pattern(16));
  ASSERT_NE(pFile, nullptr);
  AssertCatcher catcher;
  EXPECT_EQ(pFile->FreeImage(nullptr), 0u);
  EXPECT_TRUE(catcher.Fired("pImage"));
  EXPECT_TRUE(catcher.Fired("m_nMemImages"));
  // The count still goes down: the next image only brings it back to 0.
  EXPECT_EQ(pFile->Images(), -1);
  void* pImage = nullptr;
  ASSERT_EQ(pFile->LoadImage(0, 4, &pImage), 0u);
  EXPECT_EQ(pFile->Images(), 0);
  MEM_FREE(pImage);
  ASSERT_EQ(pFile->LoadImage(0, 4, &pImage), 0u);
  catcher.Clear();
  delete pFile;
  ASSERT_EQ(catcher.Count(), 1u);
  EXPECT_TRUE(catcher.Fired("!m_nMemImages"));
  MEM_FREE(pImage);
}
