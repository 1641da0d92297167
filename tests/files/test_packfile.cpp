// Tests of pack files: mounting and its failures, case-insensitive lookups, the packed file's seek
// clamping and end-of-file rules, and round trips through an independent writer and reader of the
// format and through the pak tool.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base/memalloc.h"
#include "files/memfile.h"
#include "files/packfile.h"
#include "files/winfile.h"
#include "testfile.h"
#include "testutil.h"

namespace fs = std::filesystem;

namespace {

typedef std::vector<BYTE> Bytes;
typedef std::map<std::string, Bytes> FileMap;  // packed name -> contents

// --- An independent writer and reader of the pack format, written from its layout alone ------

const char kMagic[18] = {'T', 'W', 'K', 'S', 'Y', 'S', ' ',  'P',  'a',
                         'c', 'k', 'F', 'i', 'l', 'e', '\n', 0x1a, 0};

void Put32(Bytes& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; i++) b[at + i] = static_cast<BYTE>(v >> (8 * i));
}
uint32_t Get32(const Bytes& b, size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; i--) v = (v << 8) | b[at + i];
  return v;
}

// Header, directory (length, shared count, rest of the name, offset, size per file, names in
// byte order), then the contents in directory order. files must hold upper-case names.
Bytes WritePack(const FileMap& files) {
  Bytes dir;
  std::string prev;
  std::vector<std::pair<size_t, const Bytes*>> fixups;
  for (const auto& kv : files) {
    const std::string& name = kv.first;
    size_t shared = 0;
    while (shared < name.size() && shared < prev.size() && name[shared] == prev[shared]) shared++;
    dir.push_back(static_cast<BYTE>(name.size()));
    dir.push_back(static_cast<BYTE>(shared));
    dir.insert(dir.end(), name.begin() + shared, name.end());
    fixups.push_back({dir.size(), &kv.second});
    dir.resize(dir.size() + 8);
    prev = name;
  }
  Bytes pack(40, 0);
  memcpy(pack.data(), kMagic, sizeof(kMagic));
  Put32(pack, 32, static_cast<uint32_t>(files.size()));
  Put32(pack, 36, static_cast<uint32_t>(dir.size()));
  size_t offset = 40 + dir.size();
  for (auto& f : fixups) {
    Put32(dir, f.first, static_cast<uint32_t>(offset));
    Put32(dir, f.first + 4, static_cast<uint32_t>(f.second->size()));
    offset += f.second->size();
  }
  pack.insert(pack.end(), dir.begin(), dir.end());
  for (auto& f : fixups) pack.insert(pack.end(), f.second->begin(), f.second->end());
  return pack;
}

struct ReadResult {
  bool ok = false;
  std::vector<std::string> order;  // names as they stand in the directory
  FileMap files;
  std::map<std::string, std::pair<uint32_t, uint32_t>> where;  // offset, size
};

ReadResult ReadPack(const Bytes& pack) {
  ReadResult r;
  if (pack.size() < 40 || memcmp(pack.data(), kMagic, sizeof(kMagic)) != 0) return r;
  uint32_t count = Get32(pack, 32), dirSize = Get32(pack, 36);
  if (40 + static_cast<uint64_t>(dirSize) > pack.size()) return r;
  size_t pos = 40, end = 40 + dirSize;
  std::string prev;
  while (pos < end) {
    if (end - pos < 2) return r;
    size_t len = pack[pos], shared = pack[pos + 1];
    if (shared > prev.size() || shared > len || end - pos < 2 + (len - shared) + 8) return r;
    std::string name =
        prev.substr(0, shared) + std::string(pack.begin() + pos + 2, pack.begin() + pos + 2 + (len - shared));
    size_t at = pos + 2 + (len - shared);
    uint32_t off = Get32(pack, at), size = Get32(pack, at + 4);
    if (static_cast<uint64_t>(off) + size > pack.size()) return r;
    r.order.push_back(name);
    r.files[name] = Bytes(pack.begin() + off, pack.begin() + off + size);
    r.where[name] = {off, size};
    prev = name;
    pos = at + 8;
  }
  r.ok = r.order.size() == count;
  return r;
}

