# trnw: `make demo` runs the main job, `make test` the whole suite.
JOBS ?= 2
export JOBS
PREFIX ?= /usr/local

.PHONY: all deps build demo test bench fuzz install sdk clean

all: build

deps:
	@bash scripts/deps.sh

build: deps
	@bash scripts/configure.sh build >/dev/null
	@cmake --build build -j$(JOBS) >/dev/null

demo: build
	@bash scripts/demo.sh

test: deps
	@bash scripts/test.sh

bench: build
	@bash scripts/bench.sh

fuzz: deps
	@bash scripts/fuzz.sh $(FUZZ_SECONDS)

# The library, imgapi.h, trnw and its man page, pkg-config and CMake package
# files and the Python package under PREFIX (DESTDIR is honoured).
install: build
	@cmake --install build --prefix "$(PREFIX)"

# dist/trnw6w95-VERSION-win32.zip and -win64.zip for Windows developers.
sdk: deps
	@bash scripts/sdk.sh

clean:
	rm -rf build build-asan build-win-i686 build-win-x86_64 build-win-deps build-fuzz out samples dist
