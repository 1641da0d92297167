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

// Leading and trailing zero bits of a number that is not 0.
static inline DWORD Clz64(uint64_t x) {
#if defined(__GNUC__)
  return (DWORD)__builtin_clzll(x);
#else
  DWORD n = 0;
  while (!(x & 0x8000000000000000ull)) {
    x <<= 1;
    n++;
  }
  return n;
#endif
}

static inline DWORD Ctz64(uint64_t x) {
#if defined(__GNUC__)
  return (DWORD)__builtin_ctzll(x);
#else
  DWORD n = 0;
  while (!(x & 1)) {
    x >>= 1;
    n++;
  }
  return n;
#endif
}

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
#define LZ_NONE 0xFFFFFFFFu  // no position, no rank

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
    DWORD k = x ? Clz64((uint64_t)x << 32) >> 3 : 4;
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

// Writes the token for position pos: the match at dwMatchPos (LZ_NONE: none) of *pdwLen bytes,
// or a skip where pRef agrees for longer, or a literal when under 2 bytes remain; *pdwLen becomes
// the token's length. FALSE when the output is full.
static inline BOOL LZPutToken(TBitWriter* w, const BYTE* s, const BYTE* pRef, DWORD pos, DWORD dwLook,
                              DWORD dwMatchPos, DWORD* pdwLen, DWORD N, DWORD L) {
  DWORD dwLen = *pdwLen;
  DWORD dwCode = dwMatchPos != LZ_NONE ? (1u << N) - (pos - dwMatchPos) : 0;
  if (pRef) {
    DWORD k = 0;
    while (k < dwLook && s[pos + k] == pRef[pos + k]) k++;
    if (k > dwLen) {
      dwLen = k;
      dwCode = 0;
    }
  }
  if (dwLen < 2) {
    *pdwLen = 1;
    return PutBits(w, 0x100u | s[pos], 9);
  }
  *pdwLen = dwLen;
  return PutBits(w, (dwCode << L) | (dwLen - 2), 1 + N + L);
}

// ---------------------------------------------------------------------------------------------
// Rank bookkeeping
//
// While the lookahead is the longest match and every text involved has that many bytes, the
// tree's answers depend only on which texts it holds, not on its shape: a search ends with the
// nearest text below and the nearest above (or with the equal one), and the tree holds the
// newest position of each distinct text of the window. So for those positions the encoder ranks
// the block's texts once, by sorting, and keeps the tree's contents as a bitmap over the ranks:
// the nearest neighbours of a text are the nearest set bits around its rank.
//
// For the last positions of the block the lookahead shrinks, and a search then stops at the
// first node on its path that shares the shorter prefix: there the shape counts. The shape is
// kept implicitly. Every place in the tree was made when a leaf was hung there, and keeps that
// time when another text takes it over (a newer position of the same text, the oldest node
// taking the new text in place, or a deleted node's predecessor moving up into it). A parent's
// place is always older than its children's, so the tree is the one Cartesian tree of its texts,
// in order, by those times; knowing the time of each text's place is enough to build the real
// tree when the first position with a short lookahead comes, and to go on from there with it.
//
// Whether a deleted node has two children follows from the same times: it has a left child when
// its predecessor's place is younger than its own, and a right child likewise.

struct TLZRanks {
  DWORD dwClean;       // positions below this are kept by rank
  DWORD dwRing;        // W - 1: slots in the ring
  const WORD* pwRank;  // rank of the text at each position below dwClean
  WORD* pwRep;         // by rank: the position of that text in the tree (while its bit is set)
  DWORD* pdwTime;      // by rank: the time of the tree place that text holds
  uint64_t* pqwBits;   // by rank: set while the text is in the tree
  uint64_t* pqwSum;    // bit w set while word w of pqwBits is not 0
  DWORD dwSumWords;
  WORD* pwStack;  // scratch for building the tree
  DWORD* pdwStackTime;
};
static TLZRanks g_LZR;

static inline BOOL LZRIn(const TLZRanks& R, DWORD r) { return (R.pqwBits[r >> 6] >> (r & 63)) & 1; }

static inline void LZRSet(TLZRanks& R, DWORD r) {
  R.pqwBits[r >> 6] |= 1ull << (r & 63);
  R.pqwSum[r >> 12] |= 1ull << ((r >> 6) & 63);
}

