# One entry point over CMake. `make run` runs the host program, `make test` the whole test run,
# `make bench` the benchmarks, `make package` the Debian packages.
BUILD      ?= build
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
MAKEFLAGS  += --no-print-directory
# Ninja checks an up-to-date build in milliseconds, where CMake's Makefiles take a second.
export CMAKE_GENERATOR ?= Ninja

.PHONY: all build run test test-sanitize fuzz bench package clean

all: build

# Configured once; later builds re-run CMake by themselves when a CMakeLists.txt changes.
# Tests and benchmarks start off and are switched on by the targets that need them.
$(BUILD)/cmake_install.cmake:
	@sh scripts/install-deps.sh run
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DKIV_BUILD_TESTS=OFF -DKIV_BUILD_BENCH=OFF $(CMAKE_ARGS) >/dev/null

# Turns the option $(1) on in the build's cache unless it is on already.
enable = grep -q '^$(1):BOOL=ON' $(BUILD)/CMakeCache.txt || cmake $(BUILD) -D$(1)=ON >/dev/null

# Everything the build directory is configured for.
build: $(BUILD)/cmake_install.cmake
	@cmake --build $(BUILD) -j $(JOBS)

# Only the host and the two libraries it loads.
run: $(BUILD)/cmake_install.cmake
	@sh scripts/install-deps.sh run
	@cmake --build $(BUILD) -j $(JOBS) --target kiv_host
	@./$(BUILD)/kiv_host

# The suite, the valgrind run, the thread and address sanitizer builds of the suite, then a
# minute of fuzzing (FUZZ_SECONDS= on the command line to change); one verdict line per stage
# and the total at the end. STAGES= picks stages.
FUZZ_SECONDS ?= 600
STAGES ?= suite valgrind thread address fuzz
test: $(BUILD)/cmake_install.cmake
	@sh scripts/install-deps.sh run test package
	@$(call enable,KIV_BUILD_TESTS)
	@BUILD=$(BUILD) JOBS=$(JOBS) \
	  FUZZ_SECONDS=$(if $(filter command line,$(origin FUZZ_SECONDS)),$(FUZZ_SECONDS),60) \
	  bash scripts/test-stages.sh $(STAGES)

test-sanitize:
	@sh scripts/install-deps.sh run test
	@BUILD=$(BUILD) JOBS=$(JOBS) bash scripts/test-stages.sh thread address

# libFuzzer on the API; its log goes to $(BUILD)-fuzz/fuzz.log.
fuzz:
	@sh scripts/install-deps.sh run test
	@BUILD=$(BUILD) JOBS=$(JOBS) FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/test-stages.sh fuzz

bench: $(BUILD)/cmake_install.cmake
	@sh scripts/install-deps.sh run bench
	@$(call enable,KIV_BUILD_BENCH)
	@cmake --build $(BUILD) -j $(JOBS) --target kiv_bench
	@sh bench/run.sh $(BUILD)

# kiv-database and kiv-database-dev, in $(BUILD)/packages.
package: $(BUILD)/cmake_install.cmake
	@sh scripts/install-deps.sh run package
	@cmake --build $(BUILD) -j $(JOBS) --target kiv_host
	@cd $(BUILD) && cpack -G DEB -B packages
	@ls $(BUILD)/packages/*.deb

clean:
	rm -rf $(BUILD) $(BUILD)-thread $(BUILD)-address $(BUILD)-fuzz
