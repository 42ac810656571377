#!/usr/bin/env python3
"""Who may include whom under Sources/: reads every #include and names each edge that the tables forbid.

    check_includes.py [SOURCES]      exit 0: every edge is allowed; 1: some are not, each on its own line
"""

import re
import sys
from pathlib import Path, PurePosixPath

# Components that work on samples: their .cpp may use Kernels and Fourier, and Json keeps away from them.
# Every other component is a record, a table or plain arithmetic.
SIGNAL_COMPONENTS = {
    "ChannelLevels",
    "ChapterAnalysis",
    "ChapterDetection",
    "ChapterMeter",
    "DRProcessor",
    "FFTProcessor",
    "GatedLoudness",
    "HilbertPhaseShifter",
    "LoudnessProcessor",
    "ModuleSignal",
    "PolyphaseUpsampler4x",
    "PowerSpectrum",
    "SignalArithmetic",
    "SignalEnvelopes",
    "SignalGenerator",
    "SignalSources",
    "SignalStream",
    "SpectralEditKernel",
    "SpeechVAD",
    "SumOfSquares",
    "SurroundBake",
    "TruePeakLimiterDSP",
}

# The layers: name, files, and what these files may include; a file belongs to the first layer that fits.
#   Support Kernels ...  the layer's own headers
#   component record     public headers of all components; of those without signal
#   std fmt ...          headers that are not ours, by the lists below
APP = "std threads system Support component Json VellumApp fmt"
COMMAND = "std threads system component Json/Document.hpp VellumApp command fmt CLI11"
LAYERS = [
    ("Support", ["VellumCore/Support/*"], "std Support fmt"),
    ("Kernels .cpp", ["VellumCore/Kernels/*.cpp"], "std Support Kernels intrinsics"),
    ("Kernels", ["VellumCore/Kernels/*"], "std Support Kernels"),
    ("Fourier .cpp", ["VellumCore/Fourier/*.cpp"], "std Support Fourier kissfft"),
    ("Fourier", ["VellumCore/Fourier/*"], "std Support Fourier"),
    ("Json .cpp", ["VellumCore/Json/*.cpp"], "std Support record Json nlohmann fmt"),
    ("Json", ["VellumCore/Json/*"], "std Support record Json"),
    (
        "signal component .cpp",
        [f"VellumCore/{name}.cpp" for name in SIGNAL_COMPONENTS],
        "std Support component Kernels Fourier fmt",
    ),
    ("component .cpp", ["VellumCore/*.cpp"], "std Support component fmt"),
    ("component header", ["VellumCore/*.hpp"], "std Support component"),
    ("audio file .cpp", ["VellumApp/AudioFile.cpp", "VellumApp/FLACEncoder.cpp"], APP + " sndfile"),
    ("VellumApp", ["VellumApp/*"], APP),
    ("drawing .cpp", ["vellum/Drawing.cpp"], COMMAND + " cairo"),
    ("command", ["vellum/*"], COMMAND),
]

# What an application includes of VellumCore has to stay free of libraries, through Support too.
PUBLIC = ["VellumCore/*.hpp", "VellumCore/Json/Document.hpp"]

# Headers that are not ours, by the word that permits them. What stands in no list is a fault.
HEADERS = {
    "std": """algorithm any array atomic bit bitset cassert ccomplex cctype cerrno cfenv cfloat charconv
        chrono cinttypes climits clocale cmath codecvt compare complex concepts coroutine csetjmp csignal
        cstdarg cstddef cstdint cstdio cstdlib cstring ctime cuchar cwchar cwctype deque exception filesystem
        forward_list fstream functional initializer_list iomanip ios iosfwd iostream istream iterator limits
        list locale map memory memory_resource new numbers numeric optional ostream queue random ratio regex
        scoped_allocator set span sstream stack stdexcept streambuf string string_view strstream syncstream
        system_error tuple type_traits typeindex typeinfo unordered_map unordered_set utility valarray
        variant vector version""".split(),
    # The library stays free of threads.
    "threads": """barrier condition_variable execution future latch mutex semaphore shared_mutex stop_token
        thread""".split(),
    # Permitted nowhere: not every compiler that we build with has all of them.
    "unportable": "format ranges source_location".split(),
    # Permitted in the application and the command.
    "system": "sys/* dirent.h fcntl.h poll.h pwd.h signal.h termios.h unistd.h".split(),
    "fmt": ["fmt/*"],
    "nlohmann": ["nlohmann/*"],
    "kissfft": ["kissfft/*", "kiss_fft*"],
    "sndfile": ["sndfile.h", "sndfile.hh"],
    "CLI11": ["CLI/*"],
    "cairo": ["cairo*.h", "cairo/*"],
    "intrinsics": "*mmintrin.h x86intrin.h cpuid.h arm_neon.h wasm_simd128.h".split(),
}
THIRD_PARTY = {"fmt", "nlohmann", "kissfft", "sndfile", "CLI11", "cairo"}

