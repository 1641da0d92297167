// Compresses arbitrary bytes with both encoders (ranked and tree-only) under any parameter byte
// and checks that they agree on the stream and on the tree they hold when the lookahead starts
// to shrink; for the parameter bytes the decoder knows, the stream must also decode back.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "files/lzssfunc.h"

static std::vector<DWORD> s_tree;

static void CaptureTree() {
  s_tree.assign(3 * 0x10000, 0);
  s_tree.resize(LZSSDescribeTree(s_tree.data(), (DWORD)s_tree.size()));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 0x11000) return 0;
  // Keep the longest match at 33 or less: longer ones only make the tree-only encoder slow.
  BYTE bt = (BYTE)((data[0] & 0xF0) | (data[0] & 0x0F) % 6);
  if ((bt >> 4) == 0) bt |= 0xC0;
  // The input in a buffer of its own exact size, so any read past it is caught.
  std::vector<BYTE> src(data + 1, data + size);
  DWORD n = (DWORD)src.size();
  // Room for the longest tokens of any parameter byte: 21 bits for 2 bytes.
  DWORD cap = n * 2 + 16;
  std::vector<BYTE> a(cap), b(cap);
  DWORD la = cap, lb = cap;

  g_pfnLZSSTreeHook = CaptureTree;
  s_tree.clear();
  ERR ea = LZSSCompress(src.data(), n, a.data(), &la, bt, nullptr);
  std::vector<DWORD> ranked = s_tree;
  s_tree.clear();
  ERR eb = LZSSCompressTree(src.data(), n, b.data(), &lb, bt, nullptr);
  g_pfnLZSSTreeHook = nullptr;
  if (ea != 0 || eb != 0 || la != lb || a != b || ranked != s_tree) abort();

  if (!LZSSIsKnownParam(bt)) return 0;
  std::vector<BYTE> back(n);
  DWORD blen = n;
  if (LZSSDecompress(a.data(), la, back.data(), &blen, bt) != 0) abort();
  if (blen != n || back != src) abort();
  return 0;
}
