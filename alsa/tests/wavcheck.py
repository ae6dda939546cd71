#!/usr/bin/env python3
"""Test signals and checks for the ALSA plugin tests (standard library only).

  wavcheck.py make FILE RATE BITS CHANNELS FRAMES   a noise WAV, no frame silent
  wavcheck.py played SOURCE DEVICE                  DEVICE (the device's output)
        holds SOURCE from its first frame, bit-exact by the conversion rules,
        then silence; prints the frames compared
  wavcheck.py pattern FILE                          FILE holds the device's
        pattern generator, frame after frame, nothing lost or repeated
  wavcheck.py sounding DEVICE CHANNELS              each of the first CHANNELS
        channels of DEVICE carries sound somewhere
  wavcheck.py within SOURCE DEVICE LEAST            DEVICE's sounding frames, in
        order, are SOURCE's from some frame on, bit-exact, at least LEAST of
        them (silence may come between: pauses, a loop's latency)

Conversion rules: a 16-bit sample s plays as the 24-bit s x 256, a 24-bit one
unchanged; channels the stream does not carry are silent. The pattern puts the
frame number (mod 65536) in bits 16..31 of the 32-bit device sample and the
channel in bits 8..15: a 16-bit stream takes bits 16..31, a 24-bit one 8..31.
"""
import random
import sys
import wave


def read(path):
    with wave.open(path, "rb") as w:
        width, channels = w.getsampwidth(), w.getnchannels()
        data = w.readframes(w.getnframes())
    samples = [int.from_bytes(data[i:i + width], "little", signed=True)
               for i in range(0, len(data), width)]
    return width * 8, channels, [samples[i:i + channels] for i in range(0, len(samples), channels)]


def fail(message):
    print("wavcheck: " + message)
    sys.exit(1)


def make(path, rate, bits, channels, frames):
    rng = random.Random(1700)
    top = 1 << (bits - 1)
    # Full scale, both extremes included; never a silent frame, so the first
    # frame of the device's output is the stream's first.
    values = [top - 1, -top] + [rng.randrange(-top, top) or 1 for _ in range(frames * channels - 2)]
    with wave.open(path, "wb") as w:
        w.setnchannels(channels)
        w.setsampwidth(bits // 8)
        w.setframerate(rate)
        w.writeframes(b"".join(v.to_bytes(bits // 8, "little", signed=True) for v in values))


def played(source, device):
    sbits, schannels, sframes = read(source)
    dbits, dchannels, dframes = read(device)
    if dbits != 24 or dchannels < schannels:
        fail(f"device output is {dchannels} channels of {dbits} bits")
    if len(dframes) < len(sframes):
        fail(f"device played {len(dframes)} frames of {len(sframes)}")
    shift = 24 - sbits
    for n, (want, got) in enumerate(zip(sframes, dframes)):
        expected = [s << shift for s in want] + [0] * (dchannels - schannels)
        if got != expected:
            fail(f"frame {n}: expected {expected}, device played {got}")
    for n in range(len(sframes), len(dframes)):
        if any(dframes[n]):
            fail(f"frame {n} after the stream's end is not silent: {dframes[n]}")
    print(f"wavcheck: {len(sframes)} frames bit-exact, {len(dframes) - len(sframes)} silent after")


def within(source, device, least):
    sbits, schannels, sframes = read(source)
    dbits, dchannels, dframes = read(device)
    if dbits != 24 or dchannels < schannels:
        fail(f"device output is {dchannels} channels of {dbits} bits")
    shift = 24 - sbits
    want = [[s << shift for s in f] + [0] * (dchannels - schannels) for f in sframes]
    sounding = [f for f in dframes if any(f)]
    if not sounding or sounding[0] not in want:
        fail("the device played none of the source")
    first = want.index(sounding[0])
    for n, got in enumerate(sounding):
        if first + n >= len(want) or want[first + n] != got:
            fail(f"sounding frame {n}: expected source frame {first + n}, device played {got}")
    if len(sounding) < least:
        fail(f"the device played {len(sounding)} frames of the source, fewer than {least}")
    print(f"wavcheck: {len(sounding)} frames of the source from its frame {first} on, bit-exact")


def pattern(path):
    bits, channels, frames = read(path)
    if not frames:
        fail("no frames")
    first = frames[0][0] & 0xFFFF if bits == 16 else (frames[0][0] >> 8) & 0xFFFF
    for n, got in enumerate(frames):
        number = (first + n) & 0xFFFF
        if bits == 16:
            expected = [number - 0x10000 if number & 0x8000 else number] * channels
        else:
            word = (number << 8) | 0
            expected = [(word | c) - (1 << 24) if word & 0x800000 else word | c
                        for c in range(channels)]
        if got != expected:
            fail(f"frame {n}: expected {expected}, recorded {got}")
    print(f"wavcheck: {len(frames)} frames of the pattern in order")


def sounding(path, channels):
    _, have, frames = read(path)
    silent = [c for c in range(channels) if c >= have or not any(f[c] for f in frames)]
    if silent:
        fail(f"channels {silent} of {path} never sound")
    print(f"wavcheck: all {channels} channels sound")


if __name__ == "__main__":
    command = sys.argv[1] if len(sys.argv) > 1 else ""
    if command == "make" and len(sys.argv) == 7:
        make(sys.argv[2], *map(int, sys.argv[3:]))
    elif command == "played" and len(sys.argv) == 4:
        played(sys.argv[2], sys.argv[3])
    elif command == "pattern" and len(sys.argv) == 3:
        pattern(sys.argv[2])
    elif command == "within" and len(sys.argv) == 5:
        within(sys.argv[2], sys.argv[3], int(sys.argv[4]))
    elif command == "sounding" and len(sys.argv) == 4:
        sounding(sys.argv[2], int(sys.argv[3]))
    else:
        fail(__doc__)
