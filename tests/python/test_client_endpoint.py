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
from decision_client.transport import EndpointClient
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


FAILED, UNAVAILABLE = bounds.DecisionError, bounds.DecisionUnavailable
DATE = format_datetime(datetime(2099, 1, 1, tzinfo=timezone.utc), usegmt=True)
LONE = b'{"decision": "\\ud800", "input_tokens": 7, "cost": 0.001}'
# name: how the endpoint behaves, attempts that are made, whether each counts, error, what is read
ENDS = {
    "sound": (says(), 1, None, None, None),
    "reset when sent": (reset, 2, True, FAILED, "at attempt 2, its last: the reply was lost"),
    "closed": (lambda connection: None, 2, True, FAILED, "the reply was lost: "),
    "no status": (b"what?\r\n\r\n", 2, True, FAILED, "the reply was lost: "),
    "cut short": (says()[:-9], 2, True, FAILED, "the reply was lost: "),
    "silent": (lambda _: time.sleep(2), 2, True, FAILED, "it took longer than 0.3 s"),
    "headers drip": (partial(drip, b"a: b\r\n"), 2, True, FAILED, "it took longer than 0.3 s"),
    "body drips": (partial(drip, b" "), 2, True, FAILED, "it took longer than 0.3 s"),
    "endless body": (pour, 1, True, FAILED, "makes no sense: its body has more than 1,048,576"),
    "no JSON": (reply(200, b"<html>"), 1, True, FAILED, "makes no sense: JSONDecodeError"),
    "deep JSON": (reply(200, b"[" * 99999), 1, True, FAILED, "makes no sense: RecursionError"),
    "another JSON": (reply(200, b"[]"), 1, True, FAILED, "makes no sense: TypeError"),
    "no content": (reply(204), 1, True, FAILED, "makes no sense: JSONDecodeError"),
    "packed": (reply(200, b"\x1f\x8b\x08"), 1, True, FAILED, "makes no sense"),
    "odd status": (reply(799), 1, True, FAILED, "makes no sense: status 799"),
    "half a character": (reply(200, LONE), 1, True, FAILED, "makes no sense: UnicodeEncode"),
    "cost NaN": (says(cost=float("nan")), 1, True, FAILED, "its cost is no number from 0 to 1,000"),
    "cost infinite": (says(cost=float("inf")), 1, True, FAILED, "its cost is no number"),
    "cost negative": (says(cost=-1), 1, True, FAILED, "its cost is no number"),
    "cost huge": (says(cost=10**400), 1, True, FAILED, "its cost is no number"),
    "cost as text": (says(cost="0.001"), 1, True, FAILED, "its cost is no number"),
    "tokens negative": (says(input_tokens=-1), 1, True, FAILED, "its input_tokens is no number"),
    "half a token": (says(input_tokens=0.5), 1, True, FAILED, "its input_tokens is no whole"),
    "decision missing": (says(decision=None), 1, True, FAILED, "its decision is no text"),
    "redirect": (reply(307, b"", "Location: /b"), 1, False, FAILED, "elsewhere.*: status 307 /b"),
    "400": (reply(400, b"no such feature"), 1, False, FAILED, "status 400 no such feature"),
    "401": (reply(401), 1, False, UNAVAILABLE, "does not accept the credentials: status 401"),
    "402": (reply(402), 1, False, UNAVAILABLE, "asks for payment first"),
    "408": (reply(408), 2, False, FAILED, "did not get the request in time"),
    "413 dripping": (
        lambda c: c.sendall(reply(413)[:14] + b"\r\n\r\n") or drip(b"a: ", c),
        1, False, FAILED, "does not take the request: status 413",
    ),
    "429": (reply(429), 1, False, UNAVAILABLE, "for another 1.0 s"),
    "429 for 7 s": (reply(429, b"", "Retry-After: 7"), 1, False, UNAVAILABLE, "another 7.0 s"),
    "429 for ages": (reply(429, b"", "Retry-After: 1e99"), 1, False, UNAVAILABLE, "another 60.0"),
    "429 to a date": (reply(429, b"", f"Retry-After: {DATE}"), 1, False, UNAVAILABLE, "60.0 s"),
    "429 for NaN": (reply(429, b"", "Retry-After: nan"), 1, False, UNAVAILABLE, "another 1.0 s"),
    "503 for 7 s": (reply(503, b"", "Retry-After: 7"), 1, False, UNAVAILABLE, "another 7.0 s"),
    "503": (reply(503), 2, False, FAILED, "the endpoint failed: status 503"),
    "500 JSON": (reply(500, b'{"error": 1}'), 2, False, FAILED, 'status 500 {"error": 1}'),
    "502 plain": (reply(502, b"<html>bad"), 2, False, FAILED, "status 502 <html>bad"),
    "504": (reply(504), 2, True, FAILED, "gateway gave up waiting: status 504"),
}  # fmt: skip


@pytest.mark.parametrize("name", ENDS)
def test_what_an_end_costs_and_what_follows(rig, name):
    behaviour, attempts, billed, error, message = ENDS[name]
    with endpoint(behaviour) as (url, requests):
        ask_at(rig, url)
        began = time.monotonic()
        if error is None:
            assert rig.decide().cost == SOUND["cost"]
        else:
            with pytest.raises(error, match=message):
                rig.decide()
        assert time.monotonic() - began < attempts * (TIMEOUT_S + 0.2)
    keys = {line for request in requests for line in request.split(b"\r\n") if b"-Key:" in line}
    assert (len(requests), len(keys)) == (attempts, 1) and rig.all_is_given_back()
    counted = attempts * Attempts().assumed_cost if billed else 0.0
    assert rig.spend.spent() == (SOUND["cost"] if error is None else counted)
    assert rig.ledger.cost_of(rig.ledger.today()) == rig.spend.spent()
    assert len(rig.ledger.lost()) == (attempts if billed else 0)


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


def test_an_interrupt_ends_the_attempts_in_flight(rig):
    with endpoint(lambda _: time.sleep(9)) as (url, _):
        ask_at(rig, url, timeout_s=9.0)
        threading.Timer(0.2, rig.calls.abort).start()
        with pytest.raises(FAILED, match="the attempt was interrupted"):
            rig.decide()
    assert len(rig.ledger.lost()) == 1 and rig.all_is_given_back()


def ask_at(rig, url, timeout_s=TIMEOUT_S):
    rig.calls._client.close()
    rig.calls._client = EndpointClient(url, clock=lambda: rig.seconds)
    rig.calls._attempts = Attempts(limit=2, timeout_s=timeout_s)
