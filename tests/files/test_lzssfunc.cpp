// Tests of the LZSS block codec, cross-checked against a plain bit-by-bit reader written here
// from the stream format alone.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "files/lzssfunc.h"
#include "testutil.h"

namespace {

typedef std::vector<BYTE> Bytes;

// One token of a stream, as the independent reader sees it.
struct Token {
  bool bLiteral;
  BYTE btByte;   // literal
  DWORD dwCode;  // match: distance code (0 is a skip)
  DWORD dwLen;   // match: length (code + 2)
};

// Reads the stream one bit at a time, most significant bit of each byte first. Stops when the
// next token would start at or after the last byte, as the format prescribes.
std::vector<Token> ParseTokens(const Bytes& stream, BYTE btBitLengths) {
  const DWORD N = btBitLengths >> 4, L = btBitLengths & 0x0F;
  std::vector<Token> tokens;
  size_t bitPos = 0;
  auto bit = [&]() -> DWORD {
    size_t byte = bitPos / 8;
    DWORD b = byte < stream.size() ? (stream[byte] >> (7 - bitPos % 8)) & 1 : 0;
    bitPos++;
    return b;
  };
  auto bits = [&](DWORD n) {
    DWORD v = 0;
    for (DWORD k = 0; k < n; k++) v = (v << 1) | bit();
    return v;
  };
  if (stream.empty()) return tokens;
  while (bitPos / 8 < stream.size() - 1) {
    Token t = {};
    if (bit()) {
      t.bLiteral = true;
      t.btByte = (BYTE)bits(8);
    } else {
      t.dwCode = bits(N);
      t.dwLen = bits(L) + 2;
    }
    tokens.push_back(t);
  }
  return tokens;
}

// Applies tokens to an output that starts as `initial` (the reference text for skips).
Bytes ApplyTokens(const std::vector<Token>& tokens, BYTE btBitLengths, Bytes out) {
  const DWORD W = 1u << (btBitLengths >> 4);
  size_t pos = 0;
  for (const Token& t : tokens) {
    if (t.bLiteral) {
      if (out.size() <= pos) out.resize(pos + 1);
      out[pos++] = t.btByte;
    } else {
      if (out.size() < pos + t.dwLen) out.resize(pos + t.dwLen);
      if (t.dwCode != 0) {
        size_t src = pos - (W - t.dwCode);
        for (DWORD k = 0; k < t.dwLen; k++) out[pos + k] = out[src + k];
      }
      pos += t.dwLen;
    }
  }
  out.resize(pos);
  return out;
}

Bytes Compress(const Bytes& src, BYTE bt, const BYTE* pRef = nullptr, ERR* pErr = nullptr) {
  // One spare byte after the input keeps the encoder's view of the end the same as a caller's
  // zero-padded buffer.
  Bytes padded(src);
  padded.push_back(0);
  Bytes out(LZSSMaxCompressed((DWORD)src.size()));
  DWORD len = (DWORD)out.size();
  ERR err = LZSSCompress(padded.data(), (DWORD)src.size(), out.data(), &len, bt, pRef);
  if (pErr) *pErr = err;
  EXPECT_EQ(0u, err);
  out.resize(err ? 0 : len);
  return out;
}

Bytes Decompress(const Bytes& stream, BYTE bt, DWORD cap, ERR* pErr = nullptr, Bytes initial = Bytes()) {
  Bytes out(initial);
  out.resize(cap, 0xEE);
  DWORD len = cap;
  ERR err = LZSSDecompress(stream.data(), (DWORD)stream.size(), out.data(), &len, bt);
  if (pErr)
    *pErr = err;
  else
    EXPECT_EQ(0u, err);
  out.resize(len);
  return out;
}

Bytes FromString(const std::string& s) { return Bytes(s.begin(), s.end()); }

// Text-like data with plenty of repeats at every distance, plus random bytes.
Bytes MixedData(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  static const char* words[] = {"install", "the ", "game", " disc ",  "\r\n",    "[FILES]", "=",
                                "0x8000",  "LZSS", "page", "window ", "palette", "\t",      "bitmap"};
  Bytes out;
  while (out.size() < n) {
    unsigned r = rng() % 10;
    if (r < 6) {
      const char* w = words[rng() % ARRAY_COUNT(words)];
      out.insert(out.end(), w, w + strlen(w));
    } else if (r < 8 && out.size() > 20) {
      size_t d = 1 + rng() % std::min<size_t>(out.size(), 5000);
      size_t l = 1 + rng() % 40;
      for (size_t k = 0; k < l; k++) out.push_back(out[out.size() - d]);
    } else {
      out.push_back((BYTE)rng());
    }
  }
  out.resize(n);
  return out;
}

Bytes RandomData(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes out(n);
  for (auto& b : out) b = (BYTE)rng();
  return out;
}

const BYTE kAllParams[15] = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xB1, 0xB2, 0xB3,
                             0xB4, 0xB5, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5};

}  // namespace

// ---------------------------------------------------------------------------------------------

TEST(LzssStream, ExampleAbababab) {
  Bytes stream = Compress(FromString("ABABABAB"), 0xC4);
  EXPECT_EQ((Bytes{0xA0, 0xD0, 0x9F, 0xFC, 0x80}), stream);
  EXPECT_EQ(FromString("ABABABAB"), Decompress(stream, 0xC4, 100));
}

TEST(LzssStream, OneByteGivesTwo) {
  Bytes stream = Compress(Bytes{0x5A}, 0xC4);
  EXPECT_EQ((Bytes{0x80 | (0x5A >> 1), (BYTE)(0x5A << 7)}), stream);
  EXPECT_EQ(Bytes{0x5A}, Decompress(stream, 0xC4, 10));
}

