// What one preview frame costs the engine on the way in, measured on 120 distinct frames (a real
// 1920x1080 picture panned by 8 pixels a frame, cropped to the camera size) so that every frame
// comes from main memory, as a camera's frames do:
//   - frame creation at the facade (the frame record, the reductions to the analysis size and to
//     320x180);
//   - the foreground's per-frame statistics (history insertion, camera motion, luma, Sobel,
//     difference, histogram, block motion at most 15 times a second);
//   - the foreground's best-shot pass over the history (run on every kept frame);
//   - an OpenCV pipeline computing the same images and statistics, as the reference (built only
//     where OpenCV is installed; `make bench` installs it);
//   - the memory floor: reading the frame once.
// After the runs it prints a table per camera size with the ratios, and the steady-state heap of
// an engine with a full history, its candidate list and its clip buffer.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#if defined(KOVANE_HAVE_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

#include "KoEngine.h"
#include "KoEngineFg.h"
#include "KoFrameDataCreate.h"
#include "KoFrameHist.h"
#include "BenchCamera.h"
#include "TestData.h"

using namespace android;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFrames = 120;
constexpr int kPanStep = 8;  // pixels per frame, even so that chroma pairs stay whole

// 120 NV21 frames of w x h cut from the panned 1080p picture.
struct Clip {
  int w = 0;
  int h = 0;
  std::vector<std::vector<uint8_t>> frames;
  KO_cam_frame_len_offset_t planes = {};

  KO_PreviewFrameData_t preview(uint32_t id) {
    KO_PreviewFrameData_t p = {};
    p.timeStamp = 1000000 + static_cast<int64_t>(id) * 33333;
    p.frameId = id;
    p.streamType = KO_STREAM_TYPE_PREVIEW;
    p.width = w;
    p.height = h;
    p.data = frames[id % kFrames].data();
    p.colorFormat = KO_COLOR_FORMAT_NV21;
    p.planes = &planes;
    return p;
  }
};

Clip* clipOf(int w, int h) {
  static std::map<int, Clip> clips;
  const int key = w * 10000 + h;
  auto it = clips.find(key);
  if (it != clips.end()) return it->second.frames.empty() ? nullptr : &it->second;
  Clip& clip = clips[key];
  clip.frames = kovane_bench::pannedFrames(w, h, kFrames, kPanStep);
  if (clip.frames.empty()) return nullptr;
  clip.w = w;
  clip.h = h;
  clip.planes.numPlanes = 2;
  clip.planes.mp[0] = {w * h, 0, w, h};
  clip.planes.mp[1] = {w * h / 2, 0, w, h / 2};
  clip.planes.frameLen = static_cast<uint32_t>(w * h * 3 / 2);
  return &clip;
}

double usSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
}

// Results kept for the table printed after the runs: name -> microseconds per frame.
std::map<std::string, double>& results() {
  static std::map<std::string, double> r;
  return r;
}

std::string sizeName(int w, int h) { return std::to_string(w) + "x" + std::to_string(h); }

