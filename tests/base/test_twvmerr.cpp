// Error registry, report line, assertion channel and debug output.
#include <gtest/gtest.h>
#include <stdlib.h>
#if !defined(_WIN32)
#include <signal.h>
#include <unistd.h>
#endif

#include <string>

#include "base/twvmerr.h"
#include "testutil.h"

namespace {

// Registers two test modules once for the whole program; the tables are append-only.
void RegisterTestModules() {
  static bool s_bDone = false;
  if (s_bDone) return;
  s_bDone = true;
  if (!ErrGetModule(0x7A000000)) ErrAddModule(0x7A00, "TESTMOD");
  ErrAddText(0x7A000001, "Test failure one");
}

}  // namespace

TEST(ErrRegistry, GeneralErrorsByLowWordAlone) {
  EXPECT_STREQ(ErrGetText(0x0801FF24), "Out of range");  // module 0x0801 is never registered
  EXPECT_STREQ(ErrGetText(0xFF25), "Not found");
  EXPECT_STREQ(ErrGetText(0xFF03), "Reallock fail");
  EXPECT_STREQ(ErrGetText(0x1234FFFF), "Not implemented feature");
  EXPECT_STREQ(ErrGetText(0xFFFE), "Unknown error");
  EXPECT_EQ(ErrGetText(0xFF05), nullptr);  // between the general ranges
  EXPECT_EQ(ErrGetText(0xFF00), nullptr);
}

TEST(ErrRegistry, ModuleCodesMatchInFull) {
  RegisterTestModules();
  EXPECT_STREQ(ErrGetText(0x7A000001), "Test failure one");
  EXPECT_EQ(ErrGetText(0x7B000001), nullptr);  // same low word, other module
  EXPECT_STREQ(ErrGetModule(0x7A00FFFF), "TESTMOD");
  EXPECT_STREQ(ErrGetModule(0x7A000000), "TESTMOD");
  EXPECT_EQ(ErrGetModule(0x7C000000), nullptr);
}

TEST(ErrRegistry, DuplicatesAreAddedAndFirstWins) {
  RegisterTestModules();
  // The duplicate check asks for module 0 with a 16-bit value, so a second registration of the
  // same module passes the assertion and the first record keeps answering.
  WORD wBefore = g_wModuleCount;
  {
    AssertCatcher catcher;
    ErrAddModule(0x7A00, "TESTMOD-AGAIN");
    EXPECT_EQ(catcher.Count(), 0u);
  }
  EXPECT_EQ(g_wModuleCount, wBefore + 1);
  EXPECT_STREQ(ErrGetModule(0x7A000000), "TESTMOD");
  // A duplicate text asserts and is added all the same; the first still answers.
  wBefore = g_wErrCount;
  AssertCatcher catcher;
  ErrAddText(0x7A000001, "Second text");
  EXPECT_TRUE(catcher.Fired("!ErrGetText(err)"));
  EXPECT_EQ(g_wErrCount, wBefore + 1);
  EXPECT_STREQ(ErrGetText(0x7A000001), "Test failure one");
}

TEST(ErrReport, ModuleAndErrorInOneLineWithOptionalComment) {
  RegisterTestModules();
  const struct {
    ERR err;
    const char* pchComment;
    const char* pchWant;
  } cases[] = {
      {0x38010005, nullptr, "Module(0x3801): Unknown, Error(0x0005): Unknown\n"},
      {0xFF25, "while looking",
       "Module(0x0000): Unknown, Error(0xFF25): Not found\nComment: while looking\n"},
      {0x7A000001, nullptr, "Module(0x7A00): TESTMOD, Error(0x0001): Test failure one\n"},
  };
  for (const auto& c : cases) {
    DebugCapture capture;
    ErrPrint(c.err, c.pchComment);
    EXPECT_EQ(capture.Text(), c.pchWant);
  }
}

TEST(AssertChannel, TextGoesToDebugOutputAndIgnoreReturns) {
  DebugCapture capture;
  AssertCatcher catcher;
  DWORD dwBefore = g_dwAssertCount;
  int nReached = 0;
  const int nLine = __LINE__ + 1;
  ASSERT(1 == 2);
  nReached = 1;  // Ignore returns to the line after the assertion
  EXPECT_EQ(nReached, 1);
  EXPECT_EQ(g_dwAssertCount, dwBefore + 1);
  ASSERT_EQ(catcher.Count(), 1u);
  std::string expected =
      std::string("Assert failed ") + __FILE__ + "(" + std::to_string(nLine) + "): 1 == 2\n";
  EXPECT_EQ(catcher.Texts()[0], expected);
  EXPECT_EQ(capture.Text(), expected);
  // A passing assertion says nothing.
  ASSERT(2 > 1);
  EXPECT_EQ(catcher.Count(), 1u);
  EXPECT_EQ(capture.Text(), expected);
}

