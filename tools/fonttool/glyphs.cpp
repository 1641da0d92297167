// fonttool: glyph sets read from the sources a skin author has (a glyph-sheet bitmap, a BDF
// text font) and turned into an image font.
#include "glyphs.h"

#include <stdio.h>
#include <string.h>

#include <fstream>
#include <map>
#include <sstream>

#include "files/stdfile.h"
#include "graphics/bmpfile.h"

// ---------------------------------------------------------------------------------------------
// Glyph sheet

bool ReadSheet(const std::string& path, const SheetOptions& opt, GlyphSet* pSet, std::string* pErr) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) {
    *pErr = "cannot open " + path;
    return false;
  }
  CStdFile file(f, FILE_MODE_READ);
  ERR err = 0;
  CBitmap* pSheet = BmpRead(&file, &err, FALSE);
  if (!pSheet) {
    char buf[32];
    snprintf(buf, sizeof(buf), "0x%08X", (unsigned)err);
    *pErr = path + " is not a bitmap this system reads (error " + buf + ")";
    return false;
  }
  struct Holder {
    CBitmap* p;
    ~Holder() { delete p; }
  } hold{pSheet};
  if (pSheet->m_nBitsPerPixel != 8) {
    *pErr = path + " has " + std::to_string(pSheet->m_nBitsPerPixel) +
            " bits per pixel: a glyph sheet is an 8-bit (palette) image";
    return false;
  }
  if (opt.cols < 1 || opt.rows < 1 || pSheet->m_nWidth % opt.cols || pSheet->m_nHeight % opt.rows) {
    *pErr = "the sheet's " + std::to_string(pSheet->m_nWidth) + " x " + std::to_string(pSheet->m_nHeight) +
            " pixels don't divide into " + std::to_string(opt.cols) + " x " + std::to_string(opt.rows) +
            " cells";
    return false;
  }
  const int cw = pSheet->m_nWidth / opt.cols, ch = pSheet->m_nHeight / opt.rows;
  if (opt.first < 0 || opt.first + opt.cols * opt.rows > 256) {
    *pErr = "cells from code " + std::to_string(opt.first) + " run past code 255";
    return false;
  }
  if (cw + opt.gap > 255 || opt.gap < 0) {
    *pErr =
        "cells of " + std::to_string(cw) + " pixels (and the gap) are wider than a character can be (255)";
    return false;
  }
  pSet->height = ch;
  pSet->palette.clear();
  CPalette* pPal = pSheet->m_pPalette;
  for (DWORD i = 0; pPal && i < pPal->m_dwColors && i < 256; i++) {
    TColor c = {0, 0, 0, 0};
    pPal->GetColor(i, &c);
    pSet->palette.push_back(Rgb8{c.btRed, c.btGreen, c.btBlue});
  }
  if (!HANDLE_LOCK(pSheet->m_hBits)) {
    *pErr = "out of memory";
    return false;
  }
  for (int n = 0; n < opt.cols * opt.rows; n++) {
    const int x0 = (n % opt.cols) * cw, y0 = (n / opt.cols) * ch;
    const int code = opt.first + n;
    int ink = 0;  // columns up to the last with a set pixel
    for (int y = 0; y < ch; y++) {
      const BYTE* row = pSheet->GetPixelPtr((SHORT)x0, (SHORT)(y0 + y));
      for (int x = 0; x < cw; x++)
        if (row[x]) ink = std::max(ink, x + 1);
    }
    SourceGlyph& g = pSet->chars[code];
    if (ink == 0 && code != ' ') continue;
    g.present = true;
    if (opt.fixed)
      g.width = cw;
    else if (ink == 0)
      g.width = opt.spaceWidth >= 0 ? opt.spaceWidth : cw / 2;
    else
      g.width = ink + opt.gap;
    g.width = std::min(g.width, 255);
    g.pixels.assign((size_t)g.width * ch, 0);
    for (int y = 0; y < ch; y++) {
      const BYTE* row = pSheet->GetPixelPtr((SHORT)x0, (SHORT)(y0 + y));
      for (int x = 0; x < g.width && x < cw; x++) g.pixels[(size_t)y * g.width + x] = row[x];
    }
  }
  HANDLE_UNLOCK(pSheet->m_hBits);
  return true;
}

// ---------------------------------------------------------------------------------------------
// BDF

