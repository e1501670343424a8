#!/usr/bin/env python3
"""Turns a bench/compare run into docs/benchmarks.md and its plot.

usage: report.py WORK OUT

WORK holds results.tsv (one row per measured run), meta.txt (versions and
machine) and fci_bench.txt; bench/benchmarks-notes.md (the analysis, written
by hand) is copied in at the end.
"""
import csv
import os
import statistics
import subprocess
import sys
from collections import defaultdict

TOOLS = ["kovrabackup", "borg", "restic", "rsync"]
KOVRA = ("kovrabackup",)
NAMES = {"kovrabackup": "kovrabackup (agent and kovrarestore), kfsd"}
OTHERS = ["borg", "restic", "rsync"]
# Short enough for the plot's axis.
PLOT_LABELS = {}
PHASES = ["first", "no-change", "mutate"]
# The backups' phases, then the restore of the first backup.
ALL_PHASES = PHASES + ["restore"]
LIMITS = ["find", "read", "deflate-9", "chain"]
MIB = 1024.0


def load(work):
    rows = list(csv.DictReader(open(os.path.join(work, "results.tsv")),
                               delimiter="\t"))
    for r in rows:
        for k in ("wall_s", "cpu_s", "server_cpu_s"):
            r[k] = float(r[k])
        for k in ("rss_kib", "server_rss_kib", "stored_bytes"):
            r[k] = int(float(r[k]))
    meta = {}
    for line in open(os.path.join(work, "meta.txt")):
        k, _, v = line.rstrip("\n").partition("=")
        meta[k] = v
    return rows, meta


class Results:
    def __init__(self, rows):
        # (tool, corpus, phase) -> {round: row}
        self.by = defaultdict(dict)
        for r in rows:
            self.by[(r["tool"], r["corpus"], r["phase"])][r["round"]] = r

    def values(self, tool, corpus, phase, key):
        return [r[key] for r in self.by[(tool, corpus, phase)].values()]

    def median(self, tool, corpus, phase, key):
        v = self.values(tool, corpus, phase, key)
        return statistics.median(v) if v else None

    def ratio(self, a, b, key="wall_s"):
        """Median over rounds of a/b, each round's pair taken together."""
        ra, rb = self.by[a], self.by[b]
        pairs = [ra[k][key] / rb[k][key] for k in ra
                 if k in rb and rb[k][key] > 0]
        return (statistics.median(pairs), pairs) if pairs else (None, [])


def rate(nbytes, secs):
    return f"{nbytes / 1e6 / secs:.1f}" if secs else "-"


def fmt_s(v):
    if v is None:
        return "-"
    return f"{v:.2f}" if v < 10 else f"{v:.1f}"


def fmt_mib(kib):
    return "-" if not kib else f"{kib / MIB:.1f}"


def fmt_mb(b):
    return "-" if not b else f"{b / 1e6:.0f}"


def fmt_ratio(med_pairs):
    med, pairs = med_pairs
    if med is None:
        return "-"
    return f"{med:.3f} ({', '.join(f'{p:.3f}' for p in pairs)})"