static inline void LZRClear(TLZRanks& R, DWORD r) {
  uint64_t* pw = &R.pqwBits[r >> 6];
  *pw &= ~(1ull << (r & 63));
  if (!*pw) R.pqwSum[r >> 12] &= ~(1ull << ((r >> 6) & 63));
}

// Nearest rank below r whose bit is set, or LZ_NONE. The word of r and the one before decide
// almost every query without a branch (a zero word lies before the first); only when both are
// empty does the summary have to be searched.
static DWORD LZRBelowFar(const TLZRanks& R, DWORD w) {
  DWORD sw = w >> 6;
  uint64_t sm = R.pqwSum[sw] & ((1ull << (w & 63)) - 1);
  while (!sm) {
    if (sw == 0) return LZ_NONE;
    sm = R.pqwSum[--sw];
  }
  w = (sw << 6) | (63 - Clz64(sm));
  return (w << 6) | (63 - Clz64(R.pqwBits[w]));
}

static inline DWORD LZRBelow(const TLZRanks& R, DWORD r) {
  const uint64_t* pBits = R.pqwBits;
  DWORD w = r >> 6;
  uint64_t m = pBits[w] & ((1ull << (r & 63)) - 1);
  uint64_t m2 = pBits[(int)w - 1];
  if (!(m | m2)) return w >= 2 ? LZRBelowFar(R, w - 1) : LZ_NONE;
  DWORD base = m ? w : w - 1;
  uint64_t use = m ? m : m2;
  return (base << 6) | (63 - Clz64(use));
}

// Nearest rank above r whose bit is set, or LZ_NONE; likewise with the word after (a zero word
// lies after the last).
static DWORD LZRAboveFar(const TLZRanks& R, DWORD w) {
  if (w >= R.dwSumWords * 64) return LZ_NONE;  // w is the zero word after the last
  DWORD sw = w >> 6;
  uint64_t sm = R.pqwSum[sw] & (~1ull << (w & 63));
  while (!sm) {
    if (++sw >= R.dwSumWords) return LZ_NONE;
    sm = R.pqwSum[sw];
  }
  w = (sw << 6) | Ctz64(sm);
  return (w << 6) | Ctz64(R.pqwBits[w]);
}

static inline DWORD LZRAbove(const TLZRanks& R, DWORD r) {
  const uint64_t* pBits = R.pqwBits;
  DWORD w = r >> 6;
  uint64_t m = pBits[w] & (~1ull << (r & 63));
  uint64_t m2 = pBits[w + 1];
  if (!(m | m2)) return LZRAboveFar(R, w + 1);
  DWORD base = m ? w : w + 1;
  uint64_t use = m ? m : m2;
  return (base << 6) | Ctz64(use);
}

// Takes the text of rank rq, held by the tree, out. A node with two children gives its place,
// and so its time, to its predecessor.
static inline void LZREvict(TLZRanks& R, DWORD rq) {
  DWORD* pTime = R.pdwTime;
  DWORD a = LZRBelow(R, rq);
  if (a != LZ_NONE && pTime[a] > pTime[rq]) {
    DWORD b = LZRAbove(R, rq);
    if (b != LZ_NONE && pTime[b] > pTime[rq]) pTime[a] = pTime[rq];
  }
  LZRClear(R, rq);
}

// Enters position p, whose text has rank r, into the tree; the ring pushes out position
// p - (W - 1). bFull: the tree holds the same text. Otherwise a and b are the nearest ranks in the
// tree below and above when bKnown, and are looked up here only if needed.
static inline void LZRInsert(TLZRanks& R, DWORD p, DWORD r, BOOL bFull, DWORD a, DWORD b, BOOL bKnown) {
  WORD* pRep = R.pwRep;
  DWORD* pTime = R.pdwTime;
  if (p >= R.dwRing) {
    DWORD q = p - R.dwRing;
    DWORD rq = R.pwRank[q];
    if (LZRIn(R, rq) && pRep[rq] == q) {
      if (bFull) {
        // The same text: the newer position takes the older one's place, or, when the older
        // one is the oldest node, simply its slot.
        if (rq != r) LZREvict(R, rq);
        pRep[r] = (WORD)p;
        return;
      }
      // The search ends at the younger of the two neighbours; when that is the oldest node, the
      // new text takes its place and its time.
      if (!bKnown) {
        if (rq < r) {
          a = LZRBelow(R, r);
          b = a == rq ? LZRAbove(R, r) : LZ_NONE;
        } else {
          b = LZRAbove(R, r);
          a = b == rq ? LZRBelow(R, r) : LZ_NONE;
        }
      }
      if ((rq == a && (b == LZ_NONE || pTime[b] < pTime[a])) ||
          (rq == b && (a == LZ_NONE || pTime[a] < pTime[b]))) {
        LZRClear(R, rq);
        LZRSet(R, r);
        pRep[r] = (WORD)p;
        pTime[r] = pTime[rq];
        return;
      }
      LZREvict(R, rq);
    }
  }
  if (bFull) {
    pRep[r] = (WORD)p;
    return;
  }
  // A new leaf: the youngest place.
  LZRSet(R, r);
  pRep[r] = (WORD)p;
  pTime[r] = p;
}

