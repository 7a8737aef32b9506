# Entry points for people and CI. Every target installs what it needs first.
#   make run    build and run the daemon for real (root)
#   make test   build and pass the whole test suite
BUILD     ?= build
JOBS      ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_GEN := $(shell command -v ninja >/dev/null 2>&1 && echo -G Ninja)
CMAKE_ARGS ?=

# Debian packages the build and the tests need.
DEPS := cmake make g++ clang ninja-build libgtest-dev libgmock-dev googletest util-linux

.PHONY: all deps configure build test run clean

all: build

deps:
	@missing=$$(for p in $(DEPS); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q 'ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "Installing:" $$missing; \
	    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing >/dev/null || exit 1; \
	  else \
	    echo "Missing packages. Run as root:"; \
	    echo "  apt-get update && apt-get install -y $$missing"; \
	    exit 1; \
	  fi; \
	fi

configure: deps
	@test -f $(BUILD)/CMakeCache.txt || cmake -S . -B $(BUILD) $(CMAKE_GEN) $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

clean:
	rm -rf $(BUILD)
