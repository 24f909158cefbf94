# The two commands of the README are `make run` and `make test`; `make` alone builds the release.
# Each does everything on a fresh Debian 12: installs what is missing, configures, builds, runs.

.PHONY: all build configure dependencies run test docs clean

all: build

# The program, and with it the library.
build: configure
	cmake --build --preset release --target vnagent

configure: dependencies
	cmake --preset release

dependencies:
	packaging/install-build-dependencies

run: build
	examples/run build/release/bin/vnagent

test: configure
	cmake --build --preset release
	ctest --preset release

# The reference of the public headers, as build/docs/html, and the drawing of the architecture.
docs:
	packaging/install-build-dependencies doxygen graphviz
	docs/draw
	mkdir -p build/docs
	doxygen docs/doxygen/Doxyfile

clean:
	rm -rf build
