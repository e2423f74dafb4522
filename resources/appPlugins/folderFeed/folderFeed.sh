#!/bin/sh
# A channel plugin: prints an RSS feed whose items are the newest files of a folder.
# The program passes the path of its configuration file as the last argument.
for last; do :; done
config="$last"
value() { sed -n "s/^$1=//p" "$config" | head -n 1 | sed 's/%20/ /g; s/%25/%/g'; }
folder="$(value Folder)"
max="$(value MaxItems)"
[ -n "$folder" ] || folder=.
[ -n "$max" ] || max=20
escape() { sed 's/&/\&amp;/g; s/</\&lt;/g; s/>/\&gt;/g'; }
echo '<?xml version="1.0" encoding="UTF-8"?>'
echo '<rss version="2.0"><channel>'
echo "<title>Files in $(printf '%s' "$folder" | escape)</title>"
echo "<link>file://$(printf '%s' "$folder" | escape)</link>"
echo "<description>The newest files of a folder.</description>"
ls -t "$folder" 2>/dev/null | head -n "$max" | while IFS= read -r name; do
    path="$folder/$name"
    [ -f "$path" ] || continue
    stamp="$(date -r "$path" -R)"
    echo "<item><title>$(printf '%s' "$name" | escape)</title>"
    echo "<guid>$(printf '%s' "$path" | escape)@$(date -r "$path" +%s)</guid>"
    echo "<link>file://$(printf '%s' "$path" | escape)</link>"
    echo "<pubDate>$stamp</pubDate></item>"
done
echo '</channel></rss>'
