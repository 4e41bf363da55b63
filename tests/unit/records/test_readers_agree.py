#!/usr/bin/python3
"""The C++ reader of records and usbrecords.py say the same of the same bytes, whole and broken ones."""
import os
import pathlib
import random
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(ROOT / "tools" / "records"))

import usbrecords  # noqa: E402

SEED = int(os.environ.get("SEED", "20"))
TEXTS = (b"", b"STICK", b"a\"b\\c", b"\x1b[2J\x7f", "Müsik-Stöck €\U0001f600".encode(), b"\xc2\x9b\xc2\xa0",
         b"\xff\xfe", b"\xc0\x80\xe0\x9f\xbf\xed\xa0\x80\xf0\x8f\xbf\xbf\xf4\x90\x80\x80", b"\xe2\x82", b"x" * 200)


def said(cases):
    """What the C++ reader says of each (sender, receiver, bytes)."""
    asked = "".join(f"{sender} {receiver} {data.hex()}\n" for sender, receiver, data in cases)
    done = subprocess.run([os.environ["SAY_RECORDS"]], input=asked.encode(), stdout=subprocess.PIPE, check=True)
    return done.stdout.decode().split("\n")[:-1]


def roads():
    """Every (record, sender, receiver) of the description."""
    for name, description in usbrecords.RECORDS.items():
        for receiver in description["to"]:
            yield name, description["from"], receiver


def random_value(chance, field):
    """Bytes for a field: often what has a word, or a text that is hard to show."""
    width = usbrecords.width(field)
    if "words" in field and chance.random() < 0.7:
        return chance.choice(list(usbrecords.WORDS[field["words"]])).to_bytes(4, "little")[:width]
    if usbrecords.kind_of(field) == "text" and chance.random() < 0.9:
        return chance.choice(TEXTS)[:width].ljust(width, b"\0")
    return chance.choice((bytes(width), b"\xff" * width, chance.randbytes(width)))


def random_record(chance, name):
    """A record whose fixed bytes are as they must be, most of the time, and whose others are anything."""
    data = bytearray(usbrecords.build(name))
    for field in usbrecords.RECORDS[name]["fields"]:
        if "is" not in field or chance.random() < 0.02:
            data[field["at"]:field["at"] + usbrecords.width(field)] = random_value(chance, field)
    return data


class BothReaders(unittest.TestCase):
    def compare(self, cases):
        lines = said(cases)
        self.assertEqual(len(lines), len(cases))
        names = set()
        for (sender, receiver, data), line in zip(cases, lines):
            record = usbrecords.decode(receiver, data, sender)
            self.assertEqual(line, record.describe(), f"{sender} to {receiver}, seed {SEED}: {data.hex()}")
            names.add(record.name)
        return names

    def test_every_record_with_zeros_where_nothing_is_fixed(self):
        self.compare([(sender, receiver, usbrecords.build(name)) for name, sender, receiver in roads()])

    def test_records_with_random_fields(self):
        chance = random.Random(SEED)
        cases = [(sender, receiver, bytes(random_record(chance, name)))
                 for name, sender, receiver in roads() for _ in range(150)]
        self.assertEqual(self.compare(cases), {None, *usbrecords.RECORDS})

    def test_records_of_every_shorter_length_and_a_few_longer_ones(self):
        chance = random.Random(SEED)
        cases = []
        for name, sender, receiver in roads():
            data = bytes(random_record(chance, name))
            cases += [(sender, receiver, data[:length]) for length in range(len(data))]
            cases += [(sender, receiver, data + bytes(more)) for more in (1, 7, 100)]
        self.compare(cases)

    def test_bytes_of_any_kind_between_any_two(self):
        chance = random.Random(SEED)
        names = [*usbrecords.PROCESSES, "usb", "monitor", "nobody"]
        self.compare([(chance.choice(names), chance.choice(names), chance.randbytes(chance.randrange(400)))
                      for _ in range(3000)])


if __name__ == "__main__":
    unittest.main()
