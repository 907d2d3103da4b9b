# `make help` lists the targets. CMake does the building (CMakePresets.json); this file only names the commands.

SHELL := /bin/bash
.NOTPARALLEL:
.DEFAULT_GOAL := help

ARGS ?=
PRESET ?= debug
SEED ?=
SECONDS ?= 60

.PHONY: help
help: ## list the targets
	@sed -n 's/^\([a-z]*\):.*## /\1\t/p' Makefile | expand -t 12

.PHONY: build
build: ## build the release in build/release/package, an importable tree (BOOTSTRAP=no installs no tools)
	@scripts/bootstrap
	@scripts/build release

.PHONY: demo
demo: build ## run the stand-alone daemon's demonstration (ARGS="--threads 8 --json ...")
	@build/release/python -m quorl_dendra.demo $(ARGS)

.PHONY: test
test: build ## build the release and run every test against it
	@ctest --preset release

.PHONY: sanitize
sanitize: ## run the tests under the address and undefined-behaviour sanitizers, then with assertions
	@scripts/bootstrap
	@scripts/build sanitize
	@ctest --preset sanitize
	@scripts/build debug
	@ctest --preset debug

.PHONY: fuzz
fuzz: ## random operations against plain Python (SEED=number, SECONDS=60, PRESET=debug)
	@scripts/bootstrap
	@scripts/build $(PRESET)
	@PYTHONPATH=. build/$(PRESET)/python -X dev tests/fuzz.py --seconds $(SECONDS) $(if $(SEED),--seed $(SEED)) $(ARGS)

.PHONY: bench
bench: build ## measure the release against plain Python (ARGS="--quick"); build/bench.json keeps the numbers
	@build/release/python benchmarks/bench.py --json build/bench.json $(ARGS)

.PHONY: plot
plot: ## draw docs/summary-scaling.svg from the numbers of the last `make bench`
	@scripts/bootstrap plot
	@test -f build/bench.json || $(MAKE) bench
	@$$(scripts/find-python) benchmarks/plot.py build/bench.json docs/summary-scaling.svg

.PHONY: clang
clang: ## build with clang++, where it is installed, and use every public operation once
	@scripts/bootstrap
	@if type -P clang++ >/dev/null; then scripts/build clang && ctest --preset clang -R test_stub; \
	else echo "clang: clang++ is not installed, so nothing was built"; fi

.PHONY: coverage
coverage: ## run the tests and show which native lines and branches they execute
	@scripts/bootstrap
	@scripts/build coverage
	@find build/coverage -name '*.gcda' -delete
	@ctest --preset coverage >&2
	@build/coverage/python scripts/coverage build/coverage tool_handlers/health

.PHONY: lint
lint: ## check formatting, run clang-tidy, and see that one symbol is exported
	@scripts/bootstrap lint
	@scripts/build release
	@scripts/lint

.PHONY: format
format: ## format the C++ sources
	@scripts/bootstrap lint
	@scripts/lint --format

.PHONY: typecheck
typecheck: build ## check the stub and the Python sources with pyright, strictly
	@scripts/bootstrap typecheck
	@scripts/typecheck

.PHONY: clean
clean: ## remove what was built
	@rm -rf build
