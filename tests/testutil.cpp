// Capture of debug output and assertions for the tests, and runs of the companion tools.
#include "testutil.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

static DebugCapture* s_pCapture = nullptr;
static AssertCatcher* s_pCatcher = nullptr;

DebugCapture::DebugCapture() : m_pfnOld(g_pfnDebugHook) {
  s_pCapture = this;
  g_pfnDebugHook = &DebugCapture::Hook;
}

DebugCapture::~DebugCapture() {
  g_pfnDebugHook = m_pfnOld;
  s_pCapture = nullptr;
}

void DebugCapture::Hook(const char* pchText) {
  if (s_pCapture) s_pCapture->m_text += pchText;
}

AssertCatcher::AssertCatcher() : m_pfnOld(g_pfnAssertAnswer) {
  s_pCatcher = this;
  g_pfnAssertAnswer = &AssertCatcher::Answer;
}

AssertCatcher::~AssertCatcher() {
  g_pfnAssertAnswer = m_pfnOld;
  s_pCatcher = nullptr;
}

int AssertCatcher::Answer(const char* pchText) {
  if (s_pCatcher) s_pCatcher->m_texts.push_back(pchText);
  return ASSERT_IGNORE;
}

bool AssertCatcher::Fired(const char* pchExpr) const {
  for (const std::string& s : m_texts)
    if (s.find(pchExpr) != std::string::npos) return true;
  return false;
}

std::string ReadFileBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::string ShellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string FindTool(const char* pchName) {
  std::string found;
  const std::string name(pchName);
  for (const std::string& rel : {"/tools/" + name + "/" + name, "/tools/" + name}) {
    std::filesystem::path p = std::string(SETUP_BINARY_DIR) + rel;
    if (std::filesystem::is_regular_file(p)) found = p.string();
  }
  return found;
}

TToolRun RunTool(const std::string& tool, const std::vector<std::string>& args, const std::string& runDir) {
  std::string cmd = ShellQuote(tool);
  for (const std::string& a : args) cmd += " " + ShellQuote(a);
  const std::filesystem::path dir(runDir);
  const std::string out = (dir / "out").string(), err = (dir / "err").string(), rc = (dir / "rc").string();
  cmd = "(" + cmd + ") >" + ShellQuote(out) + " 2>" + ShellQuote(err) + "; echo $? >" + ShellQuote(rc);
  TToolRun r;
  r.rc = -1;
  EXPECT_EQ(std::system(cmd.c_str()), 0);
  const std::string rcText = ReadFileBytes(rc);
  EXPECT_FALSE(rcText.empty()) << cmd;
  if (!rcText.empty()) r.rc = std::atoi(rcText.c_str());
  r.out = ReadFileBytes(out);
  r.err = ReadFileBytes(err);
  return r;
}
