# Thin wrapper over CMake: installs what a fresh machine lacks, then builds and tests.
BUILD_DIR ?= build
ASAN_BUILD_DIR ?= build-asan
TSAN_BUILD_DIR ?= build-tsan
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
MAKEFLAGS += --no-print-directory
CMAKE_FLAGS ?=

DEB_PACKAGES := cmake make g++ clang libclang-rt-dev libgtest-dev libgmock-dev libbenchmark-dev \
	android-libutils-dev android-liblog-dev android-libbase-dev android-libcutils-dev \
	nlohmann-json3-dev libjsoncpp-dev blueprint-tools ccache
SUDO := $(if $(filter 0,$(shell id -u)),,sudo)

.PHONY: all deps build test test-asan test-tsan demo clean

all: build

deps:
	@missing=$$(for p in $(DEB_PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
		echo "installing:" $$missing; \
		export DEBIAN_FRONTEND=noninteractive; \
		$(SUDO) apt-get install -y --no-install-recommends $$missing \
		|| { $(SUDO) apt-get update && $(SUDO) apt-get install -y --no-install-recommends $$missing; }; \
	fi

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS)
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# The same suite under AddressSanitizer and UndefinedBehaviorSanitizer.
test-asan:
	$(MAKE) test BUILD_DIR=$(ASAN_BUILD_DIR) BUILD_TYPE=Debug \
		CMAKE_FLAGS="$(CMAKE_FLAGS) -DVYMM_SANITIZE=address,undefined"

# ThreadSanitizer, with clang, whose -Wthread-safety also checks the lock annotations.
test-tsan:
	CC=clang CXX=clang++ $(MAKE) test BUILD_DIR=$(TSAN_BUILD_DIR) BUILD_TYPE=Debug \
		CMAKE_FLAGS="$(CMAKE_FLAGS) -DVYMM_SANITIZE=thread"

# The service on this machine, fed the example trace and inspected; see README.
# Only the demo is printed: the build's output goes to a log, shown if it fails.
demo: deps
	@echo "building... (log: $(BUILD_DIR)/demo-build.log)"
	@mkdir -p $(BUILD_DIR) && { cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS) \
		&& cmake --build $(BUILD_DIR) -j $(JOBS) --target vymm-host vymm vymediamonitorservice vexel; } \
		>$(BUILD_DIR)/demo-build.log 2>&1 || { cat $(BUILD_DIR)/demo-build.log; exit 1; }
	@tools/demo.sh $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR) $(ASAN_BUILD_DIR) $(TSAN_BUILD_DIR)
