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
// The fast loop keeps a 64-bit buffer, left-aligned, refilled from 8 input bytes at a time; after
// a refill it holds at least 56 bits, enough for three tokens of up to 18 bits, so each refill is
// followed by three token steps with no further test of the input. It runs while the refill
// stays inside the input and the output has room for three of the longest matches plus the bytes
// a match copy reads and puts back, so it checks nothing but the match distance. The last tokens
// go through the careful loop, which fetches byte by byte (missing bytes read as 0) and checks
// the room for every token.
//
// Every write is exact: no byte past the current token's end is changed (a skip after it must
// find the reference text, and bytes past the output must stay as the caller left them).

static inline DWORD Fetch32(const BYTE* p) {
  return ((DWORD)p[0] << 24) | ((DWORD)p[1] << 16) | ((DWORD)p[2] << 8) | (DWORD)p[3];
}

static inline uint64_t Fetch64(const BYTE* p) {
  uint64_t v;
  memcpy(&v, p, 8);
#if defined(__GNUC__)
  return __builtin_bswap64(v);
#else
  return ((uint64_t)Fetch32(p) << 32) | Fetch32(p + 4);
#endif
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
    // A run of one byte: the same fixed-size stores from both ends as above.
    uint64_t v = 0x0101010101010101ull * *s;
    if (n >= 8) {
      for (DWORD k = 0; k + 8 < n; k += 8) memcpy(d + k, &v, 8);
      memcpy(d + n - 8, &v, 8);
    } else if (n >= 4) {
      memcpy(d, &v, 4);
      memcpy(d + n - 4, &v, 4);
    } else {
      memcpy(d, &v, 2);
      memcpy(d + n - 2, &v, 2);
    }
  } else {
    for (DWORD k = 0; k < n; k++) d[k] = s[k];
  }
}

// The same copy for 2 <= n <= 17 and dist >= n with no branch on the length: the length is
// spread over the text evenly, so a branch on it would mostly be guessed wrong. One 16-byte move
// writes the match and whatever follows it up to 16 bytes, the last byte is stored again (it is
// the 17th when n is 17), and the 16 bytes that followed the match, read before, are put back.
// Touches d[0 .. n + 16).
static inline void CopyMatchShort(BYTE* d, const BYTE* s, DWORD n) {
  BYTE t[16], keep[16];
  memcpy(keep, d + n, 16);
  memcpy(t, s, 16);
  memcpy(d, t, 16);
  d[n - 1] = s[n - 1];
  memcpy(d + n, keep, 16);
}

#if defined(__GNUC__) && defined(__x86_64__)
// x86-64 processors with byte-masked vector stores copy a short match (n <= 32, dist >= n) with
// one 32-byte load and one store of exactly n bytes: nothing is written outside the match, and
// nothing has to be put back. The load may read up to 30 bytes past the output position, which
// the fast loop's room covers; those bytes are not used. Chosen at run time.
#define LZSS_MASKED_COPY 1
#include <immintrin.h>
#define LZSS_TARGET_MASKED __attribute__((target("avx512bw,avx512vl")))

LZSS_TARGET_MASKED static inline void CopyMatchMasked(BYTE* d, const BYTE* s, DWORD n) {
  __mmask32 m = (__mmask32)(((uint64_t)1 << n) - 1);
  _mm256_mask_storeu_epi8(d, m, _mm256_loadu_si256((const __m256i*)s));
}
#endif

