# A thin wrapper around CMake: installs what a fresh Debian machine lacks, then configures,
# builds and runs. CMake is the real build.
#
#   make demo        build the library and run the demo application
#   make test        build and run the whole test suite
#   make test-asan   the suite under AddressSanitizer and UndefinedBehaviorSanitizer
#   make test-tsan   the suite under ThreadSanitizer
#   make soak        the soak program under ASan/UBSan for SOAK_MINUTES (not in CI; CTest runs
#                    a 20-second version)
#   make fuzz        build the libFuzzer targets with clang and run each for FUZZ_SECONDS
#   make install-check  install into a temporary prefix, build and run programs against it
#   make test-arm    cross-build for armhf and run the whole suite under qemu-arm
#   make check-exports  the exported names of both builds against the library's interface
#   make check-probes   the tracing probes of both builds against the library's list
#   make abi-check   the binary interface of both builds against the baselines in abi/
#   make abi-baseline  rewrite those baselines from both builds (a deliberate interface change)
#   make docs        the API reference (Doxygen) in $(BUILD)/docs/html; warnings fail it
#   make package     the Debian packages (runtime, -dev, stand-in, -doc, -dbgsym) in $(PKG_BUILD)
#   make package-check  lintian, install the packages, build programs against them, remove them
#   make bench       the benchmarks against Boost.Asio, libuv and uriparser (JSON in build-bench)
#   make bench-report  run them and rewrite the figures and plot of docs/performance.md

JOBS ?= 2
BUILD ?= build
CMAKE_FLAGS ?=

# Debian packages the build and the tests need (faketime steps the wall clock under the loop,
# gdb runs the debugger extension's test; systemtap-sdt-dev has the header of the tracing
# probes).
DEB_PACKAGES = g++ cmake make pkg-config libboost1.74-dev libboost-thread1.74-dev \
  libboost-system1.74-dev libssl-dev openssl libgtest-dev libgmock-dev libbenchmark-dev faketime gdb \
  systemtap-sdt-dev

# Host packages for the armhf cross build and for running it under qemu (make test-arm only).
# The armhf libraries themselves go into $(ARM_SYSROOT), see cmake/armhf-sysroot.sh.
ARM_DEB_PACKAGES = g++-arm-linux-gnueabihf qemu-user
ARM_BUILD ?= build-arm
ARM_SYSROOT ?= build-arm-sysroot
ARM_CMAKE_FLAGS ?=

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

