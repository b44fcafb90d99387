# SPDX-License-Identifier: Apache-2.0
SHELL := /bin/bash
# The commands a person types. CMake and Ninja do the real work; this file
# installs what is missing, configures once, builds and runs.
#
#   make test                             build and run every test
#   make demo                             build and run the examples
#   make bench                            build and run the benchmarks
#   make bench-report                     every benchmark beside its peers, one table (build/bench/report.*)
#   make fuzz [FUZZ_SECONDS=60]           fuzz every byte parser (build-fuzz/)
#   make tsan-check                       the unit tests under ThreadSanitizer (build-tsan/)
#   make mutate-check                     mutated test clips through the sorvel tool under ASan+UBSan
#   make install PREFIX=/opt/sorvel       install headers, libraries, CMake package, sorvel.pc
#   make docs                             API reference from the headers (build/docs/html/), warnings fail
#   make format                           apply .clang-format to every C/C++ file
#   make format-check                     fail when a file differs from .clang-format
#   make clean                            remove the build folders this file makes
#
#   SANITIZE=address,undefined   build in build-asan-ubsan/ with AddressSanitizer + UBSan
#   SANITIZE=thread              build in build-tsan/ with ThreadSanitizer
#   (no SANITIZE)                build in build/, RelWithDebInfo

SANITIZE ?=
PREFIX ?= /usr/local
JOBS ?= 2

comma := ,
# address,undefined -> asan-ubsan; thread -> tsan
sanitizer_tag = $(subst $(comma),-,$(subst address,asan,$(subst undefined,ubsan,$(subst thread,tsan,$(subst memory,msan,$(subst leak,lsan,$(SANITIZE)))))))

ifeq ($(strip $(SANITIZE)),)
BUILD_DIR ?= build
CMAKE_FLAGS = -DCMAKE_BUILD_TYPE=RelWithDebInfo
else
BUILD_DIR ?= build-$(sanitizer_tag)
# Debug (assertions on) at -O1: sanitizer reports stay readable and the
# suite runs several times faster than at -O0.
CMAKE_FLAGS = -DCMAKE_BUILD_TYPE=Debug \
	"-DCMAKE_C_FLAGS_DEBUG=-O1 -g" "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -g" \
	-DSORVEL_SANITIZE=$(SANITIZE)
endif

# Sanitizer behaviour for the test run: leaks count, every UB report stops
# the program with a stack.
TEST_ENV = ASAN_OPTIONS=detect_leaks=1 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	TSAN_OPTIONS=second_deadlock_stack=1

.PHONY: all test demo bench bench-deps fuzz install clean deps configure build format format-check docs
.PHONY: tsan-check mutate-check bench-report

all: build

deps:
	@bash scripts/install-deps.sh

# Configure only when the folder has never been configured; afterwards Ninja
# re-runs CMake by itself whenever a CMakeLists.txt or a globbed folder changes.
$(BUILD_DIR)/build.ninja: | deps
	CC=clang CXX=clang++ cmake -S . -B $(BUILD_DIR) -G Ninja $(CMAKE_FLAGS)

configure: deps $(BUILD_DIR)/build.ninja

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && $(TEST_ENV) ctest --output-on-failure --no-tests=error -j2

demo: configure
	$(TEST_ENV) cmake --build $(BUILD_DIR) -j $(JOBS) --target demo

bench-deps:
	@scripts/install-deps.sh --bench

# Configured again so peers installed since the last configure are found.
bench: bench-deps configure
	CC=clang CXX=clang++ cmake -S . -B $(BUILD_DIR) > /dev/null
	cmake --build $(BUILD_DIR) -j $(JOBS) --target benchmarks
	@for program in $(BUILD_DIR)/bench/*_bench; do echo "=== $$program"; $$program || exit 1; done

# Medians of interleaved repetitions for every hot path and its peers, and
# the whole-program comparisons with ffmpeg/ffprobe; writes
# $(BUILD_DIR)/bench/report.txt and report.json (README: reading the report).
bench-report: bench-deps configure
	CC=clang CXX=clang++ cmake -S . -B $(BUILD_DIR) > /dev/null
	cmake --build $(BUILD_DIR) -j $(JOBS) --target benchmarks sorvel
	python3 scripts/bench-report.py --build $(BUILD_DIR)

# Coverage-guided fuzzing of every byte parser with ASan and UBSan, in
# build-fuzz/: each target runs FUZZ_SECONDS on a scratch copy of its seed
# corpus (new inputs stay out of the tree).  Any crash, leak, hang or
# sanitizer report fails the run.
FUZZ_SECONDS ?= 60
fuzz: deps
	@test -f build-fuzz/build.ninja || CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja \
		-DCMAKE_BUILD_TYPE=Debug "-DCMAKE_C_FLAGS_DEBUG=-O1 -g" "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -g" \
		-DSORVEL_SANITIZE=address,undefined -DSORVEL_BUILD_FUZZ=ON \
		-DSORVEL_BUILD_TESTS=OFF -DSORVEL_BUILD_BENCH=OFF -DSORVEL_BUILD_EXAMPLES=OFF
	cmake --build build-fuzz -j $(JOBS) --target fuzz_targets
	@for program in build-fuzz/fuzz/*_fuzz; do \
		name=$$(basename $$program _fuzz); \
		rm -rf build-fuzz/corpus/$$name && mkdir -p build-fuzz/corpus/$$name && \
		cp fuzz/corpus/$$name/* build-fuzz/corpus/$$name/ && \
		echo "=== $$name ($(FUZZ_SECONDS) s)" && \
		ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		$$program -max_total_time=$(FUZZ_SECONDS) -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
			-artifact_prefix=build-fuzz/ build-fuzz/corpus/$$name 2>&1 | grep -E "^(stat::number_of_executed_units|==|SUMMARY|Done)" ; \
		test $${PIPESTATUS[0]} -eq 0 || exit 1; \
	done

# The generated <Sorvel/SVVersion.h> is documented too, so configure first.
docs: configure
	rm -rf $(BUILD_DIR)/docs && mkdir -p $(BUILD_DIR)/docs
	SORVEL_DOCS_OUTPUT=$(BUILD_DIR)/docs SORVEL_DOCS_GENERATED=$(BUILD_DIR)/include doxygen docs/Doxyfile
	@echo "API reference: $(BUILD_DIR)/docs/html/index.html"
# The unit tests (death tests aside) under ThreadSanitizer, in build-tsan/ (only
# the two test programs are built).
tsan-check:
	$(MAKE) configure SANITIZE=thread
	cmake --build build-tsan -j $(JOBS) --target platform_tests sorvel_tests
	@scripts/tsan-check.sh build-tsan

# A seeded corpus of mutated clips from tests/data through sorvel probe,
# annexb and play, in build-asan-ubsan/; see scripts/mutate-check.sh.
mutate-check:
	$(MAKE) configure SANITIZE=address,undefined
	cmake --build build-asan-ubsan -j $(JOBS) --target sorvel
	@scripts/mutate-check.sh build-asan-ubsan

format: deps
	@scripts/check-format.sh --fix

format-check: deps
	@scripts/check-format.sh

install: build
	cmake --install $(BUILD_DIR) --prefix $(PREFIX)

clean:
	rm -rf build build-asan-ubsan build-tsan build-fuzz $(BUILD_DIR)