TEST(LzssStream, EmptyInputStillWritesOneLiteral) {
  BYTE src[1] = {0x33};
  BYTE out[4] = {0xFF, 0xFF, 0xFF, 0xFF};
  DWORD len = sizeof(out);
  EXPECT_EQ(0u, LZSSCompress(src, 0, out, &len, 0xC4, nullptr));
  // The first byte is written whatever the length; the rest of the output is cleared.
  ASSERT_EQ(2u, len);
  EXPECT_EQ(0x80 | (0x33 >> 1), out[0]);
  EXPECT_EQ((BYTE)(0x33 << 7), out[1]);
  EXPECT_EQ(0x00, out[2]);
  EXPECT_EQ(0x00, out[3]);
}

TEST(LzssStream, RunUsesDistanceOneAndLongestLength) {
  Bytes src(100, 'q');
  Bytes stream = Compress(src, 0xC4);
  std::vector<Token> t = ParseTokens(stream, 0xC4);
  ASSERT_EQ(7u, t.size());
  EXPECT_TRUE(t[0].bLiteral);
  EXPECT_EQ('q', t[0].btByte);
  for (int k = 1; k <= 5; k++) {
    EXPECT_FALSE(t[k].bLiteral);
    EXPECT_EQ(4095u, t[k].dwCode) << k;  // distance 1
    EXPECT_EQ(17u, t[k].dwLen) << k;     // length code 15, the longest
  }
  EXPECT_FALSE(t[6].bLiteral);
  EXPECT_EQ(14u, t[6].dwLen);
  EXPECT_EQ(src, Decompress(stream, 0xC4, 100));
}

TEST(LzssStream, EqualMatchesPreferTheSmallerNeighbour) {
  // At position 6, "AB" matches both position 0 ("ABX", sorts below "ABY") and position 3
  // ("ABZ", sorts above): the node below wins.
  Bytes stream = Compress(FromString("ABXABZABY"), 0xC4);
  std::vector<Token> t = ParseTokens(stream, 0xC4);
  ASSERT_EQ(7u, t.size());
  EXPECT_FALSE(t[3].bLiteral);
  EXPECT_EQ(4096u - 3, t[3].dwCode);
  EXPECT_EQ(2u, t[3].dwLen);
  EXPECT_TRUE(t[4].bLiteral);
  EXPECT_FALSE(t[5].bLiteral);
  EXPECT_EQ(4096u - 6, t[5].dwCode);
  EXPECT_EQ(2u, t[5].dwLen);
  EXPECT_TRUE(t[6].bLiteral);
  EXPECT_EQ('Y', t[6].btByte);
}

TEST(LzssStream, FullMatchEndsTheSearchAtTheFirstNode) {
  // The final "xyz" equals both position 0 and position 4 over its lookahead of 3; the search
  // meets position 0 (the root) first and stops there.
  Bytes stream = Compress(FromString("xyzQxyzRxyz"), 0xC4);
  std::vector<Token> t = ParseTokens(stream, 0xC4);
  ASSERT_FALSE(t.empty());
  EXPECT_FALSE(t.back().bLiteral);
  EXPECT_EQ(3u, t.back().dwLen);
  EXPECT_EQ(4096u - 8, t.back().dwCode);
  EXPECT_EQ(FromString("xyzQxyzRxyz"), Decompress(stream, 0xC4, 64));
}

TEST(LzssStream, NoLazyMatching) {
  // "ab" at position 4 matches two bytes; a lazy coder would take a literal and then "bcde".
  Bytes src = FromString(
      "abXbcdeQab"
      "cdeZ");
  Bytes stream = Compress(src, 0xC4);
  std::vector<Token> t = ParseTokens(stream, 0xC4);
  // Tokens: a b X b c d e Q, then "ab" (2), then "cde" (3), then Z.
  ASSERT_EQ(11u, t.size());
  EXPECT_FALSE(t[8].bLiteral);
  EXPECT_EQ(2u, t[8].dwLen);
  EXPECT_EQ(4096u - 8, t[8].dwCode);
  EXPECT_FALSE(t[9].bLiteral);
  EXPECT_EQ(3u, t[9].dwLen);
  EXPECT_EQ(4096u - 6, t[9].dwCode);
  EXPECT_EQ(src, Decompress(stream, 0xC4, 64));
}

TEST(LzssStream, EndsOnByteBoundaryWithNoPhantomToken) {
  // Eight literals are 72 bits: nine bytes exactly, with no byte left over.
  Bytes src = FromString("ABCDEFGH");
  Bytes stream = Compress(src, 0xC4);
  ASSERT_EQ(9u, stream.size());
  EXPECT_EQ(8u, ParseTokens(stream, 0xC4).size());
  EXPECT_EQ(src, Decompress(stream, 0xC4, 64));
  // A padding byte of zeros after it would read as a skip token if the decoder looked at it.
  Bytes padded(stream);
  padded.push_back(0);
  Bytes out = Decompress(padded, 0xC4, 64);
  EXPECT_EQ(src, out);
}

TEST(LzssStream, CapacityExactlyFullAndOneBitOver) {
  BYTE out[16];
  Bytes src = FromString("ABCDEFGH");  // 72 bits
  DWORD len = 9;
  EXPECT_EQ(0u, LZSSCompress(src.data(), 8, out, &len, 0xC4, nullptr));
  EXPECT_EQ(9u, len);
  Bytes src9 = FromString("ABCDEFGHI");  // 81 bits: one token past a full buffer
  len = 9;
  EXPECT_EQ(ERR_BUFSMALL, LZSSCompress(src9.data(), 9, out, &len, 0xC4, nullptr));
  EXPECT_EQ(9u, len);  // unchanged

  Bytes ab = FromString("ABABABAB");  // 35 bits
  len = 5;
  EXPECT_EQ(0u, LZSSCompress(ab.data(), 8, out, &len, 0xC4, nullptr));
  EXPECT_EQ(5u, len);
  len = 4;
  EXPECT_EQ(ERR_BUFSMALL, LZSSCompress(ab.data(), 8, out, &len, 0xC4, nullptr));
  EXPECT_EQ(4u, len);

  // A literal of exactly 1 bit too many for the first byte pair.
  len = 1;
  EXPECT_EQ(ERR_BUFSMALL, LZSSCompress(ab.data(), 1, out, &len, 0xC4, nullptr));
  len = 0;
  EXPECT_EQ(ERR_BUFSMALL, LZSSCompress(ab.data(), 1, out, &len, 0xC4, nullptr));
}

