// Tests of the memory file: the media form with write-back, the stand-alone form with its limit,
// block sizing, reads at the end, Move, and images as live views.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "base/memalloc.h"
#include "files/memfile.h"
#include "testfile.h"
#include "testutil.h"

namespace {

std::vector<BYTE> Pattern(size_t n, BYTE seed) {
  std::vector<BYTE> v(n);
  for (size_t i = 0; i < n; i++) v[i] = static_cast<BYTE>(seed + i * 7 + (i >> 8));
  return v;
}

// Restores the handle limit when a test that lowered it ends.
struct HandleLimitGuard {
  DWORD dwOld = g_dwHandleMemLimit;
  ~HandleLimitGuard() { g_dwHandleMemLimit = dwOld; }
};

}  // namespace

TEST(MemFileMedia, LoadsWholeMediaWithMarginBlock) {
  std::vector<BYTE> data = Pattern(8192, 3);
  CTestFile media(data);
  media.m_dwBase = 0x5A5A;
  CMemFile* pFile = new CMemFile(&media, FALSE, FALSE, 4096);
  ASSERT_NE(pFile, nullptr);
  EXPECT_TRUE(pFile->IsValid());
  EXPECT_EQ(pFile->GetMode(), FILE_MODE_READWRITE);
  EXPECT_EQ(pFile->GetSize(), 8192u);
  // 8192 is an exact multiple of the step, so the block gets one more step.
  EXPECT_EQ(pFile->GetAllocedSize(), 12288u);
  std::vector<BYTE> back(8192);
  DWORD dwRead = 0;
  EXPECT_EQ(pFile->Read(back.data(), 8192, &dwRead), ERR_NOERR);
  EXPECT_EQ(dwRead, 8192u);
  EXPECT_EQ(back, data);
  EXPECT_EQ(pFile->GetBase(), static_cast<DWORD_PTR>(0x5A5A));
  delete pFile;
}

TEST(MemFileMedia, BlockFollowsSizingRuleAndUnreadableMediaIsNotValid) {
  CTestFile media(Pattern(5000, 1));
  CMemFile* pFile = new CMemFile(&media, FALSE, FALSE, 4096);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetAllocedSize(), 8192u);
  delete pFile;
  media.m_errRead = ERR_FILE_READ;
  pFile = new CMemFile(&media, FALSE, FALSE, 64);
  ASSERT_NE(pFile, nullptr);
  EXPECT_FALSE(pFile->IsValid());
  delete pFile;
}

