"""The events that the load program injects: made from events.txt, the same each time."""
import pathlib

# Read at once: in the world in which the service runs this file may be out of reach.
TEMPLATES = pathlib.Path(__file__).with_name("events.txt").read_text()
SEQNUM_BYTES = len("SEQNUM=100000") + 1     # what the kernel adds to each


def templates(text=TEMPLATES):
    """(how many, text with {n} in it), one for each kind."""
    out = []
    for block in text.split("\n\n"):
        lines = [line for line in block.splitlines() if line and not line.startswith("#")]
        if not lines:
            continue
        count, action, devpath = lines[0].split(" ")
        event = [f"{action}@{devpath}", f"ACTION={action}", f"DEVPATH={devpath}"] + lines[1:]
        out.append((int(count), "".join(line + "\0" for line in event)))
    return out


def messages(kinds):
    """As many of each kind as it says, well mixed: the rarer ones lie evenly between the others."""
    places = [((which + 0.5) / count, text) for count, text in kinds for which in range(count)]
    return [text.replace("{n}", str(100 + number)).encode() for number, (_, text) in enumerate(sorted(places))]


def mean_bytes(made):
    """As a reader receives them."""
    return sum(len(one) + SEQNUM_BYTES for one in made) / len(made)
