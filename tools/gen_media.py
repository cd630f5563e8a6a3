#!/usr/bin/env python3
"""Generates the breathing pacer's media: assets/ball.png (the round emblem
that also grows and shrinks as the pacer ball) and assets/piano.wav (the soft
cue tone at each turn of the breath).

Only the standard library is used (zlib, struct, wave), and nothing depends
on the clock or on chance, so the output is identical on every run with the
same zlib.

    python3 tools/gen_media.py            # writes into the repository
    python3 tools/gen_media.py --out DIR  # writes DIR/ball.png, DIR/piano.wav
"""
import argparse
import math
import os
import struct
import wave
import zlib

# --- ball.png ---------------------------------------------------------------

SIZE = 320
RADIUS = 152.0   # leaves room for the anti-aliased rim inside the canvas

# Colour ramp from the shadow side to the lit side, sRGB.
RAMP = [
    (0.00, (14, 52, 96)),
    (0.35, (22, 96, 142)),
    (0.65, (31, 146, 168)),
    (0.85, (74, 190, 192)),
    (1.00, (150, 226, 222)),
]

LIGHT = (-0.42, -0.55, 0.72)       # from the upper left, towards the viewer
RING_AT, RING_WIDTH, RING_ALPHA = 0.80, 0.010, 0.16


def _normalise(v):
    n = math.sqrt(sum(c * c for c in v))
    return tuple(c / n for c in v)


def _ramp(s):
    s = min(1.0, max(0.0, s))
    for (s0, c0), (s1, c1) in zip(RAMP, RAMP[1:]):
        if s <= s1:
            f = (s - s0) / (s1 - s0)
            return tuple(a + (b - a) * f for a, b in zip(c0, c1))
    return RAMP[-1][1]


def _mix(c, target, f):
    return tuple(a + (b - a) * f for a, b in zip(c, target))


def ball_pixel(px, py):
    """RGBA of one pixel: a lit sphere seen from the front, with a soft
    highlight, a faint ring and an analytically anti-aliased edge."""
    c = SIZE / 2.0
    nx, ny = (px - c) / RADIUS, (py - c) / RADIUS
    d = math.hypot(nx, ny)
    # Coverage of the pixel by the disc, from the distance of its centre to
    # the rim: a 1.25 px ramp keeps the edge smooth when the ball is scaled.
    cover = min(1.0, max(0.0, (RADIUS - d * RADIUS) / 1.25 + 0.5))
    dd = min(d, 1.0)
    nz = math.sqrt(max(0.0, 1.0 - dd * dd))
    n = (nx if d <= 1.0 else nx / d, ny if d <= 1.0 else ny / d, nz)
    lx, ly, lz = _normalise(LIGHT)
    diffuse = max(0.0, n[0] * lx + n[1] * ly + n[2] * lz)
    col = _ramp(0.12 + 0.88 * diffuse)
    # Light bounced back from below-right keeps the shadow side from going flat.
    bounce = max(0.0, n[0] * 0.55 + n[1] * 0.65 + n[2] * 0.15) ** 2 * dd ** 3
    col = _mix(col, (56, 150, 176), 0.35 * bounce)
    # Blinn-Phong highlight, broad and faint: calm rather than glossy.
    hx, hy, hz = _normalise((lx, ly, lz + 1.0))
    shine = max(0.0, n[0] * hx + n[1] * hy + n[2] * hz) ** 28
    col = _mix(col, (255, 255, 255), 0.42 * shine)
    ring = math.exp(-0.5 * ((d - RING_AT) / RING_WIDTH) ** 2)
    col = _mix(col, (225, 250, 248), RING_ALPHA * ring)
    r, g, b = (int(math.floor(v + 0.5)) for v in col)
    # Transparent pixels keep the rim colour so that scalers which do not
    # premultiply alpha do not pull a dark fringe into the edge.
    return r, g, b, int(math.floor(255.0 * cover + 0.5))


def _paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


