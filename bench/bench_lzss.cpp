// Speed and size of the LZSS codec on 64 MiB of real text and binaries, beside memcpy and, when
// built with them, zlib levels 1 and 6 and LZ4 on the same data in the same run. Rates are taken
// from CPU time, and each benchmark is repeated: the table uses the best repetition of each, as
// other work on a shared machine only ever makes a run slower.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "files/lzssfunc.h"

#if SETUP_BENCH_ZLIB
#include <zlib.h>
#endif
#if SETUP_BENCH_LZ4
#include <lz4.h>
#endif

namespace {

const size_t kDataSize = 64u << 20;
const DWORD kPage = 0x8000;  // the page size of compressed files
const BYTE kBits = LZSS_BITLENGTHS_DEFAULT;
const int kRepetitions = 5;

// Up to `limit` bytes of a tar of `dir`, made now.
std::vector<BYTE> TarOf(const char* dir, size_t limit) {
  std::string cmd = std::string("tar cf - -C / ") + dir + " 2>/dev/null";
  std::vector<BYTE> out;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return out;
  out.resize(limit);
  size_t got = 0, n;
  while (got < limit && (n = fread(out.data() + got, 1, limit - got, p)) > 0) got += n;
  // Drain the rest so tar ends quietly.
  char sink[65536];
  while (fread(sink, 1, sizeof(sink), p) > 0) {
  }
  pclose(p);
  out.resize(got);
  return out;
}

// Half system headers, half package documentation (text and already-compressed files);
// repeated if the machine has less of either.
const std::vector<BYTE>& Data() {
  static std::vector<BYTE> data;
  if (data.empty()) {
    std::vector<BYTE> a = TarOf("usr/include", kDataSize / 2);
    std::vector<BYTE> b = TarOf("usr/share/doc", kDataSize - a.size());
    data = a;
    data.insert(data.end(), b.begin(), b.end());
    if (data.empty()) data.assign(1, 0);
    size_t have = data.size();
    while (data.size() < kDataSize) data.push_back(data[data.size() % have]);
    data.resize(kDataSize);
  }
  return data;
}

// The data cut into pages and compressed one page at a time, as a compressed file holds it.
struct PagedStreams {
  std::vector<BYTE> bytes;
  std::vector<size_t> offsets;  // one per page, plus the end
};

const PagedStreams& Streams() {
  static PagedStreams s;
  if (s.offsets.empty()) {
    const std::vector<BYTE>& d = Data();
    std::vector<BYTE> page(LZSSMaxCompressed(kPage));
    for (size_t pos = 0; pos < d.size(); pos += kPage) {
      DWORD n = (DWORD)std::min<size_t>(kPage, d.size() - pos);
      DWORD len = (DWORD)page.size();
      if (LZSSCompress(d.data() + pos, n, page.data(), &len, kBits, nullptr) != 0) abort();
      s.offsets.push_back(s.bytes.size());
      s.bytes.insert(s.bytes.end(), page.begin(), page.begin() + len);
    }
    s.offsets.push_back(s.bytes.size());
  }
  return s;
}

// Figures gathered during the run for the closing table.
std::map<std::string, double> g_rate;    // bytes per second, by benchmark name
std::map<std::string, double> g_packed;  // compressed bytes, by codec

void BM_Memcpy(benchmark::State& state) {
  const std::vector<BYTE>& d = Data();
  std::vector<BYTE> dst(d.size());
  for (auto _ : state) {
    memcpy(dst.data(), d.data(), d.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)d.size());
}
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->Repetitions(kRepetitions);

// FNV-1a over every stream of a run, to tell whether two encoders made the same streams.
uint64_t HashBytes(uint64_t h, const BYTE* p, size_t n) {
  for (size_t i = 0; i < n; i++) h = (h ^ p[i]) * 0x100000001B3ull;
  return h;
}
std::map<std::string, uint64_t> g_streams;  // stream hash, by encoder

void EncodeAll(benchmark::State& state, const char* name,
               ERR (*pfnCompress)(const BYTE*, DWORD, BYTE*, DWORD*, BYTE, const BYTE*)) {
  const std::vector<BYTE>& d = Data();
  std::vector<BYTE> page(LZSSMaxCompressed(kPage));
  size_t total = 0;
  uint64_t hash = 0;
  for (auto _ : state) {
    total = 0;
    hash = 0xCBF29CE484222325ull;
    for (size_t pos = 0; pos < d.size(); pos += kPage) {
      DWORD n = (DWORD)std::min<size_t>(kPage, d.size() - pos);
      DWORD len = (DWORD)page.size();
      if (pfnCompress(d.data() + pos, n, page.data(), &len, kBits, nullptr) != 0) {
        state.SkipWithError("compression failed");
        return;
      }
      total += len;
      state.PauseTiming();
      hash = HashBytes(hash, page.data(), len);
      state.ResumeTiming();
    }
  }
  g_packed[name] = (double)total;
  g_streams[name] = hash;
  state.counters["ratio"] = (double)total / (double)d.size();
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)d.size());
}

