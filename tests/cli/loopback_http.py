#!/usr/bin/env python3
"""Both ends of the HTTP that LoopbackCaptureTests captures on lo.

  serve PORT DIRECTORY: an HTTP/1.1 server (python's `-m http.server` speaks
      1.0 and closes after each answer) serving DIRECTORY; POST /plist answers
      a binary property list made from the one sent, other POSTs echo the JSON
      sent. Prints "serving" once it listens.
  pipeline PORT PATH...: GETs every PATH over one connection in a single send.
"""
import functools
import http.server
import json
import plistlib
import socket
import sys


class Handler(http.server.SimpleHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        sent = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        if self.path == "/plist":
            asked = plistlib.loads(sent)
            body = plistlib.dumps({"greeting": "hello " + asked["name"], "tries": asked["tries"] + 1,
                                   "ok": True, "items": ["warp", "weft"]}, fmt=plistlib.FMT_BINARY)
            kind = "application/x-apple-binary-plist"
        else:
            body, kind = json.dumps({"echo": json.loads(sent)}).encode(), "application/json"
        self.send_response(200)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, format, *args):
        pass


if sys.argv[1] == "serve":
    server = http.server.ThreadingHTTPServer(("127.0.0.1", int(sys.argv[2])),
                                             functools.partial(Handler, directory=sys.argv[3]))
    print("serving", flush=True)
    server.serve_forever()
else:
    paths = sys.argv[3:]
    with socket.create_connection(("127.0.0.1", int(sys.argv[2]))) as connection:
        # The last asks the server to close, which ends the reading.
        connection.sendall(b"".join(b"GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\n%s\r\n" %
                                    (path.encode(), b"Connection: close\r\n" if i == len(paths) - 1 else b"")
                                    for i, path in enumerate(paths)))
        while connection.recv(65536):
            pass
