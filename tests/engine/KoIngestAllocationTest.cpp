// The per-frame ingest (frame creation at the facade, then the foreground's history insertion,
// camera motion, statistics and block motion) allocates nothing once warm: every allocation of
// the test thread is counted by hooks on the C and C++ allocators of this test program.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "EngineTestSupport.h"
#include "KoFrameDataCreate.h"

// The sanitizers bring their own allocators; the hooks are built only without them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KOVANE_ALLOC_HOOKS 0
#else
#define KOVANE_ALLOC_HOOKS 1
#endif

namespace {

thread_local bool tCounting = false;
thread_local size_t tAllocations = 0;
thread_local size_t tFirstSizes[8];

}  // namespace

#if KOVANE_ALLOC_HOOKS
namespace {
void* noted(size_t bytes, void* p) {
  if (tCounting && tAllocations++ < 8) tFirstSizes[tAllocations - 1] = bytes;
  return p;
}
}  // namespace

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

void* malloc(size_t bytes) { return noted(bytes, __libc_malloc(bytes)); }
void* calloc(size_t n, size_t bytes) { return noted(n * bytes, __libc_calloc(n, bytes)); }
void* realloc(void* p, size_t bytes) { return noted(bytes, __libc_realloc(p, bytes)); }
void* memalign(size_t alignment, size_t bytes) { return noted(bytes, __libc_memalign(alignment, bytes)); }
void* aligned_alloc(size_t alignment, size_t bytes) { return noted(bytes, __libc_memalign(alignment, bytes)); }
int posix_memalign(void** out, size_t alignment, size_t bytes) {
  void* p = noted(bytes, __libc_memalign(alignment, bytes));
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}
void free(void* p) { __libc_free(p); }
}
#endif

namespace android {
namespace {

using kovane_test::SimulatedCamera;

// One frame through the ingest, as the facade and the foreground do it.
void ingest(KoEngine& engine, KO_PreviewFrameData_t* preview) {
  sp<KoFrameData> frame;
  engine.mFrameDataCreate->newFrame(preview, frame);
  ASSERT_NE(frame, nullptr);
  KoEngineFg* fg = engine.mFg.get();
  pthread_mutex_lock(&fg->mLock);
  KoFrameHist* hist = fg->mFrameHist;
  hist->addFrameData(frame);
  const size_t count = hist->size();
  if (count > 1) {
    sp<KoFrameData> current = hist->mHistory[count - 1]->mFrameData;
    sp<KoFrameData> previous = hist->mHistory[count - 2]->mFrameData;
    fg->processCamMotion(current);
    fg->processFrameStats(current, previous);
    fg->processMotionScores(current, hist);
  }
  pthread_mutex_unlock(&fg->mLock);
}

TEST(IngestAllocations, NoneInAThousandFramesOnceWarm) {
  if (!KOVANE_ALLOC_HOOKS) GTEST_SKIP() << "allocator hooks are not built with sanitizers";
  SimulatedCamera cam;
  ASSERT_TRUE(cam.ready());
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  uint32_t id = 1;
  for (; id <= 200; ++id) {
    KO_PreviewFrameData_t p = cam.preview(id);
    ingest(engine, &p);
  }
  // The hooks see this thread's allocations only; the engine's own threads are idle.
  tAllocations = 0;
  tCounting = true;
  for (; id <= 1200; ++id) {
    KO_PreviewFrameData_t p = cam.preview(id);
    ingest(engine, &p);
  }
  tCounting = false;
  std::string sizes;
  for (size_t i = 0; i < tAllocations && i < 8; ++i) sizes += std::to_string(tFirstSizes[i]) + " ";
  EXPECT_EQ(0u, tAllocations) << "first sizes: " << sizes;
  // The hooks do count: a plain allocation on this thread is seen.
  static void* volatile sink;
  const size_t before = tAllocations;
  tCounting = true;
  sink = malloc(100);
  tCounting = false;
  free(sink);
  EXPECT_EQ(before + 1, tAllocations);
}

}  // namespace
}  // namespace android