void BM_LzssEncode(benchmark::State& state) { EncodeAll(state, "lzss", &LZSSCompress); }

BENCHMARK(BM_LzssEncode)->Unit(benchmark::kMillisecond)->Repetitions(kRepetitions);

// The same encoder with the search tree run over every position: the yardstick for the speed
// of the ranked one, and a check that both make the same streams.
void BM_LzssEncodeTree(benchmark::State& state) { EncodeAll(state, "lzss tree", &LZSSCompressTree); }
BENCHMARK(BM_LzssEncodeTree)->Unit(benchmark::kMillisecond)->Repetitions(2);

void BM_LzssDecode(benchmark::State& state) {
  const std::vector<BYTE>& d = Data();
  const PagedStreams& s = Streams();
  std::vector<BYTE> dst(d.size());
  for (auto _ : state) {
    for (size_t p = 0; p + 1 < s.offsets.size(); p++) {
      DWORD len = (DWORD)std::min<size_t>(kPage, d.size() - p * kPage);
      if (LZSSDecompress(s.bytes.data() + s.offsets[p], (DWORD)(s.offsets[p + 1] - s.offsets[p]),
                         dst.data() + p * kPage, &len, kBits) != 0) {
        state.SkipWithError("decompression failed");
        return;
      }
    }
    benchmark::ClobberMemory();
  }
  if (dst != d) state.SkipWithError("round trip differs");
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)d.size());
}
BENCHMARK(BM_LzssDecode)->Unit(benchmark::kMillisecond)->Repetitions(kRepetitions);

#if SETUP_BENCH_ZLIB
std::vector<BYTE> ZlibPack(int level) {
  const std::vector<BYTE>& d = Data();
  uLongf len = compressBound(d.size());
  std::vector<BYTE> out(len);
  if (compress2(out.data(), &len, d.data(), d.size(), level) != Z_OK) abort();
  out.resize(len);
  return out;
}

void BM_ZlibEncode(benchmark::State& state) {
  const std::vector<BYTE>& d = Data();
  int level = (int)state.range(0);
  std::vector<BYTE> out(compressBound(d.size()));
  uLongf len = 0;
  for (auto _ : state) {
    len = out.size();
    compress2(out.data(), &len, d.data(), d.size(), level);
  }
  g_packed["zlib " + std::to_string(level)] = (double)len;
  state.counters["ratio"] = (double)len / (double)d.size();
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)d.size());
}
BENCHMARK(BM_ZlibEncode)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond)->Repetitions(kRepetitions);

void BM_ZlibDecode(benchmark::State& state) {
  const std::vector<BYTE>& d = Data();
  std::vector<BYTE> packed = ZlibPack((int)state.range(0));
  std::vector<BYTE> dst(d.size());
  for (auto _ : state) {
    uLongf len = dst.size();
    uncompress(dst.data(), &len, packed.data(), packed.size());
    benchmark::ClobberMemory();
  }
  if (dst != d) state.SkipWithError("round trip differs");
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)d.size());
}
BENCHMARK(BM_ZlibDecode)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond)->Repetitions(kRepetitions);
#endif

