// LZSS block codec: one buffer in, one buffer out, no header, no end marker.
#pragma once

#include "base/twvmerr.h"
#include "base/types.h"

// Returned bare (no module) by the decoder for a parameter byte it has no loop for.
#define ERR_LZSS_BADPARAM 0xFFB0u

// The parameter byte used throughout the system: 12 distance bits (window 4096), 4 length bits
// (matches of 2 to 17 bytes).
#define LZSS_BITLENGTHS_DEFAULT 0xC4

// Window size, longest match and token sizes of a parameter byte: high nibble N distance bits,
// low nibble L length bits.
inline DWORD LZSSWindow(BYTE btBitLengths) { return 1u << (btBitLengths >> 4); }
inline DWORD LZSSMaxMatch(BYTE btBitLengths) { return (1u << (btBitLengths & 0x0F)) + 1; }
// 1 for the 15 parameter bytes the decoder knows: 0xA1..0xA5, 0xB1..0xB5, 0xC1..0xC5.
BOOL LZSSIsKnownParam(BYTE btBitLengths);

// Compresses dwSrcLen bytes of pSrc into pDest. On entry *pdwDestLen is the capacity of pDest;
// on success (0) it is the number of bytes used. ERR_BUFSMALL when the stream does not fit
// (pDest then holds a partial stream and *pdwDestLen is unchanged), ERR_FILE_NOMEM when the
// search tree can't be allocated. pRef, when not null, holds dwSrcLen bytes aligned with pSrc;
// runs where pSrc agrees with it become skips. The first token is always the literal pSrc[0]:
// an empty input still reads that byte and writes it, so pSrc must hold at least one byte.
// Nothing past max(dwSrcLen, 1) bytes is read; where the search would look at the byte just
// past the input, it counts as 0.
// Uses global state: not reentrant.
ERR LZSSCompress(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD* pdwDestLen, BYTE btBitLengths,
                 const BYTE* pRef);

// Decompresses the stream pSrc[0..dwSrcLen) into pDest. On entry *pdwDestLen is the capacity
// of pDest; on return it is the output position reached (bytes written or skipped), also on an
// error. With dwSrcLen 0 it returns 0 and leaves *pdwDestLen alone.
// Returns 0; ERR_LZSS_BADPARAM (after an assertion) for an unknown parameter byte;
// ERR_BUFSMALL when the stream wants more output than the capacity; ERR_BADFORMAT when a match
// reaches before the start of pDest. Input bits past the end of pSrc count as 0, so nothing
// outside the two buffers is ever touched whatever the bytes. For a stream with skips, pDest
// must already hold the reference text.
ERR LZSSDecompress(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD* pdwDestLen, BYTE btBitLengths);

// For tests: TRUE makes the decoder use its plain loops even where the processor offers the
// masked moves, so both can be checked on one machine; FALSE chooses by processor again.
void LZSSDecodeUsePlain(BOOL bPlain);

// Largest stream the encoder can make for dwSrcLen bytes (all literals), rounded up: a
// capacity that always suffices for the parameter bytes whose match token is at most 18 bits
// (all 15 the decoder knows). Longer tokens (N + L > 17) can need up to (1 + N + L) / 2 bits a
// byte.
inline DWORD LZSSMaxCompressed(DWORD dwSrcLen) { return dwSrcLen + dwSrcLen / 8 + 2; }

// The same encoder with the search tree run from the first position to the last, where
// LZSSCompress keeps most positions by rank. Both give the same stream; this one is the
// yardstick for tests and benchmarks.
ERR LZSSCompressTree(const BYTE* pSrc, DWORD dwSrcLen, BYTE* pDest, DWORD* pdwDestLen, BYTE btBitLengths,
                     const BYTE* pRef);

// For tests: when set, called once in a call of either encoder (for blocks of at least the
// longest match + 2 bytes), as it reaches the first position whose lookahead is shorter than the
// longest match, before that position is searched. Both encoders must hold the same tree there.
extern void (*g_pfnLZSSTreeHook)();
// Writes, from within the hook, the search tree in pre-order: each node's position, then its
// left and right subtrees, 0xFFFFFFFF for an empty one; a node whose children do not link back
// to it is written as 0xFFFFFFFE. Writes at most dwMax values; returns the number written.
DWORD LZSSDescribeTree(DWORD* pdwOut, DWORD dwMax);

// For tests and measurements: ranks the dwM-byte texts of a block of n bytes the way the encoder
// does, into pwRanks (n - dwM + 1 entries, by position). Equal texts get equal ranks, ranks
// follow unsigned byte order and are below n; they need not be consecutive. FALSE, with pwRanks
// untouched, when the encoder would not rank such a block (n < dwM + 2, n > 65536, dwM > 33) or
// memory is short.
BOOL LZSSRankTextsForTest(const BYTE* s, DWORD n, DWORD dwM, WORD* pwRanks);
