"""What an open page learns by itself, and what that leaves alone."""

import concurrent.futures
import contextlib
import http.client
import json
import signal
import time
from collections.abc import Callable, Iterator

import pytest
from selenium.webdriver.chrome.webdriver import WebDriver
from selenium.webdriver.common.keys import Keys

from conftest import DEFAULTS
from site_support import LIMIT, Page, Site, eventually, within_a_second

LONG_BEFORE_A_STREAM_ENDS = 15.0  # seconds; half of what a stream lasts


@pytest.fixture
def live(page: Page, site: Site) -> Page:
    """An open page whose stream of changes is there."""
    site.await_streams(1)
    return page


def test_a_foreign_change_appears_within_a_second(live: Page, site: Site) -> None:
    def change(attempt: int) -> Callable[[], object]:
        site.merge({"Audio": {"volume": f"1{attempt}"}})
        return lambda: live.value("Audio", "volume") == f"1{attempt}"

    def add(attempt: int) -> Callable[[], object]:
        site.merge({f"Door{attempt}": {"lock": "1"}})
        return lambda: live.has(f"Door{attempt}", "lock")

    def erase(attempt: int) -> Callable[[], object]:
        site.merge({"Door0": {"lock": f"1{attempt}"}})
        live.await_value("Door0", "lock", f"1{attempt}")
        with site.client() as client:
            client.erase("Door0")
        return lambda: not live.has("Door0")

    within_a_second(change)
    within_a_second(add)
    within_a_second(erase)


def test_a_foreign_change_touches_neither_typed_text_nor_focus(live: Page, site: Site) -> None:
    typed = live.type("Audio", "volume", "6")
    site.merge({"Audio": {"volume": "90", "ringtone": "bell"}})
    live.await_value("Audio", "ringtone", "bell")
    eventually(lambda: "Changed elsewhere to “90”" in live.find("form[data-group=Audio] [data-elsewhere]").text)
    assert live.focused() == typed
    typed.send_keys("5")
    assert live.value("Audio", "volume") == "65"
    live.press("Audio", "save")
    live.await_alert("somebody else has changed ‘volume’")
    assert site.value("Audio", "volume") == "90"


def test_a_foreign_change_of_the_focused_field_keeps_the_focus(live: Page, site: Site) -> None:
    field = live.field("Audio", "volume")
    field.click()
    site.merge({"Audio": {"volume": "33"}})
    live.await_value("Audio", "volume", "33")
    assert live.focused() == field


def test_a_note_goes_when_the_change_is_taken_back(live: Page, site: Site) -> None:
    live.type("Audio", "volume", "65")
    site.merge({"Audio": {"volume": "90"}})
    eventually(lambda: live.all("[data-elsewhere]"))
    site.merge({"Audio": {"volume": "40"}})
    eventually(lambda: not live.all("[data-elsewhere]"))
    live.press("Audio", "save")
    live.await_said("Saved ‘volume’")


def test_text_typed_into_an_erased_group_stays_and_can_be_saved(live: Page, site: Site) -> None:
    live.type("Network/Guest", "ssid", "Party")
    with site.client() as client:
        client.erase("Network/Guest")
    eventually(lambda: live.all("form[data-group='Network/Guest'] [data-elsewhere]"))
    assert live.value("Network/Guest", "ssid") == "Party"
    live.press("Network/Guest", "save")
    live.await_alert("somebody else has changed ‘ssid’")
    assert live.find("[data-conflict] [data-theirs]").text == "erased"
    live.find("[data-action=take-mine]").click()
    live.await_said("Saved ‘ssid’")
    assert site.value("Network/Guest", "ssid") == "Party"


