// Tests of the compressed file and the "LZSS:" volume. The media is a CFile over a byte vector,
// so every test can look at the bytes on the media; the layout is checked against streams made
// here with the codec directly.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "files/file.h"
#include "files/lzssfile.h"
#include "files/lzssfunc.h"
#include "files/winfile.h"
#include "testfile.h"
#include "testutil.h"

namespace fs = std::filesystem;

namespace {

typedef std::vector<BYTE> Bytes;

Bytes TextData(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  static const char* words[] = {
      "[MAIN]\r\n", "COMPRESSINI=TRUE\r\n", "path", "=", "disc", " ", "1.game,", "WIN95", "\r\n", "Setup",
      "0"};
  Bytes out;
  while (out.size() < n) {
    if (rng() % 8 == 0) {
      out.push_back((BYTE)rng());
    } else {
      const char* w = words[rng() % ARRAY_COUNT(words)];
      out.insert(out.end(), w, w + strlen(w));
    }
  }
  out.resize(n);
  return out;
}

// The stream the codec makes for a piece of text.
Bytes StreamOf(const BYTE* p, size_t n) {
  Bytes out(LZSSMaxCompressed((DWORD)n));
  DWORD len = (DWORD)out.size();
  EXPECT_EQ(0u, LZSSCompress(p, (DWORD)n, out.data(), &len, 0xC4, nullptr));
  out.resize(len);
  return out;
}

// Opens a compressed file over the vector with the system's usual arguments (or others).
CLZSSFile* OpenOver(Bytes* pMedia, WORD wMode, ERR* pErr, DWORD dwPageSize = 0x8000, DWORD dwCache = 0) {
  CTestFile* pFile = new CTestFile(pMedia);
  pFile->SetMode(FILE_MODE_CREATE);
  return new CLZSSFile(pFile, 1, wMode, pErr, dwCache, dwPageSize, 0x80, 0xC4);
}

// The media of a new compressed file holding text, written in one piece.
Bytes Packed(const Bytes& text, DWORD dwPageSize = 0x8000) {
  Bytes media;
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err, dwPageSize);
  EXPECT_EQ(0u, err);
  EXPECT_EQ(0u, p->Write(text.data(), (DWORD)text.size(), nullptr));
  delete p;
  return media;
}

// The logical bytes of a compressed file as an independent reader sees them: header, table,
// one stream per page, each ending where the next begins.
Bytes ReadIndependently(const Bytes& media, DWORD* pdwPages = nullptr) {
  EXPECT_GE(media.size(), 18u);
  EXPECT_EQ(0, memcmp(media.data(), "LZSS", 4));
  DWORD size = GetLE32(&media[4]), page = GetLE32(&media[8]), maxPages = GetLE32(&media[12]);
  std::vector<DWORD> table;
  for (DWORD i = 0; i < maxPages && GetLE32(&media[18 + 4 * i]); i++)
    table.push_back(GetLE32(&media[18 + 4 * i]));
  if (pdwPages) *pdwPages = (DWORD)table.size();
  Bytes out;
  for (size_t i = 0; i < table.size(); i++) {
    size_t end = i + 1 < table.size() ? table[i + 1] : media.size();
    Bytes buf(page);
    DWORD len = page;
    EXPECT_EQ(0u, LZSSDecompress(&media[table[i]], (DWORD)(end - table[i]), buf.data(), &len, media[16]));
    out.insert(out.end(), buf.begin(), buf.begin() + len);
  }
  EXPECT_GE(out.size(), size);
  out.resize(size);
  return out;
}

