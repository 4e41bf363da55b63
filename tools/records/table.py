"""The description as a table of C++: tools/kipc/records/Table.inc, in which Records.cpp looks everything up."""
import usbrecords

KINDS = {"u8": "KIND_U8", "u16": "KIND_U16", "u32": "KIND_U32", "i32": "KIND_I32", "text": "KIND_TEXT",
         "bytes": "KIND_BYTES"}


def literal(data):
    """A C++ string literal that holds exactly these bytes."""
    if isinstance(data, str):
        data = data.encode()
    shown = {ord('"'): '\\"', ord("\\"): "\\\\"}
    return '"' + "".join(shown.get(byte) or (chr(byte) if 0x20 <= byte < 0x7f else f"\\{byte:03o}")
                         for byte in data) + '"'


def field_row(record, field):
    words = f"kWords_{field['words']}" if "words" in field else "{}"
    always = usbrecords.fixed(field)
    always = "{}" if always is None else f"{{{literal(always)}, {len(always)}}}"
    flags = ", ".join("true" if field.get(flag) else "false" for flag in ("hex", "unused", "any"))
    says = literal(usbrecords.meaning(record, field))
    return (f"{{{literal(field['name'])}, {field['at']}, {usbrecords.width(field)}, "
            f"{KINDS[usbrecords.kind_of(field)]}, {words}, {always}, {flags}, {says}}}")


def text(mark):
    lines = [f"// {mark}", "// clang-format off", ""]
    for name, words in usbrecords.WORDS.items():
        lines.append(f"constexpr Word kWords_{name}[] = {{")
        lines += [f"    {{{number}, {literal(word)}}}," for number, word in words.items()]
        lines += ["};", ""]
    for name, record in usbrecords.RECORDS.items():
        receivers = ", ".join(literal(receiver) for receiver in record["to"])
        lines += [f"constexpr std::string_view kTo_{name}[] = {{{receivers}}};",
                  f"constexpr Field kFields_{name}[] = {{"]
        lines += [f"    {field_row(record, field)}," for field in record["fields"]]
        lines += ["};", ""]
    lines.append("constexpr Record kRecords[] = {")
    for name, record in usbrecords.RECORDS.items():
        lines.append(f"    {{{literal(name)}, {record['size']}, {record.get('minimum', record['size'])}, "
                     f"{'true' if 'minimum' in record else 'false'}, {literal(record['from'])}, kTo_{name}, "
                     f"kFields_{name}, {literal(record['says'])}}},")
    lines += ["};", "", "constexpr Process kProcesses[] = {"]
    lines += [f"    {{{literal(name)}, 0x{mask:016x}}}," for name, mask in usbrecords.PROCESSES.items()]
    lines += ["};", ""]
    return "\n".join(lines)
