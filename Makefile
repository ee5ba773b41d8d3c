# Thin wrapper over CMake presets; see README.md.
.PHONY: all build test test-asan fuzz demo clean

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

demo: build
	./tools/demo.sh build/dev

clean:
	rm -rf build
