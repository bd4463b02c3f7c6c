#!/usr/bin/env python3
"""Static file server of the tests and the benchmarks on 127.0.0.1: prints its free
port; logs "GET /path" per request to --log ("GET /path <body bytes sent>" once
answered with --log-sent); sendfile(2) bodies, paced to --rate-mbit. --faults FILE,
read on every request: a JSON list of rules, the first whose "match" is in the path
applying: {"status": 404}; {"stall": 5, "stall_after": 10} (the whole length
announced, 10 bytes sent, then silence)."""
import argparse
import functools
import http.server
import json
import time


class Handler(http.server.SimpleHTTPRequestHandler):
    args = None

    def log_message(self, fmt, *args):  # keep the callers' output clean
        pass

    def _log(self, line):
        with open(self.args.log or "/dev/null", "a") as log:
            log.write(line + "\n")

    def _fault(self):
        try:
            with open(self.args.faults) as f:
                rules = json.load(f)
        except (OSError, TypeError, ValueError):
            return {}
        return next((r for r in rules if r.get("match", "") in self.path), {})

    def copyfile(self, source, outputfile):
        outputfile.flush()
        start = time.monotonic()
        rate = self.args.rate_mbit * 1e6 / 8  # bytes a second; 0: as fast as it goes
        chunk = 64 * 1024 if rate else None
        while True:
            n = self.connection.sendfile(source, self.sent, chunk)
            if n == 0:
                break
            self.sent += n
            ahead = start + self.sent / rate - time.monotonic() if rate else 0
            if ahead > 0:
                time.sleep(ahead)

    def _send_part(self, rule):
        """Headers for the whole file, then only part of it."""
        try:
            with open(self.translate_path(self.path), "rb") as f:
                data = f.read()
        except OSError:
            self.send_error(404)
            return
        self.send_response(200)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        try:
            self.wfile.write(data[: rule.get("stall_after", 0)])
            self.wfile.flush()
            time.sleep(rule.get("stall", 0))
        except OSError:
            pass  # the client went away
        self.close_connection = True

    def send_head(self):
        if not self.args.log_sent:
            self._log(f"{self.command} {self.path}")
        rule = self._fault()
        if "status" in rule:
            self.send_error(rule["status"])
        elif "stall" in rule:
            self._send_part(rule)
        else:
            return super().send_head()
        return None

    def handle_one_request(self):
        self.sent = 0
        super().handle_one_request()
        if self.args.log_sent and getattr(self, "command", None):
            self._log(f"{self.command} {self.path} {self.sent}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--log")
    parser.add_argument("--log-sent", action="store_true")
    parser.add_argument("--faults")
    parser.add_argument("--rate-mbit", type=float, default=0)
    Handler.args = parser.parse_args()
    handler = functools.partial(Handler, directory=Handler.args.dir)
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    server.daemon_threads = True
    print(server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
