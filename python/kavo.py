"""MP3 (MPEG-1/2/2.5 Layer III) or WAV to 8000 Hz 32 kbit/s 4-bit ADPCM, through libkavo.
The input is recognised by its content: tags around MP3 frames are skipped; WAV may hold
8, 16, 24 or 32-bit PCM, 32-bit float, mu-law or A-law samples, mono or stereo, 8 to 48 kHz.

    import kavo
    kavo.convert_file("prompt.mp3", "prompt.adpcm")             # gain 1.0
    adpcm = kavo.convert_bytes(open("prompt.mp3", "rb").read(), gain=0.5)
    result = kavo.convert("prompt.mp3", gain=4.0)   # or bytes; nothing written to disk
    if result.wrapped:
        print(result.wrapped, "samples wrapped; the largest safe gain is", result.max_gain)
    open("prompt.adpcm", "wb").write(result.adpcm)
    result = kavo.convert("prompt.mp3", level=-26)   # or peak=-1, or gain="max"
    print(result.level, "dBov brought to", result.level_reached, "with gain", result.gain)
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

__all__ = ["Error", "Result", "convert", "convert_file", "convert_bytes", "OK", "ERROR_ARGUMENT", "ERROR_READ",
           "ERROR_WRITE", "ERROR_FORMAT", "ERROR_MEMORY", "ERROR_STOPPED"]

OK = 0
ERROR_ARGUMENT = -1   # an empty path, or a gain that is not finite
ERROR_READ = -2       # the input cannot be opened or read
ERROR_WRITE = -3      # the output cannot be written
ERROR_FORMAT = -4     # no Layer III frame, a Layer I or II frame, or a WAV not converted
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
class _Settings(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("gain", ctypes.c_float),
                ("target", ctypes.c_int32), ("target_db", ctypes.c_float),
                ("gapless", ctypes.c_int32)]


_TARGET_PEAK, _TARGET_LEVEL, _TARGET_MAX_GAIN = 1, 2, 3


class _Report(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("input_kind", ctypes.c_int32),
                ("encoding", ctypes.c_int32), ("sample_rate", ctypes.c_int32),
                ("channels", ctypes.c_int32), ("format_changed", ctypes.c_int32),
                ("input_frames", ctypes.c_int64), ("input_seconds", ctypes.c_double),
                ("mp3_frames", ctypes.c_int64), ("skipped_bytes", ctypes.c_int64),
                ("output_bytes", ctypes.c_int64), ("output_seconds", ctypes.c_double),
                ("gain", ctypes.c_double), ("highest", ctypes.c_int32),
                ("lowest", ctypes.c_int32), ("max_gain", ctypes.c_double),
                ("max_gain_high", ctypes.c_double), ("max_gain_low", ctypes.c_double),
                ("wrapped", ctypes.c_int64), ("speech", ctypes.c_int32),
                ("gain_capped", ctypes.c_int32), ("level", ctypes.c_double),
                ("activity", ctypes.c_double), ("level_reached", ctypes.c_double),
                ("gapless_applied", ctypes.c_int32), ("padding_1", ctypes.c_int32)]


class _Io(ctypes.Structure):
    _fields_ = [("input_path", ctypes.c_char_p), ("input_data", ctypes.c_char_p),
                ("input_size", ctypes.c_size_t), ("output_path", ctypes.c_char_p),
                ("write", _WRITE), ("progress", _PROGRESS), ("user", ctypes.c_void_p)]


_lib.kavo_convert.argtypes = [ctypes.POINTER(_Io), ctypes.POINTER(_Settings),
                              ctypes.POINTER(_Report), ctypes.c_char_p, ctypes.c_size_t]
_lib.kavo_convert.restype = ctypes.c_int
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


_KINDS = {1: "MP3", 2: "WAV"}


class Result:
    """What kavo.convert returns: the ADPCM bytes (adpcm) and what the conversion found.

    input_kind "MP3" or "WAV"; sample_rate and channels of the input (for MP3 those of the
    last frame, which decide the conversion); input_seconds and output_seconds; mp3_frames;
    skipped_bytes (tags and wrappers around the audio); gain, the gain applied; highest and
    lowest, the extreme 8000 Hz samples before the gain, and peak, the larger magnitude of the
    two; max_gain, the largest gain that wraps no sample (max_gain_high and max_gain_low, the
    limits each extreme sets); wrapped, the samples the gain wrapped in 16 bits;
    format_changed, whether an MP3 stream changed rate or channels on the way; level, the
    active speech level before the gain in dBov (ITU-T P.56), activity, the share of the samples
    counted as speech, and level_reached, the level after the gain (all three None when no
    speech was found); gain_capped, whether a peak or level target asked for a gain that wraps
    samples and got max_gain instead; gapless_applied, whether gapless=True found the encoder's
    header and cut to it."""

    def __init__(self, adpcm, report):
        self.adpcm = adpcm
        for name, _ in _Report._fields_:
            if name not in {"size", "padding_1"}:
                setattr(self, name, getattr(report, name))
        self.input_kind = _KINDS.get(report.input_kind, "")
        self.format_changed = bool(report.format_changed)
        self.gapless_applied = bool(report.gapless_applied)
        self.peak = max(abs(report.highest), abs(report.lowest))
        self.gain_capped = bool(report.gain_capped)
        if not report.speech:
            self.level = self.activity = self.level_reached = None
        del self.speech

    def __repr__(self):
        return ("kavo.Result(%d bytes of ADPCM, %s %d Hz %d ch, %.2f s, gain %g, peak %d, "
                "max_gain %.4g, wrapped %d)" % (len(self.adpcm), self.input_kind,
                                                self.sample_rate, self.channels,
                                                self.input_seconds, self.gain, self.peak,
                                                self.max_gain, self.wrapped))


def convert(data_or_path, gain=1.0, progress=None, peak=None, level=None, gapless=False):
    """Converts MP3 data (bytes-like) or the file at a path (str or os.PathLike) and returns a
    kavo.Result with the ADPCM bytes and the conversion's report.

    The gain is a number, or "max": the largest gain that wraps no sample. Instead of a gain,
    peak=DB brings the largest 8000 Hz sample to DB dB of full scale (DB <= 0), level=DB the
    active speech level to DB dBov (e.g. -26); neither goes beyond the largest gain that wraps
    no sample, and both leave the gain at 1.0 when there is nothing to measure. A target holds
    the whole 8000 Hz signal in memory (16 kB a second). Raises ValueError when more than one
    of gain, peak and level is given. gapless=True honours the encoder's header in the first
    MP3 frame: that frame, the encoder's delay and padding and the decoder's 529 samples are left
    out.

    progress is called as for convert_file; an exception it raises stops the conversion and
    is raised again. Raises kavo.Error when the conversion fails."""
    call = _Call(progress)
    if isinstance(data_or_path, (str, os.PathLike)):
        data = None
        io = _Io(_path(data_or_path), None, 0, None, call.write, call.progress, None)
    else:
        data = bytes(data_or_path)
        io = _Io(None, data, len(data), None, call.write, call.progress, None)
    given = (gain != 1.0) + (peak is not None) + (level is not None)
    if given > 1:
        raise ValueError("gain, peak and level exclude each other")
    if gain == "max":
        settings = _Settings(ctypes.sizeof(_Settings), 1.0, _TARGET_MAX_GAIN, 0.0, gapless)
    elif peak is not None:
        settings = _Settings(ctypes.sizeof(_Settings), 1.0, _TARGET_PEAK, peak, gapless)
    elif level is not None:
        settings = _Settings(ctypes.sizeof(_Settings), 1.0, _TARGET_LEVEL, level, gapless)
    else:
        settings = _Settings(ctypes.sizeof(_Settings), gain, 0, 0.0, gapless)
    report = _Report(size=ctypes.sizeof(_Report))
    status = _lib.kavo_convert(ctypes.byref(io), ctypes.byref(settings), ctypes.byref(report),
                               call.message, _MESSAGE_SIZE)
    call.finish(status)
    return Result(b"".join(call.chunks), report)
