import os
import shutil
import tempfile
from collections.abc import Iterator
from pathlib import Path

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.chrome.webdriver import WebDriver

from site_support import Page, Site, console

DEFAULTS = """
[Audio]
ringtone="  chime  "
volume=40
[Display]
brightness=80
idleText="Welcome!\\nRing for reception."
[Network/Guest]
ssid=Visitors
[Network/Wifi]
channel=6
ssid=Reception
"""
RESTRICTED = """
[DeviceSecure]
pairingCode=7731
[TrustedKeys]
root=abcdef
"""


@pytest.fixture(scope="module")
def folder() -> Iterator[Path]:
    """A folder whose path is short enough for a socket."""
    path = Path(tempfile.mkdtemp(prefix="korlo"))
    yield path
    shutil.rmtree(path)


@pytest.fixture(scope="module")
def shared_site(folder: Path) -> Iterator[Site]:
    with Site(folder, defaults=DEFAULTS, restricted=RESTRICTED) as site:
        yield site


@pytest.fixture
def site(shared_site: Site) -> Site:
    """The page, with the settings of the start."""
    shared_site.repair()
    shared_site.reset()
    return shared_site


def start_browser(profile: Path) -> WebDriver:
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in (
        "--headless=new",
        "--no-sandbox",
        "--disable-gpu",
        "--disable-quic",
        "--disable-dev-shm-usage",
        "--no-first-run",
        "--disable-background-networking",
        "--disable-component-update",
        "--disable-sync",
        "--window-size=1000,900",
        f"--user-data-dir={profile}",
    ):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    os.environ.setdefault("HOME", str(profile))
    return webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))


@pytest.fixture(scope="session")
def session_browser() -> Iterator[WebDriver]:
    profile = Path(tempfile.mkdtemp(prefix="korlo-browser"))
    driver = start_browser(profile)
    yield driver
    driver.quit()
    shutil.rmtree(profile, ignore_errors=True)


@pytest.fixture
def browser(session_browser: WebDriver) -> Iterator[WebDriver]:
    """One browser for all tests; each leaves a single empty tab, and nothing in the console."""
    session_browser.get_log("browser")
    yield session_browser
    complaints = console(session_browser)
    first, *others = session_browser.window_handles
    for tab in others:
        session_browser.switch_to.window(tab)
        session_browser.close()
    session_browser.switch_to.window(first)
    session_browser.get("about:blank")
    assert complaints == []


@pytest.fixture
def page(browser: WebDriver, site: Site) -> Page:
    return Page(browser, site.url).open()
