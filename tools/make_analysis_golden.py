#!/usr/bin/python3
"""Reference vectors for the ECG analysis chain, computed with scipy/numpy.

An independent reimplementation of R-peak detection, RR cleaning, the 10 Hz
heart-rate series and the live score on scipy.signal and numpy; the C++ tests
compare peak indices exactly, everything else to within rounding. Run with
Debian's python3: /usr/bin/python3 tools/make_analysis_golden.py. It rewrites
tests/analysis/golden/ (recordings: one integer sample a line; .golden files
as read by tests/support/golden_file.h, "nan" for NaN, full precision).
"""

import math
import os
import sys

import numpy as np
from scipy import signal

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
GOLDEN = os.path.join(ROOT, "tests", "analysis", "golden")

FS = 130.0
MAX_HR = 300
SOS = np.array([
    [0.2466890928716257, 0.0, -0.2466890928716257, 1.0, 0.8000796958750661, 0.19522466797987365],
    [1.0, 0.0, -1.0, 1.0, 1.1379793484327494, 0.6038492898384823],
    [1.0, 0.0, -1.0, 1.0, -1.5616015099547143, 0.6175958376867865],
    [1.0, 0.0, -1.0, 1.0, -1.7886122465967813, 0.843498386699437],
])
PAD = 27


def bandpass(x):
    x = np.asarray(x, dtype=float)
    return signal.sosfiltfilt(SOS, x, padtype="odd", padlen=min(PAD, len(x) - 1))


def detect_peaks(sig, fs, distance, stats):
    peaks, _ = signal.find_peaks(sig, distance=distance)
    wlen = math.ceil(0.25 * fs) if 0.25 * fs >= 2 else None
    prom = signal.peak_prominences(sig, peaks, wlen=wlen)[0]
    threshold = sig.mean() + 4.0 * sig.std()
    required = math.ceil(len(sig) / (3.0 * fs))
    kept = peaks[prom > threshold]
    path = "absolute"
    if len(kept) < required:
        path = "robust"
        m = np.median(prom)
        d = np.median(np.abs(prom - m))
        with np.errstate(divide="ignore", invalid="ignore"):
            score = np.abs(0.6745 * (prom - m) / d)
        kept = peaks[(score > 3.0) & (score < 7.0)]
    values = sig[kept]
    with np.errstate(divide="ignore", invalid="ignore"):
        z = (values - values.mean()) / values.std()
    result = kept[(z >= -7.0) & (z < 7.0)]
    stats.append(f"{path}:{len(peaks)}->{len(kept)}->{len(result)}")
    return result


def plausible_count(peaks, fs):
    iv = np.diff(peaks) / fs
    return int(np.sum((iv >= 0.33) & (iv <= 1.5)))


def r_peaks(ecg, fs, max_hr, stats):
    filtered = bandpass(ecg)
    distance = math.floor(60.0 * fs / max_hr)
    up = detect_peaks(filtered, fs, distance, stats)
    down = detect_peaks(-filtered, fs, distance, stats)
    if plausible_count(down, fs) > plausible_count(up, fs):
        stats.append("inverted")
        return down
    stats.append("upright")
    return up


def clean_rr(rr):
    rr = np.asarray(rr, dtype=float)
    if len(rr) == 0:
        return rr
    plausible = rr[(rr > 0.2) & (rr < 2.0)]
    m = np.median(plausible)
    d = np.median(np.abs(plausible - m))
    if d == 0:
        return rr
    limit = 5.0 if np.var(plausible) <= 0.01 else 3.0
    outlier = np.abs(0.6745 * (rr - m) / d) > limit
    if not outlier.any() or outlier.all():
        return rr
    idx = np.arange(len(rr))
    out = rr.copy()
    out[outlier] = np.interp(idx[outlier], idx[~outlier], rr[~outlier])
    return out


def grid_times(n_samples, fs, step):
    end = n_samples / fs - 1e-12
    times = []
    t = 0.0
    while t < end:
        times.append(round(t * (1.0 / step)) / (1.0 / step))
        t += step
    return np.array(times)


def fill_gaps(x):
    bad = np.isnan(x)
    if bad.all() or not bad.any():
        return x
    idx = np.arange(len(x))
    x = x.copy()
    x[bad] = np.interp(idx[bad], idx[~bad], x[~bad])
    return x


