# Front door of the build: `make test` on a fresh Debian 12 machine installs what is missing,
# configures, builds and runs the whole suite.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

EVAL_CLIPS ?=

.PHONY: all deps testdata build test test-asan test-tsan test-armhf soak fuzz coverage bench demo eval clean

all: build

deps:
	./scripts/install-deps.sh

testdata: deps
	./scripts/fetch-testdata.sh

build/Makefile: CMakeLists.txt | deps
	cmake -S . -B build $(CMAKE_FLAGS)

build: deps build/Makefile
	cmake --build build -j $(JOBS)

test: build testdata
	cd build && ctest --output-on-failure -j $(JOBS)

# The sanitizer builds are optimised (-O2 -g): the engine tests feed real 1920x1080 frames, and an
# unoptimised instrumented build is slow enough to distort the timing the engine itself measures.
test-asan: deps testdata
	cmake -S . -B build-asan -DKOVANE_SANITIZE=address -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

test-tsan: deps testdata
	cmake -S . -B build-tsan -DKOVANE_SANITIZE=thread -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && ctest --output-on-failure -j $(JOBS)

# The 32-bit ARM build (NEON, hard float) and the whole suite under qemu (build-armhf/: the
# sysroot of Debian's armhf packages, made once, and the build).
test-armhf: deps testdata
	JOBS=$(JOBS) CMAKE_FLAGS="$(CMAKE_FLAGS)" ./scripts/cross-armhf.sh

# The replay tool on a real clip: build/demo/report.html and a summary table.
demo: deps build/Makefile testdata
	cmake --build build --target kovane-replay -j $(JOBS)
	./scripts/replay-demo.sh

# The replay tool over EVAL_CLIPS with a fixed seed: one table, build/eval/summary.json.
eval: deps build/Makefile testdata
	cmake --build build --target kovane-replay -j $(JOBS)
	EVAL_CLIPS="$(EVAL_CLIPS)" ./scripts/replay-eval.sh

# The engine soak at length: 10^6 frames of a random camera (ctest runs it for 20 s). SOAK_SEED
# repeats a run.
SOAK_SEED ?=
soak: build testdata
	KOVANE_SOAK_FRAMES=1000000 KOVANE_SOAK_SECONDS=0 KOVANE_SOAK_SEED=$(SOAK_SEED) build/tests/test_soak

# Line coverage of the product's folders by the whole suite (build-cov/, gcov and lcov).
coverage: deps testdata
	./scripts/install-deps.sh --coverage
	cmake -S . -B build-cov -DKOVANE_COVERAGE=ON -DCMAKE_BUILD_TYPE=Debug $(CMAKE_FLAGS)
	cmake --build build-cov -j $(JOBS)
	lcov --quiet --zerocounters --directory build-cov
	cd build-cov && ctest -j $(JOBS) --timeout 600
	./scripts/coverage-summary.sh

# libFuzzer on every fuzz target for FUZZ_SECONDS each (clang build in build-fuzz/).
FUZZ_SECONDS ?= 60
fuzz: deps
	./scripts/install-deps.sh --fuzz
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DKOVANE_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)
	cmake --build build-fuzz -j $(JOBS) --target fuzz_StatsReaderFuzz fuzz_StatsRoundTripFuzz fuzz_EngineCallsFuzz
	FUZZ_SECONDS=$(FUZZ_SECONDS) ./scripts/run-fuzz.sh

bench: build
	./scripts/install-deps.sh --bench
	cmake -S . -B build $(CMAKE_FLAGS)
	cmake --build build -j $(JOBS)
	for b in build/bench/bench_*; do $$b; done

clean:
	rm -rf build build-asan build-tsan build-fuzz build-cov build-armhf