def test_a_server_that_is_away_is_said_and_over_by_itself(live: Page, site: Site) -> None:
    typed = live.type("Audio", "volume", "65")
    site.server.stop(signal.SIGKILL)
    live.await_alert("The settings cannot be read or changed now: ")
    live.await_alert("Connection refused: start korlo-settings-server")
    assert live.value("Audio", "volume") == "65"
    site.server.start()
    site.merge({"Display": {"brightness": "5"}})
    live.await_value("Display", "brightness", "5")
    eventually(lambda: live.alert == "")
    assert live.focused() == typed
    assert live.value("Audio", "volume") == "65"
    live.press("Audio", "save")
    live.await_said("Saved ‘volume’")


def test_a_save_while_the_server_is_away_loses_no_text(live: Page, site: Site) -> None:
    live.type("Audio", "volume", "65")
    site.server.stop(signal.SIGKILL)
    live.press("Audio", "save")
    live.await_alert("The settings cannot be read or changed now: ")
    site.server.start()
    eventually(lambda: live.alert == "")
    assert live.value("Audio", "volume") == "65"
    live.press("Audio", "save")
    live.await_said("Saved ‘volume’")


def test_a_page_opened_without_a_server_fills_by_itself(browser: WebDriver, site: Site) -> None:
    site.server.stop(signal.SIGKILL)
    page = Page(browser, site.url).open()
    assert "The settings cannot be read or changed now: " in page.alert
    assert browser.title == "Error: Settings"
    site.server.start()
    eventually(lambda: page.has("Audio", "volume"))


def test_changes_between_two_streams_are_not_lost(live: Page, site: Site) -> None:
    site.php.stop()
    site.merge({"Audio": {"volume": "77"}})
    with site.client() as client:
        client.erase("Network/Guest")
    site.php.start()
    live.await_value("Audio", "volume", "77")
    eventually(lambda: not live.has("Network/Guest"))


def test_a_web_server_that_is_away_is_said_and_over_by_itself(live: Page, site: Site) -> None:
    site.php.stop()
    live.await_alert("The web server of this page does not answer.")
    site.php.start()
    eventually(lambda: live.alert == "")


def test_what_failed_before_is_said_again_when_the_web_server_is_back(live: Page, site: Site) -> None:
    live.type("Audio", "volume", "65")
    site.merge({"Audio": {"volume": "90"}})
    live.press("Audio", "save")
    failure = live.await_alert("somebody else has changed ‘volume’")
    site.php.stop()
    live.await_alert("The web server of this page does not answer.")
    site.php.start()
    eventually(lambda: live.alert == failure)


def test_ten_tabs_share_one_stream_and_an_eleventh_opens_at_once(live: Page, site: Site) -> None:
    driver = live.driver
    for _ in range(9):
        driver.switch_to.new_window("tab")
        live.open()
    assert len(driver.window_handles) == 10
    site.merge({"Audio": {"volume": "21"}})
    for tab in driver.window_handles:
        driver.switch_to.window(tab)
        live.await_value("Audio", "volume", "21")
    assert site.streams() == 1

    def open_another(_: int) -> Callable[[], object]:
        driver.switch_to.new_window("tab")
        return lambda: live.open().value("Audio", "volume") == "21"

    within_a_second(open_another)


# --- The stream itself


class Stream:
    """Reads the stream of changes as a browser does."""

    def __init__(self, site: Site) -> None:
        self._connection = http.client.HTTPConnection("127.0.0.1", site.php.port, timeout=2 * LIMIT)
        self._connection.request("GET", "/changes")
        self._response = self._connection.getresponse()
        assert self._response.headers["Content-Type"].startswith("text/event-stream")
        self.retry = int(self._line().removeprefix("retry: "))

    def __enter__(self) -> "Stream":
        return self

    def __exit__(self, kind: object, error: object, traceback: object) -> None:
        self.close()

    def close(self) -> None:
        self._response.close()
        self._connection.close()

    def _line(self) -> str:
        return self._response.readline().decode().rstrip("\n")

    def event(self) -> tuple[str, dict[str, object]] | None:
        """The next event; None: the stream has ended."""
        while line := self._response.readline().decode():
            if line.startswith("event: "):
                return line.removeprefix("event: ").rstrip(), json.loads(self._line().removeprefix("data: "))
        return None


