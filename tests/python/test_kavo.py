"""The Python module against the kavo command: the same bytes, errors as kavo.Error, and
conversions on two threads at once. Run by ctest with PYTHONPATH at python/, KAVO_LIBRARY at
the built library, KAVO_CLI at the built command and KAVO_FIXTURES at tests/fixtures."""

import os
import subprocess
import tempfile
import threading
import unittest

import kavo

FIXTURES = os.environ["KAVO_FIXTURES"]
CASES = [("speech_mono_22k.mp3", 1.0), ("tone_m1_44k_stereo.mp3", 0.5),
         ("tone_m25_11k_ms.mp3", 2.0), ("speech_music_m1_44k_vbr.mp3", 1.0)]


def read(path):
    with open(path, "rb") as f:
        return f.read()


def command_output(name, gain, tmp):
    out = os.path.join(tmp, "command.adpcm")
    subprocess.run([os.environ["KAVO_CLI"], "convert", os.path.join(FIXTURES, name), out,
                    "--gain", str(gain)], check=True, capture_output=True)
    return read(out)


class KavoModule(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.tmp = folder.name

    def test_same_bytes_as_the_command(self):
        for name, gain in CASES:
            with self.subTest(name=name, gain=gain):
                expected = command_output(name, gain, self.tmp)
                mp3 = os.path.join(FIXTURES, name)
                self.assertEqual(kavo.convert_bytes(read(mp3), gain=gain), expected)
                out = os.path.join(self.tmp, "module.adpcm")
                percents = []
                kavo.convert_file(mp3, out, gain, percents.append)
                self.assertEqual(read(out), expected)
                self.assertEqual(percents, sorted(percents))
                self.assertEqual(percents[-1], 100)
                result = kavo.convert(mp3, gain=gain)
                self.assertEqual(result.adpcm, expected)
                self.assertEqual(vars(kavo.convert(read(mp3), gain=gain)), vars(result))

    def test_report_of_convert(self):
        mp3 = os.path.join(FIXTURES, "speech_mono_22k.mp3")
        result = kavo.convert(mp3)
        self.assertEqual((result.input_kind, result.sample_rate, result.channels, result.gain),
                         ("MP3", 22050, 1, 1.0))
        self.assertEqual(result.output_seconds, len(result.adpcm) / 4000)
        self.assertEqual(result.peak, max(result.highest, -result.lowest))
        # The largest gain wraps nothing, a float32 or two above it wraps something.
        self.assertEqual(kavo.convert(mp3, gain=result.max_gain).wrapped, 0)
        self.assertGreater(kavo.convert(mp3, gain=result.max_gain * (1 + 2 ** -22)).wrapped, 0)

    def test_gapless(self):
        # lame's file: the 66150 frames mpg123 keeps, the command's bytes; no header: no change.
        mp3, plain = (os.path.join(FIXTURES, f) for f in ("tone_m1_44k_joint.mp3", "speech_mono_22k.mp3"))
        result, out = kavo.convert(mp3, gapless=True), os.path.join(self.tmp, "gapless.adpcm")
        self.assertEqual((result.gapless_applied, result.input_frames, result.mp3_frames), (True, 66150, 59))
        subprocess.run([os.environ["KAVO_CLI"], "convert", "--gapless", mp3, out], check=True, capture_output=True)
        self.assertEqual(read(out), result.adpcm)
        self.assertFalse(kavo.convert(plain, gapless=True).gapless_applied)
        self.assertEqual(kavo.convert(plain, gapless=True).adpcm, kavo.convert(plain).adpcm)

    def test_targets_match_the_command(self):
        for name, option, value, keyword in [("speech_mono_22k.mp3", "--level", "-26", {"level": -26}),
                                             ("tone_m1_44k_stereo.mp3", "--peak", "-1", {"peak": -1}),
                                             ("silence_m25_8k_mono.mp3", "--gain", "max", {"gain": "max"})]:
            out = os.path.join(self.tmp, "command.adpcm")
            subprocess.run([os.environ["KAVO_CLI"], "convert", os.path.join(FIXTURES, name), out,
                            option, value], check=True, capture_output=True)
            result = kavo.convert(os.path.join(FIXTURES, name), **keyword)
            self.assertEqual(result.adpcm, read(out), name)
            self.assertEqual(result.level is None, name.startswith("silence"))
        self.assertRaises(ValueError, kavo.convert, b"", gain=2.0, level=-26)

    def test_layer2_input_raises_and_keeps_the_existing_output(self):
        layer2 = os.path.join(FIXTURES, "layer2_m1_44k_stereo.mp2")
        out = os.path.join(self.tmp, "out.adpcm")
        with open(out, "wb") as f:
            f.write(b"kept")
        with self.assertRaises(kavo.Error) as raised:
            kavo.convert_file(layer2, out)
        self.assertEqual(raised.exception.status, kavo.ERROR_FORMAT)
        self.assertIn("Layer II", raised.exception.message)
        self.assertEqual(read(out), b"kept")
        self.assertEqual(os.listdir(self.tmp), ["out.adpcm"])
        with self.assertRaises(kavo.Error) as raised:
            kavo.convert_bytes(read(layer2))
        self.assertEqual(raised.exception.status, kavo.ERROR_FORMAT)

    def test_two_threads_at_once(self):
        # Each conversion waits in its first progress call until the other one has reached
        # its own: both must be inside the library together, or the barrier times out.
        inputs = [read(os.path.join(FIXTURES, name))
                  for name in ["tone_m1_44k_stereo.mp3", "speech_music_m1_44k_vbr.mp3"]]
        expected = [kavo.convert_bytes(data) for data in inputs]
        barrier = threading.Barrier(2, timeout=30)
        results = [None, None]

        def run(i):
            waited = False

            def progress(_percent):
                nonlocal waited
                if not waited:
                    waited = True
                    barrier.wait()
            try:
                results[i] = kavo.convert_bytes(inputs[i], progress=progress)
            except BaseException as e:
                results[i] = e

        threads = [threading.Thread(target=run, args=(i,)) for i in range(2)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        self.assertEqual(results, expected)


if __name__ == "__main__":
    unittest.main()
