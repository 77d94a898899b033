"""A headless Chromium for the browser tests and the pictures."""

import base64
import os
import sys

sys.path.append(os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "system"))

import plant

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
except ImportError:
    webdriver = None

CHROMIUM = "/usr/bin/chromium"
DRIVER = "/usr/bin/chromedriver"
OPTIONS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-dev-shm-usage",
           "--disable-background-networking", "--disable-component-update", "--disable-sync", "--hide-scrollbars",
           "--force-device-scale-factor=1"]


def available():
    return webdriver is not None and os.access(CHROMIUM, os.X_OK) and os.access(DRIVER, os.X_OK)


def start(folder, language="en", width=1200, height=1000):
    """A browser with an empty profile below folder; to be ended with quit()."""
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    own = ["--user-data-dir=" + os.path.join(folder, "profile"), "--window-size=%d,%d" % (width, height),
           "--lang=" + language]
    for option in OPTIONS + own:
        options.add_argument(option)
    options.add_experimental_option("prefs", {"intl.accept_languages": language})
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    service = Service(DRIVER, log_path=os.path.join(folder, "chromedriver.log"))
    driver = webdriver.Chrome(service=service, options=options)
    driver.set_page_load_timeout(plant.PATIENCE)
    driver.set_script_timeout(plant.PATIENCE)
    return driver


def set_view(driver, width, height=800, phone=False):
    """The page's width in pixels: a window has a least width of its own."""
    driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": height, "deviceScaleFactor": 2 if phone else 1, "mobile": phone})


def set_dark(driver, dark):
    driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
        "features": [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})


def take_picture(driver, path):
    """The whole page as a PNG file."""
    taken = driver.execute_cdp_cmd("Page.captureScreenshot", {"format": "png", "captureBeyondViewport": True})
    with open(path, "wb") as file:
        file.write(base64.b64decode(taken["data"]))