// Number of equal leading bytes at p and q, up to M; both texts have M bytes.
static inline DWORD LZCommon(const BYTE* s, DWORD p, DWORD q, DWORD M) {
  DWORD k = 0;
  while (k + 8 <= M) {
    uint64_t x = Fetch64(s + p + k) ^ Fetch64(s + q + k);
    if (x) return k + (Clz64(x) >> 3);
    k += 8;
  }
  while (k < M && s[p + k] == s[q + k]) k++;
  return k;
}

// Encodes the tokens that start at positions kept by rank, from *pdwPos on, and enters their
// positions. FALSE when the output is full. On return *pdwPos is the next token's position; when
// the last token runs past the positions kept by rank, *pdwCovered is the first of its positions
// still to enter (by the tree), otherwise it equals *pdwPos.
static BOOL LZRankedTokens(const BYTE* s, DWORD N, DWORD L, const BYTE* pRef, TBitWriter* w, DWORD* pdwPos,
                           DWORD* pdwCovered) {
  TLZRanks R = g_LZR;
  const DWORD M = (1u << L) + 1, C = R.dwClean;
  const WORD* pRank = R.pwRank;
  const WORD* pRep = R.pwRep;
  DWORD pos = *pdwPos;
  while (pos < C) {
    DWORD r = pRank[pos];
    BOOL bFull = LZRIn(R, r);
    DWORD a = LZ_NONE, b = LZ_NONE, dwMatch = LZ_NONE, dwLen = 0;
    if (bFull) {
      dwMatch = pRep[r];
      dwLen = M;
    } else {
      a = LZRBelow(R, r);
      b = LZRAbove(R, r);
      DWORD dwLenA = a != LZ_NONE ? LZCommon(s, pos, pRep[a], M) : 0;
      DWORD dwLenB = b != LZ_NONE ? LZCommon(s, pos, pRep[b], M) : 0;
      if (dwLenB > dwLenA) {
        dwMatch = pRep[b];
        dwLen = dwLenB;
      } else if (a != LZ_NONE) {
        dwMatch = pRep[a];
        dwLen = dwLenA;
      }
    }
    if (!LZPutToken(w, s, pRef, pos, M, dwMatch, &dwLen, N, L)) return FALSE;
    LZRInsert(R, pos, r, bFull, a, b, TRUE);
    DWORD dwEnd = pos + dwLen, dwLim = dwEnd < C ? dwEnd : C;
    for (DWORD q = pos + 1; q < dwLim; q++) {
      DWORD rq = pRank[q];
      LZRInsert(R, q, rq, LZRIn(R, rq), LZ_NONE, LZ_NONE, FALSE);
    }
    if (dwEnd > C) {
      *pdwPos = dwEnd;
      *pdwCovered = C;
      return TRUE;
    }
    pos = dwEnd;
  }
  *pdwPos = *pdwCovered = pos;
  return TRUE;
}

