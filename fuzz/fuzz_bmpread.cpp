// Feeds arbitrary files to the bitmap reader, header only and whole. Whatever loads is drawn
// onto small targets of every depth and written out again, and the written file must read back
// with the same pixels. Reads and writes outside any buffer are caught by the sanitizers.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "files/memfile.h"
#include "fuzzinput.h"
#include "graphics/bmpfile.h"
#include "graphics/memdc.h"

static void Draw(CBitmap* pSrc) {
  static const SHORT kFormats[] = {BF_8BIT, BF_16BIT, BF_24BIT, BF_32BIT};
  CPalette* pPal = new CPalette();
  if (pPal && pPal->SetSize(4) == 0) {
    for (DWORD i = 0; i < 4; i++) {
      TColor c = MakeColor((BYTE)(i * 80), (BYTE)(255 - i * 60), (BYTE)(i * 33));
      pPal->SetColor(i, &c);
    }
  }
  for (SHORT fmt : kFormats) {
    CBitmap dst;
    if (dst.Create(21, 9, fmt, fmt == BF_8BIT ? new CPalette(*pPal) : 0, BL_BACKWARD, 0) != 0) continue;
    CMemoryDC dc(&dst);
    dc.Blit(pSrc, -3, 2, 32000, 32000, 0, 0, TRANS_NONE, 0);
    dc.Blit(pSrc, 4, -1, 7, 5, -2, 1, 0, 0);
    TRect rcSrc;
    pSrc->GetRect(&rcSrc);
    if (rcSrc.right > 2) rcSrc.right = 2;
    if (rcSrc.bottom > 1) rcSrc.bottom = 1;
    TRect rc = {-1, -1, 30, 12};
    dc.TileBitmap(&rc, pSrc, &rcSrc, 1, 0, 1, 2);
  }
  delete pPal;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Keep one input's allocations modest; a larger request fails like an exhausted heap.
  g_dwHandleMemLimit = 64u << 20;
  g_dwPtrMemLimit = 64u << 20;
  static const BOOL kHeaderOnly[] = {TRUE, FALSE};
  for (BOOL bHeaderOnly : kHeaderOnly) {
    CFile* pFile = MemFileOf(data, size);
    if (!pFile) return 0;
    ERR err = 0;
    CBitmap* pBitmap = BmpRead(pFile, &err, bHeaderOnly);
    delete pFile;
    if (!pBitmap) {
      if (!err) abort();
      continue;
    }
    if (err) abort();
    if (!bHeaderOnly) {
      // A loaded image never claims more pixel bytes than the input held.
      if (pBitmap->m_dwSize > size) abort();
      Draw(pBitmap);
      CMemFile out(0, 0, 64u << 20, 0x1000, TRUE);
      if (BmpWrite(&out, pBitmap, 0) == 0) {
        out.Seek(0, FILE_BEGIN);
        CBitmap* pBack = BmpRead(&out, &err, FALSE);
        // A height of 0 reads back as top-down whatever the layout it was written from.
        if (!pBack || pBack->m_dwSize != pBitmap->m_dwSize) abort();
        if (pBitmap->m_nHeight && pBack->m_nPitch != pBitmap->m_nPitch) abort();
        if (pBack->m_dwSize) {
          void* a = HANDLE_LOCK(pBitmap->m_hBits);
          void* b = HANDLE_LOCK(pBack->m_hBits);
          if (memcmp(a, b, pBack->m_dwSize) != 0) abort();
          HANDLE_UNLOCK(pBack->m_hBits);
          HANDLE_UNLOCK(pBitmap->m_hBits);
        }
        delete pBack;
      }
    }
    delete pBitmap;
  }
  return 0;
}
