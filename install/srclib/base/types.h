// Fixed-width integer types and small helpers shared by every module of the system.
#pragma once

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
// The same widths as the platform's own headers, so both can be included together.
typedef unsigned long DWORD;
typedef long LONG;
#if defined(_WIN64)
typedef unsigned long long DWORD_PTR;
typedef long long LONG_PTR;
#else
typedef unsigned long DWORD_PTR;
typedef long LONG_PTR;
#endif
#else
typedef uint32_t DWORD;
typedef int32_t LONG;  // always 32 bits, unlike `long` on 64-bit Linux
// A value the layout gives as 32 bits that carries a pointer: pointer-sized, as on Win64.
typedef uintptr_t DWORD_PTR;
typedef intptr_t LONG_PTR;
#endif
typedef unsigned short WORD;
typedef unsigned char BYTE;
typedef short SHORT;
typedef unsigned short USHORT;
typedef int BOOL;
typedef unsigned int UINT;
typedef DWORD ERR;

static_assert(sizeof(DWORD) == 4 && sizeof(LONG) == 4, "DWORD and LONG are 32 bits");
static_assert(sizeof(DWORD_PTR) == sizeof(void*), "DWORD_PTR holds a pointer");

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#define ERR_NOERR 0u

#define ARRAY_COUNT(a) (sizeof(a) / sizeof((a)[0]))

// Little-endian field access for file formats: every build reads and writes the same bytes.
inline WORD GetLE16(const void* p) {
  const BYTE* b = static_cast<const BYTE*>(p);
  return static_cast<WORD>(b[0] | (b[1] << 8));
}
inline DWORD GetLE32(const void* p) {
  const BYTE* b = static_cast<const BYTE*>(p);
  return static_cast<DWORD>(b[0]) | (static_cast<DWORD>(b[1]) << 8) | (static_cast<DWORD>(b[2]) << 16) |
         (static_cast<DWORD>(b[3]) << 24);
}
inline void PutLE16(void* p, WORD w) {
  BYTE* b = static_cast<BYTE*>(p);
  b[0] = static_cast<BYTE>(w);
  b[1] = static_cast<BYTE>(w >> 8);
}
inline void PutLE32(void* p, DWORD dw) {
  BYTE* b = static_cast<BYTE*>(p);
  b[0] = static_cast<BYTE>(dw);
  b[1] = static_cast<BYTE>(dw >> 8);
  b[2] = static_cast<BYTE>(dw >> 16);
  b[3] = static_cast<BYTE>(dw >> 24);
}
