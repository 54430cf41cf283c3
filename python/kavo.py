"""MP3 (MPEG-1/2/2.5 Layer III) to 8000 Hz 32 kbit/s 4-bit ADPCM, through libkavo.

    import kavo
    kavo.convert_file("prompt.mp3", "prompt.adpcm")             # gain 1.0
    adpcm = kavo.convert_bytes(open("prompt.mp3", "rb").read(), gain=0.5)
    try:
        kavo.convert_file("upload.mp3", "upload.adpcm", progress=print)
    except kavo.Error as e:
        print(e.status, e.message)     # e.g. -4 "a Layer II frame at byte 0: ..."

The output is headerless: four 4-bit codes to a 16-bit little-endian word, the earliest
sample in the lowest nibble, 4000 bytes a second. Conversions hold no lock: any number may
run at once on different threads, each on its own state inside the library.

The library is the one named by the environment variable KAVO_LIBRARY (a path), else the
installed libkavo.so.1 (kavo.dll on Windows) that the system's loader finds.
"""

import ctypes
import ctypes.util
import os
import sys

__all__ = ["Error", "convert_file", "convert_bytes", "OK", "ERROR_ARGUMENT", "ERROR_READ",
           "ERROR_WRITE", "ERROR_FORMAT", "ERROR_MEMORY", "ERROR_STOPPED"]

OK = 0
ERROR_ARGUMENT = -1   # an empty path, or a gain that is not finite
ERROR_READ = -2       # the input cannot be opened or read
ERROR_WRITE = -3      # the output cannot be written
ERROR_FORMAT = -4     # no Layer III frame, or a Layer I or II frame
ERROR_MEMORY = -5     # memory for the conversion could not be allocated
ERROR_STOPPED = -6    # the conversion was stopped (an exception while taking the output)

_MESSAGE_SIZE = 512


class Error(Exception):
    """A failed conversion: status is one of the ERROR_ values, message the library's line."""

    def __init__(self, status, message):
        super().__init__(message)
        self.status = status
        self.message = message


_PROGRESS = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int)
_WRITE = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_size_t)


def _load():
    path = os.environ.get("KAVO_LIBRARY")
    if path:
        return ctypes.CDLL(path)
    names = ["kavo.dll"] if sys.platform == "win32" else ["libkavo.so.1"]
    found = ctypes.util.find_library("kavo")
    if found:
        names.append(found)
    for name in names:
        try:
            return ctypes.CDLL(name)
        except OSError:
            pass
    raise ImportError("kavo: libkavo.so.1 not found: install kavo, or name the library "
                      "in the environment variable KAVO_LIBRARY")


_lib = _load()
_lib.kavo_convert_file.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_float, _PROGRESS,
                                   ctypes.c_void_p, ctypes.c_char_p, ctypes.c_size_t]
_lib.kavo_convert_file.restype = ctypes.c_int
_lib.kavo_convert_memory.argtypes = [ctypes.c_char_p, ctypes.c_size_t, ctypes.c_float, _WRITE,
                                     _PROGRESS, ctypes.c_void_p, ctypes.c_char_p,
                                     ctypes.c_size_t]
_lib.kavo_convert_memory.restype = ctypes.c_int
_lib.kavo_status_text.argtypes = [ctypes.c_int]
_lib.kavo_status_text.restype = ctypes.c_char_p


class _Call:
    """The callbacks of one conversion. An exception raised in them cannot cross the
    library; it is kept and raised again once the library has returned."""

    def __init__(self, progress):
        self.failure = None
        self.chunks = []
        self.message = ctypes.create_string_buffer(_MESSAGE_SIZE)
        self.progress = _PROGRESS(self._progress) if progress else _PROGRESS()
        self.write = _WRITE(self._write)
        self._user_progress = progress

    def _progress(self, _user, percent):
        if self.failure is None:
            try:
                self._user_progress(percent)
            except BaseException as e:   # KeyboardInterrupt included: raised after the call
                self.failure = e

    def _write(self, _user, data, size):
        if self.failure is not None:
            return 1   # progress raised: stop here
        try:
            self.chunks.append(ctypes.string_at(data, size))
            return 0
        except BaseException as e:
            self.failure = e
            return 1

    def finish(self, status):
        if self.failure is not None:
            raise self.failure
        if status != OK:
            text = self.message.value.decode("utf-8", "replace")
            raise Error(status, text or _lib.kavo_status_text(status).decode("ascii", "replace"))


def _path(name):
    path = os.fsencode(name)
    if b"\0" in path:
        raise ValueError("kavo: embedded null byte in path")
    return path


def convert_file(inp, out, gain=1.0, progress=None):
    """Converts the MP3 file inp into the ADPCM file out, every 8000 Hz sample times gain.

    A file out appears only when complete: on failure an existing one is left as it was. A
    link is followed to its target; a device, FIFO or socket is written in place; out that is
    inp itself (by any path or link) is refused. progress,
    when given, is called with the percentage done (0 to 100, rising, 100 last), on the
    calling thread; an exception it raises is raised again when the conversion has ended.
    Raises kavo.Error when the conversion fails."""
    call = _Call(progress)
    status = _lib.kavo_convert_file(_path(inp), _path(out), gain, call.progress,
                                    None, call.message, _MESSAGE_SIZE)
    call.finish(status)


def convert_bytes(mp3, gain=1.0, progress=None):
    """Converts MP3 data (bytes or any bytes-like object) and returns the ADPCM bytes.

    progress is called as for convert_file; an exception it raises stops the conversion and
    is raised again. Raises kavo.Error when the conversion fails."""
    data = bytes(mp3)
    call = _Call(progress)
    status = _lib.kavo_convert_memory(data, len(data), gain, call.write, call.progress, None,
                                      call.message, _MESSAGE_SIZE)
    call.finish(status)
    return b"".join(call.chunks)