// --- Helpers ----------------------------------------------------------------------------------

// A pack on a byte vector, opened for reading only.
class CPackMedia : public CTestFile {
 public:
  explicit CPackMedia(Bytes data, bool* pbDeleted = nullptr) : CTestFile(std::move(data), pbDeleted) {
    SetMode(FILE_MODE_READ);
    m_bReadOnly = true;
  }
};

// A memory file holding bytes, for mounting a pack from memory.
CFile* MemFileOf(const Bytes& b) {
  DWORD h = HANDLE_ALLOC(b.size() ? b.size() : 1);
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(h));
  if (!b.empty()) memcpy(p, b.data(), b.size());
  HANDLE_UNLOCK(h);
  return new CMemFile(h, static_cast<DWORD>(b.size()), static_cast<DWORD>(b.size() ? b.size() : 1), 4096,
                      TRUE);
}

Bytes Random(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  for (auto& x : b) x = static_cast<BYTE>(rng());
  return b;
}

FileMap SmallSet() {
  FileMap files;
  files["DATA\\A.BMP"] = Random(10, 1);
  files["DATA\\B.BMP"] = Random(300, 2);
  files["README.TXT"] = Bytes{'h', 'i'};
  files["SOUND\\INTRO.WAV"] = Random(5000, 3);
  return files;
}

// Reads the whole of an open file through Read, in pieces of the given size.
Bytes ReadAll(CFile* pFile, DWORD dwPiece) {
  Bytes out;
  Bytes buf(dwPiece);
  for (;;) {
    DWORD got = 0;
    ERR err = pFile->Read(buf.data(), dwPiece, &got);
    EXPECT_EQ(err, ERR_NOERR);
    out.insert(out.end(), buf.begin(), buf.begin() + got);
    if (got < dwPiece || err) break;
  }
  return out;
}

// Each test has its own volume table, and nothing else in it; FSDone deletes what is mounted.
class PackTest : public ::testing::Test {
 protected:
  void SetUp() override { FSInit(5); }
  void TearDown() override { FSDone(); }
};

}  // namespace

// --- Mounting ---------------------------------------------------------------------------------

TEST_F(PackTest, MountNamesAndCaseInsensitiveLookup) {
  FileMap files = SmallSet();
  ASSERT_EQ(PackMount(MemFileOf(WritePack(files)), "pak:"), ERR_NOERR);
  ASSERT_EQ(PackMount(MemFileOf(WritePack(files)), "pak1:\\"), ERR_NOERR);
  EXPECT_EQ(g_wCount, 2);
  ERR err = 1;
  CFile* pLower = FileOpen("pak:\\data\\a.bmp", FILE_MODE_READ, &err);
  EXPECT_EQ(err, ERR_NOERR);
  CFile* pUpper = FileOpen("PAK1:\\DATA\\A.BMP", FILE_MODE_READ, nullptr);
  ASSERT_NE(pLower, nullptr);
  ASSERT_NE(pUpper, nullptr);
  EXPECT_EQ(ReadAll(pLower, 64), files["DATA\\A.BMP"]);
  EXPECT_EQ(ReadAll(pUpper, 64), files["DATA\\A.BMP"]);
  delete pLower;
  delete pUpper;
  // Unmounted with the backslash that the mount added, and without the one it was given.
  PackUnmount("pak:\\");
  EXPECT_EQ(g_wCount, 1);
  EXPECT_EQ(FileOpen("pak:\\README.TXT", FILE_MODE_READ, &err), nullptr);
  PackUnmount("pak1:");
  EXPECT_EQ(g_wCount, 0);
  // Unmounting what isn't there does nothing.
  PackUnmount("pak2:");
  EXPECT_EQ(g_wCount, 0);
}

