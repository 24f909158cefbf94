# `make run` and `make test` are the two commands of the README; `make` alone builds the release. Each
# command installs what it needs, configures, builds and runs, on a fresh Debian 12 with git and make.

# `make serve` starts a live agent, `sudo make run-fabric` one with switches that act on it.

# Packages that running Neutron needs.
NEUTRON = python3-neutron neutron-common python3-setuptools

# Packages that switches in network namespaces need.
FABRIC = openvswitch-switch openvswitch-vtep iproute2 patch

.PHONY: all build configure dependencies run serve run-neutron run-fabric neutron-check neutron-package \
  neutron-e2e test test-export test-fabric sim fuzz bench bench-quick bench-live bench-live-quick coverage \
  mutation docs packages clean

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

# A live agent in the foreground, with the example cloud.
serve: build
	examples/serve build/release/bin/vnagent build/vnagent.sock

# A live agent and a neutron-server that keeps it up to date, with two ports; see docs/neutron.md.
run-neutron: build
	packaging/install-build-dependencies $(NEUTRON)
	neutron/develop
	neutron/quickstart build/release/bin/vnagent build/neutron-quickstart

# Style, types and unit tests of the Neutron driver.
neutron-check: build
	packaging/install-build-dependencies $(NEUTRON) flake8 mypy python3-pytest python3-oslotest \
	  python3-ddt python3-fixtures python3-testtools python3-testscenarios python3-testresources \
	  python3-webtest
	neutron/check build/release/bin/vnagent

# The Debian package of the Neutron driver, in build/package/packages.
neutron-package:
	packaging/install-build-dependencies python3-setuptools dpkg-dev
	packaging/neutron/build build/package/packages

# Neutron with the driver, end to end: rounds of ROUND seconds, for MINUTES in all or just one; see
# neutron/tests/e2e/README.md.
ROUND ?= 60
MINUTES ?=

neutron-e2e: build
	neutron/tests/e2e/run --binary $(CURDIR)/build/release/bin/vnagent --round $(ROUND) \
	  $(if $(MINUTES),--minutes $(MINUTES))

# Racks in network namespaces: the agent, the exporter, Open vSwitch, and frames between servers; see
# examples/fabric/README.md.
run-fabric:
	@[ "$$(id -u)" = 0 ] || { \
	  echo "Network namespaces and switches need root: sudo make run-fabric" >&2; exit 1; }
	packaging/install-build-dependencies $(FABRIC)
	$(MAKE) build
	examples/fabric/fabric run --binary build/release/bin/vnagent

test: configure
	cmake --build --preset release
	tests/run.py --preset release

# The export to switches against the real ovsdb-server, which `make test` leaves out where it is not
# installed. Its packages start no service here, and the tests need no rights.
test-export: configure
	cmake --build --preset release --target vnagent
	tests/export/install
	tests/export/run.py --binary build/release/bin/vnagent --required

# The same with frames: switches in network namespaces, and neutron-server in one of the tests. Needs
# root.
test-fabric:
	@[ "$$(id -u)" = 0 ] || { \
	  echo "Network namespaces and switches need root: sudo make test-fabric" >&2; exit 1; }
	packaging/install-build-dependencies $(FABRIC) $(NEUTRON)
	$(MAKE) build
	neutron/develop
	tests/fabric/run.py --binary build/release/bin/vnagent --must

# The simulation of the library: EVENTS events from the seed SEED, with the feature toggle on, off or
# both.
EVENTS ?= 10000000
SEED ?= 1
TOGGLE ?= both

sim: configure
	cmake --build --preset release --target library_simulation vnagent
	build/release/bin/library_simulation --events $(EVENTS) --seed $(SEED) --toggle $(TOGGLE) \
	  --out build/simulation-failures --vnagent build/release/bin/vnagent

# The fuzz targets, each for SECONDS seconds, JOBS at a time; TARGET=NAME runs one: see
# tests/fuzz/README.md.
SECONDS ?= 60
JOBS ?= 1
TARGET ?=

fuzz:
	packaging/install-build-dependencies clang libclang-rt-14-dev
	cmake --preset asan-ubsan
	cmake --build --preset asan-ubsan --target fuzz
	tests/fuzz/run.py build/asan-ubsan --seconds $(SECONDS) --jobs $(JOBS) \
	  $(if $(TARGET),--target $(TARGET))

# The benchmarks, as tables; up to 15 minutes, bench-quick up to 3. FILTER=REGEX runs a part: see
# bench/README.md.
bench bench-quick:
	packaging/install-build-dependencies libbenchmark-dev libabsl-dev libsigc++-2.0-dev
	cmake --preset bench
	cmake --build --preset bench --target openstacksm_bench vnagent
	mkdir -p build/bench
	build/release/bin/openstacksm_bench $(if $(filter bench-quick,$@),--quick) \
	  --results=build/bench/results.json --vnagent=build/release/bin/vnagent --filter='$(value FILTER)'
	bench/table.py $(if $(filter bench-quick,$@),--quick) $(if $(FILTER),--partial) \
	  build/bench/results.json

# The live agent beside etcd, ovsdb-server and a server that does nothing, as a table; up to 15 minutes,
# bench-live-quick up to 5. FILTER=REGEX runs a part: see bench/README.md.
bench-live bench-live-quick:
	packaging/install-build-dependencies libbenchmark-dev libabsl-dev libsigc++-2.0-dev \
	  etcd-server openvswitch-common
	cmake --preset bench
	cmake --build --preset bench --target vnagent live_client bare_server
	bench/live/run.py build/release/bin $(if $(filter bench-live-quick,$@),--quick) \
	  --filter='$(value FILTER)' --results build/bench/live-results.json

# The branches of framework, model and machines that their tests take: a table, and
# build/coverage/html. Fails when a file is below 95 %.
coverage:
	packaging/install-build-dependencies clang libclang-rt-14-dev llvm-14
	cmake --preset coverage
	cmake --build --preset coverage --target framework_test model_test OpenStackSm_test
	tests/coverage/report.py build/coverage

# Whether the tests notice when the code is changed in one place: every place, or SAMPLE of them, which
# SEED chooses; of all four folders of the source, or of those in IN. A whole run takes hours; see
# tests/mutation/survivors.md.
SAMPLE ?= 0
IN ?= OpenStackSm model framework agent

mutation:
	packaging/install-build-dependencies python3-clang-14
	nice -n 10 /usr/bin/python3 tests/mutation/run.py --in $(IN) --sample $(SAMPLE) --seed $(SEED) \
	  --jobs $(JOBS)

# The reference of the public headers, as build/docs/html, and the drawing of the architecture.
docs:
	packaging/install-build-dependencies doxygen graphviz
	docs/draw
	mkdir -p build/docs
	doxygen docs/doxygen/Doxyfile

# The Debian packages, in build/package/packages.
packages:
	packaging/install-build-dependencies dpkg-dev file
	cmake --preset package
	cmake --build --preset package
	cpack --preset package

clean:
	rm -rf build
