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

clean:
	rm -rf build
