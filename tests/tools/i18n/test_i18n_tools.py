"""The translators' round trip: work list out, answer in, catalogue written."""

import tempfile
import unittest

import export_worklist
import import_translations
import strtab_io


class RoundTrip(unittest.TestCase):
    def test_every_answered_text_lands_in_the_catalogue(self):
        rows = strtab_io.load_table()
        texts = strtab_io.distinct_texts(rows)
        # Answers keep the markers and add XML specials and non-ASCII; the
        # last one drops a marker and is refused.
        answer = [f"{line.split(chr(9))[0]}\t<{line.split(chr(9))[2]}> & ü"
                  for line in export_worklist.worklist(rows)]
        answer.append(f"{next(i for i, t in enumerate(texts) if '%1' in t)}\tohne Marker")
        accepted, problems = import_translations.parse_answer(answer, texts)
        self.assertEqual([lineno for lineno, _ in problems], [len(answer)])

        with tempfile.TemporaryDirectory() as d:
            path = strtab_io.ts_path("ger", d)
            strtab_io.write_ts(path, "ger", texts, {texts[i]: (t, True) for i, t in accepted.items()})
            messages = strtab_io.read_ts(path)
        self.assertEqual([(m.source, m.translation, m.finished) for m in messages],
                         [(t, f"<{t}> & ü", True) for t in texts])