TEST(MemFileMedia, FlushWritesDirtyRangeAsOne) {
  std::vector<BYTE> data = Pattern(2000, 9);
  CTestFile media(data);
  CMemFile* pFile = new CMemFile(&media, FALSE, TRUE, 256);
  ASSERT_NE(pFile, nullptr);
  ASSERT_TRUE(pFile->IsValid());
  EXPECT_EQ(pFile->WriteAt("abc", 10, 3, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->WriteAt("xyz", 1000, 3, nullptr), ERR_NOERR);
  EXPECT_TRUE(media.m_writes.empty());
  EXPECT_EQ(pFile->Flush(), ERR_NOERR);
  ASSERT_EQ(media.m_writes.size(), 1u);
  EXPECT_EQ(media.m_writes[0].first, 10u);
  EXPECT_EQ(media.m_writes[0].second, 993u);
  memcpy(data.data() + 10, "abc", 3);
  memcpy(data.data() + 1000, "xyz", 3);
  EXPECT_EQ(media.m_data, data);
  EXPECT_EQ(media.m_nFlushes, 1);
  // The range is kept: a later flush after another change writes it again, widened.
  EXPECT_EQ(pFile->WriteAt("q", 1500, 1, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->Flush(), ERR_NOERR);
  ASSERT_EQ(media.m_writes.size(), 2u);
  EXPECT_EQ(media.m_writes[1].first, 10u);
  EXPECT_EQ(media.m_writes[1].second, 1491u);
  // Nothing dirty: nothing written, the media still flushed.
  EXPECT_EQ(pFile->Flush(), ERR_NOERR);
  EXPECT_EQ(media.m_writes.size(), 2u);
  EXPECT_EQ(media.m_nFlushes, 3);
  delete pFile;
}

TEST(MemFileMedia, WithoutWriteBackMediaIsUntouched) {
  std::vector<BYTE> data = Pattern(300, 2);
  CTestFile media(data);
  CMemFile* pFile = new CMemFile(&media, FALSE, FALSE, 64);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->WriteAt("hello", 20, 5, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->Flush(), ERR_NOERR);
  delete pFile;
  EXPECT_TRUE(media.m_writes.empty());
  EXPECT_EQ(media.m_data, data);
}

TEST(MemFileMedia, CutTruncatesMediaOnFlushAndWritesOnlyWhatRemains) {
  std::vector<BYTE> data = Pattern(1000, 5);
  CTestFile media(data);
  CMemFile* pFile = new CMemFile(&media, FALSE, TRUE, 128);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->WriteAt("AB", 200, 2, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->WriteAt("CD", 900, 2, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->Seek(500, FILE_BEGIN), ERR_NOERR);
  EXPECT_EQ(pFile->Truncate(), ERR_NOERR);
  EXPECT_EQ(pFile->GetSize(), 500u);
  EXPECT_EQ(pFile->GetAllocedSize(), 512u);
  EXPECT_EQ(media.m_data.size(), 1000u);
  EXPECT_EQ(pFile->Flush(), ERR_NOERR);
  EXPECT_EQ(media.m_nTruncates, 1);
  ASSERT_EQ(media.m_writes.size(), 1u);
  EXPECT_EQ(media.m_writes[0].first, 200u);
  EXPECT_EQ(media.m_writes[0].second, 300u);
  data.resize(500);
  memcpy(data.data() + 200, "AB", 2);
  EXPECT_EQ(media.m_data, data);
  delete pFile;
}

TEST(MemFileMedia, DestructorFlushesAndDeletesOwnedMedia) {
  CTestFile media(Pattern(50, 6));
  CMemFile* pFile = new CMemFile(&media, FALSE, TRUE, 16);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->WriteAt("Z", 49, 1, nullptr), ERR_NOERR);
  delete pFile;
  EXPECT_EQ(media.m_data[49], 'Z');
  EXPECT_EQ(media.m_writes.size(), 1u);
  bool bDeleted = false;
  pFile = new CMemFile(new CTestFile(Pattern(50, 6), &bDeleted), TRUE, TRUE, 16);
  ASSERT_NE(pFile, nullptr);
  delete pFile;
  EXPECT_TRUE(bDeleted);
}

TEST(MemFileStandAlone, LimitRefusesTheByteAfter) {
  CMemFile* pFile = new CMemFile(0, 10, 100, 64, TRUE);
  ASSERT_NE(pFile, nullptr);
  ASSERT_TRUE(pFile->IsValid());
  EXPECT_EQ(pFile->GetMode(), FILE_MODE_READWRITE);
  // The size is only a hint: the file starts empty.
  EXPECT_EQ(pFile->GetSize(), 0u);
  EXPECT_EQ(pFile->GetAllocedSize(), 64u);
  std::vector<BYTE> data = Pattern(100, 7);
  DWORD dwWritten = 0;
  EXPECT_EQ(pFile->Write(data.data(), 100, &dwWritten), ERR_NOERR);
  EXPECT_EQ(dwWritten, 100u);
  // The rule asks for 128 but the limit holds the block at 100.
  EXPECT_EQ(pFile->GetAllocedSize(), 100u);
  EXPECT_EQ(pFile->Write("x", 1, &dwWritten), ERR_MEMFILE_MAXSIZE);
  EXPECT_EQ(dwWritten, 0u);
  EXPECT_EQ(pFile->GetSize(), 100u);
  EXPECT_EQ(pFile->GetPos(), 100u);
  std::vector<BYTE> back(100);
  EXPECT_EQ(pFile->ReadAt(back.data(), 0, 100, nullptr), ERR_NOERR);
  EXPECT_EQ(back, data);
  delete pFile;
}

TEST(MemFileStandAlone, RegistersModuleOnceAndBadLimitsAssert) {
  CMemFile* pFirst = new CMemFile(0, 0, 10, 4, TRUE);
  ASSERT_NE(pFirst, nullptr);
  ASSERT_NE(ErrGetModule(0x05010000u), nullptr);
  EXPECT_STREQ(ErrGetModule(0x05010000u), "Memory file");
  EXPECT_STREQ(ErrGetText(ERR_MEMFILE_MAXSIZE), "Exceeded given maximum size of the file");
  WORD wModules = g_wModuleCount;
  WORD wErrors = g_wErrCount;
  AssertCatcher catcher;
  CMemFile* pSecond = new CMemFile(0, 50, 20, 4, TRUE);
  ASSERT_NE(pSecond, nullptr);
  EXPECT_TRUE(catcher.Fired("dwMaxSize >= dwMemSize"));
  EXPECT_EQ(g_wModuleCount, wModules);
  EXPECT_EQ(g_wErrCount, wErrors);
  delete pFirst;
  delete pSecond;
}

TEST(MemFileStandAlone, GivenBlockIsTheFile) {
  DWORD h = HANDLE_ALLOC(32);
  ASSERT_NE(h, 0u);
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(h));
  for (int i = 0; i < 32; i++) p[i] = static_cast<BYTE>(i);
  HANDLE_UNLOCK(h);
  CMemFile* pFile = new CMemFile(h, 32, 1000, 16, FALSE);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetSize(), 32u);
  EXPECT_EQ(pFile->GetHandle(), h);
  BYTE b[4];
  EXPECT_EQ(pFile->ReadAt(b, 28, 4, nullptr), ERR_NOERR);
  EXPECT_EQ(b[0], 28);
  EXPECT_EQ(b[3], 31);
  // Writing at the end grows the caller's block in place: the handle stays the same.
  EXPECT_EQ(pFile->Write("!", 1, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->GetAllocedSize(), 48u);
  delete pFile;
  // Not owned: still alive, and it holds the write.
  EXPECT_TRUE(MemIsHandle(h, 48));
  p = static_cast<BYTE*>(HANDLE_LOCK(h));
  EXPECT_EQ(p[32], '!');
  HANDLE_UNLOCK(h);
  HANDLE_FREE(h);
  // An owned block is freed with the file.
  h = HANDLE_ALLOC(8);
  ASSERT_NE(h, 0u);
  delete new CMemFile(h, 8, 8, 4, TRUE);
  EXPECT_FALSE(MemIsHandle(h, 0));
}

TEST(MemFileStandAlone, GrowthFailureChangesNothingAndSecondTryTakesExactSize) {
  CMemFile* pFile = new CMemFile(0, 0, 0x100000, 16, TRUE);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->Write("0123456789", 10, nullptr), ERR_NOERR);
  HandleLimitGuard guard;
  g_dwHandleMemLimit = g_dwHandleMemUsed;
  std::vector<BYTE> big(5000, 1);
  DWORD dwWritten = 99;
  EXPECT_EQ(pFile->Write(big.data(), 5000, &dwWritten), ERR_REALLOCFAIL);
  EXPECT_EQ(dwWritten, 0u);
  EXPECT_EQ(pFile->GetSize(), 10u);
  EXPECT_EQ(pFile->GetPos(), 10u);
  EXPECT_EQ(pFile->GetAllocedSize(), 16u);
  delete pFile;

  g_dwHandleMemLimit = guard.dwOld;
  pFile = new CMemFile(0, 0, 0x100000, 1000, TRUE);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetAllocedSize(), 1000u);
  // Room for the exact size of 1500 but not for the rule's 2000.
  g_dwHandleMemLimit = g_dwHandleMemUsed + 700;
  EXPECT_EQ(pFile->Write(big.data(), 1500, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->GetAllocedSize(), 1500u);
  EXPECT_EQ(pFile->GetSize(), 1500u);
  delete pFile;
}

