#!/usr/bin/python3
"""Reference CVN values (breathing-cycle log-power) for the two sample recordings.

An independent, deliberately literal implementation of the chain from RR intervals to
per-cycle values with numpy and scipy: the stepped heart rate at 130 Hz, its 2 s Hann
smoothing (normalised by the weights inside the recording), artefact removal, the end
extension by 50 alternately mirrored copies of the first and last cycle, the Morlet wavelet
on its literal grid (t = 0 twice), one full-length convolution giving power at every
sample, and the mean of ln(power) over each cycle. The RR intervals come from our own
detector by way of corvane-analyze, so the reference tests the cycle chain on its own:

    /usr/bin/python3 tools/make_cvn_reference.py [--check] build/corvane-analyze

It rewrites tests/analysis/golden/cvn_sample{1,2}.txt. With --check it rewrites nothing:
it compares corvane-analyze with the reference on the two samples and on two synthetic
recordings that end mid-cycle, and fails when any cycle differs by more than 1e-6.
"""

import json
import math
import os
import subprocess
import sys
import tempfile

import numpy as np
from scipy import signal

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from make_analysis_golden import fill_gaps, fmt, section, synthetic_ecg, write_lines  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
GOLDEN = os.path.join(ROOT, "tests", "analysis", "golden")
FS = 130.0
ROUNDS = 50
# --check: the largest difference in any cycle's CVN, first and last included.
CHECK_TOLERANCE = 1e-6
SAMPLES = ((1, "assets/Sample 1.txt", 5.0, 11.0), (2, "assets/Sample 2.txt", 2.0, 8.0))


def round_half_away(x):
    return math.floor(x + 0.5) if x >= 0 else -math.floor(-x + 0.5)


def frequency_axis():
    out, f = [], 0.02
    while f < 0.179999999999:
        out.append(round_half_away(f * 10000) / 10000)
        f += 0.0005
    return np.array(out)


def cycle_bounds(n, cycle):
    per_cycle = cycle * FS
    count = max(int(math.floor(n / per_cycle)), 1)
    return [int(k * per_cycle) for k in range(count + 1)]


def heart_rate_signal(rr, n):
    positions = np.floor(np.cumsum(rr * FS)).astype(np.int64)
    rate = 60.0 / rr
    rate = np.append(rate, rate[-1] + (rate[-1] - rate[-2]))
    step = rate[np.searchsorted(positions, np.arange(n), side="right")]
    taps = int(2 * FS)
    k = np.arange(taps)
    w = 0.5 - 0.5 * np.cos(2 * np.pi * k / (taps - 1))
    centre = (taps - 1) // 2
    # Centred convolution: out[i] = sum_j step[j] w[i + centre - j] / (the same over ones)
    num = np.convolve(step, w)[centre:centre + n]
    den = np.convolve(np.ones(n), w)[centre:centre + n]
    hr = num / den
    sd = hr.std()
    if sd <= 12.0 and sd > 0:
        score = np.abs(hr - hr.mean()) / sd
        peaks, _ = signal.find_peaks(score)
        prom, left, right = signal.peak_prominences(score, peaks, wlen=int(5.0 * FS))
        hr = hr.copy()
        marked = False
        for p, lo, hi in zip(prom, left, right):
            if p >= 4.0:
                hr[lo:hi] = np.nan
                marked = True
        if marked:
            hr = fill_gaps(hr)
    return hr


def extend(x, bounds, cycle):
    n = len(x)
    front = x[bounds[0]:bounds[1]]
    back = x[bounds[-1]:] if bounds[-1] < n else x[n - int(cycle * FS):]
    before, after = [], []
    for r in range(ROUNDS):
        before.insert(0, front[::-1] if r % 2 == 0 else front)
        after.append(back[::-1] if r % 2 == 0 else back)
    return np.concatenate(before + [x] + after), ROUNDS * len(front)


