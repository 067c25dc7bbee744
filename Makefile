# The README's commands. Everything else is CMake presets underneath.
#   make demo     build, then run the demo
#   make test     build, run every test, build and check the kernel images,
#                 and run the concurrency tests again under ThreadSanitizer
#   make tsan     only the last: the concurrency tests under ThreadSanitizer
#   make driver   the kernel images only (texprt.sys, i686 and x64)
#   make fuzz     build the fuzz targets and run each briefly (FUZZ_SECONDS)
#   make fuzz-long  every fuzz target for an hour, one after the other
#                 (FUZZ_LONG_SECONDS)
#   make bench    build the benchmarks optimised and run them

JOBS ?= 2
FUZZ_SECONDS ?= 30
FUZZ_LONG_SECONDS ?= 3600
FUZZ_TARGETS := appblocking_fuzz monitor_fuzz
HOST_PRESET ?= host-debug
BUILD := build/$(HOST_PRESET)

.PHONY: all demo test driver fuzz fuzz-long tsan bench host deps clean

all: host

deps:
	@scripts/install-deps

host: deps
	@cmake --preset $(HOST_PRESET) >/dev/null
	@cmake --build --preset $(HOST_PRESET) -j $(JOBS)

demo: host
	@$(BUILD)/tools/texprt-sim/texprt-sim run examples/demo/demo.yaml --check

# The ctest summary is printed last, so that it closes the run.
test: host
	@$(MAKE) --no-print-directory driver
	@$(MAKE) --no-print-directory fuzz
	@$(MAKE) --no-print-directory tsan
	@ctest --preset $(HOST_PRESET) -j $(JOBS)

# The tests labelled concurrency (suites named ...Concurrency) once more under
# ThreadSanitizer, so that every lock, queue and lock-free read is checked on
# each run. That tree builds only what ctest runs, not the benchmarks.
tsan: deps
	@cmake --preset host-tsan >/dev/null
	@cmake --build --preset host-tsan --target test_programs -j $(JOBS)
	@ctest --preset host-tsan -L concurrency -j $(JOBS)

fuzz: deps
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j $(JOBS)
	@for target in $(FUZZ_TARGETS); do fuzz/run $$target $(FUZZ_SECONDS) || exit 1; done

# What a 30-second run cannot reach: an hour per target, before a change to
# a parser lands.
fuzz-long:
	@$(MAKE) --no-print-directory fuzz FUZZ_SECONDS=$(FUZZ_LONG_SECONDS)

# Timings mean something only in an optimised build.
bench: deps
	@cmake --preset host-release >/dev/null
	@cmake --build --preset host-release --target benchmarks -j $(JOBS)
	@for program in build/host-release/bench/*_bench; do $$program || exit 1; done

# Both images are built before either is checked, and both are checked even
# when one fails, so that one run reports everything.
driver: deps
	@for arch in i686 x64; do \
	    cmake --preset win-$$arch >/dev/null && \
	    cmake --build --preset win-$$arch -j $(JOBS) || exit 1; \
	done
	@status=0; for arch in i686 x64; do \
	    scripts/check-image build/win-$$arch/texprt.sys $$arch build/win-$$arch/texprt.def || status=1; \
	done; exit $$status

clean:
	rm -rf build
