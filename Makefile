# The two commands of the README: `make demo` and `make test`.
# Both install the Debian packages they need first.
JOBS ?= 2
CTEST_JOBS ?= 8
CMAKE_FLAGS ?=

.PHONY: all deps build test test-can test-asan test-tsan tidy demo bench fuzz install package coverage clean format

all: build

deps:
	@./scripts/install-deps.sh

build: deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)
	cmake --build build -j$(JOBS)

# The suite of build folder $(1), with the environment $(2): everything but
# the CAN tests (and why any test skipped itself), then those where they can
# run (else a line says why not);
# fails when either part fails.
suite = rc=0; $(2) ctest --test-dir $(1) -j$(CTEST_JOBS) --output-on-failure -LE '^can$$' || rc=$$?; \
  ./scripts/skipped-tests.sh $(1); \
  $(2) CTEST_JOBS=$(CTEST_JOBS) ./scripts/test-can.sh $(1) --if-possible || rc=$$?; exit $$rc

test: build
	@$(call suite,build)

# The CAN tests: on this machine's kernel where it has CAN, else in a
# throw-away VM with the distribution's kernel (docs/testing.md).
test-can: build
	CTEST_JOBS=$(CTEST_JOBS) ./scripts/test-can.sh build

test-asan: deps
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DUOZ_SANITIZE=address $(CMAKE_FLAGS)
	cmake --build build-asan -j$(JOBS)
	@$(call suite,build-asan,ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1)

test-tsan: deps
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DUOZ_SANITIZE=thread $(CMAKE_FLAGS)
	cmake --build build-tsan -j$(JOBS)
	@$(call suite,build-tsan,\
	  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/tests/tsan.supp)

# clang-tidy over src/ with .clang-tidy; fails on any finding.
tidy: build
	cmake --build build --target tidy

demo: build
	./scripts/demo.sh build

bench: deps
	@./scripts/install-deps.sh --bench
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DUOZ_BUILD_BENCH=ON $(CMAKE_FLAGS)
	cmake --build build-bench -j$(JOBS)
	./scripts/bench.sh build-bench

fuzz:
	@./scripts/install-deps.sh --fuzz
	./scripts/fuzz.sh

# Line and branch coverage of src/ and tools/ under the test suite, in
# build-cov/coverage/. CTEST_ARGS picks tests, e.g. CTEST_ARGS="-L unit".
coverage:
	@./scripts/install-deps.sh --coverage
	./scripts/coverage.sh build-cov $(CTEST_ARGS)

install: build
	cmake --install build

# Debian packages in build-package/, for /usr (docs/deploy.md lists them);
# then docs/deploy.md runs on them in a throw-away system (CTest label package).
package:
	@./scripts/install-deps.sh --package
	cmake -S . -B build-package -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
	  -DUOZ_BUILD_TESTS=OFF -DUOZ_PACKAGE_TEST=ON $(CMAKE_FLAGS)
	cmake --build build-package -j$(JOBS)
	cd build-package && cpack
	ctest --test-dir build-package -L package --output-on-failure --verbose

format:
	find include src tools tests bench fuzz examples -name '*.[ch]' -o -name '*.cpp' -o -name '*.h' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz build-package build-cov
