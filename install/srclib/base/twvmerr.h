// Error codes and their registry, the assertion channel, and debug output.
#pragma once

#include "types.h"

// ---------------------------------------------------------------------------------------------
// Error codes: module number in the high half, error number in the low half. Low words
// 0xFF01..0xFFFF are general errors that mean the same thing under every module.

#define ERR_ALLOCFAIL 0xFF01u
#define ERR_LOCKFAIL 0xFF02u
#define ERR_REALLOCFAIL 0xFF03u
#define ERR_NOTLOCKED 0xFF04u
#define ERR_BADINDEX 0xFF21u
#define ERR_BUFSMALL 0xFF22u
#define ERR_BADPARAM 0xFF23u
#define ERR_OUTOFRANGE 0xFF24u
#define ERR_NOTFOUND 0xFF25u
#define ERR_BADFORMAT 0xFF26u
#define ERR_GENERAL 0xFF27u
#define ERR_UNKNOWN 0xFFFEu
#define ERR_NOTIMPL 0xFFFFu

#define ERR_MODULE(err) ((WORD)((DWORD)(err) >> 16))
#define ERR_NUMBER(err) ((WORD)((DWORD)(err)&0xFFFFu))

// File services, module 0x3000.
#define ERR_FILE_MODULE 0x3000u
#define ERR_FILE_GENERAL 0x30000000u
#define ERR_FILE_NOMEM 0x30000001u
#define ERR_FILE_READ 0x30000003u
#define ERR_FILE_WRITE 0x30000004u
#define ERR_FILE_EOF 0x30000005u
#define ERR_FILE_BADMODE 0x30000006u
#define ERR_FILE_SEEK 0x30000007u
#define ERR_FILE_NOTFOUND 0x30000008u
#define ERR_FILE_BADFORMAT 0x30000009u
#define ERR_FILE_OPEN 0x3000000Au
#define ERR_FILE_TRUNCATE 0x3000000Bu
#define ERR_FILE_FLUSH 0x3000000Cu
#define ERR_FILE_PATHNOTFOUND 0x3000000Du
#define ERR_FILE_ACCESS 0x3000000Eu
#define ERR_FILE_EXIST 0x3000000Fu
#define ERR_FILE_NOMOREFILES 0x30000010u
#define ERR_FILE_NOTREADY 0x30000011u
#define ERR_FILE_NOVOLUME 0x30000012u
#define ERR_FILE_TOOMANY 0x30000013u
#define ERR_FILE_WRITEPROTECT 0x30000014u
#define ERR_FILE_BADVOLUME 0x30000016u
#define ERR_FILE_DISKFULL 0x30000017u
#define ERR_FILE_SHARING 0x30000018u
#define ERR_FILE_ALREADYEXISTS 0x30000019u  // "already exists" from the OS; has no registered text
#define ERR_FILE_UNKNOWNPID 0x3000001Au

// Memory file, module 0x0501.
#define ERR_MEMFILE_MODULE 0x0501u
#define ERR_MEMFILE_MAXSIZE 0x05010001u

// Capacity of the registry tables.
#define MODULE_COUNT 20
#define ERROR_COUNT 100

struct TErrModule {
  WORD wModule;
  const char* pchName;
};

struct TErrEntry {
  ERR err;
  const char* pchText;
};

extern TErrModule g_ErrModules[MODULE_COUNT];
extern WORD g_wModuleCount;
extern TErrEntry g_ErrEntries[ERROR_COUNT];
extern WORD g_wErrCount;

// Registry. Names and texts are kept by pointer, never copied: pass literals.
void ErrAddModule(WORD wModule, const char* pModuleName);
void ErrAddText(ERR err, const char* pErrText);
// Name of the module of err (its high half), or null when not registered.
const char* ErrGetModule(ERR err);
// Text of err: general errors by their low word alone, the rest by the full code; null if none.
const char* ErrGetText(ERR err);
// Writes "Module(0x....): name, Error(0x....): text" and an optional comment line.
void ErrPrint(ERR err, const char* pchComment);

// ---------------------------------------------------------------------------------------------
// Assertions and debug output.

// Answers to the assertion question.
enum { ASSERT_ABORT = 0, ASSERT_RETRY = 1, ASSERT_IGNORE = 2 };

// Target of every failed assertion: text to the debug channel, then the user chooses Abort
// (exit code 0), Retry (debugger trap) or Ignore (return to the caller).
void AssertFail(const char* pchExpr, const char* pchFile, int nLine);
void TbdCalled(const char* pchFile, int nLine);
void TraceLine(const char* pchFile, int nLine, const char* pchText);
// Formats into the shared 256-byte buffer and passes it to DebugOut.
void DebugPrintf(const char* pchFormat, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;
// The single exit of all debug output: the hook if set, then the platform's debug channel.
void DebugOut(const char* pchText);

typedef void (*PFN_DEBUGHOOK)(const char* pchText);
extern PFN_DEBUGHOOK g_pfnDebugHook;

// Replaces the question put to the user by AssertFail; returns one of ASSERT_ABORT,
// ASSERT_RETRY, ASSERT_IGNORE. Null asks the user (or reads SETUP_ASSERT, see platform.h).
// Tests install one to answer Ignore and record what fired.
typedef int (*PFN_ASSERTANSWER)(const char* pchText);
extern PFN_ASSERTANSWER g_pfnAssertAnswer;

// Number of assertions that have failed during this run.
extern DWORD g_dwAssertCount;

// The shared message buffer of the reports above.
extern char g_szErrMsgBuf[256];

#define ASSERT(expr) ((expr) ? (void)0 : AssertFail(#expr, __FILE__, __LINE__))
// An assertion whose text is given rather than taken from the expression.
#define ASSERT_TEXT(expr, text) ((expr) ? (void)0 : AssertFail(text, __FILE__, __LINE__))
#define TBD() TbdCalled(__FILE__, __LINE__)
#define TRACE(text) TraceLine(__FILE__, __LINE__, text)