TEST(MemFileRead, FailedLockLeavesTheCountAlone) {
  CMemFile* pFile = new CMemFile(0, 0, 1000, 16, TRUE);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->Write("0123456789", 10, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->Seek(2, FILE_BEGIN), ERR_NOERR);
  DWORD dwOldLimit = g_dwHLockedLimit;
  g_dwHLockedLimit = g_dwHLockedMem;
  char buf[4] = {};
  DWORD dwRead = 7;
  EXPECT_EQ(pFile->Read(buf, 4, &dwRead), ERR_LOCKFAIL);
  g_dwHLockedLimit = dwOldLimit;
  EXPECT_EQ(dwRead, 7u);
  EXPECT_EQ(pFile->GetPos(), 2u);
  // The same read with the lock to be had delivers and stores its count.
  EXPECT_EQ(pFile->Read(buf, 4, &dwRead), ERR_NOERR);
  EXPECT_EQ(dwRead, 4u);
  EXPECT_EQ(std::string(buf, 4), "2345");
  delete pFile;
}

TEST(MemFileRead, ShortReadDeliversAndReportsEofAndSeekLimits) {
  CMemFile* pFile = new CMemFile(0, 0, 1000, 16, TRUE);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->Write("0123456789", 10, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->Seek(-4, FILE_END), ERR_NOERR);
  char buf[10] = {};
  DWORD dwRead = 0;
  EXPECT_EQ(pFile->Read(buf, 10, &dwRead), ERR_FILE_EOF);
  EXPECT_EQ(dwRead, 4u);
  EXPECT_EQ(std::string(buf, 4), "6789");
  EXPECT_EQ(pFile->GetPos(), 10u);
  // At the end: nothing, and the end again.
  EXPECT_EQ(pFile->Read(buf, 1, &dwRead), ERR_FILE_EOF);
  EXPECT_EQ(dwRead, 0u);
  // A count of 0 succeeds anywhere.
  EXPECT_EQ(pFile->Read(buf, 0, &dwRead), ERR_NOERR);
  // Without a count pointer.
  EXPECT_EQ(pFile->ReadAt(buf, 8, 5, nullptr), ERR_FILE_EOF);
  EXPECT_EQ(std::string(buf, 2), "89");
  // Seeks: past the end is allowed, before the start or from an unknown origin is not.
  EXPECT_EQ(pFile->Seek(3, FILE_BEGIN), ERR_NOERR);
  EXPECT_EQ(pFile->Seek(2, FILE_CURRENT), ERR_NOERR);
  EXPECT_EQ(pFile->GetPos(), 5u);
  EXPECT_EQ(pFile->Seek(25, FILE_END), ERR_NOERR);
  EXPECT_EQ(pFile->GetPos(), 35u);
  EXPECT_EQ(pFile->Seek(-36, FILE_END), ERR_FILE_SEEK);
  EXPECT_EQ(pFile->Seek(-1, FILE_BEGIN), ERR_FILE_SEEK);
  EXPECT_EQ(pFile->Seek(0, 3), ERR_FILE_SEEK);
  EXPECT_EQ(pFile->GetPos(), 35u);
  delete pFile;
}

