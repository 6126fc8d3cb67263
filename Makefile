# Thin front door: installs what is missing, then lets CMake and CTest do the work.
.PHONY: all deps build test demo release bench clean

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset asan >/dev/null
	cmake --build --preset asan

# The tests, under AddressSanitizer and UndefinedBehaviorSanitizer.
test: build
	ctest --preset asan

release: deps
	cmake --preset release >/dev/null
	cmake --build --preset release

# The main job on the built-in sample device.
demo: release
	build/release/bin/vxmigrate demo

bench: release
	build/release/bin/vx_bench

clean:
	rm -rf build
