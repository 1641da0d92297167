// LZSS block codec: bit-stream decoder with one loop per parameter byte, and the tree encoder.
#include "files/lzssfunc.h"

#include <string.h>

#include "base/memalloc.h"
#include "base/twvmerr.h"

BOOL LZSSIsKnownParam(BYTE btBitLengths) {
  BYTE btN = btBitLengths >> 4, btL = btBitLengths & 0x0F;
  return btN >= 10 && btN <= 12 && btL >= 1 && btL <= 5;
}

// =============================================================================================
// Decoder
//
// A token is taken from one 32-bit big-endian fetch at the current byte, shifted by the bit
// offset: the longest token (18 bits) at bit offset 7 still fits. The fast loop runs while four
// input bytes are there to fetch and the output has room for the longest match, so it checks
// nothing but the match distance. The last few tokens go through the careful loop, which
// fetches byte by byte (missing bytes read as 0) and checks the room for every token.

static inline DWORD Fetch32(const BYTE* p) {
  return ((DWORD)p[0] << 24) | ((DWORD)p[1] << 16) | ((DWORD)p[2] << 8) | (DWORD)p[3];
}

static inline DWORD Fetch32Tail(const BYTE* pSrc, DWORD dwSrcLen, DWORD i) {
  DWORD v = 0;
  for (int k = 0; k < 4; k++) {
    v <<= 8;
    if (i + k < dwSrcLen) v |= pSrc[i + k];
  }
  return v;
}

// Copies n bytes (2 <= n <= 33) from s to d = s + dist, byte by byte in effect: when the
// regions overlap the copy repeats the last dist bytes, which is how runs are coded.
static inline void CopyMatch(BYTE* d, const BYTE* s, DWORD n, DWORD dist) {
  if (dist >= n) {
    // No overlap: fixed-size moves from both ends cover every length exactly, with no byte
    // written past the match (a following skip must find its bytes untouched).
    if (n >= 16) {
      BYTE t[16];
      DWORD k = 0;
      for (; k + 16 < n; k += 16) {
        memcpy(t, s + k, 16);
        memcpy(d + k, t, 16);
      }
      memcpy(t, s + n - 16, 16);
      memcpy(d + n - 16, t, 16);
    } else if (n >= 8) {
      uint64_t a, b;
      memcpy(&a, s, 8);
      memcpy(&b, s + n - 8, 8);
      memcpy(d, &a, 8);
      memcpy(d + n - 8, &b, 8);
    } else if (n >= 4) {
      uint32_t a, b;
      memcpy(&a, s, 4);
      memcpy(&b, s + n - 4, 4);
      memcpy(d, &a, 4);
      memcpy(d + n - 4, &b, 4);
    } else {
      uint16_t a, b;
      memcpy(&a, s, 2);
      memcpy(&b, s + n - 2, 2);
      memcpy(d, &a, 2);
      memcpy(d + n - 2, &b, 2);
    }
  } else if (dist == 1) {
    memset(d, *s, n);
  } else {
    for (DWORD k = 0; k < n; k++) d[k] = s[k];
  }
}

template <int N, int L>
static ERR DecodeLoop(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD dwCap, DWORD* pdwOut) {
  const DWORD W = 1u << N;
  const DWORD M = (1u << L) + 1;
  const DWORD TOKEN = 1 + N + L;
  const DWORD dwLast = dwSrcLen - 1;  // dwSrcLen is at least 1 here
  DWORD i = 0, bit = 0, out = 0;

  // Fast loop: i + 4 <= dwSrcLen, out + M <= dwCap.
  if (dwSrcLen >= 4 && dwCap >= M) {
    const DWORD dwFastIn = dwSrcLen - 4, dwFastOut = dwCap - M;
    while (i <= dwFastIn && out <= dwFastOut) {
      DWORD v = Fetch32(pSrc + i) << bit;
      if (v & 0x80000000u) {
        pDest[out++] = (BYTE)(v >> 23);
        bit += 9;
      } else {
        DWORD code = (v >> (31 - N)) & (W - 1);
        DWORD n = ((v >> (31 - N - L)) & ((1u << L) - 1)) + 2;
        bit += TOKEN;
        if (code != 0) {
          DWORD dist = W - code;
          if (dist > out) {
            *pdwOut = out;
            return ERR_BADFORMAT;
          }
          CopyMatch(pDest + out, pDest + out - dist, n, dist);
        }
        out += n;
      }
      i += bit >> 3;
      bit &= 7;
    }
  }

  // Careful loop for the rest; the loop test looks at the byte index only, as the padding
  // after the last token is always shorter than a token.
  while (i < dwLast) {
    DWORD v = Fetch32Tail(pSrc, dwSrcLen, i) << bit;
    if (v & 0x80000000u) {
      if (out >= dwCap) {
        *pdwOut = out;
        return ERR_BUFSMALL;
      }
      pDest[out++] = (BYTE)(v >> 23);
      bit += 9;
    } else {
      DWORD code = (v >> (31 - N)) & (W - 1);
      DWORD n = ((v >> (31 - N - L)) & ((1u << L) - 1)) + 2;
      if (n > dwCap - out) {
        *pdwOut = out;
        return ERR_BUFSMALL;
      }
      bit += TOKEN;
      if (code != 0) {
        DWORD dist = W - code;
        if (dist > out) {
          *pdwOut = out;
          return ERR_BADFORMAT;
        }
        CopyMatch(pDest + out, pDest + out - dist, n, dist);
      }
      out += n;
    }
    i += bit >> 3;
    bit &= 7;
  }
  *pdwOut = out;
  return 0;
}

