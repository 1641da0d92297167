#!/usr/bin/env bash
# Remakes the bitmap fixtures of this folder with ImageMagick (and python3 for the pictures and
# the row reordering). The tests only read the committed files; nothing here runs in CI.
set -euo pipefail
cd "$(dirname "$0")"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# The two pictures, 13 x 7 (odd width: every row is padded): 24 flat colours for the 8-bit
# files, a gradient for the 24-bit ones. test_bmpfile.cpp computes the same colours.
python3 - "$tmp" <<'PY'
import sys
W, H = 13, 7
C8 = [(0,0,0),(255,255,255),(255,0,0),(0,160,0),(0,0,255),(255,255,0),(0,255,255),(255,0,255),
      (128,64,32),(32,64,128),(200,200,200),(90,10,170)] + [(i*10, 255-i*10, (i*53) & 255) for i in range(12)]
def c8(x, y): return C8[(x + 2*y) % 24]
def c24(x, y): return ((x*19) & 255, (y*37) & 255, (x*y*11 + 5) & 255)
for name, f in (("fix8.ppm", c8), ("fix24.ppm", c24)):
    with open(sys.argv[1] + "/" + name, "wb") as o:
        o.write(b"P6 %d %d 255\n" % (W, H))
        for y in range(H):
            for x in range(W):
                o.write(bytes(f(x, y)))
PY

# ImageMagick writes bottom-up files; 8 bits with a 256-entry colour table, uncompressed.
convert "$tmp/fix8.ppm" -type Palette -compress None BMP3:im_8bit_bottomup.bmp
convert "$tmp/fix24.ppm" -type TrueColor -compress None BMP3:im_24bit_bottomup.bmp

# ImageMagick can't write top-down files; these are its files with the rows put in top-down
# order and the height field negated, nothing else changed. ImageMagick reads them back as the
# same picture (checked below).
python3 - <<'PY'
import struct
for src, dst in (("im_8bit_bottomup.bmp", "im_8bit_topdown.bmp"), ("im_24bit_bottomup.bmp", "im_24bit_topdown.bmp")):
    d = bytearray(open(src, "rb").read())
    off = struct.unpack_from("<I", d, 10)[0]
    w, h = struct.unpack_from("<ii", d, 18)
    bits = struct.unpack_from("<H", d, 28)[0]
    pitch = (w * bits // 8 + 3) & ~3
    rows = [bytes(d[off + i*pitch: off + (i+1)*pitch]) for i in range(h)]
    d[off:off + h*pitch] = b"".join(reversed(rows))
    struct.pack_into("<i", d, 22, -h)
    open(dst, "wb").write(d)
PY
for f in 8bit 24bit; do
  cmp <(convert im_${f}_bottomup.bmp ppm:-) <(convert im_${f}_topdown.bmp ppm:-)
done

# Broken files kept as regression cases.
mkdir -p broken
python3 - <<'PY'
import struct
good = open("im_8bit_bottomup.bmp", "rb").read()
open("broken/truncated_pixels.bmp", "wb").write(good[:1100])
open("broken/truncated_table.bmp", "wb").write(good[:300])
d = bytearray(good); struct.pack_into("<I", d, 14, 0xFFFFFFFF); open("broken/huge_infosize.bmp", "wb").write(d)
d = bytearray(good); struct.pack_into("<I", d, 10, 20); open("broken/offbits_inside_header.bmp", "wb").write(d)
d = bytearray(good); struct.pack_into("<ii", d, 18, 32767, -32767); open("broken/huge_dimensions.bmp", "wb").write(d)
d = bytearray(good); struct.pack_into("<i", d, 18, -13); open("broken/negative_width.bmp", "wb").write(d)
PY