TEST_F(PackTest, OffsetsAndMissingNames) {
  Bytes pack = WritePack(SmallSet());
  ReadResult ref = ReadPack(pack);
  ASSERT_TRUE(ref.ok);
  CPackFS* pVol = PackOpen(MemFileOf(pack), "x:");
  ASSERT_NE(pVol, nullptr);
  EXPECT_EQ(g_wCount, 0);  // not registered
  EXPECT_STREQ(pVol->GetName(), "x:\\");
  ERR err = 1;
  EXPECT_EQ(pVol->GetFileOffset("sound\\intro.wav", &err), ref.where["SOUND\\INTRO.WAV"].first);
  EXPECT_EQ(err, ERR_NOERR);
  EXPECT_EQ(pVol->GetFileOffset("sound\\intro", &err), 0u);
  EXPECT_EQ(err, ERR_FILE_NOTFOUND);
  // A missing name, a proper prefix of a name, one with a character more, and one too long.
  const std::string names[] = {"DATA\\C.BMP", "DATA\\A.BM", "DATA\\A.BMPX", std::string(200, 'A')};
  for (const std::string& name : names) {
    err = 1;
    EXPECT_EQ(pVol->Open(name.c_str(), 0, &err), nullptr) << name;
    EXPECT_EQ(err, ERR_FILE_NOTFOUND) << name;
  }
  CFile* pFile = pVol->Open("DATA\\B.BMP", 0, &err);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetSize(), 300u);
  delete pFile;
  delete pVol;
}

TEST_F(PackTest, FailedMountsDeleteTheFile) {
  FileMap files = SmallSet();
  Bytes good = WritePack(files);
  size_t dirSize = Get32(good, 36);
  struct Case {
    const char* what;
    Bytes pack;
    ERR expected;
  };
  std::vector<Case> cases;
  auto with = [&](const char* what, size_t at, uint32_t v, ERR expected) {
    Bytes b = good;
    Put32(b, at, v);
    cases.push_back({what, b, expected});
  };
  auto withByte = [&](const char* what, size_t at, BYTE v) {
    Bytes b = good;
    b[at] = v;
    cases.push_back({what, b, ERR_PACK_BADPACK});
  };
  withByte("bad magic", 3, 'x');
  cases.push_back({"header cut short", Bytes(good.begin(), good.begin() + 39), ERR_PACK_READ});
  cases.push_back(
      {"directory cut short", Bytes(good.begin(), good.begin() + 40 + dirSize - 1), ERR_PACK_READ});
  with("directory size past the file", 36, 0xFFFFFFF0u, ERR_PACK_READ);
  with("count above the entries", 32, static_cast<uint32_t>(files.size() + 1), ERR_PACK_BADPACK);
  with("count below the entries", 32, static_cast<uint32_t>(files.size() - 1), ERR_PACK_BADPACK);
  with("directory ends inside an entry", 36, static_cast<uint32_t>(dirSize - 3), ERR_PACK_BADPACK);
  // The first entry's offset ("DATA\A.BMP" is 10 characters), so the file runs past the end.
  with("contents past the end", 40 + 2 + 10, static_cast<uint32_t>(good.size() - 5), ERR_PACK_BADPACK);
  with("offset far outside", 40 + 2 + 10, 0xFFFFFFF0u, ERR_PACK_BADPACK);
  withByte("name too long", 40, 200);               // a length over 127
  withByte("first entry shares", 40 + 1, 3);        // the first entry can't share anything
  withByte("lower-case name", 40 + 2 + 1, 'a');     // "DaTA\A.BMP" can never be found
  withByte("0 byte in a name", 40 + 2 + 6, 0);      // "DATA\A\0BMP": a C string can't reach it
  withByte("names out of order", 40 + 2 + 5, 'C');  // "DATA\C.BMP" now above "DATA\B.BMP"
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    bool bDeleted = false;
    AssertCatcher catcher;
    EXPECT_EQ(PackMount(new CPackMedia(c.pack, &bDeleted), "pak:"), c.expected);
    EXPECT_TRUE(bDeleted);
    EXPECT_TRUE(catcher.Fired("FALSE"));
    EXPECT_EQ(g_wCount, 0);
  }
  // No file at all, a file that is not valid, and a read failure.
  EXPECT_EQ(PackMount(nullptr, "pak:"), ERR_PACK_BADPACK);
  bool bDeleted = false;
  CPackMedia* pFile = new CPackMedia(good, &bDeleted);
  pFile->SetValid(false);
  EXPECT_EQ(PackMount(pFile, "pak:"), ERR_PACK_BADPACK);
  EXPECT_TRUE(bDeleted);
  bDeleted = false;
  pFile = new CPackMedia(good, &bDeleted);
  pFile->m_errRead = ERR_FILE_READ;
  AssertCatcher catcher;
  EXPECT_EQ(PackMount(pFile, "pak:"), ERR_PACK_READ);
  EXPECT_TRUE(bDeleted);
  EXPECT_EQ(g_wCount, 0);
  // The directory's block can't be locked: a failed read of the directory, not a lack of memory.
  bDeleted = false;
  catcher.Clear();
  pFile = new CPackMedia(good, &bDeleted);
  DWORD dwOldLimit = g_dwHLockedLimit;
  g_dwHLockedLimit = g_dwHLockedMem;
  EXPECT_EQ(PackMount(pFile, "pak:"), ERR_PACK_READ);
  g_dwHLockedLimit = dwOldLimit;
  EXPECT_TRUE(catcher.Fired("FALSE"));
  EXPECT_TRUE(bDeleted);
  EXPECT_EQ(g_wCount, 0);
}

