#!/usr/bin/env python3
"""Writes the seed corpora under fuzz/corpus/<target>/: small valid inputs
that put each fuzz target in its interesting states (a full boot TOC, a
whole dump, a region, a silent-reset block, ...). Run it again after a
change of an input layout; the files are checked in."""
import os
import shutil
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus")


def le32(*words):
    return b"".join(struct.pack("<I", w & 0xFFFFFFFF) for w in words)


def msgs(*parts):
    """The targets' message framing: 16-bit little-endian length, bytes."""
    return b"".join(struct.pack("<H", len(p)) + p for p in parts)


def nv_file(total, corrupt=False):
    data = bytes((i * 7 + 3) & 0xFF for i in range(total))
    s = 0
    k = 0
    while k + 1 < total:
        s += data[k] | data[k + 1] << 8
        k += 2
    pad = b""
    if total & 1:
        s += 0xFF00 | data[-1]
        pad = b"\xff"
    s = (s + (1 if corrupt else 0)) & 0xFFFF
    return b"VMNV" + le32(1, total, 0) + data + pad + struct.pack("<H", s)


def toc(parts, count=None, toc_m_off=0x1000):
    """parts: (name, b_off, m_off, size). Entry 0 gets the count."""
    entries = []
    for i, (name, b_off, m_off, size) in enumerate(parts):
        n = name.encode()[:12].ljust(12, b"\0")
        c = (len(parts) if count is None else count) if i == 0 else 0
        entries.append(n + le32(b_off, m_off, size, 0x1234 + i, c))
    table = b"".join(entries).ljust(512, b"\0")
    return table


def boot_parts(nv_size=64):
    return [("TOC", 0, 0x1000, 512), ("BOOT", 0x200, 0x2000, 0x100),
            ("MAIN", 0x300, 0xC0003000, 0x200), ("VSS", 0x500, 0x8000, 0x40),
            ("NV", 0, 0x9000, nv_size), ("OFFSET", 0, 0, 0)]


def toc_input(flags, nv, part):
    return bytes([flags]) + struct.pack("<H", len(nv)) + nv + part


