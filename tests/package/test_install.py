"""The library as another project sees it.

installed: `cmake --install` of the current build tree into a temporary prefix, then every
example built and run against that prefix alone (CMake package, pkg-config with the shared and
the static library, the Python module), each uploading a file that must arrive byte-identical at
the receiver; no installed text file may point back into the source or build tree.
subdirectory: a tiny project taking the source tree in with add_subdirectory, which must bring
the libraries and none of the tests, benchmarks or tools. Standard library only."""

import argparse
import glob
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tools"))
from served import Server, make_file  # noqa: E402

ARGS = None
JOBS = "2"
PART_BYTES = 256 * 1024


def run(command, env=None, cwd=None, timeout=300):
    result = subprocess.run(command, env=env, cwd=cwd, timeout=timeout, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if result.returncode != 0:
        raise AssertionError(f"{shlex.join(command)} exited {result.returncode}:\n{result.stdout}")
    return result.stdout


def clean_environment():
    """The environment without anything that could lead a build to the source or build tree."""
    env = {k: v for k, v in os.environ.items()
           if k not in ("CMAKE_PREFIX_PATH", "PKG_CONFIG_PATH", "LD_LIBRARY_PATH", "PYTHONPATH",
                        "PELLORIN_LIBRARY", "CPATH", "LIBRARY_PATH")}
    return env


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix="pellorin-install-")
        cls.prefix = os.path.join(cls.work, "prefix")
        run([ARGS.cmake, "--install", ARGS.build_dir, "--prefix", cls.prefix])
        cls.libdir = os.path.join(cls.prefix, "lib")
        cls.env = clean_environment()
        cls.env.update(CMAKE_PREFIX_PATH=cls.prefix,
                       PKG_CONFIG_PATH=os.path.join(cls.libdir, "pkgconfig"),
                       LD_LIBRARY_PATH=cls.libdir)
        # The examples are copied out, so that nothing is built inside the source tree.
        cls.examples = os.path.join(cls.work, "examples")
        shutil.copytree(os.path.join(ARGS.source_dir, "examples"), cls.examples)
        cls.received = os.path.join(cls.work, "received")
        os.mkdir(cls.received)
        cls.server = Server(os.path.join(cls.prefix, "bin", "pellorin"), cls.received)

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()
        shutil.rmtree(cls.work, ignore_errors=True)

    def upload(self, command, name, size, env=None, python=False):
        """Runs an example on a fresh file of `size` bytes in parts of 256 KiB, then compares the
        receiver's copy. The C and C++ examples take FILE URL_PREFIX PART_BYTES; the Python ones
        FILE URL --part-size BYTES, with {offset} in the URL."""
        source = make_file(os.path.join(self.work, name), size)
        url = f"{self.server.base}/upload/{name}?offset="
        arguments = ([source, url + "{offset}", "--part-size", str(PART_BYTES)] if python
                     else [source, url, str(PART_BYTES)])
        output = run(command + arguments, env=env or self.env, timeout=60)
        if not python:
            self.assertIn("finished with status 0", output)
        with open(source, "rb") as sent, open(os.path.join(self.received, name), "rb") as got:
            self.assertEqual(sent.read(), got.read(), f"{name} differs at the receiver")

    def test_installed_files_stand_alone(self):
        expected = ["include/pellorin/PellorinClient.h", "include/pellorin/pellorin.h",
                    "lib/libpellorin.a", "lib/libpellorin.so", "lib/pkgconfig/pellorin.pc",
                    "lib/cmake/PellorinClient/PellorinClientConfig.cmake",
                    "lib/cmake/PellorinClient/PellorinClientConfigVersion.cmake", "bin/pellorin"]
        for path in expected:
            self.assertTrue(os.path.exists(os.path.join(self.prefix, path)), path)
        soname = run(["objdump", "-p", os.path.join(self.libdir, "libpellorin.so")])
        self.assertRegex(soname, r"SONAME\s+libpellorin\.so\.\d+\b")
        trees = [os.path.realpath(ARGS.source_dir), os.path.realpath(ARGS.build_dir)]
        for root, _, files in os.walk(self.prefix):
            for name in files:
                if re.search(r"\.(h|cmake|pc|py)$", name):
                    with open(os.path.join(root, name), errors="replace") as f:
                        text = f.read()
                    for tree in trees:
                        self.assertNotIn(tree, text, os.path.join(root, name))

    def test_cpp_example_with_the_cmake_package(self):
        build = os.path.join(self.work, "build-cpp")
        run([ARGS.cmake, "-S", os.path.join(self.examples, "cpp"), "-B", build,
             f"-DCMAKE_CXX_COMPILER={ARGS.cxx}"], env=self.env)
        run([ARGS.cmake, "--build", build, "-j", JOBS], env=self.env)
        self.upload([os.path.join(build, "upload_parts")], "cpp.bin", 1_000_000)
        # The static build runs without the shared library on the search path.
        static_env = dict(self.env)
        del static_env["LD_LIBRARY_PATH"]
        self.upload([os.path.join(build, "upload_parts_static")], "cpp-static.bin", 300_000,
                    env=static_env)

    def test_c_example_with_pkg_config(self):
        source = os.path.join(self.examples, "c", "upload_parts.c")
        shared = os.path.join(self.work, "upload_parts_c")
        flags = shlex.split(run(["pkg-config", "--cflags", "--libs", "pellorin"], env=self.env))
        run([ARGS.cc, "-std=c99", "-Wall", "-Wextra", "-Werror", source, "-o", shared] + flags,
            env=self.env)
        self.upload([shared], "c.bin", 700_000)
        # Static: the archive in place of -lpellorin, everything else from Libs.private and
        # Requires.private.
        static = os.path.join(self.work, "upload_parts_c_static")
        flags = shlex.split(run(["pkg-config", "--static", "--cflags", "--libs", "pellorin"],
                                env=self.env))
        flags = [os.path.join(self.libdir, "libpellorin.a") if f == "-lpellorin" else f
                 for f in flags]
        run([ARGS.cc, "-std=c99", source, "-o", static] + flags, env=self.env)
        self.upload([static], "c-static.bin", 1)

    def test_python_examples(self):
        scripts = sorted(glob.glob(os.path.join(self.examples, "python", "*.py")))
        package = os.path.join(self.prefix, "lib", "python3", "dist-packages")
        if not scripts or not os.path.isdir(os.path.join(package, "pellorin")):
            self.skipTest("no Python module or examples in this tree")
        env = dict(self.env, PYTHONPATH=package,
                   PELLORIN_LIBRARY=os.path.join(self.libdir, "libpellorin.so"))
        for number, script in enumerate(scripts):
            with self.subTest(script=os.path.basename(script)):
                self.upload([sys.executable, script], f"python-{number}.bin", 600_000, env=env,
                            python=True)


