import base64, zipfile, io, struct, zlib, sys
# the signature is assembled from its scrambled form so that this script holds no plain copy either
scr = bytes([0x64,0x09,0x73,0x1d,0x6c,0x19,0x7c,0x7d,0x6c,0x67,0x08,0x60,0x6c,0x66,0x64,0x09,0x08,0x14,0x6c,0x62,0x15,0x0b,0x7f,0x7f,0x15,0x0b,0x41,0x18,0x79,0x75,0x7f,0x7d,0x6e,0x11,0x6f,0x68,0x7d,0x72,0x78,0x7d,0x6e,0x78,0x11,0x7d,0x72,0x68,0x75,0x6a,0x75,0x6e,0x69,0x6f,0x11,0x68,0x79,0x6f,0x68,0x11,0x7a,0x75,0x70,0x79,0x1d,0x18,0x74,0x17,0x74,0x16])
sig = bytes(b ^ 0x3C for b in scr)
assert len(sig) == 68
def scramble(b): return bytes(x ^ 0x3C for x in b)
out = sys.argv[1]
open(out+'/eicar-plain.bin','wb').write(scramble(sig))
# archive: one stored member, padded to 308 bytes with the archive comment
name = b'eicar.com'
crc = zlib.crc32(sig) & 0xffffffff
t, d = 0x6000, 0x5B21  # 12:00:00, 2025-09-01
local = struct.pack('<IHHHHHIIIHH', 0x04034b50, 10, 0, 0, t, d, crc, 68, 68, len(name), 0) + name + sig
central = struct.pack('<IHHHHHHIIIHHHHHII', 0x02014b50, 20, 10, 0, 0, t, d, crc, 68, 68, len(name), 0, 0, 0, 0, 0x20, 0) + name
base = len(local) + len(central) + 22
comment = b'q-Brix antivirus self-test archive. Harmless test signature only.'
comment = comment + b' ' * (308 - base - len(comment))
eocd = struct.pack('<IHHHHIIH', 0x06054b50, 0, 0, 1, 1, len(central), len(local), len(comment)) + comment
z = local + central + eocd
assert len(z) == 308, len(z)
zipfile.ZipFile(io.BytesIO(z)).testzip()
open(out+'/eicar-archive.bin','wb').write(scramble(z))
# e-mail: a MIME message with the signature as a base64 attachment, padded to 1292 bytes
b64 = base64.b64encode(sig).decode()
lines = [b64[i:i+76] for i in range(0, len(b64), 76)]
def mail(pad):
    body = ("From: q-Brix self-test <selftest@localhost>\r\n"
            "To: q-Brix user <user@localhost>\r\n"
            "Subject: q-Brix antivirus self-test\r\n"
            "Date: Mon, 1 Sep 2025 12:00:00 +0000\r\n"
            "Message-ID: <antivirus-selftest@localhost>\r\n"
            "MIME-Version: 1.0\r\n"
            "Content-Type: multipart/mixed; boundary=\"q-brix-selftest-boundary\"\r\n"
            "\r\n"
            "This is a multi-part message in MIME format.\r\n"
            "\r\n"
            "--q-brix-selftest-boundary\r\n"
            "Content-Type: text/plain; charset=us-ascii\r\n"
            "Content-Transfer-Encoding: 7bit\r\n"
            "\r\n"
            "This message was written by the q-Brix control program to test the antivirus\r\n"
            "engine. The attachment holds the harmless standard antivirus test signature.\r\n"
            "It is not a virus and does nothing; a working scanner reports it as a test file.\r\n"
            + pad +
            "\r\n"
            "--q-brix-selftest-boundary\r\n"
            "Content-Type: application/octet-stream; name=\"eicar.com\"\r\n"
            "Content-Transfer-Encoding: base64\r\n"
            "Content-Disposition: attachment; filename=\"eicar.com\"\r\n"
            "\r\n"
            + "\r\n".join(lines) + "\r\n"
            "\r\n"
            "--q-brix-selftest-boundary--\r\n")
    return body.encode()
m = mail("")
padlen = 1292 - len(m)
assert padlen >= 0, len(m)
filler = "The scratch file is deleted right after the scan.\r\n"
pad = ""
while len(pad) + len(filler) <= padlen: pad += filler
pad += "-" * (padlen - len(pad) - 2) + "\r\n" if padlen - len(pad) >= 2 else ""
m = mail(pad)
print(len(m), padlen)
assert len(m) == 1292, len(m)
open(out+'/eicar-mail.bin','wb').write(scramble(m))
