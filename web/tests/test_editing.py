"""What people do on the page, in a browser."""

from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from site_support import Page, Site, eventually


def test_lists_the_groups_with_their_keys_and_values(page: Page) -> None:
    names = [form.get_attribute("data-group") for form in page.all("form[data-group]")]
    assert names == ["Audio", "Display", "Network/Guest", "Network/Wifi"]
    assert page.value("Audio", "volume") == "40"
    assert page.value("Display", "idleText") == "Welcome!\nRing for reception."


def test_a_save_sends_the_edited_key_alone(page: Page, site: Site) -> None:
    site.merge({"Audio": {"mute": "0"}})
    page.open()
    page.type("Audio", "volume", "65")
    with site.client() as client:
        watch = client.watch("Audio", initial=False)
        page.press("Audio", "save")
        page.await_said("Saved ‘volume’ of ‘Audio’")
        assert next(watch).settings["Audio"] == {"mute": "0", "ringtone": "  chime  ", "volume": "65"}
    assert page.value("Audio", "volume") == "65"


def test_a_key_is_added(page: Page, site: Site) -> None:
    page.find("form[data-group=Audio] [name=new-key]").send_keys("bass")
    page.find("form[data-group=Audio] [name=new-value]").send_keys("3")
    page.press("Audio", "add")
    page.await_said("Added ‘bass’ to ‘Audio’")
    assert site.value("Audio", "bass") == "3"
    assert page.value("Audio", "bass") == "3"
    assert page.find("form[data-group=Audio] [name=new-key]").get_property("value") == ""


def test_a_group_is_added(page: Page, site: Site) -> None:
    for name, text in (("new-group", "Door <2>"), ("new-key", "lock"), ("new-value", "1")):
        page.find(f"#new-group [name={name}]").send_keys(text)
    page.find("#new-group button").click()
    page.await_said("Added ‘lock’ to ‘Door <2>’")
    assert site.value("Door <2>", "lock") == "1"
    assert page.value("Door <2>", "lock") == "1"


def test_a_group_is_erased_and_restored(page: Page, site: Site) -> None:
    page.press("Network/Guest", "erase")
    page.await_said("Erased ‘Network/Guest’, which held ‘ssid’ = ‘Visitors’")
    assert not page.has("Network/Guest")
    with site.client() as client:
        assert client.get("Network/Guest") == {}
    page.find("form[data-erased='Network/Guest'] [data-action=restore]").click()
    page.await_said("Restored ‘Network/Guest’: ‘ssid’ was missing and is ‘Visitors’")
    assert page.value("Network/Guest", "ssid") == "Visitors"
    assert site.value("Network/Guest", "ssid") == "Visitors"


def test_what_differs_from_the_defaults_is_marked(page: Page) -> None:
    assert page.all("mark") == []
    page.type("Audio", "volume", "65")
    page.press("Audio", "save")
    row = "form[data-group=Audio] p[data-row='766f6c756d65']"
    eventually(lambda: page.find(f"{row} small").text == "changed default: 40")
    page.press("Audio", "restore")
    page.await_said("Restored ‘Audio’: ‘volume’ was ‘65’ and is ‘40’.")
    assert page.all("mark") == []


def test_a_conflict_shows_mine_theirs_and_what_it_was(page: Page, site: Site) -> None:
    page.type("Audio", "volume", "65")
    site.merge({"Audio": {"volume": "90"}})
    page.press("Audio", "save")
    page.await_alert("somebody else has changed ‘volume’ of ‘Audio’")
    conflict = page.find("form[data-group=Audio] [data-conflict]")
    shown = [conflict.find_element(By.CSS_SELECTOR, f"[data-{name}]").text for name in ("mine", "theirs", "was")]
    assert shown == ["65", "90", "40"]
    assert page.value("Audio", "volume") == "65"
    assert site.value("Audio", "volume") == "90"


def test_take_mine_saves_over_what_was_shown(page: Page, site: Site) -> None:
    page.type("Audio", "volume", "65")
    site.merge({"Audio": {"volume": "90"}})
    page.press("Audio", "save")
    eventually(lambda: page.find("[data-action=take-mine]")).click()
    page.await_said("Saved ‘volume’")
    assert site.value("Audio", "volume") == "65"
    assert page.all("[data-conflict]") == []


def test_take_theirs_leaves_what_is_there(page: Page, site: Site) -> None:
    page.type("Audio", "volume", "65")
    site.merge({"Audio": {"volume": "90"}})
    page.press("Audio", "save")
    eventually(lambda: page.find("[data-action=take-theirs]")).click()
    page.await_said("nothing to save")
    assert site.value("Audio", "volume") == "90"
    assert page.value("Audio", "volume") == "90"
    assert page.all("[data-conflict]") == []


def test_the_filter_shows_groups_by_name_and_by_key(page: Page) -> None:
    def shown() -> list[str | None]:
        return [form.get_attribute("data-group") for form in page.all("form[data-group]") if form.is_displayed()]

    search = page.find("input[type=search]")
    search.send_keys("network")
    eventually(lambda: shown() == ["Network/Guest", "Network/Wifi"])
    search.send_keys(Keys.CONTROL, "a")
    search.send_keys("VOLUME")
    eventually(lambda: shown() == ["Audio"])
    search.send_keys(Keys.ENTER)
    eventually(lambda: "q=VOLUME" in page.driver.current_url)
    eventually(lambda: shown() == ["Audio"])
