// initool: reads and edits INI scripts through the store, so comments, blank lines and the order
// of everything the author wrote stay as they were; only the edited line changes.
//
//   initool get FILE SECTION KEY          print the value
//   initool set FILE SECTION KEY VALUE    set the value, adding the key or section if needed
//   initool sections FILE                 print the section names, one a line
//   initool keys FILE SECTION             print the keys of a section, one a line
//
// Exit codes: 0 done, 1 section or key not found, 2 bad command line or argument, 3 the file
// could not be read or written.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "base/twvmerr.h"
#include "config/ini.h"
#include "platform/platform.h"

namespace {

enum { EXIT_OK = 0, EXIT_NOTFOUND = 1, EXIT_USAGE = 2, EXIT_IO = 3 };

const char* const g_pchUsage =
    "usage: initool get FILE SECTION KEY\n"
    "       initool set FILE SECTION KEY VALUE\n"
    "       initool sections FILE\n"
    "       initool keys FILE SECTION\n"
    "       initool --help\n"
    "\n"
    "Reads and edits INI scripts without disturbing comments and layout.\n"
    "  get       prints the value of KEY in [SECTION] as the installer reads it\n"
    "  set       replaces the line of KEY with \"KEY = VALUE\", or adds it after the last\n"
    "            entry of [SECTION], or adds the section at the end of the file; the file is\n"
    "            rewritten through a temporary file beside it, never in place\n"
    "  sections  prints every section name, one a line\n"
    "  keys      prints every key of [SECTION], one a line\n"
    "Names match exactly, case included; the first section and key of a name win.\n"
    "Exit codes: 0 done, 1 section or key not found, 2 bad arguments, 3 file error.\n";

// The store reads and writes through a file object; this one holds the bytes in memory.
class CBufFile : public CFile {
 public:
  explicit CBufFile(std::vector<BYTE> data = std::vector<BYTE>()) : m_data(std::move(data)), m_dwPos(0) {
    m_bValid = 1;
    m_wMode = FILE_MODE_READWRITE;
  }
  ERR Read(void* pBuf, DWORD dwCount, DWORD* pdwRead) override {
    DWORD dwLeft = m_dwPos < m_data.size() ? (DWORD)m_data.size() - m_dwPos : 0;
    DWORD dwDone = dwCount < dwLeft ? dwCount : dwLeft;
    if (dwDone) memcpy(pBuf, m_data.data() + m_dwPos, dwDone);
    m_dwPos += dwDone;
    if (pdwRead) *pdwRead = dwDone;
    return dwDone < dwCount ? ERR_FILE_EOF : 0;
  }
  ERR Write(const void* pBuf, DWORD dwCount, DWORD* pdwWritten) override {
    if ((size_t)m_dwPos + dwCount > m_data.size()) m_data.resize((size_t)m_dwPos + dwCount);
    if (dwCount) memcpy(m_data.data() + m_dwPos, pBuf, dwCount);
    m_dwPos += dwCount;
    if (pdwWritten) *pdwWritten = dwCount;
    return 0;
  }
  ERR Seek(LONG lOfs, SHORT wOrigin) override {
    long long llBase = wOrigin == FILE_BEGIN     ? 0
                       : wOrigin == FILE_CURRENT ? m_dwPos
                                                 : (long long)m_data.size();
    if (llBase + lOfs < 0) return ERR_FILE_SEEK;
    m_dwPos = (DWORD)(llBase + lOfs);
    return 0;
  }
  DWORD GetSize() override { return (DWORD)m_data.size(); }
  DWORD GetPos() override { return m_dwPos; }
  ERR Truncate() override {
    m_data.resize(m_dwPos);
    return 0;
  }
  const std::vector<BYTE>& Data() const { return m_data; }

 private:
  std::vector<BYTE> m_data;
  DWORD m_dwPos;
};

// An internal check of the library failed: say so and go on, as the installer would after
// Ignore.
int AnswerAssert(const char* pchText) {
  fprintf(stderr, "initool: internal check failed: %s\n", pchText);
  return ASSERT_IGNORE;
}

std::string ErrText(ERR err) {
  char sz[64];
  const char* pchText = ErrGetText(err);
  snprintf(sz, sizeof(sz), "error 0x%08lX", (unsigned long)err);
  return pchText ? std::string(sz) + " (" + pchText + ")" : std::string(sz);
}

// Reads the whole file. On failure prints the reason and returns false.
bool ReadFile(const std::string& path, std::vector<BYTE>* pData) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) {
    fprintf(stderr, "initool: cannot read %s: it is a directory\n", path.c_str());
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    fprintf(stderr, "initool: cannot read %s: %s\n", path.c_str(), strerror(errno));
    return false;
  }
  std::ostringstream ss;
  ss << in.rdbuf();
  if (in.bad()) {
    fprintf(stderr, "initool: cannot read %s: read error\n", path.c_str());
    return false;
  }
  std::string s = ss.str();
  if (s.size() > 0x7FFFFFF0u) {
    fprintf(stderr, "initool: cannot read %s: too large for a script\n", path.c_str());
    return false;
  }
  pData->assign(s.begin(), s.end());
  return true;
}

