// Reading and writing bitmap files: uncompressed 8-, 16- and 24-bit images with an optional
// colour table, in either row order.
#include "graphics/bmpfile.h"

#include <string.h>

#define BMP_FILEHEADER_SIZE 14
#define BMP_INFOHEADER_SIZE 40
#define BMP_MAGIC 0x4D42          // "BM"
#define BMP_MAGIC_SWAPPED 0x424D  // "MB"

// Bytes left in the file after the current position.
static DWORD Remaining(CFile* pFile) {
  const DWORD dwSize = pFile->GetSize(), dwPos = pFile->GetPos();
  return dwSize > dwPos ? dwSize - dwPos : 0;
}

static SHORT FormatForBits(WORD wBits) {
  switch (wBits) {
    case 8:
      return BF_8BIT;
    case 16:
      return BF_16BIT;
    case 24:
      return BF_24BIT;
    default:
      return 0;
  }
}

CBitmap* BmpRead(CFile* pFile, ERR* pErr, BOOL bHeaderOnly) {
  ERR err = 0;
  BYTE* pInfo = 0;
  CPalette* pPalette = 0;
  CBitmap* pBitmap = 0;
  BYTE abtFile[BMP_FILEHEADER_SIZE];
  BYTE abtSize[4];
  DWORD dwInfoSize, dwOffBits, dwColors;
  SHORT nWidth, nHeight, nFormat;
  LONG lHeight;
  WORD wBits;

  if (!pFile) {
    if (pErr) *pErr = ERR_BMP_NOFILE;
    return 0;
  }
  memset(abtFile, 0, sizeof(abtFile));
  memset(abtSize, 0, sizeof(abtSize));
  if ((err = pFile->Read(abtFile, BMP_FILEHEADER_SIZE, 0)) != 0) goto fail;
  if (GetLE16(abtFile) != BMP_MAGIC && GetLE16(abtFile) != BMP_MAGIC_SWAPPED) {
    err = ERR_BMP_BADMAGIC;
    goto fail;
  }
  dwOffBits = GetLE32(abtFile + 10);
  if ((err = pFile->Read(abtSize, 4, 0)) != 0) goto fail;
  dwInfoSize = GetLE32(abtSize);
  // A header larger than the file can't be read: say so before allocating for it.
  if (dwInfoSize > Remaining(pFile) + 4) {
    err = ERR_FILE_EOF;
    goto fail;
  }
  // Room for at least the fields used, so a short header leaves them 0 (and so fails on the
  // bit count) instead of reading past the buffer. A header of no bytes is a failed allocation,
  // as the allocator gives for a size of 0.
  pInfo =
      dwInfoSize
          ? static_cast<BYTE*>(MEM_ALLOC(dwInfoSize > BMP_INFOHEADER_SIZE ? dwInfoSize : BMP_INFOHEADER_SIZE))
          : 0;
  if (!pInfo) {
    err = ERR_FILE_NOMEM;
    goto fail;
  }
  memset(pInfo, 0, BMP_INFOHEADER_SIZE);
  if ((err = pFile->Seek(-4, FILE_CURRENT)) != 0) goto fail;
  if (dwInfoSize && (err = pFile->Read(pInfo, dwInfoSize, 0)) != 0) goto fail;

  nWidth = (SHORT)GetLE16(pInfo + 4);
  lHeight = (LONG)GetLE32(pInfo + 8);
  nHeight = (SHORT)(lHeight < 0 ? 0u - (DWORD)lHeight : (DWORD)lHeight);
  wBits = GetLE16(pInfo + 14);
  nFormat = FormatForBits(wBits);
  // The table fills the gap between the headers and the pixels; the colours-used field is not
  // consulted.
  dwColors = (dwOffBits - (dwInfoSize + BMP_FILEHEADER_SIZE)) >> 2;

  if (dwColors && !bHeaderOnly) {
    if (dwColors > Remaining(pFile) / 4) {
      err = ERR_FILE_EOF;
      goto fail;
    }
    if (wBits == 8) {
      pPalette = new CPalette();
      if (!pPalette) {
        err = ERR_FILE_NOMEM;
        goto fail;
      }
      BYTE* pColors = 0;
      if (pPalette->SetSize(dwColors) == 0) pColors = static_cast<BYTE*>(HANDLE_LOCK(pPalette->m_hColors));
      if (!pColors) {
        err = ERR_LOCKFAIL;
        goto fail;
      }
      err = pFile->Read(pColors, dwColors * 4, 0);
      HANDLE_UNLOCK(pPalette->m_hColors);
      if (err) goto fail;
    } else {
      // Another depth has no use for a table: step over it.
      if ((err = pFile->Seek((LONG)(dwColors * 4), FILE_CURRENT)) != 0) goto fail;
    }
  }

  if (nFormat && !bHeaderOnly && nWidth >= 0) {
    // Pixels the headers promise but the file doesn't hold: fail before allocating for them.
    const DWORD dwPitch = ((DWORD)nWidth * (wBits >> 3) + 3) & 0xFFFFFFFCu;
    if (dwPitch <= 0x7FFF &&
        (unsigned long long)dwPitch * (DWORD)(nHeight > 0 ? nHeight : 0) > Remaining(pFile)) {
      err = ERR_FILE_EOF;
      goto fail;
    }
  }

  pBitmap = new CBitmap();
  if (!pBitmap) {
    err = ERR_FILE_NOMEM;
    goto fail;
  }
  // From here the bitmap owns the palette, even when Create fails.
  err = pBitmap->Create(nWidth, nHeight, nFormat, pPalette, lHeight < 1 ? BL_FORWARD : BL_BACKWARD, 0);
  pPalette = 0;
  if (err) goto fail;
  if (!bHeaderOnly && pBitmap->m_dwSize) {
    BYTE* pBits = static_cast<BYTE*>(HANDLE_LOCK(pBitmap->m_hBits));
    if (!pBits) {
      err = ERR_LOCKFAIL;
      goto fail;
    }
    // The pixels are taken to follow the table directly; bfOffBits is not used to seek.
    err = pFile->Read(pBits, pBitmap->m_dwSize, 0);
    HANDLE_UNLOCK(pBitmap->m_hBits);
    if (err) goto fail;
  }
  MEM_FREE(pInfo);
  if (pErr) *pErr = 0;
  return pBitmap;

fail:
  delete pPalette;
  delete pBitmap;
  if (pInfo) MEM_FREE(pInfo);
  if (pErr) *pErr = err;
  return 0;
}

