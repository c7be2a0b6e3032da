# Fresh-machine entry points: `make run` renders the main job, `make test`
# runs every test. Both install what is missing first.
PRESET ?= release
JOBS ?= $(shell nproc)
BUILD = build/$(PRESET)

.PHONY: run test build configure deps asan clean format

run: build
	$(BUILD)/bin/mosaiq render

test: build
	ctest --preset $(PRESET) -j $(JOBS)

asan:
	$(MAKE) test PRESET=asan

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
