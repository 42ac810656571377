#!/usr/bin/env python3
"""check_includes.py lets every permitted edge pass and turns red on every other one."""

import contextlib
import io
import tempfile
import unittest
from pathlib import Path

import check_includes

# Something of every kind that can be included.
INCLUDABLE = {
    "vector": "<vector>",
    "thread": "<thread>",
    "mutex": "<mutex>",
    "ranges": "<ranges>",
    "format": "<format>",
    "source_location": "<source_location>",
    "unistd": "<unistd.h>",
    "stat": "<sys/stat.h>",
    "simd": "<immintrin.h>",
    "fmt": "<fmt/format.h>",
    "nlohmann": "<nlohmann/json.hpp>",
    "kissfft": "<kissfft/kiss_fftr.h>",
    "sndfile": "<sndfile.h>",
    "CLI11": "<CLI/CLI.hpp>",
    "Support": '"VellumCore/Support/Value.hpp"',
    "Kernels": '"VellumCore/Kernels/Kernels.hpp"',
    "Fourier": '"VellumCore/Fourier/RealFFT.hpp"',
    "Codec": '"VellumCore/Json/Codec.hpp"',
    "Document": '"VellumCore/Json/Document.hpp"',
    "record": '"VellumCore/ChannelOrder.hpp"',
    "signal": '"VellumCore/SpeechVAD.hpp"',
    "app": '"VellumApp/ProgrammeMeter.hpp"',
    "command": '"vellum/Verb.hpp"',
}

# One file of every kind and all that it may include.
APP = "vector thread mutex unistd stat fmt Support Codec Document record signal app"
COMMAND = "vector thread mutex unistd stat fmt CLI11 Document record signal app command"
PERMITTED = {
    "VellumCore/Support/Text.hpp": "vector fmt Support",
    "VellumCore/Support/Text.cpp": "vector fmt Support",
    "VellumCore/Kernels/Loops.hpp": "vector Support Kernels",
    "VellumCore/Kernels/Loops.cpp": "vector simd Support Kernels",
    "VellumCore/Fourier/Window.hpp": "vector Support Fourier",
    "VellumCore/Fourier/Window.cpp": "vector kissfft Support Fourier",
    "VellumCore/Json/Codec2.hpp": "vector Support Codec Document record",
    "VellumCore/Json/Codec2.cpp": "vector nlohmann fmt Support Codec Document record",
    "VellumCore/DRProcessor.hpp": "vector Support record signal",
    "VellumCore/DRProcessor.cpp": "vector fmt Support Kernels Fourier record signal",
    "VellumCore/PCMBufferAllocation.hpp": "vector Support record signal",
    "VellumCore/PCMBufferAllocation.cpp": "vector fmt Support record signal",
    "VellumApp/AudioFile.hpp": APP,
    "VellumApp/AudioFile.cpp": APP + " sndfile",
    "VellumApp/FLACEncoder.hpp": APP,
    "VellumApp/FLACEncoder.cpp": APP + " sndfile",
    "VellumApp/Other.cpp": APP,
    "vellum/Measure.hpp": COMMAND,
    "vellum/Measure.cpp": COMMAND,
}

# The files of ours that INCLUDABLE names, and one that brings a library along.
FILES = {edge.strip('"'): "" for edge in INCLUDABLE.values() if edge.startswith('"')}
FILES |= {"VellumCore/Support/Text.hpp": "#include <fmt/format.h>\n"}

