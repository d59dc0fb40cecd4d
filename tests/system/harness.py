"""What the tests with whole programs share.

A test is a script that gets the build's bin folder and, for a Windows build, what runs its programs. It makes one
SystemTest, which leaves it in a folder of its own with an environment of its own, calls programs, asks what they did,
and ends with `finish`. Each question is a check; one that isn't answered as it should be is shown, and the script goes
on. What only prepares a check raises instead.
"""

import argparse
import atexit
import contextlib
import difflib
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Mapping
from pathlib import Path
from typing import NoReturn

repository = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(repository / "tools"))

PIN = "1234567890"
WRONG_PIN = "0000000000"
RSA_2048 = ("rsa:2048",)
P_256 = ("ec", "-pkeyopt", "ec_paramgen_curve:P-256")
P_384 = ("ec", "-pkeyopt", "ec_paramgen_curve:P-384")
P_521 = ("ec", "-pkeyopt", "ec_paramgen_curve:P-521")
PSS = ("-sigopt", "rsa_padding_mode:pss", "-sigopt", "rsa_pss_saltlen:digest")


def make_work_folder(bin_folder: Path) -> Path:
    """Makes the folder run/<script>-<process> in the build, so that a script that is killed leaves nothing elsewhere.

    Removes what killed runs of the script have left.
    """
    name = Path(sys.argv[0]).name
    runs = bin_folder / "run"
    runs.mkdir(exist_ok=True)
    # Some tests of root go on as another user, who must get to the folder.
    as_nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "test", "-x", str(runs)]
    if os.getuid() == 0 and subprocess.run(as_nobody, check=False).returncode != 0:
        runs = Path(os.environ.get("TMPDIR", "/tmp"), "zentak-test-runs")
        runs.mkdir(exist_ok=True)
    for folder in runs.glob(name + "-*"):
        if not Path("/proc", folder.name.removeprefix(name + "-")).exists():
            shutil.rmtree(folder)
    work = runs / f"{name}-{os.getpid()}"
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir()
    return work


class Output:
    """What a program has said, on both outputs in the order in which it wrote, and what is asked of that.

    Attributes:
        status: the program's
        errors: what it has said on the standard error, where that was asked for separately
    """

    errors: "Output"

    def __init__(self, test: "SystemTest", name: str, text: str, status: int = 0) -> None:
        self.test = test
        self.name = name
        self.status = status
        self._text = text

    @property
    def text(self) -> str:
        return self._text

    @property
    def lines(self) -> list[str]:
        return self.text.splitlines()

    def plain_lines(self) -> list[str]:
        """The lines with repeated blanks as one."""
        return [re.sub(" +", " ", line) for line in self.lines]

    def _count(self, found: int, number: int | None, text: str) -> None:
        wanted = "" if number is None else f"{number} of "
        good = found > 0 if number is None else found == number
        self.test.check(good, f'{self.name} shows {wanted}"{text}"', f"It has {found} of them:\n{self.text}")

    def says(self, text: str) -> None:
        """A line has the text in it."""
        self._count(sum(text in line for line in self.lines), None, text)

    def counts(self, number: int, text: str) -> None:
        """So many lines have the text in them."""
        self._count(sum(text in line for line in self.lines), number, text)

    def has_line(self, text: str) -> None:
        """A line is exactly the text."""
        self._count(self.lines.count(text), None, text)

    def begins(self, number: int, text: str) -> None:
        """So many lines begin with the text, repeated blanks apart."""
        self._count(sum(line.startswith(text) for line in self.plain_lines()), number, text)

    def shows(self, text: str, number: int | None = None) -> None:
        """A line, or so many of them, is the text, blanks apart."""
        self._count(sum(line.strip(" ") == text for line in self.plain_lines()), number, text)

    def matches(self, number: int, pattern: str) -> None:
        """So many lines are the regular expression."""
        self._count(sum(re.fullmatch(pattern, line) is not None for line in self.lines), number, pattern)

    def is_text(self, expected: str) -> None:
        """The text is the expected one without its comment lines (#); blanks at line ends apart.

        The expected text begins in the line after its quotation mark.
        """
        actual = [line.rstrip(" ") for line in self.lines]
        wanted = [line.rstrip(" ") for line in expected.removeprefix("\n").splitlines() if not line.startswith("#")]
        difference = difflib.unified_diff(wanted, actual, "expected", self.name, lineterm="")
        self.test.check(actual == wanted, f"{self.name} is word for word as expected", "\n".join(difference))