def morlet(freq, cycles):
    sigma = cycles / (2 * np.pi * freq)
    limit = 5 * sigma
    j = int(math.ceil(limit * FS))
    while j > 0 and (j - 1) / FS >= limit:
        j -= 1
    while j / FS < limit:
        j += 1
    t = np.arange(j) / FS
    t = np.concatenate([-t[::-1], t])  # t = 0 twice
    c = math.exp(-2 * (math.pi * freq * sigma) ** 2)
    psi = (np.cos(2 * np.pi * freq * t) - c + 1j * np.sin(2 * np.pi * freq * t)) * np.exp(
        -t ** 2 / (2 * sigma ** 2))
    return psi / (math.sqrt(np.sum(np.abs(psi) ** 2)) * math.sqrt(0.5))


def cvn_values(rr, n, cycle):
    bounds = cycle_bounds(n, cycle)
    hr = heart_rate_signal(np.asarray(rr, dtype=float), n)
    work, offset = extend(hr, bounds, cycle)
    freqs = frequency_axis()
    expected = round_half_away(1.0 / cycle * 10000) / 10000
    row = int(np.argmin(np.abs(freqs - expected)))
    psi = morlet(freqs[row], 10.0)
    y = signal.fftconvolve(work, psi)
    at = offset + (len(psi) - 1) // 2
    power = (np.abs(y[at:at + n]) ** 2).astype(np.float32).astype(float)
    logs = np.log(np.maximum(1e-30, power))
    cvn = [np.nanmean(logs[bounds[k]:bounds[k + 1]]) for k in range(len(bounds) - 1)]
    return cvn, row


def compare(analyzer, path, indur, outdur):
    """corvane-analyze on one recording; the reference values and the largest difference."""
    out = subprocess.run([analyzer, "--indur", str(indur), "--outdur", str(outdur), path],
                         check=True, capture_output=True)
    result = json.loads(out.stdout)
    rr, n, cycle = result["rr"], result["samples"], result["cycle_seconds"]
    cvn, row = cvn_values(rr, n, cycle)
    ours = np.array([np.nan if v is None else v for v in result["cvn"]], dtype=float)
    want = np.array(cvn)
    same_nan = ours.shape == want.shape and (np.isnan(ours) == np.isnan(want)).all()
    worst = np.nanmax(np.abs(ours - want)) if same_nan else math.inf
    return result, cvn, row, worst


def synthetic_recordings(folder):
    """Two recordings that do not end on a cycle boundary: 10 s and 16 s cycles."""
    made = []
    for name, seconds, seed, cycle, indur in (("synthetic_10s", 213.7, 21, 10.0, 2.0),
                                              ("synthetic_16s", 301.3, 22, 16.0, 5.0)):
        ecg, _ = synthetic_ecg(seconds, seed=seed, cycle=cycle, ectopic=(50,))
        path = os.path.join(folder, name + ".txt")
        write_lines(path, [str(v) for v in ecg])
        made.append((path, indur, cycle - indur))
    return made


def main(argv):
    check = "--check" in argv
    args = [a for a in argv[1:] if a != "--check"]
    if len(args) != 1:
        print("usage: make_cvn_reference.py [--check] PATH/TO/corvane-analyze", file=sys.stderr)
        return 2
    analyzer = args[0]
    worst_of_all = 0.0
    for number, rel, indur, outdur in SAMPLES:
        result, cvn, row, worst = compare(analyzer, os.path.join(ROOT, rel), indur, outdur)
        worst_of_all = max(worst_of_all, worst)
        rr, n, cycle = result["rr"], result["samples"], result["cycle_seconds"]
        print(f"{rel}: {len(cvn)} cycles, row {row}, largest difference from corvane-analyze "
              f"{worst:.3g}")
        if check:
            continue
        lines = ["# generated by tools/make_cvn_reference.py", f"input {rel}", f"samples {n}",
                 f"cycle_seconds {fmt(cycle)}", f"expected_row {row}"]
        section(lines, "rr", rr)
        section(lines, "cvn", cvn)
        write_lines(os.path.join(GOLDEN, f"cvn_sample{number}.txt"), lines)
    if check:
        with tempfile.TemporaryDirectory() as folder:
            for path, indur, outdur in synthetic_recordings(folder):
                _, cvn, _, worst = compare(analyzer, path, indur, outdur)
                worst_of_all = max(worst_of_all, worst)
                print(f"{os.path.basename(path)}: {len(cvn)} cycles, largest difference "
                      f"{worst:.3g}")
    return 0 if worst_of_all <= CHECK_TOLERANCE else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
