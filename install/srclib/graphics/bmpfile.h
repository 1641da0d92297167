// Reading and writing bitmap files: uncompressed 8-, 16- and 24-bit images with an optional
// colour table, in either row order.
#pragma once

#include "files/file.h"
#include "graphics/graphics.h"

#define ERR_BMP_NOFILE 0x38020008u    // no file was given (or it could not be opened)
#define ERR_BMP_BADMAGIC 0x38020009u  // the file does not start with "BM" or "MB"

// Reads one image from the current position of pFile. Returns a new bitmap that the caller
// deletes, or 0 with the reason through pErr (which may be 0): ERR_BMP_NOFILE, ERR_BMP_BADMAGIC,
// ERR_FILE_NOMEM when the header, palette or bitmap object can't be allocated, ERR_BMP_BADFORMAT
// for a bit count other than 8, 16 or 24, ERR_LOCKFAIL, ERR_BMP_NOMEM, or the file's own error
// (ERR_FILE_EOF when the file is shorter than its headers say). An 8-bit image gets its colour
// table as its palette; other depths skip the table. A bottom-up file keeps the backward layout
// in memory. With bHeaderOnly the pixel block is allocated but not read and there is no palette.
CBitmap* BmpRead(CFile* pFile, ERR* pErr, BOOL bHeaderOnly);
// Writes pBitmap with its palette, if any, as a colour table. nLayout 0 keeps the row order;
// BL_FORWARD or BL_BACKWARD first changes the bitmap in memory with SetLayout. 0, ERR_BMP_NOFILE,
// ERR_BADPARAM for no bitmap, ERR_LOCKFAIL, or the file's error.
ERR BmpWrite(CFile* pFile, CBitmap* pBitmap, SHORT nLayout);
// BmpRead and BmpWrite on a path opened through the volume table (read mode, and create mode
// for saving); the file is closed afterwards.
CBitmap* BmpLoad(const char* pchPath, ERR* pErr, BOOL bHeaderOnly);
ERR BmpSave(const char* pchPath, CBitmap* pBitmap, SHORT nLayout);
// The size of the image in a file, from its header. Returns BmpRead's error; the sizes are
// written only on success.
ERR BmpGetSize(const char* pchPath, SHORT* pnWidth, SHORT* pnHeight);
