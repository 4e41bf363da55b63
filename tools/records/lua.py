"""The description of the records as tables in Lua, for the Wireshark dissector."""
import usbrecords

BEGIN, END = "-- begin of the description\n", "-- end of the description\n"


def literal(text):
    """A Lua string literal."""
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def field_line(field):
    entries = [f"name = {literal(field['name'])}", f"at = {field['at']}", f"width = {usbrecords.width(field)}",
               f"kind = {literal(usbrecords.kind_of(field))}"]
    if "words" in field:
        entries.append(f"words = {literal(field['words'])}")
    always = usbrecords.fixed(field)
    if always is not None:
        entries.append(f"is = {literal(always.hex())}")
    entries += [f"{flag} = true" for flag in ("hex", "unused", "any") if field.get(flag)]
    return f"        {{ {', '.join(entries)} }},"


def record_lines(name, record):
    minimum, longer = record.get("minimum", record["size"]), "true" if "minimum" in record else "false"
    yield (f"    {{ name = {literal(name)}, size = {record['size']}, minimum = {minimum}, longer = {longer}, "
           f"from = {literal(record['from'])},")
    yield "      to = {"
    yield from (f"          {literal(receiver)}," for receiver in record["to"])
    yield "      },"
    yield "      fields = {"
    for field in record["fields"]:
        yield field_line(field)
    yield "    } },"


def description():
    lines = ["local WORDS = {"]
    for name, words in usbrecords.WORDS.items():
        lines.append(f"    {name} = {{")
        lines += [f"        [{number}] = {literal(word)}," for number, word in words.items()]
        lines.append("    },")
    lines += ["}", "local RECORDS = {"]
    for name, record in usbrecords.RECORDS.items():
        lines += record_lines(name, record)
    return "\n".join(lines + ["}"]) + "\n"


def renewed(path, mark):
    """The file at `path` with the description between its marks; the rest of it is written by hand."""
    before, begin, rest = path.read_text().partition(BEGIN)
    _, end, behind = rest.partition(END)
    if not begin or not end:
        raise ValueError(f"{path} has no marks for the description")
    return before + begin + f"-- {mark}\n" + description() + end + behind
