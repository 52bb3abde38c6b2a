"""What the tests of the page share: the page before a real settings server, plain requests, and a browser."""

import contextlib
import http.client
import os
import re
import signal
import socket
import subprocess
import tempfile
import time
import urllib.parse
from collections.abc import Callable
from dataclasses import dataclass, field
from html.parser import HTMLParser
from pathlib import Path
from typing import Self, TypeVar

from korlo_settings import Client, SettingsError
from selenium.common.exceptions import NoSuchElementException, StaleElementReferenceException
from selenium.webdriver.chrome.webdriver import WebDriver
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.remote.webelement import WebElement
from support import Groups, Server

T = TypeVar("T")

WEB = Path(__file__).resolve().parent.parent
LIMIT = 60.0  # seconds, for what should take far less


def eventually(what: Callable[[], T], limit: float = LIMIT) -> T:
    """Waits until it is true, and returns it. What the page has just replaced counts as not yet true."""
    end = time.monotonic() + limit
    while True:
        with contextlib.suppress(StaleElementReferenceException, NoSuchElementException):
            result = what()
            if result:
                return result
        assert time.monotonic() < end, f"waited {limit} seconds in vain"
        time.sleep(0.01)


def within_a_second(act: Callable[[int], Callable[[], object]]) -> None:
    """Acts, and awaits what comes of it. One of several attempts must take less than a second: a busy machine may be
    slow at times, and a page that asks every two seconds nearly always is."""
    times = []
    for attempt in range(8):
        is_there = act(attempt)
        begin = time.monotonic()
        eventually(is_there)
        times.append(time.monotonic() - begin)
        if times[-1] < 1.0:
            return
    raise AssertionError(times)


class PhpServer:
    """The page on a free port of the loopback address, served by PHP itself."""

    def __init__(
        self,
        environment: dict[str, str],
        workers: int = 4,
        root: Path = WEB / "public",
        options: tuple[str, ...] = (),
        user: str | None = None,
    ) -> None:
        self._environment = {**os.environ, **environment}
        if workers > 1:
            self._environment["PHP_CLI_SERVER_WORKERS"] = str(workers)
        self._root = root
        self._options = options
        self._user = user
        self._process: subprocess.Popen[bytes] | None = None
        self.port = 0

    def start(self) -> Self:
        options = ["-d", "display_errors=1", "-d", "html_errors=0", *self._options]
        command = ["php", *options, "-S", f"127.0.0.1:{self.port}", "-t", str(self._root)]
        with tempfile.TemporaryFile() as log:
            self._process = subprocess.Popen(
                command, env=self._environment, stdout=log, stderr=log, start_new_session=True, user=self._user
            )

            def port() -> int:
                found = re.search(rb"http://127\.0\.0\.1:(\d+)\) started", os.pread(log.fileno(), 4096, 0))
                assert found or self._process is None or self._process.poll() is None, os.pread(log.fileno(), 4096, 0)
                return int(found[1]) if found else 0

            self.port = eventually(port)
        return self

    @property
    def pid(self) -> int:
        """That of the process, and of the group of its workers."""
        assert self._process is not None
        return self._process.pid

    def stop(self) -> None:
        if self._process is not None:
            process, self._process = self._process, None
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)  # its workers as well
            process.wait(LIMIT)


@dataclass
class FoundForm:
    """A form of a page, as a browser without JavaScript sees it."""

    attributes: dict[str, str | None]
    fields: dict[str, str] = field(default_factory=dict)
    keys: dict[str, str] = field(default_factory=dict)  # the name of a key -> the name of its field
    buttons: set[str] = field(default_factory=set)  # what they do
    elements: list[tuple[str, dict[str, str | None]]] = field(default_factory=list)


class _Forms(HTMLParser):
    def __init__(self, text: str) -> None:
        super().__init__(convert_charrefs=True)
        self.forms: list[FoundForm] = []
        self._area: str | None = None
        self.feed(text)

    def handle_starttag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        attributes = dict(attrs)
        if tag == "form":
            self.forms.append(FoundForm(attributes))
        if not self.forms:
            return
        form = self.forms[-1]
        form.elements.append((tag, attributes))
        name = attributes.get("name")
        if tag in ("input", "textarea"):
            if attributes.get("data-key") is not None:
                form.keys[attributes["data-key"] or ""] = name or ""
            if name:
                form.fields[name] = attributes.get("value") or ""
                self._area = name if tag == "textarea" else None
        elif tag == "button":
            form.buttons.add(attributes.get("data-action") or "")

    def handle_data(self, data: str) -> None:
        if self._area is not None:
            self.forms[-1].fields[self._area] = data.removeprefix("\n")
            self._area = None


