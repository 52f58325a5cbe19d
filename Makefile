# SPDX-License-Identifier: Apache-2.0
#
# The front door. Each target sets up what it needs (Debian 12 packages, configuration, build) and
# may be called first on a fresh machine. `make help` lists them.
SHELL := /bin/sh
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
DESTDIR ?=
SECONDS ?= 30

CMAKE_BUILD = cmake --build --preset $(1) --parallel $(JOBS)
# Slow sanitized tests leave the other processor to the compiler.
TEST_JOBS ?= 2

.PHONY: help run build test check tsan fuzz bench install deb deb-trial format setup clean

help:
	@echo 'make run       configure an example SD-WAN and decide real prefixes with it'
	@echo 'make test      build and run all tests'
	@echo 'make check     what CI checks besides: format, clang-tidy, warnings, tests under ASan and UBSan'
	@echo 'make bench     the benchmarks, as tables'
	@echo 'make tsan      the tests under ThreadSanitizer'
	@echo 'make fuzz      every fuzzer for SECONDS=30'
	@echo 'make build     polctl, yarrowd and the libraries, in build/bin and build/lib'
	@echo 'make install   into PREFIX=/usr/local, below DESTDIR'
	@echo 'make deb       Debian packages in build-deb/, looked over by lintian'
	@echo 'make deb-trial installs them in a chroot made on the spot, uses them and removes them'
	@echo 'make format    clang-format over the sources'

setup:
	@scripts/setup build

# A build of its own, in half of the time: without tests, and compiled a room at a time.
build: setup
	@cmake --preset release --log-level=WARNING >/dev/null
	@$(call CMAKE_BUILD,release) --target policy policy_host_shared polctl yarrowd manuals

run: build
	@scripts/demo build/bin/polctl

test: setup
	cmake --preset dev --log-level=WARNING >/dev/null
	$(call CMAKE_BUILD,dev)
	ctest --preset dev --parallel $(TEST_JOBS)

check:
	@scripts/setup build check
	@JOBS=$(JOBS) scripts/check

tsan:
	@scripts/setup build check
	cmake --preset tsan --log-level=WARNING >/dev/null
	$(call CMAKE_BUILD,tsan)
	ctest --preset tsan --parallel $(TEST_JOBS)

fuzz:
	@scripts/setup build check
	cmake --preset fuzz --log-level=WARNING >/dev/null
	$(call CMAKE_BUILD,fuzz)
	@scripts/fuzz build-fuzz/bin $(SECONDS)

bench: setup
	@cmake --preset bench --log-level=WARNING >/dev/null
	@$(call CMAKE_BUILD,bench) --target pol_bench agent_bench config_bench document_bench path_bench proof_bench
	@build-bench/bin/pol_bench
	@printf '\n'
	@build-bench/bin/agent_bench
	@printf '\n'
	@build-bench/bin/config_bench
	@printf '\n'
	@build-bench/bin/document_bench
	@printf '\n'
	@build-bench/bin/path_bench
	@printf '\n'
	@build-bench/bin/proof_bench

# Copies what `make build` left: a build by the user can be installed by root, and neither asks for
# packages.
install:
	@[ -e build/bin/yarrowd ] || $(MAKE) build
	@cmake --install build --prefix '$(PREFIX)'

deb:
	@scripts/setup build package
	@JOBS=$(JOBS) scripts/package build-deb

deb-trial: deb
	@scripts/package_trial build-deb

format:
	@scripts/setup check
	@scripts/sources | xargs clang-format -i

clean:
	rm -rf build build-dev build-asan build-tsan build-fuzz build-bench build-deb
