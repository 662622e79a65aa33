#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into fuzz/corpus/.

Run it again after changing a seed here; the files are small and kept in the repository so
every build replays them. Control records and rings use the daemon's layouts (little-endian).
"""
import os
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")

# Control record: id, length, 1024 bytes of text.
TEXT_SIZE = 1024

# Statistics file: 16-byte header, then samples 1..1279 of 16 bytes each.
STATS_MAGIC = 0x6B717876
SAMPLE_COUNT = 1279
FILE_SIZE = 20480
NOW = 1700000000000  # the fuzzing harness's fixed wall clock, ms
CLOSING, STEP = 2, 1


def record(msg_id, text, length=None):
    data = text.encode("latin-1") if isinstance(text, str) else text
    if length is None:
        length = len(data)
    return struct.pack("<ii", msg_id, length) + data[:TEXT_SIZE].ljust(TEXT_SIZE, b"\0")


def control_records():
    typical = {
        "id01_two_links": (1, "wlan0,rmnet_data0"),
        "id01_wifi_only": (1, "wlan0"),
        "id01_four_links": (1, "wlan0,wlan1,rmnet_data0,rmnet_data1"),
        "id01_empty": (1, ""),
        "id02_uids": (2, "10123,10234"),
        "id02_null": (2, "NULL"),
        "id03_metered": (3, "1"),
        "id03_unmetered": (3, "0"),
        "id04_gateway": (4, "192.168.1.1"),
        "id04_gateway_longest": (4, "1" * 63),
        "id05_uids": (5, "10123"),
        "id06_monitor_on": (6, "1"),
        "id07_uids": (7, "10234,10345"),
        "id08_bssid": (8, "aa:bb:cc:dd:ee:ff,"),
        "id08_two_bssids": (8, "aa:bb:cc:dd:ee:ff,11:22:33:44:55:66"),
        "id09_start_gaming": (9, "10123"),
        "id10_stop_gaming": (10, ""),
        "id11_voip_on": (11, "10123"),
        "id11_voip_off": (11, "0"),
        "id12_rtt": (12, "120"),
        "id12_rtt_high": (12, "121"),
        "id12_rtt_negative": (12, "-1"),
        "id12_rtt_limits": (12, " -2147483648 ms"),
        "id13_ai_on": (13, "10123"),
        "id13_ai_off": (13, "0"),
        "id14_check_rtt": (14, "1"),
        "id15_fast_choose": (15, "1"),
    }
    hostile = {
        "hostile_traversal_name": (1, "../../../../tmp/vekt_fuzz"),
        "hostile_absolute_name": (1, "/etc/passwd,wlan0"),
        "hostile_blanks_in_names": (1, " wlan0 ,rmnet data0,\twlan1"),
        "hostile_shell_syntax": (1, "wlan0;reboot,$(id),`id`,a|b"),
        "hostile_empty_pieces": (1, ",,,wlan0,,"),
        "hostile_five_links": (1, "wlan0,wlan1,rmnet_data0,rmnet_data1,ccmni0"),
        "hostile_long_names": (1, ",".join(["x" * 200] * 5)),
        "hostile_long_uids": (2, ",".join(["4294967296"] * 93)),
        "hostile_long_bssid": (8, "aa:bb:cc:dd:ee:ff:00:11:22:33,"),
        "hostile_long_gateways": (4, "fe80::1234:5678:9abc:def0,10.0.0.1"),
        "hostile_rtt_garbage": (12, "12abc"),
        "hostile_rtt_not_a_number": (12, "abc"),
        "hostile_format_text": (11, "%s%s%n%x"),
        "id00_unknown": (0, "wlan0"),
        "id99_unknown": (99, "wlan0"),
    }
    seeds = {name: record(i, t) for name, (i, t) in {**typical, **hostile}.items()}
    seeds["hostile_negative_length"] = record(2, "10123", length=-1)
    seeds["hostile_length_1024"] = record(1, "wlan0", length=1024)
    seeds["hostile_unterminated"] = record(7, "7" * TEXT_SIZE)
    seeds["hostile_short_input"] = struct.pack("<i", 1) + b"wl"
    seeds["hostile_negative_id"] = record(-5, "1")
    return seeds


def settings_files():
    with open(os.path.join(HERE, "..", "etc", "vekt.conf"), "rb") as conf:
        shipped = conf.read()
    return {
        "shipped": shipped,
        "interfaces": b"num_interfaces = 2\n"
                      b"interface_0 = wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff\n"
                      b"interface_1 = rmnet_data0,1,rmnet_data0,0x400000,0,0,0,0,ffffffffffff\n",
        "comments": b"ping_interval_ms = 800   # note\nping_interval_ms=800#x\n#wifi_threshold=1\n",
        "broken_lines": b"=5\nno equals here\nrtt_server=\nwan_threshold==7\n  \t \n#\n",
        "broken_numbers": b"wifi_threshold = 99999999999999999999\nwan_threshold = -2147483649\n"
                          b"mini_est_interval = 0x10\nideal_est_window = -500\n",
        "broken_bytes": b"protocols = http\0ftp\r\nports = 80,443\r\n\xff\xfe=\x00\n",
        "long_lists": b"protocols = " + b"http," * 400 + b"\nports = " + b"65535," * 400 + b"\n",
        "no_final_newline": b"SLAEnabled = 2",
    }


def sample(time_ms, nbytes, kind=CLOSING, flag=0):
    return struct.pack("<QIHBB", time_ms, nbytes, 0, kind, flag)


def ring(newest, samples, magic=STATS_MAGIC, full=False):
    """samples: {index: packed sample}; the file is cut after the last sample unless full."""
    last = max(samples) if samples else 0
    size = FILE_SIZE if full else 16 * (last + 1)
    data = bytearray(size)
    data[0:16] = struct.pack("<IIII", magic, 0, newest, 0)
    for index, packed in samples.items():
        data[16 * index:16 * index + 16] = packed
    return bytes(data)


def steady(newest, count, step_ms=20, nbytes=3072, newest_ms=NOW - 10):
    slots, index = {}, newest
    for i in range(count):
        slots[index] = sample(newest_ms - i * step_ms, nbytes)
        index = SAMPLE_COUNT if index == 1 else index - 1
    return slots


def rings():
    stepped = steady(40, 40)
    for index in range(2, 40, 3):
        stepped[index] = sample(NOW - 10 - (40 - index) * 20, 0, kind=STEP)
    flagged = steady(40, 40)
    for index in range(1, 40, 2):
        flagged[index] = sample(NOW - 10 - (40 - index) * 20, 3072, flag=1)
    gap = steady(40, 40)
    gap[30] = sample(0, 3072)
    same_time = {i: sample(NOW - 10, 4096) for i in range(1, 80)}
    return {
        "no_magic": b"",
        "empty": ring(0, {}),
        "steady": ring(40, steady(40, 40)),
        "wrapped": ring(3, steady(3, 60), full=True),
        "newest_zero_means_last": ring(0, steady(SAMPLE_COUNT, 30), full=True),
        "bad_index": ring(5000, steady(1163, 30)),
        "bad_index_max": ring(0xFFFFFFFF, steady(1163, 30)),
        "zero_time_stamp": ring(40, gap),
        "step_samples": ring(40, stepped),
        "flagged_samples": ring(40, flagged),
        "stale": ring(40, steady(40, 40, newest_ms=NOW - 5000)),
        "future": ring(40, steady(40, 40, newest_ms=NOW + 10**9)),
        "same_time_stamps": ring(79, same_time),
        "byte_cap": ring(40, steady(40, 40, nbytes=0xFFFFFFFF)),
        "wrong_magic": ring(40, steady(40, 40), magic=0x76787178),
    }


# Generic netlink (nl80211) receives: netlink header, generic header, attributes.
NLMSG_NOOP, NLMSG_ERROR, NLMSG_DONE, NLMSG_OVERRUN = 1, 2, 3, 4
NLM_F_MULTI = 2
GENL_ID_CTRL, NL80211_FAMILY = 0x10, 0x1c


def nla(kind, payload, length=None):
    if length is None:
        length = 4 + len(payload)
    data = struct.pack("<HH", length, kind) + payload
    return data + b"\0" * (-len(data) % 4)


def nlmsg(kind, body, seq=1, flags=0, length=None):
    if length is None:
        length = 16 + len(body)
    return struct.pack("<IHHII", length, kind, flags, seq, 0) + body


def genl(cmd, attributes=b""):
    return struct.pack("<BBH", cmd, 1, 0) + attributes


def family_reply(name=b"nl80211", groups=None, seq=1):
    attributes = nla(1, struct.pack("<H", NL80211_FAMILY)) + nla(2, name + b"\0")
    if groups is not None:
        entries = b"".join(nla(i + 1, nla(1, g + b"\0") + nla(2, struct.pack("<I", gid)))
                           for i, (g, gid) in enumerate(groups))
        attributes += nla(7, entries)
    return nlmsg(GENL_ID_CTRL, genl(1, attributes), seq)


def station_reply(signal=-58, seq=2, flags=0, cmd=19):
    info = nla(2, struct.pack("<I", 4096)) + nla(7, struct.pack("<b", signal)) + nla(1, b"")
    attributes = (nla(3, struct.pack("<I", 3)) + nla(6, bytes.fromhex("a0b1c2d3e4f5")) +
                  nla(21, info))
    return nlmsg(NL80211_FAMILY, genl(cmd, attributes), seq, flags)


def nl80211_receives():
    done = nlmsg(NLMSG_DONE, struct.pack("<i", 0), seq=2, flags=NLM_F_MULTI)
    station = station_reply()
    return {
        "family_with_groups": family_reply(groups=[(b"config", 4), (b"scan", 5), (b"mlme", 7)]),
        "family_without_groups": family_reply(),
        "family_other_name": family_reply(name=b"nlctrl"),
        "family_name_three_nuls": nlmsg(GENL_ID_CTRL, genl(1, nla(1, struct.pack("<H", 0x1c)) +
                                                           nla(2, b"nl80211\0\0\0"))),
        "family_group_without_id": nlmsg(GENL_ID_CTRL, genl(1, nla(1, struct.pack("<H", 0x1c)) +
                                                            nla(7, nla(1, nla(1, b"scan\0"))))),
        "station": station,
        "station_multipart_then_done": station_reply(flags=NLM_F_MULTI) + done,
        "station_unknown_sequence_first": station_reply(seq=102) + station,
        "station_after_multicast": station_reply(seq=0) + station,
        "station_u16_with_nla_len_8": nlmsg(NL80211_FAMILY, genl(19, nla(1, struct.pack("<I", 7)))),
        "error": nlmsg(NLMSG_ERROR, struct.pack("<i", -19) + station[:16], seq=2),
        "error_broken": nlmsg(NLMSG_ERROR, b"", seq=2, length=20) + b"\xed\xff",
        "done_only": done,
        "noop": nlmsg(NLMSG_NOOP, b"\0" * 4, seq=2),
        "overrun": nlmsg(NLMSG_OVERRUN, b"\0" * 4, seq=2),
        "attribute_past_end": station[:-4] + struct.pack("<HH", 0x40, 21),
        "attribute_length_zero": nlmsg(NL80211_FAMILY, genl(19, nla(3, b"", length=0) +
                                                            nla(21, b"", length=0))),
        "attribute_below_header": nlmsg(NL80211_FAMILY, genl(19, nla(21, b"\0" * 4, length=2))),
        "nested_entry_overlong": nlmsg(GENL_ID_CTRL, genl(1, nla(7, nla(1, b"\0" * 8, length=40)))),
        "message_15_bytes": nlmsg(NLMSG_DONE, b"")[:15],
        "message_incomplete": station[:30],
        "message_length_zero": nlmsg(NLMSG_DONE, b"\0" * 4, length=0),
        "payload_broken_tail": station + b"\0" * 10,
        "unaligned_lengths": nlmsg(NLMSG_DONE, b"\0", seq=2, flags=NLM_F_MULTI) + done,
    }


# Status documents as vektctl reads them from the daemon, and broken ones.
def json_documents():
    status = (b'{"version":1,"uptime_ms":86400123,"sla_enabled":true,"gateway":null,'
              b'"interfaces":[{"name":"wlan0","up":true,"rtt_ms":12.5,"bytes":18446744073709551615},'
              b'{"name":"rmnet_data0","up":false,"rtt_ms":-1,"bytes":0}],'
              b'"uids":[10123,10234],"notes":"\\ufffd \\"q\\" \\u00e9\\ud83d\\ude00 \xe2\x82\xac"}')
    return {
        "status": status,
        "status_pretty": b"{\n  \"a\" : [ 1 , -0.5e-3 , 2E+8 ] ,\r\n\t\"b\" : { } }\n",
        "scalars": b'[true,false,null,0,-0,"",{},[]]',
        "escapes": b'"\\"\\\\\\/\\b\\f\\n\\r\\t\\u0000\\u001f\\u007f"',
        "deep_nesting": b"[" * 64 + b"]" * 64,
        "too_deep": b'{"a":' * 65 + b"1" + b"}" * 65,
        "trailing_garbage": b'{"a":1}}',
        "unterminated_string": b'{"a":"abc',
        "bad_escape": b'["\\x"]',
        "lone_high_surrogate": b'["\\ud800"]',
        "lone_low_surrogate": b'["\\udc00x"]',
        "broken_utf8": b'["\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80\xff"]',
        "broken_numbers": b"[01, 1., .5, -, 1e, +1]",
        "huge_number": b"[1e999, 123456789012345678901234567890]",
        "empty": b"",
    }


def write(target, seeds):
    folder = os.path.join(CORPUS, target)
    os.makedirs(folder, exist_ok=True)
    for name, data in sorted(seeds.items()):
        with open(os.path.join(folder, name), "wb") as out:
            out.write(data)
    print(f"{target}: {len(seeds)} seeds")


def main():
    write("control_record", control_records())
    write("settings", settings_files())
    write("stats_ring", rings())
    write("nl80211_packet", nl80211_receives())
    write("json_value", json_documents())
    return 0


if __name__ == "__main__":
    sys.exit(main())