TEST_F(PackTest, NoFilesGivesBadPackAndKeepsFile) {
  // Through the mount's own steps, so that the volume it leaves can be freed here.
  for (size_t at : {32, 36}) {
    Bytes pack = WritePack(SmallSet());
    Put32(pack, at, 0);
    bool bDeleted = false;
    CPackFS* pVol = new CPackFS(new CPackMedia(pack, &bDeleted));
    ASSERT_NE(pVol, nullptr);
    AssertCatcher catcher;
    BOOL bAbandon = 0;
    EXPECT_EQ(pVol->Load("pak:", &bAbandon), ERR_PACK_BADPACK);
    // The mount leaves this volume as it is, file and all: nothing deletes it.
    EXPECT_TRUE(bAbandon);
    EXPECT_FALSE(bDeleted);
    EXPECT_EQ(catcher.Count(), 0u);
    EXPECT_EQ(pVol->GetDictionary(), nullptr);
    delete pVol;
    EXPECT_TRUE(bDeleted);
  }
}

TEST_F(PackTest, PackInsidePackCannotBeMounted) {
  FileMap outer;
  outer["INNER.PAK"] = WritePack(SmallSet());
  ASSERT_EQ(PackMount(MemFileOf(WritePack(outer)), "pak:"), ERR_NOERR);
  CFile* pInner = FileOpen("pak:\\inner.pak", FILE_MODE_READ, nullptr);
  ASSERT_NE(pInner, nullptr);
  EXPECT_FALSE(pInner->IsValid());
  EXPECT_EQ(PackMount(pInner, "inner:"), ERR_PACK_BADPACK);  // deletes pInner
}

TEST_F(PackTest, TableFullAsserts) {
  const char* names[] = {"a:", "b:", "c:", "d:", "e:", "f:"};
  for (int i = 0; i < 5; i++) ASSERT_EQ(PackMount(MemFileOf(WritePack(SmallSet())), names[i]), ERR_NOERR);
  AssertCatcher catcher;
  bool bDeleted = false;
  // The mount reports success all the same; nothing is registered under the name.
  EXPECT_EQ(PackMount(new CPackMedia(WritePack(SmallSet()), &bDeleted), names[5]), ERR_NOERR);
  EXPECT_TRUE(catcher.Fired("g_wCount<g_wMaxFS"));
  EXPECT_TRUE(bDeleted);
  EXPECT_EQ(g_wCount, 5);
  ERR err = ERR_NOERR;
  CFile* pNone = g_pfnFileOpen("f:\\README.TXT", FILE_MODE_READ, &err);
  EXPECT_EQ(pNone, nullptr);
  delete pNone;
}

