# The two commands a newcomer needs: `make run` and `make test`.
BUILD ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: run test build deps-build deps-test clean

run: deps-build
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DCVN_BUILD_TESTS=OFF -DCVN_BUILD_BENCH=OFF >/dev/null
	cmake --build $(BUILD) -j $(JOBS) --target corvane-live
	./$(BUILD)/corvane-live

test: deps-test
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DCVN_BUILD_TESTS=ON -DCVN_BUILD_BENCH=ON >/dev/null
	cmake --build $(BUILD) -j $(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

deps-build:
	@tools/deps.sh build

deps-test:
	@tools/deps.sh test

clean:
	rm -rf $(BUILD)
