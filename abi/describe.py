#!/usr/bin/env python3
"""Writes the layout of the public types as text: sizes, bases, members, virtual tables, values.

    describe.py <dump of gcc's -fdump-lang-class> <dump of abidw> <namespace>

The virtual tables are those the compiler makes of the headers; the members come from the debug
information of the built object.
"""

import re
import sys
import xml.etree.ElementTree as ElementTree


def read_tables(path, namespace):
    """Sizes and tables of the namespace by class, in the form {name: (size line, [slot, ...])}."""
    sizes, tables = {}, {}
    for block in open(path, encoding="utf-8").read().split("\n\n"):
        lines = block.strip().split("\n")
        heading = re.fullmatch(rf"(Class|Vtable for) ({namespace}::[\w:]+)", lines[0])
        if not heading:
            continue
        kind, name = heading.groups()
        if kind == "Class":
            size, align = re.search(r"size=(\d+) align=(\d+)", lines[1]).groups()
            sizes[name] = f"size {size}, alignment {align}"
        else:
            # Without the offset to the top and the type information.
            entries = [re.sub(r"^\d+ +", "", line) for line in lines[4:]]
            tables[name] = [
                entry.replace("(int (*)(...))", "").replace("__cxa_pure_virtual", "pure")
                for entry in entries
            ]
            if tables[name][:2] == ["0", "0"]:
                tables[name][:2] = ["destructor"] * 2
    return sizes, tables


class Dump:
    """The types of an abidw dump."""

    def __init__(self, path):
        self.types = {}
        self.classes = {}
        self.namespaces = set()
        self.visit(ElementTree.parse(path).getroot(), "")

    def visit(self, node, scope):
        for child in node:
            inner = scope
            if child.tag in ("namespace-decl", "class-decl", "enum-decl", "union-decl"):
                inner = f"{scope}::{child.get('name')}" if scope else child.get("name")
            if child.tag == "namespace-decl":
                self.namespaces.add(inner)
            if child.get("id"):
                name = f"{scope}::{child.get('name')}" if scope else child.get("name")
                self.types[child.get("id")] = (child, name)
            if child.tag == "class-decl" and child.get("is-declaration-only") != "yes":
                self.classes.setdefault(inner, child)
            self.visit(child, inner)

    def name_of(self, type_id):
        node, name = self.types.get(type_id, (None, "?"))
        if node is None:
            return name
        if node.tag == "pointer-type-def":
            return self.name_of(node.get("type-id")) + "*"
        if node.tag == "reference-type-def":
            return self.name_of(node.get("type-id")) + "&"
        if node.tag == "qualified-type-def":
            return self.name_of(node.get("type-id")) + " const"
        return name

    def describe(self, name):
        node = self.classes.get(name)
        if node is None:
            return ["  not in the debug information"]
        lines = []
        for base in node.findall("base-class"):
            offset = int(base.get("layout-offset-in-bits")) // 8
            lines.append(f"  {offset:4}  base {self.name_of(base.get('type-id'))}")
        for member in node.findall("data-member"):
            if member.get("static") == "yes":
                continue
            offset = int(member.get("layout-offset-in-bits")) // 8
            variable = member.find("var-decl")
            lines.append(
                f"  {offset:4}  {variable.get('name')}: {self.name_of(variable.get('type-id'))}"
            )
        return lines

    def virtual_operations(self, name):
        """The names of the class's virtual operations by slot."""
        operations = {}
        node = self.classes.get(name)
        if node is None:
            return operations
        for base in node.findall("base-class"):
            operations.update(self.virtual_operations(self.name_of(base.get("type-id"))))
        for member in node.findall("member-function"):
            function = member.find("function-decl")
            if member.get("vtable-offset") and member.get("destructor") != "yes":
                types = [
                    self.name_of(parameter.get("type-id"))
                    for parameter in function.findall("parameter")
                    if parameter.get("is-artificial") != "yes"
                ]
                text = f"{function.get('name')}({', '.join(types)})"
                operations[int(member.get("vtable-offset"))] = text
        return operations

    def enumerations(self, namespace):
        """The values by the name of the enumeration."""
        found = {}
        for node, name in self.types.values():
            if node.tag == "enum-decl" and name.startswith(f"{namespace}::"):
                found[name] = [
                    f"  {value.get('value'):>4}  {value.get('name')}"
                    for value in node.findall("enumerator")
                ]
        return found


def main():
    classes, types, namespace = sys.argv[1:]
    sizes, tables = read_tables(classes, namespace)
    dump = Dump(types)
    for name in sorted(sizes):
        print(f"{name}: {sizes[name]}")
        for line in dump.describe(name):
            print(line)
        operations = dump.virtual_operations(name)
        for slot, entry in enumerate(tables.get(name, [])):
            if entry == "pure":
                # A class that only a header uses is not in the library's debug information.
                entry = f"pure {operations.get(slot, '?')}"
            elif slot in operations:
                entry = f"{entry.rpartition('::')[0]}::{operations[slot]}"
            print(f"  slot {slot}: {entry}")
        print()
    for name, values in sorted(dump.enumerations(namespace).items()):
        scope = name.rpartition("::")[0]
        if scope not in sizes and scope not in dump.namespaces:
            continue  # Of a private class.
        print("\n".join([f"{name}: enumeration", *values, ""]))


main()
