# Thin wrapper over CMake presets; see README.md. Each command first runs
# tools/setup.sh, which installs the Debian packages it needs (as root) or
# stops at once naming them.
.PHONY: all build test test-asan coverage lint mutation demo bench fuzz package clean

SETUP = ./tools/setup.sh

all: build

build:
	@$(SETUP) build
	cmake --preset dev >/dev/null
	cmake --build --preset dev

# The one command that runs every test: configure, build, run. The install
# test unpacks the Debian package, so the package is built (and checked) first.
test: package build
	ctest --preset dev

# The same suite under AddressSanitizer and UndefinedBehaviorSanitizer. This
# build leaves the line-editing library out (CMakePresets.json), so the
# console's plain-lines build is built and tested under -Werror too.
test-asan: package
	cmake --preset asan >/dev/null
	cmake --build --preset asan
	ctest --preset asan

# The whole suite on an instrumented build, then a line and branch summary of
# src/ (branches the compiler adds for exceptions, and ones it proves
# unreachable, left out) and an HTML report in build/coverage/html/. Counts
# from earlier runs are removed first; the backend's own runs under the
# black-box tests add theirs. Fails below 98 % of lines or 90 % of branches.
COVERAGE_LINES ?= 98
COVERAGE_BRANCHES ?= 90
coverage: package
	@$(SETUP) coverage
	cmake --preset coverage >/dev/null
	cmake --build --preset coverage
	find build/coverage -name '*.gcda' -delete
	ctest --preset coverage
	mkdir -p build/coverage/html
	gcovr --root . --filter 'src/' --object-directory build/coverage \
	  --exclude-throw-branches --exclude-unreachable-branches \
	  --html-details build/coverage/html/index.html --print-summary \
	  --fail-under-line $(COVERAGE_LINES) --fail-under-branch $(COVERAGE_BRANCHES) build/coverage

# Static analysis: clang-tidy (the checks in .clang-tidy) and cppcheck over
# src/, tools/ and fuzz/; fails on any finding.
lint:
	@$(SETUP) lint
	./tools/lint.sh

# A sampled mutation run: MUTANTS single changes to src/ (a comparison, a
# logical or arithmetic operator, a constant), each built and tested in a copy
# of the tree under build/mutation; prints which the suite killed. Slow (a
# build and a suite run per mutant), so not part of CI.
MUTANTS ?= 30
MUTATION_SEED ?= 1
mutation:
	python3 tools/mutation_sample.py --samples $(MUTANTS) --seed $(MUTATION_SEED)

# libFuzzer targets (clang, AddressSanitizer, UndefinedBehaviorSanitizer):
# replay the kept regression inputs, then fuzz each target for FUZZ_SECONDS.
FUZZ_SECONDS ?= 60
fuzz:
	@$(SETUP) fuzz
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz
	./fuzz/run.sh build/fuzz $(FUZZ_SECONDS)

# The Debian package, built from the release preset (stripped, no tests):
# build/release/zeph-route-grass-valley_<version>_<arch>.deb, then checked by
# lintian: any error fails the target.
package:
	@$(SETUP) test
	cmake --preset release >/dev/null
	cmake --build --preset release --target package
	lintian --fail-on error build/release/*.deb

# A console script against the bundled switcher emulator: read tools/demo.console.
demo: build
	build/dev/tools/zeph_route_console --emulator --outputs 8 --inputs 8 \
	  --model "Demo Router" --firmware-type V5 --firmware-revision 2.1 <tools/demo.console

# The fault soak: the backend against the emulator in chaos mode.
.PHONY: soak
SOAK_SECONDS ?= 60
SOAK_SEED ?= 1
soak: build
	./build/dev/tools/soak --seconds $(SOAK_SECONDS) --seed $(SOAK_SEED)

# The bench build (optimised, with debug information); its log is shown
# only when the build fails.
.PHONY: bench-build
bench-build:
	@$(SETUP) bench
	@cmake --preset bench >/dev/null
	@cmake --build --preset bench >build/bench-build.log 2>&1 || { cat build/bench-build.log; exit 1; }

# Micro-benchmarks and end-to-end runs against the switcher emulator, printed
# as one table (bench/RESULTS.md holds a saved run).
bench: bench-build
	@build/bench/bench/zeph_bench

# The crosspoint panel in headless Chromium on the bench build: page ready
# with 1024 x 1024 names, routing report to lit cell, idle CPU with five
# browsers. Prints one table (bench/RESULTS.md holds a saved run).
.PHONY: bench-panel
bench-panel: bench-build
	@$(SETUP) test
	@/usr/bin/python3 bench/panel_bench.py build/bench/tools/zeph_route_panel \
	  build/bench/zeph_route_grass_valley build/bench/tools/switcher_emulator

clean:
	rm -rf build
