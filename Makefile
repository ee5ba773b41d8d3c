# Thin wrapper over CMake presets; see README.md.
.PHONY: all build test test-asan demo bench bench-prereqs fuzz package clean

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

# libFuzzer targets (clang, AddressSanitizer, UndefinedBehaviorSanitizer):
# replay the kept regression inputs, then fuzz each target for FUZZ_SECONDS.
FUZZ_SECONDS ?= 60
fuzz:
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz
	./fuzz/run.sh build/fuzz $(FUZZ_SECONDS)

# The Debian package, built from the release preset (stripped, no tests):
# build/release/zeph-route-grass-valley_<version>_<arch>.deb.
package:
	cmake --preset release >/dev/null
	cmake --build --preset release --target package

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
