#!/usr/bin/env python3
"""The presentation page in a real headless Chromium against a running dlna-dms.

Usage: presentation_test.py DLNA_DMS_BINARY WWW_DIR FIXTURES_MEDIA_DIR SCREENSHOT_DIR

Shares a small temporary library, then walks the page as a person would:
server name and counts, folders, playing a track, a file name made of HTML,
photo thumbnails and the full-size view, a 1,000-entry folder, and search.
Exits non-zero with the failed step on any failure; the server is always
stopped and the library removed.  Every wait is bounded by WAIT seconds.
"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

PORT = 49850
BASE = f"http://127.0.0.1:{PORT}"
NAME = "Browser Test"
HOSTILE = "<img src=x onerror=alert(1)>"
MANY = 1000
WAIT = 15

# Runs before the page's own script: records any alert instead of showing it.
ALERT_HOOK = "window.alertFired = false; window.alert = () => { window.alertFired = true; };"
# The list entry (button or link) whose title is exactly arguments[0], or null.
FIND_ENTRY = """return [...document.querySelectorAll('#entries .entry')]
  .find((e) => e.querySelector('.label').firstChild.textContent === arguments[0]) || null;"""


def make_library(root, media):
    files = {"Music/no-cover.mp3": "art/music/no-cover.mp3",
             "Music/01-track.mp3": "art/album/01-track.mp3",
             f"Music/{HOSTILE}.mp3": "tagged/mp3-no-tags.mp3",  # untagged: the name is its title
             "Photos/no-thumb-landscape.jpg": "art/photo/no-thumb-landscape.jpg",
             "Photos/exif-thumb-landscape.jpg": "art/photo/exif-thumb-landscape.jpg"}
    files.update({f"Many/track-{n:04}.mp3": "tagged/mp3-no-tags.mp3" for n in range(MANY)})
    for target, source in files.items():
        os.makedirs(os.path.dirname(os.path.join(root, target)), exist_ok=True)
        shutil.copyfile(os.path.join(media, source), os.path.join(root, target))


def wait_until_up(server, log):
    """Returns once dlna-dms has said it is sharing and its description
    answers.  Nothing is asked before that line: the SDK's web server already
    runs while the server is still registering its files."""
    deadline = time.monotonic() + WAIT
    while time.monotonic() < deadline and server.poll() is None:
        try:
            with open(log.name) as text:
                if "Sharing" in text.read():
                    with urllib.request.urlopen(BASE + "/description.xml", timeout=2):
                        return server
        except OSError:
            pass
        time.sleep(0.1)
    if server.poll() is not None:
        raise AssertionError(f"dlna-dms exited with status {server.returncode} before it came up")
    raise AssertionError(f"dlna-dms did not come up within {WAIT} s")


def start_browser():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--no-sandbox", "--headless=new", "--autoplay-policy=no-user-gesture-required",
                     "--window-size=1100,900", "--mute-audio"):
        options.add_argument(argument)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": ALERT_HOOK})
    return driver


def wait(driver, what, condition):
    return WebDriverWait(driver, WAIT, poll_frequency=0.1).until(condition, f"timed out: {what}")


def open_entry(driver, title):
    wait(driver, f"entry {title!r}", lambda d: d.execute_script(FIND_ENTRY, title)).click()


def open_crumb(driver, title):
    driver.find_element(By.XPATH, f"//ol[@id='crumbs']//button[text()='{title}']").click()


def run(driver, library, screenshots, step):
    step("server name and counts")
    driver.get(BASE + "/web/index.html")
    wait(driver, "server name", lambda d: d.find_element(By.ID, "server-name").text == NAME + ": DMS")
    wait(driver, "counts", lambda d: d.find_element(By.ID, "counts").text.startswith(
        f"4 folders · {MANY + 5} items ({MANY + 3} music, 2 photos, 0 videos)"))

    step("walk into Music and play a track")
    open_entry(driver, os.path.basename(library))
    open_entry(driver, "Music")
    open_entry(driver, "Track One")
    audio = wait(driver, "audio element", lambda d: d.find_element(By.CSS_SELECTOR, "#player audio"))
    driver.execute_script("arguments[0].play().catch(() => {});", audio)
    wait(driver, "playback past 0.5 s", lambda d: d.execute_script("return arguments[0].currentTime;", audio) > 0.5)

    step("a file name made of HTML shows as text")
    wait(driver, "hostile entry", lambda d: d.execute_script(FIND_ENTRY, HOSTILE))
    driver.save_screenshot(os.path.join(screenshots, "presentation.png"))

    step("photo thumbnails and the full-size view")
    open_crumb(driver, os.path.basename(library))
    open_entry(driver, "Photos")
    loaded = "return [...document.querySelectorAll('#photos img')].filter((i) => i.complete && i.naturalWidth > 0).length;"
    wait(driver, "two thumbnails", lambda d: d.execute_script(loaded) == 2)
    viewer_shows = "return document.getElementById('viewer').open && document.getElementById('viewer-image').naturalWidth > 0;"
    for index, close in ((0, "escape"), (1, "button")):  # opened by a click, then by Enter
        photo = driver.find_elements(By.CSS_SELECTOR, "#photos button")[index]
        if index == 0:
            photo.click()
        else:
            photo.send_keys(Keys.ENTER)
        wait(driver, "full-size view", lambda d: d.execute_script(viewer_shows))
        if close == "escape":
            driver.switch_to.active_element.send_keys(Keys.ESCAPE)
        else:
            driver.find_element(By.ID, "viewer-close").click()
        wait(driver, f"view closed by {close}", lambda d: not d.execute_script("return document.getElementById('viewer').open;"))
        assert driver.switch_to.active_element == photo, "the focus did not come back to the photo"

    step(f"a folder of {MANY} entries loads in pages")
    open_crumb(driver, os.path.basename(library))
    open_entry(driver, "Many")
    wait(driver, f"{MANY} entries", lambda d: d.find_element(By.ID, "status").text == f"{MANY} entries")
    count = len(driver.find_elements(By.CSS_SELECTOR, "#entries li"))
    assert count == MANY, f"{count} entries listed, {MANY} expected"

    step("search for a title")
    field = driver.find_element(By.ID, "search-text")
    field.send_keys("Track One", Keys.ENTER)
    wait(driver, "search heading", lambda d: d.find_element(By.ID, "crumbs").text.endswith("Search: Track One"))
    wait(driver, "search result", lambda d: d.execute_script(FIND_ENTRY, "Track One"))

    step("nothing ran from server texts")
    assert not driver.execute_script("return window.alertFired;"), "an alert fired"
    assert not driver.find_elements(By.CSS_SELECTOR, 'img[src="x"]'), "an <img src=x> was created"


def stop(server):
    """SIGTERM, then SIGKILL if it is still running after WAIT seconds; the exit status."""
    server.terminate()
    try:
        return server.wait(timeout=WAIT)
    except subprocess.TimeoutExpired:
        server.kill()
        return server.wait()


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    binary, www, media, screenshots = sys.argv[1:]
    # A runner's time-out (SIGTERM) still stops the server and the browser.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped by SIGTERM"))
    current = ["setup"]
    workspace = tempfile.mkdtemp(prefix="dms_browser_")
    library = os.path.join(workspace, "library")
    server = driver = None
    log = open(os.path.join(workspace, "server.log"), "w")
    started = time.monotonic()
    try:
        try:
            make_library(library, media)
            # The server's index goes into the scratch folder, not the user's.
            server = subprocess.Popen([binary, "--address", "127.0.0.1", "--port", str(PORT), "--www", www,
                                       "--name", NAME, "--state-dir", os.path.join(workspace, "state"), library],
                                      stdout=log, stderr=subprocess.STDOUT)
            wait_until_up(server, log)
            driver = start_browser()
            run(driver, library, screenshots, lambda name: current.__setitem__(0, name))
        finally:
            try:
                if driver is not None:
                    driver.quit()
            finally:
                status = stop(server) if server is not None else None
        current[0] = "the server stops cleanly on SIGTERM"  # also where sanitizer reports show
        assert status == 0, f"dlna-dms exited with status {status}"
        print(f"presentation page: all steps passed in {time.monotonic() - started:.1f} s")
        return 0
    except Exception as error:  # any failure ends the test with its step
        print(f"FAIL at step '{current[0]}': {type(error).__name__}: {error}", file=sys.stderr)
        with open(log.name) as text:
            print("server output (last lines):\n" + "".join(text.readlines()[-30:]), file=sys.stderr)
        return 1
    finally:
        log.close()
        shutil.rmtree(workspace, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