TEST(LzssStream, BufferIsClearedForItsFullCapacity) {
  BYTE out[32];
  memset(out, 0xAB, sizeof(out));
  DWORD len = sizeof(out);
  BYTE src[2] = {'A', 0};
  ASSERT_EQ(0u, LZSSCompress(src, 1, out, &len, 0xC4, nullptr));
  for (size_t k = len; k < sizeof(out); k++) EXPECT_EQ(0, out[k]) << k;
}

TEST(LzssStream, EveryParameterRoundTrips) {
  for (BYTE bt : kAllParams) {
    for (unsigned seed = 1; seed <= 3; seed++) {
      Bytes rnd = RandomData(3000 + seed * 777, seed);
      Bytes mix = MixedData(20000 + seed * 1000, seed);
      for (const Bytes* src : {&rnd, &mix}) {
        Bytes stream = Compress(*src, bt);
        std::vector<Token> t = ParseTokens(stream, bt);
        ASSERT_FALSE(t.empty());
        EXPECT_TRUE(t[0].bLiteral);
        const DWORD W = 1u << (bt >> 4), M = (1u << (bt & 15)) + 1;
        for (const Token& k : t) {
          if (!k.bLiteral) {
            EXPECT_NE(0u, k.dwCode);  // no skip without a reference
            EXPECT_LE(k.dwLen, M);
            EXPECT_LT(W - k.dwCode, W);
          }
        }
        EXPECT_EQ(*src, ApplyTokens(t, bt, Bytes())) << std::hex << (int)bt;
        EXPECT_EQ(*src, Decompress(stream, bt, (DWORD)src->size())) << std::hex << (int)bt;
      }
    }
  }
}

TEST(LzssStream, MixedDataActuallyCompresses) {
  Bytes mix = MixedData(50000, 9);
  Bytes stream = Compress(mix, 0xC4);
  EXPECT_LT(stream.size(), mix.size() / 2);
}

TEST(LzssStream, DecodeWithZeroLengthLeavesCountAlone) {
  BYTE out[4] = {1, 2, 3, 4};
  DWORD len = 1234;
  EXPECT_EQ(0u, LZSSDecompress(out, 0, out, &len, 0x00));
  EXPECT_EQ(1234u, len);
}

TEST(LzssStream, UnknownParameterAsserts) {
  AssertCatcher catcher;
  BYTE in[4] = {0x80, 0, 0, 0};
  BYTE out[8];
  for (BYTE bt : {0xC6, 0xD4, 0x94, 0xC0, 0x00}) {
    catcher.Clear();
    DWORD len = sizeof(out);
    EXPECT_EQ(0xFFB0u, LZSSDecompress(in, 4, out, &len, bt));
    EXPECT_TRUE(catcher.Fired("btBitLengths*0"));
  }
  for (BYTE bt : kAllParams) {
    catcher.Clear();
    DWORD len = sizeof(out);
    LZSSDecompress(in, 4, out, &len, bt);
    EXPECT_EQ(0u, catcher.Count());
  }
}

TEST(LzssSkip, AllZeroStreamIsSkips) {
  Bytes zero(6, 0);
  Bytes initial = FromString("0123456789ABCDEF");
  ERR err;
  Bytes out = Decompress(zero, 0xC4, 16, &err, initial);
  EXPECT_EQ(0u, err);
  // 17-bit skips of 2 bytes: tokens start at bits 0, 17 and 34 (before the last byte); the
  // fourth would start at bit 51, inside byte 6 - past the last byte index 5.
  ASSERT_EQ(6u, out.size());
  EXPECT_EQ(Bytes(initial.begin(), initial.begin() + 6), out);
}

TEST(LzssSkip, ReferenceRunsBecomeSkips) {
  Bytes ref = MixedData(5000, 3);
  Bytes src(ref);
  for (size_t k = 100; k < src.size(); k += 211) src[k] ^= 0x5A;
  Bytes stream = Compress(src, 0xC4, nullptr);
  Bytes refPadded(ref);
  refPadded.push_back(0);
  Bytes withRef = Compress(src, 0xC4, refPadded.data());
  std::vector<Token> t = ParseTokens(withRef, 0xC4);
  size_t skips = 0;
  for (const Token& k : t)
    if (!k.bLiteral && k.dwCode == 0) skips++;
  EXPECT_GT(skips, 20u);
  EXPECT_LT(withRef.size(), stream.size());
  // Decoded over the reference it gives the new text; the skipped bytes are left untouched.
  EXPECT_EQ(src, Decompress(withRef, 0xC4, (DWORD)src.size(), nullptr, ref));
  Bytes blank(src.size(), 0xEE);
  Bytes overBlank = Decompress(withRef, 0xC4, (DWORD)src.size(), nullptr, blank);
  EXPECT_EQ(ApplyTokens(t, 0xC4, blank), overBlank);
  size_t untouched = 0;
  for (size_t k = 0; k < overBlank.size(); k++) untouched += overBlank[k] == 0xEE;
  EXPECT_GT(untouched, 0u);
}

