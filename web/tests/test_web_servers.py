"""The files for nginx, lighttpd and PHP's process manager, behind a login, with the page served for real."""

import base64
import contextlib
import os
import subprocess
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from site_support import WEB, PlainBrowser, Site, eventually, within_a_second

HOST = "panel.example"
LOGIN = "Basic " + base64.b64encode(b"operator:secret").decode()
NGINX = """
{user}
daemon off;
pid {folder}/nginx.pid;
error_log {folder}/nginx.log;
events {{}}
http {{
    include /etc/nginx/mime.types;
    access_log off;
    client_body_temp_path {folder}/body;
    fastcgi_temp_path {folder}/fastcgi;
    proxy_temp_path {folder}/proxy;
    scgi_temp_path {folder}/scgi;
    uwsgi_temp_path {folder}/uwsgi;
    include {folder}/site.conf;
}}
"""
LIGHTTPD = """
server.document-root = "{folder}"
server.bind = "{folder}/lighttpd.sock"
server.errorlog = "{folder}/lighttpd.log"
server.upload-dirs = ( "{folder}" )
mimetype.assign = ( ".js" => "text/javascript", ".css" => "text/css", ".svg" => "image/svg+xml" )
include "{folder}/site.conf"
"""


def adapted(name: str, folder: Path) -> str:
    """A file as it is shipped, for places of this test."""
    text = (WEB / name).read_text()
    for shipped, here in (
        ("/usr/share/korlo-settings-web", str(WEB)),
        ("/etc/korlo-settings-web/htpasswd", f"{folder}/htpasswd"),
        ("/run/php/korlo-settings.sock", f"{folder}/php.sock"),
        ("listen 80;", f"listen unix:{folder}/nginx.sock;"),
        ("www-data", os.environ.get("USER", "root") if os.getuid() != 0 else "root"),
        (";env[KORLO_SETTINGS_ADDRESS]", "env[KORLO_SETTINGS_ADDRESS]"),
        ("/run/korlo-settings/socket", f"{folder}/socket"),
    ):
        text = text.replace(shipped, here)
    return text


@contextlib.contextmanager
def running(*command: str, until: Path) -> Iterator[None]:
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        eventually(until.exists)
        yield
    finally:
        process.terminate()
        process.wait(20)


@pytest.fixture(scope="module")
def php(shared_site: Site, folder: Path) -> Iterator[Path]:
    """PHP's process manager with the pool as it is shipped."""
    password = subprocess.check_output(["openssl", "passwd", "-apr1", "secret"], text=True)
    (folder / "htpasswd").write_text(f"operator:{password}")
    (folder / "htpasswd").chmod(0o644)
    (folder / "pool.conf").write_text(adapted("php-fpm.conf", folder))
    (folder / "fpm.conf").write_text(f"[global]\nerror_log = {folder}/fpm.log\ninclude = {folder}/pool.conf\n")
    program = [os.environ["PHP_FPM"], "--allow-to-run-as-root", "--fpm-config", str(folder / "fpm.conf")]
    subprocess.run([*program, "--test"], check=True, capture_output=True)
    with running(*program, "--nodaemonize", until=folder / "php.sock"):
        yield folder


@pytest.fixture(scope="module", params=["nginx", "lighttpd"])
def door(request: pytest.FixtureRequest, php: Path) -> Iterator[Path]:
    """The socket of a web server with its file as it is shipped."""
    folder = php
    name = request.param
    (folder / "site.conf").write_text(adapted(f"{name}.conf", folder))
    main = folder / f"{name}-main.conf"
    user = "user root;" if os.getuid() == 0 else ""  # who may read this tree
    main.write_text((NGINX if name == "nginx" else LIGHTTPD).format(folder=folder, user=user))
    if name == "nginx":
        check = ["nginx", "-t", "-q", "-e", f"{folder}/nginx.log", "-c", str(main)]
        command = ["nginx", "-e", f"{folder}/nginx.log", "-c", str(main)]
    else:
        check = ["lighttpd", "-tt", "-f", str(main)]
        command = ["lighttpd", "-D", "-f", str(main)]
    checked = subprocess.run(check, capture_output=True, text=True, check=False)
    assert checked.returncode == 0, checked.stdout + checked.stderr
    with running(*command, until=folder / f"{name}.sock"):
        yield folder / f"{name}.sock"


@pytest.fixture
def browser_behind_login(door: Path, site: Site) -> PlainBrowser:
    return PlainBrowser(door, HOST, Authorization=LOGIN)


def test_nothing_is_shown_or_changed_without_the_login(door: Path, site: Site) -> None:
    stranger = PlainBrowser(door, HOST)
    for path in ("/settings/", "/settings/changes", "/settings/page.js", "/settings/index.php", "/settings/?q=a"):
        answer = stranger.get(path)
        assert answer.status in (401, 404) and b"Audio" not in answer.body
    assert stranger.post({"action": "erase"}, "/settings/").status == 401
    wrong = PlainBrowser(door, HOST, Authorization="Basic " + base64.b64encode(b"operator:wrong").decode())
    assert wrong.get("/settings/").status == 401


def test_behind_the_login_the_page_is_drawn_and_saves(browser_behind_login: PlainBrowser, site: Site) -> None:
    browser = browser_behind_login
    form = browser.get("/settings/").forms()["Audio"]
    answer = browser.press(form, "save", {"volume": "65"}, "/settings/")
    assert answer.said == "Saved ‘volume’ of ‘Audio’."
    assert site.value("Audio", "volume") == "65"
    for file, kind in (("page.js", "javascript"), ("page.css", "text/css"), ("vendor/simple.min.css", "text/css")):
        found = browser.get(f"/settings/{file}")
        assert found.status == 200 and kind in found.headers["Content-Type"]
    assert browser.get("/settings").headers["Location"].endswith("/settings/")
    assert "hidden" in browser.get("/settings/?q=audio").forms()["Display"].attributes
    assert browser.get("/settings/nothing").status == 404
    assert browser.get("/settings/../src/Site.php").status in (400, 403, 404)


def test_a_host_that_the_pool_does_not_name_is_403(door: Path, site: Site) -> None:
    assert PlainBrowser(door, "evil.example", Authorization=LOGIN).get("/settings/").status == 403


def test_changes_arrive_at_once_and_streams_leave_processes_to_pages(
    browser_behind_login: PlainBrowser, site: Site
) -> None:
    with contextlib.ExitStack() as stack:
        streams = []
        for _ in range(6):
            connection = stack.enter_context(contextlib.closing(browser_behind_login.connect()))
            connection.request("GET", "/settings/changes", headers={"Host": HOST, "Authorization": LOGIN})
            streams.append(connection.getresponse())
        retries = [stream.readline() for stream in streams]
        assert sorted(retries) == [b"retry: 2000\n"] * 4 + [b"retry: 50\n"] * 2
        begin = time.monotonic()
        assert browser_behind_login.get("/settings/").status == 200
        assert time.monotonic() - begin < 15.0  # long before a stream ends
        first = streams[retries.index(b"retry: 50\n")]
        site.await_streams(2)
        while b'"whole":true' not in first.readline():
            pass

        def change(attempt: int) -> Callable[[], object]:
            site.merge({"Audio": {"volume": f"1{attempt}"}})
            return lambda: b'"whole":false' in first.readline()

        within_a_second(change)
    site.await_streams(0)  # a browser that has gone frees its process
