// Common entry of the test programs: quiet debug channel, any assertion that a test did not
// expect fails that test, and a fresh Windows-style prefix so that nothing is written into the
// user's own.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "base/twvmerr.h"
#include "platform/platform.h"

static int UnexpectedAssert(const char* pchText) {
  ADD_FAILURE() << "unexpected assertion: " << pchText;
  return ASSERT_IGNORE;
}

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  PlatSetDebugEcho(FALSE);
  g_pfnAssertAnswer = &UnexpectedAssert;
#if !defined(_WIN32)
  std::string sPrefix;
  if (!getenv("SETUP_PREFIX")) {
    char szTemplate[] = "/tmp/setup-prefix-XXXXXX";
    if (mkdtemp(szTemplate)) {
      sPrefix = szTemplate;
      setenv("SETUP_PREFIX", szTemplate, 1);
    }
  }
#endif
  int nResult = RUN_ALL_TESTS();
#if !defined(_WIN32)
  if (!sPrefix.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(sPrefix, ec);
  }
#endif
  return nResult;
}
