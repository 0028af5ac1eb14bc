"""Count the words of text files and print the most common ones."""

import collections
import re
import sys

WORD = re.compile(r"[A-Za-z']+")


def count_words(paths):
    """Return a Counter of lower-cased words over all files in paths."""
    counts = collections.Counter()
    for path in paths:
        with open(path, encoding="utf-8", errors="replace") as handle:
            for line in handle:
                counts.update(word.lower() for word in WORD.findall(line))
    return counts


def main(argv):
    if len(argv) < 2:
        print("usage: word_count.py FILE...", file=sys.stderr)
        return 2
    for word, n in count_words(argv[1:]).most_common(10):
        print(f"{n:6d}  {word}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
