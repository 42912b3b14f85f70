# The front door. Every target sets up what it needs first; 'make help' lists them.
.PHONY: help setup build debug demo test check bench clean
.DEFAULT_GOAL := help

# The sources stay clean: no compiled scripts beside them.
export PYTHONDONTWRITEBYTECODE := 1

JOBS := $(shell nproc 2>/dev/null || echo 2)

help: ## list the targets
	@sed -n 's/^\([a-z]*\):.*## \(.*\)/  make \1\t\2/p' Makefile | expand -t 16

setup: ## install the Debian packages that are missing (as root or through sudo)
	@sh scripts/setup.sh

build/release/CMakeCache.txt: | setup
	@cmake --preset release >/dev/null

build: setup build/release/CMakeCache.txt ## the release build: build/Corvi_CA.dll and corvi.exe, their symbols beside them
	@cmake --build --preset release --target Corvi_CA corvi -j $(JOBS)

debug: setup ## a build for the debugger: build/debug/Corvi_CA.dll
	@cmake --preset debug >/dev/null
	@cmake --build --preset debug --target Corvi_CA -j $(JOBS)

demo: build ## install a real package through the library and show the installer's log
	@cmake --build --preset release --target demo_packages -j $(JOBS)
	@sh scripts/demo.sh

test: setup build/release/CMakeCache.txt ## build and run every test
	@cmake --build --preset release -j $(JOBS)
	@ctest --preset release -j $(JOBS)

check: build ## format, lint, static analysis, folder floors, size budget
	@sh scripts/check.sh

bench: build ## measure against the alternatives: a table, and build/bench.json
	@cmake --build --preset release --target corvi_bench -j $(JOBS)
	@sh bench/run-bench.sh

clean: ## remove everything that was built
	rm -rf build
