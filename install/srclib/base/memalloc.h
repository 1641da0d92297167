// Tracked memory: pointer, `new` and handle blocks with guards, fill bytes, counters, limits
// and leak and damage reports that name the source line of each block.
#pragma once

#include <stddef.h>

#include "types.h"

#define MEM_GUARD_BYTE 0xFD  // 4 bytes before and after every tracked block
#define MEM_NEW_BYTE 0xCD    // fresh user data
#define MEM_FREE_BYTE 0xDD   // released user data

// A tracked block's system block (the leading guard) starts this many bytes into what the
// runtime's allocator returned, so that the user data after the 4-byte guard is aligned for
// any type.
#define MEM_SYS_PAD (alignof(max_align_t) > 4 ? alignof(max_align_t) - 4 : 0)

// Debug stop flags of TBlockInfo::btBreak: a set flag makes the operation trap.
#define MEM_BREAK_REALLOC 0x02
#define MEM_BREAK_FREE 0x04
#define MEM_BREAK_LOCK 0x08
#define MEM_BREAK_UNLOCK 0x10
#define MEM_BREAK_FAIL 0x20

struct TBlockInfo;
// Optional block manager: op 0 lock, 1 unlock, 2 free, 3 reallocate (arg is the new size).
typedef DWORD_PTR (*PFN_BLOCKMANAGER)(int nOp, TBlockInfo* pInfo, DWORD dwArg);

#pragma pack(push, 1)
// One record per block; 44 bytes on the 32-bit build.
struct TBlockInfo {
  DWORD_PTR dwSysBlock;  // the system block; 0 marks a free record
  BYTE* pData;           // handle: address of the system block while locked, else 0
  BYTE btRefCon;         // lock count; wraps at 256
  BYTE btRaw;            // 1 for a raw handle (no guards, not counted); 0 otherwise
  PFN_BLOCKMANAGER pfnManager;
  DWORD dwSize;  // user size
  const char* pchAllocFile;
  DWORD dwAllocLine;
  const char* pchReallocFile;
  DWORD dwReallocLine;
  const char* pchLockFile;
  DWORD dwLockLine;
  BYTE btBreak;
  BYTE btSpare;
};
#pragma pack(pop)

// Records per step of table growth.
#define MEM_TABLE_STEP 100

// Tables of live blocks; never ordered, searched linearly.
extern TBlockInfo* g_pPtrInfo;
extern DWORD g_dwPtrInfoCount;
extern TBlockInfo* g_pHandleInfo;
extern DWORD g_dwHandleInfoCount;

// Counters. All limits start at 0xFFFFFFFF.
extern DWORD g_dwMemUsed, g_dwMaxMemUsed, g_dwMemLimit;
extern DWORD g_dwPtrMemUsed, g_dwMaxPtrMemUsed, g_dwPtrMemLimit;
extern DWORD g_dwNewMemUsed, g_dwMaxNewMemUsed, g_dwNewMemLimit;
extern DWORD g_dwHandleMemUsed, g_dwMaxHandleMemUsed, g_dwHandleMemLimit;
extern DWORD g_dwHLockedMem, g_dwMaxHLockedMem, g_dwHLockedLimit;
// Set only while MemDelete runs.
extern BOOL g_bDeleting;

// System layer over the runtime's allocator.
void* SysAlloc(DWORD dwSize);
void* SysReAlloc(void* p, DWORD dwSize);
void SysFree(void* p);
void* SysLock(void* p);
void SysUnlock(void* p);

// Counter step for every size change: 1 and the counters moved, or 0 when a limit would be
// passed (nothing changed).
BOOL UpdateUsed(DWORD* pdwUsed, DWORD* pdwMaxUsed, const DWORD* pdwLimit, LONG lChange);

// Pointer blocks. Return the user pointer, or 0 (size 0, a limit, or no system memory).
void* MemAlloc(DWORD dwSize, const char* pchFile, DWORD dwLine);
// Plain pointer blocks only; the block may move; new bytes are not filled. 0 on failure, the
// old block then stays valid.
void* MemReAlloc(void* p, DWORD dwSize, const char* pchFile, DWORD dwLine);
void MemFree(void* p);
// `new` memory and objects: counted against g_dwNewMemLimit, released with MemDelete.
void* MemNew(DWORD dwSize);
void* MemNewObject(DWORD dwSize);
void MemDelete(void* p);

// Handles: numbers from 1 up, reached only between HandleLock and HandleUnlock.
DWORD HandleAlloc(DWORD dwSize, const char* pchFile, DWORD dwLine);
// 1 on success, 0 on failure. The handle must not be locked.
BOOL HandleReAlloc(DWORD h, DWORD dwNewSize, const char* pchFile, DWORD dwLine);
void HandleFree(DWORD h);
// The user pointer, or 0. Each lock needs its unlock.
void* HandleLock(DWORD h, const char* pchFile, DWORD dwLine);
void HandleUnlock(DWORD h);
BYTE HandleGetLockCount(DWORD h);
// The raw pData (the leading guard while locked), or 0.
void* HandleGetData(DWORD h);

// Raw handles: no guards, counters, file or line. They share the handle table. RawLock and
// RawUnlock also reach a tracked handle's system block (guard included) without counting it
// as locked memory.
DWORD RawAlloc(DWORD dwSize);
BOOL RawReAlloc(DWORD h, DWORD dwSize);
void RawFree(DWORD h);
void* RawLock(DWORD h);
void RawUnlock(DWORD h);

// Diagnostics.
// Prints every live block; 1 if any block is alive, else 0.
BOOL MemReportLeaks();
// Prints every damaged block; 1 if no block is damaged.
BOOL MemCheckAll();
void MemSetBreak(void* p, BYTE bt);
void HandleSetBreak(DWORD h, BYTE bt);
BOOL MemIsPtr(void* p, DWORD dwSize);
BOOL MemIsHandle(DWORD h, DWORD dwSize);
BOOL MemIsRange(const void* p, DWORD dwSize);

// Call-site macros: the source file and line are recorded with the block.
#define MEM_ALLOC(n) MemAlloc((DWORD)(n), __FILE__, __LINE__)
#define MEM_REALLOC(p, n) MemReAlloc((p), (DWORD)(n), __FILE__, __LINE__)
#define MEM_FREE(p) MemFree(p)
#define HANDLE_ALLOC(n) HandleAlloc((DWORD)(n), __FILE__, __LINE__)
#define HANDLE_REALLOC(h, n) HandleReAlloc((h), (DWORD)(n), __FILE__, __LINE__)
#define HANDLE_LOCK(h) HandleLock((h), __FILE__, __LINE__)
#define HANDLE_UNLOCK(h) HandleUnlock(h)
#define HANDLE_FREE(h) HandleFree(h)
