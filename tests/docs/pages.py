#!/usr/bin/env python3
"""Checks README.md and the pages under docs/, from the top of the sources.

  pages.py blocks COMPILE_COMMANDS   each block of code is a file that a test compiles or runs
  pages.py links                     each link leads to a file, and to a heading of it
  pages.py figures                   each figure in README.md is in the record that it links to
  pages.py update                    copies the files into the blocks

A comment before a block names its file:  <!-- docs/examples/tasks.cpp -->
Blocks of commands need none in README.md, where tests/newcomer runs them. A block without a language
is something to look at. So is one of the language "text" without a comment.
"""
import glob
import json
import os
import re
import sys

PAGES = ["README.md", "docs/main.md", *sorted(glob.glob("docs/guide/*.md"))]
BLOCK = re.compile(r"(?:<!-- (\S+) -->\n)?^(```+)(\w*)\n(.*?)^\2\n", re.M | re.S)
# What builds and runs the files that are no sources of this build.
RUNS_FILES = ["tools/test-install", "tests/docs/CMakeLists.txt"]

problems = []


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def compiled_sources(compile_commands):
    """The sources of a build. Some of the files that are compiled include several of them."""
    files = [entry["file"] for entry in json.loads(read(compile_commands))]
    files += [name for file in files if "/Unity/" in file
              for name in re.findall(r'^#include "(/.*)"$', read(file), re.M)]
    return {os.path.relpath(file) for file in files}


def check_blocks(compile_commands):
    compiled = compiled_sources(compile_commands)
    runners = "".join(read(path) for path in RUNS_FILES if os.path.exists(path))
    count = 0
    for page in PAGES:
        for name, _, language, text in BLOCK.findall(read(page)):
            first = text.split("\n", 1)[0]
            if not name:
                if language in ("", "text") or (language == "sh" and page == "README.md"):
                    continue
                problems.append(f"{page}: no file is named for the block '{first}'")
            elif not os.path.exists(name):
                problems.append(f"{page}: there is no {name}")
            elif read(name) != text:
                problems.append(f"{page}: the block '{first}' is not {name}: tests/docs/pages.py update")
            elif name.endswith(".cpp") and name not in compiled:
                problems.append(f"{page}: {name} is not compiled")
            elif not name.endswith((".cpp", ".out")) and name.split("/")[-2] not in runners:
                problems.append(f"{page}: no test uses {name}")
            count += 1
    if count < 10:
        problems.append(f"only {count} blocks were found")
    print(f"{count} blocks")


def slug(heading):
    return re.sub(r"[^\w\- ]", "", heading.strip().lower()).replace(" ", "-")


def check_links():
    count = 0
    for page in [*glob.glob("*.md"), *glob.glob("docs/**/*.md", recursive=True),
                 *glob.glob("examples/*.md"), *glob.glob("packaging/**/*.md", recursive=True)]:
        text = BLOCK.sub("", read(page))
        for mark in re.findall(r"\\(?:include|snippet|subpage|ref|page)\b|\{#\w+\}|^\[TOC\]", text, re.M):
            problems.append(f"{page}: '{mark}' is not plain Markdown")
        for target in re.findall(r"\[[^]]*\]\(([^)\s]+)\)", text):
            if "://" in target:
                continue
            count += 1
            path, _, anchor = target.partition("#")
            path = os.path.normpath(os.path.join(os.path.dirname(page), path)) if path else page
            if not os.path.exists(path):
                problems.append(f"{page}: there is no {target}")
            elif anchor and anchor not in map(slug, re.findall(r"^#+ (.*)", read(path), re.M)):
                problems.append(f"{page}: no heading for {target}")
    if count < 20:
        problems.append(f"only {count} links were found")
    print(f"{count} links")


def check_figures():
    rows = re.findall(r"\*\*([^*]+)\*\* \| \[[^]]*\]\(([^)]+)\)", read("README.md"))
    for figure, record in rows:
        if not re.search(rf"(?<!\d){re.escape(figure)}(?!\d)", read(record)):
            problems.append(f"README.md: {record} does not say {figure}")
    if len(rows) != 3:
        problems.append(f"{len(rows)} figures")


def update():
    def replace(match):
        name, fence, language, _ = match.groups()
        if not name:
            return match.group(0)
        return f"<!-- {name} -->\n{fence}{language}\n{read(name)}{fence}\n"

    for page in PAGES:
        before = read(page)
        after = BLOCK.sub(replace, before)
        if after != before:
            with open(page, "w", encoding="utf-8") as file:
                file.write(after)
            print(page)


match sys.argv[1:]:
    case ["blocks", commands]:
        check_blocks(commands)
    case ["links"]:
        check_links()
    case ["figures"]:
        check_figures()
    case ["update"]:
        update()
    case _:
        sys.exit(__doc__)
print(*problems, sep="\n", end="\n" if problems else "")
sys.exit(bool(problems))
