"""Bodies that are encoded as LZ4 frames, built by hand, and answers in that form."""
import struct
import unittest

from velmar_node import NodeTest, line


def xxh32(data):
    """The frame's checksum (xxHash, 32 bits, seed 0)."""
    primes = 2654435761, 2246822519, 3266489917, 668265263, 374761393
    mask = 0xFFFFFFFF

    def rotate(x, n):
        return (x << n | x >> 32 - n) & mask

    at = 0
    if len(data) >= 16:
        lanes = [(primes[0] + primes[1]) & mask, primes[1], 0, -primes[0] & mask]
        while at + 16 <= len(data):
            for i, word in enumerate(struct.unpack_from("<4I", data, at)):
                lanes[i] = rotate((lanes[i] + word * primes[1]) & mask, 13) * primes[0] & mask
            at += 16
        h = sum(rotate(lane, n) for lane, n in zip(lanes, (1, 7, 12, 18))) & mask
    else:
        h = primes[4]
    h = (h + len(data)) & mask
    while at + 4 <= len(data):
        h = rotate((h + struct.unpack_from("<I", data, at)[0] * primes[2]) & mask, 17) * primes[3] & mask
        at += 4
    for byte in data[at:]:
        h = rotate((h + byte * primes[4]) & mask, 11) * primes[0] & mask
    h = (h ^ h >> 15) * primes[1] & mask
    h = (h ^ h >> 13) * primes[2] & mask
    return h ^ h >> 16


def frame(blocks, content=None, block_size=4):
    """`blocks` are (compressed?, bytes); content adds a checksum of the whole. block_size 4: 64 KiB, 7: 4 MiB."""
    descriptor = bytes([0x60 | (4 if content is not None else 0), block_size << 4])
    out = b"\x04\x22\x4d\x18" + descriptor + bytes([xxh32(descriptor) >> 8 & 255])
    for compressed, data in blocks:
        out += struct.pack("<I", len(data) | (0 if compressed else 1 << 31)) + data
    out += b"\0\0\0\0"
    return out if content is None else out + struct.pack("<I", xxh32(content))


def stored(data, **more):
    return frame([(False, data[i:i + 65536]) for i in range(0, len(data), 65536)], **more)


def length_bytes(count):
    """The bytes behind a 15 in a token."""
    return b"\xff" * ((count - 15) // 255) + bytes([(count - 15) % 255])


def repeated(pattern, count):
    """A block: the pattern, then `count` bytes copied from it over and over, then five literals."""
    return (bytes([0xF0 | 0xF]) + length_bytes(len(pattern)) + pattern + struct.pack("<H", len(pattern))
            + length_bytes(count - 4) + b"\x50" + b"\n" * 5)


class Lz4f(NodeTest):
    def post(self, body, count=1):
        return self.node.post_raw(body, count=count, Content_Encoding="lz4f")

    def test_checksum(self):
        self.assertEqual([xxh32(b""), xxh32(b"a"), xxh32(b"Nobody inspects the spammish repetition")],
                         [0x02CC5D05, 0x550D7456, 0xE2293B2F])

    def test_stored_blocks(self):
        lines = [line("stored.%d" % i, self.now, i) for i in range(3000)]
        body = "".join(text + "\n" for text in lines).encode()
        self.assertGreater(len(body), 2 * 65536)
        self.taken(self.post(stored(body), 3000), 3000)
        self.assertEqual(self.node.samples("stored.2999"), [[self.now * 1000, 2999]])
        self.taken(self.post(stored(body.replace(b"stored", b"summed"), content=body.replace(b"stored", b"summed")),
                             3000), 3000)

    def test_compressed_block(self):
        text = (line("copied", self.now, 5) + "\n").encode()
        self.taken(self.post(frame([(True, repeated(text, 9 * len(text)))]), 10), 10)
        self.assertEqual(self.node.samples("copied"), [[self.now * 1000, 5]])

    def test_pieces(self):
        """A frame that arrives byte by byte."""
        text = (line("pieces", self.now, 5) + "\n").encode()
        whole = stored(text)
        connection = self.node.connection()
        connection.request("POST", "/raw", (whole[i:i + 1] for i in range(len(whole))),
                           {"X-Velmar-Datapoints": "1", "Content-Encoding": "lz4f"})
        response = connection.getresponse()
        self.assertEqual((response.status, b'"updated": 1,' in response.read()), (200, True))
        connection.close()

    def test_broken_frames(self):
        """Nothing of a body that does not decode is acknowledged."""
        text = (line("broken", self.now, 5) + "\n").encode() * 50
        good = stored(text, content=text)
        bad_sum = good[:-1] + bytes([good[-1] ^ 1])
        bad_header = good[:6] + bytes([good[6] ^ 1]) + good[7:]
        far_copy = frame([(True, b"\x4fabcd" + struct.pack("<H", 9) + b"\xff" * 3 + b"\0\x50\n\n\n\n\n")])
        for body in (bad_sum, bad_header, far_copy, good[:10], good[:-9], b"\x04\x22\x4d\x18", b"plain text\n",
                     good[:7] + struct.pack("<I", 0x7FFFFFFF) + good[11:], good + b"\0"):
            answer = self.post(body, 50)
            self.assertEqual(answer.status, 400, (body[:20], answer))

    def test_bomb(self):
        """A frame of 1 MB that holds 256 MB is read in pieces: memory stays bounded."""
        with open("/proc/%d/status" % self.node.process.pid) as f:
            before = int(next(text for text in f if text.startswith("VmHWM:")).split()[1])
        block = repeated(b"\n" * 32, (4 << 20) - 40)
        answer = self.post(frame([(True, block)] * 64, block_size=7))
        self.assertEqual(answer.status, 200, answer)
        with open("/proc/%d/status" % self.node.process.pid) as f:
            peak = int(next(text for text in f if text.startswith("VmHWM:")).split()[1])
        self.assertLess(peak - before, 256 * 1024)

    def test_answers(self):
        """What the client accepts; the frame holds the same bytes."""
        self.taken(self.node.post_raw([line("answered", self.now, 1)]), 1)
        path = "/raw/c9b0e0f2-6a6e-4b53-9a62-3f6f3e6f1a11/answered?start=0&end=now"
        plain = self.node.get(path)
        coded = self.node.get(path, **{"Accept-Encoding": "lz4f"})
        self.assertEqual((coded.status, coded.headers.get("content-encoding")), (200, "lz4f"))
        self.assertTrue(coded.body.startswith(b"\x04\x22\x4d\x18"))
        self.assertIn(plain.body.strip(), coded.body)  # too short to be packed


if __name__ == "__main__":
    unittest.main()
