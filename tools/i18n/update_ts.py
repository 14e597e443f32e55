#!/usr/bin/env python3
"""(Re)writes the translation catalogue sources from the string table.

One <code>.ts per language in ui-client/autoupdater/texts/, with one message
per distinct English text of strtab.tsv, in the order of the text's first id,
all in the context "global". Translations already in a file are kept for the
texts that are still in the table; new texts come in empty and unfinished.
The English catalogue always translates every text as itself.

usage: update_ts.py [code ...]      (default: all 20 catalogues)
"""

import sys

import strtab_io


def update(code, texts, texts_dir=strtab_io.TEXTS_DIR):
    """Rewrites <code>.ts; returns (texts translated, sources dropped)."""
    path = strtab_io.ts_path(code, texts_dir)
    old = strtab_io.existing_translations(path)
    current = set(texts)
    dropped = [src for src in old if src not in current]
    strtab_io.write_ts(path, code, texts, old)
    if code == strtab_io.SOURCE_LANGUAGE:
        kept = len(texts)
    else:
        kept = sum(1 for t in texts if t in old and old[t][1])
    return kept, dropped


def main(argv):
    codes = argv[1:] or strtab_io.LANGUAGES
    unknown = [c for c in codes if c not in strtab_io.LANGUAGES]
    if unknown:
        print(f"update_ts: unknown catalogue {', '.join(unknown)}; "
              f"expected one of {' '.join(strtab_io.LANGUAGES)}", file=sys.stderr)
        return 2
    try:
        texts = strtab_io.distinct_texts(strtab_io.load_table())
        for code in codes:
            kept, dropped = update(code, texts)
            print(f"{code}.ts: {len(texts)} messages, {kept} translated")
            for src in dropped:
                print(f"{code}.ts: dropped the translation of a text no longer in the table: {src!r}",
                      file=sys.stderr)
    except (OSError, strtab_io.TableError) as e:
        print(f"update_ts: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
