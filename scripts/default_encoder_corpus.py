#!/usr/bin/env python3
"""Assembles the training text of the built-in encoder from unpacked Debian packages.

    default_encoder_corpus.py ROOT CORPUS

ROOT holds the packages unpacked with dpkg-deb -x (one tree for all). Each source below names a
package, the files it contributes (glob patterns under ROOT) and a byte budget: when its files
hold more text than that, a fixed pseudo-random subset (files ordered by a hash of their path)
fills the budget, so one large package cannot crowd out the others. HTML loses its markup,
scripts, styles and navigation. The documents are written in hash order, so every stretch of
the corpus mixes all sources (the trainer spreads each batch over the whole file), each
followed by a blank line, as the application writes its corpora. A summary of bytes per
package goes to standard output.

Never add manual pages, Python's own sources or documentation, postgresql-doc-* or golang-*:
they are the held-out evaluation corpora.
"""
import glob
import hashlib
import html.parser
import os
import re
import sys

MB = 1000 * 1000
FILE_LIMIT = 400 * 1000  # bytes of text kept from one file

# (package, licence of the files used, patterns under ROOT, byte budget, excluded path parts)
SOURCES = [
    ("nodejs-doc", "Expat (MIT)", ["usr/share/doc/nodejs/api/*.html"], 14 * MB, []),
    ("rust-doc", "MIT or Apache-2.0",
     ["usr/share/doc/rust-doc/html/" + book + "/**/*.html"
      for book in ["book", "reference", "rust-by-example", "nomicon", "edition-guide",
                   "embedded-book", "rustc", "rustdoc", "unstable-book"]], 24 * MB, []),
    ("rust-doc (std API)", "MIT or Apache-2.0",
     ["usr/share/doc/rust-doc/html/std/**/*.html"], 8 * MB, ["/arch/", "/simd/"]),
    ("sqlite3-doc", "public domain", ["usr/share/doc/sqlite3/**/*.html"], 18 * MB, []),
    ("cmake-doc", "BSD-3-clause",
     ["usr/share/doc/cmake-data/html/_sources/**/*.txt"], 9 * MB, []),
    ("llvm-15-doc", "Apache-2.0 with LLVM exceptions",
     ["usr/share/doc/llvm-15-doc/html/_sources/**/*.txt"], 10 * MB, ["/AMDGPU/"]),
    ("erlang-doc", "Apache-2.0",
     ["usr/share/doc/erlang-doc/**/*.html"], 22 * MB, ["/wx-", "/jinterface-"]),
    ("rust-src", "MIT or Apache-2.0", ["usr/src/rustc-*/library/**/*.rs"], 24 * MB, []),
    ("libruby3.1", "Ruby or BSD-2-clause", ["usr/lib/ruby/3.1.0/**/*.rb"], 9 * MB, []),
    ("libboost1.74-dev", "BSL-1.0", ["usr/include/boost/**/*.hpp"], 22 * MB, []),
    ("libtcl8.6", "Tcl (BSD-style)", ["usr/share/tcltk/tcl8.6/**/*.tcl"], 2 * MB, []),
    ("nlohmann-json3-dev", "Expat (MIT)", ["usr/include/nlohmann/**/*.hpp"], 2 * MB, []),
    ("libsqlite3-dev", "public domain", ["usr/include/sqlite3*.h"], 1 * MB, []),
]

SKIP_TAGS = {"script", "style", "nav", "head", "noscript", "svg"}
BLOCK_TAGS = {"p", "div", "br", "li", "tr", "h1", "h2", "h3", "h4", "h5", "h6", "pre", "dt",
              "dd", "table", "section", "article", "blockquote", "ul", "ol", "hr", "td", "th"}


class TextOfHtml(html.parser.HTMLParser):
    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.parts = []
        self.skip = 0
        self.pre = 0

    def handle_starttag(self, tag, attrs):
        if tag in SKIP_TAGS:
            self.skip += 1
        elif tag == "pre":
            self.pre += 1
        if tag in BLOCK_TAGS and not self.skip:
            self.parts.append("\n\n" if tag not in ("br", "td", "th", "li") else "\n")

    def handle_endtag(self, tag):
        if tag in SKIP_TAGS:
            self.skip = max(0, self.skip - 1)
        elif tag == "pre":
            self.pre = max(0, self.pre - 1)
        if tag in BLOCK_TAGS and not self.skip:
            self.parts.append("\n\n")

    def handle_data(self, data):
        if self.skip:
            return
        self.parts.append(data if self.pre else re.sub(r"\s+", " ", data))


def html_text(raw):
    parser = TextOfHtml()
    parser.feed(raw)
    parser.close()
    return "".join(parser.parts)


def tidy(text):
    lines = [line.rstrip() for line in text.split("\n")]
    text = "\n".join(lines)
    text = re.sub(r"\n{3,}", "\n\n", text)
    return text.strip()


def path_hash(path):
    return hashlib.sha1(path.encode()).hexdigest()


def main():
    if len(sys.argv) != 3:
        sys.stderr.write("usage: default_encoder_corpus.py ROOT CORPUS\n")
        return 2
    root, corpus = sys.argv[1], sys.argv[2]
    documents = []  # (hash, text)
    summary = []
    for package, licence, patterns, budget, excluded in SOURCES:
        files = set()
        for pattern in patterns:
            for path in glob.glob(os.path.join(root, pattern), recursive=True):
                rel = os.path.relpath(path, root)
                if os.path.isfile(path) and not any(part in "/" + rel for part in excluded):
                    files.add(path)
        total = 0
        count = 0
        for path in sorted(files, key=lambda p: path_hash(os.path.relpath(p, root))):
            if total >= budget:
                break
            with open(path, "rb") as f:
                raw = f.read().decode("utf-8", errors="replace")
            text = tidy(html_text(raw) if path.endswith((".html", ".htm")) else raw)
            text = text[:FILE_LIMIT]
            if len(text) < 200:
                continue
            documents.append((path_hash(os.path.relpath(path, root)), text))
            total += len(text.encode())
            count += 1
        summary.append((package, licence, count, total))
    documents.sort()
    with open(corpus + ".tmp", "w", encoding="utf-8") as out:
        for _, text in documents:
            out.write(text)
            out.write("\n\n")
    os.replace(corpus + ".tmp", corpus)
    for package, licence, count, total in summary:
        print(f"{package}\t{licence}\t{count} files\t{total / MB:.1f} MB")
    return 0


if __name__ == "__main__":
    sys.exit(main())