@dataclass
class Answer:
    status: int
    headers: http.client.HTTPMessage
    body: bytes

    @property
    def text(self) -> str:
        return self.body.decode()

    def forms(self) -> dict[str, FoundForm]:
        found = [form for form in _Forms(self.text).forms if "data-group" in form.attributes]
        return {form.attributes["data-group"] or "": form for form in found}

    def form(self, identity: str) -> FoundForm:
        return next(form for form in _Forms(self.text).forms if form.attributes.get("id") == identity)

    def _said(self, role: str) -> str:
        found = re.search(f'<p role="{role}">(.*?)</p>', self.text, re.S)
        assert found, self.text
        return found[1]

    @property
    def said(self) -> str:
        return self._said("status")

    @property
    def alert(self) -> str:
        return self._said("alert")


class _LocalConnection(http.client.HTTPConnection):
    """HTTP on a Unix-domain socket."""

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.host)


class PlainBrowser:
    """Speaks HTTP, keeps cookies and sends forms: a browser without JavaScript."""

    def __init__(self, door: int | Path, host: str | None = None, **headers: str) -> None:
        self._door = door
        self._host = host
        self._headers = headers
        self.cookies: dict[str, str] = {}

    def connect(self) -> http.client.HTTPConnection:
        if isinstance(self._door, Path):
            return _LocalConnection(str(self._door), timeout=LIMIT)
        return http.client.HTTPConnection("127.0.0.1", self._door, timeout=LIMIT)

    def request(self, method: str, path: str, body: bytes | None = None, **headers: str) -> Answer:
        connection = self.connect()
        sent = {name.replace("_", "-"): value for name, value in (self._headers | headers).items()}
        if self._host is not None:
            sent["Host"] = self._host
        if self.cookies:
            sent["Cookie"] = "; ".join(f"{name}={value}" for name, value in self.cookies.items())
        with contextlib.closing(connection):
            connection.request(method, path, body, sent)
            response = connection.getresponse()
            answer = Answer(response.status, response.headers, response.read())
        for cookie in answer.headers.get_all("Set-Cookie", []):
            name, _, value = cookie.partition(";")[0].partition("=")
            if "Max-Age=0" in cookie:
                self.cookies.pop(name, None)
            else:
                self.cookies[name] = value
        assert b"Warning" not in answer.body and b"Fatal" not in answer.body, answer.body
        return answer

    def get(self, path: str = "/") -> Answer:
        return self.request("GET", path)

    def post(self, fields: dict[str, str], path: str = "/", **headers: str) -> Answer:
        lines = {name: value.replace("\n", "\r\n") for name, value in fields.items()}  # as a form sends them
        body = urllib.parse.urlencode(lines).encode()
        return self.request("POST", path, body, Content_Type="application/x-www-form-urlencoded", **headers)

    def press(
        self, form: FoundForm, action: str, typed: dict[str, str] | None = None, path: str = "/", **fields: str
    ) -> Answer:
        """Types into the fields of keys and into others, presses a button and follows to where it leads."""
        filled = dict(form.fields)
        for key, value in (typed or {}).items():
            filled[form.keys[key]] = value
        filled |= {name.replace("_", "-"): value for name, value in fields.items()}
        filled |= {"take": action} if ":" in action else {"action": action}
        answer = self.post(filled, path)
        return self.get(answer.headers["Location"]) if answer.status == 303 else answer