def corpus():
    c = {}
    nv = nv_file(48)
    body = toc(boot_parts(len(nv))) + bytes(0x300)
    c["toc"] = {
        "boot": toc_input(0, nv, body),
        "boot_checksum": toc_input(2, nv, body),
        "boot_checksum_corrupt": toc_input(2, nv_file(48, True), body),
        "boot_nv_missing": toc_input(8 | 2, b"", body),
        "dump_mode": toc_input(1, b"", body),
        "count_one": toc_input(0, nv, toc(boot_parts(len(nv)), count=1)),
        "count_zero": toc_input(0, nv, toc(boot_parts(len(nv)), count=0)),
        "count_17": toc_input(0, nv, toc(boot_parts(len(nv)), count=17)),
        "sixteen_entries": toc_input(4, nv, toc(
            [("TOC", 0, 0x1000, 512)] + [("P%d" % i, 0x200, 0x2000 * i, 16) for i in range(1, 14)]
            + [("NV", 0, 0x9000, 64), ("ABCDEFGHIJKL", 0, 0, 1)])),
        "no_toc": toc_input(0, nv, b"\xff" * 64),
        "toc_m_off_zero": toc_input(0, nv, toc([("TOC", 0, 0, 512)] + boot_parts()[1:])),
        "no_nv_path": toc_input(16, nv, body),
    }
    c["nv"] = {
        "even": nv_file(64), "odd": nv_file(33), "corrupt": nv_file(64, True),
        "default": b"\xff" * 64, "cut": nv_file(64)[:-1], "header_only": nv_file(0),
    }
    reason = b"assert at modem.c:42"
    frame = lambda step, n, cur, payload: le32(0xAD00 | step, n, cur, len(payload)) + payload
    p1 = bytes(range(200))
    p2 = bytes(range(100, 220))
    c["dump"] = {
        "one_step": bytes([3]) + msgs(le32(0xAD00), le32(len(p1) + len(p2), 1, len(reason)), reason,
                                      frame(1, 2, 1, p1), frame(1, 2, 2, p2), le32(0xAD0D)),
        "two_steps": bytes([1]) + msgs(le32(0xAD00), le32(len(p1) + len(p2), 2, len(reason)), reason,
                                       frame(1, 1, 1, p1), frame(2, 1, 1, p2), le32(0xAD0D)),
        "no_reason": bytes([2]) + msgs(le32(0xAD00), le32(len(p1), 1, 0), b"",
                                       frame(1, 1, 1, p1), le32(0xAD0D)),
        "out_of_sequence": bytes([3]) + msgs(le32(0xAD00), le32(16 + len(p1), 1, 3), b"abc",
                                             frame(1, 2, 2, p1), le32(0xAD0D)),
        "thirteen_steps": bytes([0]) + msgs(le32(0xAD00), le32(13 * 8, 13, 4), b"wdog",
                                            *[frame(s, 1, 1, bytes([s]) * 8) for s in range(1, 14)],
                                            le32(0xAD0D)),
        "long_reason": bytes([3]) + msgs(le32(0xAD00), le32(4, 1, 600), b"r" * 600,
                                         frame(1, 1, 1, b"data"), le32(0xAD0D)),
    }
    region = bytes((i * 13) & 0xFF for i in range(5000))
    c["log_region"] = {
        "two_chunks": le32(len(region)) + msgs(region[:4096], region[4096:]),
        "empty": le32(0),
        "past_size": le32(100) + msgs(region[:300]),
        "short": le32(4096) + msgs(region[:10], b""),
    }
    c["handshake"] = {
        "boot": bytes([0]) + msgs(le32(0xA00D), le32(0xAF00)),
        "dump_stage": bytes([1]) + msgs(le32(0xAD00), le32(0xAD0D)),
        "answer": bytes([2]) + msgs(le32(0xA000)),
        "short_answer": bytes([0]) + msgs(b"\x0d\xa0"),
    }
    text = b"driver says: CP watchdog expired".ljust(512, b"\0")
    cp = b"UMTS: " + reason
    c["crash_reason"] = {
        "cp": le32(0) + text + cp, "ril": le32(1) + text + cp, "user": le32(5) + text + cp,
        "wdog": le32(11) + text + cp, "cld": le32(16) + text + cp,
        "unknown": le32(0xFFFFFFFF) + text + cp, "full_driver_text": le32(6) + b"d" * 512 + cp,
    }
    info = b'{"JVER":"2","rst":"silent","pc":"0x1234","reason":"ssr"}'
    data = b"\x01\x00\x00\x00" * 4 + info + b"tail bytes after the text"
    c["srinfo"] = {
        "valid": le32(len(data)) + data,
        "no_brace": le32(40) + data[:40],
        "bad_marker": le32(len(data)) + data.replace(b"JVER", b"XVER"),
        "len_too_big": le32(0xFFFF) + data,
        "short": le32(21) + data[:21],
    }
    c["factory"] = {
        "two": b"sim_count=2\n", "one": b"ro.sim=1", "none": b"no token here\n",
        "eq_at_end": b"x=", "multi": b"a=4\nb=1\n",
    }
    c["cmdline"] = {
        "level": b"console=ttyS0 pax_debug.level=1 pax_debug.cp=0 root=/dev/sda\n",
        "enable": b"pax_debug.enable=1  quiet",
        "cp": b"pax_debug.cp=5 pax_debug.level=0",
        "empty_values": b"pax_debug.level= pax_debug.cp=",
    }
    c["property"] = {
        "dec": b"12", "hex": b"0x1f", "neg": b"-5", "trail": b"12abc", "text": b"abc",
        "big": b"2147483648", "octal": b"017", "space": b"  42\n",
    }
    a = lambda *args: b"\0".join(x.encode() for x in args)
    c["args"] = {
        "daemon": a("-d", "-t", "vm420", "-o", "c", "-o", "m", "-s", "1"),
        "nodes": a("-t", "quoll_sit", "-B", "umts_boot0", "-D", "umts_ramdump0", "-P", "sda17",
                   "-n", "/mnt/vendor/efs"),
        "before_t": a("-B", "x", "-t", "vm420", "-t", "bogus"),
        "unknown": a("-t", "other"), "bad_option": a("-x", "-o", "z", "-s", "2"),
        "too_long": a("-t", "vm420", "-B", "b" * 40),
    }
    c["evidence"] = evidence_corpus()
    return c


