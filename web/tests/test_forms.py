"""The page as plain forms, without JavaScript: what it shows, what it changes, and what it refuses."""

import concurrent.futures

import pytest

from site_support import PlainBrowser, Site


@pytest.fixture
def plain(site: Site) -> PlainBrowser:
    return site.plain()


def test_the_page_lists_every_group_as_a_form(plain: PlainBrowser) -> None:
    forms = plain.get().forms()
    assert list(forms) == ["Audio", "Display", "Network/Guest", "Network/Wifi"]
    assert list(forms["Audio"].keys) == ["ringtone", "volume"]
    assert forms["Display"].fields[forms["Display"].keys["idleText"]] == "Welcome!\nRing for reception."
    assert forms["Audio"].buttons == {"save", "add", "restore", "erase"}


def test_the_filter_is_a_form(plain: PlainBrowser) -> None:
    shown = [name for name, form in plain.get("/?q=GUEST").forms().items() if "hidden" not in form.attributes]
    assert shown == ["Network/Guest"]


def test_a_save_is_answered_by_the_page_that_says_so(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    answer = plain.post({**form.fields, form.keys["volume"]: "65", "action": "save"})
    assert (answer.status, answer.headers["Location"]) == (303, "/")
    drawn = plain.get()
    assert drawn.said == "Saved ‘volume’ of ‘Audio’."
    assert plain.get().said == ""
    assert site.value("Audio", "volume") == "65"


def test_a_save_without_edits_changes_nothing(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    site.merge({"Audio": {"volume": "3"}})
    assert plain.press(form, "save").said == "There was nothing to save in ‘Audio’."
    assert site.value("Audio", "volume") == "3"


def test_a_save_leaves_alone_what_others_changed_in_other_keys(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Network/Wifi"]
    site.merge({"Network/Wifi": {"channel": "11"}})
    assert "Saved ‘ssid’" in plain.press(form, "save", {"ssid": "Workshop"}).said
    with site.client() as client:
        assert client.get("Network/Wifi") == {"Network/Wifi": {"channel": "11", "ssid": "Workshop"}}


def test_a_conflict_is_409_and_shows_all_three_values(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Network/Wifi"]
    site.merge({"Network/Wifi": {"channel": "11"}})
    answer = plain.press(form, "save", {"channel": "1", "ssid": "Workshop"})
    assert answer.status == 409
    assert "somebody else has changed ‘channel’ of ‘Network/Wifi’" in answer.alert
    for part in ("<q data-mine>1</q>", "<q data-theirs>11</q>", "<q data-was>6</q>"):
        assert part in answer.text
    again = answer.forms()["Network/Wifi"]
    assert again.fields[again.keys["channel"]] == "1"
    assert again.fields[again.keys["ssid"]] == "Workshop"
    assert {"take-mine", "take-theirs"} <= again.buttons
    with site.client() as client:
        assert client.get("Network/Wifi")["Network/Wifi"] == {"channel": "11", "ssid": "Reception"}


def test_take_mine_saves_everything_that_was_edited(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Network/Wifi"]
    site.merge({"Network/Wifi": {"channel": "11"}})
    conflict = plain.press(form, "save", {"channel": "1", "ssid": "Workshop"}).forms()["Network/Wifi"]
    assert "Saved" in plain.press(conflict, "mine:" + b"channel".hex()).said
    with site.client() as client:
        assert client.get("Network/Wifi")["Network/Wifi"] == {"channel": "1", "ssid": "Workshop"}


def test_take_theirs_saves_the_rest(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Network/Wifi"]
    site.merge({"Network/Wifi": {"channel": "11"}})
    conflict = plain.press(form, "save", {"channel": "1", "ssid": "Workshop"}).forms()["Network/Wifi"]
    assert plain.press(conflict, "theirs:" + b"channel".hex()).said == "Saved ‘ssid’ of ‘Network/Wifi’."
    with site.client() as client:
        assert client.get("Network/Wifi")["Network/Wifi"] == {"channel": "11", "ssid": "Workshop"}


def test_take_mine_after_yet_another_change_is_a_conflict_again(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    site.merge({"Audio": {"volume": "11"}})
    conflict = plain.press(form, "save", {"volume": "1"}).forms()["Audio"]
    site.merge({"Audio": {"volume": "12"}})
    answer = plain.press(conflict, "mine:" + b"volume".hex())
    assert answer.status == 409
    assert "<q data-theirs>12</q>" in answer.text and "<q data-was>11</q>" in answer.text
    assert site.value("Audio", "volume") == "12"


def test_two_who_type_the_same_do_not_disturb_each_other(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    site.merge({"Audio": {"volume": "1"}})
    assert plain.press(form, "save", {"volume": "1"}).said == "There was nothing to save in ‘Audio’."


def test_two_browsers_never_lose_a_step_of_a_counter(site: Site) -> None:
    site.merge({"Visits": {"count": "0"}})

    def count() -> None:
        browser = site.plain()
        saved = 0
        while saved < 25:
            form = browser.get("/?group[]=" + b"Visits".hex()).forms()["Visits"]
            value = int(form.fields[form.keys["count"]])
            answer = browser.press(form, "save", {"count": str(value + 1)})
            # A step to which the other browser has come as well is "nothing to save".
            saved += 1 if answer.said.startswith("Saved") else 0
            assert answer.status in (200, 409)

    with concurrent.futures.ThreadPoolExecutor() as pool:
        for done in [pool.submit(count) for _ in range(2)]:
            done.result()
    assert site.value("Visits", "count") == "50"


def test_a_key_is_added_and_one_that_exists_is_told(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    assert plain.press(form, "add", new_key="bass", new_value="3").said == "Added ‘bass’ to ‘Audio’."
    answer = plain.press(form, "add", new_key="bass", new_value="4")
    assert answer.status == 409
    assert "‘Audio’ has a key ‘bass’ already, with the value ‘3’" in answer.alert
    assert answer.forms()["Audio"].fields["new-value"] == "4"
    assert site.value("Audio", "bass") == "3"


def test_adding_a_key_keeps_what_is_typed_elsewhere_in_the_form(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    answer = plain.press(form, "add", {"volume": "65"}, new_key="bass", new_value="3")
    assert answer.said == "Added ‘bass’ to ‘Audio’."
    again = answer.forms()["Audio"]
    assert again.fields[again.keys["volume"]] == "65"
    assert (site.value("Audio", "volume"), site.value("Audio", "bass")) == ("40", "3")
    assert "Saved ‘volume’" in plain.press(again, "save").said


def test_enter_in_the_field_of_a_new_key_adds_it(plain: PlainBrowser, site: Site) -> None:
    plain.press(plain.get().forms()["Audio"], "save", new_key="bass", new_value="3")
    assert site.value("Audio", "bass") == "3"


def test_a_key_without_a_name_is_refused(plain: PlainBrowser) -> None:
    answer = plain.press(plain.get().forms()["Audio"], "add", new_value="3")
    assert (answer.status, answer.alert) == (400, "Nothing was added: a key needs a name. Fill it in.")


def test_a_group_is_added_and_one_that_exists_is_told(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().form("new-group")
    assert plain.press(form, "add", new_group="Door", new_key="lock", new_value="1").said == "Added ‘lock’ to ‘Door’."
    answer = plain.press(form, "add", new_group="Door", new_key="bell", new_value="1")
    assert answer.status == 409
    assert "there is a group ‘Door’ already, with ‘lock’ = ‘1’" in answer.alert
    assert site.value("Door", "bell") is None


def test_an_erased_group_is_told_with_what_it_held(plain: PlainBrowser, site: Site) -> None:
    answer = plain.press(plain.get().forms()["Network/Wifi"], "erase")
    assert answer.said == "Erased ‘Network/Wifi’, which held ‘channel’ = ‘6’, ‘ssid’ = ‘Reception’."
    assert "Network/Wifi" not in answer.forms()
    with site.client() as client:
        assert client.get("Network/Wifi") == {}


@pytest.mark.parametrize("action", ["erase", "restore"])
def test_erase_and_restore_refuse_what_has_changed_since_it_was_drawn(
    plain: PlainBrowser, site: Site, action: str
) -> None:
    form = plain.get().forms()["Audio"]
    site.merge({"Audio": {"volume": "90"}})
    answer = plain.press(form, action)
    assert answer.status == 409
    assert f"Nothing was {action.rstrip('e')}ed: somebody else has changed ‘Audio’" in answer.alert
    assert "It holds ‘ringtone’ = ‘  chime  ’, ‘volume’ = ‘90’" in answer.alert
    assert site.value("Audio", "volume") == "90"
    assert plain.press(answer.forms()["Audio"], action).status == 200
    assert site.value("Audio", "volume") == (None if action == "erase" else "40")


def test_erasing_a_group_that_is_gone_says_so(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    with site.client() as client:
        client.erase("Audio")
    answer = plain.press(form, "erase")
    assert answer.status == 409 and "It is gone." in answer.alert


def test_a_restore_tells_what_has_changed(plain: PlainBrowser, site: Site) -> None:
    site.merge({"Audio": {"volume": "90", "bass": "3"}})
    answer = plain.press(plain.get().forms()["Audio"], "restore")
    assert answer.said == "Restored ‘Audio’: ‘volume’ was ‘90’ and is ‘40’, ‘bass’ was ‘3’ and is gone."
    assert plain.press(answer.forms()["Audio"], "restore").said == "‘Audio’ had its defaults already."


def test_restoring_a_group_without_defaults_says_that_it_is_gone(plain: PlainBrowser, site: Site) -> None:
    site.merge({"Door": {"lock": "1"}})
    answer = plain.press(plain.get().forms()["Door"], "restore")
    assert answer.said == "‘Door’ is gone: it has no defaults. It held ‘lock’ = ‘1’."


def test_an_erased_key_of_the_defaults_is_shown(plain: PlainBrowser, site: Site) -> None:
    with site.client() as client:
        client.overwrite(["Audio"], {"Audio": {"volume": "40"}})
    assert "<li>ringtone, default: <q>  chime  </q></li>" in plain.get().text


# --- Every name and value

NAMES = [
    "",
    "5",
    "05",
    "-5",
    "a b",
    " a ",
    "a.b",
    "a[b]",
    "a=b",
    "#a",
    "'\"><script>alert(1)</script>&amp;",
    "Grüße, 世界 🎉",
    "a\\b",
    "a\tb",
    "%41%s%1$s",
    "..",
    "\u202eabc",
    "x" * 3000,
]


@pytest.mark.parametrize("name", NAMES, ids=range(len(NAMES)))
def test_every_name_and_value_makes_a_round_trip(plain: PlainBrowser, site: Site, name: str) -> None:
    site.merge({name: {"other": "1"} | ({name: name} if name else {})})
    form = plain.get().forms()[name]
    assert form.fields[form.keys["other"]] == "1"
    answer = plain.press(form, "save", {"other": name + "2"})
    assert answer.said.startswith("Saved ‘other’ of")
    assert site.value(name, "other") == name + "2"
    again = plain.get().forms()[name]
    assert again.fields[again.keys["other"]] == name + "2"
    if name != "":
        key = plain.press(again, "save", {name: "changed"})
        assert key.said.startswith("Saved") and site.value(name, name) == "changed"
    assert "Erased" in plain.press(plain.get().forms()[name], "erase").said
    with site.client() as client:
        assert name not in client.get("*")


@pytest.mark.parametrize("value", ["a\nb", "\na", "\n", "a\n\n", "a\r\nb", "\x00", "\x1b[0m", "\udcff\udcfe", "\x85"])
def test_a_value_is_edited_where_a_field_can_hold_it_else_shown_with_escapes(
    plain: PlainBrowser, site: Site, value: str
) -> None:
    site.merge({"Odd": {"key": value, "other": "1"}})
    form = plain.get().forms()["Odd"]
    is_text = not any(c in value for c in "\r\x00\x1b\udcff\x85")
    if is_text:
        assert form.fields[form.keys["key"]] == value
        assert plain.press(form, "save", {"key": value + "x"}).status == 200
        assert site.value("Odd", "key") == value + "x"
    else:
        assert form.keys["key"] == ""  # a field without a name is not sent
        assert "are no text." in plain.get().text
    assert plain.press(plain.get().forms()["Odd"], "save", {"other": "2"}).status == 200
    assert site.value("Odd", "key") == (value + "x" if is_text else value)


def test_bytes_are_shown_with_escapes(plain: PlainBrowser, site: Site) -> None:
    site.merge({"Odd": {"k\x01": "a\\b\x00\udcffä\r"}, "g\udcfe": {"k": "v"}})
    text = plain.get().text
    assert 'readonly aria-describedby="n-4f6464-6b01" value="a\\\\b\\x00\\xFF\\xC3\\xA4\\r"' in text
    assert 'data-key="k\\x01"' in text
    assert 'data-group="g\\xFE"' in text


@pytest.mark.parametrize("name", ["a*", "*", "a\nb", "."])
def test_a_group_that_no_request_can_name_is_shown_but_neither_erased_nor_restored(
    plain: PlainBrowser, site: Site, name: str
) -> None:
    site.merge({name: {"key": "1"}, "ab": {"key": "2"}})
    form = plain.get().forms()[name]
    assert form.buttons == {"save", "add"}
    for action in ("erase", "restore"):
        answer = plain.press(form, action)
        assert answer.status == 400 and "no request can name" in answer.alert
    assert plain.press(form, "save", {"key": "3"}).status == 200
    with site.client() as client:
        groups = client.get("*")
        assert groups[name] == {"key": "3"} and groups["ab"] == {"key": "2"}


def test_a_value_that_is_too_long_for_a_form_is_read_only(plain: PlainBrowser, site: Site) -> None:
    site.merge({"Long": {"key": "x" * 70000, "other": "1"}})
    answer = plain.get()
    assert answer.forms()["Long"].keys["key"] == ""
    assert "its 70000 bytes are too long for a form." in answer.text
    assert len(answer.body) < 60000
    plain.press(answer.forms()["Long"], "save", {"other": "2"})
    assert site.value("Long", "key") == "x" * 70000


def test_a_group_of_a_thousand_keys_is_saved_whole(plain: PlainBrowser, site: Site) -> None:
    site.merge({"Many": {f"key{number:04}": "old" for number in range(1000)}})
    answer = plain.get()
    forms = [answer.form(f"g-{b'Many'.hex()}{part}") for part in ("", ".1", ".2")]
    assert sum(len(form.keys) for form in forms) == 1000
    for form in forms:
        assert plain.press(form, "save", dict.fromkeys(form.keys, "new")).status == 200
    with site.client() as client:
        assert set(client.get("Many")["Many"].values()) == {"new"}


def test_a_store_that_is_larger_than_a_page_is_shown_in_part_and_found_by_the_filter(
    plain: PlainBrowser, site: Site
) -> None:
    site.merge({f"Huge{number:03}": {"key": "x" * 60000} for number in range(100)})
    site.merge({"Huge/Keys": {f"key{number}": "" for number in range(25000)}})
    drawn = plain.get()
    assert drawn.status == 200 and "One page cannot show all settings." in drawn.text
    assert len(drawn.body) < 16 * 1024 * 1024
    assert 'data-group="Huge099"' not in drawn.text
    assert 'data-group="Huge099"' in plain.get("/?q=huge099").text
    assert "This group has more keys than one page can show." in plain.get("/?q=Huge/Keys").text


def test_text_that_is_no_utf_8_is_refused(plain: PlainBrowser, site: Site) -> None:
    form = plain.get().forms()["Audio"]
    body = f"token={form.fields['token']}&group={form.fields['group']}&action=add&new-key=a&new-value=%FF".encode()
    answer = plain.request("POST", "/", body, Content_Type="application/x-www-form-urlencoded")
    assert answer.status == 400 and "what was sent is no text" in answer.alert
    assert site.value("Audio", "a") is None


@pytest.mark.parametrize(
    "fields",
    [
        {"action": "destroy"},
        {"action": "erase", "group": "zz"},
        {"action": "erase", "group": "4"},
        {"action": "save", "now:zz": "1"},
        {"take": "mine"},
        {"take": "mine:zz"},
        {"group[]": "41", "action[]": "save"},
        {"token[]": "1"},
        {},
    ],
    ids=range(9),
)
def test_a_form_that_makes_no_sense_is_refused_and_changes_nothing(
    plain: PlainBrowser, site: Site, fields: dict[str, str]
) -> None:
    form = plain.get().forms()["Audio"]
    with site.client() as client:
        before = client.get("*")
        answer = plain.post({"token": form.fields["token"], "group": form.fields["group"], **fields})
        assert answer.status in (303, 400, 403)
        assert client.get("*") == before
