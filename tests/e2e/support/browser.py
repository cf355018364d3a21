"""A headless Chromium."""

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

SWITCHES = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--disable-dev-shm-usage", "--no-proxy-server",
]


def start_browser(profile):
    options = Options()
    for switch in [*SWITCHES, f"--user-data-dir={profile}"]:
        options.add_argument(switch)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.set_page_load_timeout(40)
    return driver
