#!/usr/bin/env python3
"""A small HTTP server on 127.0.0.1 for the demo and the HttpFileSystem tests.

    http_server.py [DIR]

Listens on a free port of the loopback interface only, prints that port on
a line of its own on stdout, and serves until its standard input reaches end
of file (so it goes away with the process that started it, however that
ends).

GET /NAME                a file of DIR, with an ETag made from its bytes; an
                         If-None-Match naming that ETag gets 304
GET /_/bytes/N?etag=E    N bytes of a fixed pattern (ETag E when given, with
                         304 as above)
GET /_/status/CODE       that status, with a short text body
GET /_/cut/N             declares 2N bytes, sends N, closes the connection
GET /_/slow/MS           waits MS milliseconds, then sends 4 bytes
GET /_/unsized/N         N bytes with no Content-Length, ended by closing
GET /_/redirect/K        K redirects, then /_/bytes/100
GET /_/loop              redirects to itself
"""
import hashlib
import http.server
import os
import sys
import threading
import time
import urllib.parse


def pattern(n):
    return bytes((i * 7 + 3) % 251 for i in range(n))


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    root = "."

    def log_message(self, *args):
        pass

    def send(self, code, body=b"", etag=None, length=None, extra=()):
        self.send_response(code)
        if etag:
            self.send_header("ETag", etag)
        for name, value in extra:
            self.send_header(name, value)
        if length is not False:
            self.send_header("Content-Length", str(len(body) if length is None else length))
        self.end_headers()
        self.wfile.write(body)
        self.wfile.flush()

    def send_tagged(self, body, etag):
        if etag and self.headers.get("If-None-Match") == etag:
            self.send(304, etag=etag, length=False)
        else:
            self.send(200, body, etag=etag)

    def do_GET(self):
        url = urllib.parse.urlsplit(self.path)
        parts = url.path.strip("/").split("/")
        query = urllib.parse.parse_qs(url.query)
        if parts[0] != "_":
            path = os.path.join(self.root, *parts)
            if not os.path.isfile(path):
                return self.send(404, b"not found\n")
            with open(path, "rb") as f:
                body = f.read()
            return self.send_tagged(body, '"%s"' % hashlib.sha1(body).hexdigest())
        kind, arg = parts[1], parts[2] if len(parts) > 2 else ""
        if kind == "bytes":
            self.send_tagged(pattern(int(arg)), query.get("etag", [None])[0])
        elif kind == "status":
            self.send(int(arg), b"status %s\n" % arg.encode())
        elif kind == "cut":
            self.send(200, pattern(int(arg)), length=2 * int(arg))
            self.close_connection = True
        elif kind == "slow":
            time.sleep(int(arg) / 1000.0)
            self.send(200, b"late")
        elif kind == "unsized":
            self.send(200, pattern(int(arg)), length=False, extra=[("Connection", "close")])
            self.close_connection = True
        elif kind == "redirect":
            k = int(arg)
            target = "/_/redirect/%d" % (k - 1) if k > 0 else "/_/bytes/100"
            self.send(302, length=0, extra=[("Location", target)])
        elif kind == "loop":
            self.send(302, length=0, extra=[("Location", "/_/loop")])
        else:
            self.send(404, b"not found\n")


def main():
    Handler.root = sys.argv[1] if len(sys.argv) > 1 else "."
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    # A client that gave up (a timeout test) is not an error worth a trace.
    server.handle_error = lambda request, address: None
    threading.Thread(target=server.serve_forever, daemon=True).start()
    print(server.server_address[1], flush=True)
    sys.stdin.read()  # until the parent closes the pipe or goes away
    server.shutdown()


if __name__ == "__main__":
    main()
