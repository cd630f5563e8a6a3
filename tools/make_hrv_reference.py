#!/usr/bin/python3
"""Reference HRV indices (docs/analysis.md, "HRV indices"), independent of analysis/hrv.cc:
scipy's natural CubicSpline, the detrend as a literal sparse solve, a literal Welch checked
against scipy.signal.welch, exact rational cycle boundaries. Two seeded series, 1000 ms +
40 sin(2 pi 0.1 t) + 20 sin(2 pi 0.25 t) ms + noise: 10 minutes (three Welch segments) and 3
minutes (one of 720 points). Rewrites tests/analysis/golden/hrv_{10min,3min}.golden; with
--check, compares them with a fresh computation instead (fails above 1e-12 relative):

    /usr/bin/python3 tools/make_hrv_reference.py [--check]
"""

import math
import os
import sys
from fractions import Fraction

import numpy as np
from scipy import signal, sparse
from scipy.interpolate import CubicSpline
from scipy.sparse.linalg import spsolve

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from make_analysis_golden import fmt, section, write_lines  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
GOLDEN = os.path.join(ROOT, "tests", "analysis", "golden")
FIELDS = ("n_beats artefact_pct mean_nn sdnn mean_hr sd_hr min_hr max_hr rmssd nn50 pnn50 sd1 "
          "sd2 vlf lf hf total_power lf_hf lf_nu hf_nu lf_peak hf_peak peak_trough_hr").split()
FS = 4.0
LAMBDA = 500.0
SEGMENT, HOP = 1024, 512
BANDS = {"vlf": (0.0, 0.04), "lf": (0.04, 0.15), "hf": (0.15, 0.40)}
CASES = (("hrv_10min", 600.0, 11, "10.7"), ("hrv_3min", 180.0, 12, "16"))
CHECK_TOLERANCE = 1e-12


def synthetic(seconds, seed, cycle):
    rng = np.random.default_rng(seed)
    rr, t = [], 0.0
    while t < seconds:
        v = 1.0 + 0.040 * math.sin(2 * math.pi * 0.1 * t) + 0.020 * math.sin(
            2 * math.pi * 0.25 * t) + rng.normal(0.0, 0.008)
        rr.append(v)
        t += v
    corrected = np.zeros(len(rr), dtype=bool)
    corrected[[17, 90, 91]] = True
    n = int(seconds * 10)
    g = np.arange(n) * 0.1
    hr = 60 + 3 * np.sin(2 * np.pi * g / float(cycle)) + rng.normal(0.0, 0.3, n)
    hr[[5, 400]] = np.nan  # skipped by min, max and the swing
    return np.array(rr), corrected, hr


def detrend(z):
    m = len(z)
    d2 = sparse.diags([np.ones(m - 2), -2 * np.ones(m - 2), np.ones(m - 2)], [0, 1, 2],
                      shape=(m - 2, m))
    a = sparse.identity(m) + LAMBDA ** 2 * (d2.T @ d2)
    return z - spsolve(a.tocsc(), z)


