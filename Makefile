# make run   build the daemon, localfs, kestrix-cli and kestrix-mount, then serve a demo ext4 image and mount it
# make test  build, then run every test, also under ASan + UBSan and ThreadSanitizer
BUILD      ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
COV_BUILD  ?= build-cov
RUN_BUILD  ?= build-run
CMAKE_GEN  ?= -G Ninja
JOBS       ?= 2

FUZZ_SECONDS ?= 120
SOAK_SECONDS ?= 120

.PHONY: deps all build asan tsan run test unit e2e test-asan bench fuzz soak coverage ratio install package cluster-test clean

all: build

build:
	@cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD)

asan:
	@cmake -S . -B $(ASAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DKESTRIX_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_BUILD)

tsan:
	@cmake -S . -B $(TSAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTRIX_TSAN=ON >/dev/null
	@cmake --build $(TSAN_BUILD)

# Only what the demo needs, without the tests (no GoogleTest needed).
run:
	@scripts/install-deps build
	@cmake -S . -B $(RUN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTRIX_BUILD_TESTS=OFF >/dev/null
	@cmake --build $(RUN_BUILD) --target kestrixd localfs kestrix-cli kestrix-mount
	@scripts/demo.sh $(RUN_BUILD)

# What the tests need, installed when missing (as root), else the line to run;
# the npm tools into .tools/.
deps:
	@scripts/install-deps

test: deps
	@$(MAKE) --no-print-directory build asan tsan
	ctest --test-dir $(BUILD) -j$(JOBS) --output-on-failure
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir $(ASAN_BUILD) -j$(JOBS) --output-on-failure
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --test-dir $(TSAN_BUILD) -j$(JOBS) --output-on-failure

unit: build
	ctest --test-dir $(BUILD) -j$(JOBS) --output-on-failure -LE e2e

e2e: build
	ctest --test-dir $(BUILD) -j$(JOBS) --output-on-failure -L e2e

bench:
	@scripts/install-deps bench
	@cmake -S . -B $(BUILD)-bench $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Release -DKESTRIX_BUILD_BENCH=ON -DKESTRIX_BUILD_TESTS=OFF >/dev/null
	@cmake --build $(BUILD)-bench
	@for b in $(BUILD)-bench/bench/bench_*; do $$b; done
	@scripts/bench-zerofill $(BUILD)-bench/bench/bench_localfs
	@bench/transfer.sh $(BUILD)-bench
	@bench/mount.sh $(BUILD)-bench

# The LAN message fuzz target (clang, ASan + UBSan) for FUZZ_SECONDS, then
# the line coverage of the code a datagram can reach. Fails on any finding.
fuzz:
	@scripts/fuzz.sh $(FUZZ_SECONDS) $(BUILD)-fuzz

# The real daemon (-s 0 -t 10) under 8 client threads for SOAK_SECONDS, then
# checks of its state; once with the normal build, once under ThreadSanitizer.
soak: build tsan
	$(BUILD)/bench/kxsoak $(BUILD)/kestrixd $(BUILD)/tests/plugins/lib/libtestfs.so $(SOAK_SECONDS)
	TSAN_OPTIONS=halt_on_error=0 $(BUILD)/bench/kxsoak $(TSAN_BUILD)/kestrixd \
	  $(TSAN_BUILD)/tests/plugins/lib/libtestfs.so $(SOAK_SECONDS)

# Line and branch coverage of the product code by the unit and end-to-end
# tests: an HTML report in $(COV_BUILD)/coverage/, the totals on the screen.
coverage: deps
	@cmake -S . -B $(COV_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DKESTRIX_COVERAGE=ON >/dev/null
	@cmake --build $(COV_BUILD)
	@find $(COV_BUILD) -name '*.gcda' -delete
	-ctest --test-dir $(COV_BUILD) -j$(JOBS) --output-on-failure
	@mkdir -p $(COV_BUILD)/coverage
	gcovr -r . --object-directory $(COV_BUILD) -j$(JOBS) \
	  --filter '$(CURDIR)/(include|utils|sp|unixmdc|client|plugins)/' \
	  --exclude-unreachable-branches --exclude-throw-branches \
	  --html-details $(COV_BUILD)/coverage/index.html \
	  --json-summary $(COV_BUILD)/coverage/summary.json --print-summary

# Install the build: DESTDIR stages it, PREFIX replaces /usr/local
# (the plug-in goes to /opt/Kestrix/lib and the configuration to /etc/kestrix
# below DESTDIR whatever the prefix).
install: build
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD) $(if $(PREFIX),--prefix "$(PREFIX)")

# The Debian package of the same install, in $(BUILD)/ (kestrixd_*.deb).
package: build
	cd $(BUILD) && cpack -G DEB --config CPackConfig.cmake

# Two controllers under Pacemaker and Corosync in namespaces of this machine,
# a client write through the service address, the active node killed: the
# write must finish on the standby (docs/failover.md). Root; not part of test.
cluster-test: build
	scripts/cluster-test $(BUILD)

# Lines of tests against lines of product code.
ratio:
	@scripts/test-ratio

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(COV_BUILD) $(RUN_BUILD) $(BUILD)-bench $(BUILD)-fuzz $(BUILD)-fuzz-cov
