#!/usr/bin/env python3
"""Prints the binary interface of a module: what it exports, what it asks of others, and the layouts it relies on.

Usage: record.py MODULE DEBUG_FILE [RECORD]
DEBUG_FILE is what was stripped from MODULE, or MODULE again where it is not stripped.
With RECORD, compares with that file instead: prints the differences and exits with 1 when there are any. With an empty
DEBUG_FILE only what every build of every architecture has: links, exports, and what is asked of the platform.
"""
import difflib
import re
import subprocess
import sys
import xml.etree.ElementTree as xml

CLASSES = {
    "APITableEntry", "VEXAKOVAAccount", "VEXA::APIRequest", "VEXA::APIResponse", "VEXA::Relay::Config",
    "VEXA::Relay::AliasConf", "VEXA::Relay::ServerConf", "VEXA::Relay::KovaConf", "VEXA::Relay::AuthConf",
    "VEXA::Relay::UpnpConf", "VEXA::Relay::RelaydConf", "VEXA::Relay::AliasStatus", "VEXA::Relay::AliasRequest",
    "VEXA::Relay::Request", "Json::Value",
}

# The C and C++ run-time and libcrypto version their symbols; jsoncpp's are those of its namespace.
OF_EVERY_BUILD = re.compile(r"(?!size |offset |slot |imports (.*@|(vtable for )?Json::|_))")


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()


def links(module):
    for line in run("readelf", "--dynamic", "--wide", module):
        if found := re.search(r"\((NEEDED|SONAME|RPATH|RUNPATH|TEXTREL)\)\s*(?:.*\[(.*)\])?", line):
            yield " ".join(part for part in found.groups() if part)


def symbols(word, kind, module):
    for line in run("nm", "--dynamic", "--demangle", "--format=posix", kind, module):
        yield f"{word} " + re.sub(r" [A-Za-z]( [0-9a-f]+)* *$", "", line)


def layouts(debug_file):
    """Sizes and offsets in bytes, slots of virtual functions counted from 0."""
    lines = run("abidw", "--load-all-types", "--no-show-locs", debug_file)

    def visit(node, scope):
        name = scope + node.get("name", "") if node.tag in ("namespace-decl", "class-decl") else scope
        if node.tag == "class-decl" and name in CLASSES and not node.get("is-declaration-only"):
            yield f"size {name} {int(node.get('size-in-bits')) // 8}"
            for member in node.findall("data-member[@access='public'][@layout-offset-in-bits]"):
                yield f"offset {name}::{member[0].get('name')} {int(member.get('layout-offset-in-bits')) // 8}"
            for function in node.findall("member-function[@vtable-offset]"):
                if not function.get("destructor"):
                    yield f"slot {name}::{function[0].get('name')} {function.get('vtable-offset')}"
        for child in node:
            yield from visit(child, name + "::" if node.tag == "namespace-decl" else scope)

    return visit(xml.fromstring("\n".join(lines)), "")


def record(module, debug_file):
    parts = (
        links(module),
        symbols("exports", "--defined-only", module),
        symbols("imports", "--undefined-only", module),
        layouts(debug_file) if debug_file else (),
    )
    return [line for part in parts for line in sorted(set(part))]


def main(module, debug_file, expected=None):
    found = record(module, debug_file)
    if expected is None:
        return print("\n".join(found))
    with open(expected, encoding="utf-8") as file:
        recorded = file.read().splitlines()
    if not debug_file:
        recorded, found = (sorted(filter(OF_EVERY_BUILD.match, lines)) for lines in (recorded, found))
    differences = list(difflib.unified_diff(recorded, found, expected, module, lineterm=""))
    if differences:
        print(*differences, sep="\n")
        intended = f"{sys.argv[0]} '{module}' '{debug_file}' >'{expected}'" if debug_file else "script/package says how"
        sys.exit(f"The module's binary interface differs from {expected}. Where that is meant, record the new one:\n"
                 f"  {intended}")


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    main(*sys.argv[1:])