# A file, its text, and the start of the one fault to be found in its last line.
FAULTY = [
    ("vellum/Main.cpp", "#include <vector>\n#include <boost/any.hpp>", "boost/any.hpp is neither"),
    ("vellum/Main.cpp", "#include <math.h>", "math.h is neither"),
    ("vellum/Main.cpp", '#include "VellumCore/Missing.hpp"', "VellumCore/Missing.hpp is neither"),
    ("vellum/Main.cpp", '#include "../VellumCore/SpeechVAD.hpp"', "../VellumCore/SpeechVAD.hpp is neither"),
    ("vellum/Main.cpp", "#include <VellumCore/Kernels/Kernels.hpp>", "command may not include"),
    ("vellum/Main.cpp", " \t#  include<sndfile.h>  // why", "command may not include sndfile.h"),
    ("vellum/Main.cpp", "#if 0\n#include <sndfile.h>", "command may not include sndfile.h"),
    ("vellum/Main.cpp", "#include HEADER", "an #include must name its file"),
    ("vellum/Main.cpp", '#include "vellum/Main.cpp"', "vellum/Main.cpp: only .hpp files are included"),
    ("VellumCore/Json/Codec.cpp", '#include "Codec.hpp"\n#include "Missing.hpp"', "Missing.hpp is neither"),
    ("VellumCore/SpeechVAD.hpp", '#include "VellumCore/Support/Text.hpp"', "public header brings"),
    ("VellumCore/Json/Document.hpp", '#include "../Support/Text.hpp"', "../Support/Text.hpp is neither"),
    ("VellumCore/Json/Document.hpp", '#include "VellumCore/Support/Text.hpp"', "public header brings"),
    ("VellumCore/Plugins/Plugin.cpp", "", "the file belongs to no layer"),
    ("VellumCore/Support/Inner/Value.hpp", "", "the file belongs to no layer"),
    ("VellumCore/Support/Legacy.h", "", "the file belongs to no layer"),
    ("Other/Main.cpp", "", "the file belongs to no layer"),
]


def faults_in(tree):
    """What check() says about a Sources folder with these texts, as (file, line, text)."""
    with tempfile.TemporaryDirectory() as folder:
        for file, text in tree.items():
            path = Path(folder, file)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="utf-8")
        return check_includes.check(folder)


class CheckIncludes(unittest.TestCase):
    def test_every_file_may_include_what_is_permitted_and_nothing_else(self):
        everything = "".join(f"#include {edge}\n" for edge in INCLUDABLE.values())
        for file, permitted in PERMITTED.items():
            with self.subTest(file=file):
                faults = faults_in(FILES | {file: everything})
                refused = [list(INCLUDABLE)[line - 1] for _, line, _ in faults]
                self.assertEqual({name for name, _, _ in faults}, {file})
                self.assertEqual(refused, [kind for kind in INCLUDABLE if kind not in permitted.split()])

    def test_every_fault_is_named_once_at_its_line(self):
        for file, text, expected in FAULTY:
            with self.subTest(file=file, text=text):
                faults = faults_in(FILES | {file: text})
                self.assertEqual([(name, line) for name, line, _ in faults], [(file, text.count("\n") + 1)])
                self.assertEqual(faults[0][2][: len(expected)], expected)

    def test_tree_without_a_fault_has_none(self):
        self.assertEqual(faults_in(FILES), [])

    def test_library_behind_two_headers_is_found(self):
        tree = FILES | {
            "VellumCore/ChannelOrder.hpp": '#include "VellumCore/Support/Value.hpp"\n',
            "VellumCore/Support/Value.hpp": '#include "VellumCore/Support/Text.hpp"\n',
        }
        text = "public header brings along fmt through VellumCore/Support/Value.hpp"
        self.assertEqual(faults_in(tree), [("VellumCore/ChannelOrder.hpp", 1, text)])

    def test_headers_that_include_each_other_end(self):
        tree = FILES | {
            "VellumCore/ChannelOrder.hpp": '#include "VellumCore/SpeechVAD.hpp"\n',
            "VellumCore/SpeechVAD.hpp": '#include "VellumCore/ChannelOrder.hpp"\n',
        }
        self.assertEqual(faults_in(tree), [])

    def test_folder_without_sources_is_a_fault(self):
        self.assertEqual(faults_in({"README.md": ""}), [(".", 1, "no source file found")])

    def test_command_prints_file_and_line_and_exits_1(self):
        with tempfile.TemporaryDirectory() as folder:
            Path(folder, "vellum").mkdir()
            Path(folder, "vellum/Main.cpp").write_text("#include <sndfile.h>\n", encoding="utf-8")
            printed = io.StringIO()
            with contextlib.redirect_stdout(printed):
                self.assertEqual(check_includes.main([folder]), 1)
            self.assertTrue(printed.getvalue().startswith(f"{folder}/vellum/Main.cpp:1: "))


if __name__ == "__main__":
    unittest.main()
