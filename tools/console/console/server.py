"""The web server: the page's files, one stream of what is told, and what pages ask. For this machine alone.

GET  /                the page, and its files beside it
GET  /catalogue       what does not change: devices, requests, states
GET  /feed            Server-Sent Events; each is a list of [version, kind, number, data]
POST /do/<action>     JSON in, JSON out: {} or {"error": "..."}

A page of another site may know our address. It cannot read what we answer; so that it cannot ask either, requests that
name another host, or that another page made, are refused.
"""
import http.server
import json
import pathlib
import secrets
import sys
import traceback

from . import states
from .forms import WrongInput
from .head import Failed

PAGE = pathlib.Path(__file__).resolve().parents[1] / "page"
TYPES = {".html": "text/html; charset=utf-8", ".css": "text/css; charset=utf-8",
         ".js": "text/javascript; charset=utf-8", ".svg": "image/svg+xml"}
FILES = {"/" + path.name: path for path in sorted(PAGE.iterdir()) if path.suffix in TYPES}
FILES["/"] = PAGE / "index.html"
MOST_BYTES = 64 * 1024
HEARTBEAT = 5       # seconds after which an idle stream says that it is there
RULES = ("default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; "
         "base-uri 'none'; form-action 'none'; frame-ancestors 'none'")


class Refused(Exception):
    def __init__(self, status, text):
        super().__init__(text)
        self.status = status


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False

    def __init__(self, port, feed, head):
        """port 0: any that is free; `address` tells it."""
        super().__init__(("127.0.0.1", port), Handler)
        self.feed = feed
        self.head = head
        self.session = secrets.token_hex(8)     # tells pages that were open that the console was started again
        names = [f"{host}:{self.server_port}" for host in ("127.0.0.1", "localhost")]
        self.hosts = set(names)
        self.origins = {f"http://{name}" for name in names}

    @property
    def address(self):
        return f"http://127.0.0.1:{self.server_port}/"

    def handle_error(self, request, client_address):
        """A page that was closed is no error."""
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "console"
    sys_version = ""

    def log_message(self, format, *args):
        """Requests are not worth a line."""

    def do_GET(self):
        self._answer(self._get)

    def do_POST(self):
        self._answer(self._post)

    def _answer(self, act):
        try:
            self._check_origin()
            act()
        except Refused as refusal:
            self.close_connection = True    # a body that was not read may follow
            self._send_json({"error": str(refusal)}, refusal.status)

    def _check_origin(self):
        if self.headers.get("Host") not in self.server.hosts:
            raise Refused(403, "this console answers to its own address only")
        origin = self.headers.get("Origin")
        if origin is not None and origin not in self.server.origins:
            raise Refused(403, "another site may not use this console")
        if self.headers.get("Sec-Fetch-Site", "same-origin") not in ("same-origin", "none"):
            raise Refused(403, "another site may not use this console")

    # ---- GET ----

    def _get(self):
        path = self.path.partition("?")[0]
        if path == "/feed":
            self._stream()
        elif path == "/catalogue":
            self._send_json({"machine": states.describe(), **self.server.head.describe()})
        elif path in FILES:
            self._send(200, TYPES[FILES[path].suffix], FILES[path].read_bytes())
        else:
            raise Refused(404, f"there is no {path}")

    def _stream(self):
        """What has happened so far comes first."""
        self.close_connection = True
        self._head(200, "text/event-stream", None)
        self._event({"session": self.server.session})
        version = 0
        while self.server.feed.is_open:
            entries = self.server.feed.after(version, HEARTBEAT)
            if entries:
                version = entries[-1].version
                self._event(entries)
            else:
                self.wfile.write(b": still here\n\n")

    def _event(self, data):
        self.wfile.write(b"data: " + json.dumps(data).encode() + b"\n\n")

    # ---- POST ----

    def _post(self):
        if not self.path.startswith("/do/"):
            raise Refused(404, f"there is no {self.path}")
        if self.headers.get_content_type() != "application/json":
            raise Refused(415, "JSON is needed")
        arguments = self._body()
        try:
            self._send_json(self.server.head.do(self.path.removeprefix("/do/"), arguments) or {})
        except WrongInput as error:
            self._send_json({"error": str(error)}, 400)
        except Failed as error:
            self._send_json({"error": str(error)}, 502)
        except Exception as error:  # a fault of the console: told to who asked, and on the terminal
            traceback.print_exc()
            self._send_json({"error": f"{type(error).__name__}: {error}"}, 500)

    def _body(self):
        length = self.headers.get("Content-Length", "")
        if not length.isdigit() or int(length) > MOST_BYTES:
            raise Refused(413, f"a body of at most {MOST_BYTES} bytes is needed, and its length")
        try:
            return json.loads(self.rfile.read(int(length)))
        except ValueError as error:
            raise Refused(400, f"that is no JSON: {error}") from None

    # ---- answers ----

    def _head(self, status, kind, length):
        self.send_response(status)
        self.send_header("Content-Type", kind)
        if length is not None:
            self.send_header("Content-Length", str(length))
        if self.close_connection:
            self.send_header("Connection", "close")
        self.send_header("Cache-Control", "no-store")
        self.send_header("Content-Security-Policy", RULES)
        self.send_header("Cross-Origin-Resource-Policy", "same-origin")
        self.send_header("Referrer-Policy", "no-referrer")
        self.send_header("X-Content-Type-Options", "nosniff")
        self.end_headers()

    def _send(self, status, kind, data):
        self._head(status, kind, len(data))
        self.wfile.write(data)

    def _send_json(self, data, status=200):
        self._send(status, "application/json", json.dumps(data).encode())
