# One entry point over CMake. `make run` runs the host program, `make test` the whole test run,
# `make bench` the benchmarks, `make package` the Debian packages, `make docs` the API reference,
# `make lint` clang-format and clang-tidy.
BUILD      ?= build
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
MAKEFLAGS  += --no-print-directory
# Ninja checks an up-to-date build in milliseconds, where CMake's Makefiles take a second.
export CMAKE_GENERATOR ?= Ninja

.PHONY: all build run test test-sanitize fuzz bench package docs lint clean

# The Debian package groups (scripts/install-deps.sh) of each target, named together so that a
# user without root is told one complete command; the configure step uses the target's list.
DEPS = run
test: DEPS = run test package docs lint
test-sanitize fuzz: DEPS = run test
bench: DEPS = run bench
package: DEPS = run package
docs: DEPS = run docs
lint: DEPS = run lint

all: build

# Configured once; later builds re-run CMake by themselves when a CMakeLists.txt changes.
# Tests and benchmarks start off and are switched on by the targets that need them.
$(BUILD)/cmake_install.cmake:
	@sh scripts/install-deps.sh $(DEPS)
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DKIV_BUILD_TESTS=OFF -DKIV_BUILD_BENCH=OFF $(CMAKE_ARGS) >/dev/null

# Turns the option $(1) on in the build's cache unless it is on already.
enable = grep -q '^$(1):BOOL=ON' $(BUILD)/CMakeCache.txt || cmake $(BUILD) -D$(1)=ON >/dev/null

# Everything the build directory is configured for.
build: $(BUILD)/cmake_install.cmake
	@cmake --build $(BUILD) -j $(JOBS)

# Only the host and the two libraries it loads.
run: $(BUILD)/cmake_install.cmake
	@sh scripts/install-deps.sh $(DEPS)
	@cmake --build $(BUILD) -j $(JOBS) --target kiv_host
	@./$(BUILD)/kiv_host --demo

# The suite, the valgrind run, the API reference, the lint checks, the thread and address
# sanitizer builds of the suite, then a minute of fuzzing (FUZZ_SECONDS= on the command line to
# change); one verdict line per stage and the total at the end. STAGES= picks stages.
FUZZ_SECONDS ?= 600
STAGES ?= suite valgrind docs lint thread address fuzz
test: $(BUILD)/cmake_install.cmake
	@sh scripts/install-deps.sh $(DEPS)
	@$(call enable,KIV_BUILD_TESTS)
	@BUILD=$(BUILD) JOBS=$(JOBS) \
	  FUZZ_SECONDS=$(if $(filter command line,$(origin FUZZ_SECONDS)),$(FUZZ_SECONDS),60) \
	  bash scripts/test-stages.sh $(STAGES)

test-sanitize:
	@sh scripts/install-deps.sh $(DEPS)
	@BUILD=$(BUILD) JOBS=$(JOBS) bash scripts/test-stages.sh thread address

# libFuzzer on the API; its log goes to $(BUILD)-fuzz/fuzz.log.
fuzz:
	@sh scripts/install-deps.sh $(DEPS)
	@BUILD=$(BUILD) JOBS=$(JOBS) FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/test-stages.sh fuzz

bench: $(BUILD)/cmake_install.cmake
	@sh scripts/install-deps.sh $(DEPS)
	@$(call enable,KIV_BUILD_BENCH)
	@cmake --build $(BUILD) -j $(JOBS) --target kiv_bench
	@sh bench/run.sh $(BUILD)

# The Debian packages in $(BUILD)/packages, checked by lintian (errors fail, warnings show).
package: $(BUILD)/cmake_install.cmake
	@sh scripts/install-deps.sh $(DEPS)
	@cmake --build $(BUILD) -j $(JOBS) --target kiv_host
	@rm -rf $(BUILD)/packages && cd $(BUILD) && cpack -G DEB -B packages >cpack.log 2>&1 || { cat cpack.log; exit 1; }
	@lintian --fail-on error $(BUILD)/packages/*.deb
	@ls $(BUILD)/packages/*.deb

# The API reference, $(BUILD)/docs/html/index.html; a warning fails.
docs: $(BUILD)/cmake_install.cmake
	@sh scripts/install-deps.sh $(DEPS)
	@cmake --build $(BUILD) --target docs

lint: $(BUILD)/cmake_install.cmake
	@sh scripts/install-deps.sh $(DEPS)
	@bash scripts/lint.sh $(BUILD) $(JOBS)

clean:
	rm -rf $(BUILD) $(BUILD)-thread $(BUILD)-address $(BUILD)-fuzz