TEST(LzssSkip, SkipOnlyWhenStrictlyLongerThanTheMatch) {
  // The text repeats at distance 4 as far as the reference agrees: the match is kept.
  Bytes src = FromString("abcdabcd");
  Bytes ref = FromString("zzzzabcd");
  ref.push_back(0);
  Bytes stream = Compress(src, 0xC4, ref.data());
  std::vector<Token> t = ParseTokens(stream, 0xC4);
  ASSERT_EQ(5u, t.size());
  EXPECT_EQ(4096u - 4, t[4].dwCode);
  EXPECT_EQ(4u, t[4].dwLen);
  // Longer agreement with the reference than with the dictionary: a skip.
  Bytes ref2 = FromString("zzzzabcd");
  Bytes src2 = FromString("abcdabcQ");
  ref2[7] = 'Q';
  ref2.push_back(0);
  stream = Compress(src2, 0xC4, ref2.data());
  t = ParseTokens(stream, 0xC4);
  ASSERT_EQ(5u, t.size());
  EXPECT_EQ(0u, t[4].dwCode);
  EXPECT_EQ(4u, t[4].dwLen);
}

// ---------------------------------------------------------------------------------------------
// Corrupt streams: never a byte outside the buffers, whatever the input.

TEST(LzssCorrupt, MatchBeforeTheStartIsAnError) {
  // Literal 'A' (101000001), then a match at distance 2 (0 111111111110 0000) with only one
  // byte out so far.
  Bytes stream = {0xA0, 0xBF, 0xF8, 0x00};
  ERR err;
  Bytes out = Decompress(stream, 0xC4, 64, &err);
  EXPECT_EQ((DWORD)ERR_BADFORMAT, err);
  ASSERT_EQ(1u, out.size());
  EXPECT_EQ('A', out[0]);
  // The same match at distance 1 is a run.
  stream = {0xA0, 0xBF, 0xFC, 0x00};
  out = Decompress(stream, 0xC4, 64, &err);
  EXPECT_EQ(0u, err);
  EXPECT_EQ(FromString("AAA"), out);
}

TEST(LzssCorrupt, OutputFullIsAnError) {
  Bytes src(1000, 'z');
  Bytes stream = Compress(src, 0xC4);
  for (DWORD cap : {0u, 1u, 5u, 17u, 18u, 999u}) {
    ERR err;
    Bytes out = Decompress(stream, 0xC4, cap, &err);
    EXPECT_EQ((DWORD)ERR_BUFSMALL, err) << cap;
    EXPECT_LE(out.size(), cap);
    EXPECT_EQ(Bytes(out.size(), 'z'), out);
  }
  ERR err;
  EXPECT_EQ(src, Decompress(stream, 0xC4, 1000, &err));
  EXPECT_EQ(0u, err);
}

TEST(LzssCorrupt, TruncatedStreamKeepsItsCompleteTokens) {
  Bytes src = MixedData(4000, 5);
  Bytes stream = Compress(src, 0xC4);
  std::vector<Token> tokens = ParseTokens(stream, 0xC4);
  for (size_t cut = 1; cut < stream.size(); cut += 37) {
    // Bytes given by the tokens that lie wholly inside the cut stream.
    size_t bits = 0, whole = 0;
    for (const Token& t : tokens) {
      bits += t.bLiteral ? 9 : 17;
      if (bits > cut * 8) break;
      whole += t.bLiteral ? 1 : t.dwLen;
    }
    Bytes part(stream.begin(), stream.begin() + cut);
    ERR err;
    Bytes out = Decompress(part, 0xC4, (DWORD)src.size(), &err);
    EXPECT_TRUE(err == 0 || err == ERR_BUFSMALL || err == ERR_BADFORMAT);
    ASSERT_GE(out.size(), whole) << cut;
    EXPECT_TRUE(std::equal(src.begin(), src.begin() + whole, out.begin())) << cut;
  }
}

TEST(LzssCorrupt, RandomBytesStayInsideTheBuffers) {
  std::mt19937 rng(77);
  for (int round = 0; round < 3000; round++) {
    BYTE bt = kAllParams[rng() % 15];
    Bytes in(1 + rng() % 300);
    for (auto& b : in) b = (BYTE)rng();
    if (round % 3 == 0) in[0] |= 0x80;
    DWORD cap = rng() % 2000;
    // Exactly sized heap buffers, so the sanitizers see any stray access.
    std::vector<BYTE> out(cap);
    DWORD len = cap;
    ERR err = LZSSDecompress(in.data(), (DWORD)in.size(), out.data(), &len, bt);
    EXPECT_TRUE(err == 0 || err == ERR_BUFSMALL || err == ERR_BADFORMAT) << err;
    EXPECT_LE(len, cap);
  }
}

TEST(LzssCorrupt, FastAndCarefulLoopsAgree) {
  // The same stream decoded with room to spare and with the exact room: the output must not
  // depend on which loop handled which token.
  for (BYTE bt : kAllParams) {
    Bytes src = MixedData(7000, bt);
    Bytes stream = Compress(src, bt);
    EXPECT_EQ(src, Decompress(stream, bt, (DWORD)src.size() + 100)) << std::hex << (int)bt;
    EXPECT_EQ(src, Decompress(stream, bt, (DWORD)src.size())) << std::hex << (int)bt;
  }
}

// ---------------------------------------------------------------------------------------------
// Streams written here token by token, so the decoder meets what the encoder rarely makes:
// skips straight after runs of literals, matches at every short distance, long matches that
// overlap themselves. Every byte of the output buffer is compared, including those the stream
// never reaches, which must keep the reference text.

