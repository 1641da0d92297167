// The text INI store: a file's bytes kept as they are in one movable block, walked for every
// lookup and spliced in place for every edit; its typed value readers, the merge of an update
// into a store, and the language character tables.
#pragma once

#include "base/tools.h"
#include "files/file.h"

// Class identifier of CIni.
#define CLASSID_CINI 0x0C1A0001u

// Returned by the keyword readers for a keyword that is not in the table. It has no text in
// the error registry.
#define ERR_INI_BADKEYWORD 0x3434u

// Passed as a length or a buffer size: "take the string's own length" / "no size check".
#define INI_NOLIMIT ((DWORD)-1)

// Text blocks grow and shrink in steps of this many bytes.
#define INI_BLOCK_STEP 2048u

// Size of the block that holds a text of dwLen bytes: always room for the terminator, and a
// length that is an exact multiple of the step still gets one more whole step.
inline DWORD IniBlockSize(DWORD dwLen) { return dwLen + INI_BLOCK_STEP - (dwLen % INI_BLOCK_STEP); }

// Lines:  ";..." comment, "[name]..." section header, "key = value" entry, blank lines.
// Lookups are exact, case-sensitive byte comparisons; the first section or key of a name wins.
// Lists of names come back as a multi-string: each name and a 0, and one more 0 at the end.
class CIni : public CObject {
  DECLARE_CLASS()
 public:
  CIni();
  ~CIni() override;

  // Replaces the text by the whole file. A file of size 0 gives an empty store. On a failed
  // read the store is left empty and the read's error is returned.
  ERR Load(CFile* pFile);
  // Writes the text at offset 0 and ends the file there. An empty store writes nothing (the
  // file keeps what it had) and returns 0.
  ERR Save(CFile* pFile);

  // Copies the value with a terminator. ERR_NOTFOUND (buffer untouched) when the section or
  // key is absent; ERR_BUFSMALL with dwSize - 1 bytes and a terminator when it does not fit.
  // dwSize INI_NOLIMIT switches the check off: the caller's buffer must hold any value.
  ERR GetString(const char* pchSection, const char* pchEntry, char* pchBuf, DWORD dwSize);
  // Decimal, or hexadecimal after "0x", with an optional sign. A stray character stores the
  // digits read so far and returns ERR_BADFORMAT. Values wrap at 32 bits.
  ERR GetInt(const char* pchSection, const char* pchEntry, LONG* plValue);
  // Replaces the key's line by "key = value", or adds it after the section's last entry, or
  // adds the section at the end of the text. dwLen INI_NOLIMIT takes the length of pchBuf, so
  // a value may also be a slice of a longer text. On a failed allocation the text is intact.
  ERR SetString(const char* pchSection, const char* pchEntry, const char* pchBuf, DWORD dwLen = INI_NOLIMIT);
  ERR SetInt(const char* pchSection, const char* pchEntry, LONG lValue);

  // Every section name that has a "]" and is not empty. ERR_BUFSMALL when the list is cut; the
  // result is still a closed multi-string. dwSize must be at least 2.
  ERR GetSectionNames(char* pchBuf, DWORD dwSize);
  // Every non-empty key of a section. A missing section gives an empty list and ERR_NOTFOUND.
  ERR GetEntryNames(const char* pchSection, char* pchBuf, DWORD dwSize);
  // The key of the entry line at wIndex (from 0, counting every entry line of the section).
  // ERR_NOTFOUND past the last line, with the buffer left as it was (a missing section stores
  // an empty name); ERR_BUFSMALL when the key is cut to dwSize - 1 bytes.
  ERR GetEntryName(const char* pchSection, WORD wIndex, char* pchBuf, DWORD dwSize);

  // Sets the text length to dwSize, reallocating only when the block size changes; the bytes
  // of a longer text are not cleared (the one at dwSize is made the terminator). 0 frees the
  // text. ERR_ALLOCFAIL / ERR_REALLOCFAIL leave the old text and length in place.
  ERR Resize(DWORD dwSize);

  // Reserved; both return ERR_NOTIMPL and do nothing.
  ERR ReservedSectionOp(const char* pchSection);
  ERR ReservedEntryOp(const char* pchSection, const char* pchEntry);

  // Length of the text without its terminator.
  DWORD GetDataSize() { return m_dwDataSize; }

 protected:
  DWORD m_hData;  // handle of the text block; 0 when the store is empty
  DWORD m_dwDataSize;
};

// ---------------------------------------------------------------------------------------------
// Typed readers. Each reads the value into a 128-byte buffer, so a value of these forms has at
// most 127 characters: a longer one gives ERR_BUFSMALL. Numbers are read as an optional sign
// and decimal digits; only the commas separate fields, so words between numbers are ignored.
// A value with too few commas gives ERR_BADFORMAT after storing the fields read before.