// Frame creation and the foreground statistics, each timed on its own, frame after frame.
void BM_Ingest(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  Clip* clip = clipOf(w, h);
  if (!clip) {
    state.SkipWithError("test pictures missing");
    return;
  }
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  KoEngineFg* fg = engine.mFg.get();
  const uint32_t features = engine.featureMask();
  const uint32_t camBits = KoEngine::FEATURE_CAMERA_MOTION | KoEngine::FEATURE_SENSORS;
  uint32_t id = 1;
  double createUs = 0, statsUs = 0, motionUs = 0;
  for (auto _ : state) {
    KO_PreviewFrameData_t p = clip->preview(id++);
    const Clock::time_point t0 = Clock::now();
    sp<KoFrameData> frame;
    engine.mFrameDataCreate->newFrame(&p, frame);
    const double created = usSince(t0);
    const Clock::time_point t1 = Clock::now();
    pthread_mutex_lock(&fg->mLock);
    KoFrameHist* hist = fg->mFrameHist;
    hist->addFrameData(frame);
    const size_t count = hist->size();
    if (count > 1) {
      sp<KoFrameData> current = hist->mHistory[count - 1]->mFrameData;
      sp<KoFrameData> previous = hist->mHistory[count - 2]->mFrameData;
      if ((features & camBits) == camBits) fg->processCamMotion(current);
      fg->processFrameStats(current, previous);
      const Clock::time_point t2 = Clock::now();
      if (features & KoEngine::FEATURE_MOTION_SCORES) fg->processMotionScores(current, hist);
      motionUs += usSince(t2);
    }
    pthread_mutex_unlock(&fg->mLock);
    const double analysed = usSince(t1);
    createUs += created;
    statsUs += analysed;
    state.SetIterationTime((created + analysed) * 1e-6);
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["create_us"] = createUs / n;
  state.counters["stats_us"] = statsUs / n;
  const std::string size = sizeName(w, h);
  results()["create " + size] = createUs / n;
  results()["stats " + size] = statsUs / n;
  results()["motion " + size] = motionUs / n;
}
BENCHMARK(BM_Ingest)
    ->Args({1920, 1080})
    ->Args({1440, 1080})
    ->Args({1280, 720})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// The foreground's best-shot pass over a full history, after the frame's own statistics.
void BM_ForegroundBestShotPass(benchmark::State& state) {
  Clip* clip = clipOf(1920, 1080);
  if (!clip) {
    state.SkipWithError("test pictures missing");
    return;
  }
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  KoEngineFg* fg = engine.mFg.get();
  uint32_t id = 1;
  double passUs = 0;
  for (auto _ : state) {
    KO_PreviewFrameData_t p = clip->preview(id++);
    sp<KoFrameData> frame;
    engine.mFrameDataCreate->newFrame(&p, frame);
    pthread_mutex_lock(&fg->mLock);
    fg->mProcessInFg = false;
    fg->handlePreviewFrame(frame, &p, false);
    fg->mProcessInFg = true;
    const Clock::time_point t0 = Clock::now();
    if (fg->mFrameHist->size() > 1) fg->processBestShotInFG();
    const double us = usSince(t0);
    pthread_mutex_unlock(&fg->mLock);
    passUs += us;
    state.SetIterationTime(us * 1e-6);
  }
  results()["bestshot 1920x1080"] = passUs / static_cast<double>(state.iterations());
}
BENCHMARK(BM_ForegroundBestShotPass)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Reading every byte of the frame once: the least any ingest can cost.
uint64_t readOnce(const uint8_t* data, size_t bytes) {
#if defined(__SSE2__)
  __m128i acc0 = _mm_setzero_si128(), acc1 = _mm_setzero_si128();
  size_t i = 0;
  for (; i + 32 <= bytes; i += 32) {
    acc0 = _mm_add_epi64(acc0, _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i)));
    acc1 = _mm_add_epi64(acc1, _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i + 16)));
  }
  uint64_t lanes[2];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(lanes), _mm_add_epi64(acc0, acc1));
  uint64_t sum = lanes[0] + lanes[1];
  for (; i < bytes; ++i) sum += data[i];
  return sum;
#else
  uint64_t sum = 0;
  for (size_t i = 0; i + 8 <= bytes; i += 8) {
    uint64_t v;
    memcpy(&v, data + i, 8);
    sum += v;
  }
  return sum;
#endif
}

