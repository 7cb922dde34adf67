# Thin wrappers around the CMake presets (CMakePresets.json); each goal installs
# only the Debian packages it needs (.ci/install-deps GROUP) and builds only
# what it uses: `run` the tool alone, `test` the test suites as well.
#
# .ci/configure configures a preset's tree when it is new, or when the preset
# or CMAKE_FLAGS (extra arguments for cmake) differ from the last time.
CMAKE_FLAGS ?=
# The presets' binaryDirs.
BUILD := build
PACKAGE_BUILD := build-package
BENCH_BUILD := build-bench
TOOL := $(BUILD)/tools/quor-stdlib/quor-stdlib
# A new build/ starts from the tool preset, without the test suites, which need
# GoogleTest; `test` moves it to the default preset, which has them, and the
# tool's goals then keep the suites.
TOOL_PRESET = $(if $(shell grep -sx 'QUOR_BUILD_TESTS:BOOL=ON' $(BUILD)/CMakeCache.txt),default,tool)

.PHONY: all deps configure configure-tests build test run bench stress mutation install package tidy format clean

all: build

# Every package any goal needs, as CI installs them.
deps:
	@bash .ci/install-deps ci

configure:
	@bash .ci/install-deps tool && bash .ci/configure $(BUILD) $(TOOL_PRESET) $(CMAKE_FLAGS)

configure-tests:
	@bash .ci/install-deps test && bash .ci/configure $(BUILD) default $(CMAKE_FLAGS)

# A build preset names a tree, not its settings: `default` builds build/ as it
# is configured, with or without the test suites.
build: configure
	cmake --build --preset default

# Build the tool alone, then bring the shipped standard library up to date in
# the default cache.
run: configure
	cmake --build --preset tool && $(TOOL) ensure

test: configure-tests
	cmake --build --preset default && ctest --preset default

# The reliability harnesses at their full counts: the crash test, the contention
# stress and the pruning attack (QUOR_STRESS_SEED picks another seed).
stress: configure-tests
	cmake --build --preset default && QUOR_STRESS=full ctest --preset default -L reliability

# Each defect of tests/mutation/defects.txt put, one at a time, into a scratch
# copy of the working tree, against the tests that should catch it; a defect
# that survives is a guarantee no test holds. Not part of `test`: it takes long.
# MUTATION_FLAGS go to the script (-k, -j 2, 'trust-*'); see docs/testing.md.
MUTATION_FLAGS ?=
mutation:
	@bash .ci/install-deps mutation
	bash tests/mutation/run.sh $(MUTATION_FLAGS)

# The prefix is set at configure time too: the installed services fall back to
# the library under it, and the manual page names its documentation folder.
PREFIX ?= /usr/local
install: configure
	cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX) >/dev/null && cmake --build --preset default && cmake --install $(BUILD)

# The Debian package, $(PACKAGE_BUILD)/quor-bootstrap_<version>_<arch>.deb, from
# the package preset; tests/package/check-package.sh unpacks and tries it, and
# tests/package/check-install.sh installs it with dpkg into a scratch root.
package:
	@bash .ci/install-deps package && bash .ci/configure $(PACKAGE_BUILD) package $(CMAKE_FLAGS)
	cmake --build --preset package

# clang-tidy (.clang-tidy) over the unit, the services and the tool, with the
# compile commands of the default tree; any finding fails the goal.
tidy: configure-tests
	@bash .ci/install-deps tidy
	cmake --build --preset default && run-clang-tidy -p $(BUILD) -quiet '$(CURDIR)/(compiler|tools)/.*\.cpp$$'

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD)

# Figures against their floors, in the Release tree of the bench preset; see
# docs/performance.md. BENCH_FLAGS go to the workload script (--quick, --only 3,4).
BENCH_FLAGS ?=
bench:
	@bash .ci/install-deps bench && bash .ci/configure $(BENCH_BUILD) bench $(CMAKE_FLAGS)
	cmake --build --preset bench
	$(BENCH_BUILD)/bench/quor-bench-ready --benchmark_repetitions=9 \
		--benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true \
		--benchmark_out=$(BENCH_BUILD)/ready-path.json --benchmark_out_format=json
	python3 bench/workload.py --build-dir $(BENCH_BUILD) \
		--ready-json $(BENCH_BUILD)/ready-path.json $(BENCH_FLAGS)
