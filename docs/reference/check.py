#!/usr/bin/env python3
"""Is there a reference page for everything? check.py XML MAN HTML WARNINGS EXPORTS names what lacks one, and
fails then.

Doxygen has put into the file WARNINGS what it found itself: declarations without a text, links to nothing. Here is
what it can't know: the names that the library exports, what the filter may have swallowed, members of records, the
man pages, and what it writes without a warning though it isn't right.
"""

import pathlib
import re
import sys
import xml.etree.ElementTree as ET

import filter as headers_filter
from manpages import UNDECLARED, headers, names_linked, names_told, page_name

# Of use inside a header alone: it has the compiler look at the arguments of a format.
NO_NAMES = {"VORN_LOG_FORMAT"}
FAMILY_LINE = re.compile(r"This text is for .*", re.S)


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
            linked = link.exists() and link.read_text() == f".so man3/{own}\n"
            if linked != (name in names_linked(root)):
                yield f"{header}: " + (f"{name}.3 hides the page of another" if linked else f"no man page {name}.3")
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


def at_odds_with_c(told, man, html):
    """Records that a page heads as "struct NAME", where NAME is that of a typedef alone."""
    for header, root in told.items():
        names = headers_filter.typedef_only((headers_filter.HEADERS / header).read_text())
        for page in (man / f"{page_name(header)}.3", html / f"{root.get('id')}.html"):
            text = page.read_text() if page.exists() else ""
            plain = re.sub(r"<[^>]*>|&#160;|\\f.", " ", text)
            for name in sorted(names):
                if not re.search(rf"\b{name}\b", plain) or re.search(rf"(?<!typedef )\bstruct\s+{name}\b", plain):
                    yield f"{page.name}: {name} isn't headed as the typedef that it is"


def open_references():
    """A title that doesn't end on its line, which doxygen takes for text."""
    text = (pathlib.Path(__file__).parent / "pages.dox").read_text()
    for reference in re.findall(r'\\ref \S+ "[^"\n]*$', text, re.M):
        yield f"pages.dox: the title doesn't end on its line: {reference}"


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
    xml, man, html, warnings, listed = map(pathlib.Path, sys.argv[1:6])
    exports = {line for line in listed.read_text().split("\n") if re.match(r"[A-Za-z_]", line)}
    told = dict(headers(xml))
    lacks = [*filter(None, warnings.read_text().split("\n")), *open_references(), *not_met(told),
             *without_text(xml, told), *without_page(told, man), *at_odds_with_c(told, man, html),
             *unsaid(xml, told), *exports_at_odds(xml, told, exports)]
    for line in lacks:
        print(line)
    if not told or not exports:
        sys.exit("nothing to look at: no header has a page, or no name is exported")
    print(f"{len(told)} headers, {len(exports)} exported names, {len(lacks)} lacks")
    sys.exit(1 if lacks else 0)


if __name__ == "__main__":
    main()
