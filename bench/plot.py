#!/usr/bin/env python3
"""Draws the cost curves of a bench run (bench/run.py --curves) as small PNG
plots: time against size, one line for the project and one for its baseline.
Usage: plot.py BENCH-RESULTS.json OUT-DIR"""
import json
import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

PLOTS = {"full": ("perf-full-update.png", "Full update (first install)"),
         "digest": ("perf-checkstatus.png", "CheckStatus"),
         "noop": ("perf-noop-update.png", "No-op update --all")}


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    results = json.loads(Path(sys.argv[1]).read_text())
    out_dir = Path(sys.argv[2])
    for key, curve in results["curves"].items():
        name, title = PLOTS[key]
        fig, ax = plt.subplots(figsize=(4.8, 3.0), dpi=80)
        ax.plot(curve["x"], curve["project"], "o-", label=curve["project_label"])
        ax.plot(curve["x"], curve["baseline"], "s--", label=curve["baseline_label"])
        ax.set_xlabel(curve["unit"])
        ax.set_ylabel("seconds")
        ax.set_title(title, fontsize=10)
        ax.set_xticks(curve["x"])
        ax.set_ylim(bottom=0)
        ax.grid(alpha=0.3)
        ax.legend(fontsize=8)
        fig.tight_layout()
        fig.savefig(out_dir / name, metadata={"Software": None})
        plt.close(fig)
        print(f"plot written to {out_dir / name}")


if __name__ == "__main__":
    main()
