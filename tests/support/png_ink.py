#!/usr/bin/env python3
"""Prints the share of the pixels of a PNG (8-bit RGB or RGBA, as rsvg-convert
writes it) that stand out from its first pixel, the background: by more than
16 in one channel, so that a faint fill does not count as ink."""
import struct
import sys
import zlib


def rows_of(path):
    data = open(path, 'rb').read()
    pos, idat, header = 8, b'', None
    while pos + 8 <= len(data):
        length, kind = struct.unpack('>I4s', data[pos:pos + 8])
        if kind == b'IHDR':
            header = struct.unpack('>IIBB', data[pos + 8:pos + 18])
        elif kind == b'IDAT':
            idat += data[pos + 8:pos + 8 + length]
        pos += 12 + length
    width, height, depth, colour = header
    if depth != 8 or colour not in (2, 6):
        sys.exit('unexpected PNG kind')
    n = 3 if colour == 2 else 4
    raw, stride = zlib.decompress(idat), width * n
    prior = bytearray(stride)
    for y in range(height):
        start = y * (stride + 1)
        kind, line = raw[start], bytearray(raw[start + 1:start + 1 + stride])
        for i in range(stride):
            a = line[i - n] if i >= n else 0
            b, c = prior[i], prior[i - n] if i >= n else 0
            if kind == 1:
                line[i] = (line[i] + a) & 255
            elif kind == 2:
                line[i] = (line[i] + b) & 255
            elif kind == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        yield [bytes(line[i:i + n]) for i in range(0, stride, n)]
        prior = line


total = ink = 0
background = None
for row in rows_of(sys.argv[1]):
    background = background or row[0]
    total += len(row)
    ink += sum(1 for pixel in row if max(abs(p - q) for p, q in zip(pixel, background)) > 16)
print('%.4f' % (ink / total))
