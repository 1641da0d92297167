// Helpers shared by the tests: capture of debug output and of assertions, and runs of the
// companion tools as programs.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "base/twvmerr.h"

// While alive, collects every line sent through DebugOut.
class DebugCapture {
 public:
  DebugCapture();
  ~DebugCapture();
  const std::string& Text() const { return m_text; }
  void Clear() { m_text.clear(); }

 private:
  static void Hook(const char* pchText);
  std::string m_text;
  PFN_DEBUGHOOK m_pfnOld;
};

// While alive, answers every assertion with Ignore and records its text.
class AssertCatcher {
 public:
  AssertCatcher();
  ~AssertCatcher();
  size_t Count() const { return m_texts.size(); }
  const std::vector<std::string>& Texts() const { return m_texts; }
  // True if an assertion whose text contains pchExpr fired.
  bool Fired(const char* pchExpr) const;
  void Clear() { m_texts.clear(); }

 private:
  static int Answer(const char* pchText);
  std::vector<std::string> m_texts;
  PFN_ASSERTANSWER m_pfnOld;
};

// A file's whole content; empty when it cannot be read.
std::string ReadFileBytes(const std::filesystem::path& path);

// The text quoted for a POSIX shell.
std::string ShellQuote(const std::string& s);

// The path of the built tool (SETUP_BINARY_DIR/tools/<name>/<name>, or tools/<name> where the
// tool lands beside its folder); empty when it is not built.
std::string FindTool(const char* pchName);

// What a tool printed and its exit code.
struct TToolRun {
  int rc;
  std::string out;
  std::string err;
};

// Runs the tool with the arguments through a POSIX shell; its output, error output and exit
// code pass through the files out, err and rc in runDir (a folder the caller owns). A shell that
// cannot be run fails the test; rc is then -1.
TToolRun RunTool(const std::string& tool, const std::vector<std::string>& args, const std::string& runDir);
