// Tests of the LZSS block codec, cross-checked against a plain bit-by-bit reader and writer
// written here from the stream format alone.
#include <ctype.h>
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

Token Lit(BYTE b) { return Token{true, b, 0, 0}; }
Token Match(BYTE bt, DWORD dist, DWORD len) { return Token{false, 0, dist ? LZSSWindow(bt) - dist : 0, len}; }

// Reads the stream one bit at a time, most significant bit of each byte first. Stops when the
// next token would start at or after the last byte, as the format prescribes.
std::vector<Token> ParseTokens(const Bytes& stream, BYTE btBitLengths) {
  const DWORD N = btBitLengths >> 4, L = btBitLengths & 0x0F;
  std::vector<Token> tokens;
  size_t bitPos = 0;
  auto bits = [&](DWORD n) {
    DWORD v = 0;
    for (DWORD k = 0; k < n; k++, bitPos++) {
      size_t byte = bitPos / 8;
      v = (v << 1) | (byte < stream.size() ? (stream[byte] >> (7 - bitPos % 8)) & 1 : 0);
    }
    return v;
  };
  while (!stream.empty() && bitPos / 8 < stream.size() - 1) {
    Token t = {};
    if (bits(1)) {
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

// Writes tokens as a stream, most significant bit first.
Bytes EncodeTokens(const std::vector<Token>& tokens, BYTE bt) {
  const DWORD N = bt >> 4, L = bt & 0x0F;
  Bytes bytes;
  size_t bits = 0;
  auto put = [&](DWORD v, DWORD n) {
    for (DWORD k = n; k-- > 0; bits++) {
      if (bits % 8 == 0) bytes.push_back(0);
      if ((v >> k) & 1) bytes.back() |= (BYTE)(0x80 >> (bits % 8));
    }
  };
  for (const Token& t : tokens) {
    if (t.bLiteral)
      put(0x100u | t.btByte, 9);
    else
      put((t.dwCode << L) | (t.dwLen - 2), 1 + N + L);
  }
  return bytes;
}

// Applies tokens to an output that starts as `out` (the reference text for skips).
Bytes ApplyTokens(const std::vector<Token>& tokens, BYTE btBitLengths, Bytes out) {
  const DWORD W = LZSSWindow(btBitLengths);
  size_t pos = 0;
  for (const Token& t : tokens) {
    if (t.bLiteral) {
      if (out.size() <= pos) out.resize(pos + 1);
      out[pos++] = t.btByte;
    } else {
      if (out.size() < pos + t.dwLen) out.resize(pos + t.dwLen);
      if (t.dwCode != 0)
        for (DWORD k = 0; k < t.dwLen; k++) out[pos + k] = out[pos - (W - t.dwCode) + k];
      pos += t.dwLen;
    }
  }
  out.resize(pos);
  return out;
}

// Tokens as text: a literal as its character, a match as <distance,length>, a skip as <s,length>.
std::string TokenText(const std::vector<Token>& tokens, BYTE bt) {
  std::string s;
  for (const Token& t : tokens) {
    if (t.bLiteral)
      s += (char)t.btByte;
    else if (t.dwCode == 0)
      s += "<s," + std::to_string(t.dwLen) + ">";
    else
      s += "<" + std::to_string(LZSSWindow(bt) - t.dwCode) + "," + std::to_string(t.dwLen) + ">";
  }
  return s;
}

// True when the text is the pattern, where a '*' in the pattern stands for one or more digits.
bool FitsPattern(const char* pattern, const std::string& text) {
  size_t i = 0;
  for (; *pattern; pattern++) {
    if (*pattern != '*') {
      if (i >= text.size() || text[i++] != *pattern) return false;
      continue;
    }
    if (i >= text.size() || !isdigit((unsigned char)text[i])) return false;
    while (i < text.size() && isdigit((unsigned char)text[i])) i++;
  }
  return i == text.size();
}

Bytes Compress(const Bytes& src, BYTE bt, const BYTE* pRef = nullptr) {
  // One spare byte after the input keeps the encoder's view of the end the same as a caller's
  // zero-padded buffer.
  Bytes padded(src);
  padded.push_back(0);
  Bytes out(LZSSMaxCompressed((DWORD)src.size()));
  DWORD len = (DWORD)out.size();
  ERR err = LZSSCompress(padded.data(), (DWORD)src.size(), out.data(), &len, bt, pRef);
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

TEST(LzssStream, KnownStreamsAndClearedBuffer) {
  Bytes stream = Compress(FromString("ABABABAB"), 0xC4);
  EXPECT_EQ((Bytes{0xA0, 0xD0, 0x9F, 0xFC, 0x80}), stream);
  EXPECT_EQ(FromString("ABABABAB"), Decompress(stream, 0xC4, 100));
  // One literal is 9 bits, two bytes.
  stream = Compress(Bytes{0x5A}, 0xC4);
  EXPECT_EQ((Bytes{0x80 | (0x5A >> 1), (BYTE)(0x5A << 7)}), stream);
  EXPECT_EQ(Bytes{0x5A}, Decompress(stream, 0xC4, 10));
  // An empty input still writes its first byte; the buffer is cleared for its full capacity.
  BYTE src[1] = {0x33};
  BYTE out[32];
  memset(out, 0xAB, sizeof(out));
  DWORD len = sizeof(out);
  EXPECT_EQ(0u, LZSSCompress(src, 0, out, &len, 0xC4, nullptr));
  ASSERT_EQ(2u, len);
  EXPECT_EQ(0x80 | (0x33 >> 1), out[0]);
  EXPECT_EQ((BYTE)(0x33 << 7), out[1]);
  for (size_t k = len; k < sizeof(out); k++) EXPECT_EQ(0, out[k]) << k;
}

TEST(LzssStream, MatchChoices) {
  // Expectations worked out by hand from greedy longest matches over the sorted window.
  struct Case {
    const char* src;
    const char* ref;  // null: no reference
    const char* tokens;
  } cases[] = {
      // A run repeats at distance 1 with the longest length; the last match, in the shrinking
      // lookahead, may take any distance inside the run.
      {"qqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqqq",
       nullptr, "q<1,17><1,17><1,17><1,17><1,17><*,14>"},
      // At position 6 "AB" matches position 0 ("ABX", sorts below "ABY") and 3 ("ABZ", above):
      // the node below wins.
      {"ABXABZABY", nullptr, "ABX<3,2>Z<6,2>Y"},
      // The last "xyz" equals positions 0 and 4 over its lookahead of 3; the search meets
      // position 0 (the root) first and stops there.
      {"xyzQxyzRxyz", nullptr, "xyzQ<4,3>R<8,3>"},
      // No lazy matching: "ab" is taken at once, not a literal and then "bcde".
      {"abXbcdeQabcdeZ", nullptr, "abXbcdeQ<8,2><6,3>Z"},
      // A skip only when the reference agrees strictly longer than the dictionary.
      {"abcdabcd", "zzzzabcd", "abcd<4,4>"},
      {"abcdabcQ", "zzzzabcQ", "abcd<s,4>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.src);
    Bytes src = FromString(c.src), ref;
    if (c.ref) {
      ref = FromString(c.ref);
      ref.push_back(0);
    }
    Bytes stream = Compress(src, 0xC4, c.ref ? ref.data() : nullptr);
    std::string got = TokenText(ParseTokens(stream, 0xC4), 0xC4);
    EXPECT_TRUE(FitsPattern(c.tokens, got)) << got;
    if (!c.ref) {
      EXPECT_EQ(src, Decompress(stream, 0xC4, 128));
    }
  }
}

TEST(LzssStream, ByteBoundaryAndCapacity) {
  // Eight literals are 72 bits: nine bytes exactly. A zero byte after them would read as a skip
  // token if the decoder looked at it.
  Bytes src = FromString("ABCDEFGHI");
  Bytes stream = Compress(Bytes(src.begin(), src.begin() + 8), 0xC4);
  ASSERT_EQ(9u, stream.size());
  stream.push_back(0);
  EXPECT_EQ(Bytes(src.begin(), src.begin() + 8), Decompress(stream, 0xC4, 64));
  // A capacity exactly full succeeds; one token over fails and leaves the length alone.
  struct Case {
    const char* text;
    DWORD n, cap;
    ERR err;
  } cases[] = {{"ABCDEFGHI", 8, 9, 0},    {"ABCDEFGHI", 9, 9, ERR_BUFSMALL},  // 72 and 81 bits
               {"ABABABAB", 8, 5, 0},     {"ABABABAB", 8, 4, ERR_BUFSMALL},   // 35 bits
               {"A", 1, 1, ERR_BUFSMALL}, {"A", 1, 0, ERR_BUFSMALL}};         // 9 bits
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.text << " " << c.n << " into " << c.cap);
    BYTE out[16];
    DWORD len = c.cap;
    EXPECT_EQ(c.err, LZSSCompress((const BYTE*)c.text, c.n, out, &len, 0xC4, nullptr));
    EXPECT_EQ(c.cap, len);
  }
}

TEST(LzssStream, EveryParameterRoundTrips) {
  for (BYTE bt : kAllParams) {
    for (unsigned seed = 1; seed <= 2; seed++) {
      Bytes rnd = RandomData(3000 + seed * 777, seed);
      Bytes mix = MixedData(20000 + seed * 1000, seed);
      for (const Bytes* src : {&rnd, &mix}) {
        SCOPED_TRACE(testing::Message() << std::hex << (int)bt << " seed " << seed);
        Bytes stream = Compress(*src, bt);
        std::vector<Token> t = ParseTokens(stream, bt);
        ASSERT_FALSE(t.empty());
        EXPECT_TRUE(t[0].bLiteral);
        for (const Token& k : t) {
          if (!k.bLiteral) {
            EXPECT_NE(0u, k.dwCode);  // no skip without a reference
            EXPECT_LE(k.dwLen, LZSSMaxMatch(bt));
          }
        }
        EXPECT_EQ(*src, ApplyTokens(t, bt, Bytes()));
        // The exact room and room to spare take the decoder through different loops.
        EXPECT_EQ(*src, Decompress(stream, bt, (DWORD)src->size()));
        EXPECT_EQ(*src, Decompress(stream, bt, (DWORD)src->size() + 100));
      }
    }
  }
  Bytes mix = MixedData(50000, 9);
  EXPECT_LT(Compress(mix, 0xC4).size(), mix.size() / 2);
}

TEST(LzssStream, DecoderArguments) {
  // An empty stream leaves the count alone.
  BYTE in[4] = {0x80, 0, 0, 0};
  BYTE out[8];
  DWORD len = 1234;
  EXPECT_EQ(0u, LZSSDecompress(in, 0, out, &len, 0x00));
  EXPECT_EQ(1234u, len);
  AssertCatcher catcher;
  for (BYTE bt : {0xC6, 0xD4, 0x94, 0xC0, 0x00}) {
    catcher.Clear();
    len = sizeof(out);
    EXPECT_EQ(0xFFB0u, LZSSDecompress(in, 4, out, &len, bt));
    EXPECT_TRUE(catcher.Fired("btBitLengths*0"));
  }
  catcher.Clear();
  for (BYTE bt : kAllParams) {
    len = sizeof(out);
    LZSSDecompress(in, 4, out, &len, bt);
  }
  EXPECT_EQ(0u, catcher.Count());
}

TEST(LzssSkip, AllZeroStreamIsSkips) {
  Bytes initial = FromString("0123456789ABCDEF");
  ERR err;
  Bytes out = Decompress(Bytes(6, 0), 0xC4, 16, &err, initial);
  EXPECT_EQ(0u, err);
  // 17-bit skips of 2 bytes: tokens start at bits 0, 17 and 34 (before the last byte); the
  // fourth would start at bit 51, inside byte 6 - past the last byte index 5.
  EXPECT_EQ(Bytes(initial.begin(), initial.begin() + 6), out);
}

TEST(LzssSkip, ReferenceRunsBecomeSkips) {
  Bytes ref = MixedData(5000, 3);
  Bytes src(ref);
  for (size_t k = 100; k < src.size(); k += 211) src[k] ^= 0x5A;
  Bytes refPadded(ref);
  refPadded.push_back(0);
  Bytes withRef = Compress(src, 0xC4, refPadded.data());
  std::vector<Token> t = ParseTokens(withRef, 0xC4);
  size_t skips = 0;
  for (const Token& k : t) skips += !k.bLiteral && k.dwCode == 0;
  EXPECT_GT(skips, 20u);
  EXPECT_LT(withRef.size(), Compress(src, 0xC4).size());
  // Decoded over the reference it gives the new text; the skipped bytes are left untouched.
  EXPECT_EQ(src, Decompress(withRef, 0xC4, (DWORD)src.size(), nullptr, ref));
  Bytes blank(src.size(), 0xEE);
  Bytes overBlank = Decompress(withRef, 0xC4, (DWORD)src.size(), nullptr, blank);
  EXPECT_EQ(ApplyTokens(t, 0xC4, blank), overBlank);
  EXPECT_NE(overBlank.end(), std::find(overBlank.begin(), overBlank.end(), 0xEE));
}

// ---------------------------------------------------------------------------------------------
// Corrupt streams: never a byte outside the buffers, whatever the input.

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
    ERR err;
    Bytes out = Decompress(Bytes(stream.begin(), stream.begin() + cut), 0xC4, (DWORD)src.size(), &err);
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

// ---------------------------------------------------------------------------------------------
// Streams written here token by token, so the decoder meets what the encoder rarely makes:
// skips straight after runs of literals, matches at every short distance, long matches that
// overlap themselves. The decoder's fast loops (plain moves everywhere, masked moves where the
// processor has them) and its careful loop are each checked, and every byte of the output
// buffer is compared, including those the stream never reaches, which keep the reference text.

namespace {

// A valid token list for at most dwCap bytes of output.
std::vector<Token> RandomTokens(BYTE bt, std::mt19937& rng, DWORD dwCap) {
  const DWORD W = LZSSWindow(bt), M = LZSSMaxMatch(bt);
  std::vector<Token> tokens;
  DWORD out = 0;
  while (true) {
    unsigned r = rng() % 16;
    if (out == 0 || r < 7) {
      if (out + 1 > dwCap) break;
      tokens.push_back(Lit((BYTE)rng()));
      out++;
    } else {
      DWORD len = 2 + rng() % (M - 1);
      if (out + len > dwCap) break;
      DWORD dist = 0;  // r == 7: a skip
      if (r > 7 && r < 12)
        dist = 1 + rng() % std::min<DWORD>(out, 20);  // close, often overlapping
      else if (r >= 12)
        dist = 1 + rng() % std::min<DWORD>(out, W - 1);
      tokens.push_back(Match(bt, dist, len));
      out += len;
    }
  }
  return tokens;
}

// Decodes the tokens' stream over a buffer of reference text with both loops, once with the
// exact room and once with room to spare, and compares every byte of the buffer.
void ExpectTokensDecode(const std::vector<Token>& tokens, BYTE bt, const std::string& what) {
  Bytes stream = EncodeTokens(tokens, bt);
  size_t produced = ApplyTokens(tokens, bt, Bytes()).size();
  Bytes reference = RandomData(produced + 80, (unsigned)produced * 7 + bt);
  Bytes expected = ApplyTokens(tokens, bt, reference);
  expected.insert(expected.end(), reference.begin() + produced, reference.end());
  for (BOOL plain : {TRUE, FALSE}) {
    LZSSDecodeUsePlain(plain);
    for (DWORD cap : {(DWORD)produced, (DWORD)reference.size()}) {
      SCOPED_TRACE(testing::Message() << what << " plain " << plain << " cap " << cap);
      Bytes out(reference);
      DWORD len = cap;
      EXPECT_EQ(0u, LZSSDecompress(stream.data(), (DWORD)stream.size(), out.data(), &len, bt));
      EXPECT_EQ(produced, len);
      EXPECT_EQ(expected, out);
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
    std::vector<Token> tokens;
    for (DWORD k = 0; k < 48; k++) tokens.push_back(Lit((BYTE)(k * 37 + 11)));
    for (DWORD dist = 1; dist <= 40; dist++) {
      for (DWORD len = 2; len <= LZSSMaxMatch(bt); len++) {
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

TEST(LzssDecodePaths, OutputFullTouchesNothingPastTheCapacity) {
  // Every capacity short of the output fails with ERR_BUFSMALL, gives a correct prefix that
  // stops at most one match short, and leaves the guard bytes after the capacity alone.
  Bytes run(1000, 'z'), mixed = MixedData(3000, 9);
  std::vector<DWORD> runCaps = {0, 1, 5, 17, 18, 999}, mixedCaps;
  for (DWORD cap = 2900; cap < 3000; cap++) mixedCaps.push_back(cap);
  for (BOOL plain : {TRUE, FALSE}) {
    LZSSDecodeUsePlain(plain);
    for (const auto& c : {std::make_pair(&run, &runCaps), std::make_pair(&mixed, &mixedCaps)}) {
      const Bytes& src = *c.first;
      Bytes stream = Compress(src, 0xC4);
      for (DWORD cap : *c.second) {
        SCOPED_TRACE(testing::Message() << "plain " << plain << " cap " << cap);
        Bytes out(cap + 64, 0x5A);
        DWORD len = cap;
        ERR err = LZSSDecompress(stream.data(), (DWORD)stream.size(), out.data(), &len, 0xC4);
        EXPECT_EQ((DWORD)ERR_BUFSMALL, err);
        ASSERT_LE(len, cap);
        EXPECT_GE(len + LZSSMaxMatch(0xC4), cap);
        EXPECT_TRUE(std::equal(src.begin(), src.begin() + len, out.begin()));
        EXPECT_EQ(Bytes(64, 0x5A), Bytes(out.begin() + cap, out.end()));
      }
      EXPECT_EQ(src, Decompress(stream, 0xC4, (DWORD)src.size()));
    }
  }
  LZSSDecodeUsePlain(FALSE);
}

TEST(LzssDecodePaths, DistancePastTheStartStopsAtThatToken) {
  // r literals, then a match reaching one byte before the start: an error with exactly the r
  // literals out, wherever the match falls in the fast loop's steps; one byte closer it is valid.
  for (BOOL plain : {TRUE, FALSE}) {
    LZSSDecodeUsePlain(plain);
    for (DWORD r = 1; r <= 60; r++) {
      SCOPED_TRACE(testing::Message() << "plain " << plain << " r " << r);
      std::vector<Token> tokens;
      for (DWORD k = 0; k < r; k++) tokens.push_back(Lit((BYTE)(k + 1)));
      tokens.push_back(Match(0xC4, r + 1, 5));
      for (DWORD k = 0; k < 40; k++) tokens.push_back(Lit((BYTE)k));
      ERR err;
      Bytes out = Decompress(EncodeTokens(tokens, 0xC4), 0xC4, 400, &err);
      EXPECT_EQ((DWORD)ERR_BADFORMAT, err);
      ASSERT_EQ(r, out.size());
      EXPECT_EQ(ApplyTokens(std::vector<Token>(tokens.begin(), tokens.begin() + r), 0xC4, Bytes()), out);
      tokens[r] = Match(0xC4, r, 5);
      out = Decompress(EncodeTokens(tokens, 0xC4), 0xC4, 400);
      EXPECT_EQ(ApplyTokens(tokens, 0xC4, Bytes()), out);
    }
  }
  LZSSDecodeUsePlain(FALSE);
}

TEST(LzssDecodePaths, BothLoopsAgreeOnGeneratedStreams) {
  std::mt19937 rng(4242);
  for (BYTE bt : kAllParams) {
    for (int round = 0; round < 8; round++)
      ExpectTokensDecode(RandomTokens(bt, rng, 50 + rng() % 6000), bt, "round " + std::to_string(round));
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

// Inputs that stress the tree and the ranking in different ways: noise (0), few symbols (1:
// deep ties and many equal neighbours), long runs (2: equal texts), text with repeats at every
// distance (3); and the hard ones for ranking: one byte repeated (4), a short period (5), texts
// that share all but their last byte (6).
Bytes Generated(int kind, size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes out(n);
  for (size_t i = 0; i < n; i++) {
    if (kind == 0)
      out[i] = (BYTE)rng();
    else if (kind == 1)
      out[i] = (BYTE)(rng() % 3);
    else if (kind == 2)
      out[i] = (i > 0 && rng() % 12) ? out[i - 1] : (BYTE)(rng() % 4);
    else if (kind == 3)
      out[i] = (i >= 20 && rng() % 16) ? out[i - 1 - rng() % 19] : (BYTE)('a' + rng() % 6);
    else if (kind == 4)
      out[i] = 'x';
    else if (kind == 5)
      out[i] = (BYTE)("abcabdabc"[i % 9]);
    else
      out[i] = (i % 40 == 39) ? (BYTE)(i / 40) : 0;
  }
  return out;
}

}  // namespace

TEST(LzssEncoder, RankedAndTreeStreamsAgree) {
  // Sizes around the window and block limits, and around the longest match at the very end.
  unsigned seed = 1;
  for (size_t n : {1, 2, 3, 5, 18, 19, 20, 35, 36, 100, 4094, 4095, 4096, 4097, 9000, 32768}) {
    for (int kind = 0; kind < 4; kind++)
      ExpectSameStreams(Generated(kind, n, seed++), 0xC4, nullptr, LZSSMaxCompressed((DWORD)n), "generated");
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
  // With a reference, and with capacities that run out early, in the middle and a byte short.
  Bytes src = MixedData(20000, 77), ref(src);
  std::mt19937 rng(5);
  for (auto& c : ref)
    if (rng() % 9 == 0) c ^= (BYTE)(1 + rng() % 7);
  ExpectSameStreams(src, 0xC4, ref.data(), LZSSMaxCompressed(20000), "reference");
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

}  // namespace

TEST(LzssRanks, FollowTheSortedTexts) {
  unsigned seed = 7000;
  for (DWORD M : {2u, 3u, 5u, 9u, 17u, 33u}) {
    for (size_t n : {(size_t)M + 2, (size_t)M + 3, (size_t)100, (size_t)4096, (size_t)32768}) {
      for (int kind = 0; kind < 7; kind++) {
        SCOPED_TRACE(testing::Message() << "M " << M << ", kind " << kind << ", " << n << " bytes");
        ExpectRanksFollowTexts(Generated(kind, n, seed++), M);
      }
      SCOPED_TRACE(testing::Message() << "M " << M << ", mixed, " << n << " bytes");
      ExpectRanksFollowTexts(MixedData(n, seed++), M);
    }
  }
  // The largest block the encoder ranks.
  for (DWORD M : {3u, 17u, 33u}) {
    for (int kind : {0, 3, 4, 6}) {
      SCOPED_TRACE(testing::Message() << "M " << M << ", kind " << kind << ", largest block");
      ExpectRanksFollowTexts(Generated(kind, 0x10000, seed++), M);
    }
    ExpectRanksFollowTexts(MixedData(0x10000, seed++), M);
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
