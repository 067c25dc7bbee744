# The README's commands. Everything else is CMake presets underneath.
#   make demo     build, then run the demo
#   make test     build, run every test, build and check the kernel images
#   make driver   the kernel images only (texprt.sys, i686 and x64)

JOBS ?= 2
HOST_PRESET ?= host-debug
BUILD := build/$(HOST_PRESET)

.PHONY: all demo test driver host deps clean

all: host

deps:
	@scripts/install-deps

host: deps
	@cmake --preset $(HOST_PRESET) >/dev/null
	@cmake --build --preset $(HOST_PRESET) -j $(JOBS)

demo: host
	@$(BUILD)/tools/texprt-sim/texprt-sim run examples/demo/demo.yaml

test: host
	@ctest --preset $(HOST_PRESET) -j $(JOBS)
	@$(MAKE) --no-print-directory driver

driver: deps
	@for arch in i686 x64; do \
	    cmake --preset win-$$arch >/dev/null && \
	    cmake --build --preset win-$$arch -j $(JOBS) && \
	    scripts/check-image build/win-$$arch/texprt.sys $$arch texprt.def || exit 1; \
	done

clean:
	rm -rf build
