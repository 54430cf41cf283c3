# The project's commands. `make` builds build/kavo and build/libkavo.so; `make demo` converts
# the bundled sample; `make test` builds and runs every test; `make asan` runs the tests under
# AddressSanitizer and UndefinedBehaviorSanitizer; `make bench` measures against reference tools.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
DEMO_MP3 := tests/fixtures/speech_mono_22k.mp3

.PHONY: all release debug test asan bench demo fuzz windows windows-test clean

all: release

release:
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)

debug:
	cmake --preset debug >/dev/null
	cmake --build --preset debug -j $(JOBS)

test: release
	ctest --preset release -j $(JOBS)

asan:
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)

# libFuzzer over the decode phase for FUZZ_SECONDS, seeded with the conformance bitstreams.
FUZZ_SECONDS ?= 60
fuzz:
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS)
	mkdir -p build-fuzz/corpus
	cp -n ../shared/conformance/*/*.bit build-fuzz/corpus/ 2>/dev/null || true
	build-fuzz/decode_fuzz -max_total_time=$(FUZZ_SECONDS) -max_len=16384 \
	  -artifact_prefix=$(CURDIR)/build-fuzz/ $(CURDIR)/build-fuzz/corpus

bench: release
	bash bench/run.sh

demo: release
	build/kavo convert $(DEMO_MP3) demo.adpcm
	build/kavo expand demo.adpcm demo.wav
	@echo
	@echo "demo: converted $(DEMO_MP3)"
	@echo "  demo.adpcm  $$(stat -c %s demo.adpcm) bytes of 4-bit ADPCM (8000 Hz, 32 kbit/s)"
	@echo "  demo.wav    $$(stat -c %s demo.wav) bytes: the ADPCM expanded again, for listening"

# kavo.dll (with libkavo.dll.a and src/kavo.def) and its test host, cross-built with mingw-w64.
windows:
	cmake -S . -B build-windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
	      -DCMAKE_BUILD_TYPE=Release >/dev/null
	cmake --build build-windows -j $(JOBS)

# The DLL under Wine against the Linux build: same output bytes, same progress, same files left.
windows-test: release windows
	bash tests/windows/run_wine_test.sh

clean:
	rm -rf build build-debug build-asan build-fuzz build-windows demo.adpcm demo.wav
