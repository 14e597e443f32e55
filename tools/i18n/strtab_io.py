"""Reading and writing the UI string table and its translation catalogues.

The string table (ui-client/autoupdater/texts/strtab.tsv) is the one place
where the numbered UI texts of the client family are edited: a header line
"id<TAB>key<TAB>text", then one row per id, in id order. Every English text
is also the source text of the Qt catalogues <code>.ts, in the single context
"global"; ids that share an English text share one catalogue message.

Shared by the checker, the catalogue writer, the translator tools and the
generator of the C++ arrays, so that they all read the table the same way.
"""

import collections
import os
import re
import xml.etree.ElementTree as ET

REPO_ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
TEXTS_DIR = os.path.join(REPO_ROOT, "ui-client", "autoupdater", "texts")
TABLE_PATH = os.path.join(TEXTS_DIR, "strtab.tsv")
ALLOWLIST_PATH = os.path.join(TEXTS_DIR, "untranslated-allowlist.tsv")

NUM_STRING_IDS = 715
HEADER = ["id", "key", "text"]
CONTEXT = "global"

# The catalogue names, as the embedded resources carry them (":/<code>.qm").
LANGUAGES = [
    "enu", "cht", "chs", "jpn", "ger", "krn", "fre", "ita", "spn", "ptb",
    "ptg", "rus", "dan", "nor", "sve", "nld", "plk", "hun", "trk", "csy",
]
SOURCE_LANGUAGE = "enu"

# The ids the updater itself shows; translators get these first.
UPDATER_IDS = (14, 79, 345, 365, 432, 539, 672, 685)

# Qt argument markers (%1, %2, ...), markers of the MSI tool ("[ProductName]")
# and MSI font tags ("{\WixUI_Font_Title}"). A translation must carry exactly
# the markers of its source, or the program fills in the wrong values or the
# installer shows the raw marker.
PLACEHOLDER_RE = re.compile(r"%(\d+)")
INSTALLER_MARKER_RE = re.compile(r"\[[A-Za-z][A-Za-z0-9_.]*\]")
FONT_TAG_RE = re.compile(r"\{\\[A-Za-z][A-Za-z0-9_]*\}")

Row = collections.namedtuple("Row", "id key text")


class TableError(Exception):
    pass


def markers(text):
    """The multiset of all markers in text."""
    found = collections.Counter()
    for m in PLACEHOLDER_RE.finditer(text):
        found["%" + m.group(1)] += 1
    for m in INSTALLER_MARKER_RE.finditer(text):
        found[m.group(0)] += 1
    for m in FONT_TAG_RE.finditer(text):
        found[m.group(0)] += 1
    return found


def placeholder_numbers(text):
    return sorted({int(n) for n in PLACEHOLDER_RE.findall(text)})


def load_table(path=TABLE_PATH):
    """Rows of the table, in id order. Raises TableError on a malformed file."""
    with open(path, encoding="utf-8", newline="") as f:
        data = f.read()
    if data.startswith("\ufeff"):
        raise TableError(f"{path}: starts with a byte order mark")
    if "\r" in data:
        raise TableError(f"{path}: contains carriage returns; use plain line feeds")
    lines = data.split("\n")
    if lines and lines[-1] == "":
        lines.pop()
    else:
        raise TableError(f"{path}: the last line has no line feed")
    if not lines or lines[0].split("\t") != HEADER:
        raise TableError(f"{path}:1: the header must be id<TAB>key<TAB>text")
    rows = []
    for lineno, line in enumerate(lines[1:], start=2):
        fields = line.split("\t")
        if len(fields) != 3:
            raise TableError(f"{path}:{lineno}: expected 3 tab-separated fields, found {len(fields)}")
        id_text, key, text = fields
        if not id_text.isdigit() or int(id_text) != len(rows):
            raise TableError(f"{path}:{lineno}: id {id_text!r} out of sequence, expected {len(rows)}")
        rows.append(Row(len(rows), key, text))
    if len(rows) != NUM_STRING_IDS:
        raise TableError(f"{path}: {len(rows)} rows, expected {NUM_STRING_IDS}")
    return rows


