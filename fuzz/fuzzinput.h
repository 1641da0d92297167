// The fuzzer's input as a file of the system: a memory file over a copy of the bytes.
#pragma once

#include <stdint.h>
#include <string.h>

#include "base/memalloc.h"
#include "files/memfile.h"

// A memory file holding a copy of data; the caller deletes it. Null when memory runs out.
inline CFile* MemFileOf(const uint8_t* data, size_t size) {
  DWORD h = HANDLE_ALLOC(size ? size : 1);
  if (!h) return nullptr;
  void* p = HANDLE_LOCK(h);
  if (size) memcpy(p, data, size);
  HANDLE_UNLOCK(h);
  return new CMemFile(h, (DWORD)size, (DWORD)size + 1, 0x1000, TRUE);
}