// One keyword of a flag table; the table ends with a null name.
struct TIniFlag {
  const char* pchName;
  DWORD dwValue;
};

// "r,g,b" into a 4-byte colour record: byte 2 red, byte 1 green, byte 0 blue, byte 3 zero.
ERR IniGetColor(CIni* pIni, const char* pchSection, const char* pchEntry, void* pColor);
// "x,y".
ERR IniGetPoint(CIni* pIni, const char* pchSection, const char* pchEntry, SHORT* pnX, SHORT* pnY);
// "left,top,right,bottom".
ERR IniGetRect(CIni* pIni, const char* pchSection, const char* pchEntry, SHORT* pnLeft, SHORT* pnTop,
               SHORT* pnRight, SHORT* pnBottom);
// "x,y,width,height", stored as the rectangle x, y, x + width - 1, y + height - 1.
ERR IniGetBox(CIni* pIni, const char* pchSection, const char* pchEntry, SHORT* pnLeft, SHORT* pnTop,
              SHORT* pnRight, SHORT* pnBottom);
// A comma list of keywords, ORed together. A table name matches any field it begins: the
// first such name wins. An unknown keyword returns ERR_INI_BADKEYWORD and stores nothing.
ERR IniGetFlags(CIni* pIni, const char* pchSection, const char* pchEntry, const TIniFlag* pTable,
                DWORD* pdwFlags);
// "text,number[,keyword...]". pchText receives the text before the first comma (at most 127
// characters, so it needs 128 bytes); a value without a comma is stored in it whole and gives
// ERR_BADFORMAT. The keywords are ORed into *pdwFlags without clearing
// it first; with only two fields *pdwFlags is set to 0.
ERR IniGetStrNumFlags(CIni* pIni, const char* pchSection, const char* pchEntry, const TIniFlag* pTable,
                      char* pchText, SHORT* pnNumber, DWORD* pdwFlags);
// The field at wIndex (from 0) of a comma list, as it stands apart from the blanks after its
// comma. pchBuf needs 128 bytes. ERR_NOTFOUND when the list has fewer fields.
ERR IniGetField(CIni* pIni, const char* pchSection, const char* pchEntry, WORD wIndex, char* pchBuf);
// The field at wIndex read as a number.
ERR IniGetFieldInt(CIni* pIni, const char* pchSection, const char* pchEntry, WORD wIndex, LONG* plValue);
// A number, or the name of a section whose "ID" key holds the number.
ERR IniGetId(CIni* pIni, const char* pchSection, const char* pchEntry, LONG* plValue);

// Applies the update pNew to pOld. pNew lists the sections it adds as the keys of
// "[New Sections]" (ERR_NOTFOUND without it). Every key of every other section of pNew is set
// in pOld. An added section that pOld already has gets "PRB_SNE = Should not exist"; a
// section that is neither added nor in pOld gets "PRB_SE = Should exist". Stops at the first
// error and returns it; ERR_ALLOCFAIL when the work buffers cannot be had.
ERR IniMerge(CIni* pNew, CIni* pOld);

// ---------------------------------------------------------------------------------------------
// Language character tables, built once at start-up.

// Class bits of TLangTable::abtClass.
#define LANG_BLANK 0x01  // tab, LF, CR, space
#define LANG_DIGIT 0x02
#define LANG_LOWER 0x04
#define LANG_UPPER 0x08

struct TLangTable {
  char szName[32];
  BYTE abtOrder[256];  // rank of each byte in comparisons
  BYTE abtClass[256];
  BYTE abtUpper[256];
  BYTE abtLower[256];
};

// The tables of the running language; all zero until LangInit.
extern TLangTable g_LangTable;

// Builds the tables for a language. Only "English" is known: another name returns
// ERR_NOTFOUND and leaves the tables as they were.
ERR LangInit(const char* pchLanguage);

char LangCharUpper(char c);
char LangCharLower(char c);
// In place, up to the terminator, or for dwLen bytes.
void LangStrUpper(char* pch);
void LangStrLower(char* pch);
void LangStrUpperN(char* pch, DWORD dwLen);
void LangStrLowerN(char* pch, DWORD dwLen);
// -1, 0 or 1 by rank; the "NoCase" forms put both characters in upper case first.
int LangCharCompare(char a, char b);
int LangCharCompareNoCase(char a, char b);
// Up to the terminators: a string that is a prefix of the other sorts first.
int LangStrCompare(const char* a, const char* b);
int LangStrCompareNoCase(const char* a, const char* b);
// At most dwLen characters, stopping early at a terminator.
int LangStrCompareN(const char* a, const char* b, DWORD dwLen);
int LangStrCompareNoCaseN(const char* a, const char* b, DWORD dwLen);
