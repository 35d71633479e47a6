"""Messages with the standard pattern in a place where one reader finds it and another doesn't, each with what it is."""

import base64
import binascii
import bz2
import functools
import gzip
import quopri
import struct
import zipfile

from scanning import EICAR, archive

ZIP = archive(("eicar.com", EICAR))
CLEAN = archive(("a", b"clean"))
NAME = b"name=f.zip"


def lines(data, width=76):
    return b"".join(data[i:i + width] + b"\r\n" for i in range(0, len(data), width))


def b64(data, width=76):
    return lines(base64.b64encode(data), width)


def uu(data, name=b"f.zip"):
    out = b"begin 644 " + name + b"\r\n"
    for i in range(0, len(data), 45):
        out += binascii.b2a_uu(data[i:i + 45]).rstrip(b"\n") + b"\r\n"
    return out + b"`\r\nend\r\n"


def yenc(data):
    out, line = b"=ybegin line=128 size=%d name=f.zip\r\n" % len(data), b""
    for byte in data:
        code = (byte + 42) & 0xFF
        line += b"=" + bytes([(code + 64) & 0xFF]) if code in (0, 10, 13, 61, 46) else bytes([code])
        if len(line) >= 128:
            out, line = out + line + b"\r\n", b""
    return out + line + b"\r\n=yend size=%d\r\n" % len(data)


def quoted(data, code=b"=%02X", end=b"=\r\n"):
    return b"".join(code % byte + (end if i % 20 == 19 else b"") for i, byte in enumerate(data)) + b"\r\n"


def tnef(data):
    def attribute(level, kind, value):
        return struct.pack("<BII", level, kind, len(value)) + value + struct.pack("<H", sum(value) & 0xFFFF)
    return (struct.pack("<IH", 0x223E9F78, 1) + attribute(1, 0x00089006, struct.pack("<I", 0x10000))
            + attribute(2, 0x00069002, b"\1\0" + b"\0" * 12) + attribute(2, 0x00018010, b"f.zip\0")
            + attribute(2, 0x0006800F, data))


def ber(tag, content):
    size = len(content).to_bytes(4, "big")
    return bytes([tag, 0x84]) + size + content


def signed(data):
    return ber(0x30, b"\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x02" + ber(0xA0, ber(0x30, b"\2\1\1" + ber(
        0x30, b"\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x01" + ber(0xA0, ber(4, data))))))


def part(content, coding=b"base64", kind=b"application/zip", more=b""):
    head = b"Content-Type: " + kind + b"; " + NAME + b"\r\n" + more
    return head + (b"Content-Transfer-Encoding: " + coding + b"\r\n" if coding else b"") + b"\r\n" + content


def mixed(*parts, boundary=b"b", kind=b"multipart/mixed", end=True, more=b""):
    return (b"Content-Type: " + kind + b"; boundary=\"" + boundary + b"\"\r\n" + more + b"\r\n"
            + b"".join(b"--" + boundary + b"\r\n" + each for each in parts)
            + (b"--" + boundary + b"--\r\n" if end else b""))


def message(content, first=b"Subject: a file\r\nMIME-Version: 1.0\r\n"):
    return first + content


TEXT = b"Content-Type: text/plain\r\n\r\nsee the file\r\n"
SIGNATURE = b"Content-Type: application/pgp-signature\r\n\r\n-----BEGIN PGP SIGNATURE-----\r\n\r\nabc\r\n-----END PGP SIGNATURE-----\r\n"
INNER = b"Subject: inner\r\nMIME-Version: 1.0\r\n" + mixed(TEXT, part(b64(ZIP)))
ZIPPED = b64(ZIP)
PADDED = len(ZIP) // 2 // 3 * 3 + 1  # a group of one byte: two fillers


def one(name, content, coding=b"base64", **more):
    return name, message(mixed(TEXT, part(content, coding, **more)))


