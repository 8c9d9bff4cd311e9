"""The example client at an endpoint that is not to be trusted: a real socket, a case per end."""

import json
import socket
import struct
import threading
import time
from contextlib import contextmanager, suppress
from datetime import datetime, timezone
from email.utils import format_datetime
from functools import partial

import pytest
from decision_client.attempts import Attempts
from decision_client.cli import main
from decision_client.engines import decision_bounds as bounds
from decision_client.request import DecisionResult
from decision_client.transport import EndpointClient
from support import attempt
from test_client import rig, write_files  # noqa: F401 (a fixture)

TIMEOUT_S = 0.3
SOUND = {"decision": "keep", "input_tokens": 7, "cost": 0.001}


def reply(status, body=b"", *headers):
    head = [f"HTTP/1.1 {status} X", f"Content-Length: {len(body)}", "Connection: close", *headers]
    return "\r\n".join(head).encode() + b"\r\n\r\n" + body


def says(**changed):
    return reply(200, json.dumps(SOUND | changed).encode())


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def drip(piece, connection):
    connection.sendall(b"HTTP/1.1 200 OK\r\n" + (b"" if b":" in piece else b"\r\n"))
    while True:
        connection.sendall(piece)
        time.sleep(0.05)


def pour(connection):
    connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
    while True:
        connection.sendall(b" " * 65536)


@contextmanager
def endpoint(behave, reads=True):
    """An endpoint with one way to behave; yields its address and the requests that it read."""

    def serve():
        with suppress(OSError):
            while True:
                connection, _ = listening.accept()
                threading.Thread(target=answer, args=[connection], daemon=True).start()

    def answer(connection):
        with connection, suppress(OSError):
            if reads:
                request = connection.recv(65536)
                while b"\r\n\r\n{" not in request:
                    request += connection.recv(65536)
                requests.append(request)
            connection.sendall(behave) if isinstance(behave, bytes) else behave(connection)

    requests = []
    with socket.create_server(("127.0.0.1", 0)) as listening:
        threading.Thread(target=serve, daemon=True).start()
        yield f"http://127.0.0.1:{listening.getsockname()[1]}/", requests
        listening.shutdown(socket.SHUT_RDWR)


FAILED, UNAVAILABLE, ASSUMED = bounds.DecisionError, bounds.DecisionUnavailable, 0.05
NO_COST = [says(cost=cost) for cost in (float("nan"), float("inf"), -1, 10**400, "0.001")]
LONE = b'{"decision": "\\ud800", "input_tokens": 7, "cost": 0.001}'
DATE = format_datetime(datetime(2099, 1, 1, tzinfo=timezone.utc), usegmt=True)
MINUTE = [reply(429, b"", f"Retry-After: {end}") for end in ("1e99", DATE)]
SEVEN = [reply(status, b"", "Retry-After: 7") for status in (429, 503)]
DRIPPING_413 = lambda c: c.sendall(reply(413)[:14] + b"\r\n\r\n") or drip(b"a: ", c)
# how it ends, what is read, attempts that are made, dollars that each counts, endpoints
ENDS = [
    (DecisionResult, "input_tokens=7, cost=0.001", 1, SOUND["cost"], [says()]),
    (FAILED, "at attempt 2, its last: the reply was lost: ", 2, ASSUMED,
     [reset, lambda connection: None, b"what?\r\n\r\n", says()[:-9]]),
    (FAILED, "it took longer than 0.3 s", 2, ASSUMED,
     [lambda _: time.sleep(2), partial(drip, b"a: b\r\n"), partial(drip, b" ")]),
    (FAILED, "makes no sense: its body has more than 1,048,576", 1, ASSUMED, [pour]),
    (FAILED, "no sense: JSONDecodeError", 1, ASSUMED, [reply(200, b"<html>"), reply(204)]),
    (FAILED, "no sense: RecursionError", 1, ASSUMED, [reply(200, b"[" * 99999)]),
    (FAILED, "no sense: TypeError", 1, ASSUMED, [reply(200, b"[]")]),
    (FAILED, "no sense: Unicode", 1, ASSUMED, [reply(200, b"\x1f\x8b\x08"), reply(200, LONE)]),
    (FAILED, "no sense: status 799", 1, ASSUMED, [reply(799)]),
    (FAILED, "its cost is no number from 0 to 1,000", 1, ASSUMED, NO_COST),
    (FAILED, "its input_tokens is no number", 1, ASSUMED, [says(input_tokens=-1)]),
    (FAILED, "its input_tokens is no whole", 1, ASSUMED, [says(input_tokens=0.5)]),
    (FAILED, "its decision is no text", 1, ASSUMED, [says(decision=None)]),
    (FAILED, "elsewhere, name that one: status 307 /b", 1, 0, [reply(307, b"", "Location: /b")]),
    (FAILED, "status 400 no such feature", 1, 0, [reply(400, b"no such feature")]),
    (UNAVAILABLE, "does not accept the credentials: status 401", 1, 0, [reply(401)]),
    (UNAVAILABLE, "asks for payment first", 1, 0, [reply(402)]),
    (FAILED, "did not get the request in time", 2, 0, [reply(408)]),
    (FAILED, "does not take the request: status 413", 1, 0, [DRIPPING_413]),
    (UNAVAILABLE, "another 1.0 s", 1, 0, [reply(429), reply(429, b"", "Retry-After: nan")]),
    (UNAVAILABLE, "another 7.0 s", 1, 0, SEVEN), (UNAVAILABLE, "another 60.0 s", 1, 0, MINUTE),
    (FAILED, "the endpoint failed: status 503", 2, 0, [reply(503)]),
    (FAILED, 'status 500 {"error": 1}', 2, 0, [reply(500, b'{"error": 1}')]),
    (FAILED, "status 502 <html>bad", 2, 0, [reply(502, b"<html>bad")]),
    (FAILED, "gateway gave up waiting: status 504", 2, ASSUMED, [reply(504)]),
]  # fmt: skip


