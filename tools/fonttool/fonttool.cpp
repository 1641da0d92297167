// fonttool: builds image fonts from glyph sheets and BDF fonts, converts them to run-length
// fonts, renders a line of text for preview, and describes font files.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "files/stdfile.h"
#include "glyphs.h"
#include "graphics/bmpfile.h"
#include "graphics/sfont.h"

namespace fs = std::filesystem;

namespace {

const char kUsage[] =
    "usage: fonttool bdf IN.bdf OUT.fnt [--spacing N] [--ink N]\n"
    "           build an image font from a BDF font: codes 0 to 255, cell height ascent + descent,\n"
    "           set pixels get palette index --ink (1)\n"
    "       fonttool sheet IN.bmp OUT.fnt [--cols N] [--rows N] [--first CODE] [--gap N]\n"
    "                [--space N] [--fixed] [--spacing N]\n"
    "           build an image font from an 8-bit glyph sheet: a grid of --cols x --rows (16 x 16)\n"
    "           equal cells holding codes --first (0) on in reading order; index 0 is transparent;\n"
    "           a character is as wide as its ink plus --gap (1) columns, or its cell with --fixed;\n"
    "           empty cells have no glyph, but code 32 gets a blank one --space pixels wide\n"
    "           (half a cell)\n"
    "       fonttool sfnt IN.fnt OUT.sfn\n"
    "           convert an image font to a run-length (SFNT) font\n"
    "       fonttool render FONT OUT.bmp TEXT [--depth 8|16|24] [--color RRGGBB]... [--bg RRGGBB]\n"
    "                [--margin N]\n"
    "           draw TEXT with FONT (image or SFNT) into a bitmap; glyph index i takes the i-th\n"
    "           --color (default: the font's own palette, white for an SFNT font); --bg 000000\n"
    "       fonttool info FONT\n"
    "           print the measures of a font file\n"
    "       fonttool --help\n"
    "--spacing is subtracted from every advance (negative spreads the text). Output files are\n"
    "written beside their final name and renamed when complete.\n";

int Fail(const std::string& text) {
  fprintf(stderr, "fonttool: %s\n", text.c_str());
  return 1;
}

std::string Hex(ERR err) {
  char buf[16];
  snprintf(buf, sizeof(buf), "0x%08X", (unsigned)err);
  return buf;
}

// Writes OUT through a temporary file beside it, renamed into place only when write() succeeded.
int WriteOutput(const std::string& out, const std::function<ERR(CFile*)>& write) {
  const std::string tmp = out + ".fonttool-tmp";
  FILE* f = fopen(tmp.c_str(), "w+b");
  if (!f) return Fail("cannot create " + tmp);
  ERR err;
  {
    CStdFile file(f, FILE_MODE_CREATE);
    err = write(&file);
    if (!err) err = file.Flush();
  }
  std::error_code ec;
  if (err) {
    fs::remove(tmp, ec);
    return Fail("cannot write " + out + " (error " + Hex(err) + ")");
  }
  fs::rename(tmp, out, ec);
  if (ec) {
    fs::remove(tmp, ec);
    return Fail("cannot rename the output into place: " + out);
  }
  return 0;
}

// Loads either kind of font file, chosen by its first four bytes as the installer does; *pSfnt
// tells which it was.
CFont* LoadFont(const std::string& path, bool* pSfnt, std::string* pErr) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) {
    *pErr = "cannot open " + path;
    return nullptr;
  }
  BYTE magic[4] = {0, 0, 0, 0};
  const size_t n = fread(magic, 1, 4, f);
  fseek(f, 0, SEEK_SET);
  CStdFile file(f, FILE_MODE_READ);
  const bool sfnt = n == 4 && GetLE32(magic) == SFONT_MAGIC;
  *pSfnt = sfnt;
  CFont* pFont = sfnt ? static_cast<CFont*>(new CSFont()) : static_cast<CFont*>(new CImageFont());
  const ERR err = pFont ? pFont->Load(&file) : ERR_ALLOCFAIL;
  if (err) {
    delete pFont;
    *pErr = path + (sfnt ? " is a damaged SFNT font" : " is not an image font") + " (error " + Hex(err) + ")";
    return nullptr;
  }
  return pFont;
}

struct Args {
  std::vector<std::string> pos;
  std::vector<std::pair<std::string, std::string>> opts;
};