class Site:
    """A settings server, and the page before it."""

    def __init__(self, folder: Path, *options: str, defaults: str = "", restricted: str = "", workers: int = 4) -> None:
        self.control = folder / "control"
        self.server = Server(folder, "--control", str(self.control), *options, defaults=defaults, restricted=restricted)
        self.environment = {"KORLO_SETTINGS_ADDRESS": self.server.address, "KORLO_SETTINGS_CONTROL": str(self.control)}
        self.php = PhpServer(self.environment, workers)

    def __enter__(self) -> Self:
        self.server.start()
        self.php.start()
        return self

    def __exit__(self, kind: object, error: object, traceback: object) -> None:
        self.php.stop()
        self.server.stop(signal.SIGKILL)

    def repair(self) -> None:
        """Starts again what a test that failed has left stopped."""
        with contextlib.suppress(SettingsError), self.client() as client:
            client.get("Audio")
            return
        self.server.stop(signal.SIGKILL)
        self.server.start()

    @property
    def url(self) -> str:
        return f"http://127.0.0.1:{self.php.port}/"

    def reset(self, groups: Groups | None = None) -> None:
        """Back to the defaults, and these groups added."""
        with self.client() as client:
            client.restore("*")
            client.merge(groups or {})

    def client(self) -> Client:
        return Client(self.server.address)

    def plain(self, host: str | None = None) -> PlainBrowser:
        return PlainBrowser(self.php.port, host)

    def streams(self) -> int:
        """How many streams of changes the page has open: its other connections subscribe to nothing."""
        with contextlib.closing(socket.socket(socket.AF_UNIX)) as door:
            door.settimeout(LIMIT)
            door.connect(str(self.control))
            door.sendall(b"clients\n")
            answer = b""
            while not answer.endswith(b"\n.\n"):
                answer += door.recv(65536)
        return answer.count(b"\nsubscriptions=1\n")

    def await_streams(self, count: int) -> None:
        eventually(lambda: self.streams() == count)

    def processor_seconds(self) -> float:
        """What PHP and the settings server have used of the processor so far."""
        ticks = 0
        for process in Path("/proc").glob("[0-9]*/stat"):
            with contextlib.suppress(OSError):
                state = process.read_text().rpartition(") ")[2].split()
                if int(state[2]) == self.php.pid or int(process.parent.name) == self.server.pid:
                    ticks += int(state[11]) + int(state[12])
        return ticks / os.sysconf("SC_CLK_TCK")

    def value(self, group: str, key: str) -> str | None:
        with self.client() as client:
            return client.value(group, key)

    def merge(self, changes: Groups) -> None:
        with self.client() as client:
            client.merge(changes)


def quoted(text: str) -> str:
    """A string of CSS."""
    return '"' + "".join(f"\\{ord(c):x} " if c in '"\\' or ord(c) < 32 else c for c in text) + '"'


class Page:
    """An open page of a browser."""

    def __init__(self, driver: WebDriver, url: str) -> None:
        self.driver = driver
        self.url = url

    def open(self, path: str = "") -> Self:
        self.driver.get(self.url + path)
        return self

    def find(self, selector: str) -> WebElement:
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def all(self, selector: str) -> list[WebElement]:
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    @staticmethod
    def _form(group: str) -> str:
        return f"form[data-group={quoted(group)}]"

    def field(self, group: str, key: str) -> WebElement:
        return self.find(f"{self._form(group)} [data-key={quoted(key)}]")

    def value(self, group: str, key: str) -> str | None:
        return self.field(group, key).get_property("value")

    def has(self, group: str, key: str = "") -> bool:
        inner = f" [data-key={quoted(key)}]" if key else ""
        return self.all(self._form(group) + inner) != []

    def type(self, group: str, key: str, text: str) -> WebElement:
        element = self.field(group, key)
        element.send_keys(Keys.CONTROL, "a")
        element.send_keys(text)
        return element

    def press(self, group: str, action: str) -> None:
        """By keyboard: a change from elsewhere may move the button from under a mouse."""
        self.find(f"{self._form(group)} [data-action={action}]").send_keys(Keys.ENTER)

    @property
    def said(self) -> str:
        return self.find("[role=status]").text

    @property
    def alert(self) -> str:
        return self.find("[role=alert]").text

    def await_said(self, text: str) -> str:
        return eventually(lambda: text in self.said and self.said)

    def await_alert(self, text: str) -> str:
        return eventually(lambda: text in self.alert and self.alert)

    def await_value(self, group: str, key: str, value: str, limit: float = LIMIT) -> None:
        eventually(lambda: self.value(group, key) == value, limit)

    def focused(self) -> WebElement:
        return self.driver.switch_to.active_element


def console(driver: WebDriver) -> list[str]:
    """What the console tells; a refusal, and a server that a test has ended, are no fault of the page."""
    refusals = re.compile(
        r"the server responded with a status of (400|403|409|503)|net::ERR_(CONNECTION|EMPTY|SOCKET_NOT_CONNECTED)"
    )
    return [entry["message"] for entry in driver.get_log("browser") if not refusals.search(entry["message"])]
