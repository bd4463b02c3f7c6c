#!/usr/bin/env python3
"""Static file server for the benchmarks: binds 127.0.0.1 on a free port,
prints the port on its first stdout line, sends file bodies with sendfile(2)
so that the server costs both sides of a comparison as little as it can, and
appends one line per request to --log: "<method> <path> <body bytes sent>".
With --rate-mbit, bodies are paced to that many megabits per second, standing
in for a real link between the appliance and its download server."""
import argparse
import functools
import http.server
import sys
import time


class Handler(http.server.SimpleHTTPRequestHandler):
    request_log = None
    rate = 0  # bytes per second; 0: as fast as the loopback goes

    def log_message(self, fmt, *args):  # the benchmark's output stays clean
        pass

    def copyfile(self, source, outputfile):
        self.wfile.flush()
        if not self.rate:
            self.sent = self.connection.sendfile(source)
            return
        start = time.monotonic()
        while True:
            n = self.connection.sendfile(source, self.sent, 64 * 1024)
            if n == 0:
                break
            self.sent += n
            ahead = start + self.sent / self.rate - time.monotonic()
            if ahead > 0:
                time.sleep(ahead)

    def send_head(self):
        self.sent = 0
        return super().send_head()

    def handle_one_request(self):
        self.sent = 0
        super().handle_one_request()
        if self.request_log and getattr(self, "command", None):
            with open(self.request_log, "a") as log:
                log.write(f"{self.command} {self.path} {self.sent}\n")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--log")
    parser.add_argument("--rate-mbit", type=float, default=0)
    args = parser.parse_args()
    Handler.request_log = args.log
    Handler.rate = args.rate_mbit * 1e6 / 8
    handler = functools.partial(Handler, directory=args.dir)
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    print(server.server_address[1], flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    sys.exit(main())
