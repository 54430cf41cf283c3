# The project's commands. `make` builds build/kavo and build/libkavo.so; `make demo` converts
# the bundled sample; `make test` builds and runs every test; `make asan` runs the tests under
# AddressSanitizer and UndefinedBehaviorSanitizer; `make tsan` runs the concurrency tests under
# ThreadSanitizer; `make bench` measures against reference tools; `make install PREFIX=P`
# installs the command, the library and its files under P.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
DEMO_MP3 := tests/fixtures/speech_mono_22k.mp3

.PHONY: all deps release debug test install asan clang tsan bench demo fuzz windows windows-test clean

all: release

# What the build and the tests need, installed with apt-get when missing (quick otherwise).
deps:
	@bash tools/install-deps.sh

release: deps
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)

debug: deps
	cmake --preset debug >/dev/null
	cmake --build --preset debug -j $(JOBS)

test: release
	ctest --preset release -j $(JOBS)

# bin/kavo, lib/libkavo.so.1.2.0 and its links, include/kavo/kavo.h, lib/pkgconfig/kavo.pc,
# lib/cmake/kavo and share/man/man1/kavo.1 under PREFIX (DESTDIR, when set, is put in front).
PREFIX ?= /usr/local
install: release
	cmake --install build --prefix $(PREFIX)

asan: deps
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)

# The conversion engine's threads test (ctest label threads) under ThreadSanitizer.
tsan: deps
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan -j $(JOBS) --target engine_threads_test
	ctest --preset tsan

# The test suite built with clang, as the GCC build's companion: both compilers must accept the
# vector code and give the same results.
clang: deps
	cmake --preset clang >/dev/null
	cmake --build --preset clang -j $(JOBS)
	ctest --preset clang -j $(JOBS)

# Each fuzz target for FUZZ_SECONDS, on its committed corpus fuzz/corpus/<name> with its
# dictionary; the MP3 targets also start from the conformance bitstreams and the fixtures.
# What a run learns stays in build-fuzz/corpus-<name>; a finding lands in build-fuzz/. The
# file targets work in a directory of their own, so every path given them is absolute.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS := decode stages memory
fuzz: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS)
	mkdir -p build-fuzz/seeds-mp3
	cp -n ../shared/conformance/*/*.bit tests/fixtures/*.mp[123] build-fuzz/seeds-mp3/ 2>/dev/null || true
	set -e; cd build-fuzz; for t in $(FUZZ_TARGETS); do \
	  mkdir -p corpus-$$t; \
	  if [ $$t = stages ]; then seeds=; dict=$(CURDIR)/fuzz/stages.dict; \
	  else seeds=$$PWD/seeds-mp3; dict=$(CURDIR)/fuzz/mpeg.dict; fi; \
	  echo "fuzz: $$t for $(FUZZ_SECONDS) s"; \
	  ./$${t}_fuzz -max_total_time=$(FUZZ_SECONDS) -max_len=8192 -timeout=10 \
	    -close_fd_mask=3 -print_final_stats=1 -dict=$$dict -artifact_prefix=$$PWD/$$t- \
	    $$PWD/corpus-$$t $(CURDIR)/fuzz/corpus/$$t $$seeds >$$t.log 2>&1 \
	    || { tail -n 60 $$t.log; exit 1; }; \
	  grep -E '^#[0-9]+[[:space:]]+(INITED|DONE)|^stat::' $$t.log; \
	done

# The machine, kavo's vector path, the tools' versions and the load first, then each stage
# against its reference tool as ratios of medians over alternating runs; the tables also go to
# build/bench-report.md. Figures taken at a load above 0.5 per core are marked UNRELIABLE.
bench: release
	bash bench/run.sh

# The command and the library alone: the demo neither builds nor runs a test.
demo: deps
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) --target kavo_cli kavo_shared
	build/kavo convert $(DEMO_MP3) demo.adpcm
	build/kavo expand demo.adpcm demo.wav
	@echo
	@echo "demo: converted $(DEMO_MP3)"
	@echo "  demo.adpcm  $$(stat -c %s demo.adpcm) bytes of 4-bit ADPCM (8000 Hz, 32 kbit/s)"
	@echo "  demo.wav    $$(stat -c %s demo.wav) bytes: the ADPCM expanded again, for listening"

# kavo.dll (with libkavo.dll.a and src/kavo.def), its test host and kavo.exe, cross-built with
# mingw-w64.
windows: deps
	cmake -S . -B build-windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
	      -DCMAKE_BUILD_TYPE=Release >/dev/null
	cmake --build build-windows -j $(JOBS)

# The DLL and kavo.exe under Wine against the Linux build: same output bytes, same progress, same
# files left.
windows-test: release windows
	bash tests/windows/run_wine_test.sh

clean:
	rm -rf build build-debug build-asan build-clang build-fuzz build-windows demo.adpcm demo.wav
