# gxStorage: convenience targets over the CMake presets (CMakePresets.json).
#
#   make            configure and build the release preset (build/release)
#   make demo       build release, then run scripts/demo.sh
#   make test       install missing packages, then run every test leg and
#                   print one summary line per leg, then the size of the
#                   tests against the code (scripts/test-ratio.sh)
#   make bench      build build/bench and print the benchmark table
#                   (BENCH_ARGS="--repetitions 9 --only W3,W6")
#   make python     install missing packages, then the gxstorage Python
#                   package into build/python-venv
#   make format     clang-format the C++ sources in place
#   make clean      remove build/
#
# Test legs: `make test` runs each target named in TEST_LEGS, in order, keeps
# going when one fails, and fails at the end when any failed. A leg target
# builds what it needs, runs its tests, prints "leg NAME: ..." and appends
# that line to $(SUMMARY) (cmake/run-test-leg.sh does both for CTest suites).
# It must fail when its tests fail or when it ran none. The summary ends with
# "total: N passed, N failed" (cmake/summarize-legs.sh reads the leg lines:
# "leg NAME: N tests passed" or "leg NAME: FAILED (N passed, N failed)").
# Add a leg with
#   TEST_LEGS += test-fuzz
# and a `test-fuzz:` target below (or in an included file).

SHELL := /bin/bash
JOBS ?= 2
CMAKE ?= cmake
BUILD_DIR := build
SUMMARY := $(BUILD_DIR)/test-summary.txt
LEG := cmake/run-test-leg.sh
# Extra arguments for ctest in the CTest legs, e.g. CTEST_ARGS="-j2 -R Probe".
CTEST_ARGS ?=

TEST_LEGS := test-native test-mingw
TEST_LEGS += test-fuzz
TEST_LEGS += test-python

.PHONY: all release demo test deps test-legs build-dev build-mingw \
        $(TEST_LEGS) fuzz format clean bench python

all: release

release:
	$(CMAKE) --preset release
	$(CMAKE) --build --preset release -j $(JOBS)

demo: release
	bash scripts/demo.sh $(BUILD_DIR)/release

deps:
	bash scripts/install-deps.sh

# --- tests -------------------------------------------------------------------

test: deps
	@mkdir -p $(BUILD_DIR) && : > $(SUMMARY)
	@status=0; \
	for leg in $(TEST_LEGS); do \
	  echo "=== $$leg"; \
	  before=$$(wc -l < $(SUMMARY)); \
	  if ! $(MAKE) --no-print-directory $$leg; then \
	    status=1; \
	    if [ "$$(wc -l < $(SUMMARY))" -eq "$$before" ]; then \
	      echo "leg $${leg#test-}: FAILED (build or setup failed)" | tee -a $(SUMMARY); \
	    fi; \
	  fi; \
	done; \
	bash cmake/summarize-legs.sh $(SUMMARY) $$status; \
	bash scripts/test-ratio.sh || true; \
	exit $$status

build-dev:
	$(CMAKE) --preset dev
	$(CMAKE) --build --preset dev -j $(JOBS)

build-mingw:
	$(CMAKE) --preset mingw
	$(CMAKE) --build --preset mingw -j $(JOBS)

# Native: every GoogleTest case and test script is one CTest test (ASan+UBSan).
test-native: build-dev
	@bash $(LEG) native $(BUILD_DIR)/dev ctest $(SUMMARY) -- $(CTEST_ARGS)

# Windows: the mingw test programs run under Wine, one CTest test each.
# The Wine server of the build's prefix is stopped afterwards so that no
# process outlives the leg.
test-mingw: build-mingw
	@status=0; \
	bash $(LEG) mingw/wine $(BUILD_DIR)/mingw gtest $(SUMMARY) -- $(CTEST_ARGS) || status=$$?; \
	WINEPREFIX=$(abspath $(BUILD_DIR)/mingw/wineprefix) wineserver -k >/dev/null 2>&1 || true; \
	exit $$status

# --- benchmarks --------------------------------------------------------------

bench:
	bash scripts/bench.sh $(BENCH_ARGS)

# Python: the gxstorage package installed with pip into build/python-venv,
# then its pytest suite (tests/python).
test-python:
	@bash scripts/python-test.sh $(SUMMARY)

python: deps
	@bash scripts/python-env.sh

# Fuzzing: replay of the committed corpus plus a bounded smoke per target.
test-fuzz:
	@bash scripts/fuzz.sh --smoke --summary $(SUMMARY)

# Long fuzz runs: FUZZ_SECONDS per target (default 300).
fuzz:
	bash scripts/fuzz.sh

# --- housekeeping ------------------------------------------------------------

FORMAT_DIRS := include public portable engine porting platform tools tests bench fuzz examples python
format:
	@files=$$(find $(FORMAT_DIRS) -type f \( -name '*.cpp' -o -name '*.h' \) 2>/dev/null); \
	if [ -n "$$files" ]; then clang-format -i $$files; fi

clean:
	rm -rf $(BUILD_DIR)
