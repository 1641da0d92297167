// A native volume and file written on the C runtime's buffered streams; an alternative to the
// operating system's handles that nothing registers by default.
#pragma once

#include <stdio.h>

#include "files/file.h"

// Results of this pair. They belong to no registered module, so reports print "Unknown".
#define ERR_STDFILE_BADMODE 0x00050001u  // Open: a mode other than 1, 3 or 0x0F
#define ERR_STDFILE_OPEN 0x00050002u     // Open: the stream could not be opened
#define ERR_STDFILE_READ 0x00050003u     // Read: a short chunk without the end of the stream
#define ERR_STDFILE_WRITE 0x00050004u    // Write: a short chunk

// Size of one transfer to or from the stream.
#define STDFILE_CHUNK 0xF000u

// A file over a stream, which it owns: deleting the file closes the stream.
class CStdFile : public CFile {
  DECLARE_CLASS()
 public:
  // pFile: an open stream (asserts "pFile"). wMode is the open mode.
  CStdFile(FILE* pFile, WORD wMode);
  ~CStdFile() override;

  // Both transfer in chunks of STDFILE_CHUNK. On a short transfer the count is what was
  // moved; Read gives ERR_FILE_EOF at the end of the stream and ERR_STDFILE_READ otherwise,
  // Write gives ERR_STDFILE_WRITE.
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override;
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override;
  // Origins 0, 1, 2; returns 0 (ERR_BADPARAM for any other origin).
  ERR Seek(LONG lOfs, SHORT wOrigin) override;
  // Leaves the position where it was.
  DWORD GetSize() override;
  DWORD GetPos() override;
  ERR Flush() override;
  // Streams cannot be cut: does nothing and returns 0.
  ERR Truncate() override;

 protected:
  FILE* m_pFile;
};

// The volume of streams. Only Open is supported: the rest is the base class's.
class CStdFS : public CFS {
  DECLARE_CLASS()
 public:
  // Modes 1 ("rb"), 3 ("r+b") and 0x0F ("w+b"); any other stores ERR_STDFILE_BADMODE. A
  // stream that cannot be opened stores ERR_STDFILE_OPEN; success stores 0. The caller
  // deletes the file.
  CFile* Open(const char* pchPath, WORD wMode, ERR* pErr) override;
};

// Register a CStdFS under the empty prefix, and remove and delete it again. It takes the
// native volume's place, so the two cannot be registered together. StdFSInit returns 0, or the
// refusal of a full table (the volume is then deleted).
ERR StdFSInit();
ERR StdFSDone();