namespace {

struct BitSink {
  Bytes bytes;
  size_t bits = 0;
  void Put(DWORD v, DWORD n) {
    for (DWORD k = n; k-- > 0;) {
      if (bits % 8 == 0) bytes.push_back(0);
      if ((v >> k) & 1) bytes.back() |= (BYTE)(0x80 >> (bits % 8));
      bits++;
    }
  }
};

// A valid stream of about `count` tokens for dwCap bytes of output, with its tokens.
Bytes RandomTokenStream(BYTE bt, std::mt19937& rng, DWORD dwCap, std::vector<Token>* pTokens) {
  const DWORD N = bt >> 4, L = bt & 0x0F, W = 1u << N, M = (1u << L) + 1;
  BitSink sink;
  DWORD out = 0;
  pTokens->clear();
  while (true) {
    unsigned r = rng() % 16;
    Token t = {};
    if (out == 0 || r < 7) {
      if (out + 1 > dwCap) break;
      t.bLiteral = true;
      t.btByte = (BYTE)rng();
      sink.Put(0x100u | t.btByte, 9);
      out++;
    } else {
      t.dwLen = 2 + rng() % (M - 1);
      if (out + t.dwLen > dwCap) break;
      DWORD dist;
      if (r == 7)
        dist = 0;  // a skip
      else if (r < 12)
        dist = 1 + rng() % std::min<DWORD>(out, 20);  // close, often overlapping
      else
        dist = 1 + rng() % std::min<DWORD>(out, W - 1);
      t.dwCode = dist ? W - dist : 0;
      sink.Put((t.dwCode << L) | (t.dwLen - 2), 1 + N + L);
      out += t.dwLen;
    }
    pTokens->push_back(t);
  }
  return sink.bytes;
}

}  // namespace