Bytes ReadAll(CLZSSFile* p) {
  Bytes out(p->GetSize());
  EXPECT_EQ(0u, p->Seek(0, FILE_BEGIN));
  DWORD got = 0;
  if (!out.empty()) {
    EXPECT_EQ(0u, p->Read(out.data(), (DWORD)out.size(), &got));
  }
  out.resize(got);
  return out;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

TEST(LzssFileLayout, NewFileHeaderTableAndStreams) {
  Bytes media;
  ERR err = 1;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err);
  ASSERT_EQ(0u, err);
  EXPECT_TRUE(p->IsValid());
  ASSERT_EQ(530u, media.size());
  EXPECT_EQ(0, memcmp(media.data(), "LZSS", 4));
  EXPECT_EQ(0u, GetLE32(&media[4]));
  EXPECT_EQ(0x8000u, GetLE32(&media[8]));
  EXPECT_EQ(0x80u, GetLE32(&media[12]));
  EXPECT_EQ(0xC4, media[16]);
  for (size_t i = 18; i < 530; i++) ASSERT_EQ(0, media[i]) << i;
  // 40000 bytes make two pages, each stream as the codec makes it.
  Bytes text = TextData(40000, 1);
  DWORD written = 0;
  ASSERT_EQ(0u, p->Write(text.data(), 40000, &written));
  EXPECT_EQ(40000u, written);
  EXPECT_EQ(40000u, p->GetSize());
  Bytes s0 = StreamOf(text.data(), 0x8000), s1 = StreamOf(text.data() + 0x8000, 40000 - 0x8000);
  EXPECT_EQ(2u, p->GetPageCount());
  EXPECT_EQ(530u, p->GetPageOffset(0));
  EXPECT_EQ(530u + s0.size(), p->GetPageOffset(1));
  EXPECT_EQ(0u, p->GetPageOffset(2));
  delete p;
  // On the media after the flush: the same table, and the streams in place.
  ASSERT_EQ(530u + s0.size() + s1.size(), media.size());
  EXPECT_EQ(40000u, GetLE32(&media[4]));
  EXPECT_EQ(530u, GetLE32(&media[18]));
  EXPECT_EQ(530u + s0.size(), GetLE32(&media[22]));
  EXPECT_EQ(0u, GetLE32(&media[26]));
  EXPECT_TRUE(std::equal(s0.begin(), s0.end(), media.begin() + 530));
  EXPECT_TRUE(std::equal(s1.begin(), s1.end(), media.begin() + 530 + s0.size()));
  EXPECT_EQ(text, ReadIndependently(media));
}

TEST(LzssFileLayout, PageOf128GrowsTheTable) {
  // Small pages keep the test quick; the table rule is the same.
  const DWORD P = 256;
  Bytes media;
  Bytes text = TextData(P * 130, 2);
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err, P);
  ASSERT_EQ(0u, err);
  std::vector<DWORD> before;
  for (DWORD i = 0; i < 127; i++) ASSERT_EQ(0u, p->Write(&text[i * P], P, nullptr)) << i;
  EXPECT_EQ(127u, p->GetPageCount());
  EXPECT_EQ(0x80u, p->GetMaxPages());
  for (DWORD i = 0; i < 127; i++) before.push_back(p->GetPageOffset(i));
  EXPECT_EQ(530u, before[0]);
  ASSERT_EQ(0u, p->Write(&text[127 * P], P, nullptr));
  EXPECT_EQ(128u, p->GetPageCount());
  EXPECT_EQ(0x100u, p->GetMaxPages());
  for (DWORD i = 0; i < 127; i++) EXPECT_EQ(before[i] + 512, p->GetPageOffset(i)) << i;
  EXPECT_EQ(0u, GetLE32(&media[12]) - 0x100u);  // the header was rewritten by the resize
  for (DWORD i = 128; i < 130; i++) ASSERT_EQ(0u, p->Write(&text[i * P], P, nullptr));
  EXPECT_EQ(text, ReadAll(p));
  delete p;
  DWORD pages = 0;
  EXPECT_EQ(text, ReadIndependently(media, &pages));
  EXPECT_EQ(130u, pages);
  EXPECT_EQ(1042u, GetLE32(&media[18]));
}

TEST(LzssFileLayout, HeaderPageSizeRulesAnExistingFile) {
  const Bytes text = TextData(5000, 3);
  Bytes media = Packed(text, 1000);
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_READ, &err, 0x8000);
  ASSERT_EQ(0u, err);
  EXPECT_EQ(1000u, p->GetPageSize());
  EXPECT_EQ(5u, p->GetPageCount());
  EXPECT_EQ(text, ReadAll(p));
  delete p;
}