def regular_hr(rr, n_samples, fs):
    if len(rr) == 0:
        return np.array([])
    rate = 60.0 / rr
    extra = rate[-1] + (rate[-1] - rate[-2]) if len(rate) >= 2 else rate[-1]
    rate = np.append(rate, extra)
    beat_time = np.concatenate([[0.0], np.cumsum(rr)])
    grid = grid_times(n_samples, fs, 0.1)
    hr = np.interp(grid, beat_time, rate)
    if len(hr) < 12:
        return hr
    ext = np.concatenate([hr[10:0:-1], hr, hr[-2:-12:-1]])
    k = np.arange(10)
    w = 0.5 - 0.5 * np.cos(2.0 * np.pi * k / 9)
    w = w / w.sum()
    smooth = np.convolve(ext, w, mode="same")[10:-10]
    sd = smooth.std()
    if sd == 0 or not np.isfinite(sd):
        return smooth
    score = np.abs(smooth - smooth.mean()) / sd
    peaks, _ = signal.find_peaks(score)
    prom, left, right = signal.peak_prominences(score, peaks, wlen=50)
    for p, lo, hi in zip(prom, left, right):
        if p >= 4.0:
            smooth[lo:hi] = np.nan
    return fill_gaps(smooth)


def live_scores(rr, n_samples, cycle, fs=FS, cycles=2, step=0.1):
    grid = grid_times(n_samples, fs, step)
    ms = np.asarray(rr) * 1000.0
    beat_time = np.cumsum(ms) / 1000.0
    iv = np.interp(grid, beat_time, ms, left=np.nan, right=np.nan)
    omega = 2.0 * np.pi / cycle
    s = np.sin(omega * grid)
    c = np.cos(omega * grid)
    window = int(cycle / step * cycles)
    valid = ~np.isnan(iv)
    first = int(np.argmax(valid)) if valid.any() else len(grid)
    out = np.full(len(grid) + 1, np.nan)
    for i in range(window, len(grid) + 1):
        a = max(first, i - window)
        if a >= i:
            continue
        v = iv[a:i]
        ok = ~np.isnan(v)
        if not ok.any():
            continue
        h = np.where(ok, v - v[ok].mean(), 0.0)
        sw = s[a:i] - s[a:i].mean()
        cw = c[a:i] - c[a:i].mean()
        with np.errstate(divide="ignore", invalid="ignore"):
            rs = np.sum(sw * h) / np.sqrt(np.sum(sw * sw) * np.sum(h * h))
            rc = np.sum(cw * h) / np.sqrt(np.sum(cw * cw) * np.sum(h * h))
        r = math.sqrt(rs * rs + rc * rc)
        if math.isnan(r):
            continue
        out[i] = (r - 0.6) / 0.4 if r > 0.6 else r / 0.6 - 1.0
    return out


WAVES = (  # (centre s from R, width s, amplitude uV): P, Q, R, S, T
    (-0.20, 0.025, 120.0),
    (-0.035, 0.010, -120.0),
    (0.0, 0.011, 1100.0),
    (0.035, 0.011, -280.0),
    (0.26, 0.055, 300.0),
)


def synthetic_ecg(seconds, seed, mean_hr=65.0, rsa_bpm=7.0, cycle=16.0, noise_uv=12.0,
                  ectopic=(), coupling=0.45, polarity=1.0, burst=None, pops=(), pop_uv=0.0):
    """ECG in integer uV with beat times modulated by the breathing cycle."""
    rng = np.random.RandomState(seed)
    beats = []
    t = 0.6
    k = 0
    while t < seconds - 0.4:
        beats.append(t)
        hr = mean_hr + rsa_bpm * math.sin(2 * math.pi * t / cycle) + rng.normal(0, 1.0)
        rr = 60.0 / hr
        if k in ectopic:  # premature beat, then the compensatory pause
            beats.append(t + coupling * rr)
            t += 2 * rr
            k += 2
        else:
            t += rr
            k += 1
    n = int(seconds * FS)
    tt = np.arange(n) / FS
    x = np.zeros(n)
    for b in beats:
        lo = max(0, int((b - 0.5) * FS))
        hi = min(n, int((b + 0.7) * FS))
        seg = tt[lo:hi] - b
        for centre, width, amp in WAVES:
            x[lo:hi] += amp * np.exp(-0.5 * ((seg - centre) / width) ** 2)
    x *= polarity
    x += 250.0 * np.sin(2 * math.pi * tt / cycle) + 80.0 * np.sin(2 * math.pi * 0.31 * tt + 1.0)
    x += rng.normal(0, noise_uv, n)
    if burst is not None:  # muscle artefact: broadband noise over a stretch
        lo, hi, amp = burst
        x[int(lo * FS):int(hi * FS)] += rng.normal(0, amp, int(hi * FS) - int(lo * FS))
    for t in pops:  # electrode pops: a sharp step that decays within 50 ms
        i = int(t * FS)
        x[i:i + 6] += pop_uv * np.array([0.3, 1.0, 0.8, 0.4, 0.2, 0.1])
    return np.floor(x + 0.5).astype(int), np.array(beats)


