"""The page of pyxctl report-page in a browser.

PYXCTL_PATH names the program; the directory SCREENSHOT_DIRECTORY, if set, gets pictures. Needs the Debian packages
chromium, chromium-driver and python3-selenium.
"""

import base64
import collections
import functools
import http.server
import json
import os
import pathlib
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.parse

from page_service import PageService
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

PATIENCE_S = 60
# The beginning of an hour that is long enough ago, and not longer, for a chart by the hour.
BEGINNING = int(time.time()) // 3600 * 3600 - 40 * 3600
THREATS = [b"phishing", b"malware", b"scam", b"botnet", b"spyware", b"adware", b"worm", b"undefined"]

# What was reported, and how it is to be shown.
HOSTILE = [
    (b"<script>hacked = 1; alert(1)</script>", "<script>hacked = 1; alert(1)</script>"),
    (b"</script><script>hacked = 1; alert(1)</script>", "</script><script>hacked = 1; alert(1)</script>"),
    (b"</script ", "</script "),
    (b"</SCRIPT/x", "</SCRIPT/x"),
    (b"<!--<script>", "<!--<script>"),
    (b"<!--<script ", "<!--<script "),
    (b"\"'><img src=http://127.0.0.1:9/x onerror=hacked=1>", "\"'><img src=http://127.0.0.1:9/x onerror=hacked=1>"),
    (b"</td></table></textarea></title><svg onload=hacked=1>", "</td></table></textarea></title><svg onload=hacked=1>"),
    (b"<style>*{display:none}</style>", "<style>*{display:none}</style>"),
    (b"<base href=//127.0.0.1:9/><link rel=icon href=x>", "<base href=//127.0.0.1:9/><link rel=icon href=x>"),
    (b"javascript:hacked=1", "javascript:hacked=1"),
    (b"&lt;b&gt; &#60;i&#62; %3Cu%3E", "&lt;b&gt; &#60;i&#62; %3Cu%3E"),
    (b"{{data}} {{nothing}} ${hacked=1}", "{{data}} {{nothing}} ${hacked=1}"),
    (b"__proto__", "__proto__"),
    (b"constructor", "constructor"),
    (b"\0\x01\x1b[31m\r\n\t\x7f", r"\x00\x01\x1b[31m\x0d\x0a\x09\x7f"),
    (b"\xff\xfe\xc3(\xed\xa0\x80", r"\xff\xfe\xc3(\xed\xa0\x80"),
    ("\u202egnp.exe\u2066\u200f".encode(), r"\xe2\x80\xaegnp.exe\xe2\x81\xa6\xe2\x80\x8f"),
    ("\u200b\u2028\ufeff".encode(), r"\xe2\x80\x8b\xe2\x80\xa8\xef\xbb\xbf"),
    ("אבג münchen 例え".encode(), "אבג münchen 例え"),
    (rb"\x41\\", r"\\x41\\\\"),
    (b"   ", "   "),
    (b"", ""),
]
TIMES = [0, BEGINNING, 2**31 - 1]
MEGABYTE = 1 << 20
LANDMARKS = ("main", "banner", "contentinfo")


def clock(at, form="%Y-%m-%d %H:%M:%S"):
    return time.strftime(form, time.gmtime(at))


def many_records(count):
    """One each minute, also in its last second; every url is another one."""
    records = []
    for index in range(count):
        url = b"http://host%d.example/%04d" % (index % 41, index * 7919 % 10000)
        records.append((url, THREATS[index % 36 % 8], BEGINNING + 60 * index + (59 if index % 3 == 2 else 0)))
    return records