// --- Packed files -----------------------------------------------------------------------------

TEST_F(PackTest, SeekClampsAtLastByte) {
  FileMap files;
  files["TEN"] = Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  ASSERT_EQ(PackMount(MemFileOf(WritePack(files)), "pak:"), ERR_NOERR);
  CFile* pFile = FileOpen("pak:\\ten", FILE_MODE_READ, nullptr);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetSize(), 10u);
  // Each seek in turn, from where the one before left the file: every one succeeds, and a
  // position past the last byte is clamped to it.
  const struct {
    LONG lOfs;
    SHORT wOrigin;
    DWORD dwPos;
  } seeks[] = {
      {0, FILE_END, 9},      {-3, FILE_END, 6},    {5, FILE_END, 9},
      {5, FILE_BEGIN, 5},    {10, FILE_BEGIN, 9},  {-1, FILE_BEGIN, 9},  // as unsigned: far past the end
      {2, FILE_BEGIN, 2},    {3, FILE_CURRENT, 5}, {-5, FILE_CURRENT, 0},
      {-1, FILE_CURRENT, 9}, {4, FILE_BEGIN, 4},   {1, 7, 4},  // unknown origin: position unchanged
  };
  for (const auto& k : seeks) {
    SCOPED_TRACE(std::to_string(k.lOfs) + " from " + std::to_string(k.wOrigin));
    EXPECT_EQ(pFile->Seek(k.lOfs, k.wOrigin), ERR_NOERR);
    EXPECT_EQ(pFile->GetPos(), k.dwPos);
  }
  BYTE b = 0xFF;
  EXPECT_EQ(pFile->Read(&b, 1, nullptr), ERR_NOERR);
  EXPECT_EQ(b, 4);
  delete pFile;
}

TEST_F(PackTest, ReadAcrossTheEndAndOfAnEmptyFile) {
  FileMap files;
  files["EMPTY"] = Bytes();
  files["TEN"] = Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  files["ZZZ"] = Bytes{0xAA, 0xBB};
  ASSERT_EQ(PackMount(MemFileOf(WritePack(files)), "pak:"), ERR_NOERR);
  CFile* pFile = FileOpen("pak:\\TEN", FILE_MODE_READ, nullptr);
  ASSERT_NE(pFile, nullptr);
  BYTE buf[8];
  memset(buf, 0xEE, sizeof(buf));
  EXPECT_EQ(pFile->Seek(7, FILE_BEGIN), ERR_NOERR);
  DWORD got = 99;
  // With a count pointer: success and a short count, and nothing of the next file.
  EXPECT_EQ(pFile->Read(buf, 8, &got), ERR_NOERR);
  EXPECT_EQ(got, 3u);
  EXPECT_EQ((Bytes{7, 8, 9, 0xEE}), Bytes(buf, buf + 4));
  EXPECT_EQ(pFile->GetPos(), 10u);
  EXPECT_EQ(pFile->Read(buf, 8, &got), ERR_NOERR);
  EXPECT_EQ(got, 0u);
  // Without one: the end of the file, the bytes delivered all the same.
  EXPECT_EQ(pFile->Seek(8, FILE_BEGIN), ERR_NOERR);
  memset(buf, 0xEE, sizeof(buf));
  EXPECT_EQ(pFile->Read(buf, 8, nullptr), ERR_FILE_EOF);
  EXPECT_EQ((Bytes{8, 9, 0xEE}), Bytes(buf, buf + 3));
  // A read that fits is 0 either way.
  EXPECT_EQ(pFile->Seek(0, FILE_BEGIN), ERR_NOERR);
  EXPECT_EQ(pFile->Read(buf, 4, nullptr), ERR_NOERR);
  delete pFile;

  pFile = FileOpen("pak:\\EMPTY", 0, nullptr);
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->GetSize(), 0u);
  got = 9;
  EXPECT_EQ(pFile->Read(buf, 1, &got), ERR_NOERR);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(pFile->Read(buf, 1, nullptr), ERR_FILE_EOF);
  pFile->Seek(0, FILE_END);
  EXPECT_EQ(pFile->Read(buf, 1, &got), ERR_NOERR);
  EXPECT_EQ(got, 0u);
  delete pFile;
}

