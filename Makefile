# A thin wrapper around CMake: installs what a fresh Debian machine lacks, then configures,
# builds and runs. CMake is the real build.
#
#   make demo        build the library and run the demo application
#   make test        build and run the whole test suite
#   make test-asan   the suite under AddressSanitizer and UndefinedBehaviorSanitizer
#   make install-check  install into a temporary prefix and build programs against it
#   make test-arm    cross-build for armhf and run the whole suite under qemu-arm

JOBS ?= 2
BUILD ?= build
CMAKE_FLAGS ?=

# Debian packages the build and the tests need.
DEB_PACKAGES = g++ cmake make pkg-config libboost1.74-dev libboost-thread1.74-dev \
  libboost-system1.74-dev libssl-dev openssl libgtest-dev libgmock-dev libbenchmark-dev

# Host packages for the armhf cross build and for running it under qemu (make test-arm only).
# The armhf libraries themselves go into $(ARM_SYSROOT), see cmake/armhf-sysroot.sh.
ARM_DEB_PACKAGES = g++-arm-linux-gnueabihf qemu-user
ARM_BUILD ?= build-arm
ARM_SYSROOT ?= build-arm-sysroot
ARM_CMAKE_FLAGS ?=

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: deps configure build demo test test-asan install-check clean

deps:
	@missing=$$(for p in $(DEB_PACKAGES); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null \
	  | grep -q 'install ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "installing:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq $$missing </dev/null; \
	fi

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

install-check: build
	sh .ci/install-check $(BUILD)

clean:
	rm -rf build build-*

.PHONY: deps-arm test-arm

deps-arm:
	@missing=$$(for p in $(ARM_DEB_PACKAGES); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null \
	  | grep -q 'install ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "installing:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends \
	    $$missing </dev/null; \
	fi
	sh cmake/armhf-sysroot.sh $(ARM_SYSROOT)

test-arm: deps deps-arm
	cmake -S . -B $(ARM_BUILD) -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/armhf-toolchain.cmake \
	  -DLT_ARM_SYSROOT=$(abspath $(ARM_SYSROOT)) $(ARM_CMAKE_FLAGS)
	cmake --build $(ARM_BUILD) -j$(JOBS)
	cd $(ARM_BUILD) && ctest --output-on-failure --no-tests=error -j$(JOBS)