SOURCE_SUFFIXES = {".h", ".hh", ".hpp", ".hxx", ".inl", ".ipp", ".tpp", ".c", ".cc", ".cpp", ".cxx"}
INCLUDE = re.compile(r'^\s*#\s*include\b\s*(?:<([^>]+)>|"([^"]+)")?')


def matches(path, patterns):
    """True if one of the patterns fits; a * stays within one folder."""
    return any(PurePosixPath(path).match(pattern) for pattern in patterns)


def layer_of(file):
    """(name, what it may include) of the layer of a file under Sources/, or None."""
    if file.endswith((".hpp", ".cpp")):
        for name, patterns, allowed in LAYERS:
            if matches(file, patterns):
                return name, allowed.split()
    return None


def words_for_file(file):
    """The words of the table that permit including this header of ours."""
    path = PurePosixPath(file)
    if matches(file, ["VellumCore/*.hpp"]):
        return {"component"} if path.stem in SIGNAL_COMPONENTS else {"component", "record"}
    if file == "VellumCore/Json/Document.hpp":
        return {"Json", "Json/Document.hpp"}
    return {"command" if path.parent.name == "vellum" else path.parent.name}


def word_for_header(header):
    """The word of the table that permits including this header from elsewhere, or None for an unknown one."""
    return next((word for word, patterns in HEADERS.items() if matches(header, patterns)), None)


def read_includes(sources):
    """{file: [(line, spelling or None if unreadable, file of ours or None)]}; files relative to sources."""
    paths = [path for path in sorted(sources.rglob("*")) if path.suffix in SOURCE_SUFFIXES and path.is_file()]
    files = {path.relative_to(sources).as_posix(): path for path in paths}
    includes = {file: [] for file in files}
    for file, path in files.items():
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            if found := INCLUDE.match(line):
                spelling = found[1] or found[2]
                beside = f"{PurePosixPath(file).parent}/{spelling}"
                ours = next((candidate for candidate in (spelling, beside) if candidate in files), None)
                includes[file].append((number, spelling, ours))
    return includes


def libraries_behind(header, includes, seen):
    """Libraries that a header of ours brings along, directly or through others."""
    found = set()
    for _, spelling, ours in includes[header]:
        if ours and ours not in seen:
            seen.add(ours)
            found |= libraries_behind(ours, includes, seen)
        elif not ours and spelling:
            found |= THIRD_PARTY & {word_for_header(spelling)}
    return found


def faults_of_edge(file, layer, spelling, ours, includes):
    """What is wrong with one #include of a file, as texts."""
    name, allowed = layer
    if spelling is None:
        return ["an #include must name its file"]
    if ours and not ours.endswith(".hpp"):
        return [f"{spelling}: only .hpp files are included"]
    words = words_for_file(ours) if ours else {word_for_header(spelling)}
    if words == {None}:
        return [f"{spelling} is neither a file of ours nor a header that the table knows"]
    if not words & set(allowed):
        return [f"{name} may not include {spelling}; it may include: {' '.join(allowed)}"]
    if ours and matches(file, PUBLIC):
        libraries = sorted(libraries_behind(ours, includes, {ours}))
        return [f"public header brings along {library} through {spelling}" for library in libraries]
    return []


def check(sources):
    """Every edge under sources that the table does not allow, as (file, line, text)."""
    includes = read_includes(Path(sources))
    faults = [] if includes else [(".", 1, "no source file found")]
    for file, edges in includes.items():
        layer = layer_of(file)
        if layer is None:
            faults.append((file, 1, "the file belongs to no layer"))
            continue
        for line, spelling, ours in edges:
            faults += [(file, line, text) for text in faults_of_edge(file, layer, spelling, ours, includes)]
    return faults


def main(arguments):
    sources = Path(arguments[0]) if arguments else Path(__file__).resolve().parents[2] / "Sources"
    faults = check(sources)
    for file, line, text in faults:
        print(f"{sources / file}:{line}: {text}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
