// pak: builds pack files from a directory, lists them, and extracts them again. Packs are read
// back through the system's own pack volume, so what `pak list` accepts the installer accepts.
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "base/diction.h"
#include "files/file.h"
#include "files/packfile.h"
#include "files/winfile.h"
#include "platform/platform.h"

namespace fs = std::filesystem;

namespace {

const char kUsage[] =
    "usage: pak create OUT DIR     pack every file under DIR into the pack OUT\n"
    "       pak list PAK           print name, offset and size of each packed file\n"
    "       pak extract PAK DIR    write the packed files under DIR (which must not exist or be empty)\n"
    "       pak --help\n"
    "\n"
    "Names are stored relative to DIR, in upper case, with '\\' between directories, sorted by\n"
    "byte value; contents are stored whole. A pack holds names of at most 127 characters and\n"
    "at most 4 GiB in all. The output appears only when the whole job succeeded.\n";

const uint64_t kMaxPack = 0xFFFFFFFFull;

struct Entry {
  std::string name;  // as stored: upper case, '\' separated
  fs::path source;
  uint64_t size = 0;
  uint64_t offset = 0;
};

int Fail(const std::string& msg) {
  fprintf(stderr, "pak: %s\n", msg.c_str());
  return 1;
}

// Library assertions become silent Ignore answers: the tool reports failures itself.
int IgnoreAssert(const char*) { return ASSERT_IGNORE; }

std::string PackName(const fs::path& rel) {
  std::string name;
  for (const fs::path& part : rel) {
    if (!name.empty()) name += '\\';
    name += part.string();
  }
  for (char& ch : name)
    if (ch >= 'a' && ch <= 'z') ch = static_cast<char>(ch - 'a' + 'A');
  return name;
}

// Appends the front-coded directory entry of name after prev.
void PutEntry(std::vector<BYTE>& dir, const std::string& prev, const Entry& e) {
  size_t shared = 0;
  while (shared < prev.size() && shared < e.name.size() && prev[shared] == e.name[shared]) shared++;
  dir.push_back(static_cast<BYTE>(e.name.size()));
  dir.push_back(static_cast<BYTE>(shared));
  dir.insert(dir.end(), e.name.begin() + shared, e.name.end());
  BYTE user[8];
  PutLE32(user, static_cast<DWORD>(e.offset));
  PutLE32(user + 4, static_cast<DWORD>(e.size));
  dir.insert(dir.end(), user, user + 8);
}

// A name unique to this process beside target, for output that is renamed into place at the end.
fs::path TempBeside(const fs::path& target) {
  fs::path parent = target.has_parent_path() ? target.parent_path() : fs::path(".");
  static int s_nSerial = 0;
  return parent / ("." + target.filename().string() + ".pak-tmp-" + std::to_string(PlatGetTickCount()) + "-" +
                   std::to_string(++s_nSerial));
}

int Create(const fs::path& out, const fs::path& dir) {
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) return Fail("'" + dir.string() + "' is not a directory");
  std::vector<Entry> entries;
  fs::recursive_directory_iterator it(dir, ec), end;
  if (ec) return Fail("cannot read '" + dir.string() + "': " + ec.message());
  for (; it != end; it.increment(ec)) {
    if (ec) return Fail("cannot read '" + dir.string() + "': " + ec.message());
    const fs::path& p = it->path();
    fs::file_status st = fs::status(p, ec);
    if (ec) return Fail("cannot read '" + p.string() + "': " + ec.message());
    if (fs::is_directory(st)) continue;
    if (!fs::is_regular_file(st)) return Fail("'" + p.string() + "' is not a regular file");
    if (fs::equivalent(p, out, ec)) continue;  // never pack the output into itself
    Entry e;
    e.source = p;
    e.name = PackName(fs::relative(p, dir));
    e.size = fs::file_size(p, ec);
    if (ec) return Fail("cannot read '" + p.string() + "': " + ec.message());
    if (e.name.size() > PACK_MAX_NAME)
      return Fail("name '" + e.name + "' has " + std::to_string(e.name.size()) +
                  " characters; a pack holds at most " + std::to_string(PACK_MAX_NAME));
    if (e.size > kMaxPack) return Fail("'" + p.string() + "' is over 4 GiB; a pack can't hold it");
    entries.push_back(e);
  }
  if (entries.empty()) return Fail("no files under '" + dir.string() + "': a pack needs at least one");
  // Byte order, which the lookup depends on.
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    return std::lexicographical_compare(a.name.begin(), a.name.end(), b.name.begin(), b.name.end(),
                                        [](char x, char y) { return (BYTE)x < (BYTE)y; });
  });
  for (size_t i = 1; i < entries.size(); i++)
    if (entries[i].name == entries[i - 1].name)
      return Fail("'" + entries[i - 1].source.string() + "' and '" + entries[i].source.string() +
                  "' both become '" + entries[i].name + "' in upper case");
  // The directory's size doesn't depend on the offsets, so lay it out once to learn it.
  std::vector<BYTE> dirBytes;
  std::string prev;
  for (const Entry& e : entries) {
    PutEntry(dirBytes, prev, e);
    prev = e.name;
  }
  uint64_t pos = PACK_HEADER_SIZE + dirBytes.size();
  for (Entry& e : entries) {
    e.offset = pos;
    pos += e.size;
  }
  if (pos > kMaxPack)
    return Fail("the pack would take " + std::to_string(pos) + " bytes; a pack holds at most 4 GiB - 1");
  dirBytes.clear();
  prev.clear();
  for (const Entry& e : entries) {
    PutEntry(dirBytes, prev, e);
    prev = e.name;
  }
  BYTE header[PACK_HEADER_SIZE] = {};
  memcpy(header, PACK_MAGIC, PACK_MAGIC_SIZE);
  PutLE32(header + PACK_COUNT_OFS, static_cast<DWORD>(entries.size()));
  PutLE32(header + PACK_DIRSIZE_OFS, static_cast<DWORD>(dirBytes.size()));

  fs::path tmp = TempBeside(out);
  std::string error;
  {
    std::ofstream os(tmp, std::ios::binary | std::ios::trunc);
    if (!os) return Fail("cannot create '" + tmp.string() + "'");
    os.write(reinterpret_cast<const char*>(header), sizeof(header));
    os.write(reinterpret_cast<const char*>(dirBytes.data()), static_cast<std::streamsize>(dirBytes.size()));
    std::vector<char> buf(1 << 20);
    for (const Entry& e : entries) {
      if (!os) break;
      std::ifstream is(e.source, std::ios::binary);
      if (!is) {
        error = "cannot open '" + e.source.string() + "'";
        break;
      }
      uint64_t left = e.size;
      while (left && os) {
        std::streamsize n = static_cast<std::streamsize>(std::min<uint64_t>(left, buf.size()));
        is.read(buf.data(), n);
        if (is.gcount() != n) break;
        os.write(buf.data(), n);
        left -= static_cast<uint64_t>(n);
      }
      if (left && error.empty()) error = "'" + e.source.string() + "' changed size while being packed";
      if (!error.empty()) break;
    }
    os.flush();
    if (!os && error.empty()) error = "cannot write '" + tmp.string() + "'";
  }
  if (error.empty()) {
    fs::rename(tmp, out, ec);
    if (ec) error = "cannot move the pack to '" + out.string() + "': " + ec.message();
  }
  if (!error.empty()) {
    fs::remove(tmp, ec);
    return Fail(error);
  }
  printf("%s: %zu files, %llu bytes\n", out.string().c_str(), entries.size(), (unsigned long long)pos);
  return 0;
}

