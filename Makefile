# Thin front door: installs what is missing, then lets CMake and CTest do the work.
.PHONY: all deps build test demo release bench bench-migrate clean

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

# The migration against its floor program on sample devices of 1,000 and 10,000 apps and on
# 20 bundles of 50 MiB. Takes long on a slow disk; BENCH_DIR may point elsewhere (the large
# bundles always stay on the build's disk, where their bytes written can be counted).
BENCH_DIR ?= build/bench-migrate
BENCH_ROUNDS ?= 3
BENCH_SIZES ?= 1000,10000
bench-migrate: release
	build/release/bin/vx_migrate_bench --bin-dir build/release/bin --work-dir $(BENCH_DIR) \
	  --big-dir build/bench-migrate --rounds $(BENCH_ROUNDS) --sizes $(BENCH_SIZES)

clean:
	rm -rf build
