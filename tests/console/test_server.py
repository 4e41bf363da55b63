#!/usr/bin/python3
"""What the console's web server answers, and whom it refuses."""
import http.client
import json
import threading
import unittest

import paths  # noqa: F401
from console.feed import Feed
from console.forms import WrongInput
from console.head import Failed
from console.server import FILES, MOST_BYTES, Server

JSON = {"Content-Type": "application/json"}


class FakeHead:
    def __init__(self):
        self.asked = []

    def do(self, action, arguments):
        self.asked.append((action, arguments))
        raised = {"wrong": WrongInput("no"), "failed": Failed("tried")}.get(action)
        if raised:
            raise raised
        return {"number": 1} if action == "plug" else None

    @staticmethod
    def describe():
        return {"devices": []}



class TheServer(unittest.TestCase):
    def setUp(self):
        self.feed, self.head = Feed({"log": 10}), FakeHead()
        self.server = Server(0, self.feed, self.head)
        self.addCleanup(self.server.server_close)
        thread = threading.Thread(target=self.server.serve_forever, args=(0.02,))
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(self.server.shutdown)
        self.addCleanup(self.feed.close)
        self.host = f"127.0.0.1:{self.server.server_port}"

    def connection(self):
        one = http.client.HTTPConnection("127.0.0.1", self.server.server_port, timeout=10)
        self.addCleanup(one.close)
        return one

    def ask(self, method, path, body=None, headers=None):
        one = self.connection()
        one.request(method, path, body, {"Host": self.host} | (headers or {}))
        answer = one.getresponse()
        return answer.status, answer.headers, answer.read()

    def post(self, action, arguments, **headers):
        status, _, body = self.ask("POST", f"/do/{action}", json.dumps(arguments), JSON | headers)
        return status, json.loads(body)

    # ---- what it answers ----

    def test_is_bound_to_this_machine_only(self):
        self.assertEqual(self.server.server_address[0], "127.0.0.1")

    def test_serves_the_page_and_its_files_and_nothing_else(self):
        for path, file in FILES.items():
            status, _, body = self.ask("GET", path)
            self.assertEqual((status, body), (200, file.read_bytes()), path)
        for path in ("/main.py", "/../main.py", "/%2e%2e/main.py", "//etc/passwd", "/do/plug", "/console/head.py"):
            self.assertEqual(self.ask("GET", path)[0], 404, path)

    def test_the_page_may_load_from_its_own_server_only(self):
        _, headers, _ = self.ask("GET", "/")
        self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
        self.assertNotIn("unsafe", headers["Content-Security-Policy"])
        for file in FILES.values():
            self.assertNotRegex(file.read_text(encoding="utf-8").replace("http://www.w3.org/", ""), "https?://", file)

    def test_does_what_is_asked_and_gives_what_it_gave(self):
        self.assertEqual(self.post("plug", {"place": "1.1"}), (200, {"number": 1}))
        self.assertEqual(self.post("pull", {"number": 1}), (200, {}))
        self.assertEqual(self.head.asked, [("plug", {"place": "1.1"}), ("pull", {"number": 1})])

    def test_errors_are_answered_with_their_text(self):
        self.assertEqual(self.post("wrong", {}), (400, {"error": "no"}))
        self.assertEqual(self.post("failed", {}), (502, {"error": "tried"}))

    def test_the_feed_begins_with_all_that_is_kept_and_goes_on(self):
        self.feed.put("log", {"text": "first"})
        one = self.connection()
        one.request("GET", "/feed", headers={"Host": self.host})
        answer = one.getresponse()
        self.assertEqual(answer.headers["Content-Type"], "text/event-stream")
        self.assertEqual(self.event(answer), {"session": self.server.session})
        (_, kind, number, data), = self.event(answer)
        self.assertEqual((kind, number, data), ("log", 1, {"text": "first"}))
        self.feed.put("log", {"text": "second"})
        (_, _, number, data), = self.event(answer)
        self.assertEqual((number, data), (2, {"text": "second"}))
        self.feed.close()
        self.assertIn(answer.read().strip(), (b"", b": still here"))     # it ends

    @staticmethod
    def event(answer):
        while not (line := answer.readline()).startswith(b"data: "):
            if not line:
                raise AssertionError("the stream has ended")
        return json.loads(line.removeprefix(b"data: "))

    # ---- whom it refuses ----

    def test_a_request_that_names_another_host_is_refused(self):
        for host in ("evil.example", f"evil.example:{self.server.server_port}", "127.0.0.1", "127.0.0.1:1", ""):
            for method, path in (("GET", "/"), ("GET", "/feed"), ("GET", "/catalogue"), ("POST", "/do/plug")):
                self.assertEqual(self.ask(method, path, b"{}", JSON | {"Host": host})[0], 403, (host, path))
        self.assertEqual(self.head.asked, [])

    def test_a_request_of_another_sites_page_is_refused(self):
        for headers in ({"Origin": "http://evil.example"}, {"Origin": "null"}, {"Sec-Fetch-Site": "cross-site"},
                        {"Origin": f"https://{self.host}"}, {"Sec-Fetch-Site": "same-site"}):
            self.assertEqual(self.post("plug", {}, **headers)[0], 403, headers)
            self.assertEqual(self.ask("GET", "/feed", headers=headers)[0], 403, headers)
        self.assertEqual(self.head.asked, [])

    def test_the_own_page_is_answered_under_both_of_its_names(self):
        for name in ("127.0.0.1", "localhost"):
            host = f"{name}:{self.server.server_port}"
            self.assertEqual(self.post("plug", {}, Host=host, Origin=f"http://{host}", **{
                "Sec-Fetch-Site": "same-origin"})[0], 200)

    def test_what_a_form_of_any_page_could_send_is_refused(self):
        for kind in ("text/plain", "application/x-www-form-urlencoded", "multipart/form-data"):
            self.assertEqual(self.ask("POST", "/do/plug", b"{}", {"Content-Type": kind})[0], 415)
        self.assertEqual(self.head.asked, [])

    def test_a_body_that_is_too_long_or_no_json_is_refused(self):
        self.assertEqual(self.ask("POST", "/do/plug", b"{", JSON)[0], 400)
        self.assertEqual(self.ask("POST", "/do/plug", b"\xff", JSON)[0], 400)
        self.assertEqual(self.ask("POST", "/do/plug", None, JSON | {"Content-Length": str(MOST_BYTES + 1)})[0], 413)
        self.assertEqual(self.ask("POST", "/do/plug", None, JSON | {"Content-Length": "-1"})[0], 413)
        self.assertEqual(self.head.asked, [])


if __name__ == "__main__":
    unittest.main()
