# Thin front door: installs what is missing, then lets CMake and CTest do the work.
.PHONY: all deps build test demo release bench package clean

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

# A Debian package (build/vxmigrate_<version>_<arch>.deb), built with Debian's hardening
# flags for the /usr prefix.
package: deps
	CXXFLAGS="$$(dpkg-buildflags --get CXXFLAGS) $$(dpkg-buildflags --get CPPFLAGS)" \
	LDFLAGS="$$(dpkg-buildflags --get LDFLAGS)" \
	cmake -S . -B build/package -G Ninja -DCMAKE_BUILD_TYPE=None -DCMAKE_INSTALL_PREFIX=/usr \
	  -DVX_BUILD_TESTS=OFF -DVX_DEBIAN_PACKAGE=ON >/dev/null
	cmake --build build/package
	cd build/package && cpack -B "$(CURDIR)/build" >/dev/null
	@ls build/vxmigrate_*.deb

clean:
	rm -rf build
