# Thin wrapper over the CMake presets (CMakePresets.json holds the real configuration).
.PHONY: all build test demo bench fuzz soak clean

all: build

build:
	cmake --preset release
	cmake --build --preset release

test: build
	ctest --preset release

# One exposure on the virtual sensor, processed by chains/default.chain, written to demo-out/.
# Builds only the program and the virtual sensor it loads, not the tests: a fresh clone gets to
# the pictures in a fraction of the full build's time.
demo:
	cmake --preset release
	cmake --build --preset release --target veltrano_cli
	./build/release/bin/veltrano demo

bench:
	cmake --preset bench
	cmake --build --preset bench
	./build/bench/bin/veltrano_bench --benchmark_min_time=0.2

# Every fuzz target for FUZZ_SECONDS each (clang, AddressSanitizer, UBSan); docs/reliability.md.
FUZZ_SECONDS ?= 60
fuzz:
	cmake --preset fuzz
	cmake --build --preset fuzz
	fuzz/run_fuzzers.sh $(FUZZ_SECONDS)

# The soak test under AddressSanitizer; VELTRANO_SOAK_ACQUISITIONS=N for a longer run.
soak:
	cmake --preset asan
	cmake --build --preset asan --target test_soak
	ctest --preset soak

clean:
	rm -rf build