TEST(LzssFileLayout, OverwriteInTheMiddleMovesLaterStreams) {
  const DWORD P = 1024;
  Bytes media;
  Bytes text = TextData(P * 5, 4);
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err, P);
  ASSERT_EQ(0u, p->Write(text.data(), (DWORD)text.size(), nullptr));
  // Random bytes compress worse: page 1 grows and pages 2..4 move back.
  std::mt19937 rng(5);
  for (DWORD k = P; k < 2 * P; k++) text[k] = (BYTE)rng();
  DWORD old2 = p->GetPageOffset(2);
  ASSERT_EQ(0u, p->Seek(P, FILE_BEGIN));
  ASSERT_EQ(0u, p->Write(&text[P], P, nullptr));
  EXPECT_GT(p->GetPageOffset(2), old2);
  EXPECT_EQ(text, ReadAll(p));
  // And shrinks again: the media is cut behind the last stream.
  for (DWORD k = P; k < 2 * P; k++) text[k] = 'z';
  ASSERT_EQ(0u, p->Seek(P, FILE_BEGIN));
  ASSERT_EQ(0u, p->Write(&text[P], P, nullptr));
  EXPECT_LT(p->GetPageOffset(2), old2);
  EXPECT_EQ(text, ReadAll(p));
  delete p;
  EXPECT_EQ(text, ReadIndependently(media));
}

// ---------------------------------------------------------------------------------------------

TEST(LzssFileAccess, ReadAtAndPastTheEndAndSeekRules) {
  Bytes media;
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err);
  BYTE buf[16];
  DWORD got = 99;
  EXPECT_EQ(ERR_LZSSFILE_EOF, p->Read(buf, 4, &got));
  EXPECT_EQ(0u, got);
  ASSERT_EQ(0u, p->Write("hello", 5, nullptr));
  ASSERT_EQ(0u, p->Seek(5, FILE_BEGIN));
  EXPECT_EQ(ERR_LZSSFILE_EOF, p->Read(buf, 4, &got));
  ASSERT_EQ(0u, p->Seek(6, FILE_BEGIN));
  EXPECT_EQ(ERR_LZSSFILE_RANGE, p->Read(buf, 4, &got));
  EXPECT_EQ(ERR_LZSSFILE_RANGE, p->Write("x", 1, &got));
  // A read that runs past the end of the last page: what there is, with the short-read code.
  ASSERT_EQ(0u, p->Seek(0, FILE_BEGIN));
  EXPECT_EQ(ERR_LZSSFILE_SHORTREAD, p->Read(buf, 10, &got));
  EXPECT_EQ(5u, got);
  EXPECT_EQ(0, memcmp(buf, "hello", 5));
  // From inside the page the short page ends the read with success.
  ASSERT_EQ(0u, p->Seek(2, FILE_BEGIN));
  EXPECT_EQ(0u, p->Read(buf, 10, &got));
  EXPECT_EQ(3u, got);
  EXPECT_EQ(5u, p->GetPos());
  // Seeks.
  ASSERT_EQ(0u, p->Seek(0, FILE_BEGIN));
  ASSERT_EQ(0u, p->Write("0123456789", 10, nullptr));
  EXPECT_EQ(0u, p->Seek(-3, FILE_END));
  EXPECT_EQ(7u, p->GetPos());
  EXPECT_EQ(0u, p->Seek(2, FILE_CURRENT));
  EXPECT_EQ(9u, p->GetPos());
  EXPECT_EQ(ERR_LZSSFILE_SEEKNEG, p->Seek(-11, FILE_END));
  EXPECT_EQ(ERR_LZSSFILE_BADORIGIN, p->Seek(0, 3));
  EXPECT_EQ(0u, p->Seek(100, FILE_BEGIN));
  EXPECT_EQ(ERR_LZSSFILE_PAGESEEK, p->SeekPage(2, FILE_BEGIN));
  EXPECT_EQ(0u, p->SeekPage(1, FILE_BEGIN));
  EXPECT_EQ(ERR_LZSSFILE_BADORIGIN, p->SeekPage(0, 7));
  delete p;
}

