#!/usr/bin/env python3
"""Both ends of the HTTP that RealHttpCaptureTests captures on lo.

  loopback_http.py serve PORT DIRECTORY
      An HTTP/1.1 server on 127.0.0.1 (python's own `-m http.server` speaks
      HTTP/1.0 and closes after each answer, so it never keeps a connection
      alive). GET and HEAD serve DIRECTORY; POST /plist answers a binary
      property list, POST /json answers JSON, each built from what was sent.
      Prints "serving" once it listens.

  loopback_http.py pipeline PORT PATH...
      GETs every PATH over one connection, all requests in a single send,
      and writes what came back until the server closed.
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
        elif self.path == "/json":
            asked = json.loads(sent)
            body = json.dumps({"echo": asked, "length": len(sent)}).encode()
            kind = "application/json"
        else:
            self.send_error(404)
            return
        self.send_response(200)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, format, *args):
        pass


def serve(port, directory):
    server = http.server.ThreadingHTTPServer(("127.0.0.1", port), functools.partial(Handler, directory=directory))
    print("serving", flush=True)
    server.serve_forever()


def pipeline(port, paths):
    requests = b"".join(b"GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\n%s\r\n" %
                        (path.encode(), b"Connection: close\r\n" if i == len(paths) - 1 else b"")
                        for i, path in enumerate(paths))
    with socket.create_connection(("127.0.0.1", port)) as connection:
        connection.sendall(requests)
        while data := connection.recv(65536):
            sys.stdout.buffer.write(data)


if __name__ == "__main__":
    if sys.argv[1] == "serve":
        serve(int(sys.argv[2]), sys.argv[3])
    elif sys.argv[1] == "pipeline":
        pipeline(int(sys.argv[2]), sys.argv[3:])