def corpus_table(res, corpus, nbytes):
    out = ["| tool | first (s) | MB/s | no-change (s) | mutate (s) | "
           "restore (s) | CPU first (s) | peak memory (MiB) first / "
           "no-change / mutate | stored (MB) |",
           "|---|---:|---:|---:|---:|---:|---:|---|---:|"]
    for tool in TOOLS:
        m = {p: res.median(tool, corpus, p, "wall_s") for p in ALL_PHASES}
        if m["first"] is None:
            continue
        mem = " / ".join(fmt_mib(res.median(tool, corpus, p, "rss_kib"))
                         for p in PHASES)
        cpu = res.median(tool, corpus, "first", "cpu_s")
        name = NAMES.get(tool, tool)
        if tool in KOVRA:
            cpu_server = res.median(tool, corpus, "first", "server_cpu_s")
            cpu_text = f"{fmt_s(cpu)} + kfsd {fmt_s(cpu_server)}"
        else:
            cpu_text = fmt_s(cpu)
        stored = res.median(tool, corpus, "first", "stored_bytes")
        out.append(f"| {name} | {fmt_s(m['first'])} | "
                   f"{rate(nbytes, m['first'])} | "
                   f"{fmt_s(m['no-change'])} | {fmt_s(m['mutate'])} | "
                   f"{fmt_s(m['restore'])} | "
                   f"{cpu_text} | {mem} | {fmt_mb(stored)} |")
        if tool in KOVRA:
            smem = " / ".join(
                fmt_mib(res.median(tool, corpus, p, "server_rss_kib"))
                for p in PHASES)
            out.append(
                f"| kfsd (server of the above) | | | | | | | {smem} | |")
    return "\n".join(out)


def limits_table(res, corpus, nbytes):
    out = ["| limit | time (s) | MB/s | CPU (s) | peak memory (MiB) |",
           "|---|---:|---:|---:|---:|"]
    names = {"find": "stat walk (`find -size`)",
             "read": "read all (`find | xargs cat`)",
             "deflate-9": "deflate-9, one core, 1 MiB blocks",
             "chain": "the agent's filter chain (MD5, deflate-9, AES)"}
    for t in LIMITS:
        w = res.median(t, corpus, "walk", "wall_s")
        if w is None:
            continue
        mbs = rate(nbytes, w) if t != "find" else "-"
        out.append(f"| {names[t]} | {fmt_s(w)} | {mbs} | "
                   f"{fmt_s(res.median(t, corpus, 'walk', 'cpu_s'))} | "
                   f"{fmt_mib(res.median(t, corpus, 'walk', 'rss_kib'))} |")
    return "\n".join(out)


def ratio_table(res, corpus):
    out = ["| pair (time of the first ÷ time of the second) | first | "
           "no-change | mutate | restore |", "|---|---|---|---|---|"]
    pairs = [("kovrabackup", o) for o in OTHERS]
    for a, b in pairs:
        cells = [fmt_ratio(res.ratio((a, corpus, p), (b, corpus, p)))
                 for p in ALL_PHASES]
        out.append(f"| {a} ÷ {b} | " + " | ".join(cells) + " |")
    for tool in KOVRA:
        for limit in ("deflate-9", "chain"):
            out.append(f"| {tool} ÷ {limit} | " + fmt_ratio(
                res.ratio((tool, corpus, "first"),
                          (limit, corpus, "walk"))) + " | | | |")
    return "\n".join(out)


