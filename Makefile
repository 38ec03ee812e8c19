# One entry point over CMake. `make run` runs the host program, `make test` the test suite.
BUILD    ?= build
JOBS     ?= $(shell nproc)
CMAKE_ARGS ?=
MAKEFLAGS += --no-print-directory

.PHONY: all deps configure build run test test-sanitize fuzz bench clean

all: build

deps:
	@sh scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@./$(BUILD)/kiv_host

# The whole suite, its thread and address sanitizer builds, then a minute of fuzzing.
test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	@$(MAKE) --no-print-directory test-sanitize
	@$(MAKE) --no-print-directory fuzz FUZZ_SECONDS=60

# Any sanitizer report fails its test: leaks are checked, and the first report ends the process.
SANITIZER_ENV = ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
test-sanitize: deps
	@for s in thread address; do \
	  cmake -S . -B $(BUILD)-$$s -DCMAKE_BUILD_TYPE=Debug -DKIV_SANITIZE=$$s -DKIV_BUILD_BENCH=OFF >/dev/null && \
	  cmake --build $(BUILD)-$$s -j $(JOBS) && \
	  $(SANITIZER_ENV) ctest --test-dir $(BUILD)-$$s --output-on-failure -j $(JOBS) -LE nosanitize || exit 1; \
	done

# libFuzzer on the API (clang, with address and undefined sanitizers). New inputs go to the
# build's corpus; the committed seeds in tests/fuzz/corpus are only read. Findings land in the
# build's scratch directory and fail the run.
FUZZ_SECONDS ?= 600
FUZZ_DIR = $(BUILD)-fuzz
fuzz: deps
	@cmake -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
	  -DKIV_SANITIZE=fuzz -DKIV_BUILD_TESTS=OFF -DKIV_BUILD_BENCH=OFF -DKIV_BUILD_HOST=OFF >/dev/null
	@cmake --build $(FUZZ_DIR) -j $(JOBS) --target kiv_api_fuzzer
	@mkdir -p $(FUZZ_DIR)/corpus $(FUZZ_DIR)/scratch
	@cd $(FUZZ_DIR)/scratch && ../kiv_api_fuzzer -max_total_time=$(FUZZ_SECONDS) -timeout=10 \
	  -dict=$(CURDIR)/tests/fuzz/sql.dict -print_final_stats=1 ../corpus $(CURDIR)/tests/fuzz/corpus

bench: build
	@sh bench/run.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(BUILD)-thread $(BUILD)-address $(BUILD)-fuzz
