# The two commands a newcomer needs: `make run` and `make test`.
BUILD ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

WIN_BUILD ?= build-win
DIST ?= dist

.PHONY: run test sanitize fuzz windows deps-build deps-test deps-windows clean

run: deps-build
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DCVN_BUILD_TESTS=OFF -DCVN_BUILD_BENCH=OFF >/dev/null
	cmake --build $(BUILD) -j $(JOBS) --target corvane-live
	./$(BUILD)/corvane-live

test: deps-test
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DCVN_BUILD_TESTS=ON -DCVN_BUILD_BENCH=ON >/dev/null
	cmake --build $(BUILD) -j $(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The server and engine tests again under ThreadSanitizer and under
# AddressSanitizer with UndefinedBehaviorSanitizer.
SAN_TESTS = engine_tests server_tests
sanitize: deps-test
	cmake -S . -B $(BUILD)-tsan -DCVN_SANITIZE=thread -DCVN_BUILD_BENCH=OFF >/dev/null
	cmake --build $(BUILD)-tsan -j $(JOBS) --target $(SAN_TESTS)
	for t in $(SAN_TESTS); do TSAN_OPTIONS=halt_on_error=1 ./$(BUILD)-tsan/tests/$$t || exit 1; done
	cmake -S . -B $(BUILD)-asan -DCVN_SANITIZE=address -DCVN_BUILD_BENCH=OFF >/dev/null
	cmake --build $(BUILD)-asan -j $(JOBS) --target $(SAN_TESTS)
	for t in $(SAN_TESTS); do UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ./$(BUILD)-asan/tests/$$t || exit 1; done

# Both programs cross-compiled for 64-bit Windows with MinGW-w64, statically
# linked, packed with a README into $(DIST)/CorvaneLive-<version>-win64.zip.
windows: deps-windows
	python3 tools/winrt_iids.py --check sensor/winrt_ble_abi_win32.h
	cmake --no-warn-unused-cli -S . -B $(WIN_BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake \
	  -DCMAKE_BUILD_TYPE=Release -DCVN_BUILD_TESTS=OFF -DCVN_BUILD_BENCH=OFF >/dev/null
	cmake --build $(WIN_BUILD) -j $(JOBS) --target corvane-live corvane-analyze
	tools/package_windows.sh $(WIN_BUILD) $(DIST)

# libFuzzer (clang, AddressSanitizer and UndefinedBehaviorSanitizer): every
# target in tests/fuzz/ for FUZZ_SECONDS each, starting from its seeds in
# tests/fuzz/corpus/<target>/. New inputs go to $(BUILD)-fuzz/corpus/, crash
# files to $(BUILD)-fuzz/; a crash fails the run. A crash becomes a fix plus
# its input among the seeds.
FUZZ_TARGETS = http_request_fuzz recording_fuzz markers_fuzz pmd_fuzz jpeg_fuzz kubios_fuzz hrv_fuzz hrs_fuzz stored_files_fuzz
FUZZ_SECONDS ?= 20
fuzz: deps-test
	cmake -S . -B $(BUILD)-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCVN_FUZZ=ON -DCVN_BUILD_BENCH=OFF >/dev/null
	cmake --build $(BUILD)-fuzz -j $(JOBS) --target $(FUZZ_TARGETS)
	for t in $(FUZZ_TARGETS); do \
	  mkdir -p $(BUILD)-fuzz/corpus/$$t && \
	  ./$(BUILD)-fuzz/tests/$$t -max_total_time=$(FUZZ_SECONDS) -artifact_prefix=$(BUILD)-fuzz/$$t- \
	    $(BUILD)-fuzz/corpus/$$t tests/fuzz/corpus/$$t || exit 1; \
	done

deps-build:
	@tools/deps.sh build

deps-test:
	@tools/deps.sh test

deps-windows:
	@tools/deps.sh windows

clean:
	rm -rf $(BUILD) $(WIN_BUILD) $(DIST)
