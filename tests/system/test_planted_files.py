"""Another local user plants things under the names the updater will use in
a shared temporary folder (mode 1777, like /tmp): the names are predictable,
so this is what a hostile neighbour would try. The updater must neither write
through nor run anything it did not download itself, and must leave the
neighbour's objects exactly as they were.

Needs root, to act as the second user "quillon-planter" (tools/test.sh
creates that user when it runs as root)."""

import os
import pwd
import shutil
import stat
import subprocess
import tempfile
import unittest
from pathlib import Path

import harness
from systemcase import SystemTestCase

PLANTER = "quillon-planter"
PLANTED_TEXT = b"the planter's own notes\n"


class PlantedFilesTest(SystemTestCase):

    @classmethod
    def setUpClass(cls):
        if os.geteuid() != 0:
            raise unittest.SkipTest("needs root to plant files as a second user")
        try:
            cls.planter = pwd.getpwnam(PLANTER)
        except KeyError:
            raise unittest.SkipTest(f"user {PLANTER} does not exist (tools/test.sh adds it "
                                    "when run as root)")
        super().setUpClass()

    def shared_folder(self):
        """A fresh world-writable sticky folder both users can reach."""
        folder = Path(tempfile.mkdtemp(prefix="quillon-shared-", dir="/tmp"))
        self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
        folder.chmod(0o1777)
        return folder

    def as_planter(self, script, *args, data=b""):
        """Runs a shell script as the planter, data on its input, with a
        umask that leaves its files writable by it alone."""
        subprocess.run(["runuser", "-u", PLANTER, "--", "sh", "-c", "umask 022; " + script,
                        "plant"] + [str(a) for a in args], input=data, cwd="/", check=True,
                       timeout=30)

    def planter_reader(self, fifo, capture):
        """The planter reading whatever is written into the FIFO, into capture."""
        reader = subprocess.Popen(["runuser", "-u", PLANTER, "--", "sh", "-c",
                                   "umask 022; : > \"$2\"; exec cat \"$1\" > \"$2\"",
                                   "read", str(fifo), str(capture)],
                                  cwd="/", start_new_session=True)
        self.addCleanup(self.stop_group, reader)
        # The reader is ready once its capture file exists and it waits in open().
        harness.wait_for(lambda: capture.exists() and self.waits_at_fifo(reader.pid), 10,
                         "the planter's reader to wait at the FIFO")
        return reader

    @staticmethod
    def waits_at_fifo(pid):
        """Whether a process of the group pid leads is asleep in open() on a FIFO."""
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                if os.getpgid(int(entry)) != pid:
                    continue
                # The kernel's wait for the other end of a FIFO.
                if Path("/proc", entry, "wchan").read_text() in ("wait_for_partner",
                                                                  "fifo_open"):
                    return True
            except (OSError, ProcessLookupError):
                continue
        return False

    @staticmethod
    def stop_group(process):
        if process.poll() is None:
            os.killpg(process.pid, 9)
        process.wait()

    @staticmethod
    def snapshot(path):
        """What must not change about a planted object."""
        info = os.lstat(path)
        state = {"inode": (info.st_dev, info.st_ino), "owner": (info.st_uid, info.st_gid),
                 "mode": info.st_mode, "size": info.st_size, "mtime": info.st_mtime_ns}
        if stat.S_ISLNK(info.st_mode):
            state["link"] = os.readlink(path)
        elif stat.S_ISREG(info.st_mode):
            state["content"] = Path(path).read_bytes()
        elif stat.S_ISDIR(info.st_mode):
            state["entries"] = sorted(os.listdir(path))
        return state

    def offer_updater(self, shared):
        site, installation, record = self.new_site(), self.new_installation(), self.new_record()
        updater = site.put_updater(record)
        site.answer({"updater": updater})
        self.serve(installation, site)
        argv = installation.client_arguments(temp_path=shared)
        return site, installation, record, updater, argv

    def test_planted_temporary_file(self):
        """Status 6 and an ERROR line for whatever the planter put under the
        ".download" name: a symbolic link to a file of the planter's, a FIFO,
        a regular file of the planter's, a folder. The object is left as it
        was (same inode, owner, type, mode and content; the link's target
        unchanged), no file is saved and nothing is started."""
        plants = {
            "symbolic link": "cat > \"$2\"; ln -s \"$2\" \"$1\"",
            "FIFO": "mkfifo \"$1\"",
            "FIFO with a reader": "mkfifo \"$1\"",
            # The start of the real updater, hoping the rest is appended.
            "regular file": "cat > \"$1\"",
            "folder": "mkdir \"$1\"",
        }
        for case, script in plants.items():
            with self.subTest(case):
                shared = self.shared_folder()
                site, installation, record, updater, argv = self.offer_updater(shared)
                saved = installation.save_path(updater["name"], shared)
                partial = saved.with_name(saved.name + ".download")
                target = shared / "planter-notes"
                content = (site.folder / updater["name"]).read_bytes()[:40]
                self.as_planter(script, partial, target,
                                data=PLANTED_TEXT if case == "symbolic link" else content)
                before = self.snapshot(partial)
                self.assertEqual(before["owner"][0], self.planter.pw_uid)
                if case == "FIFO with a reader":
                    # A reader waiting at the FIFO lets a writer's open succeed at
                    # once: only the type check stands between it and our bytes.
                    reader = self.planter_reader(partial, target)
                planted_names = sorted(os.listdir(shared))

                status = self.run_program(installation, argv)

                self.assertStatus(installation, status, 6)
                refusals = [m for m in installation.log_messages("ERROR") if m.startswith(
                    f"Fail to open temp file '{partial}' in append mode. (reason: ")]
                self.assertEqual(len(refusals), 1, self.log_text(installation))
                self.assertLogged(installation, "Fail to run auto update. (error code: 6, "
                                  "reason: fail to open temp file in append mode)",
                                  level="ERROR")
                self.assertEqual(self.snapshot(partial), before)
                if case == "symbolic link":
                    self.assertEqual(target.read_bytes(), PLANTED_TEXT)
                if case == "FIFO with a reader":
                    # The program opened the FIFO (which ends the reader's wait)
                    # and wrote nothing into it.
                    reader.wait(10)
                    self.assertEqual(target.read_bytes(), b"")
                self.assertEqual(sorted(os.listdir(shared)), planted_names)
                self.assertFalse(record.started())

    def test_planted_file_under_save_name(self):
        """The planter's file under the final name, with the right content, is
        not used: a WARNING says so and the updater is downloaded. The
        download then takes the name if this user may remove the planter's
        file from the sticky folder (root may: status 0, the file is now ours
        and private, and the updater we fetched is started once); otherwise
        the run ends with status 6, the planted file untouched and nothing
        started. A probe file tells which to expect."""
        shared = self.shared_folder()
        site, installation, record, updater, argv = self.offer_updater(shared)
        saved = installation.save_path(updater["name"], shared)
        self.as_planter("cat > \"$1\"; printf probe > \"$2\"", saved, shared / "probe",
                        data=(site.folder / updater["name"]).read_bytes())
        before = self.snapshot(saved)
        self.assertEqual(before["owner"][0], self.planter.pw_uid)
        self.assertEqual(harness.file_md5(saved), updater["checksum"])
        try:
            (shared / "probe").unlink()
            may_replace = True
        except PermissionError:
            may_replace = False

        status = self.run_program(installation, argv)

        self.assertLogged(installation, f"File '{saved}' is not a private file of this user, "
                          "do not use it.", level="WARNING")
        self.assertNotLogged(installation, "Updater file exists, use local file.")
        self.assertEqual([r["path"] for r in site.requests() if r["path"] != site.answer_path],
                         [site.prefix + "/" + updater["name"]])
        self.assertFalse(saved.with_name(saved.name + ".download").exists())
        if may_replace:
            self.assertStatus(installation, status, 0)
            info = os.lstat(saved)
            self.assertTrue(stat.S_ISREG(info.st_mode))
            self.assertEqual(info.st_uid, os.geteuid())
            self.assertEqual(info.st_mode & 0o022, 0)
            self.assertNotEqual((info.st_dev, info.st_ino), before["inode"])
            self.assertEqual(harness.file_md5(saved), updater["checksum"])
            record.wait()
            harness.reap_orphans()
            self.assertEqual(record.starts(), 1)
        else:
            self.assertStatus(installation, status, 6)
            self.assertLogged(installation, f"Fail to rename temp file to path '{saved}'.",
                              level="ERROR")
            self.assertEqual(self.snapshot(saved), before)
            self.assertFalse(record.started())


if __name__ == "__main__":
    unittest.main()
