#!/usr/bin/env python3
"""Test material and measures for bench/declip_compare (standard library only).

  declip_metrics.py midi FILE             writes a short multi-instrument MIDI song to FILE
  declip_metrics.py join OUT IN...        joins 16-bit mono WAV files into OUT (same rate)
  declip_metrics.py clip IN OUT GAIN LVL  OUT (float WAV) = IN * GAIN clipped at +-LVL
  declip_metrics.py score CLEAN DAMAGED REPAIRED GAIN LVL
                                          prints: clipped-percent error-reduction-dB changed-percent

The score compares REPAIRED with CLEAN * GAIN over the damaged samples (where |CLEAN * GAIN|
exceeds LVL): the error reduction is 10 log10(sum (damaged - clean)^2 / sum (repaired - clean)^2)
there. Elsewhere it counts the samples that REPAIRED changed by more than 1e-6.
"""

import math
import struct
import sys
import wave


def read_wav(path):
    """Samples as floats, interleaved, with the channel count and rate (16-bit or 32-bit float)."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:4] != b"RIFF" or data[8:12] != b"WAVE":
        raise SystemExit(f"{path}: not a WAV file")
    pos, fmt, samples = 12, None, None
    while pos + 8 <= len(data):
        cid, size = data[pos:pos + 4], struct.unpack("<I", data[pos + 4:pos + 8])[0]
        body = data[pos + 8:pos + 8 + size]
        if cid == b"fmt ":
            tag, channels, rate = struct.unpack("<HHI", body[:8])
            bits = struct.unpack("<H", body[14:16])[0]
            if tag == 0xFFFE:
                tag = struct.unpack("<H", body[24:26])[0]
            fmt = (tag, channels, rate, bits)
        elif cid == b"data":
            tag, channels, rate, bits = fmt
            if tag == 3 and bits == 32:
                samples = list(struct.unpack(f"<{len(body) // 4}f", body))
            elif tag == 1 and bits == 16:
                samples = [v / 32768.0 for v in struct.unpack(f"<{len(body) // 2}h", body)]
            else:
                raise SystemExit(f"{path}: unsupported encoding (tag {tag}, {bits} bits)")
        pos += 8 + size + (size & 1)
    return samples, fmt[1], fmt[2]


def write_float_wav(path, samples, channels, rate):
    body = struct.pack(f"<{len(samples)}f", *samples)
    fmt = struct.pack("<HHIIHH", 3, channels, rate, rate * channels * 4, channels * 4, 32)
    with open(path, "wb") as f:
        f.write(b"RIFF" + struct.pack("<I", 4 + 8 + len(fmt) + 8 + len(body)) + b"WAVE")
        f.write(b"fmt " + struct.pack("<I", len(fmt)) + fmt)
        f.write(b"data" + struct.pack("<I", len(body)) + body)


def midi(path):
    """A 24-bar song at 100 bpm: piano chords, a bass line, strings and drums."""
    tpq = 480

    def var(n):
        out = [n & 0x7F]
        n >>= 7
        while n:
            out.insert(0, (n & 0x7F) | 0x80)
            n >>= 7
        return bytes(out)

    events = []  # (tick, bytes)
    progression = [(48, [0, 4, 7]), (45, [0, 3, 7]), (41, [0, 4, 7]), (43, [0, 4, 7])]
    for bar in range(24):
        root, chord = progression[bar % 4]
        t0 = bar * 4 * tpq
        for beat in range(4):  # piano, channel 0
            for iv in chord:
                events.append((t0 + beat * tpq, bytes([0x90, root + 24 + iv, 96])))
                events.append((t0 + beat * tpq + tpq - 40, bytes([0x80, root + 24 + iv, 0])))
        for beat in range(0, 4, 2):  # bass, channel 1
            events.append((t0 + beat * tpq, bytes([0x91, root - 12, 120])))
            events.append((t0 + beat * tpq + 2 * tpq - 30, bytes([0x81, root - 12, 0])))
        for iv in chord:  # strings, channel 2
            events.append((t0, bytes([0x92, root + 12 + iv, 80])))
            events.append((t0 + 4 * tpq - 10, bytes([0x82, root + 12 + iv, 0])))
        for beat in range(4):  # drums, channel 10: kick on 1 and 3, snare on 2 and 4, hats
            drum = 36 if beat % 2 == 0 else 38
            events.append((t0 + beat * tpq, bytes([0x99, drum, 120])))
            events.append((t0 + beat * tpq + 100, bytes([0x89, drum, 0])))
            events.append((t0 + beat * tpq + tpq // 2, bytes([0x99, 42, 90])))
            events.append((t0 + beat * tpq + tpq // 2 + 60, bytes([0x89, 42, 0])))
    track = bytearray(b"\x00\xff\x51\x03" + (600000).to_bytes(3, "big"))
    track += b"\x00\xc0\x00\x00\xc1\x21\x00\xc2\x30"  # piano, finger bass, strings
    last = 0
    for tick, ev in sorted(events, key=lambda e: (e[0], e[1][0] & 0xF0 == 0x90)):
        track += var(tick - last) + ev
        last = tick
    track += b"\x00\xff\x2f\x00"
    with open(path, "wb") as f:
        f.write(b"MThd" + struct.pack(">IHHH", 6, 0, 1, tpq))
        f.write(b"MTrk" + struct.pack(">I", len(track)) + bytes(track))


def join(out, inputs):
    frames, rate = [], None
    for path in inputs:
        with wave.open(path) as w:
            if w.getnchannels() != 1 or w.getsampwidth() != 2:
                raise SystemExit(f"{path}: expected 16-bit mono")
            rate = rate or w.getframerate()
            frames.append(w.readframes(w.getnframes()))
    with wave.open(out, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(b"".join(frames))


def clip(src, dst, gain, level):
    x, channels, rate = read_wav(src)
    write_float_wav(dst, [max(-level, min(level, v * gain)) for v in x], channels, rate)


def score(clean_path, damaged_path, repaired_path, gain, level):
    clean, _, _ = read_wav(clean_path)
    damaged, _, _ = read_wav(damaged_path)
    repaired, _, _ = read_wav(repaired_path)
    n = min(len(clean), len(damaged), len(repaired))
    before = after = 0.0
    hit = changed = other = 0
    for i in range(n):
        c = clean[i] * gain
        if abs(c) > level:
            hit += 1
            before += (damaged[i] - c) ** 2
            after += (repaired[i] - c) ** 2
        else:
            other += 1
            changed += abs(repaired[i] - damaged[i]) > 1e-6
    reduction = 10.0 * math.log10(before / after) if after > 0 else float("inf")
    print(f"{100.0 * hit / n:.2f} {reduction:.2f} {100.0 * changed / max(other, 1):.2f}")


if __name__ == "__main__":
    cmd = sys.argv[1]
    if cmd == "midi":
        midi(sys.argv[2])
    elif cmd == "join":
        join(sys.argv[2], sys.argv[3:])
    elif cmd == "clip":
        clip(sys.argv[2], sys.argv[3], float(sys.argv[4]), float(sys.argv[5]))
    elif cmd == "score":
        score(sys.argv[2], sys.argv[3], sys.argv[4], float(sys.argv[5]), float(sys.argv[6]))
    else:
        raise SystemExit(__doc__)