typedef ERR (*PFN_DECODE)(const BYTE*, DWORD, BYTE*, DWORD, DWORD*);

#define DECODERS_FOR(n) \
  &DecodeLoop<n, 1>, &DecodeLoop<n, 2>, &DecodeLoop<n, 3>, &DecodeLoop<n, 4>, &DecodeLoop<n, 5>
static const PFN_DECODE s_Decoders[15] = {DECODERS_FOR(10), DECODERS_FOR(11), DECODERS_FOR(12)};

ERR LZSSDecompress(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD* pdwDestLen, BYTE btBitLengths) {
  if (dwSrcLen == 0) return 0;
  if (!LZSSIsKnownParam(btBitLengths)) {
    ASSERT_TEXT(0, "btBitLengths*0");
    return ERR_LZSS_BADPARAM;
  }
  DWORD dwCap = *pdwDestLen;
  DWORD dwOut = 0;
  ERR err = s_Decoders[((btBitLengths >> 4) - 10) * 5 + (btBitLengths & 0x0F) - 1](pSrc, dwSrcLen, pDest,
                                                                                   dwCap, &dwOut);
  *pdwDestLen = dwOut;
  return err;
}

// =============================================================================================
// Bit writer: fills the cleared output from the top bit of each byte down. The byte it stands on
// counts as used; moving onto a byte past the capacity fails.

struct TBitWriter {
  BYTE* pCur;
  DWORD nFree;  // bits still free in *pCur
  DWORD nLeft;  // bytes of capacity left, counting *pCur
};

static inline BOOL PutBits(TBitWriter* w, DWORD v, DWORD n) {
  if (w->nFree == 0) {
    if (--w->nLeft == 0) return FALSE;
    w->pCur++;
    w->nFree = 8;
  }
  if (w->nFree < n) {
    n -= w->nFree;
    *w->pCur |= (BYTE)(v >> n);
    if (--w->nLeft == 0) return FALSE;
    w->pCur++;
    while (n > 8) {
      n -= 8;
      *w->pCur = (BYTE)(v >> n);
      if (--w->nLeft == 0) return FALSE;
      w->pCur++;
    }
    *w->pCur = (BYTE)(v << (8 - n));
    w->nFree = 8 - n;
  } else {
    w->nFree -= n;
    *w->pCur |= (BYTE)(v << w->nFree);
  }
  return TRUE;
}

// =============================================================================================
// Encoder
//
// A binary search tree holds the last W - 1 positions, ordered by the text that starts at each
// (compared up to the lookahead). Its nodes live in one array used as a ring: each new position
// takes the next slot, pushing the oldest out of the tree. The search for a position yields the
// nearest node on each side, which share the longest prefixes with the text.

struct TLZNode {
  TLZNode* pParent;
  TLZNode* pLeft;
  TLZNode* pRight;
  DWORD dwPos;
};

// Encoder state; lives only during one LZSSCompress call.
static TLZNode* g_pLZNodes;
static DWORD g_dwLZNodeCount;
static DWORD g_dwLZSlot;  // slot of the newest position
static TLZNode* g_pLZRoot;
static const BYTE* g_pLZSrc;
static DWORD g_dwLZSrcLen;
// Result of the last search.
static TLZNode* g_pLZSmaller;
static DWORD g_dwLZSmallerLen;
static TLZNode* g_pLZGreater;
static DWORD g_dwLZGreaterLen;
static TLZNode* g_pLZEnd;  // node where the search stopped
static BOOL g_bLZLeft;     // the empty side of g_pLZEnd where the text belongs is the left one
static BOOL g_bLZFull;     // g_pLZEnd matched the whole lookahead
static DWORD g_dwLZSearchLook;