class Subdirectory(unittest.TestCase):
    def test_add_subdirectory_configures_the_libraries_alone(self):
        """Generation (with both aliases linked), the alias's include directories in a C++17
        file, and one library source compiled with its generated and internal headers; building
        the whole library again is left to the main tree, for time."""
        with tempfile.TemporaryDirectory(prefix="pellorin-subdirectory-") as work:
            project = os.path.join(work, "project")
            os.mkdir(project)
            with open(os.path.join(project, "CMakeLists.txt"), "w") as f:
                f.write(f"""cmake_minimum_required(VERSION 3.25)
project(Consumer LANGUAGES C CXX)
add_subdirectory("{ARGS.source_dir}" pellorin)
add_library(consumer OBJECT consumer.cpp)
target_include_directories(consumer PRIVATE
  $<TARGET_PROPERTY:PellorinClient::pellorin,INTERFACE_INCLUDE_DIRECTORIES>)
set_target_properties(consumer PROPERTIES CXX_STANDARD 17)
# Never built here; generating them checks that every library they link resolves.
add_executable(app_shared EXCLUDE_FROM_ALL main.cpp)
target_link_libraries(app_shared PRIVATE PellorinClient::pellorin)
add_executable(app_static EXCLUDE_FROM_ALL main.cpp)
target_link_libraries(app_static PRIVATE PellorinClient::pellorin_static)
""")
            with open(os.path.join(project, "consumer.cpp"), "w") as f:
                f.write("#include <pellorin/PellorinClient.h>\n#include <pellorin/pellorin.h>\n")
            with open(os.path.join(project, "main.cpp"), "w") as f:
                f.write("int main() { return 0; }\n")
            build = os.path.join(work, "build")
            run([ARGS.cmake, "-S", project, "-B", build, "-G", "Unix Makefiles",
                 "-DCMAKE_BUILD_TYPE=", f"-DCMAKE_CXX_COMPILER={ARGS.cxx}",
                 f"-DCMAKE_C_COMPILER={ARGS.cc}"], env=clean_environment())
            targets = run([ARGS.cmake, "--build", build, "--target", "help"])
            self.assertIn("pellorin_static", targets)
            self.assertNotRegex(targets, r"tests_|pellorin_cli|pellorin_receiver|header_check")
            run([ARGS.cmake, "--build", build, "--target", "consumer"])
            run(["make", "-C", os.path.join(build, "pellorin"),
                 "PellorinClient/Sources/client/ClientCore.cpp.o"])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--cmake", required=True)
    parser.add_argument("--source-dir", required=True)
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--cc", required=True)
    parser.add_argument("--cxx", required=True)
    ARGS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest)