const char* MountText(ERR err) {
  switch (err) {
    case ERR_PACK_READ:
      return "cannot read its header or directory (truncated?)";
    case ERR_PACK_BADPACK:
      return "not a pack, or its directory is damaged";
    case ERR_PACK_NOMEM:
      return "out of memory";
    default:
      return "cannot be used";
  }
}

// The library's file services for the lifetime of a command that reads packs. The native volume
// is used directly with host paths, so no drive prefix is set up for a tool run.
struct Services {
  Services() {
    PlatSetDebugEcho(FALSE);
    g_pfnAssertAnswer = &IgnoreAssert;
    FSInit(5);
    pNative = new CWinFS;
  }
  ~Services() {
    delete pNative;
    FSDone();
  }
  CWinFS* pNative;
};

// Opens the pack at path as an unregistered volume; null with a message printed on failure.
CPackFS* OpenPack(Services& services, const std::string& path) {
  ERR err = 0;
  CFile* pFile = services.pNative ? services.pNative->Open(path.c_str(), FILE_MODE_READ, &err) : nullptr;
  if (!pFile) {
    Fail("cannot open '" + path + "'");
    return nullptr;
  }
  if (!pFile->IsValid()) {
    delete pFile;
    Fail("cannot open '" + path + "'");
    return nullptr;
  }
  CPackFS* pVol = new CPackFS(pFile);
  if (!pVol) {
    delete pFile;
    Fail("out of memory");
    return nullptr;
  }
  BOOL bAbandon = 0;
  err = pVol->Load("pak:\\", &bAbandon);
  if (err) {
    // A header with no files leaves the volume as it is; here it is freed all the same.
    delete pVol;
    Fail("'" + path + "': " + MountText(err));
    return nullptr;
  }
  return pVol;
}