def _filter_rows(rows, bpp):
    """Per-row filter choice by the smallest sum of absolute differences,
    the usual heuristic; deterministic for the same pixels."""
    out = bytearray()
    prev = bytes(len(rows[0]))
    for row in rows:
        cands = []
        for ftype in range(5):
            f = bytearray(len(row))
            for i, x in enumerate(row):
                a = row[i - bpp] if i >= bpp else 0
                b = prev[i]
                c = prev[i - bpp] if i >= bpp else 0
                pred = (0, a, b, (a + b) >> 1, _paeth(a, b, c))[ftype]
                f[i] = (x - pred) & 0xFF
            cost = sum(v if v < 128 else 256 - v for v in f)
            cands.append((cost, ftype, f))
        cost, ftype, f = min(cands, key=lambda t: (t[0], t[1]))
        out.append(ftype)
        out += f
        prev = row
    return bytes(out)


def _chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)


def write_png_rgba(path, width, height, rows):
    ihdr = struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0)
    idat = zlib.compress(_filter_rows(rows, 4), 9)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(_chunk(b"IHDR", ihdr))
        f.write(_chunk(b"sRGB", b"\x00"))
        f.write(_chunk(b"IDAT", idat))
        f.write(_chunk(b"IEND", b""))


def make_ball(path):
    rows = []
    for y in range(SIZE):
        row = bytearray()
        for x in range(SIZE):
            row += bytes(ball_pixel(x + 0.5, y + 0.5))
        rows.append(bytes(row))
    write_png_rgba(path, SIZE, SIZE, rows)


# --- piano.wav --------------------------------------------------------------

RATE = 44100
DURATION = 0.8
PEAK_DBFS = -12.0
# A4 with a quieter C#5 above it: a major third, soft and unresolved enough
# to read as a cue rather than a melody.
NOTES = [(440.0, 1.0), (554.365, 0.5)]
PARTIALS = 9
INHARMONICITY = 0.0004   # stiff-string stretch of the upper partials
DETUNE_HZ = 0.35         # the two strings of a unison beat slowly
ATTACK = 0.008
FADE = 0.22


def piano_sample(t):
    if t >= DURATION:
        return 0.0
    s = 0.0
    for f0, weight in NOTES:
        for n in range(1, PARTIALS + 1):
            fn = n * f0 * math.sqrt(1.0 + INHARMONICITY * n * n)
            # A felt hammer excites the upper partials weakly, and they die
            # away faster than the fundamental.
            amp = weight / n ** 1.2 * math.exp(-0.45 * (n - 1))
            tau = 0.55 / (1.0 + 0.55 * (n - 1))
            env = amp * math.exp(-t / tau)
            s += env * 0.5 * (math.sin(2.0 * math.pi * (fn - DETUNE_HZ) * t)
                              + math.sin(2.0 * math.pi * (fn + DETUNE_HZ) * t + 0.3 * n))
    if t < ATTACK:
        s *= 0.5 - 0.5 * math.cos(math.pi * t / ATTACK)
    tail = DURATION - t
    if tail < FADE:
        # Raised-cosine fade that reaches zero exactly at the last sample.
        s *= 0.5 - 0.5 * math.cos(math.pi * tail / FADE)
    return s


def make_piano(path):
    n = int(round(DURATION * RATE))
    # The last sample sits at DURATION, where the fade is zero.
    raw = [piano_sample(DURATION * i / (n - 1)) for i in range(n)]
    peak = max(abs(v) for v in raw)
    scale = 32767.0 * 10.0 ** (PEAK_DBFS / 20.0) / peak
    pcm = []
    for v in raw:
        x = v * scale
        r = int(math.floor(abs(x) + 0.5))
        pcm.append(-r if x < 0 else r)
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(RATE)
        w.writeframes(struct.pack("<%dh" % len(pcm), *pcm))


def main():
    repo = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--out", default=os.path.join(repo, "assets"), help="folder to write into")
    args = ap.parse_args()
    os.makedirs(args.out, exist_ok=True)
    make_ball(os.path.join(args.out, "ball.png"))
    make_piano(os.path.join(args.out, "piano.wav"))


if __name__ == "__main__":
    main()