def targets(res, fci_peak_kib, small_files, echo):
    rows = []

    def add(text, value, ok, shown):
        rows.append(f"| {text} | {shown} | {'met' if ok else '**missed**'} |")

    for c in ("small", "large"):
        med, _ = res.ratio(("deflate-9", c, "walk"), ("chain", c, "walk"))
        if med is not None:
            add(f"filter chain ≥ 0.95 of deflate-9 throughput ({c})", med,
                med >= 0.95, f"{med:.3f}")
    med, _ = res.ratio(("deflate-9", "large", "walk"),
                       ("kovrabackup", "large", "first"))
    if med is not None:
        add("first backup ≥ 0.9 of deflate-9 throughput (large)", med,
            med >= 0.9, f"{med:.3f}")
    med, _ = res.ratio(("kovrabackup", "small", "first"),
                       ("deflate-9", "small", "walk"))
    if med is not None:
        add("first backup ≤ 1.25 × the deflate-9 time (small)", med,
            med <= 1.25, f"{med:.3f}")
    for c, limit in (("small", 0.9), ("large", 1.0)):
        med, _ = res.ratio(("kovrabackup", c, "first"), ("borg", c, "first"))
        if med is not None:
            add(f"first backup ≤ {limit} × borg's time ({c})", med,
                med <= limit, f"{med:.3f}")
    for other, limit in (("borg", 0.5), ("restic", 1.5)):
        med, _ = res.ratio(("kovrabackup", "small", "restore"),
                           (other, "small", "restore"))
        if med is not None:
            add(f"restore (small) ≤ {limit} × {other}'s time", med,
                med <= limit, f"{med:.3f}")
    server = res.median("kovrabackup", "small", "first", "server_cpu_s")
    agent = res.median("kovrabackup", "small", "first", "cpu_s")
    chain = res.median("chain", "small", "walk", "cpu_s")
    # Two requests per small file are answered (the open and the begin of
    # its block): each costs either side at least a bare round trip.
    floor = ""
    if echo:
        floor = (f" (floor: 2 round trips = {2 * echo[0]:.0f} µs)",
                 f" (floor: 2 round trips = {2 * echo[1]:.0f} µs)")
    if server is not None and small_files:
        us = server / small_files * 1e6
        add("kfsd CPU per stored file ≤ 100 µs (small, first)", us,
            us <= 100, f"{us:.0f} µs" + (floor[0] if floor else ""))
    if agent is not None and chain is not None and small_files:
        us = (agent - chain) / small_files * 1e6
        add("agent CPU beyond the filter chain ≤ 60 µs per file (small)", us,
            us <= 60, f"{us:.0f} µs" + (floor[1] if floor else ""))
    for other, limit in (("rsync", 1.0), ("restic", 0.15), ("borg", 0.1)):
        med, _ = res.ratio(("kovrabackup", "small", "no-change"),
                           (other, "small", "no-change"))
        if med is not None:
            add(f"no-change (small) ≤ {limit} × {other}", med, med <= limit,
                f"{med:.3f}")
    peak = max((v for t in KOVRA for p in PHASES
                for v in res.values(t, "small", p, "rss_kib")), default=0)
    add("agent peak memory ≤ 8 MiB (small, worst run)", peak,
        peak <= 8 * MIB, f"{peak / MIB:.2f} MiB")
    if fci_peak_kib:
        add("peak memory ≤ 24 MiB with a 1,000,000-file index", fci_peak_kib,
            fci_peak_kib <= 24 * MIB, f"{fci_peak_kib / MIB:.2f} MiB")
    return "\n".join(["| target | measured (median ratio) | |",
                      "|---|---:|---|"] + rows)


def echo_costs(logs):
    """Median server and client CPU µs of a bare loopback round trip, from
    `corpus echo`'s lines ("N server-seconds client-seconds")."""
    server, client = [], []
    for name in sorted(os.listdir(logs)):
        if name.startswith("echo-net-") and name.endswith(".out"):
            with open(os.path.join(logs, name)) as f:
                n, s, c = f.read().split()[:3]
            server.append(float(s) / int(n) * 1e6)
            client.append(float(c) / int(n) * 1e6)
    if not server:
        return None
    return statistics.median(server), statistics.median(client)


def history_table(res):
    """Stored size after nights 1, 5 and 10 and after keeping the last 7,
    and the prune's time, per tool."""
    out = ["| tool | stored after night 1 (MB) | night 5 | night 10 | "
           "after prune (MB) | prune (s) |", "|---|---:|---:|---:|---:|---:|"]
    for tool in ("kovrabackup", "borg", "restic"):
        cells = [res.median(tool, "small", p, "stored_bytes")
                 for p in ("night01", "night05", "night10", "prune")]
        if cells[0] is None:
            continue
        prune = res.median(tool, "small", "prune", "wall_s")
        out.append(f"| {tool} | " + " | ".join(
            fmt_mb(c) if c is not None else "-" for c in cells) +
            f" | {fmt_s(prune)} |")
    return "\n".join(out)


