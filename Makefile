# One entry point over CMake. `make run` runs the host program, `make test` the test suite.
BUILD    ?= build
JOBS     ?= $(shell nproc)
CMAKE_ARGS ?=
MAKEFLAGS += --no-print-directory

.PHONY: all deps configure build run test test-sanitize bench clean

all: build

deps:
	@sh scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@./$(BUILD)/kiv_host

# The whole suite, then the thread and address sanitizer builds of it.
test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	@$(MAKE) --no-print-directory test-sanitize

test-sanitize: deps
	@for s in thread address; do \
	  cmake -S . -B $(BUILD)-$$s -DCMAKE_BUILD_TYPE=Debug -DKIV_SANITIZE=$$s -DKIV_BUILD_BENCH=OFF >/dev/null && \
	  cmake --build $(BUILD)-$$s -j $(JOBS) && \
	  ctest --test-dir $(BUILD)-$$s --output-on-failure -j $(JOBS) -LE nosanitize || exit 1; \
	done

bench: build
	@sh bench/run.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(BUILD)-thread $(BUILD)-address