void BM_MemoryFloor(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  Clip* clip = clipOf(w, h);
  if (!clip) {
    state.SkipWithError("test pictures missing");
    return;
  }
  uint32_t k = 0;
  for (auto _ : state) {
    const std::vector<uint8_t>& f = clip->frames[k++ % kFrames];
    benchmark::DoNotOptimize(readOnce(f.data(), f.size()));
  }
  state.counters["GB/s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * w * h * 3 / 2 * 1e-9, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_MemoryFloor)
    ->Args({1920, 1080})
    ->Args({1440, 1080})
    ->Args({1280, 720})
    ->Unit(benchmark::kMicrosecond);

#if defined(KOVANE_HAVE_OPENCV)
// The same images and statistics with OpenCV on one thread: area reductions of luma and chroma
// to the analysis size, the centred 640x360 band reduced to 320x180, its mean and spread, the
// mean Sobel magnitude, the mean absolute difference to the previous frame and a 32-bin
// histogram.
void BM_OpenCvPipeline(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  Clip* clip = clipOf(w, h);
  if (!clip) {
    state.SkipWithError("test pictures missing");
    return;
  }
  cv::setNumThreads(1);
  const int outH = static_cast<double>(w) / h < 1.4 ? 480 : 360;
  cv::Mat analysis, chroma, small, prevSmall(180, 320, CV_8UC1, cv::Scalar(0)), gx, gy, fx, fy,
      mag, diff, hist;
  cv::Mat chromaPlanes[2];
  cv::Scalar mean, spread;
  const int channels[] = {0};
  const int bins[] = {32};
  const float range[] = {0, 256};
  const float* ranges[] = {range};
  uint32_t k = 0;
  for (auto _ : state) {
    uint8_t* data = clip->frames[k++ % kFrames].data();
    cv::Mat luma(h, w, CV_8UC1, data);
    cv::Mat vu(h / 2, w / 2, CV_8UC2, data + w * h);
    cv::resize(luma, analysis, cv::Size(640, outH), 0, 0, cv::INTER_AREA);
    cv::resize(vu, chroma, cv::Size(320, outH / 2), 0, 0, cv::INTER_AREA);
    cv::split(chroma, chromaPlanes);
    cv::resize(analysis.rowRange((outH - 360) / 2, (outH - 360) / 2 + 360), small, cv::Size(320, 180),
               0, 0, cv::INTER_AREA);
    cv::meanStdDev(small, mean, spread);
    cv::Sobel(small, gx, CV_16S, 1, 0);
    cv::Sobel(small, gy, CV_16S, 0, 1);
    gx.convertTo(fx, CV_32F);
    gy.convertTo(fy, CV_32F);
    cv::magnitude(fx, fy, mag);
    benchmark::DoNotOptimize(cv::mean(mag));
    cv::absdiff(small, prevSmall, diff);
    cv::meanStdDev(diff, mean, spread);
    benchmark::DoNotOptimize(mean);
    cv::calcHist(&small, 1, channels, cv::Mat(), hist, 1, bins, ranges);
    small.copyTo(prevSmall);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_OpenCvPipeline)
    ->Args({1920, 1080})
    ->Args({1440, 1080})
    ->Args({1280, 720})
    ->Unit(benchmark::kMicrosecond);
#endif

// Heap in use by an engine that has run long enough for a full history, a full clip buffer and
// a candidate list: 300 frames (10 s at 30 fps) through the foreground, best-shot pass included.
void BM_SteadyStateHeap(benchmark::State& state) {
  Clip* clip = clipOf(1920, 1080);
  if (!clip) {
    state.SkipWithError("test pictures missing");
    return;
  }
  for (auto _ : state) {
    malloc_trim(0);
    const struct mallinfo2 before = mallinfo2();
    {
      KO_KoEngineConfig_t config = {true, true, true};
      KoEngine engine(nullptr, &config);
      KoEngineFg* fg = engine.mFg.get();
      for (uint32_t id = 1; id <= 300; ++id) {
        KO_PreviewFrameData_t p = clip->preview(id);
        sp<KoFrameData> frame;
        engine.mFrameDataCreate->newFrame(&p, frame);
        pthread_mutex_lock(&fg->mLock);
        fg->handlePreviewFrame(frame, &p, false);
        pthread_mutex_unlock(&fg->mLock);
      }
      const struct mallinfo2 after = mallinfo2();
      const double bytes = static_cast<double>(after.uordblks + after.hblkhd) -
                           static_cast<double>(before.uordblks + before.hblkhd);
      state.counters["heap_MB"] = bytes / (1024.0 * 1024.0);
      results()["heap MB"] = bytes / (1024.0 * 1024.0);
    }
  }
}
BENCHMARK(BM_SteadyStateHeap)->Iterations(1)->Unit(benchmark::kMillisecond);

// Collects the OpenCV and memory-floor times per frame for the table.
class TableReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      const std::string name = run.benchmark_name();
      const double us = run.GetAdjustedRealTime();  // the runs report in microseconds
      const size_t slash = name.find('/');
      if (slash == std::string::npos) continue;
      std::string args = name.substr(slash + 1);
      const size_t cut = args.find("/manual_time");
      if (cut != std::string::npos) args = args.substr(0, cut);
      const size_t mid = args.find('/');
      if (mid == std::string::npos) continue;
      const std::string size = args.substr(0, mid) + "x" + args.substr(mid + 1);
      if (name.rfind("BM_OpenCvPipeline", 0) == 0) results()["opencv " + size] = us;
      if (name.rfind("BM_MemoryFloor", 0) == 0) results()["floor " + size] = us;
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

void printTable() {
  std::map<std::string, double>& r = results();
  // "motion" is the block motion's share of the statistics (it runs on every other frame at
  // 30 fps); the OpenCV pipeline has no block motion, so it is also compared without it.
  std::printf("\nPer frame (microseconds), one thread, %d distinct frames:\n", kFrames);
  std::printf("%-10s %8s %8s %8s %8s %8s %8s %14s %20s %13s\n", "size", "create", "stats", "motion",
              "ingest", "opencv", "floor", "opencv/ingest", "opencv/(ingest-motion)", "ingest/floor");
  for (const char* size : {"1920x1080", "1440x1080", "1280x720"}) {
    const std::string s = size;
    if (!r.count("create " + s)) continue;
    const double ingest = r["create " + s] + r["stats " + s];
    const double motion = r["motion " + s];
    const double opencv = r.count("opencv " + s) ? r["opencv " + s] : 0.0;
    const double floor = r.count("floor " + s) ? r["floor " + s] : 0.0;
    std::printf("%-10s %8.1f %8.1f %8.1f %8.1f %8.1f %8.1f %14.2f %20.2f %13.2f\n", size,
                r["create " + s], r["stats " + s], motion, ingest, opencv, floor,
                opencv > 0 ? opencv / ingest : 0.0, opencv > 0 ? opencv / (ingest - motion) : 0.0,
                floor > 0 ? ingest / floor : 0.0);
  }
  if (r.count("bestshot 1920x1080")) {
    std::printf("foreground best-shot pass: %.1f us per frame\n", r["bestshot 1920x1080"]);
  }
  if (r.count("heap MB")) {
    std::printf("steady-state heap (history, candidates, clip buffer): %.1f MB\n", r["heap MB"]);
  }
#if !defined(KOVANE_HAVE_OPENCV)
  std::printf("(OpenCV not installed: no reference column; `make bench` installs it)\n");
#endif
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  printTable();
  return 0;
}
