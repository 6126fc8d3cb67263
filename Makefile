# Thin front door: installs what is missing, then lets CMake and CTest do the work.
.PHONY: all deps build test test-mutants test-power demo release bench bench-migrate bench-files fuzz-smoke package package-check clean

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset asan >/dev/null
	cmake --build --preset asan

# The tests, under AddressSanitizer and UndefinedBehaviorSanitizer.
test: build
	ctest --preset asan

# The power-cut sweeps in full: a seven-application migration cut at every one of its
# mutating calls, losing all that was not synced and, in a second pass, all but part of one
# directory's queue (`make test` cuts the first call of every call site).
# Each small mistake of tests/mutants/ alone, built and run against the suite (not in CI).
test-mutants: deps
	scripts/test-mutants

test-power: build
	VX_POWER_SWEEP=full ctest --preset asan -R PowerCut --timeout 10800

# Every fuzz target for a bounded time (FUZZ_SECONDS each), with clang's libFuzzer under the
# sanitizers; the corpus each run grows stays in build/fuzz/corpus for the next. Inputs reach
# 1 MiB, room for the deep and wide lists a hostile device can hold.
FUZZ_SECONDS ?= 38
fuzz-smoke: deps
	CC=clang-14 CXX=clang++-14 cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DVX_BUILD_FUZZ=ON -DVX_SANITIZE=ON -DVX_BUILD_TESTS=OFF >/dev/null
	cmake --build build/fuzz --target vx_fuzzers
	@set -e; for target in build/fuzz/bin/*_fuzzer; do \
	  name=$$(basename $$target); mkdir -p build/fuzz/corpus/$$name; \
	  echo "fuzz-smoke: $$name for $(FUZZ_SECONDS)s"; \
	  $$target -max_total_time=$(FUZZ_SECONDS) -max_len=1048576 -timeout=10 -rss_limit_mb=2048 \
	    -artifact_prefix=build/fuzz/$$name- \
	    -print_final_stats=1 build/fuzz/corpus/$$name 2>build/fuzz/$$name.log \
	    || { tail -n 60 build/fuzz/$$name.log; exit 1; }; \
	  grep -E '^stat::number_of_executed_units' build/fuzz/$$name.log || true; \
	done

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

# vxfile against du, rm, cp, ls, chown and openssl on T1 (100,000 files in 1,000 directories)
# and T3 (200,000 empty files in one directory), made once in the work directory and reused.
# BENCH_DIR (default build/bench-files), BENCH_ROUNDS (cp and rm, default 3) and
# BENCH_QUICK_ROUNDS (the others, default 11) and BENCH_WORKERS (vxfile's -j; one worker per
# core when empty) may be set.
BENCH_QUICK_ROUNDS ?= 11
BENCH_WORKERS ?=
BENCH_FILES_DIR = $(if $(filter command line environment,$(origin BENCH_DIR)),$(BENCH_DIR),build/bench-files)
bench-files: release
	build/release/bin/vx_files_bench --bin-dir build/release/bin --work-dir $(BENCH_FILES_DIR) \
	  --rounds $(BENCH_ROUNDS) --quick-rounds $(BENCH_QUICK_ROUNDS) \
	  $(if $(BENCH_WORKERS),--workers $(BENCH_WORKERS))

# A Debian package (build/vxmigrate_<version>_<arch>.deb), built for the /usr prefix with
# Debian's hardening flags.
DEB_FLAGS = DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get
package: deps
	cmake -S . -B build/package -G Ninja -DCMAKE_BUILD_TYPE=None -DCMAKE_INSTALL_PREFIX=/usr \
	  -DVX_BUILD_TESTS=OFF -DVX_DEBIAN_PACKAGE=ON \
	  -DCMAKE_CXX_FLAGS="$$($(DEB_FLAGS) CXXFLAGS) $$($(DEB_FLAGS) CPPFLAGS)" \
	  -DCMAKE_EXE_LINKER_FLAGS="$$($(DEB_FLAGS) LDFLAGS)" \
	  -DCMAKE_SHARED_LINKER_FLAGS="$$($(DEB_FLAGS) LDFLAGS)" \
	  -DCMAKE_MODULE_LINKER_FLAGS="$$($(DEB_FLAGS) LDFLAGS)" >/dev/null
	cmake --build build/package
	rm -f build/vxmigrate_*.deb
	cd build/package && cpack -B "$(CURDIR)/build" >/dev/null
	@ls build/vxmigrate_*.deb

# The package as Debian's checker sees it: an error fails, warnings are shown.
package-check: package
	lintian --fail-on error --info --display-level '>=warning' build/vxmigrate_*.deb

clean:
	rm -rf build
