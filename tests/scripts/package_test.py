"""The installed package as a consumer meets it: `cmake --install` into a temporary prefix, the
example host built against it with find_package(Larkpost) and run against aiosmtpd, a C program
built with `pkg-config --cflags --libs larkpost`, and the exported symbols of the library."""

import argparse
import glob
import os
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from larkpost_ctypes import declared_functions  # noqa: E402
from smtp_fixture import SmtpServer, parse_message  # noqa: E402

ARGS = None


def run(*command, env=None, cwd=None):
    result = subprocess.run(list(command), capture_output=True, text=True, env=env, cwd=cwd,
                            timeout=300)
    if result.returncode != 0:
        raise AssertionError("%s failed (%d):\n%s\n%s" % (" ".join(command), result.returncode,
                                                          result.stdout[-4000:], result.stderr[-4000:]))
    return result.stdout


class InstalledPackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory(prefix="larkpost-package-")
        cls.prefix = os.path.join(cls.tmp.name, "prefix")
        config = ["--config", ARGS.config] if ARGS.config else []
        run(ARGS.cmake, "--install", ARGS.build_dir, "--prefix", cls.prefix, *config)
        libraries = glob.glob(os.path.join(cls.prefix, "lib*", "**", "liblarkpost.so"), recursive=True)
        assert len(libraries) == 1, libraries
        cls.libdir = os.path.dirname(libraries[0])

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def test_library_has_its_soname_and_links(self):
        real = glob.glob(os.path.join(self.libdir, "liblarkpost.so.1.*"))
        self.assertEqual(len(real), 1, real)
        self.assertEqual(os.readlink(os.path.join(self.libdir, "liblarkpost.so.1")), os.path.basename(real[0]))
        self.assertEqual(os.readlink(os.path.join(self.libdir, "liblarkpost.so")), "liblarkpost.so.1")
        dynamic = run("readelf", "-d", real[0])
        self.assertIn("Library soname: [liblarkpost.so.1]", dynamic)

    def test_headers_package_files_and_command_are_in_place(self):
        for header in ("larkpost.h", "larkpost_c.h", "create.h", "error.h", "export.h", "text.h",
                       "mail_client.h", "mail_message.h", "tcp_stream.h", "string_builder.h"):
            self.assertTrue(os.path.isfile(os.path.join(self.prefix, "include", "larkpost", header)), header)
        cmake_dir = os.path.join(self.libdir, "cmake", "Larkpost")
        for name in ("LarkpostConfig.cmake", "LarkpostConfigVersion.cmake", "LarkpostTargets.cmake"):
            self.assertTrue(os.path.isfile(os.path.join(cmake_dir, name)), name)
        self.assertTrue(os.path.isfile(os.path.join(self.libdir, "pkgconfig", "larkpost.pc")))
        command = os.path.join(self.prefix, "bin", "larkpost")
        self.assertEqual(run(command, "--version"), "larkpost 1.0.0\n")

    def test_exports_are_the_c_interface_and_the_public_classes_only(self):
        symbols = run("nm", "-D", "--defined-only", "--demangle",
                      os.path.join(self.libdir, "liblarkpost.so")).splitlines()
        names = {line.split(" ", 2)[2] for line in symbols if line.count(" ") >= 2}
        c_names = {n for n in names if n.startswith("larkpost_")}
        self.assertEqual(c_names, declared_functions(os.path.join(ARGS.source_dir, "include", "larkpost", "larkpost_c.h")))
        internal = [n for n in names if n.startswith("larkpost::detail::")]
        self.assertEqual(internal, [], "internal functions leak out of the library")

    def test_example_builds_with_find_package_and_sends(self):
        build = os.path.join(self.tmp.name, "example-build")
        run(ARGS.cmake, "-S", os.path.join(ARGS.source_dir, "examples"), "-B", build,
            "-DCMAKE_PREFIX_PATH=" + self.prefix, "-DCMAKE_BUILD_TYPE=Release")
        run(ARGS.cmake, "--build", build, "-j2")
        with SmtpServer() as server:
            output = run(os.path.join(build, "send_mail"), "127.0.0.1", str(server.port),
                         "ann@example.org", "bob@example.org", "From the example", "Hello.\r\n")
            stored = server.messages(expected=1)
        self.assertTrue(output.startswith("progress "), output)
        self.assertTrue(output.endswith("sent\n"), output)
        self.assertEqual(parse_message(stored[0][0])["Subject"], "From the example")

    def test_pkg_config_gives_flags_that_build_a_c_and_a_cxx_program(self):
        env = dict(os.environ, PKG_CONFIG_PATH=os.path.join(self.libdir, "pkgconfig"))
        flags = run("pkg-config", "--cflags", "--libs", "larkpost", env=env).split()
        self.assertIn("-llarkpost", flags)
        self.assertEqual(run("pkg-config", "--modversion", "larkpost", env=env).strip(), "1.0.0")
        source = os.path.join(self.tmp.name, "version.c")
        with open(source, "w") as f:
            f.write('#include <stdio.h>\n#include <larkpost/larkpost_c.h>\n'
                    'int main(void) { larkpost_object* b = 0;\n'
                    '  if (larkpost_create("Larkpost.StringBuilder", &b) != 0) return 1;\n'
                    '  larkpost_release(b); puts(larkpost_library_version()); return 0; }\n')
        program = os.path.join(self.tmp.name, "version")
        run("cc", "-std=c11", "-Wall", "-Werror", source, "-o", program, *flags)
        self.assertEqual(run(program, env=dict(os.environ, LD_LIBRARY_PATH=self.libdir)), "1.0.0\n")
        cxx_source = os.path.join(self.tmp.name, "create.cpp")
        with open(cxx_source, "w") as f:
            f.write('#include <larkpost/larkpost.h>\n#include <cstdio>\n'
                    'int main() { auto m = larkpost::CreateObject("Larkpost.MailMessage");\n'
                    '  std::puts(std::string(m.ClassName()).c_str()); }\n')
        cxx_program = os.path.join(self.tmp.name, "create")
        run("c++", "-std=c++20", "-Wall", "-Werror", cxx_source, "-o", cxx_program, *flags)
        self.assertEqual(run(cxx_program, env=dict(os.environ, LD_LIBRARY_PATH=self.libdir)),
                         "Larkpost.MailMessage\n")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--cmake", required=True)
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--source-dir", required=True)
    parser.add_argument("--config", default="")
    ARGS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)
