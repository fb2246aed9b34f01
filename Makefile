# Entry points for people and CI. `make test` is the one command that installs what is missing,
# configures, builds and runs every test.
PRESET ?= release

.PHONY: all deps configure build test test-asan test-tsan soak demo bench fuzz format format-check clean

all: build

deps:
	scripts/install-deps

configure: deps
	cmake --preset $(PRESET)

build: configure
	cmake --build --preset $(PRESET)

# The tests run in a network namespace with only loopback (see scripts/isolated).
test: build
	scripts/isolated ctest --preset $(PRESET)

# Publishes a sample catalogue, serves it on loopback and runs the offline tool against it.
demo: configure
	cmake --build --preset $(PRESET) --target terrane-offline
	build/$(PRESET)/tools/terrane-offline demo

# The crash-consistency loop at length: 300 rounds of killing the tool at random moments.
soak: build
	TERRANE_CRASH_ROUNDS=$${TERRANE_CRASH_ROUNDS:-300} scripts/isolated \
	  build/$(PRESET)/tests/e2e/tool/terrane_tool_e2e_tests --gtest_filter='CrashTest.*'

test-asan:
	$(MAKE) test PRESET=asan-ubsan

test-tsan:
	$(MAKE) test PRESET=tsan

bench:
	$(MAKE) build PRESET=release
	scripts/run-benchmarks build/release

# Builds the libFuzzer targets with clang and runs each for FUZZ_SECONDS (default 60).
fuzz:
	scripts/install-deps --fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz
	scripts/run-fuzzers

format:
	git ls-files '*.cpp' '*.hpp' | xargs clang-format -i

format-check:
	git ls-files '*.cpp' '*.hpp' | xargs clang-format --dry-run --Werror

clean:
	rm -rf build