@pytest.fixture(scope="module", autouse=True)
def length_of_a_stream(tmp_path_factory: pytest.TempPathFactory) -> Iterator["concurrent.futures.Future[float]"]:
    """How many seconds a stream lasts, measured while the other tests run."""

    def measure(site: Site) -> float:
        begin = time.monotonic()
        with Stream(site) as stream:
            assert stream.retry == 50
            while stream.event() is not None:
                pass
        return time.monotonic() - begin

    with Site(tmp_path_factory.mktemp("length"), workers=2) as site, concurrent.futures.ThreadPoolExecutor() as pool:
        yield pool.submit(measure, site)


def test_a_stream_tells_all_groups_first_and_then_what_changes(site: Site) -> None:
    with Stream(site) as stream:
        kind, told = stream.event() or ("", {})
        assert kind == "groups" and told["whole"] is True
        names = [bytes.fromhex(name).decode() for name in told["groups"]]  # type: ignore[attr-defined]
        assert names == ["Audio", "Display", "Network/Guest", "Network/Wifi"]
        site.merge({"Audio": {"volume": "1"}})
        kind, told = stream.event() or ("", {})
        assert told["whole"] is False and list(told["groups"]) == [b"Audio".hex()]  # type: ignore[call-overload]


@pytest.fixture(scope="module")
def quiet_site(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Site]:
    """A page of its own, with four workers, that no browser has open."""
    with Site(tmp_path_factory.mktemp("quiet"), defaults=DEFAULTS) as site:
        yield site


def test_streams_leave_a_worker_to_pages(quiet_site: Site) -> None:
    with contextlib.ExitStack() as stack:
        streams = [stack.enter_context(Stream(quiet_site)) for _ in range(20)]
        begin = time.monotonic()
        assert quiet_site.plain().get().status == 200
        assert time.monotonic() - begin < LONG_BEFORE_A_STREAM_ENDS
        lasting = [stream for stream in streams if stream.retry < 2000]
        assert len(lasting) <= 3
    quiet_site.await_streams(0)  # a browser that has gone frees its worker


def test_a_stream_never_holds_up_a_request_of_its_worker(quiet_site: Site) -> None:
    for _ in range(30):
        first = http.client.HTTPConnection("127.0.0.1", quiet_site.php.port, timeout=LIMIT)
        second = http.client.HTTPConnection("127.0.0.1", quiet_site.php.port, timeout=LONG_BEFORE_A_STREAM_ENDS)
        with contextlib.closing(first), contextlib.closing(second):
            first.connect()
            second.connect()
            first.request("GET", "/changes")
            second.request("GET", "/favicon.ico")
            second.getresponse().read()
            first.getresponse()


def test_a_single_worker_answers_at_once_and_the_page_asks_every_two_seconds(
    browser: WebDriver, tmp_path_factory: pytest.TempPathFactory
) -> None:
    with Site(tmp_path_factory.mktemp("single"), defaults=DEFAULTS, workers=1) as site:
        begin = time.monotonic()
        with Stream(site) as stream:
            assert stream.retry == 2000
            assert (stream.event() or ("", {}))[0] == "groups"
            assert stream.event() is None
        assert time.monotonic() - begin < LONG_BEFORE_A_STREAM_ENDS
        page = Page(browser, site.url).open()
        typed = page.type("Display", "brightness", "9")
        site.merge({"Audio": {"volume": "54"}})
        page.await_value("Audio", "volume", "54")
        assert page.focused() == typed
        typed.send_keys(Keys.ENTER)
        page.await_said("Saved ‘brightness’")
        browser.get("about:blank")  # before its server goes


def test_a_stream_ends_after_half_a_minute(length_of_a_stream: "concurrent.futures.Future[float]") -> None:
    assert 29.0 < length_of_a_stream.result(90.0) < 45.0
