// What the command reads: whole inputs read into memory (standard input for "-"), and what a
// file holds, to tell an audio file from an output. Outputs are written through
// engine/output_target.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kavocli {

// Reads the whole file at path ("-": standard input). Stops early, returning false with an
// empty why, when an interrupt arrives; otherwise false with the reason ("No such file or
// directory", "Is a directory").
bool read_whole(const std::string& path, std::vector<uint8_t>& bytes, std::string& why);

// Reads what remains of an open descriptor (a pipe, a device) onto the end of bytes.
bool read_descriptor(int fd, std::vector<uint8_t>& bytes, std::string& why);

// False, with why, when path no longer names the file open as fd, or when that (regular) file
// no longer holds size bytes: the input was removed, replaced or changed while it was used.
bool still_whole(int fd, const std::string& path, uintmax_t size, std::string& why);

// True when path names a file that can be opened for reading; its size goes to size.
bool readable_size(const std::string& path, uintmax_t& size, std::string& why);

// What the file at path holds when it is recognisably audio by its content, found as the
// conversion finds it ("an MP3 file", "an MPEG audio file", "a WAV file"), else "". Only a
// regular file is looked at: a FIFO or device is never read.
std::string audio_content(const std::string& path);

// True when the name ends in an extension of audio files (.mp3 .mp2 .wav .wave .mpga), in any
// letter case.
bool audio_name(const std::string& path);

// True when files can be made in the directory; otherwise why ("Permission denied").
bool writable_directory(const std::string& dir, std::string& why);

// Standard output switched to binary (on systems that distinguish) for ADPCM bytes.
void make_stdout_binary();

}  // namespace kavocli