TEST(LzssFileAccess, WritesAcrossAndInsidePages) {
  const DWORD P = 0x8000;
  Bytes media;
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err);
  Bytes text = TextData(P - 2, 6);
  ASSERT_EQ(0u, p->Write(text.data(), P - 2, nullptr));
  // Four bytes at P - 2 cross one page boundary with no whole page between: the tail is dropped.
  DWORD n = 0;
  EXPECT_EQ(ERR_LZSSFILE_SHORTWRITE, p->Write("ABCD", 4, &n));
  EXPECT_EQ(2u, n);
  EXPECT_EQ(P, p->GetPos());
  EXPECT_EQ(P - 2, p->GetSize());  // a write inside one page leaves the size alone
  delete p;

  Bytes media2;
  p = OpenOver(&media2, FILE_MODE_CREATE, &err);
  ASSERT_EQ(0u, p->Write("12345", 5, nullptr));
  ASSERT_EQ(0u, p->Seek(5, FILE_BEGIN));
  EXPECT_EQ(0u, p->Write("abcdefghij", 10, &n));
  EXPECT_EQ(10u, n);
  EXPECT_EQ(5u, p->GetSize());
  // The page holds all fifteen bytes even though the size says five.
  DWORD size = 100;
  BYTE page[100];
  ASSERT_EQ(0u, p->SeekPage(0, FILE_BEGIN));
  ASSERT_EQ(0u, p->ReadPage(page, &size));
  EXPECT_EQ(15u, size);
  EXPECT_EQ(0, memcmp(page, "12345abcdefghij", 15));
  delete p;
}

TEST(LzssFileAccess, SequentialWritesInPiecesReadBack) {
  Bytes media;
  Bytes text = TextData(100000, 7);
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err);
  // Pieces that are whole pages, then one short tail.
  for (size_t at = 0; at < text.size(); at += 0x10000) {
    DWORD n = (DWORD)std::min<size_t>(0x10000, text.size() - at);
    ASSERT_EQ(0u, p->Write(&text[at], n, nullptr));
  }
  EXPECT_EQ(text.size(), p->GetSize());
  // Reads at odd offsets and lengths.
  std::mt19937 rng(8);
  for (int k = 0; k < 50; k++) {
    DWORD at = rng() % text.size(), len = 1 + rng() % 70000;
    Bytes buf(len);
    DWORD got = 0;
    ASSERT_EQ(0u, p->Seek(at, FILE_BEGIN));
    ERR e = p->Read(buf.data(), len, &got);
    EXPECT_TRUE(e == 0 || e == ERR_LZSSFILE_SHORTREAD) << e;
    ASSERT_LE(got, len);
    EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + got, text.begin() + at)) << at << " " << len;
    if (at + len <= text.size() && at % 0x8000 + len > 0x8000) {
      EXPECT_EQ(len, got);
    }
  }
  delete p;
  EXPECT_EQ(text, ReadIndependently(media));
}

TEST(LzssFileAccess, ReadOnlyFile) {
  Bytes media;
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err);
  ASSERT_EQ(0u, p->Write("read only text", 14, nullptr));
  delete p;
  Bytes before = media;
  p = OpenOver(&media, FILE_MODE_READ, &err);
  ASSERT_EQ(0u, err);
  EXPECT_EQ(0u, p->Seek(5, FILE_BEGIN));
  char buf[9] = {};
  EXPECT_EQ(0u, p->Read(buf, 4, nullptr));
  EXPECT_STREQ("only", buf);
  EXPECT_EQ(ERR_LZSSFILE_READONLY, p->Flush());
  {
    AssertCatcher catcher;
    EXPECT_EQ(ERR_LZSSFILE_READONLY, p->Write("x", 1, nullptr));
    EXPECT_EQ(ERR_LZSSFILE_READONLY, p->Truncate());
  }
  delete p;
  EXPECT_EQ(before, media);
  // An empty media can't get its header in read-only mode.
  Bytes empty;
  p = OpenOver(&empty, FILE_MODE_READ, &err);
  EXPECT_EQ(ERR_LZSSFILE_READONLY, err);
  EXPECT_FALSE(p->IsValid());
  delete p;
}

TEST(LzssFileTruncate, ToZeroGivesSmallPages) {
  Bytes media;
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err);
  Bytes text = TextData(50000, 9);
  ASSERT_EQ(0u, p->Write(text.data(), 50000, nullptr));
  ASSERT_EQ(0u, p->Seek(0, FILE_BEGIN));
  ASSERT_EQ(0u, p->Truncate());
  EXPECT_EQ(0u, p->GetSize());
  EXPECT_EQ(128u, p->GetPageSize());
  EXPECT_EQ(128u, p->GetMaxPages());
  EXPECT_EQ(530u, media.size());
  EXPECT_EQ(128u, GetLE32(&media[8]));
  // The file works on with its new pages.
  ASSERT_EQ(0u, p->Write(text.data(), 1000, nullptr));
  EXPECT_EQ(8u, p->GetPageCount());
  delete p;
  EXPECT_EQ(Bytes(text.begin(), text.begin() + 1000), ReadIndependently(media));
}

