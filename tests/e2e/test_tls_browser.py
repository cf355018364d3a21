"""A browser is led from the plain port to the page over HTTPS."""

import pytest

from support.browser import chromium, load


@pytest.fixture
def browser(tmp_path):
    """A browser that takes every certificate: its own store of authorities is not the tests'."""
    driver = chromium(tmp_path / "profile", "--ignore-certificate-errors")
    yield driver
    driver.quit()


@pytest.mark.limit(100)
def test_chromium_follows_the_redirect_and_loads_the_page(serve_tls, nginx, browser):
    names = [f"{number}.js" for number in range(1, 21)]
    for number, name in enumerate(names, 1):
        (nginx.root / name).write_text(f"window.sum = (window.sum || 0) + {number};")
    scripts = "".join(f'<script src="{name}"></script>' for name in names)
    (nginx.root / "page.html").write_text(f"<!doctype html><title>secured</title>{scripts}")
    program = serve_tls({"127.0.0.1:SSL": nginx})

    load(browser, f"http://127.0.0.1:{program.port}/page.html?lost=1")

    assert browser.current_url == f"https://127.0.0.1:{program.ssl_port}/page.html"
    assert browser.title == "secured"
    assert browser.execute_script("return window.sum") == 210
    assert browser.execute_script("return window.isSecureContext")
    for name in ["page.html", *names]:
        program.await_output(b" GET /%s HTTP/1.1 " % name.encode())
