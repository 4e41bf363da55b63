#!/usr/bin/python3
"""Wireshark's dissector says of kipcmon's files what usbrecords.py says of the records. Needs tshark, no root."""
import json
import os
import random
import struct
import subprocess
import unittest

from tap import (AS_ASKED, FULL, IN, MONOTONIC_NS, NO_RECEIVER, OUT, ROOT, WALL_NS, MonitorCase, datagram, head, search,
                 usbrecords, voltage)

DISSECTOR = ROOT / "tools" / "kipc" / "wireshark" / "usbservice.lua"
SEED = int(os.environ.get("SEED", "11"))
# Words that tshark shows as they are: what is beyond them is looked at as bytes.
TEXTS = (b"", b"R58M12345", b"a b=c", "Müsik".encode())


def number(text):
    return int(text, 0)


def random_text(chance, width):
    kind = chance.random()
    if kind < 0.6:
        return chance.choice(TEXTS).ljust(width, b"\0")
    if kind < 0.8:
        return bytes(chance.randrange(0x21, 0x7f) for _ in range(width))      # no terminator
    return chance.choice(TEXTS).ljust(width - 1, b"\0") + b"!"                # bytes behind the end


def random_record(chance, name):
    """Fixed bytes as they are, numbers and bytes anything, texts that can be compared."""
    data = bytearray(usbrecords.build(name))
    for field in usbrecords.RECORDS[name]["fields"]:
        if "is" in field:
            continue
        width = usbrecords.width(field)
        text = usbrecords.kind_of(field) == "text"
        piece = random_text(chance, width) if text else chance.choice((bytes(width), chance.randbytes(width)))
        data[field["at"]:field["at"] + width] = piece
    return bytes(data)


def listed(value):
    return value if isinstance(value, list) else [value]


