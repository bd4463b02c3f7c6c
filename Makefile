# Thin wrapper over CMake: make demo | make test | make bench | make install.
BUILD   ?= build
PREFIX  ?= /usr/local
JOBS    ?= $(shell nproc)
WERROR  ?= ON
CMAKE_FLAGS ?=

.PHONY: all deps configure build test demo install bench format clean

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

demo: deps
	@$(MAKE) --no-print-directory build
	@demo/run.sh $(BUILD)

# Benchmarks against baselines measured in the same run (bench/run.py --help);
# e.g. make bench BENCH_FLAGS="--full-mib 256 --only full,diff".
BENCH_FLAGS ?=
bench: deps
	@$(MAKE) --no-print-directory build
	@python3 bench/run.py --build $(BUILD) $(BENCH_FLAGS)

install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	@rm -rf $(BUILD)
