#!/usr/bin/env python3
"""Static file server for the tests: binds 127.0.0.1 on a free port, prints the
port on its first stdout line, and appends one line per request ("GET /path") to
the file given by --log, so tests can count what was fetched.

With --faults FILE, the file is read again on every request: a JSON list of
rules, the first whose "match" text occurs in the request path applying. A rule
says what goes wrong:
  {"match": "/x", "status": 500}    answer with that status and no file
  {"match": "/x", "drop": true}     close the connection without any answer
  {"match": "/x", "cut": 100}       announce the whole length, send 100 bytes, close
  {"match": "/x", "stall": 5}       announce the whole length, send "stall_after"
                                    bytes (default 0), wait 5 s, close
  {"match": "/x", "rate": 65536}    send the whole file at that many bytes a second
and "times": N limits a rule to the first N requests it matches. A missing or
unreadable file means no faults."""
import argparse
import functools
import http.server
import json
import sys
import threading
import time


class Handler(http.server.SimpleHTTPRequestHandler):
    request_log = None
    faults_path = None
    used = {}  # rule index -> requests it has matched
    used_lock = threading.Lock()

    def log_message(self, fmt, *args):  # keep test output quiet
        pass

    def _fault(self):
        if not self.faults_path:
            return None
        try:
            with open(self.faults_path) as f:
                rules = json.load(f)
        except (OSError, ValueError):
            return None
        for index, rule in enumerate(rules):
            if rule.get("match", "") not in self.path:
                continue
            with self.used_lock:
                count = self.used.get((self.faults_path, index), 0)
                if "times" in rule and count >= rule["times"]:
                    continue
                self.used[(self.faults_path, index)] = count + 1
            return rule
        return None

    def _send_partial(self, path, rule):
        """Headers for the whole file, then part of it (or all of it slowly)."""
        try:
            with open(path, "rb") as f:
                data = f.read()
        except OSError:
            self.send_error(404)
            return
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        try:
            if "cut" in rule:
                self.wfile.write(data[: rule["cut"]])
            elif "stall" in rule:
                self.wfile.write(data[: rule.get("stall_after", 0)])
                self.wfile.flush()
                time.sleep(rule["stall"])
            else:
                chunk = max(1, rule["rate"] // 20)
                for start in range(0, len(data), chunk):
                    self.wfile.write(data[start : start + chunk])
                    self.wfile.flush()
                    time.sleep(0.05)
            self.wfile.flush()
        except OSError:
            pass  # the client went away
        self.close_connection = True

    def send_head(self):
        if self.request_log:
            with open(self.request_log, "a") as log:
                log.write(f"{self.command} {self.path}\n")
        rule = self._fault()
        if rule is None:
            return super().send_head()
        if "status" in rule:
            self.send_error(rule["status"])
            return None
        if rule.get("drop"):
            self.close_connection = True
            return None
        self._send_partial(self.translate_path(self.path), rule)
        return None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--log")
    parser.add_argument("--faults")
    parser.add_argument("--port", type=int, default=0)
    args = parser.parse_args()
    Handler.request_log = args.log
    Handler.faults_path = args.faults
    handler = functools.partial(Handler, directory=args.dir)
    server = http.server.ThreadingHTTPServer(("127.0.0.1", args.port), handler)
    server.daemon_threads = True
    print(server.server_address[1], flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    sys.exit(main())
