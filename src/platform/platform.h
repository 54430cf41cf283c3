// The few services of the host's C runtime that the conversion relies on, written for this
// machine: a registry of the streams the library opens (so that "close every open stream"
// can be done), the length of an open file, a 32-bit binary write, file removal, and the one
// way the process ends on a fatal condition.
#pragma once

#include <cstdint>
#include <cstdio>

namespace kavolib {

// Opens a file like fopen and records the stream so that close_all_streams can reach it.
// Returns nullptr when the file cannot be opened (or, never in practice, when the registry
// of kMaxStreams is full).
FILE* open_stream(const char* name, const char* mode);

// Closes a stream opened by open_stream and forgets it. Returns fclose's result.
int close_stream(FILE* stream);

// Closes every stream opened by open_stream that is still open; the standard streams are
// never touched. Returns the number of streams closed.
int close_all_streams();

// Number of streams opened by open_stream and not yet closed.
int open_stream_count();

inline constexpr int kMaxStreams = 32;

// Length in bytes of an open file, whatever its current position; -1 on failure.
long file_length(FILE* stream);

// Writes a 32-bit integer in binary, least significant byte first. Returns the value written,
// or EOF when the write fails.
int put_word32(int32_t value, FILE* stream);

// Removes a file by name; returns 0 on success. On this platform names are case-sensitive,
// so callers pass the name the file was created with.
int remove_file(const char* name);

// Ends the process with the given exit code after flushing the standard streams. Every fatal
// condition of the library ends here.
[[noreturn]] void end_process(int code);

// A harness that must survive fatal conditions (the fuzzer) may install a hook that leaves by
// throwing or jumping; end_process calls it first. A hook that returns is followed by the exit.
using EndProcessHook = void (*)(int code);
void set_end_process_hook(EndProcessHook hook);

}  // namespace kavolib