class Background(Output):
    """A program that goes on while the test does; what it has said up to now."""

    def __init__(self, test: "SystemTest", name: str, process: subprocess.Popen, file: Path) -> None:
        super().__init__(test, name, "")
        self.process = process
        self._file = file

    @property
    def text(self) -> str:
        return self._file.read_text(encoding="utf-8", errors="replace")

    def stop(self) -> None:
        self.process.terminate()
        self.process.wait()
        if self.process.stdin:
            self.process.stdin.close()


class SystemTest:
    """The test's folder, which is the working folder and removed at the end; its environment; and its checks.

    Attributes:
        bin: the build's folder of programs
        runner: what runs them, None on Linux
        module: the module's file, as a program of the build names it
        work: the test's folder. The store of tokens is `tokens` there; a Linux build has its temporary folder (`tmp`)
            and the log's configuration (`config`) there, too
    """

    def __init__(self) -> None:
        parser = argparse.ArgumentParser(description=sys.modules["__main__"].__doc__)
        parser.add_argument("bin", type=Path, help="the build's bin folder")
        parser.add_argument("runner", type=Path, nargs="?", help="what runs the programs of a Windows build")
        arguments = parser.parse_args()
        self.bin: Path = arguments.bin.resolve()
        self.runner: Path | None = arguments.runner and arguments.runner.resolve()
        self.checks = 0
        self.failures = 0
        self._background: list[Background] = []
        self._finished = False
        atexit.register(self._clean_up)
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
        sys.stdout.reconfigure(encoding="utf-8", errors="backslashreplace", line_buffering=True)

        self.work = make_work_folder(self.bin)
        os.chdir(self.work)
        # A store is refused where others may write.
        os.umask(os.umask(0) | 0o022)
        for folder in ("tokens", "tmp", "config"):
            Path(folder).mkdir()
        if self.runner is None:
            os.environ.update(TMPDIR=str(self.work / "tmp"), ZENTAK_CONFIG=str(self.work / "config"))
        self.module = self.host_path(self.bin / self.file_name("ZentakPKCS11"))
        self.use_store(self.work / "tokens")
        os.environ["ZENTAK_PIN"] = PIN

    def _clean_up(self) -> None:
        for program in self._background:
            program.process.kill()
        os.chdir("/")
        shutil.rmtree(self.work, ignore_errors=True)
        if not self._finished:
            print("FAILED: the test ended early", flush=True)
            os._exit(1)

    # --- Checks -------------------------------------------------------------------------------------------------------

    def check(self, good: bool, what: str, otherwise: str = "") -> bool:
        """Counts a check. `otherwise` is shown when it isn't good. The answer is `good`."""
        self.checks += 1
        print(f"{'ok' if good else 'FAILED'}: {what}")
        if not good:
            self.failures += 1
            for line in otherwise.splitlines():
                print(f"    {line}")
        return good

    def same(self, what: str, expected: Path | str | bytes, actual: Path | str | bytes) -> None:
        """`what` says it is so when both, files or bytes, are the same."""
        first, second = (side if isinstance(side, bytes) else Path(side).read_bytes() for side in (expected, actual))
        self.check(first == second, what, f"expected {first[:2000]!r}\n     not {second[:2000]!r}")

    def finish(self) -> NoReturn:
        """Ends the script by what the checks found."""
        self._finished = True
        print(f"{self.checks} checks, {self.failures} failures")
        sys.exit(0 if self.checks > 0 and self.failures == 0 else 1)

    # --- Programs -----------------------------------------------------------------------------------------------------

    def call(self, name: str, *command: str | Path, stdin: bytes = b"", timeout: float = 60, separate: bool = False,
             environment: Mapping[str, str | None] | None = None) -> Output:
        """Runs a command and checks nothing.

        The environment's changes: None takes a variable away. `separate`: the output has what the program wrote on its
        standard output, and in `errors` what it wrote on its standard error.
        """
        merged = {**os.environ, **(environment or {})}
        variables = {key: value for key, value in merged.items() if value is not None}
        words = [str(word) for word in command]
        # Not pipes: a program left behind that keeps an end open would have to be waited for.
        files = [self.work / f"output-{number}" for number in (1, 2)]
        with files[0].open("wb") as output, files[1].open("wb") as errors:
            try:
                status = subprocess.run(words, input=stdin, stdout=output, stderr=errors if separate else output,
                                        timeout=timeout, env=variables, check=False).returncode
            except subprocess.TimeoutExpired:
                status = 124
        texts = [file.read_bytes().decode("utf-8", "replace") for file in files]
        if self.runner:
            texts = [text.replace("\r\n", "\n") for text in texts]
        result = Output(self, name, texts[0], status)
        result.errors = Output(self, f"{name}'s errors", texts[1])
        return result

    def run(self, name: str, *command: str | Path, **options) -> Output:
        """The command must succeed."""
        output = self.call(name, *command, **options)
        words = " ".join(str(word) for word in command)
        self.check(output.status == 0, f"{name}: {command[0]}",
                   f"{words} ended with {output.status}:\n{output.text}{output.errors.text}")
        return output

    def refused(self, name: str, text: str, *command: str | Path, status: int | None = None, **options) -> Output:
        """The command must fail, with the given status if there is one, and say the text."""
        output = self.call(name, *command, **options)
        failed = output.status not in (0, 124) if status is None else output.status == status
        said = output.text + output.errors.text
        self.check(failed and text in said, f'{name}: refused with "{text}"',
                   f"{' '.join(str(word) for word in command)} ended with {output.status}:\n{said}")
        return output

    def start(self, name: str, *command: str | Path, stdin=subprocess.DEVNULL,
              environment: Mapping[str, str] | None = None) -> Background:
        """Starts a command, which ends with the test at the latest."""
        file = self.work / f"{name}.out"
        with file.open("wb") as output:
            process = subprocess.Popen([str(word) for word in command], stdin=stdin, stdout=output, bufsize=0,
                                       stderr=subprocess.STDOUT, env={**os.environ, **(environment or {})})
        self._background.append(Background(self, name, process, file))
        return self._background[-1]

    def wait_for(self, program: Background, condition: Callable[[], bool], seconds: float = 10) -> bool:
        """Waits until the condition holds, which is checked only when it doesn't in time."""
        end = time.monotonic() + seconds
        while not condition():
            if time.monotonic() > end:
                return self.check(False, f"{program.name} doesn't come so far", program.text)
            time.sleep(0.1)
        return True

    def converse(self, name: str, answer: str, *command: str | Path,
                 environment: Mapping[str, str] | None = None) -> Background:
        """Says hello to a command, waits until it has said the answer or ended, and stops it."""
        program = self.start(name, *command, stdin=subprocess.PIPE, environment=environment)
        with contextlib.suppress(BrokenPipeError):
            program.process.stdin.write(b"hello\n")
        self.wait_for(program, lambda: answer in program.text or program.process.poll() is not None)
        program.stop()
        return program

    def prepare(self, *command: str | Path, stdin: bytes = b"") -> bytes:
        """The standard output of a command that prepares a check. Raises when it fails."""
        done = subprocess.run([str(word) for word in command], input=stdin, capture_output=True, check=False)
        if done.returncode != 0:
            words = " ".join(str(word) for word in command)
            raise RuntimeError(f"{words} ended with {done.returncode}: {done.stderr.decode(errors='replace')}")
        return done.stdout

    def openssl(self, *arguments: str | Path, stdin: bytes = b"") -> bytes:
        return self.prepare("openssl", *arguments, stdin=stdin)

    # --- The build ----------------------------------------------------------------------------------------------------

    def file_name(self, library: str) -> str:
        return f"{library}.dll" if self.runner else f"lib{library}.so"

    def program(self, file: str | Path) -> list[str | Path]:
        """The beginning of a command: a program of the build, or of another folder when a path is given."""
        path = self.bin / file if isinstance(file, str) else file
        return [self.runner, f"{path}.exe"] if self.runner else [path]

    def host_path(self, path: Path) -> str:
        """How a program of the build names a file."""
        if self.runner is None:
            return str(path)
        return self.prepare(self.runner, "winepath", "-w", path).decode().strip()

    def use_store(self, folder: Path) -> None:
        """From here on the tokens are those of this folder."""
        os.environ["ZENTAK_TOKENS"] = self.host_path(folder)

    def zentak_token(self, *arguments: str | Path) -> Output:
        """What the token tool says. Raises when it fails."""
        return Output(self, f"zentak-token {arguments[0]}",
                      self.prepare(*self.program("zentak-token"), *arguments).decode().replace("\r\n", "\n"))

    def create_token(self, label: str, *options: str | Path, cost: int = 1) -> str:
        """A token; its serial number. Each program checks the PIN anew: a low cost keeps the tests quick."""
        said = self.zentak_token("create", "--label", label, "--kdf-cost", str(cost), *options).text
        return re.search("^Serial number: (.*)$", said, re.MULTILINE)[1]

    # --- Keys and signatures ------------------------------------------------------------------------------------------

    def make_key(self, name: str, *request: str) -> None:
        """NAME.key.pem, NAME.public.pem and NAME.certificate.pem: a key and its certificate, self-signed by itself."""
        key, certificate = f"{name}.key.pem", f"{name}.certificate.pem"
        self.openssl("req", "-x509", "-newkey", *request, "-noenc", "-sha256", "-days", "2",
                     "-subj", f"/CN=System {name}/O=Zentak", "-keyout", key, "-out", certificate)
        Path(f"{name}.public.pem").write_bytes(self.openssl("x509", "-in", certificate, "-noout", "-pubkey"))

    def add_key(self, name: str, key_id: str, *request: str) -> None:
        """The same, and on the token with the label "System NAME", and with the ID unless that is empty."""
        self.make_key(name, *request)
        self.zentak_token("import", "--key", f"{name}.key.pem", "--certificate", f"{name}.certificate.pem",
                          "--label", f"System {name}", *(("--id", key_id) if key_id else ()))

    def verified(self, name: str, hash_name: str, key: str, signature: str | Path, data: str | Path,
                 *options: str) -> None:
        """The signature over the data is good by the key in KEY.public.pem."""
        self.run(f"{name}, verified", "openssl", "dgst", f"-{hash_name}", "-verify", f"{key}.public.pem", "-signature",
                 signature, *options, data)

    def agreed_secret(self, private: str, public: str) -> bytes:
        """What openssl derives from PRIVATE.key.pem and PUBLIC.public.pem."""
        return self.openssl("pkeyutl", "-derive", "-inkey", f"{private}.key.pem", "-peerkey", f"{public}.public.pem")


