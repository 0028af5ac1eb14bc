# The two commands that do everything on a fresh Debian 12 machine:
#   make run    install missing packages, build, start the application
#   make test   install missing packages, build, run every test
BUILD ?= build
PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
ifeq ($(CI),true)
CMAKE_FLAGS += -DTRN_WERROR=ON
endif

.PHONY: all deps configure build test run fuzz tsan bench screenshots format format-check clean \
	install uninstall package

all: build

deps:
	@./scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$(PREFIX)" \
		$(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build format-check
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) --timeout 600

# Every C++ source and header must match .clang-format.
format-check: deps
	@git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

# Starts the application with a fresh copy of samples/ open (the repository stays clean). Without
# a display it runs under xvfb-run when that is installed, else it says how to start it.
run: build
	@rm -rf $(BUILD)/sample && cp -R samples $(BUILD)/sample
	@if [ -n "$$DISPLAY" ] || [ -n "$$WAYLAND_DISPLAY" ]; then \
		$(BUILD)/bin/tarnwick $(BUILD)/sample; \
	elif command -v xvfb-run >/dev/null 2>&1; then \
		echo "No display: running Tarnwick on a virtual X server (xvfb-run); Ctrl+C stops it."; \
		xvfb-run -a -s "-screen 0 1280x800x24" $(BUILD)/bin/tarnwick $(BUILD)/sample; \
	else \
		echo "No display found. From a desktop session run: $(BUILD)/bin/tarnwick $(BUILD)/sample"; \
	fi

# Renders the README's pictures (docs/*.png) from the real windows, offscreen.
screenshots: build
	@QT_QPA_PLATFORM=offscreen $(BUILD)/bin/tarnwick-screenshots samples docs \
		tests/ui/data/sample_run.loss

# The benchmarks are built with everything else; run each one by hand (they take minutes).
bench: build
	@ls $(BUILD)/bin/*_bench

clean:
	rm -rf $(BUILD) build-*

# Installs the application, tarnwick-cli, the trainers (PREFIX/libexec/tarnwick), the engine's
# library, header and pkg-config file, the desktop entry, icons, AppStream metadata, manual pages
# and shell completions under PREFIX; DESTDIR stages the whole tree elsewhere. The list of what
# was installed is kept in $(BUILD)/install_manifest.txt for make uninstall.
install: build
	@DESTDIR="$(DESTDIR)" cmake --install $(BUILD) --prefix "$(PREFIX)"

# Removes every file the last make install put in place, and Tarnwick's own directories.
uninstall:
	@DESTDIR="$(DESTDIR)" ./scripts/uninstall.sh $(BUILD)/install_manifest.txt
	@rm -f $(BUILD)/install_manifest.txt

# The Debian package, built in build-package for any x86-64 machine (no -march=native) with the
# prefix /usr: build-package/tarnwick_<version>_<arch>.deb. Install it with
#   sudo apt-get install ./build-package/tarnwick_*.deb
PACKAGE_BUILD ?= build-package
PACKAGE_TARGETS = tarnwick_app tarnwick-cli trainer train_bpe tarnwick

package: deps
	@cmake -S . -B $(PACKAGE_BUILD) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
		-DTRN_NATIVE=OFF -DTRN_BUILD_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(PACKAGE_BUILD) -j $(JOBS) --target $(PACKAGE_TARGETS)
	@cd $(PACKAGE_BUILD) && cpack -G DEB
	@ls $(PACKAGE_BUILD)/tarnwick_*.deb

# The model tests under ThreadSanitizer: concurrent searches, indexing and listings of several
# tabs must never meet inside the engine.
tsan:
	@cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRN_TSAN=ON -DTRN_BUILD_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build-tsan -j $(JOBS) --target app_model_tests
	@OPENBLAS_NUM_THREADS=1 ctest --test-dir build-tsan -L app -LE slow --output-on-failure --timeout 600

# Runs each fuzz target for FUZZ_SECONDS under libFuzzer with AddressSanitizer and
# UndefinedBehaviorSanitizer. The working corpus grows in fuzz-corpus/ (not kept); inputs that
# crash land in tests/fuzz/crashes/<target>/, where ctest replays them from then on.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= fuzz_store fuzz_wal fuzz_weights fuzz_regex

fuzz:
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DTRN_FUZZ=ON -DTRN_BUILD_APP=OFF -DTRN_BUILD_BENCH=OFF >/dev/null
	@cmake --build build-fuzz -j $(JOBS) --target $(FUZZ_TARGETS)
	@status=0; for t in $(FUZZ_TARGETS); do \
		mkdir -p fuzz-corpus/$$t tests/fuzz/crashes/$$t; \
		echo "fuzz: $$t for $(FUZZ_SECONDS) s (log in build-fuzz/$$t.log)"; \
		if ! build-fuzz/fuzz/$$t -max_total_time=$(FUZZ_SECONDS) -timeout=30 \
			-artifact_prefix=tests/fuzz/crashes/$$t/ \
			fuzz-corpus/$$t tests/fuzz/seeds/$$t >build-fuzz/$$t.log 2>&1; then \
			echo "fuzz: $$t failed; input kept in tests/fuzz/crashes/$$t/"; \
			grep -E "ERROR|SUMMARY|Test unit written" build-fuzz/$$t.log | head -5; \
			status=1; \
		fi; \
		grep -E "^(#[0-9]+\s+DONE|Done [0-9]+ runs)" build-fuzz/$$t.log | tail -1; \
	done; exit $$status