def hostile_records():
    records = [(b"http://%s/%s" % (text, text), text, TIMES[at % 3]) for at, (text, _) in enumerate(HOSTILE)]
    records += [(text, THREATS[0], BEGINNING) for text, _ in HOSTILE]
    # The counters name every threat twice, in an answer of 16 MiB at most.
    for byte in (b"x", b"\0", b"<"):
        records.append((b"http://a.example/" + byte * MEGABYTE, byte * (MEGABYTE // 2), BEGINNING))
    return records


PAGES = {
    "empty": ([], {"max_records": 10}),
    "three": ([(b"http://a.example/%d" % at, THREATS[at % 2], BEGINNING + 60 * at) for at in range(3)], {}),
    "many": (many_records(1000), {}),
    "hostile": (hostile_records(), {"logging": False}),
}


def start_browser(directory):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in (
        "--headless=new",
        "--no-sandbox",
        "--disable-gpu",
        "--disable-quic",
        "--disable-dev-shm-usage",
        "--no-first-run",
        "--no-proxy-server",
        "--disable-background-networking",
        "--disable-component-update",
        "--disable-sync",
        "--hide-scrollbars",
        "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1",
        f"--user-data-dir={directory}/profile",
    ):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    # Its caches and settings stay in the directory, and nothing between it and this machine goes through a proxy.
    os.environ.update(HOME=directory, XDG_CONFIG_HOME=directory, XDG_CACHE_HOME=directory, no_proxy="*")
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    browser.set_page_load_timeout(PATIENCE_S)
    browser.set_script_timeout(PATIENCE_S)
    return browser


def make_page(name, directory):
    records, options = PAGES[name]
    path = f"{directory}/{name}.html"
    with PageService(records, **options) as service:
        subprocess.run(
            [os.environ["PYXCTL_PATH"], "report-page", path, "--socket", service.path, "--timeout", str(PATIENCE_S)],
            env={"TZ": "UTC", "LC_ALL": "C.UTF-8"}, stdout=subprocess.DEVNULL, check=True, timeout=PATIENCE_S,
        )
    return path


def setUpModule():
    temporary = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
    unittest.addModuleCleanup(temporary.cleanup)
    PageTest.directory = temporary.name
    PageTest.paths = {name: make_page(name, temporary.name) for name in PAGES}
    PageTest.browser = start_browser(temporary.name)
    unittest.addModuleCleanup(PageTest.browser.quit)


# Every piece of text that is to be seen whose contrast to what lies behind it is too small to be read with ease, and
# every coloured part of a chart that does not stand out.
FAINT = """
const channels = (text) => text.match(/[\\d.]+/g).map(Number);
const over = (front, back) => {
  const alpha = front[3] ?? 1;
  return [0, 1, 2].map((i) => front[i] * alpha + back[i] * (1 - alpha));
};
const backdrop = (node) => {
  const own = channels(getComputedStyle(node).backgroundColor);
  if ((own[3] ?? 1) === 1) return own.slice(0, 3);
  return over(own, node.parentElement ? backdrop(node.parentElement) : [255, 255, 255]);
};
const light = (color) => {
  const [r, g, b] = color.map((c) => c / 255).map((c) => c <= .04045 ? c / 12.92 : ((c + .055) / 1.055) ** 2.4);
  return .2126 * r + .7152 * g + .0722 * b;
};
const contrast = (a, b) => { const [x, y] = [light(a), light(b)].sort((p, q) => q - p); return (x + .05) / (y + .05); };
const faint = [], seen = [];
const judge = (what, color, back, least) => {
  const ratio = contrast(over(channels(color), back), back);
  seen.push(what);
  if (ratio < least) faint.push(what + " " + ratio.toFixed(2));
};
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
while (walker.nextNode()) {
  const node = walker.currentNode.parentElement, style = getComputedStyle(node);
  if (!walker.currentNode.data.trim() || node.closest("script") || node.getClientRects().length === 0) continue;
  const color = node instanceof SVGElement ? style.fill : style.color;
  judge(walker.currentNode.data.slice(0, 40), color, backdrop(node), 4.5);
}
for (const node of document.querySelectorAll("input")) {
  judge("placeholder", getComputedStyle(node, "::placeholder").color, backdrop(node), 4.5);
}
const card = document.querySelector(".card"), back = channels(getComputedStyle(card).backgroundColor);
for (const node of document.querySelectorAll("#chart g rect")) judge("column", getComputedStyle(node).fill, back, 3);
for (const node of document.querySelectorAll(".part, .swatch")) {
  judge("bar", getComputedStyle(node).backgroundColor, back, 3);
}
return [faint, seen.length, back];
"""

# Parts of the page that reach over its right edge, but for those in a frame that can be moved, and texts that reach
# over that of their cell, which cuts them off. A name that is cut off in a ranking ends with three dots.
STICKING_OUT = """
const parts = [...document.querySelectorAll("body *")]
  .filter((node) => node.getBoundingClientRect().right > innerWidth + 1 && !node.closest(".scroll, .name"));
const cells = [...document.querySelectorAll("td, h1, dd, p")].filter((node) => {
  const range = document.createRange();
  range.selectNodeContents(node);
  return range.getBoundingClientRect().right > node.getBoundingClientRect().right + 1;
});
return [...parts, ...cells].map((node) => node.tagName + "." + node.getAttribute("class"));
"""


class PageTest(unittest.TestCase):
    """What the tests share: one browser, in which each opens a page anew."""

    def setUp(self):
        self.see()
        self.browser.get("about:blank")
        for kind in ("browser", "performance"):
            self.browser.get_log(kind)

    def command(self, name, **parameters):
        return self.browser.execute_cdp_cmd(name, parameters)

    def see(self, theme="light", width=1280, height=900, media=""):
        """How the next page is seen."""
        features = [{"name": "prefers-color-scheme", "value": theme}]
        self.command("Emulation.setEmulatedMedia", media=media, features=features)
        size = {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600}
        self.command("Emulation.setDeviceMetricsOverride", **size)

    def open(self, name, fragment=""):
        self.browser.get(pathlib.Path(self.paths[name]).as_uri() + fragment)

    def script(self, text, *arguments):
        return self.browser.execute_script(text, *arguments)

    def find(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def find_all(self, selector):
        return self.browser.find_elements(By.CSS_SELECTOR, selector)

    def texts(self, selector):
        return self.script("""
            return [...document.querySelectorAll(arguments[0])].map((each) => each.textContent)""", selector)

    def columns_of_the_chart(self):
        """What each of them is called."""
        return self.script("""
            return [...document.querySelectorAll('#chart .hit')].map((hit) => hit.getAttribute('aria-label'))""")

    def column(self, kind):
        return self.texts(f"#rows td.{kind}")

    def wait(self, condition, what=""):
        WebDriverWait(self.browser, PATIENCE_S, poll_frequency=0.05).until(lambda _: condition(), what)

    def wait_for_count(self, text):
        self.wait(lambda: self.find("#count").text == text, text)

    def search(self, text):
        box = self.find("#search")
        box.clear()
        box.send_keys(text)

    def fragment(self):
        return urllib.parse.parse_qs(self.script("return location.hash.slice(1)"), keep_blank_values=True)

    def events(self):
        return [json.loads(entry["message"])["message"] for entry in self.browser.get_log("performance")]

    def requests_and_dialogs(self):
        events = self.events()
        sent = [event["params"]["request"] for event in events if event["method"] == "Network.requestWillBeSent"]
        dialogs = [event for event in events if event["method"] == "Page.javascriptDialogOpening"]
        return [urllib.parse.urldefrag(request["url"]).url for request in sent], dialogs

    def complaints(self):
        return [entry["message"] for entry in self.browser.get_log("browser")]

    def take_picture(self, name):
        picture = base64.b64decode(self.command("Page.captureScreenshot", format="png")["data"])
        directory = os.environ.get("SCREENSHOT_DIRECTORY")
        if directory:
            os.makedirs(directory, exist_ok=True)
            pathlib.Path(directory, f"{name}.png").write_bytes(picture)


class TheInstruments(PageTest):
    """What the other tests find nothing with finds something where there is something."""

    def test_see_requests_dialogs_and_complaints(self):
        path = pathlib.Path(self.directory, "control.html")
        path.write_text("<img src=http://127.0.0.1:9/x><script>setTimeout(() => alert(1))</script>", encoding="utf-8")
        self.browser.get(path.as_uri())
        self.wait(lambda: self.browser.switch_to.alert)
        self.browser.switch_to.alert.accept()
        requests, dialogs = self.requests_and_dialogs()
        self.assertIn("http://127.0.0.1:9/x", requests)
        self.assertEqual(len(dialogs), 1)
        self.wait(self.complaints)

    def test_see_text_that_is_hard_to_read(self):
        path = pathlib.Path(self.directory, "faint.html")
        path.write_text("<body class=card style='background:#fff;color:#999'>Text", encoding="utf-8")
        self.browser.get(path.as_uri())
        faint, seen, _ = self.script(FAINT)
        self.assertEqual((faint, seen), (["Text 2.85"], 1))


class AnEmptyLog(PageTest):
    def test_is_said_to_be_empty(self):
        self.open("empty")
        self.assertEqual(self.find("#empty").text, "Nothing was reported yet, or every record has grown too old.")
        self.assertEqual(self.find("#count").text, "0 records")
        for hidden in ("#time-card", "#rankings", "#tools", "#log", "#more"):
            self.assertFalse(self.find(hidden).is_displayed(), hidden)
        self.assertIn("Records kept at most\n10", self.find("#config").text.replace(" 10", "\n10"))
        self.assertEqual(self.complaints(), [])

    def test_takes_a_fragment_too(self):
        self.open("empty", "#q=x&threat=y&host=&from=1&to=2&sort=url")
        self.assertEqual(self.find("#count").text, "0 records")
        self.assertEqual(self.complaints(), [])


class ThreeRecords(PageTest):
    def test_are_shown_with_everything_else(self):
        self.open("three")
        self.assertEqual(self.find("#count").text, "3 records")
        self.assertEqual(self.column("index"), ["2", "1", "0"])
        self.assertEqual(self.column("time"), [clock(BEGINNING + after) for after in (120, 60, 0)])
        self.assertEqual(self.column("threat"), ["phishing", "malware", "phishing"])
        self.assertEqual(self.column("host"), ["a.example"] * 3)
        self.assertEqual(self.column("url"), ["http://a.example/2", "http://a.example/1", "http://a.example/0"])
        self.assertEqual(self.texts("#threats .name"), ["phishing", "malware"])
        self.assertEqual(self.texts("#threats .number"), ["2", "1"])
        self.assertEqual(self.texts("#hosts .number"), ["3"])
        counted = self.script("return [...document.querySelectorAll('#chart g rect')].length")
        self.assertGreaterEqual(counted, 1)
        self.assertEqual(self.texts("#counters tbody tr:first-child td"), ["3", "3"])
        self.assertEqual(self.complaints(), [])


class AThousandRecords(PageTest):
    def test_are_shown_bit_by_bit(self):
        self.open("many")
        self.assertEqual(self.find("#count").text, "1,000 records")
        for rows, more in ((100, "Show 500 more"), (600, "Show 400 more"), (1000, None)):
            self.assertEqual(len(self.column("index")), rows)
            if more:
                self.assertEqual(self.find("#more").text, more)
                self.find("#more").click()
        self.assertFalse(self.find("#more").is_displayed())

    def test_are_searched(self):
        records = PAGES["many"][0]
        self.open("many")
        for words, found in (
            ("HOST7.example", [record for record in records if b"host7." in record[0]]),
            ("host7. phishing", [record for record in records if b"host7." in record[0] and record[1] == b"phishing"]),
            (f'"{clock(BEGINNING + 3600, "%Y-%m-%d %H:0")}"', records[60:70]),
            (f'"{clock(BEGINNING + 3600, "%Y-%m-%d %H:0")}', records[60:70]),
            ("no such thing", []),
        ):
            self.search(words)
            self.wait_for_count(f"{len(found)} of 1,000 records")
            self.assertEqual(self.column("url"), [url.decode() for url, _, _ in reversed(found)])
            self.wait(lambda words=words: self.fragment().get("q") == [words])
        self.assertEqual(self.find("#empty").text, "No record matches.")
        self.search(" " + Keys.BACKSPACE)
        self.wait_for_count("1,000 records")
        self.assertEqual(self.fragment(), {})

    def test_are_sorted_by_every_column(self):
        self.open("many", "#q=host7.")
        rows = len(self.column("index"))
        self.assertGreater(rows, 20)
        for kind, key, first in (("url", str, "ascending"), ("index", int, "descending"), ("time", str, "descending"),
                                 ("threat", str, "ascending"), ("host", str, "ascending")):
            for direction in (first, {"ascending": "descending", "descending": "ascending"}[first]):
                self.find(f"#log th.{kind} button").click()
                self.wait(lambda: self.find(f"#log th.{kind}").get_attribute("aria-sort") == direction, kind)
                shown = [key(text) for text in self.column(kind)]
                self.assertEqual(shown, sorted(shown, reverse=direction == "descending"))
                self.assertEqual(len(shown), rows)
                self.assertEqual(len(self.find_all("#log th[aria-sort]")), 1)

    def test_are_filtered_by_the_fragment(self):
        records = PAGES["many"][0]
        found = [url.decode() for url, threat, _ in records if b"host7." in url and threat == b"malware"]
        self.assertGreater(len(found), 0)
        self.open("many", "#q=HOST7.&threat=malware&sort=at")
        self.assertEqual(self.column("url"), found)
        self.assertEqual(self.find("#search").get_attribute("value"), "HOST7.")
        self.assertEqual(self.texts("#threats [aria-pressed=true] .name"), ["malware"])
        self.assertEqual(self.texts(".chip"), ["malware ×"])
        self.script("location.hash = '#host=host9.example'")
        self.wait_for_count(f"{sum(b'host9.' in url for url, _, _ in records)} of 1,000 records")
        self.assertEqual(set(self.column("host")), {"host9.example"})
        self.script("location.hash = ''")
        self.wait_for_count("1,000 records")

    def test_are_all_shown_for_a_fragment_that_makes_no_sense(self):
        self.open("many", "#from=soon&to=1e5&sort=nothing&%E0%A4%A=&=&&")
        self.assertEqual(self.find("#count").text, "1,000 records")
        self.assertEqual(self.find("#log th.time").get_attribute("aria-sort"), "descending")
        self.assertEqual(self.complaints(), [])

    def test_are_filtered_by_a_bar_and_by_a_column_of_the_chart(self):
        records = PAGES["many"][0]
        self.open("many")
        self.find("#threats li:nth-child(2) button").click()
        picked = self.texts("#threats li:nth-child(2) .name")[0]
        expected = sum(threat.decode() == picked for _, threat, _ in records)
        self.wait_for_count(f"{expected} of 1,000 records")
        self.assertEqual(self.fragment(), {"threat": [picked]})
        self.find(".chip").click()
        self.wait_for_count("1,000 records")
        self.assertEqual(self.script("return document.activeElement.id"), "search")
        self.find("#chart .hit").send_keys(Keys.ARROW_RIGHT, Keys.ENTER)
        self.wait(lambda: self.find_all(".chip"))
        begin, end = (int(self.fragment()[name][0]) for name in ("from", "to"))
        inside = sum(begin <= at <= end for _, _, at in records)
        self.assertIn(inside, range(1, 1000))
        self.wait_for_count(f"{inside} of 1,000 records")
        self.assertEqual(len(self.find_all("#chart [aria-pressed=true]")), 1)

    def test_make_up_the_whole_of_the_chart(self):
        self.open("many")
        labels = self.columns_of_the_chart()
        shown = {label.split(" to ")[0]: int(label.split(": ")[1].split()[0]) for label in labels}
        expected = collections.Counter(clock(at, "%a %Y-%m-%d %H:00") for _, _, at in PAGES["many"][0])
        self.assertEqual(+collections.Counter(shown), expected)
        self.assertEqual(sum(int(text.replace(",", "")) for text in self.texts("#threats .number")), 1000)

    def test_are_counted_by_every_host_when_asked(self):
        self.open("many")
        self.assertEqual(len(self.texts("#hosts .name")), 8)
        self.find("#hosts + .more").click()
        self.wait(lambda: len(self.texts("#hosts .name")) == 41)
        self.assertEqual(sum(int(text) for text in self.texts("#hosts .number")), 1000)

    def test_are_all_printed(self):
        self.see(theme="dark")
        self.open("many")
        self.script("""
            addEventListener('beforeprint', () => {
              window.printed = document.querySelectorAll('#rows tr').length;
            })""")
        document = base64.b64decode(self.command("Page.printToPDF")["data"])
        self.assertTrue(document.startswith(b"%PDF"))
        self.assertEqual(self.script("return window.printed"), 1000)
        self.wait(lambda: len(self.column("index")) == 100)
        self.see(theme="dark", media="print")
        self.assertEqual(self.script(FAINT)[::2], [[], [255, 255, 255]])
        for hidden in ("#tools", "#theme", "#more"):
            self.assertFalse(self.find(hidden).is_displayed(), hidden)
        self.take_picture("print")


class HostileTexts(PageTest):
    def expected(self):
        """The urls and threats, the newest first."""
        urls = ["http://" + shown + "/" + shown for _, shown in HOSTILE] + [shown for _, shown in HOSTILE]
        threats = [shown for _, shown in HOSTILE] + ["phishing"] * len(HOSTILE)
        names = {"": "(none)", "   ": "(blank)"}
        return urls[::-1], [names.get(threat, threat) for threat in threats[::-1]]

    def test_do_nothing(self):
        self.open("hostile", "#sort=-index")
        self.assertEqual(self.column("index"), [str(index) for index in reversed(range(2 * len(HOSTILE) + 3))])
        self.script("""
            const all = ".unfold, #threats + .more, #hosts + .more, #threats button, .chip, #log th button";
            for (const button of document.querySelectorAll(all)) button.click();
        """)
        self.script("for (const hit of document.querySelectorAll('#chart .hit')) { hit.focus(); hit.blur(); }")
        requests, dialogs = self.requests_and_dialogs()
        self.assertEqual((requests, dialogs), ([pathlib.Path(self.paths["hostile"]).as_uri()], []))
        self.assertEqual(self.script("return typeof hacked"), "undefined")
        self.assertEqual(self.complaints(), [])

    def test_make_no_element(self):
        self.open("hostile")
        def count(selector):
            return len(self.find_all(selector))

        self.assertEqual(count("script"), 2)
        self.assertEqual(count("style"), 2)
        self.assertEqual(count("a"), 1)
        self.assertEqual(count("img, iframe, object, embed, base, link, form, textarea, title ~ title, [onload]"), 0)
        self.assertEqual(count("table"), 3)

    def test_are_shown_letter_by_letter(self):
        self.open("hostile", "#sort=-index")
        for button in self.find_all(".unfold"):
            self.script("arguments[0].click()", button)
        urls, threats = self.expected()
        self.assertEqual(self.column("url")[3:], urls)
        self.assertEqual(self.column("threat")[3:], threats)
        for marked in self.texts("#rows .odd"):
            self.assertRegex(marked, r"^(\\x[0-9a-f]{2})+$")
        row = self.find_all("#rows td.threat")[3 + threats.index(r"\\x41\\\\")]
        self.assertEqual(row.find_elements(By.CSS_SELECTOR, ".odd"), [])

    def test_that_are_long_are_cut_and_said_to_be(self):
        self.open("hostile", "#sort=-index")
        self.assertLess(max(len(text) for text in self.column("url")), 300)
        self.assertEqual(self.column("url")[1], "http://a.example/" + r"\x00" * 40 + "…more")
        self.find(".unfold").click()
        whole = "http://a.example/" + "<" * 2031 + "… The first 2,048 of 1,048,593 bytes."
        self.wait(lambda: self.column("url")[0] == whole)
        self.assertEqual(self.column("threat")[1], r"\x00" * 256 + "…")
        self.assertEqual(self.column("host")[:3], ["a.example"] * 3)

    def test_are_found(self):
        self.open("hostile")
        self.search("</script><script>hacked")
        self.wait_for_count("2 of 49 records")
        self.search(r"\xff\xfe")
        self.wait_for_count("2 of 49 records")
        self.search("(none)")
        self.wait(lambda: set(self.column("host")) == {"(none)"})

    def test_of_the_fragment_do_nothing(self):
        for name, value in (("q", "<img src=x onerror=hacked=1>"), ("threat", "</button><script>hacked=1</script>"),
                            ("host", "\u202e\0<b>"), ("sort", "__proto__"), ("from", "javascript:1")):
            self.open("hostile", "#" + urllib.parse.urlencode({name: value}))
            self.assertIn(" records", self.find("#count").text)
            self.assertEqual(len(self.find_all("img, script:not([nonce]), b")), 0)
        self.assertEqual(self.script("return typeof hacked"), "undefined")
        self.assertEqual(self.complaints(), [])

    def legibility(self, theme):
        self.see(theme=theme)
        faint, _, card = self.script(FAINT)
        return faint, sum(card) > 600

    def test_do_nothing_without_javascript_either(self):
        self.command("Emulation.setScriptExecutionDisabled", value=True)
        try:
            self.open("hostile")
            shown = [element.text for element in self.find_all("#rows td.index")]
            counts = [len(self.find_all(selector)) for selector in ("#rows tr", "table", "img, form, base, link")]
            words = self.find("main").text
            visible = self.find("#time-card").is_displayed()
            legible = [self.legibility(theme) for theme in ("light", "dark")]
            requests, _ = self.requests_and_dialogs()
        finally:
            self.command("Emulation.setScriptExecutionDisabled", value=False)
        self.assertEqual(shown, [str(index) for index in reversed(range(49))])
        self.assertEqual(counts, [49, 3, 0])
        for part in ("49 records, the newest first.", "Records kept at most 1,000", "Logging off", "phishing"):
            self.assertIn(part, words)
        self.assertFalse(visible)
        self.assertEqual(legible, [([], True), ([], False)])
        self.assertEqual(requests, [pathlib.Path(self.paths["hostile"]).as_uri()])


class ThePolicyOfThePage(PageTest):
    def test_allows_no_request(self):
        self.open("three")
        refused = self.browser.execute_async_script("""
            const done = arguments[0], refused = [];
            addEventListener("securitypolicyviolation", (event) => refused.push(event.effectiveDirective));
            const image = document.createElement("img");
            image.src = "http://127.0.0.1:9/";
            document.body.append(image);
            const frame = document.createElement("iframe");
            frame.src = "http://127.0.0.1:9/";
            document.body.append(frame);
            fetch("http://127.0.0.1:9/").catch(() => {});
            const look = () => refused.length >= 3 ? done(refused.sort()) : setTimeout(look, 20);
            look();
        """)
        self.assertEqual(refused, ["connect-src", "frame-src", "img-src"])

    def test_allows_no_script_or_style_but_its_own(self):
        self.open("three")
        refused = self.browser.execute_async_script("""
            const done = arguments[0], refused = [];
            addEventListener("securitypolicyviolation", (event) => refused.push(event.effectiveDirective));
            const style = document.createElement("style");
            style.textContent = "* { display: none }";
            document.body.append(style);
            document.body.setAttribute("style", "display: none");
            try {
              document.body.insertAdjacentHTML("beforeend", "<b>x</b>");
            } catch (error) {
              refused.push(error.name);
            }
            const look = () => refused.length >= 4 ? done(refused.sort()) : setTimeout(look, 20);
            look();
        """)
        self.assertEqual(refused, ["TypeError", "require-trusted-types-for", "style-src-attr", "style-src-elem"])
        self.assertTrue(self.find("h1").is_displayed())

    def test_lets_the_page_ask_a_server_for_nothing_but_itself(self):
        asked = []

        class Handler(http.server.SimpleHTTPRequestHandler):
            def log_message(self, *_):
                asked.append(self.path)

        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Handler, directory=self.directory))
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        try:
            self.browser.get(f"http://127.0.0.1:{server.server_port}/hostile.html")
            self.assertEqual(self.find("#count").text, "49 records")
            complaints = self.complaints()
        finally:
            self.browser.get("about:blank")
            server.shutdown()
            thread.join()
            server.server_close()
        self.assertEqual(asked, ["/hostile.html"])
        self.assertEqual(complaints, [])


class TheLooks(PageTest):
    def test_are_legible_light_and_dark(self):
        for theme in ("light", "dark"):
            for page, fragment in (("many", ""), ("many", "#q=host7.&threat=phishing"), ("hostile", ""), ("three", ""),
                                   ("empty", "")):
                with self.subTest(theme=theme, page=page, fragment=fragment):
                    self.see(theme=theme)
                    self.open(page, fragment)
                    faint, seen, card = self.script(FAINT)
                    self.assertEqual(faint, [])
                    self.assertGreater(seen, 20)
                    self.assertEqual(sum(card) > 600, theme == "light")

    def test_change_with_the_button_and_stay_changed(self):
        self.open("three")
        self.addCleanup(self.script, "localStorage.clear()")

        def is_light():
            return sum(self.script(FAINT)[2]) > 600

        self.assertEqual(self.find("#theme").get_attribute("aria-label"), "Dark colours")
        self.find("#theme").send_keys(Keys.ENTER)
        self.wait(lambda: not is_light())
        self.assertEqual(self.script(FAINT)[0], [])
        self.open("three")
        self.browser.refresh()
        self.assertFalse(is_light())
        self.find("#theme").click()
        self.wait(is_light)
        self.see(theme="dark")
        self.browser.refresh()
        self.assertTrue(is_light())

    def test_follow_the_system(self):
        self.open("three")
        for theme in ("dark", "light", "dark"):
            self.see(theme=theme)
            self.wait(lambda theme=theme: (sum(self.script(FAINT)[2]) > 600) == (theme == "light"))

    def test_fit_every_width(self):
        for width in (320, 390, 600, 721, 861, 1280, 2560):
            for page in ("empty", "three", "many", "hostile"):
                with self.subTest(width=width, page=page):
                    self.see(width=width)
                    self.open(page)
                    self.assertEqual(self.script(STICKING_OUT), [])
                    self.assertLessEqual(self.script("return document.documentElement.scrollWidth"), width)

    def test_are_drawn_anew_for_another_width(self):
        self.open("many")
        self.see(width=700)
        self.wait(lambda: self.script("""
            const box = document.querySelector('#chart');
            return box.firstChild.viewBox.baseVal.width === box.clientWidth;
        """))
        self.assertEqual(self.script(STICKING_OUT), [])

    def test_have_no_tick_that_covers_another(self):
        for width in (320, 390, 800, 1280):
            for page in ("three", "many", "hostile"):
                self.see(width=width)
                self.open(page)
                gaps = self.script("""
                    const ticks = [...document.querySelectorAll("#chart text[text-anchor=middle]")];
                    const boxes = ticks.map((text) => text.getBoundingClientRect());
                    return boxes.slice(1).map((box, at) => box.left - boxes[at].right);
                """)
                self.assertTrue(all(gap > 2 for gap in gaps), (width, page, gaps))

    def test_have_pictures(self):
        for name, page, theme, width, height in (
            ("light", "many", "light", 1280, 1500),
            ("dark", "many", "dark", 1280, 1500),
            ("narrow", "many", "light", 390, 2400),
            ("narrow-dark", "hostile", "dark", 390, 2400),
            ("hostile", "hostile", "light", 1280, 1500),
            ("empty", "empty", "light", 1280, 900),
            ("three", "three", "dark", 1280, 1300),
        ):
            self.see(theme=theme, width=width, height=height)
            self.open(page)
            self.take_picture(name)
            self.assertEqual(self.complaints(), [])


class TheKeyboard(PageTest):
    def test_reaches_everything_in_the_order_of_the_page(self):
        self.open("three")
        reached = []
        for _ in range(40):
            self.browser.switch_to.active_element.send_keys(Keys.TAB)
            name = self.script("""
                const node = document.activeElement;
                return node.id || (node.closest(".bars, tr") ? node.textContent : node.getAttribute("class"))""")
            if reached and name == reached[0]:
                break
            reached.append(name)
        stops = ["skip", "theme", "hit", "phishing2", "malware1", "a.example3", "search", "Index", "Url"]
        places = [reached.index(stop) for stop in stops]
        self.assertEqual(places, sorted(places), reached)

    def test_goes_to_the_search_with_a_slash(self):
        self.open("three")
        self.find("body").send_keys("/")
        self.assertEqual(self.script("return document.activeElement.id"), "search")
        self.find("#search").send_keys("a/0")
        self.wait_for_count("0 of 3 records")

    def test_skips_to_the_records(self):
        self.open("three")
        self.find(".skip").send_keys(Keys.ENTER)
        self.wait(lambda: self.script("return document.activeElement.id") == "records")
        self.assertEqual(self.find("#count").text, "3 records")

    def test_walks_over_the_columns_of_the_chart(self):
        self.open("many")
        first = self.find("#chart .hit")
        first.send_keys(Keys.END)
        labels = self.columns_of_the_chart()
        self.assertEqual(self.script("return document.activeElement.getAttribute('aria-label')"), labels[-1])
        self.assertEqual(self.find("#detail").text, labels[-1])
        self.browser.switch_to.active_element.send_keys(Keys.ARROW_LEFT)
        self.assertEqual(self.script("return document.activeElement.getAttribute('aria-label')"), labels[-2])
        self.assertEqual(len(self.find_all("#chart [tabindex='0']")), 1)


class AScreenReader(PageTest):
    def names(self):
        """The roles and names of what can be used, as the browser tells them to it."""
        nodes = self.command("Accessibility.getFullAXTree")["nodes"]
        wanted = ("button", "searchbox", "link", "table", "columnheader", "region", "heading", *LANDMARKS)
        return [
            (node["role"]["value"], node.get("name", {}).get("value", ""))
            for node in nodes if not node.get("ignored") and node.get("role", {}).get("value") in wanted
        ]

    def test_is_told_the_name_of_everything(self):
        for page in ("three", "hostile", "empty"):
            self.open(page)
            names = self.names()
            self.assertEqual([role for role, name in names if not name and role not in LANDMARKS], [], page)
            for landmark in LANDMARKS:
                self.assertEqual([role for role, _ in names].count(landmark), 1)

    def test_is_told_that_a_narrow_table_is_one(self):
        self.see(width=390)
        self.open("three")
        nodes = self.command("Accessibility.getFullAXTree")["nodes"]
        roles = [node["role"]["value"] for node in nodes if not node.get("ignored") and "role" in node]
        self.assertEqual(roles.count("columnheader"), 5 + 3)
        self.assertIn(("table", "Records"), self.names())

    def test_is_told_how_many_records_match(self):
        self.open("three")
        self.assertEqual(self.find("#count").get_attribute("role"), "status")
        self.search("a.example/1")
        self.wait_for_count("1 of 3 records")


if __name__ == "__main__":
    unittest.main(verbosity=2)
