#!/usr/bin/env python3
"""Generates the two sample ECG recordings that ship inside the program, and
the true R-peak times of each for the tests.

Both recordings are synthetic chest-strap ECGs at 130 samples per second in
microvolts. Every beat is a sum of Gaussian waves (P, Q, R, S and an
asymmetric T) placed around its R-peak time, in the spirit of McSharry's
ECGSYN but in the time domain. Beat times come from integrating an
instantaneous heart rate (integral pulse frequency modulation): a mean rate,
respiratory sinus arrhythmia driven by the paced lung volume, slow random
rate drifts, and a little jitter in the firing threshold.

Everything random comes from random.Random with a fixed seed, so running the
script twice gives identical bytes.

    python3 tools/gen_samples.py            # writes into the repository
    python3 tools/gen_samples.py --out DIR  # writes DIR/assets, DIR/tests/...
"""
import argparse
import math
import os
import random

FS = 130.0

# One wave of a beat: (name, offset from R in s, width in s, amplitude in uV).
# Offsets and widths are for a 1 s RR interval; render() adapts them.
# The T wave has two widths (rising flank, falling flank): real T waves rise
# slowly and fall faster.

SUBJECT_1 = {
    "name": "Sample 1",
    "seed": 16_0511,
    "duration": 264.0,        # 16 cycles of 16 s plus 8 s
    "t_in": 5.0,
    "t_out": 11.0,
    "hr_mean": 65.0,
    "rsa_bpm": 5.5,           # half the peak-to-trough swing
    "rsa_lag": 1.2,           # the rate follows the lung volume with a delay
    "drift": [(0.011, 1.0), (0.023, 0.8), (0.037, 0.5)],  # (Hz, bpm)
    "mayer_bpm": 0.7,         # ~0.1 Hz blood-pressure oscillation
    "ou_bpm": 0.4, "ou_tau": 4.0,
    "jitter": 0.010,          # relative sd of the firing threshold
    "waves": {
        "P": (-0.185, 0.022, 110.0),
        "Q": (-0.028, 0.009, -120.0),
        "R": (0.0, 0.0125, 1450.0),
        "S": (0.029, 0.010, -310.0),
        "T": (0.275, (0.055, 0.034), 310.0),
    },
    "qrs_resp_mod": 0.06,     # chest expansion changes the R amplitude
    "amp_jitter": 0.015,
    "wander": [(0.013, 45.0), (0.031, 30.0), (0.052, 20.0), (0.0071, 60.0)],
    "wander_resp": 70.0,
    "white_uv": 11.0,
    "mains_uv": 5.0,
    "ectopic_times": [],
    "noisy": None,
}

SUBJECT_2 = {
    "name": "Sample 2",
    "seed": 10_0208,
    "duration": 184.0,        # 18 cycles of 10 s plus 4 s
    "t_in": 2.0,
    "t_out": 8.0,
    "hr_mean": 78.0,
    "rsa_bpm": 1.8,
    "rsa_lag": 0.8,
    "drift": [(0.008, 2.2), (0.019, 1.6), (0.043, 1.0)],
    "mayer_bpm": 0.0,
    "ou_bpm": 1.6, "ou_tau": 2.5,
    "jitter": 0.022,
    "waves": {
        "P": (-0.165, 0.018, 85.0),
        "Q": (-0.024, 0.008, -60.0),
        "R": (0.0, 0.0115, 1120.0),
        "S": (0.026, 0.011, -520.0),
        "T": (0.255, (0.048, 0.030), 230.0),
    },
    # Ventricular premature beats: no P wave, a wider and taller QRS, and a
    # T wave of the opposite polarity.
    "ectopic_waves": {
        "Q": (-0.030, 0.012, -90.0),
        "R": (0.0, 0.0175, 1300.0),
        "S": (0.042, 0.022, -650.0),
        "T": (0.290, (0.060, 0.045), -360.0),
    },
    "qrs_resp_mod": 0.04,
    "amp_jitter": 0.025,
    "wander": [(0.009, 70.0), (0.024, 45.0), (0.047, 35.0), (0.083, 20.0)],
    "wander_resp": 45.0,
    "white_uv": 16.0,
    "mains_uv": 8.0,
    # Approximate times; the nearest sinus beat becomes premature.
    "ectopic_times": [31.0, 67.0, 98.5, 151.0],
    # Motion artefact and muscle noise: start, end in s.
    "noisy": (121.0, 125.5),
}