TEST(LzssFileTruncate, InsideCutsPagesAndTheMedia) {
  Bytes media;
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err);
  Bytes text = TextData(80000, 10);
  ASSERT_EQ(0u, p->Write(text.data(), 80000, nullptr));
  ASSERT_EQ(3u, p->GetPageCount());
  ASSERT_EQ(0u, p->Seek(40000, FILE_BEGIN));
  ASSERT_EQ(0u, p->Truncate());
  EXPECT_EQ(40000u, p->GetSize());
  EXPECT_EQ(2u, p->GetPageCount());
  EXPECT_EQ(0u, GetLE32(&media[18 + 8]));
  EXPECT_EQ(40000u, GetLE32(&media[4]));
  // The media ends at the last stream's offset plus the logical count written to it, which is
  // one byte short of the position.
  EXPECT_EQ(p->GetPageOffset(1) + (40000 - 1) % 0x8000, media.size());
  // Page 0 is untouched.
  Bytes first(0x8000);
  DWORD got = 0;
  ASSERT_EQ(0u, p->Seek(0, FILE_BEGIN));
  ASSERT_EQ(0u, p->Read(first.data(), 0x8000, &got));
  EXPECT_TRUE(std::equal(first.begin(), first.end(), text.begin()));
  delete p;
}

TEST(LzssFileTruncate, PastTheEndFillsWithZeros) {
  Bytes media;
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err);
  Bytes text = TextData(0x8000, 11);
  ASSERT_EQ(0u, p->Write(text.data(), 0x8000, nullptr));
  ASSERT_EQ(0u, p->Seek(0x8000 + 5000, FILE_BEGIN));
  ASSERT_EQ(0u, p->Truncate());
  EXPECT_EQ(0x8000u + 5000, p->GetSize());
  Bytes all = ReadAll(p);
  ASSERT_EQ(0x8000u + 5000, all.size());
  EXPECT_TRUE(std::equal(text.begin(), text.end(), all.begin()));
  for (size_t k = 0x8000; k < all.size(); k++) ASSERT_EQ(0, all[k]) << k;
  delete p;
}

// ---------------------------------------------------------------------------------------------

TEST(LzssFileCache, VictimIsTheFirstWithFewestHits) {
  const DWORD P = 512;
  Bytes media;
  Bytes text = TextData(P * 6, 12);
  ERR err;
  CLZSSFile* p = OpenOver(&media, FILE_MODE_CREATE, &err, P);
  ASSERT_EQ(0u, p->Write(text.data(), (DWORD)text.size(), nullptr));
  ASSERT_EQ(0u, p->SetCachePages(4));
  Bytes buf(P);
  auto readPage = [&](DWORD page) {
    DWORD size = P;
    ASSERT_EQ(0u, p->ReadCached(page, buf.data(), &size));
    ASSERT_EQ(P, size);
    EXPECT_TRUE(std::equal(buf.begin(), buf.end(), text.begin() + page * P)) << page;
  };
  for (DWORD page : {0u, 1u, 2u, 3u}) readPage(page);
  for (DWORD k = 0; k < 4; k++) {
    EXPECT_EQ(k, p->GetCacheEntry(k)->dwPage);
    EXPECT_EQ(1, p->GetCacheEntry(k)->wHits);
    EXPECT_EQ(LZSS_CACHE_VALID, p->GetCacheEntry(k)->btState);
  }
  readPage(0);
  readPage(0);
  readPage(0);  // slot 0: 4 hits; nothing passed on the way ages
  readPage(3);  // slot 0 ages to 3 on the way to the hit in slot 3 (2 hits)
  EXPECT_EQ(3, p->GetCacheEntry(0)->wHits);
  EXPECT_EQ(2, p->GetCacheEntry(3)->wHits);
  readPage(4);  // a miss: slot 1 (1 hit) goes; slots 0 and 3 age
  EXPECT_EQ(0u, p->GetCacheEntry(0)->dwPage);
  EXPECT_EQ(2, p->GetCacheEntry(0)->wHits);
  EXPECT_EQ(4u, p->GetCacheEntry(1)->dwPage);
  EXPECT_EQ(1, p->GetCacheEntry(1)->wHits);
  EXPECT_EQ(2u, p->GetCacheEntry(2)->dwPage);
  EXPECT_EQ(1, p->GetCacheEntry(3)->wHits);
  delete p;
}