# $(call install-missing,PACKAGES[,APT-FLAGS]): installs those of the Debian PACKAGES that are
# missing.
define install-missing
	@missing=$$(for p in $(1); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null \
	  | grep -q 'install ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "installing:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq $(2) $$missing </dev/null; \
	fi
endef

.PHONY: deps configure build demo test test-asan test-tsan install-check clean

deps:
	$(call install-missing,$(DEB_PACKAGES))

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

configure: deps $(BUILD)/CMakeCache.txt

build: configure
	cmake --build $(BUILD) -j$(JOBS)

demo: build
	$(BUILD)/examples/lt-demo

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

test-asan: deps
	$(MAKE) test BUILD=build-asan CMAKE_FLAGS="-DLT_SANITIZE=address,undefined -DLT_BUILD_EXAMPLES=OFF"

# Any report fails the test that caused it (exit code 66). Impossible allocations return null,
# as the C library's do, so the tests of failed growth run here too.
TSAN_OPTIONS ?= halt_on_error=1 second_deadlock_stack=1 allocator_may_return_null=1

test-tsan: deps
	TSAN_OPTIONS="$(TSAN_OPTIONS)" $(MAKE) test BUILD=build-tsan \
	  CMAKE_FLAGS="-DLT_SANITIZE=thread -DLT_BUILD_EXAMPLES=OFF"

install-check: build
	sh .ci/install-check $(BUILD)

# Posters on 16 threads, timers, descriptors, handlers coming and going, TTLs and lethal times
# against one running loop for SOAK_MINUTES, under AddressSanitizer and UBSan: prints what
# became of every event, lfcUtilMallocUsed and the resident memory, and fails if anything was
# lost, deleted twice or leaked. Shares test-asan's build directory.
SOAK_MINUTES ?= 10

.PHONY: soak

soak: deps
	$(MAKE) configure BUILD=build-asan CMAKE_FLAGS="-DLT_SANITIZE=address,undefined -DLT_BUILD_EXAMPLES=OFF"
	cmake --build build-asan -j$(JOBS) --target soak
	build-asan/tests/soak $(SOAK_MINUTES)

clean:
	rm -rf build build-*

.PHONY: deps-arm test-arm

deps-arm:
	$(call install-missing,$(ARM_DEB_PACKAGES),--no-install-recommends)
	sh cmake/armhf-sysroot.sh $(ARM_SYSROOT)

test-arm: deps deps-arm
	cmake -S . -B $(ARM_BUILD) -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/armhf-toolchain.cmake \
	  -DLT_ARM_SYSROOT=$(abspath $(ARM_SYSROOT)) $(ARM_CMAKE_FLAGS)
	cmake --build $(ARM_BUILD) -j$(JOBS)
	cd $(ARM_BUILD) && ctest --output-on-failure --no-tests=error -j$(JOBS)

# The dynamic symbols of both builds ($(BUILD) for x86-64, $(ARM_BUILD) for armhf, made by
# test-arm) against the interface listed in .ci/check-exports: all of it, and nothing else.
.PHONY: check-exports

check-exports: build
	sh .ci/check-exports $(BUILD) $(ARM_BUILD)

# The tracing probes of both builds ($(BUILD) and $(ARM_BUILD), made by test-arm) against the
# list in .ci/check-probes: the armhf library carries the same probes as the x86-64 one.
.PHONY: check-probes

check-probes: build
	sh .ci/check-probes $(BUILD) $(ARM_BUILD)

# The binary interface (libabigail's abidw and abidiff) of both builds, $(BUILD) for x86-64 and
# $(ARM_BUILD) for armhf (made by test-arm), against abi/x86_64.abi and abi/armhf.abi: any
# difference fails. abi-baseline rewrites the two files; run it only for an interface change
# that is meant, and name that change in the commit message.
ABI_DEB_PACKAGES = abigail-tools
ABI_TARGETS = $(BUILD):x86_64 $(ARM_BUILD):armhf

.PHONY: deps-abi abi-check abi-baseline

deps-abi:
	$(call install-missing,$(ABI_DEB_PACKAGES))

abi-check: build deps-abi
	sh .ci/abi-check check $(ABI_TARGETS)

abi-baseline: build deps-abi
	sh .ci/abi-check baseline $(ABI_TARGETS)

# libFuzzer targets (fuzz/): clang with AddressSanitizer and UndefinedBehaviorSanitizer. Each
# target runs for FUZZ_SECONDS from its seed corpus in fuzz/corpus/<target>; any finding fails.
FUZZ_DEB_PACKAGES = clang libclang-rt-14-dev
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60

.PHONY: deps-fuzz fuzz

deps-fuzz:
	$(call install-missing,$(FUZZ_DEB_PACKAGES))

fuzz: deps deps-fuzz
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	  -DLT_SANITIZE=address,undefined -DLT_BUILD_FUZZ=ON -DLT_BUILD_TESTS=OFF -DLT_BUILD_EXAMPLES=OFF
	cmake --build $(FUZZ_BUILD) -j$(JOBS)
	sh fuzz/run-all.sh $(FUZZ_BUILD)/fuzz $(FUZZ_SECONDS) $(JOBS)

# The API reference: Doxygen reads docs/Doxyfile (the public headers and docs/mainpage.md) and
# writes HTML into $(BUILD)/docs/html. Any warning, an undocumented public member included,
# fails the target.
DOCS_DEB_PACKAGES = doxygen
LT_VERSION := $(shell sed -n 's/^project.libtarvotools-mt VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

.PHONY: deps-docs docs

deps-docs:
	$(call install-missing,$(DOCS_DEB_PACKAGES))

docs: deps-docs
	rm -rf $(BUILD)/docs && mkdir -p $(BUILD)/docs
	( cat docs/Doxyfile; \
	  echo "OUTPUT_DIRECTORY = $(BUILD)/docs"; \
	  echo "PROJECT_NUMBER = $(LT_VERSION)"; \
	) | doxygen -
	@echo "API reference: $(BUILD)/docs/html/index.html"

# Debian packages through CPack (cmake/packaging.cmake), written into $(PKG_BUILD): a build of
# their own, installed under /usr (so the libraries go to the multiarch directory), with
# Debian's build flags (dpkg-buildflags: hardening, relro), without tests or the demo, plus the
# HTML reference for the -doc package. CPack needs `file` to find the shared objects it writes
# the shlibs file, the ldconfig triggers and the -dbgsym packages for.
PACKAGE_DEB_PACKAGES = file dpkg-dev lintian
PKG_BUILD ?= build-package
PKG_CMAKE_FLAGS ?=

.PHONY: deps-package package package-check

deps-package:
	$(call install-missing,$(PACKAGE_DEB_PACKAGES))

package: deps deps-package deps-docs
	cmake -S . -B $(PKG_BUILD) -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DLT_BUILD_TESTS=OFF -DLT_BUILD_EXAMPLES=OFF \
	  -DCMAKE_C_FLAGS="$$(dpkg-buildflags --get CPPFLAGS) $$(dpkg-buildflags --get CFLAGS)" \
	  -DCMAKE_CXX_FLAGS="$$(dpkg-buildflags --get CPPFLAGS) $$(dpkg-buildflags --get CXXFLAGS)" \
	  -DCMAKE_SHARED_LINKER_FLAGS="$$(dpkg-buildflags --get LDFLAGS)" $(PKG_CMAKE_FLAGS)
	cmake --build $(PKG_BUILD) -j$(JOBS)
	$(MAKE) docs BUILD=$(PKG_BUILD)
	rm -f $(PKG_BUILD)/*.deb $(PKG_BUILD)/*.ddeb
	cd $(PKG_BUILD) && cpack -G DEB
	@for f in $(PKG_BUILD)/*.deb $(PKG_BUILD)/*.ddeb; do \
	  [ -e "$$f" ] && dpkg-deb -f "$$f" Package Architecture Version Provides Depends && echo; \
	done; true

# Builds the packages, runs lintian on them (an error fails), installs them on this machine
# (root), builds examples/first_program.cpp and tests/install against /usr with pkg-config and
# with CMake, runs the programs and purges the packages again.
package-check: deps deps-package
	sh .ci/package-check $(PKG_BUILD)

# Benchmarks (bench/, Google Benchmark): the event road, the loop, the event queue and URIs
# against Boost.Asio, libuv and uriparser, plus the crypto figures. Built Release in
# $(BENCH_BUILD); every program writes its JSON into $(BENCH_BUILD)/results. They measure and
# assert nothing, so they are not part of CI. bench-report runs them and rewrites the figures
# of docs/performance.md and docs/performance.png from that JSON.
BENCH_DEB_PACKAGES = libbenchmark-dev libuv1-dev liburiparser-dev pkg-config python3-matplotlib
BENCH_BUILD ?= build-bench
BENCH_PROGRAMS = road_bench loop_bench queue_bench uri_bench crypto_bench
# The cross-thread figures move with what the shared host gives the machine: the road runs
# each benchmark five times in random order, so that every peer sees the same conditions, and
# the report takes the medians.
BENCH_ARGS_road_bench = --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true

.PHONY: deps-bench bench bench-report

deps-bench:
	$(call install-missing,$(BENCH_DEB_PACKAGES))

bench: deps deps-bench
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DLT_BUILD_BENCH=ON \
	  -DLT_BUILD_TESTS=OFF -DLT_BUILD_EXAMPLES=OFF
	cmake --build $(BENCH_BUILD) -j$(JOBS) --target $(BENCH_PROGRAMS)
	rm -rf $(BENCH_BUILD)/results && mkdir -p $(BENCH_BUILD)/results
	$(foreach b,$(BENCH_PROGRAMS),$(BENCH_BUILD)/bench/$(b) $(BENCH_ARGS_$(b)) \
	  --benchmark_out=$(BENCH_BUILD)/results/$(b).json --benchmark_out_format=json &&) true

bench-report: bench
	/usr/bin/python3 bench/report.py $(BENCH_BUILD)/results docs