TEST_F(PackTest, OpenFilesDontDisturbEachOther) {
  FileMap files = SmallSet();
  ASSERT_EQ(PackMount(MemFileOf(WritePack(files)), "pak:"), ERR_NOERR);
  CFile* pA = FileOpen("pak:\\SOUND\\INTRO.WAV", FILE_MODE_READ, nullptr);
  CFile* pB = FileOpen("pak:\\DATA\\B.BMP", FILE_MODE_READ, nullptr);
  ASSERT_NE(pA, nullptr);
  ASSERT_NE(pB, nullptr);
  Bytes a, b;
  BYTE buf[37];
  for (;;) {
    DWORD gotA = 0, gotB = 0;
    pA->Read(buf, sizeof(buf), &gotA);
    a.insert(a.end(), buf, buf + gotA);
    pB->Read(buf, 13, &gotB);
    b.insert(b.end(), buf, buf + gotB);
    if (!gotA && !gotB) break;
  }
  EXPECT_EQ(a, files["SOUND\\INTRO.WAV"]);
  EXPECT_EQ(b, files["DATA\\B.BMP"]);
  delete pA;
  delete pB;
}

TEST_F(PackTest, PackedFilesAreReadOnly) {
  ASSERT_EQ(PackMount(MemFileOf(WritePack(SmallSet())), "pak:"), ERR_NOERR);
  AssertCatcher catcher;
  ERR err = 0;
  EXPECT_EQ(FileOpen("pak:\\README.TXT", FILE_MODE_READWRITE, &err), nullptr);
  EXPECT_EQ(err, ERR_PACK_BADMODE);
  EXPECT_TRUE(catcher.Fired("FALSE"));
  catcher.Clear();
  CFile* pFile = FileOpen("pak:\\README.TXT", 0, nullptr);
  ASSERT_NE(pFile, nullptr);
  EXPECT_FALSE(pFile->IsValid());
  DWORD written = 7;
  EXPECT_EQ(pFile->Write("x", 1, &written), ERR_NOERR);
  EXPECT_EQ(written, 7u);  // no count is stored
  EXPECT_EQ(catcher.Count(), 1u);
  EXPECT_EQ(pFile->Truncate(), ERR_NOERR);
  EXPECT_EQ(catcher.Count(), 2u);
  EXPECT_EQ(pFile->Flush(), ERR_NOERR);
  EXPECT_EQ(catcher.Count(), 2u);
  EXPECT_EQ(ReadAll(pFile, 10), (Bytes{'h', 'i'}));
  delete pFile;
}

TEST_F(PackTest, FailingDiscAfterMount) {
  CPackMedia* pPack = new CPackMedia(WritePack(SmallSet()));
  ASSERT_EQ(PackMount(pPack, "pak:"), ERR_NOERR);
  CFile* pFile = FileOpen("pak:\\DATA\\B.BMP", 0, nullptr);
  ASSERT_NE(pFile, nullptr);
  pPack->m_errRead = ERR_FILE_READ;
  AssertCatcher catcher;
  BYTE buf[16];
  DWORD got = 5;
  EXPECT_EQ(pFile->Read(buf, 16, &got), ERR_FILE_READ);
  EXPECT_TRUE(catcher.Fired("err==ERR_NOERR"));
  EXPECT_EQ(pFile->GetPos(), 0u);
  // The failed read stores no count: the caller's value is left alone.
  EXPECT_EQ(got, 5u);
  catcher.Clear();
  pPack->m_errRead = 0;
  pPack->m_errSeek = ERR_FILE_SEEK;
  got = 6;
  EXPECT_EQ(pFile->Read(buf, 16, &got), ERR_FILE_SEEK);
  EXPECT_TRUE(catcher.Fired("err==ERR_NOERR"));
  EXPECT_EQ(got, 6u);
  EXPECT_EQ(pFile->GetPos(), 0u);
  delete pFile;
}

