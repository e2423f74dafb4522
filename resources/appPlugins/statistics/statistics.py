#!/usr/bin/env python3
"""Channel statistics: an app plugin. The program runs it with the path of a configuration
file (INI, values percent-escaped); the page goes to standard output."""
import configparser
import html
import os
import sys
import time
import urllib.parse


def read_ini(path):
    parser = configparser.RawConfigParser(strict=False, interpolation=None)
    parser.optionxform = str
    with open(path, encoding="latin-1") as f:
        parser.read_file(f)
    return {s: {k: urllib.parse.unquote(v, encoding="latin-1") for k, v in parser.items(s)}
            for s in parser.sections()}


def channel_rows(channels_dir, limit, show_empty):
    rows = []
    for name in sorted(os.listdir(channels_dir)):
        if not name.endswith((".rss", ".plugin")):
            continue
        try:
            data = read_ini(os.path.join(channels_dir, name))
        except (OSError, configparser.Error):
            continue
        items = 0
        while "Last Feed (%d)" % (items + 1) in data:
            items += 1
        if items == 0 and not show_empty:
            continue
        feed = data.get("Last Feed", {})
        title = (data.get("Config", {}).get("PreferredChannelDisplayName")
                 or feed.get("ChannelDisplayName") or name.rsplit(".", 1)[0])
        fetched = int(data.get("State", {}).get("LastFetchTime", "0") or 0)
        rows.append((title, items, fetched))
    return rows[:limit]


def main():
    config = read_ini(sys.argv[-1])
    system = config.get("System", {})
    params = config.get("PluginParameters", {})
    rows = channel_rows(system.get("ChannelsDir", "."), int(params.get("MaxChannels", "50")),
                        params.get("ShowEmpty", "1") != "0")
    title = html.escape(params.get("Title", "My channels"))
    out = ["<html><head><meta charset='ISO-8859-1'><title>%s</title></head><body>" % title,
           "<h1>%s</h1>" % title]
    if system.get("Command") == "ProcessRequest":
        out.append("<p>Request: %s</p>" % html.escape(system.get("PluginRequest", "")))
    out.append("<p>%d channel(s), %d item(s) in all.</p>" % (len(rows), sum(r[1] for r in rows)))
    out.append("<table><tr><th>Channel</th><th>Items</th><th>Last fetch</th></tr>")
    for title_, items, fetched in rows:
        when = time.strftime("%Y-%m-%d %H:%M", time.localtime(fetched)) if fetched else "never"
        out.append("<tr><td>%s</td><td>%d</td><td>%s</td></tr>" % (html.escape(title_), items, when))
    out.append("</table></body></html>")
    sys.stdout.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main()
