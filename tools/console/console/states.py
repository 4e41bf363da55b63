"""The state machine of a port as the page draws it: places of the states and the ways between them.

The states are those of usbservice/src/port/UPortState.h; a test compares. A way that the service takes although it is
not listed here is drawn when it is taken.
"""

# name: (column, row)
STATES = {
    "STATE_DETACH": (0, 1.5),
    "STATE_ATTACH": (1, 0.75),
    "STATE_CP_SUPPORT": (1, 3),
    "STATE_AA_CHANGING": (2, 0),
    "STATE_ML_CHANGING": (2, 1),
    "STATE_CL_CHANGING": (2, 2),
    "STATE_CP_CHANGING": (2, 3),
    "STATE_AA": (3, 0),
    "STATE_ML": (3, 1),
    "STATE_CL": (3, 2),
    "STATE_CP": (3, 3),
    "STATE_AA_RESETTING": (4, 0),
    "STATE_ML_RESETTING": (4, 1),
    "STATE_CL_RESETTING": (4, 2),
    "STATE_CP_RESETTING": (4, 3),
    "STATE_RESETTING": (0, 3),
}
FIRST = "STATE_DETACH"
NEVER_ENTERED = ("STATE_RESETTING",)

MODES = {"AA": "Android Auto", "ML": "MirrorLink", "CL": "CarLife"}


def _android(mode):
    """The road that the three modes of Android phones share."""
    name = MODES[mode]
    changing, running, resetting = f"STATE_{mode}_CHANGING", f"STATE_{mode}", f"STATE_{mode}_RESETTING"
    return [
        ("STATE_ATTACH", changing, f"{name} is requested, and the phone was told to switch"),
        ("STATE_ATTACH", running, f"{name} is requested of a phone that has switched already"),
        (changing, running, "the phone returns switched"),
        (changing, "STATE_ATTACH", "20 s without a change, or the start failed too often"),
        (changing, "STATE_DETACH", "the phone left and did not return"),
        (running, resetting, "reset"),
        (running, "STATE_DETACH", "the phone leaves"),
        (resetting, "STATE_ATTACH", "the phone returns"),
        (resetting, "STATE_DETACH", "the phone does not return"),
    ]


# (from, to, when)
WAYS = [
    ("STATE_DETACH", "STATE_ATTACH", "a device comes"),
    ("STATE_DETACH", "STATE_CP_SUPPORT", "an iPhone comes that says it can do CarPlay"),
    ("STATE_DETACH", "STATE_AA", "a phone comes that is an accessory already"),
    ("STATE_ATTACH", "STATE_DETACH", "the device leaves"),
    ("STATE_ATTACH", "STATE_CP_SUPPORT", "the iPhone, asked again, says it can do CarPlay"),
    *_android("AA"),
    *_android("ML"),
    *_android("CL"),
    ("STATE_CP_SUPPORT", "STATE_CP_CHANGING", "CarPlay is requested"),
    ("STATE_CP_SUPPORT", "STATE_CL_CHANGING", "CarLife is requested of the iPhone"),
    ("STATE_CP_SUPPORT", "STATE_DETACH", "the iPhone leaves"),
    ("STATE_CP_CHANGING", "STATE_CP", "the iPhone's tty appears"),
    ("STATE_CP_CHANGING", "STATE_CP_RESETTING", "reset"),
    ("STATE_CP_CHANGING", "STATE_DETACH", "the iPhone leaves, or its tty changes"),
    ("STATE_CP", "STATE_CP_SUPPORT", "a device comes meanwhile"),
    ("STATE_CP", "STATE_ATTACH", "a device comes that cannot do CarPlay"),
    ("STATE_CP", "STATE_CP_RESETTING", "reset"),
    ("STATE_CP", "STATE_DETACH", "its tty changes"),
    ("STATE_CP_RESETTING", "STATE_CP_SUPPORT", "the iPhone returns"),
    ("STATE_CP_RESETTING", "STATE_ATTACH", "a device comes that cannot do CarPlay"),
    ("STATE_CP_RESETTING", "STATE_DETACH", "the iPhone does not return"),
    ("STATE_CL_CHANGING", "STATE_CL_RESETTING", "reset of an iPhone"),
    ("STATE_CL_RESETTING", "STATE_CP_SUPPORT", "the iPhone returns"),
    ("STATE_AA_RESETTING", "STATE_AA", "another phone comes, an accessory already"),
]


def describe():
    """For the page."""
    return {"states": [{"name": name, "column": column, "row": row, "never": name in NEVER_ENTERED}
                       for name, (column, row) in STATES.items()],
            "first": FIRST,
            "ways": [{"from": here, "to": there, "when": when} for here, there, when in WAYS]}
