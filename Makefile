# Thin wrapper over CMake presets; see README.md.
.PHONY: all build test test-asan demo clean

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

demo: build
	./tools/demo.sh build/dev

# The fault soak: the backend against the emulator in chaos mode.
.PHONY: soak
SOAK_SECONDS ?= 60
SOAK_SEED ?= 1
soak: build
	./build/dev/tools/soak --seconds $(SOAK_SECONDS) --seed $(SOAK_SEED)

clean:
	rm -rf build
