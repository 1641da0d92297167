// A volume without storage of its own: it puts a fixed text in front of every path, turns forward
// slashes into backslashes, and passes the call on to another volume.
#pragma once

#include "files/file.h"

// Longest path the volume passes on, terminator included; a longer one fails.
#define TRANSFS_MAX_PATH 512

class CTransFS : public CFS {
  DECLARE_CLASS()
 public:
  // pTransFS is the target and is not owned; a null pchPrefix gives an empty prefix. A prefix
  // longer than 255 characters is cut there.
  CTransFS(const char* pchPrefix, CFS* pTransFS);
  ~CTransFS() override {}

  // Copies the prefix into pchBuf, which must hold 256 characters.
  void GetPrefix(char* pchBuf);
  // Writes the prefix and then pchPath with '/' turned into '\' into pchDest, which must hold
  // both and a terminator. A null path counts as empty. Returns pchDest.
  char* Translate(char* pchDest, const char* pchPath);

  // Each translates its path and calls the target's operation with the rest as it came. A path
  // that would not fit in TRANSFS_MAX_PATH gives ERR_BADPARAM (null and 0 for Open and Exists).
  CFile* Open(const char* pchPath, WORD wMode, ERR* pErr) override;
  BOOL Exists(const char* pchPath) override;
  ERR Delete(const char* pchPath) override;
  ERR Rename(const char* pchOld, const char* pchNew) override;
  ERR CreateDir(const char* pPath, const char* pDirName) override;
  ERR RemoveDir(const char* pPath, const char* pDirName) override;
  // The target fills TFindInfo::pFS with itself, so FindNext and FindClose go straight to it.
  ERR FindFirst(TFindInfo* pInfo, const char* pPath) override;

  CFS* GetTarget() { return pTransFS; }

 private:
  // Translate into a buffer of TRANSFS_MAX_PATH characters; 0 when the result would not fit.
  BOOL TranslateInto(char* pchDest, const char* pchPath);

  char m_szPrefix[256];
  CFS* pTransFS;
};
