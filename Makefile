# The project's commands. `make test` is what CI runs.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps build test asan tsan bench format clean

all: build

deps:
	./scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

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

# Benchmarks against peer libraries; each prints our time beside the peer's.
bench:
	./scripts/install-deps.sh --bench
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DQK_BUILD_BENCH=ON -DQK_BUILD_TESTS=OFF
	cmake --build build-bench -j $(JOBS)
	./build-bench/bench/qkbench

format:
	find include src tests tools bench -name '*.[ch]' -o -name '*.cpp' -o -name '*.hpp' | xargs clang-format -i

clean:
	rm -rf $(BUILD) build-asan build-tsan build-bench