// Calls fn(name, offset, size) for each packed file in order; false if the walk broke off.
template <typename Fn>
bool ForEachFile(CPackFS* pVol, Fn fn) {
  CDictionary* pDict = pVol->GetDictionary();
  char name[DICT_WORD_BUF];
  BOOL ok = pDict->GetNext(nullptr, name);
  DWORD n = 0;
  while (ok) {
    BYTE data[PACK_USER_DATA];
    if (!pDict->GetData(name, data)) return false;
    if (!fn(std::string(name), GetLE32(data), GetLE32(data + 4))) return false;
    n++;
    std::string cur = name;
    ok = pDict->GetNext(cur.c_str(), name);
  }
  return n == pDict->GetWords();
}

int List(const std::string& pak) {
  Services services;
  CPackFS* pVol = OpenPack(services, pak);
  if (!pVol) return 1;
  bool ok = ForEachFile(pVol, [](const std::string& name, DWORD off, DWORD size) {
    printf("%s\t%lu\t%lu\n", name.c_str(), (unsigned long)off, (unsigned long)size);
    return true;
  });
  delete pVol;
  return ok ? 0 : Fail("'" + pak + "': the directory could not be walked to its end");
}

// The host path of a packed name under root; false for a name that would leave root.
bool SafeTarget(const fs::path& root, const std::string& name, fs::path* out) {
  fs::path p = root;
  size_t start = 0;
  while (start <= name.size()) {
    size_t stop = name.find('\\', start);
    if (stop == std::string::npos) stop = name.size();
    std::string part = name.substr(start, stop - start);
    if (part.empty() || part == "." || part == ".." || part.find('/') != std::string::npos ||
        part.find(':') != std::string::npos)
      return false;
    p /= part;
    start = stop + 1;
  }
  *out = p;
  return true;
}

int Extract(const std::string& pak, const fs::path& dir) {
  std::error_code ec;
  if (fs::exists(dir, ec) && !(fs::is_directory(dir, ec) && fs::is_empty(dir, ec)))
    return Fail("'" + dir.string() + "' exists and is not an empty directory");
  Services services;
  CPackFS* pVol = OpenPack(services, pak);
  if (!pVol) return 1;
  fs::path tmp = TempBeside(dir);
  std::string error;
  fs::create_directories(tmp, ec);
  if (ec) error = "cannot create '" + tmp.string() + "': " + ec.message();
  std::vector<char> buf(1 << 16);
  size_t count = 0;
  bool walked = error.empty() && ForEachFile(pVol, [&](const std::string& name, DWORD, DWORD size) {
                  fs::path target;
                  if (!SafeTarget(tmp, name, &target)) {
                    error = "packed name '" + name + "' would be written outside the directory";
                    return false;
                  }
                  std::error_code ec2;
                  fs::create_directories(target.parent_path(), ec2);
                  ERR err = 0;
                  CFile* pFile = pVol->Open(name.c_str(), FILE_MODE_READ, &err);
                  if (!pFile) {
                    error = "cannot open packed file '" + name + "'";
                    return false;
                  }
                  std::ofstream os(target, std::ios::binary | std::ios::trunc);
                  DWORD left = size;
                  while (os && left) {
                    DWORD got = 0;
                    DWORD want = left < buf.size() ? left : static_cast<DWORD>(buf.size());
                    if (pFile->Read(buf.data(), want, &got) || got != want) break;
                    os.write(buf.data(), got);
                    left -= got;
                  }
                  delete pFile;
                  if (left) {
                    error = "cannot read packed file '" + name + "'";
                    return false;
                  }
                  os.flush();
                  if (!os) {
                    error = "cannot write '" + target.string() + "'";
                    return false;
                  }
                  count++;
                  return true;
                });
  delete pVol;
  if (error.empty() && !walked) error = "'" + pak + "': the directory could not be walked to its end";
  if (error.empty()) {
    if (fs::exists(dir, ec)) fs::remove(dir, ec);
    fs::rename(tmp, dir, ec);
    if (ec) error = "cannot move the files to '" + dir.string() + "': " + ec.message();
  }
  if (!error.empty()) {
    fs::remove_all(tmp, ec);
    return Fail(error);
  }
  printf("%s: %zu files\n", dir.string().c_str(), count);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (args.size() == 3 && args[0] == "create") return Create(args[1], args[2]);
  if (args.size() == 2 && args[0] == "list") return List(args[1]);
  if (args.size() == 3 && args[0] == "extract") return Extract(args[1], args[2]);
  fputs(kUsage, stderr);
  return 2;
}
