#!/usr/bin/python3
"""What is written about kipcsend is what it does: --help, the man page and the completion name the same requests with
the same options."""
import re
import subprocess
import unittest

from sending import PROGRAM, ROOT, usbrecords

PAGE = ROOT / "packaging" / "man" / "kipcsend.1"
COMPLETION = ROOT / "packaging" / "completion" / "kipcsend"
LONG = re.compile(r"--[a-z][a-z0-9-]*")
OF_THE_PROGRAM = {"--help", "--version", "--dir", "--timeout", "--verbose", "--dry-run", "--json"}
MODES = {"android-auto", "mirrorlink", "carplay", "carlife-android", "carlife-iphone", "reset"}
MODE_OPTIONS = {"--port", "--devpath", "--vid", "--pid", "--serial", "--devid"}


def run(*words):
    return subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60,
                          env={"PATH": "/usr/bin:/bin"})


class Help:
    """The --help of one request, of a peer, or of the program."""

    def __init__(self, *place):
        done = run(PROGRAM, *place, "--help")
        assert done.returncode == 0, done.stdout
        self.text = done.stdout
        self.options = {option for line in self.text.splitlines() if re.match(r"  +-", line)
                        for option in LONG.findall(line.strip().split("  ")[0])}
        self.options -= {"--help"} if place else set()
        _, _, behind = self.text.partition("\nSubcommands:\n")
        self.subcommands = [line.split()[0] for line in behind.split("\n\n")[0].splitlines()
                            if re.match(r"  [a-z]", line)]


def tree():
    """place (a tuple of words): its Help."""
    out = {(): Help()}
    for peer in out[()].subcommands:
        out[peer,] = Help(peer)
        for request in out[peer,].subcommands:
            out[peer, request] = Help(peer, request)
    return out


def offered(*words):
    """What bash offers for the last of these words."""
    script = f'''source "{COMPLETION}"
        COMP_WORDS=(kipcsend "$@"); COMP_CWORD=$#; _kipcsend
        [ ${{#COMPREPLY[@]}} = 0 ] || printf '%s\\n' "${{COMPREPLY[@]}}"'''
    done = run("bash", "--norc", "-c", script, "bash", *words)
    assert done.returncode == 0, done.stdout
    return done.stdout.splitlines()


class Page:
    """The man page: each request with the text of its item and the options of the list below."""

    def __init__(self):
        text = PAGE.read_text()
        self.requests = {}
        for item in re.split(r"^\.It Cm ", text, flags=re.M)[1:]:
            item = re.split(r"^\.S[hs] ", item, flags=re.M)[0]
            first, _, body = item.partition("\n")
            if first.startswith("raw "):
                self.requests.setdefault(("raw",), ["", set()])[1] |= self.options(first)
            else:
                body = body.partition("\nThe phone:\n")[0]
                self.requests[tuple(first.split())] = [body, self.options(body)]
        phone = text.partition("\nThe phone:\n")[2].partition(".It Cm")[0]
        for name in MODES:
            self.requests["sdcm", name][1] |= self.options(phone)
        self.of_the_program = self.options(text.partition(".Sh DESCRIPTION")[2].partition(".Ss")[0])

    @staticmethod
    def options(text):
        return {"-" + name for line in re.findall(r"^(?:\.It|raw) .*", text, re.M)
                for name in re.findall(r"Fl (-[a-z][a-z0-9-]*)", line)}


class Written(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.tree = tree()
        cls.requests = {place: help for place, help in cls.tree.items()
                        if place == ("raw",) or len(place) == 2}

    def test_there_is_a_request_for_all_that_peers_may_ask(self):
        self.assertEqual({place for place in self.requests if place[0] == "sdcm"},
                         {("sdcm", name) for name in MODES | {"search"}})
        self.assertEqual(len(self.requests), 18)
        for name in MODES:
            self.assertEqual(self.requests["sdcm", name].options, MODE_OPTIONS)
        self.assertEqual(self.tree[()].options, OF_THE_PROGRAM)

    def test_each_help_says_as_whom_it_speaks_and_what_is_answered(self):
        for place, help in self.requests.items():
            with self.subTest(place):
                if place == ("raw",):
                    self.assertIn("Speaks as the peer that is named", help.text)
                else:
                    self.assertIn(f"Speaks as {place[0]}, on the service's socket usb/{place[0]}", help.text)
                    self.assertRegex(help.text, r"Answer: \w+")

    def test_the_man_page_explains_the_same_requests_and_options(self):
        page = Page()
        self.assertEqual({place: options for place, (_, options) in page.requests.items()},
                         {place: help.options for place, help in self.requests.items()})
        self.assertEqual(page.of_the_program, OF_THE_PROGRAM)

    def test_the_man_page_tells_the_same_times(self):
        told = 0
        for place, (body, _) in Page().requests.items():
            seconds = re.search(r"\(waits (\d+) s\)", self.requests[place].text)
            with self.subTest(place):
                if seconds:
                    self.assertIn(f"Waits {seconds[1]} s", body)
                    told += 1
                else:
                    self.assertNotIn("Waits", body)
        self.assertEqual(told, 10)

    def test_the_man_page_is_without_fault(self):
        done = run("mandoc", "-Tlint", "-Wwarning", str(PAGE))
        self.assertEqual((done.returncode, done.stdout), (0, ""))

    def test_the_completion_offers_the_same_requests(self):
        self.assertEqual(sorted(offered("")), sorted(self.tree[()].subcommands))
        for place, help in self.tree.items():
            if len(place) == 1 and place != ("raw",):
                with self.subTest(place):
                    self.assertEqual(sorted(offered(*place, "")), sorted(help.subcommands))

    def test_the_completion_offers_the_same_options(self):
        for place, help in self.tree.items():
            with self.subTest(place):
                self.assertEqual(set(offered(*place, "--")), help.options | OF_THE_PROGRAM)

    def test_the_completion_knows_its_place_behind_options_and_values(self):
        self.assertEqual(offered("--timeout", "3", "-v", "sdcm", "--json", "carp"), ["carplay"])
        self.assertEqual(offered("diag", "adaption", "--port1", ""), ["on", "off"])
        self.assertEqual(offered("diag", "adaption", "--port1", "on", "--port2", "of"), ["off"])
        self.assertEqual(offered("diag", "coding", "--value", ""), ["0", "1", "2", "3"])
        self.assertEqual(offered("media", "search", "--dev-type", "App"), ["Apple", "Apple\\ shuttle"])
        self.assertEqual(offered("sdcm", "carplay", "--serial", ""), [])
        self.assertIn("/tmp", offered("--dir", "/tm"))

    def test_the_completion_offers_the_records_that_the_service_takes(self):
        taken = {name for name, record in usbrecords.RECORDS.items() if "usb" in record["to"]}
        self.assertEqual(set(offered("raw", "sdcm", "--record", "")), taken)
        self.assertEqual(set(offered("raw", "")), set(self.tree[()].subcommands) - {"raw"})

    def test_the_completion_offers_the_types_of_devices(self):
        self.assertEqual({word.replace("\\ ", " ") for word in offered("media", "search", "--dev-type", "")},
                         set(usbrecords.WORDS["dev_type"].values()))


if __name__ == "__main__":
    unittest.main(verbosity=2)
