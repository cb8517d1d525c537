#!/usr/bin/env python3
"""Runs vornix_cl and clp side by side on every model of a folder.

Prints per-model time, iterations and status for both solvers, checks each
objective against reference.csv, and reports the ratio of shifted geometric
means of the times (shift 10 ms). Writes a CSV and, when gnuplot is present,
a performance-profile plot.

  bench/lp_bench.py [--dir DIR] [--timelimit S] [--vornix-args "..."]
                    [--clp-args "..."] [--out PREFIX] [--filter REGEX] [--repeat N]
"""
import argparse
import csv
import math
import os
import re
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


def load_reference(path):
    ref = {}
    with open(path) as f:
        for row in csv.DictReader(f):
            ref[row["name"]] = float(row["objective"])
    return ref


def objective_ok(value, expected):
    if value is None:
        return False
    return abs(value - expected) <= 1e-6 * max(1.0, abs(expected))


def run(cmd, timelimit):
    start = time.perf_counter()
    try:
        out = subprocess.run(cmd, capture_output=True, text=True, timeout=timelimit + 30)
        text = out.stdout + out.stderr
        code = out.returncode
    except subprocess.TimeoutExpired as e:
        text = (e.stdout or b"").decode(errors="replace") if isinstance(e.stdout, bytes) else (e.stdout or "")
        code = -9
    return time.perf_counter() - start, code, text


def run_best(cmd, timelimit, repeat):
    """The least time of repeat runs (the output of the last): one run alone carries the
    machine's noise into models that take a few milliseconds."""
    best = None
    for _ in range(max(1, repeat)):
        t, code, text = run(cmd, timelimit)
        best = t if best is None else min(best, t)
        if code == -9:
            break
    return best, code, text


def warm(path):
    """Reads the model file once, so that neither solver pays for a cold page cache."""
    with open(path, "rb") as fh:
        while fh.read(1 << 20):
            pass


def parse_vornix(text):
    obj = iters = None
    status = "error"
    m = re.search(r"Optimal objective\s+([-+0-9.eE]+)", text)
    if m:
        obj, status = float(m.group(1)), "optimal"
    for key, name in (("Infeasible model", "infeasible"), ("Unbounded model", "unbounded"),
                      ("Infeasible or unbounded model", "inf_or_unbd"),
                      ("Time limit reached", "time_limit"), ("Iteration limit reached", "iter_limit"),
                      ("Numeric error", "numeric")):
        if key in text and status == "error":
            status = name
    m = re.search(r"(?:Solved|Stopped) in (\d+) iterations", text)
    if m:
        iters = int(m.group(1))
    return status, obj, iters


def parse_clp(text):
    obj = iters = None
    status = "error"
    m = re.search(r"Optimal objective\s+([-+0-9.eE]+)\s+-\s+(\d+) iterations", text)
    if m:
        obj, iters, status = float(m.group(1)), int(m.group(2)), "optimal"
    elif "infeasible" in text.lower():
        status = "infeasible"
    elif "unbounded" in text.lower():
        status = "unbounded"
    elif "Stopped on time" in text or "time limit" in text.lower():
        status = "time_limit"
    return status, obj, iters


def shifted_geomean(times, shift=0.01):
    if not times:
        return float("nan")
    return math.exp(sum(math.log(t + shift) for t in times) / len(times)) - shift


def summarize(rows, args, peer=True):
    """Prints the counts and shifted geometric means, writes PREFIX.csv."""
    okv = sum(r["vornix_ok"] for r in rows)
    # A run that did not reach the reference objective counts as the time limit.
    gv = shifted_geomean([r["vornix_time"] if r["vornix_ok"] else args.timelimit for r in rows])
    print()
    if peer:
        okc = sum(r["clp_ok"] for r in rows)
        gc = shifted_geomean([r["clp_time"] if r["clp_ok"] else args.timelimit for r in rows])
        print(f"solved correctly: vornix {okv}/{len(rows)}, clp {okc}/{len(rows)}")
        print(f"shifted geometric mean (10 ms): vornix {gv:.4f}s, clp {gc:.4f}s, ratio {gv / gc:.3f}")
    else:
        print(f"solved correctly: vornix {okv}/{len(rows)}")
        print(f"shifted geometric mean (10 ms): vornix {gv:.4f}s")
    os.makedirs(os.path.dirname(args.out) or ".", exist_ok=True)
    with open(args.out + ".csv", "w", newline="") as f:
        w = csv.DictWriter(f, fieldnames=list(rows[0].keys()) if rows else ["model"])
        w.writeheader()
        for r in rows:
            w.writerow(r)
    print(f"csv: {args.out}.csv")