// Splits the arguments; options listed in withValue take the next argument as their value.
bool ParseArgs(int argc, char** argv, const std::vector<std::string>& withValue,
               const std::vector<std::string>& flags, Args* a, std::string* pErr) {
  for (int i = 2; i < argc; i++) {
    const std::string s = argv[i];
    if (s.size() > 2 && s[0] == '-' && s[1] == '-') {
      bool known = false;
      for (const auto& w : withValue)
        if (w == s) {
          if (i + 1 >= argc) {
            *pErr = s + " needs a value";
            return false;
          }
          a->opts.emplace_back(s, argv[++i]);
          known = true;
        }
      for (const auto& w : flags)
        if (w == s) {
          a->opts.emplace_back(s, "");
          known = true;
        }
      if (!known) {
        *pErr = "unknown option " + s;
        return false;
      }
    } else {
      a->pos.push_back(s);
    }
  }
  return true;
}

bool IntOpt(const Args& a, const char* name, int lo, int hi, int* out, std::string* pErr) {
  for (const auto& o : a.opts)
    if (o.first == name) {
      char* end = nullptr;
      const long v = strtol(o.second.c_str(), &end, 0);
      if (o.second.empty() || *end || v < lo || v > hi) {
        *pErr =
            std::string(name) + " takes a number from " + std::to_string(lo) + " to " + std::to_string(hi);
        return false;
      }
      *out = (int)v;
    }
  return true;
}

bool HasFlag(const Args& a, const char* name) {
  for (const auto& o : a.opts)
    if (o.first == name) return true;
  return false;
}

bool ParseColor(const std::string& s, TColor* c) {
  if (s.size() != 6) return false;
  char* end = nullptr;
  const unsigned long v = strtoul(s.c_str(), &end, 16);
  if (*end) return false;
  *c = MakeColor((BYTE)(v >> 16), (BYTE)(v >> 8), (BYTE)v);
  return true;
}

int SaveImageFont(CImageFont* pFont, const std::string& out) {
  const int rc = WriteOutput(out, [&](CFile* f) { return pFont->Save(f); });
  if (rc == 0)
    printf("%s: %d glyphs, %d rows, widest %d\n", out.c_str(), pFont->m_Header.nGlyphs,
           pFont->m_Header.nHeight, pFont->m_Header.nMaxWidth);
  return rc;
}

int CmdBdf(int argc, char** argv) {
  Args a;
  std::string err, warn;
  if (!ParseArgs(argc, argv, {"--spacing", "--ink"}, {}, &a, &err)) return Fail(err);
  if (a.pos.size() != 2) return Fail("bdf takes IN.bdf and OUT.fnt (see --help)");
  int spacing = 0, ink = 1;
  if (!IntOpt(a, "--spacing", -255, 255, &spacing, &err) || !IntOpt(a, "--ink", 1, 255, &ink, &err))
    return Fail(err);
  GlyphSet set;
  if (!ReadBdf(a.pos[0], ink, &set, &err, &warn)) return Fail(err);
  if (!warn.empty()) fprintf(stderr, "fonttool: %s", warn.c_str());
  CImageFont* pFont = BuildImageFont(set, spacing, &err);
  if (!pFont) return Fail(err);
  const int rc = SaveImageFont(pFont, a.pos[1]);
  delete pFont;
  return rc;
}

int CmdSheet(int argc, char** argv) {
  Args a;
  std::string err;
  if (!ParseArgs(argc, argv, {"--cols", "--rows", "--first", "--gap", "--space", "--spacing"}, {"--fixed"},
                 &a, &err))
    return Fail(err);
  if (a.pos.size() != 2) return Fail("sheet takes IN.bmp and OUT.fnt (see --help)");
  SheetOptions opt;
  int spacing = 0;
  if (!IntOpt(a, "--cols", 1, 256, &opt.cols, &err) || !IntOpt(a, "--rows", 1, 256, &opt.rows, &err) ||
      !IntOpt(a, "--first", 0, 255, &opt.first, &err) || !IntOpt(a, "--gap", 0, 255, &opt.gap, &err) ||
      !IntOpt(a, "--space", 0, 255, &opt.spaceWidth, &err) ||
      !IntOpt(a, "--spacing", -255, 255, &spacing, &err))
    return Fail(err);
  opt.fixed = HasFlag(a, "--fixed");
  GlyphSet set;
  if (!ReadSheet(a.pos[0], opt, &set, &err)) return Fail(err);
  CImageFont* pFont = BuildImageFont(set, spacing, &err);
  if (!pFont) return Fail(err);
  const int rc = SaveImageFont(pFont, a.pos[1]);
  delete pFont;
  return rc;
}

