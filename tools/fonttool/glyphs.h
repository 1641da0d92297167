// fonttool: glyph sets read from the sources a skin author has (a glyph-sheet bitmap, a BDF
// text font) and turned into an image font.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "graphics/font.h"

// One character of a source: its advance and its pixels (height rows of width palette
// indices, 0 transparent). A character that isn't present gets no glyph.
struct SourceGlyph {
  bool present = false;
  int width = 0;
  std::vector<uint8_t> pixels;
};

struct Rgb8 {
  uint8_t r, g, b;
};

// The 256 characters of a font being built, with the colours of its palette.
struct GlyphSet {
  int height = 0;
  SourceGlyph chars[256];
  std::vector<Rgb8> palette;  // index 0 is the transparent one
};

// Options of the glyph-sheet reader.
struct SheetOptions {
  int cols = 16, rows = 16;
  int first = 0;        // code of the first cell
  int gap = 1;          // transparent columns after the ink of a proportional character
  int spaceWidth = -1;  // width of code 32 when its cell is empty; -1: half a cell
  bool fixed = false;   // every character as wide as its cell
};

// Each returns false with a message in *pErr (which names the line for text sources).
bool ReadSheet(const std::string& path, const SheetOptions& opt, GlyphSet* pSet, std::string* pErr);
// inkIndex: the palette index set pixels get.
bool ReadBdf(const std::string& path, int inkIndex, GlyphSet* pSet, std::string* pErr, std::string* pWarn);

// An image font of the set: identical glyphs shared, characters not present without a glyph.
// The caller deletes the font; 0 with a message on failure.
CImageFont* BuildImageFont(const GlyphSet& set, int spacing, std::string* pErr);
