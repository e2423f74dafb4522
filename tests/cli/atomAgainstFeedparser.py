#!/usr/bin/python3
"""Reads every Atom document of the feed corpus with pelsu-cli parse --atom and with Debian's
python3-feedparser, and compares each entry's id, title and link. Lists every disagreement;
passes when each one is in a document whose difference is known (KNOWN, with its reason) and
at least 95 % of the Atom 1.0 entries agree. The entries of Atom 0.3 documents (the draft
before the standard, which the engine also reads) are counted apart.

Usage: atomAgainstFeedparser.py PELSU_CLI CORPUS_DIR [--verbose]
Exit 77 (skipped) without python3-feedparser or without the corpus."""

import html
import os
import re
import subprocess
import sys

try:
    import feedparser
except ImportError:
    print("python3-feedparser is not installed: nothing to compare")
    sys.exit(77)

# The documents have no address of their own: both readers resolve links against xml:base only.


# Documents where the two readers differ on purpose, and why.
KNOWN = {
    "rbren-rss-parser/reddit-home.rss":
        "the reference resolves the entries' ids (t3_42tizy) as relative links, against an "
        "xml:base left over from the content before them; an id is not a link",
    "rome/data__atom_0.3_DC_Sy.xml":
        "the only alternate link has a placeholder type; the reference then takes the id as the "
        "link, the engine the alternate link",
    "rome/resources__atom_0.3.xml":
        "the only alternate link has a placeholder type; the reference then takes the id as the "
        "link, the engine the alternate link",
    "feedparser/atom10__entry_link_rel_enclosure_no_href.xml":
        "the reference takes an enclosure's text as the link (the document expects the "
        "alternate link, as the engine has it)",
    "prof18-rss-parser/atom-link-alternate-href.xml":
        "the reference takes an enclosure's text as the link",
    "feedparser/sanitize__entry_title_crazy.xml":
        "the reference cleans scripts out of HTML titles; the engine keeps titles as written",
}


def latin1(text):
    """The text as the engine keeps it: one "?" for every UTF-16 unit outside Latin-1."""
    out = []
    for c in text:
        out.append(c if ord(c) < 256 else "?" * (2 if ord(c) > 0xFFFF else 1))
    return "".join(out)


def comparable(text):
    """Titles compare as text: mark-up dropped, entities decoded, white space collapsed."""
    text = re.sub(r"<[^>]*>", " ", text or "")
    text = html.unescape(html.unescape(text))
    return " ".join(text.split())


def unescape_value(value):
    return re.sub(rb"%([0-9A-Fa-f]{2})", lambda m: bytes([int(m.group(1), 16)]), value)


def pelsu_items(cli, path, name):
    """The items pelsu-cli makes of the document, or the error it gives."""
    run = subprocess.run([cli, "parse", path, "--atom", "--convert-encodings", "--allow-empty",
                          "--address", ""], capture_output=True)
    if run.returncode != 0:
        return None, run.stderr.decode("latin-1").strip()
    items = []
    for line in run.stdout.split(b"\n"):
        if line.startswith(b"[Last Feed ("):
            items.append({})
        elif items and b"=" in line:
            key, value = line.split(b"=", 1)
            items[-1][key.decode()] = unescape_value(value).decode("latin-1").strip()
    return items, ""


def reference_items(path, name):
    """The reference's entries, and whether the document is Atom 0.3."""
    with open(path, "rb") as f:
        data = f.read()
    parsed = feedparser.parse(data)
    items = []
    for entry in parsed.entries:
        link = entry.get("link", "")
        items.append({"Id": entry.get("id") or link, "Title": entry.get("title", ""), "Url": link})
    return items, parsed.get("version") == "atom03"


def compare(ours, theirs):
    """The fields that differ, as text. An entry without a title of its own has nothing to
    compare there: the engine makes one from the description or the link."""
    problems = []
    for key in ("Id", "Url"):
        if ours.get(key, "") != latin1(theirs[key]):
            problems.append(f"{key}: {ours.get(key, '')!r} vs {latin1(theirs[key])!r}")
    title = comparable(latin1(theirs["Title"]))
    if title and comparable(ours.get("Title", "")) != title:
        problems.append(f"Title: {ours.get('Title', '')!r} vs {theirs['Title']!r}")
    return problems


def atom_documents(corpus):
    with open(os.path.join(corpus, "MANIFEST.tsv"), encoding="utf-8") as manifest:
        for row in manifest.read().splitlines()[1:]:
            fields = row.split("\t")
            if fields[4] == "atom":
                yield fields[0]


def main():
    if len(sys.argv) < 3 or not os.path.isdir(sys.argv[2]):
        print("no feed corpus: nothing to compare")
        return 77
    cli, corpus = os.path.realpath(sys.argv[1]), sys.argv[2]
    total = {False: 0, True: 0}  # by whether the document is Atom 0.3
    agreed = {False: 0, True: 0}
    made_titles = 0
    unexplained = set()
    for name in atom_documents(corpus):
        path = os.path.join(corpus, name)
        theirs, draft = reference_items(path, name)
        ours, error = pelsu_items(cli, path, name)
        problems = []
        for index, reference in enumerate(theirs):
            total[draft] += 1
            if ours is None:
                problems.append(f"#{index + 1}: pelsu-cli fails: {error}")
            elif index >= len(ours):
                problems.append(f"#{index + 1}: missing from pelsu-cli's items")
            elif differences := compare(ours[index], reference):
                problems.append(f"#{index + 1}: " + "; ".join(differences))
            else:
                agreed[draft] += 1
                made_titles += 0 if comparable(reference["Title"]) else 1
        if ours is not None and len(ours) > len(theirs):
            problems.append(f"pelsu-cli has {len(ours) - len(theirs)} more items")
        for problem in problems:
            print(f"{name} {problem}")
        if problems:
            print(f"  known: {KNOWN[name]}" if name in KNOWN else "  NOT EXPLAINED")
            if name not in KNOWN:
                unexplained.add(name)
    def share(agree, of):
        return 100.0 * agree / of if of else 100.0

    print(f"{agreed[False]} of {total[False]} Atom 1.0 entries agree "
          f"({share(agreed[False], total[False]):.1f} %); Atom 0.3: {agreed[True]} of "
          f"{total[True]}; all: {agreed[False] + agreed[True]} of {total[False] + total[True]} "
          f"({share(agreed[False] + agreed[True], total[False] + total[True]):.1f} %)")
    print(f"{made_titles} of the entries that agree have no title of their own, and the engine "
          "made one")
    if unexplained:
        print("disagreements without a known reason in: " + ", ".join(sorted(unexplained)))
    return 0 if share(agreed[False], total[False]) >= 95.0 and not unexplained else 1


if __name__ == "__main__":
    sys.exit(main())