int CmdSfnt(int argc, char** argv) {
  Args a;
  std::string err;
  if (!ParseArgs(argc, argv, {}, {}, &a, &err)) return Fail(err);
  if (a.pos.size() != 2) return Fail("sfnt takes IN.fnt and OUT.sfn (see --help)");
  bool sfnt = false;
  CFont* pLoaded = LoadFont(a.pos[0], &sfnt, &err);
  if (!pLoaded) return Fail(err);
  if (sfnt) {
    delete pLoaded;
    return Fail(a.pos[0] + " is already an SFNT font");
  }
  CImageFont* pSrc = static_cast<CImageFont*>(pLoaded);
  CSFont* pDst = new CSFont();
  if (!ConvertToSFont(pSrc, pDst)) {
    delete pDst;
    delete pSrc;
    return Fail(a.pos[0] + " can't be converted: its image is not 8-bit");
  }
  int dropped = 0, high = 0;
  for (int c = 0; c < 256; c++) {
    if (pDst->m_anOffsets[c] < 0) dropped++;
    if (c >= 0x80 && pSrc->m_Header.abtWidth[c] && pSrc->m_Header.abtIndex[c] < pSrc->m_Header.nGlyphs)
      high++;
  }
  if (dropped) {
    delete pDst;
    delete pSrc;
    return Fail("the run data passes the 32767 bytes an SFNT font can address (" + std::to_string(dropped) +
                " characters left over); use fewer or smaller glyphs");
  }
  if (high)
    fprintf(
        stderr,
        "fonttool: warning: %d characters with codes from 0x80 on have glyphs, which an SFNT font does not "
        "draw\n",
        high);
  int rc = WriteOutput(a.pos[1], [&](CFile* f) { return pDst->Save(f); });
  if (rc == 0) printf("%s: %u bytes of run data\n", a.pos[1].c_str(), (unsigned)pDst->m_dwImageSize);
  delete pDst;
  delete pSrc;
  return rc;
}

int CmdRender(int argc, char** argv) {
  Args a;
  std::string err;
  if (!ParseArgs(argc, argv, {"--depth", "--color", "--bg", "--margin"}, {}, &a, &err)) return Fail(err);
  if (a.pos.size() != 3) return Fail("render takes FONT, OUT.bmp and TEXT (see --help)");
  int depth = 24, margin = 2;
  if (!IntOpt(a, "--depth", 8, 24, &depth, &err) || !IntOpt(a, "--margin", 0, 1000, &margin, &err))
    return Fail(err);
  if (depth != 8 && depth != 16 && depth != 24) return Fail("--depth is 8, 16 or 24");
  TColor bg = MakeColor(0, 0, 0);
  std::vector<TColor> colors;
  for (const auto& o : a.opts) {
    if (o.first == "--bg" && !ParseColor(o.second, &bg)) return Fail("--bg takes a colour as RRGGBB");
    if (o.first == "--color") {
      TColor c;
      if (!ParseColor(o.second, &c)) return Fail("--color takes a colour as RRGGBB");
      colors.push_back(c);
    }
  }
  bool sfnt = false;
  CFont* pFont = LoadFont(a.pos[0], &sfnt, &err);
  if (!pFont) return Fail(err);
  CImageFont* pImageFont = sfnt ? nullptr : static_cast<CImageFont*>(pFont);
  if (colors.empty()) {
    CPalette* pPal = pImageFont ? pImageFont->m_pFontImage->m_pPalette : nullptr;
    for (DWORD i = 1; pPal && i < pPal->m_dwColors && i < 256; i++) {
      TColor c;
      if (pPal->GetColor(i, &c) == 0) colors.push_back(MakeColor(c.btRed, c.btGreen, c.btBlue));
    }
    if (colors.empty()) colors.push_back(MakeColor(255, 255, 255));
  }
  const std::string& text = a.pos[2];
  const int width = std::max<int>(1, pFont->GetTextWidth(text.c_str(), (DWORD)text.size()) + 2 * margin);
  const int height = std::max<int>(1, pFont->GetHeight() + 2 * margin);
  if (width > 8000 || height > 8000) {
    delete pFont;
    return Fail("the picture would be " + std::to_string(width) + " x " + std::to_string(height) + " pixels");
  }
  // An 8-bit picture gets the background and the text colours as its palette.
  CPalette* pPal = nullptr;
  if (depth == 8) {
    pPal = new CPalette();
    const DWORD n = (DWORD)std::min<size_t>(colors.size() + 1, 256);
    pPal->SetSize(n);
    pPal->SetColor(0, &bg);
    for (DWORD i = 1; i < n; i++) pPal->SetColor(i, &colors[i - 1]);
  }
  CBitmap* pTarget = new CBitmap();
  const SHORT fmt = depth == 8 ? BF_8BIT : depth == 16 ? BF_16BIT : BF_24BIT;
  if (pTarget->Create((SHORT)width, (SHORT)height, fmt, pPal, BL_BACKWARD, 0) != 0) {
    delete pTarget;
    delete pFont;
    return Fail("out of memory");
  }
  {
    CMemoryDC dc(pTarget);
    DWORD dwBg = 0;
    dc.ColorToPixel(&bg, &dwBg);
    TRect rc;
    pTarget->GetRect(&rc);
    dc.FillRect(&rc, dwBg);
    pFont->DrawTextColors(&dc, (SHORT)margin, (SHORT)margin, text.c_str(), (DWORD)text.size(), colors.data(),
                          (DWORD)colors.size());
  }
  const int rc = WriteOutput(a.pos[1], [&](CFile* f) { return BmpWrite(f, pTarget, 0); });
  if (rc == 0) printf("%s: %d x %d pixels, %d bits\n", a.pos[1].c_str(), width, height, depth);
  delete pTarget;
  delete pFont;
  return rc;
}