def hex_entry(time, block, rows=None):
    """A silent-reset hex-log entry as the daemon writes it."""
    out = "[%s]\n" % time
    for off in range(0, len(block), 16):
        row = block[off:off + 16].ljust(16, b"\0")
        text = "".join(chr(b) if 0x22 <= b <= 0x7D else "." for b in row)
        out += "%04x:%08x %08x %08x %08x %s\n" % ((off,) + struct.unpack("<4I", row) + (text,))
    return (out + "\n").encode()


def evidence_corpus():
    """Log directories as name/content pairs: one whole crash, one cut by a
    full disk and retried, a rotated hex log, names of no file of the daemon."""
    s, k = "20261124-0910_05", "202611240910_05"
    log = "\n".join([
        "std_dump_write_versions: CPIF version: VMODEM-CPIF-1.0",
        "std_dump_prepare_args: /data/vendor/log/rix/cpcrash_umts_log_%s.log opened (fd 6)" % s,
        "get_log_dump: size:100",
        "get_log_dump: /data/vendor/log/rix/cpcrash_shmem_dump_umts_%s.log opened (fd 12)" % s,
        "get_log_dump: /data/vendor/log/rix/cpcrash_shmem_dump_umts_%s.log Complete! (100 bytes)" % s,
        "get_num_log_dump: num_dump:1", "std_ul_recv_info: DUMP INFO saved",
        "std_ul_recv_data: [step 1] num_frames = 1", "std_ul_recv_data: [step 1] command = 0xAD01",
        "std_ul_recv_data: [step 1] saved = 64", "std_dump_receive_cp_dump: DUMP DATA saved", ""])
    cut = log[:log.index("std_ul_recv_data: [step 1] saved")] + "\n".join([
        "(ERR! No space left on device) std_ul_recv_data: ERR! [step 1] seq# 1 write fail",
        "std_dump_receive_cp_dump: ERR! std_ul_recv_data fail",
        "dump: ERR! std_dump_receive_cp_dump fail", ""])
    ring = ("<6>[ 1.0] cpif: rix: dump: Prepare CP crash dump\n"
            "<6>[ 1.1] cpif: rix: std_ul_recv_info: dump_size = 64\n"
            "<6>[ 1.2] cpif: rix: dump: ERR! std_dump_receive_cp_dump fail\n\0")
    block = b"VMSR\x01\0\0\0" + bytes(8) + b'{"JVER":"VM1","reason":"silent reset"}'
    files = lambda *pairs: msgs(*[x.encode() if isinstance(x, str) else x for x in pairs])
    whole = ("cpcrash_umts_log_%s.log" % s, log,
             "cpcrash_umts_info_vm420_%s.log" % s, ": CP Crash by CP - UMTS: oops",
             "cpcrash_umts_dump_%s.log" % s, bytes(64),
             "cpcrash_shmem_dump_umts_%s.log" % s, bytes(100),
             "cpcrash_umts_klog_before_%s.log" % k, "<6>[ 0.1] boot\n\0",
             "cpcrash_umts_klog_after_%s.log" % k, ring)
    hexlog = hex_entry("2026-11-24 09:10:05", block)
    return {
        "whole": files(*whole),
        "cut_and_retried": files(*whole[:2], "cpcrash_umts_log_%s.log" % s, cut,
                                 *whole[2:10], "cpcrash_umts_dump_fail_202611240910_07.log", ring,
                                 "cpcrash_umts_klog_before_202611240910_08.log", "x",
                                 "cpcrash_umts_dump_fail_202611240910_08.log", ring),
        "rotated": files(".sr_info_umts.bak", hex_entry("2026-11-23 08:00:00", block)[:138],
                         "sr_info_umts", hexlog[138:] + hexlog + b"junk\n",
                         "\x01last_sr_info_umts", block[16:]),
        "unknown": files("notes.txt", "x", "cpcrash_umts_log_2026.log", "", "cp_boot_umts_%s.log" % k,
                         "", "rix_only_umts_%s.log" % k, ""),
    }


def main():
    if os.path.isdir(OUT) and "--keep" not in sys.argv:
        shutil.rmtree(OUT)
    for target, files in corpus().items():
        d = os.path.join(OUT, target)
        os.makedirs(d, exist_ok=True)
        for name, data in files.items():
            with open(os.path.join(d, name), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main()
