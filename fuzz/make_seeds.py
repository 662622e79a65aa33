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
    return 0


if __name__ == "__main__":
    sys.exit(main())
