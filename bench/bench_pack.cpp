// Pack files: mount time of a pack of 10,000 files, name lookup beside a binary search of a sorted
// std::vector of the same names, and read speed of a packed file beside the same bytes read as a
// plain file, all in the same run. The ratios are printed at the end.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "files/memfile.h"
#include "files/packfile.h"
#include "files/winfile.h"
#include "platform/platform.h"

namespace fs = std::filesystem;

namespace {

const int kFiles = 10000;
const size_t kBigSize = 64u << 20;
const DWORD kChunk = 0x8000;  // the copy engine's block
const char kBigName[] = "MOVIES\\INTRO.AVI";

struct Fixture {
  fs::path dir;
  fs::path packPath;
  fs::path plainPath;
  std::vector<std::string> names;    // sorted, as stored
  std::vector<std::string> queries;  // the same names in a random order
  CWinFS* pNative = nullptr;
  CPackFS* pVol = nullptr;  // mounted once for the lookups and reads
};

Fixture* g_pFix = nullptr;

void PutLE(std::vector<BYTE>& b, size_t at, DWORD v) { PutLE32(b.data() + at, v); }

// A pack in the format's layout, written here so that the benchmark doesn't need the tool.
void BuildFixture() {
  Fixture* f = new Fixture;
  f->dir = fs::temp_directory_path() / ("bench_pack_" + std::to_string(PlatGetTickCount()));
  fs::create_directories(f->dir);
  f->packPath = f->dir / "big.pak";
  f->plainPath = f->dir / "intro.avi";
  std::mt19937 rng(2024);
  const char* kinds[] = {"BMP", "WAV", "FNT", "INI", "PAL"};
  std::map<std::string, DWORD> sizes;
  while ((int)sizes.size() < kFiles - 1) {
    std::string name = "DATA\\SKIN" + std::to_string(rng() % 40) + "\\PAGE" + std::to_string(rng() % 300) +
                       "\\ITEM" + std::to_string(rng() % 100000) + "." + kinds[rng() % 5];
    sizes[name] = 16 + rng() % 240;
  }
  sizes[kBigName] = (DWORD)kBigSize;
  std::vector<BYTE> dir;
  std::string prev;
  for (const auto& kv : sizes) {
    const std::string& n = kv.first;
    size_t shared = 0;
    while (shared < n.size() && shared < prev.size() && n[shared] == prev[shared]) shared++;
    dir.push_back((BYTE)n.size());
    dir.push_back((BYTE)shared);
    dir.insert(dir.end(), n.begin() + shared, n.end());
    dir.resize(dir.size() + 8);
    prev = n;
    f->names.push_back(n);
  }
  DWORD offset = (DWORD)(PACK_HEADER_SIZE + dir.size());
  size_t at = 0;
  for (const auto& kv : sizes) {
    at += 2 + (dir[at] - dir[at + 1]);
    PutLE(dir, at, offset);
    PutLE(dir, at + 4, kv.second);
    offset += kv.second;
    at += 8;
  }
  std::vector<BYTE> header(PACK_HEADER_SIZE, 0);
  memcpy(header.data(), PACK_MAGIC, PACK_MAGIC_SIZE);
  PutLE(header, PACK_COUNT_OFS, (DWORD)sizes.size());
  PutLE(header, PACK_DIRSIZE_OFS, (DWORD)dir.size());
  std::vector<char> big(kBigSize);
  for (auto& c : big) c = (char)rng();
  {
    std::ofstream os(f->packPath, std::ios::binary);
    os.write((const char*)header.data(), (std::streamsize)header.size());
    os.write((const char*)dir.data(), (std::streamsize)dir.size());
    std::vector<char> small(256);
    for (const auto& kv : sizes) {
      if (kv.first == kBigName) {
        os.write(big.data(), (std::streamsize)big.size());
      } else {
        os.write(small.data(), kv.second);
      }
    }
  }
  {
    std::ofstream os(f->plainPath, std::ios::binary);
    os.write(big.data(), (std::streamsize)big.size());
  }
  f->queries = f->names;
  std::shuffle(f->queries.begin(), f->queries.end(), rng);
  f->pNative = new CWinFS;
  f->pVol = PackOpen(
      f->pNative->Open(f->packPath.string().c_str(), FILE_MODE_READ | FILE_OTHERS_READ, nullptr), "pak:");
  if (!f->pVol) {
    fprintf(stderr, "bench_pack: the pack built for the benchmark does not mount\n");
    exit(1);
  }
  g_pFix = f;
}

void DropFixture() {
  if (!g_pFix) return;
  delete g_pFix->pVol;
  delete g_pFix->pNative;
  std::error_code ec;
  fs::remove_all(g_pFix->dir, ec);
  delete g_pFix;
  g_pFix = nullptr;
}

void BM_Mount(benchmark::State& state) {
  for (auto _ : state) {
    CPackFS* pVol = PackOpen(
        g_pFix->pNative->Open(g_pFix->packPath.string().c_str(), FILE_MODE_READ | FILE_OTHERS_READ, nullptr),
        "pak:");
    if (!pVol) state.SkipWithError("mount failed");
    benchmark::DoNotOptimize(pVol);
    delete pVol;
  }
  state.counters["files"] = kFiles;
}
BENCHMARK(BM_Mount)->Unit(benchmark::kMillisecond);

void BM_LookupPack(benchmark::State& state) {
  const std::vector<std::string>& q = g_pFix->queries;
  size_t i = 0;
  for (auto _ : state) {
    ERR err = 0;
    DWORD dwOfs = g_pFix->pVol->GetFileOffset(q[i].c_str(), &err);
    if (err) state.SkipWithError("lookup failed");
    benchmark::DoNotOptimize(dwOfs);
    if (++i == q.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LookupPack);

void BM_LookupVector(benchmark::State& state) {
  const std::vector<std::string>& q = g_pFix->queries;
  const std::vector<std::string>& names = g_pFix->names;
  size_t i = 0;
  for (auto _ : state) {
    auto it = std::lower_bound(names.begin(), names.end(), q[i]);
    if (it == names.end() || *it != q[i]) state.SkipWithError("lookup failed");
    benchmark::DoNotOptimize(it);
    if (++i == q.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LookupVector);

// Reads a whole file in blocks of the copy engine's size.
void ReadThrough(benchmark::State& state, CFile* pFile, std::vector<BYTE>& buf) {
  pFile->Seek(0, FILE_BEGIN);
  DWORD total = 0;
  for (;;) {
    DWORD got = 0;
    pFile->Read(buf.data(), kChunk, &got);
    total += got;
    if (got < kChunk) break;
  }
  if (total != kBigSize) state.SkipWithError("short read");
}

void BM_ReadPacked(benchmark::State& state) {
  std::vector<BYTE> buf(kChunk);
  CFile* pFile = g_pFix->pVol->Open(kBigName, FILE_MODE_READ, nullptr);
  if (!pFile) {
    state.SkipWithError("open failed");
    return;
  }
  for (auto _ : state) ReadThrough(state, pFile, buf);
  delete pFile;
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)kBigSize);
}
BENCHMARK(BM_ReadPacked)->Unit(benchmark::kMillisecond);

void BM_ReadPlain(benchmark::State& state) {
  std::vector<BYTE> buf(kChunk);
  CFile* pFile = g_pFix->pNative->Open(g_pFix->plainPath.string().c_str(), FILE_MODE_READ, nullptr);
  if (!pFile) {
    state.SkipWithError("open failed");
    return;
  }
  for (auto _ : state) ReadThrough(state, pFile, buf);
  delete pFile;
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)kBigSize);
}
BENCHMARK(BM_ReadPlain)->Unit(benchmark::kMillisecond);

// Keeps each benchmark's time per iteration (the mean when repeated) for the ratios printed at
// the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& reports) override {
    for (const Run& r : reports)
      if (!r.error_occurred && (r.run_type == Run::RT_Iteration || r.aggregate_name == "mean"))
        m_times[r.run_name.function_name] =
            r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit);
    ConsoleReporter::ReportRuns(reports);
  }
  double Seconds(const char* name) const {
    auto it = m_times.find(name);
    return it == m_times.end() ? 0 : it->second;
  }

 private:
  // Seconds per iteration, by benchmark.
  std::map<std::string, double> m_times;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  PlatSetDebugEcho(FALSE);
  FSInit(5);
  BuildFixture();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double mount = reporter.Seconds("BM_Mount");
  double pack = reporter.Seconds("BM_LookupPack");
  double vec = reporter.Seconds("BM_LookupVector");
  double rPacked = reporter.Seconds("BM_ReadPacked");
  double rPlain = reporter.Seconds("BM_ReadPlain");
  printf("\n");
  if (mount > 0) printf("mount of %d files: %.2f ms\n", kFiles, mount * 1e3);
  if (pack > 0 && vec > 0)
    printf("lookup per name: pack %.0f ns, sorted vector %.0f ns, pack / vector = %.2f\n", pack * 1e9,
           vec * 1e9, pack / vec);
  if (rPacked > 0 && rPlain > 0)
    printf("read: packed %.0f MB/s, plain %.0f MB/s, packed / plain = %.3f\n", kBigSize / rPacked / 1e6,
           kBigSize / rPlain / 1e6, rPlain / rPacked);
  DropFixture();
  FSDone();
  benchmark::Shutdown();
  return 0;
}
