#!/usr/bin/env python3
"""Assembles the training text of the built-in encoder from unpacked Debian packages.

    default_encoder_corpus.py ROOT CORPUS [PAIRS]

ROOT holds the packages unpacked with dpkg-deb -x (one tree for all). Each source below names a
package, the files it contributes (glob patterns under ROOT) and a byte budget: when its files
hold more text than that, a fixed pseudo-random subset (files ordered by a hash of their path)
fills the budget, so one large package cannot crowd out the others. HTML loses its markup,
scripts, styles and navigation. The documents are written in hash order, so every stretch of
the corpus mixes all sources (the trainer spreads each batch over the whole file), each
followed by a blank line, as the application writes its corpora. A summary of bytes per
package goes to standard output.

PAIRS, when given, receives the pairs of texts that the same documents hold, for the trainer's
--pairs: a doc comment's first sentence and the code it documents (the Rust, Ruby and C++
sources), a heading and the section under it (HTML and reStructuredText), and a WordNet word
and its gloss with the other words of its sense. The second text of a pair never holds the
first. Each pair is written as FIRST, a unit separator (0x1f), SECOND, a record separator (0x1e).

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


HEADING_TAGS = {"h1", "h2", "h3", "h4"}


class TextOfHtml(html.parser.HTMLParser):
    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.parts = []
        self.skip = 0
        self.pre = 0
        self.headings = []  # (first part, part after the heading) of each h1 to h4

    def handle_starttag(self, tag, attrs):
        if tag in SKIP_TAGS:
            self.skip += 1
        elif tag == "pre":
            self.pre += 1
        if tag in BLOCK_TAGS and not self.skip:
            self.parts.append("\n\n" if tag not in ("br", "td", "th", "li") else "\n")
        if tag in HEADING_TAGS and not self.skip:
            self.headings.append([len(self.parts), None])

    def handle_endtag(self, tag):
        if tag in SKIP_TAGS:
            self.skip = max(0, self.skip - 1)
        elif tag == "pre":
            self.pre = max(0, self.pre - 1)
        if tag in HEADING_TAGS and self.headings and self.headings[-1][1] is None:
            self.headings[-1][1] = len(self.parts)
        if tag in BLOCK_TAGS and not self.skip:
            self.parts.append("\n\n")

    def handle_data(self, data):
        if self.skip:
            return
        self.parts.append(data if self.pre else re.sub(r"\s+", " ", data))


def html_text(raw, sections=None):
    """The page's text; with sections, also appends (heading, text under it) for each heading."""
    parser = TextOfHtml()
    parser.feed(raw)
    parser.close()
    if sections is not None:
        spans = [h for h in parser.headings if h[1] is not None]
        for k, (start, end) in enumerate(spans):
            stop = spans[k + 1][0] if k + 1 < len(spans) else len(parser.parts)
            sections.append(("".join(parser.parts[start:end]), "".join(parser.parts[end:stop])))
    return "".join(parser.parts)


PAIR_TEXT = 800  # bytes of the second text of a pair: one chunk, as the engine cuts them
PAIR_SEP, RECORD_SEP = "\x1f", "\x1e"
WORDNET_PAIRS = 60000  # WordNet senses used, a fixed pseudo-random subset


def clip(text, limit):
    data = text.encode()[:limit]
    return data.decode("utf-8", errors="ignore")


def clean_heading(heading):
    heading = re.sub(r"[\u00a7\u00b6#]", " ", heading)  # section and anchor marks
    heading = re.sub(r"^\s*((Chapter|Appendix|Part)\s+)?[0-9A-Z]{0,3}(\.[0-9]+)*\.?\s+", "",
                     heading.strip())
    return " ".join(heading.split())


def section_pairs(sections):
    """(heading, section) pairs of two to twelve words and a section of 100 bytes or more."""
    pairs = []
    for heading, body in sections:
        heading = clean_heading(heading)
        body = tidy(body)
        if 2 <= len(heading.split()) <= 12 and len(body) >= 100:
            pairs.append((heading, clip(body, PAIR_TEXT)))
    return pairs


RST_UNDERLINE = re.compile(r"^([=\-~^*#+\"'`])\1{2,}\s*$")


def rst_sections(text):
    lines = text.split("\n")
    marks = [i for i in range(1, len(lines))
             if RST_UNDERLINE.match(lines[i]) and lines[i - 1].strip()
             and not RST_UNDERLINE.match(lines[i - 1])]
    sections = []
    for k, i in enumerate(marks):
        stop = marks[k + 1] - 1 if k + 1 < len(marks) else len(lines)
        body = [line for line in lines[i + 1:stop] if not RST_UNDERLINE.match(line)]
        sections.append((lines[i - 1], "\n".join(body)))
    return sections


