// Resource locators: location parsing, the base interface and the default file-based locator.
#include "files/defrl.h"

#include "base/pool.h"
#include "config/inidoc.h"
#include "graphics/bmpfile.h"
#include "graphics/font.h"
#include "graphics/sfont.h"

IMPLEMENT_CLASS(CResLocator, 0x3000901, CObject)
IMPLEMENT_CLASS(CDefResLocator, 0x3000902, CResLocator)

// ---------------------------------------------------------------------------------------------
// Location texts.

static void SetPart(TLocPart* pPart, const char* pchStart, const char* pchEnd) {
  pPart->pchStart = pchStart;
  pPart->dwLen = (DWORD)(pchEnd - pchStart);
}

void ParseLocation(TLocation* pLoc, const char* pLocation) {
  MemSet(pLoc, 0, sizeof(TLocation));
  if (!pLocation) return;

  // A scheme is what comes before a ':' met ahead of any '/' or '#'.
  const char* p = pLocation;
  while (*p && *p != ':' && *p != '/' && *p != '#') p++;
  const char* pchScan = pLocation;
  BOOL bScheme = FALSE;
  if (*p == ':') {
    SetPart(&pLoc->Scheme, pLocation, p);
    pchScan = p + 1;
    bScheme = TRUE;
  }
  const char* pchName = pchScan;

  // A host follows "//" at the start of the text or right after the scheme.
  if ((pchScan == pLocation || bScheme) && pchScan[0] == '/' && pchScan[1] == '/') {
    const char* pchHost = pchScan + 2;
    p = pchHost;
    while (*p && *p != '/' && *p != '#') p++;
    SetPart(&pLoc->Host, pchHost, p);
    pchScan = pchName = p;
  }

  // The directory runs up to the last '/' ahead of the end or the fragment.
  if (*pchScan == '/') {
    const char* pchLast = pchScan;
    for (p = pchScan; *p && *p != '#'; p++)
      if (*p == '/') pchLast = p;
    SetPart(&pLoc->Dir, pchScan, pchLast + 1);
    pchName = pchLast + 1;
  }

  p = pchName;
  while (*p && *p != '#') p++;
  SetPart(&pLoc->Name, pchName, p);
  if (*p == '#') {
    const char* pchFrag = p + 1;
    SetPart(&pLoc->Fragment, pchFrag, pchFrag + StrLen(pchFrag));
  }
}

namespace {

// The file path of a location, as a text of its own: short paths live in the object, longer
// ones in a tracked block that the destructor frees.
class CLocPath {
 public:
  explicit CLocPath(const char* pLocation) : m_pchPath(0), m_pchAlloc(0) {
    TLocation loc;
    ParseLocation(&loc, pLocation);
    const char* pchStart = pLocation;
    // The scheme starts the text, so "file" with its colon is the first five characters.
    if (!loc.Scheme.pchStart || (loc.Scheme.dwLen == 4 && MemCmp(pLocation, "file", 4) == 0))
      pchStart = loc.Dir.pchStart ? loc.Dir.pchStart : loc.Name.pchStart;
    const char* pchEnd = loc.Name.pchStart + loc.Name.dwLen;
    const DWORD dwLen = (DWORD)(pchEnd - pchStart);
    char* pchDst = m_szBuf;
    if (dwLen >= sizeof(m_szBuf)) {
      pchDst = m_pchAlloc = static_cast<char*>(MEM_ALLOC(dwLen + 1));
      if (!pchDst) return;
    }
    MemCopy(pchDst, pchStart, dwLen);
    pchDst[dwLen] = 0;
    m_pchPath = pchDst;
  }
  ~CLocPath() {
    if (m_pchAlloc) MEM_FREE(m_pchAlloc);
  }
  // The path, or null when memory for a long one could not be had.
  const char* Path() const { return m_pchPath; }

