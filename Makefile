# The verbs of daily work. Every verb installs what it lacks by apt (nothing to do when all is there) and is safe to
# repeat: cmake, ninja, ccache and the stamps under build/ keep a second run from doing work again.
#
#   VELMORA_JOBS=N       how many compilers and tests run side by side (default: all processors)
#   VELMORA_NO_INSTALL=1 never touch the system's packages

SHELL := /bin/bash
.DEFAULT_GOAL := help
.DELETE_ON_ERROR:

JOBS ?= $(or $(VELMORA_JOBS),$(shell nproc))
FUZZ_SECONDS ?= 60
VERSION := $(shell sed -n "s/.*velmora VERSION \([0-9.]*\).*/\1/p" CMakeLists.txt)

export VELMORA_JOBS := $(JOBS)

ifdef VELMORA_NO_INSTALL
  install = @true
else
  install = @scripts/install-dependencies
endif

.PHONY: help demo test check build bench lint fuzz soak package clean

help: ## show this list
	@echo "Velmora $(VERSION)"
	@sed -n 's/^\([a-z]*\):.*## \(.*\)/  make \1\t\2/p' Makefile | expand -t 20

demo: ## make a small card with real video, offload it to two folders, check the result
	$(install) run build demo
	@$(MAKE) --no-print-directory compile
	@scripts/demo

build: ## build the program: build/release/bin/velmora
	$(install) build
	@$(MAKE) --no-print-directory compile

test: ## run every test, plain and under the sanitizers, and each fuzz target for a few seconds
	$(install) run build test
	@scripts/run-tests

check: ## run every test once, plain: the quick answer while working
	$(install) run build test
	@scripts/run-tests release

bench: ## measure against ordinary tools on this machine (ARGS=--quick for a short round)
	$(install) build bench
	@$(MAKE) --no-print-directory compile
	@cmake --build build/release -j $(JOBS) --target velmora_bench
	@python3 bench/run.py $(ARGS)

lint: ## check format, clang-tidy, scripts (second runs look only at what changed)
	$(install) build lint
	@scripts/configure asan
	@scripts/lint

fuzz: ## run every fuzz target for FUZZ_SECONDS (60)
	$(install) build test
	@scripts/configure asan
	@cmake --build build/asan -j $(JOBS) --target velmora_fuzz
	@scripts/run-fuzzers $(FUZZ_SECONDS)

soak: ## run the fault and crash loops in full length (hours)
	$(install) run build test
	@scripts/run-tests soak

package: ## build a Debian package: build/velmora_VERSION_ARCH.deb
	$(install) build package
	@$(MAKE) --no-print-directory compile
	@scripts/make-package

clean: ## remove everything that was built, and the demo
	rm -rf build demo

.PHONY: compile
compile:
	@scripts/configure release
	@cmake --build build/release -j $(JOBS) --target velmora
