#!/usr/bin/env python3
"""Is there a reference page for everything? check.py XML MAN EXPORTS names what lacks one, and fails then.

Doxygen's own warnings stop the build where it meets a declaration without a text; here is what it can't know: the
names that the library exports, what the filter may have swallowed, members of records, and the man pages.
"""

import pathlib
import re
import sys
import xml.etree.ElementTree as ET

import filter as headers_filter
from manpages import UNDECLARED, headers, names_told, page_name

# Of use inside a header alone: it has the compiler look at the arguments of a format.
NO_NAMES = {"VORN_LOG_FORMAT"}
FAMILY_LINE = re.compile(r"Told together:.*", re.S)


def has_text(element, tags=("briefdescription", "detaileddescription")):
    text = " ".join("".join(element.find(tag).itertext()) for tag in tags if element.find(tag) is not None)
    return bool(re.search(r"\w", FAMILY_LINE.sub("", text)))


def undeclared_names(xml):
    """What the page of undeclared names lists, and whether each has a text."""
    root = ET.parse(xml / f"{UNDECLARED}.xml").getroot()
    for term, item in zip(root.iter("varlistentry"), root.iter("listitem")):
        for name in "".join(term.itertext()).split(","):
            yield name.strip(), re.search(r"\w", "".join(item.itertext())) is not None


def without_text(xml, told):
    for header, root in told.items():
        if not has_text(root) or not (headers_filter.HEADERS / header).read_text().startswith("/* "):
            yield f"{header}: no introduction"
        for member in root.iter("memberdef"):
            if not has_text(member) and member.findtext("name") not in NO_NAMES:
                yield f"{header}: {member.findtext('name')} has no text"
        for record in root.findall("innerclass"):
            inner = ET.parse(xml / f"{record.get('refid')}.xml").getroot().find("compounddef")
            if not has_text(inner):
                yield f"{header}: {record.text} has no text"
            for field in inner.iter("memberdef"):
                if not has_text(field):
                    yield f"{header}: {record.text}.{field.findtext('name')} has no text"


def without_page(told, man):
    for header, root in told.items():
        own = f"{page_name(header)}.3"
        text = (man / own).read_text() if (man / own).exists() else ""
        plain = re.sub(r"\\f.", "", text)
        if not text:
            yield f"{header}: no man page {own}"
        for name in names_told(root):
            link = man / f"{name}.3"
            if not link.exists() or link.read_text() != f".so man3/{own}\n":
                yield f"{header}: no man page {name}.3"
            if not re.search(rf"^\.SS .*\b{name}\b", plain, re.M):
                yield f"{header}: its man page says nothing of {name}"


def not_met(told):
    """Headers, and names in them, that doxygen hasn't seen."""
    include = headers_filter.HEADERS
    for path in sorted(include.rglob("*.h")):
        if str(path.relative_to(include)) not in told:
            yield f"{path.relative_to(include)}: no page"
    met = {name for root in told.values() for name in names_told(root)}
    met |= {member.findtext("name") for root in told.values() for member in root.iter("memberdef")}
    for name in sorted(headers_filter.NAMES - met - NO_NAMES):
        if not re.match(r"VORN(_[A-Z]+)?_H$", name):
            yield f"{name}: declared in a header, and on no page"


def words(text):
    return re.sub(r"[\s`.:;]+", "", text).lower()


def unsaid(xml, told):
    """Sentences of the headers' comments that no page has: what the filter has lost."""
    for header, root in told.items():
        records = [ET.parse(xml / f"{record.get('refid')}.xml") for record in root.findall("innerclass")]
        said = words("".join("".join(r.itertext()) for r in [root, *(record.getroot() for record in records)]))
        for comment in re.findall(r"/\*.*?\*/", (headers_filter.HEADERS / header).read_text(), re.S):
            text = re.sub(r"^-{3,4} ", "", headers_filter.comment_text(comment.split("\n")))
            for sentence in re.split(r"(?<=[.:;])\s+|\n\s*\n|\n? {2,}", text):
                if words(sentence) not in said:
                    yield f"{header}: not on its page: {sentence}"


def exports_at_odds(xml, told, exports):
    listed = dict(undeclared_names(xml))
    declared = {member.findtext("name") for root in told.values() for member in root.iter("memberdef")
                if member.get("kind") in ("function", "variable")}
    for name in sorted(exports):
        if not name.startswith("_") and name not in declared and name not in listed:
            yield f"{name}: exported, but declared in no header and not listed in pages.dox"
    for name in sorted(listed):
        if name not in exports or name in declared or not listed[name]:
            yield f"{name}: listed in pages.dox, but not exported, declared by a header, or without a text"
    for name in sorted(declared - exports):
        yield f"{name}: declared by a header, but not exported"


def main():
    xml, man = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    exports = {line for line in pathlib.Path(sys.argv[3]).read_text().split("\n") if re.match(r"[A-Za-z_]", line)}
    told = dict(headers(xml))
    lacks = [*not_met(told), *without_text(xml, told), *without_page(told, man),
             *unsaid(xml, told), *exports_at_odds(xml, told, exports)]
    for line in lacks:
        print(line)
    if not told or not exports:
        sys.exit("nothing to look at: no header has a page, or no name is exported")
    print(f"{len(told)} headers, {len(exports)} exported names, {len(lacks)} lacks")
    sys.exit(1 if lacks else 0)


if __name__ == "__main__":
    main()
