"""checked_commands: which compile commands static analysis reads."""

import unittest
from pathlib import Path

import checked_commands

REPOSITORY = Path("/project")


def command(output: str, file: str, *options: str) -> dict[str, str]:
    words = ["c++", *options, "-o", output, "-c", f"/project/{file}"]
    return {"directory": "/project/build", "command": " ".join(words), "file": f"/project/{file}"}


class Choose(unittest.TestCase):
    def test_takes_each_source_once_a_form(self) -> None:
        platform = command("src/CMakeFiles/Module.dir/a.cpp.o", "src/a.cpp")
        windows = command("src/CMakeFiles/Form.dir/a.cpp.o", "src/a.cpp", "-DZENTAK_WINDOWS_CRYPTOKI")
        again = command("src/CMakeFiles/Again.dir/a.cpp.o", "src/a.cpp")
        chosen = checked_commands.choose([platform, windows, again], REPOSITORY)
        self.assertEqual(chosen, {"platform": [platform], "windows-form": [windows]})

    def test_leaves_out_tests_and_what_they_compile_of_the_module(self) -> None:
        of_a_test = command("tests/unit/CMakeFiles/unit_tests.dir/__/a.cpp.o", "src/a.cpp", "-include", "pch.hxx")
        test = command("tests/unit/CMakeFiles/unit_tests.dir/a_test.cpp.o", "tests/unit/a_test.cpp")
        self.assertEqual(checked_commands.choose([of_a_test, test], REPOSITORY), {"platform": [], "windows-form": []})

    def test_leaves_out_generated_sources(self) -> None:
        generated = command("src/CMakeFiles/Module.dir/b.cpp.o", "build/linux/src/b.cpp")
        self.assertEqual(checked_commands.choose([generated], REPOSITORY)["platform"], [])

    def test_does_not_put_the_tool_last(self) -> None:
        files = ("examples/a.cpp", "src/a.cpp", "softtoken/tool/a.cpp")
        sources = [command(f"{file.split(chr(47))[0]}/a.o", file) for file in files]
        chosen = checked_commands.choose(sources, REPOSITORY)["platform"]
        self.assertEqual([entry["file"] for entry in chosen],
                         ["/project/src/a.cpp", "/project/softtoken/tool/a.cpp", "/project/examples/a.cpp"])


if __name__ == "__main__":
    unittest.main()
