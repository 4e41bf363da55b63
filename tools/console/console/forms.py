"""Named fields of a form: what the page shows, and how what was typed becomes values."""
import dataclasses
import re
from typing import Any


class WrongInput(Exception):
    """Something that was typed, or asked by a page, cannot be done. The text says which and why."""


@dataclasses.dataclass(frozen=True)
class Field:
    """One field.

    kind: "text"; "number" (decimal, or with 0x); "hex" (bytes, "02 00"); "choice" (value of one of `choices`)
    choices: [(value, label)]
    low, high: of a number
    most: bytes of a text in UTF-8, or of a "hex"
    pattern: regular expression that a text matches as a whole
    advanced: folded away at first
    """
    name: str
    label: str
    kind: str = "text"
    default: Any = ""
    choices: tuple = ()
    hint: str = ""
    low: int = 0
    high: int = 0xFFFFFFFF
    most: int = 4096
    pattern: str = ""
    advanced: bool = False

    def describe(self):
        """For the page."""
        told = {"name": self.name, "label": self.label, "kind": self.kind, "default": self.default, "hint": self.hint,
                "advanced": self.advanced}
        if self.choices:
            told["choices"] = [{"value": value, "label": label} for value, label in self.choices]
        return told

    def parse(self, value):
        if self.kind == "number":
            return self._number(value)
        if self.kind == "choice":
            return self._choice(value)
        if not isinstance(value, str):
            raise WrongInput(f"{self.label}: a text is needed")
        return self._hex(value) if self.kind == "hex" else self._text(value)

    def _number(self, value):
        try:
            number = value if isinstance(value, int) else int(str(value).strip(), 0)
        except ValueError:
            raise WrongInput(f"{self.label}: {value!r} is no number (decimal, or with 0x)") from None
        if not self.low <= number <= self.high:
            raise WrongInput(f"{self.label}: {number} is not between {self.low} and {self.high}")
        return number

    def _choice(self, value):
        for one, _ in self.choices:
            if value == one or value == str(one):
                return one
        raise WrongInput(f"{self.label}: there is no choice {value!r}")

    def _hex(self, value):
        try:
            data = bytes.fromhex(value)
        except ValueError:
            raise WrongInput(f"{self.label}: {value!r} is no bytes in hexadecimal digits (\"02 00\")") from None
        if len(data) > self.most:
            raise WrongInput(f"{self.label}: {len(data)} bytes are more than {self.most}")
        return data

    def _text(self, value):
        length = len(value.encode("utf-8", "replace"))
        if length > self.most:
            raise WrongInput(f"{self.label}: {length} bytes are more than {self.most}")
        if "\0" in value:
            raise WrongInput(f"{self.label}: a text cannot contain a zero byte")
        if self.pattern and not re.fullmatch(self.pattern, value):
            raise WrongInput(f"{self.label}: {value!r} is not like that: {self.hint}")
        return value


def parse(fields, given):
    """{name: value}; what is not given is as the field's default."""
    if not isinstance(given, dict):
        raise WrongInput("the fields are missing")
    unknown = set(given) - {field.name for field in fields}
    if unknown:
        raise WrongInput(f"there is no field {', '.join(sorted(unknown))}")
    return {field.name: field.parse(given.get(field.name, field.default)) for field in fields}
