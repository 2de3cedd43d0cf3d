#!/usr/bin/python3
"""Makes the demo's seed file: object seeds (label 1) inside the lateral ventricles of the
Colin27 T1 brain (ch2.nii.gz of Debian's mricron-data), background seeds (label 2) in the
white matter round them and in a plane above and below. Written once; the result,
ch2_ventricle_seeds.nii.gz, ships with the project. It needs only numpy.

  data/demo/make_seeds.py /usr/share/mricron/templates/ch2.nii.gz data/demo/ch2_ventricle_seeds.nii.gz
"""
import gzip, struct, sys
import numpy as np

src, dst = sys.argv[1], sys.argv[2]
raw = gzip.open(src).read()
offset = int(struct.unpack('<f', raw[108:112])[0])
nx, ny, nz = struct.unpack('<3h', raw[42:48])
a = np.frombuffer(raw[offset:], np.uint8, nx * ny * nz).reshape(nz, ny, nx)

# Cerebrospinal fluid is dark in T1; the lateral ventricles are the dark region round the middle.
box = (slice(84, 106), slice(110, 170), slice(72, 110))  # z, y, x in voxels
csf = np.zeros_like(a, bool)
csf[box] = (a[box] > 0) & (a[box] < 40)
seeds = np.zeros_like(a)
for z in (88, 94, 100):
    sl = csf[z]
    # keep voxels whose 4 neighbours are fluid too: the seeds stay off the walls
    core = sl & np.roll(sl, 1, 0) & np.roll(sl, -1, 0) & np.roll(sl, 1, 1) & np.roll(sl, -1, 1)
    seeds[z][core] = 1
# Background: a rectangle in the white matter round the ventricles on every tenth slice, and
# two caps, wherever the tissue is bright.
z0, z1, y0, y1, x0, x1 = 78, 112, 104, 176, 66, 116
for z in range(z0, z1 + 1, 4):
    ring = np.zeros((ny, nx), bool)
    ring[y0, x0:x1 + 1] = ring[y1, x0:x1 + 1] = True
    ring[y0:y1 + 1, x0] = ring[y0:y1 + 1, x1] = True
    seeds[z][ring & (a[z] > 70)] = 2
for z in (z0, z1):
    cap = np.zeros((ny, nx), bool)
    cap[y0:y1 + 1:3, x0:x1 + 1:3] = True
    seeds[z][cap & (a[z] > 70)] = 2

hdr = bytearray(raw[:offset])
struct.pack_into('<h', hdr, 68, 1002)      # intent: label map
struct.pack_into('<h', hdr, 70, 2)         # unsigned 8-bit
struct.pack_into('<h', hdr, 72, 8)
hdr[148:228] = b'Colin27 lateral ventricle seeds: 1 object, 2 background'.ljust(80, b'\0')
with gzip.open(dst, 'wb', compresslevel=9) as f:
    f.write(bytes(hdr) + seeds.tobytes())
print(f"object seeds {int((seeds == 1).sum())}, background seeds {int((seeds == 2).sum())}")
