"""A headless Chromium, driven through its own driver."""

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.ui import WebDriverWait

SWITCHES = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--disable-dev-shm-usage", "--no-proxy-server",
]


def chromium(profile, *switches):
    """Start a browser with a profile of its own; quit() ends it."""
    options = Options()
    for switch in [*SWITCHES, *switches, f"--user-data-dir={profile}"]:
        options.add_argument(switch)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.set_page_load_timeout(40)
    return driver


def load(driver, address):
    """Type an address and wait until the page is complete."""
    driver.get(address)
    WebDriverWait(driver, 30).until(
        lambda driver: driver.execute_script("return document.readyState") == "complete")
