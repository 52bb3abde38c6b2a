"""Who may not, what is never shown, and what is said when the settings cannot be had."""

import contextlib
import os
import re
import shutil
import socket
import threading
from pathlib import Path

import pytest

from conftest import DEFAULTS
from site_support import WEB, PhpServer, PlainBrowser, Site


@pytest.fixture
def plain(site: Site) -> PlainBrowser:
    return site.plain()


# --- Forged requests


def test_a_post_without_its_token_is_403_and_changes_nothing(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    fields = {**form.fields, form.keys["volume"]: "65", "action": "save"}
    del fields["token"]
    assert plain.post(fields).status == 403
    assert plain.post({**fields, "token": ""}).status == 403
    assert plain.post({**fields, "token": "0" * 32}).status == 403
    assert site.value("Audio", "volume") == "40"


def test_a_token_counts_only_with_its_cookie(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    assert site.plain().press(form, "save", {"volume": "65"}).status == 403
    stranger = site.plain()
    stranger.get()
    assert stranger.press(form, "save", {"volume": "65"}).status == 403
    stranger.cookies["korlo-settings-page"] = ""
    assert stranger.post({**form.fields, "token": "", form.keys["volume"]: "65", "action": "save"}).status == 403
    assert site.value("Audio", "volume") == "40"


def test_a_form_that_another_site_sends_is_403_even_with_a_token(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    fields = {**form.fields, form.keys["volume"]: "65", "action": "save"}
    assert plain.post(fields, Sec_Fetch_Site="same-site").status == 403
    assert plain.post(fields, Sec_Fetch_Site="cross-site").status == 403
    assert site.value("Audio", "volume") == "40"
    assert plain.post(fields, Sec_Fetch_Site="same-origin").status == 303


def test_the_cookie_stays_on_this_site_and_out_of_scripts(plain: PlainBrowser) -> None:
    cookie = plain.get().headers["Set-Cookie"]
    assert re.fullmatch(r"korlo-settings-page=[0-9a-f]{32}; Path=/; HttpOnly; SameSite=Strict", cookie)
    assert plain.get().headers["Set-Cookie"] is None


@pytest.mark.parametrize("host", ["localhost", "LOCALHOST:80", "127.0.0.1:8080", "127.9.9.9", "[::1]", "[::1]:8080"])
def test_a_loopback_host_is_answered(site: Site, host: str) -> None:
    assert site.plain(host).get().status == 200


@pytest.mark.parametrize(
    "host", ["evil.example", "localhost.evil.example", "127.0.0.1.evil.example", "1127.0.0.1", "[::2]", "", ":80", ","]
)
def test_another_host_is_403_and_is_shown_nothing(site: Site, host: str) -> None:
    browser = site.plain(host)
    for path in ("/", "/changes"):
        answer = browser.get(path)
        assert answer.status == 403
        assert b"Audio" not in answer.body and b"Audio".hex().encode() not in answer.body
    assert browser.post({"action": "save"}).status == 403


def test_hosts_of_the_configuration_are_answered(site: Site) -> None:
    php = PhpServer({**site.environment, "KORLO_SETTINGS_HOSTS": "panel.example, Door.local"}).start()
    with contextlib.closing(contextlib.ExitStack()) as stack:
        stack.callback(php.stop)
        for host in ("panel.example", "panel.example:8443", "PANEL.example", "door.local"):
            assert PlainBrowser(php.port, host).get().status == 200
        assert PlainBrowser(php.port, "example").get().status == 403


def test_every_answer_forbids_scripts_frames_and_other_places(plain: PlainBrowser, site: Site) -> None:
    for answer in (plain.get(), plain.get("/nothing"), plain.post({}), site.plain("evil.example").get()):
        policy = answer.headers["Content-Security-Policy"]
        assert policy.startswith("default-src 'none'; script-src 'self'; ")
        assert "frame-ancestors 'none'" in policy and "base-uri 'none'" in policy and "form-action 'self'" in policy
        assert "unsafe" not in policy and "*" not in policy and "http" not in policy
        assert answer.headers["X-Content-Type-Options"] == "nosniff"
        assert answer.headers["Cache-Control"] == "no-store"


def test_the_page_asks_nobody_else(plain: PlainBrowser) -> None:
    files = [plain.get().body, *(path.read_bytes() for path in (WEB / "public").rglob("*") if path.is_file())]
    for body in files:
        assert re.findall(rb"(?:https?:)?//[a-z0-9.-]+\.[a-z]+", body.replace(b"http://www.w3.org/2000/svg", b"")) == []
        assert b"url(" not in body


def test_other_methods_and_addresses_are_refused(plain: PlainBrowser) -> None:
    assert plain.request("DELETE", "/").status == 405
    assert plain.get("/nothing").status == 404
    assert plain.get("/favicon.ico").status == 404
    assert plain.get("/?group=zz").status == 400
    assert plain.get("/?group[][]=41&q[]=1").status == 200
    assert plain.get("/src/Site.php").status == 404


def test_what_is_larger_than_php_takes_is_told(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    php = PhpServer(site.environment, 1, options=("-d", "post_max_size=2M", "-d", "display_startup_errors=0")).start()
    try:
        browser = PlainBrowser(php.port)
        browser.cookies = plain.cookies
        answer = browser.press(form, "add", new_key="a", new_value="x" * 3000000)
        assert answer.status == 413 and "larger than PHP takes here" in answer.alert
    finally:
        php.stop()


# --- What is never shown


def test_restricted_groups_are_in_no_response(plain: PlainBrowser, site: Site) -> None:
    site.merge({"Audio": {"volume": "1"}})
    hexes = ["&".join(f"group[]={name.encode().hex()}" for name in ("DeviceSecure", "TrustedKeys"))]
    answers = [plain.get(path) for path in ("/", "/?q=Secure", "/?q=root", f"/?{hexes[0]}", "/?group[]=" + b"*".hex())]
    form = plain.get().forms()["Audio"]
    for group in ("DeviceSecure", "TrustedKeys"):
        for action in ("save", "add", "erase", "restore"):
            fields = {"group": group.encode().hex(), "now:" + b"k".hex(): "1", "was:" + b"k".hex(): "0", "new-key": "k"}
            answer = plain.post({"token": form.fields["token"], "action": action, "digest": "", **fields})
            assert answer.status == 403
            answers.append(answer)
    single = PhpServer(site.environment, 1).start()
    answers.append(PlainBrowser(single.port).get("/changes"))
    single.stop()
    for answer in answers:
        everything = answer.body + str(answer.headers).encode()
        for secret in ("DeviceSecure", "TrustedKeys", "pairingCode", "7731", "abcdef"):
            assert secret.encode() not in everything and secret.encode().hex().encode() not in everything


def test_text_is_shown_and_not_run(plain: PlainBrowser, site: Site) -> None:
    evil = "\"'><script>alert(1)</script>"
    site.merge({evil: {evil: evil}, "Audio": {"volume": evil}})
    form = plain.get().forms()[evil]
    answers = [plain.get(), plain.get("/?q=%22%3E%3Cscript%3E"), plain.press(form, "save", {evil: evil + "2"})]
    answers.append(plain.press(form, "save", {evil: evil + "3"}))
    answers.append(plain.press(form, "add", new_key=evil, new_value=evil))
    answers.append(plain.press(form, "erase"))
    for answer in answers:
        assert answer.text.count("<script") == 1  # the page's own
        assert "alert(1)" not in answer.text or "&lt;script&gt;alert(1)" in answer.text


# --- When the settings cannot be had


def test_what_the_rules_refuse_is_told_and_stays_typed(tmp_path: Path) -> None:
    (tmp_path / "rules.ini").write_text("[Access/page]\npeer=tcp\nread=*\n")
    with Site(tmp_path, "--access", str(tmp_path / "rules.ini"), defaults=DEFAULTS) as site:
        php = PhpServer({"KORLO_SETTINGS_ADDRESS": site.server.tcp_address}).start()
        try:
            browser = PlainBrowser(php.port)
            form = browser.get().forms()["Audio"]
            answer = browser.press(form, "save", {"volume": "65"})
            assert answer.status == 403
            assert "the access rules of the settings server do not let this page change ‘Audio’" in answer.alert
            assert answer.forms()["Audio"].fields[form.keys["volume"]] == "65"
            for action in ("erase", "restore"):
                assert browser.press(form, action).status == 403
            assert site.value("Audio", "volume") == "40"
        finally:
            php.stop()


@pytest.mark.parametrize(
    ("address", "sentence"),
    [
        ("unix:/nowhere/socket", "No such file or directory: start korlo-settings-server, or give the address"),
        ("127.0.0.1:1", "Connection refused: start korlo-settings-server, or give the address"),
        ("nonsense", "‘nonsense’ is not the address of a settings server".replace("‘", "'").replace("’", "'")),
    ],
)
def test_no_server_is_one_sentence_that_says_what_to_do(address: str, sentence: str) -> None:
    php = PhpServer({"KORLO_SETTINGS_ADDRESS": address}).start()
    try:
        answer = PlainBrowser(php.port).get()
        assert answer.status == 503
        assert sentence in answer.text.replace("&#039;", "'")
        assert "<title>Error: Settings</title>" in answer.text
        assert '<meta http-equiv="refresh" content="5">' in answer.text
    finally:
        php.stop()


def test_a_socket_without_permission_is_one_sentence_that_says_what_to_do(site: Site) -> None:
    folder = site.server.path.parent
    mode = folder.stat().st_mode
    folder.chmod(0)
    try:
        php = PhpServer(site.environment, user="nobody" if os.getuid() == 0 else None).start()
        try:
            answer = PlainBrowser(php.port).get()
            assert answer.status == 503
            assert "Permission denied: add the user of this program to the group of the socket" in answer.alert
        finally:
            php.stop()
    finally:
        folder.chmod(mode)


def test_what_is_no_settings_server_is_one_sentence(tmp_path: Path) -> None:
    listener = socket.create_server(("127.0.0.1", 0))

    def talk() -> None:
        with contextlib.suppress(OSError):
            while True:
                connection = listener.accept()[0]
                connection.sendall(b"220 mail.example ESMTP\r\n")
                connection.close()

    threading.Thread(target=talk, daemon=True).start()
    php = PhpServer({"KORLO_SETTINGS_ADDRESS": f"127.0.0.1:{listener.getsockname()[1]}"}).start()
    try:
        answer = PlainBrowser(php.port).get()
        assert answer.status == 503
        assert "which is no answer: check that a settings server, not older than 1.0, listens there" in answer.alert
    finally:
        php.stop()
        listener.close()


def test_without_the_control_door_what_was_set_here_is_marked(site: Site) -> None:
    site.merge({"Audio": {"volume": "65"}})
    php = PhpServer({"KORLO_SETTINGS_ADDRESS": site.server.address}).start()
    try:
        browser = PlainBrowser(php.port)
        assert "set here" not in browser.get("/?group[]=" + b"Display/none".hex()).text
        with site.client() as client:
            client.overwrite(["*"])
            client.merge({"Audio": {"volume": "65"}})
        assert browser.get().text.count("<mark>set here</mark>") == 1
    finally:
        php.stop()


def test_marks_survive_every_byte_of_the_text_that_they_are_read_from(tmp_path: Path) -> None:
    odd = {'k"=[#;]\\': ' "x" \n\r\t\\n ', "": "", "=": "=", "#": "\x00\x7f\udcff", "plain": "C:\\new\\x41"}
    groups = {"]": odd, '"': odd, "": odd, " a\n.\n": odd}
    with Site(tmp_path) as site:
        site.merge(groups)
        site.server.stop()
        shutil.copy(site.server.user_file, tmp_path / "defaults.ini")
        site.server.user_file.unlink()
        site.server.start()
        browser = site.plain()
        assert len(browser.get().forms()) == 4
        assert "<mark>" not in browser.get().text
        with site.client() as client:
            client.overwrite(["]"], {"]": {"plain": "x"}})
        text = browser.get().text
        assert text.count("<mark>changed</mark>") == 1
        assert text.count(", default: <q>") == 4


# --- Weight and speed


def test_the_page_of_a_device_weighs_less_than_60_kilobytes_in_all(plain: PlainBrowser) -> None:
    files = ("/", "/page.css", "/page.js", "/icon.svg", "/vendor/simple.min.css")
    weights = [len(plain.get(file).body) for file in files]
    assert all(weights)
    assert sum(weights) < 60000


@pytest.fixture(scope="module")
def thousand() -> dict[str, dict[str, str]]:
    return {f"Group/{group}": {f"key{key}": f"value {key}" for key in range(10)} for group in range(1000)}


def test_a_thousand_groups_of_ten_keys_are_drawn_within_300_ms(
    plain: PlainBrowser, site: Site, thousand: dict[str, dict[str, str]]
) -> None:
    site.merge(thousand)
    begin = site.processor_seconds()  # which, unlike the clock, do not count other tests
    answers = [plain.get() for _ in range(5)]
    assert answers[0].text.count("data-key=") == 10000 + 7
    assert (site.processor_seconds() - begin) / len(answers) < 0.3
