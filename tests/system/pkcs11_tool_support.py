"""What the tests share that let OpenSC's pkcs11-tool, a client that knows nothing of ours, judge the module with the
software token, on Linux and, built for Windows, under Wine."""

import fnmatch
import os
from pathlib import Path

from harness import PIN, Output, SystemTest, repository


class ToolOutput(Output):
    """What the tool says, but for its remark about the slot that it took, and what the module logged meanwhile.

    Attributes:
        errors: the module's error lines, without their times
    """

    def __init__(self, output: Output, errors: str) -> None:
        lines = [line for line in output.lines if not line.startswith("Using slot ")]
        super().__init__(output.test, output.name, "".join(line + "\n" for line in lines), output.status)
        self.errors = Output(output.test, f"{output.name}'s errors", errors)


class ToolTest(SystemTest):
    """A test of pkcs11-tool.

    Attributes:
        client: the beginning of a command that calls the tool
    """

    def __init__(self) -> None:
        super().__init__()
        if self.runner:
            self.client = [self.runner, self.prepare(repository / "scripts/opensc-for-windows").decode().strip()]
            # %TEMP%, where the log is, belongs to the Windows installation and not to this test alone.
            temporary = self.prepare(self.runner, "cmd", "/c", "echo %TEMP%").decode().strip()
            temporary = Path(self.prepare(self.runner, "winepath", "-u", temporary).decode().strip())
        else:
            self.client = ["stdbuf", "-oL", "pkcs11-tool"]
            temporary = self.work / "tmp"
        self.client += ["--module", self.module]
        # The module makes one missing folder of the log a line and drops the line; here it finds them all.
        self._log_folder = temporary / "Dravenko Sentronics" / "pkcs11-tool"
        self._log_folder.mkdir(parents=True, exist_ok=True)
        Path("home").mkdir()
        os.environ["ZENTAK_HOME"] = self.host_path(self.work / "home")

    def _take_errors(self) -> str:
        """The error lines that the module has logged since the last call."""
        logs = sorted(self._log_folder.glob("*.LOG"))
        lines = [line.split("-> ->ERROR ::=>", 1)[-1] for log in logs
                 for line in log.read_bytes().decode("utf-8", "replace").splitlines()]
        for log in logs:
            log.unlink()
        return "\n".join(lines)

    def call_tool(self, name: str, *arguments: str | Path) -> ToolOutput:
        """Calls the tool and checks nothing."""
        self._take_errors()
        output = self.call(name, *self.client, *arguments)
        return ToolOutput(output, self._take_errors())

    def run_tool(self, name: str, *arguments: str | Path) -> ToolOutput:
        """The tool must succeed."""
        return self.tool_ends(name, 0, *arguments)

    def run_as_user(self, name: str, *arguments: str | Path) -> ToolOutput:
        """The same, logged in."""
        return self.run_tool(name, "--login", "--pin", PIN, *arguments)

    def tool_ends(self, name: str, status: int, *arguments: str | Path) -> ToolOutput:
        """The tool must end with this status."""
        output = self.call_tool(name, *arguments)
        words = " ".join(str(word) for word in arguments)
        self.check(output.status == status, f"{name}: pkcs11-tool {words} ends with {status}",
                   f"It ended with {output.status}:\n{output.text}")
        return output

    def refuse_tool(self, name: str, text: str, log: str, *arguments: str | Path) -> None:
        """The tool must fail and say the text, and the module's error lines must be `log`, a pattern.

        That is an empty one when the module has no part in the refusal or refuses without a word.
        """
        output = self.call_tool(name, *arguments)
        errors = output.errors.text
        words = " ".join(str(word) for word in arguments)
        good = output.status not in (0, 124) and text in output.text and fnmatch.fnmatchcase(errors, log)
        self.check(good, f'{name}: pkcs11-tool {words} is refused with "{text}" and logged as "{log}"',
                   f"It ended with {output.status}:\n{output.text}\nand logged:\n{errors}")

    def refuse_user(self, name: str, text: str, log: str, *arguments: str | Path) -> None:
        """The same, logged in."""
        self.refuse_tool(name, text, log, "--login", "--pin", PIN, *arguments)

    def openssl_verifies(self, name: str, *command: str) -> None:
        """openssl's command finds NAME.sig good."""
        self.run(f"{name}, verified", "openssl", *command)