// Builds the real tree from the ranks, once every position below dwClean is in: the ring's
// slots get their positions, and the texts in the tree are linked as the Cartesian tree of their
// places' times.
static void LZRBuildTree() {
  const DWORD dwRing = g_LZR.dwRing, dwEnd = g_LZR.dwClean;
  for (DWORD p = dwEnd > dwRing ? dwEnd - dwRing : 0; p < dwEnd; p++) {
    DWORD s = p % dwRing;
    g_pdwLZPos[s] = p;
    g_pLZNodes[s].dwKey = LZKeyAt(p);
  }
  WORD* pStack = g_LZR.pwStack;
  DWORD* pStackTime = g_LZR.pdwStackTime;
  DWORD sp = 0;
  DWORD dwWords = g_LZR.dwSumWords * 64;
  for (DWORD w = 0; w < dwWords; w++) {
    for (uint64_t m = g_LZR.pqwBits[w]; m; m &= m - 1) {
      DWORD r = (w << 6) | Ctz64(m);
      DWORD x = g_LZR.pwRep[r] % dwRing, t = g_LZR.pdwTime[r];
      DWORD dwLast = LZ_NIL;
      while (sp > 0 && pStackTime[sp - 1] > t) dwLast = pStack[--sp];
      LZSetChild(x, 0, dwLast);
      if (dwLast != LZ_NIL) g_pdwLZParent[dwLast] = x;
      if (sp > 0) {
        LZSetChild(pStack[sp - 1], 1, x);
        g_pdwLZParent[x] = pStack[sp - 1];
      }
      pStack[sp] = (WORD)x;
      pStackTime[sp++] = t;
    }
  }
  g_dwLZRoot = pStack[0];
  g_pdwLZParent[g_dwLZRoot] = LZ_NIL;
  g_dwLZSlot = (dwEnd - 1) % dwRing;
}

// Compares the texts at p and q from byte k on, both of M bytes: below 0, 0 or above 0.
static inline int LZCompareFrom(const BYTE* s, DWORD p, DWORD q, DWORD k, DWORD M) {
  for (; k + 8 <= M; k += 8) {
    uint64_t x = Fetch64(s + p + k), y = Fetch64(s + q + k);
    if (x != y) return x < y ? -1 : 1;
  }
  for (; k < M; k++)
    if (s[p + k] != s[q + k]) return s[p + k] < s[q + k] ? -1 : 1;
  return 0;
}

