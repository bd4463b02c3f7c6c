# Thin wrapper over CMake: make demo | make test | make bench | make install | make deb.
# Outside make test: make stress (the soak) | make deb-test (the packages, checked).
# Checks (docs/development.md): make test-sanitize | make tidy | make format-check | make fuzz.
BUILD   ?= build
PREFIX  ?= /usr/local
JOBS    ?= $(shell nproc)
WERROR  ?= ON
CMAKE_FLAGS ?=
SAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 30

.PHONY: all deps configure build test demo install bench format clean test-sanitize \
        tidy format-check fuzz deb stress deb-test

all: build

deps:
	@scripts/install-deps

configure:
	@cmake -S . -B $(BUILD) -DVESKDBUD_WERROR=$(WERROR) -DCMAKE_INSTALL_PREFIX=$(PREFIX) \
	  $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j$(JOBS)

test: deps
	@$(MAKE) --no-print-directory build
	@cd $(BUILD) && ctest --output-on-failure -j$(JOBS) --timeout 600

# Eight processes on three databases for STRESS_SECONDS (bench/stress.cpp).
STRESS_SECONDS ?= 120
stress: deps
	@$(MAKE) --no-print-directory configure
	@cmake --build $(BUILD) -j$(JOBS) --target stress_soak
	@VESKDBUD_STRESS_SECONDS=$(STRESS_SECONDS) $(BUILD)/tests/stress_soak

# The whole suite under AddressSanitizer + UndefinedBehaviorSanitizer, in $(SAN_BUILD).
test-sanitize: deps
	@scripts/test-sanitize $(SAN_BUILD) $(JOBS)

demo: deps
	@$(MAKE) --no-print-directory build
	@demo/run.sh $(BUILD)

# Benchmarks against baselines measured in the same run (bench/run.py --help);
# e.g. make bench BENCH_FLAGS="--full-mib 256 --only full,diff"; CURVES=1 also
# measures the cost curves and plots them into docs/.
BENCH_FLAGS ?=
CURVES ?=
bench: deps
	@$(MAKE) --no-print-directory build
	@python3 bench/run.py --build $(BUILD) $(if $(CURVES),--curves) $(BENCH_FLAGS)

install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

# The Debian packages, built by dpkg-buildpackage from debian/ into $(BUILD)/deb/.
deb: deps
	@scripts/build-deb $(BUILD)/deb-src $(BUILD)/deb

# The packages of make deb extracted, run, compared with make install, and linted.
deb-test: deb
	@tests/system/deb_test.sh $(CURDIR) $(BUILD)

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

# Every tracked .h/.cpp must already be as clang-format (.clang-format) writes it.
format-check: deps
	@git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror
	@echo "format-check: $$(git ls-files '*.h' '*.cpp' | wc -l) files formatted"

# clang-tidy (.clang-tidy) over src/, platform/ and tools/ with $(BUILD)'s compile commands.
tidy: deps
	@scripts/tidy $(BUILD) $(JOBS)

# Each libFuzzer harness of fuzz/ for FUZZ_SECONDS (clang build in $(FUZZ_BUILD)).
fuzz: deps
	@FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/fuzz $(FUZZ_BUILD) $(JOBS)

clean:
	@rm -rf $(BUILD) $(SAN_BUILD) $(FUZZ_BUILD)
