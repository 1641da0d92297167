// lzss: writes files in the compressed page format, reads them back, and describes them.
#include <stdio.h>
#include <string.h>

#include <filesystem>
#include <string>
#include <vector>

#include "files/lzssfile.h"
#include "files/lzssfunc.h"

namespace fs = std::filesystem;

namespace {

const char kUsage[] =
    "usage: lzss pack IN OUT     write IN as a compressed file (pages of 32768 bytes)\n"
    "       lzss unpack IN OUT   write the logical bytes of the compressed file IN to OUT\n"
    "       lzss info FILE       print the header, page count and ratio of FILE\n"
    "       lzss --help\n"
    "OUT is written to a temporary file beside it and renamed when complete.\n";

// A host file as the media of a compressed file. Files of the format stay below 4 GiB.
class HostFile : public CFile {
 public:
  HostFile(FILE* f, WORD wMode) : m_f(f) {
    m_wMode = wMode;
    m_bValid = f != nullptr;
  }
  ~HostFile() override {
    if (m_f) fclose(m_f);
  }
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override {
    size_t n = fread(pBuf, 1, dwCount, m_f);
    if (pdwRead) *pdwRead = (DWORD)n;
    if (n == dwCount) return 0;
    return ferror(m_f) ? ERR_FILE_READ : ERR_FILE_EOF;
  }
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override {
    size_t n = fwrite(pBuf, 1, dwCount, m_f);
    if (pdwWritten) *pdwWritten = (DWORD)n;
    return n == dwCount ? 0 : ERR_FILE_WRITE;
  }
  ERR Seek(LONG lOfs, SHORT wOrigin) override {
    long long base = wOrigin == FILE_BEGIN     ? 0
                     : wOrigin == FILE_CURRENT ? (long long)GetPos()
                                               : (long long)GetSize();
    long long to = base + lOfs;
    if (to < 0) return ERR_FILE_SEEK;
    // Past the end the file grows with zeros, as a native file does on the next write.
    if (to > (long long)GetSize()) {
      fseek(m_f, 0, SEEK_END);
      std::vector<char> zero((size_t)(to - GetSize()), 0);
      if (fwrite(zero.data(), 1, zero.size(), m_f) != zero.size()) return ERR_FILE_WRITE;
    }
    return fseek(m_f, (long)to, SEEK_SET) ? ERR_FILE_SEEK : 0;
  }
  DWORD GetSize() override {
    long pos = ftell(m_f);
    fseek(m_f, 0, SEEK_END);
    long size = ftell(m_f);
    fseek(m_f, pos, SEEK_SET);
    return (DWORD)size;
  }
  DWORD GetPos() override { return (DWORD)ftell(m_f); }
  ERR Flush() override { return fflush(m_f) ? ERR_FILE_FLUSH : 0; }
  // Only growing (or keeping) the size is needed when files are written from the start.
  ERR Truncate() override { return GetPos() >= GetSize() ? 0 : ERR_FILE_TRUNCATE; }

 private:
  FILE* m_f;
};

int Fail(const std::string& text) {
  fprintf(stderr, "lzss: %s\n", text.c_str());
  return 1;
}

std::string Hex(ERR err) {
  char buf[16];
  snprintf(buf, sizeof(buf), "0x%08X", (unsigned)err);
  return buf;
}

// Progress on stderr for inputs large enough to take a moment.
struct Progress {
  const char* pchWhat;
  unsigned long long total;
  int last = -1;
  void Show(unsigned long long done) {
    if (total < (8u << 20)) return;
    int pct = (int)(done * 100 / total);
    if (pct != last) {
      fprintf(stderr, "\r%s: %3d%%", pchWhat, pct);
      fflush(stderr);
      last = pct;
    }
  }
  void End() {
    if (last >= 0) fprintf(stderr, "\n");
  }
};

std::string TempBeside(const std::string& out) { return out + ".lzss-tmp"; }

int FinishOutput(const std::string& tmp, const std::string& out) {
  std::error_code ec;
  fs::rename(tmp, out, ec);
  if (ec) {
    fs::remove(tmp, ec);
    return Fail("cannot rename the output into place: " + out);
  }
  return 0;
}

int Pack(const std::string& in, const std::string& out) {
  FILE* fin = fopen(in.c_str(), "rb");
  if (!fin) return Fail("cannot open " + in);
  std::error_code ec;
  unsigned long long size = fs::file_size(in, ec);
  if (ec || size > 0xFFFFFFF0ull) {
    fclose(fin);
    return Fail(ec ? "cannot read the size of " + in : in + " is too large for the format (4 GiB)");
  }
  std::string tmp = TempBeside(out);
  FILE* fout = fopen(tmp.c_str(), "w+b");
  if (!fout) {
    fclose(fin);
    return Fail("cannot create " + tmp);
  }
  ERR err = 0;
  CLZSSFile* pFile = new CLZSSFile(new HostFile(fout, FILE_MODE_CREATE), 1, FILE_MODE_CREATE, &err, 0,
                                   LZSS_DEFAULT_PAGESIZE, LZSS_DEFAULT_MAXPAGES, LZSS_BITLENGTHS_DEFAULT);
  bool ok = pFile && !err;
  // Whole pages per write, so every write appends pages from the start.
  std::vector<BYTE> buf(64 * LZSS_DEFAULT_PAGESIZE);
  Progress progress{"packing", size};
  unsigned long long done = 0;
  while (ok) {
    size_t n = fread(buf.data(), 1, buf.size(), fin);
    if (n == 0) break;
    DWORD written = 0;
    err = pFile->Write(buf.data(), (DWORD)n, &written);
    if (err || written != n) ok = false;
    done += n;
    progress.Show(done);
  }
  progress.End();
  if (ferror(fin)) {
    ok = false;
    fprintf(stderr, "lzss: read error on %s\n", in.c_str());
  }
  fclose(fin);
  if (ok) err = pFile->Flush();
  if (err) ok = false;
  delete pFile;
  if (!ok) {
    fs::remove(tmp, ec);
    return Fail("cannot write " + out + (err ? " (error " + Hex(err) + ")" : ""));
  }
  return FinishOutput(tmp, out);
}

// Opens a compressed file for reading; null with a message when it is not one.
CLZSSFile* OpenCompressed(const std::string& path, DWORD* pdwMediaSize) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) {
    Fail("cannot open " + path);
    return nullptr;
  }
  HostFile* pMedia = new HostFile(f, FILE_MODE_READ);
  *pdwMediaSize = pMedia->GetSize();
  if (*pdwMediaSize == 0) {
    delete pMedia;
    Fail(path + " is empty, not a compressed file");
    return nullptr;
  }
  ERR err = 0;
  CLZSSFile* pFile = new CLZSSFile(pMedia, 1, FILE_MODE_READ, &err, 0, LZSS_DEFAULT_PAGESIZE,
                                   LZSS_DEFAULT_MAXPAGES, LZSS_BITLENGTHS_DEFAULT);
  if (!pFile || err) {
    delete pFile;
    if (err == ERR_LZSSFILE_BADMAGIC || err == ERR_FILE_EOF)
      Fail(path + " is not a compressed file (no LZSS header)");
    else
      Fail(path + " has a damaged header (error " + Hex(err) + ")");
    return nullptr;
  }
  return pFile;
}

