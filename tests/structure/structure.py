#!/usr/bin/env python3
"""Checks what the folders promise each other: `structure.py [ROOT]` prints each breach and exits 1.

- A system's headers are named only on that system's side: elsewhere `<...>` is the C++ library.
- A folder includes what its CMake target links, and that stands above it in CMakeLists.txt.
- No file includes itself by a detour; none is longer than a reader keeps in mind.
- No two headers have different classes of one name.
"""
import re
import sys
from pathlib import Path

MOST_LINES = 350

STANDARD = set("""
algorithm any array atomic barrier bit bitset cassert cctype cerrno cfenv cfloat charconv chrono cinttypes climits
clocale cmath compare complex concepts condition_variable coroutine csetjmp csignal cstdarg cstddef cstdint cstdio
cstdlib cstring ctime cuchar cwchar cwctype deque exception execution filesystem format forward_list fstream
functional future initializer_list iomanip ios iosfwd iostream istream iterator latch limits list locale map memory
memory_resource mutex new numbers numeric optional ostream queue random ranges ratio regex scoped_allocator
semaphore set shared_mutex source_location span sstream stack stdexcept stop_token streambuf string string_view
strstream syncstream system_error thread tuple type_traits typeindex typeinfo unordered_map unordered_set utility
valarray variant vector version
""".split())
# Folders that are written for one system, and may name its headers and its libraries'.
OF_THE_SYSTEM = ("platform/linux", "trelis", "daemons")
# And single headers that are not the system's own, with the reason.
# Long options, as the C library reads them.
ALSO = {name: {"getopt.h"} for name in ("tools/vtlog.cpp", "tools/vtreport.cpp", "tools/quarantine/vtquarantine.cpp")}
# Libraries that one folder alone knows, with the reason.
LIBRARIES = {"tls": "openssl/",  # so that another library, or version, of TLS changes one folder
             "pattern": "pcre2.h"}  # its types alone stand in the header
# Who may look behind the platform's face.
BEHIND_THE_FACE = ("platform/linux", "daemons/supervisor")
# Longer than the rest, with the reason. What stands here and is short enough is a breach too.
LONG = {
    "tests/system/boundaries_test.py": "one dialogue boundary a case",
    "tests/system/chunks_test.py": "one way to cut a message a case",
    "tests/system/statd_test.py": "records, pages and faults of one daemon",
    "tests/system/system_test.py": "the whole dialogue, case by case",
}

INCLUDE = re.compile(r'\s*#\s*include\s*([<"])([^>"]+)[>"]')


def below(name, folders):
    return any(name.startswith(folder + "/") for folder in folders)


def includes(path):
    """(kind, name, side): side is "windows" or "here" inside an #ifdef of the system, else None."""
    sides = []
    for line in path.read_text().splitlines():
        if re.match(r"\s*#\s*if", line):
            word = re.match(r"\s*#\s*(ifdef|ifndef)\s+_WIN32\b", line)
            sides.append({"ifdef": "windows", "ifndef": "here"}[word[1]] if word else None)
        elif re.match(r"\s*#\s*else", line) and sides:
            sides[-1] = {"windows": "here", "here": "windows"}.get(sides[-1])
        elif re.match(r"\s*#\s*endif", line) and sides:
            sides.pop()
        elif found := INCLUDE.match(line):
            side = "windows" if "windows" in sides else "here" if "here" in sides else None
            yield found[1], found[2], side


def targets(src):
    """Each target of src: the folders of its sources, and what it links. Headers alone belong to what stands below."""
    found = {}
    for path in sorted(src.rglob("CMakeLists.txt")):
        text, here = re.sub(r"#.*", "", path.read_text()), path.parent.relative_to(src)
        own = {}
        for kind, body in re.findall(r"vantrel_(library|program)\(([^)]*)\)", text):
            words = body.split()
            at = {key: words.index(key) if key in words else len(words) for key in ("SOURCES", "LINKS")}
            own[("vantrel_" if kind == "library" else "") + words[0]] = (
                {(here / source).parent.as_posix() for source in words[at["SOURCES"] + 1:at["LINKS"]]},
                {word for word in words[at["LINKS"] + 1:] if word.startswith("vantrel_")})
        if not any(here.as_posix() in folders for folders, _ in own.values()):
            for folders, _ in own.values():
                folders.add(here.as_posix())
        found.update(own)
    return found


