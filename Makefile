# Front door of the build. `make demo` and `make test` are the two commands of the README.
BUILD_DIR ?= build
SANITIZE_DIR ?= build-sanitize
TSAN_DIR ?= build-tsan
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?=
DEMO_DIR ?= $(BUILD_DIR)/demo-results

FUZZ_DIR ?= build-fuzz
FUZZ_SECONDS ?= 60
# Each NAME has fuzz/NAME_fuzz.cpp, a seed corpus in fuzz/corpus/NAME and its longest input.
FUZZ_TARGETS ?= trace_file java_names metadata signature clr_symreader jitdump windows_pdb
FUZZ_MAX_LEN ?= 65536

.PHONY: all deps build test check-sanitize check-tsan demo bench bench-fleet fuzz clean

all: build

deps:
	@./scripts/setup-deps

$(BUILD_DIR)/CMakeCache.txt:
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: deps $(BUILD_DIR)/CMakeCache.txt
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

check-sanitize: deps
	cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=Debug -DJITREADER_SANITIZE=ON -DJITREADER_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build $(SANITIZE_DIR) -j $(JOBS)
	cd $(SANITIZE_DIR) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		ctest --output-on-failure -j $(JOBS)

# The concurrency stress test under ThreadSanitizer.
check-tsan: deps
	cmake -S . -B $(TSAN_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DJITREADER_TSAN=ON -DJITREADER_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build $(TSAN_DIR) -j $(JOBS) --target e2e_tests jit_file_reader_test
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 $(TSAN_DIR)/tests/e2e_tests --gtest_filter='Concurrency.*'
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 $(TSAN_DIR)/tests/jit_file_reader_test --gtest_filter='*Ahead*' --gtest_repeat=20

demo: build
	@[ -d $(DEMO_DIR)/dotnet ] || $(BUILD_DIR)/tools/jitreader-sample-gen $(DEMO_DIR)
	$(BUILD_DIR)/tools/jitreader processes $(DEMO_DIR)/alpha $(DEMO_DIR)/beta
	@echo
	$(BUILD_DIR)/tools/jitreader resolve $(DEMO_DIR)/alpha $(DEMO_DIR)/beta --samples samples/demo.samples
	@echo
	$(BUILD_DIR)/tools/jitreader report $(DEMO_DIR)/alpha $(DEMO_DIR)/beta --samples samples/demo.samples --top 5
	@echo
	$(BUILD_DIR)/tools/jitreader flamegraph $(DEMO_DIR)/alpha $(DEMO_DIR)/beta --samples samples/demo.samples \
		-o $(DEMO_DIR)/flamegraph.svg --title "Flame graph of the demo samples"
	@echo "Open file://$(abspath $(DEMO_DIR))/flamegraph.svg in a browser."
	@echo
	@echo "A .NET process whose trace gives only tokens and module paths; names, sources and lines come from samples/dotnet/foo.dll:"
	$(BUILD_DIR)/tools/jitreader resolve $(DEMO_DIR)/dotnet --samples samples/dotnet.samples --symbols samples/dotnet --full-names
	@echo
	$(BUILD_DIR)/tools/jitreader assembly samples/dotnet/foo.dll
	@echo
	@echo "A real Java virtual machine under the agent (build/agent/libjitagent.so): its compiled methods, and points of the hot one with their inline frames:"
	@if [ -f $(BUILD_DIR)/agent/libjitagent.so ]; then sh agent/demo.sh $(BUILD_DIR) $(DEMO_DIR)/java; else echo "(no JDK found at configure time: the agent was not built)"; fi
	@echo
	@echo "A real Node.js run under --perf-prof: its jitdump converted, and the hot function's versions resolved:"
	@./scripts/node-demo $(BUILD_DIR) $(DEMO_DIR)/node

bench: build
	@for b in $(BUILD_DIR)/bench/*_bench; do [ -x "$$b" ] && "$$b"; done
	PYTHONPATH=$(BUILD_DIR)/python /usr/bin/python3 bench/resolve_bench.py $(BUILD_DIR)

# One process against a local Dask cluster of two workers on a fleet of 32 hosts and 10 million
# samples (some minutes, and 0.5 GB of samples in the build folder).
bench-fleet: build
	PYTHONPATH=$(BUILD_DIR)/python /usr/bin/python3 bench/fleet_bench.py $(BUILD_DIR)

fuzz: deps
	CXX=clang++ cmake -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=Debug -DJITREADER_FUZZ=ON -DJITREADER_BENCH=OFF -DJITREADER_WERROR=OFF
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target $(FUZZ_TARGETS:%=%_fuzz)
	@for t in $(FUZZ_TARGETS); do \
		mkdir -p $(FUZZ_DIR)/corpus-$$t; \
		$(FUZZ_DIR)/fuzz/$${t}_fuzz -max_total_time=$(FUZZ_SECONDS) -max_len=$(FUZZ_MAX_LEN) -artifact_prefix=$(FUZZ_DIR)/$$t- \
			$(FUZZ_DIR)/corpus-$$t fuzz/corpus/$$t || exit 1; \
	done

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(TSAN_DIR) $(FUZZ_DIR)
