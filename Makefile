# Entry points for people and CI. Every target installs what it needs first.
#   make demo   the daemon with simulated peers, as one transcript
#   make run    build and run the daemon for real (root)
#   make test   build and pass the whole test suite
#   make deb    build and check the Debian packages
BUILD     ?= build
JOBS      ?= $(shell nproc 2>/dev/null || echo 2)
# Ninja when it is installed, chosen by the shell when cmake runs, that is
# after `deps` may just have installed it.
CMAKE_GEN = $$(command -v ninja >/dev/null 2>&1 && echo -G Ninja)
CMAKE_ARGS ?=

# Debian packages, as each goal needs them; CI adds its own through
# EXTRA_DEPS (sanitizer runtimes, fuzzing, cross compilers, qemu).
#   DEMO_DEPS  the daemon, dravikctl and the demo (libfaketime shows the
#              hourly cycle in seconds): also for `make run`
#   TEST_DEPS  the demo's, GoogleTest's sources, and tshark, which reads the
#              tap's captures with the shipped dissector (installed without a
#              terminal, it answers its debconf question, setuid dumpcap, no)
#   DEB_DEPS   the demo's, and what builds and checks the Debian packages
DEMO_DEPS := cmake make g++ ninja-build util-linux faketime
TEST_DEPS := $(DEMO_DEPS) googletest tshark
DEB_DEPS := $(DEMO_DEPS) dpkg-dev file binutils lintian devscripts systemd
DEPS = $(TEST_DEPS) $(EXTRA_DEPS)
demo run: DEPS = $(DEMO_DEPS) $(EXTRA_DEPS)
deb: DEPS = $(DEB_DEPS) $(EXTRA_DEPS)
# The test suite is built where GoogleTest is installed; `make test` turns
# it on in a build directory that the demo configured without it.
test: TESTS = ON

.PHONY: all deps configure build test run clean stats

all: build

# Installs what is missing (root), or prints the one line that does (others).
# Only what the packages depend on: g++ alone would recommend image codecs.
deps:
	@missing=$$(for p in $(DEPS); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q 'ok installed' || echo $$p; done | tr '\n' ' '); \
	missing=$${missing% }; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "Installing: $$missing"; \
	    apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $$missing || exit 1; \
	  else \
	    echo "Missing Debian packages. Install them as root, then run make again:"; \
	    echo "  apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $$missing"; \
	    exit 1; \
	  fi; \
	fi

configure: deps
	@test -f $(BUILD)/CMakeCache.txt || cmake -S . -B $(BUILD) $(CMAKE_GEN) $(CMAKE_ARGS)
	@if [ -n "$(TESTS)" ] && ! grep -q '^DRAVIK_TESTS:BOOL=$(TESTS)$$' $(BUILD)/CMakeCache.txt; then \
	  cmake -S . -B $(BUILD) -DDRAVIK_TESTS=$(TESTS); \
	fi

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# A skipped test is named with its reason at the end, so that a partial run
# never passes for a whole one.
test: build
	@mkdir -p $(BUILD)/Testing
	@cd $(BUILD) && { ctest --output-on-failure -j $(JOBS); echo $$? >Testing/status; } | tee Testing/summary.txt
	@cd $(BUILD) && skipped=$$(grep -c '(Skipped)' Testing/summary.txt || true); \
	if [ "$$skipped" -gt 0 ]; then \
	  echo "NOTE: this run is partial: $$skipped skipped. Why:"; \
	  awk '/: Skipped$$/ {getline; print "  " $$0}' Testing/Temporary/LastTest.log | sort | uniq -c; \
	fi; \
	exit $$(cat Testing/status)

# Runs the daemon for real, in the foreground (root: it owns the store under
# /etc/sysconfig and the pipes in /tmp). The store directories belong to the
# installation, so they are made here; the daemon never makes them.
run: build
	@test "$$(id -u)" = 0 || { echo "make run needs root (the store is /etc/sysconfig/dravik)"; exit 1; }
	mkdir -p /etc/sysconfig/dravik/zek/cal /etc/sysconfig/dravik/zek/tbe
	exec $(BUILD)/service/dravik $(ARGS)

