// A volume without storage of its own: it puts a fixed text in front of every path, turns forward
// slashes into backslashes, and passes the call on to another volume.
#include "files/transfs.h"

#include <string.h>

IMPLEMENT_CLASS(CTransFS, 0x3000701, CFS)

CTransFS::CTransFS(const char* pchPrefix, CFS* pTransFS) : pTransFS(pTransFS) {
  ASSERT(pTransFS);
  m_szPrefix[0] = 0;
  if (pchPrefix) {
    size_t n = strlen(pchPrefix);
    if (n > sizeof(m_szPrefix) - 1) n = sizeof(m_szPrefix) - 1;
    memcpy(m_szPrefix, pchPrefix, n);
    m_szPrefix[n] = 0;
  }
}

void CTransFS::GetPrefix(char* pchBuf) {
  if (pchBuf) strcpy(pchBuf, m_szPrefix);
}

char* CTransFS::Translate(char* pchDest, const char* pchPath) {
  char* pch = pchDest;
  if (m_szPrefix[0]) {
    strcpy(pch, m_szPrefix);
    pch += strlen(m_szPrefix);
  }
  if (pchPath) {
    for (; *pchPath; pchPath++) *pch++ = *pchPath == '/' ? '\\' : *pchPath;
  }
  *pch = 0;
  return pchDest;
}

BOOL CTransFS::TranslateInto(char* pchDest, const char* pchPath) {
  size_t n = strlen(m_szPrefix) + (pchPath ? strlen(pchPath) : 0);
  if (n >= TRANSFS_MAX_PATH) return 0;
  Translate(pchDest, pchPath);
  return 1;
}

CFile* CTransFS::Open(const char* pchPath, WORD wMode, ERR* pErr) {
  char szPath[TRANSFS_MAX_PATH];
  if (!pTransFS || !TranslateInto(szPath, pchPath)) {
    if (pErr) *pErr = ERR_BADPARAM;
    return 0;
  }
  return pTransFS->Open(szPath, wMode, pErr);
}

BOOL CTransFS::Exists(const char* pchPath) {
  char szPath[TRANSFS_MAX_PATH];
  if (!pTransFS || !TranslateInto(szPath, pchPath)) return 0;
  return pTransFS->Exists(szPath);
}

ERR CTransFS::Delete(const char* pchPath) {
  char szPath[TRANSFS_MAX_PATH];
  if (!pTransFS || !TranslateInto(szPath, pchPath)) return ERR_BADPARAM;
  return pTransFS->Delete(szPath);
}

ERR CTransFS::Rename(const char* pchOld, const char* pchNew) {
  char szOld[TRANSFS_MAX_PATH];
  char szNew[TRANSFS_MAX_PATH];
  if (!pTransFS || !TranslateInto(szOld, pchOld) || !TranslateInto(szNew, pchNew)) return ERR_BADPARAM;
  return pTransFS->Rename(szOld, szNew);
}

ERR CTransFS::CreateDir(const char* pPath, const char* pDirName) {
  char szPath[TRANSFS_MAX_PATH];
  if (!pTransFS || !TranslateInto(szPath, pPath)) return ERR_BADPARAM;
  return pTransFS->CreateDir(szPath, pDirName);
}

ERR CTransFS::RemoveDir(const char* pPath, const char* pDirName) {
  char szPath[TRANSFS_MAX_PATH];
  if (!pTransFS || !TranslateInto(szPath, pPath)) return ERR_BADPARAM;
  return pTransFS->RemoveDir(szPath, pDirName);
}

ERR CTransFS::FindFirst(TFindInfo* pInfo, const char* pPath) {
  char szPath[TRANSFS_MAX_PATH];
  if (!pTransFS || !TranslateInto(szPath, pPath)) return ERR_BADPARAM;
  return pTransFS->FindFirst(pInfo, szPath);
}
