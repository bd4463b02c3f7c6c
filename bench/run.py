#!/usr/bin/env python3
"""The benchmarks behind `make bench`.

Every figure is measured on both sides in the same invocation: the project's
program and a baseline doing the same work with standard tools, alternating
which of the two runs first, each a fresh process timed from outside (wall
clock) with its peak resident memory from /usr/bin/time. A figure is the median of
--runs runs. The output is one table (project, baseline, ratio) and one line
per target: met or missed.

The data are generated (pages of one quarter random bytes, one half hex text
and one quarter zeros, roughly what zstd halves) into --work and kept there,
so that a second invocation with the same sizes skips generating and
publishing. A local HTTP server on 127.0.0.1 serves the published packages.
"""
import argparse
import json
import math
import os
import platform
import random
import shutil
import sqlite3
import statistics
import subprocess
import sys
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
MIB = 1 << 20
PAGE = 4096
VERSIONS = [20250601, 20250602, 20250603, 20250604]  # dated: never inside a port
CURVE_MIB = "64,256,1024,2048"  # the sizes of the cost curves
CURVE_DATABASES = "1,10,50"
TEMPLATE_BASE = "http://bench.invalid/repo"


def note(text):
    print(f"bench: {text}", file=sys.stderr, flush=True)


def fail(text):
    print(f"bench: error: {text}", file=sys.stderr, flush=True)
    sys.exit(1)


def run(cmd, **kwargs):
    """Runs an untimed setup command; its failure ends the benchmark."""
    result = subprocess.run(cmd, **kwargs)
    if result.returncode != 0:
        fail(f"{' '.join(map(str, cmd))} exited with {result.returncode}")
    return result


class Sample:
    def __init__(self, seconds, maxrss_kib, output):
        self.seconds = seconds
        self.maxrss_kib = maxrss_kib
        self.output = output


def timed(cmd, env=None, cwd=None, stdin_path=None, check=True):
    """Runs `cmd` once after a sync, so that no earlier run's write-back falls
    into it; returns its wall time, peak RSS (the largest of the process and
    the children it waited for, as /usr/bin/time reports it) and stdout."""
    os.sync()
    rss_file = Path(os.environ.get("TMPDIR", "/tmp")) / f"bench-rss.{os.getpid()}"
    # /usr/bin/time reports the peak memory: a child forked from this Python
    # process would carry the interpreter's own in its wait4() figure.
    wrapped = ["/usr/bin/time", "-f", "%M", "-o", str(rss_file)] + [str(c) for c in cmd]
    stdin = open(stdin_path, "rb") if stdin_path else subprocess.DEVNULL
    try:
        start = time.perf_counter()
        proc = subprocess.run(wrapped, env=env, cwd=cwd, stdin=stdin, capture_output=True)
        seconds = time.perf_counter() - start
    finally:
        if stdin_path:
            stdin.close()
    if check and proc.returncode != 0:
        fail(f"{' '.join(map(str, cmd))} exited with {proc.returncode}: "
             f"{proc.stderr.decode(errors='replace').strip()}")
    maxrss_kib = int(rss_file.read_text().split()[-1])
    rss_file.unlink()
    return Sample(seconds, maxrss_kib, proc.stdout.decode(errors="replace"))


def alternate(runs, *sides):
    """Runs each callable `runs` times, rotating which goes first; returns one
    list of results per callable."""
    results = [[] for _ in sides]
    for i in range(runs):
        for k in range(len(sides)):
            j = (i + k) % len(sides)
            results[j].append(sides[j](i))
    return results


def median(values):
    return statistics.median(values)


def percentile(values, p):
    ordered = sorted(values)
    return ordered[max(0, math.ceil(p / 100 * len(ordered)) - 1)]


def du_bytes(path):
    total = 0
    for base, _, files in os.walk(path):
        for name in files:
            total += os.lstat(os.path.join(base, name)).st_size
    return total


# ------------------------------------------------------------------ data

def pages(count):
    """`count` pages: 1 KiB random bytes, 2 KiB hex text, 1 KiB zeros each."""
    raw = os.urandom(count * 1024)
    text = os.urandom(count * 1024).hex().encode()
    zeros = bytes(1024)
    out = bytearray()
    for i in range(count):
        out += raw[i * 1024:(i + 1) * 1024]
        out += text[i * 2048:(i + 1) * 2048]
        out += zeros
    return out


