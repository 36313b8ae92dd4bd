# Start here: `make demo` and `make test` install missing packages (as root, on Debian and Fedora), build, and run.

PRESET ?= release
BUILD := build/$(PRESET)

.PHONY: help configure build program demo fabric chaos package check-packages check-packaging test test-all test-threads campaign fuzz report scale bench format check-format check-headers check-options bare aarch64 tidy coverage mutants install clean

help:
	@echo "make demo      install missing packages, build, and show how the service works on an embedded fabric"
	@echo "make test      install missing packages, build, and run every test (PRESET=asan, tsan or coverage: an instrumented build)"
	@echo "make test-all  every test under release, address+undefined and thread sanitizers"
	@echo "make campaign  run whole fabrics under random work and faults (SEEDS=1000, or a range like 1-50; HOURS=0: each seed once)"
	@echo "make fuzz      run every fuzzer for SECONDS=300, from the corpus in the tree"
	@echo "make mutants   change PART=module, peers, stack, kernel or exec in one place at a time, and count the changes that the tests notice"
	@echo "make report    run campaigns, searches, coverage and measurements, and write docs/report.md with pictures"
	@echo "make fabric    run real hosts under OpenSM on a simulated InfiniBand fabric, with failures and repairs (HOSTS=2..7)"
	@echo "make chaos     run real hosts under OpenSM and random acts for MINUTES=10, and check them after each round (SEED=N: repeat one plan)"
	@echo "make scale     measure OpenSM and a simulated fabric of 48,000 hosts, and write docs/scale.md with pictures (an hour, 11 GiB)"
	@echo "make bench     measure encoding, tracing, resolutions, large subnets, clients, and hosts on a fabric of ibsim"
	@echo "make aarch64   build the hosted kernel's tests for aarch64, and run them in an emulator"
	@echo "make package   build packages for Debian and Fedora in build/packages, those that this machine can build"
	@echo "make check-packages  build the packages twice, and install, start, upgrade and remove them in separate root folders (as root)"
	@echo "make install   install ats, its modules, manual pages and completion (PREFIX=/usr/local)"

configure:
	@mkdir -p build
	@cmake --preset $(PRESET) >$(BUILD)-configure.log 2>&1 || { cat $(BUILD)-configure.log; exit 1; }

build:
	@scripts/install-dependencies build
	@$(MAKE) --no-print-directory configure
	@cmake --build --preset $(PRESET)

# Builds only the command and its modules.
program:
	@scripts/install-dependencies build
	@$(MAKE) --no-print-directory configure
	@cmake --build --preset $(PRESET) --target ats

demo: program
	@$(BUILD)/cli/ats demo

HOSTS ?= 2
fabric:
	@scripts/install-dependencies test
	@$(MAKE) --no-print-directory build PRESET=release
	@build/release/tools/ats-fabric $(HOSTS)

MINUTES ?= 10
chaos:
	@scripts/install-dependencies test
	@$(MAKE) --no-print-directory configure PRESET=release
	@cmake --build --preset release --target ats-chaos
	@build/release/tools/ats-chaos --minutes $(MINUTES) $(if $(SEED),--seed $(SEED))

package:
	@scripts/install-dependencies package
	@scripts/package

check-packages:
	@scripts/install-dependencies check-packages
	@scripts/check-packages

# The fast part of the packaging checks: versions, and the source package.
check-packaging:
	@scripts/install-dependencies package
	@scripts/check-versions
	@scripts/check-source-package

test:
	@scripts/install-dependencies test
	@case $(PRESET) in asan) scripts/install-dependencies fuzz ;; esac
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET)
	ctest --preset $(PRESET)

test-all:
	$(MAKE) test PRESET=asan
	$(MAKE) test PRESET=tsan
	$(MAKE) test PRESET=release

SEEDS ?= 1000
HOURS ?= 0
campaign: build
	$(BUILD)/campaign/ats-campaign --seeds $(SEEDS) --hours $(HOURS)

# Runs the programs with tests on real threads, under the thread sanitizer. Leaves out their simulations that run long in one
# thread.
test-threads:
	@scripts/install-dependencies test
	cmake --preset tsan
	cmake --build --preset tsan --target tests-of-threads
	ctest --preset tsan -E '_NOT_BUILT|^campaign|^protocol|^metrics|^librdmacm|^trace.of_everything|every_order'