def plot(res, out_dir):
    """Time and peak memory per tool, one row of panels per corpus."""
    data = os.path.join(out_dir, ".benchmarks.dat")
    with open(data, "w") as f:
        for c in ("small", "large"):
            f.write(f"# {c}\n")
            for tool in TOOLS:
                times = [res.median(tool, c, p, "wall_s") or 0
                         for p in ALL_PHASES]
                mem = max(res.median(tool, c, p, "rss_kib") or 0
                          for p in PHASES) / MIB
                smem = max(res.median(tool, c, p, "server_rss_kib") or 0
                           for p in PHASES) / MIB
                label = PLOT_LABELS.get(tool, tool)
                f.write(f'"{label}" {" ".join(f"{t:.3f}" for t in times)} '
                        f"{mem:.2f} {smem:.2f}\n")
            f.write("\n\n")
    png = os.path.join(out_dir, "benchmarks.png")
    panels = ""
    for i, c in enumerate(("small", "large")):
        panels += f"""
set logscale y
set ylabel "seconds (log scale)"
set title "{c}: time per run (median)"
plot "{data}" index {i} using 2:xtic(1) title "first", \\
     "" index {i} using 3 title "no-change", "" index {i} using 4 title "mutate", \\
     "" index {i} using 5 title "restore"
unset logscale y
set ylabel "MiB"
set title "{c}: peak resident memory (worst phase)"
plot "{data}" index {i} using 6:xtic(1) title "client / tool", \\
     "" index {i} using 7 title "kfsd"
"""
    script = f"""
set terminal pngcairo size 1500,950 font ",10"
set output "{png}"
set multiplot layout 2,2
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set boxwidth 0.9
set grid ytics
set key outside bottom center horizontal
{panels}
unset multiplot
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    os.remove(data)


def main():
    work, out_dir = sys.argv[1], sys.argv[2]
    rows, meta = load(work)
    res = Results(rows)
    logs = os.path.join(work, "logs")

    def corpus_size(c):
        # deflate's result line: "bytes seconds MB/s".
        with open(os.path.join(logs, f"deflate-9-{c}-1-walk.out")) as f:
            return next(int(w[0]) for w in map(str.split, f)
                        if w and w[0].isdigit())

    nbytes = {c: corpus_size(c) for c in ("small", "large")}
    echo = echo_costs(logs)
    # The corpus line: "small: N files, ...".
    small_files = int(meta["corpus_small"].split()[1])
    fci_text = open(os.path.join(work, "fci_bench.txt")).read().rstrip()
    fci_rss = res.median("fci_bench", "index", "million", "rss_kib")
    tree_kovra = res.median("kovrabackup", "tree", "no-change", "wall_s")
    tree_rsync = res.median("rsync", "tree", "no-change", "wall_s")
    tree_mem = max(res.values("kovrabackup", "tree", "no-change", "rss_kib"))
    tree_ratio = res.ratio(("kovrabackup", "tree", "no-change"),
                           ("rsync", "tree", "no-change"))
    plot(res, out_dir)

    notes_path = os.path.join(os.path.dirname(__file__),
                              "benchmarks-notes.md")
    notes = open(notes_path).read().rstrip() if os.path.exists(
        notes_path) else ""
    m = meta
    doc = f"""# Benchmarks

kovrabackup with a local kfsd, side by side with restic, BorgBackup and rsync
on the same generated data, on one machine, in one run. Regenerate this page
and its plot with one command:

    bench/compare

