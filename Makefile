# SPDX-License-Identifier: Apache-2.0
# Thin wrapper over the CMake presets, so that one short command does the whole job on
# a fresh machine (it installs missing Debian packages first).
#
#   make test    build (debug) and run the test suite
#   make demo    build (release) and run the demo
#   make asan    the test suite under AddressSanitizer + UndefinedBehaviorSanitizer
#   make tsan    the test suite under ThreadSanitizer
#   make slow    the tests that wait for real, long delays (label "slow")
#   make bench   build (release) and run the benchmarks
#   make fuzz    replay the fuzz corpora, then fuzz each target FUZZ_SECONDS (600) seconds

CTEST_ARGS ?=
FUZZ_SECONDS ?= 600
.PHONY: deps test demo asan tsan slow bench fuzz clean

deps:
	@scripts/install-deps.sh

define run_tests
	cmake --preset $(1) >/dev/null
	cmake --build --preset $(1)
	ctest --preset $(1) $(CTEST_ARGS)
endef

test: deps
	$(call run_tests,debug)

asan: deps
	$(call run_tests,asan)

tsan: deps
	$(call run_tests,tsan)

slow: deps
	cmake --preset debug >/dev/null
	cmake --build --preset debug
	ctest --test-dir build/debug -L slow --output-on-failure

demo: deps
	cmake --preset release >/dev/null
	cmake --build --preset release
	scripts/demo.sh build/release

bench: deps
	cmake --preset release >/dev/null
	cmake --build --preset release
	scripts/bench.sh build/release

fuzz: deps
	FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/fuzz.sh

clean:
	rm -rf build