CASES = [
    one("filler in the midst", b64(ZIP[:PADDED]) + b64(ZIP[PADDED:])),
    one("filler in the midst of a line", lines(base64.b64encode(ZIP[:PADDED]) + base64.b64encode(ZIP[PADDED:]))),
    one("each line with its filler", b"".join(b64(ZIP[i:i + 55]) for i in range(0, len(ZIP), 55))),
    one("text with a filler in front", b64(b"x") + b64(ZIP)),
    one("text without a filler in front, other groups", b"eA\r\n\r\n" + b64(ZIP)),
    one("fillers in front", b"====\r\n" + b64(ZIP)),
    one("a filler that counts for nothing", lines(base64.b64encode(ZIP)[:10] + b"=" + base64.b64encode(ZIP)[10:])),
    one("foreign characters in lines", lines(b"!".join(base64.b64encode(ZIP)[i:i + 9] for i in range(0, 300, 9)))),
    one("high bytes in lines", lines(b"\xe9".join(base64.b64encode(ZIP)[i:i + 7] for i in range(0, 300, 7)))),
    one("lines of one character", lines(base64.b64encode(ZIP), 1)),
    one("lines of five", lines(base64.b64encode(ZIP), 5)),
    one("one endless line", lines(base64.b64encode(ZIP), 9999)),
    one("blanks within", lines(base64.b64encode(ZIP), 11).replace(b"\r\n", b" ") + b"\r\n"),
    one("the alphabet of URLs", lines(base64.urlsafe_b64encode(ZIP))),
    one("empty lines within", lines(base64.b64encode(ZIP), 40).replace(b"\r\n", b"\r\n\r\n\r\n")),
    one("a line that is no base64 in front", b"This is a file:\r\n" + ZIPPED),
    one("a line with a dash in front", b"-\r\n" + ZIPPED),
    one("text behind", ZIPPED + b"-- \r\nthe list's footer\r\n"),
    one("a coding in capitals", ZIPPED, b"BASE64"),
    one("a coding with a blank", ZIPPED, b" base64 "),
    one("a coding in quotes", ZIPPED, b'"base64"'),
    one("a coding with a parameter", ZIPPED, b"base64; x=y"),
    one("a coding with a comment", ZIPPED, b"base64 (x)"),
    one("a comment in front of the coding", ZIPPED, b"(x) base64"),
    one("a coding that isn't known", ZIPPED, b"base-64"),
    one("two words", ZIPPED, b"7bit base64"),
    one("a coding of long words", ZIPPED, b"x-base64"),
    one("two codings, 7bit first", ZIPPED, b"7bit\r\nContent-Transfer-Encoding: base64"),
    one("two codings, base64 first", ZIPPED, b"base64\r\nContent-Transfer-Encoding: 7bit"),
    one("two codings, quoted-printable first", ZIPPED, b"quoted-printable\r\nContent-Transfer-Encoding: base64"),
    one("a coding that is folded", ZIPPED, b"\r\n base64"),
    one("a coding behind a line of blanks", ZIPPED, b"base64", more=b"X-A: b\r\n \r\n"),
    one("a coding behind a line that is none", ZIPPED, b"base64", more=b"hello\r\n"),
    one("blank before the colon", ZIPPED, None, more=b"Content-Transfer-Encoding : base64\r\n"),
    one("a control before the colon", ZIPPED, None, more=b"Content-Transfer-Encoding\x0b: base64\r\n"),
    one("a hard blank before the colon", ZIPPED, None, more=b"Content-Transfer-Encoding\xa0: base64\r\n"),
    one("a NUL in a header", ZIPPED, b"base64", more=b"X-A: \0\r\n"),
    one("a bare CR in a header", ZIPPED, None, more=b"X-A: b\rContent-Transfer-Encoding: base64\r\n"),
    one("quoted-printable with blanks behind its lines", quoted(ZIP, b"=%02X", b"= \t \r\n"), b"quoted-printable"),
    one("quoted-printable in small letters", quoted(ZIP, b"=%02x"), b"quoted-printable"),
    one("quoted-printable with escapes that are none", b"=ZZ=\r\n" + quoted(ZIP), b"quoted-printable"),
    one("quoted-printable with a bare LF", quoted(ZIP, b"=%02X", b"=\n"), b"quoted-printable"),
    one("uuencode as coding", uu(ZIP), b"x-uuencode"),
    one("uuencode by another word", uu(ZIP), b"uuencode"),
    one("yEnc as coding", yenc(ZIP), b"x-yenc"),
    one("uuencode in a text", b"hello\r\n" + uu(ZIP), None, kind=b"text/plain"),
    one("uuencode behind a file in a text", uu(b"plain") + b"\r\n" + uu(ZIP), None, kind=b"text/plain"),
    one("uuencode in a coded text", b64(b"hello\r\n" + uu(ZIP)), kind=b"text/plain"),
    one("uuencode in a quoted text", quopri.encodestring(b"hello\n" + uu(ZIP).replace(b"\r\n", b"\n")).replace(b"\n", b"\r\n"),
        b"quoted-printable", kind=b"text/plain"),
    one("yEnc in a text", b"hello\r\n" + yenc(ZIP), b"8bit", kind=b"text/plain"),
    one("TNEF", b64(tnef(ZIP)), kind=b"application/ms-tnef"),
    one("TNEF by another name", b64(tnef(ZIP)), kind=b"application/octet-stream"),
    one("TNEF of the pattern", b64(tnef(EICAR)), kind=b"application/ms-tnef"),
    ("uuencode, no headers about it", message(b"\r\nhello\r\n" + uu(ZIP), b"Subject: a\r\n")),
    one("coded message", b64(INNER), kind=b"message/rfc822"),
    one("message in quoted-printable", quopri.encodestring(INNER.replace(b"\r\n", b"\n")).replace(b"\n", b"\r\n"), b"quoted-printable",
        kind=b"message/rfc822"),
    one("coded message in a coded message", b64(b"To: a\r\n" + part(b64(INNER), kind=b"message/rfc822")), kind=b"message/rfc822"),
    *[("a type in front of the first part, " + name,
       message(mixed(TEXT, b"Content-Type: multipart/mixed; boundary=p\r\n\r\n" + text + b"--p\r\n" + part(b64(ZIP)) + b"--p--\r\n")))
      for name, text in (("with its value", b"Content-Type: text/plain\r\n"), ("behind a blank line", b"\r\ncontent-type: a/b\r\n\r\n"),
                         ("without a colon", b"Content-Type a/b\r\n\r\n"))],
    one("message whose first header nobody knows", b"X-Any: a\r\n" + INNER, None, kind=b"message/rfc822"),
    one("message/global", INNER, None, kind=b"message/global"),
    one("message/news", INNER, None, kind=b"message/news"),
    one("message of a kind that isn't known", INNER, None, kind=b"message/x-other"),
    ("coded multipart", message(b"Content-Type: multipart/mixed; boundary=b\r\nContent-Transfer-Encoding: base64\r\n\r\n"
                                + b64(b"--b\r\n" + part(ZIPPED) + b"--b--\r\n"))),
    ("coded multipart within", message(mixed(TEXT, b"Content-Type: multipart/mixed; boundary=c\r\nContent-Transfer-Encoding: base64\r\n\r\n"
                                             + b64(b"--c\r\n" + part(ZIPPED) + b"--c--\r\n")))),
    ("coded multipart that isn't coded", message(b"Content-Transfer-Encoding: base64\r\n" + mixed(TEXT, part(ZIPPED)))),
    ("piece of a message", message(b'Content-Type: message/partial; id="a"; number=1; total=1\r\n\r\n' + INNER)),
    ("piece that is the whole file", message(b'Content-Type: message/partial; id="a"; number=1; total=2\r\n\r\n'
                                             b"Subject: x\r\nMIME-Version: 1.0\r\n" + part(ZIPPED))),
    ("piece within", message(mixed(TEXT, b'Content-Type: message/partial; id="a"; number=1; total=1\r\n\r\n' + INNER))),
    ("part that lies elsewhere", message(mixed(TEXT, b"Content-Type: message/external-body; access-type=x\r\n\r\n" + part(ZIPPED)))),
    ("two Content-Types, text first", message(b"Content-Type: text/plain\r\n" + mixed(TEXT, part(ZIPPED)))),
    ("two Content-Types, text last", message(mixed(TEXT, part(ZIPPED), more=b"Content-Type: text/plain\r\n"))),
    ("two Content-Types, two boundaries", message(b"Content-Type: multipart/mixed; boundary=c\r\n" + mixed(TEXT, part(ZIPPED)))),
    ("two boundaries, the first counts", message(b"Content-Type: multipart/mixed; boundary=b; boundary=c\r\n\r\n--b\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("two boundaries, the last counts", message(b"Content-Type: multipart/mixed; boundary=c; boundary=b\r\n\r\n--b\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("boundary by RFC 2231", message(b"Content-Type: multipart/mixed; boundary*0=b; boundary*1=c\r\n\r\n--bc\r\n" + part(ZIPPED) + b"--bc--\r\n")),
    ("two readings of a boundary", message(b"Content-Type: multipart/mixed; boundary=x; boundary*=us-ascii''b\r\n\r\n--b\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("boundary missing", message(b"Content-Type: multipart/mixed\r\n\r\n--b\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("boundary empty", message(b'Content-Type: multipart/mixed; boundary=""\r\n\r\n--\r\n' + part(ZIPPED) + b"----\r\n")),
    ("boundary folded", message(b'Content-Type: multipart/mixed; boundary="b\r\n c"\r\n\r\n--bc\r\n' + part(ZIPPED) + b"--bc--\r\n")),
    ("boundary with an escape", message(b'Content-Type: multipart/mixed; boundary="b\\c"\r\n\r\n--bc\r\n' + part(ZIPPED) + b"--bc--\r\n")),
    ("boundary in a comment", message(b"Content-Type: multipart/mixed (; boundary=c); boundary=b\r\n\r\n--b\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("boundary in single quotes", message(b"Content-Type: multipart/mixed; boundary='b'\r\n\r\n--b\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("boundary in other case", message(b"Content-Type: multipart/mixed; boundary=BB\r\n\r\n--bb\r\n" + part(ZIPPED) + b"--bb--\r\n")),
    ("boundary with a tail", message(b"Content-Type: multipart/mixed; boundary=b\r\n\r\n--bx\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("boundary of the one around", message(mixed(TEXT, mixed(part(ZIPPED))))),
    ("boundary that begins like the one around", message(mixed(TEXT, mixed(part(ZIPPED), boundary=b"bb")))),
    ("parts behind the end", message(mixed(TEXT) + b"--b\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("part in front of the first boundary", message(b"Content-Type: multipart/mixed; boundary=b\r\n\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("no end", message(mixed(TEXT, part(ZIPPED), end=False))),
    ("no end within", message(mixed(mixed(TEXT, part(ZIPPED), boundary=b"c", end=False), TEXT))),
    ("multipart of a kind that isn't known", message(mixed(TEXT, part(ZIPPED), kind=b"multipart/x-other"))),
    ("kind in capitals, blanks around", message(mixed(TEXT, part(ZIPPED), kind=b" MULTIPART / Mixed "))),
    ("no MIME-Version", message(mixed(TEXT, part(ZIPPED)), b"Subject: a\r\n")),
    ("multipart/signed", message(mixed(mixed(TEXT, part(ZIPPED), boundary=b"c"), TEXT, kind=b'multipart/signed; protocol="x"'))),
    ("coded text, a file behind its name", message(mixed(part(ZIPPED, kind=b"text/plain")))),
    ("a whole message that is a file", message(part(ZIPPED))),
    ("a first line that is folded", b" x\r\nSubject: a\r\n" + part(ZIPPED)),
    ("long header in front", b"Subject: " + b"x" * 70000 + b"\r\n" + part(ZIPPED)),
    ("a thousand headers in front", b"X-A: b\r\n" * 1000 + part(ZIPPED)),
    ("deep in multiparts", message(functools.reduce(
        lambda inner, i: mixed(TEXT, inner, boundary=b"b%d" % (100 + i)), range(15), part(ZIPPED)))),
    one("base64 by the words of uuencode", b"hello\r\nbegin-base64 644 f.zip\r\n" + ZIPPED + b"====\r\n", None, kind=b"text/plain"),
    one("uuencode in a page", b"<pre>\r\n" + uu(ZIP) + b"</pre>\r\n", None, kind=b"text/html"),
    one("uuencode with blanks for zeros", uu(ZIP).replace(b"`", b" "), None, kind=b"text/plain"),
    one("uuencode without its end", uu(ZIP)[:-8], None, kind=b"text/plain"),
    one("no line between headers and body", ZIPPED, None, more=b"Content-Transfer-Encoding: base64\r\nhello\r\n"),
    ("a body right behind the headers", message(b"Content-Type: application/zip; name=f.zip\r\nContent-Transfer-Encoding: base64\r\n" + ZIPPED)),
    ("a part's body right behind its headers", message(mixed(TEXT, b"Content-Type: application/zip; name=f.zip\r\n"
                                                            b"Content-Transfer-Encoding: base64\r\n" + ZIPPED))),
    ("long boundary", message(mixed(TEXT, part(ZIPPED), boundary=b"b" * 900))),
    ("boundary with a blank at its end", message(b'Content-Type: multipart/mixed; boundary="b "\r\n\r\n--b\r\n' + part(ZIPPED) + b"--b--\r\n")),
    ("boundary with signs", message(mixed(TEXT, part(ZIPPED), boundary=b"'()+_,-./:=? b"))),
    ("boundary that looks coded", message(b'Content-Type: multipart/mixed; boundary="=?us-ascii?q?b?="\r\n\r\n--b\r\n' + part(ZIPPED) + b"--b--\r\n")),
    ("boundary with blanks around its sign", message(b"Content-Type: multipart/mixed ;\r\n\tboundary = b\r\n\r\n--b\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("boundary within another value", message(b'Content-Type: multipart/mixed; x="; boundary=c"; boundary=b\r\n\r\n--b\r\n' + part(ZIPPED) + b"--b--\r\n")),
    ("boundary without quotes, with a blank", message(b"Content-Type: multipart/mixed; boundary=b c\r\n\r\n--b\r\n" + part(ZIPPED) + b"--b--\r\n")),
    ("broken base64 within a signed message", message(mixed(mixed(TEXT, part(b64(ZIP[:PADDED]) + b64(ZIP[PADDED:])), boundary=b"c"), TEXT,
                                                            kind=b'multipart/signed; micalg=x; protocol="x"'))),
    ("broken base64 within a coded message", message(mixed(TEXT, part(b64(message(part(b64(ZIP[:PADDED]) + b64(ZIP[PADDED:])))),
                                                                      kind=b"message/rfc822")))),
    ("piece of a message, all line ends bare CR", message(b'Content-Type: message/partial; id="a"\r\n\r\n' + INNER).replace(b"\r\n", b"\r") + b"\r\n"),
    ("broken base64, bare CR at line ends", one("", b64(ZIP[:PADDED]) + b64(ZIP[PADDED:]))[1].replace(b"\r\n", b"\r") + b"\r\n"),
    ("broken base64, bare LF at line ends, dots in front",
     one("", b64(ZIP[:PADDED]) + b64(ZIP[PADDED:]))[1].replace(b"\r\n", b"\n.") + b"\r\n"),
    ("broken base64 behind a blank first line", b"\r\n" + one("", b64(ZIP[:PADDED]) + b64(ZIP[PADDED:]))[1]),
    ("message within its signature", message(b"Content-Type: application/pkcs7-mime; smime-type=signed-data; name=smime.p7m\r\n"
                                             b"Content-Transfer-Encoding: base64\r\n\r\n" + b64(signed(INNER)))),
    ("broken base64 within a signature", message(mixed(TEXT, part(b64(signed(one("", b64(ZIP[:PADDED]) + b64(ZIP[PADDED:]))[1]))).replace(
        b"f.zip", b"smime.p7m")))),
    ("signed, the file in the signature's place", message(mixed(TEXT, part(ZIPPED), kind=b'multipart/signed; protocol="x"'))),
    ("signed, the file as a signature", message(mixed(TEXT, part(ZIPPED, kind=b"application/pgp-signature"), kind=b"multipart/signed"))),
    ("signed, the file as a signature by name too", message(mixed(TEXT, part(ZIPPED, kind=b"application/pkcs7-signature").replace(
        b"f.zip", b"smime.p7s"), kind=b"multipart/signed"))),
    ("signed, the file behind the signature", message(mixed(TEXT, SIGNATURE, part(ZIPPED), kind=b"multipart/signed"))),
    ("signed, the file in front", message(mixed(part(ZIPPED), TEXT, SIGNATURE, kind=b"multipart/signed"))),
    ("signed twice", message(mixed(part(ZIPPED), SIGNATURE, SIGNATURE, kind=b"multipart/signed"))),
    ("signed as it should be", message(mixed(part(ZIPPED), SIGNATURE, kind=b"multipart/signed"))),
    ("signed by S/MIME", message(mixed(mixed(TEXT, part(ZIPPED), boundary=b"c"), SIGNATURE.replace(b"pgp", b"x-pkcs7"),
                                       kind=b"multipart/signed"))),
    ("signed within what is signed", message(mixed(mixed(mixed(TEXT, part(ZIPPED), boundary=b"d"), SIGNATURE, boundary=b"c",
                                                         kind=b"multipart/signed"), SIGNATURE, kind=b"multipart/signed"))),
    ("signed, without the end", message(mixed(part(ZIPPED), SIGNATURE, boundary=b"b", end=False, kind=b"multipart/signed"))),
    ("multipart by a header with a control before the colon", message(mixed(TEXT, part(b64(ZIP[:PADDED]) + b64(ZIP[PADDED:]))).replace(
        b"Content-Type:", b"Content-Type\x0b:", 1))),
    one("zip behind something packed", b64(gzip.compress(b"x") + ZIP)),
    one("zip behind a song's name", b64(b"ID3" + bytes(100) + ZIP)),
    one("zip in a calendar's entry", b"BEGIN:VCALENDAR\r\nATTACH;ENCODING=BASE64;VALUE=BINARY:\r\n " + lines(base64.b64encode(ZIP), 70).replace(
        b"\r\n", b"\r\n ") + b"\r\nEND:VCALENDAR\r\n", None, kind=b"text/calendar"),
    one("zip behind another one", b64(CLEAN + ZIP)),
    one("zip in front of another one", b64(ZIP + CLEAN)),
    one("two zips in a zip", b64(archive(("f.zip", CLEAN + ZIP)))),
    one("two zips in TNEF", b64(tnef(CLEAN + ZIP))),
    one("zip of a method that engines don't know", b64(archive(("a", EICAR), method=zipfile.ZIP_LZMA))),
    one("bzip2, two behind one another", b64(bz2.compress(b"x") + bz2.compress(EICAR))),
    one("a message of unknown headers in a zip", b64(archive(("a.eml", b"X-A: b\r\n\r\n" + uu(ZIP))))),
]
