// The parsed INI document: a file read once into section and entry records found through two
// hash tables, and written back whole from the records.
#pragma once

#include "base/pool.h"
#include "config/ini.h"
#include "files/file.h"

// Class identifier of CIniDoc.
#define CLASSID_CINIDOC 0x0C1A0002u

// Longest line read: what lies beyond starts the next line.
#define INIDOC_MAXLINE 511
// Size of the load buffer.
#define INIDOC_READBUF 4096

// One record: the header, then its text. A section's text is name, 0, comment, 0; an entry's
// is key, 0, value, 0, comment, 0. An entry with an empty key is a comment line: it is in its
// section's list but not in the entry table.
struct TIniItem {
  TIniItem* pLink;   // chain word of the hash table
  TIniItem* pNext;   // next in its list
  TIniItem* pPrev;   // previous in its list
  TIniItem* pOwner;  // section: its first entry; entry: its section
  char* pchName;     // the text behind the header
};

// Differs from CIni: a trailing "; note" is split off as the entry's comment, names compare
// without regard to the case of A to Z, entries are written "key=value", lines before the
// first section and blank lines are dropped on load, and a line has at most 511 characters.
class CIniDoc : public CObject {
  DECLARE_CLASS()
 public:
  // dwSections, dwEntries: bucket counts of the two tables. pAlloc serves every record and the
  // read buffer; a null pAlloc makes a CPtrAlloc that the document owns. bOwnAlloc: delete
  // pAlloc with the document.
  CIniDoc(DWORD dwSections, DWORD dwEntries, CBlockAlloc* pAlloc, BOOL bOwnAlloc);
  ~CIniDoc() override;

  // Opens pchPath for reading, loads it and closes it; the open's error if it fails.
  ERR LoadFile(const char* pchPath);
  // Replaces the document by the file's records, read from the file's current position.
  // ERR_BADPARAM for null; read errors are not reported.
  ERR Load(CFile* pFile);
  // Creates pchPath anew and saves into it; the open's error if it fails.
  ERR SaveFile(const char* pchPath);
  // Writes every section at the file's position, with one blank line after each. Neither seeks
  // nor truncates; write errors are not looked at. ERR_BADPARAM for null.
  ERR Save(CFile* pFile);

  // Reads one line into pchLine (INIDOC_MAXLINE + 1 bytes) and points the three results into
  // it: key and value trimmed of spaces and tabs, the comment after the first ';' as it
  // stands. Returns 0 when the end of input was met on this line (its content still counts).
  virtual BOOL ReadLine(char* pchLine, char** ppKey, char** ppValue, char** ppComment);

  // Frees every record; the document is empty afterwards.
  void Clear();

  // The record or null.
  TIniItem* FindSection(const char* pchSection);
  TIniItem* FindEntry(const char* pchSection, const char* pchEntry);
  // A new section at the head of the section list (even if one of that name exists); null
  // when no record could be had.
  TIniItem* AddSection(const char* pchSection);
  // A new entry at the head of its section's list, the section added when absent. An existing
  // key is not looked for. pchComment may be null. Null when no record could be had.
  TIniItem* AddEntry(const char* pchSection, const char* pchEntry, const char* pchValue,
                     const char* pchComment);
  // Unlinks and frees an entry record.
  void DeleteEntry(TIniItem* pItem);
  // ERR_NOTFOUND when absent.
  ERR DeleteEntryByName(const char* pchSection, const char* pchEntry);

  // The stored value (valid until the entry changes), or null.
  const char* GetValue(const char* pchSection, const char* pchEntry);
  // ERR_NOTFOUND when absent. dwSize (DWORD)-1 copies without limit; otherwise at most dwSize
  // bytes, with a terminator only when the value is shorter than that.
  ERR GetString(const char* pchSection, const char* pchEntry, char* pchBuf, DWORD dwSize);
  // Decimal, or hexadecimal after "0x", with an optional sign; a stray character stores the
  // digits so far and gives ERR_BADFORMAT. ERR_NOTFOUND when absent.
  ERR GetInt(const char* pchSection, const char* pchEntry, LONG* plValue);
  // Replaces the entry by a new one at the head of its section, keeping its comment.
  ERR SetString(const char* pchSection, const char* pchEntry, const char* pchValue);
  ERR SetInt(const char* pchSection, const char* pchEntry, LONG lValue);

  // Walking. Each that takes an item gives null for null.
  TIniItem* FirstSection() { return m_pFirst; }
  TIniItem* NextSection(TIniItem* pItem) { return pItem ? pItem->pNext : 0; }
  TIniItem* FirstEntry(TIniItem* pSection) { return pSection ? pSection->pOwner : 0; }
  TIniItem* FirstEntryOf(const char* pchSection) { return FirstEntry(FindSection(pchSection)); }
  TIniItem* NextEntry(TIniItem* pItem) { return pItem ? pItem->pNext : 0; }
  const char* SectionName(TIniItem* pItem) { return pItem ? pItem->pchName : 0; }
  const char* EntryKey(TIniItem* pItem) { return pItem ? pItem->pchName : 0; }
  const char* EntryValue(TIniItem* pItem);
  const char* SectionComment(TIniItem* pItem);
  const char* EntryComment(TIniItem* pItem);

 protected:
  // Next byte of the file being loaded, or -1 at its end.
  int ReadChar();
  TIniItem* NewItem(const char* pchName, const char* pchValue, const char* pchComment, BOOL bEntry);
  void FreeItem(TIniItem* pItem);
  // Takes an entry out of the entry table without freeing it.
  void UnhashEntry(TIniItem* pItem);
  void LinkSectionAtEnd(TIniItem* pSection, TIniItem** ppLast);
  void LinkEntryAtEnd(TIniItem* pSection, TIniItem* pEntry, TIniItem** ppLast);

  CHashTable* m_pSections;
  CHashTable* m_pEntries;
  TIniItem* m_pFirst;
  CBlockAlloc* m_pAlloc;
  BOOL m_bOwnAlloc;
  BYTE* m_pReadBuf;
  DWORD m_dwReadCount;
  DWORD m_dwReadPos;
  CFile* m_pReadFile;
};

// The hash of a name: characters folded to upper case for a to z, each taken as a signed
// byte. A section's bucket is this modulo the table size; an entry's is the sum of its
// section's and its key's hashes, modulo the table size.
DWORD IniDocNameHash(const char* pchName);

// Typed readers over a document: the value forms, results and errors of IniGetColor and its
// family, read from CIniDoc::GetString. A value of 128 characters or more gives ERR_BUFSMALL.
ERR DocGetColor(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, void* pColor);
ERR DocGetPoint(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, SHORT* pnX, SHORT* pnY);
ERR DocGetRect(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, SHORT* pnLeft, SHORT* pnTop,
               SHORT* pnRight, SHORT* pnBottom);
ERR DocGetBox(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, SHORT* pnLeft, SHORT* pnTop,
              SHORT* pnRight, SHORT* pnBottom);
ERR DocGetFlags(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, const TIniFlag* pTable,
                DWORD* pdwFlags);
ERR DocGetStrNumFlags(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, const TIniFlag* pTable,
                      char* pchText, SHORT* pnNumber, DWORD* pdwFlags);
// pchBuf needs 128 bytes.
ERR DocGetField(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, WORD wIndex, char* pchBuf);
ERR DocGetFieldInt(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, WORD wIndex, LONG* plValue);
// A number, or the name of a section whose "ID" key holds the number.
ERR DocGetId(CIniDoc* pDoc, const char* pchSection, const char* pchEntry, LONG* plValue);