// --- Round trips ------------------------------------------------------------------------------

TEST_F(PackTest, IndependentWriterManyFiles) {
  // Enough files for the index of every hundredth name to matter, with long shared starts.
  std::mt19937 rng(123);
  FileMap files;
  while (files.size() < 1234) {
    std::string name = "LEVEL" + std::to_string(rng() % 20) + "\\";
    int len = 1 + rng() % 20;
    for (int i = 0; i < len; i++) name += "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.!"[rng() % 39];
    files[name] = Random(rng() % 700, static_cast<unsigned>(files.size()));
  }
  Bytes pack = WritePack(files);
  ASSERT_TRUE(ReadPack(pack).ok);
  CPackFS* pVol = PackOpen(MemFileOf(pack), "pak:");
  ASSERT_NE(pVol, nullptr);
  ASSERT_NE(pVol->GetDictionary(), nullptr);
  EXPECT_EQ(pVol->GetDictionary()->GetIndexCount(), 12u);
  for (const auto& kv : files) {
    std::string lower = kv.first;
    for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    CFile* pFile = pVol->Open(lower.c_str(), FILE_MODE_READ, nullptr);
    ASSERT_NE(pFile, nullptr) << kv.first;
    EXPECT_EQ(pFile->GetSize(), kv.second.size());
    EXPECT_EQ(ReadAll(pFile, 97), kv.second) << kv.first;
    delete pFile;
  }
  delete pVol;
}