def lung_volume(t, t_in, t_out):
    """Paced lung volume from 0 (empty) to 1 (full); the pacer starts an
    in-breath at t = 0. Half-cosine flanks keep it smooth at the turns."""
    cycle = t_in + t_out
    tau = t % cycle
    if tau < t_in:
        return 0.5 - 0.5 * math.cos(math.pi * tau / t_in)
    return 0.5 + 0.5 * math.cos(math.pi * (tau - t_in) / t_out)


def beat_times(subj, rng):
    """Integrates the instantaneous heart rate and fires a beat each time the
    accumulated phase reaches a jittered threshold near 1."""
    dt = 0.001
    t0, t1 = -3.0, subj["duration"] + 2.0
    drift = [(f, a, rng.uniform(0.0, 2.0 * math.pi)) for f, a in subj["drift"]]
    mayer_f = rng.uniform(0.09, 0.11)
    mayer_ph = rng.uniform(0.0, 2.0 * math.pi)
    # Ornstein-Uhlenbeck rate noise, updated every 50 ms.
    ou, ou_step = 0.0, 0.05
    ou_a = math.exp(-ou_step / subj["ou_tau"])
    ou_s = subj["ou_bpm"] * math.sqrt(1.0 - ou_a * ou_a)
    next_ou = t0

    beats = []
    phase = 0.0
    threshold = 1.0 + rng.gauss(0.0, subj["jitter"])
    n = int(round((t1 - t0) / dt))
    for i in range(n):
        t = t0 + i * dt
        if t >= next_ou:
            ou = ou_a * ou + ou_s * rng.gauss(0.0, 1.0)
            next_ou += ou_step
        v = lung_volume(t - subj["rsa_lag"], subj["t_in"], subj["t_out"])
        hr = subj["hr_mean"] + subj["rsa_bpm"] * (2.0 * v - 1.0) + ou
        hr += subj["mayer_bpm"] * math.sin(2.0 * math.pi * mayer_f * t + mayer_ph)
        for f, a, ph in drift:
            hr += a * math.sin(2.0 * math.pi * f * t + ph)
        step = hr / 60.0 * dt
        if phase + step >= threshold:
            # Linear interpolation of the crossing inside this step.
            frac = (threshold - phase) / step
            beats.append(t + frac * dt)
            phase = phase + step - threshold
            threshold = 1.0 + rng.gauss(0.0, subj["jitter"])
        else:
            phase += step
    return beats


def make_ectopic(subj, beats, rng):
    """Turns the sinus beats nearest the requested times into premature
    beats with a full compensatory pause: the ectopic beat comes early and
    the following sinus beat keeps its own time, so the pair of intervals
    around the ectopic beat spans two normal intervals."""
    flags = [0] * len(beats)
    for want in subj["ectopic_times"]:
        k = min(range(1, len(beats) - 1), key=lambda j: abs(beats[j] - want))
        prev, own = beats[k - 1], beats[k]
        coupling = rng.uniform(0.58, 0.66)
        beats[k] = prev + coupling * (own - prev)
        flags[k] = 1
    return flags


def asym_gauss(x, s_left, s_right):
    s = s_left if x < 0.0 else s_right
    return math.exp(-0.5 * (x / s) ** 2)


