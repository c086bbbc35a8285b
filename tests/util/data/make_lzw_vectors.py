#!/usr/bin/env python3
# Regenerates lzw/<name>.z: the inputs of the LZW decoder tests (made by the
# same generators as lzw_test.cpp) compressed with the compress tool at 12
# bits, file header removed. Needs Debian's ncompress.
import os, subprocess, sys

WORDS = ("the of and to in is that for it as was with be by on not he this are or "
         "his from at which but have an they you were her she there been one all "
         "backup volume restore client server tape session catalog").split()

class Rng:
    def __init__(self, seed): self.x = seed
    def next(self):
        x = self.x
        x ^= (x << 13) & 0xFFFFFFFF; x ^= x >> 17; x ^= (x << 5) & 0xFFFFFFFF
        self.x = x
        return x

def gen_text(n, seed):
    r, out = Rng(seed), bytearray()
    while len(out) < n:
        v = r.next()
        out += WORDS[v % len(WORDS)].encode()
        out += b".\n" if (v >> 8) % 10 == 0 else b" "
    return bytes(out[:n])

def gen_binary(n, seed):
    r, out = Rng(seed), bytearray()
    for i in range(n):
        v = r.next()
        k = (v >> 8) % 4
        out.append(v & 0xFF if k == 0 else 0 if k == 1 else (i >> 4) & 0xFF if k == 2 else (v >> 16) % 8)
    return bytes(out)

def gen_random(n, seed):
    r = Rng(seed)
    return bytes((r.next() >> 24) & 0xFF for _ in range(n))

def gen_mixed(n, seed):
    third = n // 3
    return gen_text(third, seed) + gen_random(third, seed + 1) + gen_text(n - 2 * third, seed + 2)

def codes(z):
    """(number of codes, number of clears) of a header-less 12-bit stream."""
    n_bits, maxcode, free_ent, pos, ncodes, nclear, first = 9, 511, 257, 0, 0, 0, True
    clear = False
    while pos < len(z):
        chunk = z[pos:pos + n_bits]; pos += len(chunk)
        bits = int.from_bytes(chunk, "little"); size = len(chunk) * 8 - (n_bits - 1)
        off, restart = 0, False
        while off < size:
            c = (bits >> off) & ((1 << n_bits) - 1); off += n_bits; ncodes += 1
            if c == 256:
                nclear += 1; free_ent = 256; n_bits, maxcode = 9, 511; restart = True; break
            if first: first = False
            elif free_ent < 4096: free_ent += 1
            if free_ent > maxcode and n_bits < 12:
                n_bits += 1; maxcode = 4096 if n_bits == 12 else (1 << n_bits) - 1; restart = True; break
    return ncodes, nclear

CASES = [("text", gen_text, 30000, 1), ("binary", gen_binary, 9000, 2), ("random", gen_random, 6000, 3),
         ("mixed", gen_mixed, 36000, 4)]

def main():
    here = os.path.dirname(os.path.abspath(__file__))
    os.makedirs(os.path.join(here, "lzw"), exist_ok=True)
    for name, fn, n, seed in CASES:
        data = fn(n, seed)
        p = subprocess.run(["compress", "-b12", "-c"], input=data, capture_output=True)
        assert p.returncode in (0, 2), p.returncode  # 2: output larger than input
        z = p.stdout
        assert z[:3] == b"\x1f\x9d\x8c", z[:3]
        z = z[3:]
        nc, ncl = codes(z)
        print(f"{name}: {n} bytes, seed {seed} -> {len(z)} bytes, {nc} codes, {ncl} clears", file=sys.stderr)
        with open(os.path.join(here, "lzw", name + ".z"), "wb") as f:
            f.write(z)

if __name__ == "__main__":
    main()