TEST(LzssFileCache, WritesGoThroughTheCacheAndFlush) {
  const DWORD P = 512;
  Bytes media;
  Bytes text = TextData(P * 8, 13);
  ERR err;
  CTestFile* pMedia = new CTestFile(&media);
  pMedia->SetMode(FILE_MODE_CREATE);
  CLZSSFile* p = new CLZSSFile(pMedia, 1, FILE_MODE_CREATE, &err, 3, P, 0x80, 0xC4);
  ASSERT_EQ(0u, err);
  EXPECT_EQ(3u, p->GetCachePages());
  ASSERT_EQ(0u, p->Write(text.data(), (DWORD)text.size(), nullptr));
  for (DWORD k = 100; k < 200; k++) text[k] = 'Q';
  ASSERT_EQ(0u, p->Seek(100, FILE_BEGIN));
  ASSERT_EQ(0u, p->Write(&text[100], 100, nullptr));
  EXPECT_EQ(text, ReadAll(p));
  ASSERT_EQ(0u, p->LockCache());
  EXPECT_EQ(ERR_LZSSFILE_CACHELOCKED, p->SetCachePages(1));
  EXPECT_NE(nullptr, p->GetCacheSlot(0));
  EXPECT_EQ(nullptr, p->GetCacheSlot(3));
  ASSERT_EQ(0u, p->UnlockCache());
  EXPECT_EQ(nullptr, p->GetCacheSlot(0));
  delete p;
  EXPECT_EQ(text, ReadIndependently(media));
}

// ---------------------------------------------------------------------------------------------

TEST(LzssFileCorrupt, BadHeadersAreRefused) {
  ERR err;
  Bytes good;
  delete OpenOver(&good, FILE_MODE_CREATE, &err);
  Bytes huge = good, zero = good;
  PutLE32(&huge[12], 0x40000000);  // a table larger than the media
  PutLE32(&zero[8], 0);            // pages of no bytes
  struct Case {
    const char* what;
    Bytes media;
    ERR err;
  } cases[] = {{"short", {'L', 'Z', 'S', 'S', 1, 2}, ERR_FILE_EOF},
               {"plain", Bytes(600, 'a'), ERR_LZSSFILE_BADMAGIC},
               {"huge table", huge, ERR_FILE_BADFORMAT},
               {"page size 0", zero, ERR_FILE_BADFORMAT}};
  for (Case& c : cases) {
    CLZSSFile* p = OpenOver(&c.media, FILE_MODE_READ, &err);
    EXPECT_EQ(c.err, err) << c.what;
    EXPECT_FALSE(p->IsValid()) << c.what;
    delete p;
  }
}

TEST(LzssFileCorrupt, BadTablesAndStreamsGiveErrors) {
  const Bytes media = Packed(TextData(70000, 14));
  ERR err;
  CLZSSFile* p;
  // Entry 1 before entry 0, and pointing past the media.
  for (DWORD bad : {100u, 600u, 0x7FFFFFFFu}) {
    Bytes m = media;
    PutLE32(&m[22], bad);
    p = OpenOver(&m, FILE_MODE_READ, &err);
    ASSERT_EQ(0u, err);
    Bytes all(70000);
    DWORD got = 0;
    EXPECT_NE(0u, p->Read(all.data(), 70000, &got));
    EXPECT_LT(got, 70000u);
    delete p;
  }
  // Random stream bytes: whatever comes out, it stays in the buffers and ends with a code.
  std::mt19937 rng(15);
  for (int round = 0; round < 30; round++) {
    Bytes m = media;
    for (size_t k = 530; k < m.size(); k++)
      if (rng() % 50 == 0) m[k] = (BYTE)rng();
    p = OpenOver(&m, FILE_MODE_READ, &err);
    ASSERT_EQ(0u, err);
    Bytes all(70000);
    DWORD got = 0;
    p->Read(all.data(), 70000, &got);
    EXPECT_LE(got, 70000u);
    delete p;
  }
}