namespace {

bool ParseInts(const std::string& rest, int* out, int n) {
  std::istringstream in(rest);
  for (int i = 0; i < n; i++)
    if (!(in >> out[i])) return false;
  return true;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool ReadBdf(const std::string& path, int inkIndex, GlyphSet* pSet, std::string* pErr, std::string* pWarn) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *pErr = "cannot open " + path;
    return false;
  }
  auto Fail = [&](int line, const std::string& what) {
    *pErr = path + ":" + std::to_string(line) + ": " + what;
    return false;
  };
  std::string text;
  int lineNo = 0;
  bool started = false;
  int bbox[4] = {0, 0, 0, 0};
  bool haveBox = false;
  int ascent = -1, descent = -1;
  // The character being read.
  bool inChar = false, inBitmap = false;
  int encoding = -1, dwidth = -1, bbx[4] = {0, 0, 0, 0}, bitmapRow = 0;
  bool haveBbx = false;
  std::vector<std::string> bitmap;
  struct Pending {
    int encoding, dwidth, bbx[4];
    std::vector<std::string> rows;
    int line;
  };
  std::vector<Pending> chars;
  int cut = 0;

  while (std::getline(in, text)) {
    lineNo++;
    if (!text.empty() && text.back() == '\r') text.pop_back();
    const size_t sp = text.find(' ');
    const std::string key = text.substr(0, sp);
    const std::string rest = sp == std::string::npos ? std::string() : text.substr(sp + 1);
    if (!started) {
      if (key.empty() || key == "COMMENT") continue;
      if (key != "STARTFONT") return Fail(lineNo, "not a BDF font (no STARTFONT line)");
      started = true;
      continue;
    }
    if (inBitmap) {
      if (key == "ENDCHAR") {
        inBitmap = inChar = false;
        if ((int)bitmap.size() != bbx[1]) return Fail(lineNo, "the bitmap has fewer rows than its BBX says");
        chars.push_back(Pending{encoding, dwidth, {bbx[0], bbx[1], bbx[2], bbx[3]}, bitmap, lineNo});
        continue;
      }
      if ((int)bitmap.size() >= bbx[1]) return Fail(lineNo, "the bitmap has more rows than its BBX says");
      for (char c : text)
        if (HexDigit(c) < 0) return Fail(lineNo, "bitmap rows are hexadecimal digits");
      if ((int)text.size() * 4 < bbx[0]) return Fail(lineNo, "a bitmap row is shorter than the BBX width");
      bitmap.push_back(text);
      bitmapRow++;
      continue;
    }
    if (key == "FONTBOUNDINGBOX") {
      if (!ParseInts(rest, bbox, 4)) return Fail(lineNo, "FONTBOUNDINGBOX needs four numbers");
      haveBox = true;
    } else if (key == "FONT_ASCENT") {
      if (!ParseInts(rest, &ascent, 1)) return Fail(lineNo, "FONT_ASCENT needs a number");
    } else if (key == "FONT_DESCENT") {
      if (!ParseInts(rest, &descent, 1)) return Fail(lineNo, "FONT_DESCENT needs a number");
    } else if (key == "STARTCHAR") {
      if (inChar) return Fail(lineNo, "STARTCHAR inside a character");
      inChar = true;
      encoding = dwidth = -1;
      haveBbx = false;
      bitmap.clear();
      bitmapRow = 0;
    } else if (key == "ENCODING" && inChar) {
      if (!ParseInts(rest, &encoding, 1)) return Fail(lineNo, "ENCODING needs a number");
    } else if (key == "DWIDTH" && inChar) {
      if (!ParseInts(rest, &dwidth, 1)) return Fail(lineNo, "DWIDTH needs a number");
    } else if (key == "BBX" && inChar) {
      if (!ParseInts(rest, bbx, 4) || bbx[0] < 0 || bbx[1] < 0 || bbx[0] > 4096 || bbx[1] > 4096)
        return Fail(lineNo, "BBX needs four numbers, a width and a height from 0 to 4096 first");
      haveBbx = true;
    } else if (key == "BITMAP" && inChar) {
      if (!haveBbx) return Fail(lineNo, "BITMAP before BBX");
      inBitmap = true;
    } else if (key == "ENDCHAR") {
      if (!inChar) return Fail(lineNo, "ENDCHAR outside a character");
      inChar = false;
    } else if (key == "ENDFONT") {
      break;
    }
  }
  if (!started) return Fail(lineNo, "not a BDF font (no STARTFONT line)");
  if (inChar) return Fail(lineNo, "the file ends inside a character");
  if (ascent < 0 || descent < 0) {
    if (!haveBox) return Fail(lineNo, "neither FONT_ASCENT and FONT_DESCENT nor FONTBOUNDINGBOX");
    ascent = bbox[1] + bbox[3];
    descent = -bbox[3];
  }
  const int height = ascent + descent;
  if (height < 1 || height > 1024)
    return Fail(lineNo, "a cell height of " + std::to_string(height) + " rows");