# Doc comments: the comment line's text, and the lines that can be what a comment documents.
DOC_STYLES = {
    ".rs": (re.compile(r"^\s*///(?!/)\s?(.*)$"), re.compile(r"^\s*#!?\["),
            re.compile(r"^\s*(pub(\([\w ]+\))?\s+)?((const|unsafe|async|extern(\s+\"\w+\")?|default)"
                       r"\s+)*(fn|struct|enum|trait|type|const|static|union|mod|macro_rules!)\b")),
    ".rb": (re.compile(r"^\s*#(?![!{#])\s?(.*)$"), None,
            re.compile(r"^\s*(def|class|module|attr_\w+)\s")),
    ".hpp": (re.compile(r"^\s*(?:///|//!|/\*\*|/\*!|\*(?!/))\s?(.*?)\s*(?:\*/)?\s*$"),
             re.compile(r"^\s*(template\s*<|BOOST_\w+\s*$)"),
             re.compile(r"^\s*[A-Za-z_][\w:<>,\s*&~]*[\w>*&]\s*[(;{]|^\s*(class|struct|enum|using|typedef)\s")),
}
DOC_STYLES[".h"] = DOC_STYLES[".hpp"]


def first_sentence(comment_lines):
    words = []
    for line in comment_lines:
        line = line.strip()
        if not line or line.startswith(("@", "\\", "#", "```", "-", "*", "|", "<")):
            if words:
                break
            continue
        line = re.sub(r"^(@|\\)brief\s+", "", line)
        words.extend(line.split())
        if re.search(r"[.!?](\s|$)", line):
            break
    text = " ".join(words)
    stop = re.search(r"[.!?](\s|$)", text)
    text = text[:stop.start()] if stop else text
    text = re.sub(r"[`\[\]]|\(\w+(::\w+)*\)", "", text)  # code marks and link targets
    return " ".join(text.split())


def doc_comment_pairs(path, text):
    """(first sentence of a doc comment, the code from the line it documents) pairs."""
    style = DOC_STYLES.get(os.path.splitext(path)[1])
    if not style:
        return []
    comment, between, decl = style
    lines = text.split("\n")
    pairs = []
    for i, line in enumerate(lines):
        if comment.match(line) or not decl.match(line):
            continue
        j = i - 1
        while j >= 0 and between and between.match(lines[j]):
            j -= 1
        block = []
        while j >= 0 and comment.match(lines[j]):
            block.insert(0, comment.match(lines[j]).group(1))
            j -= 1
        sentence = first_sentence(block)
        if 4 <= len(sentence.split()) <= 40:
            pairs.append((sentence, clip("\n".join(lines[i:i + 40]), PAIR_TEXT)))
    return pairs


def wordnet_pairs(root):
    """(word, its other words and gloss) for a fixed subset of the senses of plain lower-case
    words (names, phrases and Latin binomials left out)."""
    pairs = []
    for part in ("noun", "verb", "adj", "adv"):
        path = os.path.join(root, "usr/share/wordnet/data." + part)
        if not os.path.exists(path):
            continue
        with open(path, encoding="utf-8", errors="replace") as f:
            for line in f:
                if line.startswith("  ") or " | " not in line:
                    continue
                fields, gloss = line.split(" | ", 1)
                fields = fields.split(" ")
                count = int(fields[3], 16)
                words = [re.sub(r"\(\w+\)$", "", w).replace("_", " ")
                         for w in fields[4:4 + 2 * count:2]]
                for word in words:
                    if not re.fullmatch(r"[a-z]+", word):
                        continue
                    others = [w for w in words if w.lower() != word.lower()]
                    text = (", ".join(others) + ": " if others else "") + gloss.strip()
                    if word.lower() not in text.lower():
                        pairs.append((word, text))
    pairs.sort(key=lambda p: path_hash(p[0] + PAIR_SEP + p[1]))
    return pairs[:WORDNET_PAIRS]


def tidy(text):
    lines = [line.rstrip() for line in text.split("\n")]
    text = "\n".join(lines)
    text = re.sub(r"\n{3,}", "\n\n", text)
    return text.strip()


def path_hash(path):
    return hashlib.sha1(path.encode()).hexdigest()


def main():
    if len(sys.argv) not in (3, 4):
        sys.stderr.write("usage: default_encoder_corpus.py ROOT CORPUS [PAIRS]\n")
        return 2
    root, corpus = sys.argv[1], sys.argv[2]
    pairs_path = sys.argv[3] if len(sys.argv) == 4 else None
    documents = []  # (hash, text)
    pairs = {"doc comment": [], "heading": [], "WordNet": []}
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
            sections = []
            is_html = path.endswith((".html", ".htm"))
            text = tidy(html_text(raw, sections) if is_html else raw)
            text = text[:FILE_LIMIT]
            if len(text) < 200:
                continue
            if pairs_path:
                if path.endswith(".txt"):
                    sections = rst_sections(text)
                pairs["heading"] += section_pairs(sections)
                pairs["doc comment"] += doc_comment_pairs(path, text)
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
    if pairs_path:
        pairs["WordNet"] = wordnet_pairs(root)
        every = []
        for kind, found in pairs.items():
            found = [(a, b) for a, b in found
                     if a.lower() not in b.lower() and PAIR_SEP not in a + b
                     and RECORD_SEP not in a + b]
            print(f"pairs\t{kind}\t{len(found)}")
            every += found
        every.sort(key=lambda p: path_hash(p[0] + PAIR_SEP + p[1]))
        with open(pairs_path + ".tmp", "w", encoding="utf-8") as out:
            for a, b in every:
                out.write(a + PAIR_SEP + b + RECORD_SEP)
        os.replace(pairs_path + ".tmp", pairs_path)
    return 0


if __name__ == "__main__":
    sys.exit(main())
