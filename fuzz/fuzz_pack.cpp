// Mounts arbitrary bytes as a pack from memory and, when that works, opens, seeks and reads every
// packed file and looks up names taken from the input. The same bytes after the header also go,
// unchecked, under a dictionary of their own, to exercise lookups, insertion and removal on
// streams that the mount would refuse.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "base/diction.h"
#include "files/memfile.h"
#include "files/packfile.h"
#include "fuzzinput.h"
#include "platform/platform.h"

namespace {

int IgnoreAssert(const char*) { return ASSERT_IGNORE; }

// Names to look up: the input cut at zero bytes, a few of them.
std::vector<std::string> KeysOf(const uint8_t* data, size_t size) {
  std::vector<std::string> keys;
  std::string cur;
  for (size_t i = 0; i < size && keys.size() < 12; i++) {
    if (data[i] == 0) {
      if (!cur.empty()) keys.push_back(cur);
      cur.clear();
    } else if (cur.size() < 200) {
      cur += (char)data[i];
    }
  }
  if (!cur.empty() && keys.size() < 12) keys.push_back(cur);
  return keys;
}

void ReadAround(CFile* pFile, DWORD dwSeed) {
  BYTE buf[300];
  DWORD dwSize = pFile->GetSize();
  DWORD got = 0;
  while (pFile->Read(buf, 1 + dwSeed % sizeof(buf), &got) == 0 && got) {
  }
  pFile->Seek((LONG)dwSeed, FILE_BEGIN);
  pFile->Read(buf, sizeof(buf), nullptr);
  pFile->Seek(0, FILE_END);
  pFile->Read(buf, 2, &got);
  if (got > 1) abort();  // standing on the last byte, at most one is left
  pFile->Seek(-(LONG)(dwSeed % 50), FILE_END);
  pFile->Seek((LONG)(dwSeed % 7), FILE_CURRENT);
  pFile->Read(buf, sizeof(buf), &got);
  if (got > dwSize) abort();
}

void LookUp(CPackFS* pVol, const std::vector<std::string>& keys) {
  CDictionary* pDict = pVol->GetDictionary();
  if (!pDict) return;
  char name[DICT_WORD_BUF];
  BOOL ok = pDict->GetNext(nullptr, name);
  DWORD n = 0;
  while (ok && n < 5000) {
    ERR err = 0;
    CFile* pFile = pVol->Open(name, FILE_MODE_READ, &err);
    if (!pFile) abort();  // every name the directory walk gives must open
    ReadAround(pFile, n * 2654435761u);
    delete pFile;
    std::string cur = name;
    ok = pDict->GetNext(cur.c_str(), name);
    n++;
  }
  for (const std::string& key : keys) {
    ERR err = 0;
    CFile* pFile = pVol->Open(key.c_str(), FILE_MODE_READ, &err);
    if (pFile) {
      ReadAround(pFile, (DWORD)key.size());
      delete pFile;
    } else if (err != ERR_FILE_NOTFOUND) {
      abort();
    }
    pVol->GetFileOffset(key.c_str(), &err);
  }
}

// The directory bytes under a dictionary with no checks made first.
void RawDictionary(const uint8_t* data, size_t size, const std::vector<std::string>& keys) {
  if (size < 41) return;
  size_t n = size - 40;
  DWORD h = HANDLE_ALLOC(n);
  if (!h) return;
  BYTE* p = static_cast<BYTE*>(HANDLE_LOCK(h));
  memcpy(p, data + 40, n);
  HANDLE_UNLOCK(h);
  WORD wStep = (WORD)(1 + data[18] % 8);
  CDictionary* pDict = new CDictionary(8, 4, h, (DWORD)n, data[19] & 1 ? 0 : data[20], 0, 0, wStep);
  if (!pDict) {
    HANDLE_FREE(h);
    return;
  }
  BYTE user[8];
  char word[DICT_WORD_BUF];
  DWORD dwIndex;
  for (DWORD i = 0; i < 20; i++) pDict->GetWord(i, word);
  for (const std::string& key : keys) {
    pDict->GetData(key.c_str(), user);
    pDict->Find(key.c_str(), &dwIndex);
    pDict->GetNext(key.c_str(), word);
  }
  DWORD dwSaved = 0;
  DWORD hIndex = pDict->SaveIndex(&dwSaved);
  if (hIndex) {
    pDict->LoadIndex(hIndex, pDict->GetIndexMemSize());
    HANDLE_FREE(hIndex);
  }
  for (const std::string& key : keys) {
    memset(user, 0x5A, sizeof(user));
    pDict->Add(key.c_str(), user);
  }
  for (const std::string& key : keys) pDict->Remove(key.c_str());
  // Removal may hand the data handle's number to another block (a known flaw): keep the
  // dictionary from freeing what it no longer owns, and give back its own block here.
  if (pDict->GetDataHandle() != h) {
    pDict->SetOwnData(FALSE);
    if (MemIsHandle(h, 0)) HANDLE_FREE(h);
  }
  delete pDict;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  PlatSetDebugEcho(FALSE);
  g_pfnAssertAnswer = &IgnoreAssert;
  FSInit(5);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> keys = KeysOf(data, size);
  CFile* pFile = MemFileOf(data, size);
  if (!pFile) return 0;
  // A header with no files or no directory leaves its volume allocated; take that path through
  // Load, so the run doesn't keep what it can't reach.
  bool bEmptyHeader = size >= 40 && (!GetLE32(data + 32) || !GetLE32(data + 36));
  if (bEmptyHeader) {
    CPackFS* pVol = new CPackFS(pFile);
    if (pVol) {
      BOOL bAbandon = 0;
      if (pVol->Load("pak:", &bAbandon) == 0) abort();
      delete pVol;
    } else {
      delete pFile;
    }
  } else if (PackMount(pFile, "pak:") == 0) {
    const char* pchPath = "pak:\\";
    WORD wLen = 0xFFFF, wIndex = 0;
    CPackFS* pVol = static_cast<CPackFS*>(FSFind(&pchPath, &wLen, &wIndex));
    if (!pVol || strcmp(pVol->GetClassName(), "CPackFS") != 0) abort();
    LookUp(pVol, keys);
    PackUnmount("pak:\\");
    if (g_wCount) abort();
  }
  RawDictionary(data, size, keys);
  return 0;
}
