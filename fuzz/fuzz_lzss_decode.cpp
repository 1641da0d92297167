// Feeds arbitrary streams to the LZSS decoder with an exactly sized output buffer, checks that
// its plain loops and the loops it picks for this processor leave the same bytes in the whole
// buffer (which holds a reference text first, as for a stream with skips), and that whatever it
// produces survives a round trip through the encoder.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "files/lzssfunc.h"

static const BYTE kParams[15] = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xB1, 0xB2, 0xB3,
                                 0xB4, 0xB5, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  BYTE bt = kParams[data[0] % 15];
  DWORD cap = (DWORD)(data[1] | (data[2] << 8));
  // The stream in a buffer of its own exact size, so any read past it is caught.
  std::vector<BYTE> in(data + 3, data + size);
  std::vector<BYTE> out(cap), plain(cap);
  for (DWORD k = 0; k < cap; k++) out[k] = plain[k] = (BYTE)(k * 31 + 7);
  DWORD len = cap, plainLen = cap;
  LZSSDecodeUsePlain(TRUE);
  ERR plainErr = LZSSDecompress(in.data(), (DWORD)in.size(), plain.data(), &plainLen, bt);
  LZSSDecodeUsePlain(FALSE);
  ERR err = LZSSDecompress(in.data(), (DWORD)in.size(), out.data(), &len, bt);
  if (err != plainErr || len != plainLen || out != plain) abort();
  if (err != 0 && err != ERR_BUFSMALL && err != ERR_BADFORMAT) abort();
  if (in.empty()) return 0;
  if (len > cap) abort();
  if (err != 0 || len == 0) return 0;

  std::vector<BYTE> text(out.begin(), out.begin() + len);
  std::vector<BYTE> packed(LZSSMaxCompressed(len));
  DWORD plen = (DWORD)packed.size();
  if (LZSSCompress(text.data(), len, packed.data(), &plen, bt, nullptr) != 0) abort();
  std::vector<BYTE> back(len);
  DWORD blen = len;
  if (LZSSDecompress(packed.data(), plen, back.data(), &blen, bt) != 0) abort();
  if (blen != len || memcmp(back.data(), text.data(), len) != 0) abort();
  return 0;
}
