# The front door. `make demo` runs the helper on a simulated device and drives
# it; `make test` runs the whole test suite, then again under AddressSanitizer
# and UndefinedBehaviorSanitizer. Both install missing Debian packages first.

BUILD      ?= build
BUILD_SAN  ?= build-sanitize
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
# Our own builds treat every warning as an error.
WERROR     ?= -DVTL_WERROR=ON

PREFIX     ?= /usr/local

.PHONY: all deps build demo test test-fast test-sanitize fuzz torture format lint clean install

all: build

deps:
	@scripts/install-deps

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(WERROR) $(CMAKE_ARGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

# The demo needs the helper and the client only.
demo: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS) --target vtld_helper vtldctl
	$(BUILD)/bin/vtldctl demo

test-fast: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

$(BUILD_SAN)/CMakeCache.txt: | deps
	CC=clang-14 CXX=clang++-14 cmake -S . -B $(BUILD_SAN) -DCMAKE_BUILD_TYPE=Debug \
	  -DVTL_SANITIZE=ON $(WERROR) $(CMAKE_ARGS)

test-sanitize: deps $(BUILD_SAN)/CMakeCache.txt
	cmake --build $(BUILD_SAN) -j $(JOBS)
	cd $(BUILD_SAN) && ctest --output-on-failure -j $(JOBS)

test: test-fast test-sanitize

fuzz: deps
	CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -DVTL_FUZZ=ON -DVTL_TESTS=OFF $(WERROR)
	cmake --build build-fuzz -j $(JOBS)

# The long adversarial campaign: every fuzzer, the live socket and the crash
# points, VTL_TORTURE_SECONDS (default 60) each (scripts/torture).
torture: build fuzz
	scripts/torture

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

lint: build
	git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror
	git ls-files '*.cpp' | grep -v '^fuzz/' | xargs clang-tidy -p $(BUILD) --quiet --extra-arg=-Wno-unknown-warning-option

# Installs vtld_helper, vtldctl and the systemd units under $(PREFIX), then
# asks systemd (where it runs) to pick the units up.
install: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(WERROR) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS) --target vtld_helper vtldctl
	cmake --install $(BUILD)
	if [ -d /run/systemd/system ]; then systemctl daemon-reload; fi

clean:
	rm -rf $(BUILD) $(BUILD_SAN) build-fuzz