int Unpack(const std::string& in, const std::string& out) {
  DWORD dwMedia = 0;
  CLZSSFile* pFile = OpenCompressed(in, &dwMedia);
  if (!pFile) return 1;
  if (!LZSSIsKnownParam(pFile->GetBitLengths())) {
    delete pFile;
    return Fail(in + " uses an unknown codec parameter");
  }
  std::string tmp = TempBeside(out);
  FILE* fout = fopen(tmp.c_str(), "wb");
  if (!fout) {
    delete pFile;
    return Fail("cannot create " + tmp);
  }
  DWORD total = pFile->GetSize();
  std::vector<BYTE> buf((size_t)pFile->GetPageSize() * 32);
  Progress progress{"unpacking", total};
  DWORD done = 0;
  std::string problem;
  while (done < total) {
    DWORD want = (DWORD)std::min<unsigned long long>(buf.size(), total - done);
    DWORD got = 0;
    ERR err = pFile->Read(buf.data(), want, &got);
    if (got && fwrite(buf.data(), 1, got, fout) != got) {
      problem = "cannot write " + tmp;
      break;
    }
    done += got;
    if (err || got != want) {
      // A failed read reports no count, but its position has moved past the pages it could
      // read: the damage starts there.
      DWORD at = err ? pFile->GetPos() : done;
      problem = in + " is damaged at byte " + std::to_string(at) + " (error " + Hex(err) + ")";
      break;
    }
    progress.Show(done);
  }
  progress.End();
  delete pFile;
  if (fclose(fout) != 0 && problem.empty()) problem = "cannot write " + tmp;
  if (!problem.empty()) {
    std::error_code ec;
    fs::remove(tmp, ec);
    return Fail(problem);
  }
  return FinishOutput(tmp, out);
}

int Info(const std::string& path) {
  DWORD dwMedia = 0;
  CLZSSFile* pFile = OpenCompressed(path, &dwMedia);
  if (!pFile) return 1;
  BYTE bt = pFile->GetBitLengths();
  printf("file:        %s\n", path.c_str());
  printf("magic:       LZSS\n");
  printf("size:        %u bytes\n", (unsigned)pFile->GetSize());
  printf("page size:   %u bytes\n", (unsigned)pFile->GetPageSize());
  printf("table:       %u entries\n", (unsigned)pFile->GetMaxPages());
  printf("parameter:   0x%02X (window %u, matches 2 to %u)%s\n", bt, (unsigned)LZSSWindow(bt),
         (unsigned)LZSSMaxMatch(bt), LZSSIsKnownParam(bt) ? "" : " unknown to the decoder");
  printf("pages:       %u\n", (unsigned)pFile->GetPageCount());
  printf("stored:      %u bytes\n", (unsigned)dwMedia);
  if (pFile->GetSize())
    printf("ratio:       %.3f (stored / size)\n", (double)dwMedia / (double)pFile->GetSize());
  else
    printf("ratio:       - (empty)\n");
  delete pFile;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (!strcmp(argv[1], "--help") || !strcmp(argv[1], "-h"))) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (argc == 4 && !strcmp(argv[1], "pack")) return Pack(argv[2], argv[3]);
  if (argc == 4 && !strcmp(argv[1], "unpack")) return Unpack(argv[2], argv[3]);
  if (argc == 3 && !strcmp(argv[1], "info")) return Info(argv[2]);
  fputs(kUsage, stderr);
  return 2;
}
