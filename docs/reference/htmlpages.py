#!/usr/bin/env python3
"""Mends doxygen's HTML: htmlpages.py XML HTML.

A record that has its name from a typedef alone is headed "struct NAME" by doxygen, which no compiler takes. Where
another version of doxygen writes it in another way the pages stay as they are, and check.py says so.
"""

import pathlib
import re
import sys

import filter as headers_filter
from manpages import headers


def mended(text, name):
    text = re.sub(rf'(<td class="memname">)(?:struct|union) {name}(</td>)', rf"\1{name} (typedef)\2", text)
    return re.sub(rf'>(?:struct|union) (&#160;</td><td class="memItemRight"[^>]*><a [^>]*>{name}</a>)', r">typedef \1",
                  text)


def main():
    xml, html = map(pathlib.Path, sys.argv[1:3])
    for header, root in headers(xml):
        names = headers_filter.typedef_only((headers_filter.HEADERS / header).read_text())
        page = html / f"{root.get('id')}.html"
        if names and page.exists():
            text = page.read_text()
            for name in names:
                text = mended(text, name)
            page.write_text(text)


if __name__ == "__main__":
    main()
