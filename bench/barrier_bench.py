#!/usr/bin/env python3
"""Barrier against barrier: vornix_cl Method=2 and clp -barrier on every model of a folder.

Single-threaded unless --threads says otherwise (both solvers get the same
count). Prints per-model time, barrier iterations and status for both,
checks each objective against reference.csv, and reports the ratio of shifted
geometric means of the times (shift 10 ms). By default vornix runs without
crossover (Crossover=0) and clp with its own defaults (barrier, then crossover);
--crossover runs vornix with crossover too. With --presolve 0, clp runs with
-presolve off as well unless --clp-args says otherwise.

  bench/barrier_bench.py [--dir DIR] [--timelimit S] [--presolve 0|1|-1]
                         [--crossover] [--vornix-args "..."] [--clp-args "..."]
                         [--out PREFIX] [--filter REGEX] [--no-clp] [--threads N] [--repeat N]
"""
import argparse
import os
import re
import shutil
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, HERE)

from lp_bench import (add_common_args, load_reference, model_files, objective_ok, parse_clp,  # noqa: E402
                      run_best, summarize, warm)


def parse_vornix_barrier(text):
    obj = iters = None
    status = "error"
    m = re.search(r"Barrier (?:solved model in|performed) (\d+) iterations", text)
    if m:
        iters = int(m.group(1))
    m = re.search(r"^Optimal objective\s+([-+0-9.eE]+)", text, re.M)
    if m:
        obj, status = float(m.group(1)), "optimal"
    for key, name in (("Infeasible model", "infeasible"), ("Unbounded model", "unbounded"),
                      ("Sub-optimal termination", "suboptimal"), ("Numerical trouble", "numeric"),
                      ("Time limit reached", "time_limit"), ("Iteration limit reached", "iter_limit")):
        if key in text and status == "error":
            status = name
    return status, obj, iters


def main():
    ap = argparse.ArgumentParser()
    add_common_args(ap, "barrier_bench")
    ap.add_argument("--presolve", default="-1")
    ap.add_argument("--crossover", action="store_true")
    ap.add_argument("--no-clp", action="store_true", help="vornix only, e.g. to compare two builds")
    ap.add_argument("--threads", type=int, default=1, help="Threads for vornix, -threads for clp")
    args = ap.parse_args()

    ref = load_reference(args.reference)
    if args.presolve == "0" and "-presolve" not in args.clp_args:
        args.clp_args += " -presolve off"
    clp = None if args.no_clp else shutil.which("clp")
    files = model_files(args)
    rows = []
    print(f"{'model':<12} {'vornix s':>9} {'iters':>6} {'status':>12}   {'clp s':>9} {'status':>12}   ratio")
    for f in files:
        name = re.sub(r"\.(mps|qps)(\.gz|\.bz2)?$", "", f)
        path = os.path.join(args.dir, f)
        vcmd = [args.vornix, "Method=2", f"Threads={args.threads}", f"Presolve={args.presolve}",
                f"TimeLimit={args.timelimit}"]
        if not args.crossover:
            vcmd.append("Crossover=0")
        vcmd += args.vornix_args.split() + [path]
        warm(path)
        tv, _, text = run_best(vcmd, args.timelimit, args.repeat)
        sv, ov, iv = parse_vornix_barrier(text)
        row = {"model": name, "vornix_time": tv, "vornix_iters": iv, "vornix_status": sv, "vornix_obj": ov}
        if clp:
            ccmd = [clp, path, "-sec", str(args.timelimit), "-threads", str(args.threads)]
            ccmd += args.clp_args.split() + ["-barrier"]
            tc, _, ctext = run_best(ccmd, args.timelimit, args.repeat)
            sc, oc, _ = parse_clp(ctext)
        else:
            tc, sc, oc = float("nan"), "missing", None
        row.update({"clp_time": tc, "clp_status": sc, "clp_obj": oc})
        exp = ref.get(name)
        row["vornix_ok"] = exp is not None and objective_ok(ov, exp)
        row["clp_ok"] = exp is not None and objective_ok(oc, exp)
        rows.append(row)
        mv = "" if row["vornix_ok"] else " *"
        mc = "" if row["clp_ok"] else " *"
        print(f"{name:<12} {tv:9.3f} {str(iv):>6} {sv + mv:>12}   {tc:9.3f} {sc + mc:>12}   {tv / max(tc, 1e-9):6.2f}")
        sys.stdout.flush()

    summarize(rows, args, peer=clp is not None)


if __name__ == "__main__":
    main()
