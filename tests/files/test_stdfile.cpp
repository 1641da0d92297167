// Tests of the volume and file over the C runtime's buffered streams.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "files/stdfile.h"
#include "testutil.h"

namespace fs = std::filesystem;

namespace {

std::vector<BYTE> Pattern(size_t n) {
  std::vector<BYTE> v(n);
  for (size_t i = 0; i < n; i++) v[i] = static_cast<BYTE>((i * 131) ^ (i >> 8));
  return v;
}

// A fresh directory per test, removed afterwards.
class StdFile : public ::testing::Test {
 protected:
  void SetUp() override {
    const ::testing::TestInfo* pInfo = ::testing::UnitTest::GetInstance()->current_test_info();
    m_dir = fs::temp_directory_path() / (std::string("setup_stdfile_") + pInfo->name());
    fs::remove_all(m_dir);
    fs::create_directories(m_dir);
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(m_dir, ec);
  }
  std::string Path(const char* pchName) const { return (m_dir / pchName).string(); }
  void Put(const char* pchName, const std::vector<BYTE>& data) const {
    std::ofstream out(Path(pchName), std::ios::binary);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  }
  std::vector<BYTE> Get(const char* pchName) const {
    std::ifstream in(Path(pchName), std::ios::binary);
    return std::vector<BYTE>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  // Opens through a CStdFS and checks the stored result.
  CFile* Open(const char* pchName, WORD wMode, ERR errWant) {
    CStdFS vol;
    ERR err = 0xDEAD;
    CFile* pFile = vol.Open(Path(pchName).c_str(), wMode, &err);
    EXPECT_EQ(err, errWant) << "mode " << wMode;
    EXPECT_EQ(pFile != nullptr, errWant == 0);
    return pFile;
  }
  fs::path m_dir;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Open modes.

TEST_F(StdFile, OpenModes) {
  EXPECT_EQ(Open("missing.bin", FILE_MODE_READ, ERR_STDFILE_OPEN), nullptr);
  EXPECT_EQ(Open("missing.bin", FILE_MODE_READWRITE, ERR_STDFILE_OPEN), nullptr);
  EXPECT_FALSE(fs::exists(Path("missing.bin")));

  Put("a.bin", {1, 2, 3});
  CFile* pFile = Open("a.bin", FILE_MODE_READ, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetMode(), FILE_MODE_READ);
  EXPECT_TRUE(pFile->IsValid());
  BYTE buf[3] = {0};
  EXPECT_EQ(pFile->Read(buf, 3, nullptr), 0u);
  EXPECT_EQ(buf[2], 3);
  // A read-only stream refuses writes, and nothing was written.
  DWORD dw = 77;
  EXPECT_EQ(pFile->WriteAt(buf, 0, 3, &dw), ERR_STDFILE_WRITE);
  EXPECT_EQ(dw, 0u);
  delete pFile;
  EXPECT_EQ(Get("a.bin"), (std::vector<BYTE>{1, 2, 3}));

  // Read and write keeps the contents.
  Put("a.bin", {1, 2, 3, 4, 5});
  pFile = Open("a.bin", FILE_MODE_READWRITE, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetSize(), 5u);
  const BYTE w[2] = {9, 9};
  EXPECT_EQ(pFile->WriteAt(w, 1, 2, nullptr), 0u);
  BYTE r[5] = {0};
  EXPECT_EQ(pFile->ReadAt(r, 0, 5, nullptr), 0u);
  EXPECT_EQ(std::vector<BYTE>(r, r + 5), (std::vector<BYTE>{1, 9, 9, 4, 5}));
  delete pFile;
  EXPECT_EQ(Get("a.bin"), (std::vector<BYTE>{1, 9, 9, 4, 5}));

  // Create makes or empties the file.
  pFile = Open("new.bin", FILE_MODE_CREATE, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetSize(), 0u);
  EXPECT_EQ(pFile->Write("\7\10\11", 3, nullptr), 0u);
  delete pFile;
  EXPECT_EQ(Get("new.bin"), (std::vector<BYTE>{7, 8, 9}));

  Put("old.bin", Pattern(100));
  pFile = Open("old.bin", FILE_MODE_CREATE, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetSize(), 0u);
  delete pFile;
  EXPECT_TRUE(Get("old.bin").empty());
}

TEST_F(StdFile, OtherModesAndOperationsAreRefused) {
  for (WORD wMode : {0x1E, 0x00, 0x02, 0x04, 0x07, 0x0E, 0x1F, 0x41}) {
    EXPECT_EQ(Open("x.bin", wMode, ERR_STDFILE_BADMODE), nullptr);
    EXPECT_FALSE(fs::exists(Path("x.bin"))) << "mode " << wMode;
  }
  EXPECT_EQ(ERR_STDFILE_BADMODE, 0x00050001u);
  // The result may be thrown away.
  CStdFS vol;
  EXPECT_EQ(vol.Open(Path("x.bin").c_str(), 0x1E, nullptr), nullptr);
  EXPECT_EQ(vol.Open(Path("x.bin").c_str(), 1, nullptr), nullptr);
  // Open is all the volume does.
  Put("a.bin", {1});
  EXPECT_EQ(vol.Exists(Path("a.bin").c_str()), 0);
  EXPECT_EQ(vol.Delete(Path("a.bin").c_str()), ERR_NOTIMPL);
  EXPECT_TRUE(fs::exists(Path("a.bin")));
  EXPECT_EQ(vol.CreateDir(m_dir.string().c_str(), "d"), ERR_NOTIMPL);
  EXPECT_STREQ(vol.GetClassName(), "CStdFS");
  EXPECT_NE(vol.Cast(CFS().GetClassId()), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Reading and writing.

TEST_F(StdFile, ShortReadAtTheEnd) {
  Put("a.bin", Pattern(14));
  CFile* pFile = Open("a.bin", FILE_MODE_READ, 0);
  ASSERT_NE(pFile, nullptr);
  BYTE buf[10];
  DWORD dwRead = 0;
  EXPECT_EQ(pFile->ReadAt(buf, 10, 10, &dwRead), ERR_FILE_EOF);
  EXPECT_EQ(dwRead, 4u);
  EXPECT_EQ(memcmp(buf, Pattern(14).data() + 10, 4), 0);
  // No count pointer: the same result.
  EXPECT_EQ(pFile->ReadAt(buf, 12, 10, nullptr), ERR_FILE_EOF);
  // Nothing asked, nothing wrong, even at the end.
  dwRead = 5;
  EXPECT_EQ(pFile->Read(buf, 0, &dwRead), 0u);
  EXPECT_EQ(dwRead, 0u);
  delete pFile;
  // The end inside the first, then the second, of several chunks: the count is what arrived.
  std::vector<BYTE> big(4 * STDFILE_CHUNK);
  for (DWORD n : {(DWORD)300, (DWORD)STDFILE_CHUNK + 5}) {
    Put("b.bin", Pattern(n));
    pFile = Open("b.bin", FILE_MODE_READ, 0);
    ASSERT_NE(pFile, nullptr);
    EXPECT_EQ(pFile->Read(big.data(), static_cast<DWORD>(big.size()), &dwRead), ERR_FILE_EOF);
    EXPECT_EQ(dwRead, n);
    EXPECT_EQ(memcmp(big.data(), Pattern(n).data(), n), 0);
    delete pFile;
  }
}

TEST_F(StdFile, ShortReadThatIsNotTheEnd) {
  // A stream opened for writing only fails to read without reaching its end.
  FILE* pStream = fopen(Path("w.bin").c_str(), "wb");
  ASSERT_NE(pStream, nullptr);
  CStdFile file(pStream, FILE_MODE_CREATE);
  BYTE buf[8];
  DWORD dwRead = 99;
  EXPECT_EQ(file.Read(buf, 8, &dwRead), ERR_STDFILE_READ);
  EXPECT_EQ(dwRead, 0u);
}

TEST_F(StdFile, LargeTransfersCrossChunks) {
  // Three full chunks and a part, both ways.
  const size_t n = 3 * STDFILE_CHUNK + 1234;
  std::vector<BYTE> data = Pattern(n);
  CFile* pFile = Open("big.bin", FILE_MODE_CREATE, 0);
  ASSERT_NE(pFile, nullptr);
  DWORD dw = 0;
  EXPECT_EQ(pFile->Write(data.data(), static_cast<DWORD>(n), &dw), 0u);
  EXPECT_EQ(dw, n);
  EXPECT_EQ(pFile->GetSize(), n);
  std::vector<BYTE> back(n + 100, 0);
  EXPECT_EQ(pFile->ReadAt(back.data(), 0, static_cast<DWORD>(n), &dw), 0u);
  EXPECT_EQ(dw, n);
  back.resize(n);
  EXPECT_EQ(back, data);
  delete pFile;
  EXPECT_EQ(Get("big.bin"), data);
}

// ---------------------------------------------------------------------------------------------
// Position, size and the rest.

TEST_F(StdFile, SeekOriginsAndSizeKeepPosition) {
  Put("a.bin", Pattern(50));
  CFile* pFile = Open("a.bin", FILE_MODE_READWRITE, 0);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->Seek(10, FILE_BEGIN), 0u);
  EXPECT_EQ(pFile->GetPos(), 10u);
  EXPECT_EQ(pFile->Seek(5, FILE_CURRENT), 0u);
  EXPECT_EQ(pFile->GetPos(), 15u);
  EXPECT_EQ(pFile->GetSize(), 50u);
  EXPECT_EQ(pFile->GetPos(), 15u);
  EXPECT_EQ(pFile->Seek(-8, FILE_END), 0u);
  EXPECT_EQ(pFile->GetPos(), 42u);
  BYTE b = 0;
  EXPECT_EQ(pFile->Read(&b, 1, nullptr), 0u);
  EXPECT_EQ(b, Pattern(50)[42]);
  // Writing past the end grows the file.
  EXPECT_EQ(pFile->Seek(0, FILE_END), 0u);
  EXPECT_EQ(pFile->Write(&b, 1, nullptr), 0u);
  EXPECT_EQ(pFile->Flush(), 0u);
  EXPECT_EQ(pFile->GetSize(), 51u);
  EXPECT_EQ(Get("a.bin").size(), 51u);
  // Truncate cannot cut a stream.
  EXPECT_EQ(pFile->Seek(3, FILE_BEGIN), 0u);
  EXPECT_EQ(pFile->Truncate(), 0u);
  EXPECT_EQ(pFile->GetSize(), 51u);
  delete pFile;
}

TEST_F(StdFile, NullStreamAssertsAndStaysSafe) {
  AssertCatcher catcher;
  {
    CStdFile file(nullptr, FILE_MODE_READ);
    EXPECT_TRUE(catcher.Fired("pFile"));
    EXPECT_FALSE(file.IsValid());
    BYTE buf[4];
    DWORD dw = 9;
    EXPECT_EQ(file.Read(buf, 4, &dw), ERR_STDFILE_READ);
    EXPECT_EQ(dw, 0u);
    EXPECT_EQ(file.Write(buf, 4, &dw), ERR_STDFILE_WRITE);
    EXPECT_EQ(file.GetSize(), 0u);
    EXPECT_EQ(file.GetPos(), 0u);
    EXPECT_EQ(file.Seek(0, FILE_BEGIN), 0u);
  }
  EXPECT_TRUE(catcher.Fired("m_pFile"));
}

// ---------------------------------------------------------------------------------------------
// Registration.

TEST_F(StdFile, RegisteredUnderTheEmptyPrefix) {
  Put("a.bin", {4, 5, 6});
  ASSERT_EQ(FSInit(5), 0u);
  ASSERT_EQ(StdFSInit(), 0u);
  ASSERT_EQ(g_wCount, 1);
  EXPECT_STREQ(g_pFS[0].pchName, "");
  EXPECT_STREQ(g_pFS[0].pVol->GetClassName(), "CStdFS");

  ERR err = 1;
  CFile* pFile = g_pfnFileOpen(Path("a.bin").c_str(), FILE_MODE_READ, &err);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(pFile->GetSize(), 3u);
  delete pFile;

  EXPECT_EQ(StdFSDone(), 0u);
  EXPECT_EQ(g_wCount, 0);
  EXPECT_EQ(FileOpen(Path("a.bin").c_str(), FILE_MODE_READ, nullptr), nullptr);
  FSDone();
}
