#!/usr/bin/env python3
"""Plots the columns of a soak CSV (first column: minutes) into a PNG, one
panel per column, each scaled from 0 to its own maximum, with no library
beyond Python's own (zlib for the PNG).

  soak_plot.py <soak.csv> <soak.png>
"""
import csv
import struct
import sys
import zlib

W, PANEL, MARGIN = 800, 110, 6
FONT = {  # 3x5 glyphs, rows top to bottom
    "0": "111101101101111", "1": "010110010010111", "2": "111001111100111",
    "3": "111001111001111", "4": "101101111001001", "5": "111100111001111",
    "6": "111100111101111", "7": "111001001001001", "8": "111101111101111",
    "9": "111101111001111", ".": "000000000000010", "-": "000000111000000",
    "_": "000000000000111", "a": "010101111101101", "b": "110101110101110",
    "c": "011100100100011", "d": "110101101101110", "e": "111100110100111",
    "f": "111100110100100", "g": "011100101101011", "h": "101101111101101",
    "i": "111010010010111", "j": "001001001101010", "k": "101101110101101",
    "l": "100100100100111", "m": "101111111101101", "n": "110101101101101",
    "o": "010101101101010", "p": "110101110100100", "q": "010101101110011",
    "r": "110101110101101", "s": "011100010001110", "t": "111010010010010",
    "u": "101101101101111", "v": "101101101101010", "w": "101101111111101",
    "x": "101101010101101", "y": "101101010010010", "z": "111001010100111",
}
SCALE = 2


def main(src, dst):
    with open(src) as f:
        rows = list(csv.reader(f))
    names, data = rows[0], [[float(v) for v in r] for r in rows[1:] if r]
    cols = names[1:]
    h = PANEL * len(cols)
    img = [[(255, 255, 255)] * W for _ in range(h)]
    for c, name in enumerate(cols):
        top = c * PANEL
        values = [r[c + 1] for r in data]
        peak = max(values + [1e-9])
        for x in range(W):
            img[top + PANEL - 1][x] = (160, 160, 160)
        pts = []
        for i, v in enumerate(values):
            x = MARGIN + int(i * (W - 2 * MARGIN) / max(1, len(values) - 1))
            y = top + PANEL - 8 - int(v / peak * (PANEL - 30))
            pts.append((x, y))
        for (x0, y0), (x1, y1) in zip(pts, pts[1:]):
            steps = max(abs(x1 - x0), abs(y1 - y0), 1)
            for s in range(steps + 1):
                x = x0 + (x1 - x0) * s // steps
                y = y0 + (y1 - y0) * s // steps
                img[y][x] = (200, 0, 0)
        label = "%s  max %g" % (name, peak if peak > 1e-6 else 0)
        x = MARGIN
        for ch in label.lower():
            for k, bit in enumerate(FONT.get(ch, "0" * 15)):
                if bit == "1":
                    for dy in range(SCALE):
                        for dx in range(SCALE):
                            img[top + 4 + (k // 3) * SCALE + dy][x + (k % 3) * SCALE + dx] = (0, 0, 0)
            x += 4 * SCALE
    raw = b"".join(b"\0" + bytes(v for p in row for v in p) for row in img)
    png = b"\x89PNG\r\n\x1a\n"
    for tag, body in ((b"IHDR", struct.pack(">IIBBBBB", W, h, 8, 2, 0, 0, 0)),
                      (b"IDAT", zlib.compress(raw, 9)), (b"IEND", b"")):
        png += struct.pack(">I", len(body)) + tag + body
        png += struct.pack(">I", zlib.crc32(tag + body) & 0xFFFFFFFF)
    with open(dst, "wb") as f:
        f.write(png)


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
