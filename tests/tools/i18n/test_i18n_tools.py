"""Tests of the translator tooling in tools/i18n.

Run by CTest as: python3 -m unittest test_i18n_tools  (with tools/i18n on PYTHONPATH)
"""

import os
import subprocess
import tempfile
import unittest

import export_worklist
import import_translations
import strtab_io
import update_ts


class CheckTranslation(unittest.TestCase):
    def test_cases(self):
        cases = [
            # source, translation, expected error fragment (None: accepted)
            ("Exit", "Beenden", None),
            ("%1 of %2 selected", "%2 von %1 ausgewählt", None),
            ("Expires on %1", "Läuft ab", "missing %1"),
            ("Version %1", "Version %1 %2", "unexpected %2"),
            ("Syncing %1 files", "%1 fichiers %1", "unexpected %1"),
            ("Launch [ProductName]", "[Produktname] starten", "missing [ProductName]"),
            ("{\\WixUI_Font_Title}Files in Use", "Dateien in Verwendung", "missing {\\WixUI_Font_Title}"),
            ("{\\WixUI_Font_Title}Files in Use", "{\\WixUI_Font_Title}Dateien in Verwendung", None),
            ("Exit", "", "empty"),
            ("Exit", "   ", "empty"),
            ("Exit", " Beenden", "start"),
            ("Exit", "Beenden ", "end"),
            ("Exit", "Been\tden", "tab"),
            ("Exit", "Been\x07den", "control"),
            ("Sync complete", "Synchronisierung\\nabgeschlossen", None),
        ]
        for source, translation, expected in cases:
            with self.subTest(source=source, translation=translation):
                error = import_translations.check_translation(source, translation)
                if expected is None:
                    self.assertIsNone(error)
                else:
                    self.assertIsNotNone(error)
                    self.assertIn(expected, error)


class ParseAnswer(unittest.TestCase):
    texts = ["Exit", "Expires on %1", "Cancel"]

    def test_good_and_bad_lines(self):
        lines = [
            "\ufeff0\tBeenden\r",
            "# a comment",
            "",
            "1\tLäuft am %1 ab",
            "3\tjenseits",
            "x\tkein Index",
            "2 Abbrechen",
            "1\tnoch einmal %1",
            "2\tAbbrechen\tmit Tab",
        ]
        accepted, problems = import_translations.parse_answer(lines, self.texts)
        self.assertEqual(accepted, {0: "Beenden", 1: "Läuft am %1 ab"})
        self.assertEqual([lineno for lineno, _ in problems], [5, 6, 7, 8, 9])
        self.assertIn("given twice", problems[3][1])


class CatalogueFiles(unittest.TestCase):
    def test_render_and_read_round_trip(self):
        texts = ["Tom & Jerry <b>", 'Say "hi" and \'bye\'', "Copyright © 2024", "Exit"]
        translations = {texts[0]: ("Tom & Jerry <b>!", True), texts[2]: ("© 2024", False)}
        with tempfile.TemporaryDirectory() as d:
            path = os.path.join(d, "ger.ts")
            strtab_io.write_ts(path, "ger", texts, translations)
            msgs = strtab_io.read_ts(path)
        self.assertEqual([m.source for m in msgs], texts)
        self.assertEqual([(m.translation, m.finished) for m in msgs],
                         [("Tom & Jerry <b>!", True), ("", False), ("© 2024", False), ("", False)])

    def test_english_translates_every_text_as_itself(self):
        texts = ["Exit", "Cancel"]
        with tempfile.TemporaryDirectory() as d:
            path = os.path.join(d, "enu.ts")
            strtab_io.write_ts(path, "enu", texts, {"Exit": ("Quit", True)})
            msgs = strtab_io.read_ts(path)
        self.assertEqual([(m.translation, m.finished) for m in msgs],
                         [("Exit", True), ("Cancel", True)])

    def test_update_keeps_translations_of_texts_still_in_the_table(self):
        with tempfile.TemporaryDirectory() as d:
            strtab_io.write_ts(strtab_io.ts_path("fre", d), "fre", ["Exit", "Close", "Old text"],
                               {"Exit": ("Quitter", True), "Close": ("Fermer", False),
                                "Old text": ("Ancien", True)})
            kept, dropped = update_ts.update("fre", ["Cancel", "Exit", "Close"], d)
            msgs = strtab_io.read_ts(strtab_io.ts_path("fre", d))
        self.assertEqual(kept, 1)
        self.assertEqual(dropped, ["Old text"])
        self.assertEqual([(m.source, m.translation, m.finished) for m in msgs],
                         [("Cancel", "", False), ("Exit", "Quitter", True), ("Close", "Fermer", False)])


class Worklist(unittest.TestCase):
    def setUp(self):
        self.rows = strtab_io.load_table()
        self.texts = strtab_io.distinct_texts(self.rows)

    def test_updater_texts_first_then_every_text_once(self):
        lines = export_worklist.worklist(self.rows)
        indices = [int(line.split("\t")[0]) for line in lines]
        self.assertEqual(sorted(indices), list(range(len(self.texts))))
        first = [self.texts[i] for i in indices[:len(strtab_io.UPDATER_IDS)]]
        self.assertEqual(first, [self.rows[i].text for i in strtab_io.UPDATER_IDS])
        for line in lines:
            index, keys, text = line.split("\t")
            self.assertEqual(self.texts[int(index)], text)
            self.assertEqual(sorted(keys.split(",")),
                             sorted(r.key for r in self.rows if r.text == text))

    def test_missing_leaves_out_finished_translations(self):
        translations = {self.texts[0]: ("Ordner öffnen", True), self.texts[1]: ("draft", False)}
        indices = [int(line.split("\t")[0])
                   for line in export_worklist.worklist(self.rows, translations)]
        self.assertNotIn(0, indices)
        self.assertIn(1, indices)
        self.assertEqual(len(indices), len(self.texts) - 1)


class GeneratedArrays(unittest.TestCase):
    def test_c_literals_hold_the_utf8_bytes(self):
        # Compile the generated literals with the C compiler of the system
        # and compare the bytes it stores with the text's UTF-8.
        import gen_strtab
        texts = ["Copyright © 2024", 'A "quoted" back\\slash', "What??!", "Quillon – syncing %1",
                 "\u00e9" + "1", "{\\WixUI_Font_Title}"]
        with tempfile.TemporaryDirectory() as d:
            src = os.path.join(d, "t.c")
            with open(src, "w") as f:
                f.write("#include <stdio.h>\nint main(void) {\n")
                for t in texts:
                    f.write(f"    fputs({gen_strtab.c_string(t)}, stdout); putchar(0);\n")
                f.write("    return 0;\n}\n")
            exe = os.path.join(d, "t")
            subprocess.run(["cc", "-std=c11", "-Wall", "-Werror", "-o", exe, src], check=True)
            out = subprocess.run([exe], check=True, capture_output=True).stdout
        self.assertEqual(out.split(b"\0")[:-1], [t.encode("utf-8") for t in texts])


if __name__ == "__main__":
    unittest.main()
