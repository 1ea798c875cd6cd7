# A thin front: each target calls cmake, ctest or a script. Programs end up in build/bin,
# libraries in build/lib.
BUILD := build
JOBS ?= $(shell nproc)

.PHONY: build run test bench bench-peers bench-probe bench-live bench-agent fuzz lint asan clang valgrind soak \
        torment format install package try-package clean
build:
	@scripts/install-deps build
	cmake --preset release
	cmake --build $(BUILD) -j $(JOBS)

run: build
	@scripts/run-demo $(BUILD)

# Unit tests, then system tests with real sockets, namespaces and collectors.
test:
	@scripts/install-deps test
	cmake --preset release -DTARN_TESTS=ON
	cmake --build $(BUILD) -j $(JOBS)
	ctest --test-dir $(BUILD) --output-on-failure -LE long

# The slow campaigns: random kills, long soaks, millions of records.
soak:
	@scripts/install-deps test
	cmake --preset release -DTARN_TESTS=ON
	cmake --build $(BUILD) -j $(JOBS)
	ctest --test-dir $(BUILD) --output-on-failure -L long

# An hour of random operations against the agent; TARN_BUILD_DIR=build-asan: under the sanitizers.
TORMENTED := $(or $(TARN_BUILD_DIR),$(BUILD))
torment:
	@scripts/install-deps test
	cmake --preset $(if $(findstring asan,$(TORMENTED)),asan,release)
	cmake --build $(TORMENTED) -j $(JOBS) --target tarnflowd tarnflow
	TARN_SECONDS=$${TARN_SECONDS:-3600} tests/system/run $(TORMENTED) -s test_torment.py

bench:
	@scripts/install-deps test
	cmake --preset release -DTARN_BENCH=ON
	cmake --build $(BUILD) -j $(JOBS) --target tarn_bench
	scripts/bench $(BUILD)/bin/tarn_bench

# The same work done by another maker's IPFIX library.
bench-peers:
	@scripts/install-deps bench
	cmake --preset release -DTARN_BENCH=ON
	cmake --build $(BUILD) -j $(JOBS) --target tarn_bench_peers
	scripts/bench $(BUILD)/bin/tarn_bench_peers

# Every fuzz target for a minute, from the inputs in fuzz/corpus.
fuzz:
	@scripts/install-deps all
	scripts/run-fuzz

# What a packet costs, from a file to IPFIX on a socket, beside other probes that are installed.
bench-probe:
	@scripts/install-deps test
	cmake --preset release -DTARN_BENCH=ON
	cmake --build $(BUILD) -j $(JOBS) --target tarnflowd pcap_maker
	scripts/bench-probe $(BUILD)

# What a packet costs on a live interface, beside the least that a program can do. As root.
bench-live:
	@scripts/install-deps test
	cmake --preset release -DTARN_BENCH=ON
	cmake --build $(BUILD) -j $(JOBS) --target tarnflowd tarnflow pcap_maker live_traffic
	scripts/bench-live $(BUILD)

# Start, reload and stop of the agent with many trackers.
bench-agent:
	@scripts/install-deps test
	cmake --preset release
	cmake --build $(BUILD) -j $(JOBS) --target tarnflowd
	scripts/bench-agent $(BUILD)

lint asan clang valgrind:
	@scripts/install-deps all
	scripts/check-$@

format:
	git ls-files -- '*.h' '*.cpp' | xargs clang-format -i

install: build
	cmake --install $(BUILD)

# Debian packages, in build-package: the library, its headers, the agent with its tool.
package:
	@scripts/install-deps package
	cmake --preset package
	cmake --build build-package -j $(JOBS)
	cd build-package && cpack

# Installs them in a clean Debian, boots it, and tries the service there.
try-package: package
	@scripts/install-deps try
	scripts/try-packages build-package

clean:
	rm -rf build build-asan build-clang build-debug build-fuzz build-package