TEST(LzssDecode, GeneratedStreamsMatchTheTokens) {
  std::mt19937 rng(2024);
  for (BYTE bt : kAllParams) {
    for (int round = 0; round < 12; round++) {
      DWORD dwWant = 50 + rng() % 6000;
      std::vector<Token> tokens;
      Bytes stream = RandomTokenStream(bt, rng, dwWant, &tokens);
      Bytes reference = RandomData(dwWant + 64, round + 100);
      // Exactly the stream's own tokens come out: no phantom token from the padding bits.
      std::vector<Token> parsed = ParseTokens(stream, bt);
      ASSERT_EQ(tokens.size(), parsed.size());
      Bytes expected = ApplyTokens(tokens, bt, reference);
      size_t produced = expected.size();
      // Bytes past the output position keep the reference text.
      expected.insert(expected.end(), reference.begin() + produced, reference.end());
      for (DWORD cap : {(DWORD)reference.size(), (DWORD)produced}) {
        Bytes out(reference);
        DWORD len = cap;
        ASSERT_EQ(0u, LZSSDecompress(stream.data(), (DWORD)stream.size(), out.data(), &len, bt))
            << std::hex << (int)bt << std::dec << " round " << round;
        EXPECT_EQ(produced, len);
        EXPECT_EQ(expected, out) << std::hex << (int)bt << std::dec << " round " << round << " cap " << cap;
      }
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The decoder's two fast loops (plain moves everywhere, masked moves where the processor has
// them) and its careful loop, checked token by token: literal runs of every length at every
// bit alignment, matches at every short distance and length, a skip straight after each of
// them, and corrupt streams that stop the fast loop at the edge of its buffers.

namespace {

Bytes EncodeTokens(const std::vector<Token>& tokens, BYTE bt) {
  const DWORD N = bt >> 4, L = bt & 0x0F;
  BitSink sink;
  for (const Token& t : tokens) {
    if (t.bLiteral)
      sink.Put(0x100u | t.btByte, 9);
    else
      sink.Put((t.dwCode << L) | (t.dwLen - 2), 1 + N + L);
  }
  (void)N;
  return sink.bytes;
}

Token Lit(BYTE b) { return Token{true, b, 0, 0}; }
Token Match(BYTE bt, DWORD dist, DWORD len) {
  return Token{false, 0, dist ? (1u << (bt >> 4)) - dist : 0, len};
}

// Decodes the tokens' stream over a buffer of reference text with both loops, once with the
// exact room and once with room to spare, and compares every byte of the buffer.
void ExpectTokensDecode(const std::vector<Token>& tokens, BYTE bt, const std::string& what) {
  Bytes stream = EncodeTokens(tokens, bt);
  Bytes expected = ApplyTokens(tokens, bt, Bytes());
  size_t produced = expected.size();
  Bytes reference = RandomData(produced + 80, (unsigned)produced * 7 + bt);
  expected = ApplyTokens(tokens, bt, reference);
  expected.insert(expected.end(), reference.begin() + produced, reference.end());
  for (BOOL plain : {TRUE, FALSE}) {
    LZSSDecodeUsePlain(plain);
    for (DWORD cap : {(DWORD)produced, (DWORD)reference.size()}) {
      Bytes out(reference);
      DWORD len = cap;
      ERR err = LZSSDecompress(stream.data(), (DWORD)stream.size(), out.data(), &len, bt);
      EXPECT_EQ(0u, err) << what << " plain " << plain << " cap " << cap;
      EXPECT_EQ(produced, len) << what << " plain " << plain << " cap " << cap;
      EXPECT_EQ(expected, out) << what << " plain " << plain << " cap " << cap;
    }
  }
  LZSSDecodeUsePlain(FALSE);
}

}  // namespace

TEST(LzssDecodePaths, LiteralRunsOfEveryLengthAtEveryAlignment) {
  // A run of r literals between matches, behind a lead of 0..7 literals that moves the run
  // across byte and refill boundaries; long enough in total that the fast loop takes it.
  for (BYTE bt : {(BYTE)0xC4, (BYTE)0xA1, (BYTE)0xB5}) {
    const DWORD M = LZSSMaxMatch(bt);
    for (DWORD lead = 0; lead < 8; lead++) {
      std::vector<Token> tokens;
      for (DWORD k = 0; k < 24 + lead; k++) tokens.push_back(Lit((BYTE)('a' + k % 26)));
      for (DWORD r = 1; r <= 40; r++) {
        for (DWORD k = 0; k < r; k++) tokens.push_back(Lit((BYTE)(r * 13 + k)));
        tokens.push_back(Match(bt, 1 + (r * 5) % 20, 2 + r % (M - 1)));
      }
      for (DWORD k = 0; k < 40; k++) tokens.push_back(Lit((BYTE)k));
      ExpectTokensDecode(tokens, bt, "lead " + std::to_string(lead));
    }
  }
}

TEST(LzssDecodePaths, MatchesAtEveryShortDistanceAndLength) {
  for (BYTE bt : kAllParams) {
    const DWORD M = LZSSMaxMatch(bt);
    std::vector<Token> tokens;
    for (DWORD k = 0; k < 48; k++) tokens.push_back(Lit((BYTE)(k * 37 + 11)));
    for (DWORD dist = 1; dist <= 40; dist++) {
      for (DWORD len = 2; len <= M; len++) {
        tokens.push_back(Match(bt, dist, len));
        tokens.push_back(Lit((BYTE)(dist + len)));
      }
    }
    for (DWORD k = 0; k < 48; k++) tokens.push_back(Lit((BYTE)k));
    ExpectTokensDecode(tokens, bt, "param " + std::to_string(bt));
  }
}

TEST(LzssDecodePaths, SkipRightAfterEveryMatchKeepsTheReference) {
  // A copy that writes past its match and does not put the bytes back shows here: the skip's
  // bytes must still hold the reference text.
  for (BYTE bt : {(BYTE)0xC4, (BYTE)0xC5, (BYTE)0xA2}) {
    const DWORD M = LZSSMaxMatch(bt);
    std::vector<Token> tokens;
    for (DWORD k = 0; k < 64; k++) tokens.push_back(Lit((BYTE)(k * 7 + 1)));
    for (DWORD dist : {1u, 2u, 3u, 7u, 15u, 16u, 17u, 31u, 32u, 33u, 60u}) {
      for (DWORD len = 2; len <= M; len++) {
        tokens.push_back(Match(bt, dist, len));
        tokens.push_back(Match(bt, 0, 2 + (len + dist) % (M - 1)));
        tokens.push_back(Lit((BYTE)len));
        tokens.push_back(Lit((BYTE)dist));
        tokens.push_back(Match(bt, 0, 2));  // a skip right after literals too
      }
    }
    for (DWORD k = 0; k < 48; k++) tokens.push_back(Lit((BYTE)k));
    ExpectTokensDecode(tokens, bt, "param " + std::to_string(bt));
  }
}

TEST(LzssDecodePaths, OutputFullAtEveryCapacityTouchesNothingPastIt) {
  // A long stream decoded into capacities just short of its output: every one fails with
  // ERR_BUFSMALL, gives a correct prefix, and leaves the guard bytes after the capacity alone.
  Bytes src = MixedData(3000, 9);
  Bytes stream = Compress(src, 0xC4);
  for (BOOL plain : {TRUE, FALSE}) {
    LZSSDecodeUsePlain(plain);
    for (DWORD cap = 2900; cap < 3000; cap++) {
      Bytes out(cap + 64, 0x5A);
      DWORD len = cap;
      ERR err = LZSSDecompress(stream.data(), (DWORD)stream.size(), out.data(), &len, 0xC4);
      EXPECT_EQ((DWORD)ERR_BUFSMALL, err) << cap;
      ASSERT_LE(len, cap);
      EXPECT_GE(len + LZSSMaxMatch(0xC4), cap) << cap;
      EXPECT_TRUE(std::equal(src.begin(), src.begin() + len, out.begin())) << cap;
      EXPECT_EQ(Bytes(64, 0x5A), Bytes(out.begin() + cap, out.end())) << cap;
    }
  }
  LZSSDecodeUsePlain(FALSE);
}

TEST(LzssDecodePaths, DistancePastTheStartStopsAtThatToken) {
  // r literals, then a match reaching one byte before the start: an error with exactly r bytes
  // out, wherever the match falls in the fast loop's steps; one byte closer it is valid.
  for (BOOL plain : {TRUE, FALSE}) {
    LZSSDecodeUsePlain(plain);
    for (DWORD r = 1; r <= 60; r++) {
      std::vector<Token> tokens;
      for (DWORD k = 0; k < r; k++) tokens.push_back(Lit((BYTE)(k + 1)));
      tokens.push_back(Match(0xC4, r + 1, 5));
      for (DWORD k = 0; k < 40; k++) tokens.push_back(Lit((BYTE)k));
      Bytes stream = EncodeTokens(tokens, 0xC4);
      Bytes out(400, 0);
      DWORD len = (DWORD)out.size();
      EXPECT_EQ((DWORD)ERR_BADFORMAT,
                LZSSDecompress(stream.data(), (DWORD)stream.size(), out.data(), &len, 0xC4))
          << r;
      EXPECT_EQ(r, len);
      tokens[r] = Match(0xC4, r, 5);
      stream = EncodeTokens(tokens, 0xC4);
      len = (DWORD)out.size();
      EXPECT_EQ(0u, LZSSDecompress(stream.data(), (DWORD)stream.size(), out.data(), &len, 0xC4)) << r;
      EXPECT_EQ(r + 5 + 40, len);
    }
  }
  LZSSDecodeUsePlain(FALSE);
}

TEST(LzssDecodePaths, BothLoopsAgreeOnGeneratedStreams) {
  std::mt19937 rng(4242);
  for (BYTE bt : kAllParams) {
    for (int round = 0; round < 6; round++) {
      std::vector<Token> tokens;
      RandomTokenStream(bt, rng, 200 + rng() % 5000, &tokens);
      ExpectTokensDecode(tokens, bt, "round " + std::to_string(round));
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The encoder keeps most positions by rank and builds the tree only for the last ones of a
// block; LZSSCompressTree runs the tree throughout. Their streams must agree byte for byte.

namespace {

// Compresses with both encoders into buffers of the same capacity and compares everything they
// leave: result, length and the bytes of the buffer (a partial stream too).
void ExpectSameStreams(const Bytes& src, BYTE bt, const BYTE* pRef, DWORD dwCap, const char* what) {
  SCOPED_TRACE(testing::Message() << what << ", " << src.size() << " bytes, 0x" << std::hex << (int)bt
                                  << (pRef ? ", with reference" : "") << ", capacity " << std::dec << dwCap);
  Bytes padded(src);
  padded.push_back(0);
  Bytes a(dwCap, 0x55), b(dwCap, 0xAA);
  DWORD la = dwCap, lb = dwCap;
  ERR ea = LZSSCompress(padded.data(), (DWORD)src.size(), a.data(), &la, bt, pRef);
  ERR eb = LZSSCompressTree(padded.data(), (DWORD)src.size(), b.data(), &lb, bt, pRef);
  ASSERT_EQ(eb, ea);
  ASSERT_EQ(lb, la);
  ASSERT_TRUE(a == b) << "streams differ from byte "
                      << (std::mismatch(a.begin(), a.end(), b.begin()).first - a.begin());
}

// Inputs that stress the tree in different ways: long runs (equal texts), few symbols (deep
// ties and many equal neighbours), text with repeats at every distance, and noise.
Bytes Generated(int kind, size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes out(n);
  for (size_t i = 0; i < n; i++) {
    switch (kind) {
      case 0:
        out[i] = (BYTE)rng();
        break;
      case 1:
        out[i] = (BYTE)(rng() % 3);
        break;
      case 2:
        out[i] = (i > 0 && rng() % 12) ? out[i - 1] : (BYTE)(rng() % 4);
        break;
      default:
        out[i] = (i >= 20 && rng() % 16) ? out[i - 1 - rng() % 19] : (BYTE)('a' + rng() % 6);
        break;
    }
  }
  return out;
}

}  // namespace

TEST(LzssEncoder, RankedAndTreeStreamsAgree) {
  // Sizes around the window and block limits, and around the longest match at the very end.
  const size_t sizes[] = {1, 2, 3, 5, 18, 19, 20, 35, 36, 100, 4094, 4095, 4096, 4097, 9000, 32768};
  unsigned seed = 1;
  for (size_t n : sizes) {
    for (int kind = 0; kind < 4; kind++) {
      Bytes src = Generated(kind, n, seed++);
      ExpectSameStreams(src, 0xC4, nullptr, LZSSMaxCompressed((DWORD)n), "generated");
    }
  }
  for (BYTE bt : kAllParams) {
    ExpectSameStreams(MixedData(12000, bt), bt, nullptr, LZSSMaxCompressed(12000), "mixed");
    ExpectSameStreams(Generated(3, 5000, bt), bt, nullptr, LZSSMaxCompressed(5000), "text-like");
  }
  // The encoder takes any parameter byte: tiny windows and the shortest matches too.
  for (BYTE bt : {0x10, 0x21, 0x30, 0x42, 0x85, 0xF3})
    ExpectSameStreams(Generated(3, 3000, bt), bt, nullptr, 2 * 3000 + 16, "odd parameter");
  // Small windows keep the tree small, so the last positions of a block often find several
  // nodes sharing their short lookahead: the tree's shape then decides the match.
  for (BYTE bt : {0x21, 0x22, 0x31, 0x32, 0x33, 0x42, 0x51}) {
    for (unsigned k = 0; k < 40; k++) {
      Bytes src = Generated(1 + k % 3, 100 + (k * 397) % 1900, bt * 100 + k);
      ExpectSameStreams(src, bt, nullptr, LZSSMaxCompressed((DWORD)src.size()), "small window");
    }
  }
  // Blocks too large to rank fall back to the tree.
  ExpectSameStreams(MixedData(70000, 9), 0xC4, nullptr, LZSSMaxCompressed(70000), "large block");
}

TEST(LzssEncoder, RankedAndTreeAgreeWithReferenceAndFullOutput) {
  Bytes src = MixedData(20000, 77);
  Bytes ref(src);
  std::mt19937 rng(5);
  for (auto& c : ref)
    if (rng() % 9 == 0) c ^= (BYTE)(1 + rng() % 7);
  ExpectSameStreams(src, 0xC4, ref.data(), LZSSMaxCompressed(20000), "reference");
  // Capacities that run out early, in the middle and a byte short of the whole stream.
  DWORD dwFull = (DWORD)Compress(src, 0xC4).size();
  for (DWORD cap : std::vector<DWORD>{1, 2, 100, dwFull / 2, dwFull - 1})
    ExpectSameStreams(src, 0xC4, nullptr, cap, "short output");
}

namespace {

std::vector<DWORD> g_treeSeen;
void CaptureTree() {
  g_treeSeen.assign(3 * 0x8000, 0);
  g_treeSeen.resize(LZSSDescribeTree(g_treeSeen.data(), (DWORD)g_treeSeen.size()));
}

// The tree each encoder holds when the lookahead starts to shrink.
std::vector<DWORD> TreeAtTheEnd(const Bytes& src, BYTE bt, bool bTreeOnly) {
  Bytes padded(src);
  padded.push_back(0);
  Bytes out(LZSSMaxCompressed((DWORD)src.size()));
  DWORD len = (DWORD)out.size();
  g_treeSeen.clear();
  g_pfnLZSSTreeHook = CaptureTree;
  ERR err = bTreeOnly ? LZSSCompressTree(padded.data(), (DWORD)src.size(), out.data(), &len, bt, nullptr)
                      : LZSSCompress(padded.data(), (DWORD)src.size(), out.data(), &len, bt, nullptr);
  g_pfnLZSSTreeHook = nullptr;
  EXPECT_EQ(0u, err);
  return g_treeSeen;
}

}  // namespace

// The shape of the tree decides the matches of a block's last positions only now and then, so
// the streams alone would let a wrong shape pass; the trees are compared node for node instead.
TEST(LzssEncoder, RankedAndTreeHoldTheSameTree) {
  unsigned seed = 1000;
  for (BYTE bt : {0x21, 0x32, 0x42, 0x51, 0x83, 0xC4}) {
    for (int kind = 0; kind < 4; kind++) {
      for (size_t n : {40, 700, 2500}) {
        Bytes src = Generated(kind, n, seed++);
        SCOPED_TRACE(testing::Message()
                     << "kind " << kind << ", " << n << " bytes, 0x" << std::hex << (int)bt);
        std::vector<DWORD> ranked = TreeAtTheEnd(src, bt, false);
        std::vector<DWORD> tree = TreeAtTheEnd(src, bt, true);
        ASSERT_FALSE(tree.empty());
        ASSERT_EQ(tree, ranked);
      }
    }
  }
}

namespace {

// Checks the encoder's ranks of the M-byte texts of a block against the texts sorted directly:
// below the block size, equal exactly for equal texts, and rising with byte order.
void ExpectRanksFollowTexts(const Bytes& src, DWORD M) {
  const DWORD n = (DWORD)src.size(), c = n - M + 1;
  std::vector<WORD> ranks(c, 0xABCD);
  ASSERT_TRUE(LZSSRankTextsForTest(src.data(), n, M, ranks.data()));
  std::vector<DWORD> order(c);
  for (DWORD p = 0; p < c; p++) order[p] = p;
  const BYTE* s = src.data();
  std::sort(order.begin(), order.end(), [&](DWORD a, DWORD b) {
    int cmp = memcmp(s + a, s + b, M);
    return cmp != 0 ? cmp < 0 : a < b;
  });
  for (DWORD i = 0; i < c; i++) {
    DWORD p = order[i];
    ASSERT_LT((DWORD)ranks[p], n) << "position " << p;
    if (i == 0) continue;
    DWORD q = order[i - 1];
    if (memcmp(s + q, s + p, M) == 0)
      ASSERT_EQ(ranks[q], ranks[p]) << "equal texts at " << q << " and " << p;
    else
      ASSERT_LT(ranks[q], ranks[p]) << "text at " << q << " sorts before the one at " << p;
  }
}

// Blocks that are hard on ranking: one byte repeated, a short period, and texts that share all
// but their last byte.
Bytes HardData(int kind, size_t n) {
  Bytes out(n);
  for (size_t i = 0; i < n; i++) {
    if (kind == 0)
      out[i] = 'x';
    else if (kind == 1)
      out[i] = (BYTE)("abcabdabc"[i % 9]);
    else
      out[i] = (i % 40 == 39) ? (BYTE)(i / 40) : 0;
  }
  return out;
}

}  // namespace

TEST(LzssRanks, FollowTheSortedTexts) {
  unsigned seed = 7000;
  for (DWORD M : {2u, 3u, 5u, 9u, 17u, 33u}) {
    for (size_t n : {(size_t)M + 2, (size_t)M + 3, (size_t)100, (size_t)4096, (size_t)32768}) {
      for (int kind = 0; kind < 4; kind++) {
        SCOPED_TRACE(testing::Message() << "M " << M << ", kind " << kind << ", " << n << " bytes");
        ExpectRanksFollowTexts(Generated(kind, n, seed++), M);
      }
      SCOPED_TRACE(testing::Message() << "M " << M << ", " << n << " bytes");
      ExpectRanksFollowTexts(MixedData(n, seed++), M);
      for (int kind = 0; kind < 3; kind++) ExpectRanksFollowTexts(HardData(kind, n), M);
    }
  }
}

TEST(LzssRanks, LargestBlock) {
  unsigned seed = 8000;
  for (DWORD M : {3u, 17u, 33u}) {
    SCOPED_TRACE(testing::Message() << "M " << M);
    ExpectRanksFollowTexts(Generated(0, 0x10000, seed++), M);
    ExpectRanksFollowTexts(Generated(3, 0x10000, seed++), M);
    ExpectRanksFollowTexts(MixedData(0x10000, seed++), M);
    ExpectRanksFollowTexts(HardData(0, 0x10000), M);
    ExpectRanksFollowTexts(HardData(2, 0x10000), M);
  }
}

TEST(LzssRanks, RefusesBlocksTheEncoderDoesNotRank) {
  Bytes src = Generated(3, 0x10001, 9000);
  std::vector<WORD> ranks(0x10001, 0x1234);
  EXPECT_FALSE(LZSSRankTextsForTest(src.data(), 0x10001, 17, ranks.data()));
  EXPECT_FALSE(LZSSRankTextsForTest(src.data(), 18, 17, ranks.data()));
  EXPECT_FALSE(LZSSRankTextsForTest(src.data(), 1000, 34, ranks.data()));
  EXPECT_TRUE(std::all_of(ranks.begin(), ranks.end(), [](WORD w) { return w == 0x1234; }));
  EXPECT_TRUE(LZSSRankTextsForTest(src.data(), 19, 17, ranks.data()));
}