// Ranks the M-byte texts at positions 0..n-M: on return the rank of the text at p is the index,
// in the sorted order of all texts, of the first text equal to it; so equal texts have equal
// ranks and ranks follow byte order. Ranks by prefix doubling: the positions are sorted by their
// first three bytes; then, round by round, each group that agrees on its first h bytes is put in
// order of the rank of the h bytes at p + d, which orders the first h + d bytes (d <= h: the two
// windows may overlap). One pass over the order made so far does that for every group at once:
// taking positions y by rank, y - d goes to the next free place of its group. Only groups of two
// or more are worked on, and each round reads the ranks of the round before, so no group is cut
// finer than M bytes.
// sa, pwRank and pwTmp hold n positions or ranks, pdwFill n places, pdwPlaced n keyed
// positions, pdwList and pdwNextList n / 2 + 1 groups. Returns pwRank, which holds the final
// ranks.
static WORD* LZRankTexts(const BYTE* s, DWORD n, DWORD M, WORD* sa, WORD* pwRank, WORD* pwTmp, DWORD* pdwFill,
                         DWORD* pdwPlaced, DWORD* pdwList, DWORD* pdwNextList) {
  DWORD h = M < 3 ? M : 3;
  const DWORD cnt = n - h + 1;  // positions with h whole bytes
  // The first h bytes, the last of them first, by byte passes between sa and the scratch.
  DWORD adwCount[3][256];
  memset(adwCount, 0, sizeof(adwCount));
  for (DWORD p = 0; p < cnt; p++)
    for (DWORD k = 0; k < h; k++) adwCount[k][s[p + k]]++;
  for (DWORD k = 0; k < h; k++) {
    DWORD sum = 0;
    for (DWORD b = 0; b < 256; b++) {
      DWORD c = adwCount[k][b];
      adwCount[k][b] = sum;
      sum += c;
    }
  }
  // h passes leave the order where the first one started: start from the scratch when h is odd.
  WORD* pwA = h % 2 ? pwTmp : sa;
  WORD* pwB = h % 2 ? sa : pwTmp;
  for (DWORD p = 0; p < cnt; p++) pwA[p] = (WORD)p;
  for (DWORD k = h; k-- > 0;) {
    DWORD* pCount = adwCount[k];
    for (DWORD i = 0; i < cnt; i++) {
      WORD p = pwA[i];
      pwB[pCount[s[p + k]]++] = p;
    }
    WORD* x = pwA;
    pwA = pwB;
    pwB = x;
  }
  // Groups of equal first bytes: ranks, and the list of groups to work on. pwKey holds, by
  // place in the order, the rank of the position there (the start of its group), so that a
  // round reads it in sequence instead of looking it up by position.
  WORD* pwKey = pwTmp;
  DWORD dwGroups = 0, dwStart = 0;
  for (DWORD i = 0; i <= cnt; i++) {
    if (i == cnt || (i > 0 && LZCompareFrom(s, sa[i - 1], sa[i], 0, h) != 0)) {
      for (DWORD x = dwStart; x < i; x++) {
        pwRank[sa[x]] = (WORD)dwStart;
        pwKey[x] = (WORD)dwStart;
      }
      if (i - dwStart > 1) pdwList[dwGroups++] = dwStart | ((i - dwStart - 1) << 16);
      dwStart = i;
    }
  }
  const DWORD CLOSED = 0xFFFFFFFFu;
  memset(pdwFill, 0xFF, cnt * sizeof(DWORD));
  while (h < M && dwGroups > 0) {
    const DWORD h2 = M < 2 * h ? M : 2 * h, d = h2 - h;
    const DWORD dwLast = n - h;  // the last position with a rank of h bytes
    DWORD dwOpen = 0;
    for (DWORD g = 0; g < dwGroups; g++) {
      pdwFill[pdwList[g] & 0xFFFF] = pdwList[g] & 0xFFFF;
      dwOpen += (pdwList[g] >> 16) + 1;
    }
    // Members in order of the rank at p + d, each placed with that rank as its key; those whose
    // window at p + d runs past the block go last (they are not needed, but keep their places).
    // While most positions are in open groups, those of closed groups are written to the spare
    // place cnt rather than skipped: a branch on the mix would be mispredicted too often.
    if (dwOpen > cnt / 2) {
      for (DWORD x = 0; x < cnt; x++) {
        DWORD y = sa[x];
        if (y < d || y > dwLast) continue;
        DWORD p = y - d, gi = pwRank[p], f = pdwFill[gi];
        DWORD dwIn = f < cnt;
        pdwPlaced[dwIn ? f : cnt] = ((DWORD)pwKey[x] << 16) | p;
        pdwFill[gi] = f + dwIn;
      }
    } else {
      for (DWORD x = 0; x < cnt; x++) {
        DWORD y = sa[x];
        if (y < d || y > dwLast) continue;
        DWORD p = y - d, gi = pwRank[p], f = pdwFill[gi];
        if (f == CLOSED) continue;
        pdwPlaced[f] = ((DWORD)pwKey[x] << 16) | p;
        pdwFill[gi] = f + 1;
      }
    }
    for (DWORD p = dwLast - d + 1; p < cnt; p++) {
      DWORD gi = pwRank[p], f = pdwFill[gi];
      if (f == CLOSED) continue;
      pdwPlaced[f] = 0xFFFF0000u | p;  // above every rank: ranks are below cnt < 65536
      pdwFill[gi] = f + 1;
    }
    // Each group splits where the key changes. Every rank this round needs was read above, so
    // the new ranks go straight into pwRank.
    DWORD dwNextGroups = 0;
    for (DWORD g = 0; g < dwGroups; g++) {
      DWORD i = pdwList[g] & 0xFFFF, len = (pdwList[g] >> 16) + 1;
      pdwFill[i] = CLOSED;
      DWORD dwSub = 0, dwPrevKey = pdwPlaced[i] >> 16;
      for (DWORD x = 0; x < len; x++) {
        DWORD v = pdwPlaced[i + x], p = v & 0xFFFF;
        if ((v >> 16) != dwPrevKey) {
          if (x - dwSub > 1) pdwNextList[dwNextGroups++] = (i + dwSub) | ((x - dwSub - 1) << 16);
          dwSub = x;
          dwPrevKey = v >> 16;
        }
        sa[i + x] = (WORD)p;
        pwRank[p] = (WORD)(i + dwSub);
        pwKey[i + x] = (WORD)(i + dwSub);
      }
      if (len - dwSub > 1) pdwNextList[dwNextGroups++] = (i + dwSub) | ((len - dwSub - 1) << 16);
    }
    DWORD* y = pdwList;
    pdwList = pdwNextList;
    pdwNextList = y;
    dwGroups = dwNextGroups;
    h = h2;
  }
  return pwRank;
}

