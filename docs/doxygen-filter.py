#!/usr/bin/env python3
"""Turns a plain Markdown page into one of the reference's: run by Doxygen for each *.md.

Gives the page and its sections the labels that references need, makes links between pages
references, and leaves of links to files outside docs/ only the text. In docs/main.md the links make
the tree of pages.
"""
import re
import sys

path = sys.argv[1]
main = path.endswith("docs/main.md")


def page(name):
    return "page_" + re.sub(r".*/|\.md$", "", name)


def slug(heading):
    """The anchor that viewers of Markdown give a heading."""
    return re.sub(r"[^\w\- ]", "", heading.strip().lower()).replace(" ", "-")


def reference(match):
    text, target, anchor = match.group(1), match.group(2), match.group(3)
    if "://" in target or (target and not target.endswith(".md")) or target.startswith("../../"):
        return text
    label = page(target or path) + ("_" + anchor.replace("-", "_") if anchor else "")
    return f'\\{"subpage" if main and not anchor else "ref"} {label} "{text.replace("`", "")}"'


fenced = False
titled = False
for line in open(path, encoding="utf-8"):
    line = line.rstrip("\n")
    if line.startswith("```"):
        fenced = not fenced
    elif not fenced:
        heading = re.match(r"(#{1,3}) (.*)", line)
        if heading and not titled:
            titled = True
            if not main:
                line += f" {{#{page(path)}}}\n\n[TOC]"
        elif heading:
            line += f" {{#{page(path)}_{slug(heading.group(2)).replace('-', '_')}}}"
        else:
            line = re.sub(r"(?<!!)\[([^]]+)\]\(([^)#]*)(?:#([^)]*))?\)", reference, line)
    print(line)
