# Lectern: `make run` builds and runs the program, `make test` builds with sanitizers and runs
# every test, `make bench` builds Release and runs the benchmarks.

ARGS ?=
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

# Debian 12 packages the build and the tests need.
DEB_PACKAGES := build-essential cmake ccache pkg-config \
  libcurl4-openssl-dev libsqlite3-dev libxml2-dev libicu-dev libssl-dev zlib1g-dev \
  nlohmann-json3-dev libcli11-dev libfmt-dev libsecret-1-dev libncurses-dev \
  libgtest-dev libgmock-dev libbenchmark-dev libcpp-httplib-dev python3
# The desktop window and its tests under a virtual X server.
DESKTOP_PACKAGES := libgtk-4-dev libadwaita-1-dev libwebkitgtk-6.0-dev xvfb xauth xdg-utils
# The fuzz targets need clang with libc++ (std::expected) and libFuzzer.
FUZZ_PACKAGES := clang-16 libc++-16-dev libc++abi-16-dev libclang-rt-16-dev

MAKEFLAGS += --no-print-directory
export CCACHE_DIR ?= $(HOME)/.cache/ccache
# Relative paths in the cache key, so checkouts in different folders share compiled objects.
export CCACHE_BASEDIR ?= $(abspath $(CURDIR)/..)
# Debug objects otherwise carry the build folder in their key, which defeats the line above.
export CCACHE_NOHASHDIR ?= 1

PREFIX ?= /usr/local

.PHONY: desktop desktop-deps install run test tsan stress fuzz fuzz-check bench deps bench-deps fuzz-deps build build-test build-tsan build-fuzz build-bench clean

define install_missing
	@missing=""; \
	for p in $(1); do \
	  dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = "0" ]; then \
	    echo "Installing:$$missing"; \
	    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $$missing; \
	  else \
	    echo "Lectern needs these Debian packages:$$missing"; \
	    echo "Install them with:  sudo apt-get install -y$$missing"; \
	    exit 1; \
	  fi; \
	fi
endef

deps:
	$(call install_missing,$(DEB_PACKAGES))

desktop-deps: deps
	$(call install_missing,$(DESKTOP_PACKAGES))

# The tools the benchmarks compare against are checked as commands, not package names (a Node.js
# from elsewhere is used as it is); one that cannot be had only skips its comparison.
bench-deps: deps
	@./bench/deps.sh

build: deps
	@cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLECTERN_BUILD_TESTS=OFF > /dev/null
	@cmake --build build --target lectern -j $(JOBS)

run: build
	./build/lectern $(ARGS)

# The window: `make desktop` builds and starts it on the default library (ARGS as for run).
desktop: desktop-deps
	@cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLECTERN_BUILD_TESTS=OFF -DLECTERN_DESKTOP=ON > /dev/null
	@cmake --build build --target lectern lectern-desktop -j $(JOBS)
	./build/lectern-desktop $(ARGS)

# Both programs, the desktop entry (feed: and lectern: links) and the icon, under PREFIX.
install: desktop-deps
	@cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLECTERN_BUILD_TESTS=OFF -DLECTERN_DESKTOP=ON \
	  -DCMAKE_INSTALL_PREFIX=$(PREFIX) > /dev/null
	@cmake --build build --target lectern lectern-desktop -j $(JOBS)
	cmake --install build
	@if command -v update-desktop-database > /dev/null; then update-desktop-database $(PREFIX)/share/applications; fi
	@if command -v xdg-mime > /dev/null; then \
	  xdg-mime default com.quillhq.Lectern.desktop x-scheme-handler/feed x-scheme-handler/feeds 2> /dev/null || true; fi

build-test: desktop-deps
	@cmake -S . -B build-test -DCMAKE_BUILD_TYPE=Debug -DLECTERN_SANITIZE=ON -DLECTERN_WERROR=ON \
	  -DLECTERN_BUILD_TESTS=ON -DLECTERN_DESKTOP=ON > /dev/null
	@cmake --build build-test -j $(JOBS)

test: build-test
	cd build-test && ctest --output-on-failure -j $(JOBS)

# ThreadSanitizer over the tests of the parts that share threads: the store, the sync engine, the
# network layer, the services against their mocks and the desktop window's controller.
TSAN_TESTS := store_tests sync_tests net_tests services_tests desktop_tests

build-tsan: deps
	@cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DLECTERN_TSAN=ON -DLECTERN_WERROR=ON \
	  -DLECTERN_BUILD_TESTS=ON > /dev/null
	@cmake --build build-tsan -j $(JOBS) --target $(TSAN_TESTS)

tsan: build-tsan
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/tests/tsan.supp" \
	  ctest --output-on-failure -j $(JOBS) -L '^($(shell echo $(TSAN_TESTS) | tr ' ' '|'))$$'

# Fuzzing: `make fuzz` runs every target FUZZ_SECONDS (default 60) each; `make fuzz-check`
# replays each target's seeds and the crashes found so far, as CI does.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS := feeds html wire search dates_urls opml services

fuzz-deps: deps
	$(call install_missing,$(FUZZ_PACKAGES))

build-fuzz: fuzz-deps
	@CC=clang-16 CXX=clang++-16 cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLECTERN_FUZZ=ON \
	  -DLECTERN_BUILD_TESTS=OFF > /dev/null
	@cmake --build build-fuzz -j $(JOBS) --target $(addprefix fuzz_,$(FUZZ_TARGETS))

fuzz: build-fuzz
	./tests/fuzz/run.sh build-fuzz $(FUZZ_SECONDS) $(FUZZ_TARGETS)

fuzz-check: build-fuzz
	./tests/fuzz/run.sh build-fuzz 0 $(FUZZ_TARGETS)

# The long durability run on the sanitizer build: a sync, the daemon and a library upgrade each
# killed at 100 random moments (`make test` kills 10, 2 and 3). LECTERN_KILL_SEED replays a run.
STRESS_KILLS ?= 100

stress: build-test
	LECTERN_KILLS=$(STRESS_KILLS) ASAN_OPTIONS=detect_leaks=1 ./build-test/tests/durability/durability_tests

build-bench: bench-deps
	@cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DLECTERN_BUILD_TESTS=OFF -DLECTERN_BUILD_BENCH=ON > /dev/null
	@cmake --build build-bench -j $(JOBS)

# Every benchmark, ending in one table (docs/benchmarks.md); BENCH_FULL=1 adds the long cases.
bench: build-bench
	./bench/run-all.sh build-bench

clean:
	rm -rf build build-test build-tsan build-fuzz build-bench
