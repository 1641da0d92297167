// Tests of initool, run as a program on copies of the script fixtures: values printed as the
// store returns them, edits whose bytes follow the store's splice rules on CR LF and LF-only
// scripts, clear failures, and no half-written or stray files.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "config/ini.h"
#include "testfile.h"
#include "testutil.h"

namespace fs = std::filesystem;

namespace {

void WriteAll(const fs::path& path, const std::string& s) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << s;
}

std::string Fixture(const char* pchName) {
  return ReadFileBytes(fs::path(SETUP_TEST_DATA) / "ini" / pchName);
}

class Initool : public ::testing::Test {
 protected:
  void SetUp() override {
#if defined(_WIN32)
    GTEST_SKIP() << "the tool is run through a POSIX shell";
#else
    m_tool = FindTool("initool");
    if (m_tool.empty()) GTEST_SKIP() << "initool is not built";
    std::random_device rd;
    m_dir = fs::temp_directory_path() / ("initool-test-" + std::to_string(rd()));
    fs::create_directories(m_dir);
    m_run = m_dir / "run";
    fs::create_directories(m_run);
#endif
  }
  void TearDown() override {
    std::error_code ec;
    if (!m_dir.empty()) fs::remove_all(m_dir, ec);
  }

  // Runs the tool with the arguments; output and exit code go through files in m_run.
  TToolRun Run(const std::vector<std::string>& args) {
    return RunTool(m_tool.string(), args, m_run.string());
  }

  // A copy of a fixture in the work directory.
  fs::path Copy(const char* pchName, const std::string& as = "script.ini") {
    fs::path p = m_dir / as;
    WriteAll(p, Fixture(pchName));
    return p;
  }

  // Files in the work directory, the run folder aside.
  std::vector<std::string> Files() {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(m_dir))
      if (e.path() != m_run) names.push_back(e.path().filename().string());
    return names;
  }

  fs::path m_tool, m_dir, m_run;
};

// What the store's edit makes of a text; the store's splice bytes are pinned by its own tests.
std::string StoreSet(const std::string& text, const char* pchSection, const char* pchKey,
                     const char* pchValue) {
  CIni ini;
  CTestFile in(text);
  EXPECT_EQ(ini.Load(&in), 0u);
  EXPECT_EQ(ini.SetString(pchSection, pchKey, pchValue), 0u);
  CTestFile out;
  EXPECT_EQ(ini.Save(&out), 0u);
  return out.Text();
}

}  // namespace