// Number of equal leading bytes of the texts at p and q (q < p), up to dwLook; *pbtP and *pbtQ
// receive the first differing bytes. The byte just past the input counts as 0.
static inline DWORD CompareText(DWORD p, DWORD q, DWORD dwLook, BYTE* pbtP, BYTE* pbtQ) {
  const BYTE* s = g_pLZSrc;
  DWORD dwAvail = g_dwLZSrcLen - p;
  DWORD dwLim = dwLook < dwAvail ? dwLook : dwAvail;
  DWORD k = 0;
  while (k + 8 <= dwLim) {
    uint64_t a, b;
    memcpy(&a, s + p + k, 8);
    memcpy(&b, s + q + k, 8);
    if (a != b) break;
    k += 8;
  }
  while (k < dwLim && s[p + k] == s[q + k]) k++;
  if (k < dwLim) {
    *pbtP = s[p + k];
    *pbtQ = s[q + k];
    return k;
  }
  if (k < dwLook) {
    // Only the byte just past the input remains to compare.
    *pbtP = 0;
    *pbtQ = s[q + k];
    if (*pbtQ != 0) return k;
    k++;
  }
  return k;
}

static void LZSearch(TLZNode* pStart, DWORD p, DWORD dwLook) {
  g_pLZSmaller = g_pLZGreater = 0;
  g_dwLZSmallerLen = g_dwLZGreaterLen = 0;
  g_dwLZSearchLook = dwLook;
  TLZNode* pNode = pStart;
  for (;;) {
    BYTE btP = 0, btQ = 0;
    DWORD k = CompareText(p, pNode->dwPos, dwLook, &btP, &btQ);
    if (k >= dwLook) {
      g_pLZGreater = pNode;
      g_dwLZGreaterLen = dwLook;
      g_pLZEnd = pNode;
      g_bLZFull = TRUE;
      return;
    }
    TLZNode* pNext;
    BOOL bLeft;
    if (btQ > btP) {
      g_pLZGreater = pNode;
      g_dwLZGreaterLen = k;
      pNext = pNode->pLeft;
      bLeft = TRUE;
    } else {
      g_pLZSmaller = pNode;
      g_dwLZSmallerLen = k;
      pNext = pNode->pRight;
      bLeft = FALSE;
    }
    if (!pNext) {
      g_pLZEnd = pNode;
      g_bLZLeft = bLeft;
      g_bLZFull = FALSE;
      return;
    }
    pNode = pNext;
  }
}

// Takes pNode out of the tree; its place goes to its only child, or with two children to the
// rightmost node of its left subtree.
static void LZDelete(TLZNode* pNode) {
  TLZNode* pRepl;
  if (!pNode->pLeft) {
    pRepl = pNode->pRight;
  } else if (!pNode->pRight) {
    pRepl = pNode->pLeft;
  } else {
    pRepl = pNode->pLeft;
    if (pRepl->pRight) {
      while (pRepl->pRight) pRepl = pRepl->pRight;
      pRepl->pParent->pRight = pRepl->pLeft;
      if (pRepl->pLeft) pRepl->pLeft->pParent = pRepl->pParent;
      pRepl->pLeft = pNode->pLeft;
      pNode->pLeft->pParent = pRepl;
    }
    pRepl->pRight = pNode->pRight;
    pNode->pRight->pParent = pRepl;
  }
  if (pRepl) pRepl->pParent = pNode->pParent;
  if (pNode->pParent) {
    if (pNode->pParent->pLeft == pNode)
      pNode->pParent->pLeft = pRepl;
    else
      pNode->pParent->pRight = pRepl;
  } else {
    g_pLZRoot = pRepl;
  }
  pNode->pParent = pNode->pLeft = pNode->pRight = 0;
}