ERR BmpWrite(CFile* pFile, CBitmap* pBitmap, SHORT nLayout) {
  if (!pFile) return ERR_BMP_NOFILE;
  if (!pBitmap) return ERR_BADPARAM;
  if (nLayout) pBitmap->SetLayout(nLayout);
  CPalette* pPal = pBitmap->m_pPalette;
  // The table is the palette's whole count, as the headers say; a palette without its colour
  // array fails below as a lock failure rather than writing a file without its table.
  const DWORD dwColors = pPal ? pPal->m_dwColors : 0;
  const DWORD dwOffBits = BMP_FILEHEADER_SIZE + BMP_INFOHEADER_SIZE + dwColors * 4;
  BYTE abtHeader[BMP_FILEHEADER_SIZE + BMP_INFOHEADER_SIZE];
  memset(abtHeader, 0, sizeof(abtHeader));
  PutLE16(abtHeader, BMP_MAGIC);
  PutLE32(abtHeader + 2, dwOffBits + pBitmap->m_dwSize);
  PutLE32(abtHeader + 10, dwOffBits);
  BYTE* pInfo = abtHeader + BMP_FILEHEADER_SIZE;
  PutLE32(pInfo, BMP_INFOHEADER_SIZE);
  PutLE32(pInfo + 4, (DWORD)(LONG)pBitmap->m_nWidth);
  // A bottom-up file stores a positive height; a top-down one a negative height.
  PutLE32(pInfo + 8, (DWORD)(pBitmap->m_nPitch < 0 ? (LONG)pBitmap->m_nHeight : -(LONG)pBitmap->m_nHeight));
  PutLE16(pInfo + 12, 1);
  PutLE16(pInfo + 14, (WORD)pBitmap->m_nBitsPerPixel);
  PutLE32(pInfo + 32, dwColors);
  PutLE32(pInfo + 36, dwColors);
  ERR err = pFile->Write(abtHeader, sizeof(abtHeader), 0);
  if (err) return err;
  if (dwColors) {
    const BYTE* pColors = pPal->m_hColors ? static_cast<const BYTE*>(HANDLE_LOCK(pPal->m_hColors)) : 0;
    if (!pColors) return ERR_LOCKFAIL;
    err = pFile->Write(pColors, dwColors * 4, 0);
    HANDLE_UNLOCK(pPal->m_hColors);
    if (err) return err;
  }
  if (pBitmap->m_dwSize) {
    // A bitmap whose pixel block was never allocated can't be locked: the file so far has
    // headers promising m_dwSize bytes, and the write reports the lock failure.
    const BYTE* pBits = pBitmap->m_hBits ? static_cast<const BYTE*>(HANDLE_LOCK(pBitmap->m_hBits)) : 0;
    if (!pBits) return ERR_LOCKFAIL;
    err = pFile->Write(pBits, pBitmap->m_dwSize, 0);
    HANDLE_UNLOCK(pBitmap->m_hBits);
  }
  return err;
}

CBitmap* BmpLoad(const char* pchPath, ERR* pErr, BOOL bHeaderOnly) {
  ERR errOpen = 0;
  CFile* pFile = g_pfnFileOpen ? g_pfnFileOpen(pchPath, FILE_MODE_READ, &errOpen) : 0;
  CBitmap* pBitmap = BmpRead(pFile, pErr, bHeaderOnly);
  delete pFile;
  return pBitmap;
}

ERR BmpSave(const char* pchPath, CBitmap* pBitmap, SHORT nLayout) {
  ERR errOpen = 0;
  CFile* pFile = g_pfnFileOpen ? g_pfnFileOpen(pchPath, FILE_MODE_CREATE, &errOpen) : 0;
  ERR err = BmpWrite(pFile, pBitmap, nLayout);
  delete pFile;
  return err;
}

ERR BmpGetSize(const char* pchPath, SHORT* pnWidth, SHORT* pnHeight) {
  ERR err = 0;
  CBitmap* pBitmap = BmpLoad(pchPath, &err, TRUE);
  if (!pBitmap) return err;
  if (pnWidth) *pnWidth = pBitmap->m_nWidth;
  if (pnHeight) *pnHeight = pBitmap->m_nHeight;
  delete pBitmap;
  return err;
}