 private:
  char m_szBuf[260];
  const char* m_pchPath;
  char* m_pchAlloc;
};

CFile* OpenPath(const char* pchPath, WORD wMode, ERR* pErr) {
  *pErr = 0;
  CFile* pFile = g_pfnFileOpen ? g_pfnFileOpen(pchPath, wMode, pErr) : 0;
  if (!pFile && !*pErr) *pErr = ERR_FILE_NOTFOUND;
  return pFile;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// CResLocator

ERR CResLocator::Load(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) { return ERR_NOTIMPL; }

ERR CResLocator::Save(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) { return ERR_NOTIMPL; }

ERR CResLocator::Release(DWORD dwType, void* pBuf) { return ERR_NOTIMPL; }

ERR CResLocator::Idle() { return m_pNext ? m_pNext->Idle() : 0; }

// ---------------------------------------------------------------------------------------------
// CDefResLocator

ERR CDefResLocator::Load(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) {
  ASSERT(pLocation);
  if (!pLocation) return ERR_BADPARAM;
  if (dwType != RES_TYPE_INIDOC && dwType != RES_TYPE_BITMAP && dwType != RES_TYPE_FONT)
    return m_pNext ? m_pNext->Load(dwType, pLocation, pBuf, dwParam) : ERR_NOTIMPL;
  if (!pBuf) return ERR_BADPARAM;
  void** ppObject = static_cast<void**>(pBuf);
  *ppObject = 0;

  CLocPath path(pLocation);
  if (!path.Path()) return ERR_ALLOCFAIL;

  if (dwType == RES_TYPE_INIDOC) {
    CPtrAlloc* pAlloc = new CPtrAlloc;
    if (!pAlloc) return ERR_ALLOCFAIL;
    CIniDoc* pDoc = new CIniDoc(100, 1000, pAlloc, TRUE);
    if (!pDoc) {
      delete pAlloc;
      return ERR_ALLOCFAIL;
    }
    *ppObject = pDoc;
    // A missing or unreadable file leaves an empty document: the caller finds no keys in it.
    pDoc->LoadFile(path.Path());
    return 0;
  }

  if (dwType == RES_TYPE_BITMAP) {
    ERR err = 0;
    CBitmap* pBitmap = BmpLoad(path.Path(), &err, FALSE);
    *ppObject = pBitmap;
    if (!pBitmap && !err) err = ERR_BMP_NOFILE;
    return err;
  }

  // Fonts: the first four bytes pick the class.
  ERR err = 0;
  CFile* pFontFile = OpenPath(path.Path(), FILE_MODE_READ, &err);
  ASSERT(pFontFile);
  if (!pFontFile) return err;
  BYTE abtMagic[4] = {0, 0, 0, 0};
  pFontFile->Read(abtMagic, 4, 0);
  pFontFile->Seek(0, FILE_BEGIN);
  CFont* pFont = 0;
  if (GetLE32(abtMagic) == SFONT_MAGIC)
    pFont = new CSFont;
  else
    pFont = new CImageFont;
  if (!pFont) {
    err = ERR_ALLOCFAIL;
  } else {
    err = pFont->Load(pFontFile);
    if (err) {
      delete pFont;
      pFont = 0;
    }
  }
  delete pFontFile;
  *ppObject = pFont;
  return err;
}

ERR CDefResLocator::Save(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) {
  ASSERT(pLocation);
  if (!pLocation) return ERR_BADPARAM;
  if (dwType != RES_TYPE_INIDOC && dwType != RES_TYPE_BITMAP && dwType != RES_TYPE_FONT)
    return m_pNext ? m_pNext->Save(dwType, pLocation, pBuf, dwParam) : ERR_NOTIMPL;
  ASSERT(pBuf);
  if (!pBuf) return ERR_BADPARAM;

  CLocPath path(pLocation);
  if (!path.Path()) return ERR_ALLOCFAIL;

  if (dwType == RES_TYPE_INIDOC) return static_cast<CIniDoc*>(pBuf)->SaveFile(path.Path());
  if (dwType == RES_TYPE_BITMAP) return BmpSave(path.Path(), static_cast<CBitmap*>(pBuf), 0);

  ERR err = 0;
  CFile* pFile = OpenPath(path.Path(), FILE_MODE_CREATE, &err);
  ASSERT(pFile);
  if (!pFile) return err;
  err = static_cast<CFont*>(pBuf)->Save(pFile);
  delete pFile;
  return err;
}

ERR CDefResLocator::Release(DWORD dwType, void* pBuf) {
  void** ppObject = static_cast<void**>(pBuf);
  switch (dwType) {
    case RES_TYPE_INIDOC:
      if (ppObject && *ppObject) delete static_cast<CIniDoc*>(*ppObject);
      break;
    case RES_TYPE_BITMAP:
      if (ppObject && *ppObject) delete static_cast<CBitmap*>(*ppObject);
      break;
    case RES_TYPE_FONT:
      if (ppObject && *ppObject) delete static_cast<CFont*>(*ppObject);
      break;
    default:
      ASSERT_TEXT(FALSE, "dwType == 7 || dwType == 9 || dwType == 10");
      return ERR_BADPARAM;
  }
  if (ppObject) *ppObject = 0;
  return 0;
}