TEST(LzssFileCorrupt, FailedWholePagesLeaveTheCountCleared) {
  const Bytes text = TextData(70000, 16);
  Bytes media = Packed(text);
  ERR err;
  // Page 1's stream is made to end past the media: page 0 decodes, page 1 is refused.
  PutLE32(&media[26], 0x7FFFFFFFu);
  CLZSSFile* p = OpenOver(&media, FILE_MODE_READ, &err);
  ASSERT_EQ(0u, err);
  Bytes all(70000);
  DWORD got = 99;
  EXPECT_EQ(ERR_FILE_BADFORMAT, p->Read(all.data(), 70000, &got));
  EXPECT_EQ(0u, got);
  EXPECT_EQ(0x8000u, p->GetPos());
  EXPECT_TRUE(std::equal(text.begin(), text.begin() + 0x8000, all.begin()));
  delete p;

  // Writing: the media refuses the second page's stream.
  Bytes fresh;
  CTestFile* pMedia = new CTestFile(&fresh);
  pMedia->SetMode(FILE_MODE_CREATE);
  p = new CLZSSFile(pMedia, 1, FILE_MODE_CREATE, &err, 0, 0x8000, 0x80, 0xC4);
  ASSERT_EQ(0u, err);
  pMedia->m_nFailAfter = pMedia->m_nReads + pMedia->m_nWrites + 1;
  DWORD written = 99;
  EXPECT_EQ(ERR_FILE_WRITE, p->Write(text.data(), 0x10000, &written));
  EXPECT_EQ(0u, written);
  EXPECT_EQ(0x8000u, p->GetPos());
  EXPECT_EQ(0x8000u, p->GetSize());
  EXPECT_EQ(1u, p->GetPageCount());
  pMedia->m_nFailAfter = -1;
  delete p;
}

// ---------------------------------------------------------------------------------------------
// The volume, over the native one.

