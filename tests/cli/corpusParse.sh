#!/usr/bin/env bash
# Checks that pelsu-cli parse gives, for every document of the feed corpus, exactly the output
# (channel text, error message and exit status) recorded in corpusParse.sha256.
# Usage: corpusParse.sh PELSU_CLI CORPUS_DIR [--record]
set -uo pipefail
cli="$(realpath "$1")"
corpus="$2"
expected="$(dirname "$0")/corpusParse.sha256"
if [[ ! -d "$corpus" ]]; then
    echo "no feed corpus at $corpus: nothing to compare"
    exit 77
fi
actual="$(mktemp)"
trap 'rm -f "$actual"' EXIT
(
    cd "$corpus" || exit 1
    find . -type f ! -name MANIFEST.tsv -print0 | LC_ALL=C sort -z |
        while IFS= read -r -d '' file; do
            digest="$({ "$cli" parse "$file" 2>&1; echo "exit $?"; } | sha256sum)"
            printf '%s %s\n' "${digest%% *}" "${file#./}"
        done
) > "$actual"
if [[ "${3:-}" == "--record" ]]; then
    cp "$actual" "$expected"
    echo "recorded $(wc -l < "$expected") documents"
    exit 0
fi
if ! diff -u "$expected" "$actual" > /dev/null; then
    echo "documents whose parse output changed (expected, then actual digest):"
    diff "$expected" "$actual" | grep '^[<>]' | head -40
    exit 1
fi
echo "$(wc -l < "$actual") documents parse exactly as recorded"