class Dissector(MonitorCase):
    def capture(self, *datagrams):
        """The datagrams through a tap into kipcmon's file."""
        monitor = self.listening("--count", len(datagrams), "--write", f"{self.folder}/kept.pcapng")
        self.connect().send(*datagrams)
        self.assertEqual(monitor.end(), AS_ASKED)

    def tshark(self, *words):
        done = subprocess.run(["tshark", "-X", f"lua_script:{DISSECTOR}", "-r", f"{self.folder}/kept.pcapng", *words],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=True,
                              env={"PATH": "/usr/bin:/bin", "HOME": self.folder, "TZ": "UTC", "LC_ALL": "C.UTF-8"})
        complaints = [line for line in done.stderr.decode().splitlines() if "dangerous" not in line]
        self.assertEqual(complaints, [])
        return done.stdout.decode()

    def layers(self):
        """The dissector's fields of each packet."""
        packets = json.loads(self.tshark("-T", "json", "--no-duplicate-keys"))
        return [packet["_source"]["layers"]["usbservice"] for packet in packets]

    def raw_layers(self):
        packets = json.loads(self.tshark("-T", "jsonraw", "--no-duplicate-keys"))
        return [packet["_source"]["layers"]["usbservice"] for packet in packets]

    def check(self, layer, record):
        """Every field of the record, its value as usbrecords.py has it."""
        prefix = f"usbservice.{record.name}."
        shown = {key[len(prefix):]: value for key, value in layer.items()
                 if key.startswith(prefix) and not key.endswith("_tree")}
        self.assertEqual(set(shown), set(record.fields))
        for field in record.description():
            name = field["name"]
            if name not in record.fields:
                continue
            value = record[name]
            with self.subTest(f"{record.name}.{name}", seed=SEED):
                if isinstance(value, bytes):
                    self.assertEqual(shown[name].replace(":", ""), value.hex())
                elif isinstance(value, str):
                    self.assertEqual(shown[name], value)
                else:
                    self.assertEqual(number(shown[name]), value)
        for common in ("id", "port"):
            self.assertEqual(f"usbservice.{common}" in layer, common in record.fields)
            if common in record.fields:
                self.assertEqual(number(layer[f"usbservice.{common}"]), record[common])

    def faults(self):
        """What the dissector complains of, packet by packet."""
        lines = self.tshark("-T", "fields", "-E", "separator=|", "-E", "aggregator=;", "-e", "frame.number",
                            "-e", "_ws.expert.message").splitlines()
        return [[one for one in line.split("|")[1].split(";") if one] for line in lines]

    def cases(self, count):
        chance = random.Random(SEED)
        for name, description in usbrecords.RECORDS.items():
            for receiver in description["to"]:
                for _ in range(count):
                    yield description["from"], receiver, random_record(chance, name)

    def test_every_record_with_zeros_and_with_anything(self):
        cases = [(description["from"], receiver, usbrecords.build(name))
                 for name, description in usbrecords.RECORDS.items() for receiver in description["to"]]
        cases += self.cases(6)
        self.capture(*[datagram(data, sender, receiver) for sender, receiver, data in cases])
        layers, faults = self.layers(), self.faults()
        self.assertEqual((len(layers), len(faults)), (len(cases), len(cases)))
        lines = self.tshark("-T", "fields", "-e", "_ws.col.Info").splitlines()
        seen = set()
        for (sender, receiver, data), layer, complaints, line in zip(cases, layers, faults, lines):
            record = usbrecords.decode(receiver, data, sender)
            self.assertEqual(layer["usbservice.record"], record.name, data.hex())
            self.check(layer, record)
            self.assertEqual(complaints, record.faults, data.hex())
            self.assertEqual(line + "".join(f" [{fault}]" for fault in record.faults), record.describe(), data.hex())
            seen.add(record.name)
        self.assertEqual(seen, set(usbrecords.RECORDS))

    def test_fields_lie_where_the_description_says(self):
        cases = list(self.cases(1))
        self.capture(*[datagram(data, sender, receiver) for sender, receiver, data in cases])
        compared = 0
        for (sender, receiver, data), layer in zip(cases, self.raw_layers()):
            record = usbrecords.decode(receiver, data, sender)
            for field in record.description():
                raw = layer.get(f"usbservice.{record.name}.{field['name']}_raw")
                if usbrecords.kind_of(field) == "text":
                    continue
                value, at, width = raw[:3]
                with self.subTest(f"{record.name}.{field['name']}"):
                    self.assertEqual((at, width), (96 + field["at"], usbrecords.width(field)))
                    self.assertEqual(bytes.fromhex(value), data[field["at"]:field["at"] + width])
                compared += 1
        self.assertGreater(compared, 200)

    def test_records_that_are_shorter_or_longer_than_described(self):
        chance = random.Random(SEED)
        cases = []
        for name, description in usbrecords.RECORDS.items():
            data = random_record(chance, name)
            shorter = [data[:length] for length in sorted({0, 1, 3, 5, len(data) // 2, len(data) - 1})]
            cases += [(description["from"], description["to"][0], one) for one in [*shorter, data + b"\0" * 7]]
        self.capture(*[datagram(data, sender, receiver) for sender, receiver, data in cases])
        names = []
        for (sender, receiver, data), layer, complaints in zip(cases, self.layers(), self.faults()):
            record = usbrecords.decode(receiver, data, sender)
            self.assertEqual(layer.get("usbservice.record"), record.name, data.hex())
            names.append(record.name)
            if record.name:
                self.check(layer, record)
                self.assertEqual(complaints, record.faults, data.hex())
            else:
                self.assertEqual(layer.get("usbservice.unknown", "").replace(":", ""), data.hex())
        self.assertIn(None, names)
        self.assertGreater(len(set(names)), 5)

    def test_the_head_is_shown(self):
        self.capture(voltage(mask=0x200, lost=4, outcome=FULL), search(outcome=NO_RECEIVER))
        first, second = self.layers()
        self.assertEqual({name: first[f"usbservice.{name}"] for name in
                          ("sender", "receiver", "direction", "outcome", "lost", "length", "version", "mask",
                           "monotonic_ns")},
                         {"sender": "usb", "receiver": "voltage", "direction": str(OUT), "outcome": str(FULL),
                          "lost": "4", "length": "12", "version": "1", "mask": "0x0000000000000200",
                          "monotonic_ns": str(MONOTONIC_NS)})
        self.assertEqual((second["usbservice.direction"], second["usbservice.outcome"]), (str(IN), str(NO_RECEIVER)))
        times = self.tshark("-T", "fields", "-e", "frame.time_epoch", "-e", "usbservice.time", "-t", "e").splitlines()
        seconds = f"{WALL_NS // 10 ** 9}.{WALL_NS % 10 ** 9}"
        self.assertEqual(times, [f"{seconds}\tNov 14, 2023 22:13:20.123456789 UTC"] * 2)
        self.assertEqual(self.tshark("-T", "fields", "-e", "frame.drop_count").split(), ["4"])

    def test_the_list_of_packets_reads_as_kipcmon_does(self):
        self.capture(voltage(outcome=FULL), search(2), datagram(b"\1\2"))
        rows = self.tshark("-T", "fields", "-e", "_ws.col.Source", "-e", "_ws.col.Destination", "-e",
                           "_ws.col.Protocol", "-e", "_ws.col.Info").splitlines()
        self.assertEqual(rows, ["usb\tvoltage\tUSB service\tvoltage port=1 section=critical (full)",
                                "sdcm\tusb\tUSB service\tsearch sender=command port=2 trigger=sdcm",
                                "usb\tmedia\tUSB service\t2 bytes that no description fits"])

    def test_filters_of_kipcmon_are_display_filters(self):
        self.capture(voltage(1), voltage(2), search(2), datagram(b"?"))
        for wanted, packets in (("usbservice.port == 2", "2 3"), ("usbservice.id == 18", "3"),
                                ('usbservice.receiver == "voltage"', "1 2"), ("usbservice.direction == 1", "3"),
                                ("usbservice.voltage.port == 1", "1"), ('usbservice.record == "search"', "3"),
                                ("usbservice.unknown", "4")):
            self.assertEqual(self.tshark("-Y", wanted, "-T", "fields", "-e", "frame.number").split(), packets.split(),
                             wanted)

    def test_what_lies_is_marked(self):
        record = usbrecords.build("voltage", port=1, section=2)
        self.capture(datagram(record, receiver="voltage", length=5), datagram(record, "s" * 24, "r" * 24),
                     datagram(record, direction=7, outcome=200))
        self.assertEqual(self.faults(), [["12 bytes came"],
                                         ["sender's name is not terminated", "receiver's name is not terminated"],
                                         ["direction 7", "outcome 200"]])

    def test_what_is_no_datagram_of_a_tap_is_shown_as_bytes_with_the_reason(self):
        self.capture(voltage())
        with open(f"{self.folder}/kept.pcapng", "ab") as file:
            for data in (b"\1\2\3\4", head(0)[:95].ljust(96, b"\0")[:92], head(0, version=2), head(0, head_bytes=100),
                         head(0, head_bytes=8), head(0, magic=5)):
                file.write(struct.pack("<IIIIIII", 6, 32 + len(data), 0, 0, 1, len(data), len(data)) + data +
                           struct.pack("<I", 32 + len(data)))
        rows = self.tshark("-T", "fields", "-e", "_ws.col.Info", "-e", "frame.protocols").splitlines()
        self.assertEqual(rows[1:], [f"{reason}\tusbservice:data" for reason in (
            "4 bytes are less than a head", "92 bytes are less than a head",
            "the tap speaks version 2, this dissector version 1", "a head of 100 bytes in a datagram of 96 bytes",
            "a head of 8 bytes in a datagram of 96 bytes", "it is not the tap's: another magic number")])
        self.assertEqual(self.faults()[1:], [[row.split("\t")[0]] for row in rows[1:]])


if __name__ == "__main__":
    unittest.main(verbosity=2)
