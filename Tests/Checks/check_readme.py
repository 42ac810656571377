#!/usr/bin/env python3
"""The README's C++ example is the one that is compiled, to the letter."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]

shown = re.findall(r"```cpp\n(.*?)```", (ROOT / "README.md").read_text(encoding="utf-8"), re.S)
compiled = (ROOT / "Examples" / "Embedding.cpp").read_text(encoding="utf-8")
if shown != [compiled]:
    sys.exit("README.md: its C++ example differs from Examples/Embedding.cpp")
