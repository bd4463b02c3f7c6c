#!/usr/bin/env python3
"""Static file server for the tests: binds 127.0.0.1 on a free port, prints the
port on its first stdout line, and appends one line per request ("GET /path") to
the file given by --log, so tests can count what was fetched."""
import argparse
import functools
import http.server
import sys


class Handler(http.server.SimpleHTTPRequestHandler):
    request_log = None

    def log_message(self, fmt, *args):  # keep test output quiet
        pass

    def send_head(self):
        if self.request_log:
            with open(self.request_log, "a") as log:
                log.write(f"{self.command} {self.path}\n")
        return super().send_head()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--log")
    parser.add_argument("--port", type=int, default=0)
    args = parser.parse_args()
    Handler.request_log = args.log
    handler = functools.partial(Handler, directory=args.dir)
    server = http.server.ThreadingHTTPServer(("127.0.0.1", args.port), handler)
    print(server.server_address[1], flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    sys.exit(main())
