# Fresh-machine entry points: `make run` renders the main job, `make test`
# runs every test. Both install what is missing first. `make tsan` runs the
# threaded suites under ThreadSanitizer; `make fuzz` runs each fuzz target
# for FUZZ_SECONDS.
PRESET ?= release
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 60
BUILD = build/$(PRESET)

.PHONY: run test build configure deps asan tsan fuzz clean format

run: build
	$(BUILD)/bin/mosaiq render

test: build
	ctest --preset $(PRESET) -j $(JOBS)

asan:
	$(MAKE) test PRESET=asan

# The tsan and fuzz build presets name the only targets those trees need.
tsan:
	$(MAKE) test PRESET=tsan

fuzz:
	$(MAKE) build PRESET=fuzz
	scripts/run-fuzz $(FUZZ_SECONDS)

build: configure
	cmake --build --preset $(PRESET) -j $(JOBS)

configure: deps
	@[ -f $(BUILD)/CMakeCache.txt ] || cmake --preset $(PRESET)

deps:
	@scripts/install-deps

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build
