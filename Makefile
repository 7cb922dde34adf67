# Thin wrappers around CMake; the build lives in $(BUILD). Each goal installs
# only the Debian packages it needs (.ci/install-deps GROUP) and builds only
# what it uses: `run` the tool alone, `test` the test suites as well.
BUILD ?= build
CMAKE_FLAGS ?=
TOOL := $(BUILD)/tools/quor-stdlib/quor-stdlib

.PHONY: all deps configure configure-tests build test run bench stress install package format clean

all: build

# Every package any goal needs, as CI installs them.
deps:
	@bash .ci/install-deps ci

# A new build tree starts without the test suites, which need GoogleTest; the
# goals that run tests switch them on. An existing tree keeps its settings.
configure:
	@bash .ci/install-deps tool
	@test -f $(BUILD)/build.ninja || cmake -S . -B $(BUILD) -G Ninja -DQUOR_BUILD_TESTS=OFF $(CMAKE_FLAGS)

configure-tests:
	@bash .ci/install-deps test
	@grep -qx 'QUOR_BUILD_TESTS:BOOL=ON' $(BUILD)/CMakeCache.txt 2>/dev/null && test -f $(BUILD)/build.ninja \
		|| cmake -S . -B $(BUILD) -G Ninja -DQUOR_BUILD_TESTS=ON $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD)

# Build the tool alone, then bring the shipped standard library up to date in
# the default cache.
run: configure
	cmake --build $(BUILD) --target quor-stdlib
	$(TOOL) ensure

test: configure-tests
	cmake --build $(BUILD)
	ctest --test-dir $(BUILD) --output-on-failure -j2

# The reliability harnesses at their full counts: the crash test, the contention
# stress and the pruning attack (QUOR_STRESS_SEED picks another seed).
stress: configure-tests
	cmake --build $(BUILD)
	QUOR_STRESS=full ctest --test-dir $(BUILD) -L reliability --output-on-failure

# The prefix is set at configure time too: the installed services fall back to
# the library under it, and the manual page names its documentation folder.
PREFIX ?= /usr/local
install: configure
	cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX) >/dev/null
	cmake --build $(BUILD)
	cmake --install $(BUILD)

# The Debian package, from a Release tree of its own configured for /usr and
# optimised at -O2 as Debian builds are: $(PACKAGE_BUILD)/quor-bootstrap_<version>_<arch>.deb.
# tests/package/check-package.sh unpacks and tries it.
PACKAGE_BUILD ?= build-package
package:
	@bash .ci/install-deps package
	@test -f $(PACKAGE_BUILD)/build.ninja || cmake -S . -B $(PACKAGE_BUILD) -G Ninja \
		-DCMAKE_BUILD_TYPE=Release '-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG' \
		-DCMAKE_INSTALL_PREFIX=/usr -DQUOR_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(PACKAGE_BUILD) --target package

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD)

# Figures against their floors, in a Release build of its own; see
# docs/performance.md. BENCH_FLAGS go to the workload script (--quick, --only 3,4).
BENCH_BUILD ?= build-bench
BENCH_FLAGS ?=
bench:
	@bash .ci/install-deps bench
	@test -f $(BENCH_BUILD)/build.ninja || cmake -S . -B $(BENCH_BUILD) -G Ninja \
		-DCMAKE_BUILD_TYPE=Release -DQUOR_BUILD_BENCHMARKS=ON -DQUOR_BUILD_TESTS=OFF
	cmake --build $(BENCH_BUILD) -j2
	$(BENCH_BUILD)/bench/quor-bench-ready --benchmark_repetitions=9 \
		--benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true \
		--benchmark_out=$(BENCH_BUILD)/ready-path.json --benchmark_out_format=json
	python3 bench/workload.py --build-dir $(BENCH_BUILD) \
		--ready-json $(BENCH_BUILD)/ready-path.json $(BENCH_FLAGS)
