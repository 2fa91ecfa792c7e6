#!/usr/bin/env python3
"""Makes the man pages out of doxygen's: manpages.py XML MAN OUT VERSION.

Doxygen writes a page for each header. Here it gets a name that is its own among all pages of a machine
(vorn_calls.h), the names that apropos looks for, a synopsis of declarations alone, and a link for each function,
variable, record and cell that it tells of. Doxygen's date goes, so that two builds of one source are the same.
"""

import pathlib
import re
import sys
import xml.etree.ElementTree as ET

import filter as headers_filter

UNDECLARED = "vorn_undeclared"
# Names that machines have pages of already, in other sections, which `man` would show behind ours.
OTHERS_PAGES = {"acl", "ascii", "ebcdic"}
TITLES = {
    "Detailed Description": "DESCRIPTION", "Data Structure Documentation": "RECORDS",
    "Macro Definition Documentation": "MACROS", "Typedef Documentation": "TYPES",
    "Function Documentation": "FUNCTIONS", "Variable Documentation": "VARIABLES",
}


def headers(xml):
    """The headers that doxygen has read: path below include/ and the root of what it tells."""
    for entry in ET.parse(xml / "index.xml").getroot().findall("compound[@kind='file']"):
        if entry.findtext("name").endswith(".h"):
            root = ET.parse(xml / f"{entry.get('refid')}.xml").getroot().find("compounddef")
            yield root.find("location").get("file"), root


def page_name(header):
    return header.replace("/", "_")


def is_cell(member):
    """tperrno and its like: a macro that stands for a variable."""
    value = member.find("initializer")
    return member.get("kind") == "define" and value is not None and "()" in "".join(value.itertext())


def names_told(header_root):
    """What a page tells of: functions, variables, types, records, and macros that stand for a variable."""
    for member in header_root.iter("memberdef"):
        if member.get("kind") in ("function", "variable", "typedef") or is_cell(member):
            yield member.findtext("name")
    for record in header_root.findall("innerclass"):
        yield record.text


def names_linked(header_root):
    """Those of them that have a page of their name."""
    return set(names_told(header_root)) - OTHERS_PAGES


def replaced(pattern, by, text, what, flags=0):
    """The text with one replacement; another version of doxygen may write what isn't found here any more."""
    text, count = re.subn(pattern, by, text, count=1, flags=flags)
    if count == 0:
        sys.exit(f"manpages.py: doxygen's man page has no {what} as it is known here:\n{text[:400]}")
    return text


def titled(text, page, version):
    return replaced(r"^\.TH .*$", f'.TH "{page}" 3 "" "libvornthr {version}" "libvornthr"', text, ".TH", re.M)


def see_also(pages):
    return ".SH SEE ALSO\n" + ",\n".join(f".BR {page} (3)" for page in pages) + "\n"


def family_page(text, header, names):
    text = replaced(r"(\.SH NAME\n)\S+( \\-.*?)(?:\\&)?\.?\s*\n",
                    lambda m: m[1] + ", ".join([page_name(header), *names]) + m[2] + "\n", text, "NAME")
    text = replaced(r"\.SH SYNOPSIS\n", f".SH SYNOPSIS\n.B #include <{header}>\n", text, "SYNOPSIS")
    text = re.sub(r'(\.ti -1c\n\.RI ".*"\n\.br\n)\.RI ".*\n', r"\1", text)  # what it does stands further down
    text = re.sub(r'^\.SH "(struct .*)"$', r'.SS "\1"', text, flags=re.M)
    for name in headers_filter.typedef_only((headers_filter.HEADERS / header).read_text()):
        text = re.sub(rf'^\.SS "struct {name}"$', f'.SS "{name} (typedef)"', text, flags=re.M)
        text = re.sub(rf'^\.RI "struct (\\fB{name}\\fP)"$', r'.RI "\1 (typedef)"', text, flags=re.M)
    for title, shown in TITLES.items():
        text = text.replace(f'.SH "{title}"', f".SH {shown}")
    text = re.sub(r'^\.IP "(.*)" 1c$', lambda m: '.IP "' + m[1].replace('"', r"\(dq") + '" 1c', text, flags=re.M)
    return re.sub(r'\.SH "Author"\n.*', "", text, flags=re.S)


def plain_page(text):
    return replaced(r"(\.SH NAME\n.*\n)", r"\1.SH DESCRIPTION\n", text, "NAME")


def main():
    xml, man, out = map(pathlib.Path, sys.argv[1:4])
    version = sys.argv[4]
    out.mkdir(parents=True, exist_ok=True)
    for old in out.iterdir():
        old.unlink()
    told = dict(headers(xml))
    pages = sorted([*map(page_name, told), UNDECLARED])
    for header, root in told.items():
        page, names = page_name(header), sorted(names_linked(root))
        text = family_page((man / (pathlib.Path(header).name + ".3")).read_text(), header, names)
        others = [other for other in pages if other != page]
        (out / f"{page}.3").write_text(titled(text, page, version) + see_also(others))
        for name in names:
            (out / f"{name}.3").write_text(f".so man3/{page}.3\n")
    text = plain_page((man / f"{UNDECLARED}.3").read_text())
    (out / f"{UNDECLARED}.3").write_text(titled(text, UNDECLARED, version) + see_also(["vorn.h"]))


if __name__ == "__main__":
    main()
