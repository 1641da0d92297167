// Capture of debug output and assertions for the tests.
#include "testutil.h"

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
