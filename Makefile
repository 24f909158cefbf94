# The two commands of the README are `make run` and `make test`; `make` alone builds the release.
# Each does everything on a fresh Debian 12: installs what is missing, configures, builds, runs.

.PHONY: all build dependencies run test clean

all: build

build: dependencies
	cmake --preset release
	cmake --build --preset release

dependencies:
	packaging/install-build-dependencies

run: build
	examples/run build/release/bin/vnagent

test: build
	ctest --preset release

clean:
	rm -rf build
