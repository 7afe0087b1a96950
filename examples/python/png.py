"""Writes 8-bit grey or BGR images as PNG: OpenCV's cv2.imwrite when python3-opencv is installed,
else a small zlib-based writer, so the examples need nothing beyond NumPy."""
import struct
import zlib

import numpy as np

try:
    import cv2
except ImportError:
    cv2 = None


def write_png(path, image):
    image = np.ascontiguousarray(image, dtype=np.uint8)
    if cv2 is not None:
        if not cv2.imwrite(path, image):
            raise OSError(f"cannot write {path}")
        return
    if image.ndim == 3:
        image = image[..., ::-1]  # BGR, as OpenCV keeps it, to PNG's RGB
    h, w = image.shape[:2]
    colour_type = 2 if image.ndim == 3 else 0
    rows = np.hstack([np.zeros((h, 1), np.uint8), image.reshape(h, -1)])  # filter byte 0 per row

    def chunk(kind, data):
        return (struct.pack(">I", len(data)) + kind + data
                + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF))

    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, colour_type, 0, 0, 0)))
        f.write(chunk(b"IDAT", zlib.compress(rows.tobytes(), 6)))
        f.write(chunk(b"IEND", b""))
