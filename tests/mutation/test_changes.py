"""Tests of changes.py: what each kind of change makes of a text."""

import unittest

from changes import KINDS, changes_of


def results(text, kind):
    return {text[:begin] + new + text[end:]
            for begin, end, new, what in changes_of(text) if what == kind}


def function(*lines):
    return "\nvoid f() {\n" + "".join(f"    {line}\n" for line in lines) + "}\n"


class ChangesTest(unittest.TestCase):
    def expect(self, kind, text, *expected):
        self.assertEqual(results(text, kind), set(expected))

    def test_a_lock_is_dropped(self):
        self.expect("lock", function("std::lock_guard<std::mutex> const lock(mutex);", "++n;"),
                    function("", "++n;"))
        self.expect("lock", function("std::lock_guard<Lock> guard(lock);"), function(""))

    def test_neighbouring_statements_change_places(self):
        self.expect("swap", function("closed = true;", "condition.notify_all();", "drop();"),
                    function("condition.notify_all();", "closed = true;", "drop();"),
                    function("closed = true;", "drop();", "condition.notify_all();"))

    def test_a_lock_is_taken_a_statement_later(self):
        lock = "std::lock_guard<std::mutex> const lock(mutex);"
        self.expect("swap", function(lock, "++n;"), function("++n;", lock))

    def test_plain_assignments_stay_in_place(self):
        self.expect("swap", function("a = 1;", "b = std::move(c);"))

    def test_statements_of_two_blocks_stay_in_place(self):
        self.expect("swap", function("f();", "if (a) {", "    g();", "}"))

    def test_the_end_of_a_longer_statement_is_none(self):
        self.expect("swap", function("f(a,", "  b);", "return g();"))

    def test_a_memory_order_is_weakened(self):
        self.expect("order", "x.load(std::memory_order_acquire)",
                    "x.load(std::memory_order_relaxed)")
        self.expect("order", "x.load(std::memory_order_relaxed)")

    def test_a_notification_goes_ahead_of_the_lock(self):
        lock = "std::unique_lock<std::mutex> lock(mutex);"
        self.expect("notify", function(lock, "++n;", "condition.notify_one();"),
                    function(f"condition.notify_one(); {lock}", "++n;", ""))
        self.expect("notify", function(lock, "++n;", "sem_post(&waiter->semaphore);"),
                    function(f"sem_post(&waiter->semaphore); {lock}", "++n;", ""))

    def test_a_notification_stays_in_its_function(self):
        self.expect("notify", function("std::unique_lock<std::mutex> lock(mutex);") +
                    function("condition.notify_one();"))

    def test_one_is_notified_instead_of_all(self):
        self.expect("notify", "c.notify_all();", "c.notify_one();")

    def test_a_flag_is_dropped(self):
        self.expect("flag", "open(path, O_RDONLY | O_CLOEXEC | O_DIRECTORY)",
                    "open(path, O_CLOEXEC | O_DIRECTORY)", "open(path, O_RDONLY | O_DIRECTORY)",
                    "open(path, O_RDONLY | O_CLOEXEC)")
        self.expect("flag", "open(path, std::ios_base::in | std::ios_base::binary)",
                    "open(path, std::ios_base::binary)", "open(path, std::ios_base::in)")
        self.expect("flag", "open(path, mode | std::ios_base::in)", "open(path, mode)")
        self.expect("flag", "words = word << 1 | BEING_FILLED;")

    def test_a_link_is_followed_or_not(self):
        self.expect("link", "::lstat(path, &s)", "::stat(path, &s)")
        self.expect("link", "::stat(path, &s)", "::lstat(path, &s)")
        self.expect("link", "if (::fstatat(d, name, &s, 0) != 0) {",
                    "if (::fstatat(d, name, &s, AT_SYMLINK_NOFOLLOW) != 0) {")
        self.expect("link", "fstatat(d, name, &s, AT_SYMLINK_NOFOLLOW)", "fstatat(d, name, &s, 0)")
        self.expect("link", "struct stat status;")

    def test_comments_and_strings_stay(self):
        for kind in KINDS:
            self.expect(kind, "// lstat(a | b) == 1;\n")
            self.expect(kind, 's = "lstat( memory_order_acquire == 1";')

    def test_the_older_kinds(self):
        self.expect("operator", "a < b", "a <= b", "a >= b")
        self.expect("number", "x[7]", "x[8]", "x[6]")
        self.expect("number", "mode = 0777;", "mode = 01000;", "mode = 0776;")
        self.expect("condition", "if (a(b) == c) {", "if (!(a(b) == c)) {")
        self.expect("statement", function("f(a);", "int b = 1;"), function(";", "int b = 1;"))


if __name__ == "__main__":
    unittest.main()
