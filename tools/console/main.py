#!/usr/bin/python3
"""The virtual head unit on a local web page: boots it, starts the service in it and serves the page until Ctrl-C.

    tools/console/main.py [--port 8765]
"""
import argparse
import pathlib
import signal
import sys
import threading

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools" / "headunit"), str(ROOT / "tools" / "records")]

from console.feed import Feed  # noqa: E402
from console.head import KEEP, Head  # noqa: E402
from console.server import Server  # noqa: E402


def port_number(text):
    if not text.isdecimal() or int(text) > 0xFFFF:
        raise argparse.ArgumentTypeError(f"{text!r} is no port: 0 to 65535")
    return int(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--port", type=port_number, default=8765, help="of the page's address; 0: any that is free")
    arguments = parser.parse_args()

    over = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: over.set())
    feed = Feed(KEEP)
    head = Head(feed)
    try:
        server = Server(arguments.port, feed, head)
    except OSError as error:
        head.close()
        sys.exit(f"the page cannot be served on port {arguments.port}: {error.strerror}; choose another with PORT=")
    with server:
        threading.Thread(target=server.serve_forever, name="server", daemon=True).start()
        head.start()
        print(f"The virtual head unit: {server.address}   (Ctrl-C ends it)", flush=True)
        over.wait()
        print("ending the head unit", flush=True)
        feed.close()
        server.shutdown()
        head.close()


main()