def write_file(path, size):
    path.parent.mkdir(parents=True, exist_ok=True)
    with open(path, "wb") as f:
        left = size
        while left > 0:
            block = pages(min(256, (left + PAGE - 1) // PAGE))
            f.write(block[:left])
            left -= min(left, len(block))


def file_sizes(total, count, seed):
    """`count` sizes, spread over 1:4, adding up to `total`."""
    rng = random.Random(seed)
    weights = [1 + 3 * rng.random() for _ in range(count)]
    scale = total / sum(weights)
    sizes = [int(w * scale) for w in weights]
    sizes[-1] += total - sum(sizes)
    return sizes


def file_names(count):
    return [f"d{i // 100:03d}/f{i:05d}.bin" for i in range(count)]


def make_tree(root, total, count, seed):
    for name, size in zip(file_names(count), file_sizes(total, count, seed)):
        write_file(root / name, size)


class Stamp:
    """A directory made once per set of parameters; reused while they match."""

    def __init__(self, path, params):
        self.path = Path(path)
        self.params = json.dumps(params, sort_keys=True)

    def fresh(self):
        stamp = self.path / ".bench-stamp"
        return stamp.exists() and stamp.read_text() == self.params

    def reset(self):
        shutil.rmtree(self.path, ignore_errors=True)
        self.path.mkdir(parents=True)

    def done(self):
        (self.path / ".bench-stamp").write_text(self.params)


def make_items_db(path, rows, seed):
    """A table of `rows` rows of about 250 bytes (id, name, value, 200 hex chars)."""
    if path.exists():
        path.unlink()
    db = sqlite3.connect(path)
    db.execute("PRAGMA journal_mode=OFF")
    db.execute("PRAGMA synchronous=OFF")
    db.execute("CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT NOT NULL, "
               "value INTEGER NOT NULL, payload TEXT NOT NULL)")
    rng = random.Random(seed)
    batch = 20000
    for start in range(1, rows + 1, batch):
        ids = range(start, min(rows, start + batch - 1) + 1)
        blob = os.urandom(len(ids) * 100).hex()
        db.executemany("INSERT INTO items VALUES(?, ?, ?, ?)",
                       ((i, f"item {i}", rng.randrange(1 << 30), blob[k * 200:(k + 1) * 200])
                        for k, i in enumerate(ids)))
    db.commit()
    db.close()


def change_rows(path, rows, fraction, seed):
    """Gives `fraction` of the rows a new value and payload, in place."""
    db = sqlite3.connect(path)
    db.execute("PRAGMA journal_mode=OFF")
    db.execute("PRAGMA synchronous=OFF")
    rng = random.Random(seed)
    ids = rng.sample(range(1, rows + 1), max(1, int(rows * fraction)))
    blob = os.urandom(len(ids) * 100).hex()
    db.executemany("UPDATE items SET value = value + 1, payload = ? WHERE id = ?",
                   ((blob[k * 200:(k + 1) * 200], i) for k, i in enumerate(ids)))
    db.commit()
    db.close()


# ------------------------------------------------------------------ the bench

class Bench:
    def __init__(self, args):
        self.args = args
        self.build = Path(args.build).resolve()
        self.work = Path(args.work).resolve() if args.work else self.build / "bench-work"
        self.tool = self.build / "tools" / "veskdbud"
        self.publisher = self.build / "tools" / "veskdbud-publish"
        self.decoder = self.build / "tools" / "veskdbudvcdiff"
        self.helper = self.build / "bench" / "veskdbud-bench"
        for binary in (self.tool, self.publisher, self.decoder, self.helper):
            if not os.access(binary, os.X_OK):
                fail(f"{binary} is missing: build first (make bench builds)")
        for program in ("/usr/bin/time", "wget", "tar", "zstd", "sha384sum", "openssl", "sqlite3",
                        "sqldiff", "xdelta3"):
            if shutil.which(program) is None:
                fail(f"needs {program} (scripts/install-deps)")
        self.work.mkdir(parents=True, exist_ok=True)
        self.rows = []     # (figure, project, baseline, ratio) as text
        self.targets = []  # (number, text, met, bound)
        self.servers = []
        self.curves = {}  # figures of the cost curves, by name

    # -------------------------------------------------------------- helpers

    def row(self, figure, project, baseline, ratio):
        self.rows.append((figure, project, baseline, ratio))
        print(f"  {figure:<44} {project:>12} {baseline:>12} {ratio:>8}", flush=True)

    def target(self, number, text, met, bound=""):
        """`bound`: why a miss is set by documented behaviour, printed with it."""
        self.targets.append((number, text, met, bound))

    # -------------------------------------------------------------- sources

    def keys(self):
        """The vendor's signing keys, made once and shared by every published set."""
        self.key_dir = self.work / "keys"
        if not (self.key_dir / "private.pem").exists():
            shutil.rmtree(self.key_dir, ignore_errors=True)
            run([self.publisher, "keygen", "--out", self.key_dir], stdout=subprocess.DEVNULL)

    def publish(self, vendor):
        run([self.publisher, "publish", "--source", vendor / "source", "--out", vendor / "repo",
             "--key", self.key_dir / "private.pem", "--base-url", TEMPLATE_BASE,
             "--db-ver", "v1", "--time", "1750000000"], stdout=subprocess.DEVNULL)

    def sources(self):
        """The vendor's source tree, published into a served repository."""
        a = self.args
        self.keys()
        params = {"full": [a.full_mib, a.full_files], "small": [a.small_mib, a.small_files],
                  "sql": [a.sql_mib, a.sql_change], "noop": [a.noop_small, a.noop_large],
                  "databases": a.databases, "layout": 4}
        stamp = Stamp(self.work / "vendor", params)
        self.vendor = stamp.path
        self.repo_template = self.vendor / "repo"
        if self.args.curves:
            self.curve_sources()
        if stamp.fresh():
            note(f"reusing the published data in {self.vendor}")
            return
        stamp.reset()
        src = self.vendor / "source"
        started = time.perf_counter()
        note(f"generating {a.full_mib} MiB in {a.full_files} files (database 'big')")
        make_tree(src / "big" / str(VERSIONS[0]), a.full_mib * MIB, a.full_files, 1)
        note(f"generating {a.small_mib} MiB in {a.small_files} files (database 'small')")
        make_tree(src / "small" / str(VERSIONS[0]), a.small_mib * MIB, a.small_files, 2)
        for db_id, count in (("few", a.noop_small), ("many", a.noop_large)):
            note(f"generating {count} files of 4 KiB (database '{db_id}')")
            make_tree(src / db_id / str(VERSIONS[0]), count * 4096, count, 3)
        note(f"generating {a.databases} databases of 10 files of 4 KiB ('n01' ...)")
        for db_id in self.many_ids():
            make_tree(src / db_id / str(VERSIONS[0]), 10 * 4096, 10, 3)
        rows = a.sql_mib * MIB // 240  # about 240 bytes a row on disk
        note(f"generating an SQLite database of {rows} rows, {len(VERSIONS)} versions "
             f"with {a.sql_change:.0%} of the rows changed each (database 'sqldb')")
        first = src / "sqldb" / str(VERSIONS[0]) / "data.db"
        first.parent.mkdir(parents=True)
        make_items_db(first, rows, 4)
        for n, version in enumerate(VERSIONS[1:], start=1):
            path = src / "sqldb" / str(version) / "data.db"
            path.parent.mkdir(parents=True)
            shutil.copyfile(src / "sqldb" / str(VERSIONS[n - 1]) / "data.db", path)
            change_rows(path, rows, a.sql_change, 10 + n)
        note("publishing (veskdbud-publish publish)")
        self.publish(self.vendor)
        # The baseline downloads the very archive a full package signs.
        for db_id in ("big", "small"):
            self.archive_of(self.repo_template / db_id / f"v{VERSIONS[0]}" / "full.pkg",
                            self.vendor / "raw" / db_id / "full.tar.zst")
        # The SQL of each diff package, for the parts of the diff figure.
        for version in VERSIONS[1:]:
            archive = self.vendor / "sqldiffs" / f"{version}.tar.zst"
            self.archive_of(self.repo_template / "sqldb" / f"v{version}" / "diff.pkg", archive)
            run(["tar", "--zstd", "-xf", archive, "-C", archive.parent])
            shutil.move(archive.parent / "sqlitediff" / "data.db.sqlitediff",
                        archive.parent / f"{version}.sqlitediff")
            archive.unlink()
        stamp.done()
        note(f"data ready in {time.perf_counter() - started:.0f} s")

    def many_ids(self, count=None):
        return [f"n{i:02d}" for i in range(1, (count or self.args.databases) + 1)]

    def curve_sizes(self):
        """(database id, MiB, files, set) of the full-update curve: the sizes of
        the main set are reused, the others published in a set of their own."""
        a = self.args
        points = []
        for mib in a.curve_mib:
            files = max(1, mib * a.full_files // a.full_mib)
            if [mib, files] == [a.full_mib, a.full_files]:
                points.append(("big", mib, files, "main"))
            elif [mib, files] == [a.small_mib, a.small_files]:
                points.append(("small", mib, files, "main"))
            else:
                points.append((f"c{mib}", mib, files, "curves"))
        return points

    def curve_sources(self):
        own = [(db_id, mib, files) for db_id, mib, files, where in self.curve_sizes()
               if where == "curves"]
        stamp = Stamp(self.work / "vendor-curves", {"curves": own, "layout": 1})
        self.curve_vendor = stamp.path
        if stamp.fresh():
            note(f"reusing the published curve data in {self.curve_vendor}")
            return
        stamp.reset()
        for db_id, mib, files in own:
            note(f"generating {mib} MiB in {files} files (database '{db_id}', curves)")
            make_tree(self.curve_vendor / "source" / db_id / str(VERSIONS[0]), mib * MIB, files,
                      mib)
        note("publishing the curve data")
        self.publish(self.curve_vendor)
        for db_id, _, _ in own:
            self.archive_of(self.curve_vendor / "repo" / db_id / f"v{VERSIONS[0]}" / "full.pkg",
                            self.curve_vendor / "raw" / db_id / "full.tar.zst")
        stamp.done()

    @staticmethod
    def archive_of(package, out):
        """Copies the archive inside a signed package (after its 16-byte header)."""
        out.parent.mkdir(parents=True, exist_ok=True)
        with open(package, "rb") as f, open(out, "wb") as o:
            length = int.from_bytes(f.read(16)[8:16], "big")
            copied = 0
            while copied < length:
                copied += os.sendfile(o.fileno(), f.fileno(), 16 + copied, length - copied)

    # -------------------------------------------------------------- server

    def serve(self, rate_mbit=None):
        """Starts a server on a free port of 127.0.0.1 (paced to `rate_mbit`,
        by default --link-mbit) and writes the documents naming it; returns
        its port. The first one started is the one the figures use."""
        rate_mbit = self.args.link_mbit if rate_mbit is None else rate_mbit
        served = self.work / "served"
        if not self.servers:
            shutil.rmtree(served, ignore_errors=True)
            served.mkdir()
            (served / "repo").symlink_to(self.repo_template)
            (served / "raw").symlink_to(self.vendor / "raw")
            if self.args.curves:
                (served / "curves").symlink_to(self.curve_vendor / "repo")
                (served / "curves-raw").symlink_to(self.curve_vendor / "raw")
            self.request_log = self.work / "requests.log"
            self.request_log.write_text("")
        server = subprocess.Popen(
            [sys.executable, HERE.parent / "tests" / "support" / "http_server.py", "--dir", served,
             "--log", self.request_log, "--log-sent", "--rate-mbit", str(rate_mbit)],
            stdout=subprocess.PIPE, text=True)
        self.servers.append(server)
        port = int(server.stdout.readline())
        # The documents name the server; they are written for this port: the
        # main set once with the diff packages announced and once without,
        # and the curve set.
        docs = served / "docs" / str(port) / "database_info"
        docs.mkdir(parents=True)
        sets = [("v1", self.repo_template, "repo")]
        if self.args.curves:
            sets.append(("curves", self.curve_vendor / "repo", "curves"))
        for name, repo, path in sets:
            template = json.loads((repo / "database_info" / "v1").read_text())
            text = json.dumps(template, indent=1).replace(
                TEMPLATE_BASE, f"http://127.0.0.1:{port}/{path}")
            (docs / name).write_text(text)
            if name == "v1":
                nodiff = json.loads(text)
                for entry in nodiff["db_list"].values():
                    entry.pop("diff_files", None)
                (docs / "nodiff").write_text(json.dumps(nodiff, indent=1))
        if len(self.servers) == 1:
            self.port = port
        pace = f", paced to {rate_mbit:g} Mbit/s" if rate_mbit else ""
        note(f"serving {served} on 127.0.0.1:{port}{pace}")
        return port

    def requests_since(self, mark):
        lines = self.request_log.read_text().splitlines()[mark:]
        return [line.split() for line in lines]

    def request_mark(self):
        return len(self.request_log.read_text().splitlines())

    def stop(self):
        for server in self.servers:
            server.terminate()
            server.wait()

    # -------------------------------------------------------------- appliances

    def appliance(self, name, databases, db_ver="v1", port=None):
        """A sandboxed appliance (VESKDBUD_ROOT, one volume) taking `databases`
        from the server on `port` (the first one started)."""
        port = port or self.port
        base = self.work / "run" / name
        shutil.rmtree(base, ignore_errors=True)
        root, volume = base / "root", base / "volume"
        (root / "usr/vesk/etc/keys/6").mkdir(parents=True)
        (root / "usr/vesk/sbin").mkdir(parents=True)
        (root / "usr/share/data_update").mkdir(parents=True)
        volume.mkdir(parents=True)
        shutil.copyfile(self.key_dir / "public.pem", root / "usr/vesk/etc/keys/6/bench.pem")
        shutil.copy(self.decoder, root / "usr/vesk/sbin/veskdbudvcdiff")
        netloc = f"127.0.0.1:{port}/docs/{port}"  # the documents written by serve()
        (root / "usr/share/data_update/data_update.conf").write_text(json.dumps(
            {"config": {"cur_volume": "", "db_netloc": netloc, "db_ver": db_ver,
                        "download_scheme": "http"}}, indent=1))
        (root / "usr/share/data_update/databases.conf").write_text(json.dumps(
            {d: {"auto_update": True, "format_version": "1", "install_dest": "%VOLUME%",
                 "min_rsv_space_inbytes": 1048576} for d in databases}, indent=1))
        env = dict(os.environ, VESKDBUD_ROOT=str(root), VESK_VOLUMES=str(volume),
                   VESKDBUD_LOG_FILE=str(base / "veskdbud.log"), TMPDIR=str(base))
        env.pop("WGETRC", None)
        run([self.tool, "init"], env=env, stdout=subprocess.DEVNULL)
        return Appliance(self, base, root, volume, env)

    # -------------------------------------------------------------- figures

    def digest_point(self, mib, files, runs, sums=True):
        """Medians (s) of CheckStatus, CalculateStatus and `openssl dgst
        -sha384` over `mib` MiB in `files` files, and with `sums` sha384sum's."""
        data = self.work / "digest" / f"{mib}-{files}"
        stamp = Stamp(data, {"digest": [mib, files]})
        if not stamp.fresh():
            stamp.reset()
            note(f"generating {mib} MiB in {files} files (digest figure)")
            make_tree(data / "files", mib * MIB, files, 5)
            stamp.done()
        names = sorted(str(p.relative_to(data / "files")) for p in (data / "files").rglob("*")
                       if p.is_file())
        manifest = data / "manifest"
        with open(manifest, "w") as out:  # also brings the files into the page cache
            run(["sha384sum", "--", *names], cwd=data / "files", stdout=out)
        note(f"CheckStatus, CalculateStatus {mib} MiB/{files} files vs openssl dgst -sha384"
             f"{' and sha384sum' if sums else ''}: {runs} runs each")
        sides = {
            "check": lambda i: timed([self.helper, "digest", data / "files", manifest]),
            "calculate": lambda i: timed([self.helper, "calculate", data / "files", manifest]),
            "openssl": lambda i: timed(["openssl", "dgst", "-sha384", "--", *names],
                                       cwd=data / "files"),
        }
        if sums:
            sides["sha384sum"] = lambda i: timed(["sha384sum", "--", *names], cwd=data / "files")
        results = alternate(runs, *sides.values())
        return {k: median(x.seconds for x in r) for k, r in zip(sides, results)}

    def digest(self):
        a = self.args
        t = self.digest_point(a.digest_mib, a.digest_files, a.runs)
        label = f"{a.digest_mib} MiB/{a.digest_files} files"
        o = t["openssl"]
        for key, name in (("check", "CheckStatus"), ("calculate", "CalculateStatus"),
                          ("sha384sum", "sha384sum")):
            self.row(f"1 {name} {label} (s)", f"{t[key]:.3f}", f"{o:.3f}", f"{t[key] / o:.2f}")
        for key, name in (("check", "CheckStatus"), ("calculate", "CalculateStatus")):
            self.target(1, f"digest: {name} <= 0.60 x openssl dgst -sha384 ({t[key] / o:.2f}; "
                           f"{t[key] / t['sha384sum']:.2f} x sha384sum)", t[key] / o <= 0.60)

    def full_point(self, app, db_id, url, runs):
        """`runs` first installs of `db_id` by the project and by the shell
        pipeline (the archive at `url`); checks both installed the same files
        with the same digests and returns the two lists of samples."""
        sums = app.base / "baseline.sums"
        dest = app.volume / "baseline" / db_id

        def project(i):
            app.forget(db_id)
            s = timed([self.tool, "update", db_id], env=app.env)
            if s.output.strip() != f"{db_id}: installed {VERSIONS[0]}":
                fail(f"unexpected output of veskdbud update: {s.output!r}")
            return s

        def baseline(i):
            shutil.rmtree(dest, ignore_errors=True)
            return timed(["bash", HERE / "baseline_full.sh", url, app.volume / "@tmp" / "baseline",
                          dest, sums])

        project_runs, baseline_runs = alternate(runs, project, baseline)
        recorded = app.status(db_id)["file_statuses"]
        by_hand = {}
        for line in sums.read_text().splitlines():
            digest, name = line.split("  ", 1)
            by_hand[name[2:] if name.startswith("./") else name] = digest
        if {k: v["sha384_digest"] for k, v in recorded.items()} != by_hand:
            fail("the project's recorded digests differ from the baseline's sha384sum")
        shutil.rmtree(dest, ignore_errors=True)
        return project_runs, baseline_runs

    def full(self):
        a = self.args
        app = self.appliance("full", ["big", "small"])
        label = f"update, full, {a.full_mib} MiB/{a.full_files} files"
        note(f"{label}: veskdbud update vs wget+tar+cp+sha384sum, {a.runs} runs each")
        url = f"http://127.0.0.1:{self.port}/raw/big/full.tar.zst"
        project_runs, baseline_runs = self.full_point(app, "big", url, a.runs)
        p = median(s.seconds for s in project_runs)
        b = median(s.seconds for s in baseline_runs)
        self.row(f"4 {label} (s)", f"{p:.2f}", f"{b:.2f}", f"{p / b:.2f}")
        self.target(4, f"full update <= 0.80 x wget+tar+cp+sha384sum ({p / b:.2f})", p / b <= 0.80)

        # Memory: the same update, and one of a quarter of the size.
        note(f"update, full, {a.small_mib} MiB/{a.small_files} files: peak memory, {a.runs} runs")
        small_runs = []
        for i in range(a.runs):
            app.forget("small")
            small_runs.append(timed([self.tool, "update", "small"], env=app.env))
        big_rss = max(s.maxrss_kib for s in project_runs) / 1024
        small_rss = max(s.maxrss_kib for s in small_runs) / 1024
        base_rss = max(s.maxrss_kib for s in baseline_runs) / 1024
        self.row(f"6 peak RSS, full update {a.full_mib} MiB (MiB)", f"{big_rss:.1f}",
                 f"{base_rss:.1f}", f"{big_rss / base_rss:.2f}")
        self.row(f"6 peak RSS, {a.full_mib} MiB vs {a.small_mib} MiB (MiB)", f"{big_rss:.1f}",
                 f"{small_rss:.1f}", f"{big_rss / small_rss:.2f}")
        self.target(6, f"peak RSS of the full update < 64 MiB ({big_rss:.1f} MiB)", big_rss < 64)
        # "Does not grow": within 1 MiB (page and allocator granularity).
        self.target(6, f"peak RSS does not grow from {a.small_mib} MiB to {a.full_mib} MiB "
                       f"({big_rss - small_rss:+.1f} MiB, allowance 1 MiB)",
                    big_rss - small_rss <= 1.0)
        app.remove()

    def diff(self):
        a = self.args
        behind = len(VERSIONS) - 1
        chain = self.appliance("diff", ["sqldb"])
        whole = self.appliance("diff-full", ["sqldb"], db_ver="nodiff")
        # Version 1 comes from a forced install, kept as a snapshot that every
        # run starts from.
        run([self.tool, "force-install", "sqldb", f"-{behind}"], env=chain.env,
            stdout=subprocess.DEVNULL)
        if chain.status("sqldb")["data_version"] != str(VERSIONS[0]):
            fail("the forced install did not install the first version")
        snapshot = chain.base / "snapshot"
        chain.save("sqldb", snapshot)
        downloads = {}

        def route(app, name):
            def one(i):
                app.restore("sqldb", snapshot)
                mark = self.request_mark()
                log_mark = app.log_lines()
                s = timed([self.tool, "update", "sqldb"], env=app.env)
                expected = f"sqldb: updated {VERSIONS[0]} -> {VERSIONS[-1]}"
                if s.output.strip() != expected:
                    fail(f"unexpected output of veskdbud update: {s.output!r}")
                fell_back = any("try full update" in line for line in app.log_lines(log_mark))
                if fell_back != (name == "full"):
                    fail(f"the {name} run took the wrong route")
                downloads[name] = sum(int(r[2]) for r in self.requests_since(mark)
                                      if r[1].endswith(".pkg"))
                return s
            return one

        # Where the full package has to travel: a paced link.
        if a.diff_link_mbit:
            port = self.serve(a.diff_link_mbit)
            chain_link = self.appliance("diff-link", ["sqldb"], port=port)
            whole_link = self.appliance("diff-full-link", ["sqldb"], db_ver="nodiff", port=port)
            label = f"update, {behind} diffs vs full, {a.diff_link_mbit:g} Mbit/s"
            note(f"{label}: {a.runs} runs each")
            diff_runs, full_runs = alternate(a.runs, route(chain_link, "diff"),
                                             route(whole_link, "full"))
            d = median(s.seconds for s in diff_runs)
            f = median(s.seconds for s in full_runs)
            self.row(f"2 {label} (s)", f"{d:.2f}", f"{f:.2f}", f"{d / f:.2f}")
            self.target(2, f"diff chain over {a.diff_link_mbit:g} Mbit/s <= 0.10 x full update "
                           f"({d / f:.2f})", d / f <= 0.10)
            chain_link.remove()
            whole_link.remove()

        over = f"{a.link_mbit:g} Mbit/s" if a.link_mbit else "loopback"
        label = f"update, {behind} diffs vs full, {over}"
        note(f"{label}: {a.runs} runs each")
        diff_runs, full_runs = alternate(a.runs, route(chain, "diff"), route(whole, "full"))
        d = median(s.seconds for s in diff_runs)
        f = median(s.seconds for s in full_runs)
        self.row(f"3 {label} (s)", f"{d:.2f}", f"{f:.2f}", f"{d / f:.2f}")

        # The floor of the diff route: copying the installed file (it changes
        # a copy), the SQL in one transaction per version with the journal as
        # configured, and the digest of the result for the status, here with
        # OpenSSL's SHA-384, the code the library digests with.
        note("the same work by hand: cp, sqlite3 with each diff, openssl dgst -sha384")
        work = chain.base / "by-hand"
        work.mkdir(exist_ok=True)
        installed = snapshot / "files" / "data.db"
        scripts = []
        for version in VERSIONS[1:]:
            script = work / f"{version}.sql"
            with open(script, "w") as out:
                out.write("BEGIN;\n")
                out.write((self.vendor / "sqldiffs" / f"{version}.sqlitediff").read_text())
                out.write("COMMIT;\n")
            scripts.append(script)
        parts = {"cp": [], "sqlite3": [], "openssl dgst -sha384": []}
        for i in range(a.runs):
            (work / "data.db").unlink(missing_ok=True)
            parts["cp"].append(timed(["cp", installed, work / "data.db"]).seconds)
            parts["sqlite3"].append(sum(
                timed(["sqlite3", "-bail", work / "data.db"], stdin_path=script).seconds
                for script in scripts))
            parts["openssl dgst -sha384"].append(
                timed(["openssl", "dgst", "-sha384", work / "data.db"]).seconds)
        floor = sum(median(v) for v in parts.values())
        for name, values in parts.items():
            self.row(f"3   by hand: {name} (s)", f"{median(values):.2f}", f"{floor:.2f}",
                     f"{median(values) / floor:.2f}")
        self.row(f"3 diff chain vs by hand, {over} (s)", f"{d:.2f}", f"{floor:.2f}",
                 f"{d / floor:.2f}")
        db, fb = downloads["diff"], downloads["full"]
        self.row("3 bytes downloaded, diffs vs full package (MiB)", f"{db / MIB:.2f}",
                 f"{fb / MIB:.2f}", f"{db / fb:.3f}")
        self.target(3, f"diff chain over {over} <= 1.15 x the same work by hand ({d / floor:.2f})",
                    d / floor <= 1.15)
        self.target(3, f"diff-chain download <= 5% of the full package ({db / fb:.1%})",
                    db / fb <= 0.05)
        chain.remove()
        whole.remove()

    def sql(self):
        a = self.args
        data = self.work / "sql"
        lines = a.sql_lines
        stamp = Stamp(data, {"sql": lines, "layout": 1})
        if not stamp.fresh():
            stamp.reset()
            updates, deletes = lines * 6 // 10, lines * 2 // 10
            inserts = lines - updates - deletes
            rows = 2 * lines
            note(f"generating a {lines}-line SQL diff ({updates} updates, {deletes} deletes, "
                 f"{inserts} inserts over {rows} rows) with sqldiff")
            make_items_db(data / "old.db", rows, 6)
            shutil.copyfile(data / "old.db", data / "new.db")
            db = sqlite3.connect(data / "new.db")
            rng = random.Random(7)
            changed = rng.sample(range(1, rows + 1), updates + deletes)
            blob = os.urandom(updates * 100).hex()
            db.executemany("UPDATE items SET value = value + 1, payload = ? WHERE id = ?",
                           ((blob[k * 200:(k + 1) * 200], i)
                            for k, i in enumerate(changed[:updates])))
            db.executemany("DELETE FROM items WHERE id = ?", ((i,) for i in changed[updates:]))
            blob = os.urandom(inserts * 100).hex()
            db.executemany("INSERT INTO items VALUES(?, ?, ?, ?)",
                           ((rows + k + 1, f"item {rows + k + 1}", k, blob[k * 200:(k + 1) * 200])
                            for k in range(inserts)))
            db.commit()
            db.close()
            with open(data / "diff.sqlitediff", "w") as out:
                run(["sqldiff", data / "old.db", data / "new.db"], stdout=out)
            with open(data / "script.sql", "w") as out:
                out.write("BEGIN;\n")
                out.write((data / "diff.sqlitediff").read_text())
                out.write("COMMIT;\n")
            stamp.done()
        count = sum(1 for _ in open(data / "diff.sqlitediff"))
        label = f"SQL diff, {count} lines"
        note(f"{label}: veskdbud-bench sql-apply vs sqlite3 in one transaction, {a.runs} runs")

        def project(i):
            shutil.copyfile(data / "old.db", data / "project.db")
            return timed([self.helper, "sql-apply", data / "project.db", data / "diff.sqlitediff"])

        def baseline(i):
            shutil.copyfile(data / "old.db", data / "baseline.db")
            return timed(["sqlite3", "-bail", data / "baseline.db"], stdin_path=data / "script.sql")

        project_runs, baseline_runs = alternate(a.runs, project, baseline)
        for result in ("project.db", "baseline.db"):
            check = subprocess.run(["sqldiff", data / result, data / "new.db"],
                                   capture_output=True)
            if check.returncode != 0 or check.stdout:
                fail(f"{result} does not hold the new data after the diff")
        p = median(s.seconds for s in project_runs)
        b = median(s.seconds for s in baseline_runs)
        self.row(f"7 {label} (s)", f"{p:.3f}", f"{b:.3f}", f"{p / b:.2f}")
        self.target(7, f"SQL diff <= 1.25 x sqlite3 in one transaction ({p / b:.2f})",
                    p / b <= 1.25)

    def noop(self):
        a = self.args
        few = self.appliance("noop-few", ["few"])
        many = self.appliance("noop-many", ["many"])
        for app in (few, many):
            run([self.tool, "update", "--all"], env=app.env, stdout=subprocess.DEVNULL)
        runs = a.runs * 5
        note(f"update --all, up to date, {a.noop_small} vs {a.noop_large} files: {runs} runs each")

        def one(app, db_id):
            def go(i):
                s = timed([self.tool, "update", "--all"], env=app.env)
                if s.output.strip() != f"{db_id}: up to date at {VERSIONS[0]}":
                    fail(f"unexpected output of veskdbud update --all: {s.output!r}")
                return s
            return go

        # Before it answers "up to date" the tool must see that every listed
        # file is there at its size: one fstatat each. That cost, measured by
        # hand over the same installed files, is added to the small side.
        def stat_each(app, db_id):
            names = app.base / f"{db_id}.names"
            names.write_text("".join(
                str(p.relative_to(app.installed(db_id))) + "\n"
                for p in sorted(app.installed(db_id).rglob("*")) if p.is_file()))
            return lambda i: timed([self.helper, "stat", app.installed(db_id), names])

        many_runs, few_runs, stat_many_runs, stat_few_runs = alternate(
            runs, one(many, "many"), one(few, "few"), stat_each(many, "many"),
            stat_each(few, "few"))
        m = median(s.seconds for s in many_runs)
        f = median(s.seconds for s in few_runs)
        stats = max(0.0, median(s.seconds for s in stat_many_runs) -
                    median(s.seconds for s in stat_few_runs))
        floor = f + stats
        self.row(f"5 update --all up to date, {a.noop_large} vs {a.noop_small} files (ms)",
                 f"{m * 1000:.1f}", f"{f * 1000:.1f}", f"{m / f:.2f}")
        self.row(f"5   by hand: fstatat of {a.noop_large - a.noop_small} more files (ms)",
                 f"{stats * 1000:.1f}", "", "")
        self.row(f"5 the same vs {a.noop_small} files + those fstatat (ms)",
                 f"{m * 1000:.1f}", f"{floor * 1000:.1f}", f"{m / floor:.2f}")
        self.target(5, f"no-op update, {a.noop_large} files <= 1.2 x ({a.noop_small} files + "
                       f"one fstatat per added file) ({m / floor:.2f})", m / floor <= 1.2)
        few.remove()
        many.remove()
        self.databases()

    def noop_sides(self, app, ids):
        """The no-op update --all over `ids`, their status --json, and the
        check by hand: one grep of the installed version per status file."""
        expected = "".join(f"{db_id}: up to date at {VERSIONS[0]}\n" for db_id in ids)

        def update(i):
            s = timed([self.tool, "update", "--all"], env=app.env)
            if s.output != expected:
                fail(f"unexpected output of veskdbud update --all: {s.output!r}")
            return s

        def status(i):
            s = timed([self.tool, "status", "--json"], env=app.env)
            if len(json.loads(s.output)["databases"]) != len(ids):
                fail(f"veskdbud status --json did not list {len(ids)} databases")
            return s

        files = [app.status_dir(db_id) / "version.json" for db_id in ids]
        script = 'for f in "$@"; do grep -m1 -o \'"data_version" *: *"[0-9]*"\' "$f"; done'

        def by_hand(i):
            s = timed(["bash", "-c", script, "by-hand", *files])
            if s.output.count(str(VERSIONS[0])) != len(ids):
                fail("the check by hand did not find every installed version")
            return s

        return update, status, by_hand

    def databases(self):
        a = self.args
        counts = sorted(set(a.curve_databases + [1, a.databases]) if a.curves
                        else {1, a.databases})
        runs = a.runs * 5
        note(f"update --all and status --json, up to date, {', '.join(map(str, counts))} "
             f"databases: {runs} runs each")
        medians = {}
        for count in counts:
            ids = self.many_ids(count)
            app = self.appliance(f"noop-{count}", ids)
            # Logged as on an appliance, to syslog only: the sandbox's mirror
            # file opens, appends and closes for every one of the nine lines
            # an up-to-date database logs.
            app.env.pop("VESKDBUD_LOG_FILE")
            run([self.tool, "update", "--all"], env=app.env, stdout=subprocess.DEVNULL)
            results = alternate(runs, *self.noop_sides(app, ids))
            medians[count] = [median(x.seconds for x in r) for r in results]
            app.remove()
        one, many = medians[1], medians[a.databases]
        for k, name in ((0, "update --all up to date"), (1, "status --json")):
            self.row(f"5 {name}, {a.databases} vs 1 databases (ms)", f"{many[k] * 1000:.1f}",
                     f"{one[k] * 1000:.1f}", f"{many[k] / one[k]:.2f}")
            self.target(5, f"{name}, {a.databases} databases <= 3 x one ({many[k] / one[k]:.2f})",
                        many[k] / one[k] <= 3)
        if a.curves:
            self.curves["noop"] = {"unit": "databases", "x": counts,
                                   "project": [medians[c][0] for c in counts],
                                   "baseline": [medians[c][2] for c in counts],
                                   "project_label": "veskdbud update --all (no-op)",
                                   "baseline_label": "grep of each status file by hand"}

    def lock(self):
        a = self.args
        path = self.work / "handoff.lock"
        note(f"lock hand-off: FileLock vs blocking flock, {a.handoffs} hand-offs each")
        results = {}
        for mode in ("filelock", "flock"):
            s = timed([self.helper, "lock-handoff", path, a.handoffs, mode, 42])
            results[mode] = [int(x) / 1000 for x in s.output.split()]
            if len(results[mode]) != a.handoffs:
                fail(f"lock-handoff {mode} reported {len(results[mode])} hand-offs")
        p = percentile(results["filelock"], 95)
        b = percentile(results["flock"], 95)
        self.row(f"6 lock hand-off, p95 of {a.handoffs} (ms)", f"{p:.1f}", f"{b:.2f}",
                 f"{p / b:.0f}")
        self.row("6 lock hand-off, median (ms)", f"{median(results['filelock']):.1f}",
                 f"{median(results['flock']):.2f}",
                 f"{median(results['filelock']) / median(results['flock']):.0f}")
        self.target(6, f"lock hand-off p95 <= 150 ms ({p:.1f} ms)", p <= 150)


    def curves_figure(self):
        """Full update and CheckStatus at each size of --curve-mib, against their
        baselines (the no-op curve is measured with the databases figure)."""
        a = self.args
        points = self.curve_sizes()
        project, baseline = [], []
        apps = {"main": self.appliance("curve-main", [p[0] for p in points if p[3] == "main"])}
        if any(p[3] == "curves" for p in points):
            apps["curves"] = self.appliance("curve-own", [p[0] for p in points
                                                          if p[3] == "curves"], db_ver="curves")
        for db_id, mib, files, where in points:
            raw = "raw" if where == "main" else "curves-raw"
            url = f"http://127.0.0.1:{self.port}/{raw}/{db_id}/full.tar.zst"
            note(f"curve: update, full, {mib} MiB/{files} files, {a.runs} runs each")
            p_runs, b_runs = self.full_point(apps[where], db_id, url, a.runs)
            apps[where].forget(db_id)
            project.append(median(s.seconds for s in p_runs))
            baseline.append(median(s.seconds for s in b_runs))
            self.row(f"c full update {mib} MiB (s)", f"{project[-1]:.2f}", f"{baseline[-1]:.2f}",
                     f"{project[-1] / baseline[-1]:.2f}")
        for app in apps.values():
            app.remove()
        self.curves["full"] = {"unit": "MiB", "x": a.curve_mib, "project": project,
                               "baseline": baseline, "project_label": "veskdbud update",
                               "baseline_label": "wget + tar + cp + sha384sum"}
        check, openssl = [], []
        for mib in a.curve_mib:
            files = max(1, mib * a.digest_files // a.digest_mib)
            t = self.digest_point(mib, files, a.runs, sums=False)
            check.append(t["check"])
            openssl.append(t["openssl"])
            self.row(f"c CheckStatus {mib} MiB (s)", f"{t['check']:.3f}", f"{t['openssl']:.3f}",
                     f"{t['check'] / t['openssl']:.2f}")
        self.curves["digest"] = {"unit": "MiB", "x": a.curve_mib, "project": check,
                                 "baseline": openssl, "project_label": "CheckStatus",
                                 "baseline_label": "openssl dgst -sha384"}


class Appliance:
    def __init__(self, bench, base, root, volume, env):
        self.bench, self.base, self.root, self.volume, self.env = bench, base, root, volume, env

    def installed(self, db_id):
        return self.volume / "@database" / "autoupdate" / db_id

    def status_dir(self, db_id):
        return self.root / "var/lib/data_update" / db_id

    def status(self, db_id):
        return json.loads((self.status_dir(db_id) / "version.json").read_text())

    def forget(self, db_id):
        """Back to never installed: no files, no status."""
        shutil.rmtree(self.installed(db_id), ignore_errors=True)
        shutil.rmtree(self.status_dir(db_id), ignore_errors=True)

    def save(self, db_id, to):
        shutil.rmtree(to, ignore_errors=True)
        to.mkdir(parents=True)
        run(["cp", "-a", self.installed(db_id), to / "files"])
        run(["cp", "-a", self.status_dir(db_id), to / "status"])

    def restore(self, db_id, snapshot):
        self.forget(db_id)
        self.installed(db_id).parent.mkdir(parents=True, exist_ok=True)
        self.status_dir(db_id).parent.mkdir(parents=True, exist_ok=True)
        run(["cp", "-a", snapshot / "files", self.installed(db_id)])
        run(["cp", "-a", snapshot / "status", self.status_dir(db_id)])

    def log_lines(self, start=0):
        log = self.base / "veskdbud.log"
        lines = log.read_text().splitlines() if log.exists() else []
        return lines[start:] if start else len(lines)

    def remove(self):
        if not self.bench.args.keep:
            shutil.rmtree(self.base, ignore_errors=True)


FIGURES = ["digest", "full", "diff", "sql", "noop", "lock"]


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build", help="the CMake build directory")
    parser.add_argument("--work", help="where data and sandboxes go (BUILD/bench-work)")
    parser.add_argument("--runs", type=int, default=3, help="runs per side and figure (3)")
    parser.add_argument("--only", help="comma-separated figures: " + ",".join(FIGURES))
    parser.add_argument("--digest-mib", type=int, default=1024)
    parser.add_argument("--digest-files", type=int, default=200)
    parser.add_argument("--full-mib", type=int, default=1024)
    parser.add_argument("--full-files", type=int, default=2000)
    parser.add_argument("--small-mib", type=int, default=256,
                        help="the smaller full update of the memory figure (256)")
    parser.add_argument("--small-files", type=int, default=500)
    parser.add_argument("--sql-mib", type=int, default=256)
    parser.add_argument("--sql-change", type=float, default=0.01,
                        help="fraction of the rows changed per version (0.01)")
    parser.add_argument("--sql-lines", type=int, default=100000)
    parser.add_argument("--noop-small", type=int, default=10)
    parser.add_argument("--noop-large", type=int, default=10000)
    parser.add_argument("--databases", type=int, default=50,
                        help="configured databases of the many-databases figure (50)")
    parser.add_argument("--diff-link-mbit", type=float, default=50,
                        help="the paced link of the diff-chain figure (50; 0: skip it)")
    parser.add_argument("--curves", action="store_true",
                        help="also measure the cost curves (full update and CheckStatus at "
                             "--curve-mib sizes, no-op update at --curve-databases) and plot "
                             "them")
    parser.add_argument("--curve-mib", default=CURVE_MIB, help=f"({CURVE_MIB})")
    parser.add_argument("--curve-databases", default=CURVE_DATABASES,
                        help=f"({CURVE_DATABASES})")
    parser.add_argument("--plots", default=str(HERE.parent / "docs"),
                        help="where --curves writes its PNG plots (docs/)")
    parser.add_argument("--handoffs", type=int, default=100)
    parser.add_argument("--link-mbit", type=float, default=0,
                        help="pace the server's bodies to this many Mbit/s, as over a real "
                             "link (0: the loopback's own speed)")
    parser.add_argument("--keep", action="store_true",
                        help="keep the appliance sandboxes in WORK/run (to profile them)")
    parser.add_argument("--clean", action="store_true",
                        help="remove the generated data afterwards")
    args = parser.parse_args()
    args.curve_mib = [int(x) for x in args.curve_mib.split(",")]
    args.curve_databases = [int(x) for x in args.curve_databases.split(",")]
    if args.runs < 3:
        parser.error("--runs: figures are medians of at least 3 runs")
    figures = args.only.split(",") if args.only else FIGURES
    unknown = set(figures) - set(FIGURES)
    if unknown:
        parser.error(f"--only: unknown figures {', '.join(sorted(unknown))}")

    bench = Bench(args)
    started = time.perf_counter()
    load_before = os.getloadavg()
    print(f"veskdbud benchmarks: {' '.join(sys.argv[1:]) or '(defaults)'}")
    print(f"machine: {os.cpu_count()} cores, {platform.machine()}, Linux {platform.release()}, "
          f"load average {load_before[0]:.2f} {load_before[1]:.2f} {load_before[2]:.2f} at start")
    print(f"  {'figure':<44} {'project':>12} {'baseline':>12} {'ratio':>8}", flush=True)
    try:
        if args.curves or set(figures) & {"full", "diff", "noop"}:
            bench.sources()
            bench.serve()
        for figure in FIGURES:
            if figure in figures:
                getattr(bench, figure)()
        if args.curves:
            if "noop" not in figures:
                bench.databases()
            bench.curves_figure()
    finally:
        bench.stop()
    load_after = os.getloadavg()
    seconds = time.perf_counter() - started
    print(f"load average {load_after[0]:.2f} {load_after[1]:.2f} {load_after[2]:.2f} at the end, "
          f"{seconds:.0f} s in all")
    print("targets:")
    for number, text, met, bound in sorted(bench.targets, key=lambda t: t[0]):
        print(f"  {number}. {text}: {'met' if met else 'MISSED'}")
        if not met and bound:
            print(f"       {bound}")
    results = bench.build / "bench-results.json"
    results.write_text(json.dumps({
        "arguments": sys.argv[1:], "cores": os.cpu_count(), "seconds": round(seconds),
        "load_average": {"start": load_before, "end": load_after},
        "figures": [dict(zip(("figure", "project", "baseline", "ratio"), r)) for r in bench.rows],
        "targets": [{"number": n, "target": t, "met": m} for n, t, m, _ in bench.targets],
        "curves": bench.curves}, indent=1) + "\n")
    print(f"figures written to {results}")
    if bench.curves:
        # Debian's matplotlib belongs to Debian's interpreter, which may not be
        # the one running this.
        try:
            import matplotlib  # noqa: F401
            python = sys.executable
        except ImportError:
            python = "/usr/bin/python3"
        run([python, HERE / "plot.py", results, args.plots])
    if args.clean:
        shutil.rmtree(bench.work, ignore_errors=True)
    else:
        print(f"data kept in {bench.work} ({du_bytes(bench.work) / (1 << 30):.1f} GiB; "
              "--clean removes it)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