// The careful loop, from bit position dwBitPos with dwOut bytes out; the loop test looks at the
// byte index only, as the padding after the last token is always shorter than a token.
template <int N, int L>
static ERR DecodeCareful(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD dwCap, DWORD dwBitPos,
                         DWORD dwOut, DWORD* pdwOut) {
  const DWORD W = 1u << N;
  const DWORD TOKEN = 1 + N + L;
  const DWORD dwLast = dwSrcLen - 1;  // dwSrcLen is at least 1 here
  DWORD i = dwBitPos >> 3, bit = dwBitPos & 7, out = dwOut;
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

// One token of the fast loop, taken from the top of buf. SHORT_COPY(d, s, n) copies a match of
// at most SHORT_MAX bytes whose source ends before d; the rest go through CopyMatch.
#define LZSS_FAST_TOKEN(SHORT_COPY, SHORT_MAX)                      \
  if ((int64_t)buf < 0) {                                           \
    pDest[out++] = (BYTE)(buf >> 55);                               \
    buf <<= 9;                                                      \
    cnt -= 9;                                                       \
  } else {                                                          \
    DWORD code = (DWORD)(buf >> (63 - N)) & (W - 1);                \
    DWORD n = ((DWORD)(buf >> (63 - N - L)) & ((1u << L) - 1)) + 2; \
    buf <<= TOKEN;                                                  \
    cnt -= TOKEN;                                                   \
    if (code != 0) {                                                \
      DWORD dist = W - code;                                        \
      if (dist > out) {                                             \
        *pdwOut = out;                                              \
        return ERR_BADFORMAT;                                       \
      }                                                             \
      if ((M <= SHORT_MAX || n <= SHORT_MAX) && dist >= n)          \
        SHORT_COPY(pDest + out, pDest + out - dist, n);             \
      else                                                          \
        CopyMatch(pDest + out, pDest + out - dist, n, dist);        \
    }                                                               \
    out += n;                                                       \
  }

// The whole decoder for one parameter byte: the fast loop while it may run, then the careful
// loop from the exact bit position the fast loop reached.
#define LZSS_DECODE_BODY(SHORT_COPY, SHORT_MAX)       \
  const DWORD W = 1u << N;                            \
  const DWORD M = (1u << L) + 1;                      \
  const DWORD TOKEN = 1 + N + L;                      \
  const DWORD ROOM = 3 * M + 32;                      \
  DWORD out = 0, dwBitPos = 0;                        \
  if (dwSrcLen >= 8 && dwCap >= ROOM) {               \
    const BYTE* ip = pSrc;                            \
    const BYTE* const ipLimit = pSrc + dwSrcLen - 8;  \
    const DWORD dwFastOut = dwCap - ROOM;             \
    uint64_t buf = 0;                                 \
    DWORD cnt = 0; /* valid bits at the top of buf */ \
    while (ip <= ipLimit && out <= dwFastOut) {       \
      buf |= Fetch64(ip) >> cnt;                      \
      ip += (63 - cnt) >> 3;                          \
      cnt |= 56;                                      \
      LZSS_FAST_TOKEN(SHORT_COPY, SHORT_MAX)          \
      LZSS_FAST_TOKEN(SHORT_COPY, SHORT_MAX)          \
      LZSS_FAST_TOKEN(SHORT_COPY, SHORT_MAX)          \
    }                                                 \
    dwBitPos = (DWORD)(ip - pSrc) * 8 - cnt;          \
  }                                                   \
  return DecodeCareful<N, L>(pSrc, dwSrcLen, pDest, dwCap, dwBitPos, out, pdwOut);

template <int N, int L>
static ERR DecodeLoop(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD dwCap, DWORD* pdwOut) {
  LZSS_DECODE_BODY(CopyMatchShort, 17)
}

typedef ERR (*PFN_DECODE)(const BYTE*, DWORD, BYTE*, DWORD, DWORD*);

#define DECODERS_FOR(f, n) &f<n, 1>, &f<n, 2>, &f<n, 3>, &f<n, 4>, &f<n, 5>
static const PFN_DECODE s_Decoders[15] = {DECODERS_FOR(DecodeLoop, 10), DECODERS_FOR(DecodeLoop, 11),
                                          DECODERS_FOR(DecodeLoop, 12)};

#if LZSS_MASKED_COPY
template <int N, int L>
LZSS_TARGET_MASKED static ERR DecodeLoopMasked(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD dwCap,
                                               DWORD* pdwOut) {
  LZSS_DECODE_BODY(CopyMatchMasked, 32)
}

static const PFN_DECODE s_DecodersMasked[15] = {DECODERS_FOR(DecodeLoopMasked, 10),
                                                DECODERS_FOR(DecodeLoopMasked, 11),
                                                DECODERS_FOR(DecodeLoopMasked, 12)};

// 1 masked moves, 0 plain ones, -1 not decided yet (the processor is asked on first use).
static int s_nLzssMasked = -1;

static const PFN_DECODE* LzssDecoders() {
  if (s_nLzssMasked < 0)
    s_nLzssMasked = __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") ? 1 : 0;
  return s_nLzssMasked ? s_DecodersMasked : s_Decoders;
}
#else
static const PFN_DECODE* LzssDecoders() { return s_Decoders; }
#endif

// Test hook: bPlain TRUE makes the decoder use its plain loops even where the masked moves are
// available, so both can be checked on one machine; FALSE goes back to choosing by processor.
void LZSSDecodeUsePlain(BOOL bPlain) {
#if LZSS_MASKED_COPY
  s_nLzssMasked = bPlain ? 0 : -1;
#else
  (void)bPlain;
#endif
}

ERR LZSSDecompress(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD* pdwDestLen, BYTE btBitLengths) {
  if (dwSrcLen == 0) return 0;
  if (!LZSSIsKnownParam(btBitLengths)) {
    ASSERT_TEXT(0, "btBitLengths*0");
    return ERR_LZSS_BADPARAM;
  }
  DWORD dwCap = *pdwDestLen;
  DWORD dwOut = 0;
  ERR err = LzssDecoders()[((btBitLengths >> 4) - 10) * 5 + (btBitLengths & 0x0F) - 1](pSrc, dwSrcLen, pDest,
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

// Encoder
//
// A binary search tree holds the last W - 1 positions, ordered by the text that starts at each
// (compared up to the lookahead). Its nodes live in one array used as a ring: each new position
// takes the next slot, pushing the oldest out of the tree. The search for a position yields the
// nearest node on each side, which share the longest prefixes with the text.
//
// For speed a node is 8 bytes: two 16-bit child links (a window has at most 32767 nodes) and
// the first 4 bytes of its text as a big-endian number, so the whole array of the usual window
// stays in the first-level cache and most steps of a search are decided by one comparison of
// two numbers. Parents and positions, needed less often, are kept apart.

#define LZ_NIL 0xFFFFFFFFu
#define LZ_NIL16 0xFFFF

struct TLZNode {
  WORD awChild[2];  // [0] left: texts that sort below; [1] right
  DWORD dwKey;      // first 4 bytes of the text, most significant first
};

// Encoder state; lives only during one LZSSCompress call.
static BYTE* g_pLZBlock;  // the one allocation below
static TLZNode* g_pLZNodes;
static DWORD* g_pdwLZParent;
static DWORD* g_pdwLZPos;
static DWORD g_dwLZNodeCount;
static DWORD g_dwLZSlot;  // slot of the newest position
static DWORD g_dwLZRoot;
static const BYTE* g_pLZSrc;
static DWORD g_dwLZSrcLen;
// Result of the last search.
static DWORD g_dwLZSmaller;
static DWORD g_dwLZSmallerLen;
static DWORD g_dwLZGreater;
static DWORD g_dwLZGreaterLen;
static DWORD g_dwLZEnd;   // node where the search stopped
static DWORD g_dwLZSide;  // child index of g_dwLZEnd where the text belongs (0 left, 1 right)
static BOOL g_bLZFull;    // g_dwLZEnd matched the whole lookahead
static DWORD g_dwLZSearchLook;
static DWORD g_dwLZSearchKey;

// First 4 bytes at p, most significant first; bytes past the input read as 0 (only the first of
// them is ever compared, and it counts as 0).
static inline DWORD LZKeyAt(DWORD p) {
  const BYTE* s = g_pLZSrc + p;
  DWORD n = g_dwLZSrcLen - p;
  if (n >= 4) return Fetch32(s);
  DWORD k = 0;
  for (DWORD i = 0; i < 4; i++) k = (k << 8) | (i < n ? s[i] : 0);
  return k;
}

static inline DWORD LeadingZeroBytes32(DWORD x) {
#if defined(__GNUC__)
  return (DWORD)__builtin_clz(x) >> 3;
#else
  DWORD n = 0;
  while (!(x & 0xFF000000u)) {
    x <<= 8;
    n++;
  }
  return n;
#endif
}

// Number of equal leading bytes of the texts at p and q (q < p), up to dwLook; *pbtP and *pbtQ
// receive the first differing bytes. The byte just past the input counts as 0.
static inline DWORD CompareText(DWORD p, DWORD q, DWORD dwLook, BYTE* pbtP, BYTE* pbtQ) {
  const BYTE* s = g_pLZSrc;
  DWORD dwAvail = g_dwLZSrcLen - p;
  DWORD dwLim = dwLook < dwAvail ? dwLook : dwAvail;
  DWORD k = 0;
  while (k + 8 <= dwLim) {
    uint64_t a = Fetch64(s + p + k), b = Fetch64(s + q + k);
    if (a != b) {
#if defined(__GNUC__)
      k += (DWORD)__builtin_clzll(a ^ b) >> 3;
#else
      while (s[p + k] == s[q + k]) k++;
#endif
      *pbtP = s[p + k];
      *pbtQ = s[q + k];
      return k;
    }
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

// Walks down from node dwStart comparing the text at p over dwLook bytes: records the last node
// passed on each side and their common lengths, and where the walk stopped.
static void LZSearch(DWORD dwStart, DWORD p, DWORD dwLook) {
  const DWORD dwKey = LZKeyAt(p);
  const DWORD dwLim4 = dwLook < 4 ? dwLook : 4;
  const TLZNode* pNodes = g_pLZNodes;
  DWORD dwSmaller = LZ_NIL, dwSmallerLen = 0, dwGreater = LZ_NIL, dwGreaterLen = 0;
  DWORD idx = dwStart;
  g_dwLZSearchLook = dwLook;
  g_dwLZSearchKey = dwKey;
  for (;;) {
    const TLZNode* pNode = &pNodes[idx];
    DWORD dwNode = pNode->dwKey;
    DWORD x = dwNode ^ dwKey;
    DWORD k = x ? LeadingZeroBytes32(x) : 4;
    DWORD dwGoRight;
    if (k < dwLim4) {
      dwGoRight = dwNode < dwKey;
    } else {
      BYTE btP = 0, btQ = 0;
      k = dwLook <= 4 ? dwLook : 4 + CompareText(p + 4, g_pdwLZPos[idx] + 4, dwLook - 4, &btP, &btQ);
      if (k >= dwLook) {
        g_dwLZSmaller = dwSmaller;
        g_dwLZSmallerLen = dwSmallerLen;
        g_dwLZGreater = idx;
        g_dwLZGreaterLen = dwLook;
        g_dwLZEnd = idx;
        g_bLZFull = TRUE;
        return;
      }
      dwGoRight = btQ < btP;
    }
    // Selects rather than branches: the side taken is as good as random.
    dwSmaller = dwGoRight ? idx : dwSmaller;
    dwSmallerLen = dwGoRight ? k : dwSmallerLen;
    dwGreater = dwGoRight ? dwGreater : idx;
    dwGreaterLen = dwGoRight ? dwGreaterLen : k;
    DWORD dwNext = pNode->awChild[dwGoRight];
    if (dwNext == LZ_NIL16) {
      g_dwLZSmaller = dwSmaller;
      g_dwLZSmallerLen = dwSmallerLen;
      g_dwLZGreater = dwGreater;
      g_dwLZGreaterLen = dwGreaterLen;
      g_dwLZEnd = idx;
      g_dwLZSide = dwGoRight;
      g_bLZFull = FALSE;
      return;
    }
    idx = dwNext;
  }
}

static inline DWORD LZChild(DWORD n, DWORD side) {
  WORD w = g_pLZNodes[n].awChild[side];
  return w == LZ_NIL16 ? LZ_NIL : w;
}
static inline void LZSetChild(DWORD n, DWORD side, DWORD c) { g_pLZNodes[n].awChild[side] = (WORD)c; }

// Points the link that leads to node dwOld (its parent's child, or the root) at dwNew.
static inline void LZReplaceLink(DWORD dwOld, DWORD dwNew) {
  DWORD dwParent = g_pdwLZParent[dwOld];
  if (dwParent != LZ_NIL)
    LZSetChild(dwParent, LZChild(dwParent, 0) == dwOld ? 0 : 1, dwNew);
  else
    g_dwLZRoot = dwNew;
}

// Takes node d out of the tree; its place goes to its only child, or with two children to the
// rightmost node of its left subtree.
static void LZDelete(DWORD d) {
  DWORD* pParent = g_pdwLZParent;
  DWORD dwLeft = LZChild(d, 0), dwRight = LZChild(d, 1);
  DWORD r;
  if (dwLeft == LZ_NIL) {
    r = dwRight;
  } else if (dwRight == LZ_NIL) {
    r = dwLeft;
  } else {
    r = dwLeft;
    if (LZChild(r, 1) != LZ_NIL) {
      while (LZChild(r, 1) != LZ_NIL) r = LZChild(r, 1);
      DWORD dwRParent = pParent[r], dwRLeft = LZChild(r, 0);
      LZSetChild(dwRParent, 1, dwRLeft);
      if (dwRLeft != LZ_NIL) pParent[dwRLeft] = dwRParent;
      LZSetChild(r, 0, dwLeft);
      pParent[dwLeft] = r;
    }
    LZSetChild(r, 1, dwRight);
    pParent[dwRight] = r;
  }
  if (r != LZ_NIL) pParent[r] = pParent[d];
  LZReplaceLink(d, r);
  pParent[d] = LZ_NIL;
  LZSetChild(d, 0, LZ_NIL);
  LZSetChild(d, 1, LZ_NIL);
}

// Enters position p into the next ring slot, using the result of the search for p.
static void LZInsert(DWORD p) {
  if (++g_dwLZSlot == g_dwLZNodeCount) g_dwLZSlot = 0;
  DWORD s = g_dwLZSlot;
  DWORD* pParent = g_pdwLZParent;
  if (s == g_dwLZEnd) {
    // The oldest node is where the new text belongs already.
    g_pdwLZPos[s] = p;
    g_pLZNodes[s].dwKey = g_dwLZSearchKey;
    return;
  }
  if (pParent[s] != LZ_NIL || s == g_dwLZRoot) LZDelete(s);
  g_pdwLZPos[s] = p;
  g_pLZNodes[s].dwKey = g_dwLZSearchKey;
  if (g_dwLZRoot == LZ_NIL) {
    // Cannot happen with a search result from the same tree; kept so the tree never breaks.
    pParent[s] = LZ_NIL;
    LZSetChild(s, 0, LZ_NIL);
    LZSetChild(s, 1, LZ_NIL);
    g_dwLZRoot = s;
    return;
  }
  if (!g_bLZFull) {
    // The deletion may have filled the side where the text belongs: search on below it.
    DWORD dwChild = LZChild(g_dwLZEnd, g_dwLZSide);
    if (dwChild != LZ_NIL) LZSearch(dwChild, p, g_dwLZSearchLook);
  }
  DWORD e = g_dwLZEnd;
  if (!g_bLZFull) {
    LZSetChild(s, 0, LZ_NIL);
    LZSetChild(s, 1, LZ_NIL);
    pParent[s] = e;
    LZSetChild(e, g_dwLZSide, s);
  } else {
    // Same text as the end node: the newer position replaces it in the tree.
    pParent[s] = pParent[e];
    DWORD l = LZChild(e, 0), r = LZChild(e, 1);
    LZSetChild(s, 0, l);
    LZSetChild(s, 1, r);
    if (l != LZ_NIL) pParent[l] = s;
    if (r != LZ_NIL) pParent[r] = s;
    LZReplaceLink(e, s);
    pParent[e] = LZ_NIL;
  }
}

static void LZFreeNodes() {
  MEM_FREE(g_pLZBlock);
  g_pLZBlock = 0;
  g_pLZNodes = 0;
  g_pdwLZParent = g_pdwLZPos = 0;
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

  // The node array with its parents and positions, cleared: every link empty.
  g_dwLZNodeCount = W - 1;
  DWORD dwBytes = g_dwLZNodeCount * (DWORD)(sizeof(TLZNode) + 2 * sizeof(DWORD));
  g_pLZBlock = (BYTE*)MEM_ALLOC(dwBytes);
  if (!g_pLZBlock) return ERR_FILE_NOMEM;
  memset(g_pLZBlock, 0xFF, dwBytes);
  g_pLZNodes = (TLZNode*)g_pLZBlock;
  g_pdwLZParent = (DWORD*)(g_pLZNodes + g_dwLZNodeCount);
  g_pdwLZPos = g_pdwLZParent + g_dwLZNodeCount;
  memset(pDest, 0, dwCap);
  g_pLZSrc = pSrc;
  g_dwLZSrcLen = dwSrcLen;
  g_dwLZRoot = 0;
  g_dwLZSlot = 0;

  TBitWriter w = {pDest, 8, dwCap};
  if (!PutBits(&w, 0x100u | pSrc[0], 9)) {
    LZFreeNodes();
    return ERR_BUFSMALL;
  }
  g_pdwLZPos[0] = 0;
  g_pLZNodes[0].dwKey = LZKeyAt(0);

  DWORD pos = 1;
  while (pos < dwSrcLen) {
    DWORD dwLook = dwSrcLen - pos < M ? dwSrcLen - pos : M;
    LZSearch(g_dwLZRoot, pos, dwLook);
    DWORD dwMatch, dwLen;
    if (g_dwLZGreaterLen > g_dwLZSmallerLen) {
      dwMatch = g_dwLZGreater;
      dwLen = g_dwLZGreaterLen;
    } else {
      dwMatch = g_dwLZSmaller;
      dwLen = g_dwLZSmallerLen;
    }
    DWORD dwCode = dwMatch != LZ_NIL ? W - (pos - g_pdwLZPos[dwMatch]) : 0;
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
      LZSearch(g_dwLZRoot, q, dwLook);
      dwLook = dwSrcLen - q < M ? dwSrcLen - q : M;
      LZInsert(q);
    }
    pos += dwLen;
  }
  *pdwDestLen = (DWORD)(w.pCur - pDest) + 1;
  LZFreeNodes();
  return 0;
}