namespace {

fs::path TempDir(const char* tag) {
  fs::path p = fs::temp_directory_path() / (std::string("pack_test_") + tag + "_" + std::to_string(rand()));
  fs::remove_all(p);
  fs::create_directories(p);
  return p;
}

void WriteFile(const fs::path& p, const Bytes& b) {
  fs::create_directories(p.parent_path());
  std::ofstream os(p, std::ios::binary);
  os.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

std::string PakTool() { return std::string(SETUP_BINARY_DIR) + "/tools/pak"; }

// Runs the pak tool with quoted arguments; its exit code.
int Pak(const std::string& command, const fs::path& a, const fs::path& b = fs::path()) {
  std::string cmd = PakTool() + " " + command + " '" + a.string() + "'";
  if (!b.empty()) cmd += " '" + b.string() + "'";
  return system((cmd + " >/dev/null 2>&1").c_str());
}

}  // namespace

TEST_F(PackTest, PakCreateMountsAndReadsBack) {
  if (!fs::exists(PakTool())) GTEST_SKIP() << "the pak tool is not built: " << PakTool();
  fs::path dir = TempDir("src");
  std::map<std::string, Bytes> sources;  // host relative path -> bytes
  std::mt19937 rng(9);
  const char* dirs[] = {"", "Data/", "Data/Bmp/", "snd/", "Data/bmp2/deep/"};
  for (int i = 0; i < 260; i++) {
    std::string rel = std::string(dirs[rng() % 5]) + "f" + std::to_string(i) + (i % 3 ? ".bmp" : ".Wav");
    sources[rel] = Random(rng() % 3000 + (i == 7 ? 200000 : 0), i);
  }
  for (const auto& kv : sources) WriteFile(dir / kv.first, kv.second);
  fs::path out = dir.parent_path() / (dir.filename().string() + ".pak");
  ASSERT_EQ(Pak("create", out, dir), 0);
  std::string text = ReadFileBytes(out);
  Bytes pack(text.begin(), text.end());

  // Our reader, from memory and from the native file.
  CPackFS* pVol = PackOpen(MemFileOf(pack), "pak:");
  ASSERT_NE(pVol, nullptr);
  CWinFS native;
  ASSERT_EQ(PackMount(native.Open(out.string().c_str(), FILE_MODE_READ, nullptr), "disk:"), ERR_NOERR);
  for (const auto& kv : sources) {
    std::string name = kv.first;
    std::replace(name.begin(), name.end(), '/', '\\');
    CFile* pFile = pVol->Open(name.c_str(), FILE_MODE_READ, nullptr);
    ASSERT_NE(pFile, nullptr) << name;
    EXPECT_EQ(ReadAll(pFile, 4096), kv.second) << name;
    delete pFile;
    pFile = FileOpen(("disk:\\" + name).c_str(), FILE_MODE_READ, nullptr);
    ASSERT_NE(pFile, nullptr) << name;
    EXPECT_EQ(ReadAll(pFile, 1000), kv.second) << name;
    delete pFile;
  }
  PackUnmount("disk:");
  delete pVol;

  // The independent reader: upper-case names, byte order, every file whole.
  ReadResult ref = ReadPack(pack);
  ASSERT_TRUE(ref.ok);
  ASSERT_EQ(ref.files.size(), sources.size());
  EXPECT_TRUE(std::is_sorted(ref.order.begin(), ref.order.end()));
  for (const auto& kv : sources) {
    std::string name = kv.first;
    std::replace(name.begin(), name.end(), '/', '\\');
    for (char& c : name) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    ASSERT_EQ(ref.files.count(name), 1u) << name;
    EXPECT_EQ(ref.files[name], kv.second) << name;
  }

  // And back out through the tool.
  fs::path back = dir.parent_path() / (dir.filename().string() + "_out");
  ASSERT_EQ(Pak("extract", out, back), 0);
  for (const auto& kv : ref.files) {
    std::string rel = kv.first;
    std::replace(rel.begin(), rel.end(), '\\', '/');
    std::string got = ReadFileBytes(back / rel);
    EXPECT_EQ(Bytes(got.begin(), got.end()), kv.second) << rel;
  }
  fs::remove_all(dir);
  fs::remove_all(back);
  fs::remove(out);
}

TEST_F(PackTest, PakRefusesWhatFormatCantHoldAndEscapingNames) {
  if (!fs::exists(PakTool())) GTEST_SKIP() << "the pak tool is not built: " << PakTool();
  fs::path base = TempDir("refuse");
  WriteFile(base / "dup" / "a.txt", {1});
  WriteFile(base / "dup" / "A.TXT", {2});
  WriteFile(base / "long" / std::string(128, 'n'), {3});
  WriteFile(base / "ok" / std::string(127, 'n'), {4});
  fs::create_directories(base / "empty");
  EXPECT_NE(Pak("create", base / "d.pak", base / "dup"), 0);
  EXPECT_NE(Pak("create", base / "l.pak", base / "long"), 0);
  EXPECT_NE(Pak("create", base / "e.pak", base / "empty"), 0);
  EXPECT_EQ(Pak("create", base / "o.pak", base / "ok"), 0);
  // Refusals leave nothing behind, not even a temporary file.
  std::vector<std::string> left;
  for (const auto& e : fs::directory_iterator(base)) left.push_back(e.path().filename().string());
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::string>{"dup", "empty", "long", "o.pak", "ok"}));
  // A damaged pack is refused by list and extract, and extract writes nothing.
  std::string pack = ReadFileBytes(base / "o.pak");
  WriteFile(base / "cut.pak", Bytes(pack.begin(), pack.end() - 1));
  EXPECT_NE(Pak("list", base / "cut.pak"), 0);
  EXPECT_NE(Pak("extract", base / "cut.pak", base / "x"), 0);
  EXPECT_FALSE(fs::exists(base / "x"));
  EXPECT_EQ(system((PakTool() + " --help >/dev/null 2>&1").c_str()), 0);
  EXPECT_NE(system((PakTool() + " frobnicate >/dev/null 2>&1").c_str()), 0);
  // Names that would climb out of the target directory.
  FileMap files;
  files["..\\..\\ESCAPED.TXT"] = Bytes{1, 2, 3};
  WriteFile(base / "evil.pak", WritePack(files));
  EXPECT_NE(Pak("extract", base / "evil.pak", base / "out"), 0);
  EXPECT_FALSE(fs::exists(base / "out"));
  EXPECT_FALSE(fs::exists(base.parent_path() / "ESCAPED.TXT"));
  fs::remove_all(base);
}
