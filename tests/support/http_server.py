#!/usr/bin/env python3
"""Static file server of the tests and the benchmarks on 127.0.0.1: prints its
free port first; appends "GET /path" per request to --log (with
--log-sent, once answered: "GET /path <body bytes sent>"); sends bodies with
sendfile(2), paced to --rate-mbit if given. --faults FILE, read on every
request, is a JSON list of rules; the first whose "match" occurs in the path
applies, at most "times" times: {"status": 500} answers so; {"drop": true}
closes without an answer; {"cut": 100} announces the whole length, sends 100
bytes and closes; {"stall": 5, "stall_after": 10} sends 10 bytes then waits 5 s;
{"rate": 65536} paces the file to that many bytes a second."""
import argparse
import functools
import http.server
import json
import sys
import threading
import time


class Handler(http.server.SimpleHTTPRequestHandler):
    args = None
    used = {}  # (faults file, rule index) -> requests it has matched
    used_lock = threading.Lock()

    def log_message(self, fmt, *args):  # keep the callers' output clean
        pass

    def _log(self, line):
        if self.args.log:
            with open(self.args.log, "a") as log:
                log.write(line + "\n")

    def _fault(self):
        try:
            with open(self.args.faults) as f:
                rules = json.load(f)
        except (OSError, TypeError, ValueError):
            return None
        for index, rule in enumerate(rules):
            if rule.get("match", "") not in self.path:
                continue
            with self.used_lock:
                count = self.used.get((self.args.faults, index), 0)
                if "times" in rule and count >= rule["times"]:
                    continue
                self.used[(self.args.faults, index)] = count + 1
            return rule
        return None

    def copyfile(self, source, outputfile):
        outputfile.flush()
        start = time.monotonic()
        chunk = min(64 * 1024, max(1, int(self.rate / 20))) if self.rate else None
        while True:
            n = self.connection.sendfile(source, self.sent, chunk)
            if n == 0:
                break
            self.sent += n
            ahead = start + self.sent / self.rate - time.monotonic() if self.rate else 0
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
            self.wfile.write(data[: rule.get("cut", rule.get("stall_after", 0))])
            self.wfile.flush()
            time.sleep(rule.get("stall", 0))
        except OSError:
            pass  # the client went away
        self.close_connection = True

    def send_head(self):
        if not self.args.log_sent:
            self._log(f"{self.command} {self.path}")
        rule = self._fault() or {}
        self.rate = rule.get("rate", self.args.rate_mbit * 1e6 / 8)
        if "status" in rule:
            self.send_error(rule["status"])
        elif rule.get("drop"):
            self.close_connection = True
        elif "cut" in rule or "stall" in rule:
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
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    sys.exit(main())