TEST(MemFileWrite, GapAfterEndAndGrowRule) {
  CMemFile* pFile = new CMemFile(0, 0, 100000, 100, TRUE);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->WriteAt("end", 250, 3, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->GetSize(), 253u);
  EXPECT_EQ(pFile->GetAllocedSize(), 300u);
  // Inside the block: no change of block.
  EXPECT_EQ(pFile->WriteAt("x", 260, 1, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->GetAllocedSize(), 300u);
  EXPECT_EQ(pFile->GetSize(), 261u);
  // An exact multiple gets one more step.
  EXPECT_EQ(pFile->WriteAt("y", 299, 1, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->GetAllocedSize(), 300u);
  EXPECT_EQ(pFile->WriteAt("z", 300, 1, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->GetAllocedSize(), 400u);
  char b[3];
  EXPECT_EQ(pFile->ReadAt(b, 250, 3, nullptr), ERR_NOERR);
  EXPECT_EQ(std::string(b, 3), "end");
  delete pFile;
}

TEST(MemFileTruncate, ShrinksAndExtends) {
  CMemFile* pFile = new CMemFile(0, 0, 1000, 50, TRUE);
  ASSERT_NE(pFile, nullptr);
  std::vector<BYTE> data = Pattern(180, 8);
  EXPECT_EQ(pFile->Write(data.data(), 180, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->GetAllocedSize(), 200u);
  EXPECT_EQ(pFile->Seek(40, FILE_BEGIN), ERR_NOERR);
  EXPECT_EQ(pFile->Truncate(), ERR_NOERR);
  EXPECT_EQ(pFile->GetSize(), 40u);
  EXPECT_EQ(pFile->GetAllocedSize(), 50u);
  std::vector<BYTE> back(40);
  EXPECT_EQ(pFile->ReadAt(back.data(), 0, 40, nullptr), ERR_NOERR);
  EXPECT_EQ(back, std::vector<BYTE>(data.begin(), data.begin() + 40));
  // Truncate past the end lengthens the file.
  EXPECT_EQ(pFile->Seek(120, FILE_BEGIN), ERR_NOERR);
  EXPECT_EQ(pFile->Truncate(), ERR_NOERR);
  EXPECT_EQ(pFile->GetSize(), 120u);
  EXPECT_EQ(pFile->GetAllocedSize(), 150u);
  // Past the limit.
  EXPECT_EQ(pFile->Seek(1001, FILE_BEGIN), ERR_NOERR);
  EXPECT_EQ(pFile->Truncate(), ERR_MEMFILE_MAXSIZE);
  EXPECT_EQ(pFile->GetSize(), 120u);
  delete pFile;
}

TEST(MemFileMove, OverlappingBothWays) {
  CMemFile* pFile = new CMemFile(0, 0, 1000, 64, TRUE);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->Write("0123456789", 10, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->Move(2, 0, 6, 0, nullptr), ERR_NOERR);
  char b[10];
  EXPECT_EQ(pFile->ReadAt(b, 0, 10, nullptr), ERR_NOERR);
  EXPECT_EQ(std::string(b, 10), "0101234589");
  EXPECT_EQ(pFile->Move(0, 3, 7, 0, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->ReadAt(b, 0, 10, nullptr), ERR_NOERR);
  EXPECT_EQ(std::string(b, 10), "1234589589");
  EXPECT_EQ(pFile->GetSize(), 10u);
  // A source at the end asserts and moves nothing.
  AssertCatcher catcher;
  EXPECT_EQ(pFile->Move(0, 10, 1, 0, nullptr), ERR_NOERR);
  EXPECT_TRUE(catcher.Fired("m_dwFileSize > dwSrc"));
  EXPECT_EQ(pFile->GetSize(), 10u);
  delete pFile;
}

TEST(MemFileMove, GrowingTargetLeavesTightBlock) {
  CMemFile* pFile = new CMemFile(0, 0, 20, 64, TRUE);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->Write("abcdef", 6, nullptr), ERR_NOERR);
  // The count is cut to the end of the file; the limit is not consulted.
  EXPECT_EQ(pFile->Move(30, 2, 100, 0, nullptr), ERR_NOERR);
  EXPECT_EQ(pFile->GetSize(), 34u);
  EXPECT_EQ(pFile->GetAllocedSize(), 34u);
  char b[4];
  EXPECT_EQ(pFile->ReadAt(b, 30, 4, nullptr), ERR_NOERR);
  EXPECT_EQ(std::string(b, 4), "cdef");
  // Writes inside the grown block pass the limit of 20 without a word: only growth consults it.
  DWORD dwWritten = 0;
  EXPECT_EQ(pFile->WriteAt("XY", 31, 2, &dwWritten), ERR_NOERR);
  EXPECT_EQ(dwWritten, 2u);
  EXPECT_EQ(pFile->ReadAt(b, 30, 4, nullptr), ERR_NOERR);
  EXPECT_EQ(std::string(b, 4), "cXYf");
  // A write that would grow the block past the limit is still refused.
  EXPECT_EQ(pFile->WriteAt("z", 34, 1, &dwWritten), ERR_MEMFILE_MAXSIZE);
  EXPECT_EQ(pFile->GetSize(), 34u);
  delete pFile;
}

TEST(MemFileImage, LiveViewAndLock) {
  CMemFile* pFile = new CMemFile(0, 0, 1000, 32, TRUE);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->Write("0123456789", 10, nullptr), ERR_NOERR);
  void* pImage = nullptr;
  // The result is the size available, not an error code.
  EXPECT_EQ(pFile->LoadImage(6, 100, &pImage), 4u);
  ASSERT_NE(pImage, nullptr);
  EXPECT_EQ(memcmp(pImage, "6789", 4), 0);
  EXPECT_EQ(HandleGetLockCount(pFile->GetHandle()), 1);
  // Writes show through the view.
  EXPECT_EQ(pFile->WriteAt("X", 7, 1, nullptr), ERR_NOERR);
  EXPECT_EQ(static_cast<char*>(pImage)[1], 'X');
  // The block can't move while the view is out.
  std::vector<BYTE> big(200, 1);
  EXPECT_EQ(pFile->WriteAt(big.data(), 0, 200, nullptr), ERR_REALLOCFAIL);
  EXPECT_EQ(pFile->GetSize(), 10u);
  EXPECT_EQ(pFile->FreeImage(nullptr), ERR_NOERR);
  EXPECT_EQ(HandleGetLockCount(pFile->GetHandle()), 0);
  EXPECT_EQ(pFile->WriteAt(big.data(), 0, 200, nullptr), ERR_NOERR);
  // An offset at the end asserts and gives nothing.
  AssertCatcher catcher;
  pImage = nullptr;
  EXPECT_EQ(pFile->LoadImage(200, 5, &pImage), 0u);
  EXPECT_TRUE(catcher.Fired("m_dwFileSize > dwOfs"));
  EXPECT_EQ(pFile->FreeImage(pImage), ERR_NOERR);
  EXPECT_EQ(HandleGetLockCount(pFile->GetHandle()), 0);
  delete pFile;
}