// Loads the file into the store; false (message printed) when it cannot be read.
bool LoadStore(const std::string& path, CIni* pIni) {
  std::vector<BYTE> data;
  if (!ReadFile(path, &data)) return false;
  CBufFile file(std::move(data));
  ERR err = pIni->Load(&file);
  if (err) {
    fprintf(stderr, "initool: cannot load %s: %s\n", path.c_str(), ErrText(err).c_str());
    return false;
  }
  return true;
}

// Replaces the target by the bytes: they go to a new file beside it, which is then renamed over
// it, so a failure at any point leaves the target as it was.
bool ReplaceFile(const std::string& path, const std::vector<BYTE>& data) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path target(path);
  // Edit the file a link points at, not the link.
  if (fs::is_symlink(target, ec)) {
    fs::path resolved = fs::canonical(target, ec);
    if (!ec) target = resolved;
  }
  std::random_device rd;
  char szSuffix[32];
  snprintf(szSuffix, sizeof(szSuffix), ".initool-%08x.tmp", (unsigned)rd());
  fs::path temp = target;
  temp += szSuffix;
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    if (!out) {
      fprintf(stderr, "initool: cannot write %s: %s\n", temp.string().c_str(), strerror(errno));
      return false;
    }
    out.write(reinterpret_cast<const char*>(data.data()), (std::streamsize)data.size());
    out.flush();
    if (!out) {
      fprintf(stderr, "initool: cannot write %s\n", temp.string().c_str());
      out.close();
      fs::remove(temp, ec);
      return false;
    }
  }
  // Keep the permissions the file had.
  fs::file_status status = fs::status(target, ec);
  if (!ec) fs::permissions(temp, status.permissions(), ec);
  fs::rename(temp, target, ec);
#if defined(_WIN32)
  if (ec) {
    // Older runtimes do not rename over an existing file.
    std::error_code ecRemove;
    fs::remove(target, ecRemove);
    ec.clear();
    fs::rename(temp, target, ec);
  }
#endif
  if (ec) {
    fprintf(stderr, "initool: cannot replace %s: %s\n", target.string().c_str(), ec.message().c_str());
    std::error_code ecRemove;
    fs::remove(temp, ecRemove);
    return false;
  }
  return true;
}

bool HasLineEnd(const char* pch) { return strchr(pch, '\r') || strchr(pch, '\n'); }
bool IsBlankChar(char c) { return c == ' ' || c == '\t'; }

// Refuses names and values that the store would write but could not read back as given.
bool CheckSetArguments(const char* pchSection, const char* pchKey, const char* pchValue) {
  const char* pchWhy = nullptr;
  size_t nKey = strlen(pchKey), nValue = strlen(pchValue);
  if (!*pchSection)
    pchWhy = "the section name is empty";
  else if (HasLineEnd(pchSection) || strchr(pchSection, ']'))
    pchWhy = "a section name cannot hold a line end or ']'";
  else if (!nKey)
    pchWhy = "the key is empty";
  else if (HasLineEnd(pchKey) || strchr(pchKey, '='))
    pchWhy = "a key cannot hold a line end or '='";
  else if (pchKey[0] == ';' || pchKey[0] == '[')
    pchWhy = "a key cannot start with ';' or '['";
  else if (IsBlankChar(pchKey[0]) || IsBlankChar(pchKey[nKey - 1]))
    pchWhy = "a key cannot start or end with a blank";
  else if (HasLineEnd(pchValue))
    pchWhy = "a value cannot hold a line end";
  else if (nValue && (IsBlankChar(pchValue[0]) || IsBlankChar(pchValue[nValue - 1])))
    pchWhy = "a value cannot start or end with a blank (it would be read without it)";
  if (!pchWhy) return true;
  fprintf(stderr, "initool: %s\n", pchWhy);
  return false;
}

// Prints a multi-string, one name a line.
void PrintNames(const std::vector<char>& buf) {
  for (const char* p = buf.data(); *p; p += strlen(p) + 1) printf("%s\n", p);
}

// The keys of a section, or false when the store has no such section.
bool EntryNames(CIni* pIni, const char* pchSection, std::vector<char>* pBuf) {
  // No list can be longer than the text itself, plus its closing bytes.
  pBuf->assign(pIni->GetDataSize() + 2, 0);
  if (!pIni->GetDataSize()) return false;
  return pIni->GetEntryNames(pchSection, pBuf->data(), (DWORD)pBuf->size()) == 0;
}

