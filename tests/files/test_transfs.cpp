// Tests of the translating volume: prefixing, slash turning, and passing each call to its target.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "files/transfs.h"
#include "testutil.h"

namespace {

// A target volume that records every call as "Op(path[,second])" with its other arguments.
class CTargetFS : public CFS {
 public:
  CFile* Open(const char* pchPath, WORD wMode, ERR* pErr) override {
    m_calls.push_back("Open(" + std::string(pchPath) + ")");
    m_wMode = wMode;
    if (pErr) *pErr = 0x4321;
    return 0;
  }
  BOOL Exists(const char* pchPath) override {
    m_calls.push_back("Exists(" + std::string(pchPath) + ")");
    return 5;
  }
  ERR Delete(const char* pchPath) override {
    m_calls.push_back("Delete(" + std::string(pchPath) + ")");
    return 0x11;
  }
  ERR Rename(const char* pchOld, const char* pchNew) override {
    m_calls.push_back("Rename(" + std::string(pchOld) + "," + pchNew + ")");
    return 0x12;
  }
  ERR CreateDir(const char* pPath, const char* pDirName) override {
    m_calls.push_back("CreateDir(" + std::string(pPath) + "," + pDirName + ")");
    return 0x13;
  }
  ERR RemoveDir(const char* pPath, const char* pDirName) override {
    m_calls.push_back("RemoveDir(" + std::string(pPath) + "," + pDirName + ")");
    return 0x14;
  }
  ERR FindFirst(TFindInfo* pInfo, const char* pPath) override {
    m_calls.push_back("FindFirst(" + std::string(pPath) + ")");
    pInfo->pFS = this;
    return 0x15;
  }
  ERR FindNext(TFindInfo* pInfo) override {
    m_calls.push_back("FindNext");
    return 0x16;
  }
  std::vector<std::string> m_calls;
  WORD m_wMode = 0;
};

}  // namespace

TEST(TransFSTranslate, PrefixAndSlashes) {
  CTargetFS target;
  const struct {
    const char *prefix, *path, *expected;
  } cases[] = {
      {"C:\\Game\\", "Data/a.bmp", "C:\\Game\\Data\\a.bmp"},
      {nullptr, "a/b//c\\d/", "a\\b\\\\c\\d\\"},  // no prefix: slashes turned only
      {"/CD/", "Packs/x", "/CD/Packs\\x"},        // the prefix keeps its own slashes
      {"/CD/", nullptr, "/CD/"},                  // a null path counts as empty
  };
  for (const auto& c : cases) {
    CTransFS* pFS = new CTransFS(c.prefix, &target);
    ASSERT_NE(pFS, nullptr);
    char sz[TRANSFS_MAX_PATH];
    EXPECT_EQ(pFS->Translate(sz, c.path), sz);
    EXPECT_STREQ(sz, c.expected);
    char szPrefix[256];
    pFS->GetPrefix(szPrefix);
    EXPECT_STREQ(szPrefix, c.prefix ? c.prefix : "");
    delete pFS;
  }
}

TEST(TransFSTranslate, MissingTargetAsserts) {
  AssertCatcher catcher;
  CTransFS* pFS = new CTransFS("x", nullptr);
  ASSERT_NE(pFS, nullptr);
  EXPECT_TRUE(catcher.Fired("pTransFS"));
  ERR err = 0;
  EXPECT_EQ(pFS->Open("a", FILE_MODE_READ, &err), nullptr);
  EXPECT_EQ(err, ERR_BADPARAM);
  delete pFS;
}

TEST(TransFSCalls, EachOperationReachesTarget) {
  CTargetFS target;
  CTransFS* pFS = new CTransFS("root\\", &target);
  ASSERT_NE(pFS, nullptr);
  ERR err = 0;
  EXPECT_EQ(pFS->Open("d/f.txt", FILE_MODE_CREATE, &err), nullptr);
  EXPECT_EQ(err, 0x4321u);
  EXPECT_EQ(target.m_wMode, FILE_MODE_CREATE);
  EXPECT_EQ(pFS->Exists("e/f"), 5);
  EXPECT_EQ(pFS->Delete("g/h"), 0x11u);
  EXPECT_EQ(pFS->Rename("old/1", "new/2"), 0x12u);
  EXPECT_EQ(pFS->CreateDir("p/q", "n/m"), 0x13u);
  EXPECT_EQ(pFS->RemoveDir("r/s", "t/u"), 0x14u);
  TFindInfo info;
  memset(&info, 0, sizeof(info));
  EXPECT_EQ(pFS->FindFirst(&info, "w/*"), 0x15u);
  // The listing continues at the target, which put itself into the record.
  EXPECT_EQ(info.pFS, &target);
  EXPECT_EQ(info.pFS->FindNext(&info), 0x16u);
  std::vector<std::string> expected = {"Open(root\\d\\f.txt)",      "Exists(root\\e\\f)",
                                       "Delete(root\\g\\h)",        "Rename(root\\old\\1,root\\new\\2)",
                                       "CreateDir(root\\p\\q,n/m)", "RemoveDir(root\\r\\s,t/u)",
                                       "FindFirst(root\\w\\*)",     "FindNext"};
  EXPECT_EQ(target.m_calls, expected);
  delete pFS;
}

TEST(TransFSCalls, TooLongPathIsRefusedAndLongPrefixCut) {
  CTargetFS target;
  std::string prefix(200, 'p');
  CTransFS* pFS = new CTransFS(prefix.c_str(), &target);
  ASSERT_NE(pFS, nullptr);
  std::string fits(TRANSFS_MAX_PATH - 1 - 200, 'a');
  std::string longer = fits + "b";
  EXPECT_EQ(pFS->Exists(fits.c_str()), 5);
  EXPECT_EQ(pFS->Exists(longer.c_str()), 0);
  EXPECT_EQ(pFS->Delete(longer.c_str()), ERR_BADPARAM);
  EXPECT_EQ(target.m_calls.size(), 1u);
  delete pFS;
  // A prefix too long for its record is cut.
  pFS = new CTransFS(std::string(300, 'z').c_str(), &target);
  ASSERT_NE(pFS, nullptr);
  char sz[256];
  pFS->GetPrefix(sz);
  EXPECT_EQ(strlen(sz), 255u);
  delete pFS;
}