TEST(AssertChannel, TbdAndTraceHaveNoLineEnd) {
  DebugCapture capture;
  TbdCalled("x.cpp", 12);
  EXPECT_EQ(capture.Text(), "TBD function called x.cpp(12).");
  capture.Clear();
  TraceLine("y.cpp", 7, "hello");
  EXPECT_EQ(capture.Text(), "Trace y.cpp(7): hello");
}

#if !defined(_WIN32)
// Abort ends the process with exit code 0 through the ordinary exit path.
TEST(AssertChannelDeath, AbortExitsWithZero) {
  EXPECT_EXIT(
      {
        g_pfnAssertAnswer = [](const char*) { return (int)ASSERT_ABORT; };
        ASSERT(0 == 1);
        _exit(3);  // not reached when Abort works
      },
      ::testing::ExitedWithCode(0), "");
}

// Retry stops at a breakpoint trap; with no debugger attached the trap ends the process.
TEST(AssertChannelDeath, RetryRaisesABreakpointTrap) {
  EXPECT_EXIT(
      {
        g_pfnAssertAnswer = [](const char*) { return (int)ASSERT_RETRY; };
        ASSERT(0 == 1);
        _exit(3);
      },
      ::testing::KilledBySignal(SIGTRAP), "");
}

// Without a terminal the answer comes from SETUP_ASSERT.
TEST(AssertChannelDeath, UnattendedAnswerFromEnvironment) {
  EXPECT_EXIT(
      {
        g_pfnAssertAnswer = nullptr;
        setenv("SETUP_ASSERT", "abort", 1);
        ASSERT(0 == 1);
        _exit(3);
      },
      ::testing::ExitedWithCode(0), "Assert failed");
}

// A null name or text asserts, and the record is written all the same.
TEST(ErrRegistryDeath, NullNamesAreStillRecorded) {
  EXPECT_EXIT(
      {
        AssertCatcher catcher;
        WORD wModules = g_wModuleCount;
        WORD wTexts = g_wErrCount;
        ErrAddModule(0x7F00, nullptr);
        bool bOk = catcher.Count() == 1 && catcher.Fired("g_wModuleCount < MODULE_COUNT && pModuleName") &&
                   g_wModuleCount == wModules + 1 && g_ErrModules[wModules].wModule == 0x7F00 &&
                   ErrGetModule(0x7F000000) == nullptr;
        catcher.Clear();
        ErrAddText(0x7F000001, nullptr);
        bOk = bOk && catcher.Count() == 1 && catcher.Fired("g_wErrCount < ERROR_COUNT && pErrText") &&
              g_wErrCount == wTexts + 1 && g_ErrEntries[wTexts].err == 0x7F000001u &&
              ErrGetText(0x7F000001) == nullptr;
        _exit(bOk ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

// Filling the tables runs in a child process so the rest of the suite keeps its registry.
TEST(ErrRegistryDeath, FullTablesAssertWithoutWritingPastThem) {
  EXPECT_EXIT(
      {
        AssertCatcher catcher;
        for (DWORD i = g_wErrCount; i < ERROR_COUNT; i++) ErrAddText(0x7D000000 + i, "filler");
        bool bOk = catcher.Count() == 0 && g_wErrCount == ERROR_COUNT;
        ErrAddText(0x7D00FFF0, "one too many");
        bOk = bOk && catcher.Fired("g_wErrCount < ERROR_COUNT && pErrText") && g_wErrCount == ERROR_COUNT &&
              ErrGetText(0x7D00FFF0) == nullptr;
        catcher.Clear();
        for (DWORD i = g_wModuleCount; i < MODULE_COUNT; i++) ErrAddModule((WORD)(0x7E00 + i), "filler");
        ErrAddModule(0x7EFF, "one too many");
        bOk = bOk && catcher.Fired("g_wModuleCount < MODULE_COUNT && pModuleName") &&
              g_wModuleCount == MODULE_COUNT && ErrGetModule(0x7EFF0000) == nullptr;
        _exit(bOk ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}
#endif

TEST(DebugOutput, HookSeesEveryLineAndLongLinesAreCut) {
  DebugCapture capture;
  std::string sLong(600, 'x');
  DebugPrintf("%s", sLong.c_str());
  EXPECT_EQ(capture.Text().size(), sizeof(g_szErrMsgBuf) - 1);
}