def fmt(v):
    return "nan" if math.isnan(v) else repr(float(v))


def section(out, key, values, as_int=False):
    out.append(f"series {key} {len(values)}")
    out.extend(str(int(v)) if as_int else fmt(v) for v in values)


def write_lines(path, lines):
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")


def golden_for(name, input_rel, ecg, cycle, beats=None):
    stats = []
    peaks = r_peaks(ecg, FS, MAX_HR, stats)
    rr = clean_rr(np.diff(peaks) / FS) if len(peaks) >= 2 else np.array([])
    hr = regular_hr(rr, len(ecg), FS)
    live = live_scores(rr, len(ecg), cycle)
    lines = ["# generated by tools/make_analysis_golden.py", f"input {input_rel}",
             f"cycle_seconds {fmt(cycle)}"]
    section(lines, "peaks", peaks, as_int=True)
    section(lines, "rr", rr)
    section(lines, "hr", hr)
    section(lines, "live", live)
    if beats is not None:
        section(lines, "beat_times", beats)
    write_lines(os.path.join(GOLDEN, name + ".golden"), lines)
    print(f"{name}: {len(ecg)} samples, {len(peaks)} peaks, {' '.join(stats)}")


def filter_golden(ecg):
    rng = np.random.RandomState(7)
    cases = [
        ("one", np.array([5.0])),
        ("two", np.array([3.0, -1.0])),
        ("five", rng.normal(0, 100, 5)),
        ("pad_plus_one", rng.normal(0, 100, PAD + 1)),
        ("ecg_head", ecg[:400].astype(float)),
    ]
    lines = ["# generated by tools/make_analysis_golden.py"]
    for name, x in cases:
        section(lines, name + ".input", x)
        section(lines, name + ".output", bandpass(x))
    write_lines(os.path.join(GOLDEN, "filter.golden"), lines)


def main():
    os.makedirs(GOLDEN, exist_ok=True)
    synthetic = (
        ("synthetic_rsa", 16.0, dict(seconds=120.0, seed=3, ectopic=(40, 95))),
        ("synthetic_noisy", 10.0, dict(seconds=60.0, seed=11, mean_hr=80.0, cycle=10.0,
                                       noise_uv=60.0, polarity=-0.6, burst=(20.0, 24.0, 400.0))),
        # Pops inflate the SD, so the absolute threshold fails and the robust
        # prominence score has to find the beats.
        ("synthetic_pops", 16.0, dict(seconds=60.0, seed=5, mean_hr=70.0, noise_uv=100.0,
                                      pops=(7.3, 19.1, 33.7, 48.2, 51.0), pop_uv=12000.0)),
    )
    for name, cycle, options in synthetic:
        ecg, beats = synthetic_ecg(**options)
        write_lines(os.path.join(GOLDEN, name + ".txt"), [str(v) for v in ecg])
        golden_for(name, f"tests/analysis/golden/{name}.txt", ecg, cycle, beats)
        if name == "synthetic_rsa":
            filter_golden(ecg)
    for number, cycle in ((1, 16.0), (2, 10.0)):
        rel = f"assets/Sample {number}.txt"
        with open(os.path.join(ROOT, rel)) as f:
            samples = np.array([float(line) for line in f if line.strip()])
        golden_for(f"sample_{number}", rel, samples, cycle)
    return 0


if __name__ == "__main__":
    sys.exit(main())
