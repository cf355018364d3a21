"""The example that keeps a list as JSON."""

import http.client
import json
import select

import pytest

from support.curl import curl, url
from support.raw import get


@pytest.fixture
def todo(example):
    return example("todo")


def ask(program, method, path, body=None, headers=None):
    """One request by Python's own client: status, headers and the JSON of the body."""
    client = http.client.HTTPConnection("127.0.0.1", program.port, timeout=20)
    try:
        client.request(method, path, body if body is None else json.dumps(body), headers or {})
        answer = client.getresponse()
        text = answer.read()
        return answer.status, answer.headers, json.loads(text) if text else None
    finally:
        client.close()


def test_todo_keeps_a_list(todo):
    assert ask(todo, "GET", "/todos")[2] == []
    status, headers, made = ask(todo, "POST", "/todos", {"text": "läsen \U0001F642", "other": 1})
    assert (status, headers["Location"]) == (201, "/todos/1")
    assert made == {"id": 1, "text": "läsen \U0001F642", "done": False}
    ask(todo, "POST", "/todos", {"text": "write", "done": True})
    assert ask(todo, "PUT", "/todos/1", {"done": True})[2] == {**made, "done": True}
    assert ask(todo, "PUT", "/todos/2", {"text": "paint", "done": False})[0] == 200
    assert [entry["id"] for entry in ask(todo, "GET", "/todos")[2]] == [1, 2]
    assert [entry["id"] for entry in ask(todo, "GET", "/todos?a=b&done=true")[2]] == [1]
    assert [entry["text"] for entry in ask(todo, "GET", "/todos?done=false")[2]] == ["paint"]
    assert ask(todo, "DELETE", "/todos/1")[0] == 204
    assert ask(todo, "DELETE", "/todos/1")[0] == 404
    assert ask(todo, "GET", "/todos/2")[2] == {"id": 2, "text": "paint", "done": False}
    assert ask(todo, "POST", "/todos", {"text": "again"})[1]["Location"] == "/todos/3"


@pytest.mark.parametrize("method, path, status, allowed", [
    ("GET", "/", 404, None),
    ("GET", "/todos/", 404, None),
    ("GET", "/todos/7", 404, None),
    ("GET", "/todos/01", 404, None),
    ("GET", "/todos/1/2", 404, None),
    ("GET", "/x/todos/1", 404, None),
    ("GET", "/todoss/1", 404, None),
    ("DELETE", "/todos", 405, "GET, HEAD, POST"),
    ("POST", "/todos/1", 405, "GET, HEAD, PUT, DELETE"),
])
def test_todo_says_what_is_not_there(todo, method, path, status, allowed):
    ask(todo, "POST", "/todos", {"text": "one"})
    answer, headers, _ = ask(todo, method, path)
    assert (answer, headers["Allow"]) == (status, allowed)


@pytest.mark.parametrize("body", ["", "nonsense", "[]", "{}", '{"text": 1}', '{"done": true}',
                                  '{"text": "a", "done": 1}', '{"text": "\xff"}', "[" * 4000])
def test_todo_refuses_what_makes_no_sense(todo, body):
    client = http.client.HTTPConnection("127.0.0.1", todo.port, timeout=20)
    for path in ["/todos", "/todos/1"]:
        client.request("POST" if path == "/todos" else "PUT", path, body.encode("latin-1"))
        answer = client.getresponse()
        assert (answer.status, "error" in json.loads(answer.read())) in [(400, True), (404, True)]
    client.close()
    assert ask(todo, "GET", "/todos")[2] == []


def test_todo_answers_curl_with_a_large_body_before_it_comes(todo, tmp_path):
    (tmp_path / "large").write_bytes(b"x" * 3_000_000)
    printed = curl("--write-out", "%{http_code} %{size_upload}", "--data-binary",
                   f"@{tmp_path}/large", url(todo.port, "/todos"))
    assert printed.split()[0] == b"413"
    assert int(printed.split()[1]) < 3_000_000


def test_todo_lets_a_client_that_sends_everything_first_read_its_refusal(todo):
    half = b"x" * 500_000
    with todo.connect() as client:
        client.send(b"POST /todos HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n" + half)
        select.select([client.socket], [], [], 20)  # the answer is there, and not read yet
        client.send(half[1:])
        answer = client.read_message()
        client.send(half[:1])
        assert client.read_to_end() == b""
    assert answer.status_line == b"HTTP/1.1 413 Content Too Large"
    assert answer.header(b"connection") == b"close"


def test_todo_answers_curl_that_waits_for_a_word(todo):
    printed = curl("--header", "Expect: 100-continue", "--expect100-timeout", 30, "--max-time", 20,
                   "--data", '{"text": "slow"}', url(todo.port, "/todos"))
    assert json.loads(printed)["text"] == "slow"


def test_todo_refuses_chunks_and_answers_pipelined_requests(todo):
    assert b"411" in curl("--write-out", "%{http_code}", "--header", "Transfer-Encoding: chunked",
                          "--data", "{}", url(todo.port, "/todos"))
    with todo.connect() as client:
        client.send(get("x", "/todos") * 50 + get("x", "/none"))
        lines = [client.read_message().status_line for _ in range(51)]
    assert lines == [b"HTTP/1.1 200 OK"] * 50 + [b"HTTP/1.1 404 Not Found"]