class LzssVolume : public ::testing::Test {
 protected:
  void SetUp() override {
    m_host = fs::temp_directory_path() /
             ("setup_lzss_" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
    fs::create_directories(m_host);
#ifndef _WIN32
    setenv("SETUP_PREFIX", (m_host / "prefix").c_str(), 1);
#endif
    ASSERT_EQ(0u, FSInit(5));
    ASSERT_EQ(0u, WinFSInit());
    ASSERT_EQ(0u, LZSSFSInit());
#ifndef _WIN32
    m_base = "C:\\work";
    m_hostBase = m_host / "prefix" / "drive_c" / "work";
#else
    m_hostBase = m_host / "work";
    m_base = m_hostBase.string();
#endif
    fs::create_directories(m_hostBase);
  }
  void TearDown() override {
    LZSSFSDone();
    WinFSDone();
    FSDone();
    std::error_code ec;
    fs::remove_all(m_host, ec);
#ifndef _WIN32
    unsetenv("SETUP_PREFIX");
#endif
  }
  void Put(const std::string& name, const std::string& text) {
    std::ofstream out(m_hostBase / name, std::ios::binary);
    out << text;
  }
  std::string P(const std::string& name) const { return m_base + "\\" + name; }
  fs::path m_host, m_hostBase;
  std::string m_base;
};

TEST_F(LzssVolume, PlainMissingAndEmptyFiles) {
  Put("x", "[MAIN]\r\nNAME=plain\r\n");
  ERR err = 0;
  CFile* f = FileOpen(("LZSS:" + P("x")).c_str(), FILE_MODE_READ, &err);
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(ERR_LZSSFILE_BADMAGIC, err);
  EXPECT_EQ(nullptr, f->Cast(0x3000802));
  char buf[32] = {};
  DWORD got = 0;
  f->Read(buf, 6, &got);
  EXPECT_EQ(6u, got);
  EXPECT_STREQ("[MAIN]", buf);
  delete f;
  // A missing file is null.
  f = FileOpen(("LZSS:" + P("missing")).c_str(), FILE_MODE_READ, &err);
  EXPECT_EQ(nullptr, f);
  EXPECT_NE(0u, err);
  // An empty file gets a header when writable, and stays empty otherwise.
  Put("empty", "");
  f = FileOpen(("LZSS:" + P("empty")).c_str(), FILE_MODE_READWRITE, &err);
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(0u, err);
  delete f;
  EXPECT_EQ(530u, fs::file_size(m_hostBase / "empty"));
  Put("empty2", "");
  f = FileOpen(("LZSS:" + P("empty2")).c_str(), FILE_MODE_READ, &err);
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(ERR_LZSSFILE_READONLY, err);
  delete f;
  EXPECT_EQ(0u, fs::file_size(m_hostBase / "empty2"));
}

TEST_F(LzssVolume, CompressedIniReadsLikePlain) {
  std::string ini;
  for (int k = 0; k < 2000; k++)
    ini += "[SECTION" + std::to_string(k % 40) + "]\r\nKEY=value " + std::to_string(k) + "\r\n";
  ERR err = 0;
  CFile* media = FileOpen(P("install.ini").c_str(), FILE_MODE_CREATE, &err);
  ASSERT_NE(nullptr, media);
  CLZSSFile* w = new CLZSSFile(media, 1, FILE_MODE_CREATE, &err, 0, 0x8000, 0x80, 0xC4);
  ASSERT_EQ(0u, err);
  ASSERT_EQ(0u, w->Write(ini.data(), (DWORD)ini.size(), nullptr));
  delete w;
  EXPECT_LT(fs::file_size(m_hostBase / "install.ini"), ini.size() / 2);

  CFile* f = FileOpen(("LZSS:" + P("install.ini")).c_str(), FILE_MODE_READ, &err);
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(0u, err);
  EXPECT_NE(nullptr, f->Cast(0x3000802));
  EXPECT_EQ(ini.size(), f->GetSize());
  std::string back(ini.size(), '\0');
  DWORD got = 0;
  EXPECT_EQ(0u, f->Read(&back[0], (DWORD)back.size(), &got));
  EXPECT_EQ(ini, back);
  delete f;
}

// ---------------------------------------------------------------------------------------------
// The lzss tool

TEST(LzssTool, PackInfoUnpackAndDamage) {
#if defined(_WIN32)
  GTEST_SKIP() << "the tool is run through a POSIX shell";
#else
  const std::string tool = FindTool("lzss");
  if (tool.empty()) GTEST_SKIP() << "the lzss tool is not built";
  std::random_device rd;
  const fs::path dir = fs::temp_directory_path() / ("lzss-tool-" + std::to_string(rd()));
  fs::create_directories(dir / "run");
  const std::string run = (dir / "run").string();
  auto path = [&](const char* pchName) { return (dir / pchName).string(); };
  auto write = [&](const char* pchName, const Bytes& v) {
    std::ofstream(path(pchName), std::ios::binary).write(reinterpret_cast<const char*>(v.data()), v.size());
  };

  const Bytes data = TextData(5 * 0x8000 + 100, 3);
  write("plain", data);
  TToolRun r = RunTool(tool, {"pack", path("plain"), path("packed")}, run);
  ASSERT_EQ(r.rc, 0) << r.err;
  const std::string packed = ReadFileBytes(path("packed"));
  ASSERT_GE(packed.size(), 18u);
  EXPECT_EQ(packed.substr(0, 4), "LZSS");
  EXPECT_EQ(GetLE32(reinterpret_cast<const BYTE*>(packed.data()) + 4), data.size());
  r = RunTool(tool, {"info", path("packed")}, run);
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("pages:       6\n"), std::string::npos) << r.out;
  r = RunTool(tool, {"unpack", path("packed"), path("back")}, run);
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_EQ(ReadFileBytes(path("back")), std::string(data.begin(), data.end()));

  // The third page's table entry points before the second's, so the second page's stream runs
  // backwards: the damage is reported where that page begins, after the first page was read,
  // and neither the output nor its temporary file is left behind.
  std::string damaged = packed;
  BYTE* pTable = reinterpret_cast<BYTE*>(&damaged[18]);
  PutLE32(pTable + 8, GetLE32(pTable + 4) - 1);
  write("damaged", Bytes(damaged.begin(), damaged.end()));
  r = RunTool(tool, {"unpack", path("damaged"), path("out")}, run);
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("is damaged at byte 32768 "), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(path("out")));
  EXPECT_FALSE(fs::exists(path("out") + ".lzss-tmp"));

  write("notlzss", Bytes(40, 'x'));
  r = RunTool(tool, {"info", path("notlzss")}, run);
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("is not a compressed file"), std::string::npos) << r.err;
  EXPECT_EQ(RunTool(tool, {"--help"}, run).rc, 0);
  EXPECT_EQ(RunTool(tool, {"unzip", path("packed")}, run).rc, 2);
  std::error_code ec;
  fs::remove_all(dir, ec);
#endif
}
