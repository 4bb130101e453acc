#pragma once

#include <string>

namespace ovra::test {

/// Confines this process, so that code under test can do no harm. Code that removes trees, moves
/// entries under a removal or names device nodes has emptied a whole machine by one wrong step up.
///
/// As the superuser, this process gets an empty file system in memory as its root, with "/tmp" and
/// "/proc" in it, which nobody else sees; nothing else can be reached from then on. An ordinary
/// user stays where he is: he can harm only what is his.
///
/// Returns why that was not possible, and then no such code may run. Empty if all is well. A second
/// call returns what the first one did. To be called before there are other threads.
///
/// An executable of GoogleTest that is made with Contained.cpp and ContainedTests.cpp is contained
/// as a whole, or skips all its tests.
std::string const& contain();

/// Whether this process has a root of its own, and so may mount what it likes.
bool hasOwnRoot();

}  // namespace ovra::test
