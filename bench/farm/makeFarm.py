#!/usr/bin/env python3
"""Writes a farm of generated RSS feeds: COUNT feeds of 10 to 100 items (about 60 KiB on
average), deterministic for a given seed. With --change N, rewrites every N-th feed with
one new item at the top and the oldest item gone."""
import argparse
import os
import random

WORDS = ("channel update feed reader item news story report market weather sport science "
         "city council garden river mountain library museum music film book review travel "
         "kitchen recipe energy school health data network server client release version").split()


def sentence(rng, n):
    return " ".join(rng.choice(WORDS) for _ in range(n)).capitalize() + "."


def feed_text(index, generation):
    rng = random.Random(index * 7919 + 17)
    items = rng.randint(10, 100)
    words = rng.randint(100, 180)
    out = ['<?xml version="1.0" encoding="UTF-8"?>', '<rss version="2.0"><channel>',
           f"<title>Farm feed {index}</title>",
           f"<link>http://farm.example/{index}/</link>",
           f"<description>Generated feed number {index}</description>"]
    first = generation
    for n in range(first, first + items):
        body = " ".join(sentence(rng, 12) for _ in range(words // 12))
        out.append(f"<item><title>Story {n} of feed {index}</title>"
                   f"<link>http://farm.example/{index}/{n}</link>"
                   f"<guid>farm-{index}-{n}</guid>"
                   f"<pubDate>Mon, 23 Nov 2026 08:00:00 GMT</pubDate>"
                   f"<description>{body}</description></item>")
    out.append("</channel></rss>")
    return "\n".join(out)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("dir")
    parser.add_argument("--count", type=int, default=1000)
    parser.add_argument("--change", type=int, default=0,
                        help="rewrite every N-th feed with one new item")
    args = parser.parse_args()
    os.makedirs(args.dir, exist_ok=True)
    total = 0
    for i in range(args.count):
        if args.change and i % args.change != 0:
            continue
        text = feed_text(i, 1 if args.change else 0)
        with open(os.path.join(args.dir, f"feed{i}.xml"), "w") as f:
            f.write(text)
        total += len(text)
    print(f"wrote {total // 1024} KiB")


if __name__ == "__main__":
    main()
