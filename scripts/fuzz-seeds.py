#!/usr/bin/env python3
"""Writes the fuzz target's seed corpus: requests of every function code in
both byte orders, with and without the duplicate flag, header edge cases,
and scripted variants that make the test plug-in answer with errors.
    scripts/fuzz-seeds.py [DIR]   (default fuzz/corpus; the directory is replaced)
"""
import hashlib
import os
import shutil
import struct
import sys

out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", "fuzz", "corpus")


def header(e, code, length, flags, msgid, sep="/"):
    sep = ord(sep) if sep else 0
    # The marker 1 in the writer's byte order, like every sender.
    return struct.pack(e + "Ii16siIIi2sH4s", 1, 1, msgid, code, length, flags, 0, b"", sep, b"")


def text(e, s, units=1024):
    data = s.encode("utf-16-le" if e == "<" else "utf-16-be", "surrogatepass")
    return data[: 2 * units].ljust(2 * units, b"\0")


def getvolume(e, path, cookie=b""):
    body = b"\0" * 36 + cookie.ljust(32, b"\0") + b"\0" * 64 + text(e, path)
    return body, 2228


def getinitialmap(e, share, name, size=-1, alloc=-1, lease=0, intention=2, flag=0):
    body = struct.pack(e + "qqIII", size, alloc, lease, intention, flag) + b"\0" * 36
    return body + text(e, share + "\0" + name), 2160


def extendedmap(e, key, start=0, length=0, size=-1, alloc=-1, lease=0):
    return struct.pack(e + "qqqqIII", size, alloc, start, length, lease, key, 0), 92


def setsize(e, key, size):
    return struct.pack(e + "qII", size, 0, key), 64


def close(e, key, size=-1):
    return struct.pack(e + "qI", size, key), 60


def command(e, cmd):
    # The command is read in the daemon's byte order whatever the marker says.
    return b"\0" * 32 + text("<", cmd), 2128


def requests(e):
    surrogates = "".join(chr(0xD800) for _ in range(1023))
    yield 1, getvolume(e, "data")
    yield 1, getvolume(e, "/vol/b")
    yield 1, getvolume(e, "\\vol\\a")
    yield 1, getvolume(e, "", b"VOLA")
    yield 1, getvolume(e, "nosuch")
    yield 1, getvolume(e, "bare")
    yield 1, getvolume(e, "root")
    yield 1, getvolume(e, "long")
    yield 1, getvolume(e, surrogates)
    yield 2, getinitialmap(e, "data", "f")
    yield 2, getinitialmap(e, "data", "\\g", size=4096, alloc=65536, lease=1000, intention=1)
    yield 2, getinitialmap(e, "other", "f", flag=8)
    yield 2, getinitialmap(e, "data", "x", size=10)
    yield 2, getinitialmap(e, "data", "missing")
    yield 2, getinitialmap(e, "data", "")
    yield 2, getinitialmap(e, "nosuch", "f")
    yield 3, extendedmap(e, 0, 4096, 8192, lease=500)
    yield 3, extendedmap(e, 0, size=100, alloc=200)
    yield 3, extendedmap(e, 7)
    yield 4, setsize(e, 0, 12345)
    yield 4, setsize(e, 9, 1)
    yield 5, close(e, 0)
    yield 5, close(e, 0, 777)
    yield 5, close(e, 3)
    yield 7, command(e, "LOG|3|SCREEN")
    yield 7, command(e, "log 2")
    yield 7, command(e, "LOG|3|/tmp/kestrix-fuzz-log/x.log")
    yield 7, command(e, "LOG|3|/tmp/kestrix-fuzz-log/../x.log")
    yield 7, command(e, "HELLO there")


def seeds():
    for e in "<>":
        for flags in (0, 1):
            for n, (code, (body, size)) in enumerate(requests(e)):
                msgid = b"seed%d" % n
                yield header(e, code, size, flags, msgid) + body
        # Header edge cases: too short a length, no handler, a length beyond
        # the datagram, a datagram shorter than a header.
        yield header(e, 9, 47, 0, b"short")
        yield header(e, 9, 48, 1, b"nohandler")
        yield header(e, 100, 48, 0, b"big")
        yield header(e, -1, 48, 0, b"neg")
        yield header(e, 3, 500, 0, b"long") + b"\0" * 52
        yield header(e, 1, 48, 0, b"cut")[:10]
        body, size = getinitialmap(e, "data", "f")
        yield header(e, 2, size, 0, b"nosep", None) + body
        yield header(e, -2147483648, 48, 0, b"min")
        yield header(e, 9, 0xFFFFFFFF, 0, b"huge")
        # Text areas without a terminator, and the datagram ending inside them.
        body, size = getvolume(e, "\\" * 1024)
        yield header(e, 1, size, 0, b"full") + body
        yield header(e, 1, size, 0, b"ends") + body[:300]
        yield header(e, 1, size, 0, b"past") + body + text(e, "\\" * 16, 16)
        body, size = getinitialmap(e, "data", "\\" * 1100)
        yield header(e, 2, size, 0, b"full") + body
        yield header(e, 2, size, 0, b"past") + body + text(e, "\\" * 16, 16)
        yield header(e, 7, 2128, 0, b"ends") + command(e, "LOG|12|x" * 300)[0][:1000]
    # Scripted: the plug-in answers each entry point with an error or a
    # soft result, writes an error text or an odd map length.
    # The fifth byte sends copies: new IDs (4), from another host (8), and
    # picks the extent type (bits 4-5).
    for script in (b"\x33\x33\x00\x00\x13", b"\x10\x10\x01\x10\x03", b"\x40\x14\x12\x07\x27",
                   b"\x01\x21\x24\x3a\x39", b"\x00\x40\x30\x81\x0a", b"\x00\x00\x05\x00\x07"):
        for code, (body, size) in list(requests("<"))[:23:3] + [(2, getinitialmap("<", "data", "g", 1, 2))]:
            yield b"#" + script + header("<", code, size, 1, b"scripted") + body
    # At the default log level: a share name of lone surrogates (it once
    # wrote 2,048 Error lines) and a command of them.
    quiet = b"#\0\0\0\x80\0"
    for code, (body, size) in list(requests("<"))[7:8] + [(7, command("<", "\ud800" * 1023))]:
        yield quiet + header("<", code, size, 0, b"quiet") + body
    # Resent without the duplicate flag: the same sender's request again.
    for code, (body, size) in list(requests("<"))[8:11]:
        yield b"#\0\0\0\0\x03" + header("<", code, size, 0, b"again") + body
    # Key 0 used again from another host (answered as an unknown key there).
    for code, (body, size) in [(4, setsize("<", 0, 5)), (3, extendedmap("<", 0, size=5))]:
        yield b"#\0\0\0\0\x09" + header("<", code, size, 0, b"foreign") + body
    # Lease requests that read as negative, and opens with new IDs past the
    # sender's bound of 3 leases.
    negative = 0xFFFF0000
    for code, (body, size) in [(2, getinitialmap("<", "data", "f", lease=negative, intention=1)),
                               (3, extendedmap("<", 0, lease=negative)),
                               (4, (struct.pack("<qII", 1, negative, 0), 64))]:
        yield b"#\0\0\0\0\x07" + header("<", code, size, 0, b"negative") + body


shutil.rmtree(out, ignore_errors=True)
os.makedirs(out)
for seed in seeds():
    with open(os.path.join(out, hashlib.sha1(seed).hexdigest()), "wb") as f:
        f.write(seed)