def plot(rows, prefix):
    gnuplot = shutil.which("gnuplot")
    if not gnuplot:
        print("gnuplot not found: no plot")
        return
    # Performance profile: share of models solved within a factor tau of the best.
    ratios = {"vornix": [], "clp": []}
    for r in rows:
        tv = r["vornix_time"] if r["vornix_ok"] else float("inf")
        tc = r["clp_time"] if r["clp_ok"] else float("inf")
        best = min(tv, tc)
        if best == float("inf"):
            continue
        ratios["vornix"].append(tv / best)
        ratios["clp"].append(tc / best)
    data = prefix + "_profile.dat"
    taus = [1 + 0.05 * k for k in range(0, 200)]
    n = max(1, len(ratios["vornix"]))
    with open(data, "w") as f:
        for tau in taus:
            sv = sum(1 for x in ratios["vornix"] if x <= tau) / n
            sc = sum(1 for x in ratios["clp"] if x <= tau) / n
            f.write(f"{tau} {sv} {sc}\n")
    png = prefix + "_profile.png"
    script = (
        "set terminal png size 900,600\n"
        f"set output '{png}'\n"
        "set title 'Performance profile (time)'\n"
        "set xlabel 'within factor of the best'\n"
        "set ylabel 'share of models'\n"
        "set yrange [0:1.05]\n"
        "set key bottom right\n"
        f"plot '{data}' using 1:2 with lines lw 2 title 'vornix', "
        f"'{data}' using 1:3 with lines lw 2 title 'clp'\n"
    )
    subprocess.run([gnuplot], input=script, text=True, check=False)
    print(f"plot: {png}")


def add_common_args(ap, out_name):
    """The options every side-by-side benchmark takes."""
    ap.add_argument("--dir", default=os.path.join(ROOT, "..", "shared", "data", "netlib"))
    ap.add_argument("--reference", default=os.path.join(ROOT, "..", "shared", "data", "reference.csv"))
    ap.add_argument("--timelimit", type=float, default=300)
    ap.add_argument("--vornix", default=os.path.join(ROOT, "build", "tools", "vornix_cl"))
    ap.add_argument("--vornix-args", default="")
    ap.add_argument("--clp-args", default="")
    ap.add_argument("--out", default=os.path.join(ROOT, "build", out_name))
    ap.add_argument("--filter", default="")
    ap.add_argument("--repeat", type=int, default=1, help="runs per model and solver; the least time counts")


def model_files(args):
    """The model files of --dir that match --filter, sorted."""
    files = sorted(f for f in os.listdir(args.dir) if re.search(r"\.(mps|qps)(\.gz|\.bz2)?$", f))
    if args.filter:
        files = [f for f in files if re.search(args.filter, f)]
    return files


def main():
    ap = argparse.ArgumentParser()
    add_common_args(ap, "lp_bench")
    args = ap.parse_args()

    ref = load_reference(args.reference)
    clp = shutil.which("clp")
    files = model_files(args)
    rows = []
    print(f"{'model':<12} {'vornix s':>9} {'iters':>7} {'status':>11}   {'clp s':>9} {'iters':>7} {'status':>11}")
    for f in files:
        name = re.sub(r"\.(mps|qps)(\.gz|\.bz2)?$", "", f)
        path = os.path.join(args.dir, f)
        vcmd = [args.vornix, "Threads=1", f"TimeLimit={args.timelimit}"] + args.vornix_args.split() + [path]
        warm(path)
        tv, _, text = run_best(vcmd, args.timelimit, args.repeat)
        sv, ov, iv = parse_vornix(text)
        row = {"model": name, "vornix_time": tv, "vornix_iters": iv, "vornix_status": sv, "vornix_obj": ov}
        if clp:
            ccmd = [clp, path, "-sec", str(args.timelimit)] + args.clp_args.split() + ["-solve"]
            tc, _, ctext = run_best(ccmd, args.timelimit, args.repeat)
            sc, oc, ic = parse_clp(ctext)
        else:
            tc, sc, oc, ic = float("nan"), "missing", None, None
        row.update({"clp_time": tc, "clp_iters": ic, "clp_status": sc, "clp_obj": oc})
        exp = ref.get(name)
        row["vornix_ok"] = exp is not None and objective_ok(ov, exp)
        row["clp_ok"] = exp is not None and objective_ok(oc, exp)
        rows.append(row)
        mark_v = "" if row["vornix_ok"] else " *"
        mark_c = "" if row["clp_ok"] else " *"
        print(f"{name:<12} {tv:9.3f} {str(iv):>7} {sv + mark_v:>11}   {tc:9.3f} {str(ic):>7} {sc + mark_c:>11}")
        sys.stdout.flush()

    summarize(rows, args, peer=shutil.which("clp") is not None)
    plot(rows, args.out)


if __name__ == "__main__":
    main()