int CmdGet(const char* pchFile, const char* pchSection, const char* pchKey) {
  CIni ini;
  if (!LoadStore(pchFile, &ini)) return EXIT_IO;
  std::vector<char> names;
  if (!EntryNames(&ini, pchSection, &names)) {
    fprintf(stderr, "initool: no section [%s] in %s\n", pchSection, pchFile);
    return EXIT_NOTFOUND;
  }
  std::vector<char> value(ini.GetDataSize() + 1, 0);
  ERR err = ini.GetString(pchSection, pchKey, value.data(), (DWORD)value.size());
  if (err == ERR_NOTFOUND) {
    fprintf(stderr, "initool: no key '%s' in section [%s] of %s\n", pchKey, pchSection, pchFile);
    return EXIT_NOTFOUND;
  }
  if (err) {
    fprintf(stderr, "initool: cannot read '%s' in [%s]: %s\n", pchKey, pchSection, ErrText(err).c_str());
    return EXIT_IO;
  }
  printf("%s\n", value.data());
  return EXIT_OK;
}

int CmdSet(const char* pchFile, const char* pchSection, const char* pchKey, const char* pchValue) {
  if (!CheckSetArguments(pchSection, pchKey, pchValue)) return EXIT_USAGE;
  CIni ini;
  if (!LoadStore(pchFile, &ini)) return EXIT_IO;
  ERR err = ini.SetString(pchSection, pchKey, pchValue);
  if (err) {
    fprintf(stderr, "initool: cannot set '%s' in [%s]: %s\n", pchKey, pchSection, ErrText(err).c_str());
    return EXIT_IO;
  }
  CBufFile out;
  err = ini.Save(&out);
  if (err) {
    fprintf(stderr, "initool: cannot save %s: %s\n", pchFile, ErrText(err).c_str());
    return EXIT_IO;
  }
  return ReplaceFile(pchFile, out.Data()) ? EXIT_OK : EXIT_IO;
}

int CmdSections(const char* pchFile) {
  CIni ini;
  if (!LoadStore(pchFile, &ini)) return EXIT_IO;
  std::vector<char> names(ini.GetDataSize() + 2, 0);
  ERR err = ini.GetSectionNames(names.data(), (DWORD)names.size());
  if (err) {
    fprintf(stderr, "initool: cannot list the sections of %s: %s\n", pchFile, ErrText(err).c_str());
    return EXIT_IO;
  }
  PrintNames(names);
  return EXIT_OK;
}

int CmdKeys(const char* pchFile, const char* pchSection) {
  CIni ini;
  if (!LoadStore(pchFile, &ini)) return EXIT_IO;
  std::vector<char> names;
  if (!EntryNames(&ini, pchSection, &names)) {
    fprintf(stderr, "initool: no section [%s] in %s\n", pchSection, pchFile);
    return EXIT_NOTFOUND;
  }
  PrintNames(names);
  return EXIT_OK;
}

int Usage(const char* pchWhy) {
  if (pchWhy) fprintf(stderr, "initool: %s\n", pchWhy);
  fputs(g_pchUsage, stderr);
  return EXIT_USAGE;
}

}  // namespace

int main(int argc, char** argv) {
  PlatSetDebugEcho(FALSE);
  g_pfnAssertAnswer = &AnswerAssert;
  if (argc < 2) return Usage("no command");
  std::string cmd = argv[1];
  if (cmd == "--help" || cmd == "-h" || cmd == "help") {
    fputs(g_pchUsage, stdout);
    return EXIT_OK;
  }
  struct {
    const char* pchName;
    int nArgs;
  } commands[] = {{"get", 3}, {"set", 4}, {"sections", 1}, {"keys", 2}};
  for (const auto& c : commands) {
    if (cmd != c.pchName) continue;
    if (argc - 2 != c.nArgs) return Usage(("wrong number of arguments for '" + cmd + "'").c_str());
    int nResult;
    if (cmd == "get")
      nResult = CmdGet(argv[2], argv[3], argv[4]);
    else if (cmd == "set")
      nResult = CmdSet(argv[2], argv[3], argv[4], argv[5]);
    else if (cmd == "sections")
      nResult = CmdSections(argv[2]);
    else
      nResult = CmdKeys(argv[2], argv[3]);
    if (fflush(stdout) != 0) {
      fprintf(stderr, "initool: cannot write the output\n");
      return EXIT_IO;
    }
    return nResult;
  }
  return Usage(("unknown command '" + cmd + "'").c_str());
}
