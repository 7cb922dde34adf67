# Thin wrappers around CMake; the build lives in $(BUILD).
BUILD ?= build
CMAKE_FLAGS ?=
TOOL := $(BUILD)/tools/quor-stdlib/quor-stdlib

.PHONY: all deps configure build test run bench stress install format clean

all: build

deps:
	@bash .ci/install-deps

configure: deps
	@test -f $(BUILD)/build.ninja || cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD)

# Build, then bring the shipped standard library up to date in the default cache.
run: build
	$(TOOL) ensure

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j2

# The reliability harnesses at their full counts: the crash test, the contention
# stress and the pruning attack (QUOR_STRESS_SEED picks another seed).
stress: build
	QUOR_STRESS=full ctest --test-dir $(BUILD) -L reliability --output-on-failure

install: build
	cmake --install $(BUILD) --prefix $(or $(PREFIX),/usr/local)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD)

# Figures against their floors, in a Release build of its own; see
# docs/performance.md. BENCH_FLAGS go to the workload script (--quick, --only 3,4).
BENCH_BUILD ?= build-bench
BENCH_FLAGS ?=
bench: deps
	@test -f $(BENCH_BUILD)/build.ninja || cmake -S . -B $(BENCH_BUILD) -G Ninja \
		-DCMAKE_BUILD_TYPE=Release -DQUOR_BUILD_BENCHMARKS=ON -DQUOR_BUILD_TESTS=OFF
	cmake --build $(BENCH_BUILD) -j2
	$(BENCH_BUILD)/bench/quor-bench-ready --benchmark_repetitions=9 \
		--benchmark_report_aggregates_only=true \
		--benchmark_out=$(BENCH_BUILD)/ready-path.json --benchmark_out_format=json
	python3 bench/workload.py --build-dir $(BENCH_BUILD) \
		--ready-json $(BENCH_BUILD)/ready-path.json $(BENCH_FLAGS)
