#!/usr/bin/env python3
"""Tests of cmake/check_layers.py on small made-up source trees: a clean tree
passes, an include of a higher layer is named by file and line, and a broken
layer list or an unknown folder is refused rather than waved through."""
import os
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
CHECKER = os.path.join(HERE, "..", "..", "cmake", "check_layers.py")

LAYERS = """# subsystem: the subsystems it uses
utils:
geometry: utils
camera: geometry utils
rendering: camera geometry utils
"""


class Tree:
    def __init__(self, root):
        self.root = root
        self.src = os.path.join(root, "src")
        self.include = os.path.join(root, "include", "orbivane")
        os.makedirs(self.src)
        os.makedirs(self.include)
        self.write("layers.txt", LAYERS)

    def write(self, relative, text):
        path = os.path.join(self.root, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        return path

    def run(self, layers="layers.txt"):
        return subprocess.run([sys.executable, CHECKER, os.path.join(self.root, layers), self.src, self.include],
                              capture_output=True, text=True)


class CheckLayersTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.tree = Tree(self.tmp.name)

    def tearDown(self):
        self.tmp.cleanup()

    def test_downward_and_transitive_includes_pass(self):
        t = self.tree
        t.write("src/utils/parallel.cpp", '#include "orbivane/export.h"\n#include <vector>\n')
        t.write("src/camera/camera.cpp", '#include "orbivane/geometry/matrix.h"\n#include "camera_private.h"\n')
        # rendering reaches utils only through camera/geometry: still allowed
        t.write("include/orbivane/rendering/panorama.h", '#include "orbivane/utils/parallel.h"\n')
        t.write("include/orbivane/calibration.h", '#include "orbivane/rendering/panorama.h"\n')
        r = t.run()
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stderr, "")

    def test_upward_include_is_named_with_file_and_line(self):
        t = self.tree
        bad = t.write("src/geometry/coverage.cpp",
                      '#include "orbivane/utils/parallel.h"\n\n#include "orbivane/camera/orbivane.h"\n')
        t.write("include/orbivane/camera/orbivane.h", '#include "rendering/panorama_renderer.h"\n')
        r = t.run()
        self.assertEqual(r.returncode, 1)
        lines = r.stderr.strip().splitlines()
        self.assertEqual(len(lines), 2, r.stderr)
        self.assertIn(f"{bad}:3: geometry includes orbivane/camera/orbivane.h (camera is not below geometry)", lines)
        self.assertTrue(any("camera includes rendering/panorama_renderer.h (rendering is not below camera)" in l
                            for l in lines), r.stderr)

    def test_unknown_folders_and_bad_layer_lists_are_refused(self):
        t = self.tree
        t.write("src/platform/session.cpp", "int x;\n")
        t.write("src/stray.cpp", "int y;\n")
        r = t.run()
        self.assertEqual(r.returncode, 1)
        self.assertIn("platform is not a declared subsystem", r.stderr)
        self.assertIn("stray.cpp: not in a subsystem's folder", r.stderr)

        t.write("forward.txt", "camera: geometry\ngeometry:\n")
        r = t.run("forward.txt")
        self.assertEqual(r.returncode, 2)
        self.assertIn("camera uses geometry, which is not declared before it", r.stderr)
        r = t.run("missing.txt")
        self.assertEqual(r.returncode, 2)


if __name__ == "__main__":
    unittest.main()
