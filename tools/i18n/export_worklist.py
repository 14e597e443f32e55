#!/usr/bin/env python3
"""Writes the work list of one language for its translator.

One line per distinct English text:
    index<TAB>keys<TAB>English text
where index is the text's position among the distinct texts of the table
(the order of the catalogue), and keys lists every key that shows the text,
so the translator sees where it appears. The texts of the updater program
come first. The translator answers with lines "index<TAB>translation", which
import_translations.py merges into <code>.ts.

usage: export_worklist.py <code> [-o FILE] [--missing]
  --missing   list only the texts that have no finished translation yet
"""

import argparse
import sys

import strtab_io


def worklist(rows, translations=None):
    """Lines of the work list; with translations, only the missing texts."""
    texts = strtab_io.distinct_texts(rows)
    keys = strtab_io.keys_by_text(rows)
    index = {t: i for i, t in enumerate(texts)}
    first = []
    for id_ in strtab_io.UPDATER_IDS:
        i = index[rows[id_].text]
        if i not in first:
            first.append(i)
    order = first + [i for i in range(len(texts)) if i not in first]
    lines = []
    for i in order:
        text = texts[i]
        if translations is not None and translations.get(text, ("", False))[1]:
            continue
        lines.append(f"{i}\t{','.join(keys[text])}\t{text}")
    return lines


def main(argv):
    parser = argparse.ArgumentParser(description="Write a translator work list.")
    parser.add_argument("code", choices=strtab_io.LANGUAGES)
    parser.add_argument("-o", "--output")
    parser.add_argument("--missing", action="store_true",
                        help="only texts without a finished translation")
    args = parser.parse_args(argv[1:])
    try:
        rows = strtab_io.load_table()
        translations = None
        if args.missing:
            translations = strtab_io.existing_translations(strtab_io.ts_path(args.code))
        data = "".join(line + "\n" for line in worklist(rows, translations))
    except (OSError, strtab_io.TableError) as e:
        print(f"export_worklist: {e}", file=sys.stderr)
        return 1
    if args.output:
        with open(args.output, "w", encoding="utf-8", newline="\n") as f:
            f.write(data)
    else:
        sys.stdout.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