def reach(found, name, seen):
    if name not in seen and name in found:
        seen.add(name)
        for link in found[name][1]:
            reach(found, link, seen)
    return seen


def seen_from(found):
    """For each folder, the folders that its targets link."""
    sees = {}
    for name, (folders, _) in found.items():
        linked = {folder for each in reach(found, name, set()) for folder in found[each][0]}
        for folder in folders:
            sees.setdefault(folder, set()).update(linked)
    return sees


def check_layers(root, files):
    src = root / "src"
    order = re.findall(r"add_subdirectory\(src/(\w+)\)", (root / "CMakeLists.txt").read_text())
    sees = seen_from(targets(src))
    for name, found in files.items():
        folder, top = str(Path(name).parent), name.split("/")[0]
        if top not in order:
            yield f"{name}: its folder is not in CMakeLists.txt"
            continue
        for kind, other, _ in found:
            if kind != '"':
                continue
            at, above = str(Path(other).parent), other.split("/")[0]
            if other not in files:
                yield f"{name}: {other} is not a path below src"
            elif order.index(above) > order.index(top):
                yield f"{name}: {other} stands below it"
            elif at != folder and at not in sees.get(folder, ()):
                yield f"{name}: {other} is in a folder that its target does not link"


def check_systems(files):
    for name, found in files.items():
        for kind, other, side in found:
            if kind == "<" and other not in STANDARD | ALSO.get(name, set()):
                library = LIBRARIES.get(name.split("/")[0])
                if library and other.startswith(library):
                    continue
                if not below(name, OF_THE_SYSTEM) and not (name.startswith("platform/") and side == "windows"):
                    yield f"{name}: <{other}> is not of the C++ library"
            if kind == '"' and other.startswith("platform/linux/") and not below(name, BEHIND_THE_FACE):
                if not (re.fullmatch(r"platform/\w+\.h", name) and side == "here"):
                    yield f"{name}: {other} is one system's side"


def check_cycles(files):
    done, road = set(), []

    def walk(name):
        if name in road:
            yield "cycle: " + " > ".join(road[road.index(name):] + [name])
        elif name not in done:
            road.append(name)
            for kind, other, _ in files.get(name, ()):
                if kind == '"':
                    yield from walk(other)
            done.add(road.pop())

    for name in sorted(files):
        yield from walk(name)


def check_lengths(root):
    for path in sorted(p for top in ("src", "tests") for p in (root / top).rglob("*")):
        if path.suffix in (".cpp", ".h", ".py"):
            name, lines = path.relative_to(root).as_posix(), len(path.read_text().splitlines())
            if lines > MOST_LINES and name not in LONG:
                yield f"{name}: {lines} lines"
            if lines <= MOST_LINES and name in LONG:
                yield f"{name}: short enough to be no exception"


def check_names(root):
    """A program with two classes of one name has one of them, for both."""
    known = {}
    for path in sorted((root / "src").rglob("*.h")):
        name, spaces = path.relative_to(root / "src").as_posix(), []
        for line in path.read_text().splitlines():
            if space := re.match(r"namespace (\w+) \{", line):
                spaces.append(space[1])
            elif spaces and re.match(r"\}  // namespace", line):
                spaces.pop()
            elif made := re.match(r"(?:class|struct|union|enum class|enum) (\w+)[^;]*\{", line):
                full = "::".join([*spaces, made[1]])
                if known.setdefault(full, name) != name:
                    yield f"{name}: {full} is something else in {known[full]}"


def breaches(root):
    src = root / "src"
    files = {path.relative_to(src).as_posix(): list(includes(path))
             for path in sorted(src.rglob("*")) if path.suffix in (".cpp", ".h")}
    return [*check_systems(files), *check_layers(root, files), *check_cycles(files), *check_lengths(root),
            *check_names(root)]


if __name__ == "__main__":
    broken = breaches(Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parents[2]))
    print("\n".join(broken))
    sys.exit(1 if broken else 0)
