"""The oru command driven as a user drives it, and compared with the tools
its output imitates: unzip -lv / -t, sha1sum, base64 and heaptrack_print.

    python3 oru_command_test.py /path/to/oru
"""
import functools
import http.server
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
import zipfile

ORU = None


def run(*args, stdin=None, cwd=None):
    return subprocess.run([ORU, *args], input=stdin if stdin is not None else b"",
                          capture_output=True, cwd=cwd, timeout=120)


def tool(*args, cwd=None):
    return subprocess.run(list(args), stdin=subprocess.DEVNULL, capture_output=True, cwd=cwd,
                          timeout=120)


class OruCommand(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="oru-cmd-")
        self.addCleanup(shutil.rmtree, self.dir)
        os.environ["XDG_CACHE_HOME"] = os.path.join(self.dir, "xdg")
        rnd = random.Random(14)
        self.files = {"a.txt": b"hello\n", "empty": b"", "lines.txt": b"".join(
            b"%d\n" % i for i in range(3000)), "r.bin": rnd.randbytes(150000),
            "back\\slash": b"x", "new\nline": b"y"}
        for name, data in self.files.items():
            self.write(name, data)
        os.mkdir(self.path("adir"))
        tool("zip", "-q", "-X", "t.zip", "a.txt", "empty", "lines.txt", "r.bin", cwd=self.dir)
        tool("zip", "-q", "-9", "-X", "t9.zip", "lines.txt", cwd=self.dir)
        data = self.read("t.zip")
        self.write("trunc.zip", data[:len(data) // 2])
        member = data.index(b"lines.txt") + 9 + 100  # inside the deflated data of lines.txt
        self.write("bad.zip", data[:member] + bytes([data[member] ^ 0xFF]) + data[member + 1:])
        os.mkdir(self.path("notcache"), 0o700)
        self.write("notcache/keep.txt", b"mine")

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, name, data):
        with open(self.path(name), "wb") as f:
            f.write(data)

    def read(self, name):
        with open(self.path(name), "rb") as f:
            return f.read()

    def make_cache(self, name="cache"):
        """A cache as the library leaves it: numbered files, then info.txt."""
        d = self.path(name)
        os.mkdir(d, 0o700)
        for number, data in (("0", b"first"), ("1", b"second!")):
            with open(os.path.join(d, number), "wb") as f:
                f.write(data)
            os.utime(os.path.join(d, number), (1e9, 1e9))
        with open(os.path.join(d, "info.txt"), "w") as f:
            f.write('Version 1.8\n0 etag "e0"\nhttp://h/a\n1 \nhttp://h/b\n---\n')
        return d

    def test_command_table(self):
        cache = self.make_cache()
        no_net = "built without network support"
        # args, exit code, stdout substring, stderr substring
        table = [
            (["zip", "list", "missing.zip"], 1, "", "oru: missing.zip: No such file or directory"),
            (["zip", "test", "adir"], 1, "", "oru: adir: Is a directory"),
            (["zip", "list", "a.txt"], 1, "", "not a ZIP archive"),
            (["zip", "test", "trunc.zip"], 1, "", "truncated"),
            (["zip", "cat", "trunc.zip", "a.txt"], 1, "", "truncated"),
            (["zip", "cat", "t.zip", "nope"], 1, "", "t.zip: nope: no such member"),
            (["zip", "cat", "bad.zip", "lines.txt"], 1, "", "bad.zip: lines.txt: "),
            (["zip", "cat", "t.zip", "A.TXT"], 0, "hello\n", ""),
            (["zip", "test", "bad.zip"], 1, "At least one error", "1 of 4 members failed"),
            (["zip", "create", "out.zip", "a.txt", "adir"], 1, "", "adir: Is a directory"),
            (["sha1", "missing"], 1, "", "oru: missing: No such file or directory"),
            (["sha1", "-c", "a.txt"], 1, "", "no properly formatted SHA1 checksum lines"),
            (["base64", "adir"], 1, "", "oru: adir: Is a directory"),
            (["trace", "summary", "a.txt"], 1, "", "not a heap trace"),
            (["trace", "summary", "missing"], 1, "", "No such file"),
            (["cache", "ls", "notcache"], 1, "", "not a cache directory (no info.txt)"),
            (["cache", "verify", "missing"], 1, "", "missing: No such directory"),
            (["cache", "stat", "a.txt"], 1, "", "a.txt: not a directory"),
            (["cache", "get", "http://127.0.0.1:1/x", "--dir", "got"], 1, "", "oru: http://127.0.0.1:1/x"),
            (["cache", "get", "ftp://h/x"], 1, "", "not an http:// or https:// URL"),
            (["cache", "rm", "http://h/zz", "--dir", cache], 1, "", "not in the cache"),
            (["cache", "ls", cache], 0, 'http://h/a  [etag "e0"]', ""),
            (["cache", "stat", "--dir", cache], 0, "files            2\nbytes            12 bytes", ""),
            (["cache", "verify", cache], 0, "2 entries, all readable", ""),
            (["counters", "sha1", "a.txt"], 0, "  a.txt\nCalls to ::operator new(): ", ""),
            ([], 2, "", "oru: A subcommand is required"),
            (["zip"], 2, "", "A subcommand is required"),
            (["zip", "list"], 2, "", "ARCHIVE is required"),
            (["sha1", "--bogus"], 2, "", "--bogus"),
            (["cache", "ls", "--limit", "lots"], 2, "", "lots"),
        ]
        for args, code, out, err in table:
            with self.subTest(args=args):
                r = run(*args, cwd=self.dir)
                stderr = r.stderr.decode()
                if no_net in stderr and args[:2] == ["cache", "get"]:
                    continue  # a build without liboru-net says so, and fails
                self.assertEqual(r.returncode, code, stderr)
                self.assertIn(out, r.stdout.decode())
                self.assertIn(err, stderr)
                if code == 1:  # one line, the reason
                    self.assertRegex(stderr, r"^oru: [^\n]+\n$")
        self.assertFalse(os.path.exists(self.path("out.zip")))
        self.assertEqual(self.read("notcache/keep.txt"), b"mine")
        for sub in ("zip list", "zip cat", "zip test", "zip create", "cache ls", "cache stat",
                    "cache verify", "cache get", "cache rm", "cache clear", "sha1", "base64",
                    "trace summary", "counters"):
            r = run(*sub.split(), "--help")
            self.assertEqual(r.returncode, 0, sub)
            self.assertIn("Usage: oru " + sub, r.stdout.decode())

    def test_zip_list_and_test_as_unzip(self):
        run("zip", "create", "ours.zip", "a.txt", "./lines.txt", "empty", "r.bin", cwd=self.dir)
        for archive in ("t.zip", "t9.zip", "ours.zip", "bad.zip"):
            with self.subTest(archive=archive):
                listing = run("zip", "list", archive, cwd=self.dir)
                self.assertEqual(listing.stdout, tool("unzip", "-lv", archive, cwd=self.dir).stdout)
                ours = run("zip", "test", archive, cwd=self.dir)
                theirs = tool("unzip", "-t", archive, cwd=self.dir)
                verdicts = [re.findall(rb"testing: (\S+) +(OK|\S+)", r.stdout)
                            for r in (ours, theirs)]
                self.assertEqual([(n, v == b"OK") for n, v in verdicts[0]],
                                 [(n, v == b"OK") for n, v in verdicts[1]])
                self.assertEqual(ours.returncode == 0, theirs.returncode == 0)
        with zipfile.ZipFile(self.path("ours.zip")) as z:
            self.assertEqual({n: z.read(n) for n in z.namelist()},
                             {n: self.files[n] for n in ("a.txt", "lines.txt", "empty", "r.bin")})

    def test_zip_create_leaves_no_partial_archive(self):
        self.write("keep.zip", b"old")
        r = run("zip", "create", "keep.zip", "a.txt", "missing", cwd=self.dir)
        self.assertEqual(r.returncode, 1)
        self.assertEqual(self.read("keep.zip"), b"old")
        self.assertEqual(sorted(os.listdir(self.dir)), sorted(
            list(self.files) + ["adir", "notcache", "t.zip", "t9.zip", "trunc.zip", "bad.zip",
                                "keep.zip"]))

    def test_sha1_as_sha1sum(self):
        names = sorted(self.files)
        ours, theirs = run("sha1", *names, cwd=self.dir), tool("sha1sum", *names, cwd=self.dir)
        self.assertEqual(ours.stdout, theirs.stdout)
        self.write("ours.sums", ours.stdout)
        self.write("theirs.sums", theirs.stdout.replace(b"  r.bin", b" *r.bin"))
        self.write("tag.sums", tool("sha1sum", "--tag", "a.txt", "r.bin", cwd=self.dir).stdout)
        self.write("a.txt", b"changed\n")
        for lists in (["ours.sums"], ["theirs.sums"], ["ours.sums", "tag.sums"]):
            ours, theirs = run("sha1", "-c", *lists, cwd=self.dir), tool(
                "sha1sum", "-c", *lists, cwd=self.dir)
            self.assertEqual(ours.stdout, theirs.stdout)
            self.assertEqual(ours.stderr.replace(b"oru:", b""),
                             theirs.stderr.replace(b"sha1sum:", b""))
            self.assertEqual(ours.returncode, theirs.returncode)
        self.assertEqual(run("sha1", stdin=b"abc").stdout,
                         b"a9993e364706816aba3e25717850c26c9cd0d89d  -\n")

    def test_base64_as_coreutils(self):
        data = random.Random(3).randbytes(5000)
        for size in (0, 1, 2, 3, 56, 57, 58, 114, 5000):
            self.write("in", data[:size])
            encoded = tool("base64", "in", cwd=self.dir).stdout
            self.assertEqual(run("base64", "in", cwd=self.dir).stdout, encoded, size)
            self.assertEqual(run("base64", "-d", stdin=encoded).stdout, data[:size], size)
        for text in (b"YWJj\r\nZGVm\n", b"YW=j", b"YQ==YQ==", b"YQ", b"YWJ", b"Y", b"YW Jj",
                     b"YWJj\nZGVm\n\n"):
            ours = run("base64", "-d", stdin=text)
            theirs = subprocess.run(["base64", "-d"], input=text, capture_output=True)
            self.assertEqual((ours.stdout, ours.returncode), (theirs.stdout, theirs.returncode),
                             text)

    def test_cache_commands_look_without_touching(self):
        cache = self.make_cache()
        os.remove(os.path.join(cache, "1"))
        self.write("cache/7", b"orphan")
        before = sorted(os.listdir(cache))
        r = run("cache", "verify", cache)
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stdout.decode().split(),
                         "missing 1 (http://h/b) orphan 7 (not in info.txt)".split())
        self.assertEqual(run("cache", "ls", cache).returncode, 0)
        self.assertEqual(sorted(os.listdir(cache)), before)
        r = run("cache", "rm", "http://h/a", "--dir", cache)
        self.assertEqual((r.returncode, r.stdout), (0, b"removed http://h/a\n"))
        self.assertEqual(sorted(os.listdir(cache)), ["info.txt"])  # the orphan went too
        self.make_cache("cache2")
        self.assertEqual(run("cache", "clear", "--dir", self.path("cache2")).stdout,
                         b"removed 2 files\n")
        self.assertEqual(self.read("cache2/info.txt"), b"Version 1.8\n---\n")

    def test_trace_summary_as_heaptrack_print(self):
        self.write("t.heaptrace", b"v 10150 2\ns libx.so\ns alloc_a\ns a.cpp\ns main\n"
                   b"i 1000 1 2 3 a\ni 2000 1 4 3 14\nt 2 0\nt 1 1\na 10 2\na 100 1\nc 1\n"
                   b"+ 0 aa\n+ 1 bb\n- 0 aa 1\n+ 0 cc\n+ 1 dd\n#Unmatched free ee\n- 1 bb 1\n"
                   b"+ 1 ee\n- 1 ee 2\n")
        out = run("trace", "summary", self.path("t.heaptrace")).stdout.decode()
        self.assertIn("allocations      5 (800 bytes)\nreleases         3\npeak             528 "
                      "bytes live\nleaked           2 blocks, 272 bytes\nunmatched frees  1\n", out)
        self.assertRegex(out, r"768 +3  main at a.cpp:20\n +32 +2  alloc_a at a.cpp:10\n +from "
                         r"main at a.cpp:20\n")
        if shutil.which("heaptrack_print"):
            theirs = tool("heaptrack_print", self.path("t.heaptrace")).stdout.decode()
            self.assertIn("calls to allocation functions: 5 ", theirs)
            self.assertIn("peak heap memory consumption: 528B", theirs)
            self.assertIn("total memory leaked: 272B", theirs)

    def test_cache_get_over_http(self):
        os.mkdir(self.path("site"))
        self.write("site/scene.zip", self.files["r.bin"])
        class Quiet(http.server.SimpleHTTPRequestHandler):
            def log_message(self, *args):
                pass

        handler = functools.partial(Quiet, directory=self.path("site"))
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        url = "http://127.0.0.1:%d/scene.zip" % server.server_address[1]
        first = run("cache", "get", url, "--dir", self.path("c"), "-o", self.path("copy"))
        if b"built without network support" in first.stderr:
            self.skipTest("built without liboru-net")
        self.assertEqual(first.returncode, 0, first.stderr)
        self.assertTrue(first.stdout.startswith(b"downloaded: " + url.encode()))
        self.assertEqual(self.read("copy"), self.files["r.bin"])
        second = run("cache", "get", url, "--dir", self.path("c"))
        self.assertTrue(second.stdout.startswith(b"cache hit: "), second.stdout)
        missing = run("cache", "get", url + ".404", "--dir", self.path("c"), "-o", "x")
        self.assertEqual(missing.returncode, 1)
        self.assertRegex(missing.stderr.decode(), r"^oru: [^\n]*404[^\n]*\n$")
        self.assertFalse(os.path.exists("x"))


if __name__ == "__main__":
    ORU = os.path.abspath(sys.argv.pop(1))
    unittest.main()
