#!/usr/bin/env python3
"""Times the dual simplex on the Netlib set against clp's dual simplex.

Our times are the solve alone (VRXlpSetup excluded), taken by the Netlib test of
tests/simplex/dual_test.cpp, which writes them when VRX_DUAL_TIMES names a file. clp runs
with -presolve off -dualsimplex, one model per process, and its own reported solve time is
used. Prints one line per model and the ratio of shifted geometric means (shift 10 ms),
ours over clp's, for time and for iterations.

  bench/dual_vs_clp.py [--tests build-dual/tests/vornix_tests] [--data ../shared/data]
                       [--only NAME] [--repeat N]
"""
import argparse
import math
import os
import re
import subprocess
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


def run_ours(tests, only, repeat):
    best = {}
    for _ in range(repeat):
        with tempfile.NamedTemporaryFile(suffix=".txt", delete=False) as f:
            path = f.name
        env = dict(os.environ, VRX_DUAL_TIMES=path, OPENBLAS_NUM_THREADS="1")
        if only:
            env["VRX_DUAL_ONLY"] = only
        subprocess.run([tests, "--gtest_filter=DualSimplex.NetlibReferenceOptima"], env=env,
                       capture_output=True, text=True)
        with open(path) as f:
            for line in f:
                name, secs, iters, status, obj = line.split()[:5]
                rec = (float(secs), int(float(iters)), int(status), float(obj))
                if name not in best or rec[0] < best[name][0]:
                    best[name] = rec
        os.unlink(path)
    return best


def run_clp(data, names, repeat):
    out = {}
    for name in names:
        path = os.path.join(data, "netlib", name + ".mps.gz")
        best = None
        for _ in range(repeat):
            text = subprocess.run(["clp", path, "-presolve", "off", "-dualsimplex"],
                                  capture_output=True, text=True).stdout
            m = re.search(r"Optimal objective\s+(\S+)\s+-\s+(\d+)\s+iterations\s+time\s+(\S+)", text)
            if not m:
                continue
            rec = (float(m.group(3)), int(m.group(2)), float(m.group(1)))
            if best is None or rec[0] < best[0]:
                best = rec
        if best:
            out[name] = best
    return out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--tests", default=os.path.join(ROOT, "build-dual", "tests", "vornix_tests"))
    ap.add_argument("--data", default=os.path.join(ROOT, "..", "shared", "data"))
    ap.add_argument("--only", default=None)
    ap.add_argument("--repeat", type=int, default=1)
    a = ap.parse_args()
    ours = run_ours(a.tests, a.only, a.repeat)
    clp = run_clp(a.data, sorted(ours), a.repeat)
    lt = li = 0.0
    count = 0
    print("%-10s %10s %7s | %10s %7s" % ("model", "ours s", "iters", "clp s", "iters"))
    for name in sorted(ours):
        if name not in clp:
            print("%-10s clp gave no optimum" % name)
            continue
        t, it, status, _ = ours[name]
        ct, cit, _ = clp[name]
        print("%-10s %10.4f %7d | %10.4f %7d %s" % (name, t, it, ct, cit, "" if status == 2 else "status %d" % status))
        lt += math.log((1000 * t + 10) / (1000 * ct + 10))
        li += math.log((it + 10) / (cit + 10))
        count += 1
    if count:
        print("shifted geometric mean ratio, time: %.3f  iterations: %.3f  (%d models)"
              % (math.exp(lt / count), math.exp(li / count), count))


if __name__ == "__main__":
    main()
