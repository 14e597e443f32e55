#!/usr/bin/env python3
"""Checks the UI string table (strtab.tsv) before it reaches the build.

The ids, the keys and the set of English texts are an interface: callers
pass fixed ids, other programs of the client family look texts up by key,
and every distinct English text is one message of every translation
catalogue. This checker refuses a table that would break any of them and
prints the number of keys per topic prefix.

usage: check_strtab.py [strtab.tsv]    (exit status 0 when clean)
"""

import collections
import re
import sys

import strtab_io

FIXED_ROWS = {
    0: ("open_folder", "Open Folder"),
    1: ("msi_welcome_dlg_subtitle", None),
    3: ("auto_setup_failed_msg", None),
    14: ("tray_exit", "Exit"),
    79: ("btn_cancel", "Cancel"),
    345: ("msg_download_done", "Completed"),
    365: ("app_name", "Quillon"),
    432: ("tray_upgrade", "Upgrade"),
    539: ("tray_updating", "Updating..."),
    672: ("msg_download_downloading", "Downloading"),
    685: ("tray_click_to_update", "A new version of Quillon is available. Click here to update."),
}

# Keys per topic prefix. Prefixes not named here form the long tail of small
# groups, each smaller than the smallest named one.
PREFIX_COUNTS = {
    "msi": 80, "err": 63, "wizard": 59, "msg": 50, "accessible": 40, "tray": 38,
    "manage": 36, "history": 28, "title": 24, "btn": 17, "perm": 15, "status": 14,
    "tutorial": 14, "notification": 14, "month": 12, "desc": 10, "col": 9,
}
INSTALLER_PREFIX = "NSIS"
INSTALLER_KEYS_RANGE = (5, 10)

DISTINCT_TEXTS = 651
TEXTS_WITH_ARG = 76

# Size of the English catalogue that lrelease makes from the table: the
# 16-byte magic, two section headers of 5 bytes, and per message 8 bytes of
# hash index plus 27 bytes of tags and lengths, the translation in UTF-16
# and the source in UTF-8. The embedded enu.qm is expected at this size.
ENU_QM_BYTES = 100291

LOWER_KEY_RE = re.compile(r"^[a-z][a-z0-9]*(_[a-z0-9]+)+$")
INSTALLER_KEY_RE = re.compile(r"^NSIS(_[A-Z0-9]+)+$")


def enu_qm_size(texts):
    size = 16 + 2 * 5
    for text in texts:
        size += 8 + 27 + len(text.encode("utf-16-le")) + len(text.encode("utf-8"))
    return size


def check(rows):
    problems = []

    def bad(row, what):
        problems.append(f"id {row.id} ({row.key}): {what}")

    for id_, (key, text) in FIXED_ROWS.items():
        row = rows[id_]
        if row.key != key:
            bad(row, f"key must be {key!r}")
        if text is not None and row.text != text:
            bad(row, f"text must be {text!r}")

    seen_keys = {}
    for row in rows:
        if not (LOWER_KEY_RE.match(row.key) or INSTALLER_KEY_RE.match(row.key)):
            bad(row, "key is not ASCII snake case (lower case, or NSIS_ in capitals)")
        folded = row.key.lower()
        if folded in seen_keys:
            bad(row, f"key equals the key of id {seen_keys[folded]} when case is ignored")
        seen_keys.setdefault(folded, row.id)

    for row in rows:
        t = row.text
        if not t:
            bad(row, "empty text")
            continue
        if any(ord(c) < 0x20 or ord(c) == 0x7F for c in t):
            bad(row, "text holds a control character (tab, line break, ...)")
        if t != t.strip() or "  " in t:
            bad(row, "text has leading, trailing or doubled blanks")
        # StrTable::LoadStr turns backslash-n and backslash-t into a line
        # break and a tab; an English text must not trigger that by accident.
        if "\\n" in t or "\\t" in t:
            bad(row, "text holds a backslash escape")
        without_tags = strtab_io.FONT_TAG_RE.sub("", t)
        if "\\" in without_tags:
            bad(row, "backslash outside an installer font tag")
        numbers = strtab_io.placeholder_numbers(t)
        if numbers and numbers != list(range(1, len(numbers) + 1)):
            bad(row, f"argument markers {numbers} are not numbered from %1 without gaps")
        if (strtab_io.INSTALLER_MARKER_RE.search(t) or strtab_io.FONT_TAG_RE.search(t)) \
                and not row.key.startswith("msi_"):
            bad(row, "installer markers belong to MSI texts only")

    texts = strtab_io.distinct_texts(rows)
    if len(texts) != DISTINCT_TEXTS:
        problems.append(f"{len(texts)} distinct texts, expected {DISTINCT_TEXTS}")
    ids_by_text = collections.defaultdict(list)
    for row in rows:
        ids_by_text[row.text].append(row.id)
    with_arg = [t for t in texts if "%1" in t]
    if len(with_arg) != TEXTS_WITH_ARG:
        problems.append(f"{len(with_arg)} distinct texts hold %1, expected {TEXTS_WITH_ARG}")
    for t in with_arg:
        if len(ids_by_text[t]) > 1:
            problems.append(f"text with %1 shared by ids {ids_by_text[t]}: {t!r}")

    counts = collections.Counter(row.key.split("_", 1)[0] for row in rows)
    for prefix, expected in PREFIX_COUNTS.items():
        if counts[prefix] != expected:
            problems.append(f"prefix {prefix!r}: {counts[prefix]} keys, expected {expected}")
    smallest = min(PREFIX_COUNTS.values())
    for prefix, n in counts.items():
        if prefix not in PREFIX_COUNTS and n >= smallest:
            problems.append(f"prefix {prefix!r}: {n} keys, a tail group must stay below {smallest}")
    lo, hi = INSTALLER_KEYS_RANGE
    if not lo <= counts[INSTALLER_PREFIX] <= hi:
        problems.append(f"{counts[INSTALLER_PREFIX]} {INSTALLER_PREFIX} keys, expected {lo} to {hi}")

    size = enu_qm_size(texts)
    if size != ENU_QM_BYTES:
        problems.append(f"the English catalogue would be {size} bytes, expected {ENU_QM_BYTES}")
    return problems, counts, texts, with_arg, size


def main(argv):
    path = argv[1] if len(argv) > 1 else strtab_io.TABLE_PATH
    try:
        rows = strtab_io.load_table(path)
    except (OSError, strtab_io.TableError) as e:
        print(f"check_strtab: {e}", file=sys.stderr)
        return 1
    problems, counts, texts, with_arg, size = check(rows)
    print(f"{len(rows)} ids, {len(texts)} distinct texts, {len(with_arg)} with %1, "
          f"English catalogue {size} bytes")
    print("keys per prefix:")
    for prefix, n in sorted(counts.items(), key=lambda kv: (-kv[1], kv[0])):
        print(f"  {prefix:<14}{n:>4}")
    for p in problems:
        print(f"check_strtab: {p}", file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