It builds the Release programs, generates the corpora, runs {m['reps']}
rounds in which every tool takes its turn (A B C D A B C D ...), then writes
this file from the measurements. Every figure is the median over the rounds;
ratios are taken round by round (each pair measured minutes apart) and the
median of those is shown with the single rounds in brackets. Times are wall
clock, memory is peak resident set size, both from `/usr/bin/time -v`
(kfsd's from its `/proc` status, as it is a separate, long-lived process).
All data is read from the page cache. The machine is shared and noisy:
compare ratios within this page, not with other runs.

Machine: {m['cpu']}, {m['cores']} cores, {m['memory']}, Linux
{m['kernel']}, {m['filesystem']}; {m['compiler']}. Measured {m['date']} at
commit {m['commit']}, corpus scale {m['scale']}.

![time and memory per tool](benchmarks.png)

## Targets

{targets(res, fci_rss, small_files, echo)}

## `small`: {m['corpus_small'].removeprefix('small: ')}

About 50,000 files in 500 nested folders; sizes mostly a few KiB, one in
fifty between 16 KiB and 4 MiB; three in four text-like, the rest random.
`mutate` rewrites up to 8 KiB in the middle of 1% of the files.

{corpus_table(res, 'small', nbytes['small'])}

Physical limits on the same data:

{limits_table(res, 'small', nbytes['small'])}

Ratios, pair by pair:

{ratio_table(res, 'small')}

## `large`: {m['corpus_large'].removeprefix('large: ')}

Four text-like and four random files; `mutate` appends 4 MiB to one of them.

{corpus_table(res, 'large', nbytes['large'])}

Physical limits on the same data:

{limits_table(res, 'large', nbytes['large'])}

Ratios, pair by pair:

{ratio_table(res, 'large')}

## History

Ten runs of `small` in a row, each after another 1% of the files changed
(`corpus night DIR N`), stand for ten nights; then each tool keeps its last
seven (`kfsd prune --keep-last 7`; `borg prune --keep-last 7` and `borg
compact`; `restic forget --keep-last 7 --prune`).

{history_table(res)}

## The index at scale

A no-change run of kovrabackup over a generated tree of {int(m['tree_files']):,}
tiny files (the index built by a first run before): {fmt_s(tree_kovra)} s,
peak memory {fmt_mib(tree_mem)} MiB (worst round); `rsync -a` re-run on the
same tree: {fmt_s(tree_rsync)} s; ratio {fmt_ratio(tree_ratio)}.

The index alone at 1,000,000 files (`fci_bench`: adds, commit, reopen, every
path looked up in walk order and shuffled, then a million misses), peak
resident memory {fmt_mib(fci_rss)} MiB:

```
{fci_text}
```

## Commands

Each tool starts from an empty store for its first backup; the no-change run
and the run after `mutate` follow on the same store.

| tool | set-up | each run |
|---|---|---|
| kovrabackup | `kfsd init D; kfsd user add D --id 7 --name bench`; job file `Dest=/7/<corpus>`, `Src=<corpus dir>`; `kfsd serve D` started before and stopped after each run | `kovrabackup <corpus>.job`; restore: `kovrarestore --hosts H --key K --user 7 /7/<corpus><corpus dir> <empty dir>` |
| restic | `restic -r R init` | `restic -r R backup <corpus dir>`; restore: `restic -r R restore latest --target <empty dir>` |
| borg | `borg init --encryption=repokey R` | `borg create --compression zlib,9 R::<phase> <corpus dir>`; restore: `borg extract R::first` in an empty dir |
| rsync | - | `rsync -a <corpus dir>/ <copy>/`; restore: `rsync -a <copy>/ <empty dir>/` |
| limits | - | `find <dir> -size +1000000000000c`; `find <dir> -type f -print0 \\| xargs -0 cat`; `corpus deflate <dir>`; `corpus chain <dir>` |

Versions: {m['restic']} (Debian {m['pkg_restic']}); {m['borg']} (Debian
{m['pkg_borgbackup']}); {m['rsync']} (Debian {m['pkg_rsync']}); zlib
{m['pkg_zlib1g']}, OpenSSL {m['pkg_libssl3']}, SQLite {m['pkg_libsqlite3-0']}
(Debian).

{notes}
"""
    with open(os.path.join(out_dir, "benchmarks.md"), "w") as f:
        f.write(doc)


if __name__ == "__main__":
    main()
