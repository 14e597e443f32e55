#!/usr/bin/env python3
"""Quick check of one catalogue source, for translators.

usage: check_catalogue.py <code>

Reports what would keep this language from shipping: messages still
unfinished, translations whose markers differ from the source, English
translations that differ from their source, and translations equal to their
English source that the allow-list does not name. Exits 0 when the catalogue
is complete and clean. CTest runs it for every catalogue (label catalogues).
"""

import sys

import strtab_io


def main(argv):
    if len(argv) != 2 or argv[1] not in strtab_io.LANGUAGES:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    code = argv[1]
    texts = strtab_io.distinct_texts(strtab_io.load_table())
    messages = strtab_io.read_ts(strtab_io.ts_path(code))
    allowed = strtab_io.load_allowlist()
    problems = []
    if [m.source for m in messages] != texts:
        problems.append("the sources differ from the table; run update_ts.py")
    index = {text: i for i, text in enumerate(texts)}
    for m in messages:
        i = index.get(m.source, -1)
        if not m.finished or not m.translation:
            problems.append(f"{i}\tunfinished\t{m.source}")
        elif strtab_io.markers(m.translation) != strtab_io.markers(m.source):
            problems.append(f"{i}\tmarkers differ\t{m.source}\t{m.translation}")
        elif code == strtab_io.SOURCE_LANGUAGE and m.translation != m.source:
            problems.append(f"{i}\tEnglish differs from the source\t{m.source}\t{m.translation}")
        elif code != strtab_io.SOURCE_LANGUAGE and m.translation == m.source \
                and (code, m.source) not in allowed:
            problems.append(f"{i}\tsame as English\t{m.source}")
    for p in problems:
        print(p)
    print(f"{code}: {len(messages)} messages, {len(problems)} problems", file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
