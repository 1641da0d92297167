// Word dictionary: a sorted list of words with fixed-size user data, kept in one front-coded byte
// stream (the directory format of pack files), with an optional sparse index for fast lookup.
#pragma once

#include "base/tools.h"

// Longest word the stream can hold: lengths are signed bytes.
#define DICT_MAX_WORD 127
// Room a caller gives GetWord and GetNext: the longest word and its terminator.
#define DICT_WORD_BUF (DICT_MAX_WORD + 1)
// Growth and shrink unit of the stream's block.
#define DICT_ALLOC_STEP 0x400

// One record of the in-memory index: where an indexed word's entry starts, and a MEM_ALLOC copy
// of the word (freed by FreeIndex).
struct TDictIndex {
  DWORD dwOffset;
  char* pchWord;
};

// The stream is a run of entries, ascending by the words' unsigned bytes, with no header:
//   BYTE btLen, BYTE btPrefix (characters shared with the word before), btLen - btPrefix
//   characters, then wSzUserData bytes of user data.
// Every operation takes and releases its own lock on the stream. Not reentrant: lookups go
// through two static buffers.
class CDictionary : public CObject {
  DECLARE_CLASS()
 public:
  // hData (may be 0) holds dwDataSize bytes of stream with dwWords words, counted here when 0.
  // The dictionary owns hData from now on (see SetOwnData). With hIndex, the index is loaded
  // from that saved image (which stays the caller's); otherwise, with data, an index of every
  // wIndexStep-th word is built (a wIndexStep of 0 asserts "wIndexStep" and builds none).
  CDictionary(WORD wSzUserData, BYTE btArrItemSize, DWORD hData, DWORD dwDataSize, DWORD dwWords,
              DWORD hIndex, DWORD dwIndexSize, WORD wIndexStep);
  ~CDictionary() override;

  DWORD GetDataHandle() { return m_hData; }
  DWORD GetUsed() { return m_dwUsed; }
  DWORD GetWords() { return m_dwWords; }
  DWORD GetIndexCount() { return m_dwIndexCount; }
  // Memory the index array takes: what LoadIndex needs to be given for a saved index.
  DWORD GetIndexMemSize() { return m_dwIndexCount * (DWORD)sizeof(TDictIndex); }
  WORD GetIndexStep() { return wIndexStep; }
  WORD GetUserDataSize() { return wSzUserData; }
  // Element size of the user data (1, 2 or 4). The data is little-endian everywhere, so it
  // needs no reordering.
  BYTE GetArrItemSize() { return btArrItemSize; }
  // FALSE: the destructor leaves the stream's handle to its owner.
  void SetOwnData(BOOL bOwn) { m_bOwnData = bOwn ? 1 : 0; }

  // Copies the word's user data into pData. 1, or 0 when the word isn't there (or the dictionary
  // is empty, or pchWord is null).
  BOOL GetData(const char* pchWord, void* pData);
  // Overwrites the word's user data. 1, or 0 as GetData.
  BOOL SetData(const char* pchWord, const void* pData);
  // The word at position dwIndex, zero-terminated into pchOut (DICT_WORD_BUF bytes). 0 for a null
  // buffer or a position past the end.
  BOOL GetWord(DWORD dwIndex, char* pchOut);
  // The first word (pchWord null) or the word after pchWord, which must be stored, into pchOut
  // (DICT_WORD_BUF bytes). 0 at the end or when pchWord isn't stored.
  BOOL GetNext(const char* pchWord, char* pchOut);
  // The first word that begins with pchWord: 1 and its position through pdwIndex, or 0.
  BOOL Find(const char* pchWord, DWORD* pdwIndex);
  // Inserts the word with its user data. A word already stored isn't replaced: the new entry goes
  // in front of it. Drops the index. 0 when the word is empty, too long, or the block can't grow;
  // nothing may hold the stream locked.
  BOOL Add(const char* pchWord, const void* pData);
  // pItems: dwCount records of a `const char*` followed by wSzUserData bytes. Stops at the first
  // failure; 1 when all went in.
  BOOL AddList(const void* pItems, DWORD dwCount);
  // Takes the word out; 0 when it isn't stored. Drops the index. Three shortcuts, harmless only
  // because dictionaries in use are read-only and nothing removes words:
  // - When the word has a non-zero prefix and its successor shares more with it than that prefix
  //   but not the whole word, the successor moves down with its prefix count unchanged. That
  //   count then claims characters of the new predecessor that belong to the removed word: the
  //   successor reads as another word (cut to what the predecessor has) and lookups miss it.
  // - When some of the removed word's characters stay as the start of its successor's, the used
  //   size still falls by the removed word's whole entry: as many bytes drop off the end of the
  //   stream, and the last word comes out cut or unreadable.
  // - When more than DICT_ALLOC_STEP bytes are spare the block shrinks by that much, and the
  //   reallocation's 1-or-0 result takes the place of the data handle: after such a shrink
  //   GetDataHandle() is 1 (or 0), the old block is orphaned, and the stream is reachable again
  //   only if that number is a block at least as large.
  BOOL Remove(const char* pchWord);

  // Index of word 0 and of every wIndexStep-th word after it. 0 (and no index) with no words,
  // fewer words than the step, or a step of 0.
  BOOL BuildIndex(WORD wStep);
  // Reads an index saved by SaveIndex from hImage (left to the caller, unlocked) into an array
  // of dwIndexMemSize bytes (GetIndexMemSize() of the saving dictionary). The dictionary's step
  // must be the one the index was built with. 0, and no index, on any fault in the image.
  BOOL LoadIndex(DWORD hImage, DWORD dwIndexMemSize);
  // The index in its file form (a dword count, then per word a length byte, the word and a dword
  // offset, little-endian), as a new handle the caller frees, its size through pdwSize; 0 without
  // an index or memory, *pdwSize then left alone.
  DWORD SaveIndex(DWORD* pdwSize);
  void FreeIndex();

  // Counted lock of the stream: its address, or 0. Each successful lock needs an UnlockData.
  BYTE* LockData();
  void UnlockData();

 private:
  struct TEntry {
    DWORD dwOfs;
    BYTE btLen;
    BYTE btPrefix;
    const BYTE* pSuffix;  // btLen - btPrefix characters
    DWORD dwNext;         // offset of the following entry
  };
  BOOL ParseEntry(DWORD dwOfs, TEntry* pEntry);
  BOOL ReadEntry(DWORD dwOfs, BYTE* pBuf, DWORD* pdwNext);
  DWORD Expand(BYTE* pEntry, const BYTE* pchPrev, DWORD dwPrevLen);
  static DWORD ExpandOver(char* pchWord, DWORD dwPrevLen, const TEntry* pEntry);
  BOOL IndexFind(const BYTE* pKey, DWORD dwKeyLen, DWORD* pdwOfs, char* pchWord, DWORD* pdwIndex);
  BOOL Search(BYTE* pKey, DWORD* pdwOfs, BOOL bInsert, DWORD* pdwIndex);
  void Recompress(const BYTE* pKey, DWORD dwOfs);
  BOOL MakeKey(const char* pchWord);
  DWORD CountWords();

  DWORD m_hData;
  DWORD m_dwWords;
  DWORD m_dwAlloced;
  DWORD m_dwUsed;
  WORD wSzUserData;
  BYTE btArrItemSize;
  DWORD m_bOwnData;
  DWORD m_hIndex;
  WORD wIndexStep;
  DWORD m_dwIndexCount;
  DWORD m_dwIndexLoaded;  // the count as last loaded; kept, not read
  BYTE* m_pData;
  DWORD m_dwRefCount;
};
