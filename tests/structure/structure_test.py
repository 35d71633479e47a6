"""Every check of structure.py finds what it is for, and finds nothing in this tree."""
import tempfile
import unittest
from pathlib import Path

import structure

ROOT = Path(__file__).parents[2]
TREE = {
    "CMakeLists.txt": "add_subdirectory(src/platform)\nadd_subdirectory(src/net)\nadd_subdirectory(src/host)\n",
    "src/platform/CMakeLists.txt": "vantrel_library(platform SOURCES linux/a.cpp)\n",
    "src/platform/a.h": "#ifdef _WIN32\n#include <windows.h>\n#else\n#include \"platform/linux/a.h\"\n#endif\n",
    "src/platform/linux/a.h": "#include <unistd.h>\n",
    "src/platform/linux/a.cpp": "#include \"platform/a.h\"\n",
    "src/net/CMakeLists.txt": "vantrel_library(net SOURCES b.cpp LINKS vantrel_platform)  # vantrel_host\n",
    "src/net/b.h": "#include <string>\n",
    "src/net/b.cpp": "#include \"net/b.h\"\n#include \"platform/a.h\"\n",
    "src/host/CMakeLists.txt": "vantrel_program(c SOURCES c.cpp LINKS vantrel_platform)\n",
    "src/host/c.h": "namespace a {\nclass A {\n};\n}  // namespace a\nclass B {\n};\n",
    "src/host/c.cpp": "#include \"host/c.h\"\n",
}


class Structure(unittest.TestCase):
    def find(self, **changes):
        with tempfile.TemporaryDirectory() as name:
            root = Path(name)
            exceptions = {path: "x\n" * (structure.MOST_LINES + 1) for path in structure.LONG}
            for path, text in {**TREE, **exceptions, **changes.get("files", {})}.items():
                (root / path).parent.mkdir(parents=True, exist_ok=True)
                (root / path).write_text(text)
            return structure.breaches(root)

    def test_this_tree_is_whole(self):
        self.assertEqual(structure.breaches(ROOT), [])

    def test_a_breach_of_each_kind_is_found(self):
        self.assertEqual(self.find(), [], "the tree that is broken below is whole")
        for why, path, text, told in (
                ("a system's header in upper code", "src/net/b.h", "#include <poll.h>\n", "<poll.h>"),
                ("one behind an #ifdef there", "src/net/b.h", "#ifndef _WIN32\n#include <poll.h>\n#endif\n",
                 "<poll.h>"),
                ("one in a face, for this system", "src/platform/a.h", "#ifndef _WIN32\n#include <poll.h>\n#endif\n",
                 "<poll.h>"),
                ("a library of another folder", "src/net/b.h", "#include <openssl/ssl.h>\n", "<openssl/ssl.h>"),
                ("one system's side from above", "src/net/b.h", "#include \"platform/linux/a.h\"\n", "side"),
                ("one system's side for all", "src/platform/a.h", "#include \"platform/linux/a.h\"\n", "side"),
                ("a folder that stands below", "src/net/b.h", "#include \"host/c.h\"\n", "below"),
                ("a folder that is not linked", "src/host/c.h", "#include \"net/b.h\"\n", "link"),
                ("a path beside the includer", "src/net/b.cpp", "#include \"b.h\"\n", "path"),
                ("a file that includes itself", "src/net/b.h", "#include \"net/b.h\"\n", "cycle"),
                ("a name that is taken", "src/net/b.h", "namespace a {\nstruct A {};\n}  // namespace a\n", "a::A is"),
                ("a file without end", "tests/net/b_test.cpp", "x\n" * 351, "351 lines"),
                ("an exception without need", next(iter(structure.LONG)), "", "exception")):
            with self.subTest(why):
                self.assertIn(told, "\n".join(self.find(files={path: text})))


if __name__ == "__main__":
    unittest.main()