  pSet->height = height;
  pSet->palette = {Rgb8{0, 0, 0}};
  for (int i = 1; i <= inkIndex; i++) pSet->palette.push_back(Rgb8{255, 255, 255});
  int skipped = 0;
  for (const Pending& p : chars) {
    if (p.encoding < 0 || p.encoding > 255) {
      skipped++;
      continue;
    }
    SourceGlyph& g = pSet->chars[p.encoding];
    g.present = true;
    g.width = p.dwidth >= 0 ? p.dwidth : p.bbx[0] + std::max(0, p.bbx[2]);
    if (g.width > 255) return Fail(p.line, "a character wider than 255 pixels");
    g.pixels.assign((size_t)g.width * height, 0);
    // The BBX's lower left corner is at (x offset, y offset) from the origin on the baseline.
    const int top = ascent - (p.bbx[3] + p.bbx[1]);
    for (int j = 0; j < p.bbx[1]; j++)
      for (int i = 0; i < p.bbx[0]; i++) {
        const int nibble = HexDigit(p.rows[j][i / 4]);
        if (!(nibble & (8 >> (i % 4)))) continue;
        const int x = p.bbx[2] + i, y = top + j;
        if (x < 0 || x >= g.width || y < 0 || y >= height) {
          cut++;
          continue;
        }
        g.pixels[(size_t)y * g.width + x] = (uint8_t)inkIndex;
      }
  }
  if (pWarn) {
    pWarn->clear();
    if (skipped) *pWarn += std::to_string(skipped) + " characters with codes past 255 left out\n";
    if (cut) *pWarn += std::to_string(cut) + " pixels outside their character's cell cut off\n";
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Image font

CImageFont* BuildImageFont(const GlyphSet& set, int spacing, std::string* pErr) {
  if (set.height < 1 || set.height > 1024) {
    *pErr = "a cell height of " + std::to_string(set.height) + " rows";
    return nullptr;
  }
  TFontHeader hdr;
  memset(&hdr, 0, sizeof(hdr));
  hdr.nHeight = (SHORT)set.height;
  hdr.nSpacing = (SHORT)spacing;
  std::map<std::pair<int, std::vector<uint8_t>>, int> seen;
  std::vector<const SourceGlyph*> glyphs;
  int maxWidth = 0;
  for (int c = 0; c < 256; c++) {
    const SourceGlyph& g = set.chars[c];
    hdr.abtIndex[c] = FONT_NO_GLYPH;
    if (!g.present) continue;
    hdr.abtWidth[c] = (BYTE)g.width;
    maxWidth = std::max(maxWidth, g.width);
    auto key = std::make_pair(g.width, g.pixels);
    auto it = seen.find(key);
    if (it == seen.end()) {
      it = seen.emplace(key, (int)glyphs.size()).first;
      glyphs.push_back(&g);
    }
    hdr.abtIndex[c] = (BYTE)it->second;
  }
  if (glyphs.empty()) {
    *pErr = "the source has no characters";
    return nullptr;
  }
  if ((long)glyphs.size() * set.height > 0x7FFF) {
    *pErr = std::to_string(glyphs.size()) + " glyphs of " + std::to_string(set.height) +
            " rows are taller than an image can be (32767 rows)";
    return nullptr;
  }
  hdr.nGlyphs = (SHORT)glyphs.size();
  hdr.nMaxWidth = (SHORT)maxWidth;

  CPalette* pPal = new CPalette();
  const DWORD nColors = (DWORD)std::max<size_t>(set.palette.size(), 2);
  if (!pPal || pPal->SetSize(nColors) != 0) {
    delete pPal;
    *pErr = "out of memory";
    return nullptr;
  }
  for (DWORD i = 0; i < nColors; i++) {
    const Rgb8 c = i < set.palette.size() ? set.palette[i] : Rgb8{255, 255, 255};
    TColor t = MakeColor(c.r, c.g, c.b);
    pPal->SetColor(i, &t);
  }
  CBitmap* pImage = new CBitmap();
  if (!pImage || pImage->Create((SHORT)std::max(maxWidth, 1), (SHORT)(glyphs.size() * set.height), BF_8BIT,
                                pPal, BL_FORWARD, 0) != 0) {
    if (!pImage) delete pPal;
    delete pImage;
    *pErr = "out of memory";
    return nullptr;
  }
  BYTE* pBits = static_cast<BYTE*>(HANDLE_LOCK(pImage->m_hBits));
  if (!pBits) {
    delete pImage;
    *pErr = "out of memory";
    return nullptr;
  }
  memset(pBits, 0, pImage->m_dwSize);
  for (size_t n = 0; n < glyphs.size(); n++) {
    const SourceGlyph& g = *glyphs[n];
    for (int y = 0; y < set.height; y++) {
      BYTE* row = pImage->GetPixelPtr(0, (SHORT)(n * set.height + y));
      for (int x = 0; x < g.width; x++) row[x] = g.pixels[(size_t)y * g.width + x];
    }
  }
  HANDLE_UNLOCK(pImage->m_hBits);
  CImageFont* pFont = new CImageFont();
  if (!pFont) {
    delete pImage;
    *pErr = "out of memory";
    return nullptr;
  }
  pFont->SetImage(pImage, &hdr);
  return pFont;
}