clean:
	rm -rf $(BUILD)

# The daemon with simulated peers in the harness sandbox, as one timestamped
# transcript (a mount namespace: root, or a user namespace of one's own).
# Ends by itself in under a minute.
.PHONY: demo
demo: configure
	cmake --build $(BUILD) -j $(JOBS) --target dravik_demo
	$(BUILD)/tools/dravik_demo

# The Debian packages (dravik, dravik-tools, libdravik-messaging1,
# libdravik-messaging-dev), built in a directory of their own for the prefix
# /usr and checked as packaging/check-deb.sh says.
DEB_BUILD ?= build-deb
.PHONY: deb
deb: deps
	JOBS=$(JOBS) bash packaging/check-deb.sh $(DEB_BUILD)
	@ls -l $(DEB_BUILD)/*.deb

# Benchmarks, in a build directory of their own and never part of `make test`
# (root: they run the daemon in a mount namespace). `make bench` measures the
# daemon against the raw-pipe limit and rewrites the table in
# docs/performance.md; `make bench-smoke` builds the same and runs it all once
# at a tiny size, for CI, without judging any timing.
BENCH_BUILD ?= build-bench
BENCH_DEPS := libbenchmark-dev valgrind
.PHONY: bench bench-smoke
bench:
	@$(MAKE) --no-print-directory deps EXTRA_DEPS="$(EXTRA_DEPS) $(BENCH_DEPS)"
	cmake -S . -B $(BENCH_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDRAVIK_BENCH=ON -DDRAVIK_TESTS=OFF $(CMAKE_ARGS)
	cmake --build $(BENCH_BUILD) -j $(JOBS) --target dravik dravikctl dravik_bench dravik_microbench
	bash bench/callgrind.sh $(BENCH_BUILD) 5000
	$(BENCH_BUILD)/bench/dravik_microbench --benchmark_out=$(BENCH_BUILD)/micro.txt --benchmark_out_format=console
	$(BENCH_BUILD)/bench/dravik_bench --output docs/performance.md --command "make bench" \
	  --callgrind-results $(BENCH_BUILD)/callgrind/result.txt --micro-results $(BENCH_BUILD)/micro.txt $(BENCH_ARGS)

bench-smoke:
	@$(MAKE) --no-print-directory deps EXTRA_DEPS="$(EXTRA_DEPS) $(BENCH_DEPS)"
	cmake -S . -B $(BENCH_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDRAVIK_BENCH=ON -DDRAVIK_TESTS=OFF $(CMAKE_ARGS)
	cmake --build $(BENCH_BUILD) -j $(JOBS) --target dravik dravikctl dravik_bench dravik_microbench
	bash bench/callgrind.sh $(BENCH_BUILD) 50
	$(BENCH_BUILD)/bench/dravik_microbench --benchmark_min_time=0.01
	$(BENCH_BUILD)/bench/dravik_bench --smoke --callgrind-results $(BENCH_BUILD)/callgrind/result.txt

# The share of test code: non-blank lines of tracked sources (.cc .h .c .cpp
# .py .sh and CMakeLists.txt, outside packaging/, docs/, cmake/, .ci/ and the
# top-level CMakeLists.txt); tests/, fuzz/ (not its corpus) and testing/
# are test code.
stats:
	@git ls-files | grep -E '(\.(cc|h|c|cpp|hpp|py|sh)|CMakeLists\.txt)$$' \
	  | grep -vE '^(packaging|docs|cmake|\.ci)/|^CMakeLists\.txt$$|^fuzz/corpus/' \
	  | while read -r f; do \
	      n=$$(grep -c -v '^[[:space:]]*$$' "$$f"); \
	      case $$f in tests/*|fuzz/*|testing/*) echo "test $$n";; *) echo "code $$n";; esac; \
	    done \
	  | awk '{s[$$1]+=$$2} END {t=s["test"]; c=s["code"]; \
	      printf "test code: %d lines\nother code: %d lines\ntest share: %.1f %%\n", t, c, 100*t/(t+c)}'