def distinct_texts(rows):
    """Distinct English texts in the order of their first id."""
    seen = {}
    for row in rows:
        seen.setdefault(row.text, row.id)
    return list(seen)


def keys_by_text(rows):
    result = collections.OrderedDict()
    for row in rows:
        result.setdefault(row.text, []).append(row.key)
    return result


def ts_path(code, texts_dir=TEXTS_DIR):
    return os.path.join(texts_dir, code + ".ts")


class Message:
    __slots__ = ("source", "translation", "finished", "type")

    def __init__(self, source, translation, finished, type_):
        self.source = source
        self.translation = translation
        self.finished = finished
        self.type = type_


def read_ts(path):
    """Messages of a catalogue source, in file order: a list of Message.

    Only context "global" is expected; a message of another context is
    reported as an error because the program never looks it up.
    """
    tree = ET.parse(path)
    root = tree.getroot()
    if root.tag != "TS":
        raise TableError(f"{path}: root element is <{root.tag}>, expected <TS>")
    messages = []
    for context in root.findall("context"):
        name = context.findtext("name")
        if name != CONTEXT:
            raise TableError(f"{path}: unexpected context {name!r}")
        for msg in context.findall("message"):
            source = msg.findtext("source")
            translations = msg.findall("translation")
            if source is None or len(translations) != 1:
                raise TableError(f"{path}: message without a source or with {len(translations)} translations")
            tr = translations[0]
            type_ = tr.get("type", "")
            messages.append(Message(source, tr.text or "", type_ == "", type_))
    return messages


def _escape(text):
    return (text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
            .replace('"', "&quot;").replace("'", "&apos;"))


def render_ts(code, texts, translations):
    """The catalogue source of one language.

    texts: the distinct English texts, in table order.
    translations: source -> (translation, finished). Missing sources are
    written as empty, unfinished messages. For the source language every
    translation is the source text itself.
    """
    out = [
        '<?xml version="1.0" encoding="utf-8"?>',
        "<!DOCTYPE TS>",
        f"<!-- Quillon UI texts, catalogue {code}. Generated by tools/i18n/update_ts.py from strtab.tsv;",
        "     add translations with tools/i18n/import_translations.py or Qt Linguist. -->",
        '<TS version="2.1">',
        "<context>",
        f"    <name>{CONTEXT}</name>",
    ]
    for text in texts:
        if code == SOURCE_LANGUAGE:
            translation, finished = text, True
        else:
            translation, finished = translations.get(text, ("", False))
            if not translation:
                finished = False
        out.append("    <message>")
        out.append(f"        <source>{_escape(text)}</source>")
        attr = "" if finished else ' type="unfinished"'
        out.append(f"        <translation{attr}>{_escape(translation)}</translation>")
        out.append("    </message>")
    out.append("</context>")
    out.append("</TS>")
    return "\n".join(out) + "\n"


def write_ts(path, code, texts, translations):
    data = render_ts(code, texts, translations)
    tmp = path + ".tmp"
    with open(tmp, "w", encoding="utf-8", newline="\n") as f:
        f.write(data)
    os.replace(tmp, path)


def existing_translations(path):
    """source -> (translation, finished) of a catalogue source, if it exists.

    Only messages with a non-empty translation are returned; obsolete and
    vanished messages are not, as the table no longer has their source.
    """
    if not os.path.exists(path):
        return {}
    result = {}
    for msg in read_ts(path):
        if msg.type in ("obsolete", "vanished"):
            continue
        if msg.translation:
            result[msg.source] = (msg.translation, msg.finished)
    return result


def load_allowlist(path=ALLOWLIST_PATH):
    """Set of (code, English text) pairs that may stay untranslated."""
    allowed = set()
    if not os.path.exists(path):
        return allowed
    with open(path, encoding="utf-8") as f:
        for lineno, line in enumerate(f, start=1):
            line = line.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            fields = line.split("\t")
            if len(fields) != 2 or fields[0] not in LANGUAGES:
                raise TableError(f"{path}:{lineno}: expected <code><TAB><English text>")
            allowed.add((fields[0], fields[1]))
    return allowed