// Enters position p into the next ring slot, using the result of the search for p.
static void LZInsert(DWORD p) {
  if (++g_dwLZSlot == g_dwLZNodeCount) g_dwLZSlot = 0;
  TLZNode* pSlot = &g_pLZNodes[g_dwLZSlot];
  if (pSlot == g_pLZEnd) {
    // The oldest node is where the new text belongs already.
    pSlot->dwPos = p;
    return;
  }
  if (pSlot->pParent || pSlot == g_pLZRoot) LZDelete(pSlot);
  pSlot->dwPos = p;
  if (!g_pLZRoot) {
    // Cannot happen with a search result from the same tree; kept so the tree never breaks.
    pSlot->pParent = pSlot->pLeft = pSlot->pRight = 0;
    g_pLZRoot = pSlot;
    return;
  }
  if (!g_bLZFull) {
    // The deletion may have filled the side where the text belongs: search on below it.
    TLZNode* pChild = g_bLZLeft ? g_pLZEnd->pLeft : g_pLZEnd->pRight;
    if (pChild) LZSearch(pChild, p, g_dwLZSearchLook);
  }
  TLZNode* pEnd = g_pLZEnd;
  if (!g_bLZFull) {
    pSlot->pLeft = pSlot->pRight = 0;
    pSlot->pParent = pEnd;
    if (g_bLZLeft)
      pEnd->pLeft = pSlot;
    else
      pEnd->pRight = pSlot;
  } else {
    // Same text as the end node: the newer position replaces it in the tree.
    pSlot->pParent = pEnd->pParent;
    pSlot->pLeft = pEnd->pLeft;
    pSlot->pRight = pEnd->pRight;
    if (pSlot->pLeft) pSlot->pLeft->pParent = pSlot;
    if (pSlot->pRight) pSlot->pRight->pParent = pSlot;
    if (pEnd->pParent) {
      if (pEnd->pParent->pLeft == pEnd)
        pEnd->pParent->pLeft = pSlot;
      else
        pEnd->pParent->pRight = pSlot;
    } else {
      g_pLZRoot = pSlot;
    }
    pEnd->pParent = 0;
  }
}

static void LZFreeNodes() {
  MEM_FREE(g_pLZNodes);
  g_pLZNodes = 0;
  g_pLZRoot = g_pLZEnd = g_pLZSmaller = g_pLZGreater = 0;
  g_pLZSrc = 0;
}

ERR LZSSCompress(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD* pdwDestLen, BYTE btBitLengths,
                 const BYTE* pRef) {
  const DWORD N = btBitLengths >> 4, L = btBitLengths & 0x0F;
  if (N == 0) return ERR_BADPARAM;  // no window: no node to hold a position
  const DWORD W = 1u << N;
  const DWORD M = (1u << L) + 1;
  DWORD dwCap = *pdwDestLen;
  if (dwCap == 0) return ERR_BUFSMALL;

  g_dwLZNodeCount = W - 1;
  g_pLZNodes = (TLZNode*)MEM_ALLOC(g_dwLZNodeCount * sizeof(TLZNode));
  if (!g_pLZNodes) return ERR_FILE_NOMEM;
  memset(g_pLZNodes, 0, g_dwLZNodeCount * sizeof(TLZNode));
  memset(pDest, 0, dwCap);
  g_pLZSrc = pSrc;
  g_dwLZSrcLen = dwSrcLen;
  g_pLZRoot = &g_pLZNodes[0];
  g_dwLZSlot = 0;

  TBitWriter w = {pDest, 8, dwCap};
  if (!PutBits(&w, 0x100u | (dwSrcLen ? pSrc[0] : 0), 9)) {
    LZFreeNodes();
    return ERR_BUFSMALL;
  }
  g_pLZRoot->dwPos = 0;

  DWORD pos = 1;
  while (pos < dwSrcLen) {
    DWORD dwLook = dwSrcLen - pos < M ? dwSrcLen - pos : M;
    LZSearch(g_pLZRoot, pos, dwLook);
    TLZNode* pMatch;
    DWORD dwLen;
    if (g_dwLZGreaterLen > g_dwLZSmallerLen) {
      pMatch = g_pLZGreater;
      dwLen = g_dwLZGreaterLen;
    } else {
      pMatch = g_pLZSmaller;
      dwLen = g_dwLZSmallerLen;
    }
    DWORD dwCode = pMatch ? W - (pos - pMatch->dwPos) : 0;
    if (pRef) {
      DWORD k = 0;
      while (k < dwLook && pSrc[pos + k] == pRef[pos + k]) k++;
      if (k > dwLen) {
        dwLen = k;
        dwCode = 0;
      }
    }
    BOOL bOk;
    if (dwLen < 2) {
      dwLen = 1;
      bOk = PutBits(&w, 0x100u | pSrc[pos], 9);
    } else {
      bOk = PutBits(&w, (dwCode << L) | (dwLen - 2), 1 + N + L);
    }
    if (!bOk) {
      LZFreeNodes();
      return ERR_BUFSMALL;
    }
    LZInsert(pos);
    for (DWORD q = pos + 1; q < pos + dwLen; q++) {
      LZSearch(g_pLZRoot, q, dwLook);
      dwLook = dwSrcLen - q < M ? dwSrcLen - q : M;
      LZInsert(q);
    }
    pos += dwLen;
  }
  *pdwDestLen = (DWORD)(w.pCur - pDest) + 1;
  LZFreeNodes();
  return 0;
}
