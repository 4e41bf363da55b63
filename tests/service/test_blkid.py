#!/usr/bin/python3
"""The program that identifies volumes may say anything, or nothing: no event is lost, and the next stick mounts."""
from bench import ServiceCase, board, main, volumes, world

KIBIBYTE = "x" * 1024


class Identification(ServiceCase):
    @classmethod
    def prepare(cls):
        cls.volume("stick", volumes.filesystem(label="STICK", uuid="11111111-2222-3333-4444-555555555555"))

    def setUp(self):
        super().setUp()
        self.volumes["stick"].appear_as("sda1")
        self.addCleanup(volumes.disappear, "sda1")
        self.addCleanup(self.assert_stick_is_announced)
        self.addCleanup(world.set_blkid)

    def plug_with(self, script):
        """Plugs a stick while that script identifies volumes; what media heard until it was pulled."""
        if script is None:
            world.remove_blkid()
        else:
            world.set_blkid(script)
        stick = board.stick("1-1.1")
        self.board.plug(stick)
        self.settle()
        self.mounts_seen = self.mounted()
        self.board.unplug(stick)
        self.settle()
        self.assertEqual(self.mounted(), {})
        self.assertEqual(self.service.children(), [])
        return [(record["cmd"], record["sub_cmd"], record["partition"]) for record in self.got("media")]

    def assert_not_identified(self, script):
        self.assertEqual(self.plug_with(script), [(2, 0, 1), (5, 0, 1)])
        self.expect_log("vol ret ((null),(null),(null))")

    def test_a_missing_program_leaves_the_volume_unidentified(self):
        self.assert_not_identified(None)
        self.expect_log("result of blkid:-1", level=192)

    def test_a_program_that_prints_nothing_leaves_the_volume_unidentified(self):
        self.assert_not_identified("exit 2")

    def test_a_program_that_dies_leaves_the_volume_unidentified(self):
        self.assert_not_identified("kill -9 $$")

    def test_a_program_that_hangs_up_early_is_waited_for(self):
        self.assert_not_identified("exec >&-; sleep 0.3")

    def test_only_what_is_asked_for_is_run(self):
        self.plug_with("echo \"$@\" > /run/asked; printf ' TYPE=\"ext4\"'")
        with open("/run/asked") as file:
            self.assertEqual(file.read(), "-d /dev/sda1\n")
        self.assertEqual(list(self.mounts_seen), ["/tmp/USB/PORT1/PART1"])

    def test_half_a_value_ends_where_the_output_ends(self):
        self.plug_with("printf '/dev/sda1: LABEL=\"STI'")
        self.expect_log("vol ret (STI,(null),(null))")

    def test_an_empty_value_is_an_empty_text(self):
        said = self.plug_with("printf '/dev/sda1: LABEL=\"\" UUID=\"\" TYPE=\"ext4\"'")
        self.assertEqual(said, [(2, 0, 1), (3, 0, 1), (5, 0, 1)])
        self.expect_log("vol ret (,,ext4)")

    def test_an_empty_type_is_tried_as_fat(self):
        self.assertEqual(self.plug_with("printf ' TYPE=\"\"'"), [(2, 0, 1), (5, 0, 1)])
        self.expect_log("ftype: devpath:/dev/sda1", level=128)
        self.expect_log("error in mount 19 No such device", level=192)

    def test_a_value_in_a_later_piece_counts(self):
        said = self.plug_with("printf 'LABEL=\"FIRST\" TYPE=\"vfat\"'; sleep 0.1; "
                              "printf 'LABEL=\"SECOND\" TYPE=\"ext4\"'")
        self.assertEqual(said, [(2, 0, 1), (3, 0, 1), (5, 0, 1)])
        self.assertEqual(self.got("media")[1]["label"], "SECOND")

    def test_a_value_cut_between_two_pieces_keeps_its_first_half(self):
        self.plug_with("printf ' TYPE=\"ext4\" LABEL=\"HALF'; sleep 0.1; printf '+REST\"'")
        self.assertEqual(self.got("media")[1]["label"], "HALF")

    def test_a_mebibyte_of_noise_in_front_does_no_harm(self):
        said = self.plug_with("head -c 1048576 /dev/zero | tr '\\0' x; sleep 0.1; printf ' TYPE=\"ext4\"'")
        self.assertEqual(said, [(2, 0, 1), (3, 0, 1), (5, 0, 1)])

    def test_a_mebibyte_of_zeros_does_no_harm(self):
        said = self.plug_with("head -c 1048576 /dev/zero; sleep 0.1; printf ' TYPE=\"ext4\"'")
        self.assertEqual(said, [(2, 0, 1), (3, 0, 1), (5, 0, 1)])

    def test_a_label_of_a_mebibyte_is_cut_to_its_field(self):
        self.plug_with("printf ' TYPE=\"ext4\" LABEL=\"'; head -c 1048576 /dev/zero | tr '\\0' y; printf '\"'")
        label = self.got("media")[1]["label"]
        self.assertEqual(label, "y" * len(label))
        self.assertLessEqual(len(label), 31)

    def test_a_label_of_two_kibibytes_is_cut_to_its_field(self):
        self.plug_with(f"printf ' TYPE=\"ext4\"'; sleep 0.1; printf 'LABEL=\"{KIBIBYTE}{KIBIBYTE}\"'")
        self.assertEqual(self.got("media")[1]["label"], "x" * 31)

    def test_control_bytes_and_formats_stay_in_the_record_and_out_of_the_log(self):
        self.plug_with(r"""printf ' TYPE="ext4" LABEL="a\n\033[31m%%n%%s\377\tz"'""")
        record = self.got("media")[1]
        self.assertEqual(record.data[53:53 + 13], b"a\n\x1b[31m%n%s\xff\tz"[:13])
        self.expect_log(r"vol ret (a\x0a\x1b[31m%n%s\xff\x09z,(null),ext4)")

    def test_the_uuid_of_a_partition_table_is_the_first_that_is_found(self):
        self.plug_with("printf '/dev/sda1: PTUUID=\"ab116a06\" PTTYPE=\"dos\" TYPE=\"ext4\"'")
        self.expect_log("vol ret ((null),ab116a06,ext4)")

    def test_a_slow_program_delays_the_stick_and_loses_no_event(self):
        world.set_blkid(f"sleep 0.5; exec {world.BLKID} \"$@\"")
        stick = board.stick("1-1.1")
        keyboard = board.keyboard("1-1.2")
        self.board.plug(stick)
        self.board.plug(keyboard)
        self.settle()
        self.board.unplug(keyboard)
        self.board.unplug(stick)
        self.settle()
        self.assertEqual([record["cmd"] for record in self.got("navi")], [2, 3, 5])
        self.assertEqual([record["cmd"] for record in self.got("media") if record.name == "st_usb_pkt"], [6, 5])


if __name__ == "__main__":
    main()