// Sets up the rank bookkeeping for a block of n bytes; FALSE when it does not apply (the tree is
// then used from the start) or its memory can't be had. The block is freed by LZFreeNodes.
static BYTE* g_pLZRankBlock;

static BOOL LZRSetup(const BYTE* s, DWORD n, DWORD W, DWORD M) {
  g_pLZRankBlock = 0;
  if (M > 33 || n > 0x10000 || n < M + 2) return FALSE;
  // For ranking: the sorted positions, the ranks, a spare array (not used by the ranking) and a
  // scratch order; the groups' next free places; the positions placed with their keys; two group
  // lists. Once the ranks are made, the sorted positions become the node stack, the spare array
  // the positions by rank, the free places the time stack and the group lists the places' times.
  // Then the bitmap (whole summary words) and its summary.
  DWORD dwSumWords = n / 4096 + 1;
  DWORD dwFill = n * 8, dwPlaced = dwFill + n * 4, dwLists = dwPlaced + n * 4;
  DWORD dwBits = (dwLists + (n / 2 + 1) * 8 + 7) & ~7u;
  g_pLZRankBlock = (BYTE*)MEM_ALLOC(dwBits + (dwSumWords * 65 + 2) * 8);
  if (!g_pLZRankBlock) return FALSE;
  WORD* sa = (WORD*)g_pLZRankBlock;
  WORD* pwRank0 = sa + n;
  WORD* pwRank1 = pwRank0 + n;
  WORD* pwTmp = pwRank1 + n;
  DWORD* pdwFill = (DWORD*)(g_pLZRankBlock + dwFill);
  DWORD* pdwList = (DWORD*)(g_pLZRankBlock + dwLists);
  WORD* pwRank = LZRankTexts(s, n, M, sa, pwRank0, pwTmp, pdwFill, (DWORD*)(g_pLZRankBlock + dwPlaced),
                             pdwList, pdwList + n / 2 + 1);

  g_LZR.dwClean = n - M + 1;
  g_LZR.dwRing = W - 1;
  g_LZR.pwRank = pwRank;
  g_LZR.pwStack = sa;
  g_LZR.pwRep = pwRank == pwRank0 ? pwRank1 : pwRank0;
  g_LZR.pdwStackTime = pdwFill;
  g_LZR.pdwTime = pdwList;
  g_LZR.dwSumWords = dwSumWords;
  // A zero word before and after the bitmap, for the queries' look at the next word.
  memset(g_pLZRankBlock + dwBits, 0, (dwSumWords * 65 + 2) * 8);
  g_LZR.pqwBits = (uint64_t*)(g_pLZRankBlock + dwBits) + 1;
  g_LZR.pqwSum = g_LZR.pqwBits + dwSumWords * 64 + 1;
  return TRUE;
}

BOOL LZSSRankTextsForTest(const BYTE* s, DWORD n, DWORD dwM, WORD* pwRanks) {
  if (dwM == 0 || !LZRSetup(s, n, 2, dwM)) return FALSE;
  memcpy(pwRanks, g_LZR.pwRank, (n - dwM + 1) * sizeof(WORD));
  MEM_FREE(g_pLZRankBlock);
  g_pLZRankBlock = 0;
  return TRUE;
}

static void LZFreeNodes() {
  MEM_FREE(g_pLZBlock);
  g_pLZBlock = 0;
  g_pLZNodes = 0;
  g_pdwLZParent = g_pdwLZPos = 0;
  g_pLZSrc = 0;
  if (g_pLZRankBlock) MEM_FREE(g_pLZRankBlock);
  g_pLZRankBlock = 0;
}

// Test hook: called as either encoder reaches the first position with a short lookahead.
void (*g_pfnLZSSTreeHook)() = 0;
static DWORD g_dwLZHookAt;

static inline void LZTreeHookAt(DWORD p) {
  if (p == g_dwLZHookAt && g_pfnLZSSTreeHook) g_pfnLZSSTreeHook();
}

