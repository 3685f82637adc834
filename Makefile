# Thin wrapper over the CMake presets (CMakePresets.json holds the real configuration).
.PHONY: all build test bench clean

all: build

build:
	cmake --preset release
	cmake --build --preset release

test: build
	ctest --preset release

bench:
	cmake --preset bench
	cmake --build --preset bench
	./build/bench/bin/veltrano_bench --benchmark_min_time=0.2

clean:
	rm -rf build