TEST_F(Initool, HelpAndUsage) {
  TToolRun r = Run({"--help"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("usage: initool get FILE SECTION KEY"), std::string::npos);
  EXPECT_NE(r.out.find("initool set FILE SECTION KEY VALUE"), std::string::npos);
  r = Run({});
  EXPECT_EQ(r.rc, 2);
  EXPECT_NE(r.err.find("usage:"), std::string::npos);
  r = Run({"frobnicate", "x"});
  EXPECT_EQ(r.rc, 2);
  EXPECT_NE(r.err.find("unknown command 'frobnicate'"), std::string::npos);
  r = Run({"get", "only-a-file"});
  EXPECT_EQ(r.rc, 2);
  EXPECT_NE(r.err.find("wrong number of arguments"), std::string::npos);
}

TEST_F(Initool, GetPrintsEveryValueAsStoreReturnsIt) {
  for (const char* pchName : {"script_crlf.ini", "script_lf.ini"}) {
    fs::path file = Copy(pchName);
    std::string text = Fixture(pchName);
    CIni ini;
    CTestFile in(text);
    ASSERT_EQ(ini.Load(&in), 0u);
    char szSections[1024], szKeys[1024], szValue[1024];
    ASSERT_EQ(ini.GetSectionNames(szSections, sizeof(szSections)), 0u);
    int nKeys = 0;
    for (const char* s = szSections; *s; s += strlen(s) + 1) {
      ASSERT_EQ(ini.GetEntryNames(s, szKeys, sizeof(szKeys)), 0u);
      for (const char* k = szKeys; *k; k += strlen(k) + 1) {
        ASSERT_EQ(ini.GetString(s, k, szValue, sizeof(szValue)), 0u);
        TToolRun r = Run({"get", file.string(), s, k});
        EXPECT_EQ(r.rc, 0) << s << "/" << k << ": " << r.err;
        EXPECT_EQ(r.out, std::string(szValue) + "\n") << s << "/" << k;
        EXPECT_EQ(r.err, "");
        nKeys++;
      }
    }
    EXPECT_EQ(nKeys, 7) << pchName;
    // The values as the script's author would expect them.
    EXPECT_EQ(Run({"get", file.string(), "Setup", "Color"}).out, "255, 200, 0\n");
    EXPECT_EQ(Run({"get", file.string(), "Files", "Readme"}).out, "\n");
    EXPECT_EQ(Run({"get", file.string(), "Files", "1.game"}).out, "\"GAME.EXE\" \"\\\\\"\n");
    EXPECT_EQ(ReadFileBytes(file), text);  // reading never writes
  }
}

TEST_F(Initool, ListsInOrderAndMissingSectionKeyOrFileFails) {
  fs::path file = Copy("script_crlf.ini");
  TToolRun r = Run({"sections", file.string()});
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out, "Setup\nFiles\nMessages\n");
  r = Run({"keys", file.string(), "Setup"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out, "Title\nSize\nColor\n");
  EXPECT_EQ(Run({"keys", file.string(), "Files"}).out, "1.game\nReadme\n");
  r = Run({"get", file.string(), "Nope", "Title"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("no section [Nope]"), std::string::npos) << r.err;
  r = Run({"get", file.string(), "setup", "Title"});  // names keep their case
  EXPECT_EQ(r.rc, 1);
  r = Run({"get", file.string(), "Setup", "Nope"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("no key 'Nope' in section [Setup]"), std::string::npos) << r.err;
  r = Run({"keys", file.string(), "Nope"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("no section [Nope]"), std::string::npos) << r.err;
  // An empty file has no sections at all.
  WriteAll(m_dir / "empty.ini", "");
  r = Run({"keys", (m_dir / "empty.ini").string(), "Setup"});
  EXPECT_EQ(r.rc, 1);
  r = Run({"sections", (m_dir / "empty.ini").string()});
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out, "");
  // A file that cannot be read.
  std::string missing = (m_dir / "missing.ini").string();
  for (const auto& args : std::vector<std::vector<std::string>>{{"get", missing, "S", "k"},
                                                                {"set", missing, "S", "k", "v"},
                                                                {"sections", missing},
                                                                {"keys", m_dir.string(), "S"}}) {
    TToolRun r = Run(args);
    EXPECT_EQ(r.rc, 3) << args[0];
    EXPECT_NE(r.err.find("cannot read"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
  }
  EXPECT_FALSE(fs::exists(missing));
  std::vector<std::string> files = Files();
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, std::vector<std::string>({"empty.ini", "script.ini"}));
}

TEST_F(Initool, SetMatchesStoreOnEveryKind) {
  struct {
    const char* pchSection;
    const char* pchKey;
    const char* pchValue;
  } edits[] = {{"Setup", "Title", "Other Game"},
               {"Setup", "Depth", "8"},
               {"Files", "Readme", "README.TXT"},
               {"Messages", "Done", "Finished."},
               {"Extra Stuff", "key with blanks", "a=b ;c"},
               {"Setup", "Size", "800,600"},
               {"Setup", "size", "1"},
               {"Files", "2.game", "\"X\""},
               {"Messages", "Error", ""},
               {"[odd", "k", "v"},
               {"Setup", "Title", "x;y=z"},
               {"New", "a", "1"},
               {"New", "b", "2"}};
  for (const char* pchName : {"script_crlf.ini", "script_lf.ini"}) {
    fs::path file = Copy(pchName);
    std::string expected = Fixture(pchName);
    for (const auto& e : edits) {
      TToolRun r = Run({"set", file.string(), e.pchSection, e.pchKey, e.pchValue});
      ASSERT_EQ(r.rc, 0) << r.err;
      expected = StoreSet(expected, e.pchSection, e.pchKey, e.pchValue);
      EXPECT_EQ(ReadFileBytes(file), expected) << pchName << " " << e.pchSection << "/" << e.pchKey;
    }
    // Comments survive every edit; values read back; no other file is left behind.
    EXPECT_NE(expected.find("  ; the colour of the title text"), std::string::npos);
    EXPECT_EQ(Run({"get", file.string(), "Extra Stuff", "key with blanks"}).out, "a=b ;c\n");
    EXPECT_EQ(Files(), std::vector<std::string>({"script.ini"}));
  }
}

TEST_F(Initool, SetRefusesWhatCannotBeReadBack) {
  fs::path file = Copy("script_crlf.ini");
  std::string text = Fixture("script_crlf.ini");
  for (const auto& args : std::vector<std::vector<std::string>>{{"Setup", "a=b", "v"},
                                                                {"Setup", "k", "two\nlines"},
                                                                {"Setup", " k", "v"},
                                                                {"Setup", ";k", "v"},
                                                                {"Setup", "k", " padded"},
                                                                {"Se]tup", "k", "v"},
                                                                {"", "k", "v"},
                                                                {"Setup", "", "v"}}) {
    TToolRun r = Run({"set", file.string(), args[0], args[1], args[2]});
    EXPECT_EQ(r.rc, 2) << args[0] << "/" << args[1] << "/" << args[2];
    EXPECT_NE(r.err, "");
    EXPECT_EQ(ReadFileBytes(file), text);
  }
  EXPECT_EQ(Files(), std::vector<std::string>({"script.ini"}));
}

TEST_F(Initool, SetKeepsModeAndEditsThroughLinks) {
  fs::path file = Copy("script_lf.ini", "real.ini");
  fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
  fs::path link = m_dir / "link.ini";
  fs::create_symlink(file, link);
  ASSERT_EQ(Run({"set", link.string(), "Setup", "Title", "Linked"}).rc, 0);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(Run({"get", file.string(), "Setup", "Title"}).out, "Linked\n");
  EXPECT_EQ(fs::status(file).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
  std::vector<std::string> files = Files();
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, std::vector<std::string>({"link.ini", "real.ini"}));
}