DWORD LZSSDescribeTree(DWORD* pdwOut, DWORD dwMax) {
  if (!g_pLZNodes) return 0;
  // Pre-order with an explicit stack of nodes still to write (LZ_NIL for an empty subtree).
  DWORD n = 0, sp = 0;
  DWORD* pStack = (DWORD*)MEM_ALLOC((2 * g_dwLZNodeCount + 2) * sizeof(DWORD));
  if (!pStack) return 0;
  pStack[sp++] = g_dwLZRoot;
  while (sp > 0 && n < dwMax) {
    DWORD x = pStack[--sp];
    if (x == LZ_NIL) {
      pdwOut[n++] = LZ_NIL;
      continue;
    }
    DWORD l = LZChild(x, 0), r = LZChild(x, 1);
    BOOL bLinked = (l == LZ_NIL || g_pdwLZParent[l] == x) && (r == LZ_NIL || g_pdwLZParent[r] == x);
    pdwOut[n++] = bLinked ? g_pdwLZPos[x] : 0xFFFFFFFEu;
    pStack[sp++] = r;
    pStack[sp++] = l;
  }
  MEM_FREE(pStack);
  return n;
}

static ERR LZCompress(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD* pdwDestLen, BYTE btBitLengths,
                      const BYTE* pRef, BOOL bRanks) {
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
  // Positions below dwClean are kept by rank, the rest by the tree, which is built from the
  // ranks when the first of them comes.
  BOOL bTree = TRUE;
  g_pLZRankBlock = 0;
  g_dwLZHookAt = !bRanks && dwSrcLen >= M + 2 ? dwSrcLen - M + 1 : LZ_NONE;
  if (bRanks && LZRSetup(pSrc, dwSrcLen, W, M)) {
    bTree = FALSE;
    DWORD r = g_LZR.pwRank[0];
    LZRSet(g_LZR, r);
    g_LZR.pwRep[r] = 0;
    g_LZR.pdwTime[r] = 0;
  } else {
    g_pdwLZPos[0] = 0;
    g_pLZNodes[0].dwKey = LZKeyAt(0);
  }

  DWORD pos = 1;
  if (!bTree) {
    DWORD dwCovered;
    if (!LZRankedTokens(pSrc, N, L, pRef, &w, &pos, &dwCovered)) {
      LZFreeNodes();
      return ERR_BUFSMALL;
    }
    if (pos < dwSrcLen || dwCovered < pos) {
      LZRBuildTree();
      if (g_pfnLZSSTreeHook) g_pfnLZSSTreeHook();
    }
    // The rest of the last token, whose search uses the lookahead of the position before.
    DWORD dwLook = dwSrcLen - (dwCovered - 1) < M ? dwSrcLen - (dwCovered - 1) : M;
    for (DWORD q = dwCovered; q < pos; q++) {
      LZSearch(g_dwLZRoot, q, dwLook);
      dwLook = dwSrcLen - q < M ? dwSrcLen - q : M;
      LZInsert(q);
    }
  }
  while (pos < dwSrcLen) {
    DWORD dwLook = dwSrcLen - pos < M ? dwSrcLen - pos : M;
    LZTreeHookAt(pos);
    LZSearch(g_dwLZRoot, pos, dwLook);
    DWORD dwMatch, dwLen;
    if (g_dwLZGreaterLen > g_dwLZSmallerLen) {
      dwMatch = g_dwLZGreater;
      dwLen = g_dwLZGreaterLen;
    } else {
      dwMatch = g_dwLZSmaller;
      dwLen = g_dwLZSmallerLen;
    }
    if (!LZPutToken(&w, pSrc, pRef, pos, dwLook, dwMatch != LZ_NIL ? g_pdwLZPos[dwMatch] : LZ_NONE, &dwLen, N,
                    L)) {
      LZFreeNodes();
      return ERR_BUFSMALL;
    }
    LZInsert(pos);
    for (DWORD q = pos + 1; q < pos + dwLen; q++) {
      LZTreeHookAt(q);
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

ERR LZSSCompress(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD* pdwDestLen, BYTE btBitLengths,
                 const BYTE* pRef) {
  return LZCompress(pSrc, dwSrcLen, pDest, pdwDestLen, btBitLengths, pRef, TRUE);
}

ERR LZSSCompressTree(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD* pdwDestLen, BYTE btBitLengths,
                     const BYTE* pRef) {
  return LZCompress(pSrc, dwSrcLen, pDest, pdwDestLen, btBitLengths, pRef, FALSE);
}
