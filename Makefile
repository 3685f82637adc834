# Thin wrapper over the CMake presets (CMakePresets.json holds the real configuration).
.PHONY: all build test demo studio studio-test bench fuzz soak clean

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

# The chain studio on the demo's picture, with a copy of the default chain in demo-out/chains/
# (the page saves chain files in that folder). docs/studio.md.
studio: demo
	mkdir -p demo-out/chains
	[ -f demo-out/chains/default.chain ] || cp chains/default.chain demo-out/chains/
	./build/release/bin/veltrano studio --image demo-out/corrected.png --chain demo-out/chains/default.chain

# The studio in Debian's headless Chromium (needs chromium and npm); screenshots in
# build/studio-artefacts/.
studio-test:
	cmake --preset release
	cmake --build --preset release --target veltrano_cli
	studio/browser-test/run.sh --veltrano build/release/bin/veltrano --artefacts build/studio-artefacts

# Benchmarks (bench preset; needs Google Benchmark and OpenCV, Debian's libbenchmark-dev and
# libopencv-dev). Builds both benchmark programs and runs the comparison with OpenCV: every pair
# on one thread, then the correlation core (filter2D_32F) on two threads as well; about a minute
# in all. docs/performance.md explains the report. The per-function Google Benchmark program is
# built but not run here: ./build/bench/bin/veltrano_bench --benchmark_min_time=0.2
bench:
	cmake --preset bench
	cmake --build --preset bench
	./build/bench/bin/veltrano_compare
	./build/bench/bin/veltrano_compare --threads 2 --filter '^filter2D'

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