int CmdInfo(int argc, char** argv) {
  Args a;
  std::string err;
  if (!ParseArgs(argc, argv, {}, {}, &a, &err)) return Fail(err);
  if (a.pos.size() != 1) return Fail("info takes FONT (see --help)");
  bool sfnt = false;
  CFont* pFont = LoadFont(a.pos[0], &sfnt, &err);
  if (!pFont) return Fail(err);
  const TFontHeader& h = pFont->m_Header;
  CSFont* pS = sfnt ? static_cast<CSFont*>(pFont) : nullptr;
  CImageFont* pI = sfnt ? nullptr : static_cast<CImageFont*>(pFont);
  printf("kind: %s\n", pS ? "SFNT (run-length)" : "image");
  printf("height: %d\nwidest: %d\nspacing: %d\nglyphs: %d\npad above: %d\npad below: %d\n", h.nHeight,
         h.nMaxWidth, h.nSpacing, h.nGlyphs, h.nPadAbove, h.nPadBelow);
  int drawn = 0;
  std::string codes;
  for (int c = 0; c < 256; c++)
    if (h.abtIndex[c] < h.nGlyphs) {
      drawn++;
      if (c >= 0x21 && c < 0x7F) codes += (char)c;
    }
  printf("characters with glyphs: %d\nprintable ASCII among them: %s\n", drawn, codes.c_str());
  if (pI)
    printf("image: %d x %d, %d bits\n", pI->m_pFontImage->m_nWidth, pI->m_pFontImage->m_nHeight,
           pI->m_pFontImage->m_nBitsPerPixel);
  if (pS) printf("run data: %u bytes\n", (unsigned)pS->m_dwImageSize);
  delete pFont;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fputs(kUsage, stderr);
    return 2;
  }
  const std::string cmd = argv[1];
  if (cmd == "--help" || cmd == "-h") {
    fputs(kUsage, stdout);
    return 0;
  }
  if (cmd == "bdf") return CmdBdf(argc, argv);
  if (cmd == "sheet") return CmdSheet(argc, argv);
  if (cmd == "sfnt") return CmdSfnt(argc, argv);
  if (cmd == "render") return CmdRender(argc, argv);
  if (cmd == "info") return CmdInfo(argc, argv);
  fprintf(stderr, "fonttool: unknown command %s\n", cmd.c_str());
  fputs(kUsage, stderr);
  return 2;
}