def welch(z):
    length = min(SEGMENT, len(z))
    k = np.arange(length)
    w = 0.5 - 0.5 * np.cos(2 * np.pi * k / length)
    starts = range(0, len(z) - length + 1, HOP)
    spectra = []
    for s in starts:
        seg = z[s:s + length]
        spectra.append(np.abs(np.fft.fft((seg - seg.mean()) * w)) ** 2)
    p = np.mean(spectra, axis=0)[:length // 2 + 1] / (FS * np.sum(w ** 2))
    p[1:] *= 2
    if length % 2 == 0:
        p[-1] /= 2
    _, ps = signal.welch(z, fs=FS, window="hann", nperseg=length, noverlap=length // 2 if
                         len(z) >= SEGMENT else 0, detrend="constant", scaling="density")
    assert np.allclose(p, ps, rtol=1e-9, atol=0), "literal Welch differs from scipy's"
    return p, length


def frequency(nn, out):
    t = np.cumsum(nn / 1000.0)
    m = int(math.floor((t[-1] - t[0]) * FS)) + 1
    while t[0] + m * 0.25 <= t[-1]:
        m += 1
    while t[0] + (m - 1) * 0.25 > t[-1]:
        m -= 1
    grid = t[0] + np.arange(m) * 0.25
    p, length = welch(detrend(CubicSpline(t, nn, bc_type="natural")(grid)))
    f = FS * np.arange(len(p)) / length
    for name, (lo, hi) in BANDS.items():
        inside = (f >= lo) & (f < hi)
        out[name] = float(np.sum(p[inside]) * FS / length)
        if name != "vlf":
            out[name + "_peak"] = float(f[inside][np.argmax(p[inside])])
    out["total_power"] = out["vlf"] + out["lf"] + out["hf"]
    out["lf_hf"] = out["lf"] / out["hf"]
    out["lf_nu"] = 100 * out["lf"] / (out["lf"] + out["hf"])
    out["hf_nu"] = 100 * out["hf"] / (out["lf"] + out["hf"])


def peak_trough(hr, cycle):
    c, step, swings, k = Fraction(cycle), Fraction(1, 10), [], 0
    while (k + 1) * c <= len(hr) * step:
        inside = [hr[i] for i in range(len(hr)) if k * c <= i * step < (k + 1) * c]
        inside = [v for v in inside if np.isfinite(v)]
        if inside:
            swings.append(max(inside) - min(inside))
        k += 1
    return float(np.mean(swings))


def indices(rr, corrected, hr, cycle):
    nn = rr * 1000.0
    d = np.diff(nn)
    rate = 60000.0 / nn
    out = {"n_beats": len(nn), "artefact_pct": 100.0 * corrected.sum() / len(nn),
           "mean_nn": nn.mean(), "sdnn": nn.std(ddof=1), "mean_hr": rate.mean(),
           "sd_hr": rate.std(ddof=1), "min_hr": np.nanmin(hr), "max_hr": np.nanmax(hr),
           "rmssd": math.sqrt(np.mean(d ** 2)), "nn50": int(np.sum(np.abs(d) > 50)),
           "sd1": math.sqrt(np.var(d, ddof=1) / 2),
           "sd2": math.sqrt(2 * nn.var(ddof=1) - np.var(d, ddof=1) / 2),
           "peak_trough_hr": peak_trough(hr, cycle)}
    out["pnn50"] = 100.0 * out["nn50"] / len(d)
    frequency(nn, out)
    return out


def golden_lines(name, seconds, seed, cycle):
    rr, corrected, hr = synthetic(seconds, seed, cycle)
    out = indices(rr, corrected, hr, cycle)
    lines = ["# generated by tools/make_hrv_reference.py", f"cycle_seconds {cycle}"]
    lines += [f"{k} {out[k] if k in ('n_beats', 'nn50') else fmt(out[k])}" for k in FIELDS]
    section(lines, "rr", rr)
    section(lines, "corrected", corrected, as_int=True)
    section(lines, "hr", hr)
    return lines, out


def main(argv):
    check = "--check" in argv
    worst = 0.0
    for name, seconds, seed, cycle in CASES:
        lines, out = golden_lines(name, seconds, seed, cycle)
        path = os.path.join(GOLDEN, name + ".golden")
        print(f"{name}: {out['n_beats']} beats, LF {out['lf']:.1f} ms², HF {out['hf']:.1f} ms²")
        if not check:
            write_lines(path, lines)
            continue
        with open(path) as f:
            stored = dict(line.split(" ", 1) for line in f if line.split(" ")[0] in FIELDS)
        worst = max([worst] + [abs(float(stored[k]) / out[k] - 1) for k in FIELDS])
    if check:
        print(f"largest relative difference from the golden files: {worst:.3g}")
    return 0 if worst <= CHECK_TOLERANCE else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
