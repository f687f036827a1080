# The project's commands. `make test` is what CI runs.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps build test run asan tsan coverage bench bench-server fuzz format clean

all: build

deps:
	./scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# The command server in the foreground, on 127.0.0.1:8760 unless QKD_ARGS
# says otherwise (e.g. QKD_ARGS="--port 0 --data /tmp/qkd"); Ctrl-C stops it.
QKD_ARGS ?=
run: build
	./$(BUILD)/tools/qkd/qkd $(QKD_ARGS)

# The tests under AddressSanitizer with UndefinedBehaviorSanitizer.
asan: deps
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQK_SANITIZE_ADDRESS=ON
	cmake --build build-asan -j $(JOBS)
	ctest --test-dir build-asan --output-on-failure -j $(JOBS)

# The tests under ThreadSanitizer.
tsan: deps
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DQK_SANITIZE_THREAD=ON
	cmake --build build-tsan -j $(JOBS)
	ctest --test-dir build-tsan --output-on-failure -j $(JOBS)

# Coverage of src/ by the whole suite: gcovr's summary, then a line per
# subsystem.
coverage:
	./scripts/install-deps.sh --dev
	cmake -S . -B build-coverage -DCMAKE_BUILD_TYPE=Debug -DQK_COVERAGE=ON
	cmake --build build-coverage -j $(JOBS)
	find build-coverage -name '*.gcda' -delete
	ctest --test-dir build-coverage --output-on-failure -j $(JOBS)
	./scripts/coverage-summary.sh build-coverage

# Benchmarks against peer libraries; each prints our time beside the peer's.
bench:
	./scripts/install-deps.sh --bench
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DQK_BUILD_BENCH=ON -DQK_BUILD_TESTS=OFF
	cmake --build build-bench -j $(JOBS)
	./build-bench/bench/qkbench

# qkd against nginx over HTTP with wrk, then the native protocol's round
# trips (see bench/README.md).
bench-server:
	./scripts/install-deps.sh --bench
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DQK_BUILD_BENCH=ON -DQK_BUILD_TESTS=OFF
	cmake --build build-bench -j $(JOBS)
	./bench/server_bench.sh build-bench

# libFuzzer targets under clang with AddressSanitizer and UBSan (see
# tests/fuzz/): each runs FUZZ_SECONDS seconds on a scratch copy of its seed
# corpus; any crash, leak or sanitizer report fails.
FUZZ_SECONDS ?= 60
fuzz:
	./scripts/install-deps.sh --dev
	cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
		-DCMAKE_CXX_COMPILER=clang++ -DQK_BUILD_FUZZ=ON -DQK_BUILD_TESTS=OFF
	cmake --build build-fuzz -j $(JOBS) --target qkfuzz
	./tests/fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

format:
	find include src tests tools bench -name '*.[ch]' -o -name '*.cpp' -o -name '*.hpp' | xargs clang-format -i

clean:
	rm -rf $(BUILD) build-asan build-tsan build-coverage build-bench build-fuzz
