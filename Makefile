# Thin wrapper over CMake presets; see README.md.
.PHONY: all build test test-asan coverage coverage-prereqs lint lint-prereqs mutation demo bench bench-prereqs fuzz package clean

all: build

build:
	cmake --preset dev >/dev/null
	cmake --build --preset dev

# The one command that runs every test: configure, build, run.
test: build
	ctest --preset dev

# The same suite under AddressSanitizer and UndefinedBehaviorSanitizer.
test-asan:
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
coverage: coverage-prereqs
	cmake --preset coverage >/dev/null
	cmake --build --preset coverage
	find build/coverage -name '*.gcda' -delete
	ctest --preset coverage
	mkdir -p build/coverage/html
	gcovr --root . --filter 'src/' --object-directory build/coverage \
	  --exclude-throw-branches --exclude-unreachable-branches \
	  --html-details build/coverage/html/index.html --print-summary \
	  --fail-under-line $(COVERAGE_LINES) --fail-under-branch $(COVERAGE_BRANCHES) build/coverage

coverage-prereqs:
	@command -v gcovr >/dev/null || ./.ci/install gcovr

# Static analysis: clang-tidy (the checks in .clang-tidy) and cppcheck over
# src/, tools/ and fuzz/; fails on any finding.
lint: lint-prereqs
	./tools/lint.sh

# clang itself too: the fuzz targets' compilation database needs it to configure.
lint-prereqs:
	@need=""; \
	for tool in clang-tidy cppcheck; do command -v $$tool >/dev/null || need="$$need $$tool"; done; \
	command -v clang++ >/dev/null || need="$$need clang"; \
	[ -z "$$need" ] || ./.ci/install $$need

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
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz
	./fuzz/run.sh build/fuzz $(FUZZ_SECONDS)

# The Debian package, built from the release preset (stripped, no tests):
# build/release/zeph-route-grass-valley_<version>_<arch>.deb, then checked by
# lintian where it is installed: any error fails the target.
package:
	cmake --preset release >/dev/null
	cmake --build --preset release --target package
	@if command -v lintian >/dev/null; then \
	  lintian --fail-on error build/release/*.deb; \
	else echo "package: lintian is not installed, the package is not checked" >&2; fi

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

# Micro-benchmarks and end-to-end runs against the switcher emulator, printed
# as one table (bench/RESULTS.md holds a saved run). The build log is shown
# only when the build fails.
bench: bench-prereqs
	@cmake --preset bench >/dev/null
	@cmake --build --preset bench >build/bench-build.log 2>&1 || { cat build/bench-build.log; exit 1; }
	@build/bench/bench/zeph_bench

# Google Benchmark is needed to build; strace only for the system-call count,
# which is skipped without it. Installed when missing and we may.
bench-prereqs:
	@need=""; \
	[ -f /usr/include/benchmark/benchmark.h ] || need="$$need libbenchmark-dev"; \
	command -v strace >/dev/null || need="$$need strace"; \
	if [ -n "$$need" ]; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null; then \
	    (apt-get update -qq && apt-get install -y -qq $$need) >/dev/null || true; \
	  else echo "bench: not installed:$$need" >&2; fi; \
	fi

clean:
	rm -rf build
