# The front door. `make demo` runs the helper on a simulated device and drives
# it; `make test` runs the whole test suite, then again under AddressSanitizer
# and UndefinedBehaviorSanitizer. Both install missing Debian packages first.

BUILD      ?= build
BUILD_SAN  ?= build-sanitize
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
# Our own builds treat every warning as an error.
WERROR     ?= -DVTL_WERROR=ON

# Where `make install` puts everything (the build is configured for it).
PREFIX     ?= /usr/local
BUILD_PKG  ?= build-package

.PHONY: all deps build demo test test-fast test-sanitize fuzz torture format lint clean install \
	package

all: build

deps:
	@scripts/install-deps

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX) \
	  $(WERROR) $(CMAKE_ARGS)

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

# Installs the helper, vtldctl, the systemd units, the sysusers.d and
# tmpfiles.d entries, the manual pages and the completion under $(PREFIX)
# (configuration directories under /etc), into $(DESTDIR) when given. It
# builds what is missing with the tools already there and never installs
# packages: the target of an install is no build machine. Without DESTDIR,
# systemd (where it runs) picks the units up.
install:
	if [ -f $(BUILD)/CMakeCache.txt ]; then \
	  cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_ARGS); \
	else \
	  cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX) \
	    $(CMAKE_ARGS); \
	fi
	cmake --build $(BUILD) -j $(JOBS) --target vtld_helper vtldctl man_pages package_changelog
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD)
	if [ -z "$(DESTDIR)" ] && [ -d /run/systemd/system ]; then systemctl daemon-reload; fi

# The Debian package vtld-helper_VERSION_ARCH.deb in $(BUILD_PKG): a Release
# build for /usr with Debian's hardening flags, staged and packed by CPack,
# then checked by lintian (which fails on any error). Built as a packager
# builds: warnings Debian's flags bring (_FORTIFY_SOURCE's) stay warnings.
package: export DEB_BUILD_MAINT_OPTIONS = hardening=+all
package:
	scripts/install-deps --package
	CFLAGS="$$(dpkg-buildflags --get CFLAGS) $$(dpkg-buildflags --get CPPFLAGS)" \
	  CXXFLAGS="$$(dpkg-buildflags --get CXXFLAGS) $$(dpkg-buildflags --get CPPFLAGS)" \
	  LDFLAGS="$$(dpkg-buildflags --get LDFLAGS)" \
	  cmake -S . -B $(BUILD_PKG) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
	  -DVTL_TESTS=OFF -DVTL_WERROR=OFF $(CMAKE_ARGS)
	cmake --build $(BUILD_PKG) -j $(JOBS) --target vtld_helper vtldctl man_pages package_changelog
	rm -f $(BUILD_PKG)/vtld-helper_*.deb
	cd $(BUILD_PKG) && cpack -G DEB
	lintian --fail-on error --info $(BUILD_PKG)/vtld-helper_*.deb

clean:
	rm -rf $(BUILD) $(BUILD_SAN) $(BUILD_PKG) build-fuzz
