// Helpers shared by the tests: capture of debug output and of assertions.
#pragma once

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
