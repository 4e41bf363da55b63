"""Images of sticks, made without root and without mounting.

Every label and number is given, so that records can be compared byte by byte.

    sticks.mbr(path, [Vfat(label="STICK", uuid=0x1234ABCD, files={"a.txt": b"x"}), Unknown(), Ext4(label="DATA")])
    sticks.whole(path, Vfat(label="PLAIN"))

Images are small and sparse. Each function returns the path.
"""
import dataclasses
import pathlib
import subprocess
import tempfile

SECTOR = 512
MIB = 1 << 20


class ToolFailed(Exception):
    pass


def _call(*command, **options):
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False, **options)
    if done.returncode:
        raise ToolFailed(f"{command}: {done.returncode}\n{done.stdout.decode(errors='replace')}")


@dataclasses.dataclass
class Vfat:
    """uuid 0x1234ABCD reads "1234-ABCD". type: of the partition table, 0x0e FAT16 LBA."""
    label: str = "STICK"
    uuid: int = 0x1234ABCD
    files: dict = dataclasses.field(default_factory=dict)   # name, also with folders: bytes
    mib: int = 8
    type: int = 0x0E

    def write(self, path):
        name = ["-n", self.label] if self.label else []
        _call("/sbin/mkfs.vfat", "--invariant", "-i", f"{self.uuid:08x}", *name, path)
        with tempfile.TemporaryDirectory() as folder:
            tree = _write_tree(pathlib.Path(folder), self.files)
            if tree:
                _call("mcopy", "-s", "-i", path, *tree, "::/")


@dataclasses.dataclass
class Exfat:
    """uuid 0x1234ABCD reads "1234-ABCD". No files: the platform's exfat is not in the guest's kernel."""
    label: str = "CARD"
    uuid: int = 0xE4FA7000
    mib: int = 8
    type: int = 0x07

    def write(self, path):
        _call("/sbin/mkfs.exfat", "-L", self.label, path)
        _call("/sbin/tune.exfat", "-I", f"0x{self.uuid:08x}", path)


@dataclasses.dataclass
class Ext4:
    label: str = "DATA"
    uuid: str = "00000000-1111-2222-3333-444444444444"
    files: dict = dataclasses.field(default_factory=dict)
    mib: int = 8
    type: int = 0x83

    def write(self, path):
        with tempfile.TemporaryDirectory() as folder:
            _write_tree(pathlib.Path(folder), self.files)
            _call("/sbin/mkfs.ext4", "-q", "-F", "-L", self.label, "-U", self.uuid, "-E",
                  f"hash_seed={self.uuid},lazy_itable_init=0", "-d", folder, path)


@dataclasses.dataclass
class Unknown:
    """Bytes that are no filesystem."""
    mib: int = 4
    type: int = 0xDA

    def write(self, path):
        with open(path, "r+b") as image:
            image.write(b"no filesystem is here. " * 1000)


def _write_tree(folder, files):
    """The top entries of the tree that it wrote."""
    for name, content in files.items():
        target = folder / name
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content)
    return sorted(folder.iterdir())


def _make(content, path):
    with open(path, "wb") as image:
        image.truncate(content.mib * MIB)
    content.write(path)


def whole(path, content):
    """A stick without partition table."""
    path = pathlib.Path(path)
    _make(content, path)
    return path


def mbr(path, contents, disk_id=0x57A7104D):
    """A stick with an MBR and one to four primary partitions. blkid shows disk_id as PTUUID and in PARTUUID."""
    path = pathlib.Path(path)
    start, lines = 1, ["label: dos", f"label-id: 0x{disk_id:08x}", "unit: sectors"]
    places = []
    for content in contents:
        sectors = content.mib * MIB // SECTOR
        lines.append(f"start={start * MIB // SECTOR}, size={sectors}, type={content.type:x}")
        places.append((start * MIB, content))
        start += content.mib
    with open(path, "wb") as image:
        image.truncate((start + 1) * MIB)
    _call("/sbin/sfdisk", "-q", path, input="\n".join(lines).encode() + b"\n")
    for offset, content in places:
        with tempfile.NamedTemporaryFile() as part:
            _make(content, part.name)
            _copy(part.name, path, offset)
    return path


def _copy(source, target, offset):
    """Empty pieces stay holes."""
    empty = bytes(65536)
    with open(source, "rb") as reader, open(target, "r+b") as writer:
        while piece := reader.read(65536):
            if piece != empty[:len(piece)]:
                writer.seek(offset)
                writer.write(piece)
            offset += len(piece)
