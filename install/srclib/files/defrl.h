// Resource locators: a location text and a type number in, a live object out (INI document,
// bitmap, font), with the parser of location texts and the default file-based locator.
#pragma once

#include "files/file.h"

// Resource types known to the system.
#define RES_TYPE_INIDOC 7  // CIniDoc
#define RES_TYPE_BITMAP 9  // CBitmap
#define RES_TYPE_FONT 10   // CFont: a CSFont when the file starts with "SFNT", else a CImageFont

// One part of a parsed location: where it starts in the text and how many characters it has.
// An absent part has a null start and length 0.
struct TLocPart {
  const char* pchStart;
  DWORD dwLen;
};

// A location taken apart. The parts point into the parsed text and own nothing.
struct TLocation {
  TLocPart Scheme;    // before the first ':' that comes before any '/' or '#'
  TLocPart Host;      // after a leading "//", up to the next '/' or '#'
  TLocPart Dir;       // from a '/' to the last '/' of the path, both included
  TLocPart Name;      // the rest up to '#' or the end
  TLocPart Fragment;  // after the '#'
};

// Parses pLocation into *pLoc. A backslash is an ordinary character here, so "pak:\a\b.bmp" has
// the scheme "pak" and the name "\a\b.bmp". A null text gives all parts empty.
void ParseLocation(TLocation* pLoc, const char* pLocation);

// The interface of every locator. pBuf is, in Load, the address of a pointer that receives the
// object; in Save, the object itself; in Release, the address of the pointer, which is cleared.
// Whoever got an object from a Load gives it back with Release of the same locator.
class CResLocator : public CObject {
  DECLARE_CLASS()
 public:
  // pNext: the locator that Idle passes on to (may be null).
  explicit CResLocator(CResLocator* pNext = 0) : m_pNext(pNext) {}
  ~CResLocator() override {}

  // The three are ERR_NOTIMPL here.
  virtual ERR Load(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam);
  virtual ERR Save(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam);
  virtual ERR Release(DWORD dwType, void* pBuf);
  // Called when the program has nothing else to do; passed down to m_pNext, 0 without one.
  virtual ERR Idle();

  CResLocator* m_pNext;  // not owned
};

// Makes types 7, 9 and 10 from files and hands every other type to m_pNext.
//
// The path of a location: with no scheme, or the scheme "file", the directory and name (the
// host is dropped); with any other scheme the text from its start, so that "pak:\x.bmp" keeps
// the prefix that selects its volume. A fragment ("#...") is never part of the path. The
// location text is not modified.
class CDefResLocator : public CResLocator {
  DECLARE_CLASS()
 public:
  // pNext handles the other types; not owned, may be null.
  explicit CDefResLocator(CResLocator* pNext) : CResLocator(pNext) {}
  ~CDefResLocator() override {}

  // Type 7: a CIniDoc (tables of 100 and 1000 buckets, an allocator of its own) loaded from the
  // path; a file that can't be read gives an empty document and still 0. Type 9: the bitmap,
  // or BmpLoad's error. Type 10: the font, or the error of the open or of the font's Load. Null
  // pBuf: ERR_BADPARAM. Another type goes to m_pNext, or gives ERR_NOTIMPL without one. On
  // failure *pBuf is null. The caller gives the object back with Release.
  ERR Load(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) override;
  // Writes the object pBuf to the path: SaveFile of the document, BmpSave of the bitmap (row
  // order kept), the font's Save into a created file. Other types as in Load.
  ERR Save(DWORD dwType, const char* pLocation, void* pBuf, DWORD dwParam) override;
  // Types 7, 9, 10: deletes *pBuf (when there is one) and clears it; 0. Any other type asserts
  // and gives ERR_BADPARAM.
  ERR Release(DWORD dwType, void* pBuf) override;
};