def render(subj, beats, flags, rng):
    n = int(round(subj["duration"] * FS))
    sig = [0.0] * n
    for k, tk in enumerate(beats):
        rr_prev = tk - beats[k - 1] if k > 0 else beats[1] - beats[0]
        # QT shortens with the heart rate (Fridericia's cube root); the PR
        # interval changes far less.
        qt_scale = rr_prev ** (1.0 / 3.0)
        pr_scale = rr_prev ** 0.1
        v = lung_volume(tk, subj["t_in"], subj["t_out"])
        qrs_gain = (1.0 + subj["qrs_resp_mod"] * (2.0 * v - 1.0)) \
            * (1.0 + rng.gauss(0.0, subj["amp_jitter"]))
        other_gain = 1.0 + rng.gauss(0.0, subj["amp_jitter"])
        waves = subj["ectopic_waves"] if flags[k] else subj["waves"]
        for name, (off, width, amp) in waves.items():
            if name == "T":
                centre = tk + off * qt_scale
                s_l, s_r = width[0] * qt_scale, width[1] * qt_scale
                gain = other_gain
            elif name == "P":
                centre = tk + off * pr_scale
                s_l = s_r = width
                gain = other_gain
            else:
                centre = tk + off
                s_l = s_r = width
                gain = qrs_gain
            lo = max(0, int(math.floor((centre - 5.0 * s_l) * FS)))
            hi = min(n - 1, int(math.ceil((centre + 5.0 * s_r) * FS)))
            for i in range(lo, hi + 1):
                sig[i] += gain * amp * asym_gauss(i / FS - centre, s_l, s_r)

    wander = [(f, a, rng.uniform(0.0, 2.0 * math.pi)) for f, a in subj["wander"]]
    mains_ph = rng.uniform(0.0, 2.0 * math.pi)
    for i in range(n):
        t = i / FS
        b = subj["wander_resp"] * (lung_volume(t, subj["t_in"], subj["t_out"]) - 0.5)
        for f, a, ph in wander:
            b += a * math.sin(2.0 * math.pi * f * t + ph)
        mains = subj["mains_uv"] * (1.0 + 0.3 * math.sin(2.0 * math.pi * 0.013 * t))
        b += mains * math.sin(2.0 * math.pi * 50.0 * t + mains_ph)
        sig[i] += b + rng.gauss(0.0, subj["white_uv"])

    if subj["noisy"]:
        add_artefact(sig, subj["noisy"], rng)
    return sig


def add_artefact(sig, span, rng):
    """A few seconds of strap movement: large slow swings, two electrode
    contact jumps and broadband muscle noise, faded in and out."""
    start, end = span
    lo, hi = int(start * FS), int(end * FS)
    ramp = 0.4 * FS
    swings = [(rng.uniform(0.6, 2.8), rng.uniform(250.0, 450.0),
               rng.uniform(0.0, 2.0 * math.pi)) for _ in range(3)]
    jumps = sorted(rng.uniform(start + 0.5, end - 0.5) for _ in range(2))
    jump_h = [rng.choice((-1.0, 1.0)) * rng.uniform(500.0, 900.0) for _ in jumps]
    prev_w = 0.0
    for i in range(lo, hi):
        t = i / FS
        env = min(1.0, (i - lo) / ramp, (hi - 1 - i) / ramp)
        env = 0.5 - 0.5 * math.cos(math.pi * max(0.0, env))
        a = 0.0
        for f, amp, ph in swings:
            a += amp * math.sin(2.0 * math.pi * f * t + ph)
        for tj, h in zip(jumps, jump_h):
            # A contact jump settles back within about a second.
            x = t - tj
            if x > 0.0:
                a += h * math.exp(-x / 0.35) * (1.0 - math.exp(-x / 0.02))
        # Differenced white noise leaves mostly the high band, like EMG.
        w = rng.gauss(0.0, 260.0)
        a += (w - prev_w) * 0.7071
        prev_w = w
        sig[i] += env * a


def round_half_away(x):
    r = math.floor(abs(x) + 0.5)
    return int(-r if x < 0 else r)


def write_recording(path, sig):
    with open(path, "w", newline="\n") as f:
        f.write("".join("%d\n" % round_half_away(x) for x in sig))


def write_beats(path, beats, flags, duration):
    with open(path, "w", newline="\n") as f:
        for t, e in zip(beats, flags):
            if 0.0 <= t < duration:
                f.write("%r %d\n" % (t, e))


def generate(subj, out_dir):
    rng = random.Random(subj["seed"])
    beats = beat_times(subj, rng)
    flags = make_ectopic(subj, beats, rng)
    sig = render(subj, beats, flags, rng)
    write_recording(os.path.join(out_dir, "assets", subj["name"] + ".txt"), sig)
    beat_dir = os.path.join(out_dir, "tests", "support", "sample_beats")
    os.makedirs(beat_dir, exist_ok=True)
    write_beats(os.path.join(beat_dir, subj["name"] + ".beats.txt"),
                beats, flags, subj["duration"])


def main():
    repo = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--out", default=repo, help="root to write into (default: the repository)")
    args = ap.parse_args()
    os.makedirs(os.path.join(args.out, "assets"), exist_ok=True)
    for subj in (SUBJECT_1, SUBJECT_2):
        generate(subj, args.out)


if __name__ == "__main__":
    main()
