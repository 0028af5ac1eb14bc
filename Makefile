# The two commands that do everything on a fresh Debian 12 machine:
#   make run    install missing packages, build, start the application
#   make test   install missing packages, build, run every test
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
ifeq ($(CI),true)
CMAKE_FLAGS += -DTRN_WERROR=ON
endif

.PHONY: all deps configure build test run fuzz tsan bench screenshots format format-check clean

all: build

deps:
	@./scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) --timeout 600

run: build
	@$(BUILD)/bin/tarnwick-cli --help

clean:
	rm -rf $(BUILD) build-*