#if SETUP_BENCH_LZ4
void BM_Lz4Encode(benchmark::State& state) {
  const std::vector<BYTE>& d = Data();
  std::vector<char> out(LZ4_compressBound((int)d.size()));
  int len = 0;
  for (auto _ : state)
    len = LZ4_compress_default((const char*)d.data(), out.data(), (int)d.size(), (int)out.size());
  g_packed["lz4"] = (double)len;
  state.counters["ratio"] = (double)len / (double)d.size();
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)d.size());
}
BENCHMARK(BM_Lz4Encode)->Unit(benchmark::kMillisecond)->Repetitions(kRepetitions);

void BM_Lz4Decode(benchmark::State& state) {
  const std::vector<BYTE>& d = Data();
  std::vector<char> packed(LZ4_compressBound((int)d.size()));
  int plen = LZ4_compress_default((const char*)d.data(), packed.data(), (int)d.size(), (int)packed.size());
  std::vector<BYTE> dst(d.size());
  for (auto _ : state) {
    LZ4_decompress_safe(packed.data(), (char*)dst.data(), plen, (int)dst.size());
    benchmark::ClobberMemory();
  }
  if (dst != d) state.SkipWithError("round trip differs");
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)d.size());
}
BENCHMARK(BM_Lz4Decode)->Unit(benchmark::kMillisecond)->Repetitions(kRepetitions);
#endif

// The console report, with the best byte rate of each benchmark's repetitions kept for the table.
class RateReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& reports) override {
    for (const Run& r : reports) {
      if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
      auto it = r.counters.find("bytes_per_second");
      if (it == r.counters.end()) continue;
      double& best = g_rate[r.benchmark_name()];
      if (it->second.value > best) best = it->second.value;
    }
    ConsoleReporter::ReportRuns(reports);
  }
};

// Best rate of the benchmark `name` (its runs are named `name` or `name/...`); 0 if it did not run.
double Rate(const std::string& name) {
  if (name.empty()) return 0;
  for (const auto& kv : g_rate)
    if (kv.first == name || kv.first.rfind(name + "/", 0) == 0) return kv.second;
  return 0;
}

void PrintTable() {
  const double mb = 1e6, size = (double)kDataSize;
  double copy = Rate("BM_Memcpy");
  printf("\nData: %zu MiB (tar of /usr/include and /usr/share/doc), LZSS pages of %u bytes, 0x%02X\n",
         kDataSize >> 20, kPage, kBits);
  printf("Rates from CPU time, best of %d repetitions\n", kRepetitions);
  printf("memcpy: %.0f MB/s\n", copy / mb);
  printf("%-9s %10s %8s %12s %12s %16s %16s\n", "codec", "packed", "ratio", "encode MB/s", "decode MB/s",
         "decode/memcpy", "encode/zlib 6");
  struct Row {
    const char* name;
    const char* enc;
    const char* dec;
  } rows[] = {{"lzss", "BM_LzssEncode", "BM_LzssDecode"},
              {"lzss tree", "BM_LzssEncodeTree", ""},
              {"zlib 1", "BM_ZlibEncode/1", "BM_ZlibDecode/1"},
              {"zlib 6", "BM_ZlibEncode/6", "BM_ZlibDecode/6"},
              {"lz4", "BM_Lz4Encode", "BM_Lz4Decode"}};
  double zlib6 = Rate("BM_ZlibEncode/6");
  for (const Row& r : rows) {
    double enc = Rate(r.enc), dec = Rate(r.dec);
    if (enc == 0 && dec == 0) {
      printf("%-9s %10s\n", r.name, "(not built)");
      continue;
    }
    double packed = g_packed[r.name];
    printf("%-9s %10.0f %8.3f %12.1f", r.name, packed, packed / size, enc / mb);
    if (dec > 0)
      printf(" %12.1f %16.4f", dec / mb, copy > 0 ? dec / copy : 0.0);
    else
      printf(" %12s %16s", "-", "-");
    if (zlib6 > 0)
      printf(" %16.2f\n", enc / zlib6);
    else
      printf(" %16s\n", "-");
  }
  if (g_streams.count("lzss") && g_streams.count("lzss tree"))
    printf("lzss and lzss tree streams: %s\n",
           g_streams["lzss"] == g_streams["lzss tree"] ? "identical" : "DIFFERENT");
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Data();
  Streams();
  RateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  PrintTable();
  benchmark::Shutdown();
  return 0;
}
