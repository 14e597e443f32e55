"""A pack past 4 GiB, which a 32-bit build handles only with 64-bit offsets,
lengths and progress throughout. nginx serves it from a sparse file whose only
non-zero bytes lie past 4 GiB, so it costs no disk; the download does."""

import unittest

from harness import file_md5
from systemcase import MIB, PACK, SystemTestCase, partial_path

GIB = 1024 * MIB
SIZE = 4 * GIB + 64 * MIB
MARKS = {4 * GIB + 12345: b"past 4 GiB", SIZE - 10: b"last bytes"}


def sparse(path, size):  # the pack's first size bytes: zeros and the marks
    with open(path, "wb") as out:
        out.truncate(size)
        for offset, data in MARKS.items():
            if offset < size:
                out.seek(offset)
                out.write(data)


class LargePackTest(SystemTestCase):

    def test_fresh_reused_and_resumed_past_4_gib(self):
        """Fresh with the dialog's progress, reused by the next run, then
        resumed from a partial file already past 4 GiB: the right bytes each time."""
        checksum = None
        for resume_from in (None, 4 * GIB + 40 * MIB):
            site, installation, record = self.new_case()
            sparse(site.folder / PACK, SIZE)
            checksum = checksum or file_md5(site.folder / PACK)
            site.answer({"updater": dict(site.put_updater(record), need_user_permit=False),
                         "update_pack": {"name": PACK, "checksum": checksum,
                                         "url": self.nginx.url(site.prefix + PACK)}})
            saved = installation.save_path(PACK)
            if resume_from:
                sparse(partial_path(saved), resume_from)
            argv = installation.client_arguments(show_dialog=True)

            self.run_program(installation, argv, timeout=600)
            self.assertHandedOff(installation, record, b"--update-pack-path", bytes(saved))
            packs = [(r["range"], r["status"]) for r in site.requests(PACK)]
            self.assertEqual(packs, [(f"bytes={resume_from}-", 206)] if resume_from
                             else [("", 200)])
            self.assertEqual(saved.stat().st_size, SIZE)
            with open(saved, "rb") as pack:
                for offset, data in MARKS.items():
                    pack.seek(offset)
                    self.assertEqual(pack.read(len(data)), data)
            if not resume_from:  # a complete earlier download is reused, read past 4 GiB
                self.run_program(installation, argv, timeout=600)
                self.assertEqual(len(site.requests(PACK)), 1)
            saved.unlink()  # the disk holds one such pack at a time
            (site.folder / PACK).unlink()


if __name__ == "__main__":
    unittest.main()