# A mutant is one changed file. Therefore it needs a tree that compiles each file of its part by itself: release for the
# module, dev for other parts. A mutant that leaves out a lock also needs a tree with the thread sanitizer.
PART ?= module
OPTIONS ?=
MUTANT_TREE = $(if $(filter module,$(PART)),release,dev)
mutants:
	@scripts/install-dependencies mutants
	@$(MAKE) --no-print-directory configure PRESET=$(MUTANT_TREE)
	cmake --build --preset $(MUTANT_TREE) --target ats-campaign test-ats test-peers test-stack test-kernel
ifneq ($(filter stack kernel,$(PART)),)
	@$(MAKE) --no-print-directory configure PRESET=tsan-files
	cmake --build --preset tsan-files
endif
	scripts/mutants --part $(PART) $(OPTIONS)

SECONDS ?= 300
fuzz:
	@scripts/install-dependencies fuzz
	cmake --preset asan
	cmake --build --preset asan --target fuzzers
	scripts/fuzz $(SECONDS)

report: build
	@scripts/install-dependencies report
	cmake --preset release && cmake --build --preset release --target test-ats ats-figures
	cmake --preset coverage && cmake --build --preset coverage --target test-ats ats-campaign
	scripts/report
	scripts/scale-report

scale: build
	@scripts/install-dependencies report
	scripts/scale-report --measure

bench:
	@scripts/install-dependencies bench
	cmake --preset release
	cmake --build --preset release
	build/release/bench/ats-bench
	build/release/bench/ats-figures subnet 48000
	build/release/bench/client-bench
	test ! -x build/release/bench/fabric-bench || build/release/bench/fabric-bench

# Builds the program without any optional library, and runs the demo.
bare:
	@scripts/install-dependencies build
	@$(MAKE) --no-print-directory configure PRESET=bare
	@cmake --build --preset bare
	@build/bare/cli/ats demo >build/bare/demo.txt || { cat build/bare/demo.txt; exit 1; }
	@tail -n 1 build/bare/demo.txt

check-headers:
	@scripts/check-headers

# Builds the tests of the hosted kernel for aarch64, and runs them in an emulator.
aarch64:
	@scripts/install-dependencies aarch64
	@scripts/fetch-aarch64-libraries build/aarch64-libraries
	@$(MAKE) --no-print-directory configure PRESET=aarch64
	@cmake --build --preset aarch64
	@cd build/aarch64 && qemu-aarch64 -L /usr/aarch64-linux-gnu tests/test-kernel >test.log 2>&1 || { cat test.log; exit 1; }
	@tail -n 1 build/aarch64/test.log

# Leaves out one optional library after the other. Each time, configures and compiles the file that replaces the library.
check-options:
	@scripts/install-dependencies test
	@mkdir -p build
	cmake --preset dev -B build/no-umad -DATS_UMAD=OFF >build/no-umad.log || { cat build/no-umad.log; exit 1; }
	cmake --build build/no-umad --target host/CMakeFiles/ats_umad.dir/fabric/umad/umad-none.cpp.o
	cmake --preset dev -B build/no-verbs -DATS_VERBS=OFF >build/no-verbs.log || { cat build/no-verbs.log; exit 1; }
	cmake --build build/no-verbs --target host/CMakeFiles/ats_umad.dir/fabric/umad/device-events-none.cpp.o
	cmake --preset dev -B build/no-http -DATS_HTTP=OFF >build/no-http.log || { cat build/no-http.log; exit 1; }
	cmake --build build/no-http --target cli/CMakeFiles/ats_cli.dir/metrics/http-none.cpp.o
	cmake --preset dev -B build/no-journal -DATS_JOURNAL=OFF >build/no-journal.log || { cat build/no-journal.log; exit 1; }
	cmake --build build/no-journal --target console/CMakeFiles/ats_console.dir/journal-entry-none.cpp.o
	cmake --preset dev -B build/no-fuse -DATS_FUSE=OFF >build/no-fuse.log || { cat build/no-fuse.log; exit 1; }
	cmake --build build/no-fuse --target cli/CMakeFiles/ats_cli.dir/mount/proc-mount-none.cpp.o

format:
	@scripts/sources | xargs clang-format -i

check-format:
	@scripts/sources | xargs clang-format --dry-run -Werror

tidy:
	@$(MAKE) --no-print-directory configure PRESET=tidy
	scripts/tidy build/tidy

coverage:
	$(MAKE) test PRESET=coverage
	gcovr --root . --object-directory build/coverage --gcov-ignore-parse-errors --exclude tests --exclude bench --print-summary

PREFIX ?= /usr/local
install: program
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf build
