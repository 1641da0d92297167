// Pixel copy speed through CMemoryDC::Blit on 8-bit targets of 640 x 480 and 1920 x 1080, in
// pixels per second and as a ratio to a row-by-row memcpy of the same rectangle measured in the
// same run; and the time to build the inverse map of a full 256-colour palette.
#include <benchmark/benchmark.h>
#include <string.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "graphics/memdc.h"

namespace {

struct Size {
  int w, h;
};
const Size kSizes[] = {{640, 480}, {1920, 1080}};

CPalette* RandomPalette(unsigned seed) {
  std::mt19937 rng(seed);
  CPalette* p = new CPalette();
  p->SetSize(256);
  for (DWORD i = 0; i < 256; i++) {
    TColor c = MakeColor((BYTE)rng(), (BYTE)rng(), (BYTE)rng());
    p->SetColor(i, &c);
  }
  return p;
}

// A bitmap whose bytes come from gen(x, y, byte within pixel).
template <typename F>
CBitmap* MakeBitmap(int w, int h, SHORT fmt, CPalette* pal, F gen) {
  CBitmap* b = new CBitmap();
  b->Create((SHORT)w, (SHORT)h, fmt, pal, BL_BACKWARD, 0);
  BYTE* base = static_cast<BYTE*>(HANDLE_LOCK(b->m_hBits));
  const int bytes = b->m_nBitsPerPixel / 8;
  for (int y = 0; y < h; y++) {
    BYTE* row = b->GetPixelPtr(0, (SHORT)y);
    for (int x = 0; x < w * bytes; x++) row[x] = gen(x / bytes, y, x % bytes);
  }
  (void)base;
  HANDLE_UNLOCK(b->m_hBits);
  return b;
}

const BYTE kTrans = 0xA5;

enum Kind { kOpaque, kKeyedRandom, kKeyedRuns, kKeyedMapped, k24To8 };

void BM_Blit(benchmark::State& state, Kind kind) {
  const Size sz = kSizes[state.range(0)];
  std::mt19937 rng(42);
  CBitmap* dst = MakeBitmap(sz.w, sz.h, BF_8BIT, RandomPalette(1), [](int, int, int) { return (BYTE)0; });
  CBitmap* src;
  if (kind == k24To8) {
    src = MakeBitmap(sz.w, sz.h, BF_24BIT, nullptr, [&](int, int, int) { return (BYTE)rng(); });
  } else if (kind == kKeyedRuns) {
    // Sprite-like: alternating transparent and opaque runs of 1 to 64 pixels.
    int left = 0;
    bool transparent = false;
    src = MakeBitmap(sz.w, sz.h, BF_8BIT, RandomPalette(2), [&](int, int, int) {
      if (left-- <= 0) {
        left = (int)(rng() % 64);
        transparent = !transparent;
      }
      BYTE v = (BYTE)rng();
      return transparent ? kTrans : (BYTE)(v == kTrans ? v + 1 : v);
    });
  } else {
    // A quarter of the pixels transparent, at random places.
    src = MakeBitmap(sz.w, sz.h, BF_8BIT, RandomPalette(2), [&](int, int, int) {
      DWORD r = (DWORD)rng();
      BYTE v = (BYTE)(r >> 8);
      return (r & 3) == 0 ? kTrans : (BYTE)(v == kTrans ? v + 1 : v);
    });
  }
  BYTE map[256];
  for (int i = 0; i < 256; i++) map[i] = (BYTE)(i * 7 + 3);
  const DWORD trans = kind == kOpaque || kind == k24To8 ? TRANS_NONE : kTrans;
  BYTE* pMap = kind == kKeyedMapped ? map : nullptr;
  {
    CMemoryDC dc(dst);
    if (kind == k24To8) dc.Blit(src, 0, 0, 32000, 32000, 0, 0, trans, pMap);  // builds the inverse map once
    for (auto _ : state) {
      dc.Blit(src, 0, 0, 32000, 32000, 0, 0, trans, pMap);
      benchmark::ClobberMemory();
    }
  }
  state.counters["pix/s"] = benchmark::Counter(
      (double)sz.w * sz.h, benchmark::Counter::kIsIterationInvariantRate, benchmark::Counter::kIs1000);
  delete src;
  delete dst;
}

// The reference: the same rectangle copied row by row with memcpy, between two locked
// 8-bit bitmaps of the same layout.
void BM_RowMemcpy(benchmark::State& state) {
  const Size sz = kSizes[state.range(0)];
  CBitmap* src = MakeBitmap(sz.w, sz.h, BF_8BIT, nullptr, [](int x, int y, int) { return (BYTE)(x ^ y); });
  CBitmap* dst = MakeBitmap(sz.w, sz.h, BF_8BIT, nullptr, [](int, int, int) { return (BYTE)0; });
  HANDLE_LOCK(src->m_hBits);
  HANDLE_LOCK(dst->m_hBits);
  const BYTE* s0 = src->GetPixelPtr(0, 0);
  BYTE* d0 = dst->GetPixelPtr(0, 0);
  const int pitch = src->m_nPitch;
  for (auto _ : state) {
    const BYTE* s = s0;
    BYTE* d = d0;
    for (int y = 0; y < sz.h; y++, s += pitch, d += pitch) memcpy(d, s, (size_t)sz.w);
    benchmark::ClobberMemory();
  }
  HANDLE_UNLOCK(dst->m_hBits);
  HANDLE_UNLOCK(src->m_hBits);
  state.counters["pix/s"] = benchmark::Counter(
      (double)sz.w * sz.h, benchmark::Counter::kIsIterationInvariantRate, benchmark::Counter::kIs1000);
  delete src;
  delete dst;
}

void BM_BuildInvMap(benchmark::State& state) {
  CPalette* pal = RandomPalette(7);
  for (auto _ : state) {
    pal->BuildInvMap();
    benchmark::DoNotOptimize(pal->m_hInvMap);
  }
  delete pal;
}

void SizeArgs(benchmark::internal::Benchmark* b) { b->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond); }

BENCHMARK(BM_RowMemcpy)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_Blit, opaque_8to8, kOpaque)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_Blit, keyed25_8to8, kKeyedRandom)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_Blit, keyedruns_8to8, kKeyedRuns)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_Blit, keyedmap_8to8, kKeyedMapped)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_Blit, invmap_24to8, k24To8)->Apply(SizeArgs);
BENCHMARK(BM_BuildInvMap)->Unit(benchmark::kMillisecond);

// Prints the usual table, then each copy's speed as a ratio to the memcpy of its size.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& r : runs)
      if (r.run_type == Run::RT_Iteration) {
        // Processor time, the best of the repetitions: the machine may be shared.
        const std::string name = r.run_name.str();
        const double t = r.GetAdjustedCPUTime();
        auto it = m_times.find(name);
        if (it == m_times.end() || t < it->second) m_times[name] = t;
      }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() {
    std::printf("\nRatio to row-by-row memcpy of the same rectangle (same run, processor time):\n");
    for (const auto& kv : m_times) {
      const std::string& name = kv.first;
      if (name.rfind("BM_Blit/", 0) != 0) continue;
      const std::string arg = name.substr(name.rfind('/'));
      auto ref = m_times.find("BM_RowMemcpy" + arg);
      if (ref == m_times.end()) continue;
      const Size sz = kSizes[std::stoi(arg.substr(1))];
      std::printf("  %-32s %4dx%-4d %8.3f x\n", name.substr(8, name.rfind('/') - 8).c_str(), sz.w, sz.h,
                  ref->second / kv.second);
    }
  }

 private:
  std::map<std::string, double> m_times;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