@pytest.mark.parametrize(("end", "text", "attempts", "counted", "endpoints"), ENDS)
def test_what_an_end_costs_and_what_follows(rig, end, text, attempts, counted, endpoints):
    for made, behaviour in enumerate(endpoints, 1):
        with endpoint(behaviour) as (url, requests):
            ask_at(rig, url)
            began = time.monotonic()
            outcome = attempt(rig.decide, f"text {made}")
            assert time.monotonic() - began < attempts * (TIMEOUT_S + 0.2)
        assert isinstance(outcome, end) and text in str(outcome), f"endpoint {made}: {outcome!r}"
        keys = {line for asked in requests for line in asked.split(b"\r\n") if b"-Key:" in line}
        assert (len(requests), len(keys)) == (attempts, 1)
        assert rig.spend.spent() == pytest.approx(made * attempts * counted)
        assert rig.ledger.cost_of(rig.ledger.today()) == pytest.approx(rig.spend.spent())
        assert len(rig.ledger.lost()) == (made * attempts if counted == ASSUMED else 0)


@pytest.mark.parametrize("url", ["http://127.0.0.1:1/", "https://nobody.invalid/", "TLS"])
def test_what_was_not_sent_is_not_billed(rig, url):
    with endpoint(reset, reads=False) as (address, _):  # before the connection is ready
        ask_at(rig, address.replace("http", "https") if url == "TLS" else url)
        with pytest.raises(FAILED, match="at attempt 2, its last: the endpoint cannot be reached"):
            rig.decide()
    assert rig.ledger.cost_of(rig.ledger.today()) == rig.spend.spent() == 0.0


COMMANDS = [
    (partial(drip, b" "), "tool {0}/0.txt --deadline 0.4 --endpoint {1}", 4, 1),
    (reply(401), "batch {0} --glob *.txt --endpoint {1}", 5, 1),
    (reply(429, b"", "Retry-After: 0"), "batch {0}/0.txt --endpoint {1}", 5, 6),
]


@pytest.mark.parametrize(("behaviour", "arguments", "code", "asked"), COMMANDS)
def test_a_command_ends_in_time(tmp_path, capfd, behaviour, arguments, code, asked):
    write_files(tmp_path, map(str, range(20)))
    with endpoint(behaviour) as (url, requests):
        began = time.monotonic()
        assert main([*arguments.format(tmp_path, url).split(), "--db", f"{tmp_path}/db"]) == code
        assert time.monotonic() - began < 0.4 + 0.2 + 0.4, "deadline, grace, start"
    assert len(requests) == asked


def ask_at(rig, url):
    rig.calls._client.close()
    rig.calls._client = EndpointClient(url, clock=lambda: rig.seconds)
    rig.calls._attempts = Attempts(limit=2, timeout_s=TIMEOUT_S)
