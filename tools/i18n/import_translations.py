#!/usr/bin/env python3
"""Merges a translator's answer into the catalogue source of one language.

The answer holds lines "index<TAB>translation", index being the first column
of the work list written by export_worklist.py. Blank lines and lines that
start with "#" are skipped. Each line is checked before it is merged:

  - the index exists and is not given twice;
  - the translation is not empty, holds no tab or other control character
    and no blanks at either end that the English text does not have;
  - it carries exactly the markers of the English text: the argument markers
    %1, %2, ... that the program fills in, and the installer's [Markers] and
    {\\Font} tags, each as often as the English text has them.

Good lines become finished translations in <code>.ts; bad lines are reported
with their line number and left out, and the exit status is then 1.
A translation equal to its English text is merged with a warning unless the
pair is in untranslated-allowlist.tsv, because the catalogue check rejects it.

usage: import_translations.py <code> <file>
"""

import sys

import strtab_io


def parse_answer(lines, texts):
    """(accepted {index: translation}, problems [(lineno, message)])."""
    accepted = {}
    problems = []
    for lineno, raw in enumerate(lines, start=1):
        line = raw[:-1] if raw.endswith("\n") else raw
        if line.endswith("\r"):
            line = line[:-1]
        if lineno == 1 and line.startswith("\ufeff"):
            line = line[1:]
        if not line.strip() or line.startswith("#"):
            continue
        index_text, sep, translation = line.partition("\t")
        if not sep:
            problems.append((lineno, "expected index<TAB>translation"))
            continue
        if not index_text.isdigit() or int(index_text) >= len(texts):
            problems.append((lineno, f"index {index_text!r} is not between 0 and {len(texts) - 1}"))
            continue
        index = int(index_text)
        source = texts[index]
        error = check_translation(source, translation)
        if error:
            problems.append((lineno, f"index {index}: {error}"))
            continue
        if index in accepted:
            problems.append((lineno, f"index {index} is given twice"))
            continue
        accepted[index] = translation
    return accepted, problems


def check_translation(source, translation):
    if "\t" in translation:
        return "the translation holds a tab (one index<TAB>translation per line)"
    if not translation.strip():
        return "empty translation"
    if any(ord(c) < 0x20 or ord(c) == 0x7F for c in translation):
        return "the translation holds a control character"
    if translation[0].isspace() and not source[0].isspace():
        return "blank at the start of the translation"
    if translation[-1].isspace() and not source[-1].isspace():
        return "blank at the end of the translation"
    want = strtab_io.markers(source)
    have = strtab_io.markers(translation)
    if want != have:
        missing = sorted((want - have).elements())
        extra = sorted((have - want).elements())
        parts = []
        if missing:
            parts.append("missing " + " ".join(missing))
        if extra:
            parts.append("unexpected " + " ".join(extra))
        return "markers differ from the English text: " + ", ".join(parts)
    return None


def main(argv):
    if len(argv) != 3:
        print(__doc__.strip().splitlines()[-1], file=sys.stderr)
        return 2
    code, answer = argv[1], argv[2]
    if code not in strtab_io.LANGUAGES:
        print(f"import_translations: unknown catalogue {code!r}", file=sys.stderr)
        return 2
    if code == strtab_io.SOURCE_LANGUAGE:
        print("import_translations: the English catalogue is made from the table itself",
              file=sys.stderr)
        return 2
    try:
        texts = strtab_io.distinct_texts(strtab_io.load_table())
        with open(answer, encoding="utf-8", newline="") as f:
            lines = f.read().split("\n")
        if lines and lines[-1] == "":
            lines.pop()
        accepted, problems = parse_answer(lines, texts)
        allowed = strtab_io.load_allowlist()
        path = strtab_io.ts_path(code)
        translations = strtab_io.existing_translations(path)
        for index, translation in sorted(accepted.items()):
            source = texts[index]
            if translation == source and (code, source) not in allowed:
                print(f"import_translations: warning: index {index} is left in English; add "
                      f"'{code}<TAB>{source}' to untranslated-allowlist.tsv if that is intended",
                      file=sys.stderr)
            translations[source] = (translation, True)
        strtab_io.write_ts(path, code, texts, translations)
    except (OSError, UnicodeDecodeError, strtab_io.TableError) as e:
        print(f"import_translations: {e}", file=sys.stderr)
        return 1
    for lineno, message in problems:
        print(f"{answer}:{lineno}: refused: {message}", file=sys.stderr)
    done = sum(1 for t in texts if translations.get(t, ("", False))[1])
    print(f"{code}.ts: merged {len(accepted)} translations, refused {len(problems)} lines; "
          f"{done} of {len(texts)} texts translated")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
