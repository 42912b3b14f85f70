# The front door. Every target sets up what it needs first; 'make help' lists them.
.PHONY: help setup build clang portability debug demo test mutants check bench dist sign windows-kit sweep soak clean
.DEFAULT_GOAL := help

# The sources stay clean: no compiled scripts beside them.
export PYTHONDONTWRITEBYTECODE := 1

JOBS := $(shell nproc 2>/dev/null || echo 2)

help: ## list the targets
	@sed -n 's/^\([a-z-]*\):.*## \(.*\)/  make \1\t\2/p' Makefile | expand -t 20

setup: ## install the Debian packages that are missing, for every target (as root or through sudo)
	@sh scripts/setup.sh

# setup-test: what 'make test' needs; each target asks for its own alone.
setup-%:
	@sh scripts/setup.sh build $*

build/release/CMakeCache.txt: | setup-build
	@cmake --preset release >/dev/null

build: setup-build build/release/CMakeCache.txt ## the release build: build/Corvi_CA.dll and corvi.exe, their symbols beside them
	@cmake --build --preset release --target Corvi_CA corvi -j $(JOBS)

clang: setup-clang build/release/CMakeCache.txt ## compile the library with clang, and run the suite on that DLL
	@cmake --preset clang >/dev/null
	@cmake --build --preset clang --target Corvi_CA -j $(JOBS)
	@cmake --build --preset release -j $(JOBS)
	@CORVI_LIBRARY="$(CURDIR)/build/clang/Corvi_CA.dll" \
	  ctest --preset release -j $(JOBS) -E 'package_test|release_test|symbols_test|lists_test|texts_test|stability_test'

portability: setup-portability build/release/CMakeCache.txt ## read the library's sources as Visual C++'s dialect, with clang in Microsoft mode
	@sh scripts/portability.sh

debug: setup-build ## a build for the debugger: build/debug/Corvi_CA.dll
	@cmake --preset debug >/dev/null
	@cmake --build --preset debug --target Corvi_CA -j $(JOBS)

demo: build ## install a real package through the library and show the installer's log
	@cmake --build --preset release --target demo_packages -j $(JOBS)
	@sh scripts/demo.sh

test: setup-test build/release/CMakeCache.txt ## build and run every test
	@cmake --build --preset release -j $(JOBS)
	@ctest --preset release -j $(JOBS)

mutants: setup-test ## plant faults in copies of the sources, one at a time, and see which the tests catch: [MUTANTS="--count 60"]
	@python3 scripts/mutants.py --jobs $(JOBS) $(MUTANTS)

check: setup-check build ## format, lint, static analysis, folder floors, size budget, names and texts
	@sh scripts/check.sh

bench: build ## measure against the alternatives: a table, and build/bench.json
	@cmake --build --preset release --target corvi_bench -j $(JOBS)
	@sh bench/run-bench.sh

dist: setup-dist build ## the release archive: build/corvi-VERSION.zip
	@cmake --build --preset release --target release_files -j $(JOBS)
	@sh scripts/dist.sh

sign: setup-sign build ## sign the DLL and the tool: make sign CERT=chain.pem KEY=key.pem [TIMESTAMP=URL] [CA=roots.pem]
	@CERT="$(CERT)" KEY="$(KEY)" TIMESTAMP="$(TIMESTAMP)" CA="$(CA)" PKCS11_MODULE="$(PKCS11_MODULE)" \
	  sh scripts/sign.sh build/Corvi_CA.dll build/corvi.exe

sweep: setup-build build/release/CMakeCache.txt ## every fault of the fault sweep, not only the sample of 'make test'
	@cmake --build --preset release --target fault_sweep_test -j $(JOBS)
	@tests/wine-template.sh build/release/wine-template
	@CORVI_FAULTS_ONE_OF=1 CORVI_TEST_TIMEOUT=1800 tests/run-wine.sh build/release/wine-template build/release/stage \
	  build/release/tests/fault_sweep_test.exe

soak: setup-test build/release/CMakeCache.txt ## the suite 20 times beside endless programs, in another order each time: [SOAK="RUNS BUSY JOBS"]
	@cmake --build --preset release -j $(JOBS)
	@sh scripts/soak.sh $(SOAK)

windows-kit: setup-build build/release/CMakeCache.txt ## the tests for a real Windows machine: build/corvi-windows-kit-VERSION.zip
	@cmake --build --preset release -j $(JOBS)
	@python3 -B scripts/windows_kit.py build/release

clean: ## remove everything that was built
	rm -rf build