# --- Clients: programs that know nothing of ours ----------------------------------------------------------------------


def listens(port: int) -> bool:
    """Whether somebody listens on the port of 127.0.0.1; without connecting, which would use up a server."""
    address = f" 0100007F:{port:04X} 00000000:0000 0A"
    return any(address in line for line in Path("/proc/net/tcp").read_text(encoding="ascii").splitlines())


def free_port() -> int:
    """The number of a TCP port that nobody listens on."""
    return next(port for port in iter(lambda: random.randrange(20000, 30000), None) if not listens(port))


class ClientTest(SystemTest):
    """A test of a client program on Linux, with a home, a log of every line, and a token "System token" of its own.

    Attributes:
        serial_number: the token's
    """

    def __init__(self) -> None:
        super().__init__()
        Path("home").mkdir()
        os.environ["HOME"] = str(self.work / "home")
        for variable in ("XDG_CONFIG_HOME", "XDG_RUNTIME_DIR"):
            os.environ.pop(variable, None)
        Path("config/logLevel").write_bytes(b"\3")
        self.serial_number = self.create_token("System token")
        Path("data").write_bytes(os.urandom(1000))

    def add_three_keys(self) -> None:
        """RSA-2048 (A1), P-256 (B1) and P-384 (B2)."""
        for name, key_id, request in (("rsa2048", "A1", RSA_2048), ("p256", "B1", P_256), ("p384", "B2", P_384)):
            self.add_key(name, key_id, *request)

    def finish(self) -> NoReturn:
        """Ends the script; no PIN was written anywhere, at the log's most talkative level."""
        files = [file for folder in ("tmp", "tokens") for file in Path(folder).rglob("*") if file.is_file()]
        with_pin = [str(file) for file in files if PIN.encode() in file.read_bytes()]
        self.check(not with_pin, "no PIN is in a file", "\n".join(with_pin))
        logs = [file for file in files if "Dravenko Sentronics" in file.parts and b"DEBUG" in file.read_bytes()]
        self.check(bool(logs), "there is a log")
        super().finish()

    def show_attempts(self, left: int) -> None:
        """The PIN has so many attempts left."""
        self.zentak_token("show", self.serial_number).says(f"userPinAttemptsLeft: {left}")

    def good_request(self, name: str, key: str | None = None) -> None:
        """request.pem is a certificate request with a good signature, by the key in KEY.public.pem if given."""
        # The words count: openssl's status is 0 for a bad signature, too.
        self.run(f"verify-{name}", "openssl", "req", "-in", "request.pem", "-verify",
                 "-noout").says("self-signature verify OK")
        if key:
            found = self.call(f"key-of-{name}", "openssl", "req", "-in", "request.pem", "-noout", "-pubkey").text
            self.same(f"the key of {name} is the same", f"{key}.public.pem", found.encode())
        Path("request.pem").unlink(missing_ok=True)

    def bad_request(self, name: str) -> None:
        """request.pem is a certificate request whose signature is not good."""
        self.run(f"verify-{name}", "openssl", "req", "-in", "request.pem", "-verify",
                 "-noout").says("self-signature verify failure")
        Path("request.pem").unlink(missing_ok=True)

    def cms_verified(self, name: str, form: str, authority: str, file: str) -> None:
        """The file is a CMS message that signs `data`, by a certificate under that in AUTHORITY.certificate.pem."""
        self.run(f"verify-{name}", "openssl", "cms", "-verify", "-in", file, "-inform", form, "-content", "data",
                 "-binary", "-out", "cms.data", "-purpose", "any", "-CAfile", f"{authority}.certificate.pem")
        self.same(f"the data signed by {name} is the same", "data", "cms.data")

    def start_tls_server(self, version: str, authorities: str) -> tuple[Background, int]:
        """openssl's server, for one client with a certificate under those in the file `authorities`; and its port.

        It has the key of `server` and sends each line back reversed.
        """
        port = free_port()
        server = self.start("server", "openssl", "s_server", "-accept", f"127.0.0.1:{port}", "-cert",
                            "server.certificate.pem", "-key", "server.key.pem", "-Verify", "2", "-verify_return_error",
                            "-CAfile", authorities, f"-{version}", "-naccept", "1", "-rev")
        self.wait_for(server, lambda: listens(port))
        return server, port
